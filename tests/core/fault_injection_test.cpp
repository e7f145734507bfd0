// Every disk-changing step of the writing methods, made to fail in turn. A clean run first
// counts the steps that pass through the file fault hook; then, for every n, the n-th step
// fails. Afterwards the user's file is byte-identical, nothing half-written or temporary is
// left, the method reports the failure, nothing is written after the failing step, and the
// same object succeeds once the disk works again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/byte_stream.h"
#include "platform/files.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using fs::FileOp;
using enum fs::FileOp;

// The split source: five labelled pages cut into the parts {1, 2}, {3} and {4, 5}.
const char* const kLabels[] = {"Alpha", "Bravo", "Charlie", "Delta", "Echo"};
const std::vector<std::vector<int>> kParts = {{1, 2}, {3}, {4, 5}};

// Content that makes a page large: small squares at scattered places. The numbers do not
// compress to nothing, so the document reaches the disk in several writes even after qpdf
// compressed its streams.
std::string ScatteredSquares(int count) {
    std::string out = "0.5 g\n";
    unsigned state = 20240607u;
    char line[64];
    for (int i = 0; i < count; ++i) {
        state = state * 1103515245u + 12345u;
        const unsigned x = (state >> 4) % 50000u;
        state = state * 1103515245u + 12345u;
        const unsigned y = (state >> 4) % 80000u;
        std::snprintf(line, sizeof line, "%u.%02u %u.%02u 0.5 0.5 re f\n", x / 100, x % 100,
                      y / 100, y % 100);
        out += line;
    }
    return out;
}

stdfs::path Sample(const stdfs::path& path, const std::vector<samples::SamplePage>& pages) {
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(pages)));
    return path;
}

samples::SamplePage TextPage(const std::vector<std::string>& lines, std::string more = "") {
    samples::SamplePage page;
    page.content = samples::TextContent(lines, page.height) + more;
    return page;
}

// The documents every attempt starts from; none of them is ever written by an attempt.
struct Inputs {
    stdfs::path dir;
    stdfs::path document;      // two pages, the first large
    stdfs::path extra;         // one page, appended before the saves
    stdfs::path encrypted;     // the document under AES-128, passwords "user" and "owner"
    stdfs::path split_source;  // the five labelled pages with their markers
    std::vector<OptionalText> recipients;  // one certificate

    // Like `encrypted`, but large enough for the certificate writer, which hands the file over
    // in pieces of a megabyte, to write it in more than one. Made when first needed.
    const stdfs::path& LargeEncrypted() {
        if (large_encrypted.empty()) {
            const stdfs::path plain = dir / "large.pdf";
            Sample(plain, {TextPage({"Keep me"}, ScatteredSquares(200000)), TextPage({"And me"})});
            large_encrypted =
                test::QpdfEncrypt(plain, dir / "large-encrypted.pdf", "user", "owner", 128);
        }
        return large_encrypted;
    }
    stdfs::path large_encrypted;
};

// One attempt at a scenario, in a folder of its own: its objects, and what it expects of its
// result.
struct Attempt {
    Attempt(Inputs& inputs, stdfs::path folder) : in(inputs), dir(std::move(folder)) {
        stdfs::create_directories(dir);
    }
    Inputs& in;
    stdfs::path dir;
    stdfs::path user_file;  // must stay byte-identical when the call fails; empty: none
    CZPdfContentObject object;
    CZPdfContentObject extra;
    int expected_pages = 0;
    std::int32_t parts = -1;  // SplitPdf's count
};

struct Step {
    FileOp op;
    stdfs::path path;
};

// Runs `call` with every step the hook is asked about recorded; the `fail_at`-th (1-based; 0
// fails none) fails with `error`.
std::vector<Step> Hooked(std::size_t fail_at, int error, const std::function<void()>& call) {
    std::vector<Step> steps;
    fs::SetFaultHook([&steps, fail_at, error](FileOp op, const stdfs::path& path) {
        steps.push_back({op, path});
        return steps.size() == fail_at ? error : 0;
    });
    call();
    fs::SetFaultHook(nullptr);
    return steps;
}

