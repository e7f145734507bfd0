#include "platform/text.h"

#include <windows.h>

namespace zpdf {

std::string ToAnsi(std::u16string_view text) {
    if (text.empty()) return {};
    const auto* wide = reinterpret_cast<const wchar_t*>(text.data());
    const int length = static_cast<int>(text.size());
    const int bytes =
        WideCharToMultiByte(CP_THREAD_ACP, 0, wide, length, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(bytes > 0 ? bytes : 0), '\0');
    if (bytes > 0) {
        WideCharToMultiByte(CP_THREAD_ACP, 0, wide, length, out.data(), bytes, nullptr, nullptr);
    }
    return out;
}

std::u16string FromAnsi(std::string_view text) {
    if (text.empty()) return {};
    const int length = static_cast<int>(text.size());
    const int chars = MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), length, nullptr, 0);
    std::u16string out(static_cast<std::size_t>(chars > 0 ? chars : 0), u'\0');
    if (chars > 0) {
        MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), length,
                            reinterpret_cast<wchar_t*>(out.data()), chars);
    }
    return out;
}

std::filesystem::path ToPath(std::u16string_view text) {
    return std::filesystem::path(std::u16string(text));
}

std::u16string FromPath(const std::filesystem::path& path) {
    return path.u16string();
}

}  // namespace zpdf
