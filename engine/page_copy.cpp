#include "engine/page_copy.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace zpdf::engine {

struct PageCopy {
    pdf_document* src = nullptr;
    pdf_document* dst = nullptr;
    bool same = false;  // copying within one document
    int length = 0;     // the source's table length when the copy began
    int first_new = 0;  // objects of the destination from this number on were made by it
    // By source number: 0 not met, > 0 the copy, -1 left out. An open-addressing table holding
    // only the objects met, so that a copy costs what it copies, not the source's size: a split
    // makes one copy per part.
    int* keys = nullptr;  // 0: free slot
    int* values = nullptr;
    int capacity = 0;  // a power of two
    int used = 0;
    int* queue = nullptr;  // source objects whose copy is made but not filled yet
    int queued = 0;
    int queue_capacity = 0;
    pdf_obj* pages = nullptr;   // the copied pages, in order (a destination array)
    pdf_obj* dests = nullptr;   // named destinations the copied links use: name -> destination
    pdf_obj* fields = nullptr;  // the top-level fields of the copied widgets
};

namespace {

// The slot of `num` in the table: the one holding it, or the free one where it would go.
int MapSlot(const PageCopy* pc, int num) {
    int slot = static_cast<int>((static_cast<unsigned>(num) * 2654435761u) &
                                static_cast<unsigned>(pc->capacity - 1));
    while (pc->keys[slot] != 0 && pc->keys[slot] != num) slot = (slot + 1) & (pc->capacity - 1);
    return slot;
}

int MapGet(const PageCopy* pc, int num) {
    if (num <= 0 || num >= pc->length) return 0;
    const int slot = MapSlot(pc, num);
    return pc->keys[slot] == num ? pc->values[slot] : 0;
}

// Throws when the table cannot grow.
void MapSet(fz_context* ctx, PageCopy* pc, int num, int value) {
    if (2 * (pc->used + 1) > pc->capacity) {
        const int capacity = 2 * pc->capacity;
        int* keys = static_cast<int*>(fz_calloc(ctx, static_cast<size_t>(capacity), sizeof(int)));
        int* values =
            static_cast<int*>(fz_calloc_no_throw(ctx, static_cast<size_t>(capacity), sizeof(int)));
        if (values == nullptr) {
            fz_free(ctx, keys);
            fz_throw(ctx, FZ_ERROR_MEMORY, "cannot grow the table of copied objects");
        }
        int* old_keys = pc->keys;
        int* old_values = pc->values;
        const int old_capacity = pc->capacity;
        pc->keys = keys;
        pc->values = values;
        pc->capacity = capacity;
        for (int i = 0; i < old_capacity; ++i) {
            if (old_keys[i] == 0) continue;
            const int slot = MapSlot(pc, old_keys[i]);
            pc->keys[slot] = old_keys[i];
            pc->values[slot] = old_values[i];
        }
        fz_free(ctx, old_keys);
        fz_free(ctx, old_values);
    }
    const int slot = MapSlot(pc, num);
    if (pc->keys[slot] == 0) ++pc->used;
    pc->keys[slot] = num;
    pc->values[slot] = value;
}

// Nested direct objects this deep are broken or hostile.
constexpr int kMaxDirectDepth = 100;
// Field and outline hierarchies deeper than this are broken or hostile.
constexpr int kMaxHierarchyDepth = 32;

bool IsAnnotation(fz_context* ctx, pdf_obj* obj) {
    return pdf_is_dict(ctx, obj) && pdf_is_name(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Subtype))) &&
           pdf_is_array(ctx, pdf_dict_get(ctx, obj, PDF_NAME(Rect)));
}

// Arrays whose entries are objects of their own, where an entry left out is dropped rather than
// written as null: a page's annotations, a field's kids, a form's fields.
bool ListsObjects(fz_context* ctx, pdf_obj* key) {
    return key != nullptr &&
           (pdf_name_eq(ctx, key, PDF_NAME(Annots)) || pdf_name_eq(ctx, key, PDF_NAME(Kids)) ||
            pdf_name_eq(ctx, key, PDF_NAME(Fields)));
}

// Keys that point into the source's structure tree, which the result does not hold.
bool PointsIntoStructure(fz_context* ctx, pdf_obj* key) {
    return pdf_name_eq(ctx, key, PDF_NAME(StructParent)) ||
           pdf_name_eq(ctx, key, PDF_NAME(StructParents));
}

