// zpdf's files under real processes: interrupted at random moments, two of them writing one
// file at once, outputs that are inputs under another name, names that are not UTF-8, and the
// messages of failures.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cli/sample_pdf.h"
#include "support/test_support.h"

extern char** environ;

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;
using test::Quote;

test::ToolResult Zpdf(const std::string& args) {
    return test::Run(std::string(ZPDF_BINARY) + " " + args + " 2>&1");
}

std::vector<std::string> Entries(const Path& dir) {
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

std::string Letterhead(const std::string& text = "LETTERHEAD") {
    samples::SamplePage page;
    page.content = samples::TextContent({text}, page.height);
    return samples::BuildPdf({page});
}

// How often the letterhead saying `text` was stamped onto page 1. Stamps of one text land on
// one spot, where a text reader may take the second for the first; count different texts.
int Stamps(const Path& file, const std::string& text = "LETTERHEAD") {
    const std::string page =
        test::Run("pdftotext -f 1 -l 1 " + Quote(file) + " - 2>/dev/null").output;
    int count = 0;
    for (auto at = page.find(text); at != std::string::npos; at = page.find(text, at + 1)) ++count;
    return count;
}

// Starts zpdf with `args`, its output thrown away and TMPDIR set to `tmp`.
pid_t Start(const std::vector<std::string>& args, const Path& tmp) {
    std::vector<std::string> env = {"TMPDIR=" + tmp.string()};
    for (char** e = environ; *e != nullptr; ++e)
        if (std::string(*e).rfind("TMPDIR=", 0) != 0) env.emplace_back(*e);
    std::vector<char*> envp, argv;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string binary = ZPDF_BINARY;
    argv.push_back(binary.data());
    std::vector<std::string> copies = args;
    for (auto& a : copies) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int error =
        posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(error, 0);
    return pid;
}

int Wait(pid_t pid) {
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}

// Interrupted at random moments of an in-place stamp or append, zpdf leaves the file as it was
// or complete with the change, and nothing beside it or in the temporary folder. It ends by the
// signal, as a shell expects.
TEST(FilesProcess, InterruptedRunsLeaveNothing) {
    const Path dir = test::ScratchDir();
    const Path tmp = dir / "tmp";
    stdfs::create_directory(tmp);
    const std::string original = Document(400);
    test::WriteBytes(dir / "lh.pdf", Letterhead());
    const Path doc = dir / "doc.pdf";

    struct Command {
        std::vector<std::string> args;
        std::function<bool()> changed;  // the file holds the complete change
    };
    const Command commands[] = {
        {{"stamp", doc.string(), (dir / "lh.pdf").string(), "--all"},
         [&] { return test::QpdfCheckPasses(doc) && Stamps(doc) == 1; }},
        {{"append", doc.string(), (dir / "lh.pdf").string()},
         [&] { return test::QpdfCheckPasses(doc) && test::QpdfPageCount(doc) == 401; }},
    };
    // How long an uninterrupted run takes, so the signals fall inside it.
    std::vector<long> durations;
    for (const Command& command : commands) {
        test::WriteBytes(doc, original);
        const auto started = std::chrono::steady_clock::now();
        ASSERT_EQ(Wait(Start(command.args, tmp)), 0);
        durations.push_back(static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                  std::chrono::steady_clock::now() - started)
                                                  .count()));
        ASSERT_TRUE(command.changed());
    }

    std::mt19937 random(20261125);
    const int signals[] = {SIGINT, SIGTERM, SIGHUP};
    int interrupted = 0;
    for (int trial = 0; trial < 60; ++trial) {
        const std::size_t which = static_cast<std::size_t>(trial) % 2;
        const int signo = signals[trial % 3];
        SCOPED_TRACE("trial " + std::to_string(trial) + ", signal " + std::to_string(signo));
        test::WriteBytes(doc, original);
        const pid_t pid = Start(commands[which].args, tmp);
        std::this_thread::sleep_for(std::chrono::microseconds(
            std::uniform_int_distribution<long>(0, durations[which] * 11 / 10)(random)));
        kill(pid, signo);
        const int status = Wait(pid);
        if (WIFSIGNALED(status)) {
            EXPECT_EQ(WTERMSIG(status), signo);
            ++interrupted;
        } else {
            EXPECT_EQ(WEXITSTATUS(status), 0) << "finished before the signal";
        }
        if (test::ReadBytes(doc) != original) {
            EXPECT_TRUE(commands[which].changed()) << "neither the old file nor the new one";
        }
        EXPECT_EQ(Entries(dir), (std::vector<std::string>{"doc.pdf", "lh.pdf", "tmp"}));
        EXPECT_TRUE(Entries(tmp).empty());
    }
    EXPECT_GT(interrupted, 10) << "the signals mostly came while zpdf ran";
}

