#include "content_object/stream_record.h"

#include <array>
#include <cstddef>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/alloc_fault.h"

namespace zpdf::record {
namespace {

template <std::size_t N>
std::array<std::uint8_t, N> LittleEndian(std::uint64_t value) {
    std::array<std::uint8_t, N> bytes{};
    for (std::size_t i = 0; i < N; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    return bytes;
}

template <std::size_t N>
std::uint64_t FromLittleEndian(const std::array<std::uint8_t, N>& bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < N; ++i) value |= std::uint64_t{bytes[i]} << (8 * i);
    return value;
}

template <std::size_t N>
HResult WriteField(ByteStream& stream, std::uint64_t value) {
    const auto bytes = LittleEndian<N>(value);
    return stream.Write(bytes.data(), N);
}

// Reads N bytes over `bytes`; `*got` is how many came.
template <std::size_t N>
HResult ReadField(ByteStream& stream, std::array<std::uint8_t, N>* bytes, std::size_t* got) {
    std::array<std::uint8_t, N> in = *bytes;
    std::size_t read = 0;
    const HResult result = stream.Read(in.data(), N, &read);
    if (hr::Failed(result)) return result;
    if (read > N) read = N;
    for (std::size_t i = 0; i < read; ++i) (*bytes)[i] = in[i];
    *got = read;
    return hr::kOk;
}

template <std::size_t N>
HResult ReadWhole(ByteStream& stream, std::uint64_t* value) {
    std::array<std::uint8_t, N> bytes{};
    std::size_t got = 0;
    if (const HResult result = ReadField(stream, &bytes, &got); hr::Failed(result)) return result;
    if (got != N) return hr::kFail;
    *value = FromLittleEndian(bytes);
    return hr::kOk;
}

template <std::size_t N>
HResult ReadOver(ByteStream& stream, std::uint64_t* value) {
    auto bytes = LittleEndian<N>(*value);
    std::size_t got = 0;
    if (const HResult result = ReadField(stream, &bytes, &got); hr::Failed(result)) return result;
    *value = FromLittleEndian(bytes);
    return hr::kOk;
}

}  // namespace

HResult WriteUInt32(ByteStream& stream, std::uint32_t value) {
    return WriteField<4>(stream, value);
}

HResult WriteInt32(ByteStream& stream, std::int32_t value) {
    return WriteField<4>(stream, static_cast<std::uint32_t>(value));
}

HResult WriteInt16(ByteStream& stream, std::int16_t value) {
    return WriteField<2>(stream, static_cast<std::uint16_t>(value));
}

HResult ReadUInt32(ByteStream& stream, std::uint32_t* value) {
    std::uint64_t wide = 0;
    const HResult result = ReadWhole<4>(stream, &wide);
    if (hr::Succeeded(result)) *value = static_cast<std::uint32_t>(wide);
    return result;
}

HResult ReadInt16(ByteStream& stream, std::int16_t* value) {
    std::uint64_t wide = 0;
    const HResult result = ReadWhole<2>(stream, &wide);
    if (hr::Succeeded(result)) *value = static_cast<std::int16_t>(wide);
    return result;
}

HResult ReadInt32Over(ByteStream& stream, std::int32_t* value) {
    std::uint64_t wide = static_cast<std::uint32_t>(*value);
    const HResult result = ReadOver<4>(stream, &wide);
    *value = static_cast<std::int32_t>(wide);
    return result;
}

HResult ReadInt16Over(ByteStream& stream, std::int16_t* value) {
    std::uint64_t wide = static_cast<std::uint16_t>(*value);
    const HResult result = ReadOver<2>(stream, &wide);
    *value = static_cast<std::int16_t>(wide);
    return result;
}

HResult WriteStringRecord(ByteStream& stream, const OptionalText& text) {
    if (!text) return WriteUInt32(stream, 0);
    // The count must fit its 32 bits; the reader refuses far less anyway.
    if (text->size() > (0xFFFFFFFFu - 2) / 2) return hr::kInvalidArg;
    const auto count = static_cast<std::uint32_t>(text->size() * 2 + 2);
    std::vector<std::uint8_t> bytes;
    try {
        bytes.resize(count);
    } catch (const std::bad_alloc&) {
        return hr::kOutOfMemory;
    }
    for (std::size_t i = 0; i < text->size(); ++i) {
        const char16_t c = (*text)[i];
        bytes[2 * i] = static_cast<std::uint8_t>(c & 0xFF);
        bytes[2 * i + 1] = static_cast<std::uint8_t>(c >> 8);
    }
    // The last two bytes stay zero: the terminating character.
    if (const HResult result = WriteUInt32(stream, count); hr::Failed(result)) return result;
    return stream.Write(bytes.data(), bytes.size());
}

HResult ReadStringRecord(ByteStream& stream, OptionalText* text) {
    std::uint64_t start = 0;
    const bool can_rewind = hr::Succeeded(stream.Seek(0, SeekOrigin::Current, &start));
    auto fail = [&](HResult result) {
        if (can_rewind) stream.Seek(static_cast<std::int64_t>(start), SeekOrigin::Begin, nullptr);
        return result;
    };

    std::uint32_t count = 0;
    if (const HResult result = ReadUInt32(stream, &count); hr::Failed(result)) return fail(result);
    if (count == 0) {
        *text = std::nullopt;
        return hr::kOk;
    }
    if (count < 2) return fail(hr::kFail);
    if (count > kMaxStringBytes) return fail(hr::kAccessDenied);

    std::vector<std::uint8_t> bytes;
    try {
        AllocationPoint();
        bytes.resize(count);
    } catch (const std::bad_alloc&) {
        return fail(hr::kOutOfMemory);
    }
    std::size_t got = 0;
    if (const HResult result = stream.Read(bytes.data(), bytes.size(), &got); hr::Failed(result)) {
        return fail(result);
    }
    if (got != bytes.size()) return fail(hr::kFail);
    if (bytes[count - 2] != 0 || bytes[count - 1] != 0) return fail(hr::kFail);

    std::u16string value;
    try {
        value.resize((count - 2) / 2);
    } catch (const std::bad_alloc&) {
        return fail(hr::kOutOfMemory);
    }
    for (std::size_t i = 0; i < value.size(); ++i) {
        value[i] = static_cast<char16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    }
    *text = std::move(value);
    return hr::kOk;
}

}  // namespace zpdf::record
