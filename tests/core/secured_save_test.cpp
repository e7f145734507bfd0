// The secured saves, checked by readers we did not write: qpdf for the password save, PDFBox
// (through tests/java/PubKeyProbe.java) for the certificate save.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "core/open_object.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests

// Documents encrypted by qpdf (passwords "user" and "owner") in the ways a print job's files
// come: AES-256, AES-128 with object streams, linearized RC4 under a 1.4 header with restricted
// permissions. The long one goes out whole only if the writer lets go of the objects already
// written and reads those of object streams again when they are next needed.
const char* const kAes256 = "--encrypt user owner 256 --";
const char* const kObjStm128 = "--object-streams=generate --encrypt user owner 128 --use-aes=y --";
const char* const kRestricted =
    "--allow-weak-crypto --min-version=1.4 --force-version=1.4 --linearize "
    "--encrypt user owner 128 --use-aes=n --print=low --modify=none --extract=n --";
const char* const kLongObjStm = "--object-streams=generate --encrypt user owner 256 --";
constexpr int kLong = 1200;

// The source made by qpdf `options` from a document of `pages` pages reading "Sheet <n> end".
Path MakeSource(const Path& dir, const char* options, int pages = 2) {
    const Path plain = dir / ("plain-" + std::to_string(pages) + ".pdf");
    std::vector<std::string> texts;
    for (int i = 1; i <= pages; ++i) texts.push_back("Sheet " + std::to_string(i) + " end");
    if (!stdfs::exists(plain)) TextPdf(plain, texts);
    const Path out = dir / "source.pdf";
    const auto made =
        test::Run("qpdf " + std::string(options) + " " + Quote(plain) + " " + Quote(out));
    if (made.exit_code != 0 && made.exit_code != 3) ADD_FAILURE() << made.output;
    return out;
}
// The texts of the first, a middle and the last page are all in `text`.
void ExpectPages(const std::string& text, int pages) {
    for (int page : {1, pages / 2, pages})
        EXPECT_NE(text.find("Sheet " + std::to_string(page) + " end"), std::string::npos) << page;
}

// The text between `from` and the next `to`; empty when `from` is not there.
std::string Between(const std::string& text, const std::string& from, const std::string& to) {
    const auto start = text.find(from), begin = start + from.size();
    return start == std::string::npos ? "" : text.substr(begin, text.find(to, begin) - begin);
}
bool OpensAs(const Path& file, const std::string& password, const std::string& role) {
    return ShowEncryption(file, password).find("Supplied password is " + role + " password") !=
           std::string::npos;
}

// Sources secured with passwords as the interface hands them over: null is the empty password;
// other texts arrive as their narrow bytes (UTF-8 here), cut at 127 bytes as revision 6 does. The
// result keeps the source's permissions under a 1.7 header, and its old passwords open nothing;
// secured again, by an object that keeps the password it was given, it stays so, and opens again.
TEST(SecuredSaveTest, PasswordSaveIsReadByQpdf) {
    const Path dir = ScratchDir();
    const std::string long_password(200, 'p');
    const struct Case {
        const char* source;
        OptionalText user, owner;
        std::string opens_as_user, opens_as_owner;
    } cases[] = {
        {kAes256, u"new user", u"new owner", "new user", "new owner"},
        {kObjStm128, std::nullopt, u"boss", "", "boss"},
        {kRestricted, u"reader", std::nullopt, "reader", ""},
        {kAes256, u"gr\u00fc\u00dfe \u20ac", u"b\u00f6ss",
         "gr\xC3\xBC\xC3\x9F"
         "e \xE2\x82\xAC",
         "b\xC3\xB6ss"},
        {kAes256, FromAnsi(long_password), u"boss", long_password, "boss"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.source + (" as " + c.opens_as_user));
        const Path file = MakeSource(dir, c.source);
        const std::string source_p = Between(ShowEncryption(file, "user"), "P = ", "\n");
        Obj object;
        for (const OptionalText& password : {OptionalText(u"user"), c.user}) {
            OpenQuietly(object, file, password);
            ASSERT_EQ(object.SaveWithSecurity(c.user, c.owner), hr::kOk) << object.LastErrorText();
        }
        EXPECT_EQ(Pages(object), 2);

        EXPECT_EQ(ReadBytes(file).substr(0, 9), "%PDF-1.7\n");
        const std::string shown = ShowEncryption(file, c.opens_as_owner);
        EXPECT_NE(shown.find("R = 6\nP = " + source_p + "\n"), std::string::npos) << shown;
        EXPECT_TRUE(OpensAs(file, c.opens_as_user, "user"));
        EXPECT_TRUE(OpensAs(file, c.opens_as_owner, "owner"));
        EXPECT_FALSE(OpensAs(file, "user", "user") || OpensAs(file, "owner", "owner"));
    }
}