// Two in-place stamps of one file at once, each with a letterhead of its own: the file is always
// a complete document that holds exactly the stamps of the runs that reported success; a run
// that lost says so.
TEST(FilesProcess, TwoWritersOfOneFile) {
    const Path dir = test::ScratchDir();
    const Path tmp = dir / "tmp";
    stdfs::create_directory(tmp);
    const std::string original = Document(150);
    const std::string texts[] = {"FIRSTHEAD", "SECONDHEAD"};
    for (const std::string& text : texts) test::WriteBytes(dir / (text + ".pdf"), Letterhead(text));
    const Path doc = dir / "doc.pdf";
    const auto stamp = [&](const std::string& text) {
        return "stamp " + Quote(doc) + " " + Quote(dir / (text + ".pdf"));
    };
    int lost = 0;
    for (int trial = 0; trial < 12; ++trial) {
        SCOPED_TRACE("trial " + std::to_string(trial));
        test::WriteBytes(doc, original);
        test::ToolResult results[2];
        std::thread first([&] { results[0] = Zpdf(stamp(texts[0])); });
        std::thread second([&] { results[1] = Zpdf(stamp(texts[1])); });
        first.join();
        second.join();
        int succeeded = 0;
        for (int i = 0; i < 2; ++i) {
            const auto& result = results[i];
            EXPECT_EQ(Stamps(doc, texts[i]), result.exit_code == 0 ? 1 : 0) << result.output;
            if (result.exit_code == 0) {
                ++succeeded;
                continue;
            }
            ++lost;
            EXPECT_EQ(result.exit_code, 1) << result.output;
            EXPECT_NE(result.output.find("another writer"), std::string::npos) << result.output;
        }
        EXPECT_GE(succeeded, 1);
        EXPECT_TRUE(test::QpdfCheckPasses(doc));
        EXPECT_EQ(test::QpdfPageCount(doc), 150);
        EXPECT_EQ(Entries(dir),
                  (std::vector<std::string>{"FIRSTHEAD.pdf", "SECONDHEAD.pdf", "doc.pdf", "tmp"}));
    }
    EXPECT_GT(lost, 0) << "the runs overlapped at least once";
}

// No output is one of the inputs, whatever name leads to it; every file stays as it was.
TEST(FilesProcess, OutputsThatAreInputsAreRefused) {
    const Path dir = test::ScratchDir();
    test::WriteBytes(dir / "doc.pdf", Document(2));
    test::WriteBytes(dir / "src.pdf", Letterhead());
    test::WriteBytes(dir / "cert.pem", "not read before the names are compared");
    stdfs::create_hard_link(dir / "doc.pdf", dir / "hard.pdf");
    stdfs::create_symlink("src.pdf", dir / "soft.pdf");
    {
        // A print file cut after its first page: its first part's name is its own.
        std::vector<samples::SamplePage> pages(3);
        for (auto& page : pages)
            page.content = samples::TextContent({"Letter @@nd@@"}, page.height);
        test::WriteBytes(dir / "part_1", samples::BuildPdf(pages));
    }
    const auto q = [&](const char* name) { return Quote(dir / name); };
    const std::string cases[] = {
        "render " + q("doc.pdf") + " 1 " + q("doc.pdf"),
        "render " + q("doc.pdf") + " 1 " + q("hard.pdf"),
        "stamp " + q("doc.pdf") + " " + q("src.pdf") + " -o " + q("src.pdf"),
        "stamp " + q("doc.pdf") + " " + q("src.pdf") + " -o " + q("soft.pdf"),
        "stamp " + q("doc.pdf") + " " + q("hard.pdf"),  // in place over its own letterhead
        "append " + q("doc.pdf") + " " + q("src.pdf") + " -o " + q("soft.pdf"),
        "replace " + q("doc.pdf") + " 1 " + q("src.pdf") + " 1 1 -o " + q("src.pdf"),
        "protect-pubkey " + q("doc.pdf") + " " + q("cert.pem") + " -o " + q("cert.pem"),
        "split " + q("part_1") + " " + q("part"),
    };
    std::vector<std::string> before;
    for (const auto& name : Entries(dir)) before.push_back(test::ReadBytes(dir / name));
    for (const std::string& args : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, 1) << result.output;
        const bool split = args.rfind("split", 0) == 0;
        EXPECT_NE(result.output.find(split ? "is the file being split" : "is the input"),
                  std::string::npos)
            << result.output;
        std::vector<std::string> after;
        for (const auto& name : Entries(dir)) after.push_back(test::ReadBytes(dir / name));
        EXPECT_EQ(after, before);
    }
}

