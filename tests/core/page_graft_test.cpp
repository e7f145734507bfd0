// Page import in one pass: the pages land where asked, in order, under a page tree whose counts
// and parent links hold and whose nodes stay narrow; a failed run leaves nothing behind.
#include <gtest/gtest.h>

#include "core/open_object.h"
#include "engine/engine.h"
#include "engine/page_operations.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

TEST(PageGraft, RunsLandInOrderUnderASoundTree) {
    // The pages `pages` (0-based; all when empty) of the source, or with `itself` of the
    // document, in front of page index `at`.
    struct Run {
        bool itself;
        std::vector<int> pages;
        int at;
    };
    const struct {
        const char* name;
        int dest_pages, source_pages;
        std::vector<Run> runs;
    } cases[] = {
        {"into an empty document", 0, 3, {{false, {}, 0}}},
        {"a run repeated inside itself", 1, 40, {{false, {}, 1}, {true, {}, 20}, {false, {39}, 0}}},
        // The second run lands out of order inside the subtree the first one made, nodes down.
        {"a long run", 3, 2000, {{false, {}, 3}, {false, {1999, 0}, 1000}}},
    };
    const Path dir = ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> expected = Labels("d", c.dest_pages);
        const std::vector<std::string> source = Labels("s", c.source_pages);
        const Path target = LabelledPdf(dir / "target.pdf", expected);
        Obj dst, src;
        OpenQuietly(dst, target);
        OpenQuietly(src, LabelledPdf(dir / "source.pdf", source));
        for (const Run& run : c.runs) {
            const std::vector<std::string>& from = run.itself ? expected : source;
            std::vector<std::string> pages = run.pages.empty() ? from : std::vector<std::string>();
            for (const int page : run.pages) pages.push_back(from[page]);
            EXPECT_NO_THROW(engine::ImportPages(dst.EngineDocument(),
                                                (run.itself ? dst : src).EngineDocument(),
                                                run.pages.empty() ? nullptr : &run.pages, run.at));
            expected.insert(expected.begin() + run.at, pages.begin(), pages.end());
        }
        // Forms made of the source's pages: the pages imported for them go again, nodes and all.
        std::vector<std::uint32_t> forms;
        EXPECT_EQ(dst.ImportContent(&src, &forms), c.source_pages > 0 ? hr::kOk : hr::kUnexpected);
        ASSERT_EQ(dst.Save(), hr::kOk);
        EXPECT_EQ(PdfPageTexts(target), expected);
        const PageTree tree = ReadPageTree(target);
        EXPECT_EQ(tree.problem, "");
        // A run goes in as nodes of a few dozen kids, not one flat array.
        EXPECT_LE(tree.widest, c.dest_pages + static_cast<int>(c.runs.size()) + 32);
    }
}

// A run that fails part way: the error names the page and the engine's reason, and the saved
// document is byte for byte the one an empty run leaves (the import stamps the producer even
// then) up to its cross-reference table.
TEST(PageGraft, FailedRunLeavesNothingBehind) {
    const Path dir = ScratchDir();
    std::vector<samples::SamplePage> pages;
    for (const std::string& label : Labels("s", 4))
        pages.push_back({595, 842, 0, samples::TextContent({label}, 842), ""});
    // Objects nested deeper than the copy follows; a reference to a missing object would read
    // as null, which copies.
    pages[2].extra_entries = "/Nest " + std::string(150, '[') + std::string(150, ']');
    WriteBytes(dir / "source.pdf", samples::BuildPdf(pages));
    std::string saved[2];  // up to the cross-reference table: after an empty run, a failed one
    for (const bool fail : {false, true}) {
        WriteBytes(dir / "target.pdf", LabelledBytes({"d1"}));
        Obj dst, src;
        OpenQuietly(dst, dir / "target.pdf");
        OpenQuietly(src, dir / "source.pdf");
        const std::vector<int> run = fail ? std::vector<int>{0, 1, 2, 3} : std::vector<int>{};
        const std::string error = Quiet([&] {
            try {
                engine::ImportPages(dst.EngineDocument(), src.EngineDocument(), &run, 1);
            } catch (const engine::EngineError& e) {
                return std::string(e.what());
            }
            return std::string();
        });
        EXPECT_EQ(error.rfind("cannot import page 3: ", 0) == 0, fail) << error;
        EXPECT_EQ(Pages(dst), 1);
        ASSERT_EQ(dst.Save(), hr::kOk);
        saved[fail] = ReadBytes(dir / "target.pdf");
        saved[fail].resize(saved[fail].rfind("\nxref"));
    }
    EXPECT_EQ(saved[1], saved[0]);
}

}  // namespace
}  // namespace zpdf
