// zpdf's security commands as a user meets them: files encrypted by protect and
// protect-pubkey are read back by qpdf, poppler and PDFBox, and decrypt opens files that qpdf,
// PDFBox and zpdf itself secured.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using test::Quote;

test::ToolResult Zpdf(const std::string& args) {
    return test::Run(std::string(ZPDF_BINARY) + " " + args + " 2>&1");
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A self-signed certificate and its private key: DIR/NAME-cert.pem and DIR/NAME-key.pem.
void MakeCertificate(const stdfs::path& dir, const std::string& name,
                     const std::string& key = "rsa:2048") {
    ASSERT_EQ(test::Run("openssl req -x509 -newkey " + key + " -nodes -days 2 -subj /CN=" + name +
                        " -keyout " + Quote(dir / (name + "-key.pem")) + " -out " +
                        Quote(dir / (name + "-cert.pem")) + " 2>/dev/null")
                  .exit_code,
              0);
}

test::ToolResult Probe(const std::string& args) {
    const char* scratch = std::getenv("ZPDF_TEST_TMP");
    const std::string cache =
        scratch != nullptr ? std::string(" -Dpdfbox.fontcache=") + Quote(scratch) : "";
    return test::Run(std::string(ZPDF_JAVA) + " -XX:+UseSerialGC -XX:TieredStopAtLevel=1" + cache +
                     " -cp " + Quote(ZPDF_PROBE_CLASSPATH) + " PubKeyProbe " + args +
                     " 2>/dev/null");
}

// What PDFBox, as the holder of NAME's certificate in `dir`, reads of `file`.
test::ToolResult ProbeAs(const stdfs::path& file, const stdfs::path& dir, const std::string& name) {
    return Probe(Quote(file) + " " + Quote(dir / (name + "-cert.pem")) + " " +
                 Quote(dir / (name + "-key.pem")));
}

std::string ShowEncryption(const stdfs::path& file, const std::string& password) {
    return test::Run("qpdf --show-encryption --password=" + Quote(password) + " " + Quote(file))
        .output;
}

std::string Text(const stdfs::path& file, const std::string& password = "") {
    return test::Run("pdftotext -q -upw " + Quote(password) + " " + Quote(file) + " -").output;
}

// The P that qpdf shows for the file.
std::string PValue(const stdfs::path& file, const std::string& password) {
    const std::string shown = ShowEncryption(file, password);
    const std::size_t at = shown.find("\nP = ");
    if (at == std::string::npos) return "none";
    return shown.substr(at + 5, shown.find('\n', at + 1) - at - 5);
}

// ---- A certificate-secured file written by hand, in the layout other writers use: objects in
// an object stream, a cross-reference stream, metadata left in clear when asked ----

std::string Hex(const std::string& bytes) {
    static const char* const kDigits = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

// The output of an openssl command reading `input` (through a file in `dir`); the input file
// is named with -in, or last where the command takes it so (dgst).
std::string OpenSsl(const stdfs::path& dir, const std::string& args, const std::string& input) {
    test::WriteBytes(dir / "ssl-in.bin", input);
    stdfs::remove(dir / "ssl-out.bin");
    const bool input_last = args.rfind("dgst", 0) == 0;
    const std::string in = Quote(dir / "ssl-in.bin");
    EXPECT_EQ(test::Run("openssl " + args + " -out " + Quote(dir / "ssl-out.bin") +
                        (input_last ? " " + in : " -in " + in) + " 2>&1")
                  .exit_code,
              0)
        << args;
    return test::ReadBytes(dir / "ssl-out.bin");
}

// AES-256-CBC with padding under `key`, the initialisation vector in front, as AESV3 stores data.
std::string Aes256(const stdfs::path& dir, const std::string& key, const std::string& data) {
    const std::string iv = "0123456789abcdef";
    return iv + OpenSsl(dir, "enc -aes-256-cbc -K " + Hex(key) + " -iv " + Hex(iv), data);
}

std::string Stream(const std::string& dict, const std::string& data) {
    return "<< " + dict + " /Length " + std::to_string(data.size()) + " >>\nstream\n" + data +
           "\nendstream";
}

// A one-page document secured for the holder of `cert` with AES-256: catalog, page tree and page
// in an encrypted object stream, the content, the information dictionary (an encrypted title)
// and the metadata as objects of their own, found through a cross-reference stream.
std::string HandMadeCertificateFile(const stdfs::path& dir, const stdfs::path& cert,
                                    bool encrypt_metadata) {
    std::string content(20, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 37 + 1);
    const std::string seed = content;
    content += "\xFF\xFF\xFF\xFF";
    const std::string envelope =
        OpenSsl(dir, "cms -encrypt -binary -outform DER -des3 -recip " + Quote(cert), content);
    std::string hashed = seed + envelope;
    if (!encrypt_metadata) hashed += "\xFF\xFF\xFF\xFF";
    const std::string key = OpenSsl(dir, "dgst -sha256 -binary", hashed);
    EXPECT_EQ(key.size(), 32u);

    const std::string objects[] = {
        "<< /Type /Catalog /Pages 2 0 R /Metadata 9 0 R /Lang (en-GB) >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 300 200] /Contents 4 0 R /Resources << "
        "/Font << /F1 << /Type /Font /Subtype /Type1 /BaseFont /Helvetica >> >> >> >>",
    };
    std::string header;
    std::string body;
    for (int i = 0; i < 3; ++i) {
        header += std::to_string(i + 1) + " " + std::to_string(body.size()) + " ";
        body += objects[i] + "\n";
    }
    const std::string metadata = "<x:xmpmeta>described in clear</x:xmpmeta>";
    const std::string bodies[] = {
        "",  // objects 1 to 3 are in the object stream
        "",
        "",
        Stream("", Aes256(dir, key, "BT /F1 18 Tf 20 100 Td (Packed in streams) Tj ET")),
        Stream("/Type /ObjStm /N 3 /First " + std::to_string(header.size()),
               Aes256(dir, key, header + body)),
        "",  // the cross-reference stream, written last
        "<< /Filter /Adobe.PubSec /SubFilter /adbe.pkcs7.s5 /V 5 /R 4 /StmF /DefaultCryptFilter "
        "/StrF /DefaultCryptFilter /CF << /DefaultCryptFilter << /CFM /AESV3 /Length 256 "
        "/EncryptMetadata " +
            std::string(encrypt_metadata ? "true" : "false") + " /Recipients [<" + Hex(envelope) +
            ">] >> >> >>",
        "<< /Title <" + Hex(Aes256(dir, key, "Sealed title")) + "> >>",
        Stream("/Type /Metadata /Subtype /XML",
               encrypt_metadata ? Aes256(dir, key, metadata) : metadata),
    };
    std::string file = "%PDF-1.7\n%\xE2\xE3\xCF\xD3\n";
    long offsets[10] = {};
    for (const int num : {4, 5, 7, 8, 9}) {
        offsets[num] = static_cast<long>(file.size());
        file += std::to_string(num) + " 0 obj\n" + bodies[num - 1] + "\nendobj\n";
    }
    offsets[6] = static_cast<long>(file.size());  // the cross-reference stream goes last
    std::string table;
    const auto entry = [&table](int type, long field, int index) {
        table += static_cast<char>(type);
        for (int shift = 24; shift >= 0; shift -= 8) table += static_cast<char>(field >> shift);
        table += static_cast<char>(index >> 8);
        table += static_cast<char>(index & 0xFF);
    };
    entry(0, 0, 0xFFFF);
    for (int i = 0; i < 3; ++i) entry(2, 5, i);
    for (int num = 4; num <= 9; ++num) entry(1, offsets[num], 0);
    file += "6 0 obj\n" +
            Stream(
                "/Type /XRef /Size 10 /W [1 4 2] /Root 1 0 R /Info 8 0 R /Encrypt 7 0 R "
                "/ID [<00112233445566778899AABBCCDDEEFF> <00112233445566778899AABBCCDDEEFF>]",
                table) +
            "\nendobj\nstartxref\n" + std::to_string(offsets[6]) + "\n%%EOF\n";
    return file;
}

struct Fixture {
    stdfs::path dir = test::ScratchDir();
    stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"secret words"});
};

