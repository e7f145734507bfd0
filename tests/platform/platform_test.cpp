// Platform seams: text conversion, result codes, the raster device and the PNG stream.
#include <gtest/gtest.h>

#include <zlib.h>

#include <cstring>

#include "platform/files.h"
#include "platform/hresult.h"
#include "platform/png_device_context.h"
#include "platform/raster.h"
#include "platform/text.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

TEST(Text, Utf16AndUtf8RoundTrip) {
    const struct {
        std::u16string wide;
        std::string narrow;
    } cases[] = {
        {u"", ""},
        {u"plain.pdf", "plain.pdf"},
        {u"Gr\u00fc\u00dfe",
         "Gr\xC3\xBC\xC3\x9F"
         "e"},
        {u"\u20AC 5", "\xE2\x82\xAC 5"},
        {u"\U0001F600", "\xF0\x9F\x98\x80"},  // a surrogate pair
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Utf16ToUtf8(c.wide), c.narrow);
        EXPECT_EQ(Utf8ToUtf16(c.narrow), c.wide);
    }
    // Broken input becomes replacement characters instead of being dropped or overrun.
    EXPECT_EQ(Utf8ToUtf16("a\xC3"), u"a\uFFFD");
    EXPECT_EQ(Utf8ToUtf16("\xFF"
                          "b"),
              u"\uFFFD"
              "b");
    EXPECT_EQ(Utf16ToUtf8(std::u16string(1, u'\xD800')), "\xEF\xBF\xBD");
}

TEST(ResultCodes, Win32ErrorsBecomeHResults) {
    const struct {
        std::int32_t error;
        HResult expected;
    } cases[] = {
        {0, 0},
        {2, static_cast<HResult>(0x80070002u)},
        {5, static_cast<HResult>(0x80070005u)},
        {0x12345, static_cast<HResult>(0x80072345u)},  // only the low 16 bits are kept
        {-5, -5},                                      // already negative: unchanged
        {static_cast<std::int32_t>(0x8000FFFFu), hr::kUnexpected},
    };
    for (const auto& c : cases) EXPECT_EQ(hr::FromWin32(c.error), c.expected) << c.error;
    EXPECT_EQ(FormatHResult(hr::kUnexpected), "0x8000FFFF");
}

TEST(Raster, CompositesPremultipliedPixelsAndClipsToItsBounds) {
    RasterDeviceContext dc(4, 2);
    // Opaque black, half-transparent black, fully transparent: over white.
    const std::uint8_t band[] = {0, 0, 0, 255, 0, 0, 0, 128, 0, 0, 0, 0};
    ASSERT_TRUE(dc.DrawBgra(-1, 1, 3, 1, band, sizeof band));  // first pixel falls off the left
    EXPECT_EQ(dc.Pixel(0, 1)[0], 127);
    EXPECT_EQ(dc.Pixel(1, 1)[0], 255);
    EXPECT_EQ(dc.Pixel(0, 0)[0], 255) << "rows outside the band stay white";
    ASSERT_TRUE(dc.DrawBgra(3, 0, 3, 1, band, sizeof band));
    EXPECT_EQ(dc.Pixel(3, 0)[0], 0);
}

TEST(Raster, MappingSaveAndRestore) {
    RasterDeviceContext dc(100, 100);
    dc.SetMapping({{10, 10}, {5, 5}, {2, 2}, {1, 1}});
    DevicePoint p{30, 50};
    ASSERT_TRUE(dc.LogicalToDevice(&p, 1));
    EXPECT_EQ(p.x, 15);
    EXPECT_EQ(p.y, 25);
    const int token = dc.SaveState();
    ASSERT_TRUE(dc.SetTextMapping());
    p = {30, 50};
    dc.LogicalToDevice(&p, 1);
    EXPECT_EQ(p.x, 25) << "text mapping keeps the origins";
    ASSERT_TRUE(dc.RestoreState(token));
    p = {30, 50};
    dc.LogicalToDevice(&p, 1);
    EXPECT_EQ(p.x, 15);
    EXPECT_FALSE(dc.RestoreState(token)) << "a state restores once";
}

