// Page count, page sizes and drawing, checked by pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/raster.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

stdfs::path WriteSample(const stdfs::path& path, const std::vector<samples::SamplePage>& pages) {
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(pages)));
    return path;
}

// Opens `file` quietly (the load diagnostics are not under test here).
void Open(CZPdfContentObject& object, const stdfs::path& file) {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    std::int32_t pages = 0;
    ::testing::internal::CaptureStderr();
    const HResult result = object.PageCount(&pages);
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(result, hr::kOk) << object.LastErrorText();
}

TEST(Geometry, NoDocumentAnswersNeutrally) {
    CZPdfContentObject object;
    std::int32_t pages = 7;
    double width = 1;
    double height = 1;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk);
    EXPECT_EQ(pages, 0);
    EXPECT_EQ(object.GetPageSize(1, &width, &height), hr::kOk);
    EXPECT_EQ(width, 0.0);
    EXPECT_EQ(height, 0.0);
    RasterDeviceContext dc(10, 10);
    EXPECT_EQ(object.DrawPageToDC(dc, 1, 0, 0, 10, 10, 0, 0, 0, 0, 0), hr::kFalse);
    EXPECT_EQ(dc.DrawCalls(), 0u);
    EXPECT_EQ(object.PageCount(nullptr), hr::kPointer);
    EXPECT_EQ(object.GetPageSize(1, nullptr, &height), hr::kPointer);
    EXPECT_EQ(object.GetPageSize(1, &width, nullptr), hr::kPointer);
}

TEST(Geometry, PageSizesFollowRotationAndCropBox) {
    std::vector<samples::SamplePage> pages(6);
    pages[0] = {200, 300, 0, "", ""};
    pages[1] = {200, 300, 90, "", ""};
    pages[2] = {200, 300, 180, "", ""};
    pages[3] = {200, 300, 270, "", ""};
    pages[4] = {200, 300, -90, "", ""};
    pages[5] = {200, 300, 0, "", "/CropBox [10 20 110 70]"};
    const stdfs::path file = WriteSample(test::ScratchDir() / "sizes.pdf", pages);
    CZPdfContentObject object;
    Open(object, file);
    const struct {
        double width;
        double height;
    } expected[] = {{200, 300}, {300, 200}, {200, 300}, {300, 200}, {300, 200}, {100, 50}};
    for (int page = 1; page <= 6; ++page) {
        SCOPED_TRACE(page);
        double width = 0;
        double height = 0;
        ASSERT_EQ(object.GetPageSize(page, &width, &height), hr::kOk);
        EXPECT_DOUBLE_EQ(width, expected[page - 1].width);
        EXPECT_DOUBLE_EQ(height, expected[page - 1].height);
    }
    double width = 5;
    double height = 5;
    EXPECT_EQ(object.GetPageSize(0, &width, &height), hr::kInvalidArg);
    EXPECT_EQ(object.GetPageSize(7, &width, &height), hr::kInvalidArg);
    EXPECT_EQ(width, 0.0);
}

// A 200 x 300 pt page with a black square from (50,100) to (100,150) in page space (y up), so at
// 72 dpi its pixels are x 50..99 and y 150..199 (y down).
stdfs::path SquarePage(const stdfs::path& dir) {
    samples::SamplePage page{200, 300, 0, samples::FilledRect(50, 100, 50, 50), ""};
    return WriteSample(dir / "square.pdf", {page});
}

bool IsDark(const RasterDeviceContext& dc, int x, int y) {
    return dc.Pixel(x, y)[1] < 64;
}
bool IsWhite(const RasterDeviceContext& dc, int x, int y) {
    return dc.Pixel(x, y)[1] > 240;
}

// Counts dark pixels and checks that each lies inside [x0,x1) x [y0,y1).
int DarkPixelsOutside(const RasterDeviceContext& dc, int x0, int y0, int x1, int y1, int* dark) {
    int outside = 0;
    *dark = 0;
    for (int y = 0; y < dc.Height(); ++y) {
        for (int x = 0; x < dc.Width(); ++x) {
            if (!IsDark(dc, x, y)) continue;
            ++*dark;
            if (x < x0 || x >= x1 || y < y0 || y >= y1) ++outside;
        }
    }
    return outside;
}

