// Forms and placements: a page of one document becomes a form XObject, and a form is drawn on
// a page of another, beneath or above its content.
#include "engine/placement.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "engine/page_operations.h"

namespace zpdf::engine {
namespace {

// Engine-level helpers: plain data only, so that the engine's error jumps skip no destructor.
// Each either returns normally or throws an engine error.

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

// The page's content as the placements see it: an array of content streams, a stream, or
// nothing that draws (no /Contents, null, an empty array, a reference to no stream).
void PutPlacedContents(fz_context* ctx, pdf_document* doc, pdf_obj* final, pdf_obj* page,
                       std::span<const int> front, std::span<const int> back) {
    pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
    pdf_obj* array = pdf_dict_put_array(ctx, final, PDF_NAME(Contents), 4);
    for (std::size_t i = front.size(); i-- > 0;) {
        pdf_array_push_drop(ctx, array, pdf_new_indirect(ctx, doc, front[i], 0));
    }
    if (pdf_is_array(ctx, contents)) {
        const int count = pdf_array_len(ctx, contents);
        for (int i = 0; i < count; ++i) pdf_array_push(ctx, array, pdf_array_get(ctx, contents, i));
    } else if (pdf_is_indirect(ctx, contents) && pdf_is_stream(ctx, contents)) {
        pdf_array_push(ctx, array, contents);
    }
    for (const int stream : back) {
        if (stream > 0) pdf_array_push_drop(ctx, array, pdf_new_indirect(ctx, doc, stream, 0));
    }
}

// The page's resources, its own or inherited, as a dictionary of the page's own with the
// placements' forms added to a copy of their XObject dictionary.
void PutPlacedResources(fz_context* ctx, pdf_document* doc, pdf_obj* final, pdf_obj* page,
                        std::span<const PendingPlacement> placements,
                        std::span<const PlacementName> names) {
    pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
    pdf_obj* own = pdf_dict_put_dict(ctx, final, PDF_NAME(Resources), 4);
    pdf_obj* xobjects = nullptr;
    if (pdf_is_dict(ctx, resources)) {
        const int count = pdf_dict_len(ctx, resources);
        for (int i = 0; i < count; ++i) {
            pdf_obj* key = pdf_dict_get_key(ctx, resources, i);
            if (pdf_name_eq(ctx, key, PDF_NAME(XObject))) {
                xobjects = pdf_dict_get_val(ctx, resources, i);
            } else {
                pdf_dict_put(ctx, own, key, pdf_dict_get_val(ctx, resources, i));
            }
        }
    }
    pdf_obj* forms = pdf_dict_put_dict(ctx, own, PDF_NAME(XObject), 4);
    if (pdf_is_dict(ctx, xobjects)) {
        const int count = pdf_dict_len(ctx, xobjects);
        for (int i = 0; i < count; ++i) {
            pdf_dict_put(ctx, forms, pdf_dict_get_key(ctx, xobjects, i),
                         pdf_dict_get_val(ctx, xobjects, i));
        }
    }
    for (std::size_t i = 0; i < placements.size(); ++i) {
        pdf_dict_puts_drop(ctx, forms, names[i].text,
                           pdf_new_indirect(ctx, doc, static_cast<int>(placements[i].form), 0));
    }
}

// A page to change: by its object number, or by its index when it is not an object of its own.
struct PageLocation {
    int num;
    int index;
};

// The page dictionary, borrowed from the document's table of objects. Throws an engine error.
pdf_obj* ResolvePage(Document::Impl& impl, PageLocation where) {
    if (where.num <= 0) return LookupPage(impl, where.index);
    pdf_obj* page = pdf_load_object(impl.ctx, impl.doc, where.num);
    pdf_drop_obj(impl.ctx, page);
    if (!pdf_is_dict(impl.ctx, page)) fz_throw(impl.ctx, FZ_ERROR_GENERIC, "the page is gone");
    return page;
}

// The streams of placements made in the document: one made earlier with the same bytes, when
// the document still holds it unchanged, or a new one.
class DocumentPlacementStreams final : public PlacementStreamSource {
  public:
    explicit DocumentPlacementStreams(Document::Impl& impl) : impl_(impl) {}
    int StreamFor(const std::string& bytes) override {
        fz_context* ctx = impl_.ctx;
        const int earlier = SameStream(ctx, impl_.doc, impl_.placed_streams.Find(bytes),
                                       bytes.data(), bytes.size());
        if (earlier > 0) return earlier;
        volatile int num = 0;
        fz_try(ctx) {
            pdf_obj* stream = AddContentStream(ctx, impl_.doc, bytes.data(), bytes.size());
            num = pdf_to_num(ctx, stream);
            pdf_drop_obj(ctx, stream);
        }
        fz_catch(ctx) {
            ThrowCaught(ctx, ErrorCategory::Page, "cannot add the placement's content");
        }
        impl_.placed_streams.Remember(bytes, num);
        return num;
    }

