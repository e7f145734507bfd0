#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>

#include "platform/cleanup_registry.h"
#include "platform/files.h"

namespace zpdf::fs {
namespace {

int LastError() {
    return static_cast<int>(GetLastError());
}

bool IdentityOfHandle(HANDLE handle, FileIdentity* identity) {
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(handle, &info)) return false;
    identity->device = info.dwVolumeSerialNumber;
    identity->inode =
        (static_cast<unsigned long long>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    identity->modified_ns =
        static_cast<long long>(
            (static_cast<unsigned long long>(info.ftLastWriteTime.dwHighDateTime) << 32) |
            info.ftLastWriteTime.dwLowDateTime) *
        100;
    identity->size = static_cast<long long>(
        (static_cast<unsigned long long>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
    return true;
}

// Opens `path` for reading its attributes only. `follow`: a reparse point (link) is followed.
HANDLE OpenForIdentity(const std::filesystem::path& path, bool follow) {
    return CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, follow ? 0 : FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

std::wstring RandomPart() {
    static constexpr wchar_t kAlphabet[] = L"abcdefghijklmnopqrstuvwxyz0123456789";
    thread_local std::mt19937_64 generator([] {
        std::random_device device;
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        std::seed_seq seed{device(), static_cast<unsigned>(GetCurrentProcessId()),
                           static_cast<unsigned>(now), static_cast<unsigned>(now >> 32)};
        return std::mt19937_64(seed);
    }());
    std::wstring out(8, L'x');
    for (wchar_t& c : out) c = kAlphabet[generator() % (sizeof kAlphabet / sizeof(wchar_t) - 1)];
    return out;
}

}  // namespace

struct FileReplacement::Native {
    // The file being replaced, open so that nobody else writes it; deleting (the replace) stays
    // allowed. INVALID_HANDLE_VALUE when there is none.
    HANDLE lock = INVALID_HANDLE_VALUE;
    ~Native() {
        if (lock != INVALID_HANDLE_VALUE) CloseHandle(lock);
    }
};

int Win32ErrorFromErrorCode(const std::error_code& error) {
    if (!error) return 0;
    if (error.category() == std::system_category()) return error.value();
    return Win32ErrorFromErrno(error.value());
}

std::string ErrorText(int error) {
    char* text = nullptr;
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(error), 0, reinterpret_cast<char*>(&text), 0, nullptr);
    std::string out = length > 0 && text != nullptr ? std::string(text, length)
                                                    : "error " + std::to_string(error);
    if (text != nullptr) LocalFree(text);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == '.'))
        out.pop_back();
    return out;
}

bool IdentifyFile(const std::filesystem::path& path, FileIdentity* identity) {
    const HANDLE handle = OpenForIdentity(path, true);
    if (handle == INVALID_HANDLE_VALUE) return false;
    const bool ok = IdentityOfHandle(handle, identity);
    CloseHandle(handle);
    return ok;
}

bool IdentifyOpenFile(std::FILE* file, FileIdentity* identity) {
    if (file == nullptr) return false;
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    return handle != INVALID_HANDLE_VALUE && IdentityOfHandle(handle, identity);
}

bool SameFile(const std::filesystem::path& a, const std::filesystem::path& b) {
    FileIdentity first, second;
    return IdentifyFile(a, &first) && IdentifyFile(b, &second) && first.SameFile(second);
}

int CreateTempFile(std::filesystem::path* created, OutputFile* file) {
    wchar_t dir[MAX_PATH];
    const DWORD length = GetTempPathW(MAX_PATH, dir);
    if (length == 0 || length > MAX_PATH) return LastError();
    wchar_t name[MAX_PATH];
    if (const int error = InjectedFault(FileOp::Create, dir)) return error;
    if (GetTempFileNameW(dir, L"zpf", 0, name) == 0) return LastError();
    RegisterForCleanup(name);
    // The name was made by creating the file; it is opened again, never created over.
    const HANDLE handle = CreateFileW(name, GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      TRUNCATE_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const int error = LastError();
        RemoveQuietly(name);
        return error;
    }
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_BINARY | _O_WRONLY);
    FILE* stream = fd >= 0 ? _wfdopen(fd, L"wb") : nullptr;
    if (stream == nullptr) {
        if (fd >= 0)
            _close(fd);
        else
            CloseHandle(handle);
        RemoveQuietly(name);
        return kErrorNotEnoughMemory;
    }
    file->Adopt(stream, name);
    *created = name;
    return 0;
}

FILE* OpenFile(const std::filesystem::path& path, const char* mode) {
    std::wstring wide_mode;
    for (const char* c = mode; *c != '\0'; ++c) wide_mode += static_cast<wchar_t>(*c);
    wide_mode += L'N';  // not inherited by child processes
    return _wfopen(path.c_str(), wide_mode.c_str());
}

int OutputFile::SyncData() {
    if (file_ == nullptr) return kErrorGenFailure;
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file_)));
    if (!FlushFileBuffers(handle)) return LastError();
    return 0;
}

FileReplacement::FileReplacement(std::filesystem::path target, Durability durability)
    : target_(std::move(target)), final_(target_), durability_(durability) {}

FileReplacement::~FileReplacement() {
    file_.Close();
    if (created_ && !replaced_) RemoveQuietly(side_);
}

int FileReplacement::Open() {
    const int error = OpenLocked();
    // A writer that cannot start holds nothing that keeps others from writing.
    if (error != 0 && native_ && native_->lock != INVALID_HANDLE_VALUE) {
        CloseHandle(native_->lock);
        native_->lock = INVALID_HANDLE_VALUE;
    }
    return error;
}

