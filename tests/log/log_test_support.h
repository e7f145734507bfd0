// Helpers shared by the log tests: a fresh directory per test, and whole-file reads and writes.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "log/log_output.h"
#include "platform/env.h"

namespace zpdf::test {

// An empty directory for the running test, below ZPDF_TEST_TMP when set.
inline std::filesystem::path TestDirectory() {
    const auto configured = GetEnvironmentText("ZPDF_TEST_TMP");
    const std::filesystem::path base = configured && !configured->empty()
                                           ? std::filesystem::path(*configured)
                                           : std::filesystem::temp_directory_path();
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::filesystem::path dir =
        base / "log" / (std::string(info->test_suite_name()) + "." + info->name());
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

// True when `text` has the length of `shape` and matches it: "#" stands for any decimal digit,
// every other character for itself.
inline bool MatchesShape(std::string_view text, std::string_view shape) {
    if (text.size() != shape.size()) return false;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '#' ? !digit : text[i] != shape[i]) return false;
    }
    return true;
}

// The date and time fields of a line, up to and including the ";" after the tick.
inline constexpr std::string_view kClockShape = "##.##.####;##:##:##.######;";

// A sink that keeps the lines it receives.
class RecordingOutput : public LogOutput {
  public:
    void Write(const char* line) override { lines.emplace_back(line); }
    std::vector<std::string> lines;
};

}  // namespace zpdf::test
