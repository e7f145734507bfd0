#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/cleanup_registry.h"
#include "platform/files.h"

namespace zpdf::fs {
namespace {

// Links followed before a name is taken as a loop, as the kernel counts them.
constexpr int kMaxLinks = 40;
// Attempts at a side-file name that nobody else holds.
constexpr int kNameAttempts = 100;

int ErrnoFromWin32(int error) {
    switch (error) {
        case kErrorFileNotFound:
        case kErrorPathNotFound:
            return ENOENT;
        case kErrorTooManyOpenFiles:
            return EMFILE;
        case kErrorAccessDenied:
            return EACCES;
        case kErrorNotEnoughMemory:
            return ENOMEM;
        case kErrorWriteProtect:
            return EROFS;
        case kErrorWriteFault:
        case kErrorReadFault:
        case kErrorGenFailure:
            return EIO;
        case kErrorSharingViolation:
            return EBUSY;
        case kErrorFileExists:
            return EEXIST;
        case kErrorDiskFull:
            return ENOSPC;
        case kErrorFilenameTooLong:
            return ENAMETOOLONG;
        default:
            return 0;
    }
}

FileIdentity IdentityOf(const struct stat& st) {
    FileIdentity id;
    id.device = static_cast<unsigned long long>(st.st_dev);
    id.inode = static_cast<unsigned long long>(st.st_ino);
    id.modified_ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    id.size = static_cast<long long>(st.st_size);
    return id;
}

// The file `path` finally names: symbolic links are followed one by one, each relative link
// from its own folder. A name that does not exist ends the walk (a dangling link leads to the
// file it would create).
int ResolveLinks(const std::filesystem::path& path, std::filesystem::path* resolved) {
    std::filesystem::path current = path;
    for (int hops = 0; hops <= kMaxLinks; ++hops) {
        struct stat st {};
        if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            *resolved = current;
            return 0;
        }
        std::string link(4096, '\0');
        const ssize_t length = ::readlink(current.c_str(), link.data(), link.size());
        if (length < 0) return Win32ErrorFromErrno(errno);
        link.resize(static_cast<std::size_t>(length));
        const std::filesystem::path next(link);
        current = next.is_absolute() ? next : current.parent_path() / next;
    }
    return Win32ErrorFromErrno(ELOOP);
}

// Eight letters and digits nobody can predict from the process id or the time.
std::string RandomPart() {
    static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    thread_local std::mt19937_64 generator([] {
        std::random_device device;
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        std::seed_seq seed{device(), device(), static_cast<unsigned>(::getpid()),
                           static_cast<unsigned>(now), static_cast<unsigned>(now >> 32)};
        return std::mt19937_64(seed);
    }());
    std::string out(8, 'x');
    for (char& c : out) c = kAlphabet[generator() % (sizeof kAlphabet - 1)];
    return out;
}

// The side file's name for `name`: ".NAME.RANDOM.part", with NAME shortened (never inside a
// UTF-8 sequence) so the whole stays within the folder's name limit.
std::string SideName(const std::string& name, long name_max) {
    static constexpr std::size_t kFixed = 1 + 1 + 8 + 5;  // ".", ".", RANDOM, ".part"
    const std::size_t limit =
        name_max > static_cast<long>(kFixed) + 1 ? static_cast<std::size_t>(name_max) - kFixed : 1;
    std::string stem = name;
    if (stem.size() > limit) {
        std::size_t cut = limit;
        while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xC0) == 0x80) --cut;
        stem.resize(cut);
    }
    return "." + stem + "." + RandomPart() + ".part";
}

bool Ignorable(int error) {
    return error == ENOTSUP || error == EOPNOTSUPP || error == EPERM || error == EACCES ||
           error == ENODATA || error == ERANGE;
}

