// Stamping and page assembly, checked by independent readers (qpdf, pdftotext, pdfinfo) and by
// pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <sstream>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "content_object/page_range.h"
#include "engine/page_operations.h"
#include "core/open_object.h"
#include "platform/files.h"
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

// One page of text per label.
stdfs::path LabelledPdf(const stdfs::path& path, const std::vector<std::string>& labels) {
    std::vector<SamplePage> pages(labels.size());
    for (std::size_t i = 0; i < labels.size(); ++i)
        pages[i].content = samples::TextContent({labels[i]}, pages[i].height);
    return Sample(path, pages);
}

// "<prefix>1<suffix>" up to "<prefix><count><suffix>", appended piece by piece: GCC 12 at -O2
// warns (-Wrestrict) about a literal put in front of a temporary string.
std::vector<std::string> Labels(const std::string& prefix, int count,
                                const std::string& suffix = "") {
    std::vector<std::string> labels;
    for (int i = 1; i <= count; ++i) {
        std::string label = prefix;
        label += std::to_string(i);
        label += suffix;
        labels.push_back(std::move(label));
    }
    return labels;
}

std::int32_t Pages(CZPdfContentObject& object) {
    std::int32_t pages = -1;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk);
    return pages;
}

// A destination document and a source whose pages it takes in as forms.
struct Stamping {
    CZPdfContentObject src;
    CZPdfContentObject dst;
    std::vector<std::uint32_t> ids;

    void Open(const stdfs::path& source, const stdfs::path& target, bool import = true) {
        test::OpenQuietly(src, source);
        test::OpenQuietly(dst, target);
        if (!import) return;
        ASSERT_EQ(dst.ImportContent(&src, &ids), hr::kOk) << dst.LastErrorText();
        ASSERT_FALSE(ids.empty());
    }
};

// Checks that each page of `file` shows its label and the letterhead `stamps(page index)` times;
// gives up after a few wrong pages.
void ExpectPages(const stdfs::path& file, const std::vector<std::string>& labels,
                 const std::function<std::size_t(std::size_t)>& stamps) {
    const std::vector<std::string> texts = test::PdfPageTexts(file);
    ASSERT_EQ(texts.size(), labels.size());
    int wrong = 0;
    for (std::size_t i = 0; i < texts.size() && wrong <= 5; ++i) {
        std::size_t count = 0;
        for (std::size_t at = texts[i].find("letterhead"); at != std::string::npos;
             at = texts[i].find("letterhead", at + 1))
            ++count;
        if (texts[i].find(labels[i]) == std::string::npos || count != stamps(i)) {
            ADD_FAILURE() << "page " << i + 1 << ": " << texts[i];
            ++wrong;
        }
    }
}

// The object numbers of page `page`'s content streams, as qpdf lists them.
std::vector<int> ContentStreams(const stdfs::path& file, int page) {
    const std::string json = test::Run("qpdf --json --json-key=pages " + test::Quote(file)).output;
    const std::string key = "\"contents\": [";
    std::size_t at = 0;
    for (int i = 0; i < page && at != std::string::npos; ++i) at = json.find(key, at + 1);
    std::vector<int> streams;
    if (at == std::string::npos) return streams;
    // A list of quoted references: "4 0 R", "5 0 R"
    std::string list = json.substr(at + key.size(), json.find(']', at) - at - key.size());
    std::replace_if(
        list.begin(), list.end(), [](char c) { return c == '"' || c == ','; }, ' ');
    std::istringstream references(list);
    int number = 0;
    int generation = 0;
    std::string r;
    while (references >> number >> generation >> r) streams.push_back(number);
    return streams;
}

// qpdf's view of one object: its dictionary, or with `option` "--filtered-stream-data" its data.
std::string ShowObject(const stdfs::path& file, std::uint32_t object,
                       const std::string& option = "") {
    return test::Run("qpdf --show-object=" + std::to_string(object) + " " + option + " " +
                     test::Quote(file))
        .output;
}

std::string StreamData(const stdfs::path& file, std::uint32_t object) {
    return ShowObject(file, object, "--filtered-stream-data");
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
    };
    for (const auto& c : cases) EXPECT_EQ(ParsePageRange(c.text, c.pages), c.expected) << c.text;
    for (const char* bad : {"0", "4", "3-2", "-1-2", "1-", "", "1,,2", "a", "99999999999", "1-2-3"})
        EXPECT_EQ(ParsePageRange(bad, 3), std::nullopt) << bad;
    EXPECT_EQ(PageRangeText(3, 5), "3-5");
    EXPECT_EQ(PageRangeText(-2, 1), "-2-1");
}

// Plain placements are checked in the saved streams below; here negative and large numbers.
TEST(Placement, OperatorBytes) {
    EXPECT_EQ(engine::FormatPlacement({1, 0, 0, -1.25, -3, 1e6}, "FXX12"),
              "q 1.000000 0.000000 0.000000 -1.250000 -3.000000 1000000.000000 cm /FXX12 Do Q\n");
}

