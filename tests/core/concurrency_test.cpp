// Objects on different threads do not interfere: eight threads run the typical job at once,
// each with its own objects and its own documents, and every result is checked, by the objects
// and afterwards by independent readers. scripts/run-tsan.sh runs this test under
// ThreadSanitizer, which also reports a data race between the threads that the results miss.
#include <gtest/gtest.h>

#include <filesystem>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/raster.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using samples::SamplePage;

constexpr int kThreads = 8;
constexpr int kRounds = 2;

// Everything that differs between the threads, so that one thread's document showing up in
// another's results would be seen.
struct Plan {
    int index = 0;
    stdfs::path dir;
    int pages = 0;        // of the document
    int extra_pages = 0;  // appended in every round
    int parts = 0;        // the split source cuts into this many
    stdfs::path document;
    stdfs::path letterhead;
    stdfs::path extra;
    stdfs::path split_source;
    stdfs::path encrypted;
    std::string password;  // of the encrypted copy once the rounds are done

    std::string Label() const { return "Thread" + std::to_string(index); }
    double Width(int page) const { return 300 + 10 * index + page; }  // page is 1-based
    double Height() const { return 400 + 20 * index; }
    // The black square on page 1, from the bottom left, in points.
    int SquareX() const { return 150 + 5 * index; }
    int SquareY() const { return 150 + 5 * index; }
    static constexpr int kSquare = 40;
    std::string UserPassword(int round) const {
        return "user" + std::to_string(index) + "-" + std::to_string(round);
    }
};

stdfs::path Write(const stdfs::path& path, const std::vector<SamplePage>& pages) {
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(pages)));
    return path;
}

SamplePage Labelled(const std::string& label, double width = 595, double height = 842,
                    const std::string& more = "") {
    SamplePage page;
    page.width = width;
    page.height = height;
    page.content = samples::TextContent({label}, height) + more;
    return page;
}

Plan MakePlan(const stdfs::path& root, int index) {
    Plan plan;
    plan.index = index;
    plan.dir = root / plan.Label();
    stdfs::create_directories(plan.dir);
    plan.pages = 2 + index % 3;
    plan.extra_pages = 1 + index % 2;
    plan.parts = 2 + index % 2;

    std::vector<SamplePage> pages;
    for (int page = 1; page <= plan.pages; ++page) {
        const std::string more = page == 1 ? samples::FilledRect(plan.SquareX(), plan.SquareY(),
                                                                 Plan::kSquare, Plan::kSquare)
                                           : "";
        pages.push_back(Labelled(plan.Label() + " page " + std::to_string(page), plan.Width(page),
                                 plan.Height(), more));
    }
    plan.document = Write(plan.dir / "document.pdf", pages);
    plan.letterhead = Write(plan.dir / "letterhead.pdf",
                            {Labelled("Letterhead" + std::to_string(index), 200, 100)});
    std::vector<SamplePage> extra;
    for (int page = 1; page <= plan.extra_pages; ++page)
        extra.push_back(Labelled("Extra" + std::to_string(index) + "-" + std::to_string(page)));
    plan.extra = Write(plan.dir / "extra.pdf", extra);
    // Four pages, cut after the first (and, for odd threads, the second) one.
    std::vector<SamplePage> split;
    for (int page = 1; page <= 4; ++page) {
        SamplePage p = Labelled("Split" + std::to_string(index) + "-" + std::to_string(page));
        if (page < plan.parts) p.content += samples::TextContent({"", "@@nd@@"}, p.height);
        split.push_back(p);
    }
    plan.split_source = Write(plan.dir / "split.pdf", split);
    plan.password = "first" + std::to_string(index);
    plan.encrypted =
        test::QpdfEncrypt(plan.document, plan.dir / "encrypted.pdf", plan.password, "owner", 256);
    return plan;
}

bool Dark(const RasterDeviceContext& dc, int x, int y) {
    const std::uint8_t* pixel = dc.Pixel(x, y);
    return pixel[0] < 64 && pixel[1] < 64 && pixel[2] < 64;
}
bool White(const RasterDeviceContext& dc, int x, int y) {
    const std::uint8_t* pixel = dc.Pixel(x, y);
    return pixel[0] > 240 && pixel[1] > 240 && pixel[2] > 240;
}

