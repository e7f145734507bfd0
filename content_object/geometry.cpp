// Page count, page size and drawing.
#include "content_object/content_object.h"
#include "engine/engine.h"

namespace zpdf {

HResult CZPdfContentObject::PageCount(std::int32_t* pVal) {
    if (pVal == nullptr) return Fail(hr::kPointer, "No place for the page count was given");
    *pVal = 0;
    if (!HasPath()) return hr::kOk;
    if (const HResult result = EnsureViewerDocument(); hr::Failed(result)) return result;
    try {
        *pVal = document_->PageCount();
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::GetPageSize(std::int32_t PageNumber, double* ptWidth,
                                        double* ptHeight) {
    if (ptWidth == nullptr || ptHeight == nullptr) {
        return Fail(hr::kPointer, "No place for the page size was given");
    }
    *ptWidth = 0.0;
    *ptHeight = 0.0;
    if (!HasPath()) return hr::kOk;
    if (const HResult result = EnsureViewerDocument(); hr::Failed(result)) return result;
    try {
        if (PageNumber < 1 || PageNumber > document_->PageCount()) {
            return Fail(hr::kInvalidArg, "Page " + std::to_string(PageNumber) + " does not exist");
        }
        const engine::PageSize size = document_->GetPageSize(PageNumber - 1);
        *ptWidth = size.width;
        *ptHeight = size.height;
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::DrawPageToDC(DeviceContext& dc, std::int32_t PageNumber,
                                         std::int32_t PageRectLeft, std::int32_t PageRectTop,
                                         std::int32_t PageRectWidth, std::int32_t PageRectHeight,
                                         std::int32_t DrawRectLeft, std::int32_t DrawRectTop,
                                         std::int32_t DrawRectWidth, std::int32_t DrawRectHeight,
                                         std::int32_t Options) {
    if (!HasPath()) return hr::kFalse;
    const bool whole_page = Options == kDrawWholePage;
    const HResult opened = whole_page ? EnsurePdfDocument() : EnsureViewerDocument();
    if (hr::Failed(opened)) return opened;

    const DeviceRect page_rect =
        DeviceRect::FromOriginSize(PageRectLeft, PageRectTop, PageRectWidth, PageRectHeight);
    DeviceRect visible = page_rect;
    if (!whole_page) {
        // A draw rectangle limits the drawing to its part of the page; an empty one does not.
        const DeviceRect draw_rect =
            DeviceRect::FromOriginSize(DrawRectLeft, DrawRectTop, DrawRectWidth, DrawRectHeight);
        if (!draw_rect.IsEmpty()) visible = visible.Intersect(draw_rect);
    }
    if (const std::optional<DeviceRect> clip = dc.ClipBox()) visible = visible.Intersect(*clip);

    try {
        if (PageNumber < 1 || PageNumber > document_->PageCount()) {
            return Fail(whole_page ? hr::kUnexpected : hr::kInvalidArg,
                        "Page " + std::to_string(PageNumber) + " does not exist");
        }
        document_->RenderPage(PageNumber - 1, page_rect, visible, dc, whole_page, kBandBytes);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    }
    return hr::kOk;
}

}  // namespace zpdf
