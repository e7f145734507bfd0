// The public-key security handler: what a document secured for certificate recipients is
// encrypted with. On the writing side its file key comes from the seed that travels in the
// recipients' envelope; its other fields are read from the encryption dictionary.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/internal.h"
#include "engine/security/aes256_encryption.h"

namespace zpdf::engine {

inline constexpr std::size_t kSeedBytes = 20;

// The ciphers a crypt filter can name.
enum SecurityCipher : int { kCipherNone = 0, kCipherRC4 = 1, kCipherAES = 2 };

class CPDF_PubKeySecurityHandler {
  public:
    CPDF_PubKeySecurityHandler() = default;
    CPDF_PubKeySecurityHandler(const CPDF_PubKeySecurityHandler&) = delete;
    CPDF_PubKeySecurityHandler& operator=(const CPDF_PubKeySecurityHandler&) = delete;
    ~CPDF_PubKeySecurityHandler();

    // Takes V, R, the permissions (P, -1 when absent), the cipher and the key length from the
    // encryption dictionary, which must stay alive as long as the handler. `parser` is the
    // document being read; null when writing. False when the dictionary names no crypt filter
    // method this handler can use (AES-256 through the same filter for streams and strings).
    bool OnInit(fz_context* ctx, pdf_document* parser, pdf_obj* encrypt_dict);
    std::uint32_t GetPermissions() const { return permissions_; }
    // The cipher, the file key and its length in bytes. False before a key was set.
    bool GetCryptInfo(int& cipher, const unsigned char*& key, int& key_length) const;
    // The dictionary's EncryptMetadata, true when absent.
    bool IsMetadataEncrypted(fz_context* ctx) const;

    // The file key of the writing side: SHA-256 over the seed and every byte of the envelope
    // (the first Recipients string). Metadata is encrypted, so the permission bytes are not
    // hashed. False when the hash cannot be made or the handler is not for a 32-byte key.
    bool SetFileKeyFromSeed(const unsigned char (&seed)[kSeedBytes], const std::string& envelope);

  private:
    int V_ = 0;
    int R_ = 0;
    pdf_document* parser_ = nullptr;
    pdf_obj* encrypt_dict_ = nullptr;
    std::uint32_t permissions_ = 0;
    int cipher_ = kCipherNone;
    unsigned char file_key_[kFileKeyBytes] = {};
    int key_length_ = 0;

    bool has_key_ = false;
};

}  // namespace zpdf::engine
