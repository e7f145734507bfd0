#include "engine/security/recipient_certificates.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <climits>
#include <new>

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

// The key types a certificate can have, in words, for the refusal of those other than RSA.
std::string KeyTypeName(int type) {
    switch (type) {
        case EVP_PKEY_EC:
            return "an EC key";
        case EVP_PKEY_RSA_PSS:
            return "an RSA-PSS key";
        case EVP_PKEY_DSA:
            return "a DSA key";
        case EVP_PKEY_ED25519:
            return "an Ed25519 key";
        case EVP_PKEY_ED448:
            return "an Ed448 key";
        case EVP_PKEY_X25519:
            return "an X25519 key";
        default:
            return "a key of a kind";
    }
}

// Why the certificate's key cannot receive the file key, or nothing when it can. The envelope
// carries the key by key transport, which needs RSA; key agreement (EC) is not read by the
// certificate-secured document readers we check against.
std::string KeyProblem(X509* certificate) {
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key == nullptr) return "its public key cannot be read";
    const int type = EVP_PKEY_get_base_id(key);
    if (type == EVP_PKEY_RSA) return {};
    return "has " + KeyTypeName(type) +
           "; only certificates with RSA keys can be recipients (the file key travels to them "
           "by RSA key transport)";
}

}  // namespace

CertificateStack ReadRecipientCertificates(const std::vector<std::string>& recipients) {
    CertificateStack stack(sk_X509_new_null());
    if (!stack) throw std::bad_alloc();
    for (std::size_t i = 0; i < recipients.size(); ++i) {
        const std::string& pem = recipients[i];
        if (pem.size() > static_cast<std::size_t>(INT_MAX)) {
            throw RecipientCertificateError(i, "is too long to be a certificate");
        }
        const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        if (!bio) throw std::bad_alloc();
        CertificateStack read(sk_X509_new_null());
        if (!read) throw std::bad_alloc();
        while (X509* certificate =
                   PEM_read_bio_X509_AUX(bio.get(), nullptr, NoPassphrase, nullptr)) {
            if (sk_X509_push(read.get(), certificate) <= 0) {
                X509_free(certificate);
                throw std::bad_alloc();
            }
        }
        // The end of the text leaves "no start line" queued; that is how the loop ends.
        ERR_clear_error();
        const int count = sk_X509_num(read.get());
        if (count == 0) throw RecipientCertificateError(i, "holds no PEM certificate");
        for (int k = 0; k < count; ++k) {
            const std::string problem = KeyProblem(sk_X509_value(read.get(), k));
            if (problem.empty()) continue;
            throw RecipientCertificateError(i, count == 1 ? problem
                                                          : "certificate " + std::to_string(k + 1) +
                                                                " of " + std::to_string(count) +
                                                                " " + problem);
        }
        while (sk_X509_num(read.get()) > 0) {
            X509* certificate = sk_X509_shift(read.get());
            if (sk_X509_push(stack.get(), certificate) <= 0) {
                X509_free(certificate);
                throw std::bad_alloc();
            }
        }
    }
    return stack;
}

void CheckRecipientCertificates(const std::vector<std::string>& recipients) {
    ReadRecipientCertificates(recipients);
}

}  // namespace zpdf::engine
