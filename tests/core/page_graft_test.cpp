// Page import in one pass: the pages land where asked, in order, under a page tree whose counts
// and parent links hold and whose nodes stay narrow; a failed run leaves nothing behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "engine/page_operations.h"
#include "core/open_object.h"
#include "engine/engine.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using samples::SamplePage;

std::vector<std::string> Labels(const std::string& prefix, int count) {
    std::vector<std::string> labels;
    for (int i = 1; i <= count; ++i) labels.push_back(prefix + std::to_string(i));
    return labels;
}

// One page of text per label.
std::vector<SamplePage> LabelledPages(const std::vector<std::string>& labels) {
    std::vector<SamplePage> pages(labels.size());
    for (std::size_t i = 0; i < labels.size(); ++i)
        pages[i].content = samples::TextContent({labels[i]}, pages[i].height);
    return pages;
}

stdfs::path LabelledPdf(const stdfs::path& path, const std::vector<std::string>& labels) {
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(LabelledPages(labels))));
    return path;
}

void Save(CZPdfContentObject& object) {
    ::testing::internal::CaptureStderr();
    const HResult result = object.Save();
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(result, hr::kOk) << object.LastErrorText();
}

std::int32_t Pages(CZPdfContentObject& object) {
    std::int32_t pages = -1;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk);
    return pages;
}

// The page tree of a file as the engine writes it (plain objects, no object streams), read
// without the engine: every node's /Count must be the number of pages below it and every kid's
// /Parent its node.
struct PageTree {
    std::vector<int> pages;  // page objects in page order
    int widest = 0;          // longest Kids array
    std::string problem;     // empty when the tree holds
};

// The number after `key` in `dict`; -1 without the key.
int IntAfter(const std::string& dict, const std::string& key) {
    const std::size_t at = dict.find(key);
    return at == std::string::npos ? -1 : std::atoi(dict.c_str() + at + key.size());
}

std::string TypeOf(const std::string& dict) {
    std::size_t at = dict.find("/Type");
    if (at == std::string::npos) return "";
    at = dict.find('/', at + 5);
    std::size_t end = at + 1;
    while (end < dict.size() && std::isalnum(static_cast<unsigned char>(dict[end]))) ++end;
    return dict.substr(at + 1, end - at - 1);
}

std::vector<int> KidsOf(const std::string& dict) {
    std::vector<int> kids;
    const std::size_t open = dict.find("/Kids");
    if (open == std::string::npos) return kids;
    const std::size_t from = dict.find('[', open);
    std::istringstream refs(dict.substr(from + 1, dict.find(']', from) - from - 1));
    int number = 0;
    int generation = 0;
    std::string r;
    while (refs >> number >> generation >> r) kids.push_back(number);
    return kids;
}

std::map<int, std::string> ObjectDicts(const std::string& pdf) {
    std::map<int, std::string> objects;
    for (std::size_t at = pdf.find(" 0 obj"); at != std::string::npos;
         at = pdf.find(" 0 obj", at + 1)) {
        std::size_t start = at;
        while (start > 0 && std::isdigit(static_cast<unsigned char>(pdf[start - 1]))) --start;
        if (start == at || (start > 0 && pdf[start - 1] != '\n' && pdf[start - 1] != '\r'))
            continue;
        const std::size_t end = std::min(pdf.find("endobj", at), pdf.find("stream", at));
        objects[std::atoi(pdf.c_str() + start)] = pdf.substr(at + 6, end - at - 6);
    }
    return objects;
}

PageTree ReadPageTree(const stdfs::path& file) {
    const std::string pdf = test::ReadBytes(file);
    const std::map<int, std::string> objects = ObjectDicts(pdf);
    PageTree tree;
    const auto dict = [&](int number) {
        const auto found = objects.find(number);
        return found == objects.end() ? std::string() : found->second;
    };
    const int catalog = IntAfter(pdf.substr(pdf.rfind("trailer")), "/Root");
    const int root = IntAfter(dict(catalog), "/Pages");
    // Returns the pages below `node`.
    std::function<int(int, int)> walk = [&](int node, int depth) -> int {
        const std::string here = dict(node);
        const std::string type = TypeOf(here);
        if (type == "Page") {
            tree.pages.push_back(node);
            return 1;
        }
        if (type != "Pages" || depth > 64) {
            tree.problem += "object " + std::to_string(node) + " is no page tree node; ";
            return 0;
        }
        const std::vector<int> kids = KidsOf(here);
        tree.widest = std::max(tree.widest, static_cast<int>(kids.size()));
        int below = 0;
        for (const int kid : kids) {
            if (IntAfter(dict(kid), "/Parent") != node)
                tree.problem += "object " + std::to_string(kid) + " has the wrong parent; ";
            below += walk(kid, depth + 1);
        }
        if (IntAfter(here, "/Count") != below)
            tree.problem += "node " + std::to_string(node) + " counts " +
                            std::to_string(IntAfter(here, "/Count")) + " of " +
                            std::to_string(below) + " pages; ";
        return below;
    };
    walk(root, 0);
    return tree;
}

// One import: from the destination itself or from the source, the source's pages `pages`
// (0-based; all when empty) in front of page `at`.
struct Step {
    bool from_itself;
    std::vector<int> pages;
    int at;
};

