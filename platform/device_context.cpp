#include "platform/device_context.h"

#include <algorithm>
#include <limits>

namespace zpdf {

DeviceRect DeviceRect::Intersect(const DeviceRect& other) const {
    DeviceRect r{std::max(left, other.left), std::max(top, other.top), std::min(right, other.right),
                 std::min(bottom, other.bottom)};
    if (r.IsEmpty()) return DeviceRect{};
    return r;
}

DeviceRect DeviceRect::FromOriginSize(std::int32_t left, std::int32_t top, std::int32_t width,
                                      std::int32_t height) {
    constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int32_t>::min();
    auto clamp = [&](std::int64_t v) {
        return static_cast<std::int32_t>(std::clamp(v, kMin, kMax));
    };
    return DeviceRect{left, top, clamp(std::int64_t{left} + width),
                      clamp(std::int64_t{top} + height)};
}

}  // namespace zpdf
