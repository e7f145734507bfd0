// AES-256-CBC as the AESV3 crypt filter method uses it: every string and stream gets a fresh
// random IV in front of its padded data, all under the one file key.
#pragma once

#include <cstddef>
#include <memory>

#include "engine/writer/object_encryption.h"

namespace zpdf::engine {

inline constexpr std::size_t kFileKeyBytes = 32;

// `key` is kFileKeyBytes long; it is copied and wiped when the object goes. Throws
// std::bad_alloc when no cipher context can be had.
std::unique_ptr<ObjectEncryption> NewAes256Encryption(const unsigned char* key);

}  // namespace zpdf::engine
