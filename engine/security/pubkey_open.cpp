// Reading a certificate-secured document for one recipient. The engine refuses any security
// handler but the password one, so its trailer entry naming the encryption dictionary is
// renamed in a copy of the file's bytes (same length, so every offset holds): the engine then
// opens the document as if it were plain and hands out strings and streams as they are stored.
// The file key comes from the envelope addressed to the recipient; every string and stream is
// decrypted into the document in memory, which is then written in clear.
#include "engine/security/pubkey_open.h"

#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "engine/internal.h"
#include "engine/security/object_decryption.h"
#include "engine/writer/document_writer.h"

namespace zpdf::engine {
namespace {

using Subject = RecipientKeyError::Subject;

// "/Encrypt" as a whole name becomes "/Encryp_": the engine no longer sees a security handler.
constexpr char kEncryptName[] = "/Encrypt";
constexpr std::size_t kEncryptNameSize = sizeof kEncryptName - 1;
constexpr char kHiddenEncryptKey[] = "Encryp_";

constexpr std::size_t kSeedSize = 20;
constexpr int kMaxNesting = 200;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct CmsFree {
    void operator()(CMS_ContentInfo* cms) const { CMS_ContentInfo_free(cms); }
};
using Bio = std::unique_ptr<BIO, BioFree>;
using PrivateKey = std::unique_ptr<EVP_PKEY, KeyFree>;
using Certificate = std::unique_ptr<X509, CertificateFree>;
using Cms = std::unique_ptr<CMS_ContentInfo, CmsFree>;

// A key file protected by a passphrase is refused instead of prompting on a console.
int NoPassphrase(char* /*buf*/, int /*size*/, int /*rwflag*/, void* /*userdata*/) {
    return 0;
}

Bio MemoryBio(const std::string& text) {
    if (text.size() > static_cast<std::size_t>(INT_MAX)) return nullptr;
    Bio bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!bio) throw std::bad_alloc();
    return bio;
}

bool IsPdfSpaceOrDelimiter(unsigned char c) {
    return c == 0 || c == 9 || c == 10 || c == 12 || c == 13 || c == 32 ||
           std::strchr("()<>[]{}/%", c) != nullptr;
}

// Renames every "/Encrypt" that stands as a whole name; "/EncryptMetadata" is left alone.
void HideEncryptEntries(std::vector<unsigned char>& bytes) {
    if (bytes.size() <= kEncryptNameSize) return;
    for (std::size_t i = 0; i + kEncryptNameSize < bytes.size(); ++i) {
        if (bytes[i] == '/' && std::memcmp(&bytes[i], kEncryptName, kEncryptNameSize) == 0 &&
            IsPdfSpaceOrDelimiter(bytes[i + kEncryptNameSize])) {
            bytes[i + kEncryptNameSize - 1] = '_';
        }
    }
}

std::vector<unsigned char> ReadWholeFile(std::FILE* file) {
    std::vector<unsigned char> bytes;
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        throw EngineError(ErrorCategory::File, "cannot read the document's file");
    }
    unsigned char chunk[64 * 1024];
    for (;;) {
        const std::size_t got = std::fread(chunk, 1, sizeof chunk, file);
        bytes.insert(bytes.end(), chunk, chunk + got);
        if (got < sizeof chunk) break;
    }
    if (std::ferror(file) != 0) {
        throw EngineError(ErrorCategory::File, "cannot read the document's file");
    }
    return bytes;
}

// ---- The encryption dictionary, as far as a recipient needs it ----

struct SecurityEntries {
    const char* filter = nullptr;  // borrowed names
    const char* sub_filter = nullptr;
    int version = 0;
    int length_bits = 0;               // top-level Length, 0 when absent
    pdf_obj* stream_filter = nullptr;  // crypt filter dictionaries (V 4 and 5), borrowed
    pdf_obj* string_filter = nullptr;
    int stream_identity = 0;  // StmF or StrF is Identity
    int string_identity = 0;
    pdf_obj* recipients = nullptr;  // the Recipients array, borrowed
    int encrypt_metadata = 1;
    int object_number = 0;  // the dictionary's own object, 0 when direct
    int found = 0;
};

