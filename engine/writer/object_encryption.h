// Encryption as a filter on what the writer prints: the object printer hands each string and
// each stream's data to it and writes what comes out, knowing nothing of the cipher.
#pragma once

#include <cstddef>
#include <functional>

namespace zpdf::engine {

class ObjectEncryption {
  public:
    virtual ~ObjectEncryption() = default;
    // Receives the encrypted bytes, in pieces, in order.
    using Emit = std::function<void(const unsigned char* data, std::size_t size)>;
    // How many bytes `size` bytes of data become.
    virtual std::size_t EncryptedSize(std::size_t size) const = 0;
    // Encrypts one string's or one stream's data. Throws SecuredSaveError.
    virtual void Encrypt(const unsigned char* data, std::size_t size, const Emit& emit) = 0;
};

}  // namespace zpdf::engine
