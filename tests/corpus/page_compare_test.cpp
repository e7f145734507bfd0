// The page comparison of the corpus rendering comparison: what it reads, and where it draws the
// line between the same page and a different one.
#include "tests/corpus/page_compare.h"

#include <gtest/gtest.h>

#include <string>

namespace zpdf::corpus {
namespace {

TEST(PageCompare, ReadsBinaryPgmOnly) {
    const struct {
        const char* name;
        std::string bytes;
        int width = 0, height = 0;  // 0: not readable
        int first_pixel = 0;
    } cases[] = {
        {"plain header", "P5\n2 2\n255\n\x10\x20\x30\x40", 2, 2, 0x10},
        {"blanks between the numbers", "P5 2\t1  255\n\x7f\x01", 2, 1, 0x7f},
        {"ASCII gray map", "P2\n1 1\n255\n0"},
        {"pixels cut short", "P5\n2 2\n255\nabc"},
        {"maximum other than 255", "P5 1 1 15\n\x0f"},
        {"no blank after the header", "P5\n1 1\n255a"},
        {"zero width", "P5\n0 1\n255\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto image = ParsePgm(c.bytes);
        ASSERT_EQ(image.has_value(), c.width > 0);
        if (!image) continue;
        EXPECT_EQ(image->width, c.width);
        EXPECT_EQ(image->height, c.height);
        EXPECT_EQ(image->pixels.at(0), c.first_pixel);
    }
}

GrayImage White(int width, int height) {
    return GrayImage{width, height,
                     std::vector<unsigned char>(static_cast<std::size_t>(width * height), 255)};
}

TEST(PageCompare, ToleratesShadesAndPageBoxRoundingButNotContent) {
    const GrayImage page = White(100, 100);
    auto with = [](GrayImage image, int count, unsigned char shade) {
        for (int i = 0; i < count; ++i) image.pixels[static_cast<std::size_t>(i)] = shade;
        return image;
    };
    const struct {
        const char* name;
        GrayImage other;
        bool differs;
        std::size_t differing;
    } cases[] = {
        {"every pixel a shade lighter grey", with(page, 10000, 230), false, 0},
        {"twenty black pixels of ten thousand", with(page, 20, 0), false, 20},
        {"twenty-one black pixels", with(page, 21, 0), true, 21},
        {"one pixel wider from rounding", White(101, 100), false, 0},
        {"two pixels taller", White(100, 102), true, 0},
        {"a landscape page", White(100, 77), true, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const PageDifference d = ComparePages(page, c.other);
        EXPECT_EQ(d.renders_differently, c.differs);
        EXPECT_EQ(d.differing, c.differing);
    }
}

}  // namespace
}  // namespace zpdf::corpus
