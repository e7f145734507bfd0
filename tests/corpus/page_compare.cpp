#include "tests/corpus/page_compare.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace zpdf::corpus {
namespace {

// Reads the next number of a PGM header, skipping blanks and comments; -1 when there is none.
long HeaderNumber(const std::string& bytes, std::size_t* at) {
    while (*at < bytes.size()) {
        const unsigned char c = static_cast<unsigned char>(bytes[*at]);
        if (c == '#') {
            while (*at < bytes.size() && bytes[*at] != '\n') ++*at;
        } else if (std::isspace(c)) {
            ++*at;
        } else {
            break;
        }
    }
    long value = 0;
    const std::size_t start = *at;
    while (*at < bytes.size() && std::isdigit(static_cast<unsigned char>(bytes[*at])) &&
           value < 1000000) {
        value = value * 10 + (bytes[*at] - '0');
        ++*at;
    }
    return *at == start ? -1 : value;
}

}  // namespace

std::optional<GrayImage> ParsePgm(const std::string& bytes) {
    if (bytes.size() < 2 || bytes[0] != 'P' || bytes[1] != '5') return std::nullopt;
    std::size_t at = 2;
    const long width = HeaderNumber(bytes, &at);
    const long height = HeaderNumber(bytes, &at);
    const long maximum = HeaderNumber(bytes, &at);
    if (width <= 0 || height <= 0 || maximum <= 0 || maximum > 255) return std::nullopt;
    // One blank ends the header; the pixels follow at once.
    if (at >= bytes.size() || !std::isspace(static_cast<unsigned char>(bytes[at])))
        return std::nullopt;
    ++at;
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (bytes.size() - at < count) return std::nullopt;
    GrayImage image;
    image.width = static_cast<int>(width);
    image.height = static_cast<int>(height);
    image.pixels.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                        bytes.begin() + static_cast<std::ptrdiff_t>(at + count));
    if (maximum != 255) {
        for (unsigned char& p : image.pixels) p = static_cast<unsigned char>(p * 255 / maximum);
    }
    return image;
}

PageDifference ComparePages(const GrayImage& a, const GrayImage& b, int shade_tolerance,
                            double area_tolerance) {
    PageDifference result;
    result.same_size = std::abs(a.width - b.width) <= 1 && std::abs(a.height - b.height) <= 1;
    if (!result.same_size) {
        result.renders_differently = true;
        return result;
    }
    const int width = std::min(a.width, b.width);
    const int height = std::min(a.height, b.height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int pa = a.pixels[static_cast<std::size_t>(y) * a.width + x];
            const int pb = b.pixels[static_cast<std::size_t>(y) * b.width + x];
            if (std::abs(pa - pb) > shade_tolerance) ++result.differing;
        }
    }
    result.pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    result.renders_differently =
        static_cast<double>(result.differing) > area_tolerance * static_cast<double>(result.pixels);
    return result;
}

}  // namespace zpdf::corpus
