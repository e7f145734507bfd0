// Content-object records of any content. Loading must stay inside the input and refuse with
// the record's own results; a loaded state must save to a record that loads back to the same
// state, embedded bytes included, and saves to the same bytes again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "content_object/content_object.h"
#include "content_object/stream_record.h"
#include "platform/byte_stream.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using zpdf::HResult;
using zpdf::fuzz::Check;
namespace hr = zpdf::hr;
namespace record = zpdf::record;

std::string FileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// An object that loads a record naming a path with the embed flag set takes that file for its
// private copy and deletes it when it is reset. Arbitrary input could name any file, so such
// records only go through the record readers here.
bool NamesAFileToOwn(const std::vector<std::uint8_t>& bytes) {
    zpdf::MemoryByteStream stream(bytes);
    std::uint32_t version = 0;
    zpdf::OptionalText path, password;
    std::int16_t embed = 0;
    if (hr::Failed(record::ReadUInt32(stream, &version)) || version > 1 ||
        hr::Failed(record::ReadStringRecord(stream, &path)))
        return false;
    const bool owned =
        hr::Succeeded(record::ReadInt16(stream, &embed)) && embed != 0 && path && !path->empty();
    record::ReadStringRecord(stream, &password);
    return owned;
}

}  // namespace

// Private copies go to the run's folder.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zpdf::fuzz::RunFolder();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::uint8_t> bytes(data, data + size);
    if (NamesAFileToOwn(bytes)) return 0;

    zpdf::CZPdfContentObject object;
    zpdf::MemoryByteStream stream(bytes);
    const HResult loaded = object.Load(stream);
    if (loaded != hr::kOk) {
        Check(loaded == hr::kFail || loaded == hr::kAccessDenied || loaded == hr::kUnexpected);
        Check(object.IsDirty() == hr::kOk);
        return 0;
    }
    Check(object.IsDirty() == hr::kFalse);
    Check(stream.Position() <= size);

    zpdf::MemoryByteStream saved;
    Check(object.Save(saved, true) == hr::kOk);
    zpdf::CZPdfContentObject again;
    zpdf::MemoryByteStream reread(saved.Bytes());
    Check(again.Load(reread) == hr::kOk);
    Check(reread.Position() == saved.Bytes().size());
    Check(again.EmbedFlag() == object.EmbedFlag());
    Check(again.PasswordText() == object.PasswordText());
    if (object.EmbedFlag() == 0) Check(again.PdfFilePath() == object.PdfFilePath());
    if (object.EmbedFlag() != 0) {
        Check(again.HasPath() && object.HasPath());
        Check(again.PdfFilePath() != object.PdfFilePath());
        Check(FileBytes(zpdf::ToPath(*again.PdfFilePath())) ==
              FileBytes(zpdf::ToPath(*object.PdfFilePath())));
    }
    zpdf::MemoryByteStream resaved;
    Check(again.Save(resaved, true) == hr::kOk);
    Check(resaved.Bytes() == saved.Bytes());
    return 0;
}
