#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "log/ini_file.h"
#include "log_test_support.h"

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
        {"empty value", "k=", {{"", "k", ""}}},
        {"no comment syntax", "#x=1\n;y", {{"", "#x", "1"}, {"", ";y", ";y"}}},
        {"blank lines skipped", "\n  \n\t\r\nk=v\n\n", {{"", "k", "v"}}},
        {"sections",
         "a=1\n[s1]\nb=2\nc=3\n[s2]\nd=4",
         {{"", "a", "1"}, {"s1", "b", "2"}, {"s1", "c", "3"}, {"s2", "d", "4"}}},
        {"header trimmed", "  [s]  \r\nk=v", {{"s", "k", "v"}}},
        {"header keeps inner blanks", "[ a b ]\nk=v", {{" a b ", "k", "v"}}},
        {"header loses its last character", "[abc\nk=v", {{"ab", "k", "v"}}},
        {"header with text after ]", "[abc]x\nk=v", {{"abc]", "k", "v"}}},
        {"empty headers", "[]\na=1\n[\nb=2", {{"", "a", "1"}, {"", "b", "2"}}},
        {"inner CR and NUL kept",
         std::string("a=b\rc\nn=x\0y", 11),
         {{"", "a", "b\rc"}, {"", "n", std::string("x\0y", 3)}}},
        {"UTF-8 mark skipped", "\xEF\xBB\xBF[categories]\nk=v", {{"categories", "k", "v"}}},
        {"mark only at the start",
         "k=v\n\xEF\xBB\xBF[s]",
         {{"", "k", "v"}, {"", "\xEF\xBB\xBF[s]", "\xEF\xBB\xBF[s]"}}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ReadText(c.text), c.expected) << c.name;
    }
}

TEST(IniFile, SectionAndValueLookups) {
    std::istringstream in("[s]\nk=first\n=no key\nk=second\nother=1\n[S]\nk=upper\n[t]\nk=t\n");
    CIniFileIndirect ini;
    ini.Read(in);

    const std::vector<IniEntry> expected = {
        {"s", "k", "first"}, {"s", "k", "second"}, {"s", "other", "1"}};
    EXPECT_EQ(ini.GetSection("s"), expected);
    EXPECT_TRUE(ini.GetSection("missing").empty());
    EXPECT_EQ(ini.GetValue("k", "s"), "first");
    EXPECT_EQ(ini.GetValue("k", "S"), "upper");
    EXPECT_EQ(ini.GetValue("K", "s"), "");
    EXPECT_EQ(ini.GetValue("other", "t"), "");
}

TEST(IniFile, LoadReplacesEntriesAndReportsUnreadableFiles) {
    const auto dir = test::TestDirectory();
    test::WriteFile(dir / "one.ini", "[a]\nx=1\n");
    test::WriteFile(dir / "two.ini", "[b]\ny=2\n");

    CIniFileIndirect ini;
    ASSERT_TRUE(ini.Load((dir / "one.ini").string()));
    ASSERT_TRUE(ini.Load((dir / "two.ini").string()));
    EXPECT_EQ(ini.Path(), (dir / "two.ini").string());
    EXPECT_EQ(ini.Entries(), (std::vector<IniEntry>{{"b", "y", "2"}}));

    EXPECT_FALSE(ini.Load((dir / "absent.ini").string()));
    EXPECT_TRUE(ini.Entries().empty());
}

}  // namespace
}  // namespace zpdf
