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

// True when `path`, taken literally (no character has a wildcard meaning), names an existing
// entry that is not a folder.
bool FileExists(const std::filesystem::path& path);

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

// The one road every file the component and zpdf write takes: the data goes into a side file
// beside the target (the target's name and ".part"), which replaces the target only once it is
// complete. A side file that did not replace its target is removed when this object goes, so a
// failure leaves the old file as it was and nothing beside it. Each function returns a Win32
// error number, 0 on success.
class FileReplacement {
  public:
    // Synced: data and name reach the disk before Commit returns. Buffered: they reach the
    // system only, for files that can be made again from their source if the machine stops.
    enum class Durability { Synced, Buffered };

    explicit FileReplacement(std::filesystem::path target,
                             Durability durability = Durability::Synced);
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;
    ~FileReplacement();

    // Creates the side file.
    int Open();
    int Write(const void* data, std::size_t size);
    // Completes the side file's data, then puts it in the target's place. Those who must let go
    // of the target between the two (a content object saving over its own file) call them one
    // after the other.
    int FinishData();
    int Replace();
    int Commit();

    const std::filesystem::path& Target() const { return target_; }
    const std::filesystem::path& SidePath() const { return side_; }
    unsigned long long BytesWritten() const { return file_.BytesWritten(); }

  private:
    OutputFile file_;
    std::filesystem::path target_;
    std::filesystem::path side_;
    Durability durability_;
    bool created_ = false;
    bool replaced_ = false;
};

}  // namespace zpdf::fs
