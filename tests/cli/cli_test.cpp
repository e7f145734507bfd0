// The zpdf host as a user meets it: outputs, exit codes and messages.
#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>
#include <vector>

#include "cli/sample_pdf.h"
#include "cli/zpdf_test.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using test::Contains;
using test::Quote;
using test::Zpdf;

// Runs a command that must succeed; its output.
std::string Ok(const std::string& args) {
    const auto result = Zpdf(args);
    EXPECT_EQ(result.exit_code, 0) << args << "\n" << result.output;
    return result.output;
}

// What a command shows on a terminal.
std::string OnTerminal(const std::string& args) {
    return test::Run("script -qec " + Quote(std::string(ZPDF_BINARY) + " " + args) +
                     " /dev/null < /dev/null")
        .output;
}

// Each test in a fresh folder of its own, which holds doc.pdf (pages "D1", "D2", "D3") and the
// letterhead lh.pdf ("LH").
class Cli : public test::InScratchFolder {
  protected:
    void SetUp() override {
        InScratchFolder::SetUp();
        test::TextPdf("doc.pdf", {"D1", "D2", "D3"});
        test::TextPdf("lh.pdf", {"LH"});
    }
};

TEST_F(Cli, HelpExplainsEveryCommand) {
    const std::string overview = Ok("--help");
    for (const std::string command : {"info", "render", "demo", "stamp", "append", "replace",
                                      "split", "protect", "protect-pubkey", "decrypt"}) {
        EXPECT_TRUE(Contains(overview, "  " + command + " ")) << command;
        EXPECT_TRUE(Contains(Ok(command + " --help"), "Usage: zpdf " + command + " ")) << command;
    }
    EXPECT_EQ(Zpdf("").exit_code, 2);
    EXPECT_EQ(Zpdf("frobnicate").exit_code, 2);
}

// A page whose MediaBox does not start at the origin, with a CropBox and rotation inherited
// from the page tree node, and a plain one; as a file and from standard input.
TEST_F(Cli, InfoPrintsVersionEncryptionSizesRotationAndBoxes) {
    ASSERT_TRUE(samples::WriteFile(
        "offset.pdf", samples::PdfFromObjects({
                          "<< /Type /Catalog /Pages 2 0 R >>",
                          "<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 /Rotate 90 /MediaBox [100 "
                          "100 400 500] >>",
                          "<< /Type /Page /Parent 2 0 R /CropBox [150 120 350.5 480] /TrimBox [160 "
                          "130 340 470] >>",
                          "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 300] /Rotate 0 >>",
                      })));
    EXPECT_EQ(Ok("info offset.pdf 2>/dev/null"),
              "file: offset.pdf\nPDF version: 1.4\nencryption: none\npages: 2\n"
              "page 1: 360 x 200.5 pt, rotated 90, MediaBox 100 100 400 500, CropBox 150 120 "
              "350.5 480, TrimBox 160 130 340 470\n"
              "page 2: 200 x 300 pt, MediaBox 0 0 200 300\n");
    EXPECT_EQ(Ok("info --json --pages 2 offset.pdf"),
              "{\"file\": \"offset.pdf\", \"version\": \"1.4\", \"encryption\": null, "
              "\"pages\": 2, \"page_sizes\": [{\"page\": 2, \"width\": 200, \"height\": 300, "
              "\"rotation\": 0, \"media_box\": [0, 0, 200, 300], \"crop_box\": [0, 0, 200, "
              "300], \"bleed_box\": [0, 0, 200, 300], \"trim_box\": [0, 0, 200, 300], "
              "\"art_box\": [0, 0, 200, 300]}]}\n");
    test::Run("qpdf --min-version=1.6 --force-version=1.6 offset.pdf v16.pdf");
    EXPECT_TRUE(Contains(Ok("info - < v16.pdf"), "file: standard input\nPDF version: 1.6\n"));
}

