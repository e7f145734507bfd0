// The secured saves, checked by readers we did not write: qpdf and poppler for the password
// save, PDFBox (through tests/java/PubKeyProbe.java) for the certificate save.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "content_object/content_object.h"
#include "platform/files.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

const char* const kPages[] = {"Quarterly figures", "Second sheet"};

stdfs::path SidePath(const stdfs::path& file) {
    return stdfs::path(file.string() + ".part");
}

// Documents encrypted by qpdf in the ways a print job's files come: AES-256, AES-128 with
// object streams, linearized RC4 under a 1.4 header, and restricted permissions.
struct Source {
    std::string name;
    std::string qpdf_options;  // between "qpdf" and the input file
};
const Source kSources[] = {
    {"aes256", "--encrypt user owner 256 --"},
    {"aes128-objstm", "--object-streams=generate --encrypt user owner 128 --use-aes=y --"},
    {"rc4-linearized-restricted",
     "--allow-weak-crypto --min-version=1.4 --force-version=1.4 --linearize "
     "--encrypt user owner 128 --use-aes=n --print=low --modify=none --extract=n --"},
};

stdfs::path MakeSource(const stdfs::path& dir, const Source& source) {
    const stdfs::path plain = dir / "plain.pdf";
    if (!stdfs::exists(plain)) test::TextPdf(plain, {kPages[0], kPages[1]});
    const stdfs::path out = dir / (source.name + ".pdf");
    const auto made = test::Run("qpdf " + source.qpdf_options + " " + test::Quote(plain) + " " +
                                test::Quote(out));
    if (made.exit_code != 0 && made.exit_code != 3) ADD_FAILURE() << made.output;
    return out;
}

// An object holding `file`, opened with `password` (the engine opens documents lazily).
void Open(CZPdfContentObject& object, const stdfs::path& file, const OptionalText& password) {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, password), hr::kOk);
    ::testing::internal::CaptureStderr();
    std::int32_t pages = 0;
    const HResult opened = object.PageCount(&pages);
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(opened, hr::kOk) << object.LastErrorText();
}

std::string Between(const std::string& text, const std::string& from, const std::string& to) {
    const auto start = text.find(from);
    if (start == std::string::npos) return {};
    const auto end = text.find(to, start + from.size());
    return text.substr(start + from.size(),
                       end == std::string::npos ? std::string::npos : end - start - from.size());
}

std::string ShowEncryption(const stdfs::path& file, const std::string& password) {
    return test::Run("qpdf --show-encryption --password=" + test::Quote(password) + " " +
                     test::Quote(file))
        .output;
}

// The encryption dictionary as qpdf prints it (followed when the trailer refers to it).
std::string EncryptDictionary(const stdfs::path& file, const std::string& password) {
    const std::string pw = " --password=" + test::Quote(password) + " ";
    std::string trailer = test::Run("qpdf --show-object=trailer" + pw + test::Quote(file)).output;
    const std::string reference = Between(trailer, "/Encrypt ", " R");
    if (!reference.empty() && reference.find("<<") == std::string::npos) {
        const std::string number = reference.substr(0, reference.find(' '));
        return test::Run("qpdf --show-object=" + number + pw + test::Quote(file)).output;
    }
    return trailer;
}

// ---- Certificate recipients and the PDFBox probe ----

struct Recipient {
    stdfs::path certificate;
    stdfs::path key;
};

Recipient MakeRecipient(const stdfs::path& dir, const std::string& name,
                        const std::string& key_options = "-newkey rsa:2048") {
    Recipient r{dir / (name + "-cert.pem"), dir / (name + "-key.pem")};
    const auto made =
        test::Run("openssl req -x509 " + key_options + " -nodes -days 2 -subj '/CN=" + name +
                  "' -keyout " + test::Quote(r.key) + " -out " + test::Quote(r.certificate));
    EXPECT_EQ(made.exit_code, 0) << made.output;
    return r;
}

OptionalText PemOf(const stdfs::path& file) {
    return FromAnsi(test::ReadBytes(file));
}

struct Probe {
    int exit_code = -1;
    std::map<std::string, std::string> facts;  // "key: value" lines
    std::string text;                          // after "text:"
    std::string output;

