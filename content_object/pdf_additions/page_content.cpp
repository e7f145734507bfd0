#include "content_object/pdf_additions/page_content.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "content_object/pdf_additions/page_graft.h"
#include "engine/engine_internal.h"

namespace zpdf::additions {
namespace {

// Engine-level helpers: plain data only, so that the engine's error jumps skip no destructor.
// Each either returns normally or throws an engine error.

void PrepareDestination(fz_context* ctx, pdf_document* doc) {
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

void AppendStreamData(fz_context* ctx, fz_buffer* into, pdf_obj* stream, int separate) {
    fz_buffer* part = pdf_load_stream(ctx, stream);
    fz_try(ctx) {
        fz_append_buffer(ctx, into, part);
        if (separate) fz_append_byte(ctx, into, ' ');
    }
    fz_always(ctx) {
        fz_drop_buffer(ctx, part);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// The page's content streams, decoded and joined; null when there is no content.
fz_buffer* GatherContent(fz_context* ctx, pdf_obj* page) {
    pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
    if (!contents) return nullptr;
    fz_buffer* data = fz_new_buffer(ctx, 4096);
    fz_try(ctx) {
        if (pdf_is_stream(ctx, contents)) {
            AppendStreamData(ctx, data, contents, 0);
        } else if (pdf_is_array(ctx, contents)) {
            const int n = pdf_array_len(ctx, contents);
            for (int i = 0; i < n; ++i) {
                pdf_obj* part = pdf_array_get(ctx, contents, i);
                if (pdf_is_stream(ctx, part)) AppendStreamData(ctx, data, part, 1);
            }
        }
    }
    fz_catch(ctx) {
        fz_drop_buffer(ctx, data);
        fz_rethrow(ctx);
    }
    if (data->len == 0) {
        fz_drop_buffer(ctx, data);
        return nullptr;
    }
    return data;
}

std::uint32_t MakeForm(fz_context* ctx, pdf_document* doc, pdf_obj* page, float* width,
                       float* height) {
    fz_rect box;
    fz_matrix ctm;
    pdf_page_obj_transform(ctx, page, &box, &ctm);
    const fz_rect shown = fz_transform_rect(box, ctm);
    *width = shown.x1 - shown.x0;
    *height = shown.y1 - shown.y0;

    fz_buffer* data = GatherContent(ctx, page);
    if (data == nullptr) return 0;
    pdf_obj* dict = nullptr;
    pdf_obj* form = nullptr;
    std::uint32_t number = 0;
    fz_var(dict);
    fz_var(form);
    fz_try(ctx) {
        dict = pdf_new_dict(ctx, doc, 5);
        pdf_dict_put(ctx, dict, PDF_NAME(Type), PDF_NAME(XObject));
        pdf_dict_put(ctx, dict, PDF_NAME(Subtype), PDF_NAME(Form));
        pdf_dict_put_rect(ctx, dict, PDF_NAME(BBox), box);
        // The engine's page matrix maps to a y-down space; flipping it back gives the matrix
        // that moves the box to the origin with the page's rotation, in PDF space.
        pdf_dict_put_matrix(ctx, dict, PDF_NAME(Matrix),
                            fz_concat(ctm, fz_make_matrix(1, 0, 0, -1, 0, *height)));
        pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
        if (pdf_is_dict(ctx, resources)) {
            pdf_obj* copy = pdf_add_object_drop(ctx, doc, pdf_copy_dict(ctx, resources));
            pdf_dict_put_drop(ctx, dict, PDF_NAME(Resources), copy);
        }
        form = pdf_add_stream(ctx, doc, data, dict, 0);
        number = static_cast<std::uint32_t>(pdf_to_num(ctx, form));
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, form);
        pdf_drop_obj(ctx, dict);
        fz_drop_buffer(ctx, data);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return number;
}

// Writes the new resource name into `name` (at least 32 bytes).
void AddResource(fz_context* ctx, pdf_document* doc, pdf_obj* page, std::uint32_t object_number,
                 const char* category, char* name) {
    pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
    if (!pdf_is_dict(ctx, resources)) {
        resources = pdf_add_new_dict(ctx, doc, 1);
        pdf_dict_put_drop(ctx, page, PDF_NAME(Resources), resources);
    }
    pdf_obj* named = pdf_dict_gets(ctx, resources, category);
    if (!pdf_is_dict(ctx, named)) named = pdf_dict_puts_dict(ctx, resources, category, 1);
    for (int n = 1;; ++n) {
        std::snprintf(name, 32, "FX%c%d", category[0], n);
        if (!pdf_dict_gets(ctx, named, name)) break;
    }
    pdf_dict_puts_drop(ctx, named, name,
                       pdf_new_indirect(ctx, doc, static_cast<int>(object_number), 0));
}

pdf_obj* AddContentStream(fz_context* ctx, pdf_document* doc, const char* bytes, size_t size) {
    fz_buffer* data =
        fz_new_buffer_from_copied_data(ctx, reinterpret_cast<const unsigned char*>(bytes), size);
    pdf_obj* dict = nullptr;
    pdf_obj* stream = nullptr;
    fz_var(dict);
    fz_try(ctx) {
        dict = pdf_new_dict(ctx, doc, 1);
        stream = pdf_add_stream(ctx, doc, data, dict, 0);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, dict);
        fz_drop_buffer(ctx, data);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return stream;
}

// A stream of `doc` whose decoded bytes are `bytes`, or 0 when object `num` is not one (any
// more). Never throws.
int SameStream(fz_context* ctx, pdf_document* doc, int num, const char* bytes, size_t size) {
    volatile int same = 0;
    fz_buffer* data = nullptr;
    fz_var(data);
    fz_try(ctx) {
        if (num > 0 && num < pdf_xref_len(ctx, doc) && pdf_obj_num_is_stream(ctx, doc, num)) {
            data = pdf_load_stream_number(ctx, doc, num);
            unsigned char* stored = nullptr;
            const size_t length = fz_buffer_storage(ctx, data, &stored);
            same = length == size && (size == 0 || std::memcmp(stored, bytes, size) == 0);
        }
    }
    fz_always(ctx) {
        fz_drop_buffer(ctx, data);
    }
    fz_catch(ctx) {
        same = 0;
    }
    return same != 0 ? num : 0;
}

// Object `num` when it is not 0, else a new content stream holding `bytes`; a reference of
// the caller's.
pdf_obj* ContentStream(fz_context* ctx, pdf_document* doc, int num, const char* bytes,
                       size_t size) {
    if (num > 0) return pdf_new_indirect(ctx, doc, num, 0);
    return AddContentStream(ctx, doc, bytes, size);
}

// Streams placed on pages, by content: placing the same content on many pages (a letterhead
// on every page of a long print file) shares one stream instead of adding one a page.
struct PlacedStream {
    const char* bytes;
    size_t size;
    int reuse;          // an earlier stream with these bytes, 0 for none
    volatile int used;  // the stream spliced in
};

// Adds the streams, or takes the earlier ones, and splices them into the page's content; 0
// when the page has none.
int SpliceContent(fz_context* ctx, pdf_document* doc, pdf_obj* page, PlacedStream* front,
                  PlacedStream* back) {
    pdf_obj* front_ref = nullptr;
    pdf_obj* back_ref = nullptr;
    pdf_obj* array = nullptr;
    volatile int placed = 1;
    fz_var(front_ref);
    fz_var(back_ref);
    fz_var(array);
    fz_try(ctx) {
        front_ref = ContentStream(ctx, doc, front->reuse, front->bytes, front->size);
        front->used = pdf_to_num(ctx, front_ref);
        if (back->size > 0) {
            back_ref = ContentStream(ctx, doc, back->reuse, back->bytes, back->size);
            back->used = pdf_to_num(ctx, back_ref);
        }
        pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
        if (!contents) {
            placed = 0;
        } else if (pdf_is_array(ctx, contents)) {
            // An array object of its own may draw other pages too; this page gets a copy.
            if (pdf_is_indirect(ctx, contents)) {
                array = pdf_copy_array(ctx, contents);
                pdf_dict_put(ctx, page, PDF_NAME(Contents), array);
                contents = array;
            }
            pdf_array_insert(ctx, contents, front_ref, 0);
            if (back_ref) pdf_array_push(ctx, contents, back_ref);
        } else if (pdf_is_indirect(ctx, contents) && pdf_is_stream(ctx, contents)) {
            array = pdf_new_array(ctx, doc, 3);
            pdf_array_push(ctx, array, front_ref);
            pdf_array_push_drop(ctx, array,
                                pdf_new_indirect(ctx, doc, pdf_to_num(ctx, contents), 0));
            if (back_ref) pdf_array_push(ctx, array, back_ref);
            pdf_dict_put(ctx, page, PDF_NAME(Contents), array);
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, array);
        pdf_drop_obj(ctx, back_ref);
        pdf_drop_obj(ctx, front_ref);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return placed;
}

// The stream placed earlier with these bytes, when the document still holds it unchanged.
int EarlierStream(engine::Document::Impl& impl, const char* bytes, size_t size) {
    const auto found = impl.placed_streams.find(std::string(bytes, size));
    if (found == impl.placed_streams.end()) return 0;
    return SameStream(impl.ctx, impl.doc, found->second, bytes, size);
}

void RememberStream(engine::Document::Impl& impl, const char* bytes, size_t size, int num) {
    // Content that differs from page to page is not worth keeping.
    constexpr std::size_t kMaxRemembered = 64;
    constexpr std::size_t kMaxRememberedBytes = 4096;
    if (num <= 0 || size > kMaxRememberedBytes) return;
    if (impl.placed_streams.size() >= kMaxRemembered) impl.placed_streams.clear();
    impl.placed_streams[std::string(bytes, size)] = num;
}

bool PlaceStreams(engine::Document::Impl& impl, int page_index, const char* front,
                  size_t front_size, const char* back, size_t back_size) {
    engine::NoteWork(impl);
    fz_context* ctx = impl.ctx;
    PlacedStream front_stream{front, front_size, EarlierStream(impl, front, front_size), 0};
    PlacedStream back_stream{back, back_size,
                             back_size > 0 ? EarlierStream(impl, back, back_size) : 0, 0};
    volatile int placed = 0;
    fz_try(ctx) {
        placed = SpliceContent(ctx, impl.doc, engine::LookupPage(impl, page_index), &front_stream,
                               &back_stream);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Page, "cannot place the form");
    }
    RememberStream(impl, front, front_size, front_stream.used);
    if (back_size > 0) RememberStream(impl, back, back_size, back_stream.used);
    return placed != 0;
}

}  // namespace

void ImportPages(engine::Document& dst, engine::Document& src, const std::vector<int>* pages,
                 int at) {
    engine::PlaceObjectsBeforeChanges(dst.Internals());
    fz_context* ctx = dst.Internals().ctx;
    pdf_document* to = dst.Internals().doc;
    pdf_document* from = src.Internals().doc;
    volatile int count = 0;
    volatile int total = 0;
    fz_try(ctx) {
        total = engine::CountDocumentPages(dst.Internals());
        if (at < 0 || at > total)
            fz_throw(ctx, FZ_ERROR_GENERIC, "cannot insert pages at index %d", at);
        engine::KeepPageCountsCorrect(src.Internals());
        engine::RequireCatalog(ctx, from);
        count = pages != nullptr ? static_cast<int>(pages->size()) : pdf_count_pages(ctx, from);
        PrepareDestination(ctx, to);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Other, "cannot import the pages");
    }

    // A failed run leaves the page tree as it was and none of its objects behind.
    char why[256] = {};
    const int failed =
        GraftPageRun(dst.Internals(), src.Internals(), pages != nullptr ? pages->data() : nullptr,
                     count, at, total, why, sizeof why);
    engine::PageTreeChanged(dst.Internals());
    if (failed >= 0) {
        throw engine::EngineError(engine::ErrorCategory::Other,
                                  "cannot import page " + std::to_string(failed + 1) + ": " + why);
    }
}

void DeletePage(engine::Document& doc, int index) {
    engine::PlaceObjectsBeforeChanges(doc.Internals());
    fz_context* ctx = doc.Internals().ctx;
    pdf_document* pdf = doc.Internals().doc;
    engine::PageTreeChanged(doc.Internals());
    fz_try(ctx) {
        if (index >= 0 && index < engine::CountDocumentPages(doc.Internals()))
            pdf_delete_page(ctx, pdf, index);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Other, "cannot delete a page");
    }
}

FormXObjectInfo MakePageFormXObject(engine::Document& doc, int page_index) {
    engine::PlaceObjectsBeforeChanges(doc.Internals());
    engine::NoteWork(doc.Internals());
    fz_context* ctx = doc.Internals().ctx;
    pdf_document* pdf = doc.Internals().doc;
    float width = 0;
    float height = 0;
    volatile std::uint32_t number = 0;
    fz_try(ctx) {
        number =
            MakeForm(ctx, pdf, engine::LookupPage(doc.Internals(), page_index), &width, &height);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Page, "cannot make a form of the page");
    }
    return FormXObjectInfo{number, width, height};
}

std::string AddXObjectResource(engine::Document& doc, int page_index, std::uint32_t object_number,
                               const std::string& category) {
    engine::PlaceObjectsBeforeChanges(doc.Internals());
    engine::NoteWork(doc.Internals());
    fz_context* ctx = doc.Internals().ctx;
    pdf_document* pdf = doc.Internals().doc;
    char name[32] = {};
    const char* cat = category.c_str();
    fz_try(ctx) {
        AddResource(ctx, pdf, engine::LookupPage(doc.Internals(), page_index), object_number, cat,
                    name);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Page, "cannot name the resource");
    }
    return name;
}

