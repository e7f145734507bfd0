// The zpdf host as a user meets it: outputs, exit codes and messages.
#include <gtest/gtest.h>

#include <cstdio>
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

// What a command shows on a terminal.
std::string OnTerminal(const std::string& args) {
    return test::Run("script -qec " + Quote(std::string(ZPDF_BINARY) + " " + args) +
                     " /dev/null < /dev/null")
        .output;
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

// A page whose MediaBox does not start at the origin, with a CropBox and rotation inherited
// from the page tree node, and a plain one; as a file and from standard input.
TEST(Cli, InfoPrintsVersionEncryptionSizesRotationAndBoxes) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path file = dir / "offset.pdf";
    ASSERT_TRUE(samples::WriteFile(
        file, samples::PdfFromObjects({
                  "<< /Type /Catalog /Pages 2 0 R >>",
                  "<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 /Rotate 90 /MediaBox [100 100 "
                  "400 500] >>",
                  "<< /Type /Page /Parent 2 0 R /CropBox [150 120 350.5 480] /TrimBox [160 130 "
                  "340 470] >>",
                  "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 300] /Rotate 0 >>",
              })));
    EXPECT_EQ(Ok("info " + Quote(file) + " 2>/dev/null"),
              "file: " + file.string() +
                  "\nPDF version: 1.4\nencryption: none\npages: 2\n"
                  "page 1: 360 x 200.5 pt, rotated 90, MediaBox 100 100 400 500, CropBox 150 120 "
                  "350.5 480, TrimBox 160 130 340 470\n"
                  "page 2: 200 x 300 pt, MediaBox 0 0 200 300\n");
    EXPECT_EQ(Ok("info --json --pages 2 " + Quote(file)),
              "{\"file\": \"" + file.string() +
                  "\", \"version\": \"1.4\", \"encryption\": null, \"pages\": 2, "
                  "\"page_sizes\": [{\"page\": 2, \"width\": 200, \"height\": 300, "
                  "\"rotation\": 0, \"media_box\": [0, 0, 200, 300], \"crop_box\": [0, 0, 200, "
                  "300], \"bleed_box\": [0, 0, 200, 300], \"trim_box\": [0, 0, 200, 300], "
                  "\"art_box\": [0, 0, 200, 300]}]}\n");
    test::Run("qpdf --min-version=1.6 --force-version=1.6 " + Quote(file) + " " +
              Quote(dir / "v16.pdf"));
    EXPECT_TRUE(Contains(Ok("info - < " + Quote(dir / "v16.pdf")),
                         "file: standard input\nPDF version: 1.6\n"));
}

