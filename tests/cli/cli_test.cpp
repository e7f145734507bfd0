// The zpdf host as a user meets it: outputs, exit codes and messages.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "cli/sample_pdf.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using test::Quote;

test::ToolResult Zpdf(const std::string& args) {
    return test::Run(std::string(ZPDF_BINARY) + " " + args);
}

// Runs a command that must succeed; its output.
std::string Ok(const std::string& args) {
    const auto result = Zpdf(args);
    EXPECT_EQ(result.exit_code, 0) << args << "\n" << result.output;
    return result.output;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(Cli, HelpExplainsEveryCommand) {
    const std::string overview = Ok("--help");
    for (const std::string command : {"info", "render", "demo", "stamp", "append", "replace",
                                      "split", "protect", "protect-pubkey", "decrypt"}) {
        EXPECT_TRUE(Contains(overview, "  " + command + " ")) << command;
        EXPECT_TRUE(Contains(Ok(command + " --help"), "Usage: zpdf " + command + " ")) << command;
    }
    EXPECT_EQ(Zpdf("").exit_code, 2);
    EXPECT_EQ(Zpdf("frobnicate").exit_code, 2);
}

TEST(Cli, InfoPrintsTurnedPageSizes) {
    const stdfs::path file = test::ScratchDir() / "mixed.pdf";
    const samples::SamplePage portrait{200, 300.5, 0, "", ""}, turned{200, 300.5, 90, "", ""};
    ASSERT_TRUE(samples::WriteFile(file, samples::BuildPdf({portrait, turned})));
    EXPECT_EQ(Zpdf("info " + Quote(file) + " 2>/dev/null").output,
              "pages: 2\npage 1: 200 x 300.5 pt\npage 2: 300.5 x 200 pt\n");
    EXPECT_EQ(Zpdf("info --json " + Quote(file) + " 2>/dev/null").output,
              "{\"file\": \"" + file.string() +
                  "\", \"pages\": 2, \"page_sizes\": [{\"page\": 1, \"width\": 200, \"height\": "
                  "300.5}, {\"page\": 2, \"width\": 300.5, \"height\": 200}]}\n");
}

// Refusals and usage errors: exit status 1 with the reason and the result code, or 2; nothing
// is written.
TEST(Cli, FailuresSayWhy) {
    const stdfs::path dir = test::ScratchDir();
    const std::string text = Quote(test::TextPdf(dir / "text.pdf", {"secret"}));
    const std::string locked =
        Quote(test::QpdfEncrypt(dir / "text.pdf", dir / "locked.pdf", "user", "owner", 256));
    const std::string png = Quote(dir / "x.png"), out = " -o " + Quote(dir / "out.pdf");
    const std::tuple<std::string, int, std::string> cases[] = {
        {"info " + Quote(dir / "missing.pdf"), 1, "(0x80070057)"},
        {"info " + locked + " --password user", 0, "pages: 1"},
        {"info", 2, "expected one FILE"},
        {"info " + text + " --bogus", 2, "unknown option --bogus"},
        {"render " + text + " 2 " + png, 1, "Page 2 does not exist"},
        {"render " + text + " zero " + png, 2, "PAGE must be"},
        {"render " + text + " 1 " + png + " --dpi 0", 2, "--dpi"},
        {"split " + Quote(dir / "missing.pdf") + " " + Quote(dir / "m"), 1, "(0x80070002)"},
        {"split " + text, 2, "expected FILE PREFIX"},
        {"protect " + text + " --user new" + out, 2, "the owner password is empty"},
        {"protect " + text + " --user new --empty-owner --deny everything", 2,
         "--deny: unknown permission in everything"},
        {"protect " + locked + " --user", 2, "--user needs a value"},
        {"protect-pubkey " + locked + " --password user" + out, 2, "at least one CERT.pem"},
        {"protect-pubkey " + locked + " " + text + " --password user" + out, 1,
         "text.pdf: holds no PEM certificate (0x80004005)"},
        {"protect-pubkey " + locked + " " + Quote(dir / "none.pem") + " --password user" + out, 1,
         "cannot read the certificate file"},
        {"replace " + text + " 1 " + text + " 2 2" + out, 1, "no pages 2-2 (0x8000FFFF)"},
    };
    const std::string text_bytes = test::ReadBytes(dir / "text.pdf");
    for (const auto& [args, exit_code, message] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        EXPECT_TRUE(Contains(result.output, message)) << result.output;
        EXPECT_EQ(test::FilesStartingWith(dir, "out.pdf").size() +
                      test::FilesStartingWith(dir, "x.png").size(),
                  0u);
    }
    EXPECT_EQ(test::ReadBytes(dir / "text.pdf"), text_bytes);
}

TEST(Cli, RenderWritesAnImageOfThePageSize) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path text = test::TextPdf(dir / "text.pdf", {"picture"});
    Ok("render " + Quote(text) + " 1 " + Quote(dir / "p.png") + " --dpi 36");
    // Width and height in the header: 595 x 842 pt at 36 dpi.
    EXPECT_EQ(test::ReadBytes(dir / "p.png").substr(16, 8),
              std::string("\0\0\x01\x2A\0\0\x01\xA5", 8));
}

