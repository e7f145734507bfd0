#include "engine/graft.h"

#include <algorithm>
#include <new>
#include <optional>
#include <string>

#include "engine/page_copy.h"
#include "engine/page_operations.h"
#include "engine/page_tree_plan.h"
#include "engine/security/source_security.h"

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// Engine-level helpers: plain data only, so that the engine's error jumps skip no destructor.
// Each either returns normally or throws an engine error.

// The page at `index` of `src`, looked up in the source document's own context (the two
// documents keep separate contexts, and an error must reach the handler that waits for it);
// its failure is thrown again in `ctx`.
pdf_obj* LookupSourcePage(fz_context* ctx, Document::Impl& src, int index) {
    fz_context* own = src.ctx;
    pdf_obj* volatile page = nullptr;
    volatile int failed = 0;
    char why[256] = {};
    fz_try(own) {
        page = LookupPage(src, index);
    }
    fz_catch(own) {
        fz_strlcpy(why, fz_caught_message(own), sizeof why);
        failed = 1;
    }
    if (failed) fz_throw(ctx, FZ_ERROR_GENERIC, "%s", why);
    return page;
}

// The object number of the page at `index` of `src`, 0 for a page that is no object of its
// own: from the page number cache where it describes the document, without reading the page.
int SourcePageNumber(fz_context* ctx, Document::Impl& src, int index) {
    const auto at = static_cast<std::size_t>(index);
    if (at < src.page_numbers.size() && src.page_numbers[at] > 0) return src.page_numbers[at];
    pdf_obj* page = LookupSourcePage(ctx, src, index);
    if (at < src.page_numbers.size()) return src.page_numbers[at];
    return pdf_is_indirect(ctx, page) ? pdf_to_num(ctx, page) : 0;
}

// Where a run goes: the node whose Kids receive it, the position there, and the nodes from the
// root down to that node, whose counts grow by the run. `path` is allocated by the engine.
struct InsertionPoint {
    pdf_obj** path = nullptr;  // borrowed nodes, root first
    int depth = 0;
    int capacity = 0;
    int index = 0;
};

void PushNode(fz_context* ctx, InsertionPoint* point, pdf_obj* node) {
    const int number = pdf_to_num(ctx, node);
    for (int i = 0; i < point->depth && number != 0; ++i) {
        if (pdf_to_num(ctx, point->path[i]) == number)
            fz_throw(ctx, FZ_ERROR_GENERIC, "cycle in page tree");
    }
    if (point->depth == point->capacity) {
        const int capacity = point->capacity == 0 ? 8 : point->capacity * 2;
        point->path = fz_realloc_array(ctx, point->path, capacity, pdf_obj*);
        point->capacity = capacity;
    }
    point->path[point->depth++] = node;
}

// Finds the place in front of page `at`, walking down from the root by the nodes' counts as the
// engine's page lookup does, so that the run lands where the engine will count it. Appending
// puts the run at the end of the root's Kids, which keeps the tree as shallow as it was.
void FindInsertionPoint(fz_context* ctx, pdf_document* doc, int at, int total,
                        InsertionPoint* point) {
    pdf_obj* node = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
    if (!pdf_is_dict(ctx, node)) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot find page tree");
    PushNode(ctx, point, node);
    if (at >= total) {
        point->index = pdf_array_len(ctx, pdf_dict_get(ctx, node, PDF_NAME(Kids)));
        return;
    }
    int skip = at;
    for (;;) {
        pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
        const int length = pdf_array_len(ctx, kids);
        pdf_obj* next = nullptr;
        for (int i = 0; i < length && next == nullptr; ++i) {
            pdf_obj* kid = pdf_array_get(ctx, kids, i);
            if (IsPageTreeNode(ctx, kid)) {
                const int count = pdf_dict_get_int(ctx, kid, PDF_NAME(Count));
                if (skip < count) {
                    next = kid;
                } else {
                    skip -= count;
                }
            } else if (skip == 0) {
                point->index = i;
                return;
            } else {
                --skip;
            }
        }
        if (next == nullptr) fz_throw(ctx, FZ_ERROR_GENERIC, "cannot find page %d", at + 1);
        PushNode(ctx, point, next);
        node = next;
    }
}

