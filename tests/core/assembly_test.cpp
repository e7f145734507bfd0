// Stamping and page assembly, checked by independent readers (qpdf, pdftotext, pdfinfo) and by
// pixels.
#include <gtest/gtest.h>

#include <sstream>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "content_object/page_range.h"
#include "content_object/pdf_additions/page_content.h"
#include "core/open_object.h"
#include "platform/raster.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using samples::SamplePage;

stdfs::path Sample(const stdfs::path& path, const std::vector<SamplePage>& pages) {
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(pages)));
    return path;
}

SamplePage Labelled(const std::string& label) {
    SamplePage page;
    page.content = samples::TextContent({label}, page.height);
    return page;
}

std::int32_t Pages(CZPdfContentObject& object) {
    std::int32_t pages = -1;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk);
    return pages;
}

std::vector<std::string> PageTexts(const stdfs::path& file) {
    return test::PdfPageTexts(file);
}

// The object numbers of page `page`'s content streams, as qpdf lists them.
std::vector<int> ContentStreams(const stdfs::path& file, int page) {
    const std::string shown = test::Run("qpdf --show-pages " + test::Quote(file)).output;
    std::vector<int> streams;
    const std::string head = "page " + std::to_string(page) + ":";
    std::size_t at = shown.find(head);
    if (at == std::string::npos) return streams;
    std::istringstream lines(shown.substr(at));
    std::string line;
    std::getline(lines, line);
    bool in_content = false;
    while (std::getline(lines, line) && line.rfind("page ", 0) != 0) {
        if (line.find("content:") != std::string::npos) {
            in_content = true;
        } else if (in_content) {
            // An indented "N 0 R" line lists one stream; anything else ends the list.
            std::istringstream fields(line);
            int number = 0;
            int generation = -1;
            std::string r;
            const bool indented = !line.empty() && (line[0] == ' ' || line[0] == '\t');
            if (indented && (fields >> number >> generation >> r) && generation == 0 && r == "R") {
                streams.push_back(number);
            } else {
                in_content = false;
            }
        }
    }
    return streams;
}

std::string StreamData(const stdfs::path& file, int object) {
    return test::Run("qpdf --show-object=" + std::to_string(object) + " --filtered-stream-data " +
                     test::Quote(file))
        .output;
}

std::string ShowObject(const stdfs::path& file, int object) {
    return test::Run("qpdf --show-object=" + std::to_string(object) + " " + test::Quote(file))
        .output;
}