// Refusals and usage errors: exit status 1 with the reason and the result code, or 2; under
// --json the failure alone, as JSON; nothing is written.
TEST(Cli, FailuresSayWhy) {
    const stdfs::path dir = test::ScratchDir();
    const std::string text = Quote(test::TextPdf(dir / "text.pdf", {"secret"}));
    const std::string locked =
        Quote(test::QpdfEncrypt(dir / "text.pdf", dir / "locked.pdf", "user", "owner", 256));
    const std::string src = Quote(test::TextPdf(dir / "src.pdf", {"S1", "S2"}));
    const std::string png = Quote(dir / "x.png"), out = " -o " + Quote(dir / "out.pdf");
    const std::string none = (dir / "none.pdf").string();
    const std::tuple<std::string, int, std::string> cases[] = {
        {"info " + Quote(none), 1, "(0x80070057)"},
        {"info " + locked + " --password user", 0, "pages: 1"},
        {"info", 2, "expected one FILE"},
        {"info " + text + " --bogus", 2, "unknown option --bogus"},
        {"info --json " + Quote(none) + " 2>/dev/null", 1,
         "{\"error\": \"" + none + ": " + none +
             " does not exist\", \"code\": \"0x80070057\", \"exit\": 1}\n"},
        {"info --json 2>/dev/null", 2,
         "{\"error\": \"expected one FILE\", \"code\": \"0x80070057\", \"exit\": 2}\n"},
        {"info " + text + " --pages 2 --json 2>/dev/null", 2,
         "{\"error\": \"--pages: page 2 does not exist (the document has 1 pages)\", \"code\": "
         "\"0x80070057\", \"exit\": 2}\n"},
        {"render " + text + " 2 " + png, 1, "Page 2 does not exist"},
        {"render " + text + " zero " + png, 2, "PAGE must be"},
        {"render " + text + " 1 " + png + " --dpi 0", 2, "--dpi"},
        {"split " + Quote(none) + " " + Quote(dir / "m"), 1, "(0x80070002)"},
        {"split " + text, 2, "expected FILE PREFIX"},
        {"split " + locked + " " + Quote(dir / "x"), 1, "Password required"},
        {"split " + locked + " " + Quote(dir / "x") + " --password bad", 1, "Password required"},
        {"split " + text + " " + Quote(dir / "x") + " --ext a/b", 2, "not a path"},
        {"split " + text + " x --outdir " + text, 1, "cannot create"},
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
        {"append " + text + " " + src + " --pages 3", 2,
         "page 3 does not exist (the document has 2"},
        {"append " + text + " " + src + " --pages x", 2, "'x' is not a page"},
        {"append " + text + " --pages 1 " + src, 2, "--pages applies to a SOURCE"},
        {"append " + text, 2, "expected FILE and at least one SOURCE"},
        {"append " + text + " " + src + " --pages", 2, "--pages needs a value"},
        {"append " + text + " " + src + " --bogus 1", 2, "unknown option --bogus"},
        {"append " + text + " " + locked + out, 1, "Password required or incorrect password"},
        {"append " + text + " " + locked + " --password no" + out, 1, "Password required"},
        {"replace " + text + " 1 " + src + " 1 1 --pages 1", 2, "not both"},
        {"replace " + text + " 1 " + src + " --pages 0", 2, "page 0 does not exist"},
        {"append - " + src + " < /dev/null", 2, "standard input needs -o OUT"},
    };
    const std::string text_bytes = test::ReadBytes(dir / "text.pdf");
    for (const auto& [args, exit_code, message] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        if (message[0] == '{')
            EXPECT_EQ(result.output, message);
        else
            EXPECT_TRUE(Contains(result.output, message)) << result.output;
        for (const char* made : {"out.pdf", "x.png", "x_", "m_"})
            EXPECT_TRUE(test::FilesStartingWith(dir, made).empty()) << made;
    }
    EXPECT_EQ(test::ReadBytes(dir / "text.pdf"), text_bytes);
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

// On a terminal, long work (from 200 pages, or 2000 rows of a drawing) shows how far it got, up
// to the end; not with -q, nor when standard error is not a terminal.
TEST(Cli, LongWorkShowsProgressOnATerminal) {
    const stdfs::path dir = test::ScratchDir();
    const std::string long_pdf = Quote(dir / "long.pdf");
    ASSERT_TRUE(samples::WriteFile(dir / "long.pdf",
                                   samples::BuildPdf(std::vector<samples::SamplePage>(200))));
    const std::string head = Quote(test::TextPdf(dir / "head.pdf", {"Head"}));
    const std::string stamp =
        "stamp " + long_pdf + " " + head + " --all -o " + Quote(dir / "o.pdf");
    const std::string shown = OnTerminal(stamp);
    EXPECT_TRUE(Contains(shown, "stamping page 200/200")) << shown;
    EXPECT_TRUE(Contains(shown, "writing " + (dir / "o.pdf").string())) << shown;
    EXPECT_FALSE(Contains(Ok(stamp), "stamping page"));
    const std::string quiet = OnTerminal(stamp + " -q");
    EXPECT_FALSE(Contains(quiet, "stamping page")) << quiet;
    EXPECT_FALSE(Contains(quiet, "writing ")) << quiet;
    EXPECT_TRUE(Contains(OnTerminal("split " + long_pdf + " " + Quote(dir / "part")),
                         "examining page 199 of 200"));
    // 842 pt at 300 dpi, rounded up, are 3509 rows.
    EXPECT_TRUE(
        Contains(OnTerminal("render " + head + " 1 " + Quote(dir / "big.png") + " --dpi 300"),
                 "drawing row 3509/3509"));
}

// The parts as listed, the encrypted file's with an extension in a folder split makes; a file
// without a marker before its last page writes none.
TEST(Cli, SplitListsItsParts) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path job = test::TextPdf(dir / "job.pdf", {"one @@nd@@", "two", "three"});
    const std::string locked = Quote(test::QpdfEncrypt(job, dir / "locked.pdf", "pw", "o", 256));
    const stdfs::path deep = dir / "parts" / "deep";
    const std::tuple<std::string, stdfs::path, stdfs::path> cases[] = {
        {Quote(job) + " " + Quote(dir / "job"), dir / "job_1", dir / "job_2"},
        {locked + " job --password pw --ext pdf --outdir " + Quote(deep), deep / "job_1.pdf",
         deep / "job_2.pdf"},
        {Quote(job) + " " + Quote(dir / "dot") + " --ext .part1", dir / "dot_1.part1",
         dir / "dot_2.part1"},
    };
    for (const auto& [args, first, second] : cases) {
        SCOPED_TRACE(args);
        EXPECT_EQ(Ok("split " + args),
                  first.string() + ": page 1\n" + second.string() + ": pages 2-3\n2 parts\n");
        EXPECT_EQ(test::PdfPageTexts(first), std::vector<std::string>{"one @@nd@@"});
        EXPECT_EQ(test::PdfPageTexts(second), (std::vector<std::string>{"two", "three"}));
        EXPECT_TRUE(test::QpdfCheckPasses(second));
    }
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"one", "two"});
    EXPECT_EQ(Ok("split " + Quote(plain) + " " + Quote(dir / "plain")),
              "0 parts: no page before the last one carries the marker, nothing written\n");
    EXPECT_TRUE(test::FilesStartingWith(dir, "plain_").empty());
}

