// The secured saves, checked by readers we did not write: qpdf and poppler for the password
// save, PDFBox (through tests/java/PubKeyProbe.java) for the certificate save.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "content_object/content_object.h"
#include "platform/files.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

// Documents encrypted by qpdf in the ways a print job's files come: AES-256, AES-128 with
// object streams, linearized RC4 under a 1.4 header, and restricted permissions. The long ones
// go out whole only if the writer lets go of the objects already written and reads those of
// object streams again when they are next needed.
constexpr int kLong = 1200;
struct Source {
    const char* name;
    const char* qpdf_options;  // between "qpdf" and the input file
    int pages = 2;
};
const char* const kAes256 = "--encrypt user owner 256 --";
const char* const kObjStm128 = "--object-streams=generate --encrypt user owner 128 --use-aes=y --";
const Source kSources[] = {
    {"aes256", kAes256},
    {"aes128-objstm", kObjStm128},
    {"rc4-linearized-restricted",
     "--allow-weak-crypto --min-version=1.4 --force-version=1.4 --linearize "
     "--encrypt user owner 128 --use-aes=n --print=low --modify=none --extract=n --"},
};

std::vector<std::string> PageTexts(int pages) {
    if (pages == 2) return {"Quarterly figures", "Second sheet"};
    std::vector<std::string> texts;
    for (int i = 1; i <= pages; ++i) texts.push_back("Sheet " + std::to_string(i) + " end");
    return texts;
}

// The texts looked for in a result: every page of a short document; the first, the middle and
// the last of a long one.
std::vector<std::string> CheckedTexts(int pages) {
    const std::vector<std::string> all = PageTexts(pages);
    if (all.size() <= 2) return all;
    return {all.front(), all[all.size() / 2], all.back()};
}