TEST(PageRange, Table) {
    const struct {
        const char* text;
        int pages;
        std::optional<std::vector<int>> expected;
    } cases[] = {
        {"1", 3, std::vector<int>{0}},
        {"3-5", 5, std::vector<int>{2, 3, 4}},
        {"1,3, 2", 3, std::vector<int>{0, 2, 1}},
        {" 2 - 3 ", 3, std::vector<int>{1, 2}},
        {"2-2", 2, std::vector<int>{1}},
        {"0", 3, std::nullopt},
        {"4", 3, std::nullopt},
        {"3-2", 3, std::nullopt},
        {"-1-2", 3, std::nullopt},
        {"1-", 3, std::nullopt},
        {"", 3, std::nullopt},
        {"1,,2", 3, std::nullopt},
        {"a", 3, std::nullopt},
        {"99999999999", 3, std::nullopt},
        {"1-2-3", 3, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(ParsePageRange(c.text, c.pages), c.expected) << c.text;
    EXPECT_EQ(PageRangeText(3, 5), "3-5");
    EXPECT_EQ(PageRangeText(-2, 1), "-2-1");
}

TEST(Placement, OperatorBytes) {
    EXPECT_EQ(additions::FormatPlacement({0.5, 0, 0, 0.5, 100, 200}, "FXX1"),
              "q 0.500000 0.000000 0.000000 0.500000 100.000000 200.000000 cm /FXX1 Do Q\n");
    EXPECT_EQ(additions::FormatPlacement({1, 0, 0, -1.25, -3, 1e6}, "FXX12"),
              "q 1.000000 0.000000 0.000000 -1.250000 -3.000000 1000000.000000 cm /FXX12 Do Q\n");
}

TEST(Import, FormsPerSourcePageAndTheDocumentKeepsItsPages) {
    const stdfs::path dir = test::ScratchDir();
    SamplePage two_streams = Labelled("unused");
    SamplePage empty;
    const stdfs::path source =
        Sample(dir / "source.pdf", {Labelled("first"), empty, Labelled("third")});
    const stdfs::path target =
        Sample(dir / "target.pdf",
               {Labelled("t1"), Labelled("t2"), Labelled("t3"), Labelled("t4"), Labelled("t5")});
    CZPdfContentObject src;
    CZPdfContentObject dst;
    test::OpenQuietly(src, source);
    test::OpenQuietly(dst, target);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(dst.ImportContent(&src, &ids), hr::kOk) << dst.LastErrorText();
    ASSERT_EQ(ids.size(), 3u);
    EXPECT_NE(ids[0], 0u);
    EXPECT_EQ(ids[1], 0u) << "a page without content makes no form";
    EXPECT_NE(ids[2], 0u);
    EXPECT_EQ(Pages(dst), 5);
    EXPECT_EQ(Pages(src), 3) << "the source is not changed";
    ASSERT_EQ(dst.Save(), hr::kOk);
    EXPECT_TRUE(test::QpdfCheckPasses(target));
    const std::string form = ShowObject(target, static_cast<int>(ids[0]));
    EXPECT_NE(form.find("/Subtype /Form"), std::string::npos) << form;
    EXPECT_NE(form.find("/BBox [ 0 0 595 842 ]"), std::string::npos) << form;
    EXPECT_NE(form.find("/Matrix [ 1 0 0 1 0 0 ]"), std::string::npos) << form;
    EXPECT_NE(StreamData(target, static_cast<int>(ids[0])).find("(first) Tj"), std::string::npos);
    const std::string info = test::Run("pdfinfo " + test::Quote(target)).output;
    EXPECT_NE(info.find("Producer:        Norvik PLEXA"), std::string::npos) << info;
}

TEST(Import, ContentArrayIsJoinedWithSpaces) {
    const stdfs::path dir = test::ScratchDir();
    // A page whose Contents is an array of two streams, made with qpdf from two sample streams.
    const std::string pdf =
        "%PDF-1.4\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] /Contents [4 0 R 5 0 R] >> "
        "endobj\n"
        "4 0 obj << /Length 12 >> stream\n0 0 10 10 re\nendstream endobj\n"
        "5 0 obj << /Length 1 >> stream\nf\nendstream endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n";
    test::WriteBytes(dir / "raw.pdf", pdf);
    ASSERT_EQ(test::Run("qpdf " + test::Quote(dir / "raw.pdf") + " " + test::Quote(dir / "two.pdf"))
                      .exit_code %
                  3,
              0);
    const stdfs::path target = Sample(dir / "target.pdf", {Labelled("t")});
    CZPdfContentObject src;
    CZPdfContentObject dst;
    test::OpenQuietly(src, dir / "two.pdf");
    test::OpenQuietly(dst, target);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(dst.ImportContent(&src, &ids), hr::kOk);
    ASSERT_EQ(dst.Save(), hr::kOk);
    EXPECT_EQ(StreamData(target, static_cast<int>(ids[0])), "0 0 10 10 re f ");
}

TEST(Import, FromItselfAndFailures) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path file = Sample(dir / "self.pdf", {Labelled("a"), Labelled("b")});
    CZPdfContentObject object;
    test::OpenQuietly(object, file);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(object.ImportContent(&object, &ids), hr::kOk);
    EXPECT_EQ(ids.size(), 2u);
    EXPECT_EQ(Pages(object), 2);

    // A source that cannot be opened: its failure, this document untouched.
    CZPdfContentObject broken;
    test::WriteBytes(dir / "broken.pdf", "garbage");
    ASSERT_EQ(broken.SetPdfDocument(FromPath(dir / "broken.pdf"), 0, u""), hr::kOk);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(object.ImportContent(&broken, &ids), hr::kUnexpected);
    EXPECT_EQ(object.AppendPages(&broken), hr::kUnexpected);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(object.ImportContent(nullptr, &ids), hr::kPointer);
    EXPECT_EQ(Pages(object), 2);
}

TEST(Place, ResourceNamesAndContentSplicing) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path letterhead = Sample(dir / "lh.pdf", {Labelled("letterhead")});
    const stdfs::path target = Sample(dir / "target.pdf", {Labelled("p1"), Labelled("p2")});
    CZPdfContentObject lh;
    CZPdfContentObject dst;
    test::OpenQuietly(lh, letterhead);
    test::OpenQuietly(dst, target);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(dst.ImportContent(&lh, &ids), hr::kOk);
    // Page 1: foreground twice (single stream, then array). Page 2: background once.
    ASSERT_EQ(dst.PlaceContent(ids[0], 1, 100, 200, 0.5f, 0.5f, 0), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(ids[0], 2, 10, 20, 1, 1, -1), hr::kOk);
    EXPECT_EQ(dst.PlaceContent(ids[0], 3, 0, 0, 1, 1, 0), hr::kInvalidArg);
    EXPECT_EQ(dst.PlaceContent(ids[0], 0, 0, 0, 1, 1, 0), hr::kInvalidArg);
    ASSERT_EQ(dst.Save(), hr::kOk);
    ASSERT_TRUE(test::QpdfCheckPasses(target));

    const std::vector<int> page1 = ContentStreams(target, 1);
    ASSERT_EQ(page1.size(), 5u) << "q, q, original, Q+draw, Q+draw";
    EXPECT_EQ(StreamData(target, page1[0]), "q\n");
    EXPECT_EQ(StreamData(target, page1[1]), "q\n");
    EXPECT_NE(StreamData(target, page1[2]).find("(p1) Tj"), std::string::npos);
    EXPECT_EQ(StreamData(target, page1[3]),
              "Q\nq 0.500000 0.000000 0.000000 0.500000 100.000000 200.000000 cm /FXX1 Do Q\n");
    EXPECT_EQ(StreamData(target, page1[4]),
              "Q\nq 1.000000 0.000000 0.000000 1.000000 0.000000 0.000000 cm /FXX2 Do Q\n");

    const std::vector<int> page2 = ContentStreams(target, 2);
    ASSERT_EQ(page2.size(), 2u) << "background adds one stream in front";
    EXPECT_EQ(StreamData(target, page2[0]),
              "q 1.000000 0.000000 0.000000 1.000000 10.000000 20.000000 cm /FXX1 Do Q\n");
    EXPECT_NE(StreamData(target, page2[1]).find("(p2) Tj"), std::string::npos);
    // Text drawn at one place comes out in any order: count the stamps instead.
    const std::vector<std::string> texts = PageTexts(target);
    ASSERT_EQ(texts.size(), 2u);
    const auto stamps = [](const std::string& text) {
        std::size_t count = 0;
        for (std::size_t at = text.find("letterhead"); at != std::string::npos;
             at = text.find("letterhead", at + 1))
            ++count;
        return count;
    };
    EXPECT_EQ(stamps(texts[0]), 2u);
    EXPECT_NE(texts[0].find("p1"), std::string::npos);
    EXPECT_EQ(stamps(texts[1]), 1u);
    EXPECT_NE(texts[1].find("p2"), std::string::npos);
}

