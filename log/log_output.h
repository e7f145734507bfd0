// Sinks that receive finished log lines. The manager owns every sink; categories that name the
// same output share one sink.
#pragma once

#include <cstdio>
#include <mutex>

namespace zpdf {

class LogOutput {
  public:
    virtual ~LogOutput() = default;
    // Emits one finished line: NUL-terminated and ending in "\n". A line reaches the sink whole
    // even when several threads write at once.
    virtual void Write(const char* line) = 0;
};

// Appends lines to a file, or to standard output (the "Console" sink) when constructed with a
// null path. Every line is flushed at once. A file that cannot be opened is not an error: the
// sink then drops every line.
class LogOutputFile : public LogOutput {
  public:
    explicit LogOutputFile(const char* path);
    ~LogOutputFile() override;
    LogOutputFile(const LogOutputFile&) = delete;
    LogOutputFile& operator=(const LogOutputFile&) = delete;

    void Write(const char* line) override;
    bool IsOpen() const { return stream_ != nullptr; }

  private:
    std::FILE* stream_ = nullptr;
    std::mutex mutex_;  // one line at a time, flushed before the next starts
};

// The debugger's output window on Windows. Other systems have no such channel: there the lines
// go to standard error instead.
class LogOutputDebugView : public LogOutput {
  public:
    void Write(const char* line) override;
};

// Drops every line; the sink of categories that are switched off.
class LogOutputNull : public LogOutput {
  public:
    void Write(const char* /*line*/) override {}
};

}  // namespace zpdf
