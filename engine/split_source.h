// What splitting a file needs from the engine: a PDF file read page by page, and page ranges
// of it written as new documents. A split source has a context of its own and never shares a
// document with a content object.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "engine/engine.h"

namespace zpdf::engine {

class SplitSource {
  public:
    // Throws EngineError when the engine cannot give it a context.
    SplitSource();
    ~SplitSource();
    SplitSource(const SplitSource&) = delete;
    SplitSource& operator=(const SplitSource&) = delete;

    // Opens the document in `file`, which the caller keeps open until this object is gone, with
    // `password` when it needs one (only the empty one is tried without it). Throws EngineError:
    // Password when the document needs a password, File when the file cannot be read, NotPdf or
    // UnsupportedSecurity otherwise.
    void Open(std::FILE* file, const std::optional<std::string>& password = std::nullopt);
    // The pages found in the page tree (a /Count that disagrees with the tree is ignored).
    int PageCount() const;

    // Replaces `text` with the text of page `index` (0-based): every character that the text
    // operators of the page's content and of the forms it draws show, in content order, with
    // nothing put between text runs. Render mode, colour, clipping and layers do not matter:
    // invisible or hidden text is text too. Annotations are not read, and nothing of the page
    // stays loaded afterwards. Throws EngineError (Page).
    void ReadPageText(int index, std::u32string& text);

    // Writes pages `first` to `last` (0-based, inclusive) as a new document holding exactly
    // those pages, each with every key but /Parent and /StructParents and every object it uses
    // (shared ones once), its annotations and form fields working; the outline entries and
    // named destinations that point into those pages; the source's output intents, language,
    // viewer preferences and metadata; its page labels restarted at the first page. Throws
    // EngineError (File when the sink refused bytes, Other otherwise).
    void WritePages(int first, int last, ByteSink& sink);

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace zpdf::engine
