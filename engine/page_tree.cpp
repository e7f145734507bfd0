// The page tree: its counts kept true to its pages, pages found by index without a walk per
// page, and pages taken out of it.
#include <algorithm>
#include <climits>
#include <new>

#include "engine/internal.h"
#include "engine/page_operations.h"

namespace zpdf::engine {
namespace {

// A walk of the page tree that counts the pages below each node, as the engine's lookup finds
// them. Checking, it stops at the first node whose /Count is wrong, or when it has looked at
// `budget` kids; correcting, it gives every node the number it holds.
struct PageTreeWalk {
    int64_t* counts = nullptr;  // by object number, for nodes met before; -1 for not yet
    int length = 0;
    bool correct = false;
    int budget = 0;
    bool found_wrong_count = false;
};

int64_t CountPagesBelow(fz_context* ctx, pdf_obj* node, PageTreeWalk* walk, int depth) {
    const int num = pdf_is_indirect(ctx, node) ? pdf_to_num(ctx, node) : 0;
    if (num > 0 && num < walk->length && walk->counts[num] >= 0) return walk->counts[num];
    if (depth > kMaxPageTreeDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "page tree too deep");
    if (pdf_mark_obj(ctx, node)) fz_throw(ctx, FZ_ERROR_GENERIC, "cycle in the page tree");
    volatile int64_t total = 0;
    fz_try(ctx) {
        pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
        const int length = pdf_array_len(ctx, kids);
        for (int i = 0; i < length; ++i) {
            if (!walk->correct && --walk->budget < 0)
                fz_throw(ctx, FZ_ERROR_GENERIC, "enough of the page tree checked");
            pdf_obj* kid = pdf_array_get(ctx, kids, i);
            total =
                total + (IsPageTreeNode(ctx, kid) ? CountPagesBelow(ctx, kid, walk, depth + 1) : 1);
            if (total > INT_MAX) fz_throw(ctx, FZ_ERROR_GENERIC, "too many pages");
        }
        pdf_obj* count = pdf_dict_get(ctx, node, PDF_NAME(Count));
        if (!pdf_is_int(ctx, count) || pdf_to_int64(ctx, count) != total) {
            if (!walk->correct) {
                walk->found_wrong_count = true;
                fz_throw(ctx, FZ_ERROR_GENERIC, "a page count is wrong");
            }
            pdf_dict_put_int(ctx, node, PDF_NAME(Count), total);
        }
    }
    fz_always(ctx) {
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    if (num > 0 && num < walk->length) walk->counts[num] = total;
    return total;
}

// Kids looked at when the page tree is only checked: every page of a document of this many
// pages, the first ones of a longer one. Looking at a kid parses it, and checking all of a
// hundred thousand pages took longer than everything else opening the document does.
constexpr int kPageTreeKidsChecked = 2048;

// A root /Count that the tree cannot hold: not a number, negative, none for kids or some for
// none, or more pages than the document has objects for (eight to an object allows for nodes
// that several parents share).
bool RootCountImplausible(fz_context* ctx, pdf_document* doc, pdf_obj* root) {
    pdf_obj* count = pdf_dict_get(ctx, root, PDF_NAME(Count));
    if (!pdf_is_int(ctx, count)) return true;
    const int64_t pages = pdf_to_int64(ctx, count);
    const bool kids = pdf_array_len(ctx, pdf_dict_get(ctx, root, PDF_NAME(Kids))) > 0;
    return pages < 0 || (pages > 0) != kids ||
           pages > 8 * static_cast<int64_t>(pdf_xref_len(ctx, doc));
}

// Walks the tree from the root; a walk that stops early (checked enough, a wrong count found
// while checking, a cycle, too deep) changes nothing further.
void WalkPageTree(fz_context* ctx, pdf_obj* root, PageTreeWalk* walk) {
    for (int i = 0; i < walk->length; ++i) walk->counts[i] = -1;
    fz_try(ctx) {
        CountPagesBelow(ctx, root, walk, 0);
    }
    fz_catch(ctx) {
        if (walk->correct) fz_rethrow(ctx);
    }
}

}  // namespace

// The engine takes the number of pages from the page tree root's /Count and finds a page by
// the /Count of the nodes on the way down. A count that disagrees with the tree makes pages
// appear that are not there (a damaged /Count of ten billion) or vanish, or be found in another
// one's place. The tree is checked (all of it for a document of up to kPageTreeKidsChecked
// pages) and, when a count is wrong, each node is given the number of pages it holds; a
// repaired document, or one whose root count the tree cannot hold, is corrected at once. A tree
// with a cycle or too deep is left as it is: the engine refuses its pages as it meets them.
void CorrectPageCounts(fz_context* ctx, pdf_document* doc) {
    PageTreeWalk walk;
    fz_var(walk);
    fz_try(ctx) {
        pdf_obj* root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        if (pdf_is_dict(ctx, root)) {
            walk.length = pdf_xref_len(ctx, doc);
            walk.counts = static_cast<int64_t*>(
                fz_malloc(ctx, sizeof(int64_t) * static_cast<size_t>(walk.length)));
            walk.correct = pdf_was_repaired(ctx, doc) || RootCountImplausible(ctx, doc, root);
            if (!walk.correct) {
                walk.budget = kPageTreeKidsChecked;
                WalkPageTree(ctx, root, &walk);
                walk.correct = walk.found_wrong_count;
            }
            if (walk.correct) WalkPageTree(ctx, root, &walk);
        }
    }
    fz_always(ctx) {
        fz_free(ctx, walk.counts);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot check the page counts: %s", fz_caught_message(ctx));
    }
}

namespace {

// Whether the catalog's /Pages is a page itself rather than a node of pages: typed /Page, with
// no /Kids. Other readers take such a root as a document of that one page; the engine counts it
// as none. An untyped root without kids is no page to them either.
bool RootIsAPage(fz_context* ctx, pdf_obj* root) {
    return !pdf_is_array(ctx, pdf_dict_get(ctx, root, PDF_NAME(Kids))) &&
           pdf_name_eq(ctx, pdf_dict_get(ctx, root, PDF_NAME(Type)), PDF_NAME(Page));
}

}  // namespace

void MakePageTreeRootANode(fz_context* ctx, pdf_document* doc) {
    pdf_obj* catalog = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    pdf_obj* page = pdf_dict_get(ctx, catalog, PDF_NAME(Pages));
    if (!pdf_is_indirect(ctx, page) || !RootIsAPage(ctx, page)) return;
    fz_warn(ctx, "the page tree root is a page: putting it under a new root");
    pdf_obj* page_ref = nullptr;
    pdf_obj* node = nullptr;
    fz_var(page_ref);
    fz_var(node);
    fz_try(ctx) {
        page_ref = pdf_keep_obj(ctx, page);
        node = pdf_add_new_dict(ctx, doc, 3);
        pdf_dict_put(ctx, node, PDF_NAME(Type), PDF_NAME(Pages));
        pdf_obj* kids = pdf_dict_put_array(ctx, node, PDF_NAME(Kids), 1);
        pdf_array_push(ctx, kids, page_ref);
        pdf_dict_put_int(ctx, node, PDF_NAME(Count), 1);
        pdf_dict_put(ctx, pdf_resolve_indirect(ctx, page_ref), PDF_NAME(Parent), node);
        pdf_dict_put(ctx, catalog, PDF_NAME(Pages), node);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, node);
        pdf_drop_obj(ctx, page_ref);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

namespace {

// Whether object `num` is a catalog whose /Pages is a dictionary. Never throws: an object that
// cannot be read is none.
bool IsCatalogWithPages(fz_context* ctx, pdf_document* doc, int num) {
    volatile bool found = false;
    pdf_obj* obj = nullptr;
    fz_var(obj);
    fz_try(ctx) {
        const pdf_xref_entry* entry = pdf_get_xref_entry_no_null(ctx, doc, num);
        if (entry->type == 'n' || entry->type == 'o') {
            obj = pdf_load_object(ctx, doc, num);
            found = pdf_name_eq(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Type)), PDF_NAME(Catalog)) &&
                    pdf_is_dict(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Pages)));
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, obj);
    }
    fz_catch(ctx) {
        found = false;
    }
    return found;
}

