#include <cerrno>

#include "engine/engine_internal.h"

namespace zpdf::engine {

struct FileStreamState {
    std::FILE* file = nullptr;
    bool failed = false;
    unsigned char buffer[64 * 1024];
};

namespace {

int NextBlock(fz_context* ctx, fz_stream* stm, size_t /*max*/) {
    auto* state = static_cast<FileStreamState*>(stm->state);
    const size_t got = std::fread(state->buffer, 1, sizeof state->buffer, state->file);
    if (got == 0 && std::ferror(state->file)) {
        state->failed = true;
        fz_throw(ctx, FZ_ERROR_GENERIC, "read error in the document file");
    }
    stm->rp = state->buffer;
    stm->wp = state->buffer + got;
    stm->pos += static_cast<int64_t>(got);
    if (got == 0) return EOF;
    return *stm->rp++;
}

void SeekBlock(fz_context* ctx, fz_stream* stm, int64_t offset, int whence) {
    auto* state = static_cast<FileStreamState*>(stm->state);
#if defined(_WIN32)
    const int rc = _fseeki64(state->file, offset, whence);
    const int64_t pos = rc == 0 ? _ftelli64(state->file) : -1;
#else
    const int rc = fseeko(state->file, static_cast<off_t>(offset), whence);
    const int64_t pos = rc == 0 ? static_cast<int64_t>(ftello(state->file)) : -1;
#endif
    if (pos < 0) {
        state->failed = true;
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot seek in the document file");
    }
    stm->pos = pos;
    stm->rp = stm->wp = state->buffer;
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

}  // namespace zpdf::engine
