// Opening the document of a content object in a test, the engine's warnings kept off the
// test's output.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>

#include "content_object/content_object.h"
#include "platform/text.h"

namespace zpdf::test {

inline void OpenQuietly(CZPdfContentObject& object, const std::filesystem::path& file) {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    ::testing::internal::CaptureStderr();
    const HResult result = object.EnsurePdfDocument();
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(result, hr::kOk) << object.LastErrorText();
}

}  // namespace zpdf::test
