#include "engine/page_operations.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "engine/writer/document_writer.h"
#include "engine/graft.h"
#include "engine/placement.h"
#include "engine/security/source_security.h"
#include "engine/internal.h"

namespace zpdf::engine {
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

// Whether a placement has a place on the page: a content stream, or an array of them.
int HasContentPlace(fz_context* ctx, pdf_obj* page) {
    pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
    return pdf_is_array(ctx, contents) ||
           (pdf_is_indirect(ctx, contents) && pdf_is_stream(ctx, contents));
}

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
        } else {
            placed = 0;
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

// A page to change: by its object number, or by its index when it is not an object of its own.
struct PageLocation {
    int num;
    int index;
};

// The page dictionary, borrowed from the document's table of objects. Throws an engine error.
pdf_obj* ResolvePage(engine::Document::Impl& impl, PageLocation where) {
    if (where.num <= 0) return engine::LookupPage(impl, where.index);
    pdf_obj* page = pdf_load_object(impl.ctx, impl.doc, where.num);
    pdf_drop_obj(impl.ctx, page);
    if (!pdf_is_dict(impl.ctx, page)) fz_throw(impl.ctx, FZ_ERROR_GENERIC, "the page is gone");
    return page;
}

bool PlaceStreams(engine::Document::Impl& impl, PageLocation where, const char* front,
                  size_t front_size, const char* back, size_t back_size) {
    fz_context* ctx = impl.ctx;
    PlacedStream front_stream{front, front_size, EarlierStream(impl, front, front_size), 0};
    PlacedStream back_stream{back, back_size,
                             back_size > 0 ? EarlierStream(impl, back, back_size) : 0, 0};
    volatile int placed = 0;
    fz_try(ctx) {
        placed =
            SpliceContent(ctx, impl.doc, ResolvePage(impl, where), &front_stream, &back_stream);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Page, "cannot place the form");
    }
    RememberStream(impl, front, front_size, front_stream.used);
    if (back_size > 0) RememberStream(impl, back, back_size, back_stream.used);
    return placed != 0;
}

std::string NameResource(engine::Document::Impl& impl, PageLocation where,
                         std::uint32_t object_number, const char* category) {
    fz_context* ctx = impl.ctx;
    char name[32] = {};
    fz_try(ctx) {
        AddResource(ctx, impl.doc, ResolvePage(impl, where), object_number, category, name);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Page, "cannot name the resource");
    }
    return name;
}

// Draws the form on the page in the document now.
bool MakePlacement(engine::Document::Impl& impl, PageLocation where,
                   const engine::PendingPlacement& placement) {
    engine::NoteWork(impl);
    const std::string name = NameResource(impl, where, placement.form, "XObject");
    const PlacementStreams streams = PlacementContent(placement, name);
    return PlaceStreams(impl, where, streams.front.data(), streams.front.size(),
                        streams.back.data(), streams.back.size());
}

}  // namespace

void MakeRecordedPlacements(engine::Document::Impl& impl, int index) {
    std::vector<engine::PendingPlacement>& pending = impl.pending_placements;
    int only = 0;  // the page's object number; 0 for every page
    if (index >= 0) {
        fz_context* ctx = impl.ctx;
        volatile int num = 0;
        fz_try(ctx) {
            if (index < engine::CountDocumentPages(impl))
                num = pdf_obj_parent_num(ctx, engine::LookupPage(impl, index));
        }
        fz_catch(ctx) {
            num = 0;
        }
        // A page that cannot be found has nothing of its own recorded; the caller reports it.
        if (num <= 0) return;
        only = num;
    }
    std::size_t kept = 0;
    std::size_t next = 0;
    try {
        for (; next < pending.size(); ++next) {
            const engine::PendingPlacement placement = pending[next];
            if (only != 0 && placement.page != only) {
                pending[kept++] = placement;
                continue;
            }
            MakePlacement(impl, PageLocation{placement.page, -1}, placement);
        }
    } catch (...) {
        // What was made stays made; what was not stays recorded.
        while (next + 1 < pending.size()) pending[kept++] = pending[++next];
        pending.resize(kept);
        throw;
    }
    pending.resize(kept);
}

