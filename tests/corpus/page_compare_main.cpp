// zpdf_page_compare: whether two gray page renderings (binary PGM) show the same page, for
// scripts/corpus/compare.sh.
//
//   zpdf_page_compare EXPECTED.pgm ACTUAL.pgm
//
// Prints "same" or "differs" with the number of differing pixels. Exit status: 0 same, 1
// differs, 2 when a file cannot be read as a PGM.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/corpus/page_compare.h"

namespace {

std::string ReadFile(const char* name) {
    std::ifstream in(name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: zpdf_page_compare EXPECTED.pgm ACTUAL.pgm\n", stderr);
        return 2;
    }
    const auto expected = zpdf::corpus::ParsePgm(ReadFile(argv[1]));
    const auto actual = zpdf::corpus::ParsePgm(ReadFile(argv[2]));
    if (!expected || !actual) {
        std::fprintf(stderr, "zpdf_page_compare: %s is not a binary PGM\n",
                     expected ? argv[2] : argv[1]);
        return 2;
    }
    const zpdf::corpus::PageDifference d = zpdf::corpus::ComparePages(*expected, *actual);
    if (!d.same_size) {
        std::printf("differs: %dx%d against %dx%d pixels\n", expected->width, expected->height,
                    actual->width, actual->height);
    } else {
        std::printf("%s: %zu of %zu pixels differ\n", d.renders_differently ? "differs" : "same",
                    d.differing, d.pixels);
    }
    return d.renders_differently ? 1 : 0;
}