// One round of the typical job on the thread's own documents.
void TypicalJob(Plan& plan, int round) {
    SCOPED_TRACE(plan.Label() + " round " + std::to_string(round));
    const int pages = plan.pages + round * plan.extra_pages;  // before this round's append

    CZPdfContentObject document;
    ASSERT_EQ(document.SetPdfDocument(FromPath(plan.document), 0, u""), hr::kOk);
    std::int32_t count = 0;
    ASSERT_EQ(document.PageCount(&count), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(count, pages);
    for (int page = 1; page <= plan.pages; ++page) {
        double width = 0;
        double height = 0;
        ASSERT_EQ(document.GetPageSize(page, &width, &height), hr::kOk);
        EXPECT_DOUBLE_EQ(width, plan.Width(page));
        EXPECT_DOUBLE_EQ(height, plan.Height());
    }

    // Page 1 at one device pixel per point: the square is black, a corner far from it white.
    const int width = static_cast<int>(plan.Width(1));
    const int height = static_cast<int>(plan.Height());
    RasterDeviceContext dc(width, height);
    ASSERT_EQ(document.DrawPageToDC(dc, 1, 0, 0, width, height, 0, 0, 0, 0, 0), hr::kOk)
        << document.LastErrorText();
    const int centre_x = plan.SquareX() + Plan::kSquare / 2;
    const int centre_y = height - plan.SquareY() - Plan::kSquare / 2;
    EXPECT_TRUE(Dark(dc, centre_x, centre_y));
    EXPECT_TRUE(White(dc, centre_x + Plan::kSquare, centre_y));
    EXPECT_TRUE(White(dc, width - 5, 5));

    // The letterhead stamped on page 1, then the extra pages appended.
    CZPdfContentObject letterhead;
    ASSERT_EQ(letterhead.SetPdfDocument(FromPath(plan.letterhead), 0, u""), hr::kOk);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(document.ImportContent(&letterhead, &ids), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_EQ(document.PlaceContent(ids[0], 1, 10, 10, 0.5f, 0.5f, 0), hr::kOk)
        << document.LastErrorText();
    CZPdfContentObject extra;
    ASSERT_EQ(extra.SetPdfDocument(FromPath(plan.extra), 0, u""), hr::kOk);
    ASSERT_EQ(document.AppendPages(&extra), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(document.PageCount(&count), hr::kOk);
    EXPECT_EQ(count, pages + plan.extra_pages);
    ASSERT_EQ(document.Save(), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(document.PageCount(&count), hr::kOk) << "opened again after the save";
    EXPECT_EQ(count, pages + plan.extra_pages);

    CZPdfContentObject splitter;
    std::int32_t parts = -1;
    const stdfs::path prefix = plan.dir / ("part" + std::to_string(round));
    EXPECT_EQ(splitter.SplitPdf(FromPath(plan.split_source), FromPath(prefix), &parts), hr::kOk)
        << splitter.LastErrorText();
    EXPECT_EQ(parts, plan.parts);

    CZPdfContentObject secured;
    ASSERT_EQ(secured.SetPdfDocument(FromPath(plan.encrypted), 0, FromAnsi(plan.password)),
              hr::kOk);
    ASSERT_EQ(secured.PageCount(&count), hr::kOk) << secured.LastErrorText();
    EXPECT_EQ(count, plan.pages);
    const std::string next = plan.UserPassword(round);
    ASSERT_EQ(secured.SaveWithSecurity(FromAnsi(next), u"owner"), hr::kOk)
        << secured.LastErrorText();
    plan.password = next;
}

TEST(Concurrency, EightThreadsRunTheTypicalJobAtOnce) {
    const stdfs::path root = test::ScratchDir();
    std::vector<Plan> plans;
    for (int i = 0; i < kThreads; ++i) plans.push_back(MakePlan(root, i));
    ASSERT_FALSE(HasFailure());

    // Standard error is not captured: a sanitizer's report must reach it.
    {
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (Plan& plan : plans) {
            threads.emplace_back([&start, &plan] {
                start.arrive_and_wait();
                for (int round = 0; round < kRounds; ++round) {
                    TypicalJob(plan, round);
                    if (::testing::Test::HasFatalFailure()) return;
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }

    // The results, read by qpdf and pdftotext.
    for (const Plan& plan : plans) {
        SCOPED_TRACE(plan.Label());
        EXPECT_TRUE(test::QpdfCheckPasses(plan.document));
        EXPECT_EQ(test::QpdfPageCount(plan.document), plan.pages + kRounds * plan.extra_pages);
        const std::string text = test::PdfToText(plan.document);
        const std::string own_letterhead = "Letterhead" + std::to_string(plan.index);
        EXPECT_NE(text.find(own_letterhead), std::string::npos) << text;
        EXPECT_NE(text.find("Extra" + std::to_string(plan.index) + "-1"), std::string::npos);
        for (const Plan& other : plans) {
            if (other.index == plan.index) continue;
            EXPECT_EQ(text.find(other.Label() + " "), std::string::npos) << text;
            EXPECT_EQ(text.find("Letterhead" + std::to_string(other.index)), std::string::npos);
            EXPECT_EQ(text.find("Extra" + std::to_string(other.index) + "-"), std::string::npos);
        }

        for (int round = 0; round < kRounds; ++round) {
            for (int part = 1; part <= plan.parts; ++part) {
                const stdfs::path file =
                    plan.dir / ("part" + std::to_string(round) + "_" + std::to_string(part));
                const int expected = part < plan.parts ? 1 : 4 - (plan.parts - 1);
                EXPECT_EQ(test::QpdfPageCount(file), expected) << file.filename();
                EXPECT_NE(test::PdfToText(file).find("Split" + std::to_string(plan.index) + "-" +
                                                     std::to_string(part)),
                          std::string::npos)
                    << file.filename();
            }
        }

        const auto shown = test::Run("qpdf --show-npages --password=" + test::Quote(plan.password) +
                                     " " + test::Quote(plan.encrypted));
        EXPECT_EQ(shown.output, std::to_string(plan.pages) + "\n");
        EXPECT_NE(test::Run("qpdf --show-encryption --password=" + test::Quote(plan.password) +
                            " " + test::Quote(plan.encrypted))
                      .output.find("R = 6"),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace zpdf