namespace {

// The page's object number when the page is an object of its own, else 0. Throws an engine
// error.
int PageObjectNumber(fz_context* ctx, pdf_document* doc, pdf_obj* page) {
    const int num = pdf_obj_parent_num(ctx, page);
    if (num <= 0) return 0;
    pdf_obj* stored = pdf_load_object(ctx, doc, num);
    pdf_drop_obj(ctx, stored);
    return stored == page ? num : 0;
}

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
int RemoveFromParent(engine::Document::Impl& impl, int index) {
    fz_context* ctx = impl.ctx;
    pdf_obj* page = engine::LookupPage(impl, index);  // fills the cache
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
        if (++depth > engine::kMaxPageTreeDepth || !pdf_is_indirect(ctx, up) ||
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
    return 1;
}

}  // namespace

namespace {

// Copies the pages `pages` of `src` (all for null) in front of page `at` of `dst` (at its end
// without one). Changes nothing when it fails. Throws EngineError.
void ImportPageRun(engine::Document::Impl& dst, engine::Document::Impl& src,
                   const std::vector<int>* pages, std::optional<int> at) {
    engine::PlaceObjectsBeforeChanges(dst);
    fz_context* ctx = dst.ctx;
    volatile int count = 0;
    volatile int total = 0;
    volatile int where = 0;
    fz_try(ctx) {
        total = engine::CountDocumentPages(dst);
        where = at.value_or(total);
        if (where < 0 || where > total)
            fz_throw(ctx, FZ_ERROR_GENERIC, "cannot insert pages at index %d", where);
        engine::KeepPageCountsCorrect(src);
        engine::RequireCatalog(ctx, src.doc);
        count = pages != nullptr ? static_cast<int>(pages->size()) : pdf_count_pages(ctx, src.doc);
        PrepareDestination(ctx, dst.doc);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Other, "cannot import the pages");
    }

    // A failed run leaves the page tree as it was and none of its objects behind.
    char why[256] = {};
    const int failed = GraftPageRun(dst, src, pages != nullptr ? pages->data() : nullptr, count,
                                    where, total, why, sizeof why);
    engine::PageTreeChanged(dst);
    if (failed >= 0) {
        throw engine::EngineError(engine::ErrorCategory::Other,
                                  "cannot import page " + std::to_string(failed + 1) + ": " + why);
    }
}

}  // namespace

void MakeRecordedAppends(engine::Document::Impl& impl) {
    while (!impl.pending_appends.empty()) {
        std::vector<engine::PendingAppend> waiting = std::move(impl.pending_appends);
        impl.pending_appends.clear();
        try {
            ImportPageRun(impl, waiting.front().source->Pages().Internals(), nullptr, std::nullopt);
        } catch (...) {
            // Nothing of the failed one went in; it and those after it stay recorded.
            impl.pending_appends = std::move(waiting);
            throw;
        }
        waiting.erase(waiting.begin());
        impl.pending_appends = std::move(waiting);
    }
}

namespace {

// Readies `dst` for pages at its end as a page import would, and checks that our writer can put
// pages there: a page tree root that is an object of its own. 1 when it can.
int PrepareRecordedAppend(fz_context* ctx, pdf_document* doc) {
    PrepareDestination(ctx, doc);
    pdf_obj* root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
    return pdf_is_indirect(ctx, root) && pdf_is_array(ctx, pdf_dict_get(ctx, root, PDF_NAME(Kids)));
}

}  // namespace

void ImportPages(engine::Document& dst, engine::Document& src, const std::vector<int>* pages,
                 int at) {
    engine::MakePendingAppends(dst.Internals());
    engine::MakePendingChanges(src.Internals(), -1);
    ImportPageRun(dst.Internals(), src.Internals(), pages, at);
}

bool RecordAppend(engine::Document& dst, std::unique_ptr<engine::AppendSource>& source) {
    engine::Document::Impl& impl = dst.Internals();
    engine::Document::Impl& from = source->Pages().Internals();
    if (&impl == &from || impl.doc == nullptr || from.doc == nullptr) return false;
    if (!from.pending_appends.empty() || !from.pending_placements.empty()) return false;
    // The source's table is checked now: a rebuild while it is written would renumber it.
    engine::PlaceObjectsBeforeChanges(from);
    engine::PlaceObjectsBeforeChanges(impl);
    // Our writer writes in clear, and reads the source's objects as they are stored.
    try {
        if (ReadSourceSecurity(impl.ctx, impl.doc).encrypted ||
            ReadSourceSecurity(from.ctx, from.doc).encrypted)
            return false;
    } catch (const engine::EngineError&) {
        return false;
    }
    volatile int count = 0;
    fz_try(from.ctx) {
        count = engine::CountDocumentPages(from);
        if (count > 0) engine::LookupPage(from, 0);  // fills the page number cache
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
    volatile int ready = 0;
    fz_try(impl.ctx) {
        ready = PrepareRecordedAppend(impl.ctx, impl.doc);
    }
    fz_catch(impl.ctx) {
        ready = 0;
    }
    if (ready == 0) return false;
    impl.pending_appends.push_back(engine::PendingAppend{std::move(source), count});
    return true;
}

bool DiffersFromItsFile(engine::Document& doc) {
    engine::Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) return false;
    if (!impl.pending_appends.empty() || !impl.pending_placements.empty()) return true;
    volatile int changed = 1;
    fz_try(impl.ctx) {
        changed = pdf_has_unsaved_changes(impl.ctx, impl.doc);
    }
    fz_catch(impl.ctx) {
        changed = 1;
    }
    return changed != 0;
}

