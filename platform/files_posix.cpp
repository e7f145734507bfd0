#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/files.h"

namespace zpdf::fs {

int Win32ErrorFromErrorCode(const std::error_code& error) {
    return error ? Win32ErrorFromErrno(error.value()) : 0;
}

int CreateTempFile(std::filesystem::path* created) {
    std::error_code ec;
    const std::filesystem::path dir = std::filesystem::temp_directory_path(ec);
    if (ec) return Win32ErrorFromErrorCode(ec);
    std::string name = (dir / "zpfXXXXXX").string();
    if (const int error = InjectedFault(FileOp::Create, name)) return error;
    const int fd = ::mkstemp(name.data());
    if (fd < 0) return Win32ErrorFromErrno(errno);
    ::close(fd);
    *created = name;
    return 0;
}

int MoveReplace(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (const int error = InjectedFault(FileOp::Move, to)) return error;
    if (::rename(from.c_str(), to.c_str()) != 0) return Win32ErrorFromErrno(errno);
    // Make the new directory entry durable as well.
    const std::filesystem::path dir = to.has_parent_path() ? to.parent_path() : ".";
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
    return 0;
}

int MoveReplaceWithoutSync(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (const int error = InjectedFault(FileOp::Move, to)) return error;
    if (::rename(from.c_str(), to.c_str()) != 0) return Win32ErrorFromErrno(errno);
    return 0;
}

FILE* OpenFile(const std::filesystem::path& path, const char* mode) {
    std::string m(mode);
    m += 'e';  // close on exec: a child process must not inherit the document's handle
    return std::fopen(path.c_str(), m.c_str());
}

int OutputFile::Commit() {
    if (file_ == nullptr) return kErrorGenFailure;
    int error = InjectedFault(FileOp::Flush, path_);
    if (error == 0 && std::fflush(file_) != 0) error = Win32ErrorFromErrno(errno);
    if (error == 0 && ::fsync(::fileno(file_)) != 0) error = Win32ErrorFromErrno(errno);
    if (error == 0) error = InjectedFault(FileOp::Close, path_);
    const int closed = std::fclose(file_);
    file_ = nullptr;
    if (error == 0 && closed != 0) error = Win32ErrorFromErrno(errno);
    return error;
}

}  // namespace zpdf::fs