// protect on plain and encrypted sources: revision 6 under the chosen passwords (from the
// command line, a file or the environment), the permissions as asked, every page readable by
// qpdf, poppler and PDFBox.
TEST(EncryptionCli, ProtectWritesPasswordsAndPermissions) {
    const Fixture f;
    const stdfs::path locked = test::QpdfEncrypt(f.plain, f.dir / "locked.pdf", "old", "oldo", 256);
    const stdfs::path limited = f.dir / "limited.pdf";
    ASSERT_EQ(test::Run("qpdf --encrypt u o 256 --extract=n --modify=none -- " + Quote(f.plain) +
                        " " + Quote(limited))
                  .exit_code,
              0);
    test::WriteBytes(f.dir / "user.txt", "from file\r\nsecond line\n");
    ASSERT_EQ(setenv("ZPDF_TEST_OWNER", "from env", 1), 0);
    const std::string user_file = " --user-file " + Quote(f.dir / "user.txt");
    struct Case {
        std::string args;
        std::string user;
        std::string owner;
        std::string p;  // the P qpdf shows
    };
    const Case cases[] = {
        {Quote(f.plain) + " --user u --owner o", "u", "o", "-4"},
        {Quote(f.plain) + " --user u --owner o --deny modify,extract", "u", "o", "-28"},
        {Quote(f.plain) + " --user u --owner o --allow print,extract", "u", "o", "-1836"},
        {Quote(f.plain) + " --user u --owner o --allow all --deny print", "u", "o", "-2056"},
        {Quote(f.plain) + " --empty-user --owner o --deny annotate,form,assemble,accessibility", "",
         "o", "-1828"},
        {Quote(locked) + " --password old" + user_file + " --owner-env ZPDF_TEST_OWNER",
         "from file", "from env", "-4"},
        {Quote(limited) + " --password o --user n --owner p", "n", "p", PValue(limited, "u")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        const stdfs::path out = f.dir / "out.pdf";
        const auto result = Zpdf("protect " + c.args + " -o " + Quote(out));
        ASSERT_EQ(result.exit_code, 0) << result.output;
        const std::string as_user = ShowEncryption(out, c.user);
        EXPECT_TRUE(Contains(as_user, "R = 6\nP = " + c.p + "\n")) << as_user;
        EXPECT_TRUE(Contains(as_user, "Supplied password is user password")) << as_user;
        EXPECT_TRUE(Contains(ShowEncryption(out, c.owner), "Supplied password is owner password"));
        EXPECT_EQ(
            test::Run("qpdf --check --password=" + Quote(c.owner) + " " + Quote(out)).exit_code, 0);
        EXPECT_TRUE(Contains(Text(out, c.user), "secret words"));
        const auto read = Probe("--password " + Quote(out) + " " + Quote(c.user));
        EXPECT_EQ(read.exit_code, 0) << read.output;
        EXPECT_TRUE(Contains(read.output, "R: 6\nP: " + c.p + "\n")) << read.output;
        EXPECT_TRUE(Contains(read.output, "secret words")) << read.output;
    }
}

// Usage errors exit 2 and failures 1, with the reason; nothing is written.
TEST(EncryptionCli, SecurityCommandsRefuseWhatTheyCannotDo) {
    const Fixture f;
    MakeCertificate(f.dir, "ann");
    MakeCertificate(f.dir, "ed", "ed25519");
    MakeCertificate(f.dir, "eve", "ec -pkeyopt ec_paramgen_curve:P-256");
    test::WriteBytes(f.dir / "bundle.pem", test::ReadBytes(f.dir / "ann-cert.pem") +
                                               test::ReadBytes(f.dir / "eve-cert.pem"));
    const std::string plain = Quote(f.plain), out = " -o " + Quote(f.dir / "out.pdf");
    unsetenv("ZPDF_TEST_UNSET");
    const std::vector<std::tuple<std::string, int, std::string>> cases = {
        {"protect " + plain + " --owner o", 2, "the user password is empty"},
        {"protect " + plain + " --user u --owner ''", 2, "the owner password is empty"},
        {"protect " + plain + " --user u --user-env HOME --owner o", 2,
         "give the user password one way only"},
        {"protect " + plain + " --user u --owner-env ZPDF_TEST_UNSET", 2,
         "the variable ZPDF_TEST_UNSET is not set"},
        {"protect " + plain + " --user u --owner o --allow print,copy", 2,
         "--allow: unknown permission in print,copy"},
        {"protect " + plain + " --user-file " + Quote(f.dir / "none.txt") + " --owner o", 1,
         "none.txt: cannot read the password file"},
        {"decrypt " + plain + " --key " + Quote(f.dir / "ann-key.pem"), 2,
         "--key and --cert go together"},
        {"decrypt " + plain + " --password p --key k --cert c", 2, "give one"},
        {"protect-pubkey " + plain + " " + Quote(f.dir / "bundle.pem"), 1,
         "bundle.pem: certificate 2 of 2 has an EC key; only certificates with RSA keys"},
        {"protect-pubkey " + plain + " " + Quote(f.dir / "ann-cert.pem") + " " +
             Quote(f.dir / "ed-cert.pem"),
         1, "ed-cert.pem: has an Ed25519 key"},
    };
    for (const auto& [args, exit_code, message] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args + out);
        EXPECT_EQ(result.exit_code, exit_code) << result.output;
        EXPECT_TRUE(Contains(result.output, message)) << result.output;
        EXPECT_TRUE(test::FilesStartingWith(f.dir, "out.pdf").empty());
    }
}