TEST(Drawing, SquareLandsWhereThePageSaysAtEveryScale) {
    const stdfs::path file = SquarePage(test::ScratchDir());
    struct Case {
        const char* name;
        int scale;  // device pixels per point
        int left;   // page rectangle position on the device
        int top;
        std::int32_t options;
    } cases[] = {
        {"72 dpi", 1, 0, 0, 0},
        {"144 dpi", 2, 0, 0, 0},
        {"144 dpi offset", 2, 30, 17, 0},
        {"whole-page option", 2, 0, 0, CZPdfContentObject::kDrawWholePage},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        Open(object, file);
        RasterDeviceContext dc(200 * c.scale + c.left + 10, 300 * c.scale + c.top + 10);
        ASSERT_EQ(object.DrawPageToDC(dc, 1, c.left, c.top, 200 * c.scale, 300 * c.scale, 0, 0, 0,
                                      0, c.options),
                  hr::kOk)
            << object.LastErrorText();
        const int x0 = c.left + 50 * c.scale;
        const int y0 = c.top + 150 * c.scale;
        const int side = 50 * c.scale;
        int dark = 0;
        EXPECT_EQ(DarkPixelsOutside(dc, x0 - 1, y0 - 1, x0 + side + 1, y0 + side + 1, &dark), 0);
        EXPECT_GE(dark, (side - 2) * (side - 2));
        EXPECT_TRUE(IsDark(dc, x0 + 1, y0 + 1));
        EXPECT_TRUE(IsDark(dc, x0 + side - 2, y0 + side - 2));
        EXPECT_TRUE(IsWhite(dc, x0 - 3, y0 + side / 2));
        EXPECT_TRUE(IsWhite(dc, x0 + side / 2, y0 + side + 2));
    }
}

TEST(Drawing, DrawRectangleClipsExceptForWholePageOption) {
    const stdfs::path file = SquarePage(test::ScratchDir());
    // The draw rectangle covers the left half of the square only: x 0..74 at 72 dpi.
    struct Case {
        std::int32_t options;
        int draw_width;
        bool right_half_drawn;
    } cases[] = {
        {0, 75, false},
        {CZPdfContentObject::kDrawWholePage, 75, true},
        {0, 0, true},   // an empty draw rectangle draws the whole page rectangle
        {0, -5, true},  // and so does a negative one
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.options) + "/" + std::to_string(c.draw_width));
        CZPdfContentObject object;
        Open(object, file);
        RasterDeviceContext dc(200, 300);
        ASSERT_EQ(object.DrawPageToDC(dc, 1, 0, 0, 200, 300, 0, 0, c.draw_width,
                                      c.draw_width == 0 ? 0 : 300, c.options),
                  hr::kOk);
        EXPECT_TRUE(IsDark(dc, 60, 175));
        EXPECT_EQ(IsDark(dc, 90, 175), c.right_half_drawn);
    }
}

TEST(Drawing, PageNumbersOutsideTheDocument) {
    const stdfs::path file = SquarePage(test::ScratchDir());
    CZPdfContentObject object;
    Open(object, file);
    RasterDeviceContext dc(20, 20);
    EXPECT_EQ(object.DrawPageToDC(dc, 2, 0, 0, 20, 20, 0, 0, 0, 0, 0), hr::kInvalidArg);
    EXPECT_EQ(
        object.DrawPageToDC(dc, 0, 0, 0, 20, 20, 0, 0, 0, 0, CZPdfContentObject::kDrawWholePage),
        hr::kUnexpected);
    EXPECT_EQ(dc.DrawCalls(), 0u);
}

// A device that keeps nothing, to measure the bands a large drawing is cut into.
class BandCounter final : public DeviceContext {
  public:
    bool LogicalToDevice(DevicePoint*, int) override { return true; }
    int SaveState() override { return 1; }
    bool RestoreState(int) override { return true; }
    bool SetTextMapping() override { return true; }
    std::optional<DeviceRect> ClipBox() override { return std::nullopt; }
    bool DrawBgra(std::int32_t, std::int32_t y, int width, int height, const std::uint8_t*,
                  std::ptrdiff_t) override {
        largest = std::max(largest,
                           static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
        EXPECT_EQ(y, next_row);
        next_row = y + height;
        return true;
    }
    std::size_t largest = 0;
    std::int32_t next_row = 0;
};

TEST(Drawing, LargeTargetsAreDrawnInBoundedBands) {
    const stdfs::path file = SquarePage(test::ScratchDir());
    CZPdfContentObject object;
    Open(object, file);
    BandCounter counter;
    // An A3 sheet at 600 dpi: a whole-page buffer would take over 270 MB.
    const int width = 7016;
    const int height = 9921;
    ASSERT_EQ(object.DrawPageToDC(counter, 1, 0, 0, width, height, 0, 0, 0, 0, 0), hr::kOk);
    EXPECT_LE(counter.largest, CZPdfContentObject::kBandBytes);
    EXPECT_EQ(counter.next_row, height) << "the bands cover the page without gaps";
}

}  // namespace
}  // namespace zpdf