stdfs::path MakeSource(const stdfs::path& dir, const Source& source) {
    const stdfs::path plain = dir / ("plain-" + std::to_string(source.pages) + ".pdf");
    if (!stdfs::exists(plain)) test::TextPdf(plain, PageTexts(source.pages));
    const stdfs::path out = dir / (std::string(source.name) + ".pdf");
    const auto made = test::Run("qpdf " + std::string(source.qpdf_options) + " " +
                                test::Quote(plain) + " " + test::Quote(out));
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

// The text between `from` and the next `to` (or the end); empty when `from` is not there.
std::string Between(const std::string& text, const std::string& from, const std::string& to) {
    const auto start = text.find(from);
    if (start == std::string::npos) return {};
    const auto begin = start + from.size();
    return text.substr(begin, text.find(to, begin) - begin);
}

test::ToolResult Qpdf(const std::string& arguments, const std::string& password,
                      const stdfs::path& file) {
    return test::Run("qpdf " + arguments + " --password=" + test::Quote(password) + " " +
                     test::Quote(file));
}
std::string ShowEncryption(const stdfs::path& file, const std::string& password) {
    return Qpdf("--show-encryption", password, file).output;
}

// The encryption dictionary as qpdf prints it (followed when the trailer refers to it).
std::string EncryptDictionary(const stdfs::path& file, const std::string& password) {
    const std::string trailer = Qpdf("--show-object=trailer", password, file).output;
    const std::string number = Between(trailer, "/Encrypt ", " ");
    if (number.empty() || number == "<<") return trailer;
    return Qpdf("--show-object=" + number, password, file).output;
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

// What the probe printed: "key: value" lines, then a line "text:" and the text of the pages.
struct Probe {
    int exit_code = -1;
    std::string output;

    std::string Fact(const std::string& key) const {
        std::string facts = "\n";
        facts += output.substr(0, output.find("\ntext:\n"));
        std::string label = "\n";
        label += key;
        label += ": ";
        return Between(facts, label, "\n");
    }
    std::string Text() const {
        const auto at = output.find("\ntext:\n");
        return at == std::string::npos ? std::string() : output.substr(at + 7);
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
    return {run.exit_code, run.output};
}

class SecuredSaveTest : public ::testing::Test {
  protected:
    void TearDown() override { fs::SetFaultHook(nullptr); }

    // Opens `file` with the source's user password and saves it secured by `save`; the save
    // closes the document and leaves no side file.
    template <typename SaveCall>
    void SecureFile(const stdfs::path& file, SaveCall save) {
        CZPdfContentObject object;
        Open(object, file, u"user");
        ASSERT_EQ(save(object), hr::kOk) << object.LastErrorText();
        EXPECT_FALSE(object.IsDocumentOpen());
        EXPECT_FALSE(stdfs::exists(file.string() + ".part"));
    }

    const stdfs::path dir_ = test::ScratchDir();
};

// ---- Password security ----

TEST_F(SecuredSaveTest, PasswordSaveIsReadByQpdfAndPoppler) {
    std::vector<Source> sources(std::begin(kSources), std::end(kSources));
    sources.push_back({"long-aes256", kAes256, kLong});
    sources.push_back({"long-objstm", kObjStm128, kLong});
    for (const Source& source : sources) {
        SCOPED_TRACE(source.name);
        const stdfs::path file = MakeSource(dir_, source);
        const std::string source_p = Between(ShowEncryption(file, "user"), "P = ", "\n");
        ASSERT_FALSE(source_p.empty());
        SecureFile(file, [](CZPdfContentObject& o) {
            return o.SaveWithSecurity(u"new user", u"new owner");
        });
        if (HasFatalFailure()) return;

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
            const test::ToolResult refused = Qpdf("--check", wrong, file);
            EXPECT_EQ(refused.exit_code, 2) << wrong;
            EXPECT_NE(refused.output.find("invalid password"), std::string::npos) << wrong;
        }
        const std::string dict = EncryptDictionary(file, "new user");
        for (const char* entry :
             {"/Filter /Standard", "/V 5", "/R 6", "/Length 256", "/StmF /StdCF", "/StrF /StdCF",
              "/CFM /AESV3", "/EncryptMetadata true"}) {
            EXPECT_NE(dict.find(entry), std::string::npos) << entry << " in " << dict;
        }
        // Random bytes: the writer puts them in hex, or literally when they happen to be
        // mostly printable.
        for (const char* key : {"/OE ", "/UE ", "/Perms "}) {
            EXPECT_TRUE(dict.find(std::string(key) + "<") != std::string::npos ||
                        dict.find(std::string(key) + "(") != std::string::npos)
                << key << "in " << dict;
        }
        EXPECT_EQ(Qpdf("--check", "new owner", file).exit_code, 0);
        EXPECT_EQ(Qpdf("--show-npages", "new owner", file).output,
                  std::to_string(source.pages) + "\n");
        const std::string text =
            test::Run("pdftotext -q -upw 'new user' " + test::Quote(file) + " -").output;
        for (const std::string& page : CheckedTexts(source.pages)) {
            EXPECT_NE(text.find(page), std::string::npos) << page;
        }
    }
}

// Passwords as the interface hands them over: null and empty are the same empty password;
// other texts arrive as their narrow bytes (UTF-8 here), cut at 127 bytes as revision 6 does.
TEST_F(SecuredSaveTest, PasswordTexts) {
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
    const stdfs::path source = MakeSource(dir_, kSources[0]);
    const stdfs::path file = dir_ / "doc.pdf";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        stdfs::copy_file(source, file, stdfs::copy_options::overwrite_existing);
        SecureFile(file,
                   [&c](CZPdfContentObject& o) { return o.SaveWithSecurity(c.user, c.owner); });
        EXPECT_NE(ShowEncryption(file, c.opens_as_user).find("Supplied password is user password"),
                  std::string::npos);
        EXPECT_NE(
            ShowEncryption(file, c.opens_as_owner).find("Supplied password is owner password"),
            std::string::npos);
        EXPECT_NE(EncryptDictionary(file, c.opens_as_user).find("/R 6"), std::string::npos);
    }
}

// A password save of our own result secures it again, with the source's permissions still; the
// first passwords stop working. The object keeps the password it was given: when that is the
// new user password, it opens the new file again.
TEST_F(SecuredSaveTest, SecondPasswordSaveOfTheResult) {
    const stdfs::path file = MakeSource(dir_, kSources[2]);
    const std::string source_p = Between(ShowEncryption(file, "user"), "P = ", "\n");
    CZPdfContentObject object;
    Open(object, file, u"user");
    ASSERT_EQ(object.SaveWithSecurity(u"first", u"owner-first"), hr::kOk);
    Open(object, file, u"first");
    ASSERT_EQ(object.SaveWithSecurity(u"second", u"owner-second"), hr::kOk);
    const std::string shown = ShowEncryption(file, "second");
    EXPECT_NE(shown.find("Supplied password is user password"), std::string::npos) << shown;
    EXPECT_NE(shown.find("P = " + source_p + "\n"), std::string::npos) << shown;
    EXPECT_EQ(Qpdf("--check", "second", file).exit_code, 0);
    EXPECT_EQ(Qpdf("--check", "first", file).exit_code, 2);

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
    const Recipient alice = MakeRecipient(dir_, "Alice");
    const Recipient bob = MakeRecipient(dir_, "Bob", "-newkey rsa:3072");
    const Recipient eve = MakeRecipient(dir_, "Eve");
    // Bob's certificate arrives as a TRUSTED CERTIFICATE block.
    const stdfs::path bob_trusted = dir_ / "Bob-trusted.pem";
    ASSERT_EQ(test::Run("openssl x509 -in " + test::Quote(bob.certificate) +
                        " -addtrust emailProtection -trustout -out " + test::Quote(bob_trusted))
                  .exit_code,
              0);
    ASSERT_NE(test::ReadBytes(bob_trusted).find("BEGIN TRUSTED CERTIFICATE"), std::string::npos);
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate), PemOf(bob_trusted)};

    std::vector<Source> sources(std::begin(kSources), std::end(kSources));
    sources.push_back(
        {"long-objstm", "--object-streams=generate --encrypt user owner 256 --", kLong});
    for (const Source& source : sources) {
        SCOPED_TRACE(source.name);
        const stdfs::path file = MakeSource(dir_, source);
        SecureFile(file,
                   [&](CZPdfContentObject& o) { return o.SaveWithPubKeySecurity(&recipients); });
        if (HasFatalFailure()) return;

        const std::string bytes = test::ReadBytes(file);
        EXPECT_EQ(bytes.substr(0, 9), "%PDF-1.7\n");
        // The source's layout is not carried over: plain objects and a classic table.
        EXPECT_EQ(bytes.find("/ObjStm"), std::string::npos);
        EXPECT_EQ(bytes.find("/XRef"), std::string::npos);
        EXPECT_EQ(bytes.find("/Linearized"), std::string::npos);
        EXPECT_NE(bytes.find("\nxref\n0 "), std::string::npos);
        // No text of the pages is readable in the file.
        for (const std::string& page : CheckedTexts(source.pages)) {
            EXPECT_EQ(bytes.find(page), std::string::npos) << page;
        }

        for (const Recipient* who : {&alice, &bob}) {
            const Probe probe = ProbeAs(file, *who);
            ASSERT_EQ(probe.exit_code, 0) << probe.output;
            for (const std::string fact :
                 {"Filter: Adobe.PubSec", "SubFilter: adbe.pkcs7.s5", "V: COSInt{5}",
                  "R: COSInt{131105}", "P: absent", "Length: absent", "StmF: DefaultCryptFilter",
                  "StrF: DefaultCryptFilter", "EncryptMetadata: true",
                  "CF keys: [COSName{DefaultCryptFilter}]", "CFM: AESV3", "CF Length: COSInt{256}",
                  "Recipients: 1", "recipient infos: 2",
                  "content cipher: 1.2.840.113549.3.7"}) {  // Triple-DES
                const auto colon = fact.find(": ");
                EXPECT_EQ(probe.Fact(fact.substr(0, colon)), fact.substr(colon + 2)) << fact;
            }
            EXPECT_EQ(probe.Fact("pages"), std::to_string(source.pages));
            const std::string content = probe.Fact("envelope content");
            EXPECT_EQ(content.size(), 48u) << "20 seed bytes and 4 permission bytes";
            EXPECT_EQ(content.substr(40), "ffffffff");
            EXPECT_EQ(probe.Fact("envelope sha256").size(), 64u);
            // Strings are encrypted too: the producer of the information dictionary reads back.
            EXPECT_NE(probe.Fact("Producer").find("Ghostscript"), std::string::npos)
                << probe.output;
            for (const std::string& page : CheckedTexts(source.pages)) {
                EXPECT_NE(probe.Text().find(page), std::string::npos) << page;
            }
        }
    }
    const Probe refused = ProbeAs(dir_ / (std::string(kSources[0].name) + ".pdf"), eve);
    EXPECT_EQ(refused.exit_code, 3) << refused.output;
    EXPECT_NE(refused.output.find("matches none"), std::string::npos) << refused.output;
    EXPECT_TRUE(refused.Text().empty());
}