// decrypt writes a plain copy that qpdf checks and poppler reads, from files secured with
// passwords by qpdf, for a recipient by zpdf (each certificate of a bundle) and by PDFBox (its
// RC4, AES-128 and AES-256 kinds); info and render open them with the same key.
TEST(EncryptionCli, DecryptOpensEveryKindOfSecurity) {
    const Fixture f;
    for (const char* name : {"ann", "bob", "cy"}) MakeCertificate(f.dir, name);
    test::WriteBytes(f.dir / "bundle.pem", test::ReadBytes(f.dir / "ann-cert.pem") +
                                               test::ReadBytes(f.dir / "bob-cert.pem"));
    const stdfs::path ours = f.dir / "ours.pdf";
    ASSERT_EQ(Zpdf("protect-pubkey " + Quote(f.plain) + " " + Quote(f.dir / "bundle.pem") + " -o " +
                   Quote(ours))
                  .exit_code,
              0);
    for (const char* name : {"ann", "bob"}) {
        const auto read = ProbeAs(ours, f.dir, name);
        EXPECT_EQ(read.exit_code, 0) << name << read.output;
        EXPECT_TRUE(Contains(read.output, "recipient infos: 2")) << read.output;
        EXPECT_TRUE(Contains(read.output, "secret words")) << read.output;
    }
    EXPECT_EQ(ProbeAs(ours, f.dir, "cy").exit_code, 3);
    for (const std::string bits : {"40", "128", "128-aes", "256"}) {
        const auto made = Probe("--encrypt " + Quote(f.plain) + " " +
                                Quote(f.dir / ("box" + bits + ".pdf")) + " " + bits + " " +
                                Quote(f.dir / "cy-cert.pem") + " " + Quote(f.dir / "bob-cert.pem"));
        ASSERT_EQ(made.exit_code, 0) << made.output;
    }
    const std::string bob =
        " --key " + Quote(f.dir / "bob-key.pem") + " --cert " + Quote(f.dir / "bob-cert.pem");
    const std::string ann =
        " --key " + Quote(f.dir / "ann-key.pem") + " --cert " + Quote(f.dir / "ann-cert.pem");
    const stdfs::path single = f.dir / "single.pdf";
    ASSERT_EQ(Zpdf("protect-pubkey " + Quote(f.plain) + " " + Quote(f.dir / "cy-cert.pem") +
                   " -o " + Quote(single))
                  .exit_code,
              0);
    const std::string cy =
        " --key " + Quote(f.dir / "cy-key.pem") + " --cert " + Quote(f.dir / "cy-cert.pem");
    // Each source, how it opens, and the encryption info reports of it: a holder's key opens a
    // plain copy, but the method and the recipients are those of the file itself.
    struct Source {
        stdfs::path file;
        std::string opener;
        std::string encryption;
    };
    const std::vector<Source> sources = {
        {test::QpdfEncrypt(f.plain, f.dir / "aes256.pdf", "u", "o", 256), " --password u",
         "AES-256 (Standard, V5, R6)"},
        {test::QpdfEncrypt(f.plain, f.dir / "aes128.pdf", "u", "o", 128), " --password o",
         "AES-128 (Standard, V4, R4)"},
        {test::QpdfEncrypt(f.plain, f.dir / "rc4.pdf", "u", "o", 40), " --password u",
         "RC4-40 (Standard, V1, R2)"},
        {f.plain, "", "none"},
        {ours, ann, "AES-256 (Adobe.PubSec, V5, 2 recipient(s))"},
        {ours, bob, "AES-256 (Adobe.PubSec, V5, 2 recipient(s))"},
        {single, cy, "AES-256 (Adobe.PubSec, V5, 1 recipient(s))"},
        {f.dir / "box40.pdf", bob, "RC4-40 (Adobe.PubSec, V1, 2 recipient(s))"},
        {f.dir / "box128.pdf", bob, "RC4-128 (Adobe.PubSec, V2, 2 recipient(s))"},
        {f.dir / "box128-aes.pdf", bob, "AES-128 (Adobe.PubSec, V4, 2 recipient(s))"},
        {f.dir / "box256.pdf", bob, "AES-256 (Adobe.PubSec, V5, 2 recipient(s))"},
    };
    for (const auto& [source, opener, encryption] : sources) {
        SCOPED_TRACE(source.filename().string() + opener);
        const stdfs::path out = f.dir / "plain-copy.pdf";
        const auto result = Zpdf("decrypt " + Quote(source) + opener + " -o " + Quote(out));
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_TRUE(Contains(ShowEncryption(out, ""), "File is not encrypted"));
        EXPECT_EQ(test::Run("qpdf --check " + Quote(out)).exit_code, 0);
        EXPECT_TRUE(Contains(Text(out), "secret words"));
        const std::string info = Zpdf("info " + Quote(source) + opener).output;
        EXPECT_TRUE(Contains(info, "\nencryption: " + encryption + "\npages: 1\n")) << info;
    }
    const auto drawn =
        Zpdf("render " + Quote(ours) + " 1 " + Quote(f.dir / "p.png") + " --dpi 36" + bob);
    EXPECT_EQ(drawn.exit_code, 0) << drawn.output;
    EXPECT_EQ(test::ReadBytes(f.dir / "p.png").substr(1, 3), "PNG");
}

