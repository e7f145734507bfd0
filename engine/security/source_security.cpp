#include "engine/security/source_security.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "engine/security/secured_save.h"

namespace zpdf::engine {
namespace {

// Puts `length` bytes into the string `key` of `encrypt` where it holds anything else.
void KeepString(fz_context* ctx, pdf_obj* encrypt, pdf_obj* key, const unsigned char* bytes,
                std::size_t length) {
    std::size_t held = 0;
    const char* current = pdf_to_string(ctx, pdf_dict_get(ctx, encrypt, key), &held);
    if (held == length && std::memcmp(current, bytes, length) == 0) return;
    pdf_dict_put_string(ctx, encrypt, key, reinterpret_cast<const char*>(bytes), length);
}

constexpr std::size_t kPermsBytes = 16;

// One AES-256 block in ECB mode, as /Perms is made: encrypting or decrypting. False when the
// cipher cannot be had.
bool PermsBlock(const unsigned char* key, const unsigned char* in, unsigned char* out,
                bool encrypt) {
    EVP_CIPHER_CTX* cipher = EVP_CIPHER_CTX_new();
    if (cipher == nullptr) return false;
    int written = 0;
    const bool done =
        EVP_CipherInit_ex(cipher, EVP_aes_256_ecb(), nullptr, key, nullptr, encrypt ? 1 : 0) == 1 &&
        EVP_CIPHER_CTX_set_padding(cipher, 0) == 1 &&
        EVP_CipherUpdate(cipher, out, &written, in, kPermsBytes) == 1 &&
        written == static_cast<int>(kPermsBytes);
    EVP_CIPHER_CTX_free(cipher);
    return done;
}

// Whether `perms` decrypts with the file key to the permissions the document's security reads,
// and its "adb" mark.
bool PermsFit(const unsigned char* key, const char* perms, std::size_t length, int permissions) {
    if (length != kPermsBytes) return false;
    unsigned char plain[kPermsBytes];
    if (!PermsBlock(key, reinterpret_cast<const unsigned char*>(perms), plain, false)) return false;
    const auto p = static_cast<std::uint32_t>(permissions);
    const bool fits = plain[0] == (p & 0xFF) && plain[1] == ((p >> 8) & 0xFF) &&
                      plain[2] == ((p >> 16) & 0xFF) && plain[3] == ((p >> 24) & 0xFF) &&
                      std::memcmp(plain + 9, "adb", 3) == 0;
    OPENSSL_cleanse(plain, sizeof plain);
    return fits;
}

// A /Perms of the file key for the permissions and metadata encryption of the document's
// security: P in four bytes from the lowest, four bytes of ones, T or F, "adb", four random
// bytes. False when no cipher or randomness can be had.
bool MakePerms(const unsigned char* key, int permissions, bool encrypt_metadata,
               unsigned char* perms) {
    unsigned char plain[kPermsBytes];
    const auto p = static_cast<std::uint32_t>(permissions);
    for (int i = 0; i < 4; ++i) plain[i] = static_cast<unsigned char>((p >> (8 * i)) & 0xFF);
    std::memset(plain + 4, 0xFF, 4);
    plain[8] = encrypt_metadata ? 'T' : 'F';
    std::memcpy(plain + 9, "adb", 3);
    const bool made = RAND_bytes(plain + 12, 4) == 1 && PermsBlock(key, plain, perms, true);
    OPENSSL_cleanse(plain, sizeof plain);
    return made;
}

}  // namespace

// The strings of the encryption dictionary are the one part of an encrypted file that is never
// encrypted. The engine decrypts the strings of every object it parses once the document's
// security is set up, and it sets that up before it parses the dictionary only when its table
// did not have to be rebuilt: after a rebuild the parsed dictionary holds its /O and /U (and
// /OE, /UE, /Perms) decrypted, and the writer, which keeps the dictionary as it is, writes
// values no password fits. The document's security keeps the /O, /U, /OE and /UE its key was
// derived from; they are put back. It does not keep /Perms, which is checked against the key
// and made again when the key does not open it.
void RestoreEncryptionStrings(fz_context* ctx, pdf_document* doc) {
    pdf_crypt* crypt = doc->crypt;
    if (crypt == nullptr) return;
    pdf_obj* encrypt = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Encrypt));
    if (!pdf_is_dict(ctx, encrypt)) return;
    const std::string filter = pdf_to_name(ctx, pdf_dict_get(ctx, encrypt, PDF_NAME(Filter)));
    if (filter != "Standard") return;  // another handler's entries are not password hashes
    const int revision = pdf_crypt_revision(ctx, crypt);
    const std::size_t hash = revision >= 5 ? 48 : 32;
    KeepString(ctx, encrypt, PDF_NAME(O), pdf_crypt_owner_password(ctx, crypt), hash);
    KeepString(ctx, encrypt, PDF_NAME(U), pdf_crypt_user_password(ctx, crypt), hash);
    if (revision < 5) return;
    KeepString(ctx, encrypt, PDF_NAME(OE), pdf_crypt_owner_encryption(ctx, crypt), 32);
    KeepString(ctx, encrypt, PDF_NAME(UE), pdf_crypt_user_encryption(ctx, crypt), 32);
    const unsigned char* key = pdf_crypt_key(ctx, crypt);
    const int permissions = pdf_crypt_permissions(ctx, crypt);
    std::size_t length = 0;
    const char* perms = pdf_to_string(ctx, pdf_dict_get(ctx, encrypt, PDF_NAME(Perms)), &length);
    if (PermsFit(key, perms, length, permissions)) return;
    unsigned char made[kPermsBytes];
    if (!MakePerms(key, permissions, pdf_crypt_encrypt_metadata(ctx, crypt) != 0, made))
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot make the encryption dictionary's /Perms");
    pdf_dict_put_string(ctx, encrypt, PDF_NAME(Perms), reinterpret_cast<const char*>(made),
                        kPermsBytes);
}

const char* const kNotEncryptedText =
    "The document's file is not encrypted: a secured save re-secures only a file that already "
    "carries encryption";

SourceSecurity ReadSourceSecurity(fz_context* ctx, pdf_document* doc) {
    SourceSecurity source;
    fz_var(source);
    fz_try(ctx) {
        engine::RequireCatalog(ctx, doc);
        pdf_obj* reference = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Encrypt));
        pdf_obj* encrypt = pdf_resolve_indirect(ctx, reference);
        if (pdf_is_dict(ctx, encrypt)) {
            source.encrypted = true;
            pdf_obj* permissions = pdf_dict_get(ctx, encrypt, PDF_NAME(P));
            source.permissions = pdf_is_number(ctx, permissions)
                                     ? static_cast<int>(pdf_to_int64(ctx, permissions))
                                     : -1;
            source.object_number = pdf_is_indirect(ctx, reference) ? pdf_to_num(ctx, reference) : 0;
        }
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::Other,
                            "cannot read the document's security");
    }
    return source;
}

}  // namespace zpdf::engine