bool IsFormXObject(engine::Document& doc, std::uint32_t object_number) {
    fz_context* ctx = doc.Internals().ctx;
    pdf_document* pdf = doc.Internals().doc;
    volatile int form = 0;
    fz_try(ctx) {
        if (object_number > 0 &&
            object_number < static_cast<std::uint32_t>(pdf_xref_len(ctx, pdf))) {
            pdf_obj* ref = pdf_new_indirect(ctx, pdf, static_cast<int>(object_number), 0);
            form = pdf_is_stream(ctx, ref) &&
                   pdf_name_eq(ctx, pdf_dict_get(ctx, ref, PDF_NAME(Subtype)), PDF_NAME(Form));
            pdf_drop_obj(ctx, ref);
        }
    }
    fz_catch(ctx) {
        form = 0;
    }
    return form != 0;
}

std::string FormatPlacement(const std::array<double, 6>& matrix, const std::string& name) {
    std::string out = "q";
    for (const double value : matrix) {
        char number[64];
        const auto done =
            std::to_chars(number, number + sizeof number, value, std::chars_format::fixed, 6);
        out += ' ';
        out.append(number, done.ptr);
    }
    out += " cm /" + name + " Do Q\n";
    return out;
}

bool PlaceFormXObject(engine::Document& doc, std::uint32_t object_number, int page_index,
                      const std::array<float, 6>& matrix, bool background) {
    const std::string name = AddXObjectResource(doc, page_index, object_number, "XObject");
    const std::array<double, 6> values{matrix[0], matrix[1], matrix[2],
                                       matrix[3], matrix[4], matrix[5]};
    const std::string draw = FormatPlacement(values, name);
    const std::string front = background ? draw : "q\n";
    const std::string back = background ? "" : "Q\n" + draw;

    return PlaceStreams(doc.Internals(), page_index, front.data(), front.size(), back.data(),
                        back.size());
}
}  // namespace zpdf::additions