// The extended attributes of `from` (ACLs among them) set on `to`. Names and values the system
// does not keep on the new file's file system, or that the caller may not set, are skipped.
int CopyExtendedAttributes(int from, int to) {
    ssize_t size = ::flistxattr(from, nullptr, 0);
    if (size < 0) return Ignorable(errno) ? 0 : errno;
    std::vector<char> names(static_cast<std::size_t>(size) + 1);
    size = ::flistxattr(from, names.data(), names.size());
    if (size < 0) return Ignorable(errno) ? 0 : errno;
    std::vector<char> value;
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::strlen(&names[at])) + 1) {
        const char* name = &names[static_cast<std::size_t>(at)];
        const ssize_t length = ::fgetxattr(from, name, nullptr, 0);
        if (length < 0) {
            if (Ignorable(errno)) continue;
            return errno;
        }
        value.resize(static_cast<std::size_t>(length) + 1);
        const ssize_t got = ::fgetxattr(from, name, value.data(), value.size());
        if (got < 0) {
            if (Ignorable(errno)) continue;
            return errno;
        }
        if (::fsetxattr(to, name, value.data(), static_cast<std::size_t>(got), 0) != 0 &&
            !Ignorable(errno)) {
            return errno;
        }
    }
    return 0;
}

}  // namespace

struct FileReplacement::Native {
    int dir_fd = -1;
    int lock_fd = -1;  // the file being replaced, locked; -1 when there is none
    struct stat base {};
    std::string name;       // the final target's name in its folder
    std::string side_name;  // the side file's name in the same folder
    std::filesystem::path registered;
    ~Native() {
        if (lock_fd >= 0) ::close(lock_fd);
        if (dir_fd >= 0) ::close(dir_fd);
    }
};

int Win32ErrorFromErrorCode(const std::error_code& error) {
    return error ? Win32ErrorFromErrno(error.value()) : 0;
}

std::string ErrorText(int error) {
    const int number = ErrnoFromWin32(error);
    if (number == 0) return "error " + std::to_string(error);
    return std::strerror(number);
}

bool IdentifyFile(const std::filesystem::path& path, FileIdentity* identity) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    *identity = IdentityOf(st);
    return true;
}

bool IdentifyOpenFile(std::FILE* file, FileIdentity* identity) {
    struct stat st {};
    if (file == nullptr || ::fstat(::fileno(file), &st) != 0) return false;
    *identity = IdentityOf(st);
    return true;
}

bool SameFile(const std::filesystem::path& a, const std::filesystem::path& b) {
    FileIdentity first, second;
    return IdentifyFile(a, &first) && IdentifyFile(b, &second) && first.SameFile(second);
}

int CreateTempFile(std::filesystem::path* created, OutputFile* file) {
    std::error_code ec;
    std::filesystem::path dir = std::filesystem::temp_directory_path(ec);
    if (ec) return Win32ErrorFromErrorCode(ec);
    dir = std::filesystem::absolute(dir, ec);
    if (ec) return Win32ErrorFromErrorCode(ec);
    std::string name = (dir / "zpfXXXXXX").string();
    if (const int error = InjectedFault(FileOp::Create, name)) return error;
    int fd = -1;
    {
        const CleanupSignalBlock block;
        fd = ::mkostemp(name.data(), O_CLOEXEC);
        if (fd >= 0) RegisterForCleanup(name);
    }
    if (fd < 0) return Win32ErrorFromErrno(errno);
    FILE* stream = ::fdopen(fd, "wb");
    if (stream == nullptr) {
        const int error = errno;
        ::close(fd);
        RemoveQuietly(name);
        return Win32ErrorFromErrno(error);
    }
    file->Adopt(stream, name);
    *created = name;
    return 0;
}

FILE* OpenFile(const std::filesystem::path& path, const char* mode) {
    std::string m(mode);
    m += 'e';  // close on exec: a child process must not inherit the document's handle
    return std::fopen(path.c_str(), m.c_str());
}

int OutputFile::SyncData() {
    if (file_ == nullptr) return kErrorGenFailure;
    if (::fsync(::fileno(file_)) != 0) return Win32ErrorFromErrno(errno);
    return 0;
}

FileReplacement::FileReplacement(std::filesystem::path target, Durability durability)
    : target_(std::move(target)), final_(target_), durability_(durability) {}