void Enqueue(fz_context* ctx, PageCopy* pc, int num) {
    if (pc->queued == pc->queue_capacity) {
        const int capacity = pc->queue_capacity == 0 ? 256 : pc->queue_capacity * 2;
        pc->queue = fz_realloc_array(ctx, pc->queue, capacity, int);
        pc->queue_capacity = capacity;
    }
    pc->queue[pc->queued++] = num;
}

// Whether an object of the source is left out: the document's structure, a page not copied in
// this operation, an annotation of such a page.
bool LeftOut(fz_context* ctx, PageCopy* pc, pdf_obj* obj) {
    if (IsDocumentStructure(ctx, obj)) return true;
    if (!IsAnnotation(ctx, obj)) return false;
    pdf_obj* page = pdf_dict_get(ctx, obj, PDF_NAME(P));
    if (!pdf_is_indirect(ctx, page)) return false;
    const int num = pdf_to_num(ctx, page);
    return MapGet(pc, num) <= 0;
}

pdf_obj* CopyValue(fz_context* ctx, PageCopy* pc, pdf_obj* obj, bool annots, int depth);

// The copy of the source's indirect object `ref` (a new reference), made and queued to be filled
// when first met; null when it is left out.
pdf_obj* CopyIndirect(fz_context* ctx, PageCopy* pc, pdf_obj* ref, bool annots) {
    const int num = pdf_to_num(ctx, ref);
    if (num <= 0 || num >= pc->length) return nullptr;
    const int known = MapGet(pc, num);
    if (known > 0) return pdf_new_indirect(ctx, pc->dst, known, 0);
    if (known < 0) return nullptr;
    // Within one document only what belongs to the annotations is copied; the rest is shared.
    if (pc->same && !annots) return pdf_keep_obj(ctx, ref);
    if (LeftOut(ctx, pc, pdf_resolve_indirect(ctx, ref))) {
        MapSet(ctx, pc, num, -1);
        return nullptr;
    }
    const int copy = pdf_create_object(ctx, pc->dst);
    MapSet(ctx, pc, num, copy);
    Enqueue(ctx, pc, num);
    return pdf_new_indirect(ctx, pc->dst, copy, 0);
}

pdf_obj* CopyDict(fz_context* ctx, PageCopy* pc, pdf_obj* obj, bool annots, int depth) {
    const int length = pdf_dict_len(ctx, obj);
    pdf_obj* copy = pdf_new_dict(ctx, pc->dst, length);
    pdf_obj* value = nullptr;
    fz_var(value);
    fz_try(ctx) {
        for (int i = 0; i < length; ++i) {
            pdf_obj* key = pdf_dict_get_key(ctx, obj, i);
            if (PointsIntoStructure(ctx, key)) continue;
            const bool in_annots = annots || pdf_name_eq(ctx, key, PDF_NAME(Annots));
            pdf_obj* item = pdf_dict_get_val(ctx, obj, i);
            if (pdf_is_array(ctx, item) && !pdf_is_indirect(ctx, item) && ListsObjects(ctx, key)) {
                value = pdf_new_array(ctx, pc->dst, pdf_array_len(ctx, item));
                for (int k = 0; k < pdf_array_len(ctx, item); ++k) {
                    pdf_obj* entry =
                        CopyValue(ctx, pc, pdf_array_get(ctx, item, k), in_annots, depth + 1);
                    if (entry != nullptr) pdf_array_push_drop(ctx, value, entry);
                }
            } else {
                value = CopyValue(ctx, pc, item, in_annots, depth + 1);
            }
            if (value != nullptr) pdf_dict_put(ctx, copy, key, value);
            pdf_drop_obj(ctx, value);
            value = nullptr;
        }
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, value);
        pdf_drop_obj(ctx, copy);
        fz_rethrow(ctx);
    }
    return copy;
}

pdf_obj* CopyArray(fz_context* ctx, PageCopy* pc, pdf_obj* obj, bool annots, int depth) {
    const int length = pdf_array_len(ctx, obj);
    pdf_obj* copy = pdf_new_array(ctx, pc->dst, length);
    fz_try(ctx) {
        for (int i = 0; i < length; ++i) {
            pdf_obj* value = CopyValue(ctx, pc, pdf_array_get(ctx, obj, i), annots, depth + 1);
            if (value != nullptr) {
                pdf_array_push_drop(ctx, copy, value);
            } else {
                pdf_array_push(ctx, copy, PDF_NULL);
            }
        }
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, copy);
        fz_rethrow(ctx);
    }
    return copy;
}