    std::string Fact(const std::string& key) const {
        const auto found = facts.find(key);
        return found == facts.end() ? "missing" : found->second;
    }
};

Probe ProbeAs(const stdfs::path& file, const Recipient& recipient) {
    const char* scratch = std::getenv("ZPDF_TEST_TMP");
    const std::string cache =
        scratch != nullptr ? std::string(" -Dpdfbox.fontcache=") + test::Quote(scratch) : "";
    const auto run = test::Run(
        std::string(ZPDF_JAVA) + " -XX:+UseSerialGC -XX:TieredStopAtLevel=1" + cache + " -cp " +
        test::Quote(ZPDF_PROBE_CLASSPATH) + " PubKeyProbe " + test::Quote(file) + " " +
        test::Quote(recipient.certificate) + " " + test::Quote(recipient.key) + " 2>/dev/null");
    Probe probe;
    probe.exit_code = run.exit_code;
    probe.output = run.output;
    std::istringstream lines(run.output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line == "text:") {
            std::ostringstream rest;
            rest << lines.rdbuf();
            probe.text = rest.str();
            break;
        }
        const auto colon = line.find(": ");
        if (colon != std::string::npos) probe.facts[line.substr(0, colon)] = line.substr(colon + 2);
    }
    return probe;
}

class SecuredSaveTest : public ::testing::Test {
  protected:
    void TearDown() override { fs::SetFaultHook(nullptr); }
};

// ---- Password security ----

TEST_F(SecuredSaveTest, PasswordSaveIsReadByQpdfAndPoppler) {
    const stdfs::path dir = test::ScratchDir();
    for (const Source& source : kSources) {
        SCOPED_TRACE(source.name);
        const stdfs::path file = MakeSource(dir, source);
        const std::string source_p = Between(ShowEncryption(file, "user"), "P = ", "\n");
        ASSERT_FALSE(source_p.empty());

        CZPdfContentObject object;
        Open(object, file, u"user");
        ASSERT_EQ(object.SaveWithSecurity(u"new user", u"new owner"), hr::kOk)
            << object.LastErrorText();
        EXPECT_FALSE(object.IsDocumentOpen());
        EXPECT_FALSE(stdfs::exists(SidePath(file)));

        EXPECT_EQ(test::ReadBytes(file).substr(0, 9), "%PDF-1.7\n");
        const std::string as_user = ShowEncryption(file, "new user");
        EXPECT_NE(as_user.find("R = 6\n"), std::string::npos) << as_user;
        EXPECT_NE(as_user.find("P = " + source_p + "\n"), std::string::npos) << as_user;
        EXPECT_NE(as_user.find("Supplied password is user password"), std::string::npos);
        for (const char* method : {"stream", "string", "file"}) {
            EXPECT_NE(as_user.find(std::string(method) + " encryption method: AESv3"),
                      std::string::npos)
                << as_user;
        }
        EXPECT_NE(ShowEncryption(file, "new owner").find("Supplied password is owner password"),
                  std::string::npos);
        for (const char* wrong : {"user", "owner", "", "new"}) {
            const auto refused = test::Run("qpdf --check --password=" + test::Quote(wrong) + " " +
                                           test::Quote(file));
            EXPECT_EQ(refused.exit_code, 2) << wrong;
            EXPECT_NE(refused.output.find("invalid password"), std::string::npos) << wrong;
        }
        const std::string dict = EncryptDictionary(file, "new user");
        for (const char* entry :
             {"/Filter /Standard", "/V 5", "/R 6", "/Length 256", "/StmF /StdCF", "/StrF /StdCF",
              "/CFM /AESV3", "/EncryptMetadata true", "/OE <", "/UE <", "/Perms <"}) {
            EXPECT_NE(dict.find(entry), std::string::npos) << entry << " in " << dict;
        }
        EXPECT_EQ(test::Run("qpdf --check --password='new owner' " + test::Quote(file)).exit_code,
                  0);
        const std::string text =
            test::Run("pdftotext -q -upw 'new user' " + test::Quote(file) + " -").output;
        for (const char* page : kPages) EXPECT_NE(text.find(page), std::string::npos) << text;
    }
}

