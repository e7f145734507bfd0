#include "log/ini_file.h"

#include <fstream>
#include <string_view>

namespace zpdf {
namespace {

constexpr std::string_view kBlanks = " \t\n\r";
constexpr std::string_view kUtf8Bom = "\xEF\xBB\xBF";

std::string_view Trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    const std::size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

}  // namespace

bool CIniFileIndirect::Load(const std::string& path) {
    entries_.clear();
    path_ = path;
    // Opened for reading only, so other programs may keep the file open and write to it.
    std::ifstream in(path);
    if (!in) return false;
    Read(in);
    return true;
}

void CIniFileIndirect::Read(std::istream& in) {
    entries_.clear();
    std::string section;
    std::string raw;
    bool first_line = true;
    while (std::getline(in, raw)) {
        std::string_view line(raw);
        if (first_line && line.substr(0, kUtf8Bom.size()) == kUtf8Bom) {
            line.remove_prefix(kUtf8Bom.size());
        }
        first_line = false;
        line = Trim(line);
        if (line.empty()) continue;
        if (line.front() == '[') {
            section =
                line.size() > 2 ? std::string(line.substr(1, line.size() - 2)) : std::string();
            continue;
        }
        const std::size_t equals = line.find('=');
        IniEntry entry;
        entry.section = section;
        if (equals == std::string_view::npos) {
            entry.key = std::string(line);
            entry.value = entry.key;
        } else {
            entry.key = std::string(line.substr(0, equals));
            entry.value = std::string(line.substr(equals + 1));
        }
        entries_.push_back(std::move(entry));
    }
}

std::vector<IniEntry> CIniFileIndirect::GetSection(const std::string& section) const {
    std::vector<IniEntry> found;
    for (const IniEntry& entry : entries_) {
        if (entry.section == section && !entry.key.empty()) found.push_back(entry);
    }
    return found;
}

std::string CIniFileIndirect::GetValue(const std::string& key, const std::string& section) const {
    for (const IniEntry& entry : entries_) {
        if (entry.section == section && entry.key == key) return entry.value;
    }
    return {};
}

}  // namespace zpdf
