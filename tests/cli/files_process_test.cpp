// zpdf's files under real processes: interrupted at random moments, two of them writing one
// file at once, outputs that are inputs under another name, names that are not UTF-8, and the
// messages of failures. Each test works in its own folder, with files named relatively.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "cli/sample_pdf.h"
#include "cli/zpdf_test.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using test::Quote;
using test::Zpdf;

std::vector<std::string> Entries(const stdfs::path& dir = ".") {
    std::vector<std::string> names;
    for (const auto& entry : stdfs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// A document of `pages` pages, each with a line of text and some squares, so that stamping and
// writing it takes a while.
std::string Document(int pages) {
    std::vector<samples::SamplePage> list(static_cast<std::size_t>(pages));
    for (int i = 0; i < pages; ++i) {
        auto& page = list[static_cast<std::size_t>(i)];
        page.content = samples::TextContent({"Body page " + std::to_string(i + 1)}, page.height);
        for (int k = 0; k < 40; ++k)
            page.content += std::to_string((i * 37 + k * 11) % 500) + " " +
                            std::to_string((i * 13 + k * 29) % 800) + " 3 3 re f\n";
    }
    return samples::BuildPdf(list);
}

// How often the letterhead saying `text` was stamped onto page 1. Stamps of one text land on
// one spot, where a text reader may take the second for the first; count different texts.
int Stamps(const stdfs::path& file, const std::string& text = "LETTERHEAD") {
    const std::string page =
        test::Run("pdftotext -f 1 -l 1 " + Quote(file) + " - 2>/dev/null").output;
    int count = 0;
    for (auto at = page.find(text); at != std::string::npos; at = page.find(text, at + 1)) ++count;
    return count;
}

// Starts zpdf with `args`, its output thrown away.
pid_t Start(std::vector<std::string> args) {
    args.insert(args.begin(), ZPDF_BINARY);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

int Wait(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}

// Each test in a fresh folder of its own, with a one-page letterhead lh.pdf ("LETTERHEAD").
class FilesProcess : public test::InScratchFolder {
  protected:
    void SetUp() override {
        InScratchFolder::SetUp();
        test::TextPdf("lh.pdf", {"LETTERHEAD"});
    }
};

// Interrupted at random moments of an in-place stamp, zpdf leaves the file as it was or complete
// with the change, and nothing beside it or in the temporary folder. It ends by the signal, as a
// shell expects. (Every editing command saves through the same session.)
TEST_F(FilesProcess, InterruptedRunsLeaveNothing) {
    stdfs::create_directory("tmp");
    const test::TempFolderOverride tmp(stdfs::absolute("tmp"));
    const std::string original = Document(400);
    const std::vector<std::string> stamp = {"stamp", "doc.pdf", "lh.pdf", "--all"};
    // How long an uninterrupted run takes, so the signals fall inside it.
    test::WriteBytes("doc.pdf", original);
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(Wait(Start(stamp)), 0);
    const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - started);
    std::mt19937 random(20261125);
    const int signals[] = {SIGINT, SIGTERM, SIGHUP};
    int interrupted = 0;
    for (int trial = 0; trial < 60; ++trial) {
        const int signo = signals[trial % 3];
        SCOPED_TRACE("trial " + std::to_string(trial) + ", signal " + std::to_string(signo));
        test::WriteBytes("doc.pdf", original);
        const pid_t pid = Start(stamp);
        std::this_thread::sleep_for(std::chrono::microseconds(
            std::uniform_int_distribution<long>(0, duration.count() * 11 / 10)(random)));
        kill(pid, signo);
        const int status = Wait(pid);
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), signo);
            ++interrupted;
        } else {
            EXPECT_EQ(WEXITSTATUS(status), 0) << "finished before the signal";
        }
        if (test::ReadBytes("doc.pdf") != original) {
            EXPECT_TRUE(test::QpdfCheckPasses("doc.pdf") && Stamps("doc.pdf") == 1)
                << "neither the old file nor the new one";
        }
        EXPECT_EQ(Entries(), (std::vector<std::string>{"doc.pdf", "lh.pdf", "tmp"}));
        EXPECT_TRUE(Entries("tmp").empty());
    }
    EXPECT_GT(interrupted, 10) << "the signals mostly came while zpdf ran";
}

// Two in-place stamps of one file at once, each with a letterhead of its own: the file is always
// a complete document that holds exactly the stamps of the runs that reported success; a run
// that lost says so.
TEST_F(FilesProcess, TwoWritersOfOneFile) {
    const std::string original = Document(150);
    const std::string texts[] = {"FIRSTHEAD", "SECONDHEAD"};
    for (const std::string& text : texts) test::TextPdf(text + ".pdf", {text});
    int lost = 0;
    for (int trial = 0; trial < 12; ++trial) {
        SCOPED_TRACE("trial " + std::to_string(trial));
        test::WriteBytes("doc.pdf", original);
        test::ToolResult results[2];
        std::thread first([&] { results[0] = Zpdf("stamp doc.pdf FIRSTHEAD.pdf"); });
        std::thread second([&] { results[1] = Zpdf("stamp doc.pdf SECONDHEAD.pdf"); });
        first.join();
        second.join();
        for (int i = 0; i < 2; ++i) {
            const auto& [code, output] = results[i];
            EXPECT_EQ(Stamps("doc.pdf", texts[i]), code == 0 ? 1 : 0) << output;
            EXPECT_TRUE(code == 0 ||
                        (code == 1 && output.find("another writer") != std::string::npos))
                << output;
            lost += code == 0 ? 0 : 1;
        }
        EXPECT_TRUE(results[0].exit_code == 0 || results[1].exit_code == 0) << "one of them wins";
        EXPECT_TRUE(test::QpdfCheckPasses("doc.pdf"));
        EXPECT_EQ(Entries(), (std::vector<std::string>{"FIRSTHEAD.pdf", "SECONDHEAD.pdf", "doc.pdf",
                                                       "lh.pdf"}));
    }
    EXPECT_GT(lost, 0) << "the runs overlapped at least once";
}

