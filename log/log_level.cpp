#include "log/log_level.h"

#include <cstddef>

namespace zpdf {
namespace {

constexpr int kLevelCount = 7;

// Both tables are indexed by the level value.
constexpr const char* kLineWords[kLevelCount] = {"NIL", "FTL", "ERR", "WRN", "INF", "DBG", "TRC"};
constexpr std::string_view kConfigWords[kLevelCount] = {"none", "fatal", "error", "warn",
                                                        "info", "debug", "trace"};

char AsciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualsIgnoringAsciiCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
    }
    return true;
}

}  // namespace

const char* LogLevelLineWord(LogLevel level) {
    if (level < LogNone) return kLineWords[LogNone];
    if (level > LogTrace) return kLineWords[LogTrace];
    return kLineWords[level];
}

LogLevel LogLevelFromConfigWord(std::string_view word) {
    for (int i = 0; i < kLevelCount; ++i) {
        if (EqualsIgnoringAsciiCase(word, kConfigWords[i])) return static_cast<LogLevel>(i);
    }
    return LogNone;
}

}  // namespace zpdf