// The source's pages: text in one stream, no content, and content in an array of two streams.
TEST(Import, FormsPerSourcePageAndTheDocumentKeepsItsPages) {
    const stdfs::path dir = test::ScratchDir();
    test::WriteBytes(
        dir / "raw.pdf",
        "%PDF-1.4\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R 4 0 R 5 0 R] /Count 3 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents 6 0 R >> endobj\n"
        "4 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] >> endobj\n"
        "5 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents [7 0 R 8 0 R] >> "
        "endobj\n"
        "6 0 obj << /Length 10 >> stream\n(first) Tj\nendstream endobj\n"
        "7 0 obj << /Length 12 >> stream\n0 0 10 10 re\nendstream endobj\n"
        "8 0 obj << /Length 1 >> stream\nf\nendstream endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n");
    // qpdf writes it out again with a cross-reference table (exit code 3: warnings).
    const int rewritten =
        test::Run("qpdf " + test::Quote(dir / "raw.pdf") + " " + test::Quote(dir / "source.pdf"))
            .exit_code;
    ASSERT_TRUE(rewritten == 0 || rewritten == 3) << rewritten;
    const stdfs::path target = LabelledPdf(dir / "target.pdf", Labels("t", 5));
    Stamping run;
    ASSERT_NO_FATAL_FAILURE(run.Open(dir / "source.pdf", target));
    ASSERT_EQ(run.ids.size(), 3u);
    EXPECT_NE(run.ids[0], 0u);
    EXPECT_EQ(run.ids[1], 0u) << "a page without content makes no form";
    EXPECT_NE(run.ids[2], 0u);
    EXPECT_EQ(Pages(run.dst), 5);
    EXPECT_EQ(Pages(run.src), 3) << "the source is not changed";
    ASSERT_EQ(run.dst.Save(), hr::kOk);
    EXPECT_TRUE(test::QpdfCheckPasses(target));
    const std::string form = ShowObject(target, run.ids[0]);
    for (const char* entry : {"/Subtype /Form", "/BBox [ 0 0 595 842 ]", "/Matrix [ 1 0 0 1 0 0 ]"})
        EXPECT_NE(form.find(entry), std::string::npos) << form;
    EXPECT_NE(StreamData(target, run.ids[0]).find("(first) Tj"), std::string::npos);
    EXPECT_EQ(StreamData(target, run.ids[2]), "0 0 10 10 re f ") << "the array joined with spaces";
    const std::string info = test::Run("pdfinfo " + test::Quote(target)).output;
    EXPECT_NE(info.find("Producer:        Norvik PLEXA"), std::string::npos) << info;
}

TEST(Import, FromItselfAndFailures) {
    const stdfs::path dir = test::ScratchDir();
    CZPdfContentObject object;
    test::OpenQuietly(object, LabelledPdf(dir / "self.pdf", {"a", "b"}));
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

// Placing twice on one page also shows that a resource name already taken is skipped.
TEST(Place, ResourceNamesAndContentSplicing) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path target = LabelledPdf(dir / "target.pdf", {"p1", "p2"});
    Stamping run;
    ASSERT_NO_FATAL_FAILURE(run.Open(LabelledPdf(dir / "lh.pdf", {"letterhead"}), target));
    CZPdfContentObject& dst = run.dst;
    const std::uint32_t form = run.ids[0];
    // Page 1: foreground twice (single stream, then array). Page 2: background once.
    ASSERT_EQ(dst.PlaceContent(form, 1, 100, 200, 0.5f, 0.5f, 0), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(form, 1, 0, 0, 1, 1, 0), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(form, 2, 10, 20, 1, 1, -1), hr::kOk);
    EXPECT_EQ(dst.PlaceContent(form, 3, 0, 0, 1, 1, 0), hr::kInvalidArg);
    EXPECT_EQ(dst.PlaceContent(form, 0, 0, 0, 1, 1, 0), hr::kInvalidArg);
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
    // Text drawn at one place comes out in any order: count the stamps.
    ExpectPages(target, {"p1", "p2"}, [](std::size_t i) { return i == 0 ? 2u : 1u; });
}

