// One log category: a name, a threshold and a sink.
//
// A suppressed message costs one integer comparison. The ZPDF_LOG_* macros make that comparison
// inline, before the arguments are even evaluated; the member functions Error(), Info()... make
// it before formatting, but their arguments are evaluated by the caller first:
//
//     zpdf::Logger& log = zpdf::LogManager::Instance().GetLogger("PDF.Save");
//     ZPDF_LOG_ERROR(log, "cannot write %s: error %d", path.c_str(), error);
//     zpdf::PdfLog().Info("%d pages", count);
#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include "log/log_level.h"
#include "log/log_output.h"

#if defined(__GNUC__) || defined(__clang__)
#define ZPDF_PRINTF_LIKE(format_index, first_arg) \
    __attribute__((format(printf, format_index, first_arg)))
#else
#define ZPDF_PRINTF_LIKE(format_index, first_arg)
#endif

// Logs a printf-style message when `logger` lets `level` through; otherwise the format and its
// arguments are not evaluated at all.
#define ZPDF_LOG(logger, level, ...)                   \
    do {                                               \
        ::zpdf::Logger& zpdf_log_target = (logger);    \
        if (zpdf_log_target.IsEnabled(level)) {        \
            zpdf_log_target.Log((level), __VA_ARGS__); \
        }                                              \
    } while (false)
#define ZPDF_LOG_FATAL(logger, ...) ZPDF_LOG(logger, ::zpdf::LogFatal, __VA_ARGS__)
#define ZPDF_LOG_ERROR(logger, ...) ZPDF_LOG(logger, ::zpdf::LogError, __VA_ARGS__)
#define ZPDF_LOG_WARN(logger, ...) ZPDF_LOG(logger, ::zpdf::LogWarn, __VA_ARGS__)
#define ZPDF_LOG_INFO(logger, ...) ZPDF_LOG(logger, ::zpdf::LogInfo, __VA_ARGS__)
#define ZPDF_LOG_DEBUG(logger, ...) ZPDF_LOG(logger, ::zpdf::LogDebug, __VA_ARGS__)
#define ZPDF_LOG_TRACE(logger, ...) ZPDF_LOG(logger, ::zpdf::LogTrace, __VA_ARGS__)

namespace zpdf {

class LogManager;

class Logger {
  public:
    // Loggers are made by their LogManager, which also owns the sinks they point to.
    Logger(LogManager& manager, std::string name, LogLevel level, LogOutput* output);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    const std::string& GetName() const { return name_; }
    LogLevel GetLevel() const { return level_.load(std::memory_order_relaxed); }
    LogLevel SetLevel(LogLevel level);
    LogOutput* GetOutput() const { return output_.load(std::memory_order_acquire); }
    // `output` must outlive this logger; the manager's sinks do.
    LogOutput* SetOutput(LogOutput* output);

    bool IsEnabled(LogLevel level) const { return level <= level_.load(std::memory_order_relaxed); }

    void Fatal(const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
    void Error(const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
    void Warn(const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
    void Info(const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
    void Debug(const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
    void Trace(const char* format, ...) ZPDF_PRINTF_LIKE(2, 3);
    void Log(LogLevel level, const char* format, ...) ZPDF_PRINTF_LIKE(3, 4);

    // Builds one line with the manager's prefix fields and hands it to the sink. Repeats the
    // level test, so it may be called directly.
    void Write(LogLevel level, const char* format, std::va_list args) ZPDF_PRINTF_LIKE(3, 0);

  private:
    LogManager& manager_;
    const std::string name_;
    std::atomic<LogLevel> level_;
    std::atomic<LogOutput*> output_;
};

// Each level-named function tests the level before it touches its argument list.
#define ZPDF_LOGGER_LEVEL_FUNCTION(function, level)         \
    inline void Logger::function(const char* format, ...) { \
        if (!IsEnabled(level)) return;                      \
        std::va_list args;                                  \
        va_start(args, format);                             \
        Write(level, format, args);                         \
        va_end(args);                                       \
    }
ZPDF_LOGGER_LEVEL_FUNCTION(Fatal, LogFatal)
ZPDF_LOGGER_LEVEL_FUNCTION(Error, LogError)
ZPDF_LOGGER_LEVEL_FUNCTION(Warn, LogWarn)
ZPDF_LOGGER_LEVEL_FUNCTION(Info, LogInfo)
ZPDF_LOGGER_LEVEL_FUNCTION(Debug, LogDebug)
ZPDF_LOGGER_LEVEL_FUNCTION(Trace, LogTrace)
#undef ZPDF_LOGGER_LEVEL_FUNCTION

inline void Logger::Log(LogLevel level, const char* format, ...) {
    if (!IsEnabled(level)) return;
    std::va_list args;
    va_start(args, format);
    Write(level, format, args);
    va_end(args);
}

}  // namespace zpdf