pdf_obj* NamedCryptFilter(fz_context* ctx, pdf_obj* dict, pdf_obj* name, int* identity) {
    if (!pdf_is_name(ctx, name)) return nullptr;
    if (pdf_name_eq(ctx, name, PDF_NAME(Identity))) {
        *identity = 1;
        return nullptr;
    }
    return pdf_dict_get(ctx, pdf_dict_get(ctx, dict, PDF_NAME(CF)), name);
}

void ReadSecurityEntries(fz_context* ctx, pdf_document* doc, SecurityEntries* entries) {
    fz_try(ctx) {
        pdf_obj* reference = pdf_dict_gets(ctx, pdf_trailer(ctx, doc), kHiddenEncryptKey);
        pdf_obj* dict = pdf_resolve_indirect(ctx, reference);
        if (pdf_is_dict(ctx, dict)) {
            entries->found = 1;
            entries->object_number =
                pdf_is_indirect(ctx, reference) ? pdf_to_num(ctx, reference) : 0;
            entries->filter = pdf_to_name(ctx, pdf_dict_get(ctx, dict, PDF_NAME(Filter)));
            entries->sub_filter = pdf_to_name(ctx, pdf_dict_get(ctx, dict, PDF_NAME(SubFilter)));
            entries->version = pdf_dict_get_int(ctx, dict, PDF_NAME(V));
            entries->length_bits = pdf_dict_get_int(ctx, dict, PDF_NAME(Length));
            entries->stream_filter = NamedCryptFilter(
                ctx, dict, pdf_dict_get(ctx, dict, PDF_NAME(StmF)), &entries->stream_identity);
            entries->string_filter = NamedCryptFilter(
                ctx, dict, pdf_dict_get(ctx, dict, PDF_NAME(StrF)), &entries->string_identity);
            // Recipients and EncryptMetadata sit in the crypt filter from version 4 on, in the
            // encryption dictionary itself before.
            pdf_obj* holder =
                entries->stream_filter != nullptr ? entries->stream_filter : entries->string_filter;
            pdf_obj* recipients = pdf_dict_gets(ctx, holder, "Recipients");
            if (!pdf_is_array(ctx, recipients) && !pdf_is_string(ctx, recipients)) {
                recipients = pdf_dict_gets(ctx, dict, "Recipients");
            }
            entries->recipients = recipients;
            pdf_obj* metadata = pdf_dict_get(ctx, holder, PDF_NAME(EncryptMetadata));
            if (!pdf_is_bool(ctx, metadata))
                metadata = pdf_dict_get(ctx, dict, PDF_NAME(EncryptMetadata));
            entries->encrypt_metadata = !pdf_is_bool(ctx, metadata) || pdf_to_bool(ctx, metadata);
        }
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the document's encryption dictionary");
    }
}

// The bytes of the i-th recipients string (one string instead of an array counts as one).
void ReadRecipientString(fz_context* ctx, pdf_obj* recipients, int i, const char** data,
                         std::size_t* size) {
    fz_try(ctx) {
        pdf_obj* item =
            pdf_is_array(ctx, recipients) ? pdf_array_get(ctx, recipients, i) : recipients;
        *data = pdf_is_string(ctx, item) ? pdf_to_string(ctx, item, size) : nullptr;
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the document's recipients");
    }
}

int RecipientStringCount(fz_context* ctx, pdf_obj* recipients) {
    volatile int count = 0;
    fz_try(ctx) {
        count = pdf_is_array(ctx, recipients) ? pdf_array_len(ctx, recipients)
                                              : (pdf_is_string(ctx, recipients) ? 1 : 0);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the document's recipients");
    }
    return count;
}

