// The content object's stream record: exact bytes in both directions, every refused record,
// embedded documents restored byte for byte, and failing streams and files at every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "content_object/stream_record.h"
#include "core/open_object.h"
#include "platform/byte_stream.h"
#include "support/fault_stream.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using test::HexBytes;
using test::Path;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes U32(std::uint32_t v) {
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
}
Bytes Raw(const std::string& s) {
    return Bytes(s.begin(), s.end());
}
// A string record of ASCII text.
Bytes Str(const std::string& ascii) {
    Bytes out = U32(static_cast<std::uint32_t>(ascii.size() * 2 + 2));
    for (char c : ascii) out.insert(out.end(), {static_cast<std::uint8_t>(c), 0});
    return out + Bytes{0, 0};
}
const Bytes kV1 = U32(1), kNull = U32(0), kEmbedTrue = {0xFF, 0xFF}, kEmbedFalse = {0, 0};
// Content that reaches the stream and the private copy in several pieces.
const std::string kLong = [] {
    std::string content(10000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
    return content;
}();
// An embedded record with password "pw" and kLong as content.
const Bytes kFields = kV1 + Str("") + kEmbedTrue + Str("pw"),
            kEmbedded = kFields + U32(10000) + Raw(kLong);

// What an object holds: path, embed flag, password.
using State = std::tuple<OptionalText, VariantBool, OptionalText>;
State Of(const CZPdfContentObject& object) {
    return {object.PdfFilePath(), object.EmbedFlag(), object.PasswordText()};
}
HResult LoadBytes(CZPdfContentObject& object, const Bytes& bytes) {
    MemoryByteStream stream(bytes);
    return object.Load(stream);
}

using PersistenceTest = test::PrivateCopyTest;

// Records as the host stores them, loaded and saved again: the state they give, and the bytes
// saved back, the same ones unless the record is of an older form. A new object is dirty.
TEST_F(PersistenceTest, RecordsRoundTrip) {
    const std::string longest(524287, 'k');  // and the terminator: the longest string readable
    const std::nullopt_t null = std::nullopt;
    struct Case {
        Bytes record;
        State state;               // the path not compared for embedded documents
        std::string content = "";  // of the private copy, for embedded documents
        Bytes saved = {};          // empty: the record
    } cases[] = {
        {HexBytes("01000000 00000000 0000 00000000"), {null, 0, null}},
        {HexBytes("01000000 02000000 0000 0000 02000000 0000"), {u"", 0, u""}},
        // Version 1, a path of an e-acute and a surrogate pair, embed flag 0, password the euro
        // sign.
        {HexBytes("01000000 08000000 E9003DD8 00DE0000 0000 04000000 AC200000"),
         {u"\u00e9\U0001F600", 0, u"\u20AC"}},
        {kV1 + Str("a") + kEmbedFalse + Str(longest),
         {u"a", 0, std::u16string(longest.begin(), longest.end())}},
        {kV1 + Str("") + kEmbedTrue + kNull + U32(10000) + Raw(kLong), {null, -1, null}, kLong},
        // Version 0 is saved as 1; short content ends the copy early.
        {U32(0) + Str("a.pdf") + kEmbedFalse + Str("x"),
         {u"a.pdf", 0, u"x"},
         "",
         kV1 + Str("a.pdf") + kEmbedFalse + Str("x")},
        {kV1 + Str("") + kEmbedTrue + kNull + U32(10) + Raw("abc"),
         {null, -1, null},
         "abc",
         kV1 + Str("") + kEmbedTrue + kNull + U32(3) + Raw("abc")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.record.size());
        CZPdfContentObject object;
        EXPECT_EQ(object.IsDirty(), hr::kOk);
        ASSERT_EQ(LoadBytes(object, c.record), hr::kOk) << object.LastErrorText();
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        const bool embedded = std::get<1>(c.state) != 0;
        State expected = c.state;
        if (embedded) std::get<0>(expected) = object.PdfFilePath();
        EXPECT_EQ(Of(object), expected);
        EXPECT_EQ(embedded ? test::ReadBytes(ToPath(*object.PdfFilePath())) : "", c.content);
        ASSERT_EQ(object.InitNew(), hr::kOk);  // dirty again, what it holds untouched
        MemoryByteStream saved;
        EXPECT_EQ(object.Save(saved, true), hr::kOk) << object.LastErrorText();
        EXPECT_EQ(saved.Bytes(), c.saved.empty() ? c.record : c.saved);
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
    }
}

// Only a record without a path carries the bytes; what follows belongs to the host. A crafted
// record that claims someone's file as the private copy must not get that file deleted.
TEST_F(PersistenceTest, EmbeddedRecordWithAPathReadsNoContentAndKeepsTheFile) {
    const Path victim = dir_ / "precious.pdf";
    test::WriteBytes(victim, "user data");
    const Bytes record = kV1 + Str(victim.string()) + kEmbedTrue + Str("pw");
    MemoryByteStream stream(record + U32(3) + Raw("xyz"));
    {
        CZPdfContentObject object;
        ASSERT_EQ(object.Load(stream), hr::kOk);
        EXPECT_EQ(stream.Position(), record.size());
        EXPECT_EQ(Of(object), State(FromPath(victim), -1, u"pw"));
        EXPECT_EQ(PrivateCopies(), 0u);
        object.ResetDocument();
    }
    EXPECT_EQ(test::ReadBytes(victim), "user data");
}

// Records the object refuses, or whose n-th stream read fails, or whose private copy finds the
// disk full, loaded over an object holding an embedded document: before the version is accepted
// nothing changes; after it the object is reset and keeps the fields read so far, and no private
// copy is left. A refused string record
// leaves the stream at its count. The dirty flag stays clear.
TEST_F(PersistenceTest, RefusedRecords) {
    const Bytes a = Str("a"), over_limit = U32(record::kMaxStringBytes + 1);
    const std::optional<State> kUntouched;  // the earlier document is still held
    const State kReset{u"", 0, u""};
    struct Case {
        Bytes record;
        HResult result;
        std::optional<State> state;
        long position;  // where the stream is left; -1: not checked
        int failing_read = 0;
        bool disk_full = false;
    } cases[] = {
        {U32(2) + a + kEmbedFalse + kNull, hr::kUnexpected, kUntouched, -1},
        // The version, the password's text and a piece of the content fail to read.
        {kEmbedded, test::kStreamReadFault, kUntouched, -1, 1},
        {kEmbedded, test::kStreamReadFault, State{u"", -1, u""}, 12, 6},
        {kEmbedded, test::kStreamReadFault, State{u"", -1, u"pw"}, -1, 9},
        {kEmbedded, hr::FromWin32(fs::kErrorDiskFull), State{u"", -1, u"pw"}, -1, 0, true},
        {kV1 + HexBytes("0500"), hr::kFail, kReset, 4},  // path count cut short
        {kV1 + U32(1) + HexBytes("0000"), hr::kFail, kReset, 4},
        {kV1 + over_limit, hr::kAccessDenied, kReset, 4},
        {kV1 + U32(10) + HexBytes("61006200"), hr::kFail, kReset, 4},     // text cut short
        {kV1 + U32(6) + HexBytes("610062006300"), hr::kFail, kReset, 4},  // no terminator
        {kV1 + Str("") + kEmbedTrue + kNull + HexBytes("05"), hr::kFail,  // content length
         State{u"", -1, std::nullopt}, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.record.size());
        CZPdfContentObject object;
        ASSERT_EQ(
            LoadBytes(object, kV1 + Str("") + kEmbedTrue + Str("old") + U32(5) + Raw("hello")),
            hr::kOk);
        const State before = Of(object);
        test::FaultInjectingStream stream(c.record);
        stream.FailRead(c.failing_read);
        fs::SetFaultHook([&](fs::FileOp op, const Path&) {
            return c.disk_full && op == fs::FileOp::Write ? fs::kErrorDiskFull : 0;
        });
        EXPECT_EQ(object.Load(stream), c.result);
        fs::SetFaultHook(nullptr);
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        EXPECT_EQ(Of(object), c.state.value_or(before));
        EXPECT_EQ(stdfs::exists(ToPath(*std::get<0>(before))), !c.state) << "a reset deletes it";
        EXPECT_EQ(PrivateCopies(), c.state ? 0u : 1u);
        std::uint64_t position = 0;
        ASSERT_EQ(stream.Seek(0, SeekOrigin::Current, &position), hr::kOk);
        EXPECT_TRUE(c.position < 0 || position == static_cast<std::uint64_t>(c.position))
            << position;
    }
}

// A save whose k-th stream write, or k-th read of the private copy, fails, for every k: the
// failure is returned at once with nothing written after it, and the object is unchanged, dirty
// flag included. So for a private copy that is gone.
TEST_F(PersistenceTest, FailingSaves) {
    CZPdfContentObject object;
    ASSERT_EQ(LoadBytes(object, kEmbedded), hr::kOk);
    ASSERT_EQ(object.InitNew(), hr::kOk);
    const OptionalText copy = object.PdfFilePath();
    test::FaultInjectingStream clean;
    ASSERT_EQ(object.Save(clean, false), hr::kOk);
    ASSERT_EQ(object.IsDirty(), hr::kOk) << "a save that keeps the flag";
    ASSERT_EQ(clean.Bytes(), kEmbedded);
    const int writes = clean.Writes();
    ASSERT_GT(writes, 6) << "the content goes in several writes";
    for (int k = 1; k <= writes + 3; ++k) {  // the content is read in three pieces
        SCOPED_TRACE(k);
        test::FaultInjectingStream stream;
        stream.FailWrite(k);
        int reads = 0;
        fs::SetFaultHook([&](fs::FileOp op, const Path&) {
            return op == fs::FileOp::Read && ++reads == k - writes ? fs::kErrorReadFault : 0;
        });
        EXPECT_EQ(object.Save(stream, true),
                  k <= writes ? test::kStreamMediumFull : hr::FromWin32(fs::kErrorReadFault));
        fs::SetFaultHook(nullptr);
        EXPECT_LE(stream.Writes(), k);
        ASSERT_LE(stream.Bytes().size(), kEmbedded.size());
        EXPECT_TRUE(std::equal(stream.Bytes().begin(), stream.Bytes().end(), kEmbedded.begin()));
        EXPECT_EQ(object.IsDirty(), hr::kOk);
        EXPECT_EQ(Of(object), State(copy, -1, u"pw"));
    }
    ASSERT_TRUE(stdfs::remove(ToPath(*copy)));
    MemoryByteStream stream;
    EXPECT_EQ(object.Save(stream, true), hr::FromWin32(fs::kErrorFileNotFound));
    EXPECT_EQ(stream.Bytes(), kFields);
}

}  // namespace
}  // namespace zpdf
