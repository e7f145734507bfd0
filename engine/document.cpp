#include <cstring>

#include "engine/engine_internal.h"

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

bool LooksLikeSecurityProblem(const char* message) {
    return std::strstr(message, "encrypt") != nullptr || std::strstr(message, "crypt") != nullptr ||
           std::strstr(message, "security") != nullptr;
}

}  // namespace

Document::Document() : impl_(std::make_unique<Impl>()) {
    impl_->ctx = NewClonedContext();
}

Document::~Document() {
    Close();
    fz_drop_context(impl_->ctx);
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
        const bool read_failed = FileStreamFailed(stm);
        const bool security = LooksLikeSecurityProblem(fz_caught_message(ctx));
        fz_drop_stream(ctx, stm);
        ThrowCaught(ctx,
                    read_failed ? ErrorCategory::File
                    : security  ? ErrorCategory::UnsupportedSecurity
                                : ErrorCategory::NotPdf,
                    "cannot open the document");
    }

    if (!Authenticate(ctx, doc, password ? password->c_str() : nullptr)) {
        pdf_drop_document(ctx, doc);
        fz_drop_stream(ctx, stm);
        throw EngineError(ErrorCategory::Password,
                          "the document needs a password, and none given fits");
    }

    fz_try(ctx) {
        RunOpenScripts(ctx, doc);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "document scripts failed: %s", fz_caught_message(ctx));
    }

    impl_->doc = doc;
    impl_->stream = stm;
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
    }
    if (impl_->stream != nullptr) {
        fz_drop_stream(ctx, impl_->stream);
        impl_->stream = nullptr;
    }
}

int Document::PageCount() {
    fz_context* ctx = impl_->ctx;
    volatile int count = 0;
    fz_try(ctx) {
        count = pdf_count_pages(ctx, impl_->doc);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot count the pages");
    }
    return count;
}

PageSize Document::GetPageSize(int index) {
    fz_context* ctx = impl_->ctx;
    fz_rect bounds = fz_empty_rect;
    fz_page* page = nullptr;
    fz_var(page);
    fz_try(ctx) {
        if (index < 0 || index >= pdf_count_pages(ctx, impl_->doc)) {
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

struct SinkState {
    ByteSink* sink;
    int64_t position;
};

void WriteToSink(fz_context* ctx, void* state, const void* data, size_t size) {
    auto* s = static_cast<SinkState*>(state);
    if (!s->sink->Write(data, size))
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot write the output file");
    s->position += static_cast<int64_t>(size);
}

int64_t TellSink(fz_context* /*ctx*/, void* state) {
    return static_cast<SinkState*>(state)->position;
}

}  // namespace

void WriteDocument(fz_context* ctx, pdf_document* doc, ByteSink& sink,
                   const pdf_write_options& options) {
    fz_output* out = nullptr;
    fz_var(out);
    SinkState state{&sink, 0};
    fz_try(ctx) {
        out = fz_new_output(ctx, 64 * 1024, &state, WriteToSink, nullptr, nullptr);
        out->tell = TellSink;
        pdf_write_document(ctx, doc, out, &options);
        fz_close_output(ctx, out);
    }
    fz_always(ctx) {
        fz_drop_output(ctx, out);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::File, "cannot write the document");
    }
}

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

void Document::Write(ByteSink& sink) {
    pdf_write_options options = pdf_default_write_options;
    options.do_incremental = 0;
    options.do_encrypt = PDF_ENCRYPT_KEEP;
    WriteDocument(impl_->ctx, impl_->doc, sink, options);
}

}  // namespace zpdf::engine
