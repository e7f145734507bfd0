#include <climits>
#include <cstring>
#include <new>

#include "engine/internal.h"
#include "engine/page_operations.h"
#include "engine/security/source_security.h"
#include "engine/writer/document_writer.h"

namespace zpdf::engine {
namespace {

// Alerts raised by document scripts are answered at once: there is nobody to click.
void AnswerDocumentEvent(fz_context* /*ctx*/, pdf_document* /*doc*/, pdf_doc_event* event,
                         void* /*data*/) {
    if (event->type == PDF_DOCUMENT_EVENT_ALERT) {
        pdf_alert_event* alert = pdf_access_alert_event(nullptr, event);
        if (alert != nullptr) alert->button_pressed = 0;
    }
}

// Runs the document's own scripts and its open action, as a viewer would on opening.
void RunOpenScripts(fz_context* ctx, pdf_document* doc) {
    pdf_set_doc_event_callback(ctx, doc, AnswerDocumentEvent, nullptr, nullptr);
    pdf_enable_js(ctx, doc);  // also runs the document-level scripts
    if (doc->js == nullptr) return;
    pdf_obj* action = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    action = pdf_dict_gets(ctx, action, "OpenAction");
    if (!pdf_is_dict(ctx, action) ||
        !pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(JavaScript))) {
        return;
    }
    char* code = pdf_load_stream_or_string_as_utf8(ctx, pdf_dict_get(ctx, action, PDF_NAME(JS)));
    char* result = nullptr;
    fz_try(ctx) {
        pdf_js_execute(doc->js, "OpenAction", code, &result);
    }
    fz_always(ctx) {
        fz_free(ctx, result);
        fz_free(ctx, code);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "open action failed: %s", fz_caught_message(ctx));
    }
}

// 1 when the document opens with what it was given, 0 when it needs another password.
int Authenticate(fz_context* ctx, pdf_document* doc, const char* password) {
    volatile int authenticated = 0;
    fz_try(ctx) {
        authenticated = !pdf_needs_password(ctx, doc) ||
                        (password != nullptr && pdf_authenticate_password(ctx, doc, password));
    }
    fz_catch(ctx) {
        authenticated = 0;
    }
    return authenticated;
}

}  // namespace

namespace {

// 1 when the object `num` of the table starts where its entry says, with its own number: what
// the engine checks before it decides to rebuild the table.
int ObjectHeadFits(fz_context* ctx, pdf_document* doc, int num, int64_t offset) {
    volatile int fits = 0;
    fz_try(ctx) {
        pdf_lexbuf* buf = &doc->lexbuf.base;
        fz_seek(ctx, doc->file, offset, SEEK_SET);
        if (pdf_lex(ctx, doc->file, buf) == PDF_TOK_INT && buf->i == num &&
            pdf_lex(ctx, doc->file, buf) == PDF_TOK_INT && buf->i >= 0 && buf->i < 65536 &&
            pdf_lex(ctx, doc->file, buf) == PDF_TOK_OBJ) {
            fits = 1;
        }
    }
    fz_catch(ctx) {
        fits = 0;
    }
    return fits;
}

int AllObjectsInPlace(fz_context* ctx, pdf_document* doc) {
    const int length = pdf_xref_len(ctx, doc);
    for (int num = 1; num < length; ++num) {
        const pdf_xref_entry* entry = pdf_get_xref_entry(ctx, doc, num);
        // Parsed objects and those of object streams are not read from an offset again.
        if (entry == nullptr || entry->type != 'n' || entry->obj != nullptr) continue;
        if (!ObjectHeadFits(ctx, doc, num, entry->ofs)) return 0;
    }
    return 1;
}

}  // namespace

void PlaceObjectsBeforeChanges(Document::Impl& impl) {
    if (impl.objects_placed || impl.doc == nullptr) return;
    impl.objects_placed = true;
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    if (doc->repair_attempted) return;  // the engine rebuilds a table only once
    fz_try(ctx) {
        if (!AllObjectsInPlace(ctx, doc)) {
            fz_warn(ctx, "an object is not where the table says: rebuilding the table");
            pdf_repair_xref(ctx, doc);
            pdf_repair_obj_stms(ctx, doc);
            pdf_repair_trailer(ctx, doc);
        }
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot rebuild the document: %s", fz_caught_message(ctx));
    }
    KeepPageCountsCorrect(impl);
}
void ReleaseUnchangedObjects(fz_context* ctx, pdf_document* doc) noexcept {
    // A document made in memory has no file to parse its objects from again; a rebuilt table
    // changes objects where they stand (stream lengths), and those changes are not in the file.
    if (doc == nullptr || doc->file == nullptr || doc->repair_attempted) return;
    // The sections past the updates are the file's own: an object changed since opening was
    // moved to the update section, and what it left behind here is a copy nothing needs.
    for (int x = doc->num_incremental_sections; x < doc->num_xref_sections; ++x) {
        for (pdf_xref_subsec* sub = doc->xref_sections[x].subsec; sub != nullptr; sub = sub->next) {
            for (int e = 0; e < sub->len; ++e) {
                pdf_xref_entry& entry = sub->table[e];
                if (entry.obj == nullptr || entry.stm_buf != nullptr) continue;
                if (entry.type != 'n' && entry.type != 'o') continue;
                if (pdf_obj_refs(ctx, entry.obj) != 1) continue;
                pdf_drop_obj(ctx, entry.obj);
                entry.obj = nullptr;
            }
        }
    }
}

