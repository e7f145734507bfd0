// The byte-stream seam: what persistence needs from the host's stream. Its semantics follow the
// host's structured-storage streams, so the Windows host adapts its stream with one call per
// method; MemoryByteStream is the in-memory stream of the tests and the command-line host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/hresult.h"

namespace zpdf {

namespace hr {
// The structured-storage answer to a seek before the start of a stream or with a bad origin.
inline constexpr HResult kStgInvalidFunction = static_cast<HResult>(0x80030001u);
}  // namespace hr

// Same values as the host's seek origins (start, current position, end).
enum class SeekOrigin : std::uint32_t { Begin = 0, Current = 1, End = 2 };

class ByteStream {
  public:
    virtual ~ByteStream() = default;

    // Reads up to `size` bytes. A stream that ends first delivers fewer and still succeeds;
    // `*read` (when given) receives the number delivered, also on failure.
    virtual HResult Read(void* data, std::size_t size, std::size_t* read) = 0;
    // Writes all `size` bytes or fails.
    virtual HResult Write(const void* data, std::size_t size) = 0;
    // Moves the position by `offset` from `origin`; `*position` (when given) receives the new
    // position from the start.
    virtual HResult Seek(std::int64_t offset, SeekOrigin origin, std::uint64_t* position) = 0;
};

// A stream over a growing byte vector. Writing past the end grows it; a gap left by seeking
// beyond the end reads as zeros once something is written after it.
class MemoryByteStream final : public ByteStream {
  public:
    MemoryByteStream() = default;
    // A stream holding `bytes`, positioned at their start.
    explicit MemoryByteStream(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

    HResult Read(void* data, std::size_t size, std::size_t* read) override;
    HResult Write(const void* data, std::size_t size) override;
    HResult Seek(std::int64_t offset, SeekOrigin origin, std::uint64_t* position) override;

    const std::vector<std::uint8_t>& Bytes() const { return bytes_; }
    std::uint64_t Position() const { return position_; }

  private:
    std::vector<std::uint8_t> bytes_;
    std::uint64_t position_ = 0;
};

}  // namespace zpdf
