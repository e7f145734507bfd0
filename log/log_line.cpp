#include "log/log_line.h"

#include <cstdio>
#include <cstring>

namespace zpdf {
namespace {

// Appends text without passing the last byte of the buffer, which stays for the NUL.
class LineBuilder {
  public:
    LineBuilder(char* buffer, std::size_t size) : buffer_(buffer), size_(size) { buffer_[0] = 0; }

    void Append(std::string_view text) {
        const std::size_t room = size_ - 1 - length_;
        const std::size_t count = text.size() < room ? text.size() : room;
        std::memcpy(buffer_ + length_, text.data(), count);
        length_ += count;
        buffer_[length_] = 0;
    }

    void AppendFormatted(const char* format, std::va_list args) {
        const std::size_t room = size_ - length_;
        const int written = std::vsnprintf(buffer_ + length_, room, format, args);
        if (written < 0) {
            buffer_[length_] = 0;  // a format error leaves the message empty
            return;
        }
        const auto full = static_cast<std::size_t>(written);
        length_ += full < room ? full : room - 1;  // vsnprintf cut it to the room left
    }

    void EndWithNewline() {
        if (length_ > 0 && buffer_[length_ - 1] == '\n') return;
        if (length_ == size_ - 1) --length_;  // full: the newline replaces the last character
        buffer_[length_++] = '\n';
        buffer_[length_] = 0;
    }

    std::size_t Length() const { return length_; }

  private:
    char* buffer_;
    std::size_t size_;
    std::size_t length_ = 0;
};

// The first six digits of the tick count, or the count with leading zeros when it is shorter.
void AppendTick(LineBuilder& line, std::uint32_t tick) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "%06lu", static_cast<unsigned long>(tick));
    line.Append(std::string_view(digits, 6));
}

bool On(const LogLinePrefix& prefix, LogField field) {
    return (prefix.fields & LogFieldBit(field)) != 0;
}

}  // namespace

std::size_t ComposeLogLine(char* buffer, std::size_t size, const LogLinePrefix& prefix,
                           const char* format, std::va_list args) {
    LineBuilder line(buffer, size);
    if (On(prefix, LogFieldDate)) {
        line.Append(std::string_view(prefix.date, 10));
        line.Append(";");
    }
    if (On(prefix, LogFieldTime)) {
        line.Append(std::string_view(prefix.time, 8));
        line.Append(".");
        AppendTick(line, prefix.tick);
        line.Append(";");
    }
    if (On(prefix, LogFieldLevel)) {
        line.Append(LogLevelLineWord(prefix.level));
        line.Append(";");
    }
    if (On(prefix, LogFieldUser)) {
        line.Append(prefix.user);
        line.Append(";");
    }
    if (On(prefix, LogFieldCategory)) {
        line.Append(prefix.category);
        line.Append(";");
    }
    line.AppendFormatted(format, args);
    line.EndWithNewline();
    return line.Length();
}

}  // namespace zpdf
