// What a content element needs of the content object it shows: a page drawn into a device
// context. CZPdfContentObject is one; a host can offer another that reaches its object by other
// means (for example through a COM interface of an object living on another thread).
#pragma once

#include <cstdint>

#include "platform/device_context.h"
#include "platform/hresult.h"

namespace zpdf {

class PageDrawing {
  public:
    virtual ~PageDrawing() = default;
    // Draws page `PageNumber` into the page rectangle (device units) of `dc`, clipped to the
    // draw rectangle when that is not empty.
    virtual HResult DrawPageToDC(DeviceContext& dc, std::int32_t PageNumber,
                                 std::int32_t PageRectLeft, std::int32_t PageRectTop,
                                 std::int32_t PageRectWidth, std::int32_t PageRectHeight,
                                 std::int32_t DrawRectLeft, std::int32_t DrawRectTop,
                                 std::int32_t DrawRectWidth, std::int32_t DrawRectHeight,
                                 std::int32_t Options) = 0;
};

}  // namespace zpdf
