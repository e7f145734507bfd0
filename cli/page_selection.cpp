#include "cli/page_selection.h"

#include <cctype>
#include <optional>

namespace zpdf::cli {
namespace {

std::string_view Trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    return text;
}

// Digits only, at most nine of them (so that the number fits an int).
std::optional<long> Digits(std::string_view text) {
    if (text.empty() || text.size() > 9) return std::nullopt;
    long value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

std::string Quoted(const std::string& text) {
    std::string quoted(1, '\'');
    quoted += text;
    quoted += '\'';
    return quoted;
}

std::string Missing(const std::string& shown, int page_count) {
    if (page_count == kUnknownPageCount)
        return "page " + shown + " does not exist: pages count from 1";
    return "page " + shown + " does not exist (the document has " + std::to_string(page_count) +
           " pages)";
}

// One endpoint: the page it names, or an error text. With an unknown page count, z and rN
// stand for page 1.
bool Endpoint(std::string_view text, int page_count, int* page, std::string* error) {
    const std::string shown(text);
    const bool known = page_count != kUnknownPageCount;
    if (text == "z") {
        *page = known ? page_count : 1;
    } else if (!text.empty() && text.front() == 'r') {
        const auto back = Digits(text.substr(1));
        if (!back) {
            *error = Quoted(shown) + " is not a page: rN counts N pages from the end";
            return false;
        }
        *page = known ? static_cast<int>(page_count + 1 - *back) : 1;
        if (*back == 0 || *page < 1) {
            *error = Missing(shown, page_count);
            return false;
        }
    } else {
        const auto number = Digits(text);
        if (!number) {
            *error = Quoted(shown) + " is not a page: write a number, z or rN";
            return false;
        }
        *page = static_cast<int>(*number);
    }
    if (*page < 1 || (known && *page > page_count)) {
        *error = Missing(shown, page_count);
        return false;
    }
    return true;
}

}  // namespace

PageSelection ParsePageSelection(std::string_view text, int page_count) {
    PageSelection result;
    if (Trim(text).empty()) {
        result.error = "the page selection is empty";
        return result;
    }
    while (true) {
        const std::size_t comma = text.find(',');
        std::string_view item = Trim(text.substr(0, comma));
        if (item.empty()) {
            result.error = "an item of the page selection is empty";
            result.pages.clear();
            return result;
        }
        int parity = 0;  // 1: odd only, 2: even only
        if (const std::size_t colon = item.find(':'); colon != std::string_view::npos) {
            const std::string_view modifier = item.substr(colon + 1);
            if (modifier == "odd") {
                parity = 1;
            } else if (modifier == "even") {
                parity = 2;
            } else {
                result.error = Quoted(std::string(modifier)) + " is not :odd or :even";
                result.pages.clear();
                return result;
            }
            item = Trim(item.substr(0, colon));
        }
        // The dash of a range; "r" and "z" endpoints hold no dash of their own.
        const std::size_t dash = item.find('-');
        int first = 0;
        int last = 0;
        if (!Endpoint(Trim(item.substr(0, dash)), page_count, &first, &result.error) ||
            (dash != std::string_view::npos &&
             !Endpoint(Trim(item.substr(dash + 1)), page_count, &last, &result.error))) {
            result.pages.clear();
            return result;
        }
        if (dash == std::string_view::npos) last = first;
        if (page_count == kUnknownPageCount) {
            // Only the form is checked; the pages are not listed.
            if (comma == std::string_view::npos) break;
            text.remove_prefix(comma + 1);
            continue;
        }
        const int step = first <= last ? 1 : -1;
        int position = 0;
        for (int page = first;; page += step) {
            ++position;
            if (parity == 0 || (position % 2 == 1) == (parity == 1)) result.pages.push_back(page);
            if (page == last) break;
        }
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return result;
}

}  // namespace zpdf::cli
