// The document holder: setting a document, opening it with passwords, load diagnostics, closing,
// saving only what was opened; page count, page sizes and drawing, checked by pixels; and the
// file handles it holds while a document is open, every one given back by every road that
// closes the documents (the failing ones too).
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/open_object.h"
#include "engine/engine.h"
#include "platform/files.h"
#include "platform/raster.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests

TEST(Holder, RejectedPathKeepsTheEarlierDocument) {
    const Path dir = ScratchDir();
    const OptionalText good = FromPath(TextPdf(dir / "good.pdf", {"one"}));
    for (const OptionalText& path : std::initializer_list<OptionalText>{
             std::nullopt, FromPath(dir / "missing.pdf"), FromPath(dir)}) {
        Obj object;
        OptionalText held = std::nullopt;
        ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
        EXPECT_EQ(held, OptionalText(u"")) << "a new object holds the empty path, not null";
        ASSERT_EQ(object.SetPdfDocument(good, 0, u"pw"), hr::kOk);
        EXPECT_EQ(object.SetPdfDocument(path, -1, u"other"), hr::kInvalidArg);
        ASSERT_EQ(object.GetPdfDocument(&held), hr::kOk);
        EXPECT_EQ(held, good);
        EXPECT_EQ(object.PasswordText(), OptionalText(u"pw"));
    }
}

// Documents of every kind the holder meets, the password given, and what loading says: the
// calls that need the document open it once, or try again when it failed.
TEST(Holder, LoadingTable) {
    const Path dir = ScratchDir();
    const Path plain = TextPdf(dir / "plain.pdf", {"first", "second"});
    const Path aes128 = QpdfEncrypt(plain, dir / "aes128.pdf", "user", "owner", 128);
    WriteBytes(dir / "garbage.pdf", std::string(4096, '\x17') + "not a pdf at all");
    const std::string kNonLinear = "Non-linearized path...\n",
                      kFailed = "Load pdf docs unsuccessful: ",
                      kPassword = kFailed + "Password required or incorrect password.\n",
                      kDamaged = kFailed + "File not in PDF format or corrupted.\n";
    const struct Case {
        Path file;
        OptionalText password;
        int pages;                // -1: refused
        std::string diagnostics;  // of one attempt to open
    } cases[] = {
        {plain, u"", 2, kNonLinear},
        {aes128, std::nullopt, -1, kNonLinear + kPassword},
        {aes128, u"user", 2, kNonLinear},
        {dir / "garbage.pdf", u"", -1, kNonLinear + kDamaged},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.filename().string());
        Obj object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(c.file), 0, c.password), hr::kOk);
        std::int32_t pages = -1;
        double width = 0, height = 0;
        const HResult result = c.pages < 0 ? hr::kUnexpected : hr::kOk;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(object.GetPageSize(1, &width, &height), result);
        EXPECT_EQ(object.PageCount(&pages), result);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  c.pages < 0 ? c.diagnostics + c.diagnostics : c.diagnostics);
        EXPECT_EQ(pages, std::max(c.pages, 0));
    }
    EXPECT_EQ(LoadErrorText(42), "Unknown error 42");
}

// Only an open document is written: one closed by the last save (as one never opened) is not.
TEST(Save, NothingOpenedMeansNothingWritten) {
    Obj object;
    EXPECT_EQ(object.Save(), hr::kUnexpected) << "no document";
    const Path file = TextPdf(ScratchDir() / "doc.pdf", {"x"});
    OpenQuietly(object, file);
    ASSERT_EQ(object.Save(), hr::kOk);
    const auto written = stdfs::last_write_time(file);
    EXPECT_EQ(object.Save(), hr::kOk);
    EXPECT_EQ(stdfs::last_write_time(file), written);
}

constexpr std::int32_t kWholePage = CZPdfContentObject::kDrawWholePage;

