#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log_manager.h"
#include "log_test_support.h"
#include "platform/host_info.h"

namespace zpdf {
namespace {

TEST(Logger, MessagePassesWhenItsLevelIsAtMostTheCategoryLevel) {
    LogManager manager;
    for (int field : {LogFieldDate, LogFieldTime, LogFieldCategory}) {
        manager.SetFieldEnabled(field, false);
    }
    Logger& logger = manager.GetLogger("gate");
    test::RecordingOutput sink;
    logger.SetOutput(&sink);
    for (int category = LogNone; category <= LogTrace; ++category) {
        logger.SetLevel(static_cast<LogLevel>(category));
        sink.lines.clear();
        logger.Fatal("F");
        logger.Error("E");
        logger.Warn("W");
        logger.Info("I");
        logger.Debug("D");
        logger.Trace("T");
        const std::vector<std::string> all = {"FTL;F\n", "ERR;E\n", "WRN;W\n",
                                              "INF;I\n", "DBG;D\n", "TRC;T\n"};
        const std::vector<std::string> expected(all.begin(), all.begin() + category);
        EXPECT_EQ(sink.lines, expected) << "category level " << category;
    }
}

TEST(Logger, SuppressedMessageDoesNotEvaluateItsArguments) {
    LogManager manager;
    for (int field = 0; field < kLogFieldCount; ++field) manager.SetFieldEnabled(field, false);
    Logger& logger = manager.Configure("PDF", LogError, "Null");
    test::RecordingOutput sink;
    logger.SetOutput(&sink);
    int evaluated = 0;
    auto expensive = [&evaluated] { return ++evaluated; };

    ZPDF_LOG_DEBUG(logger, "value %d", expensive());
    ZPDF_LOG(logger, LogInfo, "value %d", expensive());
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(sink.lines.empty());

    ZPDF_LOG_ERROR(logger, "value %d", expensive());
    logger.SetLevel(LogDebug);
    ZPDF_LOG_DEBUG(logger, "value %d", expensive());
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(sink.lines, (std::vector<std::string>{"value 1\n", "value 2\n"}));
}

TEST(Logger, LineCarriesClockUserAndCategory) {
    const auto dir = test::TestDirectory();
    LogManager manager;
    manager.SetFieldEnabled(LogFieldUser, true);
    const std::string path = (dir / "full.log").string();
    manager.Configure("PDF.Save", LogWarn, path).Warn("disk %s", "full");

    const std::string user = UserAtComputer();
    ASSERT_NE(user.find('@'), std::string::npos);
    const std::string text = test::ReadFile(path);
    const std::size_t clock = test::kClockShape.size();
    ASSERT_GT(text.size(), clock) << text;
    EXPECT_TRUE(test::MatchesShape(std::string_view(text).substr(0, clock), test::kClockShape))
        << text;
    EXPECT_EQ(text.substr(clock), "WRN;" + user + ";PDF.Save;disk full\n");
}

TEST(Logger, ConcurrentLinesStayWhole) {
    const auto dir = test::TestDirectory();
    LogManager manager;
    const std::string path = (dir / "threads.log").string();
    Logger& logger = manager.Configure("T", LogInfo, path);
    constexpr int kLines = 2000;
    const std::string body_a(300, 'a');
    const std::string body_b(300, 'b');
    auto writer = [&logger](const std::string& body) {
        for (int i = 0; i < kLines; ++i) logger.Info("%s;%04d", body.c_str(), i);
    };
    std::thread first(writer, body_a);
    std::thread second(writer, body_b);
    first.join();
    second.join();

    std::istringstream lines(test::ReadFile(path));
    const std::size_t clock = test::kClockShape.size();
    int next[2] = {0, 0};
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        // clock, "INF;T;", 300 times the thread's letter, ";", four digits
        ASSERT_EQ(line.size(), clock + 6 + 300 + 5) << "line " << count << ": " << line;
        const std::string_view view(line);
        ASSERT_TRUE(test::MatchesShape(view.substr(0, clock), test::kClockShape)) << line;
        ASSERT_EQ(view.substr(clock, 6), "INF;T;") << line;
        const std::string_view body = view.substr(clock + 6, 300);
        ASSERT_TRUE(body == body_a || body == body_b) << line;
        ASSERT_TRUE(test::MatchesShape(view.substr(clock + 306), ";####")) << line;
        // Each thread's lines arrive in its own order.
        int& expected = next[body == body_a ? 0 : 1];
        EXPECT_EQ(std::stoi(line.substr(clock + 307)), expected);
        ++expected;
        ++count;
    }
    EXPECT_EQ(count, 2 * kLines);
}

TEST(Logger, UnopenableFileDropsLines) {
    const auto dir = test::TestDirectory();
    LogManager manager;
    const std::string path = (dir / "no-such-dir" / "a.log").string();
    Logger& logger = manager.Configure("X", LogTrace, path);
    const auto* sink = dynamic_cast<const LogOutputFile*>(logger.GetOutput());
    ASSERT_NE(sink, nullptr);
    EXPECT_FALSE(sink->IsOpen());
    logger.Error("lost");
    EXPECT_FALSE(std::filesystem::exists(path));
}

#ifndef _WIN32
TEST(Logger, DebugViewWritesToStandardErrorOutsideWindows) {
    LogManager manager;
    manager.SetFieldEnabled(LogFieldDate, false);
    manager.SetFieldEnabled(LogFieldTime, false);
    Logger& logger = manager.Configure("Render", LogInfo, "DebugView");
    ::testing::internal::CaptureStderr();
    logger.Info("page %d drawn", 3);
    logger.Debug("dropped");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "INF;Render;page 3 drawn\n");
}
#endif

}  // namespace
}  // namespace zpdf