// A key or certificate that does not open the document is named with the reason, by decrypt
// and by a reading command alike; the output is not written.
TEST(EncryptionCli, WrongKeysAreNamed) {
    const Fixture f;
    for (const char* name : {"ann", "cy"}) MakeCertificate(f.dir, name);
    const stdfs::path ours = f.dir / "ours.pdf";
    ASSERT_EQ(Zpdf("protect-pubkey " + Quote(f.plain) + " " + Quote(f.dir / "ann-cert.pem") +
                   " -o " + Quote(ours))
                  .exit_code,
              0);
    const stdfs::path locked = test::QpdfEncrypt(f.plain, f.dir / "locked.pdf", "u", "o", 256);
    const auto key = [&](const std::string& name) { return Quote(f.dir / (name + "-key.pem")); };
    const auto cert = [&](const std::string& name) { return Quote(f.dir / (name + "-cert.pem")); };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {Quote(ours) + " --key " + key("cy") + " --cert " + cert("cy"),
         "cy-cert.pem: is not one of the document's recipients"},
        {Quote(ours) + " --key " + key("cy") + " --cert " + cert("ann"),
         "cy-key.pem: is not the private key of the certificate"},
        {Quote(ours) + " --key " + cert("ann") + " --cert " + cert("ann"),
         "ann-cert.pem: holds no private key"},
        {Quote(ours) + " --key " + key("ann") + " --cert " + key("ann"),
         "ann-key.pem: holds no PEM certificate"},
        {Quote(locked) + " --key " + key("ann") + " --cert " + cert("ann"),
         "locked.pdf: it is secured with passwords"},
        {Quote(f.plain) + " --key " + key("ann") + " --cert " + cert("ann"),
         "plain.pdf: it is not encrypted"},
        {Quote(ours), "opens with --key and --cert"},
    };
    for (const auto& [args, message] : cases) {
        SCOPED_TRACE(args);
        const auto decrypted = Zpdf("decrypt " + args + " -o " + Quote(f.dir / "out.pdf"));
        EXPECT_EQ(decrypted.exit_code, 1) << decrypted.output;
        EXPECT_TRUE(Contains(decrypted.output, "zpdf decrypt: ")) << decrypted.output;
        EXPECT_TRUE(Contains(decrypted.output, message)) << decrypted.output;
        const auto read = Zpdf("info " + args);
        EXPECT_EQ(read.exit_code, 1) << read.output;
        EXPECT_TRUE(Contains(read.output, message)) << read.output;
        EXPECT_TRUE(test::FilesStartingWith(f.dir, "out.pdf").empty());
    }
}

