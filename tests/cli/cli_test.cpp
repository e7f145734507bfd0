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
// from the page tree node, and a plain one.
std::string OffsetPagesPdf() {
    return samples::PdfFromObjects({
        "<< /Type /Catalog /Pages 2 0 R >>",
        "<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 /Rotate 90 /MediaBox [100 100 400 500] >>",
        "<< /Type /Page /Parent 2 0 R /CropBox [150 120 350.5 480] /TrimBox [160 130 340 470] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 300] /Rotate 0 >>",
    });
}

TEST(Cli, InfoPrintsVersionEncryptionSizesRotationAndBoxes) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path file = dir / "offset.pdf";
    ASSERT_TRUE(samples::WriteFile(file, OffsetPagesPdf()));
    EXPECT_EQ(Ok("info " + Quote(file) + " 2>/dev/null"),
              "file: " + file.string() +
                  "\nPDF version: 1.4\nencryption: none\npages: 2\n"
                  "page 1: 360 x 200.5 pt, rotated 90, MediaBox 100 100 400 500, CropBox 150 120 "
                  "350.5 480, TrimBox 160 130 340 470\n"
                  "page 2: 200 x 300 pt, MediaBox 0 0 200 300\n");
    // The same facts as poppler reads them.
    const std::string poppler = test::Run("pdfinfo -box -l 2 " + Quote(file)).output;
    for (const std::string line :
         {"Page    1 size:  200.5 x 360 pts", "Page    1 rot:   90",
          "Page    1 MediaBox:    100.00   100.00   400.00   500.00",
          "Page    1 CropBox:     150.00   120.00   350.50   480.00",
          "Page    1 TrimBox:     160.00   130.00   340.00   470.00", "Page    2 rot:   0",
          "Page    2 MediaBox:      0.00     0.00   200.00   300.00", "PDF version:     1.4"})
        EXPECT_TRUE(Contains(poppler, line)) << line << "\n" << poppler;
    EXPECT_EQ(Ok("info --json --pages 2 " + Quote(file)),
              "{\"file\": \"" + file.string() +
                  "\", \"version\": \"1.4\", \"encryption\": null, \"pages\": 2, "
                  "\"page_sizes\": [{\"page\": 2, \"width\": 200, \"height\": 300, "
                  "\"rotation\": 0, \"media_box\": [0, 0, 200, 300], \"crop_box\": [0, 0, 200, "
                  "300], \"bleed_box\": [0, 0, 200, 300], \"trim_box\": [0, 0, 200, 300], "
                  "\"art_box\": [0, 0, 200, 300]}]}\n");
    // Standard input, and the version as qpdf writes it.
    test::Run("qpdf --min-version=1.6 --force-version=1.6 " + Quote(file) + " " +
              Quote(dir / "v16.pdf"));
    EXPECT_TRUE(Contains(Ok("info - < " + Quote(dir / "v16.pdf")),
                         "file: standard input\nPDF version: 1.6\n"));

    // Encryption as qpdf --show-encryption reports what it wrote.
    const std::tuple<int, std::string, std::string> schemes[] = {
        {40, "RC4-40 (Standard, V1, R2)", "R = 2"},
        {128, "RC4-128 (Standard, V2, R3)", "R = 3"},
        {256, "AES-256 (Standard, V5, R6)", "R = 6"},
    };
    for (const auto& [bits, text, qpdf_says] : schemes) {
        const stdfs::path locked = dir / ("locked" + std::to_string(bits) + ".pdf");
        ASSERT_EQ(test::Run("qpdf --allow-weak-crypto --encrypt u o " + std::to_string(bits) +
                            (bits == 128 ? " --use-aes=n" : "") + " -- " + Quote(file) + " " +
                            Quote(locked))
                      .exit_code,
                  0);
        EXPECT_TRUE(Contains(
            test::Run("qpdf --show-encryption --password=u " + Quote(locked)).output, qpdf_says));
        EXPECT_TRUE(Contains(Ok("info --password u " + Quote(locked)), "encryption: " + text))
            << bits;
    }
    const stdfs::path aes128 = dir / "aes128.pdf";
    test::Run("qpdf --encrypt u o 128 --use-aes=y -- " + Quote(file) + " " + Quote(aes128));
    EXPECT_TRUE(Contains(Ok("info --json --password u " + Quote(aes128)),
                         "\"encryption\": {\"filter\": \"Standard\", \"method\": \"AES-128\", "
                         "\"version\": 4, \"revision\": 4}"));
}

