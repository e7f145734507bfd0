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
// another's results would be seen. Every text a thread writes starts with its label.
struct Plan {
    explicit Plan(const stdfs::path& root, int i) : index(i), dir(root / Label()) {}
    int index;
    stdfs::path dir;
    int pages = 2 + index % 3;                               // of the document, before the rounds
    int extra = 1 + index % 2;                               // pages appended in every round
    int parts = 2 + index % 2;                               // the split source cuts into this many
    std::string password = "first" + std::to_string(index);  // of the encrypted copy
    std::string Label() const { return "Thread" + std::to_string(index) + " "; }
    int Width() const { return 300 + 10 * index; }
    int Height() const { return 400 + 20 * index; }
    int Square() const { return 150 + 5 * index; }  // the black square's corner on page 1
    // `count` pages of the thread's size labelled `what` and their number.
    stdfs::path Write(const std::string& name, const std::string& what, int count) const {
        std::vector<SamplePage> list(static_cast<std::size_t>(count));
        for (int page = 1; page <= count; ++page) {
            SamplePage& p = list[static_cast<std::size_t>(page - 1)];
            p.width = Width();
            p.height = Height();
            p.content = samples::TextContent({Label() + what + std::to_string(page)}, p.height);
            if (name == "document.pdf" && page == 1)
                p.content += samples::FilledRect(Square(), Square(), 40, 40);
            if (name == "split.pdf" && page < parts)
                p.content += samples::TextContent({"", "@@nd@@"}, p.height);
        }
        EXPECT_TRUE(samples::WriteFile(dir / name, samples::BuildPdf(list)));
        return dir / name;
    }
};

// One round of the typical job on the thread's own documents.
void TypicalJob(Plan& plan, int round) {
    SCOPED_TRACE(plan.Label() + "round " + std::to_string(round));
    const int pages = plan.pages + round * plan.extra;  // before this round's append
    CZPdfContentObject document;
    ASSERT_EQ(document.SetPdfDocument(FromPath(plan.dir / "document.pdf"), 0, u""), hr::kOk);
    std::int32_t count = 0;
    ASSERT_EQ(document.PageCount(&count), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(count, pages);
    double width = 0, height = 0;
    ASSERT_EQ(document.GetPageSize(pages, &width, &height), hr::kOk);
    EXPECT_EQ(width, plan.Width());
    EXPECT_EQ(height, plan.Height());

    // Page 1 at one device pixel per point: the square is black, a corner far from it white.
    RasterDeviceContext dc(plan.Width(), plan.Height());
    ASSERT_EQ(document.DrawPageToDC(dc, 1, 0, 0, plan.Width(), plan.Height(), 0, 0, 0, 0, 0),
              hr::kOk)
        << document.LastErrorText();
    EXPECT_LT(dc.Pixel(plan.Square() + 20, plan.Height() - plan.Square() - 20)[0], 64);
    EXPECT_GT(dc.Pixel(plan.Width() - 5, 5)[0], 240);

    // The letterhead stamped on page 1, then the extra pages appended and the document saved.
    CZPdfContentObject letterhead, extra, splitter, secured;
    ASSERT_EQ(letterhead.SetPdfDocument(FromPath(plan.dir / "letterhead.pdf"), 0, u""), hr::kOk);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(document.ImportContent(&letterhead, &ids), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_EQ(document.PlaceContent(ids[0], 1, 10, 10, 0.5f, 0.5f, 0), hr::kOk);
    ASSERT_EQ(extra.SetPdfDocument(FromPath(plan.dir / "extra.pdf"), 0, u""), hr::kOk);
    ASSERT_EQ(document.AppendPages(&extra), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(document.Save(), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(document.PageCount(&count), hr::kOk) << "opened again after the save";
    EXPECT_EQ(count, pages + plan.extra);

    std::int32_t parts = -1;
    EXPECT_EQ(splitter.SplitPdf(FromPath(plan.dir / "split.pdf"),
                                FromPath(plan.dir / ("part" + std::to_string(round))), &parts),
              hr::kOk)
        << splitter.LastErrorText();
    EXPECT_EQ(parts, plan.parts);

    // The encrypted copy secured again with a new password.
    ASSERT_EQ(
        secured.SetPdfDocument(FromPath(plan.dir / "encrypted.pdf"), 0, FromAnsi(plan.password)),
        hr::kOk);
    ASSERT_EQ(secured.PageCount(&count), hr::kOk) << secured.LastErrorText();
    EXPECT_EQ(count, plan.pages);
    plan.password = "user" + std::to_string(plan.index) + "-" + std::to_string(round);
    ASSERT_EQ(secured.SaveWithSecurity(FromAnsi(plan.password), u"owner"), hr::kOk)
        << secured.LastErrorText();
}

TEST(Concurrency, EightThreadsRunTheTypicalJobAtOnce) {
    const stdfs::path root = test::ScratchDir();
    std::vector<Plan> plans;
    for (int i = 0; i < kThreads; ++i) {
        Plan& plan = plans.emplace_back(root, i);
        stdfs::create_directories(plan.dir);
        test::QpdfEncrypt(plan.Write("document.pdf", "page ", plan.pages),
                          plan.dir / "encrypted.pdf", plan.password, "owner", 256);
        plan.Write("letterhead.pdf", "letterhead ", 1);
        plan.Write("extra.pdf", "extra ", plan.extra);
        plan.Write("split.pdf", "split ", 4);
    }
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

    // The results, read by qpdf and pdftotext: each thread's own texts and no other's.
    for (const Plan& plan : plans) {
        SCOPED_TRACE(plan.Label());
        const stdfs::path document = plan.dir / "document.pdf";
        EXPECT_TRUE(test::QpdfCheckPasses(document));
        EXPECT_EQ(test::QpdfPageCount(document), plan.pages + kRounds * plan.extra);
        std::string text = test::PdfToText(document);
        for (int round = 0; round < kRounds; ++round) {
            for (int part = 1; part <= plan.parts; ++part) {
                const stdfs::path file =
                    plan.dir / ("part" + std::to_string(round) + "_" + std::to_string(part));
                EXPECT_EQ(test::QpdfPageCount(file), part < plan.parts ? 1 : 5 - plan.parts);
                text += test::PdfToText(file);
            }
        }
        for (const char* own : {"page 1", "letterhead 1", "extra 1", "split 1", "split 4"}) {
            EXPECT_NE(text.find(plan.Label() + own), std::string::npos) << own << " in " << text;
        }
        for (const Plan& other : plans) {
            if (&other != &plan) {
                EXPECT_EQ(text.find(other.Label()), std::string::npos) << text;
            }
        }
        const auto shown =
            test::Run("qpdf --show-encryption --password=" + test::Quote(plan.password) + " " +
                      test::Quote(plan.dir / "encrypted.pdf"));
        EXPECT_NE(shown.output.find("R = 6"), std::string::npos) << shown.output;
    }
}

}  // namespace
}  // namespace zpdf
