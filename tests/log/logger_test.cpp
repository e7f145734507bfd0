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
    const std::vector<std::string> all = {"FTL;m\n", "ERR;m\n", "WRN;m\n",
                                          "INF;m\n", "DBG;m\n", "TRC;m\n"};
    for (int category = LogNone; category <= LogTrace; ++category) {
        logger.SetLevel(static_cast<LogLevel>(category));
        sink.lines.clear();
        for (auto function : {&Logger::Fatal, &Logger::Error, &Logger::Warn, &Logger::Info,
                              &Logger::Debug, &Logger::Trace}) {
            (logger.*function)("m");
        }
        EXPECT_EQ(sink.lines, std::vector<std::string>(all.begin(), all.begin() + category))
            << "category level " << category;
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

TEST(Logger, ConcurrentLinesStayWhole) {
    const auto dir = test::TestDirectory();
    LogManager manager;
    manager.SetFieldEnabled(LogFieldUser, true);
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

    // Every line: clock fields, "INF;user@host;T;", one thread's letters, ";", its line number.
    std::istringstream lines(test::ReadFile(path));
    const std::string fields = "INF;" + UserAtComputer() + ";T;";
    const std::size_t body_at = test::kClockShape.size() + fields.size();
    int next[2] = {0, 0};
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        const std::string_view view(line);
        ASSERT_EQ(view.size(), body_at + 300 + 5) << line;
        ASSERT_TRUE(test::MatchesShape(view.substr(0, body_at - fields.size()), test::kClockShape))
            << line;
        ASSERT_EQ(view.substr(body_at - fields.size(), fields.size()), fields);
        const std::string_view body = view.substr(body_at, 300);
        ASSERT_TRUE(body == body_a || body == body_b) << line;
        ASSERT_TRUE(test::MatchesShape(view.substr(body_at + 300), ";####")) << line;
        int& expected = next[body == body_a ? 0 : 1];  // each thread's lines keep their order
        EXPECT_EQ(std::stoi(line.substr(body_at + 301)), expected++);
        ++count;
    }
    EXPECT_EQ(count, 2 * kLines);
}

TEST(Logger, UnopenableFileDropsLines) {
    LogManager manager;
    const auto path = test::TestDirectory() / "no-such-dir" / "a.log";
    Logger& logger = manager.Configure("X", LogTrace, path.string());
    EXPECT_FALSE(dynamic_cast<const LogOutputFile&>(*logger.GetOutput()).IsOpen());
    logger.Error("lost");
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
