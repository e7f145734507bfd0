#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "log/log_line.h"
#include "log/logger.h"

namespace zpdf {
namespace {

constexpr unsigned kDate = LogFieldBit(LogFieldDate);
constexpr unsigned kTime = LogFieldBit(LogFieldTime);
constexpr unsigned kLevel = LogFieldBit(LogFieldLevel);
constexpr unsigned kUser = LogFieldBit(LogFieldUser);
constexpr unsigned kCategory = LogFieldBit(LogFieldCategory);
constexpr unsigned kAll = kDate | kTime | kLevel | kUser | kCategory;

LogLinePrefix Prefix(unsigned fields, std::uint32_t tick = 123456, LogLevel level = LogError) {
    LogLinePrefix prefix;
    prefix.fields = fields;
    prefix.date = "07.03.2024";
    prefix.time = "14:05:09";
    prefix.tick = tick;
    prefix.level = level;
    prefix.user = "operator@PC17";
    prefix.category = "PDF";
    return prefix;
}

std::string Compose(const LogLinePrefix& prefix, const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
std::string Compose(const LogLinePrefix& prefix, const char* format, ...) {
    char buffer[kLogLineBufferSize];
    std::va_list args;
    va_start(args, format);
    const std::size_t length = ComposeLogLine(buffer, sizeof buffer, prefix, format, args);
    va_end(args);
    EXPECT_EQ(length, std::strlen(buffer));
    return std::string(buffer, length);
}

TEST(LogLine, FieldsAppearInFixedOrderWhenSwitchedOn) {
    struct Case {
        unsigned fields;
        std::uint32_t tick;
        const char* expected;
    };
    const Case cases[] = {
        {kAll, 123456, "07.03.2024;14:05:09.123456;ERR;operator@PC17;PDF;could not open file\n"},
        {kDate | kTime | kLevel | kCategory, 123456,
         "07.03.2024;14:05:09.123456;ERR;PDF;could not open file\n"},
        {0, 123456, "could not open file\n"},
        {kDate, 123456, "07.03.2024;could not open file\n"},
        {kTime, 42, "14:05:09.000042;could not open file\n"},
        {kTime, 0, "14:05:09.000000;could not open file\n"},
        {kTime, 1234567, "14:05:09.123456;could not open file\n"},
        {kTime, 4294967295u, "14:05:09.429496;could not open file\n"},
        {kLevel | kUser, 123456, "ERR;operator@PC17;could not open file\n"},
        {kUser | kCategory, 123456, "operator@PC17;PDF;could not open file\n"},
        {kDate | kCategory, 123456, "07.03.2024;PDF;could not open file\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Compose(Prefix(c.fields, c.tick), "could not open %s", "file"), c.expected)
            << "fields " << c.fields << " tick " << c.tick;
    }
}

TEST(LogLine, ExactlyOneTrailingNewline) {
    const LogLinePrefix bare = Prefix(0);
    EXPECT_EQ(Compose(bare, "done\n"), "done\n");
    EXPECT_EQ(Compose(bare, "done"), "done\n");
    EXPECT_EQ(Compose(bare, "%s", ""), "\n");
    EXPECT_EQ(Compose(bare, "two\n\n"), "two\n\n");
    EXPECT_EQ(Compose(bare, "cr\r"), "cr\r\n");
    EXPECT_EQ(Compose(Prefix(kLevel), "%d%%", 50), "ERR;50%\n");
}

TEST(LogLine, OverlongTextIsCutAndStillEndsInNewline) {
    const std::string long_text(6000, 'x');
    const std::string line = Compose(Prefix(kAll), "%s", long_text.c_str());
    ASSERT_EQ(line.size(), kLogLineBufferSize - 1);
    EXPECT_EQ(line.rfind("07.03.2024;14:05:09.123456;ERR;operator@PC17;PDF;xxx", 0), 0u);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(line[line.size() - 2], 'x');

    // A prefix field that alone fills the buffer is bounded as well.
    LogLinePrefix huge_user = Prefix(kUser | kCategory);
    huge_user.user = long_text;
    const std::string cut = Compose(huge_user, "message");
    ASSERT_EQ(cut.size(), kLogLineBufferSize - 1);
    EXPECT_EQ(cut.find_first_not_of('x'), cut.size() - 1);
}

}  // namespace
}  // namespace zpdf