// The copy of a source value (a new reference); null when it is left out.
pdf_obj* CopyValue(fz_context* ctx, PageCopy* pc, pdf_obj* obj, bool annots, int depth) {
    if (obj == nullptr) return nullptr;
    if (depth > kMaxDirectDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "objects nested too deep");
    if (pdf_is_indirect(ctx, obj)) return CopyIndirect(ctx, pc, obj, annots);
    if (pdf_is_dict(ctx, obj)) return CopyDict(ctx, pc, obj, annots, depth);
    if (pdf_is_array(ctx, obj)) return CopyArray(ctx, pc, obj, annots, depth);
    // Numbers, names, strings and null belong to no document.
    return pdf_keep_obj(ctx, obj);
}

// The source object `num` as stored, or null where it cannot be read: the copy is then null,
// as a broken object reads everywhere else.
pdf_obj* LoadSourceObject(fz_context* ctx, pdf_document* doc, int num) {
    pdf_obj* volatile obj = nullptr;
    fz_try(ctx) {
        obj = pdf_load_object(ctx, doc, num);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot read object %d, copied as null: %s", num, fz_caught_message(ctx));
        obj = nullptr;
    }
    return obj;
}

// Fills the copies made and not filled yet, and those they make in turn. Streams are copied as
// stored (decrypted, their filters kept).
void FillQueued(fz_context* ctx, PageCopy* pc) {
    pdf_obj* obj = nullptr;
    pdf_obj* copy = nullptr;
    pdf_obj* ref = nullptr;
    fz_buffer* data = nullptr;
    fz_var(obj);
    fz_var(copy);
    fz_var(ref);
    fz_var(data);
    fz_try(ctx) {
        while (pc->queued > 0) {
            const int num = pc->queue[--pc->queued];
            obj = LoadSourceObject(ctx, pc->src, num);
            copy = CopyValue(ctx, pc, obj, true, 0);
            pdf_update_object(ctx, pc->dst, MapGet(pc, num), copy != nullptr ? copy : PDF_NULL);
            if (pdf_obj_num_is_stream(ctx, pc->src, num)) {
                data = pdf_load_raw_stream_number(ctx, pc->src, num);
                ref = pdf_new_indirect(ctx, pc->dst, MapGet(pc, num), 0);
                pdf_update_stream(ctx, pc->dst, ref, data, 1);
            }
            fz_drop_buffer(ctx, data);
            pdf_drop_obj(ctx, ref);
            pdf_drop_obj(ctx, copy);
            pdf_drop_obj(ctx, obj);
            data = nullptr;
            ref = copy = obj = nullptr;
        }
    }
    fz_always(ctx) {
        fz_drop_buffer(ctx, data);
        pdf_drop_obj(ctx, ref);
        pdf_drop_obj(ctx, copy);
        pdf_drop_obj(ctx, obj);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// True when the explicit destination `dest` (of the result) names a page copied in this
// operation: every page the source's destinations can reach in the result is one of those.
bool NamesCopiedPage(fz_context* ctx, PageCopy* pc, pdf_obj* dest) {
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    if (!pdf_is_array(ctx, dest)) return false;
    pdf_obj* page = pdf_array_get(ctx, dest, 0);
    return pdf_is_indirect(ctx, page) && pdf_to_num(ctx, page) >= pc->first_new &&
           pdf_name_eq(ctx, pdf_dict_get(ctx, page, PDF_NAME(Type)), PDF_NAME(Page));
}

// The name a destination is looked up by, as the engine's name lookup reads it.
const char* DestinationName(fz_context* ctx, pdf_obj* name) {
    return pdf_is_name(ctx, name) ? pdf_to_name(ctx, name) : pdf_to_str_buf(ctx, name);
}

// The result's tree of named destinations, when it has one.
pdf_obj* DestinationTree(fz_context* ctx, PageCopy* pc) {
    return pdf_dict_getp(ctx, pdf_dict_get(ctx, pdf_trailer(ctx, pc->dst), PDF_NAME(Root)),
                         "Names/Dests");
}

// Whether named destinations can be added to the result: it has no tree of them yet, or a flat
// one (a sorted /Names array in its root).
bool TakesNames(fz_context* ctx, PageCopy* pc) {
    pdf_obj* tree = DestinationTree(ctx, pc);
    return tree == nullptr || (pdf_is_array(ctx, pdf_dict_get(ctx, tree, PDF_NAME(Names))) &&
                               pdf_dict_get(ctx, tree, PDF_NAME(Kids)) == nullptr);
}

// What a copied link's destination `dest` becomes in the result (a new reference): the same
// destination when it names a copied page; a named one carried along under its name when the
// result has no other destination of that name, made explicit when it has; null when the page it
// names was not copied.
pdf_obj* LinkDestination(fz_context* ctx, PageCopy* pc, pdf_obj* dest) {
    if (!pdf_is_name(ctx, dest) && !pdf_is_string(ctx, dest))
        return NamesCopiedPage(ctx, pc, dest) ? pdf_keep_obj(ctx, dest) : nullptr;
    const char* name = DestinationName(ctx, dest);
    if (pdf_dict_gets(ctx, pc->dests, name) != nullptr)
        return pdf_new_string(ctx, name, std::strlen(name));
    pdf_obj* copied = CopySourceDestination(ctx, pc, dest);
    if (copied == nullptr) return nullptr;
    // A name that is taken, that holds a zero byte (a name in UTF-16), or that the result's
    // tree cannot take in, is not carried: the link gets the destination itself.
    const std::size_t length =
        pdf_is_name(ctx, dest) ? std::strlen(name) : pdf_to_str_len(ctx, dest);
    if (length != std::strlen(name) || !TakesNames(ctx, pc) ||
        pdf_lookup_dest(ctx, pc->dst, dest) != nullptr)
        return copied;
    fz_try(ctx) {
        pdf_dict_puts(ctx, pc->dests, name, copied);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, copied);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return pdf_new_string(ctx, name, std::strlen(name));
}

// Puts what `key` of `holder` becomes in the result, or removes it.
void FixDestinationEntry(fz_context* ctx, PageCopy* pc, pdf_obj* holder, pdf_obj* key) {
    pdf_obj* fixed = LinkDestination(ctx, pc, pdf_dict_get(ctx, holder, key));
    if (fixed == nullptr) {
        pdf_dict_del(ctx, holder, key);
    } else {
        pdf_dict_put_drop(ctx, holder, key, fixed);
    }
}

void FixLink(fz_context* ctx, PageCopy* pc, pdf_obj* link) {
    if (pdf_dict_get(ctx, link, PDF_NAME(Dest)) != nullptr)
        FixDestinationEntry(ctx, pc, link, PDF_NAME(Dest));
    pdf_obj* action = pdf_dict_get(ctx, link, PDF_NAME(A));
    if (pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(GoTo))) {
        FixDestinationEntry(ctx, pc, action, PDF_NAME(D));
        if (pdf_dict_get(ctx, action, PDF_NAME(D)) == nullptr) pdf_dict_del(ctx, link, PDF_NAME(A));
    }
}

// Notes the top-level field of a copied widget. A signature field's value signed the source,
// not the result, and is removed.
void NoteField(fz_context* ctx, PageCopy* pc, pdf_obj* widget) {
    pdf_obj* node = widget;
    for (int depth = 0; depth < kMaxHierarchyDepth; ++depth) {
        if (pdf_name_eq(ctx, pdf_dict_get(ctx, node, PDF_NAME(FT)), PDF_NAME(Sig)))
            pdf_dict_del(ctx, node, PDF_NAME(V));
        pdf_obj* parent = pdf_dict_get(ctx, node, PDF_NAME(Parent));
        if (!pdf_is_dict(ctx, parent)) break;
        node = parent;
    }
    if (!pdf_is_indirect(ctx, node) || pdf_to_num(ctx, node) < pc->first_new) return;
    const int length = pdf_array_len(ctx, pc->fields);
    for (int i = 0; i < length; ++i)
        if (pdf_to_num(ctx, pdf_array_get(ctx, pc->fields, i)) == pdf_to_num(ctx, node)) return;
    pdf_array_push(ctx, pc->fields, node);
}

// A full name free in `taken`: `name` itself, or `name` with "_2", "_3"... after it.
void FreeFieldName(fz_context* ctx, pdf_obj* taken, const char* name, char* out, size_t size) {
    fz_strlcpy(out, name, size);
    for (int n = 2; pdf_dict_gets(ctx, taken, out) != nullptr; ++n)
        fz_snprintf(out, size, "%s_%d", name, n);
}

// The fields of the copied widgets join the destination's form, created when it has none with
// the source's default appearance and resources.
void MergeFields(fz_context* ctx, PageCopy* pc) {
    if (pdf_array_len(ctx, pc->fields) == 0) return;
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, pc->dst), PDF_NAME(Root));
    pdf_obj* from = pdf_dict_getp(ctx, pdf_trailer(ctx, pc->src), "Root/AcroForm");
    pdf_obj* form = pdf_dict_get(ctx, root, PDF_NAME(AcroForm));
    if (!pdf_is_dict(ctx, form)) form = pdf_dict_put_dict(ctx, root, PDF_NAME(AcroForm), 4);
    pdf_obj* fields = pdf_dict_get(ctx, form, PDF_NAME(Fields));
    if (!pdf_is_array(ctx, fields)) fields = pdf_dict_put_array(ctx, form, PDF_NAME(Fields), 4);

    pdf_obj* taken = pdf_new_dict(ctx, pc->dst, pdf_array_len(ctx, fields));
    fz_try(ctx) {
        for (int i = 0; i < pdf_array_len(ctx, fields); ++i) {
            const char* name =
                pdf_dict_get_text_string(ctx, pdf_array_get(ctx, fields, i), PDF_NAME(T));
            if (*name != '\0') pdf_dict_puts(ctx, taken, name, PDF_TRUE);
        }
        for (int i = 0; i < pdf_array_len(ctx, pc->fields); ++i) {
            pdf_obj* field = pdf_array_get(ctx, pc->fields, i);
            const char* name = pdf_dict_get_text_string(ctx, field, PDF_NAME(T));
            if (*name != '\0') {
                char free_name[512];
                FreeFieldName(ctx, taken, name, free_name, sizeof free_name);
                if (std::strcmp(free_name, name) != 0)
                    pdf_dict_put_text_string(ctx, field, PDF_NAME(T), free_name);
                pdf_dict_puts(ctx, taken, free_name, PDF_TRUE);
            }
            pdf_array_push(ctx, fields, field);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, taken);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }

    if (pdf_to_bool(ctx, pdf_dict_gets(ctx, from, "NeedAppearances")))
        pdf_dict_puts(ctx, form, "NeedAppearances", PDF_TRUE);
    pdf_obj* da = pdf_resolve_indirect(ctx, pdf_dict_get(ctx, from, PDF_NAME(DA)));
    if (pdf_dict_get(ctx, form, PDF_NAME(DA)) == nullptr && pdf_is_string(ctx, da))
        pdf_dict_put(ctx, form, PDF_NAME(DA), da);
    pdf_obj* dr = pdf_dict_get(ctx, from, PDF_NAME(DR));
    if (!pdf_is_dict(ctx, dr)) return;
    pdf_obj* own = pdf_dict_get(ctx, form, PDF_NAME(DR));
    if (!pdf_is_dict(ctx, own)) {
        pdf_dict_put_drop(ctx, form, PDF_NAME(DR), CopySourceObject(ctx, pc, dr));
        return;
    }
    // Fonts the incoming fields' appearances name and the destination's form does not have.
    pdf_obj* fonts = pdf_dict_get(ctx, dr, PDF_NAME(Font));
    pdf_obj* own_fonts = pdf_dict_get(ctx, own, PDF_NAME(Font));
    if (!pdf_is_dict(ctx, fonts)) return;
    if (!pdf_is_dict(ctx, own_fonts)) own_fonts = pdf_dict_put_dict(ctx, own, PDF_NAME(Font), 4);
    for (int i = 0; i < pdf_dict_len(ctx, fonts); ++i) {
        pdf_obj* key = pdf_dict_get_key(ctx, fonts, i);
        if (pdf_dict_get(ctx, own_fonts, key) != nullptr) continue;
        pdf_obj* font = CopySourceObject(ctx, pc, pdf_dict_get_val(ctx, fonts, i));
        if (font != nullptr) pdf_dict_put_drop(ctx, own_fonts, key, font);
    }
}

