// Decrypting the strings and streams of a document under its file key, object by object, with
// the crypt methods of the PDF security handlers: RC4 and AES-128 with a key per object, AES-256
// with the file key itself. Kept out of line in its own file: its callers run between the
// engine's error handlers, where inlined locals would not survive an engine error.
#pragma once

#include <cstddef>
#include <vector>

struct evp_cipher_ctx_st;

namespace zpdf::engine {

enum class CryptMethod { None, Rc4, Aes128, Aes256 };

class ObjectDecryptor {
  public:
    // `file_key` is wiped when the object goes. Throws std::bad_alloc.
    explicit ObjectDecryptor(std::vector<unsigned char> file_key);
    ObjectDecryptor(const ObjectDecryptor&) = delete;
    ObjectDecryptor& operator=(const ObjectDecryptor&) = delete;
    ~ObjectDecryptor();

    // Writes the clear bytes of `in`, which belong to object `num` of generation `gen`, into
    // `out` (room for `size` bytes) and returns how many; 0 for data too short or damaged.
    std::size_t Decrypt(CryptMethod method, int num, int gen, const unsigned char* in,
                        std::size_t size, unsigned char* out) noexcept;

  private:
    std::size_t ObjectKey(CryptMethod method, int num, int gen, unsigned char (&out)[16]) noexcept;
    std::size_t AesCbc(bool aes256, const unsigned char* key, const unsigned char* in,
                       std::size_t size, unsigned char* out) noexcept;

    std::vector<unsigned char> key_;
    evp_cipher_ctx_st* cipher_ = nullptr;
};

}  // namespace zpdf::engine