// Placements address pages as they are now: after a replacement that keeps the page count and
// after an append, a page number names the page that stands there, not the one before.
TEST(Place, FollowsThePagesAfterAssembly) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path letterhead = Sample(dir / "lh.pdf", {Labelled("letterhead")});
    const stdfs::path source =
        Sample(dir / "source.pdf", {Labelled("s1"), Labelled("s2"), Labelled("s3")});
    const stdfs::path target =
        Sample(dir / "target.pdf", {Labelled("d1"), Labelled("d2"), Labelled("d3")});
    CZPdfContentObject lh;
    CZPdfContentObject src;
    CZPdfContentObject dst;
    test::OpenQuietly(lh, letterhead);
    test::OpenQuietly(src, source);
    test::OpenQuietly(dst, target);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(dst.ImportContent(&lh, &ids), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);  // on d1, replaced next
    ASSERT_EQ(dst.ReplacePages(1, &src, 3, 3), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);
    ASSERT_EQ(dst.AppendPages(&src), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(ids[0], 5, 0, 0, 1, 1, -1), hr::kOk);
    ASSERT_EQ(dst.Save(), hr::kOk);
    ASSERT_TRUE(test::QpdfCheckPasses(target));

    const std::vector<std::string> texts = PageTexts(target);
    const std::vector<std::string> labels{"s3", "d2", "d3", "s1", "s2", "s3"};
    ASSERT_EQ(texts.size(), labels.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        SCOPED_TRACE("page " + std::to_string(i + 1));
        EXPECT_NE(texts[i].find(labels[i]), std::string::npos) << texts[i];
        const bool stamped = i == 0 || i == 4;
        EXPECT_EQ(texts[i].find("letterhead") != std::string::npos, stamped) << texts[i];
    }
}

