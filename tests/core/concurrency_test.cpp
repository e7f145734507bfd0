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

#include "core/open_object.h"
#include "platform/raster.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests

constexpr int kThreads = 8;
constexpr int kRounds = 2;

// Everything that differs between the threads, so that one thread's document showing up in
// another's results would be seen. Every text a thread writes starts with its label.
struct Plan {
    explicit Plan(const Path& root, int i) : index(i), dir(root / Label()) {}
    int index;
    Path dir;
    int pages = 2 + index % 3;                               // of the document, before the rounds
    int extra = 1 + index % 2;                               // pages appended in every round
    int parts = 2 + index % 2;                               // the split source cuts into this many
    std::string password = "first" + std::to_string(index);  // of the encrypted copy
    std::string Label() const { return "Thread" + std::to_string(index) + " "; }
    int Width() const { return 300 + 10 * index; }
    int Height() const { return 400 + 20 * index; }
    int Square() const { return 150 + 5 * index; }  // the black square's corner on page 1
    // `count` pages of the thread's size labelled `what` and their number.
    Path Write(const std::string& name, const std::string& what, int count) const {
        std::vector<samples::SamplePage> list(static_cast<std::size_t>(count));
        for (int page = 1; page <= count; ++page) {
            samples::SamplePage& p = list[static_cast<std::size_t>(page - 1)];
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

// The page count; standard error is left alone here: a sanitizer's report must reach it.
std::int32_t Count(Obj& object) {
    std::int32_t pages = -1;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk) << object.LastErrorText();
    return pages;
}

// One round of the typical job on the thread's own documents.
void TypicalJob(Plan& plan, int round) {
    SCOPED_TRACE(plan.Label() + "round " + std::to_string(round));
    const int pages = plan.pages + round * plan.extra;  // before this round's append
    Obj document, letterhead, extra, splitter, secured;
    ASSERT_EQ(document.SetPdfDocument(FromPath(plan.dir / "document.pdf"), 0, u""), hr::kOk);
    ASSERT_EQ(Count(document), pages) << document.LastErrorText();
    EXPECT_EQ(PageSize(document, pages), Size(plan.Width(), plan.Height()));

    // Page 1 at one device pixel per point: the square is black, a corner far from it white.
    RasterDeviceContext dc(plan.Width(), plan.Height());
    ASSERT_EQ(document.DrawPageToDC(dc, 1, 0, 0, plan.Width(), plan.Height(), 0, 0, 0, 0, 0),
              hr::kOk)
        << document.LastErrorText();
    EXPECT_LT(dc.Pixel(plan.Square() + 20, plan.Height() - plan.Square() - 20)[0], 64);
    EXPECT_GT(dc.Pixel(plan.Width() - 5, 5)[0], 240);

    // The letterhead stamped on page 1, then the extra pages appended and the document saved.
    ASSERT_EQ(letterhead.SetPdfDocument(FromPath(plan.dir / "letterhead.pdf"), 0, u""), hr::kOk);
    std::vector<std::uint32_t> ids;
    ASSERT_EQ(document.ImportContent(&letterhead, &ids), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_EQ(document.PlaceContent(ids[0], 1, 10, 10, 0.5f, 0.5f, 0), hr::kOk);
    ASSERT_EQ(extra.SetPdfDocument(FromPath(plan.dir / "extra.pdf"), 0, u""), hr::kOk);
    ASSERT_EQ(document.AppendPages(&extra), hr::kOk) << document.LastErrorText();
    ASSERT_EQ(document.Save(), hr::kOk) << document.LastErrorText();
    EXPECT_EQ(Count(document), pages + plan.extra) << "opened again after the save";

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
    ASSERT_EQ(Count(secured), plan.pages) << secured.LastErrorText();
    plan.password = "user" + std::to_string(plan.index) + "-" + std::to_string(round);
    ASSERT_EQ(secured.SaveWithSecurity(FromAnsi(plan.password), u"owner"), hr::kOk)
        << secured.LastErrorText();
}

TEST(Concurrency, EightThreadsRunTheTypicalJobAtOnce) {
    const Path root = ScratchDir();
    std::vector<Plan> plans;
    for (int i = 0; i < kThreads; ++i) {
        Plan& plan = plans.emplace_back(root, i);
        stdfs::create_directories(plan.dir);
        QpdfEncrypt(plan.Write("document.pdf", "page ", plan.pages), plan.dir / "encrypted.pdf",
                    plan.password, "owner", 256);
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
        const Path document = plan.dir / "document.pdf";
        EXPECT_TRUE(QpdfCheckPasses(document));
        EXPECT_EQ(QpdfPageCount(document), plan.pages + kRounds * plan.extra);
        std::string text = PdfToText(document);
        for (int round = 0; round < kRounds; ++round) {
            for (int part = 1; part <= plan.parts; ++part) {
                const Path file =
                    plan.dir / ("part" + std::to_string(round) + "_" + std::to_string(part));
                EXPECT_EQ(QpdfPageCount(file), part < plan.parts ? 1 : 5 - plan.parts);
                text += PdfToText(file);
            }
        }
        for (const char* own : {"page 1", "letterhead 1", "extra 1", "split 1", "split 4"})
            EXPECT_NE(text.find(plan.Label() + own), std::string::npos) << own << " in " << text;
        for (const Plan& other : plans)
            EXPECT_TRUE(&other == &plan || text.find(other.Label()) == std::string::npos) << text;
        EXPECT_NE(test::Run("qpdf --show-encryption --password=" + Quote(plan.password) + " " +
                            Quote(plan.dir / "encrypted.pdf"))
                      .output.find("R = 6"),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace zpdf
