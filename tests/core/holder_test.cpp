// The document holder: setting a document, opening it with passwords, load diagnostics, closing,
// and saving only what was opened.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/open_object.h"
#include "engine/engine.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

TEST(Holder, RejectedPathKeepsTheEarlierDocument) {
    const Path dir = ScratchDir();
    const OptionalText good = FromPath(TextPdf(dir / "good.pdf", {"one"}));
    for (const OptionalText& path : std::initializer_list<OptionalText>{
             std::nullopt, FromPath(dir / "missing.pdf"), u"", FromPath(dir / "nothing*.pdf")}) {
        Obj object;
        OptionalText held = std::nullopt;
        ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
        EXPECT_EQ(held, OptionalText(u"")) << "a new object holds the empty path, not null";
        ASSERT_EQ(object.SetPdfDocument(good, 0, u"pw"), hr::kOk);
        EXPECT_EQ(object.SetPdfDocument(path, -1, u"other"), hr::kInvalidArg);
        ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
        EXPECT_EQ(held, good);
        EXPECT_EQ(object.PasswordText(), OptionalText(u"pw"));
        EXPECT_EQ(object.EmbedFlag(), 0);
        EXPECT_EQ(object.GetPdfDocument(nullptr), hr::kPointer);
    }
}

// Documents of every kind the holder meets, the password given, and what loading says: the
// calls that need the document open it once, or try again when it failed. Features the engine
// does not support are named.
TEST(Holder, LoadingTable) {
    const Path dir = ScratchDir();
    const Path plain = TextPdf(dir / "plain.pdf", {"first", "second"});
    const Path aes128 = QpdfEncrypt(plain, dir / "aes128.pdf", "user", "owner", 128);
    WriteBytes(dir / "garbage.pdf", std::string(4096, '\x17') + "not a pdf at all");
    WriteBytes(dir / "empty.pdf", "");
    WriteBytes(dir / "features.pdf",
               samples::PdfFromObjects(
                   {"<< /Type /Catalog /Pages 2 0 R /Collection << >> /Perms << >> /Names << "
                    "/EmbeddedFiles << >> >> /AcroForm << /Fields [] /XFA [] /SigFlags 3 >> >>",
                    "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                    "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>"}));
    const std::string kNonLinear = "Non-linearized path...\n",
                      kFailed = "Load pdf docs unsuccessful: ",
                      kPassword = kFailed + "Password required or incorrect password.\n",
                      kDamaged = kFailed + "File not in PDF format or corrupted.\n";
    const std::vector<std::string> kFeatures = {"XFA", "Portfolios_Packages", "Attachment",
                                                "Rights_Management", "Digital_Signature"};
    const struct Case {
        Path file;
        OptionalText password;
        int pages;                // -1: refused
        std::string diagnostics;  // of one attempt to open
        std::vector<std::string> features = {};
    } cases[] = {
        {plain, u"", 2, kNonLinear},
        {QpdfLinearize(plain, dir / "linear.pdf"), u"", 2, "Linearized path...\n"},
        {aes128, std::nullopt, -1, kNonLinear + kPassword},
        {aes128, u"", -1, kNonLinear + kPassword},
        {aes128, u"user", 2, kNonLinear},
        {aes128, u"nope", -1, kNonLinear + kPassword},
        {dir / "garbage.pdf", u"", -1, kNonLinear + kDamaged},
        {dir / "empty.pdf", u"", -1, kNonLinear + kDamaged},
        {dir / "features.pdf", u"", 1, kNonLinear, kFeatures},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.filename().string());
        Obj object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(c.file), 0, c.password), hr::kOk);
        std::int32_t pages = -1;
        double width = 0, height = 0;
        const HResult result = c.pages < 0 ? hr::kUnexpected : hr::kOk;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.PageCount(&pages), result);
        EXPECT_EQ(object.GetPageSize(1, &width, &height), result);
        EXPECT_EQ(object.PageCount(&pages), result);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  c.pages < 0 ? c.diagnostics + c.diagnostics + c.diagnostics : c.diagnostics);
        EXPECT_EQ(pages, std::max(c.pages, 0));
        EXPECT_EQ(object.IsDocumentOpen(), c.pages >= 0);
        EXPECT_EQ(c.pages > 0 ? object.EngineDocument().UnsupportedFeatures() : c.features,
                  c.features);
    }
    EXPECT_EQ(LoadErrorText(0), "Success");
    EXPECT_EQ(LoadErrorText(6), "Page not found or content error");
    EXPECT_EQ(LoadErrorText(42), "Unknown error 42");
}

// Only an open document is written: one never opened, or closed by the last save, is not.
TEST(Save, NothingOpenedMeansNothingWritten) {
    Obj object;
    EXPECT_EQ(object.Save(), hr::kUnexpected) << "no document";
    const Path file = TextPdf(ScratchDir() / "doc.pdf", {"x"});
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    for (const bool opened : {false, true}) {
        if (opened) {
            OpenQuietly(object, file);
            ASSERT_EQ(object.Save(), hr::kOk);
        }
        const std::string bytes = ReadBytes(file);
        const auto written = std::filesystem::last_write_time(file);
        EXPECT_EQ(object.Save(), hr::kOk);
        EXPECT_EQ(ReadBytes(file), bytes);
        EXPECT_EQ(std::filesystem::last_write_time(file), written);
    }
}

}  // namespace
}  // namespace zpdf
