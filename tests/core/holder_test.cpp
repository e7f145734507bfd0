// The document holder: setting, embedding, opening with passwords, load diagnostics, closing.
#include <gtest/gtest.h>

#include <filesystem>

#include "content_object/content_object.h"
#include "engine/engine.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace fs = std::filesystem;
using test::ScratchDir;

std::u16string U(const fs::path& path) {
    return FromPath(path);
}

TEST(Holder, RejectedPathKeepsEarlierDocument) {
    const fs::path dir = ScratchDir();
    const fs::path good = test::TextPdf(dir / "good.pdf", {"one"});
    struct Case {
        const char* name;
        OptionalText path;
    } cases[] = {
        {"null", std::nullopt},
        {"missing", U(dir / "missing.pdf")},
        {"empty", std::u16string()},
        {"wildcard matching nothing", U(dir / "nothing*.pdf")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(U(good), 0, u"pw"), hr::kOk);
        EXPECT_EQ(object.SetPdfDocument(c.path, -1, u"other"), hr::kInvalidArg);
        OptionalText held;
        ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
        EXPECT_EQ(held, U(good));
        EXPECT_EQ(object.PasswordText(), OptionalText(u"pw"));
        EXPECT_EQ(object.EmbedFlag(), 0);
    }
}

TEST(Holder, EmbedMakesPrivateCopyThatResetDeletes) {
    const fs::path dir = ScratchDir();
    const fs::path source = test::TextPdf(dir / "source.pdf", {"embedded"});
    const std::string bytes = test::ReadBytes(source);

    CZPdfContentObject object;
    ASSERT_EQ(object.SetPdfDocument(U(source), -1, std::nullopt), hr::kOk);
    OptionalText held;
    ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
    ASSERT_TRUE(held.has_value());
    const fs::path copy = ToPath(*held);
    EXPECT_NE(copy, source);
    EXPECT_EQ(copy.parent_path(), fs::temp_directory_path());
    EXPECT_EQ(copy.filename().string().rfind("zpf", 0), 0u) << copy;
    EXPECT_EQ(test::ReadBytes(copy), bytes);
    EXPECT_EQ(object.EmbedFlag(), -1);
    EXPECT_FALSE(object.PasswordText().has_value()) << "a null password stays null";

    std::int32_t pages = 0;
    ASSERT_EQ(object.PageCount(&pages), hr::kOk);
    EXPECT_EQ(pages, 1);

    // Setting another document removes the private copy, never the client's file.
    ASSERT_EQ(object.SetPdfDocument(U(source), 0, std::u16string()), hr::kOk);
    EXPECT_FALSE(fs::exists(copy));
    object.ResetDocument();
    EXPECT_TRUE(fs::exists(source));
    EXPECT_EQ(test::ReadBytes(source), bytes);
}

TEST(Holder, DestructionDeletesPrivateCopy) {
    const fs::path source = test::TextPdf(ScratchDir() / "source.pdf", {"x"});
    fs::path copy;
    {
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(U(source), 1, std::u16string()), hr::kOk);
        OptionalText held;
        object.GetPdfDocument(&held);
        copy = ToPath(*held);
        std::int32_t pages = 0;
        ASSERT_EQ(object.PageCount(&pages), hr::kOk);
        ASSERT_TRUE(fs::exists(copy));
    }
    EXPECT_FALSE(fs::exists(copy));
    EXPECT_TRUE(fs::exists(source));
}

TEST(Holder, GetPdfDocumentNeedsAPlace) {
    CZPdfContentObject object;
    EXPECT_EQ(object.GetPdfDocument(nullptr), hr::kPointer);
    OptionalText held = std::nullopt;
    ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
    EXPECT_EQ(held, OptionalText(u"")) << "a new object holds the empty path, not null";
}

// Documents of every kind the holder meets, with the password given and what loading says.
TEST(Holder, LoadingTable) {
    const fs::path dir = ScratchDir();
    const fs::path plain = test::TextPdf(dir / "plain.pdf", {"first", "second"});
    const fs::path linear = test::QpdfLinearize(plain, dir / "linear.pdf");
    const fs::path objstm = test::QpdfObjectStreams(plain, dir / "objstm.pdf");
    const fs::path aes128 = test::QpdfEncrypt(plain, dir / "aes128.pdf", "user", "owner", 128);
    const fs::path aes256 = test::QpdfEncrypt(plain, dir / "aes256.pdf", "user", "owner", 256);
    const fs::path open256 = test::QpdfEncrypt(plain, dir / "open256.pdf", "", "owner", 256);
    const fs::path garbage = dir / "garbage.pdf";
    test::WriteBytes(garbage, std::string(4096, '\x17') + "not a pdf at all");
    const fs::path empty = dir / "empty.pdf";
    test::WriteBytes(empty, "");

    const std::string kPassword =
        "Load pdf docs unsuccessful: Password required or incorrect password.\n";
    const std::string kDamaged =
        "Load pdf docs unsuccessful: File not in PDF format or corrupted.\n";
    struct Case {
        const char* name;
        fs::path file;
        OptionalText password;
        HResult result;
        int pages;
        std::string stderr_text;
    } cases[] = {
        {"plain", plain, std::u16string(), hr::kOk, 2, "Non-linearized path...\n"},
        {"linearized", linear, std::u16string(), hr::kOk, 2, "Linearized path...\n"},
        {"object streams", objstm, std::u16string(), hr::kOk, 2, "Non-linearized path...\n"},
        {"aes128 no password", aes128, std::u16string(), hr::kUnexpected, 0,
         "Non-linearized path...\n" + kPassword},
        {"aes128 null password", aes128, std::nullopt, hr::kUnexpected, 0,
         "Non-linearized path...\n" + kPassword},
        {"aes128 user password", aes128, u"user", hr::kOk, 2, "Non-linearized path...\n"},
        {"aes128 owner password", aes128, u"owner", hr::kOk, 2, "Non-linearized path...\n"},
        {"aes128 wrong password", aes128, u"nope", hr::kUnexpected, 0,
         "Non-linearized path...\n" + kPassword},
        {"aes256 user password", aes256, u"user", hr::kOk, 2, "Non-linearized path...\n"},
        {"aes256 no password", aes256, std::u16string(), hr::kUnexpected, 0,
         "Non-linearized path...\n" + kPassword},
        {"aes256 empty user password", open256, std::u16string(), hr::kOk, 2,
         "Non-linearized path...\n"},
        {"garbage", garbage, std::u16string(), hr::kUnexpected, 0,
         "Non-linearized path...\n" + kDamaged},
        {"empty file", empty, std::u16string(), hr::kUnexpected, 0,
         "Non-linearized path...\n" + kDamaged},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(U(c.file), 0, c.password), hr::kOk);
        std::int32_t pages = -1;
        ::testing::internal::CaptureStderr();
        const HResult result = object.PageCount(&pages);
        const std::string diagnostics = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(result, c.result) << object.LastErrorText();
        EXPECT_EQ(pages, c.pages);
        EXPECT_EQ(diagnostics, c.stderr_text);
        EXPECT_EQ(object.IsDocumentOpen(), hr::Succeeded(c.result));
    }
}

