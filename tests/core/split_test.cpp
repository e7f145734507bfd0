// Splitting after marker pages: parts read back by independent tools, text found however the
// content shows it, and unusable sources and folders reported with their reasons.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/files.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

using Parts = std::vector<std::vector<int>>;  // 1-based pages of each part, in order

const char* const kLabels[] = {"Alpha", "Bravo", "Charlie", "Delta", "Echo"};

// PostScript of one page: its label, then what else the page shows.
std::string Page(int number, const std::string& more = "") {
    return "/Helvetica findfont 14 scalefont setfont 72 700 moveto (" +
           std::string(kLabels[number - 1]) + ") show " + more;
}

const std::string kMarker = "72 650 moveto (@@nd@@) show";
const std::string kUpperMarker = "72 650 moveto (@@ND@@) show";
const std::string kMarkerInText = "72 650 moveto (Total due 12.00 @@nd@@ thank you) show";
// The font change makes Ghostscript write the halves with two text operators.
const std::string kMarkerInTwoRuns =
    "72 650 moveto (@@n) show /Times-Roman findfont 14 scalefont setfont (d@@) show";
const std::string kNoText = "0.5 setgray 72 72 200 200 rectfill";

// Checks that the files starting with `prefix_` in `dir` are exactly the expected parts, each
// holding its pages and no other.
void ExpectParts(const stdfs::path& dir, const std::string& prefix, const Parts& parts) {
    EXPECT_EQ(test::FilesStartingWith(dir, prefix + "_").size(), parts.size());
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const stdfs::path part = dir / (prefix + "_" + std::to_string(i + 1));
        SCOPED_TRACE(part.filename().string());
        ASSERT_TRUE(stdfs::exists(part));
        EXPECT_EQ(test::QpdfPageCount(part), static_cast<int>(parts[i].size()));
        const std::string text = test::PdfToText(part);
        for (int page = 1; page <= 5; ++page) {
            const bool held = std::find(parts[i].begin(), parts[i].end(), page) != parts[i].end();
            EXPECT_EQ(text.find(kLabels[page - 1]) != std::string::npos, held)
                << "page " << page << " in: " << text;
        }
    }
}

class SplitTest : public ::testing::Test {
  protected:
    void TearDown() override { fs::SetFaultHook(nullptr); }
};

TEST_F(SplitTest, PartsEndAfterMarkerPages) {
    struct Case {
        const char* name;
        std::vector<std::string> pages;
        HResult result;
        Parts parts;
    } cases[] = {
        {"first page only", {Page(1, kMarker), Page(2), Page(3)}, hr::kOk, {{1}, {2, 3}}},
        {"last page only", {Page(1), Page(2), Page(3, kMarker)}, hr::kFalse, {}},
        {"every page of four",
         {Page(1, kMarker), Page(2, kMarker), Page(3, kMarker), Page(4, kMarker)},
         hr::kOk,
         {{1}, {2}, {3}, {4}}},
        {"page 0 of two", {Page(1, kMarker), Page(2)}, hr::kOk, {{1}, {2}}},
        {"upper case", {Page(1), Page(2, kUpperMarker), Page(3)}, hr::kFalse, {}},
        {"inside other text", {Page(1), Page(2, kMarkerInText), Page(3)}, hr::kOk, {{1, 2}, {3}}},
        {"over two text runs",
         {Page(1), Page(2, kMarkerInTwoRuns), Page(3)},
         hr::kOk,
         {{1, 2}, {3}}},
        {"consecutive pages",
         {Page(1), Page(2, kMarker), Page(3, kMarker), Page(4), Page(5)},
         hr::kOk,
         {{1, 2}, {3}, {4, 5}}},
        {"one page", {Page(1, kMarker)}, hr::kFalse, {}},
        {"no text at all", {kNoText, kNoText, kNoText}, hr::kFalse, {}},
    };
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path own = test::TextPdf(dir / "own.pdf", {"own one", "own two"});
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path case_dir = dir / std::to_string(++n);
        stdfs::create_directories(case_dir);
        const stdfs::path source = test::GhostscriptPdf(case_dir / "source.pdf", c.pages);
        const std::string before = test::ReadBytes(source);

        // The object's own open document is not what is split, and stays as it was.
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(own), 0, u""), hr::kOk);
        std::int32_t own_pages = 0;
        ::testing::internal::CaptureStderr();
        ASSERT_EQ(object.PageCount(&own_pages), hr::kOk);
        ::testing::internal::GetCapturedStderr();

        std::int32_t written = -1;
        EXPECT_EQ(object.SplitPdf(FromPath(source), FromPath(case_dir / "part"), &written),
                  c.result)
            << object.LastErrorText();
        EXPECT_EQ(written, static_cast<std::int32_t>(c.parts.size()));
        ExpectParts(case_dir, "part", c.parts);  // no side file is left either
        EXPECT_EQ(test::ReadBytes(source), before);

        EXPECT_TRUE(object.IsDocumentOpen());
        EXPECT_EQ(object.PdfFilePath(), OptionalText(FromPath(own)));
        EXPECT_EQ(object.PageCount(&own_pages), hr::kOk);
        EXPECT_EQ(own_pages, 2);
    }
}

