// Splitting after marker pages: parts read back as text, the marker found however the content
// shows it, encrypted sources split into plain parts, unusable sources and folders reported with
// their reasons.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "core/open_object.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests

const char* const kLabels[] = {"Alpha", "Bravo", "Charlie", "Delta", "Echo"};

// The labels each part file `<prefix>_<n>` in `dir` shows, as "Alpha Bravo|Charlie" for two
// parts (PageFidelity checks that parts are sound).
std::string Parts(const Path& dir, const std::string& prefix) {
    std::string parts;
    const std::size_t count = FilesStartingWith(dir, prefix + "_").size();
    for (std::size_t n = 1; n <= count; ++n) {
        const std::string text = PdfToText(dir / (prefix + "_" + std::to_string(n)));
        int pages = 0;
        for (const char* label : kLabels)
            if (text.find(label) != std::string::npos)
                parts += std::string(pages++ == 0 ? "" : " ") + label;
        parts += n < count ? "|" : "";
    }
    return parts;
}

// One page per entry of `contents`: that content, then its label ("Alpha", "Bravo"...). The
// pages have the font /F1 and the form /Fm0, which shows `form`.
std::string MarkedPdf(const std::vector<std::string>& contents, const std::string& form) {
    const std::string resources =
        "/Resources << /Font << /F1 3 0 R >> /XObject << /Fm0 4 0 R >> >>";
    std::vector<std::string> objects = {
        "<< /Type /Catalog /Pages 2 0 R >>", "",
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        PdfStream("/Subtype /Form /BBox [0 0 595 842] " + resources, form)};
    std::string kids;
    for (std::size_t i = 0; i < contents.size(); ++i) {
        kids += std::to_string(objects.size() + 1) + " 0 R ";
        objects.push_back("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] " + resources +
                          " /Contents " + std::to_string(objects.size() + 2) + " 0 R >>");
        objects.push_back(
            PdfStream("", contents[i] + "\nBT /F1 12 Tf 72 750 Td (" + kLabels[i] + ") Tj ET"));
    }
    objects[1] =
        "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(contents.size()) + " >>";
    return samples::PdfFromObjects(objects);
}

// A part ends after every page but the last whose text holds the marker. The page text is what
// the text operators show, however they show it: not the bytes of the content stream, and not
// only the page's own content.
TEST(Split, PartsEndAfterMarkerPages) {
    const std::string marker = "BT /F1 12 Tf 72 700 Td (@@nd@@) Tj ET";
    const std::string text = "BT /F1 12 Tf 72 700 Td ", two = "Alpha|Bravo";
    const struct {
        std::vector<std::string> pages;
        std::string parts;  // none: S_FALSE
        std::string form = "";
    } cases[] = {
        {{marker, "", ""}, "Alpha|Bravo Charlie"},
        {{"", "", marker}, ""},  // the last page only
        {{text + "[(@@n) -250 (d@@)] TJ ET", ""}, two},
        {{text + "<40406e64> Tj (@@) ' ET", ""}, two},
        {{"BT 3 Tr /F1 12 Tf 72 700 Td (@@nd@@) Tj ET", ""}, two},  // invisible
        {{"q /Fm0 Do Q", ""}, two, marker},
        {{text + "(@@n) Tj ET /Fm0 Do", ""}, two, "BT /F1 12 Tf 72 680 Td (d@@) Tj ET"},
        {{"/Fm0 Do", ""}, two, marker + " /Fm0 Do"},                    // a form drawing itself
        {{"q BT /F1 12 Tf ET Q BT 72 700 Td (@@nd@@) Tj ET", ""}, ""},  // the font gone after Q
    };
    const Path dir = ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pages[0]);
        const Path case_dir = dir / std::to_string(&c - cases);
        stdfs::create_directories(case_dir);
        WriteBytes(case_dir / "source.pdf", MarkedPdf(c.pages, c.form));
        Obj object;
        std::int32_t written = -1;
        EXPECT_EQ(object.SplitPdf(FromPath(case_dir / "source.pdf"), FromPath(case_dir / "part"),
                                  &written),
                  c.parts.empty() ? hr::kFalse : hr::kOk)
            << object.LastErrorText();
        EXPECT_EQ(Parts(case_dir, "part"), c.parts);  // no side file is left either
        EXPECT_EQ(written,
                  c.parts.empty() ? 0 : std::count(c.parts.begin(), c.parts.end(), '|') + 1);
    }
}

// The parts of an encrypted source are plain documents.
TEST(Split, PartsOfAnEncryptedSourceArePlain) {
    const Path dir = ScratchDir();
    const Path plain = TextPdf(dir / "plain.pdf", {"Alpha @@nd@@", "Bravo"});
    Obj object;
    std::int32_t written = 0;
    ASSERT_EQ(object.SplitPdf(FromPath(QpdfEncrypt(plain, dir / "owner.pdf", "", "o", 256)),
                              FromPath(dir / "part"), &written),
              hr::kOk)
        << object.LastErrorText();
    EXPECT_EQ(Parts(dir, "part"), "Alpha|Bravo");
    for (const char* part : {"part_1", "part_2"})
        EXPECT_NE(ShowEncryption(dir / part, "").find("File is not encrypted"), std::string::npos)
            << part;
}

TEST(Split, UnusableSourcesAndFoldersSayWhy) {
    const Path dir = ScratchDir();
    const Path plain = TextPdf(dir / "plain.pdf", {"one @@nd@@", "two"});
    const Path locked = QpdfEncrypt(plain, dir / "locked.pdf", "user", "owner", 256);
    WriteBytes(dir / "notes.txt", "These are notes, not a document.\n");
    const OptionalText prefix = FromPath(dir / "p");
    const std::string load = "Load pdf docs unsuccessful: ";
    const struct {
        OptionalText file, prefix;
        HResult result;
        std::int32_t written;    // 7: left as it was
        std::string diagnostic;  // written to standard error
    } cases[] = {
        {FromPath(dir / "missing.pdf"), prefix, hr::kFileNotFound, 0,
         load + "File not found or could not be opened."},
        {FromPath(locked), prefix, hr::kAccessDenied, 0,
         load + "Password required or incorrect password."},
        {FromPath(dir / "notes.txt"), prefix, hr::kUnexpected, 0, ""},
        {std::nullopt, prefix, hr::kPointer, 7, ""},
        {FromPath(plain), FromPath(dir / "missing" / "p"), hr::FromWin32(fs::kErrorPathNotFound), 0,
         ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Obj object;
        std::int32_t written = 7;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.SplitPdf(c.file, c.prefix, &written), c.result);
        const std::string diagnostics = ::testing::internal::GetCapturedStderr();
        EXPECT_FALSE(object.LastErrorText().empty());
        EXPECT_NE(diagnostics.find(c.diagnostic), std::string::npos) << diagnostics;
        EXPECT_EQ(written, c.written);
        EXPECT_TRUE(FilesStartingWith(dir, "p_").empty());
        EXPECT_FALSE(stdfs::exists(dir / "missing"));
    }
}

}  // namespace
}  // namespace zpdf
