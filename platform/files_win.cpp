#include <windows.h>

#include <io.h>
#include <cerrno>
#include <cstdio>
#include <string>

#include "platform/files.h"

namespace zpdf::fs {

int Win32ErrorFromErrorCode(const std::error_code& error) {
    if (!error) return 0;
    if (error.category() == std::system_category()) return error.value();
    return Win32ErrorFromErrno(error.value());
}

int CreateTempFile(std::filesystem::path* created) {
    wchar_t dir[MAX_PATH];
    const DWORD length = GetTempPathW(MAX_PATH, dir);
    if (length == 0 || length > MAX_PATH) return static_cast<int>(GetLastError());
    wchar_t name[MAX_PATH];
    if (const int error = InjectedFault(FileOp::Create, dir)) return error;
    if (GetTempFileNameW(dir, L"zpf", 0, name) == 0) return static_cast<int>(GetLastError());
    *created = name;
    return 0;
}

int MoveReplace(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (const int error = InjectedFault(FileOp::Move, to)) return error;
    if (!MoveFileExW(from.c_str(), to.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        return static_cast<int>(GetLastError());
    }
    return 0;
}

int MoveReplaceWithoutSync(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (const int error = InjectedFault(FileOp::Move, to)) return error;
    if (!MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        return static_cast<int>(GetLastError());
    }
    return 0;
}

FILE* OpenFile(const std::filesystem::path& path, const char* mode) {
    std::wstring wide_mode;
    for (const char* c = mode; *c != '\0'; ++c) wide_mode += static_cast<wchar_t>(*c);
    wide_mode += L'N';  // not inherited by child processes
    return _wfopen(path.c_str(), wide_mode.c_str());
}

int OutputFile::Commit() {
    if (file_ == nullptr) return kErrorGenFailure;
    int error = InjectedFault(FileOp::Flush, path_);
    if (error == 0 && std::fflush(file_) != 0) error = Win32ErrorFromErrno(errno);
    if (error == 0 && _commit(_fileno(file_)) != 0) error = Win32ErrorFromErrno(errno);
    if (error == 0) error = InjectedFault(FileOp::Close, path_);
    const int closed = std::fclose(file_);
    file_ = nullptr;
    if (error == 0 && closed != 0) error = Win32ErrorFromErrno(errno);
    return error;
}

}  // namespace zpdf::fs
