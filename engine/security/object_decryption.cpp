#include "engine/security/object_decryption.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

namespace zpdf::engine {
namespace {

constexpr std::size_t kAesBlock = 16;

// Returns `size`: RC4 keeps the length.
std::size_t Rc4(const unsigned char* key, std::size_t key_size, const unsigned char* in,
                std::size_t size, unsigned char* out) noexcept {
    unsigned char s[256];
    for (int i = 0; i < 256; ++i) s[i] = static_cast<unsigned char>(i);
    unsigned j = 0;
    for (unsigned i = 0; i < 256; ++i) {
        j = (j + s[i] + key[i % key_size]) & 0xFF;
        std::swap(s[i], s[j]);
    }
    unsigned a = 0;
    unsigned b = 0;
    for (std::size_t k = 0; k < size; ++k) {
        a = (a + 1) & 0xFF;
        b = (b + s[a]) & 0xFF;
        std::swap(s[a], s[b]);
        out[k] = in[k] ^ s[(s[a] + s[b]) & 0xFF];
    }
    OPENSSL_cleanse(s, sizeof s);
    return size;
}

// The length of `data` without its padding, when the padding is well formed.
std::size_t WithoutPadding(const unsigned char* data, std::size_t length) noexcept {
    const std::size_t pad = length > 0 ? data[length - 1] : 0;
    if (pad < 1 || pad > kAesBlock || pad > length) return length;
    for (std::size_t k = length - pad; k < length; ++k) {
        if (data[k] != pad) return length;
    }
    return length - pad;
}

}  // namespace

ObjectDecryptor::ObjectDecryptor(std::vector<unsigned char> file_key)
    : key_(std::move(file_key)), cipher_(EVP_CIPHER_CTX_new()) {
    if (cipher_ == nullptr) throw std::bad_alloc();
}

ObjectDecryptor::~ObjectDecryptor() {
    EVP_CIPHER_CTX_free(cipher_);
    OPENSSL_cleanse(key_.data(), key_.size());
}

std::size_t ObjectDecryptor::Decrypt(CryptMethod method, int num, int gen, const unsigned char* in,
                                     std::size_t size, unsigned char* out) noexcept {
    if (method == CryptMethod::None) {
        if (size > 0) std::memcpy(out, in, size);
        return size;
    }
    unsigned char object_key[16];
    std::size_t object_key_size = 0;
    if (method != CryptMethod::Aes256) {
        object_key_size = ObjectKey(method, num, gen, object_key);
        if (object_key_size == 0) return 0;
    }
    const std::size_t done =
        method == CryptMethod::Rc4
            ? Rc4(object_key, object_key_size, in, size, out)
            : AesCbc(method == CryptMethod::Aes256,
                     method == CryptMethod::Aes256 ? key_.data() : object_key, in, size, out);
    OPENSSL_cleanse(object_key, sizeof object_key);
    return done;
}

// MD5 over the file key, the object's number (3 bytes) and generation (2 bytes), low
// first, and "sAlT" for AES; its first n + 5 bytes, 16 at most.
std::size_t ObjectDecryptor::ObjectKey(CryptMethod method, int num, int gen,
                                       unsigned char (&out)[16]) noexcept {
    unsigned char material[32 + 5 + 4];
    std::memcpy(material, key_.data(), key_.size());
    std::size_t n = key_.size();
    material[n++] = static_cast<unsigned char>(num);
    material[n++] = static_cast<unsigned char>(num >> 8);
    material[n++] = static_cast<unsigned char>(num >> 16);
    material[n++] = static_cast<unsigned char>(gen);
    material[n++] = static_cast<unsigned char>(gen >> 8);
    if (method == CryptMethod::Aes128) {
        std::memcpy(material + n, "sAlT", 4);
        n += 4;
    }
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    const bool made = EVP_Digest(material, n, hash, &size, EVP_md5(), nullptr) == 1;
    OPENSSL_cleanse(material, sizeof material);
    if (!made || size < 16) return 0;
    const std::size_t length = std::min<std::size_t>(key_.size() + 5, 16);
    std::memcpy(out, hash, length);
    OPENSSL_cleanse(hash, sizeof hash);
    return length;
}

// The initialisation vector is the first block; a trailing part block is dropped, and the
// padding is taken off when it is well formed.
std::size_t ObjectDecryptor::AesCbc(bool aes256, const unsigned char* key, const unsigned char* in,
                                    std::size_t size, unsigned char* out) noexcept {
    if (size < 2 * kAesBlock) return 0;
    const std::size_t body = (size - kAesBlock) / kAesBlock * kAesBlock;
    if (body > static_cast<std::size_t>(INT_MAX)) return 0;
    int written = 0;
    int tail = 0;
    if (EVP_DecryptInit_ex(cipher_, aes256 ? EVP_aes_256_cbc() : EVP_aes_128_cbc(), nullptr, key,
                           in) != 1 ||
        EVP_CIPHER_CTX_set_padding(cipher_, 0) != 1 ||
        EVP_DecryptUpdate(cipher_, out, &written, in + kAesBlock, static_cast<int>(body)) != 1 ||
        EVP_DecryptFinal_ex(cipher_, out + written, &tail) != 1) {
        return 0;
    }
    return WithoutPadding(out, static_cast<std::size_t>(written + tail));
}

}  // namespace zpdf::engine