// True when the string `key` sorts before the name `name` (byte by byte, shorter first).
bool SortsBefore(fz_context* ctx, pdf_obj* key, const char* name) {
    const std::size_t length = pdf_to_str_len(ctx, key), other = std::strlen(name);
    const int order = std::memcmp(pdf_to_str_buf(ctx, key), name, std::min(length, other));
    return order < 0 || (order == 0 && length < other);
}

// Where the name `name` goes in the flat name tree array `names`.
int SortedPlace(fz_context* ctx, pdf_obj* names, const char* name) {
    int at = 0;
    while (at + 1 < pdf_array_len(ctx, names) &&
           SortsBefore(ctx, pdf_array_get(ctx, names, at), name))
        at += 2;
    return at;
}

// The named destinations the copied links use join the result's flat tree of them (made when
// it has none), each in its sorted place.
void AddNamedDestinations(fz_context* ctx, PageCopy* pc) {
    if (pdf_dict_len(ctx, pc->dests) == 0) return;
    pdf_obj* tree = DestinationTree(ctx, pc);
    if (tree == nullptr) {
        pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, pc->dst), PDF_NAME(Root));
        pdf_obj* names = pdf_dict_get(ctx, root, PDF_NAME(Names));
        if (!pdf_is_dict(ctx, names)) names = pdf_dict_put_dict(ctx, root, PDF_NAME(Names), 1);
        tree = pdf_dict_put_dict(ctx, names, PDF_NAME(Dests), 1);
        pdf_dict_put_array(ctx, tree, PDF_NAME(Names), 2 * pdf_dict_len(ctx, pc->dests));
    }
    pdf_obj* names = pdf_dict_get(ctx, tree, PDF_NAME(Names));
    for (int i = 0; i < pdf_dict_len(ctx, pc->dests); ++i) {
        const char* name = pdf_to_name(ctx, pdf_dict_get_key(ctx, pc->dests, i));
        const int at = SortedPlace(ctx, names, name);
        pdf_array_insert(ctx, names, pdf_dict_get_val(ctx, pc->dests, i), at);
        pdf_array_insert(ctx, names, PDF_NULL, at);
        pdf_array_put_drop(ctx, names, at, pdf_new_string(ctx, name, std::strlen(name)));
    }
    // The root of a flat tree has no /Limits; one it had is stale now.
    pdf_dict_del(ctx, tree, PDF_NAME(Limits));
}