// A file secured for certificate holders, opened with a holder's key, is secured anew in
// place: for other recipients, then with passwords. Only the new holders open it.
TEST(EncryptionCli, CertificateFilesAreSecuredAnewInPlace) {
    const Fixture f;
    for (const char* name : {"ann", "cy"}) MakeCertificate(f.dir, name);
    const stdfs::path file = f.dir / "ours.pdf";
    const auto as = [&](const std::string& name) {
        return " --key " + Quote(f.dir / (name + "-key.pem")) + " --cert " +
               Quote(f.dir / (name + "-cert.pem"));
    };
    ASSERT_EQ(Zpdf("protect-pubkey " + Quote(f.plain) + " " + Quote(f.dir / "ann-cert.pem") +
                   " -o " + Quote(file))
                  .exit_code,
              0);
    const auto moved =
        Zpdf("protect-pubkey " + Quote(file) + " " + Quote(f.dir / "cy-cert.pem") + as("ann"));
    ASSERT_EQ(moved.exit_code, 0) << moved.output;
    EXPECT_TRUE(Contains(Zpdf("info " + Quote(file) + as("ann")).output,
                         "is not one of the document's recipients"));
    EXPECT_TRUE(Contains(ProbeAs(file, f.dir, "cy").output, "secret words"));
    const auto locked = Zpdf("protect " + Quote(file) + as("cy") + " --user u --owner o");
    ASSERT_EQ(locked.exit_code, 0) << locked.output;
    EXPECT_TRUE(Contains(ShowEncryption(file, "u"), "R = 6\n"));
    EXPECT_TRUE(Contains(Text(file, "u"), "secret words"));
    EXPECT_TRUE(test::FilesStartingWith(f.dir, "ours.pdf.").empty());
}

