// The content object's state in the host's job files: path, embed flag and password, and for an
// embedded document the document's bytes, restored into a new private copy on load.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "content_object/content_object.h"
#include "content_object/stream_record.h"
#include "platform/files.h"

namespace zpdf {
namespace {

constexpr std::uint32_t kStateVersion = 1;
// Embedded bytes move between file and stream in pieces of this size.
constexpr std::size_t kCopyChunk = 4096;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

int ReadErrorFromErrno(int error) {
    if (error == 0 || error == EIO) return fs::kErrorReadFault;
    return fs::Win32ErrorFromErrno(error);
}

// Writes the length of the file at `path` (its low 32 bits) and then its bytes. The copy stops
// at that length, or earlier when the file ends first.
HResult WriteFileContent(ByteStream& stream, const std::filesystem::path& path, std::string* why) {
    errno = 0;
    const std::unique_ptr<std::FILE, FileCloser> file(fs::OpenFile(path, "rb"));
    if (!file) {
        *why = "Cannot open the embedded document " + path.string();
        return hr::FromWin32(fs::Win32ErrorFromErrno(errno != 0 ? errno : ENOENT));
    }
    std::error_code ec;
    const std::uintmax_t size = std::filesystem::file_size(path, ec);
    if (ec) {
        *why = "Cannot measure the embedded document " + path.string();
        return hr::FromWin32(fs::Win32ErrorFromErrorCode(ec));
    }
    const auto length = static_cast<std::uint32_t>(size);
    if (const HResult result = record::WriteUInt32(stream, length); hr::Failed(result)) {
        *why = "Cannot write the length of the embedded document";
        return result;
    }

    std::array<std::uint8_t, kCopyChunk> chunk;
    std::uint32_t remaining = length;
    while (remaining > 0) {
        const std::size_t want = std::min<std::size_t>(chunk.size(), remaining);
        int error = fs::InjectedFault(fs::FileOp::Read, path);
        errno = 0;
        const std::size_t got = error == 0 ? std::fread(chunk.data(), 1, want, file.get()) : 0;
        if (error == 0 && std::ferror(file.get())) error = ReadErrorFromErrno(errno);
        if (error != 0) {
            *why = "Cannot read the embedded document " + path.string();
            return hr::FromWin32(error);
        }
        if (got == 0) break;
        if (const HResult result = stream.Write(chunk.data(), got); hr::Failed(result)) {
            *why = "Cannot write the embedded document";
            return result;
        }
        remaining -= static_cast<std::uint32_t>(got);
    }
    return hr::kOk;
}

// Reads the content length and the content into a new "zpf" temporary file, which is removed
// again on any failure. A stream that ends inside the content ends the copy without an error:
// opening the shorter file reports the damage later.
HResult RestoreFileContent(ByteStream& stream, std::filesystem::path* restored, std::string* why) {
    std::filesystem::path copy;
    fs::OutputFile file;
    if (const int error = fs::CreateTempFile(&copy, &file)) {
        *why = "Cannot create the private copy of the embedded document: " + fs::ErrorText(error);
        return hr::FromWin32(error);
    }
    auto fail = [&](HResult result, const char* reason) {
        file.Close();
        fs::RemoveQuietly(copy);
        *why = reason;
        return result;
    };
    std::uint32_t remaining = 0;
    if (const HResult result = record::ReadUInt32(stream, &remaining); hr::Failed(result)) {
        return fail(result, "The stored state ends before the length of the embedded document");
    }
    std::array<std::uint8_t, kCopyChunk> chunk;
    while (remaining > 0) {
        const std::size_t want = std::min<std::size_t>(chunk.size(), remaining);
        std::size_t got = 0;
        if (const HResult result = stream.Read(chunk.data(), want, &got); hr::Failed(result)) {
            return fail(result, "Cannot read the embedded document");
        }
        got = std::min(got, want);
        if (got == 0) break;
        if (const int error = file.Write(chunk.data(), got)) {
            return fail(hr::FromWin32(error), "Cannot write the private copy");
        }
        remaining -= static_cast<std::uint32_t>(got);
    }
    if (const int error = file.Commit()) {
        return fail(hr::FromWin32(error), "Cannot write the private copy");
    }
    *restored = copy;
    return hr::kOk;
}

}  // namespace

HResult CZPdfContentObject::IsDirty() const {
    return dirty_ != 0 ? hr::kOk : hr::kFalse;
}

HResult CZPdfContentObject::InitNew() {
    dirty_ = 1;
    return hr::kOk;
}

HResult CZPdfContentObject::GetSizeMax(std::uint64_t* pcbSize) const {
    if (pcbSize == nullptr) return Fail(hr::kPointer, "No place for the result was given");
    // Only the version field has a fixed size; hosts take this as a hint.
    *pcbSize = 4;
    return hr::kOk;
}

HResult CZPdfContentObject::Save(ByteStream& stream, bool fClearDirty) {
    if (const HResult result = record::WriteUInt32(stream, kStateVersion); hr::Failed(result)) {
        return Fail(result, "Cannot write the version of the stored state");
    }
    // An embedded document travels as its bytes; the private copy's path means nothing to the
    // object that loads them.
    const OptionalText stored_path = embed_ != 0 ? OptionalText(u"") : pdf_file_;
    if (const HResult result = record::WriteStringRecord(stream, stored_path); hr::Failed(result)) {
        return Fail(result, "Cannot write the path of the stored state");
    }
    if (const HResult result = record::WriteInt16(stream, embed_); hr::Failed(result)) {
        return Fail(result, "Cannot write the embed flag of the stored state");
    }
    if (const HResult result = record::WriteStringRecord(stream, password_); hr::Failed(result)) {
        return Fail(result, "Cannot write the password of the stored state");
    }
    if (embed_ != 0) {
        if (!HasPath()) return Fail(hr::kUnexpected, "The embedded document has no private copy");
        std::string why;
        if (const HResult result = WriteFileContent(stream, ToPath(*pdf_file_), &why);
            hr::Failed(result)) {
            return Fail(result, why);
        }
    }
    if (fClearDirty) dirty_ = 0;
    return hr::kOk;
}

HResult CZPdfContentObject::Load(ByteStream& stream) {
    std::uint32_t version = 0;
    if (const HResult result = record::ReadUInt32(stream, &version); hr::Failed(result)) {
        return Fail(result, "Cannot read the version of the stored state");
    }
    if (version > kStateVersion) {
        return Fail(hr::kUnexpected, "The stored state has version " + std::to_string(version) +
                                         ", newer than this object reads");
    }

    // From here on a failure leaves the object reset, with the fields read so far.
    ResetDocument();
    if (const HResult result = record::ReadStringRecord(stream, &pdf_file_); hr::Failed(result)) {
        return Fail(result, "Cannot read the path of the stored state");
    }
    if (const HResult result = record::ReadInt16(stream, &embed_); hr::Failed(result)) {
        return Fail(result, "Cannot read the embed flag of the stored state");
    }
    if (const HResult result = record::ReadStringRecord(stream, &password_); hr::Failed(result)) {
        return Fail(result, "Cannot read the password of the stored state");
    }

    // A stored path, embedded or not, is taken as it is; only an embedded document stored
    // without a path carries its bytes.
    if (embed_ != 0 && !HasPath()) {
        std::filesystem::path copy;
        std::string why;
        if (const HResult result = RestoreFileContent(stream, &copy, &why); hr::Failed(result)) {
            return Fail(result, why);
        }
        pdf_file_ = FromPath(copy);
        owns_copy_ = true;
    }
    dirty_ = 0;
    return hr::kOk;
}

}  // namespace zpdf
