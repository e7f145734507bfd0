// Saving through the side file: results read back by independent tools. What a failing disk
// does to a save is in fault_injection_test.cpp.
#include <gtest/gtest.h>

#include <filesystem>

#include "content_object/content_object.h"
#include "platform/files.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

stdfs::path SidePath(const stdfs::path& file) {
    return stdfs::path(file.string() + ".part");
}

class SaveTest : public ::testing::Test {
  protected:
    void TearDown() override { fs::SetFaultHook(nullptr); }
};

TEST_F(SaveTest, RoundTripIsReadableByOtherTools) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"Alpha page", "Beta page"});
    const stdfs::path objstm = test::QpdfObjectStreams(plain, dir / "objstm.pdf");
    const stdfs::path linear = test::QpdfLinearize(plain, dir / "linear.pdf");
    const stdfs::path aes = test::QpdfEncrypt(plain, dir / "aes.pdf", "user", "owner", 256);
    struct Case {
        stdfs::path file;
        OptionalText password;
    } cases[] = {{plain, u""}, {objstm, u""}, {linear, u""}, {aes, u"user"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.filename().string());
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(c.file), 0, c.password), hr::kOk);
        std::int32_t pages = 0;
        ::testing::internal::CaptureStderr();
        ASSERT_EQ(object.PageCount(&pages), hr::kOk);
        ASSERT_EQ(object.Save(), hr::kOk) << object.LastErrorText();
        ::testing::internal::GetCapturedStderr();
        EXPECT_FALSE(object.IsDocumentOpen()) << "a save closes the document";
        EXPECT_FALSE(stdfs::exists(SidePath(c.file)));
        if (c.password->empty()) {
            EXPECT_TRUE(test::QpdfCheckPasses(c.file));
            EXPECT_EQ(test::QpdfPageCount(c.file), 2);
            const std::string text = test::PdfToText(c.file);
            EXPECT_NE(text.find("Alpha page"), std::string::npos) << text;
            EXPECT_NE(text.find("Beta page"), std::string::npos) << text;
        } else {
            // The document keeps its own security.
            const auto shown =
                test::Run("qpdf --password=user --show-encryption " + test::Quote(c.file));
            EXPECT_NE(shown.output.find("R = 6"), std::string::npos) << shown.output;
            EXPECT_EQ(test::Run("qpdf --password=user --check " + test::Quote(c.file)).exit_code,
                      0);
        }
        // The next page method opens the new file.
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.PageCount(&pages), hr::kOk);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(pages, 2);
    }
}

TEST_F(SaveTest, NothingOpenedMeansNothingWritten) {
    const stdfs::path file = test::TextPdf(test::ScratchDir() / "doc.pdf", {"x"});
    const std::string before = test::ReadBytes(file);
    const auto written = stdfs::last_write_time(file);
    CZPdfContentObject object;
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    EXPECT_EQ(object.Save(), hr::kOk);
    EXPECT_EQ(test::ReadBytes(file), before);
    EXPECT_EQ(stdfs::last_write_time(file), written);

    // After a save the document is closed again, so a second save writes nothing.
    std::int32_t pages = 0;
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(object.PageCount(&pages), hr::kOk);
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(object.Save(), hr::kOk);
    const std::string saved = test::ReadBytes(file);
    const auto saved_time = stdfs::last_write_time(file);
    EXPECT_EQ(object.Save(), hr::kOk);
    EXPECT_EQ(test::ReadBytes(file), saved);
    EXPECT_EQ(stdfs::last_write_time(file), saved_time);
}

TEST_F(SaveTest, WithoutDocumentIsUnexpected) {
    CZPdfContentObject object;
    EXPECT_EQ(object.Save(), hr::kUnexpected);
}

TEST_F(SaveTest, StaleSideFileIsReplaced) {
    const stdfs::path file = test::TextPdf(test::ScratchDir() / "doc.pdf", {"fresh"});
    test::WriteBytes(SidePath(file), std::string(100000, 'x'));
    CZPdfContentObject object;
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    std::int32_t pages = 0;
    ::testing::internal::CaptureStderr();
    ASSERT_EQ(object.PageCount(&pages), hr::kOk);
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(object.Save(), hr::kOk);
    EXPECT_FALSE(stdfs::exists(SidePath(file)));
    EXPECT_TRUE(test::QpdfCheckPasses(file));
}

}  // namespace
}  // namespace zpdf
