// Saving through the side file: results read back by independent tools. What a failing disk
// does to a save is in fault_injection_test.cpp.
#include <gtest/gtest.h>

#include <filesystem>

#include "core/open_object.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests

// Documents stored in other ways, and one with security of its own, which it keeps. A file
// beside it with the name ".part" added stays as it is; the next page method opens the new file.
TEST(Save, RoundTripIsReadableByOtherTools) {
    const Path dir = ScratchDir();
    const Path plain = TextPdf(dir / "plain.pdf", {"Alpha page", "Beta page"});
    for (const Path& file : {plain, QpdfObjectStreams(plain, dir / "objstm.pdf"),
                             QpdfLinearize(plain, dir / "linear.pdf"),
                             QpdfEncrypt(plain, dir / "aes.pdf", "user", "owner", 256)}) {
        SCOPED_TRACE(file.filename().string());
        const bool encrypted = file.filename() == "aes.pdf";
        // A user's file with the name of an older side file is not the save's to touch.
        const Path side = file.string() + ".part";
        WriteBytes(side, "the user's own file");
        Obj object;
        OpenQuietly(object, file, encrypted ? u"user" : u"");
        ASSERT_EQ(object.Save(), hr::kOk) << object.LastErrorText();
        EXPECT_FALSE(object.IsDocumentOpen()) << "a save closes the document";
        EXPECT_EQ(ReadBytes(side), "the user's own file");
        EXPECT_EQ(test::Run("qpdf --password=user --check " + Quote(file)).exit_code, 0);
        EXPECT_NE(test::Run("qpdf --password=user --show-encryption " + Quote(file))
                      .output.find(encrypted ? "R = 6" : "File is not encrypted"),
                  std::string::npos);
        const std::vector<std::string> texts = {"Alpha page", "Beta page"};
        EXPECT_EQ(encrypted ? texts : PdfPageTexts(file), texts);
        EXPECT_EQ(Pages(object), 2);
    }
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
        const auto written = stdfs::last_write_time(file);
        EXPECT_EQ(object.Save(), hr::kOk);
        EXPECT_EQ(ReadBytes(file), bytes);
        EXPECT_EQ(stdfs::last_write_time(file), written);
    }
}

}  // namespace
}  // namespace zpdf