void DeletePage(engine::Document& doc, int index) {
    engine::Document::Impl& impl = doc.Internals();
    engine::MakePendingAppends(impl);
    engine::PlaceObjectsBeforeChanges(impl);
    fz_context* ctx = impl.ctx;
    volatile int removed_here = 0;
    fz_try(ctx) {
        if (index >= 0 && index < engine::CountDocumentPages(impl)) {
            removed_here = RemoveFromParent(impl, index);
            if (removed_here == 0) pdf_delete_page(ctx, impl.doc, index);
        }
    }
    fz_catch(ctx) {
        engine::PageTreeChanged(impl);
        ThrowCaught(ctx, engine::ErrorCategory::Other, "cannot delete a page");
    }
    // The cache follows a removal of our own; the engine's may have changed the tree otherwise.
    if (removed_here != 0) {
        impl.page_numbers.erase(impl.page_numbers.begin() + index);
    } else {
        engine::PageTreeChanged(impl);
    }
}

FormXObjectInfo MakePageFormXObject(engine::Document& doc, int page_index) {
    engine::MakePendingChanges(doc.Internals(), page_index);
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
    engine::MakePendingAppends(doc.Internals());
    engine::PlaceObjectsBeforeChanges(doc.Internals());
    engine::NoteWork(doc.Internals());
    return NameResource(doc.Internals(), PageLocation{0, page_index}, object_number,
                        category.c_str());
}

void WriteDocument(engine::Document& doc, engine::ByteSink& sink) {
    engine::Document::Impl& impl = doc.Internals();
    // The engine's writer would make every recorded placement and append in the document first
    // and hold all the changed and copied pages at once; ours makes them page by page as it
    // writes. A document with security of its own keeps it, which only the engine's writer does.
    if (impl.doc == nullptr || (impl.pending_placements.empty() && impl.pending_appends.empty()) ||
        ReadSourceSecurity(impl.ctx, impl.doc).encrypted) {
        doc.Write(sink);
        return;
    }
    engine::PlaceObjectsBeforeChanges(impl);
    WritePlainDocument(impl, sink);
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

PlacementStreams PlacementContent(const engine::PendingPlacement& placement,
                                  const std::string& name) {
    const std::array<double, 6> values{placement.matrix[0], placement.matrix[1],
                                       placement.matrix[2], placement.matrix[3],
                                       placement.matrix[4], placement.matrix[5]};
    const std::string draw = FormatPlacement(values, name);
    if (placement.background) return PlacementStreams{draw, ""};
    return PlacementStreams{"q\n", "Q\n" + draw};
}

bool PlaceFormXObject(engine::Document& doc, std::uint32_t object_number, int page_index,
                      const std::array<float, 6>& matrix, bool background) {
    engine::Document::Impl& impl = doc.Internals();
    engine::MakePendingAppends(impl);
    engine::PlaceObjectsBeforeChanges(impl);
    engine::NoteWork(impl);
    fz_context* ctx = impl.ctx;
    volatile int num = 0;
    volatile int has_place = 0;
    fz_try(ctx) {
        pdf_obj* page = engine::LookupPage(impl, page_index);
        has_place = HasContentPlace(ctx, page);
        num = PageObjectNumber(ctx, impl.doc, page);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, engine::ErrorCategory::Page, "cannot place the form");
    }
    if (has_place == 0) return false;
    const engine::PendingPlacement placement{num, object_number, matrix, background};
    if (num == 0) return MakePlacement(impl, PageLocation{0, page_index}, placement);
    impl.pending_placements.push_back(placement);
    return true;
}

}  // namespace zpdf::engine
