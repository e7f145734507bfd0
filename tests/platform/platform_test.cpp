// Platform seams: text conversion, result codes, the raster device and the PNG stream.
#include <gtest/gtest.h>

#include <zlib.h>

#include "platform/hresult.h"
#include "platform/png_device_context.h"
#include "platform/raster.h"
#include "platform/text.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

TEST(Text, Utf16AndUtf8) {
    const std::pair<std::u16string, std::string> round_trips[] = {
        {u"", ""},
        {u"Gr\u00fc\u00df!", "Gr\xC3\xBC\xC3\x9F!"},
        {u"\u20AC 5", "\xE2\x82\xAC 5"},
        {u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},  // a surrogate pair, both halves at their top
        {u"\u0080\u07FF\U00010000", "\xC2\x80\xDF\xBF\xF0\x90\x80\x80"},  // length edges
    };
    for (const auto& [wide, narrow] : round_trips) {
        EXPECT_EQ(Utf16ToUtf8(wide), narrow);
        EXPECT_EQ(Utf8ToUtf16(narrow), wide);
    }
    // Broken input becomes replacement characters instead of being dropped or overrun.
    EXPECT_EQ(Utf8ToUtf16("a\xC3"), u"a\uFFFD");
    EXPECT_EQ(Utf8ToUtf16("\xFFz"), u"\uFFFDz");
    EXPECT_EQ(Utf16ToUtf8(std::u16string(1, u'\xD800')), "\xEF\xBF\xBD");
}

TEST(ResultCodes, Win32ErrorsBecomeHResults) {
    // Only the low 16 bits are kept; an already negative code stays as it is.
    const std::pair<std::int32_t, std::uint32_t> cases[] = {
        {0, 0}, {5, 0x80070005u}, {0x12345, 0x80072345u}, {-5, 0xFFFFFFFBu}};
    for (const auto& [error, expected] : cases)
        EXPECT_EQ(hr::FromWin32(error), static_cast<HResult>(expected)) << error;
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

// The raw scanlines of a PNG file (a filter byte and RGB per row), inflated from its IDAT data.
std::string PngScanlines(const std::string& png, std::size_t size) {
    std::string idat;
    for (std::size_t pos = 8; pos + 8 <= png.size();) {
        const auto* p = reinterpret_cast<const unsigned char*>(png.data() + pos);
        const std::size_t length = (std::size_t{p[0]} << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
        if (png.compare(pos + 4, 4, "IDAT") == 0) idat += png.substr(pos + 8, length);
        pos += 12 + length;
    }
    std::string raw(size + 1, '\0');
    uLongf got = static_cast<uLongf>(raw.size());
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(raw.data()), &got,
                         reinterpret_cast<const Bytef*>(idat.data()), idat.size()),
              Z_OK);
    return raw.substr(0, got);
}

TEST(Png, StreamedBandsLandInTheirRows) {
    const auto dir = test::ScratchDir(), path = dir / "bands.png";
    const std::uint8_t red[] = {0, 0, 255, 255, 0, 0, 255, 255};  // BGRA
    {
        PngDeviceContext unfinished;
        ASSERT_EQ(unfinished.Open(path, 3, 4, 72), 0);
        ASSERT_TRUE(unfinished.DrawBgra(1, 1, 2, 1, red, sizeof red));
        EXPECT_FALSE(unfinished.DrawBgra(0, 0, 1, 1, red, sizeof red)) << "rows already written";
    }
    EXPECT_TRUE(test::FilesStartingWith(dir, "bands").empty())
        << "an unfinished image leaves nothing";

    PngDeviceContext png;
    ASSERT_EQ(png.Open(path, 3, 4, 72), 0);
    ASSERT_TRUE(png.DrawBgra(1, 1, 2, 1, red, sizeof red));
    ASSERT_EQ(png.Finish(), 0);
    const std::string file = test::ReadBytes(path);
    EXPECT_EQ(file.substr(16, 8), std::string("\0\0\0\3\0\0\0\4", 8)) << "3 x 4 pixels";
    // Rows unfiltered: a zero, then RGB; the two red pixels on row 1.
    const std::string white = std::string(1, '\0') + std::string(9, '\xFF');
    EXPECT_EQ(PngScanlines(file, 40),
              white + std::string("\0\xFF\xFF\xFF\xFF\0\0\xFF\0\0", 10) + white + white);
}

}  // namespace
}  // namespace zpdf
