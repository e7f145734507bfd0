#include <algorithm>

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// Device coordinates far outside any real device are cut off, so that the arithmetic below
// stays in range whatever rectangle the caller passes.
constexpr int kCoordinateLimit = 1 << 24;

DeviceRect Bounded(const DeviceRect& r) {
    return r.Intersect(
        DeviceRect{-kCoordinateLimit, -kCoordinateLimit, kCoordinateLimit, kCoordinateLimit});
}

// Draws one band of the recorded page into a new pixmap; null when the engine failed.
fz_pixmap* DrawBand(fz_context* ctx, fz_display_list* list, fz_matrix ctm, fz_irect band) {
    fz_pixmap* pix = nullptr;
    fz_device* dev = nullptr;
    fz_var(pix);
    fz_var(dev);
    fz_try(ctx) {
        pix = fz_new_pixmap_with_bbox(ctx, fz_device_bgr(ctx), band, nullptr, 1);
        fz_clear_pixmap(ctx, pix);
        dev = fz_new_draw_device(ctx, fz_identity, pix);
        fz_run_display_list(ctx, list, dev, ctm, fz_rect_from_irect(band), nullptr);
        fz_close_device(ctx, dev);
    }
    fz_always(ctx) {
        fz_drop_device(ctx, dev);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot draw the page: %s", fz_caught_message(ctx));
        fz_drop_pixmap(ctx, pix);
        return nullptr;
    }
    return pix;
}

// Records the page as it prints (annotations included); null when the engine failed.
fz_display_list* RecordPage(fz_context* ctx, fz_page* page, fz_rect bounds) {
    fz_display_list* list = nullptr;
    fz_device* dev = nullptr;
    fz_var(list);
    fz_var(dev);
    fz_try(ctx) {
        list = fz_new_display_list(ctx, bounds);
        dev = fz_new_list_device(ctx, list);
        pdf_run_page_with_usage(ctx, reinterpret_cast<pdf_page*>(page), dev, fz_identity, "Print",
                                nullptr);
        fz_close_device(ctx, dev);
    }
    fz_always(ctx) {
        fz_drop_device(ctx, dev);
    }
    fz_catch(ctx) {
        fz_drop_display_list(ctx, list);
        fz_rethrow(ctx);
    }
    return list;
}

void ClosePage(fz_context* ctx, fz_page* page, bool page_actions) {
    fz_try(ctx) {
        if (page_actions) pdf_page_event_close(ctx, reinterpret_cast<pdf_page*>(page));
    }
    fz_catch(ctx) {
        fz_warn(ctx, "page close action failed: %s", fz_caught_message(ctx));
    }
    fz_drop_page(ctx, page);
}

}  // namespace

void Document::RenderPage(int index, const DeviceRect& page_rect, const DeviceRect& visible,
                          DeviceContext& dc, bool page_actions, std::size_t band_bytes) {
    MakePendingChanges(*impl_, index);
    NoteWork(*impl_);
    fz_context* ctx = impl_->ctx;
    fz_page* page = nullptr;
    fz_display_list* list = nullptr;
    fz_var(page);
    fz_var(list);
    fz_rect bounds = fz_empty_rect;

    // Record the page once, then replay the record band by band.
    fz_try(ctx) {
        if (index < 0 || index >= CountDocumentPages(*impl_)) {
            fz_throw(ctx, FZ_ERROR_GENERIC, "page %d does not exist", index + 1);
        }
        page = fz_load_page(ctx, &impl_->doc->super, index);
        if (page_actions) pdf_page_event_open(ctx, reinterpret_cast<pdf_page*>(page));
        bounds = fz_bound_page(ctx, page);
        list = RecordPage(ctx, page, bounds);
    }
    fz_catch(ctx) {
        fz_drop_page(ctx, page);
        ThrowCaught(ctx, ErrorCategory::Page, "cannot load the page");
    }

    const DeviceRect area = Bounded(visible).Intersect(Bounded(page_rect));
    const float page_width = bounds.x1 - bounds.x0;
    const float page_height = bounds.y1 - bounds.y0;
    bool failed = false;
    if (!area.IsEmpty() && page_width > 0 && page_height > 0) {
        fz_matrix ctm = fz_translate(-bounds.x0, -bounds.y0);
        ctm = fz_concat(ctm, fz_scale(static_cast<float>(page_rect.Width()) / page_width,
                                      static_cast<float>(page_rect.Height()) / page_height));
        ctm = fz_concat(ctm, fz_translate(static_cast<float>(page_rect.left),
                                          static_cast<float>(page_rect.top)));
        const auto width = static_cast<std::size_t>(area.Width());
        const auto rows_per_band = static_cast<std::int32_t>(std::clamp<std::size_t>(
            band_bytes / (width * 4), 1, static_cast<std::size_t>(area.Height())));

        for (std::int32_t top = area.top; top < area.bottom && !failed; top += rows_per_band) {
            const fz_irect band{area.left, top, area.right,
                                std::min(top + rows_per_band, area.bottom)};
            fz_pixmap* pix = DrawBand(ctx, list, ctm, band);
            if (pix == nullptr) {
                failed = true;
                break;
            }
            dc.DrawBgra(band.x0, band.y0, band.x1 - band.x0, band.y1 - band.y0,
                        fz_pixmap_samples(ctx, pix), fz_pixmap_stride(ctx, pix));
            fz_drop_pixmap(ctx, pix);
        }
    }

    fz_drop_display_list(ctx, list);
    ClosePage(ctx, page, page_actions);
    if (failed) throw EngineError(ErrorCategory::Page, "cannot draw the page");
}

}  // namespace zpdf::engine