// The method a crypt filter dictionary names, and its key length in bits (0 when not given).
void ReadCryptFilter(fz_context* ctx, pdf_obj* filter, const char** method, int* bits) {
    fz_try(ctx) {
        *method = pdf_to_name(ctx, pdf_dict_get(ctx, filter, PDF_NAME(CFM)));
        *bits = pdf_dict_get_int(ctx, filter, PDF_NAME(Length));
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the document's crypt filter");
    }
}

struct CryptPlan {
    CryptMethod streams = CryptMethod::None;
    CryptMethod strings = CryptMethod::None;
    std::size_t key_size = 0;  // bytes of the file key
    bool sha256 = false;       // the file key is SHA-256 (AES-256), else SHA-1
};

// Some writers give a key length in bytes.
int LengthInBits(int length) {
    return length > 0 && length < 40 ? length * 8 : length;
}

CryptMethod MethodOfFilter(fz_context* ctx, pdf_obj* filter, int identity, int* bits) {
    if (identity != 0) return CryptMethod::None;
    if (filter == nullptr)
        throw RecipientKeyError(Subject::Document, "its crypt filter is missing");
    const char* method = "";
    int length = 0;
    ReadCryptFilter(ctx, filter, &method, &length);
    length = LengthInBits(length);
    if (std::strcmp(method, "AESV3") == 0) {
        *bits = 256;
        return CryptMethod::Aes256;
    }
    if (std::strcmp(method, "AESV2") == 0) {
        *bits = 128;
        return CryptMethod::Aes128;
    }
    if (std::strcmp(method, "V2") == 0) {
        *bits = length > 0 ? length : 128;
        return CryptMethod::Rc4;
    }
    if (std::strcmp(method, "None") == 0) return CryptMethod::None;
    throw RecipientKeyError(Subject::Document,
                            std::string("its crypt filter method ") + method + " is not supported");
}

CryptPlan PlanDecryption(fz_context* ctx, const SecurityEntries& entries) {
    if (std::strcmp(entries.filter, "Standard") == 0) {
        throw RecipientKeyError(Subject::Document,
                                "it is secured with passwords, not for certificate holders");
    }
    const std::string sub_filter = entries.sub_filter;
    if (!sub_filter.empty() && sub_filter != "adbe.pkcs7.s4" && sub_filter != "adbe.pkcs7.s5") {
        throw RecipientKeyError(Subject::Document, "its security (" + std::string(entries.filter) +
                                                       ", " + sub_filter + ") is not supported");
    }
    CryptPlan plan;
    int bits = 0;
    if (entries.version == 1 || entries.version == 2) {
        bits = entries.version == 1 ? 40 : LengthInBits(entries.length_bits);
        if (bits == 0) bits = 40;
        plan.streams = plan.strings = CryptMethod::Rc4;
    } else if (entries.version == 4 || entries.version == 5) {
        int stream_bits = 0;
        int string_bits = 0;
        plan.streams =
            MethodOfFilter(ctx, entries.stream_filter, entries.stream_identity, &stream_bits);
        plan.strings =
            MethodOfFilter(ctx, entries.string_filter, entries.string_identity, &string_bits);
        bits = std::max(stream_bits, string_bits);
    } else {
        throw RecipientKeyError(
            Subject::Document,
            "its encryption version " + std::to_string(entries.version) + " is not supported");
    }
    if (bits < 40 || bits > 256 || bits % 8 != 0) {
        throw RecipientKeyError(Subject::Document, "its key length is not valid");
    }
    plan.sha256 = plan.streams == CryptMethod::Aes256 || plan.strings == CryptMethod::Aes256;
    plan.key_size =
        plan.sha256 ? 32 : std::min<std::size_t>(static_cast<std::size_t>(bits) / 8, 20);
    return plan;
}

// ---- The envelope ----

PrivateKey ReadPrivateKey(const std::string& pem) {
    const Bio bio = MemoryBio(pem);
    EVP_PKEY* key =
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, nullptr) : nullptr;
    ERR_clear_error();
    if (key == nullptr) {
        throw RecipientKeyError(Subject::Key,
                                "holds no private key (an unencrypted PEM key is needed)");
    }
    return PrivateKey(key);
}

