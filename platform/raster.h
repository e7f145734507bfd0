// An in-memory device context: a white BGRA raster with a GDI-like logical mapping.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "platform/device_context.h"

namespace zpdf {

// Composites `count` premultiplied BGRA pixels of `src` over `dst`.
void CompositeOver(std::uint8_t* dst, const std::uint8_t* src, std::size_t count);

class RasterDeviceContext final : public DeviceContext {
  public:
    RasterDeviceContext(int width, int height);

    bool LogicalToDevice(DevicePoint* points, int count) override;
    int SaveState() override;
    bool RestoreState(int token) override;
    bool SetTextMapping() override;
    std::optional<DeviceRect> ClipBox() override;
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override;

    // Logical mapping: device = (logical - window_origin) * viewport_extent / window_extent +
    // viewport_origin, per axis.
    struct Mapping {
        DevicePoint window_origin;
        DevicePoint viewport_origin;
        DevicePoint window_extent{1, 1};
        DevicePoint viewport_extent{1, 1};
    };
    void SetMapping(const Mapping& mapping) { mapping_ = mapping; }
    const Mapping& GetMapping() const { return mapping_; }
    int SavedStates() const { return static_cast<int>(saved_.size()); }

    int Width() const { return width_; }
    int Height() const { return height_; }
    const std::uint8_t* Pixel(int x, int y) const {
        return &pixels_[(static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                         static_cast<std::size_t>(x)) *
                        4];
    }
    const std::vector<std::uint8_t>& Pixels() const { return pixels_; }
    std::size_t DrawCalls() const { return draw_calls_; }
    int TallestBand() const { return tallest_band_; }

    // Writes the raster as an 8-bit RGB PNG. Returns a Win32 error number, 0 on success.
    int WritePng(const std::filesystem::path& path) const;

  private:
    int width_;
    int height_;
    std::vector<std::uint8_t> pixels_;
    Mapping mapping_;
    std::vector<Mapping> saved_;
    std::size_t draw_calls_ = 0;
    int tallest_band_ = 0;
};

}  // namespace zpdf