// A file secured for certificate holders is read with a holder's key; its encryption is that
// of the file itself, with the recipients it names.
TEST(Cli, InfoReadsCertificateSecuredFilesWithAKey) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"secret"});
    ASSERT_EQ(test::Run("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=a -keyout " +
                        Quote(dir / "a.key") + " -out " + Quote(dir / "a.pem"))
                  .exit_code,
              0);
    Ok("protect-pubkey " + Quote(plain) + " " + Quote(dir / "a.pem") + " -o " +
       Quote(dir / "pub.pdf"));
    const std::string key = " --key " + Quote(dir / "a.key") + " --cert " + Quote(dir / "a.pem");
    EXPECT_TRUE(Contains(Ok("info " + Quote(dir / "pub.pdf") + key),
                         "encryption: AES-256 (Adobe.PubSec, V5, 1 recipient(s))\npages: 1\n"));
    EXPECT_TRUE(Contains(Ok("info --json " + Quote(dir / "pub.pdf") + key),
                         "\"encryption\": {\"filter\": \"Adobe.PubSec\", \"method\": "
                         "\"AES-256\", \"version\": 5, \"recipients\": 1}"));
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
    const auto quiet = test::Run("script -qec " + Quote(stamp + " -q") + " /dev/null < /dev/null");
    EXPECT_EQ(quiet.exit_code, 0);
    EXPECT_FALSE(Contains(quiet.output, "stamping page")) << quiet.output;
    EXPECT_FALSE(Contains(quiet.output, "writing ")) << quiet.output;
    EXPECT_TRUE(Contains(shown.output, "writing " + (dir / "out.pdf").string())) << shown.output;
    // A large drawing counts its rows: 842 pt at 300 dpi, rounded up, are 3509.
    const std::string render = std::string(ZPDF_BINARY) + " render " + Quote(head) + " 1 " +
                               Quote(dir / "big.png") + " --dpi 300";
    const auto drawn = test::Run("script -qec " + Quote(render) + " /dev/null < /dev/null");
    EXPECT_TRUE(Contains(drawn.output, "drawing row 3509/3509")) << drawn.output;
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

