#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zpdf::test {

std::filesystem::path ScratchDir() {
    const char* base = std::getenv("ZPDF_TEST_TMP");
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name =
        info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : "misc";
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '/' || c == ' '; }, '_');
    const std::filesystem::path dir =
        (base ? std::filesystem::path(base)
              : std::filesystem::temp_directory_path() / "zpdf-tests") /
        name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

ToolResult Run(const std::string& command) {
    ToolResult result;
    const std::string line = "{ " + command + " ; } 2>&1";
    FILE* pipe = ::popen(line.c_str(), "r");
    if (pipe == nullptr) return result;
    std::array<char, 4096> buffer{};
    std::size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        result.output.append(buffer.data(), got);
    const int status = ::pclose(pipe);
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string Quote(const std::filesystem::path& path) {
    std::string out = "'";
    for (char c : path.string()) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string ReadBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

namespace {

void Require(const ToolResult& result, const std::string& what) {
    if (result.exit_code != 0) throw std::runtime_error(what + " failed: " + result.output);
}

// qpdf ARGS IN OUT; qpdf's exit status 3 means warnings only.
std::filesystem::path Qpdf(const std::string& args, const std::filesystem::path& in,
                           const std::filesystem::path& out) {
    const ToolResult result = Run("qpdf " + args + " " + Quote(in) + " " + Quote(out));
    if (result.exit_code != 3) Require(result, "qpdf " + args);
    return out;
}

}  // namespace

std::filesystem::path GhostscriptPdf(const std::filesystem::path& path,
                                     const std::vector<std::string>& pages, int width, int height) {
    const std::filesystem::path ps = path.string() + ".ps";
    std::string program;
    for (const std::string& page : pages) program += page + "\nshowpage\n";
    WriteBytes(ps, program);
    Require(Run("gs -q -dNOPAUSE -dBATCH -dSAFER -sDEVICE=pdfwrite -dDEVICEWIDTHPOINTS=" +
                std::to_string(width) + " -dDEVICEHEIGHTPOINTS=" + std::to_string(height) +
                " -dFIXEDMEDIA -o " + Quote(path) + " " + Quote(ps)),
            "ghostscript");
    std::filesystem::remove(ps);
    return path;
}

std::filesystem::path TextPdf(const std::filesystem::path& path,
                              const std::vector<std::string>& texts) {
    std::vector<std::string> pages;
    for (const std::string& text : texts)
        pages.push_back("/Helvetica findfont 14 scalefont setfont 72 700 moveto (" + text +
                        ") show");
    return GhostscriptPdf(path, pages);
}

std::filesystem::path QpdfEncrypt(const std::filesystem::path& in, const std::filesystem::path& out,
                                  const std::string& user, const std::string& owner, int bits) {
    return Qpdf("--allow-weak-crypto --encrypt " + Quote(user) + " " + Quote(owner) + " " +
                    std::to_string(bits) + (bits == 128 ? " --use-aes=y" : "") + " --",
                in, out);
}

std::filesystem::path QpdfLinearize(const std::filesystem::path& in,
                                    const std::filesystem::path& out) {
    return Qpdf("--linearize", in, out);
}

std::filesystem::path QpdfObjectStreams(const std::filesystem::path& in,
                                        const std::filesystem::path& out) {
    return Qpdf("--object-streams=generate", in, out);
}

int QpdfPageCount(const std::filesystem::path& path) {
    const ToolResult result = Run("qpdf --show-npages " + Quote(path) + " 2>/dev/null");
    if (result.exit_code != 0 && result.exit_code != 3) return -1;
    return std::atoi(result.output.c_str());
}

bool QpdfCheckPasses(const std::filesystem::path& path) {
    return Run("qpdf --check " + Quote(path)).exit_code == 0;
}

std::string PdfToText(const std::filesystem::path& path) {
    return Run("pdftotext -q " + Quote(path) + " -").output;
}

TempFolderOverride::TempFolderOverride(const std::filesystem::path& folder) {
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    ::setenv("TMPDIR", folder.c_str(), 1);
}

TempFolderOverride::~TempFolderOverride() {
    static_cast<void>(old_ ? ::setenv("TMPDIR", old_->c_str(), 1) : ::unsetenv("TMPDIR"));
}

std::vector<std::string> PdfPageTexts(const std::filesystem::path& path) {
    std::vector<std::string> pages;
    std::stringstream all(PdfToText(path));
    std::string page;
    while (std::getline(all, page, '\f')) {
        page.erase(std::remove(page.begin(), page.end(), '\n'), page.end());
        pages.push_back(page);
    }
    if (!pages.empty() && pages.back().empty()) pages.pop_back();
    return pages;
}

std::vector<std::filesystem::path> FilesStartingWith(const std::filesystem::path& dir,
                                                     const std::string& prefix) {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
        if (entry.path().filename().string().rfind(prefix, 0) == 0) found.push_back(entry.path());
    return found;
}

std::vector<std::uint8_t> HexBytes(std::string_view digits) {
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (digits[i] == ' ') continue;
        out.push_back(
            static_cast<std::uint8_t>(std::stoi(std::string(digits.substr(i++, 2)), 0, 16)));
    }
    return out;
}

std::string PdfStream(const std::string& dict, const std::string& data) {
    return "<< " + dict + " /Length " + std::to_string(data.size()) + " >>\nstream\n" + data +
           "\nendstream";
}

}  // namespace zpdf::test
