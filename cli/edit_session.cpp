#include "cli/edit_session.h"

#include <cstdio>
#if defined(_WIN32)
#include <io.h>
#define ZPDF_ISATTY _isatty
#define ZPDF_FILENO _fileno
#else
#include <unistd.h>
#define ZPDF_ISATTY isatty
#define ZPDF_FILENO fileno
#endif

#include "platform/files.h"

namespace zpdf::cli {

EditSession::~EditSession() {
    if (!committed_ && !working_copy_.empty()) {
        object_.ResetDocument();
        fs::RemoveQuietly(working_copy_);
    }
}

int EditSession::Begin(const std::string& file, const std::optional<std::string>& output,
                       const std::optional<std::string>& password) {
    std::filesystem::path source = ToPath(FromAnsi(file));
    destination_ = source;
    if (output) {
        destination_ = ToPath(FromAnsi(*output));
        working_copy_ = destination_;
        working_copy_ += ".work";
        std::error_code ec;
        std::filesystem::copy_file(source, working_copy_,
                                   std::filesystem::copy_options::overwrite_existing, ec);
        if (ec) {
            fs::RemoveQuietly(working_copy_);
            return Failure(command_, file,
                           "cannot copy it to " + destination_.string() + ": " + ec.message(),
                           hr::FromWin32(fs::Win32ErrorFromErrorCode(ec)));
        }
        source = working_copy_;
    }
    OptionalText pw = std::u16string();
    if (password) pw = FromAnsi(*password);
    HResult result = object_.SetPdfDocument(FromPath(source), 0, pw);
    if (hr::Succeeded(result)) result = object_.EnsurePdfDocument();
    if (hr::Failed(result)) return Failure(command_, file, object_.LastErrorText(), result);
    return 0;
}

int EditSession::Commit() {
    const HResult result = object_.Save();
    if (hr::Failed(result))
        return Failure(command_, destination_.string(), object_.LastErrorText(), result);
    if (!working_copy_.empty()) {
        object_.ResetDocument();
        if (const int error = fs::MoveReplace(working_copy_, destination_)) {
            return Failure(command_, destination_.string(), "cannot put the result in place",
                           hr::FromWin32(error));
        }
    }
    committed_ = true;
    return 0;
}

int OpenSource(const Command& command, CZPdfContentObject& object, const std::string& file,
               const std::optional<std::string>& password) {
    OptionalText pw = std::u16string();
    if (password) pw = FromAnsi(*password);
    HResult result = object.SetPdfDocument(FromAnsi(file), 0, pw);
    if (hr::Succeeded(result)) result = object.EnsurePdfDocument();
    if (hr::Failed(result)) return Failure(command, file, object.LastErrorText(), result);
    return 0;
}

Progress::Progress(const char* what, long total)
    : what_(what), total_(total), shown_(total >= 200 && ZPDF_ISATTY(ZPDF_FILENO(stderr)) != 0) {}

Progress::~Progress() {
    if (shown_) std::fputs("\r\033[K", stderr);
}

void Progress::Step(long done) {
    if (!shown_ || (done % 50 != 0 && done != total_)) return;
    std::fprintf(stderr, "\r%s %ld/%ld", what_, done, total_);
    std::fflush(stderr);
}

}  // namespace zpdf::cli