// Without a document the answers are neutral; pages the document does not have are refused.
// The square lands where the page says, and the draw rectangle clips it.
TEST(Geometry, SizesAndDrawing) {
    // A 200 x 300 pt page with a black square from (50,100) to (100,150) in page space (y up),
    // so at 72 dpi its pixels are x 50..99 and y 150..199 (y down); and that page rotated, and
    // cropped.
    const std::string square = samples::FilledRect(50, 100, 50, 50);
    const Path file = ScratchDir() / "square.pdf";
    ASSERT_TRUE(samples::WriteFile(
        file, samples::BuildPdf({{200, 300, 0, square, ""},
                                 {200, 300, 90, square, ""},
                                 {200, 300, 0, square, "/CropBox [10 20 110 70]"}})));
    Obj none, object;
    OpenQuietly(object, file);
    EXPECT_EQ(Pages(none), 0);
    EXPECT_EQ(PageSize(none, 1), Size(0, 0));
    EXPECT_EQ(none.PageCount(nullptr), hr::kPointer);
    double width = 5;
    EXPECT_EQ(object.GetPageSize(1, nullptr, &width), hr::kPointer);
    EXPECT_EQ(object.GetPageSize(4, &width, &width), hr::kInvalidArg);
    EXPECT_EQ(width, 0.0);
    EXPECT_EQ(PageSize(object, 0), Size(-1, -1));
    RasterDeviceContext small(20, 20);
    EXPECT_EQ(none.DrawPageToDC(small, 1, 0, 0, 20, 20, 0, 0, 0, 0, 0), hr::kFalse);
    EXPECT_EQ(object.DrawPageToDC(small, 4, 0, 0, 20, 20, 0, 0, 0, 0, 0), hr::kInvalidArg);
    EXPECT_EQ(object.DrawPageToDC(small, 0, 0, 0, 20, 20, 0, 0, 0, 0, kWholePage), hr::kUnexpected);
    // Sizes as the page shows: turned, and cut to the crop box.
    EXPECT_EQ(PageSize(object, 1), Size(200, 300));
    EXPECT_EQ(PageSize(object, 2), Size(300, 200));
    EXPECT_EQ(PageSize(object, 3), Size(100, 50));

    // Large drawings are cut into bands of bounded size: at 8 pixels per point a band holds
    // 1310 rows of the page, and the second starts inside the square. `scale` device pixels per
    // point; the page rectangle at `left`, `top` on the device; the draw rectangle `draw_width`
    // wide at the device's origin (0: none); `right_half` of the square drawn.
    const struct {
        const char* name;
        int scale, left, top, draw_width;
        std::int32_t options;
        bool right_half;
    } cases[] = {
        {"576 dpi, moved, in bands", 8, 30, 17, 0, 0, true},
        {"draw rectangle on the left half", 1, 0, 0, 75, 0, false},
        {"whole-page option, draw rectangle ignored", 1, 0, 0, 75, kWholePage, true},
    };
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

// Open descriptors of this process (the listing's own one included, every time alike).
int OpenDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : stdfs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

// Opens `file`, and with `draw` draws and measures it too.
void Open(Obj& object, const Path& file, bool draw = false) {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, u""), hr::kOk);
    ASSERT_GT(Pages(object), 0) << object.LastErrorText();
    RasterDeviceContext dc(100, 140);
    if (!draw) return;
    ASSERT_EQ(object.DrawPageToDC(dc, 1, 0, 0, 100, 140, 0, 0, 0, 0, 0), hr::kOk);
    ASSERT_EQ(PageSize(object, 2), Size(595, 842));
}

TEST(OpenHandles, EveryRoadThatClosesGivesTheHandlesBack) {
    // Three pages that each end a part for the split, and one page.
    const Path dir = ScratchDir();
    const Path document =
        LabelledPdf(dir / "document.pdf", {"one @@nd@@", "two @@nd@@", "three @@nd@@"});
    const Path extra = LabelledPdf(dir / "extra.pdf", {"extra"});
    std::unique_ptr<Obj> object;
    Obj source;
    std::int32_t parts = 0;
    const auto save = [&] { return object->Save(); };
    const auto close = [&](HResult result) { return object->CloseDocuments(), result; };
    // `open` leaves documents open, holding `held` handles; `close` closes them and gives
    // `result`.
    const struct {
        const char* name;
        std::function<void()> open;
        int held;
        std::function<HResult()> close;
        HResult result = hr::kOk;
    } cases[] = {
        {"drawn, CloseDocuments", [&] { Open(*object, document, true); }, 1,
         [&] { return close(hr::kOk); }},
        // The appended pages are read from a private copy of the source until the save.
        {"appended pages, Save, CloseDocuments of the source",
         [&] {
             Open(*object, document);
             Open(source, extra);
             ASSERT_EQ(object->AppendPages(&source), hr::kOk);
         },
         3, [&] { return save() == hr::kOk ? (source.CloseDocuments(), hr::kOk) : hr::kFail; }},
        {"Save failing at a write, CloseDocuments", [&] { Open(*object, document); }, 1,
         [&] { return close(Failing(fs::FileOp::Write, save)); }, hr::kFail},
        {"SplitPdf", [] {}, 0,
         [&] { return object->SplitPdf(FromPath(document), FromPath(dir / "part"), &parts); }},
    };

    ::testing::internal::CaptureStderr();
    // Whatever the engine opens once per process (and keeps) is opened before counting.
    object = std::make_unique<Obj>();
    Open(*object, document, true);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        object = std::make_unique<Obj>();
        const int before = OpenDescriptors();
        c.open();
        EXPECT_EQ(OpenDescriptors(), before + c.held) << "while open";
        EXPECT_EQ(c.close(), c.result);
        EXPECT_EQ(OpenDescriptors(), before) << "after closing";
    }
    object.reset();
    ::testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace zpdf