// Long documents: while a few hundred pages are measured, stamped or copied, the engine lets go
// of the objects it parsed from the file, and the same content placed on many pages is one
// stream. Every change must survive both, and different content must not be shared.
TEST(Place, LongDocumentsKeepEveryChange) {
    constexpr int kPages = 600;
    const struct {
        const char* name;
        bool measure_first;  // measure every page before stamping
        bool append_self;    // append the document to itself before stamping
        int every;           // stamp every n-th page
        bool two_positions;  // odd and even pages get the form at different places
    } cases[] = {
        {"stamp every page", false, false, 1, false},
        {"measure, then stamp every other page", true, false, 2, false},
        {"append to itself, then stamp", false, true, 1, false},
        {"two positions", false, false, 1, true},
    };
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path letterhead = Sample(dir / "lh.pdf", {Labelled("letterhead")});
    std::vector<SamplePage> pages;
    for (int i = 1; i <= kPages; ++i) pages.push_back(Labelled("p" + std::to_string(i) + "x"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = Sample(dir / "long.pdf", pages);
        CZPdfContentObject lh;
        CZPdfContentObject dst;
        test::OpenQuietly(lh, letterhead);
        test::OpenQuietly(dst, target);
        if (c.append_self) {
            ASSERT_EQ(dst.AppendPages(&dst), hr::kOk);
        }
        const int total = Pages(dst);
        ASSERT_EQ(total, c.append_self ? 2 * kPages : kPages);
        if (c.measure_first) {
            for (int page = 1; page <= total; ++page) {
                double width = 0;
                double height = 0;
                ASSERT_EQ(dst.GetPageSize(page, &width, &height), hr::kOk);
                ASSERT_GT(width, 0);
            }
        }
        std::vector<std::uint32_t> ids;
        ASSERT_EQ(dst.ImportContent(&lh, &ids), hr::kOk);
        for (int page = 1; page <= total; page += c.every) {
            const float x = c.two_positions && page % 2 == 0 ? 20.0F : 0.0F;
            ASSERT_EQ(dst.PlaceContent(ids[0], page, x, 0, 1, 1, -1), hr::kOk);
        }
        ASSERT_EQ(dst.Save(), hr::kOk);
        ASSERT_TRUE(test::QpdfCheckPasses(target));

        const std::vector<std::string> texts = PageTexts(target);
        ASSERT_EQ(static_cast<int>(texts.size()), total);
        int wrong = 0;
        for (int i = 0; i < total; ++i) {
            const std::string label = "p" + std::to_string(i % kPages + 1) + "x";
            const bool stamped = i % c.every == 0;
            if (texts[i].find(label) == std::string::npos ||
                (texts[i].find("letterhead") != std::string::npos) != stamped) {
                ADD_FAILURE() << "page " << i + 1 << ": " << texts[i];
                if (++wrong > 5) break;
            }
        }
        // Beneath the page content, the form is drawn by the first stream of a stamped page.
        // The last page stamped as page 1 was.
        int last = total;
        while ((last - 1) % c.every != 0 || (c.two_positions && last % 2 == 0)) --last;
        const int first_stream = ContentStreams(target, 1).at(0);
        EXPECT_EQ(ContentStreams(target, last).at(0), first_stream);
        if (c.two_positions) {
            EXPECT_NE(ContentStreams(target, 2).at(0), first_stream);
        }
    }
}

TEST(Place, TakenNamesAreSkipped) {
    const stdfs::path dir = test::ScratchDir();
    SamplePage page = Labelled("p");
    page.extra_entries = "";
    const stdfs::path target = Sample(dir / "target.pdf", {page});
    CZPdfContentObject dst;
    test::OpenQuietly(dst, target);
    // Give the page an XObject called FXX1 first, then expect the next free name.
    EXPECT_EQ(additions::AddXObjectResource(dst.EngineDocument(), 0, 3, "XObject"), "FXX1");
    EXPECT_EQ(additions::AddXObjectResource(dst.EngineDocument(), 0, 3, "XObject"), "FXX2");
}

// Pixels: a letterhead with an opaque black block; the page paints an opaque white block over
// the left half of where it lands.
class StampPixels : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = test::ScratchDir();
        letterhead_ = Sample(dir_ / "lh.pdf",
                             {SamplePage{100, 100, 0, samples::FilledRect(0, 0, 100, 100, 0), ""}});
        page_ = SamplePage{200, 300, 0, samples::FilledRect(50, 60, 25, 50, 1), ""};
    }
    // Stamps at (50,60) scale 0.5 and draws the page at 72 dpi.
    RasterDeviceContext StampAndDraw(VariantBool background, const SamplePage& page) {
        const stdfs::path target = Sample(dir_ / "target.pdf", {page});
        CZPdfContentObject lh;
        CZPdfContentObject dst;
        test::OpenQuietly(lh, letterhead_);
        test::OpenQuietly(dst, target);
        std::vector<std::uint32_t> ids;
        EXPECT_EQ(dst.ImportContent(&lh, &ids), hr::kOk);
        EXPECT_EQ(dst.PlaceContent(ids[0], 1, 50, 60, 0.5f, 0.5f, background), hr::kOk);
        EXPECT_EQ(dst.Save(), hr::kOk);
        EXPECT_TRUE(test::QpdfCheckPasses(target));
        CZPdfContentObject check;
        test::OpenQuietly(check, target);
        RasterDeviceContext dc(200, 300);
        EXPECT_EQ(check.DrawPageToDC(dc, 1, 0, 0, 200, 300, 0, 0, 0, 0, 0), hr::kOk);
        return dc;
    }
    static bool Dark(const RasterDeviceContext& dc, int x, int y) { return dc.Pixel(x, y)[1] < 64; }
    stdfs::path dir_;
    stdfs::path letterhead_;
    SamplePage page_;
};

