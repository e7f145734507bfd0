// The document holder: setting a document, opening it with passwords, load diagnostics, closing.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "core/open_object.h"
#include "engine/engine.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

TEST(Holder, RejectedPathKeepsTheEarlierDocument) {
    const stdfs::path dir = test::ScratchDir();
    const OptionalText good = FromPath(test::TextPdf(dir / "good.pdf", {"one"}));
    const OptionalText rejected[] = {std::nullopt, FromPath(dir / "missing.pdf"), u"",
                                     FromPath(dir / "nothing*.pdf")};
    for (const OptionalText& path : rejected) {
        CZPdfContentObject object;
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
// calls that need the document open it once, or try again when it failed.
TEST(Holder, LoadingTable) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"first", "second"});
    const stdfs::path linear = test::QpdfLinearize(plain, dir / "linear.pdf");
    const stdfs::path aes128 = test::QpdfEncrypt(plain, dir / "aes128.pdf", "user", "owner", 128);
    test::WriteBytes(dir / "garbage.pdf", std::string(4096, '\x17') + "not a pdf at all");
    test::WriteBytes(dir / "empty.pdf", "");
    const std::string kPassword =
        "Load pdf docs unsuccessful: Password required or incorrect password.\n";
    const std::string kDamaged =
        "Load pdf docs unsuccessful: File not in PDF format or corrupted.\n";
    const struct Case {
        stdfs::path file;
        OptionalText password;
        int pages;                // -1: refused
        std::string diagnostics;  // of one attempt to open
    } cases[] = {
        {plain, u"", 2, "Non-linearized path...\n"},
        {linear, u"", 2, "Linearized path...\n"},
        {aes128, std::nullopt, -1, "Non-linearized path...\n" + kPassword},
        {aes128, u"", -1, "Non-linearized path...\n" + kPassword},
        {aes128, u"user", 2, "Non-linearized path...\n"},
        {aes128, u"nope", -1, "Non-linearized path...\n" + kPassword},
        {dir / "garbage.pdf", u"", -1, "Non-linearized path...\n" + kDamaged},
        {dir / "empty.pdf", u"", -1, "Non-linearized path...\n" + kDamaged},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.filename().string());
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(c.file), 0, c.password), hr::kOk);
        std::int32_t pages = -1;
        double width = 0, height = 0;
        const HResult result = c.pages < 0 ? hr::kUnexpected : hr::kOk;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.PageCount(&pages), result);
        EXPECT_EQ(object.GetPageSize(1, &width, &height), result);
        EXPECT_EQ(object.PageCount(&pages), result);
        const std::string shown = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(pages, c.pages < 0 ? 0 : c.pages);
        EXPECT_EQ(shown,
                  c.pages < 0 ? c.diagnostics + c.diagnostics + c.diagnostics : c.diagnostics);
        EXPECT_EQ(object.IsDocumentOpen(), c.pages >= 0);
    }
    EXPECT_EQ(LoadErrorText(0), "Success");
    EXPECT_EQ(LoadErrorText(6), "Page not found or content error");
    EXPECT_EQ(LoadErrorText(42), "Unknown error 42");
}

TEST(Holder, UnsupportedFeaturesAreNamed) {
    const stdfs::path dir = test::ScratchDir();
    ASSERT_TRUE(samples::WriteFile(
        dir / "features.pdf",
        samples::PdfFromObjects({"<< /Type /Catalog /Pages 2 0 R /Collection << >> /Perms << >> "
                                 "/Names << /EmbeddedFiles << >> >> "
                                 "/AcroForm << /Fields [] /XFA [] /SigFlags 3 >> >>",
                                 "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                 "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>"})));
    ASSERT_TRUE(samples::WriteFile(dir / "plain.pdf", samples::BuildPdf({samples::SamplePage{}})));
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"features.pdf",
         {"XFA", "Portfolios_Packages", "Attachment", "Rights_Management", "Digital_Signature"}},
        {"plain.pdf", {}},
    };
    for (const auto& [file, features] : cases) {
        CZPdfContentObject object;
        test::OpenQuietly(object, dir / file);
        EXPECT_EQ(object.EngineDocument().UnsupportedFeatures(), features) << file;
    }
}

}  // namespace
}  // namespace zpdf
