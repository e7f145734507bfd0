// Page-range texts: never crash, and every page named lies inside the document.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "content_object/page_range.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const int pages = data[0];
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    if (const auto parsed = zpdf::ParsePageRange(text, pages)) {
        for (const int page : *parsed) zpdf::fuzz::Check(page >= 0 && page < pages);
    }
    return 0;
}
