// The secured writers: the whole document serialised with AES-256 encryption, either for the
// standard security handler (user and owner passwords) or for certificate recipients. Both
// re-secure a document whose file already carries an Encrypt dictionary, and refuse any other.
// This header is free of engine and crypto headers, so the content object can include it.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace zpdf::engine {

// A secured save that cannot be made, with the reason in words.
class SecuredSaveError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The reason given when the document's file has no Encrypt dictionary.
extern const char* const kNotEncryptedText;

// Writes `doc` with the standard security handler at revision 6 (AES-256, V 5, R 6, Length 256,
// crypt filter StdCF with AESV3, EncryptMetadata true) under a "%PDF-1.7" header, keeping the
// permissions of the source's P. The passwords are taken as bytes; an absent one is empty.
// Throws SecuredSaveError or engine::EngineError.
void SaveWithPasswords(engine::Document& doc, engine::ByteSink& sink,
                       const std::optional<std::string>& user_password,
                       const std::optional<std::string>& owner_password);

// Writes `doc` with public-key security (Adobe.PubSec, adbe.pkcs7.s5, AES-256) for the holders
// of the certificates: each entry is the PEM text of one certificate ("CERTIFICATE" or
// "TRUSTED CERTIFICATE"). Every certificate is read before anything is written. Throws
// SecuredSaveError or engine::EngineError.
void SaveWithRecipients(engine::Document& doc, engine::ByteSink& sink,
                        const std::vector<std::string>& recipients);

}  // namespace zpdf::engine
