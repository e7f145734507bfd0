// Saving: the document is written to a side file next to its file, made durable, and moved
// over the file only when complete. A side file that was not moved is removed.
#include <chrono>
#include <new>

#include "content_object/content_object.h"
#include "content_object/diagnostics.h"
#include "content_object/side_file_save.h"
#include "engine/engine.h"
#include "engine/page_operations.h"
#include "platform/files.h"

namespace zpdf {
namespace {

SideFileSaveResult Failure(HResult result, std::string why) {
    return SideFileSaveResult{result, std::move(why)};
}
// The file road refused: creating, writing, flushing or moving the target's side file.
SideFileSaveResult TargetFailure(const fs::FileReplacement& file) {
    return SideFileSaveResult{hr::kFail, file.Problem(), true};
}

}  // namespace

SideFileSaveResult SaveThroughSideFile(CZPdfContentObject& object,
                                       const std::filesystem::path& target,
                                       const DocumentSerialiser& serialise,
                                       const std::optional<fs::FileIdentity>& read_from) {
    const auto started = std::chrono::steady_clock::now();
    fs::FileReplacement file(target);
    if (read_from) file.ExpectVersion(*read_from);
    if (file.Open() != 0) return TargetFailure(file);
    FileReplacementSink sink(file);
    try {
        serialise(sink);
    } catch (const std::bad_alloc&) {
        return Failure(hr::kOutOfMemory, "Out of memory writing " + target.string());
    } catch (const std::exception& e) {
        if (sink.Error() != 0) return TargetFailure(file);
        return Failure(hr::kFail, e.what());
    }
    if (file.FinishData() != 0) return TargetFailure(file);

    object.CloseDocuments();
    if (file.Replace() != 0) return TargetFailure(file);
    ZPDF_LOG_INFO(diagnostics::Save(), "saved %s: %llu bytes in %lld ms", target.string().c_str(),
                  static_cast<unsigned long long>(file.BytesWritten()),
                  static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             std::chrono::steady_clock::now() - started)
                                             .count()));
    return {};
}

std::optional<fs::FileIdentity> CZPdfContentObject::VersionReadFrom(
    const std::filesystem::path& target) const {
    // A save over the object's own file must find the file the document was read from: when
    // another writer replaced it meanwhile, writing over it would lose that writer's work.
    if (!HasPath() || file_ == nullptr) return std::nullopt;
    std::error_code ec;
    const auto own = std::filesystem::weakly_canonical(ToPath(*pdf_file_), ec);
    if (ec) return std::nullopt;
    const auto to = std::filesystem::weakly_canonical(target, ec);
    if (ec || own != to) return std::nullopt;
    fs::FileIdentity identity;
    if (!fs::IdentifyOpenFile(file_, &identity)) return std::nullopt;
    return identity;
}

HResult CZPdfContentObject::Saved(const SideFileSaveResult& saved) {
    save_failed_at_target_ = saved.at_target;
    return hr::Failed(saved.result) ? Fail(saved.result, saved.why) : hr::kOk;
}

HResult CZPdfContentObject::Save() {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (!IsDocumentOpen()) return hr::kOk;  // never opened, so nothing can have changed
    return SaveTo(ToPath(*pdf_file_));
}

HResult CZPdfContentObject::SaveTo(const std::filesystem::path& target) {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (const HResult opened = EnsurePdfDocument(); hr::Failed(opened)) return opened;
    const SideFileSaveResult saved = SaveThroughSideFile(
        *this, target, [this](engine::ByteSink& sink) { engine::WriteDocument(*document_, sink); },
        VersionReadFrom(target));
    return Saved(saved);
}

}  // namespace zpdf
