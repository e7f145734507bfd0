// The log framework: the INI reader, the configuration of categories and sinks, the line
// format, the level gate, and the platform seams it stands on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <sstream>
#include <tuple>

#include "log/ini_file.h"
#include "log/log_line.h"
#include "log/log_manager.h"
#include "platform/env.h"
#include "platform/host_info.h"
#include "platform/module_path.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

constexpr unsigned kDate = LogFieldBit(LogFieldDate);
constexpr unsigned kTime = LogFieldBit(LogFieldTime);
constexpr unsigned kLevel = LogFieldBit(LogFieldLevel);
constexpr unsigned kUser = LogFieldBit(LogFieldUser);
constexpr unsigned kCategory = LogFieldBit(LogFieldCategory);
constexpr unsigned kAll = kDate | kTime | kLevel | kUser | kCategory;

// A sink that keeps the lines it receives.
class RecordingOutput : public LogOutput {
  public:
    void Write(const char* line) override { lines.emplace_back(line); }
    std::vector<std::string> lines;
};

TEST(IniFile, ReadsLinesAsTheyStand) {
    const std::pair<std::string, std::vector<IniEntry>> cases[] = {
        {" \t a = b \r\n", {{"", "a ", " b"}}},  // ends trimmed, blanks at = kept
        {"lonely", {{"", "lonely", "lonely"}}},
        {"a=b=c", {{"", "a", "b=c"}}},
        {"\n  \n\t\r\nk=v\n\n", {{"", "k", "v"}}},
        {"a=1\n[s1]\nb=2\nc=3\n[s2]\nd=4",
         {{"", "a", "1"}, {"s1", "b", "2"}, {"s1", "c", "3"}, {"s2", "d", "4"}}},
        {"[abc]x\nk=v", {{"abc]", "k", "v"}}},  // a header loses its last character
        {"\xEF\xBB\xBF[categories]\nk=v", {{"categories", "k", "v"}}},  // UTF-8 mark skipped
    };
    for (const auto& [text, expected] : cases) {
        std::istringstream in(text);
        CIniFileIndirect ini;
        ini.Read(in);
        EXPECT_EQ(ini.Entries(), expected) << text;
    }
}

// Runs each test in its own directory, so that file sinks named by relative paths land there.
class LogConfig : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::current_path(dir_); }
    void TearDown() override { std::filesystem::current_path(previous_); }
    bool Load(LogManager& manager, const std::string& text) {
        test::WriteBytes(dir_ / "log.ini", text);
        return manager.LoadConfig((dir_ / "log.ini").string());
    }
    const std::filesystem::path previous_ = std::filesystem::current_path();
    const std::filesystem::path dir_ = test::ScratchDir();
};

TEST_F(LogConfig, CategoriesAndSwitches) {
    ASSERT_TRUE(SetEnvironmentText("ZPDF_TEST_LOG_DIR", dir_.string().c_str()));
    ASSERT_TRUE(SetEnvironmentText("ZPDF_TEST_LONG", std::string(300, 'x').c_str()));
    LogManager manager;
    ASSERT_TRUE(Load(manager,
                     "[categories]\nA=ERROR,Null\nB=Trace,console\nPDF = error,Console\n"
                     "Env=info,%ZPDF_TEST_LOG_DIR%/sub.log\nLong=info,%ZPDF_TEST_LONG%\n"
                     "Twice=error,Null\nTwice=debug,Console\nNoComma=error\n#Hash=trace,Null\n"
                     "=debug,Null\n[output]\ndate=1\nlevel= 1\nuser=1\ndate=0\n"));
    const std::tuple<std::string, LogLevel, std::string> configured[] = {
        // "console" is a file in the current directory; the blanks of "PDF " belong to the
        // name and to the level word.
        {"A", LogError, "Null"},
        {"B", LogTrace, "console"},
        {"PDF ", LogNone, "Console"},
        {"Twice", LogDebug, "Console"}};
    for (const auto& [name, level, output] : configured) {
        const Logger* logger = manager.FindLogger(name);
        ASSERT_NE(logger, nullptr) << name;
        EXPECT_EQ(logger->GetLevel(), level) << name;
        EXPECT_EQ(logger->GetOutput(), manager.FindOutput(output)) << name;
    }
    for (const char* name : {"PDF", "NoComma", "#Hash", ""})
        EXPECT_EQ(manager.FindLogger(name), nullptr) << name;
    EXPECT_EQ(manager.GetFields(), kDate | kUser);
    // Environment references in outputs are expanded; an expansion too long for a path gives a
    // sink that drops the lines.
    manager.GetLogger("Env").Info("expanded");
    EXPECT_TRUE(test::ReadBytes(dir_ / "sub.log").ends_with(";expanded\n"));
    EXPECT_EQ(manager.GetLogger("Long").GetOutput(), manager.FindOutput("Null"));
}

