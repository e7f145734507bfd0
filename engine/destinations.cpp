// Destinations that name pages: links, outline entries, page and document actions and named
// destinations, sent on to the pages that take the places of pages about to go.
#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine/internal.h"
#include "engine/page_operations.h"

namespace zpdf::engine {
namespace {

struct MovedPages {
    pdf_document* doc = nullptr;
    std::unordered_map<int, int> to;  // object numbers: an old page's, its successor's
};

// An explicit destination ([page /XYZ ...]), or a dictionary holding one under /D.
void Retarget(fz_context* ctx, pdf_obj* dest, const MovedPages& moved) {
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    if (!pdf_is_array(ctx, dest)) return;
    pdf_obj* page = pdf_array_get(ctx, dest, 0);
    if (!pdf_is_indirect(ctx, page)) return;
    const auto found = moved.to.find(pdf_to_num(ctx, page));
    if (found != moved.to.end())
        pdf_array_put_drop(ctx, dest, 0, pdf_new_indirect(ctx, moved.doc, found->second, 0));
}

void RetargetAction(fz_context* ctx, pdf_obj* action, const MovedPages& moved) {
    if (pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(GoTo)))
        Retarget(ctx, pdf_dict_get(ctx, action, PDF_NAME(D)), moved);
}

// A link annotation or an outline entry: its /Dest, or the destination of its action.
void RetargetHolder(fz_context* ctx, pdf_obj* holder, const MovedPages& moved) {
    Retarget(ctx, pdf_dict_get(ctx, holder, PDF_NAME(Dest)), moved);
    RetargetAction(ctx, pdf_dict_get(ctx, holder, PDF_NAME(A)), moved);
}

void RetargetOutline(fz_context* ctx, pdf_obj* outlines, const MovedPages& moved) {
    std::vector<pdf_obj*> pending{pdf_dict_get(ctx, outlines, PDF_NAME(First))};
    std::unordered_set<int> seen;  // a broken outline can loop
    while (!pending.empty()) {
        pdf_obj* item = pending.back();
        pending.pop_back();
        if (!pdf_is_dict(ctx, item)) continue;
        if (pdf_is_indirect(ctx, item) && !seen.insert(pdf_to_num(ctx, item)).second) continue;
        RetargetHolder(ctx, item, moved);
        pending.push_back(pdf_dict_get(ctx, item, PDF_NAME(Next)));
        pending.push_back(pdf_dict_get(ctx, item, PDF_NAME(First)));
    }
}

// The `going` pages from index `from` on are about to go: what they hold does not matter.
void RetargetAll(Document::Impl& impl, const MovedPages& moved, int from, int going) {
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    const int pages = CountDocumentPages(impl);
    for (int index = 0; index < pages; ++index) {
        if (index == from) index += going;
        if (index >= pages) break;
        pdf_obj* page = LookupPage(impl, index);
        pdf_obj* annots = pdf_dict_get(ctx, page, PDF_NAME(Annots));
        for (int i = 0; i < pdf_array_len(ctx, annots); ++i) {
            pdf_obj* annot = pdf_array_get(ctx, annots, i);
            if (pdf_name_eq(ctx, pdf_dict_get(ctx, annot, PDF_NAME(Subtype)), PDF_NAME(Link)))
                RetargetHolder(ctx, annot, moved);
        }
        pdf_obj* actions = pdf_dict_get(ctx, page, PDF_NAME(AA));
        RetargetAction(ctx, pdf_dict_get(ctx, actions, PDF_NAME(O)), moved);
        RetargetAction(ctx, pdf_dict_get(ctx, actions, PDF_NAME(C)), moved);
        // A long document's pages are not all held at once.
        if (index % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, doc);
    }
    pdf_obj* catalog = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    pdf_obj* open = pdf_dict_gets(ctx, catalog, "OpenAction");
    if (pdf_is_array(ctx, open)) Retarget(ctx, open, moved);
    RetargetAction(ctx, open, moved);
    RetargetOutline(ctx, pdf_dict_get(ctx, catalog, PDF_NAME(Outlines)), moved);
    pdf_obj* old_style = pdf_dict_get(ctx, catalog, PDF_NAME(Dests));
    for (int i = 0; i < pdf_dict_len(ctx, old_style); ++i)
        Retarget(ctx, pdf_dict_get_val(ctx, old_style, i), moved);
    // The loaded tree holds the destinations themselves, so changing them changes the tree's.
    pdf_obj* named = pdf_load_name_tree(ctx, doc, PDF_NAME(Dests));
    fz_try(ctx) {
        for (int i = 0; i < pdf_dict_len(ctx, named); ++i)
            Retarget(ctx, pdf_dict_get_val(ctx, named, i), moved);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, named);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

}  // namespace

void RetargetDestinations(Document& doc, int from, int to, int count) {
    Document::Impl& impl = doc.Internals();
    MakePendingAppends(impl);
    PlaceObjectsBeforeChanges(impl);
    fz_context* ctx = impl.ctx;
    fz_try(ctx) {
        const int pages = CountDocumentPages(impl);
        MovedPages moved{impl.doc, {}};
        for (int i = 0; i < count && from + i < pages && to + i < pages; ++i) {
            // The pages' numbers as the page cache holds them (0: a page not an object of its
            // own, which no destination can name).
            const int old_page = pdf_obj_parent_num(ctx, LookupPage(impl, from + i));
            const int new_page = pdf_obj_parent_num(ctx, LookupPage(impl, to + i));
            if (old_page > 0 && new_page > 0) moved.to.emplace(old_page, new_page);
        }
        if (!moved.to.empty()) RetargetAll(impl, moved, from, std::min(count, pages - from));
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot send links on to the new pages");
    }
}

void RemoveReplacedPages(Document& doc, int at, int count) {
    RetargetDestinations(doc, at + count, at, count);
    for (int i = 0; i < count; ++i) DeletePage(doc, at + count);
}

}  // namespace zpdf::engine