// Two pages drawing the same content array object: a placement on one leaves the other alone.
TEST(Place, SharedContentArrayStaysWithTheOtherPage) {
    const stdfs::path dir = test::ScratchDir();
    test::WriteBytes(
        dir / "raw.pdf",
        "%PDF-1.4\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 5 0 R >> endobj\n"
        "4 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 5 0 R >> endobj\n"
        "5 0 obj [6 0 R] endobj\n"
        "6 0 obj << /Length 12 >> stream\n0 0 10 10 re\nendstream endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n");
    const stdfs::path target = dir / "target.pdf";
    const int rewritten =
        test::Run("qpdf " + test::Quote(dir / "raw.pdf") + " " + test::Quote(target)).exit_code;
    ASSERT_TRUE(rewritten == 0 || rewritten == 3) << rewritten;
    Stamping run;
    ASSERT_NO_FATAL_FAILURE(run.Open(LabelledPdf(dir / "lh.pdf", {"letterhead"}), target));
    ASSERT_EQ(run.dst.PlaceContent(run.ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);
    ASSERT_EQ(run.dst.Save(), hr::kOk);
    ASSERT_TRUE(test::QpdfCheckPasses(target));
    EXPECT_EQ(ContentStreams(target, 1).size(), 3u) << "q, the shared stream, Q+draw";
    EXPECT_EQ(ContentStreams(target, 2).size(), 1u) << "the other page as it was";
}

// Placements address pages as they are now: after a replacement that keeps the page count and
// after an append, a page number names the page that stands there, not the one before.
TEST(Place, FollowsThePagesAfterAssembly) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path target = LabelledPdf(dir / "target.pdf", {"d1", "d2", "d3"});
    Stamping run;
    ASSERT_NO_FATAL_FAILURE(run.Open(LabelledPdf(dir / "lh.pdf", {"letterhead"}), target));
    CZPdfContentObject src;
    test::OpenQuietly(src, LabelledPdf(dir / "source.pdf", {"s1", "s2", "s3"}));
    CZPdfContentObject& dst = run.dst;
    ASSERT_EQ(dst.PlaceContent(run.ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);  // on d1, replaced next
    ASSERT_EQ(dst.ReplacePages(1, &src, 3, 3), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(run.ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);
    ASSERT_EQ(dst.AppendPages(&src), hr::kOk);
    ASSERT_EQ(dst.PlaceContent(run.ids[0], 5, 0, 0, 1, 1, -1), hr::kOk);
    ASSERT_EQ(dst.Save(), hr::kOk);
    ASSERT_TRUE(test::QpdfCheckPasses(target));

    ExpectPages(target, {"s3", "d2", "d3", "s1", "s2", "s3"},
                [](std::size_t i) { return i == 0 || i == 4 ? 1u : 0u; });
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
    const stdfs::path letterhead = LabelledPdf(dir / "lh.pdf", {"letterhead"});
    const std::vector<std::string> labels = Labels("p", kPages, "x");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = LabelledPdf(dir / "long.pdf", labels);
        Stamping run;
        ASSERT_NO_FATAL_FAILURE(run.Open(letterhead, target, false));
        CZPdfContentObject& dst = run.dst;
        std::vector<std::string> expected = labels;
        if (c.append_self) {
            ASSERT_EQ(dst.AppendPages(&dst), hr::kOk);
            expected.insert(expected.end(), labels.begin(), labels.end());
        }
        const int total = Pages(dst);
        ASSERT_EQ(total, static_cast<int>(expected.size()));
        for (int page = 1; c.measure_first && page <= total; ++page) {
            double width = 0;
            double height = 0;
            ASSERT_EQ(dst.GetPageSize(page, &width, &height), hr::kOk);
            ASSERT_GT(width, 0);
        }
        ASSERT_EQ(dst.ImportContent(&run.src, &run.ids), hr::kOk);
        for (int page = 1; page <= total; page += c.every) {
            const float x = c.two_positions && page % 2 == 0 ? 20.0F : 0.0F;
            ASSERT_EQ(dst.PlaceContent(run.ids[0], page, x, 0, 1, 1, -1), hr::kOk);
        }
        ASSERT_EQ(dst.Save(), hr::kOk);
        ASSERT_TRUE(test::QpdfCheckPasses(target));

        ExpectPages(target, expected, [&](std::size_t i) { return i % c.every == 0 ? 1u : 0u; });
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

// Five pages p1..p5 in a tree with nodes below the root: [[p1 p2] p3 [p4 [p5]]]. The root's
// resources, which the pages inherit, hold the font and a form named /FXX1 that shows
// "inherited"; p3 draws it. `parents` gives each page's /Parent (objects 2 to 5) in the order
// p3, p1, p2, p4, p5; `root_kids` the root's /Kids.
std::string NestedTreePdf(const std::array<int, 5>& parents = {2, 3, 3, 4, 5},
                          const std::string& root_kids = "3 0 R 8 0 R 4 0 R", int count = 5) {
    const std::string text = "BT /F1 12 Tf 20 100 Td (";
    std::vector<std::string> objects = {
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [" + root_kids + "] /Count " + std::to_string(count) +
            " /MediaBox [0 0 200 200] /Resources << /Font << /F1 6 0 R >> /XObject << /FXX1 7 0 R"
            " >> >> >>",
        "<< /Type /Pages /Parent 2 0 R /Kids [9 0 R 10 0 R] /Count 2 >>",
        "<< /Type /Pages /Parent 2 0 R /Kids [11 0 R 5 0 R] /Count 2 >>",
        "<< /Type /Pages /Parent 4 0 R /Kids [12 0 R] /Count 1 >>",
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        test::PdfStream("/Type /XObject /Subtype /Form /BBox [0 0 200 200] /Resources << /Font "
                        "<< /F1 6 0 R >> >>",
                        text + "inherited) Tj ET"),
    };
    const char* const labels[] = {"p3", "p1", "p2", "p4", "p5"};
    for (int i = 0; i < 5; ++i) {
        objects.push_back("<< /Type /Page /Parent " + std::to_string(parents[i]) +
                          " 0 R /Contents " + std::to_string(13 + i) + " 0 R >>");
    }
    for (int i = 0; i < 5; ++i) {
        std::string content = text + labels[i] + ") Tj ET";
        if (i == 0) content += " q 1 0 0 1 0 -50 cm /FXX1 Do Q";
        objects.push_back(test::PdfStream("", content));
    }
    return samples::PdfFromObjects(objects);
}

// Placements are recorded and drawn into the pages as the document is written; whatever reads
// or copies a stamped page before that must see them too.
TEST(Place, RecordedPlacementsReachEveryReader) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path letterhead = LabelledPdf(dir / "lh.pdf", {"letterhead"});
    static const auto dark_pixels = [](CZPdfContentObject& object) {
        RasterDeviceContext dc(100, 140);
        EXPECT_EQ(object.DrawPageToDC(dc, 1, 0, 0, 100, 140, 0, 0, 0, 0, 0), hr::kOk);
        int dark = 0;
        for (int y = 0; y < 140; ++y)
            for (int x = 0; x < 100; ++x) dark += dc.Pixel(x, y)[1] < 128;
        return dark;
    };
    struct Case {
        const char* name;
        // Uses the stamped `dst` (page 1 stamped) with `other`; returns the file to check.
        std::function<void(CZPdfContentObject& dst, CZPdfContentObject& other)> use;
        bool check_other;  // else the target
        std::vector<std::string> labels;
        std::vector<std::size_t> stamps;
    } cases[] = {
        {"drawn before it is saved",
         [](CZPdfContentObject& dst, CZPdfContentObject&) {
             CZPdfContentObject unstamped;
             OptionalText path;
             ASSERT_EQ(dst.GetPdfDocument(&path), hr::kOk);
             test::OpenQuietly(unstamped, ToPath(*path));
             EXPECT_GT(dark_pixels(dst), dark_pixels(unstamped));
         },
         false,
         {"d1", "d2"},
         {1, 0}},
        {"appended to another document",
         [](CZPdfContentObject& dst, CZPdfContentObject& other) {
             ASSERT_EQ(other.AppendPages(&dst), hr::kOk);
         },
         true,
         {"o1", "d1", "d2"},
         {0, 1, 0}},
        {"made into a form of another document",
         [](CZPdfContentObject& dst, CZPdfContentObject& other) {
             std::vector<std::uint32_t> ids;
             ASSERT_EQ(other.ImportContent(&dst, &ids), hr::kOk);
             ASSERT_EQ(other.PlaceContent(ids[0], 1, 0, 0, 1, 1, 0), hr::kOk);
         },
         true,
         {"o1"},
         {1}},
        {"copied within itself",
         [](CZPdfContentObject& dst, CZPdfContentObject&) {
             ASSERT_EQ(dst.ReplacePages(2, &dst, 1, 1), hr::kOk);
         },
         false,
         {"d1", "d1"},
         {1, 1}},
        {"saved as it is",
         [](CZPdfContentObject&, CZPdfContentObject&) {},
         false,
         {"d1", "d2"},
         {1, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = LabelledPdf(dir / "target.pdf", {"d1", "d2"});
        const stdfs::path other_file = LabelledPdf(dir / "other.pdf", {"o1"});
        Stamping run;
        ASSERT_NO_FATAL_FAILURE(run.Open(letterhead, target));
        CZPdfContentObject other;
        test::OpenQuietly(other, other_file);
        ASSERT_EQ(run.dst.PlaceContent(run.ids[0], 1, 0, 0, 1, 1, -1), hr::kOk);
        ASSERT_NO_FATAL_FAILURE(c.use(run.dst, other));
        CZPdfContentObject& saved = c.check_other ? other : run.dst;
        ASSERT_EQ(saved.Save(), hr::kOk);
        const stdfs::path file = c.check_other ? other_file : target;
        ASSERT_TRUE(test::QpdfCheckPasses(file));
        ExpectPages(file, c.labels, [&](std::size_t i) { return c.stamps.at(i); });
    }
}

// A page inheriting its resources gets its own copy with the form added, under a name the
// inherited ones do not take; the pages that still inherit them keep drawing what they drew.
TEST(Place, InheritedResourcesAndTakenNames) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path target = dir / "nested.pdf";
    test::WriteBytes(target, NestedTreePdf());
    Stamping run;
    ASSERT_NO_FATAL_FAILURE(run.Open(LabelledPdf(dir / "lh.pdf", {"letterhead"}), target));
    // The letterhead's text stands near the top of an A4 page: moved down onto these pages.
    ASSERT_EQ(run.dst.PlaceContent(run.ids[0], 3, 0, -700, 1, 1, -1), hr::kOk);  // p3
    ASSERT_EQ(run.dst.PlaceContent(run.ids[0], 3, 0, -730, 1, 1, 0), hr::kOk);
    ASSERT_EQ(run.dst.PlaceContent(run.ids[0], 1, 0, -700, 1, 1, 0), hr::kOk);  // p1
    ASSERT_EQ(run.dst.Save(), hr::kOk);
    ASSERT_TRUE(test::QpdfCheckPasses(target));
    ExpectPages(target, {"p1", "p2", "p3", "p4", "p5"}, [](std::size_t i) {
        return i == 0 ? 1u : i == 2 ? 2u : 0u;
    });
    EXPECT_NE(test::PdfPageTexts(target).at(2).find("inherited"), std::string::npos);
    const std::string p3 = ShowObject(target, 8);
    EXPECT_NE(p3.find("/FXX1 7 0 R"), std::string::npos) << p3;
    EXPECT_NE(p3.find("/FXX2 "), std::string::npos) << p3;
    EXPECT_NE(p3.find("/FXX3 "), std::string::npos) << p3;
    const std::string root = ShowObject(target, 2);
    EXPECT_EQ(root.find("/FXX2"), std::string::npos) << "the inherited resources stay" << root;
}

// Page 1 of `file`, drawn at 72 dpi.
RasterDeviceContext DrawFirstPage(const stdfs::path& file, int width, int height) {
    CZPdfContentObject object;
    test::OpenQuietly(object, file);
    RasterDeviceContext dc(width, height);
    EXPECT_EQ(object.DrawPageToDC(dc, 1, 0, 0, width, height, 0, 0, 0, 0, 0), hr::kOk);
    return dc;
}

// Stamps page 1 of `source` on page 1 of `target` and saves the target.
void Stamp(const stdfs::path& source, const stdfs::path& target, float x, float y, float scale,
           VariantBool background) {
    Stamping run;
    ASSERT_NO_FATAL_FAILURE(run.Open(source, target));
    ASSERT_EQ(run.dst.PlaceContent(run.ids[0], 1, x, y, scale, scale, background), hr::kOk);
    ASSERT_EQ(run.dst.Save(), hr::kOk);
    EXPECT_TRUE(test::QpdfCheckPasses(target));
}

// A letterhead with an opaque black block, stamped at (50,60) scale 0.5 on a page that paints an
// opaque white block over the left half of where it lands: x 50..100, y (down) 190..240, the
// white block on x 50..75.
TEST(StampPixels, BackgroundIsHiddenByThePageForegroundIsNot) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path letterhead = Sample(
        dir / "lh.pdf", {SamplePage{100, 100, 0, samples::FilledRect(0, 0, 100, 100, 0), ""}});
    const SamplePage page{200, 300, 0, samples::FilledRect(50, 60, 25, 50, 1), ""};
    const auto dark = [](const RasterDeviceContext& dc, int x, int y) {
        return dc.Pixel(x, y)[1] < 64;
    };
    for (const VariantBool background : {VariantBool{-1}, VariantBool{0}}) {
        SCOPED_TRACE(background ? "background" : "foreground");
        const stdfs::path target = Sample(dir / "target.pdf", {page});
        ASSERT_NO_FATAL_FAILURE(Stamp(letterhead, target, 50, 60, 0.5f, background));
        const RasterDeviceContext dc = DrawFirstPage(target, 200, 300);
        EXPECT_EQ(dark(dc, 60, 215), !background) << "where the page's white block is";
        EXPECT_TRUE(dark(dc, 90, 215));
        EXPECT_FALSE(dark(dc, 45, 215)) << "left of the block";
        EXPECT_FALSE(dark(dc, 105, 215)) << "right of the block";
        EXPECT_FALSE(dark(dc, 90, 185)) << "above the block";
        EXPECT_FALSE(dark(dc, 90, 245)) << "below the block";
    }
}

// A rotated source page, stamped at the origin at natural size on a page of its shown size,
// looks exactly as the source page itself is drawn.
TEST(StampRotation, FormsKeepThePageOrientation) {
    const stdfs::path dir = test::ScratchDir();
    for (const int rotate : {90, 180, 270}) {
        SCOPED_TRACE(rotate);
        // A mark in one corner of a 200 x 100 page tells the orientation.
        const stdfs::path source =
            Sample(dir / "rotated.pdf",
                   {SamplePage{200, 100, rotate, samples::FilledRect(0, 0, 40, 20, 0), ""}});
        const int w = rotate == 180 ? 200 : 100;
        const int h = rotate == 180 ? 100 : 200;
        const stdfs::path target =
            Sample(dir / "target.pdf", {SamplePage{1.0 * w, 1.0 * h, 0, "0 g\n", ""}});
        ASSERT_NO_FATAL_FAILURE(Stamp(source, target, 0, 0, 1, 0));
        const RasterDeviceContext expected = DrawFirstPage(source, w, h);
        const RasterDeviceContext actual = DrawFirstPage(target, w, h);
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
    const stdfs::path source = LabelledPdf(dir / "source.pdf", {"s1", "s2", "s3"});
    const std::vector<std::string> untouched{"d1", "d2", "d3"};
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
        {"replace last, run off", 4, false, 4, 1, 3, hr::kOk, {"d1", "d2", "d3", "s1", "s2", "s3"}},
        {"replace first by third", 3, false, 1, 3, 3, hr::kOk, {"s3", "d2", "d3"}},
        {"insert just past the end", 2, false, 3, 2, 2, hr::kOk, {"d1", "d2", "s2"}},
        {"reversed range", 3, false, 1, 2, 1, hr::kUnexpected, untouched},
        {"range past the source", 3, false, 1, 2, 4, hr::kUnexpected, untouched},
        {"page zero", 3, false, 1, 0, 1, hr::kUnexpected, untouched},
        {"destination zero", 3, false, 0, 1, 1, hr::kUnexpected, untouched},
        {"destination far past the end", 3, false, 9, 1, 1, hr::kUnexpected, untouched},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = LabelledPdf(dir / "target.pdf", Labels("d", c.dest_pages));
        // Opened by the assembly call itself.
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
        EXPECT_EQ(test::PdfPageTexts(target), c.pages);
    }
}

// Pages deleted from a tree with nodes below the root; where the tree lists a page twice or
// a page names the wrong parent, the page found by its place is the one that goes.
TEST(Assembly, DeletingFromNestedPageTrees) {
    const struct {
        const char* name;
        std::string pdf;
        std::vector<int> deleted;  // indexes, one after the other
        std::vector<std::string> pages;
    } cases[] = {
        {"first", NestedTreePdf(), {0}, {"p2", "p3", "p4", "p5"}},
        {"child of the root", NestedTreePdf(), {2}, {"p1", "p2", "p4", "p5"}},
        {"deepest, its node left empty", NestedTreePdf(), {4}, {"p1", "p2", "p3", "p4"}},
        {"two in a row", NestedTreePdf(), {0, 2}, {"p2", "p3", "p5"}},
        {"past the end", NestedTreePdf(), {5}, {"p1", "p2", "p3", "p4", "p5"}},
        {"listed twice, the second",
         NestedTreePdf({2, 3, 3, 4, 5}, "3 0 R 8 0 R 4 0 R 9 0 R", 6),
         {5},
         {"p1", "p2", "p3", "p4", "p5"}},
        {"listed twice, the first",
         NestedTreePdf({2, 3, 3, 4, 5}, "3 0 R 8 0 R 4 0 R 9 0 R", 6),
         {0},
         {"p2", "p3", "p4", "p5", "p1"}},
        {"wrong parent", NestedTreePdf({2, 3, 3, 2, 5}), {3}, {"p1", "p2", "p3", "p5"}},
    };
    const stdfs::path dir = test::ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = dir / "nested.pdf";
        test::WriteBytes(target, c.pdf);
        CZPdfContentObject object;
        test::OpenQuietly(object, target);
        for (const int index : c.deleted) engine::DeletePage(object.EngineDocument(), index);
        EXPECT_EQ(Pages(object), static_cast<std::int32_t>(c.pages.size()));
        ASSERT_EQ(object.Save(), hr::kOk);
        ASSERT_TRUE(test::QpdfCheckPasses(target));
        ExpectPages(target, c.pages, [](std::size_t) { return 0u; });
    }
}

// Labelled pages of 300 x 400 points.
std::string SmallPagesPdf(const std::vector<std::string>& labels) {
    std::vector<SamplePage> pages(labels.size());
    for (std::size_t i = 0; i < labels.size(); ++i) {
        pages[i].width = 300;
        pages[i].height = 400;
        pages[i].content = samples::TextContent({labels[i]}, pages[i].height);
    }
    return samples::BuildPdf(pages);
}

// An append records the source's pages, which are copied as the document is written, read from
// a private copy of the source's file. Whatever reads or changes the page tree before that sees
// them, and the source object stays free to change, save and close its own document.
TEST(Assembly, RecordedAppendReachesEveryReader) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path tmp = dir / "tmp";
    stdfs::create_directories(tmp);
    const test::TempFolderOverride tmp_override(tmp);
    const auto copies = [&tmp] { return test::FilesStartingWith(tmp, "zpf").size(); };
    const stdfs::path letterhead = LabelledPdf(dir / "lh.pdf", {"letterhead"});
    std::vector<std::uint32_t> ids;
    const auto import = [&letterhead, &ids](CZPdfContentObject& object) {
        CZPdfContentObject lh;
        test::OpenQuietly(lh, letterhead);
        ASSERT_EQ(object.ImportContent(&lh, &ids), hr::kOk) << object.LastErrorText();
    };
    const auto place = [&ids](CZPdfContentObject& object, std::int32_t page) {
        // The letterhead's text stands near the top of an A4 page: moved down onto these.
        ASSERT_EQ(object.PlaceContent(ids.at(0), page, 0, -500, 1, 1, -1), hr::kOk);
    };
    using Use = std::function<void(CZPdfContentObject & dst, CZPdfContentObject & src,
                                   CZPdfContentObject & other)>;
    const Use nothing = [](CZPdfContentObject&, CZPdfContentObject&, CZPdfContentObject&) {};
    const std::vector<std::string> appended{"d1", "d2", "s1", "s2", "s3"};
    struct Case {
        const char* name;
        std::string source;
        Use before;  // before the append
        Use after;
        std::size_t recorded;  // private copies held once `after` ran
        bool check_other;      // the result is in `other`, else in the destination
        std::vector<std::string> labels;
        std::vector<std::size_t> stamps;   // letterheads per page; none when empty
        double width = 300, height = 400;  // of the last page
    } cases[] = {
        {"saved as it is",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         nothing,
         1,
         false,
         appended,
         {}},
        {"a source not open yet, read from its copy alone",
         SmallPagesPdf({"s1", "s2", "s3"}),
         [](CZPdfContentObject&, CZPdfContentObject& src, CZPdfContentObject&) {
             src.CloseDocuments();
         },
         [](CZPdfContentObject&, CZPdfContentObject& src, CZPdfContentObject&) {
             EXPECT_FALSE(src.IsDocumentOpen());
         },
         1,
         false,
         appended,
         {}},
        {"counted and measured",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         [](CZPdfContentObject& dst, CZPdfContentObject&, CZPdfContentObject&) {
             EXPECT_EQ(Pages(dst), 5);
             double width = 0;
             double height = 0;
             ASSERT_EQ(dst.GetPageSize(5, &width, &height), hr::kOk);
             EXPECT_EQ(width, 300);
             EXPECT_EQ(height, 400);
             EXPECT_EQ(dst.GetPageSize(6, &width, &height), hr::kInvalidArg);
         },
         1,
         false,
         appended,
         {}},
        {"drawn",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         [](CZPdfContentObject& dst, CZPdfContentObject&, CZPdfContentObject&) {
             RasterDeviceContext dc(30, 40);
             EXPECT_EQ(dst.DrawPageToDC(dc, 4, 0, 0, 30, 40, 0, 0, 0, 0, 0), hr::kOk);
         },
         0,
         false,
         appended,
         {}},
        {"stamped on an appended page",
         SmallPagesPdf({"s1", "s2", "s3"}),
         [&import](CZPdfContentObject& dst, CZPdfContentObject&, CZPdfContentObject&) {
             import(dst);
         },
         [&place](CZPdfContentObject& dst, CZPdfContentObject&, CZPdfContentObject&) {
             place(dst, 5);
         },
         0,
         false,
         appended,
         {0, 0, 0, 0, 1}},
        {"appended twice",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         [](CZPdfContentObject& dst, CZPdfContentObject& src, CZPdfContentObject&) {
             ASSERT_EQ(dst.AppendPages(&src), hr::kOk);
         },
         2,
         false,
         {"d1", "d2", "s1", "s2", "s3", "s1", "s2", "s3"},
         {}},
        {"the source changed, saved and closed",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         [](CZPdfContentObject&, CZPdfContentObject& src, CZPdfContentObject&) {
             ASSERT_EQ(src.ReplacePages(1, &src, 3, 3), hr::kOk);
             ASSERT_EQ(src.Save(), hr::kOk);
             src.CloseDocuments();
         },
         1,
         false,
         appended,
         {}},
        {"a page replaced",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         [](CZPdfContentObject& dst, CZPdfContentObject& src, CZPdfContentObject&) {
             ASSERT_EQ(dst.ReplacePages(2, &src, 1, 1), hr::kOk);
         },
         0,
         false,
         {"d1", "s1", "s1", "s2", "s3"},
         {}},
        {"appended to another document",
         SmallPagesPdf({"s1", "s2", "s3"}),
         nothing,
         [](CZPdfContentObject& dst, CZPdfContentObject&, CZPdfContentObject& other) {
             ASSERT_EQ(other.AppendPages(&dst), hr::kOk);
         },
         0,
         true,
         {"o1", "d1", "d2", "s1", "s2", "s3"},
         {}},
        {"a source with changes of its own",
         SmallPagesPdf({"s1", "s2", "s3"}),
         [&import, &place](CZPdfContentObject&, CZPdfContentObject& src, CZPdfContentObject&) {
             import(src);
             place(src, 1);
         },
         nothing,
         0,
         false,
         appended,
         {0, 0, 1, 0, 0}},
        {"no private copy can be made",
         SmallPagesPdf({"s1", "s2", "s3"}),
         [](CZPdfContentObject&, CZPdfContentObject&, CZPdfContentObject&) {
             fs::SetFaultHook([](fs::FileOp op, const stdfs::path&) {
                 return op == fs::FileOp::Create ? fs::kErrorDiskFull : 0;
             });
         },
         [](CZPdfContentObject&, CZPdfContentObject&, CZPdfContentObject&) {
             fs::SetFaultHook(nullptr);
         },
         0,
         false,
         appended,
         {}},
        {"a nested source tree with inherited resources and boxes",
         NestedTreePdf(),
         nothing,
         nothing,
         1,
         false,
         {"d1", "d2", "p1", "p2", "p3", "p4", "p5"},
         {},
         200,
         200},
        {"more pages than a node holds",
         SmallPagesPdf(Labels("s", 70)),
         nothing,
         nothing,
         1,
         false,
         [&] {
             std::vector<std::string> labels{"d1", "d2"};
             for (const std::string& label : Labels("s", 70)) labels.push_back(label);
             return labels;
         }(),
         {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = LabelledPdf(dir / "target.pdf", {"d1", "d2"});
        const stdfs::path source = dir / "source.pdf";
        test::WriteBytes(source, c.source);
        const stdfs::path other_file = LabelledPdf(dir / "other.pdf", {"o1"});
        CZPdfContentObject dst;
        CZPdfContentObject src;
        CZPdfContentObject other;
        test::OpenQuietly(dst, target);
        test::OpenQuietly(src, source);
        test::OpenQuietly(other, other_file);
        ASSERT_NO_FATAL_FAILURE(c.before(dst, src, other));
        ASSERT_EQ(dst.AppendPages(&src), hr::kOk) << dst.LastErrorText();
        ASSERT_NO_FATAL_FAILURE(c.after(dst, src, other));
        EXPECT_EQ(copies(), c.recorded);

        CZPdfContentObject& saved = c.check_other ? other : dst;
        ASSERT_EQ(saved.Save(), hr::kOk) << saved.LastErrorText();
        EXPECT_EQ(copies(), 0u) << "the private copies go with the documents";
        const stdfs::path file = c.check_other ? other_file : target;
        ASSERT_TRUE(test::QpdfCheckPasses(file));
        ExpectPages(file, c.labels,
                    [&c](std::size_t i) { return c.stamps.empty() ? 0u : c.stamps.at(i); });
        CZPdfContentObject reopened;
        test::OpenQuietly(reopened, file);
        double width = 0;
        double height = 0;
        ASSERT_EQ(reopened.GetPageSize(static_cast<std::int32_t>(c.labels.size()), &width, &height),
                  hr::kOk);
        EXPECT_EQ(width, c.width);
        EXPECT_EQ(height, c.height);
    }
}

// A damaged source fails the append where the page import fails it, never the later save; an
// object of it that cannot be read is copied as null, as the page import copies it.
TEST(Assembly, DamagedAppendSources) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path tmp = dir / "tmp";
    stdfs::create_directories(tmp);
    const test::TempFolderOverride tmp_override(tmp);
    const std::string font = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>";
    const std::string content = test::PdfStream("", "BT /F1 12 Tf 20 100 Td (s1) Tj ET");
    const std::string page =
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 4 "
        "0 R /Resources << /Font << /F1 5 0 R >> /XObject << /X 6 0 R >> >> >>";
    const struct {
        const char* name;
        std::vector<std::string> objects;
        HResult result;
        std::size_t recorded;  // private copies held after the append
        std::vector<std::string> pages;
    } cases[] = {
        {"a page tree that holds itself",
         {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R 2 0 R] /Count 2 >>",
          page, content, font, "<< >>"},
         hr::kUnexpected,
         0,
         {"d1", "d2"}},
        {"an unreadable resource",
         {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>", page,
          content, font, "<< 12 34 >>"},
         hr::kOk,
         1,
         {"d1", "d2", "s1"}},
        {"a page that is not an object of its own",
         {"<< /Type /Catalog /Pages 2 0 R >>",
          "<< /Type /Pages /Count 1 /Kids [<< /Type /Page /MediaBox [0 0 200 200] /Contents 4 0 R "
          "/Resources << /Font << /F1 5 0 R >> >> >>] >>",
          "<< >>", content, font, "<< >>"},
         hr::kOk,
         0,
         {"d1", "d2", "s1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path target = LabelledPdf(dir / "target.pdf", {"d1", "d2"});
        const stdfs::path source = dir / "source.pdf";
        test::WriteBytes(source, samples::PdfFromObjects(c.objects));
        CZPdfContentObject dst;
        CZPdfContentObject src;
        test::OpenQuietly(dst, target);
        test::OpenQuietly(src, source);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(dst.AppendPages(&src), c.result) << dst.LastErrorText();
        EXPECT_EQ(test::FilesStartingWith(tmp, "zpf").size(), c.recorded);
        const HResult saved = dst.Save();
        ::testing::internal::GetCapturedStderr();
        ASSERT_EQ(saved, hr::kOk) << dst.LastErrorText();
        ASSERT_TRUE(test::QpdfCheckPasses(target));
        EXPECT_EQ(test::PdfPageTexts(target), c.pages);
    }
}

TEST(Overlay, NotImplementedAndNothingChanges) {
    const stdfs::path file = LabelledPdf(test::ScratchDir() / "doc.pdf", {"x"});
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