// Refusals and usage errors: exit status 1 with the reason and the result code, or 2; under
// --json the failure alone, as JSON; nothing is written and the inputs stay as they are.
TEST_F(Cli, FailuresSayWhy) {
    test::QpdfEncrypt("lh.pdf", "locked.pdf", "user", "owner", 256);
    const std::string o = " -o out.pdf";
    const std::tuple<std::string, int, std::string> cases[] = {
        {"info lh.pdf --bogus", 2, "unknown option --bogus"},
        {"info --json none.pdf 2>/dev/null", 1,
         "{\"error\": \"none.pdf: none.pdf does not exist\", \"code\": \"0x80070057\", "
         "\"exit\": 1}\n"},
        {"info lh.pdf --pages 2 --json 2>/dev/null", 2,
         "{\"error\": \"--pages: page 2 does not exist (the document has 1 pages)\", \"code\": "
         "\"0x80070057\", \"exit\": 2}\n"},
        {"render lh.pdf zero x.png", 2, "PAGE must be"},
        {"render lh.pdf 1 x.png --dpi 0", 2, "--dpi"},
        {"split none.pdf x", 1, "(0x80070002)"},
        {"split lh.pdf", 2, "expected FILE PREFIX"},
        {"split lh.pdf x --ext a/b", 2, "not a path"},
        {"split lh.pdf x --outdir lh.pdf", 1, "cannot create"},
        {"protect lh.pdf --user new --empty-owner --deny everything", 2,
         "--deny: unknown permission in everything"},
        {"protect locked.pdf --user", 2, "--user needs a value"},
        {"protect-pubkey locked.pdf --password user" + o, 2, "at least one CERT.pem"},
        {"protect-pubkey locked.pdf lh.pdf --password user" + o, 1,
         "lh.pdf: holds no PEM certificate (0x80004005)"},
        {"append lh.pdf doc.pdf --pages 4", 2, "page 4 does not exist (the document has 3"},
        {"append lh.pdf --pages 1 doc.pdf", 2, "--pages applies to a SOURCE"},
        {"append lh.pdf", 2, "expected FILE and at least one SOURCE"},
        {"append lh.pdf doc.pdf --pages", 2, "--pages needs a value"},
        {"append lh.pdf doc.pdf --bogus 1", 2, "unknown option --bogus"},
        {"append lh.pdf locked.pdf" + o, 1, "Password required or incorrect password"},
        {"replace lh.pdf 1 doc.pdf 1 1 --pages 1", 2, "not both"},
        {"replace lh.pdf 1 doc.pdf --pages 0", 2, "page 0 does not exist"},
        {"append - doc.pdf < /dev/null", 2, "standard input needs -o OUT"},
    };
    const std::string before = test::ReadBytes("lh.pdf") + test::ReadBytes("locked.pdf");
    for (const auto& [args, exit_code, message] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        if (message[0] == '{')
            EXPECT_EQ(result.output, message);
        else
            EXPECT_TRUE(Contains(result.output, message)) << result.output;
        for (const char* made : {"out.pdf", "x.png", "x_"})
            EXPECT_TRUE(test::FilesStartingWith(".", made).empty()) << made;
        EXPECT_EQ(test::ReadBytes("lh.pdf") + test::ReadBytes("locked.pdf"), before);
    }
}

TEST_F(Cli, LogIniTurnsDiagnosticsOn) {
    const std::string log = (stdfs::current_path() / "zpdf.log").string();
    test::WriteBytes("log.ini", "[categories]\nPDF=info," + log + "\n");
    Ok("--log-ini log.ini info doc.pdf");
    ASSERT_EQ(Zpdf("--log-ini log.ini info none.pdf").exit_code, 1);
    const std::string lines = test::ReadBytes(log);
    EXPECT_TRUE(Contains(lines, "opened doc.pdf: 3 pages, not linearized")) << lines;
    EXPECT_TRUE(Contains(lines, "none.pdf does not exist (0x80070057)")) << lines;
}