// Files of other writers' layout: objects in an encrypted object stream (their strings are not
// encrypted one by one), a cross-reference stream naming the encryption dictionary, and
// metadata kept in clear when the crypt filter says so (which changes the file key too).
TEST(EncryptionCli, DecryptReadsObjectStreamsAndClearMetadata) {
    const Fixture f;
    MakeCertificate(f.dir, "ann");
    const std::string ann =
        " --key " + Quote(f.dir / "ann-key.pem") + " --cert " + Quote(f.dir / "ann-cert.pem");
    for (const bool encrypt_metadata : {true, false}) {
        SCOPED_TRACE(encrypt_metadata ? "metadata encrypted" : "metadata in clear");
        const stdfs::path file = f.dir / "packed.pdf", out = f.dir / "unpacked.pdf";
        test::WriteBytes(file,
                         HandMadeCertificateFile(f.dir, f.dir / "ann-cert.pem", encrypt_metadata));
        const auto result = Zpdf("decrypt " + Quote(file) + ann + " -o " + Quote(out));
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_EQ(test::Run("qpdf --check " + Quote(out)).exit_code, 0);
        EXPECT_TRUE(Contains(Text(out), "Packed in streams"));
        EXPECT_TRUE(Contains(test::Run("pdfinfo " + Quote(out)).output, "Sealed title"));
        EXPECT_TRUE(Contains(test::Run("qpdf --show-object=1 " + Quote(out)).output, "(en-GB)"));
        EXPECT_TRUE(
            Contains(test::Run("qpdf --show-object=9 --raw-stream-data " + Quote(out)).output,
                     "<x:xmpmeta>described in clear</x:xmpmeta>"));
    }
}

