#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "log/log_manager.h"
#include "log_test_support.h"
#include "platform/env.h"

namespace zpdf {
namespace {

constexpr unsigned kDate = LogFieldBit(LogFieldDate);
constexpr unsigned kUser = LogFieldBit(LogFieldUser);

// Runs each test in its own directory, so that file sinks named by relative paths land there.
class LogConfig : public ::testing::Test {
  protected:
    void SetUp() override {
        previous_ = std::filesystem::current_path();
        dir_ = test::TestDirectory();
        std::filesystem::current_path(dir_);
    }
    void TearDown() override { std::filesystem::current_path(previous_); }

    bool Load(LogManager& manager, const std::string& text) {
        test::WriteFile(dir_ / "log.ini", text);
        return manager.LoadConfig((dir_ / "log.ini").string());
    }

    std::filesystem::path dir_;
    std::filesystem::path previous_;
};

TEST_F(LogConfig, CategoriesAndSwitches) {
    struct Category {
        std::string name;
        LogLevel level;
        std::string output;
    };
    struct Case {
        std::string ini;
        std::vector<Category> configured;
        std::vector<std::string> absent;
        unsigned fields;
    };
    const std::vector<Case> cases = {
        {"[categories]\nA=ERROR,Null\nB=Trace,console\nC=verbose,Console\nPDF = error,Console\n"
         "Twice=error,Null\nTwice=debug,Console\nNoComma=error\n#Hash=trace,Null\nEmpty=\n"
         "=debug,Null\n",
         {{"A", LogError, "Null"},
          {"B", LogTrace, "console"},  // a file in the current directory
          {"C", LogNone, "Console"},
          {"PDF ", LogNone, "Console"},  // the blanks belong to the name and to the level word
          {"Twice", LogDebug, "Console"}},
         {"PDF", "NoComma", "#Hash", "Empty", ""},
         0},
        {"[Categories]\nPDF=error,Null\n", {}, {"PDF"}, 0},
        {"[output]\ndate=1\ntime=0\nlevel= 1\nuser=1\ncategory=yes\nDate=0\ndate=0\n",
         {},
         {},
         kDate | kUser},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ini);
        LogManager manager;
        ASSERT_TRUE(Load(manager, c.ini));
        for (const Category& expected : c.configured) {
            const Logger* logger = manager.FindLogger(expected.name);
            ASSERT_NE(logger, nullptr) << expected.name;
            EXPECT_EQ(logger->GetLevel(), expected.level) << expected.name;
            EXPECT_EQ(logger->GetOutput(), manager.FindOutput(expected.output)) << expected.name;
        }
        for (const std::string& name : c.absent) {
            EXPECT_EQ(manager.FindLogger(name), nullptr) << name;
        }
        EXPECT_EQ(manager.GetFields(), c.fields);
    }
}

TEST_F(LogConfig, MissingFileKeepsDefaultsAndCreatesOnlyTheNullSink) {
    LogManager manager;
    EXPECT_FALSE(manager.LoadConfig((dir_ / "absent.ini").string()));
    EXPECT_EQ(manager.GetFields(), kLogFieldsDefault);
    Logger& pdf = manager.GetLogger("PDF");
    EXPECT_EQ(pdf.GetLevel(), LogNone);
    EXPECT_EQ(manager.OutputCount(), 1u);
    EXPECT_EQ(pdf.GetOutput(), manager.FindOutput("Null"));
}

TEST_F(LogConfig, ConsoleLineEndsInOneNewline) {
    LogManager manager;
    ASSERT_TRUE(Load(manager, "[categories]\nPDF=error,Console\n[output]\nlevel=1\n"));
    Logger& pdf = manager.GetLogger("PDF");
    ::testing::internal::CaptureStdout();
    pdf.Info("dropped");
    pdf.Error("could not open %s\n", "a.pdf");
    pdf.Error("no newline");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "ERR;could not open a.pdf\nERR;no newline\n");
}

TEST_F(LogConfig, FileSinksAreSharedByExactPathAndAppendAcrossRuns) {
    const std::string ini =
        "[categories]\nPDF=error,shared.log\nPDF.Save=info,shared.log\nOther=error,Shared.log\n";
    for (int run = 1; run <= 2; ++run) {
        LogManager manager;
        ASSERT_TRUE(Load(manager, ini));
        Logger& pdf = manager.GetLogger("PDF");
        Logger& save = manager.GetLogger("PDF.Save");
        Logger& other = manager.GetLogger("Other");
        EXPECT_EQ(pdf.GetOutput(), save.GetOutput());
        EXPECT_NE(pdf.GetOutput(), other.GetOutput());
        pdf.Error("run %d pdf", run);
        save.Info("run %d save", run);
        other.Error("run %d other", run);
    }
    EXPECT_EQ(test::ReadFile(dir_ / "shared.log"),
              "run 1 pdf\nrun 1 save\nrun 2 pdf\nrun 2 save\n");
    EXPECT_EQ(test::ReadFile(dir_ / "Shared.log"), "run 1 other\nrun 2 other\n");
}

TEST_F(LogConfig, EnvironmentReferencesInOutputsAreExpanded) {
    ASSERT_TRUE(SetEnvironmentText("ZPDF_TEST_LOG_DIR", dir_.string().c_str()));
    ASSERT_TRUE(SetEnvironmentText("ZPDF_TEST_LONG", std::string(300, 'x').c_str()));
    LogManager manager;
    ASSERT_TRUE(
        Load(manager,
             "[categories]\nPDF=info,%ZPDF_TEST_LOG_DIR%/sub.log\nLong=info,%ZPDF_TEST_LONG%\n"));
    manager.GetLogger("PDF").Info("expanded");
    EXPECT_EQ(test::ReadFile(dir_ / "sub.log"), "expanded\n");
    // An expansion too long for a path gives a sink that drops the lines.
    EXPECT_EQ(manager.GetLogger("Long").GetOutput(), manager.FindOutput("Null"));
    SetEnvironmentText("ZPDF_TEST_LOG_DIR", nullptr);
    SetEnvironmentText("ZPDF_TEST_LONG", nullptr);
}

TEST_F(LogConfig, ChildrenCopyTheirParentOnceAtCreation) {
    LogManager manager;
    ASSERT_TRUE(Load(manager, "[categories]\nPDF=error,Console\nPDF.Render=trace,DebugView\n"));

    Logger& save = manager.GetLogger("PDF.Save");
    EXPECT_EQ(save.GetLevel(), LogError);
    EXPECT_EQ(save.GetOutput(), manager.FindOutput("Console"));

    manager.Configure("PDF", LogDebug, "Null");
    EXPECT_EQ(save.GetLevel(), LogError);
    EXPECT_EQ(save.GetOutput(), manager.FindOutput("Console"));
    EXPECT_EQ(manager.GetLogger("PDF.Save.Deep").GetLevel(), LogError);

    // A configured category keeps its own settings whatever its parent says.
    EXPECT_EQ(manager.GetLogger("PDF.Render").GetLevel(), LogTrace);

    // Missing ancestors are created on the way.
    EXPECT_EQ(manager.GetLogger("A.B.C").GetLevel(), LogNone);
    EXPECT_NE(manager.FindLogger("A"), nullptr);
    EXPECT_NE(manager.FindLogger("A.B"), nullptr);
}

}  // namespace
}  // namespace zpdf
