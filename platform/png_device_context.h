// A device context that streams what is drawn on it into a PNG file, band by band, so that a
// large image is never held whole in memory. Drawing must proceed from top to bottom with each
// call covering whole rows that no earlier call touched; the page renderer draws that way.
#pragma once

#include <filesystem>
#include <vector>

#include "platform/device_context.h"
#include "platform/png_writer.h"

namespace zpdf {

class PngDeviceContext final : public DeviceContext {
  public:
    // Returns a Win32 error number, 0 on success.
    int Open(const std::filesystem::path& path, int width, int height, int dpi);
    // Writes the rows not drawn yet as white and commits the file.
    int Finish();
    int Error() const { return error_; }

    bool LogicalToDevice(DevicePoint* points, int count) override;
    int SaveState() override;
    bool RestoreState(int token) override;
    bool SetTextMapping() override { return true; }
    std::optional<DeviceRect> ClipBox() override { return DeviceRect{0, 0, width_, height_}; }
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override;

  private:
    PngWriter png_;
    std::vector<std::uint8_t> row_;
    int width_ = 0;
    int height_ = 0;
    int saved_ = 0;
    int error_ = 0;
};

}  // namespace zpdf
