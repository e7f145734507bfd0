// Feeds arbitrary bytes to the INI reader and to the parts of the log configuration that
// interpret its values (level words, environment references), checking what the reader promises.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "log/ini_file.h"
#include "log/log_level.h"
#include "platform/env.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using zpdf::fuzz::Check;

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::istringstream in(text);
    zpdf::CIniFileIndirect ini;
    ini.Read(in);

    for (const zpdf::IniEntry& entry : ini.Entries()) {
        // Entries come from trimmed lines: no line breaks inside, no blanks at the line ends.
        Check(entry.key.find('\n') == std::string::npos);
        Check(entry.value.find('\n') == std::string::npos);
        Check(entry.key.find('=') == std::string::npos);
        if (!entry.key.empty()) Check(!IsBlank(entry.key.front()));
        if (!entry.value.empty()) Check(!IsBlank(entry.value.back()));
    }

    for (const std::string section : {"categories", "output", ""}) {
        for (const zpdf::IniEntry& entry : ini.GetSection(section)) {
            Check(entry.section == section && !entry.key.empty());
            const std::size_t comma = entry.value.find(',');
            if (comma == std::string::npos) continue;
            const zpdf::LogLevel level =
                zpdf::LogLevelFromConfigWord(std::string_view(entry.value).substr(0, comma));
            Check(level >= zpdf::LogNone && level <= zpdf::LogTrace);
            zpdf::ExpandEnvironmentReferences(entry.value.substr(comma + 1));
        }
    }
    for (const char* key : {"date", "time", "level", "user", "category"})
        ini.GetValue(key, "output");
    return 0;
}