// Passwords as the interface hands them over: null and empty are the same empty password;
// other texts arrive as their narrow bytes (UTF-8 here), cut at 127 bytes as revision 6 does.
TEST_F(SecuredSaveTest, PasswordTexts) {
    const stdfs::path dir = test::ScratchDir();
    const std::string long_password(200, 'p');
    const struct Case {
        const char* name;
        OptionalText user;
        OptionalText owner;
        std::string opens_as_user;
        std::string opens_as_owner;
    } cases[] = {
        {"both null", std::nullopt, std::nullopt, "", ""},
        {"both empty", u"", u"", "", ""},
        {"empty user", u"", u"boss", "", "boss"},
        {"null owner", u"reader", std::nullopt, "reader", ""},
        {"non-ASCII", u"gr\u00fc\u00dfe \u20ac", u"b\u00f6ss",
         "gr\xC3\xBC\xC3\x9F"
         "e \xE2\x82\xAC",
         "b\xC3\xB6ss"},
        {"longer than 127 bytes", FromAnsi(long_password), u"boss", long_password, "boss"},
    };
    const stdfs::path source = MakeSource(dir, kSources[0]);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path file = dir / "doc.pdf";
        stdfs::copy_file(source, file, stdfs::copy_options::overwrite_existing);
        CZPdfContentObject object;
        Open(object, file, u"user");
        ASSERT_EQ(object.SaveWithSecurity(c.user, c.owner), hr::kOk) << object.LastErrorText();
        EXPECT_NE(ShowEncryption(file, c.opens_as_user).find("Supplied password is user password"),
                  std::string::npos);
        EXPECT_NE(
            ShowEncryption(file, c.opens_as_owner).find("Supplied password is owner password"),
            std::string::npos);
        EXPECT_NE(EncryptDictionary(file, c.opens_as_user).find("/R 6"), std::string::npos);
    }
}

// A second secured save of a result re-secures it again; the first passwords stop working.
TEST_F(SecuredSaveTest, SecondPasswordSaveOfTheResult) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path file = MakeSource(dir, kSources[2]);
    const std::string source_p = Between(ShowEncryption(file, "user"), "P = ", "\n");
    for (const char16_t* round : {u"first", u"second"}) {
        const std::string password = Utf16ToUtf8(round);
        SCOPED_TRACE(password);
        CZPdfContentObject object;
        Open(object, file, std::u16string(round) == u"first" ? u"user" : u"first");
        ASSERT_EQ(object.SaveWithSecurity(round, u"owner-" + std::u16string(round)), hr::kOk)
            << object.LastErrorText();
        const std::string shown = ShowEncryption(file, password);
        EXPECT_NE(shown.find("Supplied password is user password"), std::string::npos) << shown;
        EXPECT_NE(shown.find("P = " + source_p + "\n"), std::string::npos) << shown;
        EXPECT_EQ(
            test::Run("qpdf --check --password=" + password + " " + test::Quote(file)).exit_code,
            0);
    }
    EXPECT_EQ(test::Run("qpdf --check --password=first " + test::Quote(file)).exit_code, 2);

    // The object keeps the password it was given: reopened with it, it opens the new file.
    CZPdfContentObject object;
    Open(object, file, u"second");
    ASSERT_EQ(object.SaveWithSecurity(u"second", u"owner"), hr::kOk);
    std::int32_t pages = 0;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(object.PageCount(&pages), hr::kOk) << object.LastErrorText();
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(pages, 2);
}

// ---- Public-key security ----