// A two-page file whose first page has exactly `content` (font /F1 is Helvetica, forms /Fm0,
// /Fm1... hold `forms`), and whose second page shows "Tail".
std::string TwoPagePdf(const std::string& content, const std::vector<std::string>& forms) {
    std::vector<std::string> objects = {
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [ " + std::to_string(4 + forms.size()) + " 0 R " +
            std::to_string(6 + forms.size()) + " 0 R ] /Count 2 >>",
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
    };
    std::string xobjects;
    for (std::size_t i = 0; i < forms.size(); ++i)
        xobjects += "/Fm" + std::to_string(i) + " " + std::to_string(4 + i) + " 0 R ";
    const std::string resources = "<< /Font << /F1 3 0 R >> /XObject << " + xobjects + ">> >>";
    const auto stream = test::PdfStream;
    for (const std::string& form : forms)
        objects.push_back(stream(
            "/Type /XObject /Subtype /Form /BBox [0 0 595 842] /Resources " + resources, form));
    const std::string tail = "BT /F1 12 Tf 72 700 Td (Tail) Tj ET";
    for (const std::string& page : {content, tail}) {
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Resources " +
                          resources + " /Contents " + std::to_string(objects.size() + 2) +
                          " 0 R >>");
        objects.push_back(stream("", page));
    }
    return samples::PdfFromObjects(objects);
}

// The page text is what the text operators show, however they show it: not the bytes of the
// content stream, and not only the page's own content.
TEST_F(SplitTest, MarkerFoundHoweverTheContentShowsIt) {
    struct Case {
        const char* name;
        std::string content;
        std::vector<std::string> forms;
        bool found;
    } cases[] = {
        {"array of strings", "BT /F1 12 Tf 72 700 Td [(@@n) -250 (d@@)] TJ ET", {}, true},
        {"hex strings", "BT /F1 12 Tf 72 700 Td <40406e64> Tj (@@) ' ET", {}, true},
        {"invisible text", "BT 3 Tr /F1 12 Tf 72 700 Td (@@nd@@) Tj ET", {}, true},
        {"inside a form", "q /Fm0 Do Q", {"BT /F1 12 Tf 72 700 Td (@@nd@@) Tj ET"}, true},
        {"page then form",
         "BT /F1 12 Tf 72 700 Td (@@n) Tj ET /Fm0 Do",
         {"BT /F1 12 Tf 72 680 Td (d@@) Tj ET"},
         true},
        {"form drawing itself", "/Fm0 Do", {"BT /F1 12 Tf 72 700 Td (@@nd@@) Tj ET /Fm0 Do"}, true},
        {"only in a comment", "% @@nd@@\nBT /F1 12 Tf 72 700 Td (other) Tj ET", {}, false},
        {"font gone after Q", "q BT /F1 12 Tf ET Q BT 72 700 Td (@@nd@@) Tj ET", {}, false},
    };
    const stdfs::path dir = test::ScratchDir();
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path case_dir = dir / std::to_string(++n);
        stdfs::create_directories(case_dir);
        const stdfs::path source = case_dir / "source.pdf";
        test::WriteBytes(source, TwoPagePdf(c.content, c.forms));

        CZPdfContentObject object;
        std::int32_t written = -1;
        EXPECT_EQ(object.SplitPdf(FromPath(source), FromPath(case_dir / "part"), &written),
                  c.found ? hr::kOk : hr::kFalse)
            << object.LastErrorText();
        EXPECT_EQ(written, c.found ? 2 : 0);
        if (c.found) {
            EXPECT_EQ(test::QpdfPageCount(case_dir / "part_1"), 1);
            EXPECT_NE(test::PdfToText(case_dir / "part_2").find("Tail"), std::string::npos);
        }
    }
}

