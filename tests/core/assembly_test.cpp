// Stamping and page assembly, checked by independent readers (qpdf, pdftotext, pdfinfo) and by
// pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <functional>
#include <limits>
#include <numeric>
#include <set>
#include <sstream>

#include "core/open_object.h"
#include "engine/page_operations.h"
#include "platform/raster.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

// The text of each page without white space, a '*' for every "letterhead" in it instead of the
// word, the pages separated by a space: "d1** d2" is page d1 stamped twice, then page d2.
std::string Stamped(const Path& file) {
    std::string pages;
    for (std::string text : PdfPageTexts(file)) {
        std::size_t stamps = 0;
        for (std::size_t at; (at = text.find("letterhead")) != std::string::npos; ++stamps)
            text.erase(at, 10);
        std::erase_if(text, [](unsigned char c) { return std::isspace(c) != 0; });
        pages += text.append(stamps, '*') + ' ';
    }
    if (!pages.empty()) pages.pop_back();
    return pages;
}
// The number of pages in a text as Stamped gives it.
std::int32_t PageCount(const std::string& pages) {
    return static_cast<std::int32_t>(std::count(pages.begin(), pages.end(), ' ') + 1);
}

// Makes forms of the pages of `source` in `object`; the identifier of the first.
std::uint32_t FirstForm(Obj& object, const Path& source) {
    Obj src;
    OpenQuietly(src, source);
    std::vector<std::uint32_t> ids;
    EXPECT_EQ(object.ImportContent(&src, &ids), hr::kOk) << object.LastErrorText();
    return ids.at(0);
}
std::uint32_t Letterhead(Obj& object, const Path& dir) {
    return FirstForm(object, LabelledPdf(dir / "lh.pdf", {"letterhead"}));
}

// Page 1 drawn at 72 dpi: which pixels are dark.
std::vector<bool> Ink(Obj& object, int width, int height) {
    RasterDeviceContext dc(width, height);
    EXPECT_EQ(object.DrawPageToDC(dc, 1, 0, 0, width, height, 0, 0, 0, 0, 0), hr::kOk);
    std::vector<bool> ink;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) ink.push_back(dc.Pixel(x, y)[1] < 128);
    return ink;
}

std::string Qpdf(const std::string& arguments, const Path& file) {
    return Run("qpdf " + arguments + " " + Quote(file)).output;
}
std::string StreamData(const Path& file, int object) {
    return Qpdf("--filtered-stream-data --show-object=" + std::to_string(object), file);
}

// The object numbers of each page's content streams, as qpdf lists them (the only indented
// lists without images asked for).
std::vector<std::vector<int>> ContentStreams(const Path& file) {
    std::istringstream listing(Qpdf("--show-pages", file));
    std::vector<std::vector<int>> pages;
    for (std::string line; std::getline(listing, line);) {
        if (line.rfind("page ", 0) == 0) pages.emplace_back();
        if (line.rfind("    ", 0) == 0) pages.back().push_back(std::stoi(line));
    }
    return pages;
}

const std::string kHelvetica = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>";
std::string Page(const std::string& entries) {
    return "<< /Type /Page /Parent 2 0 R " + entries + " >>";
}

// Four pages inheriting a box and resources, a font and a form /FXX1 that shows "inherited":
// content in an array of two streams (object 8, which page 3 draws too), no content, and text
// that draws the form in one stream (object 7).
Path ShapesPdf(const Path& path) {
    const std::string resources = "/Resources << /Font << /F1 11 0 R >>";
    WriteBytes(
        path,
        samples::PdfFromObjects(
            {"<< /Type /Catalog /Pages 2 0 R >>",
             "<< /Type /Pages /Kids [3 0 R 4 0 R 5 0 R 6 0 R] /Count 4 /MediaBox [0 "
             "0 595 842] " +
                 resources + " /XObject << /FXX1 12 0 R >> >> >>",
             Page("/Contents 8 0 R"), Page(""), Page("/Contents 8 0 R"), Page("/Contents 7 0 R"),
             PdfStream("", "BT /F1 12 Tf 72 700 Td (first) Tj ET /FXX1 Do"), "[9 0 R 10 0 R]",
             PdfStream("", "0 0 10 10 re"), PdfStream("", "f"), kHelvetica,
             PdfStream("/Subtype /Form /BBox [0 0 595 842] " + resources + " >>",
                       "BT /F1 12 Tf 72 600 Td (inherited) Tj ET")}));
    return path;
}

