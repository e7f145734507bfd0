// CZPdfContentObject: holds one PDF document by path, opens it on demand, measures, draws and
// saves it. Every method returns the HRESULT its COM counterpart returns.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "content_object/page_drawing.h"
#include "engine/page_info.h"
#include "platform/byte_stream.h"
#include "platform/device_context.h"
#include "platform/files.h"
#include "platform/hresult.h"
#include "platform/text.h"

namespace zpdf {

namespace engine {
class Document;
}
struct SideFileSaveResult;

// VARIANT_BOOL as the client passed it: 0 is false, anything else true (normally -1).
using VariantBool = std::int16_t;

// Why a placement's translation and scale cannot be written into a page's content, or nothing
// when they can: every value finite and within what PDF readers take (32767 at most either
// way), and each scale non-zero as written (six decimals).
std::optional<std::string> PlacementValueProblem(float transX, float transY, float scaleX,
                                                 float scaleY);

// The texts of the load error codes, as written in the load diagnostics.
std::string LoadErrorText(long code);

class CZPdfContentObject final : public PageDrawing {
  public:
    CZPdfContentObject();
    ~CZPdfContentObject() override;
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
    // The version of `target` the open document was read from, when `target` is the object's
    // own file: a save there must still find that file.
    std::optional<fs::FileIdentity> VersionReadFrom(const std::filesystem::path& target) const;

    // Page geometry and drawing. Page numbers are 1-based.
    HResult PageCount(std::int32_t* pVal);
    HResult GetPageSize(std::int32_t PageNumber, double* ptWidth, double* ptHeight);
    // Option value that draws the whole page rectangle and runs the page's actions.
    static constexpr std::int32_t kDrawWholePage = 8;
    HResult DrawPageToDC(DeviceContext& dc, std::int32_t PageNumber, std::int32_t PageRectLeft,
                         std::int32_t PageRectTop, std::int32_t PageRectWidth,
                         std::int32_t PageRectHeight, std::int32_t DrawRectLeft,
                         std::int32_t DrawRectTop, std::int32_t DrawRectWidth,
                         std::int32_t DrawRectHeight, std::int32_t Options) override;

    // Page and document facts for hosts that report them (page_info.cpp): read from the
    // document's objects, without loading the page.
    HResult GetPageGeometry(std::int32_t PageNumber, engine::PageGeometry* geometry);
    // The same for many pages (1-based) in one pass, in flat memory.
    HResult GetPageGeometries(const std::vector<int>& pages,
                              std::vector<engine::PageGeometry>* geometries);
    HResult GetPdfVersion(std::string* version);
    HResult GetEncryption(engine::EncryptionFacts* facts);

    // Writes the open document over its file through a side file.
    HResult Save();
    // Writes the document (opened first if needed) to `target` through its side file, leaving
    // the document's own file as it is.
    HResult SaveTo(const std::filesystem::path& target);

    // Stamping: every page of the source becomes a form XObject in this document (one
    // identifier per source page, 0 for a page without content); a form is drawn on a page,
    // moved and scaled, beneath or above the page's content.
    HResult ImportContent(CZPdfContentObject* srcObject, std::vector<std::uint32_t>* pages);
    HResult PlaceContent(std::uint32_t srcObjectId, std::int32_t DestinationPage, float transX,
                         float transY, float scaleX, float scaleY, VariantBool background);
    // Page assembly: all pages of the source at the end, or a range of them in place of as
    // many pages from `destPage` on.
    HResult AppendPages(CZPdfContentObject* srcObject);
    HResult ReplacePages(std::int32_t destPage, CZPdfContentObject* srcObject,
                         std::int32_t srcStart, std::int32_t srcEnd);
    // Hosts' page selections (insert_pages.cpp): the source's pages `pages` (1-based, in any
    // order, repeats allowed) are copied in front of page `destPage` (PageCount() + 1 appends);
    // with `replace`, as many pages as were copied are then removed from those that followed
    // (fewer when fewer follow).
    HResult InsertSelectedPages(std::int32_t destPage, CZPdfContentObject* srcObject,
                                const std::vector<int>& pages, bool replace);
    // Leaves the document holding its pages `pages` (1-based, in that order, repeats allowed)
    // and no others.
    HResult KeepSelectedPages(const std::vector<int>& pages);
    // Kept for the interface's layout; not implemented.
    HResult OverlayPrepare(const OptionalText& SourcePdfFile);
    HResult OverlayPage(std::int32_t SourcePage, std::int32_t DestinationPage,
                        std::int32_t ptPosLeft, std::int32_t ptPosTop, std::int32_t ptPosRight,
                        std::int32_t ptPosBottom);
    HResult OverlayFinish();
    HResult OverlayPage2(std::int32_t SourcePage, std::int32_t DestinationPage,
                         std::int32_t ptPosLeft, std::int32_t ptPosTop, std::int32_t ptPosRight,
                         std::int32_t ptPosBottom, std::int32_t nOptions);