// A new page tree node over the kids `numbers[first]` to `numbers[end - 1]`, which hold `held`
// pages; returns its object number.
int MakeNode(fz_context* ctx, pdf_document* doc, const int* numbers, int first, int end, int held) {
    pdf_obj* node = pdf_add_new_dict(ctx, doc, 4);
    volatile int number = 0;
    fz_try(ctx) {
        pdf_dict_put(ctx, node, PDF_NAME(Type), PDF_NAME(Pages));
        pdf_obj* kids = pdf_dict_put_array(ctx, node, PDF_NAME(Kids), end - first);
        for (int k = first; k < end; ++k) {
            pdf_array_push_drop(ctx, kids, pdf_new_indirect(ctx, doc, numbers[k], 0));
            pdf_dict_put(ctx, pdf_array_get(ctx, kids, k - first), PDF_NAME(Parent), node);
        }
        pdf_dict_put_int(ctx, node, PDF_NAME(Count), held);
        number = pdf_to_num(ctx, node);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return number;
}

// Gathers the pages `numbers` under new page tree nodes as `plan` shapes them; returns the top
// node's object number. Rewrites `numbers` as it goes.
int BuildSubtree(fz_context* ctx, pdf_document* doc, const PageTreePlan* plan, int* numbers) {
    for (const std::vector<PlannedNode>& level : plan->levels) {
        // The nodes are made in order, so slot g is free once node g has read its kids.
        for (std::size_t g = 0; g < level.size(); ++g) {
            const PlannedNode& node = level[g];
            numbers[g] = MakeNode(ctx, doc, numbers, node.first, node.end, node.held);
        }
    }
    return numbers[0];
}

// Puts `root` (holding `count` pages) into the tree at `point` and adds `count` to every node on
// the way down. Changes nothing when it fails.
void LinkSubtree(fz_context* ctx, pdf_document* doc, const InsertionPoint* point, int root,
                 int count) {
    pdf_obj* parent = point->path[point->depth - 1];
    pdf_obj* kids = pdf_dict_get(ctx, parent, PDF_NAME(Kids));
    if (!pdf_is_array(ctx, kids)) fz_throw(ctx, FZ_ERROR_GENERIC, "malformed page tree");
    int* before = fz_malloc_array(ctx, point->depth, int);
    pdf_obj* ref = nullptr;
    volatile int linked = 0;
    volatile int counted = 0;
    fz_var(ref);
    fz_try(ctx) {
        for (int i = 0; i < point->depth; ++i)
            before[i] = pdf_dict_get_int(ctx, point->path[i], PDF_NAME(Count));
        ref = pdf_new_indirect(ctx, doc, root, 0);
        pdf_dict_put(ctx, ref, PDF_NAME(Parent), parent);
        pdf_array_insert(ctx, kids, ref, point->index);
        linked = 1;
        for (int i = 0; i < point->depth; ++i) {
            pdf_dict_put_int(ctx, point->path[i], PDF_NAME(Count), before[i] + count);
            counted = i + 1;
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, ref);
    }
    fz_catch(ctx) {
        // Only running out of memory gets here once the tree was touched: put it back.
        char why[256];
        fz_strlcpy(why, fz_caught_message(ctx), sizeof why);
        fz_try(ctx) {
            if (linked) pdf_array_delete(ctx, kids, point->index);
            for (int i = 0; i < counted; ++i)
                pdf_dict_put_int(ctx, point->path[i], PDF_NAME(Count), before[i]);
        }
        fz_catch(ctx) {
            fz_warn(ctx, "cannot restore the page tree: %s", fz_caught_message(ctx));
        }
        fz_free(ctx, before);
        fz_throw(ctx, FZ_ERROR_GENERIC, "%s", why);
    }
    fz_free(ctx, before);
}

// Inserts the pages `numbers` (objects of `doc` not yet in its tree) in front of page `at`.
// `finish` runs once the place is found, before the tree changes: a tree that has no place for
// the run fails the import before anything else of the destination changed.
void InsertRun(fz_context* ctx, pdf_document* doc, const PageTreePlan* plan, int* numbers, int at,
               int total, PageCopy* finish) {
    InsertionPoint point;
    fz_try(ctx) {
        FindInsertionPoint(ctx, doc, at, total, &point);
        FinishPageCopy(ctx, finish);
        LinkSubtree(ctx, doc, &point, BuildSubtree(ctx, doc, plan, numbers), plan->pages);
    }
    fz_always(ctx) {
        fz_free(ctx, point.path);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Frees the objects numbered from `first` on. Never throws.
void DeleteObjectsFrom(fz_context* ctx, pdf_document* doc, int first) {
    fz_try(ctx) {
        for (int num = pdf_xref_len(ctx, doc) - 1; num >= first; --num)
            pdf_delete_object(ctx, doc, num);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot remove the objects of a failed page import: %s",
                fz_caught_message(ctx));
    }
}

}  // namespace

pdf_obj* CopiedPageDictionary(fz_context* ctx, pdf_obj* source) {
    // Attributes a page may inherit from its ancestors in the source's page tree; the copy
    // holds them itself.
    static pdf_obj* const kInheritable[] = {PDF_NAME(Resources), PDF_NAME(MediaBox),
                                            PDF_NAME(CropBox), PDF_NAME(Rotate)};
    const int length = pdf_dict_len(ctx, source);
    pdf_obj* page = pdf_new_dict(ctx, pdf_get_bound_document(ctx, source), length + 4);
    fz_try(ctx) {
        // Every key but the link into the source's page tree and the one into its structure
        // tree, which the copy is not part of.
        for (int i = 0; i < length; ++i) {
            pdf_obj* key = pdf_dict_get_key(ctx, source, i);
            if (pdf_name_eq(ctx, key, PDF_NAME(Parent)) ||
                pdf_name_eq(ctx, key, PDF_NAME(StructParents)))
                continue;
            pdf_dict_put(ctx, page, key, pdf_dict_get_val(ctx, source, i));
        }
        pdf_dict_put(ctx, page, PDF_NAME(Type), PDF_NAME(Page));
        for (pdf_obj* key : kInheritable) {
            if (pdf_dict_get(ctx, page, key) != nullptr) continue;
            pdf_obj* value = pdf_dict_get_inheritable(ctx, source, key);
            if (value != nullptr) pdf_dict_put(ctx, page, key, value);
        }
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, page);
        fz_rethrow(ctx);
    }
    return page;
}

