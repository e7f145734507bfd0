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

std::string WithError(const std::string& what, int error) {
    return what + " (error " + std::to_string(error) + ")";
}

}  // namespace

SideFileSaveResult SaveThroughSideFile(CZPdfContentObject& object,
                                       const std::filesystem::path& target,
                                       const DocumentSerialiser& serialise) {
    const auto started = std::chrono::steady_clock::now();
    fs::FileReplacement file(target);
    const std::string side = file.SidePath().string();
    if (const int error = file.Open()) {
        return Failure(hr::kFail, WithError("Cannot create " + side, error));
    }
    FileReplacementSink sink(file);
    try {
        serialise(sink);
    } catch (const std::bad_alloc&) {
        return Failure(hr::kOutOfMemory, "Out of memory writing " + side);
    } catch (const std::exception& e) {
        if (sink.Error() != 0) {
            return Failure(hr::kFail, WithError("Cannot write " + side, sink.Error()));
        }
        return Failure(hr::kFail, e.what());
    }
    if (const int error = file.FinishData()) {
        return Failure(hr::kFail, WithError("Cannot flush " + side, error));
    }

    object.CloseDocuments();
    if (const int error = file.Replace()) {
        return Failure(hr::kFail, WithError("Cannot replace " + target.string(), error));
    }
    ZPDF_LOG_INFO(diagnostics::Save(), "saved %s: %llu bytes in %lld ms", target.string().c_str(),
                  static_cast<unsigned long long>(file.BytesWritten()),
                  static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             std::chrono::steady_clock::now() - started)
                                             .count()));
    return {};
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
        *this, target, [this](engine::ByteSink& sink) { engine::WriteDocument(*document_, sink); });
    if (hr::Failed(saved.result)) return Fail(saved.result, saved.why);
    return hr::kOk;
}

}  // namespace zpdf