// A missing file changes nothing and opens no sink; a category nobody configured drops its lines.
TEST_F(LogConfig, MissingFileKeepsDefaults) {
    LogManager manager;
    EXPECT_FALSE(manager.LoadConfig((dir_ / "absent.ini").string()));
    EXPECT_EQ(manager.GetFields(), kLogFieldsDefault);
    EXPECT_EQ(manager.OutputCount(), 0u);
    const Logger& pdf = manager.GetLogger("PDF");
    EXPECT_EQ(pdf.GetOutput(), manager.FindOutput("Null"));
}

TEST_F(LogConfig, FileSinksAreSharedByExactPathAndAppendAcrossRuns) {
    test::WriteBytes(dir_ / "shared.log", "earlier run\n");
    LogManager manager;
    ASSERT_TRUE(Load(manager,
                     "[categories]\nPDF=error,shared.log\nPDF.Save=info,shared.log\n"
                     "Other=error,Shared.log\n"));
    manager.GetLogger("PDF").Error("pdf");
    manager.GetLogger("PDF.Save").Info("save");
    manager.GetLogger("Other").Error("other");
    EXPECT_EQ(test::ReadBytes(dir_ / "shared.log"), "earlier run\npdf\nsave\n");
    EXPECT_EQ(test::ReadBytes(dir_ / "Shared.log"), "other\n");
}

TEST_F(LogConfig, ChildrenCopyTheirParentOnceAtCreation) {
    LogManager manager;
    ASSERT_TRUE(Load(manager, "[categories]\nPDF=error,Console\n"));
    Logger& save = manager.GetLogger("PDF.Save");
    manager.Configure("PDF", LogDebug, "Null");
    EXPECT_EQ(save.GetLevel(), LogError);
    EXPECT_EQ(save.GetOutput(), manager.FindOutput("Console"));
    EXPECT_EQ(manager.GetLogger("PDF.Save.Deep").GetLevel(), LogError);
    // Missing ancestors are created on the way.
    EXPECT_EQ(manager.GetLogger("A.B.C").GetLevel(), LogNone);
    EXPECT_NE(manager.FindLogger("A.B"), nullptr);
}

