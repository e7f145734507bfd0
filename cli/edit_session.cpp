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

namespace zpdf::cli {

int EditSession::Begin(const std::string& file, const std::optional<std::string>& output,
                       const std::optional<std::string>& password) {
    const std::filesystem::path source = ToPath(FromAnsi(file));
    destination_ = output ? ToPath(FromAnsi(*output)) : source;
    to_output_ = output.has_value();
    OptionalText pw = std::u16string();
    if (password) pw = FromAnsi(*password);
    HResult result = object_.SetPdfDocument(FromPath(source), 0, pw);
    if (hr::Succeeded(result)) result = object_.EnsurePdfDocument();
    if (hr::Failed(result)) return Failure(command_, file, object_.LastErrorText(), result);
    return 0;
}

int EditSession::Commit() {
    const HResult result = to_output_ ? object_.SaveTo(destination_) : object_.Save();
    if (hr::Failed(result))
        return Failure(command_, destination_.string(), object_.LastErrorText(), result);
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
