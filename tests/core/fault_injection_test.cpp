// Every disk-changing step of the writing methods, made to fail in turn. A clean run first
// counts the steps that pass through the file fault hook; then, for every n, the n-th step
// fails. Afterwards the user's file is byte-identical, nothing half-written or temporary is
// left, the method reports the failure, nothing is written after the failing step, and the
// same object succeeds once the disk works again.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/open_object.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests
using enum fs::FileOp;

// A document of pages with one text each. Small squares at scattered places make the first page
// large: their numbers do not compress to nothing, so the document reaches the disk in several
// writes.
Path Sample(const Path& path, const std::vector<std::string>& texts, int squares = 0) {
    std::vector<samples::SamplePage> pages(texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i)
        pages[i].content = samples::TextContent({texts[i]}, pages[i].height);
    std::minstd_rand random(7);
    for (int i = 0; i < squares; ++i)
        pages[0].content += std::to_string(random() % 50000 / 100.0) + " " +
                            std::to_string(random() % 80000 / 100.0) + " 0.5 0.5 re f\n";
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(pages)));
    return path;
}

// The documents every attempt starts from; no attempt writes them. `document` has two pages,
// the first large; `extra` one, appended before the save; `split_source` four pages cut after
// the first and the second.
struct Inputs {
    Path document, extra, split_source;
};

// One attempt at a scenario, in a folder of its own. `user_file` must stay byte-identical when
// the call fails; `pages` the saved document has once the call succeeds.
struct Attempt {
    const Inputs& in;
    Path dir, user_file = {};
    Obj object{}, extra{};
    int pages = 3;
    std::int32_t parts = -1;  // SplitPdf's count
};

// `steps`: how many steps, at least, a clean run passes the hook; `prepare` runs without the
// hook; a failure returns HRESULT_FROM_WIN32(error) with `win32_failure`, E_FAIL otherwise;
// `failed` checks what holds after the failure of a step of kind `op` at `path`, `succeeded`
// what holds after success; the object holds `copies_while_open` "zpf" files after a failure
// that leaves its documents open, and none after success.
struct Scenario {
    const char* name;
    std::size_t steps;
    std::function<void(Attempt&)> prepare;
    std::function<HResult(Attempt&)> call;
    bool win32_failure;
    std::function<void(Attempt&, fs::FileOp op, const Path& path)> failed;
    std::function<void(Attempt&)> succeeded;
    std::size_t copies_while_open = 0;
};

// Parts 1 to `count` of the split are counted, in place, each with its pages, and no other.
void ExpectParts(const Attempt& a, int count) {
    EXPECT_EQ(a.parts, count);
    EXPECT_EQ(FilesStartingWith(a.dir, "part_").size(), static_cast<std::size_t>(count));
    for (int i = 1; i <= count; ++i)
        EXPECT_EQ(QpdfPageCount(a.dir / ("part_" + std::to_string(i))), i < 3 ? 1 : 2) << i;
}

const Scenario kScenarios[] = {
    // A save with a page appended, so that it has a change to carry. A failure leaves the
    // documents open unless it came at the move, which closes them first: the file then opens
    // as it was, the appended page lost; or after the move, at the folder's flush: the new file
    // is then in place. The append reads its page from a private copy of the extra file until
    // the documents close. (The secured saves take the same side-file road, with another
    // serialiser.)
    {"Save", 8,
     [](Attempt& a) {
         stdfs::copy_file(a.in.document, a.user_file = a.dir / "doc.pdf");
         ASSERT_EQ(a.object.SetPdfDocument(FromPath(a.user_file), 0, u""), hr::kOk);
         ASSERT_EQ(a.extra.SetPdfDocument(FromPath(a.in.extra), 0, u""), hr::kOk);
         ASSERT_EQ(a.object.AppendPages(&a.extra), hr::kOk) << a.object.LastErrorText();
     },
     [](Attempt& a) { return a.object.Save(); }, false,
     [](Attempt& a, fs::FileOp op, const Path&) {
         EXPECT_EQ(a.object.IsDocumentOpen(), op != Move && op != SyncFolder);
         // Opened again, as the host does, and saved unchanged.
         if (op == Move) {
             EXPECT_EQ(Pages(a.object), a.pages = 2);
         }
     },
     [](Attempt& a) { EXPECT_EQ(QpdfPageCount(a.user_file), a.pages); }, 1},
    {"SplitPdf", 15, [](Attempt& a) { a.user_file = a.in.split_source; },
     [](Attempt& a) {
         return a.object.SplitPdf(FromPath(a.in.split_source), FromPath(a.dir / "part"), &a.parts);
     },
     true,
     [](Attempt& a, fs::FileOp, const Path& path) {
         // The parts before the failing one are in place and whole; of that one nothing is.
         const std::string name = path.filename().string();
         ExpectParts(a, std::stoi(name.substr(name.find('_') + 1)) - 1);
     },
     [](Attempt& a) { ExpectParts(a, 3); }},
};

