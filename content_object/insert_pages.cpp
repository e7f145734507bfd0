// Copying a selection of a source's pages into the document.
#include "content_object/content_object.h"
#include "engine/engine.h"
#include "engine/page_operations.h"

namespace zpdf {

HResult CZPdfContentObject::InsertSelectedPages(std::int32_t destPage,
                                                CZPdfContentObject* srcObject,
                                                const std::vector<int>& pages, bool replace) {
    if (srcObject == nullptr) return Fail(hr::kPointer, "No source document was given");
    if (pages.empty()) return Fail(hr::kInvalidArg, "No source page was selected");
    if (const HResult result = EnsureBothDocuments(*srcObject); hr::Failed(result)) return result;
    try {
        engine::Document& doc = EngineDocument();
        const int source_pages = srcObject->EngineDocument().PageCount();
        std::vector<int> indexes;
        indexes.reserve(pages.size());
        for (const int page : pages) {
            if (page < 1 || page > source_pages) {
                return Fail(hr::kInvalidArg, "The source has no page " + std::to_string(page) +
                                                 " (it has " + std::to_string(source_pages) + ")");
            }
            indexes.push_back(page - 1);
        }
        const std::int64_t at = std::int64_t{destPage} - 1;
        if (at < 0 || at > doc.PageCount()) {
            return Fail(hr::kInvalidArg,
                        "Pages cannot be inserted before page " + std::to_string(destPage));
        }
        engine::ImportPages(doc, srcObject->EngineDocument(), &indexes, static_cast<int>(at));
        if (replace)
            engine::RemoveReplacedPages(doc, static_cast<int>(at),
                                        static_cast<int>(indexes.size()));
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, std::string("Cannot copy the pages: ") + e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::PageIndexes(const std::vector<int>& pages, int count,
                                        std::vector<int>* indexes) const {
    indexes->reserve(pages.size());
    for (const int page : pages) {
        if (page < 1 || page > count)
            return Fail(hr::kInvalidArg, "Page " + std::to_string(page) + " does not exist");
        indexes->push_back(page - 1);
    }
    return hr::kOk;
}

HResult CZPdfContentObject::KeepSelectedPages(const std::vector<int>& pages) {
    if (pages.empty()) return Fail(hr::kInvalidArg, "No page was selected");
    if (const HResult result = EnsurePdfDocument(); hr::Failed(result)) return result;
    try {
        engine::Document& doc = EngineDocument();
        const int count = doc.PageCount();
        std::vector<int> indexes;
        if (const HResult result = PageIndexes(pages, count, &indexes); hr::Failed(result))
            return result;
        // The selection goes in front, copied from the document itself; the old pages follow it
        // and are removed.
        engine::ImportPages(doc, doc, &indexes, 0);
        const auto kept = static_cast<int>(indexes.size());
        for (int i = 0; i < count; ++i) engine::DeletePage(doc, kept);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, std::string("Cannot select the pages: ") + e.what());
    }
    return hr::kOk;
}

}  // namespace zpdf