struct Scenario {
    const char* name;
    std::map<FileOp, int> steps;  // how often, at least, a clean run passes each through the hook
    std::function<void(Attempt&)> prepare;  // runs without the hook
    std::function<HResult(Attempt&)> call;
    bool win32_failure;  // a failure returns HRESULT_FROM_WIN32(error); otherwise E_FAIL
    std::function<void(Attempt&, const Step& failed)> failed;  // what else holds after a failure
    std::function<void(Attempt&)> succeeded;                   // what holds after success
    std::size_t private_copies;  // "zpf" files the object holds after success
    // "zpf" files it holds after a failure that leaves its documents open
    std::size_t copies_while_open = 0;
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

// ---- The saves ----

// A save of `source`, opened with `password`, with the extra page appended so that the save has
// a change to carry. After a failure the documents stay open unless it came at the move, which
// closes them first; the host then opens the file again, as it was: the appended page lived only
// in memory. An append to an unencrypted document reads its page from a private copy of the
// extra file until the documents close.
Scenario SaveScenario(const char* name, std::function<stdfs::path(Inputs&)> source,
                      const char16_t* password, std::function<HResult(Attempt&)> call,
                      std::function<void(Attempt&)> succeeded, std::size_t copies_while_open) {
    const auto prepare = [source, password](Attempt& attempt) {
        attempt.user_file = attempt.dir / "doc.pdf";
        stdfs::copy_file(source(attempt.in), attempt.user_file);
        ASSERT_EQ(attempt.object.SetPdfDocument(FromPath(attempt.user_file), 0, password), hr::kOk);
        ASSERT_EQ(attempt.extra.SetPdfDocument(FromPath(attempt.in.extra), 0, u""), hr::kOk);
        ASSERT_EQ(attempt.object.AppendPages(&attempt.extra), hr::kOk)
            << attempt.object.LastErrorText();
        attempt.expected_pages = 3;
    };
    const auto failed = [](Attempt& attempt, const Step& step) {
        const bool at_move = step.op == Move;
        EXPECT_EQ(attempt.object.IsDocumentOpen(), !at_move);
        if (!at_move) return;
        std::int32_t pages = 0;
        EXPECT_EQ(attempt.object.PageCount(&pages), hr::kOk) << attempt.object.LastErrorText();
        EXPECT_EQ(pages, 2);
        attempt.expected_pages = 2;
    };
    const std::map<FileOp, int> steps = {
        {Create, 1}, {Write, 2}, {Flush, 1}, {Close, 1}, {Move, 1}};
    return {name,
            steps,
            prepare,
            std::move(call),
            false,
            failed,
            std::move(succeeded),
            0,
            copies_while_open};
}

std::string QpdfOutput(const std::string& arguments, const stdfs::path& file) {
    return test::Run("qpdf " + arguments + " " + test::Quote(file)).output;
}

// ---- The split ----

// The number in "part_<n>" or its side file "part_<n>.part".
int PartNumber(const stdfs::path& path) {
    const std::string name = path.filename().string();
    return std::atoi(name.substr(name.find('_') + 1).c_str());
}

// Exactly the first `count` parts are in `dir`, each whole: its pages and no other.
void ExpectWholeParts(const stdfs::path& dir, int count) {
    EXPECT_EQ(test::FilesStartingWith(dir, "part_").size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const stdfs::path part = dir / ("part_" + std::to_string(i + 1));
        SCOPED_TRACE(part.filename().string());
        ASSERT_TRUE(stdfs::exists(part));
        EXPECT_TRUE(test::QpdfCheckPasses(part));
        const std::vector<int>& pages = kParts[static_cast<std::size_t>(i)];
        EXPECT_EQ(test::QpdfPageCount(part), static_cast<int>(pages.size()));
        const std::string text = test::PdfToText(part);
        for (int page = 1; page <= 5; ++page) {
            const bool held = std::find(pages.begin(), pages.end(), page) != pages.end();
            EXPECT_EQ(text.find(kLabels[page - 1]) != std::string::npos, held)
                << "page " << page << " in: " << text;
        }
    }
}

// ---- The embedded record ----

std::vector<std::uint8_t> EmbeddedRecord(const stdfs::path& document) {
    const std::string bytes = test::ReadBytes(document);
    std::vector<std::uint8_t> record;
    const auto u32 = [&record](std::uint32_t v) {
        for (int shift = 0; shift < 32; shift += 8)
            record.push_back(static_cast<std::uint8_t>(v >> shift));
    };
    u32(1);  // version
    u32(2);  // an empty path: its terminator only
    record.insert(record.end(), {0, 0});
    record.insert(record.end(), {0xFF, 0xFF});  // embedded
    u32(0);                                     // a null password
    u32(static_cast<std::uint32_t>(bytes.size()));
    record.insert(record.end(), bytes.begin(), bytes.end());
    return record;
}

void ExpectPrivateCopyOf(CZPdfContentObject& object, const stdfs::path& original) {
    ASSERT_TRUE(object.HasPath());
    const stdfs::path copy = ToPath(*object.PdfFilePath());
    EXPECT_EQ(copy.filename().string().rfind("zpf", 0), 0u) << copy;
    EXPECT_EQ(test::ReadBytes(copy), test::ReadBytes(original));
    std::int32_t pages = 0;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk) << object.LastErrorText();
    EXPECT_EQ(pages, 2);
}