TEST_F(SecuredSaveTest, CertificateSaveOpensForEachRecipientOnly) {
    const stdfs::path dir = test::ScratchDir();
    const Recipient alice = MakeRecipient(dir, "Alice");
    const Recipient bob = MakeRecipient(dir, "Bob", "-newkey rsa:3072");
    const Recipient eve = MakeRecipient(dir, "Eve");
    // Bob's certificate arrives as a TRUSTED CERTIFICATE block.
    const stdfs::path bob_trusted = dir / "Bob-trusted.pem";
    ASSERT_EQ(test::Run("openssl x509 -in " + test::Quote(bob.certificate) +
                        " -addtrust emailProtection -trustout -out " + test::Quote(bob_trusted))
                  .exit_code,
              0);
    ASSERT_NE(test::ReadBytes(bob_trusted).find("BEGIN TRUSTED CERTIFICATE"), std::string::npos);
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate), PemOf(bob_trusted)};

    for (const Source& source : kSources) {
        SCOPED_TRACE(source.name);
        const stdfs::path file = MakeSource(dir, source);
        CZPdfContentObject object;
        Open(object, file, u"user");
        ASSERT_EQ(object.SaveWithPubKeySecurity(&recipients), hr::kOk) << object.LastErrorText();
        EXPECT_FALSE(object.IsDocumentOpen());
        EXPECT_FALSE(stdfs::exists(SidePath(file)));

        const std::string bytes = test::ReadBytes(file);
        EXPECT_EQ(bytes.substr(0, 9), "%PDF-1.7\n");
        // The source's layout is not carried over: plain objects and a classic table.
        EXPECT_EQ(bytes.find("/ObjStm"), std::string::npos);
        EXPECT_EQ(bytes.find("/XRef"), std::string::npos);
        EXPECT_EQ(bytes.find("/Linearized"), std::string::npos);
        EXPECT_NE(bytes.find("\nxref\n0 "), std::string::npos);
        // No text of the pages is readable in the file.
        for (const char* page : kPages) EXPECT_EQ(bytes.find(page), std::string::npos);

        for (const Recipient* who : {&alice, &bob}) {
            const Probe probe = ProbeAs(file, *who);
            ASSERT_EQ(probe.exit_code, 0) << probe.output;
            const std::map<std::string, std::string> expected = {
                {"Filter", "Adobe.PubSec"},
                {"SubFilter", "adbe.pkcs7.s5"},
                {"V", "COSInt{5}"},
                {"R", "COSInt{131105}"},
                {"P", "absent"},
                {"Length", "absent"},
                {"StmF", "DefaultCryptFilter"},
                {"StrF", "DefaultCryptFilter"},
                {"EncryptMetadata", "true"},
                {"CF keys", "[COSName{DefaultCryptFilter}]"},
                {"CFM", "AESV3"},
                {"CF Length", "COSInt{256}"},
                {"Recipients", "1"},
                {"recipient infos", "2"},
                {"content cipher", "1.2.840.113549.3.7"},  // Triple-DES
                {"pages", "2"},
            };
            for (const auto& [key, value] : expected) {
                EXPECT_EQ(probe.Fact(key), value) << key;
            }
            const std::string content = probe.Fact("envelope content");
            EXPECT_EQ(content.size(), 48u) << "20 seed bytes and 4 permission bytes";
            EXPECT_EQ(content.substr(40), "ffffffff");
            // Strings are encrypted too: the producer of the information dictionary reads back.
            EXPECT_NE(probe.Fact("Producer").find("Ghostscript"), std::string::npos)
                << probe.output;
            for (const char* page : kPages) {
                EXPECT_NE(probe.text.find(page), std::string::npos) << probe.output;
            }
        }
    }
    const Probe refused = ProbeAs(dir / (kSources[0].name + ".pdf"), eve);
    EXPECT_EQ(refused.exit_code, 3) << refused.output;
    EXPECT_NE(refused.output.find("matches none"), std::string::npos) << refused.output;
    EXPECT_TRUE(refused.text.empty());
}

TEST_F(SecuredSaveTest, EachCertificateSaveDrawsANewSeed) {
    const stdfs::path dir = test::ScratchDir();
    const Recipient alice = MakeRecipient(dir, "Alice");
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate)};
    const stdfs::path source = MakeSource(dir, kSources[0]);
    std::vector<Probe> probes;
    for (const char* name : {"one.pdf", "two.pdf"}) {
        const stdfs::path file = dir / name;
        stdfs::copy_file(source, file);
        CZPdfContentObject object;
        Open(object, file, u"user");
        ASSERT_EQ(object.SaveWithPubKeySecurity(&recipients), hr::kOk) << object.LastErrorText();
        probes.push_back(ProbeAs(file, alice));
        ASSERT_EQ(probes.back().exit_code, 0) << probes.back().output;
        EXPECT_NE(probes.back().text.find(kPages[1]), std::string::npos);
    }
    const std::string first_seed = probes[0].Fact("envelope content").substr(0, 40);
    EXPECT_EQ(first_seed.size(), 40u);
    EXPECT_NE(first_seed, probes[1].Fact("envelope content").substr(0, 40));
    EXPECT_EQ(probes[0].Fact("envelope sha256").size(), 64u);
    EXPECT_NE(probes[0].Fact("envelope sha256"), probes[1].Fact("envelope sha256"));
}

