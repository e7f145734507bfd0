#include "engine/graft.h"

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// Engine-level helpers: plain data only, so that the engine's error jumps skip no destructor.
// Each either returns normally or throws an engine error.

// The page at `index` of `src`, looked up in the source document's own context (the two
// documents keep separate contexts, and an error must reach the handler that waits for it);
// its failure is thrown again in `ctx`.
pdf_obj* LookupSourcePage(fz_context* ctx, engine::Document::Impl& src, int index) {
    fz_context* own = src.ctx;
    pdf_obj* volatile page = nullptr;
    volatile int failed = 0;
    char why[256] = {};
    fz_try(own) {
        page = engine::LookupPage(src, index);
    }
    fz_catch(own) {
        fz_strlcpy(why, fz_caught_message(own), sizeof why);
        failed = 1;
    }
    if (failed) fz_throw(ctx, FZ_ERROR_GENERIC, "%s", why);
    return page;
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
            if (engine::IsPageTreeNode(ctx, kid)) {
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

// Gathers the pages `numbers` under new page tree nodes of at most kGraftFanOut kids each,
// level by level, until one node holds them all; returns that node's object number. Rewrites
// `numbers` and `counts` (`count` entries each) as it goes.
int BuildSubtree(fz_context* ctx, pdf_document* doc, int* numbers, int* counts, int count) {
    int level = count;
    do {
        const int groups = (level + kGraftFanOut - 1) / kGraftFanOut;
        for (int g = 0; g < groups; ++g) {
            // Even shares: group sizes differ by one at most.
            const int first = static_cast<int>(static_cast<long long>(level) * g / groups);
            const int end = static_cast<int>(static_cast<long long>(level) * (g + 1) / groups);
            int held = 0;
            for (int k = first; k < end; ++k) held += counts[k];
            // The groups are made in order, so slot g is free once group g is read.
            numbers[g] = MakeNode(ctx, doc, numbers, first, end, held);
            counts[g] = held;
        }
        level = groups;
    } while (level > 1);
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
void InsertRun(fz_context* ctx, pdf_document* doc, int* numbers, int count, int at, int total) {
    InsertionPoint point;
    int* counts = nullptr;
    fz_var(counts);
    fz_try(ctx) {
        FindInsertionPoint(ctx, doc, at, total, &point);
        int root = numbers[0];
        if (count > 1) {
            counts = fz_malloc_array(ctx, count, int);
            for (int k = 0; k < count; ++k) counts[k] = 1;
            root = BuildSubtree(ctx, doc, numbers, counts, count);
        }
        LinkSubtree(ctx, doc, &point, root, count);
    }
    fz_always(ctx) {
        fz_free(ctx, counts);
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

int GraftPageRun(engine::Document::Impl& dst, engine::Document::Impl& src, const int* pages,
                 int count, int at, int total, char* why, std::size_t why_size) {
    fz_context* ctx = dst.ctx;
    pdf_document* doc = dst.doc;
    if (count <= 0) return -1;
    const int objects_before = pdf_xref_len(ctx, doc);
    pdf_graft_map* map = nullptr;
    int* numbers = nullptr;
    volatile int copied = 0;
    volatile int failed = -1;
    fz_var(map);
    fz_var(numbers);
    fz_try(ctx) {
        numbers = fz_malloc_array(ctx, count, int);
        map = pdf_new_graft_map(ctx, doc);
        // The destination's tree does not change before the last page is copied, so indexes
        // into the same document still name the pages they named before the call.
        for (int k = 0; k < count; ++k) {
            pdf_obj* source = LookupSourcePage(ctx, src, pages != nullptr ? pages[k] : k);
            numbers[k] = engine::CopyPageObject(ctx, map, doc, source);
            copied = k + 1;
            // The source pages copied so far are held by nobody now: a long run does not keep
            // the whole source parsed.
            engine::NoteWork(src);
        }
        InsertRun(ctx, doc, numbers, count, at, total);
    }
    fz_always(ctx) {
        pdf_drop_graft_map(ctx, map);
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

}  // namespace zpdf::engine
