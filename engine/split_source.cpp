// The engine side of splitting. Page text comes from the engine's content interpreter driving a
// processor that only follows fonts and text-showing operators: the characters come out in
// content order, mapped as the engine maps them for its devices, without placing, measuring
// or drawing a glyph. Parts are new documents that the source's pages are copied into, one
// page copy per part.
#include <cstdint>
#include <cstring>

#include "engine/internal.h"
#include "engine/page_copy.h"
#include "engine/split_source.h"

namespace zpdf::engine {
namespace {

// Characters of one page, in an engine-allocated array kept from page to page.
struct CollectedText {
    int* chars = nullptr;
    std::size_t length = 0;
    std::size_t capacity = 0;
};

void AppendChar(fz_context* ctx, CollectedText* out, int c) {
    if (out->length == out->capacity) {
        const std::size_t capacity = out->capacity == 0 ? 4096 : out->capacity * 2;
        out->chars = static_cast<int*>(fz_realloc(ctx, out->chars, capacity * sizeof(int)));
        out->capacity = capacity;
    }
    out->chars[out->length++] = c;
}

// The objects the document has parsed stay cached in it, a few for every page read: dropping
// the ones nobody holds now and then keeps memory flat in the page count.
constexpr int kPagesBetweenCacheClears = 128;
constexpr int kTreePagesBetweenCacheClears = 512;

void MarkObjectsToKeep(fz_context* ctx, pdf_document* doc) {
    fz_try(ctx) {
        pdf_mark_xref(ctx, doc);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot mark the document's objects: %s", fz_caught_message(ctx));
    }
}

void DropUnheldObjects(fz_context* ctx, pdf_document* doc) {
    fz_try(ctx) {
        pdf_clear_xref_to_mark(ctx, doc);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot drop cached objects: %s", fz_caught_message(ctx));
    }
}

// Object numbers of the source's pages in page order, read from the page tree once. The
// engine's own page lookup walks the tree from the root for every page, which costs a whole
// walk per page when the pages hang in one flat list, as many producers write them (its page
// tree cache is not used: it keeps the page objects beyond the document's life). The tree is
// also what says how many pages there are; a /Count that disagrees with it is ignored.
struct PageIndex {
    int* numbers = nullptr;  // null: the tree could not be read, pages are looked up one by one
    int count = 0;
    int capacity = 0;
};

void AddPage(fz_context* ctx, PageIndex* index, int number) {
    if (index->count == index->capacity) {
        const int capacity = index->capacity == 0 ? 1024 : index->capacity * 2;
        index->numbers = static_cast<int*>(
            fz_realloc(ctx, index->numbers, sizeof(int) * static_cast<size_t>(capacity)));
        index->capacity = capacity;
    }
    index->numbers[index->count++] = number;
}

void IndexPageTree(fz_context* ctx, pdf_document* doc, pdf_obj* node, PageIndex* index, int depth) {
    if (depth > kMaxPageTreeDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "page tree too deep");
    if (pdf_mark_obj(ctx, node)) fz_throw(ctx, FZ_ERROR_GENERIC, "cycle in the page tree");
    // Held, so that dropping the cached objects on the way cannot take them away.
    pdf_obj* held_node = pdf_keep_obj(ctx, node);
    pdf_obj* kids = nullptr;
    fz_var(kids);
    fz_try(ctx) {
        kids = pdf_keep_obj(ctx, pdf_dict_get(ctx, node, PDF_NAME(Kids)));
        const int length = pdf_array_len(ctx, kids);
        for (int i = 0; i < length; ++i) {
            pdf_obj* kid = pdf_array_get(ctx, kids, i);
            if (IsPageTreeNode(ctx, kid)) {
                IndexPageTree(ctx, doc, kid, index, depth + 1);
            } else if (pdf_is_indirect(ctx, kid) && pdf_is_dict(ctx, kid)) {
                AddPage(ctx, index, pdf_to_num(ctx, kid));
                // Every page was parsed to learn what it is; none is needed now.
                if (index->count % kTreePagesBetweenCacheClears == 0) DropUnheldObjects(ctx, doc);
            } else {
                fz_throw(ctx, FZ_ERROR_GENERIC, "page %d is not an object of its own",
                         index->count + 1);
            }
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, kids);
        pdf_unmark_obj(ctx, held_node);
        pdf_drop_obj(ctx, held_node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Fills the index. When the tree cannot be read, the index stays empty and the engine's count
// and lookup are used.
void BuildPageIndex(fz_context* ctx, pdf_document* doc, PageIndex* index) {
    fz_try(ctx) {
        pdf_obj* root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        IndexPageTree(ctx, doc, root, index, 0);
    }
    fz_catch(ctx) {
        fz_free(ctx, index->numbers);
        index->numbers = nullptr;
        index->count = index->capacity = 0;
        fz_warn(ctx, "looking pages up one by one: %s", fz_caught_message(ctx));
    }
}

// The page's dictionary, kept: the caller drops it.
pdf_obj* LoadPageObject(fz_context* ctx, pdf_document* doc, const PageIndex* index, int page) {
    if (index->numbers != nullptr) return pdf_load_object(ctx, doc, index->numbers[page]);
    return pdf_keep_obj(ctx, pdf_lookup_page_obj(ctx, doc, page));
}

// A content processor that follows only what decides which characters a page shows: the font
// of the text state (kept across q and Q, and into form XObjects) and the text-showing
// operators. The interpreter skips every operator it has no handler for, and loads no image,
// shading or colour space for it; no glyph is placed or measured.
struct TextProcessor {
    pdf_processor super;
    pdf_document* doc;
    CollectedText* out;
    pdf_font_desc* font;    // kept
    pdf_font_desc** saved;  // fonts saved by q, kept (null entries allowed)
    int saved_length;
    int saved_capacity;
    int form_depth;
};

// Forms drawing forms this deep are broken or hostile.
constexpr int kMaxFormDepth = 32;

TextProcessor* AsText(pdf_processor* proc) {
    return reinterpret_cast<TextProcessor*>(proc);
}

// The characters of one shown string, as the engine's interpreter maps them for its devices.
void ShowString(fz_context* ctx, TextProcessor* p, unsigned char* text, size_t length) {
    pdf_font_desc* font = p->font;
    if (font == nullptr || font->encoding == nullptr) return;
    unsigned char* end = text + length;
    while (text < end) {
        unsigned int code = 0;
        const int used = pdf_decode_cmap(font->encoding, text, end, &code);
        text += used > 0 ? used : 1;
        const int cid = pdf_lookup_cmap(font->encoding, code);
        if (cid < 0) continue;
        int ucs[PDF_MRANGE_CAP];
        int count = 0;
        if (font->to_unicode != nullptr) count = pdf_lookup_cmap_full(font->to_unicode, cid, ucs);
        if (count == 0 && static_cast<size_t>(cid) < font->cid_to_ucs_len) {
            ucs[0] = font->cid_to_ucs[cid];
            count = 1;
        }
        if (count <= 0 || (count == 1 && ucs[0] == 0)) {
            ucs[0] = FZ_REPLACEMENT_CHARACTER;
            count = 1;
        }
        for (int i = 0; i < count; ++i) AppendChar(ctx, p->out, ucs[i]);
    }
}

void OpTj(fz_context* ctx, pdf_processor* proc, char* text, size_t length) {
    ShowString(ctx, AsText(proc), reinterpret_cast<unsigned char*>(text), length);
}

void OpDquote(fz_context* ctx, pdf_processor* proc, float /*aw*/, float /*ac*/, char* text,
              size_t length) {
    ShowString(ctx, AsText(proc), reinterpret_cast<unsigned char*>(text), length);
}

void OpTJ(fz_context* ctx, pdf_processor* proc, pdf_obj* array) {
    const int length = pdf_array_len(ctx, array);
    for (int i = 0; i < length; ++i) {
        pdf_obj* item = pdf_array_get(ctx, array, i);
        if (pdf_is_string(ctx, item)) {
            ShowString(ctx, AsText(proc),
                       reinterpret_cast<unsigned char*>(pdf_to_str_buf(ctx, item)),
                       pdf_to_str_len(ctx, item));
        }
    }
}

void OpTf(fz_context* ctx, pdf_processor* proc, const char* /*name*/, pdf_font_desc* font,
          float /*size*/) {
    TextProcessor* p = AsText(proc);
    pdf_drop_font(ctx, p->font);
    p->font = pdf_keep_font(ctx, font);
}

void OpSave(fz_context* ctx, pdf_processor* proc) {
    TextProcessor* p = AsText(proc);
    if (p->saved_length == p->saved_capacity) {
        const int capacity = p->saved_capacity == 0 ? 16 : p->saved_capacity * 2;
        p->saved = static_cast<pdf_font_desc**>(
            fz_realloc(ctx, p->saved, sizeof(pdf_font_desc*) * static_cast<size_t>(capacity)));
        p->saved_capacity = capacity;
    }
    p->saved[p->saved_length++] = pdf_keep_font(ctx, p->font);
}

void OpRestore(fz_context* ctx, pdf_processor* proc) {
    TextProcessor* p = AsText(proc);
    if (p->saved_length == 0) return;  // unbalanced Q: nothing to restore
    pdf_drop_font(ctx, p->font);
    p->font = p->saved[--p->saved_length];
}

void OpDoForm(fz_context* ctx, pdf_processor* proc, const char* /*name*/, pdf_obj* form,
              pdf_obj* page_resources) {
    TextProcessor* p = AsText(proc);
    if (p->form_depth >= kMaxFormDepth) return;
    if (pdf_mark_obj(ctx, form)) return;  // the form is drawing itself
    const int saved_length = p->saved_length;
    ++p->form_depth;
    fz_try(ctx) {
        pdf_obj* resources = pdf_dict_get(ctx, form, PDF_NAME(Resources));
        OpSave(ctx, proc);
        pdf_process_contents(ctx, proc, p->doc, resources != nullptr ? resources : page_resources,
                             form, nullptr);
    }
    fz_always(ctx) {
        // Whatever the form left unbalanced, the text state is the one it started with.
        while (p->saved_length > saved_length) OpRestore(ctx, proc);
        --p->form_depth;
        pdf_unmark_obj(ctx, form);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

void DropTextProcessor(fz_context* ctx, pdf_processor* proc) {
    TextProcessor* p = AsText(proc);
    while (p->saved_length > 0) pdf_drop_font(ctx, p->saved[--p->saved_length]);
    fz_free(ctx, p->saved);
    pdf_drop_font(ctx, p->font);
}

pdf_processor* NewTextProcessor(fz_context* ctx, pdf_document* doc, CollectedText* out) {
    // Zero-filled by the engine: every operator without a handler here is skipped.
    auto* p = static_cast<TextProcessor*>(pdf_new_processor(ctx, sizeof(TextProcessor)));
    p->super.drop_processor = DropTextProcessor;
    p->super.op_q = OpSave;
    p->super.op_Q = OpRestore;
    p->super.op_Tf = OpTf;
    p->super.op_Tj = OpTj;
    p->super.op_squote = OpTj;
    p->super.op_dquote = OpDquote;
    p->super.op_TJ = OpTJ;
    p->super.op_Do_form = OpDoForm;
    p->doc = doc;
    p->out = out;
    return &p->super;
}

// Runs the content of page `index` through the text processor. Only the page's content is read;
// the page is looked up, not loaded, so no annotation or link is built either.
void CollectPageText(fz_context* ctx, pdf_document* doc, const PageIndex* pages, int index,
                     CollectedText* out) {
    pdf_obj* page = nullptr;
    pdf_processor* proc = nullptr;
    fz_var(page);
    fz_var(proc);
    out->length = 0;
    fz_try(ctx) {
        page = LoadPageObject(ctx, doc, pages, index);
        pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
        if (contents != nullptr) {
            pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
            proc = NewTextProcessor(ctx, doc, out);
            pdf_process_contents(ctx, proc, doc, resources, contents, nullptr);
            pdf_close_processor(ctx, proc);
        }
    }
    fz_always(ctx) {
        pdf_drop_processor(ctx, proc);
        pdf_drop_obj(ctx, page);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot read the text of the page");
    }
}

// The source's document-level entries a part keeps as they are: how it is to be printed,
// shown and opened, its language and its metadata.
void CopyDocumentEntries(fz_context* ctx, PageCopy* copy, pdf_obj* from, pdf_obj* to) {
    static const char* const kKept[] = {"OutputIntents", "Lang",     "ViewerPreferences",
                                        "Metadata",      "PageMode", "PageLayout"};
    for (const char* key : kKept) {
        pdf_obj* value = pdf_dict_gets(ctx, from, key);
        if (value == nullptr) continue;
        pdf_obj* copied = CopySourceObject(ctx, copy, value);
        if (copied != nullptr) pdf_dict_puts_drop(ctx, to, key, copied);
    }
}

// A new dictionary put in `dict` under `key`; borrowed.
pdf_obj* PutDict(fz_context* ctx, pdf_obj* dict, const char* key) {
    pdf_obj* value = pdf_new_dict(ctx, pdf_get_bound_document(ctx, dict), 2);
    pdf_dict_puts_drop(ctx, dict, key, value);
    return value;
}

// The page label ranges of the source: the last range starting at or before `first` and every
// range starting after it up to `last`, in order, as pairs of start and label dictionary.
struct LabelRanges {
    int before = -1;                  // the start of the range `first` is in; -1: none
    pdf_obj* before_label = nullptr;  // borrowed
    pdf_obj* inside = nullptr;        // [start label start label ...] of ranges after `first`
};

void CollectLabelRanges(fz_context* ctx, pdf_obj* node, int first, int last, LabelRanges* ranges,
                        int depth) {
    if (depth > kMaxPageTreeDepth || pdf_mark_obj(ctx, node)) return;
    fz_try(ctx) {
        pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
        for (int i = 0; i < pdf_array_len(ctx, kids); ++i)
            CollectLabelRanges(ctx, pdf_array_get(ctx, kids, i), first, last, ranges, depth + 1);
        pdf_obj* nums = pdf_dict_get(ctx, node, PDF_NAME(Nums));
        for (int i = 0; i + 1 < pdf_array_len(ctx, nums); i += 2) {
            const int start = pdf_array_get_int(ctx, nums, i);
            pdf_obj* label = pdf_array_get(ctx, nums, i + 1);
            if (start <= first && start >= ranges->before) {
                ranges->before = start;
                ranges->before_label = label;
            } else if (start > first && start <= last) {
                pdf_array_push_int(ctx, ranges->inside, start - first);
                pdf_array_push(ctx, ranges->inside, label);
            }
        }
    }
    fz_always(ctx) {
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// The source's page labels for pages `first` to `last`, restarted so that the part's first page
// has the label it had in the source.
void CopyPageLabels(fz_context* ctx, PageCopy* copy, pdf_obj* from, pdf_obj* to, int first,
                    int last) {
    pdf_obj* tree = pdf_dict_gets(ctx, from, "PageLabels");
    if (!pdf_is_dict(ctx, tree)) return;
    LabelRanges ranges;
    ranges.inside = pdf_new_array(ctx, pdf_get_bound_document(ctx, from), 4);
    pdf_obj* label = nullptr;
    fz_var(label);
    fz_try(ctx) {
        CollectLabelRanges(ctx, tree, first, last, &ranges, 0);
        pdf_obj* nums = pdf_dict_put_array(ctx, PutDict(ctx, to, "PageLabels"), PDF_NAME(Nums),
                                           2 + pdf_array_len(ctx, ranges.inside));
        if (ranges.before >= 0) {
            label = CopySourceObject(ctx, copy, ranges.before_label);
            if (pdf_is_dict(ctx, label)) {
                pdf_obj* st = pdf_dict_gets(ctx, label, "St");
                const int start = st != nullptr ? pdf_to_int(ctx, st) : 1;
                pdf_obj* own = pdf_copy_dict(ctx, label);
                pdf_drop_obj(ctx, label);
                label = own;
                pdf_dict_puts_drop(ctx, label, "St",
                                   pdf_new_int(ctx, start + (first - ranges.before)));
                pdf_array_push_int(ctx, nums, 0);
                pdf_array_push(ctx, nums, label);
            }
        }
        for (int i = 0; i + 1 < pdf_array_len(ctx, ranges.inside); i += 2) {
            pdf_obj* copied = CopySourceObject(ctx, copy, pdf_array_get(ctx, ranges.inside, i + 1));
            if (copied == nullptr) continue;
            pdf_array_push(ctx, nums, pdf_array_get(ctx, ranges.inside, i));
            pdf_array_push_drop(ctx, nums, copied);
        }
        if (pdf_array_len(ctx, nums) == 0) pdf_dict_dels(ctx, to, "PageLabels");
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, label);
        pdf_drop_obj(ctx, ranges.inside);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Outlines nested deeper than this are broken or hostile.
constexpr int kMaxOutlineDepth = 32;

// What an outline level of the part holds.
struct OutlineLevel {
    int first = 0, last = 0;  // object numbers of its first and last entries; 0: none
    int entries = 0;          // its entries
    int visible = 0;          // its entries and those shown open below them
};

OutlineLevel CopyOutlineLevel(fz_context* ctx, PageCopy* copy, pdf_document* dst, pdf_obj* item,
                              int parent, int depth);

// The copy of the outline entry `item` under the entry `parent` of the part, as object `num`;
// false when the entry is left out: it points at no page of the part and has no entry below it
// that does. An entry pointing elsewhere that has entries in the part stays as their heading,
// without a destination.
bool CopyOutlineEntry(fz_context* ctx, PageCopy* copy, pdf_document* dst, pdf_obj* item, int num,
                      int parent, int depth, OutlineLevel* level) {
    pdf_obj* dest = pdf_dict_get(ctx, item, PDF_NAME(Dest));
    pdf_obj* action = pdf_dict_get(ctx, item, PDF_NAME(A));
    const bool goes_to = pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(GoTo));
    if (goes_to) dest = pdf_dict_get(ctx, action, PDF_NAME(D));
    pdf_obj* target = nullptr;
    pdf_obj* other = nullptr;
    pdf_obj* entry = nullptr;
    fz_var(target);
    fz_var(other);
    fz_var(entry);
    volatile bool kept = false;
    fz_try(ctx) {
        if (dest != nullptr) target = CopySourceDestination(ctx, copy, dest);
        // An action that is not a jump within the document (a web link) works in any part.
        if (action != nullptr && !goes_to) other = CopySourceObject(ctx, copy, action);
        const OutlineLevel below = CopyOutlineLevel(
            ctx, copy, dst, pdf_dict_get(ctx, item, PDF_NAME(First)), num, depth + 1);
        kept = target != nullptr || other != nullptr || below.entries > 0;
        if (kept) {
            entry = pdf_new_dict(ctx, dst, 10);
            // Resolved: a title kept as an object of its own belongs to the source.
            pdf_obj* title = pdf_resolve_indirect(ctx, pdf_dict_get(ctx, item, PDF_NAME(Title)));
            if (pdf_is_string(ctx, title)) {
                pdf_dict_put(ctx, entry, PDF_NAME(Title), title);
            } else {
                pdf_dict_put_text_string(ctx, entry, PDF_NAME(Title), "");
            }
            pdf_dict_put_drop(ctx, entry, PDF_NAME(Parent), pdf_new_indirect(ctx, dst, parent, 0));
            if (target != nullptr) pdf_dict_put(ctx, entry, PDF_NAME(Dest), target);
            if (other != nullptr) pdf_dict_put(ctx, entry, PDF_NAME(A), other);
            for (pdf_obj* key : {PDF_NAME(C), PDF_NAME(F)}) {
                pdf_obj* value = CopySourceObject(ctx, copy, pdf_dict_get(ctx, item, key));
                if (value != nullptr) pdf_dict_put_drop(ctx, entry, key, value);
            }
            const bool open = pdf_dict_get_int(ctx, item, PDF_NAME(Count)) > 0;
            if (below.entries > 0) {
                pdf_dict_put_drop(ctx, entry, PDF_NAME(First),
                                  pdf_new_indirect(ctx, dst, below.first, 0));
                pdf_dict_put_drop(ctx, entry, PDF_NAME(Last),
                                  pdf_new_indirect(ctx, dst, below.last, 0));
                pdf_dict_put_int(ctx, entry, PDF_NAME(Count),
                                 open ? below.visible : -below.entries);
            }
            if (level->last > 0) {
                pdf_dict_put_drop(ctx, entry, PDF_NAME(Prev),
                                  pdf_new_indirect(ctx, dst, level->last, 0));
                pdf_obj* previous = pdf_new_indirect(ctx, dst, level->last, 0);
                pdf_dict_put_drop(ctx, previous, PDF_NAME(Next),
                                  pdf_new_indirect(ctx, dst, num, 0));
                pdf_drop_obj(ctx, previous);
            }
            pdf_update_object(ctx, dst, num, entry);
            if (level->first == 0) level->first = num;
            level->last = num;
            ++level->entries;
            level->visible += 1 + (open ? below.visible : 0);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, entry);
        pdf_drop_obj(ctx, other);
        pdf_drop_obj(ctx, target);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return kept;
}

// Copies `item` and the entries after it into `level`, each put in `visited` and marked.
void CopyOutlineEntries(fz_context* ctx, PageCopy* copy, pdf_document* dst, pdf_obj* item,
                        int parent, int depth, pdf_obj* visited, OutlineLevel* level) {
    for (; pdf_is_dict(ctx, item) && !pdf_mark_obj(ctx, item);
         item = pdf_dict_get(ctx, item, PDF_NAME(Next))) {
        pdf_array_push(ctx, visited, item);
        const int num = pdf_create_object(ctx, dst);
        if (!CopyOutlineEntry(ctx, copy, dst, item, num, parent, depth, level))
            pdf_delete_object(ctx, dst, num);
    }
}

OutlineLevel CopyOutlineLevel(fz_context* ctx, PageCopy* copy, pdf_document* dst, pdf_obj* item,
                              int parent, int depth) {
    OutlineLevel level;
    if (depth > kMaxOutlineDepth || !pdf_is_dict(ctx, item)) return level;
    // The entries are marked as they are visited: one met again closes a cycle.
    pdf_obj* visited = pdf_new_array(ctx, pdf_get_bound_document(ctx, item), 8);
    fz_try(ctx) {
        CopyOutlineEntries(ctx, copy, dst, item, parent, depth, visited, &level);
    }
    fz_always(ctx) {
        for (int i = 0; i < pdf_array_len(ctx, visited); ++i)
            pdf_unmark_obj(ctx, pdf_array_get(ctx, visited, i));
        pdf_drop_obj(ctx, visited);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return level;
}

// The outline entries of the source that point into the part, with their hierarchy.
void CopyOutline(fz_context* ctx, PageCopy* copy, pdf_document* dst, pdf_obj* from, pdf_obj* to) {
    pdf_obj* outlines = pdf_dict_get(ctx, from, PDF_NAME(Outlines));
    if (!pdf_is_dict(ctx, outlines)) return;
    const int root = pdf_create_object(ctx, dst);
    const OutlineLevel level =
        CopyOutlineLevel(ctx, copy, dst, pdf_dict_get(ctx, outlines, PDF_NAME(First)), root, 0);
    if (level.entries == 0) {
        pdf_delete_object(ctx, dst, root);
        return;
    }
    pdf_obj* dict = pdf_new_dict(ctx, dst, 4);
    fz_try(ctx) {
        pdf_dict_put(ctx, dict, PDF_NAME(Type), PDF_NAME(Outlines));
        pdf_dict_put_drop(ctx, dict, PDF_NAME(First), pdf_new_indirect(ctx, dst, level.first, 0));
        pdf_dict_put_drop(ctx, dict, PDF_NAME(Last), pdf_new_indirect(ctx, dst, level.last, 0));
        pdf_dict_put_int(ctx, dict, PDF_NAME(Count), level.visible);
        pdf_update_object(ctx, dst, root, dict);
        pdf_dict_put_drop(ctx, to, PDF_NAME(Outlines), pdf_new_indirect(ctx, dst, root, 0));
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, dict);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Builds the part in a new document of its own; returns it. Throws an engine error.
pdf_document* BuildPart(fz_context* ctx, pdf_document* src, const PageIndex* pages, int first,
                        int last) {
    pdf_document* dst = pdf_create_document(ctx);
    PageCopy* copy = nullptr;
    int* numbers = nullptr;
    pdf_obj* page = nullptr;
    pdf_obj* ref = nullptr;
    fz_var(copy);
    fz_var(numbers);
    fz_var(page);
    fz_var(ref);
    fz_try(ctx) {
        copy = NewPageCopy(ctx, src, dst);
        const int count = last - first + 1;
        numbers = fz_malloc_array(ctx, count, int);
        // Every page of the part gets its number first, so that links and outline entries
        // between them reach the copies.
        for (int k = 0; k < count; ++k) {
            int number = 0;
            if (pages->numbers != nullptr) {
                number = pages->numbers[first + k];
            } else {
                pdf_obj* kid = pdf_lookup_page_obj(ctx, src, first + k);
                number = pdf_is_indirect(ctx, kid) ? pdf_to_num(ctx, kid) : 0;
            }
            numbers[k] = ReservePageCopy(ctx, copy, number);
        }
        for (int k = 0; k < count; ++k) {
            page = LoadPageObject(ctx, src, pages, first + k);
            FillPageCopy(ctx, copy, page, numbers[k]);
            pdf_drop_obj(ctx, page);
            page = nullptr;
            ref = pdf_new_indirect(ctx, dst, numbers[k], 0);
            pdf_insert_page(ctx, dst, k, ref);
            pdf_drop_obj(ctx, ref);
            ref = nullptr;
        }
        FinishPageCopy(ctx, copy);
        pdf_obj* from = pdf_dict_get(ctx, pdf_trailer(ctx, src), PDF_NAME(Root));
        pdf_obj* to = pdf_dict_get(ctx, pdf_trailer(ctx, dst), PDF_NAME(Root));
        CopyDocumentEntries(ctx, copy, from, to);
        CopyPageLabels(ctx, copy, from, to, first, last);
        CopyOutline(ctx, copy, dst, from, to);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, ref);
        pdf_drop_obj(ctx, page);
        fz_free(ctx, numbers);
        DropPageCopy(ctx, copy);
    }
    fz_catch(ctx) {
        pdf_drop_document(ctx, dst);
        fz_rethrow(ctx);
    }
    return dst;
}

// 1 when the document opens without a password (or with the empty one).
// The document opens with `password` (the empty one when null).
int OpensWithPassword(fz_context* ctx, pdf_document* doc, const char* password) {
    volatile int open = 0;
    fz_try(ctx) {
        open = !pdf_needs_password(ctx, doc) || pdf_authenticate_password(ctx, doc, password);
    }
    fz_catch(ctx) {
        open = 0;
    }
    return open;
}

int CountPages(fz_context* ctx, pdf_document* doc) {
    volatile int count = 0;
    fz_try(ctx) {
        count = CountDocumentPages(ctx, doc);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot count the pages");
    }
    return count;
}

}  // namespace

struct SplitSource::Impl {
    fz_context* ctx = nullptr;
    pdf_document* doc = nullptr;
    fz_stream* stream = nullptr;
    int pages = 0;
    int pages_since_clear = 0;
    PageIndex index;
    CollectedText text;
};

SplitSource::SplitSource() : impl_(std::make_unique<Impl>()) {
    impl_->ctx = NewDocumentContext();
}

SplitSource::~SplitSource() {
    fz_context* ctx = impl_->ctx;
    pdf_drop_document(ctx, impl_->doc);
    fz_drop_stream(ctx, impl_->stream);
    fz_free(ctx, impl_->index.numbers);
    fz_free(ctx, impl_->text.chars);
    DropDocumentContext(ctx);
}

void SplitSource::Open(std::FILE* file, const std::optional<std::string>& password) {
    if (impl_->doc != nullptr)
        throw EngineError(ErrorCategory::Other, "the source is already open");
    fz_context* ctx = impl_->ctx;
    fz_stream* stm = OpenFileStream(ctx, file);
    if (stm == nullptr) throw EngineError(ErrorCategory::Other, "out of memory opening the source");
    impl_->stream = stm;

    pdf_document* doc = nullptr;
    fz_try(ctx) {
        doc = pdf_open_document_with_stream(ctx, stm);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, OpenFailureCategory(ctx, stm), "cannot open the document");
    }
    impl_->doc = doc;
    if (!OpensWithPassword(ctx, doc, password ? password->c_str() : "")) {
        throw EngineError(ErrorCategory::Password, password ? "the password is not correct"
                                                            : "the document needs a password");
    }
    RebuildIfPageTreeUnreachable(ctx, doc);
    // What is parsed by now (trailer, catalogue, encryption) stays; the rest comes and goes.
    MarkObjectsToKeep(ctx, doc);
    BuildPageIndex(ctx, doc, &impl_->index);
    if (impl_->index.numbers == nullptr) {
        // The engine counts and finds the pages through the counts of the tree: pages that they
        // hide or invent are found as a document finds them, and the corrected counts stay.
        CorrectPageCounts(ctx, doc);
        MarkObjectsToKeep(ctx, doc);
    }
    impl_->pages = impl_->index.numbers != nullptr ? impl_->index.count : CountPages(ctx, doc);
    DropUnheldObjects(ctx, doc);
}

int SplitSource::PageCount() const {
    return impl_->pages;
}

void SplitSource::ReadPageText(int index, std::u32string& text) {
    text.clear();
    if (impl_->doc == nullptr || index < 0 || index >= impl_->pages) {
        throw EngineError(ErrorCategory::Page,
                          "page " + std::to_string(index + 1) + " does not exist");
    }
    CollectPageText(impl_->ctx, impl_->doc, &impl_->index, index, &impl_->text);
    if (++impl_->pages_since_clear == kPagesBetweenCacheClears) {
        DropUnheldObjects(impl_->ctx, impl_->doc);
        impl_->pages_since_clear = 0;
    }
    const CollectedText& collected = impl_->text;
    text.resize(collected.length);
    for (std::size_t i = 0; i < collected.length; ++i) {
        text[i] = static_cast<char32_t>(collected.chars[i]);
    }
}

void SplitSource::WritePages(int first, int last, ByteSink& sink) {
    if (impl_->doc == nullptr || first < 0 || first > last || last >= impl_->pages) {
        throw EngineError(ErrorCategory::Page, "pages " + std::to_string(first + 1) + " to " +
                                                   std::to_string(last + 1) + " do not exist");
    }
    fz_context* ctx = impl_->ctx;
    pdf_document* part = nullptr;
    fz_try(ctx) {
        part = BuildPart(ctx, impl_->doc, &impl_->index, first, last);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot make the part");
    }
    pdf_write_options options = pdf_default_write_options;
    options.do_incremental = 0;
    try {
        RunEngineWriter(ctx, part, sink, options);
    } catch (...) {
        pdf_drop_document(ctx, part);
        throw;
    }
    pdf_drop_document(ctx, part);
}

}  // namespace zpdf::engine