  private:
    Document::Impl& impl_;
};

// Draws the placements on the page in the document now: the page takes the resources and the
// content of its final dictionary.
void MakePlacements(Document::Impl& impl, PageLocation where,
                    std::span<const PendingPlacement> placements) {
    NoteWork(impl);
    fz_context* ctx = impl.ctx;
    DocumentPlacementStreams streams(impl);
    pdf_obj* final = FinalPlacedPage(
        ctx, impl.doc, [&impl, where] { return ResolvePage(impl, where); }, placements, streams);
    fz_try(ctx) {
        pdf_obj* page = ResolvePage(impl, where);
        pdf_dict_put(ctx, page, PDF_NAME(Resources), pdf_dict_get(ctx, final, PDF_NAME(Resources)));
        pdf_dict_put(ctx, page, PDF_NAME(Contents), pdf_dict_get(ctx, final, PDF_NAME(Contents)));
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, final);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot place the form");
    }
}

// The page's object number when the page is an object of its own, else 0. Throws an engine
// error.
int PageObjectNumber(fz_context* ctx, pdf_document* doc, pdf_obj* page) {
    const int num = pdf_obj_parent_num(ctx, page);
    if (num <= 0) return 0;
    pdf_obj* stored = pdf_load_object(ctx, doc, num);
    pdf_drop_obj(ctx, stored);
    return stored == page ? num : 0;
}

}  // namespace

int SharedPlacementStreams::Find(const std::string& bytes) const {
    const auto found = streams_.find(bytes);
    return found == streams_.end() ? 0 : found->second;
}

void SharedPlacementStreams::Remember(const std::string& bytes, int num) {
    constexpr std::size_t kMaxRemembered = 64;
    constexpr std::size_t kMaxRememberedBytes = 4096;
    if (num <= 0 || bytes.size() > kMaxRememberedBytes) return;
    if (streams_.size() >= kMaxRemembered) streams_.clear();
    streams_[bytes] = num;
}

void NamePlacements(fz_context* ctx, pdf_obj* page, std::span<PlacementName> names) {
    fz_try(ctx) {
        pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
        pdf_obj* xobjects = pdf_dict_get(ctx, resources, PDF_NAME(XObject));
        int n = 1;
        for (PlacementName& name : names) {
            for (;; ++n) {
                fz_snprintf(name.text, sizeof name.text, "FXX%d", n);
                if (!pdf_dict_gets(ctx, xobjects, name.text)) break;
            }
            ++n;
        }
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot read a page to draw its placements");
    }
}

pdf_obj* ComposePlacedPage(fz_context* ctx, pdf_document* doc, pdf_obj* page,
                           std::span<const PendingPlacement> placements,
                           std::span<const PlacementName> names, std::span<const int> front,
                           std::span<const int> back) {
    pdf_obj* final = nullptr;
    fz_var(final);
    fz_try(ctx) {
        final = pdf_copy_dict(ctx, page);
        PutPlacedResources(ctx, doc, final, page, placements, names);
        PutPlacedContents(ctx, doc, final, page, front, back);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, final);
        ThrowCaught(ctx, ErrorCategory::Page, "cannot draw the placements into the page");
    }
    return final;
}

