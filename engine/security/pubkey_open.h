// Opening a document secured for certificate holders (public-key security): the engine reads
// only the password handler, so the file key is recovered here from the recipients' envelope
// with the holder's private key, and a plain copy of the document is written, every string
// and stream decrypted. This header is free of engine and crypto headers.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include "engine/engine.h"
#include "engine/page_info.h"

namespace zpdf::engine {

// Why the holder of a key cannot open a certificate-secured document, and whose fault it is:
// the document's, the key's or the certificate's, so that a message can name the right file.
class RecipientKeyError : public std::runtime_error {
  public:
    enum class Subject { Document, Key, Certificate };
    RecipientKeyError(Subject subject, const std::string& what)
        : std::runtime_error(what), subject_(subject) {}
    Subject Blamed() const { return subject_; }

  private:
    Subject subject_;
};

// Writes a plain copy of the certificate-secured document read from `file` into `sink`, for the
// holder of the private key `key_pem` (PEM, unencrypted) whose certificate is `cert_pem`.
// Envelopes that reach their recipients by RSA key transport are read, whatever cipher seals
// their content (RC2 only where the crypto library's legacy algorithms are built), and the crypt
// methods RC4, AES-128 and AES-256, in object streams too. Throws RecipientKeyError, or EngineError
// for a file that is not a readable PDF.
void SaveDecryptedForRecipient(std::FILE* file, const std::string& key_pem,
                               const std::string& cert_pem, ByteSink& sink);

// The encryption of the certificate-secured document read from `file`, as ReadEncryption tells
// it for documents the engine opens: filter, method, version and the recipients counted in the
// envelopes. Throws RecipientKeyError when it is not encrypted, or EngineError for a file that
// is not a readable PDF.
EncryptionFacts ReadRecipientEncryption(std::FILE* file);

}  // namespace zpdf::engine
