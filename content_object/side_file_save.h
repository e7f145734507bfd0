// The road every save of the content object takes: the document is serialised into a side file
// (target + ".part"), the side file is made durable, the object's documents are closed and the
// side file is moved over the target. A side file that was not moved is removed. The saves
// differ only in the serialiser they hand to this road.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "content_object/content_object.h"
#include "engine/engine.h"

namespace zpdf {

// Writes the whole document into the sink. Reports failure by throwing (engine::EngineError, or
// any std::exception whose text says why).
using DocumentSerialiser = std::function<void(engine::ByteSink& sink)>;

struct SideFileSaveResult {
    HResult result = hr::kOk;
    std::string why;  // empty on success
};

// E_FAIL when the side file cannot be created, the serialiser fails, the data cannot be made
// durable or the move fails. The object's documents stay open unless the failure came at the
// move.
SideFileSaveResult SaveThroughSideFile(CZPdfContentObject& object,
                                       const std::filesystem::path& target,
                                       const DocumentSerialiser& serialise);

}  // namespace zpdf