LogLinePrefix Prefix(unsigned fields, std::uint32_t tick = 123456) {
    return {fields, "07.03.2024", "14:05:09", tick, LogError, "operator@PC17", "PDF"};
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

// The fields in fixed order when switched on, and exactly one trailing newline.
TEST(LogLine, FieldsAndNewline) {
    const std::tuple<unsigned, std::uint32_t, const char*, const char*> cases[] = {
        {kAll, 123456, "no file", "07.03.2024;14:05:09.123456;ERR;operator@PC17;PDF;no file\n"},
        {0, 123456, "done\n", "done\n"},
        {0, 123456, "", "\n"},
        {kTime, 42, "x", "14:05:09.000042;x\n"},
        {kTime, 4294967295u, "x", "14:05:09.429496;x\n"},
    };
    for (const auto& [fields, tick, text, expected] : cases)
        EXPECT_EQ(Compose(Prefix(fields, tick), "%s", text), expected) << fields << text;
}

TEST(LogLine, OverlongTextIsCutAndStillEndsInNewline) {
    const std::string x(6000, 'x');
    const std::string line = Compose(Prefix(kAll), "%s", x.c_str());
    ASSERT_EQ(line.size(), kLogLineBufferSize - 1);
    EXPECT_EQ(line, "07.03.2024;14:05:09.123456;ERR;operator@PC17;PDF;" +
                        x.substr(0, line.size() - 50) + "\n");
    // A prefix field that alone fills the buffer is bounded as well.
    LogLinePrefix huge_user = Prefix(kUser | kCategory);
    huge_user.user = x;
    EXPECT_EQ(Compose(huge_user, "message"), std::string(kLogLineBufferSize - 2, 'x') + "\n");
}

// A message passes when its level is at most the category's; a suppressed one does not even
// evaluate its arguments.
TEST(Logger, LevelGate) {
    LogManager manager;
    for (int field : {LogFieldDate, LogFieldTime, LogFieldCategory})
        manager.SetFieldEnabled(field, false);
    Logger& logger = manager.GetLogger("gate");
    RecordingOutput sink;
    logger.SetOutput(&sink);
    const std::vector<std::string> all = {"FTL;m\n", "ERR;m\n", "WRN;m\n",
                                          "INF;m\n", "DBG;m\n", "TRC;m\n"};
    for (int category = LogNone; category <= LogTrace; ++category) {
        logger.SetLevel(static_cast<LogLevel>(category));
        sink.lines.clear();
        for (auto function : {&Logger::Fatal, &Logger::Error, &Logger::Warn, &Logger::Info,
                              &Logger::Debug, &Logger::Trace})
            (logger.*function)("m");
        EXPECT_EQ(sink.lines, std::vector(all.begin(), all.begin() + category)) << category;
    }
    logger.SetLevel(LogError);
    sink.lines.clear();
    int evaluated = 0;
    auto expensive = [&evaluated] { return ++evaluated; };
    ZPDF_LOG_DEBUG(logger, "value %d", expensive());
    ZPDF_LOG_ERROR(logger, "value %d", expensive());
    EXPECT_EQ(sink.lines, std::vector<std::string>{"ERR;value 1\n"})
        << "1: debug was not evaluated";
}

// The sinks: a file gets every prefix field (the local date and time, the tick, the user), a
// file that cannot be opened drops its lines, Console is standard output and DebugView is
// standard error.
TEST(Logger, Sinks) {
    const auto dir = test::ScratchDir();
    LogManager manager;
    manager.SetFieldEnabled(LogFieldUser, true);
    manager.Configure("T", LogInfo, (dir / "t.log").string()).Info("message");
    const std::string line = test::ReadBytes(dir / "t.log");
    ASSERT_EQ(line.substr(27), "INF;" + UserAtComputer() + ";T;message\n");
    std::string shape = line.substr(0, 27);  // every digit as 0
    std::replace_if(
        shape.begin(), shape.end(), [](unsigned char c) { return std::isdigit(c); }, '0');
    EXPECT_EQ(shape, "00.00.0000;00:00:00.000000;") << line;
    const std::time_t now = std::time(nullptr);
    char today[16];
    std::strftime(today, sizeof today, "%d.%m.%Y", std::localtime(&now));
    EXPECT_EQ(line.substr(0, 10), today);  // could differ only if midnight passed in between

    Logger& lost = manager.Configure("X", LogTrace, (dir / "none" / "a.log").string());
    EXPECT_FALSE(dynamic_cast<const LogOutputFile&>(*lost.GetOutput()).IsOpen());
    lost.Error("lost");

    for (int field : {LogFieldDate, LogFieldTime, LogFieldUser})
        manager.SetFieldEnabled(field, false);
    ::testing::internal::CaptureStdout();
    manager.Configure("C", LogInfo, "Console").Info("out");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "INF;C;out\n");
    ::testing::internal::CaptureStderr();
    manager.Configure("D", LogInfo, "DebugView").Info("page %d drawn", 3);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "INF;D;page 3 drawn\n");
}

TEST(PlatformSeams, ExpandsEnvironmentReferencesLikeTheWindowsShell) {
    ASSERT_TRUE(SetEnvironmentText("ZPDF_T_A", "alpha"));
    ASSERT_TRUE(SetEnvironmentText("ZPDF_T_EMPTY", ""));
    ASSERT_TRUE(SetEnvironmentText("ZPDF_T_UNSET", nullptr));
    const std::pair<const char*, const char*> cases[] = {
        {"%ZPDF_T_A%", "alpha"},          {"%ZPDF_T_UNSET%ZPDF_T_A%", "%ZPDF_T_UNSETalpha"},
        {"%%ZPDF_T_A%", "%alpha"},        {"%ZPDF_T_EMPTY%x", "x"},
        {"%ZPDF_T_A=x%", "%ZPDF_T_A=x%"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(ExpandEnvironmentReferences(text), expected) << text;
}

TEST(PlatformSeams, ConfigFileIsBesideTheModuleUnlessTheEnvironmentNamesOne) {
    // These tests link the log library statically, so the module is the test program.
    const std::filesystem::path module = ModuleFilePath();
    ASSERT_TRUE(std::filesystem::equivalent(module, "/proc/self/exe"));
    const std::string beside = (module.parent_path() / "log.ini").string();
    const auto saved = GetEnvironmentText("ZPDF_LOG_INI");
    for (const auto& [value, expected] : {std::pair<const char*, std::string>{nullptr, beside},
                                          {"", beside},
                                          {"elsewhere/my.ini", "elsewhere/my.ini"}}) {
        SetEnvironmentText("ZPDF_LOG_INI", value);
        EXPECT_EQ(LogManager::ConfigPath(), expected);
    }
    SetEnvironmentText("ZPDF_LOG_INI", saved ? saved->c_str() : nullptr);
}

}  // namespace
}  // namespace zpdf