// Every command that reads a file secured for certificate holders opens it with a holder's key
// and certificate, whether it is the file edited (to -o only), a letterhead or a source of
// pages; the result is written plain, with the pages of both files.
TEST(EncryptionCli, EditingCommandsReadCertificateFilesWithAKey) {
    const Fixture f;
    MakeCertificate(f.dir, "ann");
    const stdfs::path extra =
        test::TextPdf(f.dir / "extra.pdf", {"extra one @@nd@@", "extra two", "extra three"});
    const stdfs::path main = f.dir / "main.pdf", source = f.dir / "source.pdf";
    for (const auto& [from, to] : {std::pair{f.plain, main}, std::pair{extra, source}}) {
        ASSERT_EQ(Zpdf("protect-pubkey " + Quote(from) + " " + Quote(f.dir / "ann-cert.pem") +
                       " -o " + Quote(to))
                      .exit_code,
                  0);
    }
    const std::string key = Quote(f.dir / "ann-key.pem"), cert = Quote(f.dir / "ann-cert.pem");
    const auto as = [&](const std::string& prefix) {
        return " --" + prefix + "key " + key + " --" + prefix + "cert " + cert;
    };
    const std::string main_before = test::ReadBytes(main), source_before = test::ReadBytes(source);
    const stdfs::path out = f.dir / "out.pdf";
    const std::string to_out = " -o " + Quote(out);
    struct Case {
        std::string args;
        stdfs::path result;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    };
    const std::vector<Case> cases = {
        {"stamp " + Quote(f.plain) + " " + Quote(source) + " --at 0,-400" + as("letterhead-") +
             to_out,
         out,
         {"secret words", "extra one"},
         {"extra two"}},
        {"stamp " + Quote(f.plain) + " " + Quote(source) + " --letterhead-page 3 --at 0,-400" +
             as("letterhead-") + to_out,
         out,
         {"secret words", "extra three"},
         {"extra one"}},
        {"stamp " + Quote(main) + as("") + " " + Quote(extra) + " --at 0,-400" + to_out,
         out,
         {"secret words", "extra one"},
         {}},
        {"append " + Quote(f.plain) + " " + Quote(source) + as("") + to_out,
         out,
         {"secret words", "extra one", "extra three"},
         {}},
        {"append " + Quote(f.plain) + " " + Quote(source) + " --pages 2" + as("") + " " +
             Quote(source) + as("") + " --pages 3" + to_out,
         out,
         {"secret words", "extra two", "extra three"},
         {"extra one"}},
        {"append " + Quote(main) + as("") + " " + Quote(extra) + " --pages 1" + to_out,
         out,
         {"secret words", "extra one"},
         {"extra two"}},
        {"replace " + Quote(f.plain) + " 1 " + Quote(source) + " --pages 2" + as("source-") +
             to_out,
         out,
         {"extra two"},
         {"secret words", "extra one"}},
        {"replace " + Quote(main) + as("") + " 1 " + Quote(extra) + " 3 3" + to_out,
         out,
         {"extra three"},
         {"secret words"}},
        {"split " + Quote(source) + as("") + " " + Quote(f.dir / "part"),
         f.dir / "part_2",
         {"extra two", "extra three"},
         {"extra one"}},
        {"split " + Quote(source) + " --pages z,1,2" + as("") + " " + Quote(f.dir / "pick"),
         f.dir / "pick_1",
         {"extra three", "extra one"},
         {"extra two"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        stdfs::remove(c.result);
        const auto result = Zpdf(c.args);
        ASSERT_EQ(result.exit_code, 0) << result.output;
        EXPECT_TRUE(Contains(ShowEncryption(c.result, ""), "File is not encrypted"));
        const std::string text = Text(c.result);
        for (const std::string& words : c.present) EXPECT_TRUE(Contains(text, words)) << text;
        for (const std::string& words : c.absent) EXPECT_FALSE(Contains(text, words)) << text;
    }
    // The secured inputs are as they were.
    EXPECT_EQ(test::ReadBytes(main), main_before);
    EXPECT_EQ(test::ReadBytes(source), source_before);
}

// A certificate-secured FILE is not edited in place, which would leave it without its security,
// and a key goes with a certificate; nothing is written then.
TEST(EncryptionCli, KeysThatCannotBeUsedAreUsageErrors) {
    const Fixture f;
    MakeCertificate(f.dir, "ann");
    const stdfs::path main = f.dir / "main.pdf";
    ASSERT_EQ(Zpdf("protect-pubkey " + Quote(f.plain) + " " + Quote(f.dir / "ann-cert.pem") +
                   " -o " + Quote(main))
                  .exit_code,
              0);
    const std::string before = test::ReadBytes(main);
    const std::string key = " --key " + Quote(f.dir / "ann-key.pem");
    const std::string cert = " --cert " + Quote(f.dir / "ann-cert.pem");
    const std::string out = " -o " + Quote(f.dir / "out.pdf");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"stamp " + Quote(main) + " " + Quote(f.plain) + key + cert,
         "drop its certificate security"},
        {"append " + Quote(main) + key + cert + " " + Quote(f.plain),
         "drop its certificate security"},
        {"replace " + Quote(main) + " 1 " + Quote(f.plain) + key + cert,
         "drop its certificate security"},
        {"stamp " + Quote(f.plain) + " " + Quote(main) + " --letterhead-key " +
             Quote(f.dir / "ann-key.pem") + out,
         "--letterhead-key and --letterhead-cert go together"},
        {"replace " + Quote(f.plain) + " 1 " + Quote(main) + " --source-cert " +
             Quote(f.dir / "ann-cert.pem") + " --source-password x" + out,
         "--source-key and --source-cert go together"},
        {"append " + Quote(f.plain) + " " + Quote(main) + key + out,
         "--key and --cert go together"},
        {"append " + Quote(f.plain) + " " + Quote(main) + key + cert + " --password x" + out,
         "--password and --key open different kinds of files"},
        {"split " + Quote(main) + cert + " " + Quote(f.dir / "part"),
         "--key and --cert go together"},
    };
    for (const auto& [args, message] : cases) {
        SCOPED_TRACE(args);
        const auto result = Zpdf(args);
        EXPECT_EQ(result.exit_code, 2) << result.output;
        EXPECT_TRUE(Contains(result.output, message)) << result.output;
        EXPECT_TRUE(test::FilesStartingWith(f.dir, "out.pdf").empty());
        EXPECT_TRUE(test::FilesStartingWith(f.dir, "part").empty());
        EXPECT_EQ(test::ReadBytes(main), before);
    }
}

}  // namespace
}  // namespace zpdf
