// What the corpus run and the document fuzz target found, each as a small file of its kind made
// here. Every file goes through the whole job in a process of its own with a time limit, as the
// corpus run does it, and its pages are counted and measured in this process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "content_object/content_object.h"
#include "platform/raster.h"
#include "platform/text.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using test::PdfFile;
using test::PdfStream;

const std::string kCatalog = "<< /Type /Catalog /Pages 2 0 R >>";
const std::string kHelvetica = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>";
const std::string kHello = PdfStream("", "BT /F1 24 Tf 72 700 Td (Hello) Tj ET");

std::string Pages(const std::string& kids, const std::string& count) {
    return "<< /Type /Pages /Kids [" + kids + "] /Count " + count + " >>";
}
std::string Page(int parent, int width, int height, const std::string& extra = "") {
    return "<< /Type /Page /Parent " + std::to_string(parent) + " 0 R /MediaBox [0 0 " +
           std::to_string(width) + " " + std::to_string(height) + "] " + extra + " >>";
}
// A page whose text is object `text` in the font object `text` + 1.
std::string TextPage(int width, int height, int text = 4) {
    return Page(2, width, height,
                "/Contents " + std::to_string(text) + " 0 R /Resources << /Font << /F1 " +
                    std::to_string(text + 1) + " 0 R >> >>");
}

HResult SetFile(CZPdfContentObject& object, const stdfs::path& file) {
    return object.SetPdfDocument(FromPath(file), 0, u"");
}

// Page 1 drawn at 72 dpi into a square raster of `side` pixels: the red of pixel (x, y).
int DrawnPixel(CZPdfContentObject& object, int side, int x, int y) {
    RasterDeviceContext dc(side, side);
    EXPECT_EQ(object.DrawPageToDC(dc, 1, 0, 0, side, side, 0, 0, 0, 0, 0), hr::kOk)
        << object.LastErrorText();
    return dc.Pixel(x, y)[0];
}

TEST(CorpusRegression, DamagedFilesGoThroughTheWholeJob) {
    const std::string no_catalog =
        "the document has no catalog: its damaged table could not be repaired";
    const struct {
        const char* name;
        std::string pdf;
        std::vector<std::pair<double, double>> pages;  // what the content object must measure
        // Lines the job must print; with none, every step of the job must be done.
        std::vector<std::string> job_lines = {};
        int parts = 0;  // made by the split of the file itself in this process; 0: not split
    } cases[] = {
        // The page's font is a dictionary of its own inside the page. Drawing the page puts the
        // font in the engine's store under that dictionary; drawing a page stamped with it in
        // another document compares the two equal dictionaries, which grows the first
        // document's cross-reference table under the store's lock: the job waited for itself.
        {"direct font dictionary",
         PdfFile({kCatalog, Pages("3 0 R", "1"),
                  Page(2, 595, 842,
                       "/Contents 4 0 R /Resources << /Font << /F1 " + kHelvetica + " >> >>"),
                  kHello}),
         {{595, 842}}},
        // The table lists the catalog alone, as a damaged subsection header leaves it; the
        // page tree is only found by rebuilding the table (no page at all before).
        {"page tree left out of the table",
         PdfFile({kCatalog, Pages("3 0 R", "1"), Page(2, 300, 400)}, 1),
         {{300, 400}}},
        // The root's /Count claims ten billion pages (the engine read it as 1410065407 and the
        // job measured for hours); the tree holds one.
        {"root count of ten billion",
         PdfFile({kCatalog, Pages("3 0 R", "9999999999"), Page(2, 200, 100)}),
         {{200, 100}}},
        // A negative count hid both pages.
        {"negative root count",
         PdfFile({kCatalog, Pages("3 0 R 4 0 R", "-3"), Page(2, 100, 200), Page(2, 300, 400)}),
         {{100, 200}, {300, 400}}},
        // An inner node that says it holds one page of its two: the second page was found in
        // the third's place and the third not at all.
        {"inner count too small",
         PdfFile({kCatalog, Pages("3 0 R 6 0 R", "3"),
                  "<< /Type /Pages /Parent 2 0 R /Kids [4 0 R 5 0 R] /Count 1 >>",
                  Page(3, 100, 100), Page(3, 200, 200), Page(2, 300, 300)}),
         {{100, 100}, {200, 200}, {300, 300}}},
        // One node under the root twice: its page is there twice, counted once per place.
        {"shared inner node",
         PdfFile({kCatalog, Pages("3 0 R 3 0 R", "7"),
                  "<< /Type /Pages /Parent 2 0 R /Kids [4 0 R] /Count 1 >>", Page(3, 150, 250)}),
         {{150, 250}, {150, 250}}},
        // An empty name before a number: the engine's writer glued them into the name "/7", so
        // the saved page tree no longer read and the saved document had no page.
        {"empty name before a number",
         PdfFile({kCatalog, "<< /Type /Pages / 7 /Kids [3 0 R] /Count 1 >>", Page(2, 250, 350)}),
         {{250, 350}}},
        // The counts are corrected when the document opens; drawing then loads the font, which is
        // not where the table says, and the engine rebuilds the table and reads the root's
        // /Count of five again: the document lost its pages' count halfway through the job.
        {"count read again by a rebuild",
         PdfFile({kCatalog, Pages("3 0 R 4 0 R", "5"), TextPage(300, 300, 5), Page(2, 400, 400),
                  kHello, kHelvetica},
                 -1, 6),
         {{300, 300}, {400, 400}}},
        // Drawing loads the font, which is not where the table says, so the engine rebuilds the
        // table; the rebuild gives up at the last object, whose string runs to the end of the
        // file, and leaves the document without any object. The steps after that saved an empty
        // document over the file and appended no page while reporting success.
        {"rebuild that fails halfway",
         PdfFile({kCatalog, Pages("3 0 R", "1"), TextPage(400, 500), kHello, kHelvetica,
                  "<< /Damaged (text >>"},
                 -1, 5),
         {{400, 500}},
         {"draw: done: 1 pages\n",
          "append: refused: Cannot append the pages: cannot import the pages: " + no_catalog +
              " (0x8000FFFF)\n",
          "save: refused: cannot write the document: " + no_catalog + " (0x80004005)\n"}},
        // The same with an object that only saving reads: the rebuild fails while the document is
        // written, and what was written must not replace the file.
        {"rebuild that fails while saving",
         PdfFile({kCatalog, Pages("3 0 R", "1"), Page(2, 400, 500), "<< /Unused true >>",
                  "<< /Damaged (text >>"},
                 -1, 4),
         {{400, 500}},
         {"save: refused: cannot write the document: " + no_catalog + " (0x80004005)\n"}},
        // The split reads the file on its own. When its walk of the page tree meets a page that
        // is not an object of its own, it falls back on the engine's count and lookup, and so on
        // the root's /Count: a count that is not a number hid both pages from it.
        {"page tree count that is no number",
         PdfFile({kCatalog, Pages("3 0 R " + Page(2, 100, 100), "/Two"), TextPage(200, 200),
                  PdfStream("", "BT /F1 12 Tf 72 100 Td (@@nd@@) Tj ET"), kHelvetica}),
         {{200, 200}, {100, 100}},
         {},
         2},
    };
    const stdfs::path scratch = test::ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path dir = scratch / c.name, file = dir / "document.pdf";
        stdfs::create_directories(dir);
        test::WriteBytes(file, c.pdf);

        // The count and sizes in this process; the job's process counts the same way.
        CZPdfContentObject object;
        std::vector<std::pair<double, double>> sizes;
        std::int32_t pages = 0;
        EXPECT_EQ(SetFile(object, file), hr::kOk);
        EXPECT_EQ(object.PageCount(&pages), hr::kOk) << object.LastErrorText();
        for (double w = 0, h = 0; std::ssize(sizes) < pages; sizes.emplace_back(w, h))
            EXPECT_EQ(object.GetPageSize(std::ssize(sizes) + 1, &w, &h), hr::kOk);
        EXPECT_EQ(sizes, c.pages);
        std::int32_t parts = 0;
        EXPECT_TRUE(c.parts == 0 ||
                    (object.SplitPdf(FromPath(file), FromPath(dir / "part"), &parts) == hr::kOk &&
                     parts == c.parts))
            << parts << object.LastErrorText();

        const test::ToolResult job =
            test::Run("timeout -k 5 60 " + std::string(ZPDF_CORPUS_JOB) + " " + test::Quote(file) +
                      " " + test::Quote(dir / "job") + " 2>/dev/null");
        EXPECT_EQ(job.exit_code, 0) << job.output;
        EXPECT_TRUE(!c.job_lines.empty() || job.output.find(": refused") == std::string::npos)
            << job.output;
        for (const std::string& line : c.job_lines)
            EXPECT_NE(job.output.find(line), std::string::npos) << line << job.output;
    }
}

