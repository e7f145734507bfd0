// The zpdf host as a user meets it: outputs, exit codes and messages.
#include <gtest/gtest.h>

#include "cli/sample_pdf.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

test::ToolResult Zpdf(const std::string& args) {
    return test::Run(std::string(ZPDF_BINARY) + " " + args);
}

TEST(Cli, HelpExplainsEveryCommand) {
    const auto overview = Zpdf("--help");
    EXPECT_EQ(overview.exit_code, 0);
    for (const char* command : {"info", "render", "demo", "stamp", "append", "replace", "split",
                                "protect", "protect-pubkey"}) {
        EXPECT_NE(overview.output.find(command), std::string::npos) << command;
        const auto help = Zpdf(std::string(command) + " --help");
        EXPECT_EQ(help.exit_code, 0) << command;
        EXPECT_NE(help.output.find(std::string("Usage: zpdf ") + command), std::string::npos)
            << help.output;
    }
    EXPECT_EQ(Zpdf("").exit_code, 2);
    EXPECT_EQ(Zpdf("frobnicate").exit_code, 2);
}

TEST(Cli, InfoAgreesWithQpdf) {
    const stdfs::path dir = test::ScratchDir();
    samples::SamplePage portrait{200, 300, 0, "", ""};
    samples::SamplePage turned{200, 300, 90, "", ""};
    const stdfs::path mixed = dir / "mixed.pdf";
    ASSERT_TRUE(samples::WriteFile(mixed, samples::BuildPdf({portrait, turned, portrait})));
    const stdfs::path text = test::TextPdf(dir / "text.pdf", {"a", "b", "c", "d"});
    const stdfs::path linear = test::QpdfLinearize(text, dir / "linear.pdf");

    for (const stdfs::path& file : {mixed, text, linear}) {
        SCOPED_TRACE(file.filename().string());
        const auto info = Zpdf("info " + test::Quote(file) + " 2>/dev/null");
        ASSERT_EQ(info.exit_code, 0) << info.output;
        EXPECT_EQ(
            info.output.rfind("pages: " + std::to_string(test::QpdfPageCount(file)) + "\n", 0), 0u)
            << info.output;
    }
    const auto info = Zpdf("info " + test::Quote(mixed) + " 2>/dev/null");
    EXPECT_EQ(info.output,
              "pages: 3\npage 1: 200 x 300 pt\npage 2: 300 x 200 pt\npage 3: 200 x 300 pt\n");
    const auto json = Zpdf("info --json " + test::Quote(mixed) + " 2>/dev/null");
    EXPECT_NE(json.output.find("\"pages\": 3"), std::string::npos) << json.output;
    EXPECT_NE(json.output.find("{\"page\": 2, \"width\": 300, \"height\": 200}"), std::string::npos)
        << json.output;
}

TEST(Cli, FailuresSayWhyWithTheResultCode) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path text = test::TextPdf(dir / "text.pdf", {"secret"});
    const stdfs::path locked = test::QpdfEncrypt(text, dir / "locked.pdf", "user", "owner", 256);
    const struct {
        std::string args;
        int exit_code;
        std::string message;
    } cases[] = {
        {"info " + test::Quote(dir / "missing.pdf"), 1, "(0x80070057)"},
        {"info " + test::Quote(locked), 1, "Password required or incorrect password (0x8000FFFF)"},
        {"info " + test::Quote(locked) + " --password user", 0, "pages: 1"},
        {"info", 2, "expected one FILE"},
        {"info " + test::Quote(text) + " --bogus", 2, "unknown option --bogus"},
        {"render " + test::Quote(text) + " 2 " + test::Quote(dir / "x.png"), 1,
         "Page 2 does not exist"},
        {"render " + test::Quote(text) + " zero " + test::Quote(dir / "x.png"), 2, "PAGE must be"},
        {"render " + test::Quote(text) + " 1 " + test::Quote(dir / "x.png") + " --dpi 0", 2,
         "--dpi"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const auto result = Zpdf(c.args);
        EXPECT_EQ(result.exit_code, c.exit_code) << result.output;
        EXPECT_NE(result.output.find(c.message), std::string::npos) << result.output;
    }
    EXPECT_FALSE(stdfs::exists(dir / "x.png"));
}

TEST(Cli, RenderWritesAnImageOfThePageSize) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path text = test::TextPdf(dir / "text.pdf", {"picture"});
    const auto result =
        Zpdf("render " + test::Quote(text) + " 1 " + test::Quote(dir / "p.png") + " --dpi 36");
    ASSERT_EQ(result.exit_code, 0) << result.output;
    const std::string png = test::ReadBytes(dir / "p.png");
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    const auto be32 = [&](std::size_t at) {
        return (static_cast<unsigned char>(png[at]) << 24) |
               (static_cast<unsigned char>(png[at + 1]) << 16) |
               (static_cast<unsigned char>(png[at + 2]) << 8) |
               static_cast<unsigned char>(png[at + 3]);
    };
    EXPECT_EQ(be32(16), 298) << "595 pt at 36 dpi";
    EXPECT_EQ(be32(20), 421) << "842 pt at 36 dpi";
}

