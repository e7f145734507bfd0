#include "platform/png_writer.h"

#include <zlib.h>

#include <cstring>
#include <vector>

namespace zpdf {

struct PngWriter::State {
    z_stream zs{};
    bool zs_ready = false;
    std::vector<std::uint8_t> row;  // filter byte + RGB
    std::vector<std::uint8_t> out;  // compressed bytes waiting for an IDAT chunk
};

namespace {

void PutU32(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}

constexpr std::size_t kIdatSize = 1 << 16;

}  // namespace

PngWriter::PngWriter() : state_(std::make_unique<State>()) {}

PngWriter::~PngWriter() {
    if (state_->zs_ready) deflateEnd(&state_->zs);
}

int PngWriter::Open(const std::filesystem::path& path, int width, int height, int dpi) {
    if (width <= 0 || height <= 0) return fs::kErrorGenFailure;
    width_ = width;
    height_ = height;
    rows_written_ = 0;
    file_ = std::make_unique<fs::FileReplacement>(path);
    if (const int error = file_->Open()) return error;
    static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (const int error = file_->Write(kSignature, sizeof kSignature)) return error;
    std::uint8_t ihdr[13];
    PutU32(ihdr, static_cast<std::uint32_t>(width));
    PutU32(ihdr + 4, static_cast<std::uint32_t>(height));
    ihdr[8] = 8;   // bit depth
    ihdr[9] = 2;   // RGB
    ihdr[10] = 0;  // deflate
    ihdr[11] = 0;  // adaptive filtering
    ihdr[12] = 0;  // no interlace
    if (const int error = WriteChunk("IHDR", ihdr, sizeof ihdr)) return error;
    if (dpi > 0) {
        std::uint8_t phys[9];
        const auto per_metre = static_cast<std::uint32_t>(dpi / 0.0254 + 0.5);
        PutU32(phys, per_metre);
        PutU32(phys + 4, per_metre);
        phys[8] = 1;
        if (const int error = WriteChunk("pHYs", phys, sizeof phys)) return error;
    }
    if (deflateInit(&state_->zs, 6) != Z_OK) return fs::kErrorNotEnoughMemory;
    state_->zs_ready = true;
    state_->row.assign(1 + static_cast<std::size_t>(width) * 3, 0);
    return 0;
}

int PngWriter::WriteBgraRows(const std::uint8_t* pixels, int rows, std::ptrdiff_t stride) {
    for (int r = 0; r < rows; ++r) {
        const std::uint8_t* src = pixels + stride * r;
        std::uint8_t* dst = state_->row.data() + 1;
        for (int x = 0; x < width_; ++x) {
            dst[0] = src[2];
            dst[1] = src[1];
            dst[2] = src[0];
            dst += 3;
            src += 4;
        }
        if (const int error = WriteRow(state_->row.data())) return error;
    }
    return 0;
}

int PngWriter::WriteWhiteRows(int rows) {
    std::memset(state_->row.data() + 1, 0xFF, state_->row.size() - 1);
    for (int r = 0; r < rows; ++r) {
        if (const int error = WriteRow(state_->row.data())) return error;
    }
    return 0;
}

int PngWriter::WriteRow(const std::uint8_t* row) {
    if (rows_written_ >= height_) return fs::kErrorGenFailure;
    state_->row[0] = 0;  // filter: none
    ++rows_written_;
    return Deflate(row, state_->row.size(), false);
}

int PngWriter::Deflate(const std::uint8_t* data, std::size_t size, bool finish) {
    z_stream& zs = state_->zs;
    zs.next_in = const_cast<Bytef*>(data);
    zs.avail_in = static_cast<uInt>(size);
    std::uint8_t buffer[16384];
    int rc = Z_OK;
    do {
        zs.next_out = buffer;
        zs.avail_out = sizeof buffer;
        rc = deflate(&zs, finish ? Z_FINISH : Z_NO_FLUSH);
        if (rc == Z_STREAM_ERROR) return fs::kErrorGenFailure;
        state_->out.insert(state_->out.end(), buffer, buffer + (sizeof buffer - zs.avail_out));
        if (state_->out.size() >= kIdatSize) {
            if (const int error = WriteChunk("IDAT", state_->out.data(), state_->out.size())) {
                return error;
            }
            state_->out.clear();
        }
    } while (zs.avail_in > 0 || zs.avail_out == 0 || (finish && rc != Z_STREAM_END));
    return 0;
}

int PngWriter::WriteChunk(const char type[4], const std::uint8_t* data, std::size_t size) {
    std::uint8_t head[8];
    PutU32(head, static_cast<std::uint32_t>(size));
    std::memcpy(head + 4, type, 4);
    uLong crc = crc32(0L, head + 4, 4);
    if (size > 0) crc = crc32(crc, data, static_cast<uInt>(size));
    std::uint8_t tail[4];
    PutU32(tail, static_cast<std::uint32_t>(crc));
    if (const int error = file_->Write(head, sizeof head)) return error;
    if (size > 0) {
        if (const int error = file_->Write(data, size)) return error;
    }
    return file_->Write(tail, sizeof tail);
}

int PngWriter::Finish() {
    if (rows_written_ != height_) return fs::kErrorGenFailure;
    if (const int error = Deflate(nullptr, 0, true)) return error;
    if (!state_->out.empty()) {
        if (const int error = WriteChunk("IDAT", state_->out.data(), state_->out.size())) {
            return error;
        }
        state_->out.clear();
    }
    if (const int error = WriteChunk("IEND", nullptr, 0)) return error;
    return file_->Commit();
}

}  // namespace zpdf
