// Placement values that cannot be written into a page's content are refused before anything
// changes: a non-finite or huge number would be written as "nan", "inf" or hundreds of digits,
// and a scale below what six decimals hold as a zero matrix.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <vector>

#include "content_object/content_object.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

TEST(PlacementValues, WritableValuesOnly) {
    constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
    constexpr float kInf = std::numeric_limits<float>::infinity();
    struct Case {
        float tx, ty, sx, sy;
        bool accepted;
    } cases[] = {
        {0, 0, 1, 1, true},      {-32767, 32767, -32767, 0.000001f, true},
        {kNan, 0, 1, 1, false},  {0, kInf, 1, 1, false},
        {0, 0, -kInf, 1, false}, {0, 0, 1, kNan, false},
        {32768, 0, 1, 1, false}, {0, -1e30f, 1, 1, false},
        {0, 0, 1e30f, 1, false}, {0, 0, 1e-7f, 1, false},
        {0, 0, 1, 0, false},
    };
    const std::filesystem::path dir = test::ScratchDir();
    const std::filesystem::path doc = test::TextPdf(dir / "doc.pdf", {"Body"});
    const std::filesystem::path head = test::TextPdf(dir / "head.pdf", {"Head"});
    ::testing::internal::CaptureStderr();
    CZPdfContentObject object;
    CZPdfContentObject letterhead;
    ASSERT_EQ(object.SetPdfDocument(FromPath(doc), 0, u""), hr::kOk);
    ASSERT_EQ(letterhead.SetPdfDocument(FromPath(head), 0, u""), hr::kOk);
    std::vector<std::uint32_t> forms;
    ASSERT_EQ(object.ImportContent(&letterhead, &forms), hr::kOk);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.tx << " " << c.ty << " " << c.sx << " " << c.sy);
        const HResult result = object.PlaceContent(forms[0], 1, c.tx, c.ty, c.sx, c.sy, 0);
        EXPECT_EQ(result, c.accepted ? hr::kOk : hr::kInvalidArg) << object.LastErrorText();
        EXPECT_EQ(PlacementValueProblem(c.tx, c.ty, c.sx, c.sy).has_value(), !c.accepted);
    }
    ASSERT_EQ(object.Save(), hr::kOk);
    ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(test::QpdfCheckPasses(doc));
    const std::string content =
        test::Run("qpdf --qdf --object-streams=disable " + test::Quote(doc) + " -").output;
    EXPECT_EQ(content.find("nan"), std::string::npos);
    EXPECT_EQ(content.find("inf "), std::string::npos);
}

}  // namespace
}  // namespace zpdf
