// Compares two gray renderings of a page (binary PGM, as poppler writes them) the way the corpus
// comparison needs: the same page drawn from two files must give the same picture, give or take
// the edge pixels that anti-aliasing moves by a shade when the content is drawn through a form.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zpdf::corpus {

struct GrayImage {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;  // row by row, one byte a pixel
};

// Reads a binary PGM as poppler writes it (P5, maximum value 255, no comments); nullopt for
// anything else.
std::optional<GrayImage> ParsePgm(const std::string& bytes);

struct PageDifference {
    bool same_size = false;
    std::size_t pixels = 0;     // compared
    std::size_t differing = 0;  // pixels whose shades are further apart than the tolerance
    bool renders_differently = false;
};

// Pixels differ when their shades are more than `shade_tolerance` apart; the pages render
// differently when their sizes differ by more than a pixel either way (rounding of the page box
// at a low resolution), or when more than `area_tolerance` of the pixels they share differ.
PageDifference ComparePages(const GrayImage& a, const GrayImage& b, int shade_tolerance = 48,
                            double area_tolerance = 0.002);

}  // namespace zpdf::corpus