// Five pages p1..p5 in a tree with nodes below the root: [[p1 p2] p3 [p4 [p5]]]. The root's
// resources, which the pages inherit, hold the font and a form that shows "inherited"; p3 draws
// it. `parents` gives each page's /Parent (objects 2 to 5) in the order p3, p1, p2, p4, p5.
std::string NestedTreePdf(const std::array<int, 5>& parents = {2, 3, 3, 4, 5}) {
    const std::string text = "BT /F1 12 Tf 20 100 Td (";
    std::vector<std::string> objects = {
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [3 0 R 8 0 R 4 0 R] /Count 5 /MediaBox [0 0 200 200] /Resources "
        "<< /Font << /F1 6 0 R >> /XObject << /X 7 0 R >> >> >>",
        "<< /Type /Pages /Parent 2 0 R /Kids [9 0 R 10 0 R] /Count 2 >>",
        "<< /Type /Pages /Parent 2 0 R /Kids [11 0 R 5 0 R] /Count 2 >>",
        "<< /Type /Pages /Parent 4 0 R /Kids [12 0 R] /Count 1 >>",
        kHelvetica,
        PdfStream("/Subtype /Form /BBox [0 0 200 200] /Resources << /Font << /F1 6 0 R >> >>",
                  text + "inherited) Tj ET")};
    const char* const labels[] = {"p3", "p1", "p2", "p4", "p5"};
    for (int i = 0; i < 5; ++i)
        objects.push_back("<< /Type /Page /Parent " + std::to_string(parents[i]) +
                          " 0 R /Contents " + std::to_string(13 + i) + " 0 R >>");
    for (int i = 0; i < 5; ++i)
        objects.push_back(PdfStream(
            "", text + labels[i] + ") Tj ET" + (i == 0 ? " q 1 0 0 1 0 -50 cm /X Do Q" : "")));
    return samples::PdfFromObjects(objects);
}

