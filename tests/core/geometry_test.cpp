// Page count, page sizes and drawing, checked by pixels.
#include <gtest/gtest.h>

#include "core/open_object.h"
#include "platform/raster.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests
constexpr std::int32_t kWholePage = CZPdfContentObject::kDrawWholePage;

// A 200 x 300 pt page with a black square from (50,100) to (100,150) in page space (y up), so at
// 72 dpi its pixels are x 50..99 and y 150..199 (y down); and that page rotated, and cropped.
Path SquarePages() {
    const std::string square = samples::FilledRect(50, 100, 50, 50);
    const Path file = ScratchDir() / "square.pdf";
    EXPECT_TRUE(samples::WriteFile(
        file, samples::BuildPdf({{200, 300, 0, square, ""},
                                 {200, 300, 90, square, ""},
                                 {200, 300, 0, square, "/CropBox [10 20 110 70]"}})));
    return file;
}

// Without a document the answers are neutral; pages the document does not have are refused.
TEST(Geometry, NeutralAnswersAndRefusals) {
    Obj none, object;
    OpenQuietly(object, SquarePages());
    EXPECT_EQ(Pages(none), 0);
    EXPECT_EQ(PageSize(none, 1), Size(0, 0));
    EXPECT_EQ(none.PageCount(nullptr), hr::kPointer);
    double width = 5;
    EXPECT_EQ(object.GetPageSize(1, nullptr, &width), hr::kPointer);
    EXPECT_EQ(object.GetPageSize(1, &width, nullptr), hr::kPointer);
    EXPECT_EQ(object.GetPageSize(4, &width, &width), hr::kInvalidArg);
    EXPECT_EQ(width, 0.0);
    EXPECT_EQ(PageSize(object, 0), Size(-1, -1));
    RasterDeviceContext dc(20, 20);
    EXPECT_EQ(none.DrawPageToDC(dc, 1, 0, 0, 20, 20, 0, 0, 0, 0, 0), hr::kFalse);
    EXPECT_EQ(object.DrawPageToDC(dc, 4, 0, 0, 20, 20, 0, 0, 0, 0, 0), hr::kInvalidArg);
    EXPECT_EQ(object.DrawPageToDC(dc, 0, 0, 0, 20, 20, 0, 0, 0, 0, kWholePage), hr::kUnexpected);
    EXPECT_EQ(dc.DrawCalls(), 0u);
    EXPECT_EQ(none.OverlayPrepare(u"whatever.pdf"), hr::kNotImpl);  // overlays are not offered
    EXPECT_EQ(none.OverlayPage(1, 1, 0, 0, 10, 10), hr::kNotImpl);
    EXPECT_EQ(none.OverlayPage2(1, 1, 0, 0, 10, 10, 1), hr::kNotImpl);
    EXPECT_EQ(none.OverlayFinish(), hr::kNotImpl);
    // Sizes as the page shows: turned, and cut to the crop box.
    EXPECT_EQ(PageSize(object, 1), Size(200, 300));
    EXPECT_EQ(PageSize(object, 2), Size(300, 200));
    EXPECT_EQ(PageSize(object, 3), Size(100, 50));
}

// Large drawings are cut into bands of bounded size: at 8 pixels per point a band holds 1310 rows
// of the page, and the second starts inside the square.
TEST(Drawing, SquareLandsWhereThePageSaysAndTheDrawRectangleClips) {
    // `scale` device pixels per point; the page rectangle at `left`, `top` on the device; the
    // draw rectangle `draw_width` wide at the device's origin (0: none); `right_half` of the
    // square drawn.
    const struct {
        const char* name;
        int scale, left, top, draw_width;
        std::int32_t options;
        bool right_half;
    } cases[] = {
        {"72 dpi", 1, 0, 0, 0, 0, true},
        {"144 dpi, moved", 2, 30, 17, 0, 0, true},
        {"576 dpi, in bands", 8, 0, 0, 0, 0, true},
        {"whole-page option", 2, 0, 0, 0, kWholePage, true},
        {"draw rectangle on the left half", 1, 0, 0, 75, 0, false},
        {"whole-page option, draw rectangle ignored", 1, 0, 0, 75, kWholePage, true},
        {"negative draw rectangle, ignored", 1, 0, 0, -5, 0, true},
    };
    Obj object;
    OpenQuietly(object, SquarePages());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        RasterDeviceContext dc(200 * c.scale + c.left + 10, 300 * c.scale + c.top + 10);
        ASSERT_EQ(object.DrawPageToDC(dc, 1, c.left, c.top, 200 * c.scale, 300 * c.scale, 0, 0,
                                      c.draw_width, c.draw_width == 0 ? 0 : 300, c.options),
                  hr::kOk)
            << object.LastErrorText();
        EXPECT_LE(static_cast<std::size_t>(dc.TallestBand()) * 800 * c.scale,
                  CZPdfContentObject::kBandBytes);
        // Dark everywhere inside the square (its left half when clipped), nowhere outside it.
        const int x0 = c.left + 50 * c.scale, y0 = c.top + 150 * c.scale, side = 50 * c.scale;
        const int right = c.right_half ? x0 + side - 1 : 74;
        int missing = 0, outside = 0;
        for (int y = 0; y < dc.Height(); ++y)
            for (int x = 0; x < dc.Width(); ++x) {
                const bool dark = dc.Pixel(x, y)[1] < 64;
                if (x > x0 && x < right && y > y0 && y < y0 + side - 1) missing += !dark;
                if (x < x0 - 1 || x > x0 + side || y < y0 - 1 || y > y0 + side) outside += dark;
            }
        EXPECT_EQ(missing, 0);
        EXPECT_EQ(outside, 0);
        EXPECT_EQ(dc.Pixel(x0 + side - 2, y0 + side / 2)[1] < 64, c.right_half);
    }
}

}  // namespace
}  // namespace zpdf