Certificate ReadCertificate(const std::string& pem) {
    const Bio bio = MemoryBio(pem);
    X509* certificate =
        bio ? PEM_read_bio_X509_AUX(bio.get(), nullptr, NoPassphrase, nullptr) : nullptr;
    ERR_clear_error();
    if (certificate == nullptr)
        throw RecipientKeyError(Subject::Certificate, "holds no PEM certificate");
    return Certificate(certificate);
}

// Other writers seal the envelope with RC2 (PDFBox does), which OpenSSL keeps among its legacy
// algorithms: they are made available, beside the default ones, before the first envelope is
// opened, and let go at exit. Where the legacy algorithms are not built, such an envelope cannot
// be opened.
class LegacyCiphers {
  public:
    LegacyCiphers() : provider_(OSSL_PROVIDER_try_load(nullptr, "legacy", 1)) { ERR_clear_error(); }
    LegacyCiphers(const LegacyCiphers&) = delete;
    LegacyCiphers& operator=(const LegacyCiphers&) = delete;
    ~LegacyCiphers() {
        if (provider_ != nullptr) OSSL_PROVIDER_unload(provider_);
    }

  private:
    OSSL_PROVIDER* provider_;
};

void MakeLegacyCiphersAvailable() {
    static const LegacyCiphers legacy;
}

// True when one of the envelope's recipient infos names the certificate.
bool AddressedTo(CMS_ContentInfo* cms, X509* certificate) {
    STACK_OF(CMS_RecipientInfo)* infos = CMS_get0_RecipientInfos(cms);
    for (int i = 0; i < sk_CMS_RecipientInfo_num(infos); ++i) {
        CMS_RecipientInfo* info = sk_CMS_RecipientInfo_value(infos, i);
        if (CMS_RecipientInfo_type(info) == CMS_RECIPINFO_TRANS &&
            CMS_RecipientInfo_ktri_cert_cmp(info, certificate) == 0) {
            return true;
        }
    }
    return false;
}

// The content of the first envelope addressed to the certificate: the seed and the permissions.
std::string OpenEnvelope(const std::vector<std::string>& envelopes, EVP_PKEY* key,
                         X509* certificate) {
    MakeLegacyCiphersAvailable();
    for (const std::string& envelope : envelopes) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(envelope.data());
        const Cms cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(envelope.size())));
        if (!cms || !AddressedTo(cms.get(), certificate)) {
            ERR_clear_error();
            continue;
        }
        const Bio out(BIO_new(BIO_s_mem()));
        if (!out) throw std::bad_alloc();
        const int opened = CMS_decrypt(cms.get(), key, certificate, nullptr, out.get(), 0);
        ERR_clear_error();
        char* data = nullptr;
        const long size = BIO_get_mem_data(out.get(), &data);
        if (opened != 1 || size < static_cast<long>(kSeedSize) || data == nullptr) {
            throw RecipientKeyError(Subject::Key, "does not open the document's envelope");
        }
        std::string content(data, static_cast<std::size_t>(size));
        OPENSSL_cleanse(data, static_cast<std::size_t>(size));
        return content;
    }
    throw RecipientKeyError(Subject::Certificate, "is not one of the document's recipients");
}