FileReplacement::~FileReplacement() {
    file_.Close();
    if (created_ && !replaced_ && native_) {
        ::unlinkat(native_->dir_fd, native_->side_name.c_str(), 0);
        UnregisterCleanup(native_->registered);
    }
}

int FileReplacement::Open() {
    const int error = OpenLocked();
    // A writer that cannot start holds nothing that keeps others from writing.
    if (error != 0 && native_ && native_->lock_fd >= 0) {
        ::close(native_->lock_fd);
        native_->lock_fd = -1;
    }
    return error;
}

int FileReplacement::OpenLocked() {
    problem_.clear();
    const std::string what = "Cannot create " + target_.string();
    if (const int error = ResolveLinks(target_, &final_)) return Fail(error, what);
    const std::string name = final_.filename().string();
    if (name.empty() || name == "." || name == "..") return Fail(kErrorAccessDenied, what);
    const std::filesystem::path dir = final_.has_parent_path() ? final_.parent_path() : ".";
    native_ = std::make_unique<Native>();
    Native& n = *native_;
    n.name = name;
    n.dir_fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (n.dir_fd < 0) return Fail(Win32ErrorFromErrno(errno), what);

    // The file being replaced, locked against other writers. The lock is taken on an open
    // file; when the name was given to another file meanwhile, that file is locked instead.
    for (int attempt = 0; attempt < kNameAttempts && !base_; ++attempt) {
        const int fd = ::openat(n.dir_fd, name.c_str(),
                                O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (fd < 0 && errno == ENOENT) break;
        struct stat st {};
        if (fd < 0) {
            // Unreadable, but it may still be replaced: it is then only compared before the
            // move, and its extended attributes cannot be read.
            if (errno != EACCES || ::fstatat(n.dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW))
                return Fail(Win32ErrorFromErrno(errno), what);
            if (!S_ISREG(st.st_mode)) return Fail(kErrorAccessDenied, what + ": not a file");
            n.base = st;
            base_ = IdentityOf(st);
            break;
        }
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            return Fail(kErrorAccessDenied, what + ": not a file");
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            ::close(fd);
            problem_ = "Cannot write " + target_.string() + ": another writer is writing it";
            return kErrorSharingViolation;
        }
        struct stat now {};
        if (::fstat(fd, &st) != 0 ||
            ::fstatat(n.dir_fd, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
            now.st_ino != st.st_ino || now.st_dev != st.st_dev) {
            ::close(fd);
            continue;
        }
        n.lock_fd = fd;
        n.base = st;
        base_ = IdentityOf(st);
    }
    if (expected_ && (!base_ || !base_->SameFile(*expected_))) {
        problem_ =
            "Cannot save " + target_.string() + ": another writer replaced it since it was opened";
        return kErrorSharingViolation;
    }

    long name_max = ::fpathconf(n.dir_fd, _PC_NAME_MAX);
    if (name_max <= 0) name_max = 255;
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        n.side_name = SideName(name, name_max);
        side_ = dir / n.side_name;
        if (const int error = InjectedFault(FileOp::Create, side_)) return Fail(error, what);
        int fd = -1;
        {
            // Private while being written when it takes over an existing file's mode later.
            const mode_t mode = base_ ? 0600 : 0666;
            const CleanupSignalBlock block;
            fd = ::openat(n.dir_fd, n.side_name.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
            if (fd >= 0) {
                std::error_code ec;
                n.registered = std::filesystem::absolute(side_, ec);
                if (ec) n.registered = side_;
                RegisterForCleanup(n.registered);
            }
        }
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) return Fail(Win32ErrorFromErrno(errno), what);
        created_ = true;
        FILE* stream = ::fdopen(fd, "wb");
        if (stream == nullptr) {
            const int error = errno;
            ::close(fd);
            return Fail(Win32ErrorFromErrno(error), what);
        }
        file_.Adopt(stream, side_);
        return 0;
    }
    return Fail(kErrorFileExists, what);
}

