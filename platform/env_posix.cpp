#include <cstdlib>
#include <string>

#include "platform/env.h"

namespace zpdf {

std::optional<std::string> GetEnvironmentText(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

bool SetEnvironmentText(const char* name, const char* value) {
    if (value == nullptr) return ::unsetenv(name) == 0;
    return ::setenv(name, value, 1) == 0;
}

std::string ExpandEnvironmentReferences(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] == '%') {
            const std::size_t close = text.find('%', i + 1);
            if (close != std::string_view::npos && close > i + 1) {
                const std::string name(text.substr(i + 1, close - i - 1));
                // A name with "=" or NUL cannot be a variable; getenv must not see it.
                if (name.find_first_of(std::string_view("=\0", 2)) == std::string::npos) {
                    if (const char* value = std::getenv(name.c_str())) {
                        out += value;
                        i = close + 1;
                        continue;
                    }
                }
            }
        }
        out += text[i];
        ++i;
    }
    return out;
}

}  // namespace zpdf