TEST_F(StampPixels, BackgroundIsHiddenByThePageForegroundIsNot) {
    // The block lands on x 50..100, y (down) 190..240; the page's white block covers x 50..75.
    const RasterDeviceContext back = StampAndDraw(-1, page_);
    EXPECT_FALSE(Dark(back, 60, 215)) << "beneath the page's white block";
    EXPECT_TRUE(Dark(back, 90, 215));
    const RasterDeviceContext front = StampAndDraw(0, page_);
    EXPECT_TRUE(Dark(front, 60, 215));
    EXPECT_TRUE(Dark(front, 90, 215));
    for (const RasterDeviceContext* dc : {&back, &front}) {
        EXPECT_FALSE(Dark(*dc, 45, 215)) << "left of the block";
        EXPECT_FALSE(Dark(*dc, 105, 215)) << "right of the block";
        EXPECT_FALSE(Dark(*dc, 90, 185)) << "above the block";
        EXPECT_FALSE(Dark(*dc, 90, 245)) << "below the block";
    }
}

// A rotated source page, stamped at the origin at natural size on a page of its shown size,
// looks exactly as the source page itself is drawn.
TEST(StampRotation, FormsKeepThePageOrientation) {
    const stdfs::path dir = test::ScratchDir();
    for (const int rotate : {90, 180, 270}) {
        SCOPED_TRACE(rotate);
        // A mark in one corner of a 200 x 100 page tells the orientation.
        const SamplePage source_page{200, 100, rotate, samples::FilledRect(0, 0, 40, 20, 0), ""};
        const stdfs::path source = Sample(dir / "rotated.pdf", {source_page});
        const bool sideways = rotate != 180;
        const int w = sideways ? 100 : 200;
        const int h = sideways ? 200 : 100;
        const stdfs::path target =
            Sample(dir / "target.pdf",
                   {SamplePage{static_cast<double>(w), static_cast<double>(h), 0, "0 g\n", ""}});

        CZPdfContentObject src;
        CZPdfContentObject dst;
        test::OpenQuietly(src, source);
        test::OpenQuietly(dst, target);
        std::vector<std::uint32_t> ids;
        ASSERT_EQ(dst.ImportContent(&src, &ids), hr::kOk);
        ASSERT_EQ(dst.PlaceContent(ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);
        ASSERT_EQ(dst.Save(), hr::kOk);

        CZPdfContentObject stamped;
        test::OpenQuietly(stamped, target);
        RasterDeviceContext expected(w, h);
        RasterDeviceContext actual(w, h);
        ASSERT_EQ(src.DrawPageToDC(expected, 1, 0, 0, w, h, 0, 0, 0, 0, 0), hr::kOk);
        ASSERT_EQ(stamped.DrawPageToDC(actual, 1, 0, 0, w, h, 0, 0, 0, 0, 0), hr::kOk);
        int differing = 0;
        int dark = 0;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                differing += std::abs(expected.Pixel(x, y)[1] - actual.Pixel(x, y)[1]) > 64;
                dark += expected.Pixel(x, y)[1] < 64;
            }
        }
        EXPECT_GT(dark, 700) << "the mark is drawn";
        EXPECT_LT(differing, 10);
    }
}

