// A letterhead placed on pages that draw nothing of their own: no /Contents, an empty array, a
// null, a reference to no object. Each must draw it, whether our writer draws the placements in
// as it saves, or they are made in the document in memory (here: when another document copies
// the stamped pages).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

// Page 1 has text of its own; pages 2 to 5 draw nothing.
std::string BlankPagesPdf() {
    const std::string font = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>";
    return samples::PdfFromObjects({
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [3 0 R 4 0 R 5 0 R 6 0 R 7 0 R] /Count 5 /MediaBox [0 0 595 842] "
        "/Resources << /Font << /F1 9 0 R >> >> >>",
        "<< /Type /Page /Parent 2 0 R /Contents 8 0 R >>",
        "<< /Type /Page /Parent 2 0 R >>",
        "<< /Type /Page /Parent 2 0 R /Contents [] >>",
        "<< /Type /Page /Parent 2 0 R /Contents null >>",
        "<< /Type /Page /Parent 2 0 R /Contents 99 0 R >>",
        test::PdfStream("", "BT /F1 12 Tf 20 150 Td (Body) Tj ET"),
        font,
    });
}

// How many pixels of the page, as poppler renders it in grey at a low resolution, are not white.
size_t InkedPixels(const stdfs::path& pdf, int page) {
    const stdfs::path out = pdf.parent_path() / ("page" + std::to_string(page));
    const std::string n = std::to_string(page);
    test::Run("pdftoppm -r 20 -gray -singlefile -f " + n + " -l " + n + " " + test::Quote(pdf) +
              " " + test::Quote(out));
    const std::string pgm = test::ReadBytes(out.string() + ".pgm");
    // "P5 width height 255" and one byte a pixel.
    std::istringstream head(pgm);
    std::string magic;
    size_t width = 0;
    size_t height = 0;
    int maximum = 0;
    head >> magic >> width >> height >> maximum;
    const size_t pixels = width * height;
    if (magic != "P5" || pgm.size() < pixels) return 0;
    const std::string body = pgm.substr(pgm.size() - pixels);
    return static_cast<size_t>(std::count_if(
        body.begin(), body.end(), [](char c) { return static_cast<unsigned char>(c) < 200; }));
}

size_t Occurrences(const std::string& text, const std::string& word) {
    size_t count = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++count;
    return count;
}

TEST(BlankPageStamp, EveryPageDrawsTheLetterhead) {
    struct Case {
        const char* name;
        bool background;
        bool made_in_memory;
    } cases[] = {
        {"above, written by the save", false, false},
        {"beneath, written by the save", true, false},
        {"above, made in memory", false, true},
        {"beneath, made in memory", true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path dir = test::ScratchDir();
        const stdfs::path doc = dir / "blank.pdf";
        ASSERT_TRUE(samples::WriteFile(doc, BlankPagesPdf()));
        const stdfs::path head = test::TextPdf(dir / "head.pdf", {"LETTERHEAD"});
        ::testing::internal::CaptureStderr();
        CZPdfContentObject object;
        CZPdfContentObject letterhead;
        ASSERT_EQ(object.SetPdfDocument(FromPath(doc), 0, u""), hr::kOk);
        ASSERT_EQ(letterhead.SetPdfDocument(FromPath(head), 0, u""), hr::kOk);
        std::vector<std::uint32_t> forms;
        ASSERT_EQ(object.ImportContent(&letterhead, &forms), hr::kOk) << object.LastErrorText();
        const VariantBool background = c.background ? -1 : 0;
        for (std::int32_t page = 1; page <= 5; ++page) {
            ASSERT_EQ(object.PlaceContent(forms[0], page, 0, 0, 1, 1, background), hr::kOk)
                << object.LastErrorText();
        }
        // A second placement on a blank page stacks on the first.
        ASSERT_EQ(object.PlaceContent(forms[0], 2, 0, -400, 1, 1, background), hr::kOk);

        stdfs::path result = doc;
        if (c.made_in_memory) {
            result = dir / "copy.pdf";
            ASSERT_TRUE(samples::WriteFile(result, BlankPagesPdf()));
            CZPdfContentObject copy;
            ASSERT_EQ(copy.SetPdfDocument(FromPath(result), 0, u""), hr::kOk);
            ASSERT_EQ(copy.ReplacePages(1, &object, 1, 5), hr::kOk) << copy.LastErrorText();
            ASSERT_EQ(copy.Save(), hr::kOk) << copy.LastErrorText();
        } else {
            ASSERT_EQ(object.Save(), hr::kOk) << object.LastErrorText();
        }
        ::testing::internal::GetCapturedStderr();

        EXPECT_TRUE(test::QpdfCheckPasses(result));
        const std::vector<std::string> texts = test::PdfPageTexts(result);
        ASSERT_EQ(texts.size(), 5u);
        EXPECT_NE(texts[0].find("Body"), std::string::npos) << texts[0];
        for (size_t i = 0; i < texts.size(); ++i) {
            EXPECT_EQ(Occurrences(texts[i], "LETTERHEAD"), i == 1 ? 2u : 1u)
                << "page " << i + 1 << ": " << texts[i];
            EXPECT_GT(InkedPixels(result, static_cast<int>(i) + 1), 0u) << "page " << i + 1;
        }
    }
}

}  // namespace
}  // namespace zpdf