// zpdf's own options: the versions, the load messages only with -v, nothing but results with -q,
// and JSON failures under --json.
TEST(Cli, VersionVerbosityAndJsonErrors) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"one", "two"}));
    const std::string lh = Quote(test::TextPdf(dir / "lh.pdf", {"HEAD"}));
    const std::string version = Ok("--version");
    EXPECT_TRUE(Contains(version, "zpdf 1.0.0\nPDF engine: MuPDF 1.21")) << version;
    EXPECT_TRUE(Contains(version, "built: ")) << version;

    const std::tuple<std::string, bool, bool> runs[] = {
        // arguments, load message shown, confirmation shown
        {"stamp " + doc + " " + lh + " -o " + Quote(dir / "o.pdf"), false, true},
        {"-v stamp " + doc + " " + lh + " -o " + Quote(dir / "o.pdf"), true, true},
        {"stamp " + doc + " " + lh + " -o " + Quote(dir / "o.pdf") + " --verbose", true, true},
        {"-q stamp " + doc + " " + lh + " -o " + Quote(dir / "o.pdf"), false, false},
        {"append " + doc + " " + lh + " -q -o " + Quote(dir / "o.pdf"), false, false},
        {"append " + doc + " -v " + lh + " -o " + Quote(dir / "o.pdf"), true, true},
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

    const std::tuple<std::string, int, std::string> failures[] = {
        {"info --json " + Quote(dir / "none.pdf"), 1,
         "{\"error\": \"" + (dir / "none.pdf").string() + ": " + (dir / "none.pdf").string() +
             " does not exist\", \"code\": \"0x80070057\", \"exit\": 1}\n"},
        {"info --json", 2,
         "{\"error\": \"expected one FILE\", \"code\": \"0x80070057\", \"exit\": 2}\n"},
        {"info " + doc + " --pages 3 --json", 2,
         "{\"error\": \"--pages: page 3 does not exist (the document has 2 pages)\", \"code\": "
         "\"0x80070057\", \"exit\": 2}\n"},
    };
    for (const auto& [args, exit_code, json] : failures) {
        const auto result = Zpdf(args + " 2>/dev/null");
        EXPECT_EQ(result.exit_code, exit_code) << args;
        EXPECT_EQ(result.output, json) << args;
    }
}

// Several sources with their own selections and passwords, checked page by page by pdftotext.
TEST(Cli, AppendAndReplaceTakeSelectedPages) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"D1", "D2", "D3"}));
    const stdfs::path five = test::TextPdf(dir / "five.pdf", {"S1", "S2", "S3", "S4", "S5"});
    const std::string locked = Quote(test::QpdfEncrypt(five, dir / "locked.pdf", "pw", "o", 256));
    const std::string locked_doc =
        Quote(test::QpdfEncrypt(dir / "doc.pdf", dir / "locked-doc.pdf", "dpw", "o", 256));
    const std::string src = Quote(five), out = " -o " + Quote(dir / "out.pdf");
    using Pages = std::vector<std::string>;
    const std::pair<std::string, Pages> cases[] = {
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
    }
    // The file's own password and a source's: the result keeps the file's encryption.
    Ok("append " + locked_doc + " --password dpw " + locked + " --password=pw --pages 2" + out);
    ASSERT_EQ(test::Run("qpdf --password=dpw --decrypt " + Quote(dir / "out.pdf") + " " +
                        Quote(dir / "plain.pdf"))
                  .exit_code,
              0);
    EXPECT_EQ(test::PdfPageTexts(dir / "plain.pdf").size(), 4u);
    EXPECT_TRUE(Contains(test::PdfToText(dir / "plain.pdf"), "S2"));
    stdfs::remove(dir / "out.pdf");

    const std::tuple<std::string, int, std::string> refusals[] = {
        {"append " + doc + " " + src + " --pages 6", 2,
         "page 6 does not exist (the document has 5"},
        {"append " + doc + " " + src + " --pages x", 2, "'x' is not a page"},
        {"append " + doc + " --pages 1 " + src, 2, "--pages applies to a SOURCE"},
        {"append " + doc, 2, "expected FILE and at least one SOURCE"},
        {"append " + doc + " " + src + " --pages", 2, "--pages needs a value"},
        {"append " + doc + " " + src + " --bogus 1", 2, "unknown option --bogus"},
        {"append " + doc + " " + locked, 1, "Password required or incorrect password"},
        {"append " + doc + " " + locked + " --password no", 1, "Password required"},
        {"replace " + doc + " 1 " + src + " 1 2 --pages 1", 2, "not both"},
        {"replace " + doc + " 1 " + src + " --pages 0", 2, "page 0 does not exist"},
        {"append - " + src, 2, "standard input needs -o OUT"},
    };
    for (const auto& [args, exit_code, message] : refusals) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args + (exit_code == 2 ? "" : out) + " < /dev/null");
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        EXPECT_TRUE(Contains(result.output, message)) << result.output;
        EXPECT_FALSE(stdfs::exists(dir / "out.pdf"));
    }
}