pdf_obj* LoadReadableObject(fz_context* ctx, pdf_document* doc, int num) noexcept {
    pdf_obj* obj = nullptr;
    fz_var(obj);
    fz_try(ctx) {
        const pdf_xref_entry* entry = pdf_get_xref_entry_no_null(ctx, doc, num);
        if (entry->type == 'n' || entry->type == 'o') obj = pdf_load_object(ctx, doc, num);
    }
    fz_catch(ctx) {
        obj = nullptr;
    }
    return obj;
}

void NoteWork(Document::Impl& impl) noexcept {
    constexpr unsigned kWorkBetweenReleases = 256;
    if (++impl.work_since_release < kWorkBetweenReleases) return;
    impl.work_since_release = 0;
    ReleaseUnchangedObjects(impl.ctx, impl.doc);
}

Document::Document() : impl_(std::make_unique<Impl>()) {
    impl_->ctx = NewDocumentContext();
}

Document::~Document() {
    Close();
    DropDocumentContext(impl_->ctx);
}

bool Document::IsOpen() const {
    return impl_->doc != nullptr;
}

void Document::Open(std::FILE* file, const std::optional<std::string>& password) {
    Close();
    fz_context* ctx = impl_->ctx;
    fz_stream* stm = OpenFileStream(ctx, file);
    if (stm == nullptr)
        throw EngineError(ErrorCategory::Other, "out of memory opening the document");

    pdf_document* doc = nullptr;
    fz_try(ctx) {
        doc = pdf_open_document_with_stream(ctx, stm);
    }
    fz_catch(ctx) {
        const ErrorCategory category = OpenFailureCategory(ctx, stm);
        fz_drop_stream(ctx, stm);
        ThrowCaught(ctx, category, "cannot open the document");
    }

    if (!Authenticate(ctx, doc, password ? password->c_str() : nullptr)) {
        pdf_drop_document(ctx, doc);
        fz_drop_stream(ctx, stm);
        throw EngineError(ErrorCategory::Password,
                          "the document needs a password, and none given fits");
    }

    RebuildIfPageTreeUnreachable(ctx, doc);
    CorrectPageCounts(ctx, doc);

    fz_try(ctx) {
        RunOpenScripts(ctx, doc);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "document scripts failed: %s", fz_caught_message(ctx));
    }

    impl_->doc = doc;
    impl_->stream = stm;
    impl_->counts_corrected_after_repair = false;
    impl_->objects_placed = false;
    impl_->placed_streams.Clear();
    impl_->pending.placements.clear();
}

void Document::Close() noexcept {
    fz_context* ctx = impl_->ctx;
    if (impl_->doc != nullptr) {
        fz_try(ctx) {
            pdf_document_event_will_close(ctx, impl_->doc);
        }
        fz_catch(ctx) {
            fz_warn(ctx, "will-close action failed: %s", fz_caught_message(ctx));
        }
        pdf_drop_document(ctx, impl_->doc);
        impl_->doc = nullptr;
        impl_->placed_streams.Clear();
        impl_->pending.placements.clear();
    }
    // The documents recorded to be appended go with the document, and their files with them.
    impl_->pending.appends.clear();
    if (impl_->stream != nullptr) {
        fz_drop_stream(ctx, impl_->stream);
        impl_->stream = nullptr;
    }
}

int Document::PageCount() {
    fz_context* ctx = impl_->ctx;
    volatile int count = 0;
    fz_try(ctx) {
        count = CountOwnPages(*impl_);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot count the pages");
    }
    int total = count;
    for (const PendingAppend& append : impl_->pending.appends) total += append.pages;
    return total;
}

