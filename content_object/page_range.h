// Page-range texts such as "3-5" or "1,4,6-9": 1-based page numbers, ranges "a-b" with a <= b,
// items separated by commas, blanks ignored.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zpdf {

// The 0-based page indexes `text` names in a document of `page_count` pages, in the order
// given; nothing when the text is malformed or names a page outside the document.
std::optional<std::vector<int>> ParsePageRange(std::string_view text, int page_count);

// The text of the range from `first` to `last` ("3-5"; negative numbers keep their sign).
std::string PageRangeText(long first, long last);

}  // namespace zpdf