// zpdf's own options: the versions, the load messages only with -v, nothing but results with -q.
TEST(Cli, VersionAndVerbosity) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"one", "two"}));
    const std::string lh = Quote(test::TextPdf(dir / "lh.pdf", {"HEAD"}));
    const std::string version = Ok("--version");
    EXPECT_TRUE(Contains(version, "zpdf 1.0.0\nPDF engine: MuPDF 1.21")) << version;
    EXPECT_TRUE(Contains(version, "built: ")) << version;

    const std::string o = " -o " + Quote(dir / "o.pdf");
    const std::tuple<std::string, bool, bool> runs[] = {
        // arguments, load message shown, confirmation shown
        {"stamp " + doc + " " + lh + o, false, true},
        {"-v stamp " + doc + " " + lh + o, true, true},
        {"stamp " + doc + " " + lh + o + " --verbose", true, true},
        {"-q stamp " + doc + " " + lh + o, false, false},
        {"append " + doc + " " + lh + " -q" + o, false, false},
        {"append " + doc + " -v " + lh + o, true, true},
    };
    for (const auto& [args, load_message, confirmation] : runs) {
        const std::string output = Ok(args);
        EXPECT_EQ(Contains(output, "Non-linearized path..."), load_message) << args << output;
        EXPECT_EQ(Contains(output, "-> " + (dir / "o.pdf").string()), confirmation) << args;
    }
    EXPECT_EQ(Zpdf("-q info " + doc).output.substr(0, 6), "file: ") << "results are not silenced";
    for (const std::string& args :
         {"-q protect " + doc + " --user u --owner o -o " + Quote(dir / "p.pdf"),
          "-q decrypt " + Quote(dir / "p.pdf") + " --password u -o " + Quote(dir / "d.pdf"),
          "-q demo " + Quote(dir / "demo")}) {
        EXPECT_EQ(Ok(args), "") << args;
    }
}

