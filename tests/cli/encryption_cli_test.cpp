// zpdf's security commands as a user meets them: files encrypted by protect and
// protect-pubkey are read back by qpdf and zpdf, and decrypt opens files that PDFBox, zpdf itself
// and a hand-made writer secured. Each test works in its own folder, with files named relatively.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "cli/zpdf_test.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using test::Contains;
using test::Quote;
using test::Zpdf;

// The options that open a file as NAME's holder, or a letterhead or source with `prefix`.
std::string Holder(const std::string& name, const std::string& prefix = "") {
    return " --" + prefix + "key " + name + "-key.pem --" + prefix + "cert " + name + "-cert.pem";
}

// protect-pubkey FROM for the holders of CERTS (with the options that open FROM), as TO, or in
// place when TO is empty.
void Secure(const std::string& from, const std::string& certs, const std::string& to) {
    const auto result =
        Zpdf("protect-pubkey " + from + " " + certs + (to.empty() ? "" : " -o " + to));
    ASSERT_EQ(result.exit_code, 0) << result.output;
}

test::ToolResult Probe(const std::string& args) {
    const char* scratch = std::getenv("ZPDF_TEST_TMP");
    const std::string cache =
        scratch != nullptr ? std::string(" -Dpdfbox.fontcache=") + Quote(scratch) : "";
    return test::Run(std::string(ZPDF_JAVA) + " -XX:+UseSerialGC -XX:TieredStopAtLevel=1" + cache +
                     " -cp " + Quote(ZPDF_PROBE_CLASSPATH) + " PubKeyProbe " + args +
                     " 2>/dev/null");
}

// Each test in a fresh folder of its own, which holds plain.pdf.
class EncryptionCli : public test::InScratchFolder {
  protected:
    void SetUp() override {
        InScratchFolder::SetUp();
        test::TextPdf("plain.pdf", {"secret words"});
    }
};

// ---- A certificate-secured file written by hand, in the layout other writers use: objects in
// an encrypted object stream, a cross-reference stream, metadata left in clear ----

std::string Hex(const std::string& bytes) {
    std::string out;
    char digits[3];
    for (const unsigned char c : bytes) out.append(digits, std::snprintf(digits, 3, "%02X", c));
    return out;
}

// The output of an openssl command reading `input`: named last for dgst, with -in otherwise.
std::string OpenSsl(const std::string& args, const std::string& input) {
    test::WriteBytes("ssl-in.bin", input);
    stdfs::remove("ssl-out.bin");
    const std::string in = args.rfind("dgst", 0) == 0 ? " ssl-in.bin" : " -in ssl-in.bin";
    EXPECT_EQ(test::Run("openssl " + args + " -out ssl-out.bin" + in).exit_code, 0) << args;
    return test::ReadBytes("ssl-out.bin");
}

// One page secured for the holder of `cert` with AES-256: catalog, page tree and page in an
// encrypted object stream (5), the content (4), the encryption dictionary (6) and the metadata
// (7), left in clear, found through a cross-reference stream (8).
std::string HandMadeCertificateFile(const std::string& cert) {
    const std::string seed = "twenty bytes of seed", all_allowed = "\xFF\xFF\xFF\xFF";
    const std::string envelope =
        OpenSsl("cms -encrypt -binary -outform DER -des3 -recip " + cert, seed + all_allowed);
    const std::string key = OpenSsl("dgst -sha256 -binary", seed + envelope + all_allowed);
    const auto aes = [&key](const std::string& data) {  // as AESV3 stores it: the IV in front
        const std::string iv = "0123456789abcdef";
        return iv + OpenSsl("enc -aes-256-cbc -K " + Hex(key) + " -iv " + Hex(iv), data);
    };
    const std::string packed[] = {
        "<< /Type /Catalog /Pages 2 0 R /Metadata 7 0 R /Lang (en-GB) >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 300 200] /Contents 4 0 R /Resources << "
        "/Font << /F1 << /Type /Font /Subtype /Type1 /BaseFont /Helvetica >> >> >> >>",
    };
    std::string header, body;
    for (int i = 0; i < 3; ++i) {
        header += std::to_string(i + 1) + " " + std::to_string(body.size()) + " ";
        body += packed[i] + "\n";
    }
    const std::string objects[] = {
        test::PdfStream("", aes("BT /F1 18 Tf 20 100 Td (secret words) Tj ET")),
        test::PdfStream("/Type /ObjStm /N 3 /First " + std::to_string(header.size()),
                        aes(header + body)),
        "<< /Filter /Adobe.PubSec /SubFilter /adbe.pkcs7.s5 /V 5 /R 4 /StmF /DefaultCryptFilter "
        "/StrF /DefaultCryptFilter /CF << /DefaultCryptFilter << /CFM /AESV3 /Length 256 "
        "/EncryptMetadata false /Recipients [<" +
            Hex(envelope) + ">] >> >> >>",
        test::PdfStream("/Type /Metadata /Subtype /XML",
                        "<x:xmpmeta>described in clear</x:xmpmeta>"),
    };
    // The cross-reference stream's entries: a type, 4 bytes of offset or object stream, 2 of index.
    std::string file = "%PDF-1.7\n", table("\0\0\0\0\0\xFF\xFF", 7);
    for (int i = 0; i < 3; ++i) table += std::string("\2\0\0\0\5\0", 6) + static_cast<char>(i);
    for (int num = 4; num <= 8; ++num) {
        table += '\1';
        for (int shift = 24; shift >= 0; shift -= 8)
            table += static_cast<char>(file.size() >> shift);
        table += std::string("\0\0", 2);
        if (num < 8) file += std::to_string(num) + " 0 obj\n" + objects[num - 4] + "\nendobj\n";
    }
    return file + "8 0 obj\n" +
           test::PdfStream(
               "/Type /XRef /Size 9 /W [1 4 2] /Root 1 0 R /Encrypt 6 0 R /ID "
               "[<00112233445566778899AABBCCDDEEFF> <00112233445566778899AABBCCDDEEFF>]",
               table) +
           "\nendobj\nstartxref\n" + std::to_string(file.size()) + "\n%%EOF\n";
}

