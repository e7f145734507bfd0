// The core's drawing seam on a GDI device context: screens, memory bitmaps and printers.
#pragma once

#include <windows.h>

#include "platform/device_context.h"

namespace zpdf::com {

class GdiDeviceContext final : public DeviceContext {
  public:
    explicit GdiDeviceContext(HDC dc) : dc_(dc) {}
    HDC Handle() const { return dc_; }

    bool LogicalToDevice(DevicePoint* points, int count) override;
    int SaveState() override;
    bool RestoreState(int token) override;
    bool SetTextMapping() override;
    std::optional<DeviceRect> ClipBox() override;
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override;

  private:
    bool CanBlendAlpha();
    HDC dc_;
};

}  // namespace zpdf::com