// ---- Refusals ----

// Every refused save: the right result, the user's file byte-identical, no side file left.
TEST_F(SecuredSaveTest, RefusalsLeaveTheFileAsItWas) {
    const stdfs::path dir = test::ScratchDir();
    const Recipient alice = MakeRecipient(dir, "Alice");
    const Recipient curve =
        MakeRecipient(dir, "Curve", "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1");
    const OptionalText good = PemOf(alice.certificate);
    const std::vector<OptionalText> text_only = {u"to whom it may concern"};
    const std::vector<OptionalText> private_key = {PemOf(alice.key)};
    const std::vector<OptionalText> garbage = {
        u"-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n"};
    const std::vector<OptionalText> second_bad = {good, u"\x01\x02\xff garbage"};
    const std::vector<OptionalText> null_entry = {good, std::nullopt};
    const std::vector<OptionalText> elliptic = {PemOf(curve.certificate)};
    const std::vector<OptionalText> empty;
    const std::vector<OptionalText> fine = {good};

    using Save = std::function<HResult(CZPdfContentObject&)>;
    const auto pubkey = [](const std::vector<OptionalText>* list) {
        return Save([list](CZPdfContentObject& o) { return o.SaveWithPubKeySecurity(list); });
    };
    const struct Case {
        const char* name;
        bool encrypted_source;
        Save save;
        HResult expected;
        const char* why;  // part of LastErrorText
    } cases[] = {
        {"password save of an unencrypted file", false,
         [](CZPdfContentObject& o) { return o.SaveWithSecurity(u"u", u"o"); }, hr::kFail,
         "not encrypted"},
        {"certificate save of an unencrypted file", false, pubkey(&fine), hr::kFail,
         "not encrypted"},
        {"no certificate in the text", true, pubkey(&text_only), hr::kFail, "Recipient 1"},
        {"a private key instead of a certificate", true, pubkey(&private_key), hr::kFail,
         "Recipient 1"},
        {"garbage in a certificate block", true, pubkey(&garbage), hr::kFail, "Recipient 1"},
        {"second of two is garbage", true, pubkey(&second_bad), hr::kFail, "Recipient 2"},
        {"null entry", true, pubkey(&null_entry), hr::kFail, "Recipient 2"},
        {"a key that cannot receive the envelope", true, pubkey(&elliptic), hr::kFail, "envelope"},
        {"empty list", true, pubkey(&empty), hr::kInvalidArg, "empty"},
        {"null list", true, pubkey(nullptr), hr::kInvalidArg, "No recipient list"},
    };
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {kPages[0]});
    const stdfs::path encrypted = MakeSource(dir, kSources[0]);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path file = dir / "doc.pdf";
        stdfs::copy_file(c.encrypted_source ? encrypted : plain, file,
                         stdfs::copy_options::overwrite_existing);
        const std::string before = test::ReadBytes(file);
        CZPdfContentObject object;
        Open(object, file, u"user");
        EXPECT_EQ(c.save(object), c.expected);
        EXPECT_NE(object.LastErrorText().find(c.why), std::string::npos) << object.LastErrorText();
        EXPECT_EQ(test::ReadBytes(file), before);
        EXPECT_FALSE(stdfs::exists(SidePath(file)));
        EXPECT_TRUE(object.IsDocumentOpen()) << "a refused save keeps the document";
    }
}