// Two certificate saves of the same file draw different seeds, so their envelopes differ.
TEST_F(SecuredSaveTest, EachCertificateSaveDrawsANewSeed) {
    const Recipient alice = MakeRecipient(dir_, "Alice");
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate)};
    const stdfs::path source = MakeSource(dir_, kSources[0]);
    std::vector<Probe> probes;
    for (const char* name : {"one.pdf", "two.pdf"}) {
        stdfs::copy_file(source, dir_ / name);
        SecureFile(dir_ / name,
                   [&](CZPdfContentObject& o) { return o.SaveWithPubKeySecurity(&recipients); });
        probes.push_back(ProbeAs(dir_ / name, alice));
        ASSERT_EQ(probes.back().exit_code, 0) << probes.back().output;
        ASSERT_EQ(probes.back().Fact("envelope content").size(), 48u);
    }
    EXPECT_NE(probes[0].Fact("envelope content").substr(0, 40),
              probes[1].Fact("envelope content").substr(0, 40));
    EXPECT_NE(probes[0].Fact("envelope sha256"), probes[1].Fact("envelope sha256"));
}

// ---- Refusals ----

// Every refused save: the right result, the user's file byte-identical, no side file left, the
// document still open.
TEST_F(SecuredSaveTest, RefusalsLeaveTheFileAsItWas) {
    const Recipient alice = MakeRecipient(dir_, "Alice");
    const Recipient curve =
        MakeRecipient(dir_, "Curve", "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1");
    const OptionalText good = PemOf(alice.certificate);
    const OptionalText garbage_block =
        u"-----BEGIN CERTIFICATE-----\nbm90IGEgY2VydGlmaWNhdGU=\n-----END CERTIFICATE-----\n";
    using Save = std::function<HResult(CZPdfContentObject&)>;
    const auto to = [](std::vector<OptionalText> list) {
        return Save([list](CZPdfContentObject& o) { return o.SaveWithPubKeySecurity(&list); });
    };
    const struct Case {
        const char* name;
        bool encrypted_source;
        Save save;
        HResult expected;
        const char* why;  // found in LastErrorText
    } cases[] = {
        {"password save of an unencrypted file", false,
         [](CZPdfContentObject& o) { return o.SaveWithSecurity(u"u", u"o"); }, hr::kFail,
         "not encrypted"},
        {"certificate save of an unencrypted file", false, to({good}), hr::kFail, "not encrypted"},
        {"no certificate in the text", true, to({u"to whom it may concern"}), hr::kFail,
         "Recipient 1"},
        {"a private key instead of a certificate", true, to({PemOf(alice.key)}), hr::kFail,
         "Recipient 1"},
        {"garbage in a certificate block", true, to({garbage_block}), hr::kFail, "Recipient 1"},
        {"second of two is garbage", true, to({good, u"\x01\x02\xff garbage"}), hr::kFail,
         "Recipient 2"},
        {"null entry", true, to({good, std::nullopt}), hr::kFail, "Recipient 2"},
        {"a key that cannot receive the envelope", true, to({PemOf(curve.certificate)}), hr::kFail,
         "envelope"},
        {"empty list", true, to({}), hr::kInvalidArg, "empty"},
        {"null list", true, [](CZPdfContentObject& o) { return o.SaveWithPubKeySecurity(nullptr); },
         hr::kInvalidArg, "No recipient list"},
    };
    const stdfs::path plain = test::TextPdf(dir_ / "plain.pdf", {"Quarterly figures"});
    const stdfs::path encrypted = MakeSource(dir_, kSources[0]);
    const stdfs::path file = dir_ / "doc.pdf";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        stdfs::copy_file(c.encrypted_source ? encrypted : plain, file,
                         stdfs::copy_options::overwrite_existing);
        const std::string before = test::ReadBytes(file);
        CZPdfContentObject object;
        Open(object, file, u"user");
        EXPECT_EQ(c.save(object), c.expected);
        EXPECT_NE(object.LastErrorText().find(c.why), std::string::npos) << object.LastErrorText();
        EXPECT_EQ(test::ReadBytes(file), before);
        EXPECT_FALSE(stdfs::exists(file.string() + ".part"));
        EXPECT_TRUE(object.IsDocumentOpen());
    }
}

// Where the document stands decides what happens before any writing.
TEST_F(SecuredSaveTest, DocumentStateBeforeTheSave) {
    const Recipient alice = MakeRecipient(dir_, "Alice");
    const std::vector<OptionalText> recipients = {PemOf(alice.certificate)};
    const stdfs::path file = MakeSource(dir_, kSources[0]);

    // Without a document both saves are unexpected.
    CZPdfContentObject empty;
    EXPECT_EQ(empty.SaveWithSecurity(u"a", u"b"), hr::kUnexpected);
    EXPECT_EQ(empty.SaveWithPubKeySecurity(&recipients), hr::kUnexpected);

    // A document that was never opened: the password save writes nothing (like Save) ...
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

}  // namespace
}  // namespace zpdf
