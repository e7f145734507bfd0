// Page selections as zpdf's users write them: "1-3,5,z,r1", items separated by commas.
//   N      page N (from 1)
//   z      the last page
//   rN     the Nth page from the end (r1 is the last)
//   A-B    pages A to B, each written as above; backwards when A comes after B ("5-1", "z-1")
//   ...:odd, ...:even   only the odd or even pages of that item, counted within the item
// Pages may repeat and come in any order.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zpdf::cli {

struct PageSelection {
    std::vector<int> pages;  // 1-based, in the order named
    std::string error;       // empty when the text parsed and every page exists
};

// With kUnknownPageCount, only the form is checked (every N from 1 on is a page): a selection is
// checked before the document it applies to is opened.
inline constexpr int kUnknownPageCount = -1;
PageSelection ParsePageSelection(std::string_view text, int page_count);

}  // namespace zpdf::cli
