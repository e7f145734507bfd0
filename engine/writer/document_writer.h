// Our own document writer: every object of the document is written anew, one after the other,
// and let go once written, so that a long document is never held in memory in full. Pages with
// recorded placements get them drawn in as they are written. It writes the certificate-recipient
// save, with its strings and streams encrypted, and the plain save of a document with recorded
// placements.
#pragma once

#include <cstddef>

#include "engine/internal.h"

namespace zpdf::engine {

inline constexpr std::size_t kFileKeyBytes = 32;

// Holds one reference to an engine object and drops it at the end of the scope.
class OwnedObject {
  public:
    OwnedObject(fz_context* ctx, pdf_obj* obj) : ctx_(ctx), obj_(obj) {}
    OwnedObject(const OwnedObject&) = delete;
    OwnedObject& operator=(const OwnedObject&) = delete;
    ~OwnedObject() { pdf_drop_obj(ctx_, obj_); }
    pdf_obj* get() const { return obj_; }

  private:
    fz_context* ctx_;
    pdf_obj* obj_;
};

// Writes the whole document of `impl` into `sink` with `encrypt_dict` as its encryption
// dictionary, drawing the recorded placements into their pages. The
// strings of that dictionary and of the trailer's ID stay in clear; every other string and
// every stream is encrypted under `file_key` (kFileKeyBytes long). Object streams and
// cross-reference streams of the source are written out as plain objects and a classic
// cross-reference table; the source's own encryption and linearization dictionaries are left out.
// The header is "%PDF-1.7". Throws SecuredSaveError or engine::EngineError.
void WriteEncryptedDocument(engine::Document::Impl& impl, pdf_obj* encrypt_dict,
                            const unsigned char* file_key, engine::ByteSink& sink);

// Writes the whole document of `impl` into `sink` in clear, drawing the recorded placements into
// their pages; for a document without security of its own. The layout is as above; the header
// keeps the document's version. Throws SecuredSaveError (only when the sink fails or the random
// generator gives no file identifier) or engine::EngineError.
void WritePlainDocument(engine::Document::Impl& impl, engine::ByteSink& sink);

}  // namespace zpdf::engine
