#include "platform/files.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/cleanup_registry.h"

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
        case FileOp::Attributes:
            return "attributes";
        case FileOp::SyncFolder:
            return "sync-folder";
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

int CreateTempFile(std::filesystem::path* created) {
    OutputFile file;
    return CreateTempFile(created, &file);
}

int MakeTempCopy(const std::filesystem::path& source, std::filesystem::path* copy) {
    // The source is opened first, so a missing source leaves no temporary file to remove.
    errno = 0;
    std::unique_ptr<FILE, int (*)(FILE*)> in(OpenFile(source, "rb"), &std::fclose);
    if (!in) return Win32ErrorFromErrno(errno != 0 ? errno : ENOENT);
    std::filesystem::path created;
    OutputFile out;
    if (const int error = CreateTempFile(&created, &out)) return error;
    int error = InjectedFault(FileOp::Copy, created);
    char buffer[64 * 1024];
    while (error == 0) {
        const std::size_t got = std::fread(buffer, 1, sizeof buffer, in.get());
        if (got == 0) {
            if (std::ferror(in.get())) error = kErrorReadFault;
            break;
        }
        error = out.Write(buffer, got);
    }
    if (error == 0) error = out.Finish();
    if (error != 0) {
        out.Close();
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
    // Off the list only once it is gone: an interruption in between removes nothing that
    // still exists.
    UnregisterCleanup(path);
}

long long FileSize(const std::filesystem::path& path) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    return ec ? -1 : static_cast<long long>(size);
}

OutputFile::~OutputFile() {
    Close();
}

void OutputFile::Adopt(FILE* file, const std::filesystem::path& path) {
    Close();
    file_ = file;
    path_ = path;
    written_ = 0;
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

int OutputFile::FlushBuffers() {
    if (file_ == nullptr) return kErrorGenFailure;
    if (const int error = InjectedFault(FileOp::Flush, path_)) return error;
    errno = 0;
    if (std::fflush(file_) != 0) return Win32ErrorFromErrno(errno != 0 ? errno : EIO);
    return 0;
}

int OutputFile::CloseChecked() {
    if (file_ == nullptr) return kErrorGenFailure;
    int error = InjectedFault(FileOp::Close, path_);
    errno = 0;
    const int closed = std::fclose(file_);
    file_ = nullptr;
    if (error == 0 && closed != 0) error = Win32ErrorFromErrno(errno != 0 ? errno : EIO);
    return error;
}

int OutputFile::Finish() {
    if (const int error = FlushBuffers()) {
        Close();
        return error;
    }
    return CloseChecked();
}

int OutputFile::Commit() {
    int error = FlushBuffers();
    if (error == 0) error = SyncData();
    if (error != 0) {
        Close();
        return error;
    }
    return CloseChecked();
}

void OutputFile::Close() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}

int FileReplacement::Fail(int error, const std::string& what) {
    problem_ = what + ": " + ErrorText(error);
    return error;
}

int FileReplacement::Write(const void* data, std::size_t size) {
    if (const int error = file_.Write(data, size)) {
        return Fail(error, "Cannot write " + target_.string() + " (side file " +
                               side_.filename().string() + ")");
    }
    return 0;
}

int FileReplacement::Commit() {
    if (const int error = FinishData()) return error;
    return Replace();
}

}  // namespace zpdf::fs