TEST(Holder, TruncatedFileNeverCrashes) {
    const fs::path dir = ScratchDir();
    const std::string bytes = test::ReadBytes(test::TextPdf(dir / "whole.pdf", {"a", "b", "c"}));
    for (const std::size_t keep : {bytes.size() / 4, bytes.size() / 2, bytes.size() - 40}) {
        SCOPED_TRACE(keep);
        const fs::path cut = dir / ("cut" + std::to_string(keep) + ".pdf");
        test::WriteBytes(cut, bytes.substr(0, keep));
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(U(cut), 0, std::u16string()), hr::kOk);
        std::int32_t pages = -1;
        ::testing::internal::CaptureStderr();
        const HResult result = object.PageCount(&pages);
        const std::string diagnostics = ::testing::internal::GetCapturedStderr();
        // A damaged file either opens as far as it can be repaired or is refused as damaged.
        if (hr::Failed(result)) {
            EXPECT_EQ(result, hr::kUnexpected);
            EXPECT_NE(diagnostics.find("Load pdf docs unsuccessful: "), std::string::npos);
        } else {
            EXPECT_GE(pages, 0);
        }
    }
}

TEST(Holder, OpensOnceUntilClosed) {
    const fs::path file = test::TextPdf(ScratchDir() / "doc.pdf", {"a", "b"});
    CZPdfContentObject object;
    ASSERT_EQ(object.SetPdfDocument(U(file), 0, std::u16string()), hr::kOk);
    EXPECT_FALSE(object.IsDocumentOpen()) << "setting a document opens nothing";

    ::testing::internal::CaptureStderr();
    std::int32_t pages = 0;
    double width = 0;
    double height = 0;
    ASSERT_EQ(object.PageCount(&pages), hr::kOk);
    ASSERT_EQ(object.GetPageSize(2, &width, &height), hr::kOk);
    ASSERT_EQ(object.PageCount(&pages), hr::kOk);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Non-linearized path...\n");

    object.CloseDocuments();
    EXPECT_FALSE(object.IsDocumentOpen());
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(object.PageCount(&pages), hr::kOk);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Non-linearized path...\n");
    EXPECT_EQ(pages, 2);
}

TEST(Holder, LoadErrorTexts) {
    EXPECT_EQ(LoadErrorText(0), "Success");
    EXPECT_EQ(LoadErrorText(6), "Page not found or content error");
    EXPECT_EQ(LoadErrorText(42), "Unknown error 42");
}

}  // namespace
}  // namespace zpdf

namespace zpdf {
namespace {

TEST(Holder, UnsupportedFeaturesAreNamed) {
    const std::filesystem::path dir = test::ScratchDir();
    const std::string raw =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /Collection << >> /Perms << >>"
        " /AcroForm << /Fields [] /XFA [] /SigFlags 3 >> >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
        "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >> endobj\n"
        "trailer << /Root 1 0 R >>\n%%EOF\n";
    test::WriteBytes(dir / "raw.pdf", raw);
    ASSERT_EQ(
        test::Run("qpdf " + test::Quote(dir / "raw.pdf") + " " + test::Quote(dir / "features.pdf"))
                .exit_code %
            3,
        0);
    const std::filesystem::path plain = test::TextPdf(dir / "plain.pdf", {"x"});
    const struct {
        std::filesystem::path file;
        std::vector<std::string> features;
    } cases[] = {
        {dir / "features.pdf",
         {"XFA", "Portfolios_Packages", "Rights_Management", "Digital_Signature"}},
        {plain, {}},
    };
    for (const auto& c : cases) {
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(c.file), 0, u""), hr::kOk);
        ::testing::internal::CaptureStderr();
        ASSERT_EQ(object.EnsurePdfDocument(), hr::kOk);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(object.EngineDocument().UnsupportedFeatures(), c.features) << c.file;
    }
}

}  // namespace
}  // namespace zpdf