// The demo writes into a new or empty folder only.
TEST(FilesProcess, DemoNeverWritesOverFiles) {
    const Path dir = test::ScratchDir();
    stdfs::create_directory(dir / "used");
    test::WriteBytes(dir / "used" / "invoice.pdf", "mine");
    test::WriteBytes(dir / "file", "mine");
    stdfs::create_directory(dir / "empty");
    const std::tuple<std::string, int, std::string> cases[] = {
        {"used", 1, "is not empty"},
        {"file", 1, "is not a folder"},
        {"empty", 0, "demo finished"},
    };
    for (const auto& [name, code, says] : cases) {
        const auto result = Zpdf("demo " + Quote(dir / name));
        EXPECT_EQ(result.exit_code, code) << name << "\n" << result.output;
        EXPECT_NE(result.output.find(says), std::string::npos) << name << "\n" << result.output;
    }
    EXPECT_EQ(Entries(dir / "used"), std::vector<std::string>{"invoice.pdf"});
    EXPECT_EQ(test::ReadBytes(dir / "used" / "invoice.pdf"), "mine");
    EXPECT_EQ(test::ReadBytes(dir / "file"), "mine");
}

// Any name the file system takes works, and -o writes exactly the name it was given.
TEST(FilesProcess, NamesAreTakenAsTheyAre) {
    const Path dir = test::ScratchDir();
    const std::string names[] = {"in\xFF\xFE.pdf", "report[1].pdf", "back\\slash*.pdf",
                                 std::string(250, 'n')};
    test::WriteBytes(dir / "lh.pdf", Letterhead());
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const Path in = dir / name;
        test::WriteBytes(in, Document(1));
        const std::string out = "out-" + name.substr(0, 200);
        const auto result =
            Zpdf("stamp " + Quote(in) + " " + Quote(dir / "lh.pdf") + " -o " + Quote(dir / out));
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_TRUE(stdfs::exists(dir / out));
        EXPECT_EQ(Stamps(dir / out), 1);
        // In place as well: the long name's side file fits the folder's limit.
        EXPECT_EQ(Zpdf("stamp " + Quote(in) + " " + Quote(dir / "lh.pdf")).exit_code, 0);
        EXPECT_EQ(Stamps(in), 1);
        stdfs::remove(in);
        stdfs::remove(dir / out);
    }
    EXPECT_EQ(Entries(dir), std::vector<std::string>{"lh.pdf"});
}

// A failure is one line that names the file at fault and gives the system's reason.
TEST(FilesProcess, MessagesNameTheFileAtFault) {
    const Path dir = test::ScratchDir();
    test::WriteBytes(dir / "doc.pdf", Document(1));
    test::WriteBytes(dir / "lh.pdf", Letterhead());
    // Opens, but one of its objects cannot be read once the whole document is written.
    test::WriteBytes(dir / "damaged.pdf",
                     samples::PdfFromObjects({"<< /Type /Catalog /Pages 2 0 R /Extra 4 0 R >>",
                                              "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                              "<< /Type /Page /Parent 2 0 R"
                                              " /MediaBox [0 0 200 200] >>",
                                              "<< /Broken (unterminated >>"}));
    const auto q = [&](const std::string& name) { return Quote(dir / name); };
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"stamp " + q("none.pdf") + " " + q("lh.pdf"), "none.pdf", "does not exist"},
        {"stamp " + q("doc.pdf") + " " + q("none.pdf"), "none.pdf", "does not exist"},
        {"stamp " + q("doc.pdf") + " " + q("lh.pdf") + " -o " + q("no/out.pdf"), "no/out.pdf",
         "No such file or directory"},
        {"stamp " + q("damaged.pdf") + " " + q("lh.pdf") + " -o " + q("out.pdf"),
         "damaged.pdf: cannot read object 4", "found while writing"},
        {"render " + q("doc.pdf") + " 1 " + q("no/out.png"), "no/out.png",
         "No such file or directory"},
        {"protect-pubkey " + q("doc.pdf") + " " + q("none.pem"), "none.pem", "does not exist"},
        {"render " + q("bad\xFF.pdf") + " 1 " + q("out.png"), "bad\xFF.pdf", "does not exist"},
    };
    for (const auto& [args, file, reason] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args + " 2>&1 >/dev/null | grep -av 'path\\.\\.\\.$'");
        EXPECT_NE(result.output.find(file), std::string::npos) << result.output;
        EXPECT_NE(result.output.find(reason), std::string::npos) << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
}

}  // namespace
}  // namespace zpdf