const Scenario kScenarios[] = {
    SaveScenario(
        "Save", [](Inputs& in) { return in.document; }, u"",
        [](Attempt& a) { return a.object.Save(); },
        [](Attempt& a) {
            EXPECT_TRUE(test::QpdfCheckPasses(a.user_file));
            EXPECT_EQ(test::QpdfPageCount(a.user_file), a.expected_pages);
        },
        1),
    SaveScenario(
        "SaveWithSecurity", [](Inputs& in) { return in.encrypted; }, u"user",
        [](Attempt& a) { return a.object.SaveWithSecurity(u"new user", u"new owner"); },
        [](Attempt& a) {
            EXPECT_NE(
                QpdfOutput("--show-encryption --password='new user'", a.user_file).find("R = 6\n"),
                std::string::npos);
            EXPECT_EQ(QpdfOutput("--show-npages --password='new owner'", a.user_file),
                      std::to_string(a.expected_pages) + "\n");
        },
        0),
    SaveScenario(
        "SaveWithPubKeySecurity", [](Inputs& in) { return in.LargeEncrypted(); }, u"user",
        [](Attempt& a) { return a.object.SaveWithPubKeySecurity(&a.in.recipients); },
        [](Attempt& a) {
            // Only a certificate holder reads the pages (secured_save_test has PDFBox do that);
            // here it is enough that the file is a certificate-secured document now.
            const std::string bytes = test::ReadBytes(a.user_file);
            EXPECT_EQ(bytes.substr(0, 9), "%PDF-1.7\n");
            EXPECT_NE(bytes.find("/Adobe.PubSec"), std::string::npos);
        },
        0),
    {"SplitPdf",
     {{Create, 3}, {Write, 3}, {Flush, 3}, {Close, 3}, {Move, 3}},
     [](Attempt& a) { a.user_file = a.in.split_source; },
     [](Attempt& a) {
         return a.object.SplitPdf(FromPath(a.in.split_source), FromPath(a.dir / "part"), &a.parts);
     },
     true,
     [](Attempt& a, const Step& failed) {
         // The parts before the failing one are in place and whole; of that one nothing is.
         const int failing = PartNumber(failed.path);
         EXPECT_EQ(a.parts, failing - 1);
         ExpectWholeParts(a.dir, failing - 1);
     },
     [](Attempt& a) {
         EXPECT_EQ(a.parts, 3);
         ExpectWholeParts(a.dir, 3);
     },
     0},
    {"SetPdfDocumentEmbed",
     {{Create, 1}, {Copy, 1}},
     [](Attempt& a) { a.user_file = a.in.document; },
     [](Attempt& a) { return a.object.SetPdfDocument(FromPath(a.in.document), -1, u""); },
     true,
     [](Attempt& a, const Step&) { EXPECT_FALSE(a.object.HasPath()); },
     [](Attempt& a) { ExpectPrivateCopyOf(a.object, a.in.document); },
     1},
    {"LoadEmbeddedRecord",
     // The temporary file is made, then opened for writing.
     {{Create, 2}, {Write, 3}, {Flush, 1}, {Close, 1}},
     [](Attempt&) {},
     [](Attempt& a) {
         MemoryByteStream stream(EmbeddedRecord(a.in.document));
         return a.object.Load(stream);
     },
     true,
     [](Attempt& a, const Step&) {
         // The object is reset, with the fields read before the content.
         EXPECT_EQ(a.object.PdfFilePath(), OptionalText(u""));
         EXPECT_EQ(a.object.EmbedFlag(), -1);
         EXPECT_EQ(a.object.PasswordText(), std::nullopt);
     },
     [](Attempt& a) { ExpectPrivateCopyOf(a.object, a.in.document); },
     1},
};

// Private copies go to a temporary folder of the test's own, so that leftovers can be counted.
// The engine's load diagnostics are kept off the console.
class FaultInjectionTest : public ::testing::TestWithParam<Scenario> {
  protected:
    void SetUp() override {
        ::testing::internal::CaptureStderr();
        stdfs::create_directories(tmp_);
        tmp_override_.emplace(tmp_);
        const stdfs::path inputs = dir_ / "inputs";
        stdfs::create_directories(inputs);
        in_.dir = inputs;
        in_.document =
            Sample(inputs / "document.pdf",
                   {TextPage({"Keep me"}, ScatteredSquares(12000)), TextPage({"And me"})});
        in_.extra = Sample(inputs / "extra.pdf", {TextPage({"Appended"})});
        in_.encrypted =
            test::QpdfEncrypt(in_.document, inputs / "encrypted.pdf", "user", "owner", 128);
        std::vector<samples::SamplePage> pages;
        for (int page = 1; page <= 5; ++page) {
            const bool marker = page == 2 || page == 3;
            pages.push_back(marker ? TextPage({kLabels[page - 1], "@@nd@@"})
                                   : TextPage({kLabels[page - 1]}));
        }
        in_.split_source = Sample(inputs / "split.pdf", pages);
        const stdfs::path certificate = inputs / "cert.pem";
        const auto made = test::Run(
            "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj '/CN=Alice' -keyout " +
            test::Quote(inputs / "key.pem") + " -out " + test::Quote(certificate));
        ASSERT_EQ(made.exit_code, 0) << made.output;
        in_.recipients = {FromAnsi(test::ReadBytes(certificate))};
    }
    void TearDown() override {
        fs::SetFaultHook(nullptr);
        tmp_override_.reset();
        ::testing::internal::GetCapturedStderr();
    }

