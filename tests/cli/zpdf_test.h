// What the tests that run the zpdf executable share: running it, and a fresh folder per test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace zpdf::test {

// zpdf with `args`, through the shell: its exit code and what it printed.
inline ToolResult Zpdf(const std::string& args) {
    return Run(std::string(ZPDF_BINARY) + " " + args);
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Runs each test in a fresh folder of its own, so that zpdf is given short relative names; the
// folder the test started in is restored afterwards, also when a check failed.
class InScratchFolder : public ::testing::Test {
  protected:
    void SetUp() override { std::filesystem::current_path(ScratchDir()); }
    void TearDown() override { std::filesystem::current_path(start_); }

  private:
    const std::filesystem::path start_ = std::filesystem::current_path();
};

}  // namespace zpdf::test
