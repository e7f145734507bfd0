// Our own document writer for the certificate-recipient save: every object of the document is
// written anew with its strings and streams encrypted with AES-256 (the AESV3 crypt filter
// method) under one file key.
#pragma once

#include <cstddef>

#include "engine/engine_internal.h"

namespace zpdf::additions {

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

// Writes the whole document into `sink` with `encrypt_dict` as its encryption dictionary. The
// strings of that dictionary and of the trailer's ID stay in clear; every other string and
// every stream is encrypted under `file_key` (kFileKeyBytes long). Object streams and
// cross-reference streams of the source are written out as plain objects and a classic
// cross-reference table; the source's own encryption and linearization dictionaries are left out.
// The header is "%PDF-1.7". Throws SecuredSaveError or engine::EngineError.
void WriteEncryptedDocument(fz_context* ctx, pdf_document* doc, pdf_obj* encrypt_dict,
                            const unsigned char* file_key, engine::ByteSink& sink);

}  // namespace zpdf::additions
