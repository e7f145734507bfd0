#include "platform/raster.h"

#include <algorithm>
#include <cstring>

#include "platform/png_writer.h"

namespace zpdf {

void CompositeOver(std::uint8_t* dst, const std::uint8_t* src, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i, dst += 4, src += 4) {
        const unsigned alpha = src[3];
        if (alpha == 255) {
            std::memcpy(dst, src, 4);
        } else if (alpha != 0) {
            const unsigned keep = 255 - alpha;
            for (int c = 0; c < 3; ++c) {
                dst[c] = static_cast<std::uint8_t>(src[c] + (dst[c] * keep + 127) / 255);
            }
            dst[3] = static_cast<std::uint8_t>(alpha + (dst[3] * keep + 127) / 255);
        }
    }
}

RasterDeviceContext::RasterDeviceContext(int width, int height)
    : width_(std::max(width, 0)),
      height_(std::max(height, 0)),
      pixels_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_) * 4, 0xFF) {}

bool RasterDeviceContext::LogicalToDevice(DevicePoint* points, int count) {
    if (mapping_.window_extent.x == 0 || mapping_.window_extent.y == 0) return false;
    auto map = [](std::int64_t v, std::int64_t wo, std::int64_t vo, std::int64_t we,
                  std::int64_t ve) { return static_cast<std::int32_t>((v - wo) * ve / we + vo); };
    for (int i = 0; i < count; ++i) {
        points[i].x = map(points[i].x, mapping_.window_origin.x, mapping_.viewport_origin.x,
                          mapping_.window_extent.x, mapping_.viewport_extent.x);
        points[i].y = map(points[i].y, mapping_.window_origin.y, mapping_.viewport_origin.y,
                          mapping_.window_extent.y, mapping_.viewport_extent.y);
    }
    return true;
}

int RasterDeviceContext::SaveState() {
    saved_.push_back(mapping_);
    return static_cast<int>(saved_.size());
}

bool RasterDeviceContext::RestoreState(int token) {
    // As with GDI: a positive token restores that saved state and drops the later ones;
    // a negative one counts back from the most recent.
    const int count = static_cast<int>(saved_.size());
    const int index = token > 0 ? token : count + token + 1;
    if (index < 1 || index > count) return false;
    mapping_ = saved_[static_cast<std::size_t>(index - 1)];
    saved_.resize(static_cast<std::size_t>(index - 1));
    return true;
}

bool RasterDeviceContext::SetTextMapping() {
    // Origins stay, extents become one to one.
    mapping_.window_extent = {1, 1};
    mapping_.viewport_extent = {1, 1};
    return true;
}

std::optional<DeviceRect> RasterDeviceContext::ClipBox() {
    return DeviceRect{0, 0, width_, height_};
}

bool RasterDeviceContext::DrawBgra(std::int32_t x, std::int32_t y, int width, int height,
                                   const std::uint8_t* pixels, std::ptrdiff_t stride) {
    ++draw_calls_;
    tallest_band_ = std::max(tallest_band_, height);
    const DeviceRect target =
        DeviceRect::FromOriginSize(x, y, width, height).Intersect({0, 0, width_, height_});
    if (target.IsEmpty()) return true;
    const auto row_pixels = static_cast<std::size_t>(target.Width());
    for (std::int32_t row = target.top; row < target.bottom; ++row) {
        const std::uint8_t* src = pixels + stride * (row - y) + std::ptrdiff_t{target.left - x} * 4;
        std::uint8_t* dst =
            &pixels_[(static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                      static_cast<std::size_t>(target.left)) *
                     4];
        CompositeOver(dst, src, row_pixels);
    }
    return true;
}

int RasterDeviceContext::WritePng(const std::filesystem::path& path) const {
    PngWriter png;
    if (const int error = png.Open(path, width_, height_, 0)) return error;
    if (const int error =
            png.WriteBgraRows(pixels_.data(), height_, static_cast<std::ptrdiff_t>(width_) * 4)) {
        return error;
    }
    return png.Finish();
}

}  // namespace zpdf