// Every source page becomes a form of its content, its streams joined, with its box and
// resources; a page without content makes none, and the imported pages do not stay. Placed,
// content is drawn around, never rewritten: a foreground placement wraps the page's content in
// q and Q, a background one goes in front, and an array that another page draws too is copied
// for this page. A page inheriting its resources gets its own copy with the form added under a
// name not taken yet; the others keep inheriting. Values that cannot be written into content
// ("nan", "inf", beyond 32767 either way, a scale six decimals write as zero) change nothing. The
// producer is stamped.
TEST(Place, ContentSplicingAndResourceNames) {
    const Path dir = ScratchDir();
    const Path target = ShapesPdf(dir / "shapes.pdf");
    Obj dst, src, broken;
    OpenQuietly(dst, target);
    OpenQuietly(src, ShapesPdf(dir / "source.pdf"));
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(dst.ImportContent(&src, &ids), hr::kOk);
    ASSERT_EQ(ids.size(), 4u);
    EXPECT_EQ(ids[1], 0u);
    ASSERT_EQ(dst.PlaceContent(ids[3], 2, 0, 0, 1, 1, 0), hr::kOk);
    const std::uint32_t form = Letterhead(dst, dir);
    ASSERT_EQ(dst.PlaceContent(form, 4, 100, 200, 0.5f, 0.5f, 0), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(form, 4, 0, 0, 1, 1, 0), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(form, 1, -10, 20, 1, 1, -1), hr::kOk);
    EXPECT_EQ(dst.PlaceContent(form, 0, 0, 0, 1, 1, 0), hr::kInvalidArg);
    EXPECT_EQ(dst.PlaceContent(form, 5, 0, 0, 1, 1, 0), hr::kInvalidArg);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const std::array<float, 4> unwritable[] = {{32768, 0, 1, 1}, {0, inf, 1, 1},   {0, 0, -inf, 1},
                                               {0, 0, 1, nan},   {0, 0, 1e-7f, 1}, {0, 0, 1, 0}};
    for (const auto& [tx, ty, sx, sy] : unwritable)
        EXPECT_EQ(dst.PlaceContent(form, 4, tx, ty, sx, sy, 0), hr::kInvalidArg) << tx << sy;
    EXPECT_FALSE(PlacementValueProblem(-32767, 32767, -32767, 0.000001f).has_value());
    ASSERT_EQ(dst.Save(), hr::kOk);
    EXPECT_EQ(Stamped(target), "* firstinherited  firstinherited**");

    const std::vector<std::vector<int>> streams = ContentStreams(target);
    ASSERT_EQ(streams.size(), 4u);
    std::string drawn;
    for (const int stream : streams[3]) drawn += StreamData(target, stream) + "|";
    EXPECT_EQ(drawn,
              "q\n|q\n|BT /F1 12 Tf 72 700 Td (first) Tj ET /FXX1 Do|"
              "Q\nq 0.500000 0.000000 0.000000 0.500000 100.000000 200.000000 cm /FXX2 Do Q\n|"
              "Q\nq 1.000000 0.000000 0.000000 1.000000 0.000000 0.000000 cm /FXX3 Do Q\n|");
    EXPECT_EQ(Qpdf("--show-object=2", target).find("/FXX2"), std::string::npos);
    EXPECT_EQ(StreamData(target, ids[0]), "0 0 10 10 re f ");
    EXPECT_NE(test::Run("pdfinfo " + Quote(target)).output.find(engine::kProducer),
              std::string::npos);

    // From a source that cannot be opened, or none: the document keeps its pages.
    WriteBytes(dir / "broken.pdf", "garbage");
    ASSERT_EQ(broken.SetPdfDocument(FromPath(dir / "broken.pdf"), 0, u""), hr::kOk);
    EXPECT_EQ(Quiet([&] { return src.AppendPages(&broken); }), hr::kUnexpected);
    EXPECT_EQ(src.ImportContent(nullptr, &ids), hr::kPointer);
    EXPECT_EQ(Pages(src), 4);
}

// Long documents: while a thousand pages are measured, stamped or copied, the engine lets go of
// the objects it parsed from the file, and the same content placed on many pages is one stream.
// Every change must survive both, and different content must not be shared.
TEST(Place, LongDocumentsKeepEveryChange) {
    const Path dir = ScratchDir();
    const Path target = LabelledPdf(dir / "long.pdf", Labels("p", 600));
    Obj dst;
    OpenQuietly(dst, target);
    ASSERT_EQ(dst.AppendPages(&dst), hr::kOk);
    // Odd and even pages get the form at different places.
    const std::uint32_t form = Letterhead(dst, dir);
    std::string expected;
    for (int page = 1; page <= 1200; ++page) {
        ASSERT_EQ(PageSize(dst, page), Size(595, 842));
        ASSERT_EQ(dst.PlaceContent(form, page, page % 2 * 20.0F, 0, 1, 1, -1), hr::kOk);
        expected += "p" + std::to_string((page - 1) % 600 + 1) + "* ";
    }
    ASSERT_EQ(dst.Save(), hr::kOk);
    EXPECT_EQ(Stamped(target) + " ", expected);
    // The stream that draws the form beneath a page's content: one for each place.
    const std::vector<std::vector<int>> streams = ContentStreams(target);
    ASSERT_EQ(streams.size(), 1200u);
    std::set<std::pair<int, int>> placed;  // place, stream
    for (int page = 1; page <= 1200; ++page) placed.emplace(page % 2, streams[page - 1].at(0));
    ASSERT_EQ(placed.size(), 2u);
    EXPECT_NE(placed.begin()->second, placed.rbegin()->second);
}

