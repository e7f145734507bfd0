#include "platform/files.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

namespace zpdf::fs {
namespace {

std::mutex g_hook_mutex;
std::shared_ptr<FaultHook> g_hook;
std::atomic<bool> g_hook_set{false};

}  // namespace

int Win32ErrorFromErrno(int error) {
    switch (error) {
        case 0:
            return 0;
        case ENOENT:
            return kErrorFileNotFound;
        case ENOTDIR:
            return kErrorPathNotFound;
        case EMFILE:
        case ENFILE:
            return kErrorTooManyOpenFiles;
        case EACCES:
        case EPERM:
        case EISDIR:
            return kErrorAccessDenied;
        case ENOMEM:
            return kErrorNotEnoughMemory;
        case EROFS:
            return kErrorWriteProtect;
        case EBUSY:
        case ETXTBSY:
            return kErrorSharingViolation;
        case EEXIST:
            return kErrorFileExists;
        case ENOSPC:
#ifdef EDQUOT
        case EDQUOT:
#endif
            return kErrorDiskFull;
        case ENAMETOOLONG:
            return kErrorFilenameTooLong;
        case EIO:
            return kErrorWriteFault;
        default:
            return kErrorGenFailure;
    }
}

const char* FileOpName(FileOp op) {
    switch (op) {
        case FileOp::Create:
            return "create";
        case FileOp::Write:
            return "write";
        case FileOp::Flush:
            return "flush";
        case FileOp::Close:
            return "close";
        case FileOp::Move:
            return "move";
        case FileOp::Copy:
            return "copy";
        case FileOp::Read:
            return "read";
    }
    return "?";
}

void SetFaultHook(FaultHook hook) {
    std::lock_guard lock(g_hook_mutex);
    g_hook = hook ? std::make_shared<FaultHook>(std::move(hook)) : nullptr;
    g_hook_set.store(g_hook != nullptr, std::memory_order_release);
}

int InjectedFault(FileOp op, const std::filesystem::path& path) {
    if (!g_hook_set.load(std::memory_order_acquire)) return 0;
    std::shared_ptr<FaultHook> hook;
    {
        std::lock_guard lock(g_hook_mutex);
        hook = g_hook;
    }
    return hook ? (*hook)(op, path) : 0;
}

int MakeTempCopy(const std::filesystem::path& source, std::filesystem::path* copy) {
    std::filesystem::path created;
    if (const int error = CreateTempFile(&created)) return error;
    int error = InjectedFault(FileOp::Copy, created);
    if (error == 0) {
        std::error_code ec;
        std::filesystem::copy_file(source, created,
                                   std::filesystem::copy_options::overwrite_existing, ec);
        if (ec) error = Win32ErrorFromErrorCode(ec);
    }
    if (error != 0) {
        RemoveQuietly(created);
        return error;
    }
    *copy = created;
    return 0;
}

bool FileExists(const std::filesystem::path& path) {
    std::error_code ec;
    const auto status = std::filesystem::status(path, ec);
    return !ec && std::filesystem::exists(status) && !std::filesystem::is_directory(status);
}

void RemoveQuietly(const std::filesystem::path& path) {
    std::error_code ec;
    std::filesystem::remove(path, ec);
}

long long FileSize(const std::filesystem::path& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    return ec ? -1 : static_cast<long long>(size);
}

OutputFile::~OutputFile() {
    Close();
}

int OutputFile::Open(const std::filesystem::path& path) {
    Close();
    path_ = path;
    written_ = 0;
    if (const int error = InjectedFault(FileOp::Create, path)) return error;
    errno = 0;
    file_ = OpenFile(path, "wb");
    if (file_ == nullptr) return Win32ErrorFromErrno(errno != 0 ? errno : EIO);
    return 0;
}

int OutputFile::Write(const void* data, std::size_t size) {
    if (file_ == nullptr) return kErrorGenFailure;
    if (size == 0) return 0;
    if (const int error = InjectedFault(FileOp::Write, path_)) return error;
    errno = 0;
    const std::size_t done = std::fwrite(data, 1, size, file_);
    written_ += done;
    if (done != size) return Win32ErrorFromErrno(errno != 0 ? errno : ENOSPC);
    return 0;
}

int OutputFile::Finish() {
    if (file_ == nullptr) return kErrorGenFailure;
    int error = InjectedFault(FileOp::Flush, path_);
    if (error == 0 && std::fflush(file_) != 0) error = Win32ErrorFromErrno(errno);
    if (error == 0) error = InjectedFault(FileOp::Close, path_);
    const int closed = std::fclose(file_);
    file_ = nullptr;
    if (error == 0 && closed != 0) error = Win32ErrorFromErrno(errno);
    return error;
}

void OutputFile::Close() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}

FileReplacement::FileReplacement(std::filesystem::path target, Durability durability)
    : target_(std::move(target)), side_(target_), durability_(durability) {
    side_ += ".part";
}

FileReplacement::~FileReplacement() {
    file_.Close();
    if (created_ && !replaced_) RemoveQuietly(side_);
}

int FileReplacement::Open() {
    const int error = file_.Open(side_);
    created_ = error == 0;
    return error;
}

int FileReplacement::Write(const void* data, std::size_t size) {
    return file_.Write(data, size);
}

int FileReplacement::FinishData() {
    return durability_ == Durability::Synced ? file_.Commit() : file_.Finish();
}

int FileReplacement::Replace() {
    const int error = durability_ == Durability::Synced ? MoveReplace(side_, target_)
                                                        : MoveReplaceWithoutSync(side_, target_);
    if (error == 0) replaced_ = true;
    return error;
}

int FileReplacement::Commit() {
    if (const int error = FinishData()) return error;
    return Replace();
}

}  // namespace zpdf::fs