// What PDFBox, as the holder of <name>-cert.pem in `dir`, prints of `file`.
ToolResult ProbeAs(const Path& file, const Path& dir, const std::string& name) {
    const char* scratch = std::getenv("ZPDF_TEST_TMP");
    const std::string cache =
        scratch != nullptr ? std::string(" -Dpdfbox.fontcache=") + Quote(scratch) : "";
    return test::Run(std::string(ZPDF_JAVA) + " -XX:+UseSerialGC -XX:TieredStopAtLevel=1" + cache +
                     " -cp " + Quote(ZPDF_PROBE_CLASSPATH) + " PubKeyProbe " + Quote(file) + " " +
                     Quote(dir / (name + "-cert.pem")) + " " + Quote(dir / (name + "-key.pem")) +
                     " 2>/dev/null");
}
std::string Fact(const ToolResult& probe, const std::string& key) {
    return Between("\n" + probe.output, "\n" + key + ": ", "\n");
}

// Sources secured for two recipients, the second given as a TRUSTED CERTIFICATE block, by an
// object that opens the document itself: the first recipient opens the result with PDFBox and
// finds the encryption dictionary, an envelope for both recipients and every page. Every save
// draws a seed of its own.
TEST(SecuredSaveTest, CertificateSaveIsReadByPdfBox) {
    const Path dir = ScratchDir();
    const OptionalText alice = FromAnsi(MakeCertificate(dir, "Alice"));
    MakeCertificate(dir, "Bob", "rsa:3072");
    const auto trusted = test::Run("openssl x509 -in " + Quote(dir / "Bob-cert.pem") +
                                   " -addtrust emailProtection -trustout");
    ASSERT_NE(trusted.output.find("BEGIN TRUSTED CERTIFICATE"), std::string::npos);
    const std::vector<OptionalText> recipients = {alice, FromAnsi(trusted.output)};
    const std::string kFacts =  // the fixed entries, as the probe prints them first
        "Filter: Adobe.PubSec\nSubFilter: adbe.pkcs7.s5\nV: COSInt{5}\nR: COSInt{131105}\n"
        "P: absent\nLength: absent\nStmF: DefaultCryptFilter\nStrF: DefaultCryptFilter\n"
        "EncryptMetadata: true\nCF keys: [COSName{DefaultCryptFilter}]\nCFM: AESV3\n"
        "CF Length: COSInt{256}\nRecipients: 1\nrecipient infos: 2\n"
        "content cipher: 1.2.840.113549.3.7\n";  // Triple-DES
    std::set<std::string> seeds;
    const std::pair<const char*, int> sources[] = {
        {kAes256, 2}, {kObjStm128, 2}, {kRestricted, 2}, {kLongObjStm, kLong}};
    for (const auto& [options, pages] : sources) {
        SCOPED_TRACE(options);
        const Path file = MakeSource(dir, options, pages);
        Obj object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u"user"), hr::kOk);
        ASSERT_EQ(Quiet([&] { return object.SaveWithPubKeySecurity(&recipients); }), hr::kOk)
            << object.LastErrorText();
        // The source's layout is not carried over: plain objects and a classic table.
        const std::string bytes = ReadBytes(file);
        EXPECT_EQ(bytes.substr(0, 9), "%PDF-1.7\n");
        EXPECT_NE(bytes.find("\nxref\n0 "), std::string::npos);
        for (const char* gone : {"/ObjStm", "/XRef", "/Linearized"})
            EXPECT_EQ(bytes.find(gone), std::string::npos) << gone;

        const ToolResult probe = ProbeAs(file, dir, "Alice");
        EXPECT_EQ(probe.output.substr(0, kFacts.size()), kFacts);
        ExpectPages(probe.output, pages);
        // Strings are encrypted too: the producer of the information dictionary reads back.
        EXPECT_NE(Fact(probe, "Producer").find("Ghostscript"), std::string::npos) << probe.output;
        // 20 seed bytes and the permission bytes, all granted.
        const std::string content = Fact(probe, "envelope content");
        EXPECT_EQ(content.size(), 48u);
        EXPECT_EQ(content.substr(40), "ffffffff");
        EXPECT_TRUE(seeds.insert(content.substr(0, 40)).second) << "a seed drawn before";
    }
}