// A trailer can name as its /Root an object the file does not hold (an update that lost its
// objects), while the file's own catalog is still there; a rebuilt table keeps the trailer's
// /Root as it was. The first catalog with a page tree becomes the root, as tolerant readers
// take it.
void AdoptCatalogWithPages(fz_context* ctx, pdf_document* doc) {
    const int length = pdf_xref_len(ctx, doc);
    for (int num = 1; num < length; ++num) {
        if (num % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, doc);
        if (!IsCatalogWithPages(ctx, doc, num)) continue;
        fz_warn(ctx, "the trailer's catalog has no page tree: taking object %d as the catalog",
                num);
        pdf_dict_put_drop(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root),
                          pdf_new_indirect(ctx, doc, num, 0));
        return;
    }
}

}  // namespace

// A cross-reference table can read without error and still leave the catalog's page tree out,
// when a damaged subsection header cuts the table short. The engine rebuilds a table only when
// reading it fails, or when an object is not where the table says; an object the table does not
// list at all is simply absent. A document whose page tree cannot be reached is rebuilt here
// from its objects, with the steps the engine takes when it rebuilds one on its own.
void RebuildIfPageTreeUnreachable(fz_context* ctx, pdf_document* doc) {
    fz_try(ctx) {
        if (!doc->repair_attempted &&
            !pdf_is_dict(ctx, pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages"))) {
            fz_warn(ctx, "the page tree cannot be reached: rebuilding the cross-reference table");
            pdf_repair_xref(ctx, doc);
            pdf_repair_obj_stms(ctx, doc);
            pdf_repair_trailer(ctx, doc);
        }
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot rebuild the document: %s", fz_caught_message(ctx));
    }
    fz_try(ctx) {
        if (!pdf_is_dict(ctx, pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages")))
            AdoptCatalogWithPages(ctx, doc);
        MakePageTreeRootANode(ctx, doc);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot find the page tree: %s", fz_caught_message(ctx));
    }
}

void RequireCatalog(fz_context* ctx, pdf_document* doc) {
    if (!pdf_is_dict(ctx, pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root)))) {
        fz_throw(ctx, FZ_ERROR_GENERIC,
                 doc->repair_attempted
                     ? "the document has no catalog: its damaged table could not be repaired"
                     : "the document has no catalog");
    }
}

int CountDocumentPages(fz_context* ctx, pdf_document* doc) {
    RequireCatalog(ctx, doc);
    return pdf_count_pages(ctx, doc);
}

void KeepPageCountsCorrect(Document::Impl& impl) {
    if (impl.counts_corrected_after_repair || impl.doc == nullptr) return;
    if (!pdf_was_repaired(impl.ctx, impl.doc)) return;
    CorrectPageCounts(impl.ctx, impl.doc);
    impl.counts_corrected_after_repair = true;
}

int CountOwnPages(Document::Impl& impl) {
    KeepPageCountsCorrect(impl);
    return CountDocumentPages(impl.ctx, impl.doc);
}

int CountDocumentPages(Document::Impl& impl) {
    if (!impl.pending.appends.empty()) {
        fz_throw(impl.ctx, FZ_ERROR_GENERIC, "the appended pages are not in the page tree yet");
    }
    return CountOwnPages(impl);
}

namespace {

// One walk of the page tree: the visitor, and how far it got.
struct PageVisitWalk {
    pdf_document* doc;
    int limit;
    int found;
    PageVisitor visit;
    void* state;
};

// Visits the pages below `node` in page order. The nodes on the way down are held, so that
// releasing the pages parsed so far can let go of everything else.
void VisitPagesBelow(fz_context* ctx, pdf_obj* node, PageVisitWalk* walk, int depth) {
    if (depth > kMaxPageTreeDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "page tree too deep");
    if (pdf_mark_obj(ctx, node)) fz_throw(ctx, FZ_ERROR_GENERIC, "cycle in the page tree");
    pdf_obj* kids = nullptr;
    pdf_obj* child = nullptr;
    fz_var(kids);
    fz_var(child);
    fz_try(ctx) {
        kids =
            pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, pdf_dict_get(ctx, node, PDF_NAME(Kids))));
        const int length = pdf_array_len(ctx, kids);
        for (int i = 0; i < length; ++i) {
            pdf_obj* kid = pdf_array_get(ctx, kids, i);
            if (IsPageTreeNode(ctx, kid)) {
                child = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, kid));
                VisitPagesBelow(ctx, child, walk, depth + 1);
                pdf_drop_obj(ctx, child);
                child = nullptr;
                continue;
            }
            if (walk->found >= walk->limit)
                fz_throw(ctx, FZ_ERROR_GENERIC, "more pages than counted");
            walk->visit(ctx, kid, walk->found++, walk->state);
            if (walk->found % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, walk->doc);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, child);
        pdf_drop_obj(ctx, kids);
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

