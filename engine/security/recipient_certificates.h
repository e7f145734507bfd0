// Reading the recipients' certificates for the certificate-recipient save.
#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace zpdf::engine {

struct CertificateStackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using CertificateStack = std::unique_ptr<STACK_OF(X509), CertificateStackFree>;

// The first PEM certificate ("CERTIFICATE" or "TRUSTED CERTIFICATE") of each text, in order.
// Throws SecuredSaveError naming the first text (counted from 1) that holds none.
CertificateStack ReadRecipientCertificates(const std::vector<std::string>& recipients);

}  // namespace zpdf::engine