TEST(PageGraft, RunsLandInOrderUnderASoundTree) {
    const stdfs::path dir = test::ScratchDir();
    const struct Case {
        const char* name;
        int dest_pages;
        int source_pages;
        std::vector<Step> steps;
    } cases[] = {
        {"append at the end", 3, 3, {{false, {}, 3}}},
        {"insert at the front", 3, 3, {{false, {1, 2}, 0}}},
        {"insert in the middle, out of order", 4, 3, {{false, {2, 0}, 2}}},
        {"one page", 3, 3, {{false, {1}, 1}}},
        {"into an empty document", 0, 3, {{false, {}, 0}}},
        {"the document appended to itself", 3, 0, {{true, {}, 3}}},
        {"pages of itself in front of its second", 3, 0, {{true, {2, 0}, 1}}},
        // The second run lands inside the subtree the first one made, two nodes down.
        {"a run inside an earlier run", 2, 70, {{false, {}, 2}, {false, {0, 1, 2}, 40}}},
        {"a run repeated inside itself", 1, 40, {{false, {}, 1}, {true, {}, 20}, {false, {39}, 0}}},
        {"a long run", 3, 2000, {{false, {}, 3}, {false, {1999, 0}, 1000}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> expected = Labels("d", c.dest_pages);
        const std::vector<std::string> source_labels = Labels("s", c.source_pages);
        const stdfs::path target = LabelledPdf(dir / "target.pdf", expected);
        const stdfs::path source = LabelledPdf(dir / "source.pdf", source_labels);
        CZPdfContentObject dst;
        CZPdfContentObject src;
        test::OpenQuietly(dst, target);
        test::OpenQuietly(src, source);
        for (const Step& step : c.steps) {
            const std::vector<std::string>& from = step.from_itself ? expected : source_labels;
            std::vector<std::string> run = step.pages.empty() ? from : std::vector<std::string>();
            for (const int page : step.pages) run.push_back(from[page]);
            CZPdfContentObject& object = step.from_itself ? dst : src;
            ::testing::internal::CaptureStderr();
            EXPECT_NO_THROW(engine::ImportPages(dst.EngineDocument(), object.EngineDocument(),
                                                   step.pages.empty() ? nullptr : &step.pages,
                                                   step.at));
            ::testing::internal::GetCapturedStderr();
            expected.insert(expected.begin() + step.at, run.begin(), run.end());
            EXPECT_EQ(Pages(dst), static_cast<std::int32_t>(expected.size()));
        }
        Save(dst);
        EXPECT_TRUE(test::QpdfCheckPasses(target));
        EXPECT_EQ(test::PdfPageTexts(target), expected);
        const PageTree tree = ReadPageTree(target);
        EXPECT_EQ(tree.problem, "");
        EXPECT_EQ(tree.pages.size(), expected.size());
        // A run goes in as nodes of a few dozen kids, not one flat array.
        EXPECT_LE(tree.widest, c.dest_pages + static_cast<int>(c.steps.size()) + 32)
            << "longest Kids array";
    }
}

// A run that fails part way, from another document and from the document itself: the error
// names the page and the engine's reason, and the saved document is byte for byte the one an
// empty run leaves (the import stamps the producer even then) up to its cross-reference table.
TEST(PageGraft, FailedRunLeavesNothingBehind) {
    const stdfs::path dir = test::ScratchDir();
    std::vector<SamplePage> pages = LabelledPages(Labels("s", 4));
    // A later key wins: page 3's content names an object the file does not have.
    pages[2].extra_entries = "/Contents 999 0 R";
    const std::string broken = samples::BuildPdf(pages);
    const std::string sound = samples::BuildPdf(LabelledPages(Labels("d", 3)));
    const stdfs::path failed_file = dir / "failed.pdf";
    const stdfs::path empty_file = dir / "empty-run.pdf";
    const stdfs::path source_file = dir / "source.pdf";

    for (const bool from_itself : {false, true}) {
        SCOPED_TRACE(from_itself ? "from itself" : "from another document");
        test::WriteBytes(failed_file, from_itself ? broken : sound);
        test::WriteBytes(empty_file, from_itself ? broken : sound);
        test::WriteBytes(source_file, broken);

        CZPdfContentObject failed;
        CZPdfContentObject empty_run;
        CZPdfContentObject src;
        test::OpenQuietly(failed, failed_file);
        test::OpenQuietly(empty_run, empty_file);
        test::OpenQuietly(src, source_file);
        CZPdfContentObject& source = from_itself ? failed : src;
        const std::vector<int> run{0, 1, 2, 3};
        ::testing::internal::CaptureStderr();
        std::string error;
        try {
            engine::ImportPages(failed.EngineDocument(), source.EngineDocument(), &run, 1);
        } catch (const engine::EngineError& e) {
            error = e.what();
        }
        const std::vector<int> none;
        engine::ImportPages(empty_run.EngineDocument(), empty_run.EngineDocument(), &none, 1);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(error.rfind("cannot import page 3: ", 0), 0u) << error;

        EXPECT_EQ(Pages(failed), from_itself ? 4 : 3);
        Save(failed);
        Save(empty_run);
        const std::string failed_bytes = test::ReadBytes(failed_file);
        const std::string empty_bytes = test::ReadBytes(empty_file);
        const std::size_t objects_end = empty_bytes.rfind("\nxref");
        ASSERT_NE(objects_end, std::string::npos);
        EXPECT_EQ(failed_bytes.substr(0, failed_bytes.rfind("\nxref")),
                  empty_bytes.substr(0, objects_end));
        EXPECT_EQ(ReadPageTree(failed_file).problem, "");

        // The document, saved and opened again, still takes pages.
        test::OpenQuietly(failed, failed_file);
        const std::vector<int> good{3, 0};
        EXPECT_NO_THROW(
            engine::ImportPages(failed.EngineDocument(), source.EngineDocument(), &good, 0));
        EXPECT_EQ(Pages(failed), from_itself ? 6 : 5);
    }
}

}  // namespace
}  // namespace zpdf