// Where the document stands decides what happens before any writing.
TEST_F(SecuredSaveTest, DocumentStateBeforeTheSave) {
    const stdfs::path dir = test::ScratchDir();
    const Recipient alice = MakeRecipient(dir, "Alice");
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate)};
    const stdfs::path source = MakeSource(dir, kSources[0]);

    // Without a document both saves are unexpected.
    CZPdfContentObject empty;
    EXPECT_EQ(empty.SaveWithSecurity(u"a", u"b"), hr::kUnexpected);
    EXPECT_EQ(empty.SaveWithPubKeySecurity(&recipients), hr::kUnexpected);

    // A document that was never opened: the password save writes nothing (like Save) ...
    const stdfs::path file = dir / "doc.pdf";
    stdfs::copy_file(source, file);
    const std::string before = test::ReadBytes(file);
    CZPdfContentObject object;
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u"user"), hr::kOk);
    EXPECT_EQ(object.SaveWithSecurity(u"a", u"b"), hr::kOk);
    EXPECT_EQ(test::ReadBytes(file), before);

    // ... while the certificate save opens it first, and reports a failing open as such.
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u"wrong"), hr::kOk);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(object.SaveWithPubKeySecurity(&recipients), hr::kUnexpected);
    EXPECT_EQ(test::ReadBytes(file), before);
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u"user"), hr::kOk);
    EXPECT_EQ(object.SaveWithPubKeySecurity(&recipients), hr::kOk) << object.LastErrorText();
    ::testing::internal::GetCapturedStderr();
    EXPECT_NE(test::ReadBytes(file).find("/Adobe.PubSec"), std::string::npos);
}

// A long document goes out whole: while writing, the objects already written are let go, and
// those of object streams are read again when they are next needed.
TEST_F(SecuredSaveTest, LongDocumentsArriveWhole) {
    constexpr int kLong = 1200;
    const stdfs::path dir = test::ScratchDir();
    std::vector<std::string> texts;
    for (int i = 1; i <= kLong; ++i) texts.push_back("Sheet " + std::to_string(i) + " end");
    const stdfs::path plain = test::TextPdf(dir / "long-plain.pdf", texts);
    const Recipient alice = MakeRecipient(dir, "Alice");
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate)};
    const struct {
        const char* name;
        const char* qpdf_options;
        bool certificate;
    } cases[] = {
        {"password, aes256", "--encrypt user owner 256 --", false},
        {"password, object streams",
         "--object-streams=generate --encrypt user owner 128 --use-aes=y --", false},
        {"certificate, object streams", "--object-streams=generate --encrypt user owner 256 --",
         true},
    };
    const std::string checked[] = {texts.front(), texts[kLong / 2], texts.back()};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path file = dir / "long.pdf";
        const auto made = test::Run(std::string("qpdf ") + c.qpdf_options + " " +
                                    test::Quote(plain) + " " + test::Quote(file));
        ASSERT_TRUE(made.exit_code == 0 || made.exit_code == 3) << made.output;
        CZPdfContentObject object;
        Open(object, file, u"user");
        if (c.certificate) {
            ASSERT_EQ(object.SaveWithPubKeySecurity(&recipients), hr::kOk)
                << object.LastErrorText();
            const Probe probe = ProbeAs(file, alice);
            ASSERT_EQ(probe.exit_code, 0) << probe.output;
            EXPECT_EQ(probe.Fact("pages"), std::to_string(kLong));
            for (const std::string& text : checked) {
                EXPECT_NE(probe.text.find(text), std::string::npos) << text;
            }
        } else {
            ASSERT_EQ(object.SaveWithSecurity(u"new user", u"new owner"), hr::kOk)
                << object.LastErrorText();
            const std::string owner = " --password='new owner' " + test::Quote(file);
            EXPECT_EQ(test::Run("qpdf --check" + owner).exit_code, 0);
            EXPECT_EQ(test::Run("qpdf --show-npages" + owner).output, std::to_string(kLong) + "\n");
            const std::string all =
                test::Run("pdftotext -q -upw 'new user' " + test::Quote(file) + " -").output;
            for (const std::string& text : checked) {
                EXPECT_NE(all.find(text), std::string::npos) << text;
            }
        }
    }
}

}  // namespace
}  // namespace zpdf
