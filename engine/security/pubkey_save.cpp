// The certificate-recipient save: a 20-byte seed travels, with the permission bytes, in one
// PKCS#7 enveloped-data object addressed to every recipient; the file key is SHA-256 over the
// seed and that envelope; our own writer encrypts the document under it.
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/rand.h>

#include <cstring>
#include <memory>
#include <new>

#include "engine/security/aes256_encryption.h"
#include "engine/security/pubkey_security_handler.h"
#include "engine/security/recipient_certificates.h"
#include "engine/security/secured_save.h"
#include "engine/security/source_security.h"
#include "engine/writer/document_writer.h"

namespace zpdf::engine {
namespace {

// The 24 bytes of the envelope: the seed, then the permissions FF FF FF FF (all granted).
constexpr std::size_t kEnvelopeContentBytes = kSeedBytes + 4;
constexpr int kEnvelopeFlags = PKCS7_BINARY | PKCS7_DETACHED;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct Pkcs7Free {
    void operator()(PKCS7* p7) const { PKCS7_free(p7); }
};
using Bio = std::unique_ptr<BIO, BioFree>;
using Pkcs7 = std::unique_ptr<PKCS7, Pkcs7Free>;

// Wipes a secret when it goes out of scope.
class Cleanse {
  public:
    Cleanse(void* data, std::size_t size) : data_(data), size_(size) {}
    Cleanse(const Cleanse&) = delete;
    Cleanse& operator=(const Cleanse&) = delete;
    ~Cleanse() { OPENSSL_cleanse(data_, size_); }

  private:
    void* data_;
    std::size_t size_;
};

// The oldest error OpenSSL queued on this thread, in words; the queue is emptied.
std::string TakeOpenSslError() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "no reason given";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

// One enveloped-data object (Triple-DES) for all recipients, DER-encoded.
std::string SealForRecipients(STACK_OF(X509) * certificates,
                              const unsigned char (&content)[kEnvelopeContentBytes]) {
    const Bio in(BIO_new_mem_buf(content, static_cast<int>(sizeof content)));
    const Bio out(BIO_new(BIO_s_mem()));
    if (!in || !out) throw std::bad_alloc();
    const Pkcs7 envelope(PKCS7_encrypt(certificates, in.get(), EVP_des_ede3_cbc(), kEnvelopeFlags));
    if (!envelope) {
        throw SecuredSaveError("The envelope for the recipients could not be made: " +
                               TakeOpenSslError());
    }
    if (i2d_PKCS7_bio_stream(out.get(), envelope.get(), in.get(), kEnvelopeFlags) != 1) {
        throw SecuredSaveError("The envelope for the recipients could not be encoded: " +
                               TakeOpenSslError());
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(out.get(), &data);
    if (size <= 0 || data == nullptr) throw SecuredSaveError("The envelope came out empty");
    ERR_clear_error();  // the library queues notes even on success
    return std::string(data, static_cast<std::size_t>(size));
}

// The encryption dictionary: Adobe.PubSec, adbe.pkcs7.s5, V 5, R 131105, and the default crypt
// filter (AESV3, Length 256) holding the envelope as its one Recipients string. Neither P nor
// a top-level Length is written.
pdf_obj* NewPubKeyEncryptDictionary(fz_context* ctx, pdf_document* doc, const char* envelope,
                                    std::size_t envelope_size) {
    pdf_obj* dict = nullptr;
    fz_var(dict);
    fz_try(ctx) {
        dict = pdf_new_dict(ctx, doc, 8);
        pdf_dict_put_name(ctx, dict, PDF_NAME(Filter), "Adobe.PubSec");
        pdf_dict_put_name(ctx, dict, PDF_NAME(SubFilter), "adbe.pkcs7.s5");
        pdf_dict_put_int(ctx, dict, PDF_NAME(V), 5);
        pdf_dict_put_int(ctx, dict, PDF_NAME(R), 131105);
        pdf_dict_put_name(ctx, dict, PDF_NAME(StmF), "DefaultCryptFilter");
        pdf_dict_put_name(ctx, dict, PDF_NAME(StrF), "DefaultCryptFilter");
        pdf_obj* filters = pdf_dict_put_dict(ctx, dict, PDF_NAME(CF), 1);
        pdf_obj* filter = pdf_dict_puts_dict(ctx, filters, "DefaultCryptFilter", 3);
        pdf_dict_put_name(ctx, filter, PDF_NAME(CFM), "AESV3");
        pdf_dict_put_int(ctx, filter, PDF_NAME(Length), 256);
        pdf_obj* recipients = pdf_new_array(ctx, doc, 1);
        pdf_dict_puts_drop(ctx, filter, "Recipients", recipients);
        pdf_array_push_string(ctx, recipients, envelope, envelope_size);
        pdf_dict_put_bool(ctx, dict, PDF_NAME(EncryptMetadata), 1);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, dict);
        ThrowCaught(ctx, ErrorCategory::Other, "cannot make the encryption dictionary");
    }
    return dict;
}

}  // namespace

CPDF_PubKeySecurityHandler::~CPDF_PubKeySecurityHandler() {
    OPENSSL_cleanse(file_key_, sizeof file_key_);
}

bool CPDF_PubKeySecurityHandler::OnInit(fz_context* ctx, pdf_document* parser,
                                        pdf_obj* encrypt_dict) {
    parser_ = parser;
    encrypt_dict_ = encrypt_dict;
    cipher_ = kCipherNone;
    key_length_ = 0;
    has_key_ = false;
    int usable = 0;
    fz_var(usable);
    fz_try(ctx) {
        V_ = pdf_dict_get_int(ctx, encrypt_dict, PDF_NAME(V));
        R_ = pdf_dict_get_int(ctx, encrypt_dict, PDF_NAME(R));
        pdf_obj* permissions = pdf_dict_get(ctx, encrypt_dict, PDF_NAME(P));
        permissions_ = pdf_is_number(ctx, permissions)
                           ? static_cast<std::uint32_t>(pdf_to_int64(ctx, permissions))
                           : 0xFFFFFFFFu;
        pdf_obj* stream_filter = pdf_dict_get(ctx, encrypt_dict, PDF_NAME(StmF));
        pdf_obj* string_filter = pdf_dict_get(ctx, encrypt_dict, PDF_NAME(StrF));
        if (V_ >= 4 && pdf_is_name(ctx, stream_filter) &&
            pdf_name_eq(ctx, stream_filter, string_filter)) {
            pdf_obj* filter =
                pdf_dict_get(ctx, pdf_dict_get(ctx, encrypt_dict, PDF_NAME(CF)), stream_filter);
            int bits = pdf_dict_get_int(ctx, filter, PDF_NAME(Length));
            if (bits > 0 && bits < 40) bits *= 8;  // some writers give it in bytes
            if (pdf_name_eq(ctx, pdf_dict_get(ctx, filter, PDF_NAME(CFM)), PDF_NAME(AESV3)) &&
                (bits == 0 || bits == 256)) {
                cipher_ = kCipherAES;
                key_length_ = static_cast<int>(kFileKeyBytes);
                usable = 1;
            }
        }
    }
    fz_catch(ctx) {
        usable = 0;
    }
    return usable != 0;
}

bool CPDF_PubKeySecurityHandler::GetCryptInfo(int& cipher, const unsigned char*& key,
                                              int& key_length) const {
    if (!has_key_) return false;
    cipher = cipher_;
    key = file_key_;
    key_length = key_length_;
    return true;
}

bool CPDF_PubKeySecurityHandler::IsMetadataEncrypted(fz_context* ctx) const {
    pdf_obj* value = pdf_dict_get(ctx, encrypt_dict_, PDF_NAME(EncryptMetadata));
    return !pdf_is_bool(ctx, value) || pdf_to_bool(ctx, value) != 0;
}

bool CPDF_PubKeySecurityHandler::SetFileKeyFromSeed(const unsigned char (&seed)[kSeedBytes],
                                                    const std::string& envelope) {
    if (cipher_ != kCipherAES || key_length_ != static_cast<int>(kFileKeyBytes)) return false;
    EVP_MD_CTX* digest = EVP_MD_CTX_new();
    if (digest == nullptr) return false;
    unsigned int size = 0;
    const bool made = EVP_DigestInit_ex(digest, EVP_sha256(), nullptr) == 1 &&
                      EVP_DigestUpdate(digest, seed, sizeof seed) == 1 &&
                      EVP_DigestUpdate(digest, envelope.data(), envelope.size()) == 1 &&
                      EVP_DigestFinal_ex(digest, file_key_, &size) == 1 && size == kFileKeyBytes;
    EVP_MD_CTX_free(digest);
    has_key_ = made;
    return made;
}

namespace {

// The save for recipients; `require_encrypted` keeps the component's refusal of plain files.
void WriteForRecipients(Document& doc, ByteSink& sink, const std::vector<std::string>& recipients,
                        bool require_encrypted) {
    Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) throw SecuredSaveError("No document is open");
    PlaceObjectsBeforeChanges(impl);
    if (recipients.empty()) throw SecuredSaveError("No recipient was given");
    if (require_encrypted && !ReadSourceSecurity(impl.ctx, impl.doc).encrypted) {
        throw SecuredSaveError(kNotEncryptedText);
    }
    const CertificateStack certificates = ReadRecipientCertificates(recipients);

