// Helpers of the content object's tests: documents whose pages show a label, opening them with
// the engine's warnings kept off the test's output, a step of the file road failing, the page
// tree of a saved file, a temporary folder whose private copies can be counted.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/files.h"
#include "platform/text.h"
#include "support/test_support.h"

namespace zpdf::test {

using Obj = CZPdfContentObject;
using Size = std::pair<double, double>;
using Path = std::filesystem::path;

// What `call` returns, the engine's diagnostics (standard error) sent nowhere meanwhile. Unlike
// a capture, this may run while standard error is captured.
template <class Call>
auto Quiet(Call&& call) {
    std::fflush(stderr);
    const int saved = dup(2), null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    const auto result = call();
    std::fflush(stderr);
    dup2(saved, 2);
    close(null), close(saved);
    return result;
}

inline void OpenQuietly(Obj& object, const Path& file, const OptionalText& password = u"") {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, password), hr::kOk);
    ASSERT_EQ(Quiet([&] { return object.EnsurePdfDocument(); }), hr::kOk) << object.LastErrorText();
}

// The page count, the document opened as needed; -1 when that fails.
inline std::int32_t Pages(Obj& object) {
    std::int32_t pages = 0;
    return Quiet([&] { return object.PageCount(&pages); }) == hr::kOk ? pages : -1;
}

// Width and height of a page in points; {-1, -1} when it cannot be measured.
inline Size PageSize(Obj& object, std::int32_t page) {
    Size size;
    return object.GetPageSize(page, &size.first, &size.second) == hr::kOk ? size : Size(-1, -1);
}

// "<prefix>1" to "<prefix><count>".
inline std::vector<std::string> Labels(const std::string& prefix, int count) {
    std::vector<std::string> labels;
    for (int i = 1; i <= count; ++i) labels.push_back(prefix + std::to_string(i));
    return labels;
}

// One page of `width` x `height` points per label, the label written at its top left.
inline std::string LabelledBytes(const std::vector<std::string>& labels, double width = 595,
                                 double height = 842) {
    std::vector<samples::SamplePage> pages;
    for (const std::string& label : labels)
        pages.push_back({width, height, 0, samples::TextContent({label}, height), ""});
    return samples::BuildPdf(pages);
}
inline Path LabelledPdf(const Path& path, const std::vector<std::string>& labels) {
    WriteBytes(path, LabelledBytes(labels));
    return path;
}

// `call` with every file step of kind `op` failing for want of disk space.
inline HResult Failing(fs::FileOp op, const std::function<HResult()>& call) {
    fs::SetFaultHook(
        [op](fs::FileOp seen, const Path&) { return seen == op ? fs::kErrorDiskFull : 0; });
    const HResult result = call();
    fs::SetFaultHook(nullptr);
    return result;
}

// A test whose private copies go to a temporary folder of its own, so that leftovers can be
// counted. The file fault hook is cleared after it.
class PrivateCopyTest : public ::testing::Test {
  protected:
    PrivateCopyTest() { std::filesystem::create_directories(tmp_); }
    void TearDown() override { fs::SetFaultHook(nullptr); }
    std::size_t PrivateCopies() const { return FilesStartingWith(tmp_, "zpf").size(); }

    const Path dir_ = ScratchDir();  // the test's files
    const Path tmp_ = dir_ / "tmp";  // its temporary folder
    const TempFolderOverride tmp_override_{tmp_};
};

// The page tree of a saved file as qpdf lists its objects: how many pages, the longest Kids
// array, and `problem` naming every node whose /Count is not the number of pages below it, every
// kid whose /Parent is not its node, every kid that is neither page nor node and every node
// below the root without kids.
struct PageTree {
    int pages = 0, widest = 0;
    std::string problem;
};
constexpr const char* kPageTree = R"jq(
.qpdf[1] as $o | def d($r): $o["obj:" + $r].value;
def walk($r): d($r) as $n | if $n["/Type"] == "/Page" then [1, 0, ""]
  elif $n["/Type"] != "/Pages" then [0, 0, "\($r) is no node; "] else
  reduce ($n["/Kids"][] as $k | walk($k) + [$k, d($k)["/Parent"] == $r]) as $w
    ([0, ($n["/Kids"] | length), ""]; [.[0] + $w[0], ([.[1], $w[1]] | max),
      .[2] + $w[2] + if $w[4] then "" else "\($w[3]) has the wrong parent; " end
      + if d($w[3])["/Kids"] == [] then "\($w[3]) is an empty node; " else "" end])
  | if .[0] == $n["/Count"] then . else .[2] += "\($r) counts wrong; " end end;
walk(d($o.trailer.value["/Root"])["/Pages"]) | "\(.[0]) \(.[1]) \(.[2])"
)jq";

inline PageTree ReadPageTree(const Path& file) {
    const Path program = file.parent_path() / "tree.jq";
    WriteBytes(program, kPageTree);
    std::istringstream read(
        Run("qpdf --json=2 --json-key=qpdf " + Quote(file) + " | jq -r -f " + Quote(program))
            .output);
    PageTree tree;
    read >> tree.pages >> tree.widest;
    std::getline(read >> std::ws, tree.problem);
    return tree;
}

}  // namespace zpdf::test
