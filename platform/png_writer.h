// A streaming PNG writer: rows go in top to bottom and are compressed as they arrive, so an
// image never has to be held whole in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>

#include "platform/files.h"

namespace zpdf {

class PngWriter {
  public:
    PngWriter();
    ~PngWriter();
    PngWriter(const PngWriter&) = delete;
    PngWriter& operator=(const PngWriter&) = delete;

    // Each function returns a Win32 error number, 0 on success.
    // The image is written beside `path` and moved there by Finish; an unfinished image leaves
    // nothing behind.
    int Open(const std::filesystem::path& path, int width, int height, int dpi);
    // Appends `rows` rows of BGRA pixels (alpha ignored), `stride` bytes apart.
    int WriteBgraRows(const std::uint8_t* pixels, int rows, std::ptrdiff_t stride);
    // Appends `rows` white rows.
    int WriteWhiteRows(int rows);
    int RowsWritten() const { return rows_written_; }
    // Completes the image (all rows must have been written) and commits the file.
    int Finish();

  private:
    int WriteRow(const std::uint8_t* rgb);
    int Deflate(const std::uint8_t* data, std::size_t size, bool finish);
    int WriteChunk(const char type[4], const std::uint8_t* data, std::size_t size);

    struct State;
    std::unique_ptr<State> state_;
    std::unique_ptr<fs::FileReplacement> file_;
    int width_ = 0;
    int height_ = 0;
    int rows_written_ = 0;
};

}  // namespace zpdf