// Sources stored in other ways split alike, and the parts are plain documents.
TEST_F(SplitTest, SourceFormsSplitAlike) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain =
        test::GhostscriptPdf(dir / "plain.pdf", {Page(1), Page(2, kMarker), Page(3)});
    const stdfs::path sources[] = {
        plain,
        test::QpdfObjectStreams(plain, dir / "objstm.pdf"),
        test::QpdfLinearize(plain, dir / "linear.pdf"),
        test::QpdfEncrypt(plain, dir / "owner-only.pdf", "", "owner", 256),
    };
    for (const stdfs::path& source : sources) {
        SCOPED_TRACE(source.filename().string());
        const std::string prefix = source.stem().string();
        CZPdfContentObject object;
        std::int32_t written = 0;
        ASSERT_EQ(object.SplitPdf(FromPath(source), FromPath(dir / prefix), &written), hr::kOk)
            << object.LastErrorText();
        EXPECT_EQ(written, 2);
        ExpectParts(dir, prefix, {{1, 2}, {3}});
        for (const char* part : {"_1", "_2"}) {
            const stdfs::path file = dir / (prefix + part);
            EXPECT_TRUE(test::QpdfCheckPasses(file));
            EXPECT_NE(test::Run("qpdf --show-encryption " + test::Quote(file))
                          .output.find("File is not encrypted"),
                      std::string::npos);
        }
    }
}

TEST_F(SplitTest, UnusableSourceSaysWhy) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"one @@nd@@", "two"});
    const stdfs::path locked = test::QpdfEncrypt(plain, dir / "locked.pdf", "user", "owner", 256);
    const stdfs::path text = dir / "notes.txt";
    test::WriteBytes(text, "These are notes, not a document.\n");
    struct Case {
        const char* name;
        OptionalText file;
        OptionalText prefix;
        bool with_count;
        HResult result;
        const char* diagnostic;  // written to standard error; null: nothing is
    } cases[] = {
        {"missing file", FromPath(dir / "missing.pdf"), FromPath(dir / "p"), true,
         hr::kFileNotFound, "Load pdf docs unsuccessful: File not found or could not be opened."},
        {"password needed", FromPath(locked), FromPath(dir / "p"), true, hr::kAccessDenied,
         "Load pdf docs unsuccessful: Password required or incorrect password."},
        {"not a PDF", FromPath(text), FromPath(dir / "p"), true, hr::kUnexpected,
         "Load pdf docs unsuccessful: File not in PDF format or corrupted."},
        {"null file", std::nullopt, FromPath(dir / "p"), true, hr::kPointer, nullptr},
        {"null prefix", FromPath(plain), std::nullopt, true, hr::kPointer, nullptr},
        {"null count", FromPath(plain), FromPath(dir / "p"), false, hr::kPointer, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        std::int32_t written = 7;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.SplitPdf(c.file, c.prefix, c.with_count ? &written : nullptr), c.result);
        const std::string diagnostics = ::testing::internal::GetCapturedStderr();
        EXPECT_FALSE(object.LastErrorText().empty());
        if (c.diagnostic != nullptr) {
            EXPECT_NE(diagnostics.find(c.diagnostic), std::string::npos) << diagnostics;
            EXPECT_EQ(written, 0);
        } else {
            EXPECT_EQ(written, 7) << "a null argument changes nothing";
        }
        EXPECT_TRUE(test::FilesStartingWith(dir, "p_").empty());
    }
}

// A part whose folder is missing stops the split with the system's reason. (Every failing disk
// step of a split is in fault_injection_test.cpp.)
TEST_F(SplitTest, MissingFolderIsPathNotFound) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path source =
        test::GhostscriptPdf(dir / "source.pdf", {Page(1, kMarker), Page(2)});
    CZPdfContentObject object;
    std::int32_t written = -1;
    EXPECT_EQ(object.SplitPdf(FromPath(source), FromPath(dir / "missing" / "part"), &written),
              hr::FromWin32(fs::kErrorPathNotFound));
    EXPECT_EQ(written, 0);
    EXPECT_FALSE(stdfs::exists(dir / "missing"));
}

}  // namespace
}  // namespace zpdf
