// Our own document writer: every object of the document is written anew, one after the other,
// and let go once written, so that a long document is never held in memory in full. Pages with
// recorded placements are written as their final dictionaries, and the pages of recorded
// appends after the document's own, with the objects they use. It writes the certificate-
// recipient save, with its strings and streams encrypted, and the plain save of a document with
// recorded changes.
//
// Object streams and cross-reference streams of the source are written out as plain objects
// and a classic cross-reference table; the source's own encryption and linearization
// dictionaries are left out.
#pragma once

#include "engine/internal.h"
#include "engine/writer/object_encryption.h"

namespace zpdf::engine {

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
// dictionary: its strings and those of the trailer's ID stay in clear; every other string and
// every stream goes through `encryption`. The header is "%PDF-1.7". Throws SecuredSaveError or
// EngineError.
void WriteEncryptedDocument(Document::Impl& impl, pdf_obj* encrypt_dict,
                            ObjectEncryption& encryption, ByteSink& sink);

// Writes the whole document of `impl` into `sink` in clear; for a document without security of
// its own. The header keeps the document's version. Throws EngineError, or SecuredSaveError
// when the random generator gives no file identifier.
void WritePlainDocument(Document::Impl& impl, ByteSink& sink);

}  // namespace zpdf::engine
