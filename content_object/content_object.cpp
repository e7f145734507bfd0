#include "content_object/content_object.h"

#include <cstdio>
#include <utility>

#include "content_object/diagnostics.h"
#include "engine/engine.h"
#include "platform/files.h"

namespace zpdf {

std::string LoadErrorText(long code) {
    switch (code) {
        case 0:
            return "Success";
        case 1:
            return "Unknown error";
        case 2:
            return "File not found or could not be opened";
        case 3:
            return "File not in PDF format or corrupted";
        case 4:
            return "Password required or incorrect password";
        case 5:
            return "Unsupported security scheme";
        case 6:
            return "Page not found or content error";
        default:
            return "Unknown error " + std::to_string(code);
    }
}

CZPdfContentObject::CZPdfContentObject() {
    diagnostics::RouteEngineMessages();
}

CZPdfContentObject::~CZPdfContentObject() {
    ResetDocument();
    CloseStream();
}

HResult CZPdfContentObject::Fail(HResult result, std::string why) const {
    last_error_ = std::move(why);
    ZPDF_LOG_ERROR(diagnostics::Pdf(), "%s (%s)", last_error_.c_str(),
                   FormatHResult(result).c_str());
    return result;
}

HResult CZPdfContentObject::SetPdfDocument(const OptionalText& PdfFile, VariantBool Embed,
                                           const OptionalText& Password) {
    if (!PdfFile) return Fail(hr::kInvalidArg, "No file name was given");
    if (!fs::FileExists(ToPath(*PdfFile))) {
        // The name as the file system has it: bytes that are not UTF-8 print as they are.
        return Fail(hr::kInvalidArg, ToPath(*PdfFile).string() + " does not exist");
    }
    ResetDocument();
    dirty_ = 1;
    if (Embed != 0) {
        std::filesystem::path copy;
        if (const int error = fs::MakeTempCopy(ToPath(*PdfFile), &copy)) {
            return Fail(hr::FromWin32(error), "Cannot make the private copy of " +
                                                  ToPath(*PdfFile).string() + ": " +
                                                  fs::ErrorText(error));
        }
        pdf_file_ = FromPath(copy);
        owns_copy_ = true;
    } else {
        pdf_file_ = PdfFile;
    }
    embed_ = Embed;
    password_ = Password;
    return hr::kOk;
}

HResult CZPdfContentObject::GetPdfDocument(OptionalText* PdfFile) const {
    if (PdfFile == nullptr) return Fail(hr::kPointer, "No place for the result was given");
    *PdfFile = pdf_file_;
    return hr::kOk;
}

bool CZPdfContentObject::IsDocumentOpen() const {
    return document_ && document_->IsOpen();
}

engine::Document& CZPdfContentObject::EngineDocument() {
    return *document_;
}

void CZPdfContentObject::CloseStream() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}

HResult CZPdfContentObject::EnsurePdfDocument() {
    if (IsDocumentOpen()) return hr::kOk;
    CloseStream();
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    file_ = fs::OpenFile(ToPath(*pdf_file_), "rb");
    if (file_ == nullptr) {
        return Fail(hr::kUnexpected, "Cannot open " + Utf16ToUtf8(*pdf_file_) + " for reading");
    }

    std::optional<std::string> password;
    if (password_ && !password_->empty()) password = ToAnsi(*password_);

    const bool linearized = engine::LooksLinearized(file_);
    diagnostics::WriteLoadMessage(linearized ? "Linearized path..." : "Non-linearized path...");

    try {
        if (!document_) document_ = std::make_unique<engine::Document>();
        document_->Open(file_, password);
    } catch (const engine::EngineError& e) {
        const long code = static_cast<long>(e.Category());
        const std::string text = LoadErrorText(code);
        diagnostics::WriteLoadMessage("Load pdf docs unsuccessful: " + text + ".");
        // The engine's own words help with damaged files; for passwords they add nothing.
        return Fail(hr::kUnexpected, e.Category() == engine::ErrorCategory::Password
                                         ? text
                                         : text + " (" + e.what() + ")");
    } catch (const std::bad_alloc&) {
        return Fail(hr::kOutOfMemory, "Out of memory opening the document");
    }
    if (diagnostics::Pdf().IsEnabled(LogDebug)) {
        for (const std::string& feature : document_->UnsupportedFeatures()) {
            diagnostics::Pdf().Debug("%s: unsupported feature %s", Utf16ToUtf8(*pdf_file_).c_str(),
                                     feature.c_str());
        }
    }
    if (diagnostics::Load().IsEnabled(LogInfo)) {
        try {
            const engine::DocumentFacts facts = document_->Facts();
            diagnostics::Load().Info("opened %s: %d pages, %s, %s%s",
                                     Utf16ToUtf8(*pdf_file_).c_str(), facts.pages,
                                     linearized ? "linearized" : "not linearized",
                                     facts.encrypted ? "encrypted" : "not encrypted",
                                     facts.repaired ? ", repaired" : "");
        } catch (const engine::EngineError& e) {
            diagnostics::Load().Info("opened %s (%s)", Utf16ToUtf8(*pdf_file_).c_str(), e.what());
        }
    }
    return hr::kOk;
}

HResult CZPdfContentObject::EnsureViewerDocument() {
    if (viewer_ready_ && IsDocumentOpen()) return hr::kOk;
    viewer_ready_ = false;
    if (const HResult result = EnsurePdfDocument(); hr::Failed(result)) return result;
    viewer_ready_ = true;
    return hr::kOk;
}

void CZPdfContentObject::CloseDocuments() {
    if (document_) document_->Close();
    viewer_ready_ = false;
    // The stream goes too, so that nothing holds the file once the documents are closed.
    CloseStream();
}

void CZPdfContentObject::ResetDocument() {
    CloseDocuments();
    // Only a copy this object made is deleted: an embedded record restored with a path (as a
    // crafted job file can be) names someone else's file.
    if (embed_ != 0 && owns_copy_ && HasPath()) fs::RemoveQuietly(ToPath(*pdf_file_));
    owns_copy_ = false;
    pdf_file_ = std::u16string();
    password_ = std::u16string();
    embed_ = 0;
}

}  // namespace zpdf
