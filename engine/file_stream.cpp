#include <cerrno>
#include <cstring>

#include "engine/internal.h"

namespace zpdf::engine {

struct FileStreamState {
    std::FILE* file = nullptr;
    bool failed = false;
    // File offset of buffer[0] and the bytes of the buffer that hold file data. The parser
    // seeks to every object it reads; a seek into the block already read costs no read.
    int64_t buffer_start = 0;
    size_t buffer_length = 0;
    unsigned char buffer[16 * 1024];
};

namespace {

// Moves the file; the new position, or -1.
int64_t SeekFile(std::FILE* file, int64_t offset, int whence) {
#if defined(_WIN32)
    const int rc = _fseeki64(file, offset, whence);
    return rc == 0 ? _ftelli64(file) : -1;
#else
    const int rc = fseeko(file, static_cast<off_t>(offset), whence);
    return rc == 0 ? static_cast<int64_t>(ftello(file)) : -1;
#endif
}

// Reads the block at the stream's position. The file is put there first, whatever moved it
// since the last read: the stream never relies on where the file was left.
int NextBlock(fz_context* ctx, fz_stream* stm, size_t /*max*/) {
    auto* state = static_cast<FileStreamState*>(stm->state);
    if (SeekFile(state->file, stm->pos, SEEK_SET) != stm->pos) {
        state->failed = true;
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot seek in the document file");
    }
    const size_t got = std::fread(state->buffer, 1, sizeof state->buffer, state->file);
    if (got == 0 && std::ferror(state->file)) {
        state->failed = true;
        fz_throw(ctx, FZ_ERROR_GENERIC, "read error in the document file");
    }
    state->buffer_start = stm->pos;
    state->buffer_length = got;
    stm->rp = state->buffer;
    stm->wp = state->buffer + got;
    stm->pos += static_cast<int64_t>(got);
    if (got == 0) return EOF;
    return *stm->rp++;
}

void SeekBlock(fz_context* ctx, fz_stream* stm, int64_t offset, int whence) {
    auto* state = static_cast<FileStreamState*>(stm->state);
    int64_t pos = offset;
    if (whence != SEEK_SET) {
        // Only the file knows where its end is.
        pos = SeekFile(state->file, offset, whence);
    }
    if (pos < 0) {
        state->failed = true;
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot seek in the document file");
    }
    if (pos >= state->buffer_start &&
        pos - state->buffer_start < static_cast<int64_t>(state->buffer_length)) {
        stm->rp = state->buffer + (pos - state->buffer_start);
        stm->wp = state->buffer + state->buffer_length;
        stm->pos = state->buffer_start + static_cast<int64_t>(state->buffer_length);
        return;
    }
    state->buffer_length = 0;
    stm->rp = stm->wp = state->buffer;
    stm->pos = pos;
}

void DropState(fz_context* ctx, void* state) {
    fz_free(ctx, state);
}

}  // namespace

fz_stream* OpenFileStream(fz_context* ctx, std::FILE* file) {
    // Allocated by the engine and freed by its drop callback; plain data only.
    auto* state = static_cast<FileStreamState*>(fz_malloc_no_throw(ctx, sizeof(FileStreamState)));
    if (state == nullptr) return nullptr;
    state->file = file;
    state->failed = false;
    state->buffer_start = 0;
    state->buffer_length = 0;
    fz_stream* stm = nullptr;
    fz_try(ctx) {
        stm = fz_new_stream(ctx, state, NextBlock, DropState);
        stm->seek = SeekBlock;
    }
    fz_catch(ctx) {
        return nullptr;  // the engine has already dropped the state
    }
    std::rewind(file);
    return stm;
}

bool FileStreamFailed(fz_stream* stream) {
    return stream != nullptr && static_cast<FileStreamState*>(stream->state)->failed;
}

ErrorCategory OpenFailureCategory(fz_context* ctx, fz_stream* stream) {
    if (FileStreamFailed(stream)) return ErrorCategory::File;
    const char* message = fz_caught_message(ctx);
    if (std::strstr(message, "crypt") != nullptr || std::strstr(message, "security") != nullptr)
        return ErrorCategory::UnsupportedSecurity;
    return ErrorCategory::NotPdf;
}

}  // namespace zpdf::engine
