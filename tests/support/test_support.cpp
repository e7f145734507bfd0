#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>

namespace zpdf::test {

std::filesystem::path ScratchDir() {
    const char* base = std::getenv("ZPDF_TEST_TMP");
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name =
        info != nullptr ? std::string(info->test_suite_name()) + "." + info->name() : "misc";
    std::ranges::replace(name, '/', '_');  // parameterized tests
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
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
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

std::string MakeCertificate(const std::filesystem::path& dir, const std::string& name,
                            const std::string& key) {
    const ToolResult made = Run(
        "openssl req -x509 -newkey " + key + " -nodes -days 2 -subj '/CN=" + name + "' -keyout " +
        Quote(dir / (name + "-key.pem")) + " -out " + Quote(dir / (name + "-cert.pem")));
    EXPECT_EQ(made.exit_code, 0) << made.output;
    return ReadBytes(dir / (name + "-cert.pem"));
}

std::string ShowEncryption(const std::filesystem::path& file, const std::string& password) {
    return Run("qpdf --show-encryption --password=" + Quote(password) + " " + Quote(file)).output;
}

int QpdfPageCount(const std::filesystem::path& path) {
    const ToolResult result = Run("qpdf --show-npages " + Quote(path) + " 2>/dev/null");
    if (result.exit_code != 0 && result.exit_code != 3) return -1;
    return std::atoi(result.output.c_str());
}

bool QpdfCheckPasses(const std::filesystem::path& path) {
    return Run("qpdf --check " + Quote(path)).exit_code == 0;
}

std::string PdfToText(const std::filesystem::path& path, const std::string& password) {
    const std::string open =
        password.empty() ? "" : " -opw " + Quote(password) + " -upw " + Quote(password);
    return Run("pdftotext -q" + open + " " + Quote(path) + " -").output;
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

std::string PdfFile(const std::vector<std::string>& objects, int listed, int misplaced, int root) {
    const std::size_t count = listed < 0 ? objects.size() : static_cast<std::size_t>(listed);
    std::string out = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
    std::string table = "xref\n0 " + std::to_string(count + 1) + "\n0000000000 65535 f \n";
    for (std::size_t i = 0; i < objects.size(); ++i) {
        char entry[24];
        const bool moved = static_cast<int>(i) + 1 == misplaced;
        std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", out.size() - (moved ? 7 : 0));
        if (i < count) table += entry;
        out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    return out + table + "trailer\n<< /Size " + std::to_string(count + 1) + " /Root " +
           std::to_string(root) + " 0 R >>\nstartxref\n" + std::to_string(out.size()) + "\n%%EOF\n";
}

std::string InteractivePdf(const std::string& tag, const std::string& dest, int marked) {
    const auto content = [&tag, marked](const std::string& text, int page) {
        return PdfStream("", "BT /F1 24 Tf 72 780 Td (" + tag + " " + text + ") Tj ET\n" +
                                 (page == marked ? "BT /F1 12 Tf 72 700 Td (@@nd@@) Tj ET" : ""));
    };
    const std::string link = "/Type /Annot /Subtype /Link /Border [0 0 0] ";
    const std::string widget = "/Type /Annot /Subtype /Widget /F 4 /P 5 0 R ";
    // Object numbers follow the order of the list.
    return PdfFile({
        "<< /Type /Catalog /Pages 2 0 R /Outlines 20 0 R"
        " /Names << /Dests << /Names [(" +
            dest +
            ") [5 0 R /XYZ 0 842 0]] >> >>"
            " /AcroForm << /Fields [12 0 R 13 0 R 14 0 R 23 0 R] /DA 34 0 R"
            " /DR << /Font << /Helv 3 0 R >> >> /NeedAppearances true /SigFlags 3 >>"
            " /PageLabels << /Nums [0 << /S /r >> 1 << /S /D /P (A-) /St 5 >>] >>"
            " /OutputIntents [<< /Type /OutputIntent /S /GTS_PDFX"
            " /OutputConditionIdentifier (FOGRA39) /Info (Coated) >>]"
            " /Lang (en-GB) /StructTreeRoot 25 0 R /MarkInfo << /Marked true >> >>",  // 1
        // Resources and media box inherited from the root.
        "<< /Type /Pages /Kids [4 0 R 5 0 R 6 0 R 7 0 R] /Count 4 /MediaBox [0 0 595 842]"
        " /Resources << /Font << /F1 3 0 R /Helv 3 0 R >> >> >>",                             // 2
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>",  // 3
        "<< /Type /Page /Parent 2 0 R /Contents 8 0 R /Annots [15 0 R 16 0 R 17 0 R]"
        " /StructParents 0 >>",  // 4
        "<< /Type /Page /Parent 2 0 R /Contents 9 0 R"
        " /Annots [12 0 R 13 0 R 14 0 R 18 0 R] >>",                                 // 5
        "<< /Type /Page /Parent 2 0 R /Contents 10 0 R /Annots [19 0 R 26 0 R] >>",  // 6
        "<< /Type /Page /Parent 2 0 R /Contents 11 0 R /Annots [23 0 R 24 0 R] >>",  // 7
        content("one", 1),                                                           // 8
        content("two", 2),                                                           // 9
        content("three", 3),                                                         // 10
        content("four", 4),                                                          // 11
        "<< " + widget + "/FT /Tx /T (name) /V (" + tag +
            ") /Rect [72 600 300 620] /DA (/Helv 12 Tf 0 g) >>",  // 12
        "<< " + widget +
            "/FT /Btn /T (agree) /V /Yes /AS /Yes /Rect [72 560 92 580]"
            " /AP << /N << /Yes 21 0 R /Off 22 0 R >> >> >>",  // 13
        "<< " + widget +
            "/FT /Ch /Ff 131072 /T (colour) /Opt [(Red) (Blue)] /V (Blue)"
            " /Rect [72 520 200 540] /DA (/Helv 12 Tf 0 g) >>",  // 14
        "<< " + link +
            "/Rect [72 700 200 720] /Dest [6 0 R /Fit] /P 4 0 R"
            " /StructParent 1 >>",  // 15
        "<< " + link + "/Rect [72 650 200 670] /A << /S /URI /URI (https://example.com/" + tag +
            ") >> /P 7 0 R >>",                                                    // 16
        "<< " + link + "/Rect [72 600 200 620] /Dest (" + dest + ") /P 4 0 R >>",  // 17
        "<< " + link +
            "/Rect [72 480 200 500] /A << /S /GoTo /D [7 0 R /Fit] >> /P 5 0 R >>",  // 18
        "<< /Type /Annot /Subtype /Text /Rect [72 700 92 720] /Contents (note " + tag +
            ") /P 6 0 R /Popup 26 0 R >>",                                                   // 19
        "<< /Type /Outlines /First 27 0 R /Last 29 0 R /Count 4 >>",                         // 20
        PdfStream("/Type /XObject /Subtype /Form /BBox [0 0 20 20]", "0 g 4 4 12 12 re f"),  // 21
        PdfStream("/Type /XObject /Subtype /Form /BBox [0 0 20 20]", ""),                    // 22
        "<< /Type /Annot /Subtype /Widget /F 4 /P 7 0 R /FT /Sig /T (sign) /V 31 0 R"
        " /Rect [0 0 0 0] >>",                                                   // 23
        "<< " + link + "/Rect [72 700 200 720] /Dest [4 0 R /Fit] /P 7 0 R >>",  // 24
        "<< /Type /StructTreeRoot /K 32 0 R /ParentTree << /Nums [0 [32 0 R] 1 32 0 R] >>"
        " /ParentTreeNextKey 2 >>",                                                            // 25
        "<< /Type /Annot /Subtype /Popup /Rect [100 600 300 700] /Parent 19 0 R /P 6 0 R >>",  // 26
        "<< /Title (Chapter A) /Parent 20 0 R /Next 29 0 R /First 28 0 R /Last 28 0 R"
        " /Count 1 /Dest [4 0 R /Fit] >>",                                 // 27
        "<< /Title (Section A.1) /Parent 27 0 R /Dest (" + dest + ") >>",  // 28
        "<< /Title 33 0 R /Parent 20 0 R /Prev 27 0 R /First 30 0 R /Last 30 0 R"
        " /Count 1 /A << /S /GoTo /D [6 0 R /Fit] >> >>",                // 29
        "<< /Title (Section B.1) /Parent 29 0 R /Dest [7 0 R /Fit] >>",  // 30
        "<< /Type /Sig /Filter /Adobe.PPKLite /SubFilter /adbe.pkcs7.detached"
        " /ByteRange [0 0 0 0] /Contents <00> >>",                          // 31
        "<< /Type /StructElem /S /Document /P 25 0 R /Pg 4 0 R /K [0] >>",  // 32
        // Strings kept as objects of their own, as some writers keep them.
        "(Chapter B)",       // 33
        "(/Helv 0 Tf 0 g)",  // 34
    });
}

}  // namespace zpdf::test
