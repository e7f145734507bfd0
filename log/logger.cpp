#include "log/logger.h"

#include "log/log_line.h"
#include "log/log_manager.h"
#include "platform/clock.h"

namespace zpdf {

Logger::Logger(LogManager& manager, std::string name, LogLevel level, LogOutput* output)
    : manager_(manager), name_(std::move(name)), level_(level), output_(output) {}

LogLevel Logger::SetLevel(LogLevel level) {
    level_.store(level, std::memory_order_relaxed);
    return level;
}

LogOutput* Logger::SetOutput(LogOutput* output) {
    output_.store(output, std::memory_order_release);
    return output;
}

void Logger::Write(LogLevel level, const char* format, std::va_list args) {
    if (!IsEnabled(level)) return;
    LogOutput* output = GetOutput();
    if (output == nullptr || format == nullptr) return;

    LogLinePrefix prefix;
    prefix.fields = manager_.GetFields();
    prefix.level = level;
    prefix.category = name_;
    char date[11];
    char time[9];
    if ((prefix.fields & (LogFieldBit(LogFieldDate) | LogFieldBit(LogFieldTime))) != 0) {
        CaptureLocalDateTime(date, time);
        prefix.date = date;
        prefix.time = time;
        prefix.tick = MillisecondTick();
    }
    if ((prefix.fields & LogFieldBit(LogFieldUser)) != 0) prefix.user = manager_.UserAndComputer();

    char line[kLogLineBufferSize];
    ComposeLogLine(line, sizeof line, prefix, format, args);
    output->Write(line);
}

}  // namespace zpdf
