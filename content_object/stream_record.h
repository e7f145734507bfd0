// Fields of the persisted stream records: little-endian integers and counted UTF-16 strings.
// The content object and the content element build their records from these.
#pragma once

#include <cstdint>

#include "platform/byte_stream.h"
#include "platform/hresult.h"
#include "platform/text.h"

namespace zpdf::record {

// The largest byte count a string record may announce: 524,287 characters and the terminating
// zero. Larger counts are refused before anything is allocated.
inline constexpr std::uint32_t kMaxStringBytes = 1048576;

HResult WriteUInt32(ByteStream& stream, std::uint32_t value);
HResult WriteInt32(ByteStream& stream, std::int32_t value);
HResult WriteInt16(ByteStream& stream, std::int16_t value);

// Read a whole field. A stream that ends inside the field is damaged: E_FAIL, and the value is
// left as it was.
HResult ReadUInt32(ByteStream& stream, std::uint32_t* value);
HResult ReadInt16(ByteStream& stream, std::int16_t* value);

// Read as many bytes of the field as the stream delivers over its little-endian image: bytes
// that do not come keep their earlier value. For records whose reader takes what it gets.
HResult ReadInt32Over(ByteStream& stream, std::int32_t* value);
HResult ReadInt16Over(ByteStream& stream, std::int16_t* value);

// A string record: a 32-bit byte count, then the UTF-16LE text and its terminating zero
// character. A null string is the count 0 alone.
HResult WriteStringRecord(ByteStream& stream, const OptionalText& text);

// Reads a string record. Count 0 gives a null string; a count of 1, a stream that ends early or
// text without its terminating zero give E_FAIL; a count above kMaxStringBytes gives
// E_ACCESSDENIED. On any failure the stream is moved back to the count (when it can seek) and
// `*text` is left as it was. A stray odd byte before the terminator is not part of the text.
HResult ReadStringRecord(ByteStream& stream, OptionalText* text);

}  // namespace zpdf::record