// protect on plain and encrypted sources: revision 6 under the chosen passwords (from the
// command line, a file or the environment), the permissions as asked, read back by qpdf.
// With -o the source stays as it is; without it the source itself is
// secured anew, opened with its own password.
TEST_F(EncryptionCli, ProtectWritesPasswordsAndPermissions) {
    test::QpdfEncrypt("plain.pdf", "locked.pdf", "old", "oldo", 256);
    test::Run("qpdf --encrypt u o 256 --extract=n --modify=none -- plain.pdf limited.pdf");
    test::WriteBytes("user.txt", "from file\r\nsecond line\n");
    ASSERT_EQ(setenv("ZPDF_TEST_OWNER", "from env", 1), 0);
    const std::string limited_bytes = test::ReadBytes("limited.pdf");
    // Arguments, with -o or without (FILE secured anew), the passwords and the P qpdf shows.
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        {"plain.pdf --user u --owner o --allow print,extract -o out.pdf", "u", "o", "-1836"},
        {"plain.pdf --user u --owner o --allow all --deny print -o out.pdf", "u", "o", "-2056"},
        {"plain.pdf --empty-user --owner o --deny "
         "modify,extract,annotate,form,assemble,accessibility -o out.pdf",
         "", "o", "-1852"},
        {"locked.pdf --password old --user-file user.txt --owner-env ZPDF_TEST_OWNER -o out.pdf",
         "from file", "from env", "-4"},
        // The source's permissions are kept: modify, extract, annotate, form and assemble denied.
        {"limited.pdf --password o --user n --owner p -o out.pdf", "n", "p", "-1340"},
        {"locked.pdf --password old --user again --empty-owner", "again", "", "-4"},
    };
    for (const auto& [args, user, owner, p] : cases) {
        SCOPED_TRACE(args);
        const std::string out = Contains(args, " -o ") ? "out.pdf" : args.substr(0, args.find(' '));
        const auto result = Zpdf("protect " + args);
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_TRUE(Contains(result.output, out + ": written")) << result.output;
        const std::string as_user = test::ShowEncryption(out, user);
        EXPECT_TRUE(Contains(as_user, "R = 6\nP = " + p + "\n")) << as_user;
        EXPECT_TRUE(Contains(as_user, "Supplied password is user password")) << as_user;
        EXPECT_TRUE(
            Contains(test::ShowEncryption(out, owner), "Supplied password is owner password"));
    }
    EXPECT_EQ(test::ReadBytes("limited.pdf"), limited_bytes) << "-o leaves the source alone";
}

