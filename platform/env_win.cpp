#include <windows.h>

#include <vector>

#include "platform/env.h"

namespace zpdf {

std::optional<std::string> GetEnvironmentText(const char* name) {
    std::vector<char> buffer(256);
    for (;;) {
        SetLastError(ERROR_SUCCESS);
        const DWORD length =
            GetEnvironmentVariableA(name, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0) {
            if (GetLastError() == ERROR_ENVVAR_NOT_FOUND) return std::nullopt;
            return std::string();
        }
        if (length < buffer.size()) return std::string(buffer.data(), length);
        buffer.resize(length);  // the answer is the size needed, with its NUL
    }
}

bool SetEnvironmentText(const char* name, const char* value) {
    return SetEnvironmentVariableA(name, value) != FALSE;
}

std::string ExpandEnvironmentReferences(std::string_view text) {
    const std::string source(text);
    std::vector<char> buffer(source.size() + 256);
    for (;;) {
        const DWORD needed = ExpandEnvironmentStringsA(source.c_str(), buffer.data(),
                                                       static_cast<DWORD>(buffer.size()));
        if (needed == 0) return source;
        if (needed <= buffer.size()) return std::string(buffer.data());
        buffer.resize(needed);
    }
}

}  // namespace zpdf
