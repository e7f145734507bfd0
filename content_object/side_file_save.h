// The engine's writers on the one file road: a document is serialised into the side file of
// its target, which replaces the target once complete.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "content_object/content_object.h"
#include "engine/engine.h"
#include "platform/files.h"

namespace zpdf {

// Bytes of an engine writer into a file on its road; remembers why the file refused them.
class FileReplacementSink final : public engine::ByteSink {
  public:
    explicit FileReplacementSink(fs::FileReplacement& file) : file_(file) {}
    bool Write(const void* data, std::size_t size) noexcept override {
        error_ = file_.Write(data, size);
        return error_ == 0;
    }
    int Error() const { return error_; }

  private:
    fs::FileReplacement& file_;
    int error_ = 0;
};

// Writes the whole document into the sink. Reports failure by throwing (engine::EngineError, or
// any std::exception whose text says why).
using DocumentSerialiser = std::function<void(engine::ByteSink& sink)>;

struct SideFileSaveResult {
    HResult result = hr::kOk;
    std::string why;         // empty on success
    bool at_target = false;  // the target's file failed, not the making of the document's bytes
};

// The saves of the content object: the data is made durable, the object's documents are closed
// (the target may be their own file) and the side file replaces the target. E_FAIL when the side
// file cannot be created, the serialiser fails, the data cannot be made durable or the move
// fails, or when `read_from` is given and the target is no longer that file (another writer
// replaced it). The object's documents stay open unless the failure came at the move.
SideFileSaveResult SaveThroughSideFile(CZPdfContentObject& object,
                                       const std::filesystem::path& target,
                                       const DocumentSerialiser& serialise,
                                       const std::optional<fs::FileIdentity>& read_from);

}  // namespace zpdf
