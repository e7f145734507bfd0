// Stamping and page assembly: pages of another content object become form XObjects placed on
// this document's pages, or are appended or put in place of pages of this document.
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "content_object/content_object.h"
#include "content_object/diagnostics.h"
#include "content_object/page_range.h"
#include "engine/engine.h"
#include "engine/page_operations.h"
#include "platform/alloc_fault.h"
#include "platform/files.h"

namespace zpdf {
namespace {

// The document of an append source, opened on a private copy of its file: the source object
// stays free to change, save or close its own document while the append is recorded.
class CopiedSource final : public engine::AppendSource {
  public:
    explicit CopiedSource(std::filesystem::path copy) : copy_(std::move(copy)) {}
    CopiedSource(const CopiedSource&) = delete;
    CopiedSource& operator=(const CopiedSource&) = delete;
    ~CopiedSource() override {
        document_.Close();
        if (file_ != nullptr) std::fclose(file_);
        fs::RemoveQuietly(copy_);
    }

    // Opens the copy; false when it cannot be read as a PDF.
    bool Open() {
        file_ = fs::OpenFile(copy_, "rb");
        if (file_ == nullptr) return false;
        try {
            document_.Open(file_, std::nullopt);
            return true;
        } catch (const engine::EngineError&) {
            return false;
        }
    }

    engine::Document& Pages() override { return document_; }

