// Helpers of the content object's tests: opening a document with the engine's warnings kept off
// the test's output, a temporary folder whose private copies can be counted, certificates.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "content_object/content_object.h"
#include "platform/files.h"
#include "platform/text.h"
#include "support/test_support.h"

namespace zpdf::test {

inline void OpenQuietly(CZPdfContentObject& object, const std::filesystem::path& file,
                        const OptionalText& password = u"") {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, password), hr::kOk);
    ::testing::internal::CaptureStderr();
    const HResult result = object.EnsurePdfDocument();
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(result, hr::kOk) << object.LastErrorText();
}

// The page count, the document opened as needed without its diagnostics; -1 when that fails.
inline int PageCountQuietly(CZPdfContentObject& object) {
    std::int32_t pages = 0;
    ::testing::internal::CaptureStderr();
    const HResult result = object.PageCount(&pages);
    ::testing::internal::GetCapturedStderr();
    return hr::Succeeded(result) ? pages : -1;
}

// A test whose private copies go to a temporary folder of its own, so that leftovers can be
// counted. The file fault hook is cleared after it.
class PrivateCopyTest : public ::testing::Test {
  protected:
    PrivateCopyTest() { std::filesystem::create_directories(tmp_); }
    void TearDown() override { fs::SetFaultHook(nullptr); }
    std::size_t PrivateCopies() const { return FilesStartingWith(tmp_, "zpf").size(); }

    const std::filesystem::path dir_ = ScratchDir();  // the test's files
    const std::filesystem::path tmp_ = dir_ / "tmp";  // its temporary folder
    const TempFolderOverride tmp_override_{tmp_};
};

// A self-signed certificate for `name` with a new key of `key` (an openssl -newkey argument),
// written as <name>-cert.pem and <name>-key.pem in `dir`; returns the certificate's PEM text.
inline OptionalText MakeCertificate(const std::filesystem::path& dir, const std::string& name,
                                    const std::string& key = "rsa:2048") {
    const std::filesystem::path certificate = dir / (name + "-cert.pem");
    const ToolResult made =
        Run("openssl req -x509 -newkey " + key + " -nodes -days 2 -subj '/CN=" + name +
            "' -keyout " + Quote(dir / (name + "-key.pem")) + " -out " + Quote(certificate));
    EXPECT_EQ(made.exit_code, 0) << made.output;
    return FromAnsi(ReadBytes(certificate));
}

}  // namespace zpdf::test