int FileReplacement::OpenLocked() {
    problem_.clear();
    const std::string what = "Cannot create " + target_.string();
    native_ = std::make_unique<Native>();
    // A link is followed to the file it names; that file is replaced and the link stays.
    const HANDLE probe = CreateFileW(target_.c_str(), FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, 0, nullptr);
    if (probe != INVALID_HANDLE_VALUE) {
        wchar_t resolved[32768];
        const DWORD length = GetFinalPathNameByHandleW(probe, resolved, 32768, 0);
        if (length > 0 && length < 32768) final_ = std::filesystem::path(resolved);
        CloseHandle(probe);
    }
    const std::wstring name = final_.filename().wstring();
    if (name.empty() || name == L"." || name == L"..") return Fail(kErrorAccessDenied, what);
    const std::filesystem::path dir = final_.has_parent_path() ? final_.parent_path() : ".";

    // The file being replaced, held open against other writers (a second one fails with a
    // sharing violation) while it may still be deleted by the replace.
    native_->lock = CreateFileW(final_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (native_->lock != INVALID_HANDLE_VALUE) {
        FileIdentity identity;
        if (IdentityOfHandle(native_->lock, &identity)) base_ = identity;
    } else {
        const int error = LastError();
        if (error == ERROR_SHARING_VIOLATION) {
            problem_ = "Cannot write " + target_.string() + ": another writer is writing it";
            return kErrorSharingViolation;
        }
        if (error != ERROR_FILE_NOT_FOUND) return Fail(error, what);
    }
    if (expected_ && (!base_ || !base_->SameFile(*expected_))) {
        problem_ =
            "Cannot save " + target_.string() + ": another writer replaced it since it was opened";
        return kErrorSharingViolation;
    }

    // The side file's name stays within the usual 255-character limit of a name.
    std::wstring stem = name;
    if (stem.size() > 240) stem.resize(240);
    for (int attempt = 0; attempt < 100; ++attempt) {
        side_ = dir / (L"." + stem + L"." + RandomPart() + L".part");
        if (const int error = InjectedFault(FileOp::Create, side_)) return Fail(error, what);
        const HANDLE handle =
            CreateFileW(side_.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
        if (handle == INVALID_HANDLE_VALUE && GetLastError() == ERROR_FILE_EXISTS) continue;
        if (handle == INVALID_HANDLE_VALUE) return Fail(LastError(), what);
        RegisterForCleanup(side_);
        created_ = true;
        const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_BINARY | _O_WRONLY);
        FILE* stream = fd >= 0 ? _wfdopen(fd, L"wb") : nullptr;
        if (stream == nullptr) {
            if (fd >= 0)
                _close(fd);
            else
                CloseHandle(handle);
            return Fail(kErrorNotEnoughMemory, what);
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
    // The replace itself carries the security descriptor and attributes over; it is asked
    // about here so the steps match on every system.
    if (base_) {
        if (const int error = InjectedFault(FileOp::Attributes, side_)) {
            file_.Close();
            return Fail(error, "Cannot keep the attributes of " + target_.string());
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
    if (const int error = InjectedFault(FileOp::Move, target_)) return Fail(error, what);
    if (base_) {
        FileIdentity now;
        const HANDLE handle = OpenForIdentity(final_, false);
        const bool same = handle != INVALID_HANDLE_VALUE && IdentityOfHandle(handle, &now) &&
                          now.SameVersion(*base_);
        if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
        if (!same) {
            problem_ = what + ": another writer changed it meanwhile";
            return kErrorSharingViolation;
        }
        // The attributes the replace is to keep, set again after it where a file system's
        // replace (or the plain move below) does not carry them over.
        const DWORD attributes = GetFileAttributesW(final_.c_str());
        // The held handle shares deletion, so the replace may go ahead; it is closed first all
        // the same, as some file systems refuse to replace an open file.
        CloseHandle(native_->lock);
        native_->lock = INVALID_HANDLE_VALUE;
        // The replaced file's security descriptor, attributes and streams are kept.
        if (!ReplaceFileW(final_.c_str(), side_.c_str(), nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS,
                          nullptr, nullptr)) {
            const int error = LastError();
            // File systems without that call: a plain move that writes through.
            if (!MoveFileExW(side_.c_str(), final_.c_str(),
                             MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
                return Fail(error, what);
            }
        }
        if (attributes != INVALID_FILE_ATTRIBUTES &&
            GetFileAttributesW(final_.c_str()) != attributes)
            SetFileAttributesW(final_.c_str(), attributes);
    } else {
        // There was no file: one that appeared meanwhile is never overwritten.
        const DWORD flags = durability_ == Durability::Synced ? MOVEFILE_WRITE_THROUGH : 0;
        if (!MoveFileExW(side_.c_str(), final_.c_str(), flags)) {
            const int error = LastError();
            if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) {
                problem_ = what + ": another writer created it meanwhile";
                return kErrorSharingViolation;
            }
            return Fail(error, what);
        }
    }
    replaced_ = true;
    UnregisterCleanup(side_);
    if (durability_ == Durability::Synced) {
        // The move wrote through; the folder needs no flush of its own.
        if (const int error = InjectedFault(FileOp::SyncFolder, target_)) {
            return Fail(error, "Cannot flush the folder of " + target_.string() +
                                   " (the new file is in place, but may not survive a power cut)");
        }
    }
    return 0;
}

}  // namespace zpdf::fs
