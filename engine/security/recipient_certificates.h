// Reading the recipients' certificates for the certificate-recipient save.
#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "engine/security/recipient_check.h"

namespace zpdf::engine {

struct CertificateStackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using CertificateStack = std::unique_ptr<STACK_OF(X509), CertificateStackFree>;

// Every PEM certificate ("CERTIFICATE" or "TRUSTED CERTIFICATE") of each text, in order: a
// bundle gives as many recipients as it holds certificates. Only RSA keys can receive the file
// key through the envelope. Throws RecipientCertificateError for the first text that holds no
// certificate, or a certificate with another kind of key.
CertificateStack ReadRecipientCertificates(const std::vector<std::string>& recipients);

}  // namespace zpdf::engine