// Usage errors exit 2 and failures 1, with the reason; nothing is written and the inputs stay
// as they are. A key or certificate that does not open the document is named with the reason.
// A certificate-secured FILE is not edited in place,
// which would leave it without its security.
TEST_F(EncryptionCli, SecurityCommandsRefuseWhatTheyCannotDo) {
    for (const char* name : {"ann", "cy"}) test::MakeCertificate(".", name);
    Secure("plain.pdf", "ann-cert.pem", "ours.pdf");
    test::QpdfEncrypt("plain.pdf", "locked.pdf", "u", "o", 256);
    const std::string before = test::ReadBytes("ours.pdf"), ann = Holder("ann"), o = " -o out.pdf";
    unsetenv("ZPDF_TEST_UNSET");
    std::vector<std::tuple<std::string, int, std::string>> cases = {
        {"protect plain.pdf --user u --owner ''" + o, 2, "the owner password is empty"},
        {"protect plain.pdf --user u --user-env HOME --owner o" + o, 2,
         "give the user password one way only"},
        {"protect plain.pdf --user u --owner-env ZPDF_TEST_UNSET" + o, 2,
         "the variable ZPDF_TEST_UNSET is not set"},
        {"protect plain.pdf --user u --owner o --allow print,copy" + o, 2,
         "--allow: unknown permission in print,copy"},
        {"protect plain.pdf --user-file none.txt --owner o" + o, 1,
         "none.txt: cannot read the password file"},
        {"decrypt plain.pdf --password p --key k --cert c" + o, 2, "give one"},
        {"stamp ours.pdf plain.pdf" + ann, 2, "drop its certificate security"},
        {"replace plain.pdf 1 ours.pdf --source-cert ann-cert.pem --source-password x" + o, 2,
         "--source-key and --source-cert go together"},
        {"append plain.pdf ours.pdf --key ann-key.pem" + o, 2, "--key and --cert go together"},
        {"append plain.pdf ours.pdf" + ann + " --password x" + o, 2,
         "--password and --key open different kinds of files"},
    };
    const std::pair<std::string, std::string> wrong_keys[] = {
        {"ours.pdf" + Holder("cy"), "cy-cert.pem: is not one of the document's recipients"},
        {"ours.pdf --key cy-key.pem --cert ann-cert.pem",
         "cy-key.pem: is not the private key of the certificate"},
        {"locked.pdf" + ann, "locked.pdf: it is secured with passwords"},
        {"ours.pdf", "opens with --key and --cert"},
    };
    for (const auto& [args, message] : wrong_keys)
        cases.emplace_back("decrypt " + args + o, 1, message);
    for (const auto& [args, exit_code, message] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        EXPECT_TRUE(Contains(result.output, message)) << result.output;
        EXPECT_TRUE(test::FilesStartingWith(".", "out.pdf").empty());
        EXPECT_EQ(test::ReadBytes("ours.pdf"), before);
    }
}

