// A byte stream over memory that fails one chosen read or write, and counts the calls, for the
// failure paths of the persisted records.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/byte_stream.h"

namespace zpdf::test {

// Structured-storage codes a real stream answers with.
inline constexpr HResult kStreamReadFault = static_cast<HResult>(0x8003001Eu);
inline constexpr HResult kStreamMediumFull = static_cast<HResult>(0x80030070u);

class FaultInjectingStream final : public ByteStream {
  public:
    explicit FaultInjectingStream(std::vector<std::uint8_t> bytes = {})
        : inner_(std::move(bytes)) {}

    // The `nth` call (1-based) fails, reads with kStreamReadFault, writes with
    // kStreamMediumFull, and moves nothing; 0 fails none.
    void FailRead(int nth) { fail_read_ = nth; }
    void FailWrite(int nth) { fail_write_ = nth; }

    HResult Read(void* data, std::size_t size, std::size_t* read) override {
        if (++reads_ == fail_read_) {
            if (read != nullptr) *read = 0;
            return kStreamReadFault;
        }
        return inner_.Read(data, size, read);
    }
    HResult Write(const void* data, std::size_t size) override {
        if (++writes_ == fail_write_) return kStreamMediumFull;
        return inner_.Write(data, size);
    }
    HResult Seek(std::int64_t offset, SeekOrigin origin, std::uint64_t* position) override {
        return inner_.Seek(offset, origin, position);
    }

    int Reads() const { return reads_; }
    int Writes() const { return writes_; }
    const std::vector<std::uint8_t>& Bytes() const { return inner_.Bytes(); }

  private:
    MemoryByteStream inner_;
    int fail_read_ = 0, fail_write_ = 0, reads_ = 0, writes_ = 0;
};

}  // namespace zpdf::test
