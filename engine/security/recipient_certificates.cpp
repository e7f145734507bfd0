#include "engine/security/recipient_certificates.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <climits>
#include <new>

#include "engine/security/secured_save.h"

namespace zpdf::engine {
namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

// A certificate is never encrypted; a block that asks for a passphrase is refused instead of
// prompting on a console that a host process does not have.
int NoPassphrase(char* /*buf*/, int /*size*/, int /*rwflag*/, void* /*userdata*/) {
    return 0;
}

}  // namespace

CertificateStack ReadRecipientCertificates(const std::vector<std::string>& recipients) {
    CertificateStack stack(sk_X509_new_null());
    if (!stack) throw std::bad_alloc();
    for (std::size_t i = 0; i < recipients.size(); ++i) {
        const std::string& pem = recipients[i];
        X509* certificate = nullptr;
        if (pem.size() <= static_cast<std::size_t>(INT_MAX)) {
            const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
            if (!bio) throw std::bad_alloc();
            certificate = PEM_read_bio_X509_AUX(bio.get(), nullptr, NoPassphrase, nullptr);
        }
        ERR_clear_error();  // a text without a certificate leaves the reason queued
        if (certificate == nullptr) {
            throw SecuredSaveError("Recipient " + std::to_string(i + 1) +
                                   " holds no PEM certificate");
        }
        if (sk_X509_push(stack.get(), certificate) <= 0) {
            X509_free(certificate);
            throw std::bad_alloc();
        }
    }
    return stack;
}

}  // namespace zpdf::engine