// Standard input and output: a pipeline through zpdf gives the same document as files do.
TEST(Cli, StandardStreams) {
    const stdfs::path dir = test::ScratchDir();
    const std::string doc = Quote(test::TextPdf(dir / "doc.pdf", {"one", "two"}));
    const std::string lh = Quote(test::TextPdf(dir / "lh.pdf", {"HEAD"}));
    const std::string piped = Quote(dir / "piped.pdf");
    const auto stamped = test::Run(std::string(ZPDF_BINARY) + " stamp - " + lh + " -o - < " + doc +
                                   " > " + piped + " 2>" + Quote(dir / "err.txt"));
    ASSERT_EQ(stamped.exit_code, 0) << test::ReadBytes(dir / "err.txt");
    EXPECT_TRUE(test::QpdfCheckPasses(dir / "piped.pdf"));
    EXPECT_EQ(test::PdfPageTexts(dir / "piped.pdf").size(), 2u);
    EXPECT_TRUE(Contains(test::PdfToText(dir / "piped.pdf"), "HEAD"));
    // The confirmation goes to standard error when standard output carries the document.
    EXPECT_TRUE(Contains(test::ReadBytes(dir / "err.txt"), "-> standard output"));

    const auto appended = test::Run(std::string(ZPDF_BINARY) + " append " + doc + " " + lh +
                                    " -q -o - > " + Quote(dir / "app.pdf"));
    EXPECT_EQ(appended.exit_code, 0);
    EXPECT_EQ(test::QpdfPageCount(dir / "app.pdf"), 3);

    const auto png = test::Run(std::string(ZPDF_BINARY) + " render - 1 - --dpi 36 < " + doc +
                               " > " + Quote(dir / "p.png"));
    EXPECT_EQ(png.exit_code, 0) << png.output;
    EXPECT_EQ(test::ReadBytes(dir / "p.png").substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_TRUE(test::FilesStartingWith(dir, "piped.pdf.").empty());
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

// Split's options: the parts of an encrypted file, with an extension, in a folder it makes.
TEST(Cli, SplitOptions) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path job = test::TextPdf(dir / "job.pdf", {"one @@nd@@", "two", "three"});
    const std::string locked = Quote(test::QpdfEncrypt(job, dir / "locked.pdf", "pw", "o", 256));
    const stdfs::path out = dir / "parts" / "deep";
    EXPECT_EQ(Ok("split " + locked + " job --password pw --ext pdf --outdir " + Quote(out)),
              (out / "job_1.pdf").string() + ": page 1\n" + (out / "job_2.pdf").string() +
                  ": pages 2-3\n2 parts\n");
    EXPECT_EQ(test::PdfPageTexts(out / "job_2.pdf").size(), 2u);
    EXPECT_TRUE(test::QpdfCheckPasses(out / "job_1.pdf"));
    Ok("split " + Quote(job) + " " + Quote(dir / "dot") + " --ext .part1");
    EXPECT_EQ(test::QpdfPageCount(dir / "dot_1.part1"), 1);

    const std::tuple<std::string, int, std::string> refusals[] = {
        {"split " + locked + " " + Quote(dir / "x"), 1, "Password required"},
        {"split " + locked + " " + Quote(dir / "x") + " --password bad", 1, "Password required"},
        {"split " + Quote(job) + " " + Quote(dir / "x") + " --ext a/b", 2, "not a path"},
        {"split " + Quote(job) + " x --outdir " + Quote(dir / "job.pdf"), 1, "cannot create"},
    };
    for (const auto& [args, exit_code, message] : refusals) {
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, exit_code) << args << result.output;
        EXPECT_TRUE(Contains(result.output, message)) << args << result.output;
    }
    EXPECT_TRUE(test::FilesStartingWith(dir, "x_").empty());
}

}  // namespace
}  // namespace zpdf