// True when `list` (an array) holds a reference to object `num`.
bool ListsNumber(fz_context* ctx, pdf_obj* list, int num) {
    for (int i = 0; i < pdf_array_len(ctx, list); ++i)
        if (pdf_to_num(ctx, pdf_array_get(ctx, list, i)) == num) return true;
    return false;
}

// True when the source's default configuration `config` hides the group `group`.
bool HiddenByDefault(fz_context* ctx, pdf_obj* config, pdf_obj* group) {
    const int num = pdf_to_num(ctx, group);
    if (pdf_name_eq(ctx, pdf_dict_get(ctx, config, PDF_NAME(BaseState)), PDF_NAME(OFF)))
        return !ListsNumber(ctx, pdf_dict_get(ctx, config, PDF_NAME(ON)), num);
    return ListsNumber(ctx, pdf_dict_get(ctx, config, PDF_NAME(OFF)), num);
}

// The optional content groups the copied pages use become groups of the result, shown or hidden
// as the source showed them: a group the result does not list is always drawn, so content the
// source hid would appear.
void MergeOptionalContent(fz_context* ctx, PageCopy* pc) {
    if (pc->same) return;
    pdf_obj* from = pdf_dict_getp(ctx, pdf_trailer(ctx, pc->src), "Root/OCProperties");
    pdf_obj* groups = pdf_dict_get(ctx, from, PDF_NAME(OCGs));
    pdf_obj* config = pdf_dict_get(ctx, from, PDF_NAME(D));
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, pc->dst), PDF_NAME(Root));
    pdf_obj* to = nullptr;
    for (int i = 0; i < pdf_array_len(ctx, groups); ++i) {
        pdf_obj* group = pdf_array_get(ctx, groups, i);
        const int num = pdf_to_num(ctx, group);
        const int copied = MapGet(pc, num);
        if (copied <= 0) continue;
        if (to == nullptr) {
            to = pdf_dict_get(ctx, root, PDF_NAME(OCProperties));
            if (!pdf_is_dict(ctx, to)) to = pdf_dict_put_dict(ctx, root, PDF_NAME(OCProperties), 2);
            if (!pdf_is_array(ctx, pdf_dict_get(ctx, to, PDF_NAME(OCGs))))
                pdf_dict_put_array(ctx, to, PDF_NAME(OCGs), 4);
            if (!pdf_is_dict(ctx, pdf_dict_get(ctx, to, PDF_NAME(D))))
                pdf_dict_put_dict(ctx, to, PDF_NAME(D), 2);
        }
        pdf_obj* listed = pdf_dict_get(ctx, to, PDF_NAME(OCGs));
        if (ListsNumber(ctx, listed, copied)) continue;
        pdf_obj* ref = pdf_new_indirect(ctx, pc->dst, copied, 0);
        fz_try(ctx) {
            pdf_array_push(ctx, listed, ref);
            // The result's own default decides for groups it does not name: name the copy where
            // the two defaults would disagree.
            pdf_obj* own = pdf_dict_get(ctx, to, PDF_NAME(D));
            const bool hidden = HiddenByDefault(ctx, config, group);
            const bool own_off =
                pdf_name_eq(ctx, pdf_dict_get(ctx, own, PDF_NAME(BaseState)), PDF_NAME(OFF));
            if (hidden != own_off) {
                pdf_obj* key = hidden ? PDF_NAME(OFF) : PDF_NAME(ON);
                pdf_obj* list = pdf_dict_get(ctx, own, key);
                if (!pdf_is_array(ctx, list)) list = pdf_dict_put_array(ctx, own, key, 4);
                pdf_array_push(ctx, list, ref);
            }
            pdf_obj* order = pdf_dict_get(ctx, own, PDF_NAME(Order));
            if (pdf_is_array(ctx, order)) pdf_array_push(ctx, order, ref);
        }
        fz_always(ctx) {
            pdf_drop_obj(ctx, ref);
        }
        fz_catch(ctx) {
            fz_rethrow(ctx);
        }
    }
}

}  // namespace