int FileReplacement::FinishData() {
    const std::string what = "Cannot write " + target_.string();
    if (!created_) return Fail(kErrorGenFailure, what);
    if (const int error = file_.FlushBuffers()) return Fail(error, what);
    if (base_) {
        const Native& n = *native_;
        const int fd = ::fileno(file_.file_);
        const std::string keep = "Cannot keep the mode and attributes of " + target_.string();
        if (const int error = InjectedFault(FileOp::Attributes, side_)) {
            file_.Close();
            return Fail(error, keep);
        }
        // Owner and group first (a change of owner clears the set-id bits), each only where
        // the caller may set it; the mode after them.
        if (n.base.st_uid != ::geteuid() || n.base.st_gid != ::getegid()) {
            if (::fchown(fd, n.base.st_uid, n.base.st_gid) != 0) {
                if (errno != EPERM) {
                    const int error = Win32ErrorFromErrno(errno);
                    file_.Close();
                    return Fail(error, keep);
                }
                ::fchown(fd, static_cast<uid_t>(-1), n.base.st_gid);
            }
        }
        int error = ::fchmod(fd, n.base.st_mode & 07777) != 0 ? errno : 0;
        if (error == 0 && n.lock_fd >= 0) error = CopyExtendedAttributes(n.lock_fd, fd);
        if (error != 0) {
            file_.Close();
            return Fail(Win32ErrorFromErrno(error), keep);
        }
    }
    if (durability_ == Durability::Synced) {
        if (const int error = file_.SyncData()) {
            file_.Close();
            return Fail(error, what);
        }
    }
    if (const int error = file_.CloseChecked()) return Fail(error, what);
    return 0;
}

int FileReplacement::Replace() {
    const std::string what = "Cannot replace " + target_.string();
    if (!created_ || file_.IsOpen()) return Fail(kErrorGenFailure, what);
    Native& n = *native_;
    if (const int error = InjectedFault(FileOp::Move, target_)) return Fail(error, what);
    if (base_) {
        // Still the file that was locked, as it was: someone who does not take the lock may
        // have replaced or rewritten it.
        struct stat now {};
        if (::fstatat(n.dir_fd, n.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
            !IdentityOf(now).SameVersion(*base_)) {
            problem_ = what + ": another writer changed it meanwhile";
            return kErrorSharingViolation;
        }
        if (::renameat(n.dir_fd, n.side_name.c_str(), n.dir_fd, n.name.c_str()) != 0)
            return Fail(Win32ErrorFromErrno(errno), what);
    } else {
        // There was no file: one that appeared meanwhile is never overwritten.
        long moved = ::syscall(SYS_renameat2, n.dir_fd, n.side_name.c_str(), n.dir_fd,
                               n.name.c_str(), 1U /* RENAME_NOREPLACE */);
        if (moved != 0 && (errno == EINVAL || errno == ENOSYS)) {
            // File systems without that kind of rename: a new link fails the same way.
            moved = ::linkat(n.dir_fd, n.side_name.c_str(), n.dir_fd, n.name.c_str(), 0);
            if (moved == 0) ::unlinkat(n.dir_fd, n.side_name.c_str(), 0);
        }
        if (moved != 0 && errno == EEXIST) {
            problem_ = what + ": another writer created it meanwhile";
            return kErrorSharingViolation;
        }
        if (moved != 0) return Fail(Win32ErrorFromErrno(errno), what);
    }
    replaced_ = true;
    UnregisterCleanup(n.registered);
    if (n.lock_fd >= 0) {
        ::close(n.lock_fd);
        n.lock_fd = -1;
    }
    if (durability_ == Durability::Synced) {
        int error = InjectedFault(FileOp::SyncFolder, target_);
        if (error == 0 && ::fsync(n.dir_fd) != 0 && errno != EINVAL) {
            error = Win32ErrorFromErrno(errno);
        }
        if (error != 0) {
            return Fail(error, "Cannot flush the folder of " + target_.string() +
                                   " (the new file is in place, but may not survive a power cut)");
        }
    }
    return 0;
}

}  // namespace zpdf::fs