// The changing commands: with -o the input stays as it is, without it the file is replaced;
// no working file is left.
TEST(Cli, ChangingCommandsWriteTheirOutput) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"one", "two", "three"}));
    const std::string lh = Quote(test::TextPdf(dir / "lh.pdf", {"LETTERHEAD"}));
    const std::string out = Quote(dir / "out.pdf");
    const std::string before = test::ReadBytes(dir / "doc.pdf");
    const std::pair<std::string, int> cases[] = {
        {"stamp " + doc + " " + lh + " --background -o " + out, 3},
        {"stamp " + doc + " " + lh + " --page 2 --at 10,20 --scale 0.5 -o " + out, 3},
        {"append " + doc + " " + lh + " -o " + out, 4},
        {"replace " + doc + " 2 " + lh + " 1 1 -o " + out, 3},
    };
    for (const auto& [args, pages] : cases) {
        SCOPED_TRACE(args);
        stdfs::remove(dir / "out.pdf");
        Ok(args);
        EXPECT_EQ(test::ReadBytes(dir / "doc.pdf"), before);
        EXPECT_EQ(test::QpdfPageCount(dir / "out.pdf"), pages);
        EXPECT_TRUE(Contains(test::PdfToText(dir / "out.pdf"), "LETTERHEAD"));
        EXPECT_TRUE(test::FilesStartingWith(dir, "out.pdf.").empty()) << "no working files left";
    }
    Ok("append " + doc + " " + lh);
    EXPECT_EQ(test::QpdfPageCount(dir / "doc.pdf"), 4);
}

TEST(Cli, LogIniTurnsDiagnosticsOn) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path doc = test::TextPdf(dir / "doc.pdf", {"x"});
    const stdfs::path log = dir / "zpdf.log";
    test::WriteBytes(dir / "log.ini", "[categories]\nPDF=info," + log.string() + "\n");
    const std::string option = "--log-ini " + Quote(dir / "log.ini");
    Ok(option + " info " + Quote(doc));
    ASSERT_EQ(Zpdf(option + " info " + Quote(dir / "none.pdf")).exit_code, 1);
    const std::string lines = test::ReadBytes(log);
    EXPECT_TRUE(Contains(lines, "opened " + doc.string() + ": 1 pages, not linearized")) << lines;
    EXPECT_TRUE(Contains(lines, (dir / "none.pdf").string() + " does not exist (0x80070057)"))
        << lines;
    // Without it, nothing is logged; a log.ini beside the executable is read without the option.
    stdfs::remove(log);
    Ok("info " + Quote(doc));
    EXPECT_FALSE(stdfs::exists(log));
    ASSERT_EQ(test::Run("cp " + Quote(ZPDF_BINARY) + " " + Quote(dir / "zpdf")).exit_code, 0);
    EXPECT_EQ(test::Run(Quote(dir / "zpdf") + " info " + Quote(doc)).exit_code, 0);
    EXPECT_TRUE(Contains(test::ReadBytes(log), "opened " + doc.string()));
}

