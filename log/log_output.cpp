#include "log/log_output.h"

#include "platform/debug_output.h"
#include "platform/files.h"

namespace zpdf {

LogOutputFile::LogOutputFile(const char* path) {
    if (path == nullptr) {
        stream_ = stdout;
    } else {
        // Append in text mode, creating the file when it is missing.
        stream_ = fs::OpenFile(path, "a");
    }
}

LogOutputFile::~LogOutputFile() {
    if (stream_ != nullptr && stream_ != stdout) std::fclose(stream_);
}

void LogOutputFile::Write(const char* line) {
    if (stream_ == nullptr) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    std::fputs(line, stream_);
    std::fflush(stream_);
}

void LogOutputDebugView::Write(const char* line) {
    WriteDebuggerText(line);
}

}  // namespace zpdf
