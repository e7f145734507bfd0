// Saving: the document is written to a side file next to its file, made durable, and moved
// over the file only when complete. A side file that was not moved is removed.
#include <chrono>

#include "content_object/content_object.h"
#include "content_object/diagnostics.h"
#include "engine/engine.h"
#include "platform/files.h"

namespace zpdf {
namespace {

class SideFileSink final : public engine::ByteSink {
  public:
    explicit SideFileSink(fs::OutputFile& file) : file_(file) {}
    bool Write(const void* data, std::size_t size) noexcept override {
        error_ = file_.Write(data, size);
        return error_ == 0;
    }
    int Error() const { return error_; }

  private:
    fs::OutputFile& file_;
    int error_ = 0;
};

// Removes the side file unless it was moved into place.
class SideFileGuard {
  public:
    SideFileGuard(fs::OutputFile& file, std::filesystem::path path)
        : file_(file), path_(std::move(path)) {}
    SideFileGuard(const SideFileGuard&) = delete;
    SideFileGuard& operator=(const SideFileGuard&) = delete;
    ~SideFileGuard() {
        if (committed_) return;
        file_.Close();
        fs::RemoveQuietly(path_);
    }
    void Commit() { committed_ = true; }

  private:
    fs::OutputFile& file_;
    std::filesystem::path path_;
    bool committed_ = false;
};

}  // namespace

HResult CZPdfContentObject::Save() {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (!IsDocumentOpen()) return hr::kOk;  // never opened, so nothing can have changed

    const auto started = std::chrono::steady_clock::now();
    const std::filesystem::path target = ToPath(*pdf_file_);
    std::filesystem::path side = target;
    side += ".part";

    fs::OutputFile file;
    if (const int error = file.Open(side)) {
        return Fail(hr::kFail,
                    "Cannot create " + side.string() + " (error " + std::to_string(error) + ")");
    }
    SideFileGuard guard(file, side);

    SideFileSink sink(file);
    try {
        document_->Write(sink);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kFail, e.what());
    }
    if (const int error = file.Commit()) {
        return Fail(hr::kFail,
                    "Cannot flush " + side.string() + " (error " + std::to_string(error) + ")");
    }

    CloseDocuments();
    if (const int error = fs::MoveReplace(side, target)) {
        return Fail(hr::kFail,
                    "Cannot replace " + target.string() + " (error " + std::to_string(error) + ")");
    }
    guard.Commit();
    ZPDF_LOG_INFO(diagnostics::Save(), "saved %s: %llu bytes in %lld ms", target.string().c_str(),
                  static_cast<unsigned long long>(file.BytesWritten()),
                  static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                             std::chrono::steady_clock::now() - started)
                                             .count()));
    return hr::kOk;
}

}  // namespace zpdf
