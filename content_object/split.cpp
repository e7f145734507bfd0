// Splitting a file after its marker pages. The file is read with an engine source of its own;
// each part is a new document written to a side file and moved into place, so a part file is
// either whole or absent.
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include "content_object/content_object.h"
#include "content_object/diagnostics.h"
#include "content_object/side_file_save.h"
#include "engine/split_source.h"
#include "platform/files.h"

namespace zpdf {
namespace {

// The text that ends a part when a page carries it, anywhere in the page's text.
constexpr std::u32string_view kPartEndMarker = U"@@nd@@";

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

std::filesystem::path PartPath(const std::u16string& prefix, int number,
                               const std::u16string& extension) {
    return ToPath(prefix + u"_" + Utf8ToUtf16(std::to_string(number)) + extension);
}

// The source's load failures are reported where the object's own are.
void ReportLoadFailure(const std::string& text) {
    diagnostics::WriteLoadMessage("Load pdf docs unsuccessful: " + text + ".");
}

// Writes pages first to last (0-based) of `source` as `target`. Returns the result and, on
// failure, why.
HResult WritePart(engine::SplitSource& source, const fs::FileIdentity& source_identity, int first,
                  int last, const std::filesystem::path& target, std::string* why) {
    // A part never takes the place of the file it is cut from, whatever name leads to it.
    fs::FileIdentity existing;
    if (fs::IdentifyFile(target, &existing) && existing.SameFile(source_identity)) {
        *why = "Cannot write " + target.string() + ": it is the file being split";
        return hr::FromWin32(fs::kErrorAccessDenied);
    }
    // Neither a part nor its name is forced to the disk: a part can be made again from the
    // source, and two waits for the disk per part would cost more than the whole text scan.
    fs::FileReplacement file(target, fs::FileReplacement::Durability::Buffered);
    if (int error = file.Open()) {
        // Creating a file fails with "not found" only when its folder is missing.
        if (error == fs::kErrorFileNotFound) error = fs::kErrorPathNotFound;
        *why = file.Problem();
        return hr::FromWin32(error);
    }
    FileReplacementSink sink(file);
    try {
        source.WritePages(first, last, sink);
    } catch (const engine::EngineError& e) {
        if (sink.Error() != 0) {
            *why = file.Problem();
            return hr::FromWin32(sink.Error());
        }
        *why = "Cannot write " + target.string() + ": " + e.what();
        return hr::kFail;
    }
    if (const int error = file.FinishData()) {
        *why = file.Problem();
        return hr::FromWin32(error);
    }
    if (const int error = file.Replace()) {
        *why = file.Problem();
        return hr::FromWin32(error);
    }
    return hr::kOk;
}

}  // namespace

HResult CZPdfContentObject::SplitPdf(const OptionalText& PdfFile, const OptionalText& DestPrefix,
                                     std::int32_t* Splitted, SplitObserver* observer,
                                     const SplitOptions* options) {
    if (Splitted == nullptr || !PdfFile || !DestPrefix) {
        return Fail(hr::kPointer, "No file, prefix or place for the part count was given");
    }
    *Splitted = 0;
    try {
        const std::filesystem::path source_path = ToPath(*PdfFile);
        errno = 0;
        const FileHandle file(fs::OpenFile(source_path, "rb"));
        if (!file) {
            const int error = fs::Win32ErrorFromErrno(errno != 0 ? errno : ENOENT);
            ReportLoadFailure(LoadErrorText(static_cast<long>(engine::ErrorCategory::File)));
            return Fail(hr::FromWin32(error), "Cannot open " + source_path.string() +
                                                  " for reading: " + fs::ErrorText(error));
        }
        fs::FileIdentity source_identity;
        if (!fs::IdentifyOpenFile(file.get(), &source_identity)) {
            return Fail(hr::FromWin32(fs::kErrorReadFault),
                        "Cannot identify " + source_path.string());
        }

        engine::SplitSource source;
        try {
            source.Open(file.get(), options != nullptr ? options->password : std::nullopt);
        } catch (const engine::EngineError& e) {
            const std::string text = LoadErrorText(static_cast<long>(e.Category()));
            ReportLoadFailure(text);
            switch (e.Category()) {
                case engine::ErrorCategory::Password:
                    return Fail(hr::kAccessDenied, text);
                case engine::ErrorCategory::File:
                    return Fail(hr::FromWin32(fs::kErrorReadFault), text + " (" + e.what() + ")");
                default:
                    return Fail(hr::kUnexpected, text + " (" + e.what() + ")");
            }
        }

        const int pages = source.PageCount();
        if (pages <= 1) return hr::kFalse;

        // Writes the next part; *Splitted counts it once it is in place.
        std::string why;
        const auto write_next_part = [&](int first, int last) {
            const std::filesystem::path target =
                PartPath(*DestPrefix, *Splitted + 1, options != nullptr ? options->extension : u"");
            const HResult result = WritePart(source, source_identity, first, last, target, &why);
            if (hr::Failed(result)) return result;
            ++*Splitted;
            if (observer != nullptr) observer->PartWritten(*Splitted, first + 1, last + 1, target);
            return hr::kOk;
        };

        // The last page is never examined: whatever it holds, it ends the last part.
        std::u32string text;
        int first = 0;
        for (int page = 0; page + 1 < pages; ++page) {
            bool ends_part = false;
            try {
                source.ReadPageText(page, text);
                ends_part = text.find(kPartEndMarker) != std::u32string::npos;
            } catch (const engine::EngineError&) {
                // A page whose content cannot be read carries no marker.
            }
            if (observer != nullptr) observer->PageExamined(page + 1, pages);
            if (!ends_part) continue;
            if (const HResult result = write_next_part(first, page); hr::Failed(result)) {
                return Fail(result, why);
            }
            first = page + 1;
        }
        if (*Splitted == 0) return hr::kFalse;  // no marker: not even the whole file is written
        if (const HResult result = write_next_part(first, pages - 1); hr::Failed(result)) {
            return Fail(result, why);
        }
        return hr::kOk;
    } catch (const engine::EngineError& e) {
        return Fail(hr::kUnexpected, e.what());
    } catch (const std::bad_alloc&) {
        return Fail(hr::kOutOfMemory, "Out of memory while splitting");
    } catch (const std::exception& e) {
        return Fail(hr::kUnexpected, e.what());
    }
}

}  // namespace zpdf