// Every refused save: the right result and reason, the user's file byte-identical, no side file
// (".doc.pdf.RANDOM.part") left, the document still open when it was. Without a document a save is
// unexpected; of a document never opened the password save writes nothing (like Save), while the
// certificate save opens it first and reports a failing open.
TEST(SecuredSaveTest, RefusalsLeaveTheFileAsItWas) {
    const Path dir = ScratchDir();
    const OptionalText good = FromAnsi(MakeCertificate(dir, "Alice"));
    const OptionalText curve =
        FromAnsi(MakeCertificate(dir, "Curve", "ec -pkeyopt ec_paramgen_curve:prime256v1"));
    using Save = std::function<HResult(Obj&)>;
    const Save password = [](Obj& o) { return o.SaveWithSecurity(u"u", u"o"); };
    const auto to = [](std::vector<OptionalText> list) {
        return Save([list](Obj& o) { return o.SaveWithPubKeySecurity(&list); });
    };
    enum Document { kNone, kSetOnly, kWrongPassword, kPlain, kEncrypted };
    const struct Case {
        Document document;
        Save save;
        HResult expected;
        const char* why;  // found in LastErrorText
    } cases[] = {
        {kNone, password, hr::kUnexpected, "No document"},
        {kSetOnly, password, hr::kOk, ""},
        {kWrongPassword, to({good}), hr::kUnexpected, "Password"},
        {kPlain, to({good}), hr::kFail, "not encrypted"},
        {kEncrypted, to({good, std::nullopt}), hr::kFail, "Recipient 2"},
        {kEncrypted, to({curve}), hr::kFail, "Recipient 1 has an EC key"},
        {kEncrypted, to({}), hr::kInvalidArg, "empty"},
    };
    const Path plain = TextPdf(dir / "plain.pdf", {"Quarterly figures"});
    const Path encrypted = MakeSource(dir, kAes256);
    const Path file = dir / "doc.pdf";
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.document) + " " + c.why);
        stdfs::copy_file(c.document == kPlain ? plain : encrypted, file,
                         stdfs::copy_options::overwrite_existing);
        const std::string before = ReadBytes(file);
        Obj object;
        const OptionalText opens_with = c.document == kWrongPassword ? u"no" : u"user";
        if (c.document != kNone) {
            ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, opens_with), hr::kOk);
        }
        if (c.document >= kPlain) OpenQuietly(object, file, opens_with);
        EXPECT_EQ(Quiet([&] { return c.save(object); }), c.expected);
        EXPECT_NE(object.LastErrorText().find(c.why), std::string::npos) << object.LastErrorText();
        EXPECT_EQ(ReadBytes(file), before);
        EXPECT_EQ(FilesStartingWith(dir, ".doc.pdf").size(), 0u);
        EXPECT_EQ(object.IsDocumentOpen(), c.document >= kPlain);
    }
}

}  // namespace
}  // namespace zpdf