TEST(Cli, StampAppendReplaceKeepTheInputWithOutputOption) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path doc = test::TextPdf(dir / "doc.pdf", {"one", "two", "three"});
    const stdfs::path lh = test::TextPdf(dir / "lh.pdf", {"LETTERHEAD"});
    const std::string before = test::ReadBytes(doc);
    const struct {
        std::string args;
        int pages;
        std::string text;
    } cases[] = {
        {"stamp " + test::Quote(doc) + " " + test::Quote(lh) + " --background -o " +
             test::Quote(dir / "out.pdf"),
         3, "LETTERHEAD"},
        {"stamp " + test::Quote(doc) + " " + test::Quote(lh) +
             " --page 2 --at 10,20 --scale 0.5 -o " + test::Quote(dir / "out.pdf"),
         3, "LETTERHEAD"},
        {"append " + test::Quote(doc) + " " + test::Quote(lh) + " -o " +
             test::Quote(dir / "out.pdf"),
         4, "LETTERHEAD"},
        {"replace " + test::Quote(doc) + " 2 " + test::Quote(lh) + " 1 1 -o " +
             test::Quote(dir / "out.pdf"),
         3, "LETTERHEAD"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        stdfs::remove(dir / "out.pdf");
        const auto result = Zpdf(c.args);
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_EQ(test::ReadBytes(doc), before) << "the input stays as it was";
        EXPECT_TRUE(test::QpdfCheckPasses(dir / "out.pdf"));
        EXPECT_EQ(test::QpdfPageCount(dir / "out.pdf"), c.pages);
        EXPECT_NE(test::PdfToText(dir / "out.pdf").find(c.text), std::string::npos);
        EXPECT_TRUE(test::FilesStartingWith(dir, "out.pdf.").empty()) << "no working files left";
    }
    // In place, and a failing job that leaves nothing behind.
    ASSERT_EQ(Zpdf("append " + test::Quote(doc) + " " + test::Quote(lh)).exit_code, 0);
    EXPECT_EQ(test::QpdfPageCount(doc), 4);
    const auto failed = Zpdf("replace " + test::Quote(doc) + " 1 " + test::Quote(lh) + " 2 2 -o " +
                             test::Quote(dir / "bad.pdf"));
    EXPECT_EQ(failed.exit_code, 1) << failed.output;
    EXPECT_TRUE(test::FilesStartingWith(dir, "bad.pdf").empty());
}

TEST(Cli, LogIniTurnsDiagnosticsOn) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path doc = test::TextPdf(dir / "doc.pdf", {"x"});
    const stdfs::path log = dir / "zpdf.log";
    test::WriteBytes(dir / "log.ini", "[categories]\nPDF=info," + log.string() + "\n");
    ASSERT_EQ(
        Zpdf("--log-ini " + test::Quote(dir / "log.ini") + " info " + test::Quote(doc)).exit_code,
        0);
    ASSERT_EQ(
        Zpdf("--log-ini " + test::Quote(dir / "log.ini") + " info " + test::Quote(dir / "none.pdf"))
            .exit_code,
        1);
    const std::string lines = test::ReadBytes(log);
    EXPECT_NE(lines.find("opened " + doc.string() + ": 1 pages, not linearized, not encrypted"),
              std::string::npos)
        << lines;
    EXPECT_NE(lines.find((dir / "none.pdf").string() + " does not exist (0x80070057)"),
              std::string::npos)
        << lines;
    // Without it, nothing is logged.
    stdfs::remove(log);
    ASSERT_EQ(Zpdf("info " + test::Quote(doc)).exit_code, 0);
    EXPECT_FALSE(stdfs::exists(log));
}

TEST(Cli, SplitListsItsParts) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path job = test::TextPdf(dir / "job.pdf", {"one @@nd@@", "two", "three"});
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"one", "two"});
    const std::string prefix = (dir / "job").string();
    const struct {
        std::string args;
        int exit_code;
        std::string output;  // the whole output when `exact`, else a part of it
        bool exact;
    } cases[] = {
        {"split " + test::Quote(job) + " " + test::Quote(dir / "job") + " 2>/dev/null", 0,
         prefix + "_1: page 1\n" + prefix + "_2: pages 2-3\n2 parts\n", true},
        {"split " + test::Quote(plain) + " " + test::Quote(dir / "plain"), 0,
         "0 parts: no page before the last one carries the marker", false},
        {"split " + test::Quote(dir / "missing.pdf") + " " + test::Quote(dir / "m"), 1,
         "(0x80070002)", false},
        {"split " + test::Quote(job) + " " + test::Quote(dir / "no" / "job"), 1, "(0x80070003)",
         false},
        {"split " + test::Quote(job), 2, "expected FILE PREFIX", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const auto result = Zpdf(c.args);
        EXPECT_EQ(result.exit_code, c.exit_code) << result.output;
        if (c.exact) {
            EXPECT_EQ(result.output, c.output);
        } else {
            EXPECT_NE(result.output.find(c.output), std::string::npos) << result.output;
        }
    }
    EXPECT_EQ(test::QpdfPageCount(dir / "job_2"), 2);
    EXPECT_TRUE(test::FilesStartingWith(dir, "plain_").empty());
}

