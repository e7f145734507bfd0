#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "log/ini_file.h"

namespace zpdf {
namespace {

std::vector<IniEntry> ReadText(const std::string& text) {
    std::istringstream in(text);
    CIniFileIndirect ini;
    ini.Read(in);
    return ini.Entries();
}

TEST(IniFile, ReadsLinesAsTheyStand) {
    struct Case {
        const char* name;
        std::string text;
        std::vector<IniEntry> expected;
    };
    const std::vector<Case> cases = {
        {"key and value", "a=b", {{"", "a", "b"}}},
        {"ends trimmed, blanks at = kept", " \t a = b \r\n", {{"", "a ", " b"}}},
        {"no = gives the line twice", "lonely", {{"", "lonely", "lonely"}}},
        {"first = splits", "a=b=c", {{"", "a", "b=c"}}},
        {"empty key", "=v", {{"", "", "v"}}},
        {"no comment syntax", "#x=1\n;y", {{"", "#x", "1"}, {"", ";y", ";y"}}},
        {"blank lines skipped", "\n  \n\t\r\nk=v\n\n", {{"", "k", "v"}}},
        {"sections",
         "a=1\n[s1]\nb=2\nc=3\n[s2]\nd=4",
         {{"", "a", "1"}, {"s1", "b", "2"}, {"s1", "c", "3"}, {"s2", "d", "4"}}},
        {"header trimmed", "  [s]  \r\nk=v", {{"s", "k", "v"}}},
        {"header loses its last character", "[abc\nk=v", {{"ab", "k", "v"}}},
        {"header with text after ]", "[abc]x\nk=v", {{"abc]", "k", "v"}}},
        {"empty headers", "[]\na=1\n[\nb=2", {{"", "a", "1"}, {"", "b", "2"}}},
        {"inner CR and NUL kept",
         std::string("a=b\rc\nn=x\0y", 11),
         {{"", "a", "b\rc"}, {"", "n", std::string("x\0y", 3)}}},
        {"UTF-8 mark skipped", "\xEF\xBB\xBF[categories]\nk=v", {{"categories", "k", "v"}}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ReadText(c.text), c.expected) << c.name;
    }
}

}  // namespace
}  // namespace zpdf
