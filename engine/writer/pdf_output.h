// The bytes of a PDF file on their way to a sink: gathered in large pieces, and counted, so that
// the cross-reference table knows where each object starts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "engine/engine.h"

namespace zpdf::engine {

class PdfOutput {
  public:
    explicit PdfOutput(ByteSink& sink);
    PdfOutput(const PdfOutput&) = delete;
    PdfOutput& operator=(const PdfOutput&) = delete;

    void Put(std::string_view text);
    void PutChar(char c) { buffer_ += c; }
    void PutNumber(std::int64_t value);
    void PutBytes(const unsigned char* data, std::size_t size);
    // "N G R".
    void PutReference(std::int64_t num, int gen = 0);
    // Where the next byte goes in the file.
    std::int64_t Offset() const { return flushed_ + static_cast<std::int64_t>(buffer_.size()); }
    // Hands what is gathered to the sink. Throws EngineError (File) when the sink refuses it.
    void Flush();

  private:
    void FlushIfFull();

    ByteSink& sink_;
    std::string buffer_;
    std::int64_t flushed_ = 0;
};

}  // namespace zpdf::engine
