// CZPdfContentObject: holds one PDF document by path, opens it on demand, measures, draws and
// saves it. Every method returns the HRESULT its COM counterpart returns.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "platform/device_context.h"
#include "platform/hresult.h"
#include "platform/text.h"

namespace zpdf {

namespace engine {
class Document;
}

// VARIANT_BOOL as the client passed it: 0 is false, anything else true (normally -1).
using VariantBool = std::int16_t;

// The texts of the load error codes, as written in the load diagnostics.
std::string LoadErrorText(long code);

class CZPdfContentObject {
  public:
    CZPdfContentObject();
    ~CZPdfContentObject();
    CZPdfContentObject(const CZPdfContentObject&) = delete;
    CZPdfContentObject& operator=(const CZPdfContentObject&) = delete;

    // The document holder.
    HResult SetPdfDocument(const OptionalText& PdfFile, VariantBool Embed,
                           const OptionalText& Password);
    HResult GetPdfDocument(OptionalText* PdfFile) const;
    HResult EnsurePdfDocument();
    // Makes sure the document is open and ready for measuring and drawing.
    HResult EnsureViewerDocument();
    void CloseDocuments();
    void ResetDocument();

    // Page geometry and drawing. Page numbers are 1-based.
    HResult PageCount(std::int32_t* pVal);
    HResult GetPageSize(std::int32_t PageNumber, double* ptWidth, double* ptHeight);
    // Option value that draws the whole page rectangle and runs the page's actions.
    static constexpr std::int32_t kDrawWholePage = 8;
    HResult DrawPageToDC(DeviceContext& dc, std::int32_t PageNumber, std::int32_t PageRectLeft,
                         std::int32_t PageRectTop, std::int32_t PageRectWidth,
                         std::int32_t PageRectHeight, std::int32_t DrawRectLeft,
                         std::int32_t DrawRectTop, std::int32_t DrawRectWidth,
                         std::int32_t DrawRectHeight, std::int32_t Options);

    // Writes the open document over its file through a side file.
    HResult Save();

    // --- Split at marker (split.cpp) ---
    // Told of the progress of SplitPdf, for hosts that show it. Optional.
    class SplitObserver {
      public:
        virtual ~SplitObserver() = default;
        // After each examined page: `examined` pages of the file's `pages` are done.
        virtual void PageExamined(int /*examined*/, int /*pages*/) {}
        // After part `number` was moved into place; pages are 1-based and inclusive.
        virtual void PartWritten(int /*number*/, int /*first_page*/, int /*last_page*/,
                                 const std::filesystem::path& /*file*/) {}
    };
    // Cuts the file PdfFile after every page whose text holds the marker "@@nd@@" into files
    // named DestPrefix_1, DestPrefix_2... (the last page only ever ends the last part). Works on
    // that file alone, never on this object's document. S_OK when parts were written, S_FALSE
    // when there was nothing to split; *Splitted counts the parts written, also on failure.
    HResult SplitPdf(const OptionalText& PdfFile, const OptionalText& DestPrefix,
                     std::int32_t* Splitted, SplitObserver* observer = nullptr);
    // --- end of split at marker ---

    // State, for persistence and the hosts.
    const OptionalText& PdfFilePath() const { return pdf_file_; }
    VariantBool EmbedFlag() const { return embed_; }
    const OptionalText& PasswordText() const { return password_; }
    bool HasPath() const { return pdf_file_ && !pdf_file_->empty(); }
    bool IsDocumentOpen() const;
    std::int32_t Dirty() const { return dirty_; }
    void SetDirty(std::int32_t dirty) { dirty_ = dirty; }

    // Why the last failing call failed, in words (for error info and messages).
    const std::string& LastErrorText() const { return last_error_; }

    // Largest band the drawing code renders at once, in bytes of BGRA pixels.
    static constexpr std::size_t kBandBytes = 8u << 20;

    // The engine document, for the operations that work on the document's objects. Only
    // meaningful after EnsurePdfDocument succeeded.
    engine::Document& EngineDocument();

  private:
    HResult Fail(HResult result, std::string why) const;
    void CloseStream();

    OptionalText pdf_file_ = std::u16string();
    VariantBool embed_ = 0;
    OptionalText password_ = std::u16string();
    std::FILE* file_ = nullptr;
    std::unique_ptr<engine::Document> document_;
    bool viewer_ready_ = false;
    std::int32_t dirty_ = 1;
    mutable std::string last_error_;
};

}  // namespace zpdf