// Side files (".part") anywhere below `dir`.
long SideFiles(const Path& dir) {
    return std::count_if(stdfs::recursive_directory_iterator(dir), {},
                         [](const auto& entry) { return entry.path().extension() == ".part"; });
}

// The engine's load diagnostics are kept off the console.
class FaultInjectionTest : public PrivateCopyTest, public ::testing::WithParamInterface<Scenario> {
  protected:
    void SetUp() override {
        ::testing::internal::CaptureStderr();
        const Path dir = dir_ / "inputs";
        stdfs::create_directories(dir);
        in_.document = Sample(dir / "document.pdf", {"Keep me", "And me"}, 12000);
        in_.extra = Sample(dir / "extra.pdf", {"Appended"});
        in_.split_source = Sample(dir / "split.pdf", {"One @@nd@@", "Two @@nd@@", "Three", "Four"});
    }
    void TearDown() override {
        PrivateCopyTest::TearDown();
        ::testing::internal::GetCapturedStderr();
    }

    Inputs in_;
};

TEST_P(FaultInjectionTest, EveryStepFailsCleanly) {
    const Scenario& scenario = GetParam();
    std::vector<std::pair<fs::FileOp, Path>> clean;  // the steps of the clean run, n = 0
    for (std::size_t n = 0; n <= clean.size(); ++n) {
        const fs::FileOp op = n == 0 ? Read : clean[n - 1].first;
        const int error = n == 0 ? 0 : fs::kErrorDiskFull;
        const std::string name = "step" + std::to_string(n);
        SCOPED_TRACE(name + (n == 0 ? "" : ": " + std::string(fs::FileOpName(op))));
        Attempt a{in_, dir_ / "runs" / name};
        stdfs::create_directories(a.dir);
        scenario.prepare(a);
        if (HasFatalFailure()) return;
        const std::string before = ReadBytes(a.user_file);
        // Every step the hook is asked about recorded; the n-th fails with `error`.
        std::vector<std::pair<fs::FileOp, Path>> steps;
        fs::SetFaultHook([&steps, n, error](fs::FileOp step, const Path& path) {
            steps.emplace_back(step, path);
            return steps.size() == n ? error : 0;
        });
        const HResult result = scenario.call(a);
        fs::SetFaultHook(nullptr);
        if (n == 0) {
            clean = steps;
            ASSERT_EQ(result, hr::kOk) << a.object.LastErrorText();
        } else {
            ASSERT_EQ(steps.size(), n) << "nothing is written after the failing step";
            EXPECT_EQ(result, scenario.win32_failure ? hr::FromWin32(error) : hr::kFail);
            // After the move only the folder's flush can fail: the new file is in place (the
            // checks of success below look at it) and there is nothing to do again.
            const bool moved = op == SyncFolder;
            if (moved)
                EXPECT_NE(ReadBytes(a.user_file), before);
            else
                EXPECT_EQ(ReadBytes(a.user_file), before);
            EXPECT_EQ(SideFiles(dir_), 0);
            EXPECT_EQ(PrivateCopies(), a.object.IsDocumentOpen() ? scenario.copies_while_open : 0u);
            scenario.failed(a, op, clean[n - 1].second);
            // The disk works again: the same object succeeds.
            if (!moved) {
                EXPECT_EQ(scenario.call(a), hr::kOk) << a.object.LastErrorText();
            }
        }
        scenario.succeeded(a);
        EXPECT_EQ(SideFiles(dir_), 0);
        EXPECT_EQ(PrivateCopies(), 0u);
    }
    EXPECT_GE(clean.size(), scenario.steps) << "steps of a clean run";
}

INSTANTIATE_TEST_SUITE_P(Writes, FaultInjectionTest, ::testing::ValuesIn(kScenarios),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace zpdf
