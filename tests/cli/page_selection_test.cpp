// Page selections: what each form names in a document of a given length, and what is refused.
#include "cli/page_selection.h"

#include <gtest/gtest.h>

#include <tuple>

namespace zpdf::cli {
namespace {

TEST(PageSelection, NamesPagesInTheOrderWritten) {
    const std::tuple<const char*, int, std::vector<int>> cases[] = {
        {"1-3,5,z,r1", 6, {1, 2, 3, 5, 6, 6}},
        {"z-1", 3, {3, 2, 1}},
        {"r2-z", 4, {3, 4}},
        {"r3", 3, {1}},
        {" 2 , 1 ", 2, {2, 1}},
        {"1-z:even", 5, {2, 4}},
        {"z-1:odd", 4, {4, 2}},  // odd positions within the item, not odd page numbers
        {"2,2", 2, {2, 2}},
        {"000000007", 7, {7}},
    };
    for (const auto& [text, count, pages] : cases) {
        const PageSelection selection = ParsePageSelection(text, count);
        EXPECT_EQ(selection.error, "") << text;
        EXPECT_EQ(selection.pages, pages) << text;
    }
}

TEST(PageSelection, RefusesWhatNamesNoPage) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"", 3, "empty"},
        {"1,,2", 3, "empty"},
        {"0", 3, "page 0 does not exist (the document has 3 pages)"},
        {"r4", 3, "page r4 does not exist"},
        {"r0", 3, "page r0 does not exist"},
        {"1-4", 3, "page 4 does not exist"},
        {"rx", 3, "'rx' is not a page: rN"},
        {"-2", 3, "'' is not a page"},
        {"1-2-3", 3, "'2-3' is not a page"},
        {"1:odds", 3, "'odds' is not :odd or :even"},
        {"9999999999", 3, "is not a page"},
        {"0", kUnknownPageCount, "page 0 does not exist: pages count from 1"},
    };
    for (const auto& [text, count, error] : cases) {
        const PageSelection selection = ParsePageSelection(text, count);
        EXPECT_NE(selection.error.find(error), std::string::npos)
            << text << ": " << selection.error;
        EXPECT_TRUE(selection.pages.empty()) << text;
    }
    // Without a page count only the form is checked: any page from 1 on, z and rN.
    for (const char* text : {"1-99999,z,r7-3:even", "123456789"})
        EXPECT_EQ(ParsePageSelection(text, kUnknownPageCount).error, "") << text;
}

}  // namespace
}  // namespace zpdf::cli
