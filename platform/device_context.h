// The drawing seam: what the core needs from a device context. The Windows host implements it
// on GDI; RasterDeviceContext implements it in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zpdf {

struct DevicePoint {
    std::int32_t x = 0;
    std::int32_t y = 0;
};

// Left/top inclusive, right/bottom exclusive, in device units.
struct DeviceRect {
    std::int32_t left = 0;
    std::int32_t top = 0;
    std::int32_t right = 0;
    std::int32_t bottom = 0;

    std::int64_t Width() const { return std::int64_t{right} - left; }
    std::int64_t Height() const { return std::int64_t{bottom} - top; }
    bool IsEmpty() const { return Width() <= 0 || Height() <= 0; }
    DeviceRect Intersect(const DeviceRect& other) const;
    // A rectangle from a position and a size, saturated so that it never wraps around.
    static DeviceRect FromOriginSize(std::int32_t left, std::int32_t top, std::int32_t width,
                                     std::int32_t height);
};

class DeviceContext {
  public:
    virtual ~DeviceContext() = default;

    // Maps points from logical to device units in place.
    virtual bool LogicalToDevice(DevicePoint* points, int count) = 0;
    // Saves the context's state; returns a token for RestoreState, 0 on failure.
    virtual int SaveState() = 0;
    virtual bool RestoreState(int token) = 0;
    // Switches to the text mapping: one logical unit is one device pixel, y downwards.
    virtual bool SetTextMapping() = 0;
    // The part of the device that drawing can change, when the context knows it.
    virtual std::optional<DeviceRect> ClipBox() = 0;
    // Draws `width` x `height` BGRA pixels with premultiplied alpha, rows top-down and `stride`
    // bytes apart, over what the device shows, with their top-left corner at device position
    // (`x`, `y`), one pixel per device unit. Pixels with alpha 0 leave the device unchanged.
    virtual bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height,
                          const std::uint8_t* pixels, std::ptrdiff_t stride) = 0;
};

}  // namespace zpdf