// The file key: the hash of the seed, every recipients string and, when metadata is left in
// clear, four FF bytes; as long as the crypt method's key.
std::vector<unsigned char> FileKey(const CryptPlan& plan, const std::string& content,
                                   const std::vector<std::string>& envelopes,
                                   bool encrypt_metadata) {
    EVP_MD_CTX* digest = EVP_MD_CTX_new();
    if (digest == nullptr) throw std::bad_alloc();
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    bool made = EVP_DigestInit_ex(digest, plan.sha256 ? EVP_sha256() : EVP_sha1(), nullptr) == 1 &&
                EVP_DigestUpdate(digest, content.data(), kSeedSize) == 1;
    for (const std::string& envelope : envelopes) {
        made = made && EVP_DigestUpdate(digest, envelope.data(), envelope.size()) == 1;
    }
    static const unsigned char kClearMetadata[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    if (!encrypt_metadata) {
        made = made && EVP_DigestUpdate(digest, kClearMetadata, sizeof kClearMetadata) == 1;
    }
    made = made && EVP_DigestFinal_ex(digest, hash, &size) == 1;
    EVP_MD_CTX_free(digest);
    if (!made || size < plan.key_size) {
        throw RecipientKeyError(Subject::Document, "its file key could not be made");
    }
    std::vector<unsigned char> key(hash, hash + plan.key_size);
    OPENSSL_cleanse(hash, sizeof hash);
    return key;
}

// ---- Decrypting strings and streams ----

struct WalkState {
    ObjectDecryptor* decryptor;
    CryptPlan plan;
    bool encrypt_metadata;
};

// A new string object with the clear bytes of `string`.
pdf_obj* DecryptedString(fz_context* ctx, WalkState& walk, pdf_obj* string, int num, int gen) {
    std::size_t size = 0;
    const char* data = pdf_to_string(ctx, string, &size);
    unsigned char* clear = static_cast<unsigned char*>(fz_malloc(ctx, size + 1));
    const std::size_t length = walk.decryptor->Decrypt(
        walk.plan.strings, num, gen, reinterpret_cast<const unsigned char*>(data), size, clear);
    pdf_obj* result = nullptr;
    fz_try(ctx) {
        result = pdf_new_string(ctx, reinterpret_cast<const char*>(clear), length);
    }
    fz_always(ctx) {
        fz_free(ctx, clear);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return result;
}

// Replaces every string held directly in `obj` (a dictionary or array, and those nested in it)
// by its clear value. A signature's Contents are stored in clear and kept.
void DecryptNestedStrings(fz_context* ctx, WalkState& walk, pdf_obj* obj, int num, int gen,
                          int depth) {
    if (depth > kMaxNesting || pdf_is_indirect(ctx, obj)) return;
    if (pdf_is_dict(ctx, obj)) {
        const bool signature = pdf_dict_get(ctx, obj, PDF_NAME(ByteRange)) != nullptr;
        const int length = pdf_dict_len(ctx, obj);
        for (int i = 0; i < length; ++i) {
            pdf_obj* value = pdf_dict_get_val(ctx, obj, i);
            if (pdf_is_indirect(ctx, value)) continue;
            pdf_obj* key = pdf_dict_get_key(ctx, obj, i);
            if (pdf_is_string(ctx, value)) {
                if (signature && pdf_name_eq(ctx, key, PDF_NAME(Contents))) continue;
                pdf_dict_put_drop(ctx, obj, key, DecryptedString(ctx, walk, value, num, gen));
            } else {
                DecryptNestedStrings(ctx, walk, value, num, gen, depth + 1);
            }
        }
    } else if (pdf_is_array(ctx, obj)) {
        const int length = pdf_array_len(ctx, obj);
        for (int i = 0; i < length; ++i) {
            pdf_obj* value = pdf_array_get(ctx, obj, i);
            if (pdf_is_indirect(ctx, value)) continue;
            if (pdf_is_string(ctx, value)) {
                pdf_array_put_drop(ctx, obj, i, DecryptedString(ctx, walk, value, num, gen));
            } else {
                DecryptNestedStrings(ctx, walk, value, num, gen, depth + 1);
            }
        }
    }
}

bool HasDirectType(fz_context* ctx, pdf_obj* dict, pdf_obj* type) {
    pdf_obj* value = pdf_dict_get(ctx, dict, PDF_NAME(Type));
    return !pdf_is_indirect(ctx, value) && pdf_name_eq(ctx, value, type);
}

// A stream whose filters start with Crypt names its own crypt filter: only Identity is met in
// practice, and its data is stored in clear.
bool HasOwnCryptFilter(fz_context* ctx, pdf_obj* dict) {
    pdf_obj* filter = pdf_dict_get(ctx, dict, PDF_NAME(Filter));
    if (pdf_is_array(ctx, filter)) filter = pdf_array_get(ctx, filter, 0);
    return pdf_name_eq(ctx, filter, PDF_NAME(Crypt));
}

void DecryptStream(fz_context* ctx, pdf_document* doc, WalkState& walk, pdf_obj* dict, int num,
                   int gen) {
    fz_buffer* raw = pdf_load_raw_stream_number(ctx, doc, num);
    fz_buffer* clear = nullptr;
    pdf_obj* reference = nullptr;
    fz_var(clear);
    fz_var(reference);
    fz_try(ctx) {
        unsigned char* data = nullptr;
        const std::size_t size = fz_buffer_storage(ctx, raw, &data);
        clear = fz_new_buffer(ctx, size + 1);
        clear->len = walk.decryptor->Decrypt(walk.plan.streams, num, gen, data, size, clear->data);
        // The Length goes in first, so that the object is one of the document's changed ones
        // before its new data is attached.
        pdf_dict_put_int(ctx, dict, PDF_NAME(Length), static_cast<int64_t>(clear->len));
        reference = pdf_new_indirect(ctx, doc, num, gen);
        pdf_update_stream(ctx, doc, reference, clear, 1);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, reference);
        fz_drop_buffer(ctx, clear);
        fz_drop_buffer(ctx, raw);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Object streams first: the objects inside them are read from their clear data, and their
// strings are not encrypted one by one. Then every other object in the table. The encryption
// dictionary and cross-reference streams are stored in clear.
void DecryptObjects(fz_context* ctx, pdf_document* doc, WalkState& walk, int encrypt_num,
                    bool object_streams) {
    const int length = pdf_xref_len(ctx, doc);
    for (int num = 1; num < length; ++num) {
        if (num == encrypt_num) continue;
        pdf_xref_entry* entry = pdf_get_xref_entry_no_null(ctx, doc, num);
        if (entry->type != 'n') continue;
        const int gen = entry->gen;
        pdf_obj* obj = pdf_load_object(ctx, doc, num);
        fz_try(ctx) {
            const bool stream = pdf_obj_num_is_stream(ctx, doc, num) != 0;
            const bool object_stream = stream && HasDirectType(ctx, obj, PDF_NAME(ObjStm));
            if (object_streams) {
                if (object_stream) DecryptStream(ctx, doc, walk, obj, num, gen);
            } else if (!object_stream && !(stream && HasDirectType(ctx, obj, PDF_NAME(XRef)))) {
                if (pdf_is_string(ctx, obj)) {
                    pdf_obj* clear = DecryptedString(ctx, walk, obj, num, gen);
                    fz_try(ctx) {
                        pdf_update_object(ctx, doc, num, clear);
                    }
                    fz_always(ctx) {
                        pdf_drop_obj(ctx, clear);
                    }
                    fz_catch(ctx) {
                        fz_rethrow(ctx);
                    }
                } else {
                    DecryptNestedStrings(ctx, walk, obj, num, gen, 0);
                }
                const bool clear_metadata =
                    !walk.encrypt_metadata && HasDirectType(ctx, obj, PDF_NAME(Metadata));
                if (stream && !clear_metadata && !HasOwnCryptFilter(ctx, obj)) {
                    DecryptStream(ctx, doc, walk, obj, num, gen);
                }
            }
        }
        fz_always(ctx) {
            pdf_drop_obj(ctx, obj);
        }
        fz_catch(ctx) {
            fz_rethrow(ctx);
        }
    }
}

void DecryptDocument(fz_context* ctx, pdf_document* doc, WalkState& walk, int encrypt_num) {
    fz_try(ctx) {
        DecryptObjects(ctx, doc, walk, encrypt_num, true);
        DecryptObjects(ctx, doc, walk, encrypt_num, false);
        if (encrypt_num > 0) pdf_delete_object(ctx, doc, encrypt_num);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot decrypt the document");
    }
}

void OpenHiddenSecurity(Document::Impl& impl, const std::vector<unsigned char>& bytes) {
    fz_context* ctx = impl.ctx;
    fz_stream* stm = nullptr;
    pdf_document* doc = nullptr;
    fz_var(stm);
    fz_var(doc);
    fz_try(ctx) {
        stm = fz_open_memory(ctx, bytes.data(), bytes.size());
        doc = pdf_open_document_with_stream(ctx, stm);
    }
    fz_catch(ctx) {
        const ErrorCategory category =
            stm != nullptr ? OpenFailureCategory(ctx, stm) : ErrorCategory::Other;
        fz_drop_stream(ctx, stm);
        ThrowCaught(ctx, category, "cannot open the document");
    }
    // Nothing of the document is read before its object streams are decrypted: an object read
    // from one still encrypted would be kept as the engine misread it. The page tree is put
    // right when the plain copy is opened.
    impl.doc = doc;
    impl.stream = stm;
}

// A certificate-secured file, read whole and opened with its encryption dictionary hidden, so
// that the engine reads the objects as they are stored. The bytes are declared before the
// document that reads them, so the document is closed first.
struct HiddenSecurityFile {
    explicit HiddenSecurityFile(std::FILE* file) : bytes(ReadWholeFile(file)) {
        HideEncryptEntries(bytes);
        OpenHiddenSecurity(document.Internals(), bytes);
    }
    std::vector<unsigned char> bytes;
    Document document;
};

}  // namespace

void SaveDecryptedForRecipient(std::FILE* file, const std::string& key_pem,
                               const std::string& cert_pem, ByteSink& sink) {
    const PrivateKey key = ReadPrivateKey(key_pem);
    const Certificate certificate = ReadCertificate(cert_pem);
    if (X509_check_private_key(certificate.get(), key.get()) != 1) {
        ERR_clear_error();
        throw RecipientKeyError(Subject::Key, "is not the private key of the certificate");
    }

    HiddenSecurityFile opened(file);
    Document::Impl& impl = opened.document.Internals();
    fz_context* ctx = impl.ctx;

    SecurityEntries entries;
    ReadSecurityEntries(ctx, impl.doc, &entries);
    if (entries.found == 0) {
        throw RecipientKeyError(Subject::Document, "it is not encrypted");
    }
    const CryptPlan plan = PlanDecryption(ctx, entries);
    std::vector<std::string> envelopes;
    const int count = RecipientStringCount(ctx, entries.recipients);
    for (int i = 0; i < count; ++i) {
        const char* data = nullptr;
        std::size_t size = 0;
        ReadRecipientString(ctx, entries.recipients, i, &data, &size);
        if (data != nullptr) envelopes.emplace_back(data, size);
    }
    if (envelopes.empty()) throw RecipientKeyError(Subject::Document, "it names no recipients");

    std::string content = OpenEnvelope(envelopes, key.get(), certificate.get());
    ObjectDecryptor decryptor(FileKey(plan, content, envelopes, entries.encrypt_metadata != 0));
    OPENSSL_cleanse(content.data(), content.size());

    PlaceObjectsBeforeChanges(impl);
    WalkState walk{&decryptor, plan, entries.encrypt_metadata != 0};
    DecryptDocument(ctx, impl.doc, walk, entries.object_number);
    WritePlainDocument(impl, sink);
}

EncryptionFacts ReadRecipientEncryption(std::FILE* file) {
    HiddenSecurityFile opened(file);
    Document::Impl& impl = opened.document.Internals();
    fz_context* ctx = impl.ctx;
    EncryptionFacts facts;
    fz_try(ctx) {
        // Under its hidden name the dictionary reads as it is written: the strings of an
        // encryption dictionary, the envelopes among them, are never encrypted.
        facts = EncryptionFactsOf(
            ctx, pdf_dict_gets(ctx, pdf_trailer(ctx, impl.doc), kHiddenEncryptKey));
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the document's encryption dictionary");
    }
    if (!facts.encrypted) throw RecipientKeyError(Subject::Document, "it is not encrypted");
    return facts;
}

}  // namespace zpdf::engine