// A source page turned a quarter, stamped at the origin at natural size on a page of its shown
// size, looks exactly as the source page itself is drawn. A mark in one corner of a 200 x 100
// page tells the orientation. (A quarter turn tells a turn the wrong way from the right one; the
// page matrix for each angle is the engine's.)
TEST(StampRotation, FormsKeepThePageOrientation) {
    const Path dir = ScratchDir();
    ASSERT_TRUE(samples::WriteFile(
        dir / "rotated.pdf",
        samples::BuildPdf({{200, 100, 90, samples::FilledRect(0, 0, 40, 20), ""}})));
    ASSERT_TRUE(
        samples::WriteFile(dir / "target.pdf", samples::BuildPdf({{100, 200, 0, "0 g\n", ""}})));
    Obj dst, src;
    OpenQuietly(dst, dir / "target.pdf");
    ASSERT_EQ(dst.PlaceContent(FirstForm(dst, dir / "rotated.pdf"), 1, 0, 0, 1, 1, 0), hr::kOk);
    OpenQuietly(src, dir / "rotated.pdf");
    const std::vector<bool> expected = Ink(src, 100, 200), actual = Ink(dst, 100, 200);
    EXPECT_GT(std::count(expected.begin(), expected.end(), true), 700) << "the mark is drawn";
    EXPECT_LT(std::inner_product(expected.begin(), expected.end(), actual.begin(), 0, std::plus<>(),
                                 std::not_equal_to<>()),
              10);
}

// Pages appended, or put in place of others; refused: a source range the document does not have
// (ending before it starts, starting at zero, ending past the last page), destination zero and
// one past the end. The documents are opened by the call itself; a source appended is never
// opened.
TEST(Assembly, AppendAndReplaceTable) {
    const Path dir = ScratchDir();
    const Path source = LabelledPdf(dir / "source.pdf", {"s1", "s2", "s3"});
    const struct {
        int dest_pages;
        std::int32_t dest, start, end;  // dest -1: append
        std::string pages;              // empty: refused
    } cases[] = {
        {3, -1, 0, 0, "d1 d2 d3 s1 s2 s3"},
        {4, 2, 1, 2, "d1 s1 s2 d4"},
        {3, 1, 3, 3, "s3 d2 d3"},
        {2, 3, 2, 2, "d1 d2 s2"},
        {3, 1, 2, 1, ""},
        {3, 1, 0, 1, ""},
        {3, 1, 3, 4, ""},
        {3, 0, 1, 1, ""},
        {3, 5, 1, 1, ""},
    };
    for (const auto& c : cases) {
        const std::string pages = c.pages.empty() ? "d1 d2 d3" : c.pages;
        SCOPED_TRACE(pages + " from " + std::to_string(c.dest) + ", " + std::to_string(c.start));
        const Path target = LabelledPdf(dir / "target.pdf", Labels("d", c.dest_pages));
        Obj src, dst;
        ASSERT_EQ(src.SetPdfDocument(FromPath(source), 0, u""), hr::kOk);
        ASSERT_EQ(dst.SetPdfDocument(FromPath(target), 0, u""), hr::kOk);
        EXPECT_EQ(Quiet([&] {
                      return c.dest < 0 ? dst.AppendPages(&src)
                                        : dst.ReplacePages(c.dest, &src, c.start, c.end);
                  }),
                  c.pages.empty() ? hr::kUnexpected : hr::kOk);
        EXPECT_EQ(src.IsDocumentOpen(), c.dest >= 0);
        ASSERT_EQ(dst.Save(), hr::kOk);
        EXPECT_EQ(Stamped(target), pages);
    }
}

