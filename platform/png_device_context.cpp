#include "platform/png_device_context.h"

#include <algorithm>
#include <cstring>

#include "platform/raster.h"

namespace zpdf {

int PngDeviceContext::Open(const std::filesystem::path& path, int width, int height, int dpi) {
    width_ = width;
    height_ = height;
    row_.assign(static_cast<std::size_t>(std::max(width, 0)) * 4, 0xFF);
    error_ = png_.Open(path, width, height, dpi);
    return error_;
}

bool PngDeviceContext::LogicalToDevice(DevicePoint* /*points*/, int /*count*/) {
    return true;
}

int PngDeviceContext::SaveState() {
    return ++saved_;
}

bool PngDeviceContext::RestoreState(int token) {
    if (token < 1 || token > saved_) return false;
    saved_ = token - 1;
    return true;
}

bool PngDeviceContext::DrawBgra(std::int32_t x, std::int32_t y, int width, int height,
                                const std::uint8_t* pixels, std::ptrdiff_t stride) {
    if (error_ != 0) return false;
    const DeviceRect target =
        DeviceRect::FromOriginSize(x, y, width, height).Intersect({0, 0, width_, height_});
    if (target.IsEmpty()) return true;
    if (target.top < png_.RowsWritten()) return false;  // rows already gone to the file
    error_ = png_.WriteWhiteRows(target.top - png_.RowsWritten());
    for (std::int32_t row = target.top; row < target.bottom && error_ == 0; ++row) {
        std::fill(row_.begin(), row_.end(), std::uint8_t{0xFF});
        const std::uint8_t* src = pixels + stride * (row - y) + std::ptrdiff_t{target.left - x} * 4;
        CompositeOver(&row_[static_cast<std::size_t>(target.left) * 4], src,
                      static_cast<std::size_t>(target.Width()));
        error_ = png_.WriteBgraRows(row_.data(), 1, 0);
    }
    return error_ == 0;
}

int PngDeviceContext::Finish() {
    if (error_ == 0) error_ = png_.WriteWhiteRows(height_ - png_.RowsWritten());
    if (error_ == 0) error_ = png_.Finish();
    return error_;
}

}  // namespace zpdf
