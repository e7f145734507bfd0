#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "log/log_manager.h"
#include "log_test_support.h"
#include "platform/clock.h"
#include "platform/env.h"
#include "platform/host_info.h"
#include "platform/module_path.h"

namespace zpdf {
namespace {

TEST(PlatformSeams, ExpandsEnvironmentReferencesLikeTheWindowsShell) {
    ASSERT_TRUE(SetEnvironmentText("ZPDF_T_A", "alpha"));
    ASSERT_TRUE(SetEnvironmentText("ZPDF_T_EMPTY", ""));
    ASSERT_TRUE(SetEnvironmentText("ZPDF_T_UNSET", nullptr));
    struct Case {
        const char* text;
        const char* expected;
    };
    const Case cases[] = {
        {"%ZPDF_T_A%", "alpha"},
        {"%ZPDF_T_UNSET%", "%ZPDF_T_UNSET%"},
        {"%ZPDF_T_UNSET%ZPDF_T_A%", "%ZPDF_T_UNSETalpha"},
        {"%%ZPDF_T_A%", "%alpha"},
        {"%%", "%%"},
        {"%ZPDF_T_EMPTY%x", "x"},
        {"%zpdf_t_a%", "%zpdf_t_a%"},
        {"%ZPDF_T_A=x%", "%ZPDF_T_A=x%"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ExpandEnvironmentReferences(c.text), c.expected) << c.text;
    }
    SetEnvironmentText("ZPDF_T_A", nullptr);
    SetEnvironmentText("ZPDF_T_EMPTY", nullptr);
}

TEST(PlatformSeams, ConfigFileIsBesideTheModuleUnlessTheEnvironmentNamesOne) {
    const std::filesystem::path module = ModuleFilePath();
    ASSERT_FALSE(module.empty());
    // These tests link the log library statically, so the module is the test program.
    EXPECT_TRUE(std::filesystem::equivalent(module, std::filesystem::path("/proc/self/exe")));

    const auto saved = GetEnvironmentText("ZPDF_LOG_INI");
    SetEnvironmentText("ZPDF_LOG_INI", nullptr);
    EXPECT_EQ(LogManager::ConfigPath(), (module.parent_path() / "log.ini").string());
    SetEnvironmentText("ZPDF_LOG_INI", "");
    EXPECT_EQ(LogManager::ConfigPath(), (module.parent_path() / "log.ini").string());
    SetEnvironmentText("ZPDF_LOG_INI", "elsewhere/my.ini");
    EXPECT_EQ(LogManager::ConfigPath(), "elsewhere/my.ini");
    SetEnvironmentText("ZPDF_LOG_INI", saved ? saved->c_str() : nullptr);
}

TEST(PlatformSeams, ClockAndHost) {
    const std::uint32_t start = MillisecondTick();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const std::uint32_t elapsed = MillisecondTick() - start;
    EXPECT_GE(elapsed, 30u);
    EXPECT_LT(elapsed, 5000u);

    const std::time_t now = std::time(nullptr);
    char today[16];
    std::strftime(today, sizeof today, "%d.%m.%Y", std::localtime(&now));
    char date[11];
    char time[9];
    CaptureLocalDateTime(date, time);
    EXPECT_STREQ(date, today);  // could differ only if midnight passed between the readings

    EXPECT_FALSE(CurrentUserName().empty());
    EXPECT_FALSE(ComputerName().empty());
}

}  // namespace
}  // namespace zpdf
