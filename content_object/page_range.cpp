#include "content_object/page_range.h"

namespace zpdf {
namespace {

// A page number of 1 to `page_count`, digits only.
std::optional<int> ParsePage(std::string_view text, int page_count) {
    if (text.empty() || text.size() > 10) return std::nullopt;
    long long value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    if (value < 1 || value > page_count) return std::nullopt;
    return static_cast<int>(value);
}

}  // namespace

std::optional<std::vector<int>> ParsePageRange(std::string_view text, int page_count) {
    std::string compact;
    for (const char c : text) {
        if (c != ' ') compact += c;
    }
    if (compact.empty()) return std::nullopt;
    std::vector<int> pages;
    std::string_view rest = compact;
    while (true) {
        const std::size_t comma = rest.find(',');
        const std::string_view item = rest.substr(0, comma);
        const std::size_t dash = item.find('-');
        const auto first = ParsePage(item.substr(0, dash), page_count);
        const auto last =
            dash == std::string_view::npos ? first : ParsePage(item.substr(dash + 1), page_count);
        if (!first || !last || *first > *last) return std::nullopt;
        for (int page = *first; page <= *last; ++page) pages.push_back(page - 1);
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return pages;
}

std::string PageRangeText(long first, long last) {
    return std::to_string(first) + "-" + std::to_string(last);
}

}  // namespace zpdf
