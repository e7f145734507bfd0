// The content streams of one form placement, shared by the placement made in the document and
// the one our writer draws into a page as it writes it.
#pragma once

#include <string>

#include "engine/internal.h"

namespace zpdf::engine {

// The content streams that draw a placement named `name` in the page's resources: `front` goes
// before the page's content and `back` after it (empty for none). Beneath the content, the
// drawing comes first; above it, the page's content is wrapped in q/Q so that nothing it leaves
// changed moves the drawing.
struct PlacementStreams {
    std::string front;
    std::string back;
};
PlacementStreams PlacementContent(const engine::PendingPlacement& placement,
                                  const std::string& name);

}  // namespace zpdf::engine
