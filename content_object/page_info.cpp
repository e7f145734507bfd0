// Page boxes, version and encryption of the open document.
#include "content_object/content_object.h"
#include "engine/engine.h"

namespace zpdf {

HResult CZPdfContentObject::GetPageGeometry(std::int32_t PageNumber,
                                            engine::PageGeometry* geometry) {
    if (geometry == nullptr) return Fail(hr::kPointer, "No place for the page's boxes was given");
    *geometry = engine::PageGeometry{};
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (const HResult result = EnsureViewerDocument(); hr::Failed(result)) return result;
    try {
        if (PageNumber < 1 || PageNumber > document_->PageCount()) {
            return Fail(hr::kInvalidArg, "Page " + std::to_string(PageNumber) + " does not exist");
        }
        *geometry = engine::ReadPageGeometry(*document_, PageNumber - 1);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::GetPageGeometries(const std::vector<int>& pages,
                                              std::vector<engine::PageGeometry>* geometries) {
    if (geometries == nullptr) return Fail(hr::kPointer, "No place for the pages' boxes was given");
    geometries->clear();
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (const HResult result = EnsureViewerDocument(); hr::Failed(result)) return result;
    try {
        const int count = document_->PageCount();
        std::vector<int> indexes;
        if (const HResult result = PageIndexes(pages, count, &indexes); hr::Failed(result))
            return result;
        engine::ReadPageGeometries(*document_, indexes, geometries);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    } catch (const std::bad_alloc&) {
        return Fail(hr::kOutOfMemory, "Out of memory reading the pages' boxes");
    }
    return hr::kOk;
}

HResult CZPdfContentObject::GetPdfVersion(std::string* version) {
    if (version == nullptr) return Fail(hr::kPointer, "No place for the version was given");
    version->clear();
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (const HResult result = EnsureViewerDocument(); hr::Failed(result)) return result;
    try {
        *version = engine::PdfVersion(*document_);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    }
    return hr::kOk;
}

HResult CZPdfContentObject::GetEncryption(engine::EncryptionFacts* facts) {
    if (facts == nullptr) return Fail(hr::kPointer, "No place for the encryption was given");
    *facts = engine::EncryptionFacts{};
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (const HResult result = EnsureViewerDocument(); hr::Failed(result)) return result;
    try {
        *facts = engine::ReadEncryption(*document_);
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    }
    return hr::kOk;
}

}  // namespace zpdf