bool IsDocumentStructure(fz_context* ctx, pdf_obj* obj) {
    if (!pdf_is_dict(ctx, obj)) return false;
    pdf_obj* type = pdf_dict_get(ctx, obj, PDF_NAME(Type));
    if (!pdf_is_name(ctx, type)) return false;
    return pdf_name_eq(ctx, type, PDF_NAME(Catalog)) || pdf_name_eq(ctx, type, PDF_NAME(Pages)) ||
           pdf_name_eq(ctx, type, PDF_NAME(Page)) || pdf_name_eq(ctx, type, PDF_NAME(Outlines)) ||
           std::strcmp(pdf_to_name(ctx, type), "StructTreeRoot") == 0 ||
           std::strcmp(pdf_to_name(ctx, type), "StructElem") == 0;
}

PageCopy* NewPageCopy(fz_context* ctx, pdf_document* src, pdf_document* dst) {
    auto* pc = static_cast<PageCopy*>(fz_calloc(ctx, 1, sizeof(PageCopy)));
    fz_try(ctx) {
        pc->src = src;
        pc->dst = dst;
        pc->same = src == dst;
        pc->length = pdf_xref_len(ctx, src);
        pc->first_new = pdf_xref_len(ctx, dst);
        pc->capacity = 64;
        pc->keys = static_cast<int*>(fz_calloc(ctx, pc->capacity, sizeof(int)));
        pc->values = static_cast<int*>(fz_calloc(ctx, pc->capacity, sizeof(int)));
        pc->pages = pdf_new_array(ctx, dst, 16);
        pc->dests = pdf_new_dict(ctx, dst, 4);
        pc->fields = pdf_new_array(ctx, dst, 4);
    }
    fz_catch(ctx) {
        DropPageCopy(ctx, pc);
        fz_rethrow(ctx);
    }
    return pc;
}