PageSize Document::GetPageSize(int index) {
    if (!impl_->pending.appends.empty()) {
        // A page still to be appended measures as in its own document: the copy keeps its
        // boxes, its rotation and its unit.
        int first = PageCount();
        for (auto it = impl_->pending.appends.rbegin(); it != impl_->pending.appends.rend(); ++it) {
            first -= it->pages;
            if (index >= first && index < first + it->pages)
                return it->source->Pages().GetPageSize(index - first);
        }
    }
    NoteWork(*impl_);
    fz_context* ctx = impl_->ctx;
    fz_rect bounds = fz_empty_rect;
    fz_page* page = nullptr;
    fz_var(page);
    fz_try(ctx) {
        if (index < 0 || index >= CountOwnPages(*impl_)) {
            fz_throw(ctx, FZ_ERROR_GENERIC, "page %d does not exist", index + 1);
        }
        page = fz_load_page(ctx, &impl_->doc->super, index);
        bounds = fz_bound_page(ctx, page);
    }
    fz_always(ctx) {
        fz_drop_page(ctx, page);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot measure the page");
    }
    return PageSize{bounds.x1 - bounds.x0, bounds.y1 - bounds.y0};
}

DocumentFacts Document::Facts() {
    fz_context* ctx = impl_->ctx;
    DocumentFacts facts;
    facts.pages = PageCount();
    fz_try(ctx) {
        facts.encrypted = impl_->doc->crypt != nullptr;
        facts.repaired = pdf_was_repaired(ctx, impl_->doc) != 0;
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot inspect the document");
    }
    return facts;
}

namespace {

// Feature bits found in the catalog; plain data, filled inside the engine's error scope.
enum FeatureBits : unsigned {
    kXfa = 1,
    kPortfolio = 2,
    kAttachment = 4,
    kRights = 8,
    kSignature = 16,
};

unsigned FindFeatures(fz_context* ctx, pdf_document* doc) {
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    pdf_obj* form = pdf_dict_get(ctx, root, PDF_NAME(AcroForm));
    unsigned found = 0;
    if (pdf_dict_get(ctx, form, PDF_NAME(XFA))) found |= kXfa;
    if (pdf_dict_get(ctx, root, PDF_NAME(Collection))) found |= kPortfolio;
    if (pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(Names)), PDF_NAME(EmbeddedFiles)))
        found |= kAttachment;
    if (pdf_dict_get(ctx, root, PDF_NAME(Perms))) found |= kRights;
    if (pdf_dict_get_int(ctx, form, PDF_NAME(SigFlags)) != 0) found |= kSignature;
    return found;
}

}  // namespace

std::vector<std::string> Document::UnsupportedFeatures() {
    fz_context* ctx = impl_->ctx;
    volatile unsigned found = 0;
    fz_try(ctx) {
        found = FindFeatures(ctx, impl_->doc);
    }
    fz_catch(ctx) {
        found = 0;
    }
    std::vector<std::string> names;
    const std::pair<unsigned, const char*> known[] = {{kXfa, "XFA"},
                                                      {kPortfolio, "Portfolios_Packages"},
                                                      {kAttachment, "Attachment"},
                                                      {kRights, "Rights_Management"},
                                                      {kSignature, "Digital_Signature"}};
    for (const auto& [bit, name] : known) {
        if ((found & bit) != 0) names.emplace_back(name);
    }
    return names;
}

bool DiffersFromItsFile(Document& doc) {
    Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) return false;
    if (!impl.pending.Empty()) return true;
    volatile int changed = 1;
    fz_try(impl.ctx) {
        changed = pdf_has_unsaved_changes(impl.ctx, impl.doc);
    }
    fz_catch(impl.ctx) {
        changed = 1;
    }
    return changed != 0;
}

void WriteDocument(Document& doc, ByteSink& sink) {
    Document::Impl& impl = doc.Internals();
    // The engine's writer would make every recorded placement and append in the document first
    // and hold all the changed and copied pages at once; ours makes them page by page as it
    // writes. A document with security of its own keeps it, which only the engine's writer does.
    if (impl.doc == nullptr || impl.pending.Empty() ||
        ReadSourceSecurity(impl.ctx, impl.doc).encrypted) {
        doc.Write(sink);
        return;
    }
    PlaceObjectsBeforeChanges(impl);
    WritePlainDocument(impl, sink);
}

void Document::Write(ByteSink& sink) {
    pdf_write_options options = pdf_default_write_options;
    options.do_incremental = 0;
    options.do_encrypt = PDF_ENCRYPT_KEEP;
    MakePendingChanges(*impl_, -1);
    PlaceObjectsBeforeChanges(*impl_);
    RunEngineWriter(*impl_, sink, options);
}

}  // namespace zpdf::engine
