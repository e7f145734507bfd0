#include "platform/byte_stream.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace zpdf {

HResult MemoryByteStream::Read(void* data, std::size_t size, std::size_t* read) {
    std::size_t count = 0;
    if (position_ < bytes_.size()) {
        count = static_cast<std::size_t>(std::min<std::uint64_t>(size, bytes_.size() - position_));
        std::memcpy(data, bytes_.data() + position_, count);
        position_ += count;
    }
    if (read != nullptr) *read = count;
    return hr::kOk;
}

HResult MemoryByteStream::Write(const void* data, std::size_t size) {
    if (size == 0) return hr::kOk;
    const std::uint64_t end = position_ + size;
    if (end < position_ || end > bytes_.max_size()) return hr::kOutOfMemory;
    try {
        if (end > bytes_.size()) bytes_.resize(static_cast<std::size_t>(end));
    } catch (const std::bad_alloc&) {
        return hr::kOutOfMemory;
    }
    std::memcpy(bytes_.data() + position_, data, size);
    position_ = end;
    return hr::kOk;
}

HResult MemoryByteStream::Seek(std::int64_t offset, SeekOrigin origin, std::uint64_t* position) {
    std::int64_t base = 0;
    switch (origin) {
        case SeekOrigin::Begin:
            break;
        case SeekOrigin::Current:
            base = static_cast<std::int64_t>(position_);
            break;
        case SeekOrigin::End:
            base = static_cast<std::int64_t>(bytes_.size());
            break;
        default:
            return hr::kStgInvalidFunction;
    }
    // Positions stay far below the int64 range, so only the sum with a huge offset can wrap.
    if (offset > 0 && base > std::numeric_limits<std::int64_t>::max() - offset) {
        return hr::kStgInvalidFunction;
    }
    const std::int64_t target = base + offset;
    if (target < 0) return hr::kStgInvalidFunction;
    position_ = static_cast<std::uint64_t>(target);
    if (position != nullptr) *position = position_;
    return hr::kOk;
}

}  // namespace zpdf