// A page deleted from a tree with nodes below the root where it names the wrong parent: the
// page found by its place is the one that goes, and the tree stays sound.
TEST(Assembly, DeletingAPageThatNamesTheWrongParent) {
    const Path target = ScratchDir() / "nested.pdf";
    WriteBytes(target, NestedTreePdf({2, 3, 3, 2, 5}));
    Obj object;
    OpenQuietly(object, target);
    engine::DeletePage(object.EngineDocument(), 3);
    ASSERT_EQ(object.Save(), hr::kOk);
    EXPECT_EQ(ReadPageTree(target).problem, "");
    EXPECT_EQ(Stamped(target), "p1 p2 p3inherited p5");
}

// The documents of one case: "d1" "d2" to change, "s1" "s2" "s3" (or `source`) to append and
// "o1" to take the result in some cases, pages of 300 x 400 points. The letterhead's text stands
// near the top of an A4 page: it is placed moved down onto them.
struct Docs {
    Docs(const Path& folder, const std::string& source) : dir(folder) {
        WriteBytes(dir / "target.pdf", LabelledBytes({"d1", "d2"}, 300, 400));
        WriteBytes(dir / "source.pdf", source);
        WriteBytes(dir / "other.pdf", LabelledBytes({"o1"}, 300, 400));
        OpenQuietly(dst, dir / "target.pdf");
        OpenQuietly(src, dir / "source.pdf");
        OpenQuietly(other, dir / "other.pdf");
    }
    HResult Append() { return dst.AppendPages(&src); }
    HResult Place(Obj& object, std::uint32_t form, std::int32_t page) {
        return object.PlaceContent(form, page, 0, -500, 1, 1, -1);
    }
    HResult Stamp(Obj& object, std::int32_t page) {
        return Place(object, Letterhead(object, dir), page);
    }

    Path dir;
    Obj dst, src, other;
};
// Whether a step succeeded, which it should.
bool Ok(HResult step) {
    EXPECT_EQ(step, hr::kOk);
    return step == hr::kOk;
}

// A source whose page tree root, object 2, has `tree`; object 3 is a page on a 200 x 200 box
// that uses object 6 as a form.
std::string DamagedSource(const std::string& tree, const std::string& sixth = "<< >>") {
    return samples::PdfFromObjects(
        {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages " + tree + " >>",
         Page("/MediaBox [0 0 200 200] /Contents 4 0 R /Resources << /Font << /F1 5 0 R >> "
              "/XObject << /X 6 0 R >> >>"),
         PdfStream("", "BT /F1 12 Tf 20 100 Td (s1) Tj ET"), kHelvetica, sixth});
}