TEST(Cli, DemoRunsWithoutInput) {
    const stdfs::path dir = test::ScratchDir() / "out";
    const auto result = Zpdf("demo " + test::Quote(dir));
    ASSERT_EQ(result.exit_code, 0) << result.output;
    EXPECT_TRUE(test::QpdfCheckPasses(dir / "invoice.pdf"));
    EXPECT_TRUE(stdfs::exists(dir / "invoice-page1.png"));
    // One part per letter of the print file.
    EXPECT_EQ(test::QpdfPageCount(dir / "letter_1"), 2);
    EXPECT_EQ(test::QpdfPageCount(dir / "letter_2"), 1);
    EXPECT_EQ(test::QpdfPageCount(dir / "letter_3"), 3);
    EXPECT_NE(result.output.find("demo finished"), std::string::npos);
}

// The secured saves from the command line: -o leaves the source alone, without it the file is
// replaced; an unencrypted file is refused with the reason; the source's own password opens it.
TEST(Cli, ProtectCommands) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"secret"});
    const stdfs::path locked = test::QpdfEncrypt(plain, dir / "locked.pdf", "user", "owner", 256);
    const stdfs::path cert = dir / "cert.pem";
    const stdfs::path key = dir / "key.pem";
    ASSERT_EQ(test::Run("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=cli -keyout " +
                        test::Quote(key) + " -out " + test::Quote(cert))
                  .exit_code,
              0);
    const std::string locked_bytes = test::ReadBytes(locked);
    const std::string plain_bytes = test::ReadBytes(plain);
    const std::string out = test::Quote(dir / "out.pdf");
    const struct {
        std::string args;
        int exit_code;
        std::string message;
        std::string
            out_check;  // qpdf --show-encryption of out.pdf must contain this ("" = no out.pdf)
    } cases[] = {
        {"protect " + test::Quote(locked) + " --password user --user new --owner boss -o " + out, 0,
         "written", "Supplied password is user password"},
        {"protect " + test::Quote(locked) + " --password wrong --user new -o " + out, 1,
         "Password required or incorrect password (0x8000FFFF)", ""},
        {"protect " + test::Quote(plain) + " --user new -o " + out, 1, "not encrypted", ""},
        {"protect " + test::Quote(plain) + " --user new", 1, "not encrypted", ""},
        {"protect " + test::Quote(locked) + " --user", 2, "--user needs a value", ""},
        {"protect-pubkey " + test::Quote(locked) + " --password user -o " + out, 2,
         "at least one CERT.pem", ""},
        {"protect-pubkey " + test::Quote(locked) + " " + test::Quote(key) + " --password user -o " +
             out,
         1, "Recipient 1 holds no PEM certificate (0x80004005)", ""},
        {"protect-pubkey " + test::Quote(locked) + " " + test::Quote(dir / "none.pem") +
             " --password user -o " + out,
         1, "cannot read the certificate file", ""},
        {"protect-pubkey " + test::Quote(locked) + " " + test::Quote(cert) +
             " --password user -o " + out,
         0, "written", "Adobe.PubSec"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        stdfs::remove(dir / "out.pdf");
        const auto result = Zpdf(c.args);
        EXPECT_EQ(result.exit_code, c.exit_code) << result.output;
        EXPECT_NE(result.output.find(c.message), std::string::npos) << result.output;
        EXPECT_EQ(test::ReadBytes(locked), locked_bytes) << "the source is never touched";
        EXPECT_EQ(test::ReadBytes(plain), plain_bytes);
        EXPECT_FALSE(stdfs::exists(dir / "out.pdf.part"));
        if (c.out_check.empty()) {
            EXPECT_FALSE(stdfs::exists(dir / "out.pdf"));
        } else if (c.out_check == "Adobe.PubSec") {
            EXPECT_NE(test::ReadBytes(dir / "out.pdf").find("/Filter /Adobe.PubSec"),
                      std::string::npos);
        } else {
            const auto shown =
                test::Run("qpdf --show-encryption --password=new " + test::Quote(dir / "out.pdf"));
            EXPECT_NE(shown.output.find(c.out_check), std::string::npos) << shown.output;
            EXPECT_NE(shown.output.find("R = 6"), std::string::npos) << shown.output;
        }
    }

    // In place: the file itself is re-secured.
    const auto in_place =
        Zpdf("protect " + test::Quote(locked) + " --password user --user again 2>/dev/null");
    ASSERT_EQ(in_place.exit_code, 0) << in_place.output;
    EXPECT_FALSE(stdfs::exists(dir / "locked.pdf.part"));
    EXPECT_EQ(test::Run("qpdf --check --password=again " + test::Quote(locked)).exit_code, 0);
}

}  // namespace
}  // namespace zpdf
