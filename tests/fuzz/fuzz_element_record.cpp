// Element records of any content. Loading must stay inside the input; an accepted record must
// save back as the bytes it delivered, every field it did not reach keeping its earlier bytes;
// a refused one must change nothing. The placement answers and the drawing arithmetic then run
// on whatever coordinates the record held.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "content_element/content_element.h"
#include "platform/byte_stream.h"
#include "platform/raster.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using zpdf::HResult;
using zpdf::fuzz::Check;
namespace hr = zpdf::hr;

std::vector<std::uint8_t> Saved(zpdf::CZPdfContentElement& element, bool clear) {
    zpdf::MemoryByteStream stream;
    Check(element.Save(stream, clear) == hr::kOk);
    Check(stream.Bytes().size() == zpdf::CZPdfContentElement::kRecordSize);
    return stream.Bytes();
}

// Extents for the drawing mapping from the bytes after the record; never zero.
std::int32_t Extent(const std::uint8_t* data, std::size_t size, std::size_t index) {
    const std::size_t at = zpdf::CZPdfContentElement::kRecordSize + index;
    const auto value = at < size ? static_cast<std::int8_t>(data[at]) : std::int8_t{1};
    return value == 0 ? 1 : value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zpdf::CZPdfContentElement element;
    const std::vector<std::uint8_t> before = Saved(element, false);

    zpdf::MemoryByteStream stream(std::vector<std::uint8_t>(data, data + size));
    const HResult loaded = element.Load(stream);
    const std::vector<std::uint8_t> after = Saved(element, false);
    if (loaded == hr::kOk) {
        Check(element.IsDirty() == hr::kFalse);
        for (std::size_t i = 0; i < after.size(); ++i)
            Check(after[i] == (i < size ? data[i] : before[i]));
        // What was saved loads back to itself.
        zpdf::CZPdfContentElement again;
        zpdf::MemoryByteStream saved(after);
        Check(again.Load(saved) == hr::kOk);
        Check(Saved(again, true) == after);
    } else {
        Check(loaded == hr::kUnexpected);
        Check(after == before);
        Check(element.IsDirty() == hr::kOk);
    }

    std::int32_t left = 0, top = 0, width = 0, height = 0, right = 0, bottom = 0;
    Check(element.GetPosition(&left, &top, &width, &height) == hr::kOk);
    Check(element.GetBounds(&left, &top, &right, &bottom) == hr::kOk);

    // An object without a document: the element maps and hands over the rectangle, the object
    // draws nothing.
    static const zpdf::ContentObjectRef object = std::make_shared<zpdf::CZPdfContentObject>();
    element.put_PdfObject(object);
    zpdf::RasterDeviceContext dc(1, 1);
    zpdf::RasterDeviceContext::Mapping mapping;
    mapping.window_extent = {Extent(data, size, 0), Extent(data, size, 1)};
    mapping.viewport_extent = {Extent(data, size, 2), Extent(data, size, 3)};
    dc.SetMapping(mapping);
    Check(element.DrawToDC(dc, 0) == hr::kOk);
    Check(dc.SavedStates() == 0);
    return 0;
}