// Two documents whose pages use a font dictionary of the same words, written inside the page:
// a Type 3 font whose one glyph is a square in the first document and nothing in the second.
// The engine's store compared such dictionaries across documents by their words, so the second
// document was drawn with the first one's glyphs; on the way the comparison looked the second
// document's object number up in the first document's table, past its end (valgrind: invalid
// write in the table's index). Each document now keeps its own store.
TEST(CorpusRegression, DocumentsDoNotShareFontsOfTheSameWords) {
    const stdfs::path dir = test::ScratchDir();
    // Drawn at 72 dpi, the square covers device pixels 50 to 150 of the 200 x 200 page.
    const auto centre_of = [&](const std::string& name, const std::string& glyph,
                               CZPdfContentObject& object) {
        const std::string font =
            "/Type /Font /Subtype /Type3 /FontBBox [0 0 1000 1000] /FontMatrix [0.001 0 0 0.001 0 "
            "0] /CharProcs 5 0 R /Encoding << /Type /Encoding /Differences [65 /A] >> /FirstChar "
            "65 /LastChar 65 /Widths [1000]";
        test::WriteBytes(
            dir / name,
            PdfFile({kCatalog, Pages("3 0 R", "1"),
                     Page(2, 200, 200,
                          "/Contents 4 0 R /Resources << /Font << /F1 << " + font + " >> >> >>"),
                     PdfStream("", "BT /F1 100 Tf 50 50 Td (A) Tj ET"), "<< /A 6 0 R >>",
                     PdfStream("", glyph)}));
        EXPECT_EQ(SetFile(object, dir / name), hr::kOk);
        return DrawnPixel(object, 200, 100, 100);
    };
    CZPdfContentObject first, second;
    EXPECT_EQ(centre_of("square.pdf", "1000 0 0 0 1000 1000 d1 0 0 1000 1000 re f", first), 0);
    EXPECT_EQ(centre_of("blank.pdf", "1000 0 d0", second), 255);
}

}  // namespace
}  // namespace zpdf