    // Persistence in the host's job files.
    // The stream record: version, path, embed flag and password, and for an embedded document
    // its bytes, which Load restores into a new private copy. The document is never opened.
    HResult IsDirty() const;  // S_OK when dirty, S_FALSE when not
    HResult Load(ByteStream& stream);
    HResult Save(ByteStream& stream, bool fClearDirty);
    HResult GetSizeMax(std::uint64_t* pcbSize) const;  // 4, the version field only
    HResult InitNew();
    // (end of persistence)

    // ---- Secured saves ----
    // Both re-secure a document whose file is already encrypted and refuse any other with
    // E_FAIL (the file untouched). They take Save's road: a side file, the documents closed,
    // the side file moved over the document's file. The stored password is not changed.
    //
    // The standard security handler at revision 6 (AES-256) with these passwords (converted
    // with ToAnsi; null and empty both give the empty password), keeping the permissions of
    // the file. Like Save, it writes nothing and returns S_OK when no document is open.
    HResult SaveWithSecurity(const OptionalText& UserPassword, const OptionalText& OwnerPassword);
    // Public-key security (AES-256) for the holders of the certificates, one PEM text per
    // recipient. Opens the document first if needed. E_INVALIDARG for a null or empty list;
    // E_FAIL when an entry holds no certificate.
    HResult SaveWithPubKeySecurity(const std::vector<OptionalText>* recipients);
    // The same saves writing to `target` (through target + ".part") instead of the document's
    // own file, which is left as it is.
    HResult SaveWithSecurityTo(const std::filesystem::path& target,
                               const OptionalText& UserPassword, const OptionalText& OwnerPassword);
    HResult SaveWithPubKeySecurityTo(const std::filesystem::path& target,
                                     const std::vector<OptionalText>* recipients);
    // ---- end of secured saves ----

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
    // What a host may add to a split: the file's password (the parts are written without
    // encryption), and an extension for the part names (DestPrefix_1.pdf...).
    struct SplitOptions {
        std::optional<std::string> password;
        std::u16string extension;
    };
    HResult SplitPdf(const OptionalText& PdfFile, const OptionalText& DestPrefix,
                     std::int32_t* Splitted, SplitObserver* observer = nullptr,
                     const SplitOptions* options = nullptr);
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
    // Whether the last failed save failed at its target file (creating, writing, flushing or
    // moving it into place) rather than in making the document's bytes from its sources.
    bool LastSaveFailedAtTarget() const { return save_failed_at_target_; }

    // Largest band the drawing code renders at once, in bytes of BGRA pixels.
    static constexpr std::size_t kBandBytes = 8u << 20;

    // The engine document, for the operations that work on the document's objects. Only
    // meaningful after EnsurePdfDocument succeeded.
    engine::Document& EngineDocument();

  private:
    HResult Fail(HResult result, std::string why) const;
    // The 1-based `pages` of a document of `count` pages as indexes; E_INVALIDARG naming the
    // first page that does not exist.
    HResult PageIndexes(const std::vector<int>& pages, int count, std::vector<int>* indexes) const;
    HResult Saved(const SideFileSaveResult& saved);
    HResult EnsureBothDocuments(CZPdfContentObject& source);
    void CloseStream();

    OptionalText pdf_file_ = std::u16string();
    VariantBool embed_ = 0;
    bool owns_copy_ = false;  // the file at pdf_file_ is a private copy this object made
    OptionalText password_ = std::u16string();
    std::FILE* file_ = nullptr;
    std::unique_ptr<engine::Document> document_;
    bool viewer_ready_ = false;
    std::int32_t dirty_ = 1;
    mutable std::string last_error_;
    bool save_failed_at_target_ = false;
};

}  // namespace zpdf
