// The PDF engine as the core sees it: no engine header leaks out of this folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/device_context.h"

namespace zpdf::engine {

// Why an engine call failed. The numbers are the load error codes the component reports.
enum class ErrorCategory : int {
    Other = 1,
    File = 2,
    NotPdf = 3,
    Password = 4,
    UnsupportedSecurity = 5,
    Page = 6,
};

// The one exception type engine failures turn into.
class EngineError : public std::runtime_error {
  public:
    EngineError(ErrorCategory category, const std::string& what)
        : std::runtime_error(what), category_(category) {}
    ErrorCategory Category() const { return category_; }

  private:
    ErrorCategory category_;
};

// The engine's process-wide context: created once, with locks, before any document is opened.
// Both are idempotent; documents start the engine on first use if the host did not.
void StartProcessEngine();
void StopProcessEngine();

// Receives the engine's own warnings and errors (which would otherwise go to the console).
// level: 2 for errors, 3 for warnings.
using DiagnosticSink = void (*)(int level, const char* message);
void SetDiagnosticSink(DiagnosticSink sink);

// True when the first object of the file is a linearization dictionary. Reads the head of the
// file and leaves the position at the start.
bool LooksLinearized(std::FILE* file);

// Bytes out of the engine's writer. Must not throw: a false return stops the writer.
class ByteSink {
  public:
    virtual ~ByteSink() = default;
    virtual bool Write(const void* data, std::size_t size) noexcept = 0;
};

struct PageSize {
    double width = 0;
    double height = 0;
};

struct DocumentFacts {
    int pages = 0;
    bool encrypted = false;
    bool repaired = false;
};

class Document;

// The pages of a document that another document takes in at its end only when it is written,
// or when anything needs its page tree first. Whoever makes one keeps the document readable
// for as long as it lives (a private copy of its file, say), and lets it go when destroyed.
class AppendSource {
  public:
    virtual ~AppendSource() = default;
    // The open document whose pages are appended; never changed while it is recorded.
    virtual Document& Pages() = 0;
};

// One open PDF document in its own engine context (sharing the process context's locks, so two
// documents can be used on two threads at once, and with a store of its own).
class Document {
  public:
    Document();
    ~Document();
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    // Opens the document from `file` (which the caller keeps open until Close). A password is
    // tried when the document needs one. Throws EngineError.
    void Open(std::FILE* file, const std::optional<std::string>& password);
    bool IsOpen() const;
    // Runs the document's will-close action and drops it. Never throws.
    void Close() noexcept;

    // Counts the pages recorded to be appended as well.
    int PageCount();
    // The page's visible box in points, after its rotation.
    PageSize GetPageSize(int index);
    DocumentFacts Facts();
    // Names of document-level features that printing does not carry out ("XFA",
    // "Portfolios_Packages", "Attachment", "Rights_Management", "Digital_Signature").
    std::vector<std::string> UnsupportedFeatures();

    // Draws page `index` (0-based) scaled into `page_rect`, touching only the device pixels of
    // `visible`, in bands of at most `band_bytes` bytes. Annotations are drawn as for printing.
    // With `page_actions`, the page's open and close actions run around the drawing.
    void RenderPage(int index, const DeviceRect& page_rect, const DeviceRect& visible,
                    DeviceContext& dc, bool page_actions, std::size_t band_bytes);

    // Serialises the whole document (no incremental update; the document's own security is
    // kept). Throws EngineError.
    void Write(ByteSink& sink);

    struct Impl;
    Impl& Internals() { return *impl_; }

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace zpdf::engine