    std::size_t PrivateCopies() const { return test::FilesStartingWith(tmp_, "zpf").size(); }
    // Side files (".part") anywhere below the test's folder.
    std::vector<stdfs::path> SideFiles() const {
        std::vector<stdfs::path> found;
        for (const auto& entry : stdfs::recursive_directory_iterator(dir_)) {
            if (entry.path().extension() == ".part") found.push_back(entry.path());
        }
        return found;
    }
    // What holds once the call succeeded: its result, no side file, the object's private copies.
    void ExpectSucceeded(const Scenario& scenario, Attempt& attempt) {
        scenario.succeeded(attempt);
        EXPECT_TRUE(SideFiles().empty());
        EXPECT_EQ(PrivateCopies(), scenario.private_copies);
    }

    const stdfs::path dir_ = test::ScratchDir();
    const stdfs::path tmp_ = dir_ / "tmp";
    Inputs in_;
    std::optional<test::TempFolderOverride> tmp_override_;
};

TEST_P(FaultInjectionTest, EveryStepFailsCleanly) {
    const Scenario& scenario = GetParam();

    // The clean run: the steps that pass through the hook, and the result they make.
    std::vector<Step> clean;
    {
        Attempt attempt(in_, dir_ / "runs" / "clean");
        scenario.prepare(attempt);
        if (HasFatalFailure()) return;
        HResult result = hr::kFail;
        clean = Hooked(0, 0, [&] { result = scenario.call(attempt); });
        ASSERT_EQ(result, hr::kOk) << attempt.object.LastErrorText();
        ExpectSucceeded(scenario, attempt);
    }
    EXPECT_EQ(PrivateCopies(), 0u) << "the object deletes its private copy";
    std::map<FileOp, int> seen;
    for (const Step& step : clean) ++seen[step.op];
    for (const auto& [op, count] : scenario.steps) {
        EXPECT_GE(seen[op], count) << fs::FileOpName(op) << " steps of a clean run";
    }

    for (std::size_t n = 1; n <= clean.size(); ++n) {
        const FileOp op = clean[n - 1].op;
        std::vector<int> errors = {fs::kErrorDiskFull};
        if (op == Create || op == Move) errors.push_back(fs::kErrorAccessDenied);
        for (const int error : errors) {
            const std::string name = "step" + std::to_string(n) + "-error" + std::to_string(error);
            SCOPED_TRACE(name + ": " + fs::FileOpName(op) + " of " +
                         clean[n - 1].path.filename().string());
            Attempt attempt(in_, dir_ / "runs" / name);
            scenario.prepare(attempt);
            if (HasFatalFailure()) return;
            const std::string before =
                attempt.user_file.empty() ? std::string() : test::ReadBytes(attempt.user_file);

            HResult result = hr::kOk;
            const std::vector<Step> steps =
                Hooked(n, error, [&] { result = scenario.call(attempt); });
            ASSERT_EQ(steps.size(), n) << "nothing is written after the failing step";
            EXPECT_EQ(steps[n - 1].op, op);
            EXPECT_EQ(result, scenario.win32_failure ? hr::FromWin32(error) : hr::kFail);
            EXPECT_FALSE(attempt.object.LastErrorText().empty());
            if (!attempt.user_file.empty()) {
                EXPECT_EQ(test::ReadBytes(attempt.user_file), before);
            }
            EXPECT_TRUE(SideFiles().empty());
            EXPECT_EQ(PrivateCopies(),
                      attempt.object.IsDocumentOpen() ? scenario.copies_while_open : 0u);
            scenario.failed(attempt, steps[n - 1]);

            // The disk works again: the same object succeeds.
            EXPECT_EQ(scenario.call(attempt), hr::kOk) << attempt.object.LastErrorText();
            ExpectSucceeded(scenario, attempt);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Writes, FaultInjectionTest, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario>& param) {
                             return std::string(param.param.name);
                         });

}  // namespace
}  // namespace zpdf