// A failure is one line, after the command's name, that names the file at fault and gives the
// system's reason; no output is one of the inputs, whatever name leads to it. Every file stays as
// it was.
TEST_F(FilesProcess, MessagesNameTheFileAtFault) {
    test::WriteBytes("doc.pdf", Document(1));
    test::WriteBytes("cert.pem", "not read before the names are compared");
    stdfs::create_hard_link("doc.pdf", "hard.pdf");
    stdfs::create_symlink("lh.pdf", "soft.pdf");
    // A print file cut after its first page: its first part's name is its own.
    test::TextPdf("part_1", {"Letter @@nd@@", "Letter @@nd@@", "Letter @@nd@@"});
    // Opens, but one of its objects cannot be read once the whole document is written.
    test::WriteBytes("damaged.pdf",
                     samples::PdfFromObjects({"<< /Type /Catalog /Pages 2 0 R /Extra 4 0 R >>",
                                              "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                              "<< /Type /Page /Parent 2 0 R"
                                              " /MediaBox [0 0 200 200] >>",
                                              "<< /Broken (unterminated >>"}));
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"stamp doc.pdf none.pdf", "none.pdf", "does not exist"},
        {"stamp doc.pdf lh.pdf -o no/out.pdf", "no/out.pdf", "No such file or directory"},
        {"stamp damaged.pdf lh.pdf -o out.pdf", "damaged.pdf: cannot read object 4",
         "found while writing"},
        {"render doc.pdf 1 no/out.png", "no/out.png", "No such file or directory"},
        {"protect-pubkey doc.pdf none.pem", "none.pem", "does not exist"},
        {"render doc.pdf 1 doc.pdf", "doc.pdf", "is the input"},
        {"stamp doc.pdf hard.pdf", "doc.pdf", "is the input"},  // in place over its letterhead
        {"append doc.pdf lh.pdf -o soft.pdf", "soft.pdf", "is the input"},
        {"replace doc.pdf 1 lh.pdf 1 1 -o lh.pdf", "lh.pdf", "is the input"},
        {"protect-pubkey doc.pdf cert.pem -o cert.pem", "cert.pem", "is the input"},
        {"split part_1 part", "part_1", "is the file being split"},
    };
    const auto contents = [] {
        std::vector<std::string> all;
        for (const auto& name : Entries()) all.push_back(test::ReadBytes(name));
        return all;
    };
    const auto before = contents();
    for (const auto& [args, file, reason] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args + " 2>&1 >/dev/null");
        EXPECT_EQ(result.exit_code, 1) << result.output;
        // The file at fault comes first, right after the command.
        EXPECT_EQ(result.output.rfind("zpdf " + args.substr(0, args.find(' ')) + ": " + file, 0),
                  0u)
            << result.output;
        EXPECT_NE(result.output.find(reason), std::string::npos) << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
        EXPECT_EQ(contents(), before);
    }
}

// The demo writes into a new or empty folder only: the invoice, its drawing and one part per
// letter of the print file.
TEST_F(FilesProcess, DemoNeverWritesOverFiles) {
    stdfs::create_directory("used");
    test::WriteBytes("used/invoice.pdf", "mine");
    test::WriteBytes("file", "mine");
    stdfs::create_directory("empty");
    const std::tuple<std::string, int, std::string> cases[] = {
        {"used", 1, "is not empty"},
        {"file", 1, "is not a folder"},
        {"empty", 0, "demo finished"},
    };
    for (const auto& [name, code, says] : cases) {
        const auto result = Zpdf("demo " + name);
        EXPECT_EQ(result.exit_code, code) << name << "\n" << result.output;
        EXPECT_NE(result.output.find(says), std::string::npos) << name << "\n" << result.output;
    }
    EXPECT_EQ(Entries("used"), std::vector<std::string>{"invoice.pdf"});
    EXPECT_EQ(test::ReadBytes("used/invoice.pdf"), "mine");
    EXPECT_EQ(test::ReadBytes("file"), "mine");
    EXPECT_TRUE(stdfs::exists("empty/invoice-page1.png"));
    for (const auto& [part, pages] :
         {std::pair{"invoice.pdf", 4}, {"letter_1", 2}, {"letter_2", 1}, {"letter_3", 3}})
        EXPECT_EQ(test::QpdfPageCount(stdfs::path("empty") / part), pages) << part;
}

// A name that is not UTF-8 is taken as it is, in place and with -o, which writes exactly the
// name it was given.
TEST_F(FilesProcess, NamesAreTakenAsTheyAre) {
    test::WriteBytes("in\xFF.pdf", Document(1));
    const auto result = Zpdf("stamp 'in\xFF.pdf' lh.pdf -o 'out\xFE.pdf'");
    ASSERT_EQ(result.exit_code, 0) << result.output;
    EXPECT_EQ(Stamps("out\xFE.pdf"), 1);
    EXPECT_EQ(Zpdf("stamp 'in\xFF.pdf' lh.pdf").exit_code, 0);
    EXPECT_EQ(Stamps("in\xFF.pdf"), 1);
    EXPECT_EQ(Entries(), (std::vector<std::string>{"in\xFF.pdf", "lh.pdf", "out\xFE.pdf"}));
}

}  // namespace
}  // namespace zpdf
