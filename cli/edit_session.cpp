#include "cli/edit_session.h"

#include <cstdint>
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
                       const OpenOptions& options) {
    if (const auto refused = RefuseRecipientInPlace(options, output))
        return UsageError(command_, *refused);
    std::filesystem::path source = ToPath(FromAnsi(file));
    input_name_ = IsStandardStream(file) ? "standard input" : file;
    if (IsStandardStream(file)) {
        if (!output) return UsageError(command_, "reading FILE from standard input needs -o OUT");
        if (const int error = input_.ReadStandardInput())
            return Failure(command_, "standard input", "cannot read it", hr::FromWin32(error));
        source = input_.Path();
    }
    destination_ = output ? ToPath(FromAnsi(*output)) : source;
    if (output && IsStandardStream(*output)) {
        if (const int error = output_.ForStandardOutput())
            return Failure(command_, "standard output", "cannot make its temporary file",
                           hr::FromWin32(error));
        destination_ = output_.Path();
    }
    to_output_ = output.has_value();
    std::u16string path = FromPath(source);
    OptionalText password = std::u16string();
    if (options.password) password = FromAnsi(*options.password);
    if (options.ForRecipient()) {
        if (const int rc = readable_.Make(ToAnsi(path), options)) return rc;
        path = readable_.Path();
        password = readable_.Password();
    }
    HResult result = object_.SetPdfDocument(path, 0, password);
    if (hr::Succeeded(result)) result = object_.EnsurePdfDocument();
    if (hr::Failed(result)) return Failure(command_, file, object_.LastErrorText(), result);
    return 0;
}

int EditSession::Commit() {
    // Writing a long document is most of a command's time: the terminal says what is going on.
    const bool shown = ProgressWanted();
    if (shown) {
        std::fprintf(stderr, "\rwriting %s...", DestinationName().c_str());
        std::fflush(stderr);
    }
    const HResult result = to_output_ ? object_.SaveTo(destination_) : object_.Save();
    if (shown) std::fputs("\r\033[K", stderr);
    if (hr::Failed(result)) {
        // A failure of the file being written is the output's; anything else is the document's
        // own data, read from FILE while the result is written.
        if (!object_.LastSaveFailedAtTarget() && to_output_) {
            return Failure(
                command_, input_name_,
                object_.LastErrorText() + " (found while writing " + DestinationName() + ")",
                result);
        }
        return Failure(command_, DestinationName(), object_.LastErrorText(), result);
    }
    if (!output_.Path().empty()) {
        if (const int error = output_.WriteStandardOutput())
            return Failure(command_, "standard output", "cannot write it", hr::FromWin32(error));
    }
    return 0;
}

std::string EditSession::DestinationName() const {
    return output_.Path().empty() ? destination_.string() : "standard output";
}

bool ProgressWanted() {
    return CurrentVerbosity() != Verbosity::kQuiet && ZPDF_ISATTY(ZPDF_FILENO(stderr)) != 0;
}

Progress::Progress(const char* what, long total)
    : what_(what), total_(total), shown_(total >= 200 && ProgressWanted()) {}

Progress::~Progress() {
    if (shown_) std::fputs("\r\033[K", stderr);
}

void Progress::Step(long done) {
    if (!shown_ || (done % 50 != 0 && done != total_)) return;
    std::fprintf(stderr, "\r%s %ld/%ld", what_, done, total_);
    std::fflush(stderr);
}

}  // namespace zpdf::cli