TEST(Assembly, AppendAndReplaceTable) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path source =
        Sample(dir / "source.pdf", {Labelled("s1"), Labelled("s2"), Labelled("s3")});
    struct Case {
        const char* name;
        int dest_pages;
        bool append;
        std::int32_t dest, start, end;
        HResult result;
        std::vector<std::string> pages;
    } cases[] = {
        {"append", 3, true, 0, 0, 0, hr::kOk, {"d1", "d2", "d3", "s1", "s2", "s3"}},
        {"replace middle", 4, false, 2, 1, 2, hr::kOk, {"d1", "s1", "s2", "d4"}},
        {"replace last, deletions run off the end",
         4,
         false,
         4,
         1,
         3,
         hr::kOk,
         {"d1", "d2", "d3", "s1", "s2", "s3"}},
        {"replace first by third", 3, false, 1, 3, 3, hr::kOk, {"s3", "d2", "d3"}},
        {"insert just past the end", 2, false, 3, 2, 2, hr::kOk, {"d1", "d2", "s2"}},
        {"reversed range", 3, false, 1, 2, 1, hr::kUnexpected, {"d1", "d2", "d3"}},
        {"range past the source", 3, false, 1, 2, 4, hr::kUnexpected, {"d1", "d2", "d3"}},
        {"page zero", 3, false, 1, 0, 1, hr::kUnexpected, {"d1", "d2", "d3"}},
        {"destination zero", 3, false, 0, 1, 1, hr::kUnexpected, {"d1", "d2", "d3"}},
        {"destination far past the end", 3, false, 9, 1, 1, hr::kUnexpected, {"d1", "d2", "d3"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<SamplePage> pages;
        for (int i = 1; i <= c.dest_pages; ++i) pages.push_back(Labelled("d" + std::to_string(i)));
        const stdfs::path target = Sample(dir / "target.pdf", pages);
        CZPdfContentObject src;
        CZPdfContentObject dst;
        ASSERT_EQ(src.SetPdfDocument(FromPath(source), 0, u""), hr::kOk);
        ASSERT_EQ(dst.SetPdfDocument(FromPath(target), 0, u""), hr::kOk);
        ::testing::internal::CaptureStderr();
        const HResult result =
            c.append ? dst.AppendPages(&src) : dst.ReplacePages(c.dest, &src, c.start, c.end);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(result, c.result) << dst.LastErrorText();
        EXPECT_EQ(Pages(dst), static_cast<std::int32_t>(c.pages.size()));
        ASSERT_EQ(dst.Save(), hr::kOk);
        EXPECT_TRUE(test::QpdfCheckPasses(target));
        EXPECT_EQ(PageTexts(target), c.pages);
    }
}

TEST(Overlay, NotImplementedAndNothingChanges) {
    const stdfs::path file = Sample(test::ScratchDir() / "doc.pdf", {Labelled("x")});
    for (const bool with_document : {false, true}) {
        CZPdfContentObject object;
        if (with_document) test::OpenQuietly(object, file);
        EXPECT_EQ(object.OverlayPrepare(u"whatever.pdf"), hr::kNotImpl);
        EXPECT_EQ(object.OverlayPage(1, 1, 0, 0, 10, 10), hr::kNotImpl);
        EXPECT_EQ(object.OverlayPage2(1, 1, 0, 0, 10, 10, 1), hr::kNotImpl);
        EXPECT_EQ(object.OverlayFinish(), hr::kNotImpl);
        EXPECT_EQ(Pages(object), with_document ? 1 : 0);
    }
}

}  // namespace
}  // namespace zpdf