  private:
    std::filesystem::path copy_;
    std::FILE* file_ = nullptr;
    engine::Document document_;
};

// Records the pages of `source` to be appended to `doc` when it is written, instead of copying
// them into memory now: an unencrypted source document as its file holds it, read again from a
// private copy of that file. A source not open yet stays closed. False, with nothing changed,
// where the pages are to be copied now.
bool RecordAppend(engine::Document& doc, CZPdfContentObject& source) {
    const bool open = source.IsDocumentOpen();
    if (!source.HasPath() || (open && engine::DiffersFromItsFile(source.EngineDocument())))
        return false;
    try {
        std::filesystem::path copy;
        if (const int error = fs::MakeTempCopy(ToPath(*source.PdfFilePath()), &copy)) {
            ZPDF_LOG_DEBUG(diagnostics::Pdf(),
                           "no private copy of the source (error %d): its pages are copied now",
                           error);
            return false;
        }
        auto held = std::make_unique<CopiedSource>(std::move(copy));
        if (!held->Open() ||
            (open && held->Pages().PageCount() != source.EngineDocument().PageCount()))
            return false;
        std::unique_ptr<engine::AppendSource> recorded = std::move(held);
        return engine::RecordAppend(doc, recorded);
    } catch (const engine::EngineError&) {
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

std::optional<std::string> PlacementValueProblem(float transX, float transY, float scaleX,
                                                 float scaleY) {
    constexpr double kLargest = 32767;
    constexpr double kSmallestScale = 0.0000005;  // rounds to 0.000001 when written
    const std::pair<const char*, float> values[] = {{"translation x", transX},
                                                    {"translation y", transY},
                                                    {"scale x", scaleX},
                                                    {"scale y", scaleY}};
    for (const auto& [name, value] : values) {
        if (!std::isfinite(value) || std::fabs(value) > kLargest)
            return std::string("The ") + name + " " + std::to_string(value) +
                   " is not a number between -32767 and 32767";
    }
    if (std::fabs(scaleX) < kSmallestScale || std::fabs(scaleY) < kSmallestScale)
        return "A scale of 0 (or below one millionth) would draw nothing";
    return std::nullopt;
}

// Opens the source's document, then this one's (in that order).
HResult CZPdfContentObject::EnsureBothDocuments(CZPdfContentObject& source) {
    if (!source.IsDocumentOpen()) {
        if (const HResult result = source.EnsurePdfDocument(); hr::Failed(result)) {
            return Fail(result, "The source document cannot be opened: " + source.LastErrorText());
        }
    }
    if (!IsDocumentOpen()) return EnsurePdfDocument();
    return hr::kOk;
}

HResult CZPdfContentObject::ImportContent(CZPdfContentObject* srcObject,
                                          std::vector<std::uint32_t>* pages) {
    if (srcObject == nullptr || pages == nullptr)
        return Fail(hr::kPointer, "No source or no place for the result");
    if (const HResult result = EnsureBothDocuments(*srcObject); hr::Failed(result)) return result;
    try {
        const int count = srcObject->EngineDocument().PageCount();
        if (count == 0) return Fail(hr::kUnexpected, "The source document has no pages");
        engine::Document& doc = EngineDocument();
        const int base = doc.PageCount();
        // The result's array is made before the document changes: running out of memory for
        // it leaves the document as it was.
        AllocationPoint();
        std::vector<std::uint32_t> ids(static_cast<std::size_t>(count), 0);
        engine::ImportPages(doc, srcObject->EngineDocument(), nullptr, base);
        const int total = doc.PageCount();
        if (total != base + count)
            return Fail(hr::kUnexpected, "The import added an unexpected number of pages");

        try {
            for (int i = 0; base + i < total; ++i) {
                ids[static_cast<std::size_t>(i)] =
                    engine::MakePageFormXObject(doc, base + i).object_number;
            }
        } catch (const engine::EngineError&) {
            engine::RemoveImportedPages(doc, base);
            throw;
        }
        // The imported pages only served as the source of the forms.
        engine::RemoveImportedPages(doc, base);
        *pages = std::move(ids);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, std::string("Cannot import the content: ") + e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::PlaceContent(std::uint32_t srcObjectId, std::int32_t DestinationPage,
                                         float transX, float transY, float scaleX, float scaleY,
                                         VariantBool background) {
    if (const auto problem = PlacementValueProblem(transX, transY, scaleX, scaleY))
        return Fail(hr::kInvalidArg, *problem);
    if (!IsDocumentOpen()) {
        if (const HResult result = EnsurePdfDocument(); hr::Failed(result)) return result;
    }
    try {
        engine::Document& doc = EngineDocument();
        if (DestinationPage < 1 || DestinationPage > doc.PageCount()) {
            return Fail(hr::kInvalidArg,
                        "Page " + std::to_string(DestinationPage) + " does not exist");
        }
        if (!engine::IsFormXObject(doc, srcObjectId)) {
            // Placed as given: viewers skip a drawing of something that is not a form.
            ZPDF_LOG_WARN(diagnostics::Place(),
                          "object %u is not a form XObject; placed on page %d anyway", srcObjectId,
                          DestinationPage);
        }
        const std::array<float, 6> matrix{scaleX, 0.0f, 0.0f, scaleY, transX, transY};
        engine::PlaceFormXObject(doc, srcObjectId, DestinationPage - 1, matrix, background != 0);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, std::string("Cannot place the content: ") + e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::AppendPages(CZPdfContentObject* srcObject) {
    if (srcObject == nullptr) return Fail(hr::kPointer, "No source document was given");
    if (srcObject != this && srcObject->HasPath()) {
        // Recorded where it can be, from a private copy of the source's file: a source not open
        // yet is never opened.
        if (const HResult result = IsDocumentOpen() ? hr::kOk : EnsurePdfDocument();
            hr::Failed(result))
            return result;
        if (RecordAppend(EngineDocument(), *srcObject)) return hr::kOk;
    }
    if (const HResult result = EnsureBothDocuments(*srcObject); hr::Failed(result)) return result;
    try {
        engine::Document& doc = EngineDocument();
        engine::ImportPages(doc, srcObject->EngineDocument(), nullptr, doc.PageCount());
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, std::string("Cannot append the pages: ") + e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::ReplacePages(std::int32_t destPage, CZPdfContentObject* srcObject,
                                         std::int32_t srcStart, std::int32_t srcEnd) {
    if (srcObject == nullptr) return Fail(hr::kPointer, "No source document was given");
    const std::string range = PageRangeText(srcStart, srcEnd);
    if (const HResult result = EnsureBothDocuments(*srcObject); hr::Failed(result)) return result;
    try {
        engine::Document& doc = EngineDocument();
        const auto pages = ParsePageRange(range, srcObject->EngineDocument().PageCount());
        if (!pages) return Fail(hr::kUnexpected, "The source has no pages " + range);
        const std::int64_t at = std::int64_t{destPage} - 1;
        if (at < 0 || at > doc.PageCount()) {
            return Fail(hr::kUnexpected,
                        "Pages cannot be inserted before page " + std::to_string(destPage));
        }
        engine::ImportPages(doc, srcObject->EngineDocument(), &*pages, static_cast<int>(at));
        // As many pages go as the arguments name, whatever the import added; deletions past
        // the end of the document do nothing.
        engine::RemoveReplacedPages(doc, static_cast<int>(at), srcEnd - srcStart + 1);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, std::string("Cannot replace the pages: ") + e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::OverlayPrepare(const OptionalText& /*SourcePdfFile*/) {
    return Fail(hr::kNotImpl,
                "Overlays are not implemented: stamp with ImportContent and PlaceContent");
}

HResult CZPdfContentObject::OverlayPage(std::int32_t SourcePage, std::int32_t DestinationPage,
                                        std::int32_t ptPosLeft, std::int32_t ptPosTop,
                                        std::int32_t ptPosRight, std::int32_t ptPosBottom) {
    return OverlayPage2(SourcePage, DestinationPage, ptPosLeft, ptPosTop, ptPosRight, ptPosBottom,
                        0);
}

HResult CZPdfContentObject::OverlayFinish() {
    return OverlayPrepare(std::nullopt);
}

HResult CZPdfContentObject::OverlayPage2(std::int32_t /*SourcePage*/,
                                         std::int32_t /*DestinationPage*/,
                                         std::int32_t /*ptPosLeft*/, std::int32_t /*ptPosTop*/,
                                         std::int32_t /*ptPosRight*/, std::int32_t /*ptPosBottom*/,
                                         std::int32_t /*nOptions*/) {
    return OverlayPrepare(std::nullopt);
}

}  // namespace zpdf