// Placements and appends are recorded, and made as the document is written: an append reads
// the source's pages from a private copy of its file then. Whatever reads, copies or changes
// the pages before that must see them, a page number names the page that stands there now, and
// the source object stays free to change, save and close its own document. A source the
// recording cannot take is imported at once; a damaged one fails the append, never the save.
TEST(Assembly, RecordedChangesReachEveryReader) {
    const Path dir = ScratchDir();
    const TempFolderOverride tmp_override(dir);
    const std::string appended = "d1 d2 s1 s2 s3", plain = LabelledBytes(Labels("s", 3), 300, 400);
    std::string seventy = "d1 d2";
    for (const std::string& label : Labels("s", 70)) seventy += " " + label;
    // Our writer writes in clear from the objects as stored: an encrypted source is copied now.
    WriteBytes(dir / "plain.pdf", plain);
    const std::string encrypted =
        ReadBytes(QpdfEncrypt(dir / "plain.pdf", dir / "locked.pdf", "", "o", 256));
    const auto append = [](Docs& d) { return Ok(d.Append()); };
    struct Case {
        const char* name;
        std::size_t recorded;  // private copies held once `run` ran
        std::string pages;     // as Stamped reads them
        std::function<bool(Docs&)> run;
        bool in_other = false;    // the result is in `other`, else in `dst`
        std::string source = "";  // empty: `plain`
        Size last = {300, 400};   // the size of the last page
    };
    const auto inked = [](Obj& object) { return std::ranges::count(Ink(object, 75, 100), true); };
    const Case cases[] = {
        {"a placement drawn before the save", 0, "d1* d2",
         [&](Docs& d) {
             const long before = inked(d.dst);
             return Ok(d.Stamp(d.dst, 1)) && inked(d.dst) > before;
         }},
        {"a stamped page appended to another document", 0, "o1 d1* d2",
         [](Docs& d) { return Ok(d.Stamp(d.dst, 1)) && Ok(d.other.AppendPages(&d.dst)); }, true},
        {"a stamped page replaced, then pages placed on by number", 0, "o1* d2 o1*",
         [](Docs& d) {
             const std::uint32_t form = Letterhead(d.dst, d.dir);
             return Ok(d.Place(d.dst, form, 1)) && Ok(d.dst.ReplacePages(1, &d.other, 1, 1)) &&
                    Ok(d.dst.AppendPages(&d.other)) && Ok(d.Place(d.dst, form, 1)) &&
                    Ok(d.Place(d.dst, form, 3));
         }},
        {"an appended page stamped", 0, "d1 d2 s1 s2 s3*",
         [](Docs& d) {
             const std::uint32_t form = Letterhead(d.dst, d.dir);
             return Ok(d.Append()) && Ok(d.Place(d.dst, form, 5));
         }},
        {"appended, the source changed, saved and closed, appended again", 2,
         "d1 d2 s1 s2 s3 s3 s2 s3",
         [](Docs& d) {
             return Ok(d.Append()) && Ok(d.src.ReplacePages(1, &d.src, 3, 3)) && Ok(d.src.Save()) &&
                    (d.src.CloseDocuments(), true) && Ok(d.Append());
         }},
        {"an append, then a page replaced", 0, "d1 s1 s1 s2 s3",
         [](Docs& d) { return Ok(d.Append()) && Ok(d.dst.ReplacePages(2, &d.src, 1, 1)); }},
        {"an append of an encrypted source", 0, appended, append, false, encrypted},
        {"an append without a private copy", 0, appended,
         [](Docs& d) { return Ok(Failing(fs::FileOp::Create, [&d] { return d.Append(); })); }},
        {"an append of a nested tree with inherited resources and boxes", 1,
         "d1 d2 p1 p2 p3inherited p4 p5", append, false, NestedTreePdf(), Size(200, 200)},
        {"an append of more pages than a node holds", 1, seventy, append, false,
         LabelledBytes(Labels("s", 70), 300, 400)},
        {"an append of a page tree that holds itself, refused", 0, "d1 d2",
         [](Docs& d) { return d.Append() == hr::kUnexpected; }, false,
         DamagedSource("/Kids [3 0 R 2 0 R] /Count 2")},
        {"an append of an unreadable resource, copied as null", 1, "d1 d2 s1", append, false,
         DamagedSource("/Kids [3 0 R] /Count 1", "<< 12 34 >>"), Size(200, 200)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Docs d(dir, c.source.empty() ? plain : c.source);
        ASSERT_TRUE(c.run(d)) << d.dst.LastErrorText();
        EXPECT_EQ(FilesStartingWith(dir, "zpf").size(), c.recorded);
        // Counted and measured before the save, and measured after it by a new reader.
        const std::int32_t last = PageCount(c.pages);
        const Path file = dir / (c.in_other ? "other.pdf" : "target.pdf");
        Obj& saved = c.in_other ? d.other : d.dst;
        EXPECT_EQ(Pages(saved), last);
        EXPECT_EQ(PageSize(saved, last), c.last);
        ASSERT_EQ(saved.Save(), hr::kOk) << saved.LastErrorText();
        EXPECT_TRUE(FilesStartingWith(dir, "zpf").empty()) << "they go with the documents";
        Obj reopened;
        OpenQuietly(reopened, file);
        EXPECT_EQ(PageSize(reopened, last), c.last);
        ASSERT_TRUE(QpdfCheckPasses(file));
        EXPECT_EQ(Stamped(file), c.pages);
    }
}

}  // namespace
}  // namespace zpdf
