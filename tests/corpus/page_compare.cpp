#include "tests/corpus/page_compare.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

namespace zpdf::corpus {

std::optional<GrayImage> ParsePgm(const std::string& bytes) {
    std::istringstream in(bytes);
    std::string magic;
    int width = 0, height = 0, maximum = 0;
    // One blank ends the header; the pixels follow at once.
    if (!(in >> magic >> width >> height >> maximum) || magic != "P5" || width <= 0 ||
        height <= 0 || maximum != 255 || !std::isspace(in.get()))
        return std::nullopt;
    const auto at = static_cast<std::size_t>(in.tellg());
    const std::size_t count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (bytes.size() - at < count) return std::nullopt;
    const auto pixels = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    return GrayImage{width, height, {pixels, pixels + static_cast<std::ptrdiff_t>(count)}};
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
