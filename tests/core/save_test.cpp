// Saving through the side file: results read back by independent tools. What a failing disk
// does to a save is in fault_injection_test.cpp.
#include <gtest/gtest.h>

#include <filesystem>

#include "content_object/content_object.h"
#include "core/open_object.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

stdfs::path SidePath(const stdfs::path& file) {
    return stdfs::path(file.string() + ".part");
}

// Documents stored in other ways, and one with security of its own, which it keeps. A side file
// that an earlier attempt left is replaced.
TEST(Save, RoundTripIsReadableByOtherTools) {
    const stdfs::path dir = test::ScratchDir();
    const stdfs::path plain = test::TextPdf(dir / "plain.pdf", {"Alpha page", "Beta page"});
    const struct {
        stdfs::path file;
        OptionalText password;
    } cases[] = {{plain, u""},
                 {test::QpdfObjectStreams(plain, dir / "objstm.pdf"), u""},
                 {test::QpdfLinearize(plain, dir / "linear.pdf"), u""},
                 {test::QpdfEncrypt(plain, dir / "aes.pdf", "user", "owner", 256), u"user"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file.filename().string());
        test::WriteBytes(SidePath(c.file), std::string(100000, 'x'));
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(c.file), 0, c.password), hr::kOk);
        ::testing::internal::CaptureStderr();
        ASSERT_EQ(object.EnsurePdfDocument(), hr::kOk);
        ::testing::internal::GetCapturedStderr();
        ASSERT_EQ(object.Save(), hr::kOk) << object.LastErrorText();
        EXPECT_FALSE(object.IsDocumentOpen()) << "a save closes the document";
        EXPECT_FALSE(stdfs::exists(SidePath(c.file)));
        const std::string qpdf = "qpdf --password=user ";
        EXPECT_EQ(test::Run(qpdf + "--check " + test::Quote(c.file)).exit_code, 0);
        const std::string security =
            test::Run(qpdf + "--show-encryption " + test::Quote(c.file)).output;
        EXPECT_NE(security.find(c.password->empty() ? "File is not encrypted" : "R = 6"),
                  std::string::npos)
            << security;
        if (c.password->empty()) {
            EXPECT_EQ(test::PdfPageTexts(c.file),
                      (std::vector<std::string>{"Alpha page", "Beta page"}));
        }
        // The next page method opens the new file.
        std::int32_t pages = 0;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.PageCount(&pages), hr::kOk);
        ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(pages, 2);
    }
}

// Only an open document is written: one never opened, or closed by the last save, is not.
TEST(Save, NothingOpenedMeansNothingWritten) {
    CZPdfContentObject object;
    EXPECT_EQ(object.Save(), hr::kUnexpected) << "no document";
    const stdfs::path file = test::TextPdf(test::ScratchDir() / "doc.pdf", {"x"});
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    const auto save_writes_nothing = [&] {
        const std::string bytes = test::ReadBytes(file);
        const auto written = stdfs::last_write_time(file);
        EXPECT_EQ(object.Save(), hr::kOk);
        EXPECT_EQ(test::ReadBytes(file), bytes);
        EXPECT_EQ(stdfs::last_write_time(file), written);
    };
    save_writes_nothing();
    ASSERT_NO_FATAL_FAILURE(test::OpenQuietly(object, file));
    ASSERT_EQ(object.Save(), hr::kOk);
    save_writes_nothing();
}

}  // namespace
}  // namespace zpdf
