#include "engine/security/aes256_encryption.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "engine/security/secured_save.h"

namespace zpdf::engine {
namespace {

constexpr std::size_t kAesBlock = 16;
// Data is encrypted in pieces of this size, so that a long stream needs no second copy.
constexpr std::size_t kChunk = 256u * 1024;

class Aes256Encryption final : public ObjectEncryption {
  public:
    explicit Aes256Encryption(const unsigned char* key)
        : cipher_(EVP_CIPHER_CTX_new()), scratch_(kChunk + kAesBlock) {
        if (cipher_ == nullptr) throw std::bad_alloc();
        std::memcpy(key_, key, sizeof key_);
    }
    Aes256Encryption(const Aes256Encryption&) = delete;
    Aes256Encryption& operator=(const Aes256Encryption&) = delete;
    ~Aes256Encryption() override {
        EVP_CIPHER_CTX_free(cipher_);
        OPENSSL_cleanse(key_, sizeof key_);
    }

    std::size_t EncryptedSize(std::size_t size) const override {
        return kAesBlock + (size / kAesBlock + 1) * kAesBlock;
    }

    void Encrypt(const unsigned char* data, std::size_t size, const Emit& emit) override {
        unsigned char iv[kAesBlock];
        if (RAND_bytes(iv, static_cast<int>(kAesBlock)) != 1)
            throw SecuredSaveError("The random generator gave no initialisation vector");
        if (EVP_EncryptInit_ex(cipher_, EVP_aes_256_cbc(), nullptr, key_, iv) != 1)
            throw SecuredSaveError("AES-256 encryption could not start");
        emit(iv, sizeof iv);
        for (std::size_t done = 0; done < size;) {
            const std::size_t chunk = std::min(kChunk, size - done);
            int written = 0;
            if (EVP_EncryptUpdate(cipher_, scratch_.data(), &written, data + done,
                                  static_cast<int>(chunk)) != 1)
                throw SecuredSaveError("AES-256 encryption failed");
            emit(scratch_.data(), static_cast<std::size_t>(written));
            done += chunk;
        }
        int written = 0;
        if (EVP_EncryptFinal_ex(cipher_, scratch_.data(), &written) != 1)
            throw SecuredSaveError("AES-256 encryption failed");
        emit(scratch_.data(), static_cast<std::size_t>(written));
    }

  private:
    EVP_CIPHER_CTX* cipher_;
    unsigned char key_[kFileKeyBytes];
    std::vector<unsigned char> scratch_;
};

}  // namespace

std::unique_ptr<ObjectEncryption> NewAes256Encryption(const unsigned char* key) {
    return std::make_unique<Aes256Encryption>(key);
}

}  // namespace zpdf::engine
