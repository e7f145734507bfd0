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

std::filesystem::path ToPath(std::u16string_view text);
std::u16string FromPath(const std::filesystem::path& path);

// For messages and logs.
inline std::string Printable(const OptionalText& text) {
    return text ? Utf16ToUtf8(*text) : std::string("(null)");
}

}  // namespace zpdf
