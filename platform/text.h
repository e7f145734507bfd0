// Text conversions between the interface's UTF-16 strings and the narrow texts that files,
// passwords and certificates need.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace zpdf {

// A string that may be absent: the interface tells a null string from an empty one.
using OptionalText = std::optional<std::u16string>;

std::string Utf16ToUtf8(std::u16string_view text);
std::u16string Utf8ToUtf16(std::string_view text);

// Narrow text in the thread's ANSI code page on Windows; UTF-8 everywhere else.
std::string ToAnsi(std::u16string_view text);
std::u16string FromAnsi(std::string_view text);

// Names of files. Outside Windows a name is any sequence of bytes: one that is not valid UTF-8
// travels through UTF-16 with each such byte as an unpaired low surrogate (U+DC80 to U+DCFF),
// so ToPath(FromPath(p)) is p for every p.
std::filesystem::path ToPath(std::u16string_view text);
std::u16string FromPath(const std::filesystem::path& path);

// Bytes to UTF-16 and back, with the escape above for bytes that are not valid UTF-8.
inline constexpr char16_t kEscapedByteBase = 0xDC00;
std::u16string BytesToUtf16(std::string_view bytes);
std::string Utf16ToBytes(std::u16string_view text);

// For messages and logs.
inline std::string Printable(const OptionalText& text) {
    return text ? Utf16ToUtf8(*text) : std::string("(null)");
}

}  // namespace zpdf