// On a terminal, long work shows how far it got, up to the last page.
TEST(Cli, LongWorkShowsProgressOnATerminal) {
    const stdfs::path dir = test::ScratchDir();
    ASSERT_TRUE(samples::WriteFile(dir / "long.pdf",
                                   samples::BuildPdf(std::vector<samples::SamplePage>(250))));
    const stdfs::path head = test::TextPdf(dir / "head.pdf", {"Head"});
    const std::string stamp = std::string(ZPDF_BINARY) + " stamp " + Quote(dir / "long.pdf") + " " +
                              Quote(head) + " --all -o " + Quote(dir / "out.pdf");
    const auto shown = test::Run("script -qec " + Quote(stamp) + " /dev/null < /dev/null");
    EXPECT_TRUE(Contains(shown.output, "stamping page 250/250")) << shown.output;
    EXPECT_FALSE(Contains(Ok("stamp " + Quote(dir / "long.pdf") + " " + Quote(head) + " --all"),
                          "stamping page"))
        << "no progress when standard error is not a terminal";
}

TEST(Cli, SplitListsItsParts) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path job = test::TextPdf(dir / "job.pdf", {"one @@nd@@", "two", "three"});
    const std::string prefix = (dir / "job").string();
    EXPECT_EQ(Ok("split " + Quote(job) + " " + Quote(prefix) + " 2>/dev/null"),
              prefix + "_1: page 1\n" + prefix + "_2: pages 2-3\n2 parts\n");
    EXPECT_EQ(test::QpdfPageCount(dir / "job_2"), 2);

    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"one", "two"});
    EXPECT_TRUE(Contains(Ok("split " + Quote(plain) + " " + Quote(dir / "plain")),
                         "0 parts: no page before the last one carries the marker"));
    EXPECT_TRUE(test::FilesStartingWith(dir, "plain_").empty());
}

TEST(Cli, DemoRunsWithoutInput) {
    const stdfs::path dir = test::ScratchDir() / "out";
    EXPECT_TRUE(Contains(Ok("demo " + Quote(dir)), "demo finished"));
    EXPECT_TRUE(test::QpdfCheckPasses(dir / "invoice.pdf"));
    EXPECT_EQ(test::QpdfPageCount(dir / "invoice.pdf"), 4);
    EXPECT_TRUE(stdfs::exists(dir / "invoice-page1.png"));
    // One part per letter of the print file.
    for (const auto& [part, pages] : {std::pair{"letter_1", 2}, {"letter_2", 1}, {"letter_3", 3}})
        EXPECT_EQ(test::QpdfPageCount(dir / part), pages) << part;
}

// The secured saves: -o leaves the source alone, without it the file itself is re-secured; the
// source's own password opens it.
TEST(Cli, ProtectCommands) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"secret"});
    const stdfs::path locked = test::QpdfEncrypt(plain, dir / "locked.pdf", "user", "owner", 256);
    const stdfs::path cert = dir / "cert.pem";
    ASSERT_EQ(test::Run("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=cli -keyout " +
                        Quote(dir / "key.pem") + " -out " + Quote(cert))
                  .exit_code,
              0);
    const std::string locked_bytes = test::ReadBytes(locked), out = " -o " + Quote(dir / "out.pdf");
    const std::string source = Quote(locked) + " --password user";
    EXPECT_TRUE(
        Contains(Ok("protect " + source + " --user new --owner boss" + out), "out.pdf: written"));
    EXPECT_TRUE(Contains(
        test::Run("qpdf --show-encryption --password=new " + Quote(dir / "out.pdf")).output,
        "Supplied password is user password"));
    Ok("protect-pubkey " + source + " " + Quote(cert) + out);
    EXPECT_TRUE(Contains(test::ReadBytes(dir / "out.pdf"), "/Filter /Adobe.PubSec"));
    EXPECT_EQ(test::ReadBytes(locked), locked_bytes) << "the source is never touched with -o";
    Ok("protect " + source + " --user again --empty-owner 2>/dev/null");
    EXPECT_TRUE(test::FilesStartingWith(dir, "locked.pdf.").empty());
    EXPECT_EQ(test::Run("qpdf --check --password=again " + Quote(locked)).exit_code, 0);
}

}  // namespace
}  // namespace zpdf
