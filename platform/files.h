// File operations of the core: existence by pattern, private temporary copies, side files
// flushed to disk, and moving with replace. Every operation that changes the disk passes
// through one fault hook, so tests can make the n-th of them fail.
#pragma once

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>

#include "platform/hresult.h"

namespace zpdf::fs {

// Win32 error numbers the core reports (also outside Windows, so results match).
inline constexpr int kErrorFileNotFound = 2;
inline constexpr int kErrorPathNotFound = 3;
inline constexpr int kErrorTooManyOpenFiles = 4;
inline constexpr int kErrorAccessDenied = 5;
inline constexpr int kErrorNotEnoughMemory = 8;
inline constexpr int kErrorWriteProtect = 19;
inline constexpr int kErrorWriteFault = 29;
inline constexpr int kErrorReadFault = 30;
inline constexpr int kErrorGenFailure = 31;
inline constexpr int kErrorSharingViolation = 32;
inline constexpr int kErrorFileExists = 80;
inline constexpr int kErrorDiskFull = 112;
inline constexpr int kErrorFilenameTooLong = 206;

// errno to the nearest Win32 error number.
int Win32ErrorFromErrno(int error);
// A std::filesystem error as a Win32 error number.
int Win32ErrorFromErrorCode(const std::error_code& error);

enum class FileOp { Create, Write, Flush, Close, Move, Copy, Read };
const char* FileOpName(FileOp op);

// Test seam: when set, the hook is asked before each operation; a non-zero answer is taken as
// the Win32 error that operation fails with. Not for production use; not thread-scoped.
using FaultHook = std::function<int(FileOp op, const std::filesystem::path& path)>;
void SetFaultHook(FaultHook hook);
int InjectedFault(FileOp op, const std::filesystem::path& path);

// True when at least one file system entry matches `pattern` (wildcards allowed, as a directory
// search would take them).
bool AnyFileMatches(const std::filesystem::path& pattern);

// Creates a new, empty, uniquely named file whose name starts with "zpf" in the temporary
// directory. Returns a Win32 error number, 0 on success.
int CreateTempFile(std::filesystem::path* created);

// A new "zpf" temporary file holding a copy of `source`. On failure nothing is left behind.
int MakeTempCopy(const std::filesystem::path& source, std::filesystem::path* copy);

// Moves `from` over `to`, replacing an existing file; on the same volume this is atomic.
int MoveReplace(const std::filesystem::path& from, const std::filesystem::path& to);
// The same move, without waiting for the new directory entry to reach the disk (for files
// written with OutputFile::Finish).
int MoveReplaceWithoutSync(const std::filesystem::path& from, const std::filesystem::path& to);

// Removes a file if it exists; errors are ignored.
void RemoveQuietly(const std::filesystem::path& path);

// Size of a regular file, or -1.
long long FileSize(const std::filesystem::path& path);

FILE* OpenFile(const std::filesystem::path& path, const char* mode);

// A file being written: created with Open, filled with Write, made durable with Commit.
// Destroying it without Commit closes the handle (the caller decides about the file).
class OutputFile {
  public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    int Open(const std::filesystem::path& path);
    // A short write is an error (disk full when the system gives no better reason).
    int Write(const void* data, std::size_t size);
    // Flushes the buffers, forces the data to the disk and closes the file.
    int Commit();
    // Flushes the buffers to the system and closes the file, without waiting for the disk: for
    // files that can be made again from their source if the machine stops.
    int Finish();
    void Close();
    bool IsOpen() const { return file_ != nullptr; }
    const std::filesystem::path& Path() const { return path_; }
    unsigned long long BytesWritten() const { return written_; }

  private:
    FILE* file_ = nullptr;
    std::filesystem::path path_;
    unsigned long long written_ = 0;
};

}  // namespace zpdf::fs
