// File operations of the core: literal existence, identity, private temporary copies and the one
// road every written file takes (an exclusive side file that replaces its target once complete).
// Every operation that changes the disk passes through one fault hook, so tests can make the
// n-th of them fail.
#pragma once

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
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

// Attributes: the replaced file's mode, owner and extended attributes given to its successor.
// SyncFolder: the folder's new entry forced to the disk after a move.
enum class FileOp { Create, Write, Flush, Close, Move, Copy, Read, Attributes, SyncFolder };
const char* FileOpName(FileOp op);

// Test seam: when set, the hook is asked before each operation; a non-zero answer is taken as
// the Win32 error that operation fails with. Not for production use; not thread-scoped.
using FaultHook = std::function<int(FileOp op, const std::filesystem::path& path)>;
void SetFaultHook(FaultHook hook);
int InjectedFault(FileOp op, const std::filesystem::path& path);

// The system's own words for a Win32 error number this module returned (strerror's text outside
// Windows, the system message on Windows), without a trailing newline.
std::string ErrorText(int error);

// What tells one file from another: device and inode (volume serial and file index on
// Windows), with the modification time and size that change when it is rewritten in place.
struct FileIdentity {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    long long modified_ns = 0;
    long long size = -1;
    bool SameFile(const FileIdentity& other) const {
        return device == other.device && inode == other.inode;
    }
    bool SameVersion(const FileIdentity& other) const {
        return SameFile(other) && modified_ns == other.modified_ns && size == other.size;
    }
};
// Identity of the file `path` names, following links. False when it cannot be found.
bool IdentifyFile(const std::filesystem::path& path, FileIdentity* identity);
// Identity of an open file.
bool IdentifyOpenFile(std::FILE* file, FileIdentity* identity);
// True when both names lead to one existing file (links followed, hard links included).
bool SameFile(const std::filesystem::path& a, const std::filesystem::path& b);

// True when `path`, taken literally (no character has a wildcard meaning), names an existing
// entry that is not a folder.
bool FileExists(const std::filesystem::path& path);

class OutputFile;

// Creates a new, empty, uniquely named file whose name starts with "zpf" in the temporary
// directory, readable by its owner only, and opens it for writing in `file`. The name stays on
// the list of files an interrupted zpdf removes until RemoveQuietly removes it. Returns a Win32
// error number, 0 on success.
int CreateTempFile(std::filesystem::path* created, OutputFile* file);
// The same file, closed again: for those who write it by name later (through the file road).
int CreateTempFile(std::filesystem::path* created);

// A new "zpf" temporary file holding a copy of `source`. On failure nothing is left behind.
int MakeTempCopy(const std::filesystem::path& source, std::filesystem::path* copy);

// Removes a file if it exists; errors are ignored. It leaves the list of files an interrupted
// zpdf removes.
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

    // Takes over an open stream: the file at `path`, already created.
    void Adopt(FILE* file, const std::filesystem::path& path);
    // A short write is an error (disk full when the system gives no better reason).
    int Write(const void* data, std::size_t size);
    // Flushes the buffers, forces the data to the disk and closes the file.
    int Commit();
    // Flushes the buffers to the system and closes the file, without waiting for the disk: for
    // files that can be made again from their source if the machine stops.
    int Finish();
    // The steps of those two one by one: buffers to the system, data to the disk, close.
    int FlushBuffers();
    int SyncData();
    int CloseChecked();
    void Close();
    bool IsOpen() const { return file_ != nullptr; }
    const std::filesystem::path& Path() const { return path_; }
    unsigned long long BytesWritten() const { return written_; }

  private:
    friend class FileReplacement;
    FILE* file_ = nullptr;
    std::filesystem::path path_;
    unsigned long long written_ = 0;
};

// The one road every file the component and zpdf write takes. The data goes into a side file
// created exclusively (never through a link, never over an existing name) in the folder of the
// file the target finally names, as ".NAME.RANDOM.part"; it replaces that file only once it is
// complete, and takes over its mode, owner, group and extended attributes where the caller may
// set them. A symbolic link stays a link and the file it leads to is replaced; a hard link to
// the old file keeps the old content. While a replacement is open it holds an advisory lock on
// the file it replaces: a second writer of the same file fails at Open, and a replace finds out
// when the file was changed or created by someone else since Open, and then fails instead of
// overwriting. A side file that did not replace its target is removed when this object goes,
// and by zpdf's signal handler when zpdf is interrupted, so a failure leaves the old file as it
// was and nothing beside it. Each function returns a Win32 error number, 0 on success, and
// Problem() says in one line what failed.
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

    // The version of the target the new content was made from (a document read from the
    // target): Open and Replace fail when the target is no longer that file.
    void ExpectVersion(const FileIdentity& version) { expected_ = version; }

    // Locks the target and creates the side file.
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
    // One line: what failed, on which file, and the system's reason.
    const std::string& Problem() const { return problem_; }

    struct Native;

  private:
    int OpenLocked();
    int Fail(int error, const std::string& what);
    int ReplaceExisting();

    OutputFile file_;
    std::filesystem::path target_;
    std::filesystem::path final_;  // the file the target names once links are followed
    std::filesystem::path side_;
    Durability durability_;
    std::optional<FileIdentity> expected_;
    std::optional<FileIdentity> base_;  // the file being replaced, as Open found it
    std::unique_ptr<Native> native_;
    std::string problem_;
    bool created_ = false;
    bool replaced_ = false;
};

}  // namespace zpdf::fs