void DropPageCopy(fz_context* ctx, PageCopy* pc) {
    if (pc == nullptr) return;
    pdf_drop_obj(ctx, pc->fields);
    pdf_drop_obj(ctx, pc->dests);
    pdf_drop_obj(ctx, pc->pages);
    fz_free(ctx, pc->queue);
    fz_free(ctx, pc->values);
    fz_free(ctx, pc->keys);
    fz_free(ctx, pc);
}

int ReservePageCopy(fz_context* ctx, PageCopy* pc, int source) {
    const int num = pdf_create_object(ctx, pc->dst);
    if (source > 0 && source < pc->length && MapGet(pc, source) == 0) MapSet(ctx, pc, source, num);
    return num;
}

void FillPageCopy(fz_context* ctx, PageCopy* pc, pdf_obj* page, int num) {
    pdf_obj* dict = nullptr;
    pdf_obj* copy = nullptr;
    pdf_obj* ref = nullptr;
    fz_var(dict);
    fz_var(copy);
    fz_var(ref);
    fz_try(ctx) {
        // The page's own annotations come along whatever page their /P names.
        pdf_obj* own = pdf_dict_get(ctx, page, PDF_NAME(Annots));
        for (int i = 0; i < pdf_array_len(ctx, own); ++i) {
            pdf_obj* annot = pdf_array_get(ctx, own, i);
            const int source = pdf_to_num(ctx, annot);
            if (!pdf_is_indirect(ctx, annot) || source <= 0 || source >= pc->length ||
                MapGet(pc, source) != 0 || IsDocumentStructure(ctx, annot))
                continue;
            MapSet(ctx, pc, source, pdf_create_object(ctx, pc->dst));
            Enqueue(ctx, pc, source);
        }
        dict = CopiedPageDictionary(ctx, page);
        copy = CopyValue(ctx, pc, dict, false, 0);
        pdf_update_object(ctx, pc->dst, num, copy);
        FillQueued(ctx, pc);
        ref = pdf_new_indirect(ctx, pc->dst, num, 0);
        pdf_obj* annots = pdf_dict_get(ctx, ref, PDF_NAME(Annots));
        for (int i = 0; i < pdf_array_len(ctx, annots); ++i) {
            pdf_obj* annot = pdf_array_get(ctx, annots, i);
            if (pdf_is_dict(ctx, annot)) pdf_dict_put(ctx, annot, PDF_NAME(P), ref);
        }
        pdf_array_push(ctx, pc->pages, ref);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, ref);
        pdf_drop_obj(ctx, copy);
        pdf_drop_obj(ctx, dict);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

void FinishPageCopy(fz_context* ctx, PageCopy* pc) {
    for (int p = 0; p < pdf_array_len(ctx, pc->pages); ++p) {
        pdf_obj* annots = pdf_dict_get(ctx, pdf_array_get(ctx, pc->pages, p), PDF_NAME(Annots));
        for (int i = 0; i < pdf_array_len(ctx, annots); ++i) {
            pdf_obj* annot = pdf_array_get(ctx, annots, i);
            pdf_obj* subtype = pdf_dict_get(ctx, annot, PDF_NAME(Subtype));
            if (pdf_name_eq(ctx, subtype, PDF_NAME(Link))) {
                FixLink(ctx, pc, annot);
            } else if (pdf_name_eq(ctx, subtype, PDF_NAME(Widget))) {
                NoteField(ctx, pc, annot);
            }
        }
    }
    MergeFields(ctx, pc);
    AddNamedDestinations(ctx, pc);
    MergeOptionalContent(ctx, pc);
}

pdf_obj* CopySourceObject(fz_context* ctx, PageCopy* pc, pdf_obj* obj) {
    pdf_obj* copy = CopyValue(ctx, pc, obj, true, 0);
    fz_try(ctx) {
        FillQueued(ctx, pc);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, copy);
        fz_rethrow(ctx);
    }
    return copy;
}

pdf_obj* CopySourceDestination(fz_context* ctx, PageCopy* pc, pdf_obj* dest) {
    if (pdf_is_name(ctx, dest) || pdf_is_string(ctx, dest))
        dest = pdf_lookup_dest(ctx, pc->src, dest);
    if (pdf_is_dict(ctx, dest)) dest = pdf_dict_get(ctx, dest, PDF_NAME(D));
    if (!pdf_is_array(ctx, dest)) return nullptr;
    pdf_obj* copy = CopySourceObject(ctx, pc, dest);
    if (!NamesCopiedPage(ctx, pc, copy)) {
        pdf_drop_obj(ctx, copy);
        return nullptr;
    }
    return copy;
}

}  // namespace zpdf::engine