int GraftPageRun(Document::Impl& dst, Document::Impl& src, const int* pages, int count, int at,
                 int total, char* why, std::size_t why_size) {
    fz_context* ctx = dst.ctx;
    pdf_document* doc = dst.doc;
    if (count <= 0) return -1;
    PageTreePlan plan;
    try {
        plan = PlanPageTree(count);
    } catch (const std::bad_alloc&) {
        fz_strlcpy(why, "out of memory", why_size);
        return 0;
    }
    const int objects_before = pdf_xref_len(ctx, doc);
    PageCopy* copy = nullptr;
    int* numbers = nullptr;
    volatile int copied = 0;
    volatile int failed = -1;
    fz_var(copy);
    fz_var(numbers);
    fz_try(ctx) {
        numbers = fz_malloc_array(ctx, count, int);
        copy = NewPageCopy(ctx, src.doc, doc);
        // Every page of the run gets its number first, so that whatever points at one of them
        // (a link, a page action) points at its copy. The destination's tree does not change
        // before the last page is copied, so indexes into the same document still name the
        // pages they named before the call.
        // The first lookup checks the page number cache against the document.
        LookupSourcePage(ctx, src, pages != nullptr ? pages[0] : 0);
        for (int k = 0; k < count; ++k) {
            numbers[k] = ReservePageCopy(
                ctx, copy, SourcePageNumber(ctx, src, pages != nullptr ? pages[k] : k));
        }
        for (int k = 0; k < count; ++k) {
            pdf_obj* source = LookupSourcePage(ctx, src, pages != nullptr ? pages[k] : k);
            FillPageCopy(ctx, copy, source, numbers[k]);
            copied = k + 1;
            // The source pages copied so far are held by nobody now: a long run does not keep
            // the whole source parsed.
            NoteWork(src);
        }
        InsertRun(ctx, doc, &plan, numbers, at, total, copy);
    }
    fz_always(ctx) {
        DropPageCopy(ctx, copy);
        fz_free(ctx, numbers);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "page import stopped: %s", fz_caught_message(ctx));
        fz_strlcpy(why, fz_caught_message(ctx), why_size);
        failed = copied < count ? copied : 0;
        DeleteObjectsFrom(ctx, doc, objects_before);
    }
    return failed;
}

