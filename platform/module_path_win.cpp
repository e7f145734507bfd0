#include <windows.h>

#include <vector>

#include "platform/module_path.h"
#include "platform/text.h"

namespace zpdf {
namespace {

// Any address inside this module names it; a data object avoids casting code pointers.
const char kModuleAnchor = 0;

}  // namespace

std::filesystem::path ModuleFilePath() {
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCWSTR>(&kModuleAnchor), &module)) {
        return {};
    }
    // Grow the buffer until the name fits; long-path installations exceed MAX_PATH.
    std::vector<wchar_t> buffer(MAX_PATH);
    while (buffer.size() <= 32768) {
        const DWORD length =
            GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) return {};
        if (length < buffer.size())
            return std::filesystem::path(std::wstring(buffer.data(), length));
        buffer.resize(buffer.size() * 2);
    }
    return {};
}

std::string NarrowPath(const std::filesystem::path& path) {
    return ToAnsi(path.u16string());
}

}  // namespace zpdf