// On a terminal, long work (from 200 pages, or 2000 rows of a drawing) shows how far it got, up
// to the end; not with -q, nor when standard error is not a terminal.
TEST_F(Cli, LongWorkShowsProgressOnATerminal) {
    ASSERT_TRUE(
        samples::WriteFile("long.pdf", samples::BuildPdf(std::vector<samples::SamplePage>(200))));
    const std::string stamp = "stamp long.pdf lh.pdf --all -o o.pdf";
    const std::string shown = OnTerminal(stamp);
    EXPECT_TRUE(Contains(shown, "stamping page 200/200")) << shown;
    EXPECT_TRUE(Contains(shown, "writing o.pdf")) << shown;
    EXPECT_FALSE(Contains(Ok(stamp), "stamping page"));
    const std::string quiet = OnTerminal(stamp + " -q");
    EXPECT_FALSE(Contains(quiet, "stamping page")) << quiet;
    EXPECT_TRUE(Contains(OnTerminal("split long.pdf part"), "examining page 199 of 200"));
    // 842 pt at 300 dpi, rounded up, are 3509 rows.
    EXPECT_TRUE(Contains(OnTerminal("render lh.pdf 1 big.png --dpi 300"), "drawing row 3509/3509"));
}

// The parts as listed, the encrypted file's with an extension in a folder split makes; a file
// without a marker before its last page writes none.
TEST_F(Cli, SplitListsItsParts) {
    test::TextPdf("job.pdf", {"one @@nd@@", "two", "three"});
    test::QpdfEncrypt("job.pdf", "locked.pdf", "pw", "o", 256);
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"job.pdf job", "job_1", "job_2"},
        {"locked.pdf job --password pw --ext pdf --outdir parts/deep", "parts/deep/job_1.pdf",
         "parts/deep/job_2.pdf"},
        {"job.pdf dot --ext .part1", "dot_1.part1", "dot_2.part1"},
    };
    for (const auto& [args, first, second] : cases) {
        SCOPED_TRACE(args);
        EXPECT_EQ(Ok("split " + args), first + ": page 1\n" + second + ": pages 2-3\n2 parts\n");
        EXPECT_EQ(test::PdfPageTexts(second), (std::vector<std::string>{"two", "three"}));
    }
    EXPECT_EQ(Ok("split doc.pdf plain"),
              "0 parts: no page before the last one carries the marker, nothing written\n");
    EXPECT_TRUE(test::FilesStartingWith(".", "plain_").empty());
}

// zpdf's own options: the versions, the load messages only with -v, nothing but results with -q.
TEST_F(Cli, VersionAndVerbosity) {
    const std::string version = Ok("--version");
    EXPECT_TRUE(Contains(version, "zpdf 1.0.0\nPDF engine: MuPDF 1.21")) << version;
    const std::tuple<std::string, bool, bool> runs[] = {
        // arguments, load message shown, confirmation shown
        {"stamp doc.pdf lh.pdf -o o.pdf", false, true},
        {"stamp doc.pdf lh.pdf -o o.pdf --verbose", true, true},
        {"-q stamp doc.pdf lh.pdf -o o.pdf", false, false},
        {"append doc.pdf -v lh.pdf -o o.pdf", true, true},
    };
    for (const auto& [args, load_message, confirmation] : runs) {
        const std::string output = Ok(args);
        EXPECT_EQ(Contains(output, "Non-linearized path..."), load_message) << args << output;
        EXPECT_EQ(Contains(output, "-> o.pdf"), confirmation) << args;
    }
    EXPECT_EQ(Zpdf("-q info doc.pdf").output.substr(0, 6), "file: ") << "results are not silenced";
    for (const char* args : {"-q protect doc.pdf --user u --owner o -o p.pdf",
                             "-q decrypt p.pdf --password u -o d.pdf", "-q demo demo"})
        EXPECT_EQ(Ok(args), "") << args;
}

