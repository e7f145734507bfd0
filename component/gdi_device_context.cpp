#include "component/gdi_device_context.h"

#include <cstring>
#include <vector>

#include "platform/raster.h"

namespace zpdf::com {

bool GdiDeviceContext::LogicalToDevice(DevicePoint* points, int count) {
    static_assert(sizeof(DevicePoint) == sizeof(POINT));
    return LPtoDP(dc_, reinterpret_cast<POINT*>(points), count) != FALSE;
}

int GdiDeviceContext::SaveState() { return SaveDC(dc_); }

bool GdiDeviceContext::RestoreState(int token) { return RestoreDC(dc_, token) != FALSE; }

bool GdiDeviceContext::SetTextMapping() { return SetMapMode(dc_, MM_TEXT) != 0; }

std::optional<DeviceRect> GdiDeviceContext::ClipBox() {
    RECT box{};
    const int kind = GetClipBox(dc_, &box);
    if (kind == ERROR) return std::nullopt;
    if (kind == NULLREGION) return DeviceRect{};
    POINT corners[2] = {{box.left, box.top}, {box.right, box.bottom}};
    if (!LPtoDP(dc_, corners, 2)) return std::nullopt;
    return DeviceRect{std::min(corners[0].x, corners[1].x), std::min(corners[0].y, corners[1].y),
                      std::max(corners[0].x, corners[1].x), std::max(corners[0].y, corners[1].y)};
}

bool GdiDeviceContext::CanBlendAlpha() {
    // Printers and some drivers cannot blend; those get the pixels composed on white.
    return (GetDeviceCaps(dc_, SHADEBLENDCAPS) & SB_PIXEL_ALPHA) != 0 ||
           GetDeviceCaps(dc_, TECHNOLOGY) == DT_RASDISPLAY;
}

bool GdiDeviceContext::DrawBgra(std::int32_t x, std::int32_t y, int width, int height,
                                const std::uint8_t* pixels, std::ptrdiff_t stride) {
    if (width <= 0 || height <= 0) return true;
    bool opaque = true;
    bool empty = true;
    for (int row = 0; row < height; ++row) {
        const std::uint8_t* p = pixels + stride * row;
        for (int col = 0; col < width; ++col) {
            opaque = opaque && p[col * 4 + 3] == 255;
            empty = empty && p[col * 4 + 3] == 0;
        }
    }
    if (empty) return true;

    // Draw in device units whatever the mapping: text mapping with zero origins.
    const int saved = SaveDC(dc_);
    SetMapMode(dc_, MM_TEXT);
    SetViewportOrgEx(dc_, 0, 0, nullptr);
    SetWindowOrgEx(dc_, 0, 0, nullptr);

    BITMAPINFO info{};
    info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    info.bmiHeader.biWidth = width;
    info.bmiHeader.biHeight = -height;  // rows top-down
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    info.bmiHeader.biCompression = BI_RGB;

    bool done = false;
    if (!opaque && CanBlendAlpha()) {
        void* bits = nullptr;
        HBITMAP bitmap = CreateDIBSection(dc_, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
        HDC source = bitmap != nullptr ? CreateCompatibleDC(dc_) : nullptr;
        if (source != nullptr) {
            for (int row = 0; row < height; ++row) {
                std::memcpy(static_cast<std::uint8_t*>(bits) + static_cast<std::ptrdiff_t>(row) * width * 4,
                            pixels + stride * row, static_cast<std::size_t>(width) * 4);
            }
            HGDIOBJ old = SelectObject(source, bitmap);
            const BLENDFUNCTION blend{AC_SRC_OVER, 0, 255, AC_SRC_ALPHA};
            done = AlphaBlend(dc_, x, y, width, height, source, 0, 0, width, height, blend) != FALSE;
            SelectObject(source, old);
            DeleteDC(source);
        }
        if (bitmap != nullptr) DeleteObject(bitmap);
    }
    if (!done) {
        // Opaque pixels, or a device that cannot blend: compose on white and copy.
        std::vector<std::uint8_t> composed(static_cast<std::size_t>(width) * height * 4, 0xFF);
        for (int row = 0; row < height; ++row) {
            CompositeOver(&composed[static_cast<std::size_t>(row) * width * 4], pixels + stride * row,
                          static_cast<std::size_t>(width));
        }
        done = SetDIBitsToDevice(dc_, x, y, static_cast<DWORD>(width), static_cast<DWORD>(height), 0, 0, 0,
                                 static_cast<UINT>(height), composed.data(), &info, DIB_RGB_COLORS) != 0;
    }
    RestoreDC(dc_, saved);
    return done;
}

}  // namespace zpdf::com