// The editing commands, checked page by page by pdftotext: several sources with their own
// selections and passwords; with -o the input stays as it is and no working file is left,
// without it the file is replaced.
TEST(Cli, AppendAndReplaceTakeSelectedPages) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"D1", "D2", "D3"}));
    const stdfs::path five = test::TextPdf(dir / "five.pdf", {"S1", "S2", "S3", "S4", "S5"});
    const std::string lh = Quote(test::TextPdf(dir / "lh.pdf", {"LH"}));
    const std::string locked = Quote(test::QpdfEncrypt(five, dir / "locked.pdf", "pw", "o", 256));
    const std::string locked_doc =
        Quote(test::QpdfEncrypt(dir / "doc.pdf", dir / "locked-doc.pdf", "dpw", "o", 256));
    const std::string src = Quote(five), out = " -o " + Quote(dir / "out.pdf");
    const std::string before = test::ReadBytes(dir / "doc.pdf");
    using Pages = std::vector<std::string>;
    const std::pair<std::string, Pages> cases[] = {
        {"stamp " + doc + " " + lh + " --background", {"D1LH", "D2LH", "D3LH"}},
        {"stamp " + doc + " " + lh + " --page 2 --at 10,20 --scale 0.5", {"D1", "D2LH", "D3"}},
        {"append " + doc + " " + lh, {"D1", "D2", "D3", "LH"}},
        {"replace " + doc + " 2 " + lh + " 1 1", {"D1", "LH", "D3"}},
        {"append " + doc + " " + src + " --pages 1-2,5", {"D1", "D2", "D3", "S1", "S2", "S5"}},
        {"append " + doc + " " + src + " --pages z-3 " + locked + " --password pw --pages r1",
         {"D1", "D2", "D3", "S5", "S4", "S3", "S5"}},
        {"append " + doc + " " + src + " --pages=2-z:even " + src + " --pages 1",
         {"D1", "D2", "D3", "S3", "S5", "S1"}},
        {"replace " + doc + " 2 " + src + " --pages 5,1", {"D1", "S5", "S1"}},
        {"replace " + doc + " 1 " + locked + " --source-password pw --pages r2",
         {"S4", "D2", "D3"}},
        {"replace " + doc + " 3 " + src + " --pages 3-1", {"D1", "D2", "S3", "S2", "S1"}},
        {"replace " + doc + " 2 " + src + " 4 5", {"D1", "S4", "S5"}},
    };
    for (const auto& [args, pages] : cases) {
        SCOPED_TRACE(args);
        stdfs::remove(dir / "out.pdf");
        Ok(args + out);
        Pages texts = test::PdfPageTexts(dir / "out.pdf");
        for (std::string& text : texts) text.erase(text.find_last_not_of(" \f") + 1);
        EXPECT_EQ(texts, pages);
        EXPECT_EQ(test::ReadBytes(dir / "doc.pdf"), before);
        EXPECT_TRUE(test::FilesStartingWith(dir, "out.pdf.").empty()) << "no working files left";
    }
    Ok("append " + doc + " " + lh);
    EXPECT_EQ(test::QpdfPageCount(dir / "doc.pdf"), 4);
    // The file's own password and a source's: the result keeps the file's encryption.
    Ok("append " + locked_doc + " --password dpw " + locked + " --password=pw --pages 2" + out);
    ASSERT_EQ(test::Run("qpdf --password=dpw --decrypt " + Quote(dir / "out.pdf") + " " +
                        Quote(dir / "plain.pdf"))
                  .exit_code,
              0);
    EXPECT_EQ(test::PdfPageTexts(dir / "plain.pdf"), (Pages{"D1", "D2", "D3", "S2"}));
}