// The editing commands, checked page by page by pdftotext: several sources with their own
// selections and passwords; with -o the input stays as it is.
TEST_F(Cli, AppendAndReplaceTakeSelectedPages) {
    test::TextPdf("src.pdf", {"S1", "S2", "S3", "S4", "S5"});
    test::QpdfEncrypt("src.pdf", "locked.pdf", "pw", "o", 256);
    const std::string before = test::ReadBytes("doc.pdf");
    using Pages = std::vector<std::string>;
    const std::pair<std::string, Pages> cases[] = {
        {"stamp doc.pdf lh.pdf --background", {"D1LH", "D2LH", "D3LH"}},
        {"stamp doc.pdf lh.pdf --page 2 --at 10,20 --scale 0.5", {"D1", "D2LH", "D3"}},
        {"append doc.pdf src.pdf --pages z-3 locked.pdf --password pw --pages r1",
         {"D1", "D2", "D3", "S5", "S4", "S3", "S5"}},
        {"append doc.pdf src.pdf --pages=2-z:even src.pdf --pages 1",
         {"D1", "D2", "D3", "S3", "S5", "S1"}},
        {"replace doc.pdf 1 locked.pdf --source-password pw --pages r2", {"S4", "D2", "D3"}},
        {"replace doc.pdf 2 src.pdf 4 5", {"D1", "S4", "S5"}},
    };
    for (const auto& [args, pages] : cases) {
        SCOPED_TRACE(args);
        stdfs::remove("out.pdf");
        Ok(args + " -o out.pdf");
        Pages texts = test::PdfPageTexts("out.pdf");
        for (std::string& text : texts) text.erase(text.find_last_not_of(" \f") + 1);
        EXPECT_EQ(texts, pages);
        EXPECT_EQ(test::ReadBytes("doc.pdf"), before);
    }
}

// Standard input and output: a pipeline through zpdf gives the same document as files do, and a
// drawing of the page's size.
TEST_F(Cli, StandardStreams) {
    const auto stamped = Zpdf("stamp - lh.pdf -o - < doc.pdf > piped.pdf 2>err.txt");
    ASSERT_EQ(stamped.exit_code, 0) << test::ReadBytes("err.txt");
    EXPECT_EQ(test::PdfPageTexts("piped.pdf"), (std::vector<std::string>{"LHD1", "LHD2", "LHD3"}));
    // The confirmation goes to standard error when standard output carries the document.
    EXPECT_TRUE(Contains(test::ReadBytes("err.txt"), "-> standard output"));
    const auto png = Zpdf("render - 1 - --dpi 36 < doc.pdf > p.png");
    EXPECT_EQ(png.exit_code, 0) << png.output;
    // The signature, then width and height in the header: 595 x 842 pt at 36 dpi.
    const std::string header = test::ReadBytes("p.png").substr(0, 24);
    EXPECT_EQ(header.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(header.substr(16), std::string("\0\0\x01\x2A\0\0\x01\xA5", 8));
}

// --at counts from the visible box's lower-left corner: on a page whose MediaBox starts at
// (100,100) the stamp lands where asked, as pdftotext measures it from that corner.
TEST_F(Cli, StampAtIsMeasuredFromTheVisibleBox) {
    ASSERT_TRUE(samples::WriteFile(
        "offset.pdf",
        samples::PdfFromObjects({"<< /Type /Catalog /Pages 2 0 R >>",
                                 "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                 "<< /Type /Page /Parent 2 0 R /MediaBox [100 100 400 500] >>"})));
    const samples::SamplePage mark{100, 50, 0, "BT /F1 10 Tf 0 0 Td (MARK) Tj ET", ""};
    ASSERT_TRUE(samples::WriteFile("mark.pdf", samples::BuildPdf({mark})));
    Ok("stamp offset.pdf mark.pdf --at 10,20 -o out.pdf");
    const std::string word = test::Run("pdftotext -bbox out.pdf - | grep '>MARK<'").output;
    double x = -1, y_max = -1;
    std::sscanf(word.c_str(), " <word xMin=\"%lf\" yMin=\"%*f\" xMax=\"%*f\" yMax=\"%lf\"", &x,
                &y_max);
    EXPECT_NEAR(x, 10, 0.5) << word;
    EXPECT_NEAR(y_max, 400 - 20, 3) << "the baseline is 20 pt above the visible box's bottom";
}

}  // namespace
}  // namespace zpdf