void NotePageNumber(fz_context* ctx, pdf_obj* kid, int index, void* state) {
    static_cast<int*>(state)[index] = pdf_is_indirect(ctx, kid) ? pdf_to_num(ctx, kid) : 0;
}

// Fills the page number cache; leaves it empty when the tree does not hold `count` pages
// where the lookup finds them.
void LoadPageNumbers(Document::Impl& impl, int count) noexcept {
    try {
        impl.page_numbers.assign(static_cast<std::size_t>(count), 0);
    } catch (const std::bad_alloc&) {
        impl.page_numbers.clear();
        return;
    }
    if (VisitPages(impl.ctx, impl.doc, count, NotePageNumber, impl.page_numbers.data()) != count)
        impl.page_numbers.clear();
}

}  // namespace

int VisitPages(fz_context* ctx, pdf_document* doc, int limit, PageVisitor visit,
               void* state) noexcept {
    PageVisitWalk walk{doc, limit, 0, visit, state};
    PageVisitWalk* const held = &walk;
    pdf_obj* root = nullptr;
    fz_var(root);
    fz_try(ctx) {
        pdf_obj* pages = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        root = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, pages));
        VisitPagesBelow(ctx, root, held, 0);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, root);
    }
    fz_catch(ctx) {
        held->found = -1;
    }
    return walk.found;
}