    unsigned char content[kEnvelopeContentBytes];
    const Cleanse wipe_content(content, sizeof content);
    if (RAND_bytes(content, static_cast<int>(kSeedBytes)) != 1) {
        throw SecuredSaveError("The random generator gave no seed: " + TakeOpenSslError());
    }
    std::memset(content + kSeedBytes, 0xFF, kEnvelopeContentBytes - kSeedBytes);
    const std::string envelope = SealForRecipients(certificates.get(), content);

    const OwnedObject dict(
        impl.ctx, NewPubKeyEncryptDictionary(impl.ctx, impl.doc, envelope.data(), envelope.size()));
    CPDF_PubKeySecurityHandler handler;
    if (!handler.OnInit(impl.ctx, nullptr, dict.get())) {
        throw SecuredSaveError("The encryption dictionary names no AES-256 crypt filter");
    }
    unsigned char seed[kSeedBytes];
    const Cleanse wipe_seed(seed, sizeof seed);
    std::memcpy(seed, content, sizeof seed);
    int cipher = kCipherNone;
    const unsigned char* key = nullptr;
    int key_length = 0;
    if (!handler.SetFileKeyFromSeed(seed, envelope) ||
        !handler.GetCryptInfo(cipher, key, key_length) || cipher != kCipherAES ||
        key_length != static_cast<int>(kFileKeyBytes)) {
        throw SecuredSaveError("The file key could not be made");
    }
    const std::unique_ptr<ObjectEncryption> encryption = NewAes256Encryption(key);
    WriteEncryptedDocument(impl, dict.get(), *encryption, sink);
}

}  // namespace

void SaveWithRecipients(Document& doc, ByteSink& sink, const std::vector<std::string>& recipients) {
    WriteForRecipients(doc, sink, recipients, true);
}

void SaveForRecipients(Document& doc, ByteSink& sink, const std::vector<std::string>& recipients) {
    WriteForRecipients(doc, sink, recipients, false);
}

}  // namespace zpdf::engine