// decrypt writes a plain copy that poppler reads, from files secured with passwords by protect, for
// a recipient by zpdf (each certificate of a bundle, and from a source secured with a password),
// by PDFBox (its RC4 and AES-128 kinds) and by hand in other writers' layout; info and
// render open them with the same key, and report the encryption of the file itself: each branch
// of that report (none, passwords, recipients) once.
TEST_F(EncryptionCli, DecryptOpensEveryKindOfSecurity) {
    for (const char* name : {"ann", "bob", "cy"}) test::MakeCertificate(".", name);
    test::WriteBytes("bundle.pem",
                     test::ReadBytes("ann-cert.pem") + test::ReadBytes("bob-cert.pem"));
    Secure("plain.pdf", "bundle.pem", "ours.pdf");
    for (const std::string bits : {"40", "128", "128-aes"})
        Probe("--encrypt plain.pdf box" + bits + ".pdf " + bits + " cy-cert.pem bob-cert.pem");
    // A certificate file opened with a holder's key is secured anew in place: with passwords,
    // then for another holder, its one recipient.
    Secure("plain.pdf", "ann-cert.pem", "again.pdf");
    ASSERT_EQ(Zpdf("protect again.pdf" + Holder("ann") + " --user u --owner o").exit_code, 0);
    Secure("again.pdf --password u", "ann-cert.pem", "single.pdf");
    Secure("single.pdf" + Holder("ann"), "cy-cert.pem", "");
    test::WriteBytes("packed.pdf", HandMadeCertificateFile("ann-cert.pem"));
    const std::string bob = Holder("bob");
    // Each source, how it opens, and the encryption info reports of it.
    const std::tuple<std::string, std::string, std::string> sources[] = {
        {"again.pdf", " --password u", "AES-256 (Standard, V5, R6)"},
        {"plain.pdf", "", "none"},
        {"ours.pdf", bob, "AES-256 (Adobe.PubSec, V5, 2 recipient(s))"},
        {"single.pdf", Holder("cy"), "AES-256 (Adobe.PubSec, V5, 1 recipient(s))"},
        {"box40.pdf", bob, "RC4-40 (Adobe.PubSec, V1, 2 recipient(s))"},
        {"box128.pdf", bob, "RC4-128 (Adobe.PubSec, V2, 2 recipient(s))"},
        {"box128-aes.pdf", bob, "AES-128 (Adobe.PubSec, V4, 2 recipient(s))"},
        {"packed.pdf", Holder("ann"), "AES-256 (Adobe.PubSec, V5, 1 recipient(s))"},  // the last
    };
    for (const auto& [source, opener, encryption] : sources) {
        SCOPED_TRACE(source + opener);
        stdfs::remove("copy.pdf");
        const auto result = Zpdf("decrypt " + source + opener + " -o copy.pdf");
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_TRUE(Contains(test::PdfToText("copy.pdf"), "secret words"));
        const std::string info = Zpdf("info " + source + opener).output;
        EXPECT_TRUE(Contains(info, "\nencryption: " + encryption + "\npages: 1\n")) << info;
    }
    // The hand-made file's strings were encrypted with their object stream, not one by one; its
    // metadata was in clear.
    EXPECT_TRUE(Contains(test::Run("qpdf --show-object=1 copy.pdf").output, "(en-GB)"));
    EXPECT_TRUE(Contains(test::Run("qpdf --show-object=7 --raw-stream-data copy.pdf").output,
                         "<x:xmpmeta>described in clear</x:xmpmeta>"));
    EXPECT_TRUE(Contains(Zpdf("info --json again.pdf --password u").output,
                         "\"encryption\": {\"filter\": \"Standard\", \"method\": \"AES-256\", "
                         "\"version\": 5, \"revision\": 6}"));
    EXPECT_TRUE(Contains(Zpdf("info --json single.pdf" + Holder("cy")).output,
                         "\"encryption\": {\"filter\": \"Adobe.PubSec\", \"method\": "
                         "\"AES-256\", \"version\": 5, \"recipients\": 1}"));
    const auto drawn = Zpdf("render ours.pdf 1 p.png --dpi 36" + bob);
    EXPECT_EQ(drawn.exit_code, 0) << drawn.output;
    EXPECT_EQ(test::ReadBytes("p.png").substr(1, 3), "PNG");
}

// Every command that reads a file secured for certificate holders opens it with a holder's key
// and certificate, whether it is the file edited (to -o only), a letterhead or a source of
// pages; the result is written plain, with the pages of both files, page by page.
TEST_F(EncryptionCli, EditingCommandsReadCertificateFilesWithAKey) {
    test::MakeCertificate(".", "ann");
    test::TextPdf("extra.pdf", {"E1 @@nd@@", "E2", "E3"});
    Secure("plain.pdf", "ann-cert.pem", "main.pdf");
    Secure("extra.pdf", "ann-cert.pem", "source.pdf");
    const std::string before = test::ReadBytes("main.pdf") + test::ReadBytes("source.pdf");
    const std::string ann = Holder("ann"), lh = Holder("ann", "letterhead-");
    // Each command writes out.pdf, or split its first part out_1.
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"stamp plain.pdf source.pdf --letterhead-page 3 --at 0,-400" + lh, {"secret wordsE3"}},
        {"stamp main.pdf" + ann + " extra.pdf --at 0,-400", {"secret wordsE1 @@nd@@"}},
        {"append plain.pdf source.pdf --pages 2" + ann + " source.pdf" + ann + " --pages 3",
         {"secret words", "E2", "E3"}},
        {"append main.pdf" + ann + " extra.pdf --pages 1", {"secret words", "E1 @@nd@@"}},
        {"replace plain.pdf 1 source.pdf --pages 2" + Holder("ann", "source-"), {"E2"}},
        {"split source.pdf --pages z,1,2" + ann, {"E3", "E1 @@nd@@"}},
    };
    for (const auto& [args, pages] : cases) {
        SCOPED_TRACE(args);
        const bool split = args.rfind("split", 0) == 0;
        const std::string result = split ? "out_1" : "out.pdf";
        stdfs::remove(result);
        const auto run = Zpdf(args + (split ? " out" : " -o out.pdf"));
        ASSERT_EQ(run.exit_code, 0) << run.output;
        EXPECT_EQ(test::PdfPageTexts(result), pages);
    }
    // The secured inputs are as they were.
    EXPECT_EQ(test::ReadBytes("main.pdf") + test::ReadBytes("source.pdf"), before);
}

}  // namespace
}  // namespace zpdf
