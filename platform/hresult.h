// Result codes shared by the core and the COM surface. The core returns the very numbers the
// COM methods return, so a COM method is a conversion of arguments plus one call.
#pragma once

#include <cstdint>
#include <string>

namespace zpdf {

using HResult = std::int32_t;

namespace hr {
inline constexpr HResult kOk = 0;
inline constexpr HResult kFalse = 1;
inline constexpr HResult kNotImpl = static_cast<HResult>(0x80004001u);
inline constexpr HResult kPointer = static_cast<HResult>(0x80004003u);
inline constexpr HResult kFail = static_cast<HResult>(0x80004005u);
inline constexpr HResult kUnexpected = static_cast<HResult>(0x8000FFFFu);
inline constexpr HResult kAccessDenied = static_cast<HResult>(0x80070005u);
inline constexpr HResult kOutOfMemory = static_cast<HResult>(0x8007000Eu);
inline constexpr HResult kInvalidArg = static_cast<HResult>(0x80070057u);
inline constexpr HResult kFileNotFound = static_cast<HResult>(0x80070002u);

// A Win32-style error number as an HRESULT: a positive code e becomes 0x80070000 | (e & 0xFFFF);
// zero and values that are already negative come back unchanged.
constexpr HResult FromWin32(std::int32_t error) {
    if (error <= 0) return error;
    return static_cast<HResult>(0x80070000u | (static_cast<std::uint32_t>(error) & 0xFFFFu));
}

constexpr bool Succeeded(HResult h) {
    return h >= 0;
}
constexpr bool Failed(HResult h) {
    return h < 0;
}
}  // namespace hr

// "0x8000FFFF" style text of a result, for messages.
std::string FormatHResult(HResult h);

// A short readable description of the well-known results ("Unspecified error" ...).
const char* DescribeHResult(HResult h);

}  // namespace zpdf