// Standard input and output: a pipeline through zpdf gives the same document as files do, and a
// drawing of the page's size.
TEST(Cli, StandardStreams) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"one", "two"}));
    const std::string lh = Quote(test::TextPdf(dir / "lh.pdf", {"HEAD"}));
    const std::string piped = Quote(dir / "piped.pdf");
    const auto stamped =
        Zpdf("stamp - " + lh + " -o - < " + doc + " > " + piped + " 2>" + Quote(dir / "err.txt"));
    ASSERT_EQ(stamped.exit_code, 0) << test::ReadBytes(dir / "err.txt");
    EXPECT_TRUE(test::QpdfCheckPasses(dir / "piped.pdf"));
    EXPECT_EQ(test::PdfPageTexts(dir / "piped.pdf"),
              (std::vector<std::string>{"HEADone", "HEADtwo"}));
    // The confirmation goes to standard error when standard output carries the document.
    EXPECT_TRUE(Contains(test::ReadBytes(dir / "err.txt"), "-> standard output"));
    EXPECT_TRUE(test::FilesStartingWith(dir, "piped.pdf.").empty());

    EXPECT_EQ(Zpdf("append " + doc + " " + lh + " -q -o - > " + Quote(dir / "app.pdf")).exit_code,
              0);
    EXPECT_EQ(test::QpdfPageCount(dir / "app.pdf"), 3);

    const auto png = Zpdf("render - 1 - --dpi 36 < " + doc + " > " + Quote(dir / "p.png"));
    EXPECT_EQ(png.exit_code, 0) << png.output;
    // The signature, then width and height in the header: 595 x 842 pt at 36 dpi.
    const std::string header = test::ReadBytes(dir / "p.png").substr(0, 24);
    EXPECT_EQ(header.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(header.substr(16), std::string("\0\0\x01\x2A\0\0\x01\xA5", 8));
}

// --at counts from the visible box's lower-left corner: on a page whose MediaBox starts at
// (100,100) the stamp lands where asked, as pdftotext measures it from that corner.
TEST(Cli, StampAtIsMeasuredFromTheVisibleBox) {
    const stdfs::path dir = test::ScratchDir();
    ASSERT_TRUE(samples::WriteFile(
        dir / "offset.pdf",
        samples::PdfFromObjects({"<< /Type /Catalog /Pages 2 0 R >>",
                                 "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                 "<< /Type /Page /Parent 2 0 R /MediaBox [100 100 400 500] >>"})));
    const samples::SamplePage mark{100, 50, 0, "BT /F1 10 Tf 0 0 Td (MARK) Tj ET", ""};
    ASSERT_TRUE(samples::WriteFile(dir / "mark.pdf", samples::BuildPdf({mark})));
    // x and the distance from the top of the page to the text's baseline region.
    const auto place = [&](const std::string& at) {
        Ok("stamp " + Quote(dir / "offset.pdf") + " " + Quote(dir / "mark.pdf") + " --at " + at +
           " -o " + Quote(dir / "out.pdf"));
        const std::string html =
            test::Run("pdftotext -bbox " + Quote(dir / "out.pdf") + " -").output;
        double x = -1, y_max = -1;
        const auto at_word = html.find(">MARK<");
        if (at_word == std::string::npos) return std::pair{x, y_max};
        const std::string tag = html.substr(html.rfind("<word", at_word));
        std::sscanf(tag.c_str(), "<word xMin=\"%lf\" yMin=\"%*f\" xMax=\"%*f\" yMax=\"%lf\"", &x,
                    &y_max);
        return std::pair{x, y_max};
    };
    const auto [x1, y1] = place("10,20");
    const auto [x2, y2] = place("50,200");
    EXPECT_NEAR(x1, 10, 0.5);
    EXPECT_NEAR(x2, 50, 0.5);
    EXPECT_NEAR(y1 - y2, 180, 0.5);
    EXPECT_NEAR(y1, 400 - 20, 3) << "the baseline is 20 pt above the visible box's bottom";
}

}  // namespace
}  // namespace zpdf