// Inflates the IDAT data of a PNG file and returns its raw scanlines.
std::string PngScanlines(const std::string& png, int* width, int* height) {
    std::string idat;
    std::size_t pos = 8;
    while (pos + 8 <= png.size()) {
        const auto* p = reinterpret_cast<const unsigned char*>(png.data() + pos);
        const std::size_t length = (std::size_t{p[0]} << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
        const std::string type = png.substr(pos + 4, 4);
        if (type == "IHDR") {
            const auto* h = p + 8;
            *width = (h[0] << 24) | (h[1] << 16) | (h[2] << 8) | h[3];
            *height = (h[4] << 24) | (h[5] << 16) | (h[6] << 8) | h[7];
        }
        if (type == "IDAT") idat += png.substr(pos + 8, length);
        pos += 12 + length;
    }
    std::string raw(static_cast<std::size_t>(*width * 3 + 1) * static_cast<std::size_t>(*height),
                    '\0');
    uLongf size = static_cast<uLongf>(raw.size());
    EXPECT_EQ(
        uncompress(reinterpret_cast<Bytef*>(raw.data()), &size,
                   reinterpret_cast<const Bytef*>(idat.data()), static_cast<uLong>(idat.size())),
        Z_OK);
    raw.resize(size);
    return raw;
}

TEST(Png, StreamedBandsLandInTheirRows) {
    const auto dir = test::ScratchDir();
    const auto path = dir / "bands.png";
    const std::uint8_t red[] = {0, 0, 255, 255, 0, 0, 255, 255};  // BGRA
    {
        PngDeviceContext unfinished;
        ASSERT_EQ(unfinished.Open(path, 3, 4, 72), 0);
        ASSERT_TRUE(unfinished.DrawBgra(1, 1, 2, 1, red, sizeof red));
        EXPECT_FALSE(unfinished.DrawBgra(0, 0, 1, 1, red, sizeof red)) << "rows already written";
        EXPECT_FALSE(std::filesystem::exists(path))
            << "nothing appears before the image is complete";
    }
    EXPECT_TRUE(test::FilesStartingWith(dir, "bands").empty())
        << "an unfinished image leaves nothing";

    PngDeviceContext png;
    ASSERT_EQ(png.Open(path, 3, 4, 72), 0);
    ASSERT_TRUE(png.DrawBgra(1, 1, 2, 1, red, sizeof red));
    ASSERT_EQ(png.Finish(), 0);
    int width = 0;
    int height = 0;
    const std::string raw = PngScanlines(test::ReadBytes(path), &width, &height);
    ASSERT_EQ(width, 3);
    ASSERT_EQ(height, 4);
    ASSERT_EQ(raw.size(), 40u);
    const auto pixel = [&](int x, int y) {
        return raw.substr(static_cast<std::size_t>(y * 10 + 1 + x * 3), 3);
    };
    EXPECT_EQ(pixel(0, 0), "\xFF\xFF\xFF");
    EXPECT_EQ(pixel(0, 1), "\xFF\xFF\xFF");
    EXPECT_EQ(pixel(1, 1), std::string("\xFF\x00\x00", 3));
    EXPECT_EQ(pixel(2, 3), "\xFF\xFF\xFF");
}

TEST(Files, TemporaryCopiesAndLiteralNames) {
    const auto dir = test::ScratchDir();
    const auto source = dir / "source.bin";
    test::WriteBytes(source, "bytes");
    std::filesystem::path copy;
    ASSERT_EQ(fs::MakeTempCopy(source, &copy), 0);
    EXPECT_EQ(copy.filename().string().rfind("zpf", 0), 0u);
    EXPECT_EQ(test::ReadBytes(copy), "bytes");
    std::filesystem::remove(copy);

    EXPECT_EQ(fs::MakeTempCopy(dir / "missing.bin", &copy), fs::kErrorFileNotFound);
    // Names are literal: brackets and stars are characters of the name, not a pattern.
    test::WriteBytes(dir / "report[1].pdf", "x");
    EXPECT_TRUE(fs::FileExists(dir / "report[1].pdf"));
    EXPECT_FALSE(fs::FileExists(dir / "sour*.bin"));
    EXPECT_FALSE(fs::FileExists(dir));
    EXPECT_FALSE(fs::FileExists(""));
}

}  // namespace
}  // namespace zpdf