bool IsPageTreeNode(fz_context* ctx, pdf_obj* kid) {
    pdf_obj* type = pdf_dict_get(ctx, kid, PDF_NAME(Type));
    if (type != nullptr) return pdf_name_eq(ctx, type, PDF_NAME(Pages)) != 0;
    return pdf_dict_get(ctx, kid, PDF_NAME(Kids)) != nullptr &&
           pdf_dict_get(ctx, kid, PDF_NAME(MediaBox)) == nullptr;
}

pdf_obj* LookupPage(Document::Impl& impl, int index) {
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    const int count = CountDocumentPages(impl);
    if (index < 0 || index >= count) {
        fz_throw(ctx, FZ_ERROR_GENERIC, "page %d does not exist", index + 1);
    }
    // A repair may renumber everything; a count that moved means pages came or went.
    const bool repaired = pdf_was_repaired(ctx, doc) != 0;
    if (impl.page_numbers.size() != static_cast<std::size_t>(count) ||
        impl.page_numbers_after_repair != repaired) {
        impl.page_numbers.clear();
        LoadPageNumbers(impl, count);
        impl.page_numbers_after_repair = repaired;
    }
    if (!impl.page_numbers.empty() && impl.page_numbers[static_cast<std::size_t>(index)] > 0) {
        pdf_obj* page =
            pdf_load_object(ctx, doc, impl.page_numbers[static_cast<std::size_t>(index)]);
        // The document's table of objects keeps the page; the caller borrows it from there, as
        // it would borrow it from the page tree.
        pdf_drop_obj(ctx, page);
        if (pdf_is_dict(ctx, page)) return page;
    }
    return pdf_lookup_page_obj(ctx, doc, index);
}

namespace {

// The index of the kid of `node` that refers to object `num`, or -1.
int KidIndex(fz_context* ctx, pdf_obj* node, int num) {
    pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
    const int length = pdf_array_len(ctx, kids);
    for (int i = 0; i < length; ++i) {
        pdf_obj* kid = pdf_array_get(ctx, kids, i);
        if (pdf_is_indirect(ctx, kid) && pdf_to_num(ctx, kid) == num) return i;
    }
    return -1;
}

// Takes the page at `index` out of its parent node and lowers the counts above it. The engine's
// own deletion finds the page by looking at every kid before it, which parses every page in
// front of it at once. Done only where the page number cache places the page beyond doubt: the
// page is in the tree once, and its /Parent chain reaches the root through nodes that list each
// other. 0 (nothing changed) otherwise, and for a document with page labels, which the engine
// adjusts. Throws an engine error.
int RemoveFromParent(Document::Impl& impl, int index) {
    fz_context* ctx = impl.ctx;
    pdf_obj* page = LookupPage(impl, index);  // fills the cache
    if (impl.page_numbers.size() <= static_cast<std::size_t>(index)) return 0;
    const int num = impl.page_numbers[static_cast<std::size_t>(index)];
    if (num <= 0 || std::count(impl.page_numbers.begin(), impl.page_numbers.end(), num) != 1)
        return 0;
    pdf_obj* catalog = pdf_dict_get(ctx, pdf_trailer(ctx, impl.doc), PDF_NAME(Root));
    if (pdf_dict_gets(ctx, catalog, "PageLabels") != nullptr) return 0;
    pdf_obj* root = pdf_dict_get(ctx, catalog, PDF_NAME(Pages));
    pdf_obj* parent = pdf_dict_get(ctx, page, PDF_NAME(Parent));
    if (!pdf_is_indirect(ctx, root) || !pdf_is_indirect(ctx, parent)) return 0;
    const int at = KidIndex(ctx, parent, num);
    if (at < 0) return 0;
    int depth = 0;
    for (pdf_obj* node = parent; pdf_to_num(ctx, node) != pdf_to_num(ctx, root);) {
        pdf_obj* up = pdf_dict_get(ctx, node, PDF_NAME(Parent));
        if (++depth > kMaxPageTreeDepth || !pdf_is_indirect(ctx, up) ||
            KidIndex(ctx, up, pdf_to_num(ctx, node)) < 0)
            return 0;
        node = up;
    }
    pdf_array_delete(ctx, pdf_dict_get(ctx, parent, PDF_NAME(Kids)), at);
    for (pdf_obj* node = parent;; node = pdf_dict_get(ctx, node, PDF_NAME(Parent))) {
        pdf_dict_put_int(ctx, node, PDF_NAME(Count),
                         pdf_dict_get_int(ctx, node, PDF_NAME(Count)) - 1);
        if (pdf_to_num(ctx, node) == pdf_to_num(ctx, root)) break;
    }
    // A node left without kids goes as well, and so on upwards: deleting a run of pages (the
    // pages an import only borrowed, say) leaves no empty nodes in the tree.
    for (pdf_obj* node = parent; pdf_to_num(ctx, node) != pdf_to_num(ctx, root);) {
        if (pdf_array_len(ctx, pdf_dict_get(ctx, node, PDF_NAME(Kids))) > 0) break;
        pdf_obj* up = pdf_dict_get(ctx, node, PDF_NAME(Parent));
        pdf_array_delete(ctx, pdf_dict_get(ctx, up, PDF_NAME(Kids)),
                         KidIndex(ctx, up, pdf_to_num(ctx, node)));
        node = up;
    }
    return 1;
}

}  // namespace

