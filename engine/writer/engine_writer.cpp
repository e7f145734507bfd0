// The engine's own writer: what a document with security of its own, and the password save, are
// written with.
#include "engine/internal.h"
#include "engine/security/source_security.h"

namespace zpdf::engine {
namespace {

struct SinkState {
    ByteSink* sink;
    int64_t position;
    pdf_document* doc;
    int64_t released_at;
};

// Bytes written between two releases of the objects the writer has parsed and written.
constexpr int64_t kBytesBetweenReleases = 256 * 1024;

void WriteToSink(fz_context* ctx, void* state, const void* data, size_t size) {
    auto* s = static_cast<SinkState*>(state);
    if (!s->sink->Write(data, size))
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot write the output file");
    s->position += static_cast<int64_t>(size);
    // The writer holds the object it is writing; those written before are held by nobody and
    // are let go, so that writing a long document does not keep all of it parsed.
    if (s->position - s->released_at >= kBytesBetweenReleases) {
        s->released_at = s->position;
        ReleaseUnchangedObjects(ctx, s->doc);
    }
}

int64_t TellSink(fz_context* /*ctx*/, void* state) {
    return static_cast<SinkState*>(state)->position;
}

// Objects nested deeper are not searched for empty names.
constexpr int kMaxNameSearchDepth = 256;

bool HoldsEmptyName(fz_context* ctx, pdf_obj* obj, int depth) {
    if (depth > kMaxNameSearchDepth || pdf_is_indirect(ctx, obj)) return false;
    if (pdf_is_name(ctx, obj)) return pdf_to_name(ctx, obj)[0] == '\0';
    if (pdf_is_array(ctx, obj)) {
        const int length = pdf_array_len(ctx, obj);
        for (int i = 0; i < length; ++i) {
            if (HoldsEmptyName(ctx, pdf_array_get(ctx, obj, i), depth + 1)) return true;
        }
    } else if (pdf_is_dict(ctx, obj)) {
        const int length = pdf_dict_len(ctx, obj);
        for (int i = 0; i < length; ++i) {
            if (HoldsEmptyName(ctx, pdf_dict_get_key(ctx, obj, i), depth + 1) ||
                HoldsEmptyName(ctx, pdf_dict_get_val(ctx, obj, i), depth + 1)) {
                return true;
            }
        }
    }
    return false;
}

// The objects are loaded here as the writer loads them next; one it cannot read is left to
// the writer to report.
int ObjectHoldsEmptyName(fz_context* ctx, pdf_document* doc, int num) {
    pdf_obj* obj = LoadReadableObject(ctx, doc, num);
    if (obj == nullptr) return 0;
    volatile int found = 0;
    fz_try(ctx) {
        found = HoldsEmptyName(ctx, obj, 0);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, obj);
    }
    fz_catch(ctx) {
        found = 0;
    }
    return found;
}

}  // namespace

bool DocumentHoldsEmptyName(fz_context* ctx, pdf_document* doc) {
    const int length = pdf_xref_len(ctx, doc);
    for (int num = 1; num < length; ++num) {
        if (ObjectHoldsEmptyName(ctx, doc, num)) return true;
        if (num % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, doc);
    }
    return HoldsEmptyName(ctx, pdf_trailer(ctx, doc), 0);
}

void RunEngineWriter(fz_context* ctx, pdf_document* doc, ByteSink& sink,
                     const pdf_write_options& options) {
    fz_output* out = nullptr;
    fz_var(out);
    SinkState state{&sink, 0, doc, 0};
    pdf_write_options chosen = options;
    fz_try(ctx) {
        RequireCatalog(ctx, doc);
        if (chosen.do_encrypt == PDF_ENCRYPT_KEEP) RestoreEncryptionStrings(ctx, doc);
        if (!chosen.do_pretty && DocumentHoldsEmptyName(ctx, doc)) chosen.do_pretty = 1;
        out = fz_new_output(ctx, 64 * 1024, &state, WriteToSink, nullptr, nullptr);
        out->tell = TellSink;
        pdf_write_document(ctx, doc, out, &chosen);
        // Reading every object can make the engine rebuild a damaged table, and a rebuild that
        // fails empties the document: what was written then is not the document.
        RequireCatalog(ctx, doc);
        fz_close_output(ctx, out);
    }
    fz_always(ctx) {
        fz_drop_output(ctx, out);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::File, "cannot write the document");
    }
}

void RunEngineWriter(Document::Impl& impl, ByteSink& sink, const pdf_write_options& options) {
    FreeObjectsOfRemovedPages(impl);
    RunEngineWriter(impl.ctx, impl.doc, sink, options);
}

}  // namespace zpdf::engine
