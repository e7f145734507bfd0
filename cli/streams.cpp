#include "cli/streams.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

#include "platform/files.h"

namespace zpdf::cli {
namespace {

bool standard_output_taken = false;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Copies all of `from` into `to`. 0 or the error number.
int Copy(std::FILE* from, std::FILE* to) {
    char buffer[1 << 16];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, from)) > 0) {
        if (std::fwrite(buffer, 1, got, to) != got) return fs::Win32ErrorFromErrno(errno);
    }
    if (std::ferror(from) != 0) return fs::Win32ErrorFromErrno(errno != 0 ? errno : EIO);
    return 0;
}

void MakeBinary([[maybe_unused]] std::FILE* stream) {
#if defined(_WIN32)
    _setmode(_fileno(stream), _O_BINARY);
#endif
}

}  // namespace

StreamFile::~StreamFile() {
    if (!path_.empty()) fs::RemoveQuietly(path_);
}

int StreamFile::ReadStandardInput() {
    if (const int error = fs::CreateTempFile(&path_)) return error;
    std::unique_ptr<std::FILE, FileCloser> file(fs::OpenFile(path_, "wb"));
    if (!file) return fs::Win32ErrorFromErrno(errno);
    MakeBinary(stdin);
    if (const int error = Copy(stdin, file.get())) return error;
    if (std::fflush(file.get()) != 0) return fs::Win32ErrorFromErrno(errno);
    return 0;
}

int StreamFile::ForStandardOutput() {
    standard_output_taken = true;
    return fs::CreateTempFile(&path_);
}

int StreamFile::MakeTemporary() {
    return fs::CreateTempFile(&path_);
}

int StreamFile::WriteStandardOutput() const {
    std::unique_ptr<std::FILE, FileCloser> file(fs::OpenFile(path_, "rb"));
    if (!file) return fs::Win32ErrorFromErrno(errno);
    MakeBinary(stdout);
    if (const int error = Copy(file.get(), stdout)) return error;
    if (std::fflush(stdout) != 0) return fs::Win32ErrorFromErrno(errno);
    return 0;
}

bool StandardOutputTaken() {
    return standard_output_taken;
}

}  // namespace zpdf::cli