namespace {

// Copies the pages `pages` of `src` (all for null) in front of page `at` of `dst` (at its end
// without one). Changes nothing when it fails. Throws EngineError.
void ImportPageRun(Document::Impl& dst, Document::Impl& src, const std::vector<int>* pages,
                   std::optional<int> at) {
    PlaceObjectsBeforeChanges(dst);
    fz_context* ctx = dst.ctx;
    volatile int count = 0;
    volatile int total = 0;
    volatile int where = 0;
    fz_try(ctx) {
        total = CountDocumentPages(dst);
        where = at.value_or(total);
        if (where < 0 || where > total)
            fz_throw(ctx, FZ_ERROR_GENERIC, "cannot insert pages at index %d", where);
        KeepPageCountsCorrect(src);
        RequireCatalog(ctx, src.doc);
        count = pages != nullptr ? static_cast<int>(pages->size()) : pdf_count_pages(ctx, src.doc);
        PrepareForNewPages(ctx, dst.doc);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot import the pages");
    }

    // A failed run leaves the page tree as it was and none of its objects behind.
    char why[256] = {};
    const int failed = GraftPageRun(dst, src, pages != nullptr ? pages->data() : nullptr, count,
                                    where, total, why, sizeof why);
    PageTreeChanged(dst);
    if (failed >= 0) {
        throw EngineError(ErrorCategory::Other,
                          "cannot import page " + std::to_string(failed + 1) + ": " + why);
    }
}

// Readies `dst` for pages at its end as a page import would, and checks that our writer can put
// pages there: a page tree root that is an object of its own. 1 when it can.
int PrepareRecordedAppend(fz_context* ctx, pdf_document* doc) {
    PrepareForNewPages(ctx, doc);
    pdf_obj* root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
    return pdf_is_indirect(ctx, root) && pdf_is_array(ctx, pdf_dict_get(ctx, root, PDF_NAME(Kids)));
}

// 1 when the document has what our writer does not carry when it appends pages: annotations on
// a page, form fields, named destinations, optional content. Such a document is imported at once
// instead, which keeps them working. Throws an engine error.
int HoldsInteractiveParts(fz_context* ctx, Document::Impl& impl) {
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, impl.doc), PDF_NAME(Root));
    if (pdf_array_len(ctx, pdf_dict_getp(ctx, root, "AcroForm/Fields")) > 0 ||
        pdf_dict_get(ctx, root, PDF_NAME(Dests)) != nullptr ||
        pdf_dict_getp(ctx, root, "Names/Dests") != nullptr ||
        pdf_dict_get(ctx, root, PDF_NAME(OCProperties)) != nullptr)
        return 1;
    for (const int num : impl.page_numbers) {
        pdf_obj* page = pdf_load_object(ctx, impl.doc, num);
        const int annotated = pdf_array_len(ctx, pdf_dict_get(ctx, page, PDF_NAME(Annots))) > 0;
        pdf_drop_obj(ctx, page);
        if (annotated) return 1;
        NoteWork(impl);
    }
    return 0;
}

}  // namespace

void MakeRecordedAppends(Document::Impl& impl) {
    while (!impl.pending.appends.empty()) {
        std::vector<PendingAppend> waiting = std::move(impl.pending.appends);
        impl.pending.appends.clear();
        try {
            ImportPageRun(impl, waiting.front().source->Pages().Internals(), nullptr, std::nullopt);
        } catch (...) {
            // Nothing of the failed one went in; it and those after it stay recorded.
            impl.pending.appends = std::move(waiting);
            throw;
        }
        waiting.erase(waiting.begin());
        impl.pending.appends = std::move(waiting);
    }
}

void ImportPages(Document& dst, Document& src, const std::vector<int>* pages, int at) {
    MakePendingAppends(dst.Internals());
    MakePendingChanges(src.Internals(), -1);
    ImportPageRun(dst.Internals(), src.Internals(), pages, at);
}

bool RecordAppend(Document& dst, std::unique_ptr<AppendSource>& source) {
    Document::Impl& impl = dst.Internals();
    Document::Impl& from = source->Pages().Internals();
    if (&impl == &from || impl.doc == nullptr || from.doc == nullptr) return false;
    if (!from.pending.Empty()) return false;
    // The source's table is checked now: a rebuild while it is written would renumber it.
    PlaceObjectsBeforeChanges(from);
    PlaceObjectsBeforeChanges(impl);
    // Our writer writes in clear, and reads the source's objects as they are stored.
    try {
        if (ReadSourceSecurity(impl.ctx, impl.doc).encrypted ||
            ReadSourceSecurity(from.ctx, from.doc).encrypted)
            return false;
    } catch (const EngineError&) {
        return false;
    }
    volatile int count = 0;
    fz_try(from.ctx) {
        count = CountDocumentPages(from);
        if (count > 0) LookupPage(from, 0);  // fills the page number cache
    }
    fz_catch(from.ctx) {
        count = 0;
    }
    // Only a page tree whose every page is an object of its own, found in one walk, is left to
    // be read while the document is written; the page import reports what is wrong with others
    // now, where the writer could only fail the save.
    if (count <= 0 || from.page_numbers.size() != static_cast<std::size_t>(count) ||
        std::find(from.page_numbers.begin(), from.page_numbers.end(), 0) != from.page_numbers.end())
        return false;
    volatile int interactive = 1;
    fz_try(from.ctx) {
        interactive = HoldsInteractiveParts(from.ctx, from);
    }
    fz_catch(from.ctx) {
        interactive = 1;
    }
    if (interactive != 0) return false;
    volatile int ready = 0;
    fz_try(impl.ctx) {
        ready = PrepareRecordedAppend(impl.ctx, impl.doc);
    }
    fz_catch(impl.ctx) {
        ready = 0;
    }
    if (ready == 0) return false;
    impl.pending.appends.push_back(PendingAppend{std::move(source), count});
    return true;
}

}  // namespace zpdf::engine