void MakeRecordedPlacements(Document::Impl& impl, int index) {
    std::vector<PendingPlacement>& pending = impl.pending.placements;
    int only = 0;  // the page's object number; 0 for every page
    if (index >= 0) {
        fz_context* ctx = impl.ctx;
        volatile int num = 0;
        fz_try(ctx) {
            if (index < CountDocumentPages(impl))
                num = pdf_obj_parent_num(ctx, LookupPage(impl, index));
        }
        fz_catch(ctx) {
            num = 0;
        }
        // A page that cannot be found has nothing of its own recorded; the caller reports it.
        if (num <= 0) return;
        only = num;
    }
    // The placements of one page are made together, in the order they were asked for; those of
    // other pages stay recorded, and so do those not made when making one fails.
    std::vector<PendingPlacement> waiting = std::move(pending);
    pending.clear();
    std::stable_sort(
        waiting.begin(), waiting.end(),
        [](const PendingPlacement& a, const PendingPlacement& b) { return a.page < b.page; });
    std::size_t next = 0;
    try {
        while (next < waiting.size()) {
            std::size_t end = next;
            while (end < waiting.size() && waiting[end].page == waiting[next].page) ++end;
            const std::span<const PendingPlacement> group(waiting.data() + next, end - next);
            if (only == 0 || waiting[next].page == only) {
                MakePlacements(impl, PageLocation{waiting[next].page, -1}, group);
            } else {
                pending.insert(pending.end(), group.begin(), group.end());
            }
            next = end;
        }
    } catch (...) {
        pending.insert(pending.end(), waiting.begin() + static_cast<std::ptrdiff_t>(next),
                       waiting.end());
        throw;
    }
}

FormXObjectInfo MakePageFormXObject(Document& doc, int page_index) {
    MakePendingChanges(doc.Internals(), page_index);
    PlaceObjectsBeforeChanges(doc.Internals());
    NoteWork(doc.Internals());
    fz_context* ctx = doc.Internals().ctx;
    pdf_document* pdf = doc.Internals().doc;
    float width = 0;
    float height = 0;
    volatile std::uint32_t number = 0;
    fz_try(ctx) {
        number = MakeForm(ctx, pdf, LookupPage(doc.Internals(), page_index), &width, &height);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot make a form of the page");
    }
    if (number > 0) doc.Internals().made_forms.push_back(static_cast<int>(number));
    return FormXObjectInfo{number, width, height};
}

bool IsFormXObject(Document& doc, std::uint32_t object_number) {
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

PlacementStreams PlacementContent(const PendingPlacement& placement, const std::string& name) {
    const std::array<double, 6> values{placement.matrix[0], placement.matrix[1],
                                       placement.matrix[2], placement.matrix[3],
                                       placement.matrix[4], placement.matrix[5]};
    const std::string draw = FormatPlacement(values, name);
    if (placement.background) return PlacementStreams{draw, ""};
    return PlacementStreams{"q\n", "Q\n" + draw};
}

void PlaceFormXObject(Document& doc, std::uint32_t object_number, int page_index,
                      const std::array<float, 6>& matrix, bool background) {
    Document::Impl& impl = doc.Internals();
    MakePendingAppends(impl);
    PlaceObjectsBeforeChanges(impl);
    NoteWork(impl);
    fz_context* ctx = impl.ctx;
    volatile int num = 0;
    fz_try(ctx) {
        num = PageObjectNumber(ctx, impl.doc, LookupPage(impl, page_index));
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot place the form");
    }
    const PendingPlacement placement{num, object_number, matrix, background};
    // A page that is not an object of its own cannot be found again by its number.
    if (num == 0) {
        MakePlacements(impl, PageLocation{0, page_index}, std::span(&placement, 1));
        return;
    }
    impl.pending.placements.push_back(placement);
}

}  // namespace zpdf::engine