void PrepareForNewPages(fz_context* ctx, pdf_document* doc) {
    // The first new object can start a new section of the document with a trailer of its own,
    // so the trailer is looked up again after each object is added.
    pdf_obj* info = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Info));
    if (!pdf_is_dict(ctx, info)) {
        info = pdf_add_new_dict(ctx, doc, 2);
        pdf_dict_put_drop(ctx, pdf_trailer(ctx, doc), PDF_NAME(Info), info);
    }
    pdf_dict_put_text_string(ctx, info, PDF_NAME(Producer), kProducer);

    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    if (!pdf_is_dict(ctx, root)) fz_throw(ctx, FZ_ERROR_GENERIC, "the document has no catalog");
    if (!pdf_dict_get(ctx, root, PDF_NAME(Type)))
        pdf_dict_put(ctx, root, PDF_NAME(Type), PDF_NAME(Catalog));
    MakePageTreeRootANode(ctx, doc);
    pdf_obj* pages = pdf_dict_get(ctx, root, PDF_NAME(Pages));
    if (!pdf_is_dict(ctx, pages)) {
        pages = pdf_add_new_dict(ctx, doc, 3);
        pdf_dict_put_drop(ctx, root, PDF_NAME(Pages), pages);
    }
    if (!pdf_dict_get(ctx, pages, PDF_NAME(Type)))
        pdf_dict_put(ctx, pages, PDF_NAME(Type), PDF_NAME(Pages));
    if (!pdf_is_array(ctx, pdf_dict_get(ctx, pages, PDF_NAME(Kids)))) {
        pdf_dict_put_int(ctx, pages, PDF_NAME(Count), 0);
        pdf_dict_put_drop(ctx, pages, PDF_NAME(Kids), pdf_add_new_array(ctx, doc, 1));
    }
}

void DeletePage(Document& doc, int index) {
    Document::Impl& impl = doc.Internals();
    MakePendingAppends(impl);
    PlaceObjectsBeforeChanges(impl);
    fz_context* ctx = impl.ctx;
    volatile int removed_here = 0;
    volatile int page = 0;
    fz_try(ctx) {
        if (index >= 0 && index < CountDocumentPages(impl)) {
            page = pdf_obj_parent_num(ctx, LookupPage(impl, index));
            removed_here = RemoveFromParent(impl, index);
            if (removed_here == 0) pdf_delete_page(ctx, impl.doc, index);
        }
    }
    fz_catch(ctx) {
        PageTreeChanged(impl);
        ThrowCaught(ctx, ErrorCategory::Other, "cannot delete a page");
    }
    if (page > 0) impl.removed_pages.push_back(static_cast<int>(page));
    // The cache follows a removal of our own; the engine's may have changed the tree otherwise.
    if (removed_here != 0) {
        impl.page_numbers.erase(impl.page_numbers.begin() + index);
    } else {
        PageTreeChanged(impl);
    }
}

void RemoveImportedPages(Document& doc, int from) {
    Document::Impl& impl = doc.Internals();
    const std::size_t removed_before = impl.removed_pages.size();
    for (int i = from, total = doc.PageCount(); i < total; ++i) DeletePage(doc, from);
    impl.removed_pages.resize(removed_before);
}

}  // namespace zpdf::engine
