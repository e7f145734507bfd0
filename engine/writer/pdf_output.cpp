#include "engine/writer/pdf_output.h"

#include <charconv>

namespace zpdf::engine {
namespace {

constexpr std::size_t kFlushBytes = 256u * 1024;

}  // namespace

PdfOutput::PdfOutput(ByteSink& sink) : sink_(sink) {
    buffer_.reserve(kFlushBytes + 4096);
}

void PdfOutput::Put(std::string_view text) {
    buffer_.append(text);
    FlushIfFull();
}

void PdfOutput::PutNumber(std::int64_t value) {
    char text[24];
    const auto result = std::to_chars(text, text + sizeof text, value);
    buffer_.append(text, result.ptr);
}

void PdfOutput::PutBytes(const unsigned char* data, std::size_t size) {
    buffer_.append(reinterpret_cast<const char*>(data), size);
    FlushIfFull();
}

void PdfOutput::PutReference(std::int64_t num, int gen) {
    PutNumber(num);
    PutChar(' ');
    PutNumber(gen);
    Put(" R");
}

void PdfOutput::FlushIfFull() {
    if (buffer_.size() >= kFlushBytes) Flush();
}

void PdfOutput::Flush() {
    if (buffer_.empty()) return;
    if (!sink_.Write(buffer_.data(), buffer_.size()))
        throw EngineError(ErrorCategory::File, "Cannot write the output file");
    flushed_ += static_cast<std::int64_t>(buffer_.size());
    buffer_.clear();
}

}  // namespace zpdf::engine
