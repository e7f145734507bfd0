// The content object's stream record: exact bytes in both directions, every refused record,
// embedded documents restored byte for byte, and failing streams and files at every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "content_object/stream_record.h"
#include "platform/byte_stream.h"
#include "platform/files.h"
#include "support/fault_stream.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

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
using test::HexBytes;
// A string record of ASCII text.
Bytes Str(const std::string& ascii) {
    Bytes out = U32(static_cast<std::uint32_t>(ascii.size() * 2 + 2));
    for (char c : ascii) out.insert(out.end(), {static_cast<std::uint8_t>(c), 0});
    return out + Bytes{0, 0};
}
const Bytes kV1 = U32(1);
const Bytes kNull = U32(0);
const Bytes kEmbedTrue = {0xFF, 0xFF};
const Bytes kEmbedFalse = {0, 0};

struct State {
    OptionalText path;
    VariantBool embed;
    OptionalText password;
};
State StateOf(const CZPdfContentObject& object) {
    return {object.PdfFilePath(), object.EmbedFlag(), object.PasswordText()};
}
void ExpectState(const CZPdfContentObject& object, const State& expected) {
    EXPECT_EQ(object.PdfFilePath(), expected.path);
    EXPECT_EQ(object.EmbedFlag(), expected.embed);
    EXPECT_EQ(object.PasswordText(), expected.password);
}

HResult LoadBytes(CZPdfContentObject& object, const Bytes& bytes) {
    MemoryByteStream stream(bytes);
    return object.Load(stream);
}
Bytes SaveBytes(CZPdfContentObject& object) {
    MemoryByteStream stream;
    EXPECT_EQ(object.Save(stream, true), hr::kOk) << object.LastErrorText();
    return stream.Bytes();
}

// Private copies go to a temporary folder of the test's own, so that leftovers can be counted.
class PersistenceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = test::ScratchDir();
        tmp_ = dir_ / "tmp";
        stdfs::create_directories(tmp_);
        tmp_override_.emplace(tmp_);
    }
    void TearDown() override {
        fs::SetFaultHook(nullptr);
        tmp_override_.reset();
    }
    std::size_t PrivateCopies() const { return test::FilesStartingWith(tmp_, "zpf").size(); }

    stdfs::path dir_;  // files of the test
    stdfs::path tmp_;  // its temporary folder
    std::optional<test::TempFolderOverride> tmp_override_;
};

// Records as the host stores them, loaded and saved again: the state they give, and the bytes
// saved back, the same ones unless the record is of an older form.
TEST_F(PersistenceTest, RecordsRoundTrip) {
    const Bytes kSame;
    struct Case {
        const char* name;
        Bytes record;
        OptionalText path;  // not compared for embedded documents
        VariantBool embed;
        OptionalText password;
        std::string content;  // of the private copy, for embedded documents
        Bytes saved;
    } cases[] = {
        // Version 1, path "D.pdf", embed flag 0, password "pw".
        {"linked",
         HexBytes("01000000 0C000000 44002E00 70006400 66000000 0000 06000000 70007700 0000"),
         u"D.pdf", 0, u"pw", "", kSame},
        {"null strings", HexBytes("01000000 00000000 0000 00000000"), std::nullopt, 0, std::nullopt,
         "", kSame},
        {"empty strings", HexBytes("01000000 02000000 0000 0000 02000000 0000"), u"", 0, u"", "",
         kSame},
        // An e-acute and a surrogate pair; the euro sign.
        {"characters beyond ASCII",
         HexBytes("01000000 08000000 E9003DD8 00DE0000 0000 04000000 AC200000"),
         u"\u00e9\U0001F600", 0, u"\u20AC", "", kSame},
        // An empty path, the embed flag, a null password and the content.
        {"embedded", HexBytes("01000000 02000000 0000 FFFF 00000000 05000000") + Raw("hello"),
         std::nullopt, -1, std::nullopt, "hello", kSame},
        {"embedded with flag 1 and no content",
         HexBytes("01000000 02000000 0000 0100 02000000 0000 00000000"), std::nullopt, 1, u"", "",
         kSame},
        {"version 0 is saved as 1", U32(0) + Str("a.pdf") + kEmbedFalse + Str("x"), u"a.pdf", 0,
         u"x", "", kV1 + Str("a.pdf") + kEmbedFalse + Str("x")},
        {"short content ends the copy early",
         kV1 + Str("") + kEmbedTrue + kNull + U32(10) + Raw("abc"), std::nullopt, -1, std::nullopt,
         "abc", kV1 + Str("") + kEmbedTrue + kNull + U32(3) + Raw("abc")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, c.record), hr::kOk) << object.LastErrorText();
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        EXPECT_EQ(object.EmbedFlag(), c.embed);
        EXPECT_EQ(object.PasswordText(), c.password);
        if (c.embed == 0) {
            EXPECT_EQ(object.PdfFilePath(), c.path);
        } else {
            ASSERT_TRUE(object.HasPath());
            const stdfs::path copy = ToPath(*object.PdfFilePath());
            EXPECT_EQ(copy.parent_path(), tmp_);
            EXPECT_EQ(copy.filename().string().rfind("zpf", 0), 0u) << copy;
            EXPECT_EQ(test::ReadBytes(copy), c.content);
        }
        EXPECT_EQ(SaveBytes(object), c.saved.empty() ? c.record : c.saved);
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
    }
}

TEST_F(PersistenceTest, EmbeddedDocumentTravelsInTheRecord) {
    const stdfs::path source = dir_ / "source.pdf";
    std::vector<samples::SamplePage> pages(2);
    pages[0].content = samples::TextContent({"first page"}, 842);
    pages[1].content = samples::FilledRect(10, 10, 100, 100);
    ASSERT_TRUE(samples::WriteFile(source, samples::BuildPdf(pages)));
    const std::string bytes = test::ReadBytes(source);

    CZPdfContentObject first;
    ASSERT_EQ(first.SetPdfDocument(FromPath(source), -1, u"secret"), hr::kOk);
    MemoryByteStream stream;
    ASSERT_EQ(first.Save(stream, false), hr::kOk) << first.LastErrorText();
    EXPECT_EQ(first.IsDirty(), hr::kOk) << "saving without clearing keeps the object dirty";
    // The private copy's path is never stored, only the bytes.
    const Bytes header =
        kV1 + Str("") + kEmbedTrue + Str("secret") + U32(static_cast<std::uint32_t>(bytes.size()));
    EXPECT_EQ(stream.Bytes(), header + Raw(bytes));

    CZPdfContentObject second;
    ASSERT_EQ(stream.Seek(0, SeekOrigin::Begin, nullptr), hr::kOk);
    ASSERT_EQ(second.Load(stream), hr::kOk) << second.LastErrorText();
    EXPECT_EQ(stream.Position(), stream.Bytes().size());
    ASSERT_TRUE(second.HasPath());
    EXPECT_NE(second.PdfFilePath(), first.PdfFilePath()) << "a new private copy";
    EXPECT_EQ(test::ReadBytes(ToPath(*second.PdfFilePath())), bytes);
    EXPECT_EQ(second.PasswordText(), OptionalText(u"secret"));
    EXPECT_FALSE(second.IsDocumentOpen()) << "loading does not open the document";
    std::int32_t count = 0;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(second.PageCount(&count), hr::kOk) << second.LastErrorText();
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(count, 2);

    // Loading again replaces the private copy: the earlier one is deleted.
    const stdfs::path earlier = ToPath(*second.PdfFilePath());
    ASSERT_EQ(LoadBytes(second, kV1 + Str("x.pdf") + kEmbedFalse + kNull), hr::kOk);
    EXPECT_FALSE(stdfs::exists(earlier));
    EXPECT_TRUE(stdfs::exists(ToPath(*first.PdfFilePath())));
}

// Only a record without a path carries the bytes; what follows belongs to the host. A crafted
// record that claims someone's file as the private copy must not get that file deleted.
TEST_F(PersistenceTest, EmbeddedRecordWithAPathReadsNoContentAndKeepsTheFile) {
    const stdfs::path victim = dir_ / "precious.pdf";
    test::WriteBytes(victim, "user data");
    const Bytes record = kV1 + Str(victim.string()) + kEmbedTrue + Str("pw");
    MemoryByteStream stream(record + U32(3) + Raw("xyz"));
    {
        CZPdfContentObject object;
        ASSERT_EQ(object.Load(stream), hr::kOk);
        EXPECT_EQ(stream.Position(), record.size());
        ExpectState(object, {FromPath(victim), -1, u"pw"});
        EXPECT_EQ(PrivateCopies(), 0u);
        object.ResetDocument();
    }
    EXPECT_EQ(test::ReadBytes(victim), "user data");
}

// Records the object refuses, loaded over an object holding an embedded document: before the
// version is accepted nothing changes; after it the object is reset and keeps the fields read so
// far. A refused string record leaves the stream at its count. The dirty flag stays clear.
TEST_F(PersistenceTest, RefusedRecords) {
    const Bytes path_a = Str("a");  // 8 bytes
    const Bytes over_limit = U32(record::kMaxStringBytes + 1);
    const std::optional<State> kUntouched;  // the earlier document is still held
    const State kReset{u"", 0, u""}, kPathA{u"a", 0, u""}, kPathAFlag1{u"a", 1, u""};
    struct Case {
        const char* name;
        Bytes record;
        HResult result;
        std::optional<State> state;
        long position;  // where the stream is left; -1: not checked
    } cases[] = {
        {"empty stream", {}, hr::kFail, kUntouched, -1},
        {"version cut short", HexBytes("0100"), hr::kFail, kUntouched, -1},
        {"version 2", U32(2) + Str("a") + kEmbedFalse + kNull, hr::kUnexpected, kUntouched, -1},
        {"version 0xFFFFFFFF", U32(0xFFFFFFFF), hr::kUnexpected, kUntouched, -1},
        {"path count cut short", kV1 + HexBytes("0500"), hr::kFail, kReset, 4},
        {"path count 1", kV1 + U32(1) + HexBytes("0000"), hr::kFail, kReset, 4},
        {"path count above the limit", kV1 + over_limit, hr::kAccessDenied, kReset, 4},
        {"path text cut short", kV1 + U32(10) + HexBytes("61006200"), hr::kFail, kReset, 4},
        {"path without terminator", kV1 + U32(6) + HexBytes("610062006300"), hr::kFail, kReset, 4},
        {"embed flag cut short", kV1 + path_a + HexBytes("01"), hr::kFail, kPathA, -1},
        {"password count 1", kV1 + path_a + kEmbedFalse + U32(1), hr::kFail, kPathA, 14},
        {"password above the limit", kV1 + path_a + HexBytes("0100") + over_limit,
         hr::kAccessDenied, kPathAFlag1, 14},
        {"content length cut short", kV1 + Str("") + kEmbedTrue + kNull + HexBytes("05"), hr::kFail,
         State{u"", -1, std::nullopt}, -1},
    };
    const Bytes earlier = kV1 + Str("") + kEmbedTrue + Str("old") + U32(5) + Raw("hello");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, earlier), hr::kOk);
        const State before = StateOf(object);
        const stdfs::path copy = ToPath(*before.path);

        MemoryByteStream stream(c.record);
        EXPECT_EQ(object.Load(stream), c.result);
        EXPECT_FALSE(object.LastErrorText().empty());
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        ExpectState(object, c.state.value_or(before));
        EXPECT_EQ(stdfs::exists(copy), !c.state) << "a reset deletes the earlier private copy";
        EXPECT_EQ(PrivateCopies(), c.state ? 0u : 1u);
        if (c.position >= 0) {
            EXPECT_EQ(stream.Position(), static_cast<std::uint64_t>(c.position));
        }
    }
}

// The longest string a record can hold: 524,287 characters and the terminator make 1,048,576
// bytes. One more character is written, but can no longer be read.
TEST_F(PersistenceTest, LongestPasswordThatReadsBack) {
    const struct {
        std::size_t length;
        HResult load;
    } cases[] = {{524287, hr::kOk}, {524288, hr::kAccessDenied}};
    const stdfs::path file = dir_ / "doc.pdf";
    ASSERT_TRUE(samples::WriteFile(file, samples::BuildPdf({samples::SamplePage{}})));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        const std::u16string password(c.length, u'k');
        CZPdfContentObject object;
        ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, password), hr::kOk);
        const Bytes saved = SaveBytes(object);
        CZPdfContentObject reader;
        EXPECT_EQ(LoadBytes(reader, saved), c.load);
        if (c.load == hr::kOk) {
            EXPECT_EQ(reader.PasswordText(), OptionalText(password));
        }
    }
}

// A stream whose k-th write or read fails, for every k. A failing write is returned at once with
// nothing written after it, and the object is unchanged, dirty flag included. A failing read is
// returned too: the first leaves the earlier document in place, every later one leaves the object
// reset, and no private copy is left behind.
TEST_F(PersistenceTest, FailingStreamCalls) {
    std::string content(10000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
    const Bytes record = kV1 + Str("") + kEmbedTrue + Str("pw") + U32(10000) + Raw(content);
    CZPdfContentObject source;
    ASSERT_EQ(LoadBytes(source, record), hr::kOk);
    ASSERT_EQ(source.InitNew(), hr::kOk);
    const State before = StateOf(source);
    test::FaultInjectingStream clean_out, clean_in(record);
    ASSERT_EQ(source.Save(clean_out, false), hr::kOk);
    ASSERT_EQ(clean_out.Bytes(), record);
    ASSERT_GT(clean_out.Writes(), 6) << "the content goes in several writes";
    ASSERT_EQ(CZPdfContentObject().Load(clean_in), hr::kOk);
    ASSERT_GT(clean_in.Reads(), 6);

    for (int k = 1; k <= clean_out.Writes(); ++k) {
        SCOPED_TRACE("write " + std::to_string(k));
        test::FaultInjectingStream stream;
        stream.FailWrite(k);
        EXPECT_EQ(source.Save(stream, true), test::kStreamMediumFull);
        EXPECT_EQ(stream.Writes(), k);
        const Bytes& written = stream.Bytes();
        ASSERT_LE(written.size(), record.size());
        EXPECT_TRUE(std::equal(written.begin(), written.end(), record.begin()));
        EXPECT_EQ(source.IsDirty(), hr::kOk);
        ExpectState(source, before);
        EXPECT_EQ(test::ReadBytes(ToPath(*before.path)), content);
    }
    for (int k = 1; k <= clean_in.Reads(); ++k) {
        SCOPED_TRACE("read " + std::to_string(k));
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, kV1 + Str("earlier.pdf") + kEmbedFalse + Str("old")), hr::kOk);
        test::FaultInjectingStream stream(record);
        stream.FailRead(k);
        EXPECT_EQ(object.Load(stream), test::kStreamReadFault);
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        if (k == 1) {
            ExpectState(object, {u"earlier.pdf", 0, u"old"});
        } else {
            EXPECT_EQ(object.PdfFilePath(), OptionalText(u""));
        }
        EXPECT_EQ(PrivateCopies(), 1u) << "only the source's copy";
    }
}

// Saving an embedded document whose private copy cannot be read, is gone, or was never made: the
// record up to the failing step is written, then the failure, and the dirty flag stays as it was.
// (Every failing disk step of a load, which writes the private copy, is in
// fault_injection_test.cpp.)
TEST_F(PersistenceTest, EmbeddedSaveWithoutAReadableCopy) {
    const Bytes fields = kV1 + Str("") + kEmbedTrue + Str("pw");
    const Bytes record = fields + U32(6000) + Raw(std::string(6000, 'q'));
    struct Case {
        const char* name;
        Bytes load;
        bool dirty;        // InitNew before the save
        int failing_read;  // of the private copy; 0: none
        bool remove_copy;
        HResult result;
        std::size_t written;
    } cases[] = {
        {"first read of the copy fails", record, false, 1, false,
         hr::FromWin32(fs::kErrorReadFault), fields.size() + 4},
        {"second read of the copy fails", record, false, 2, false,
         hr::FromWin32(fs::kErrorReadFault), fields.size() + 4 + 4096},
        {"copy deleted", record, true, 0, true, hr::FromWin32(fs::kErrorFileNotFound),
         fields.size()},
        // A load that failed inside the content leaves the flag without a copy.
        {"copy never made", fields + HexBytes("03"), true, 0, false, hr::kUnexpected,
         fields.size()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        EXPECT_EQ(LoadBytes(object, c.load), c.load == record ? hr::kOk : hr::kFail);
        if (c.dirty) {
            ASSERT_EQ(object.InitNew(), hr::kOk);
        }
        if (c.remove_copy) {
            ASSERT_TRUE(stdfs::remove(ToPath(*object.PdfFilePath())));
        }
        int seen = 0;
        fs::SetFaultHook([&](fs::FileOp op, const stdfs::path&) {
            return op == fs::FileOp::Read && ++seen == c.failing_read ? fs::kErrorReadFault : 0;
        });
        MemoryByteStream stream;
        EXPECT_EQ(object.Save(stream, true), c.result);
        fs::SetFaultHook(nullptr);
        EXPECT_EQ(stream.Bytes(), Bytes(record.begin(), record.begin() + c.written));
        EXPECT_EQ(object.IsDirty(), c.dirty ? hr::kOk : hr::kFalse);
    }
}

TEST_F(PersistenceTest, DirtyFlagAndSizeHint) {
    CZPdfContentObject object;
    EXPECT_EQ(object.IsDirty(), hr::kOk) << "a new object is dirty";
    EXPECT_EQ(object.InitNew(), hr::kOk);
    EXPECT_EQ(object.IsDirty(), hr::kOk);
    EXPECT_EQ(object.GetSizeMax(nullptr), hr::kPointer);
    std::uint64_t size = 0;
    EXPECT_EQ(object.GetSizeMax(&size), hr::kOk);
    EXPECT_EQ(size, 4u) << "only the version has a fixed size";

    MemoryByteStream stream;
    ASSERT_EQ(object.Save(stream, true), hr::kOk);
    EXPECT_EQ(object.IsDirty(), hr::kFalse);
    // InitNew marks the object dirty without touching what it holds.
    ASSERT_EQ(LoadBytes(object, kV1 + Str("kept.pdf") + kEmbedFalse + Str("pw")), hr::kOk);
    EXPECT_EQ(object.InitNew(), hr::kOk);
    EXPECT_EQ(object.IsDirty(), hr::kOk);
    ExpectState(object, {u"kept.pdf", 0, u"pw"});
}

TEST(MemoryByteStream, SeeksLikeAHostStream) {
    MemoryByteStream stream(Bytes{1, 2, 3, 4});
    std::uint64_t position = 99;
    EXPECT_EQ(stream.Seek(-1, SeekOrigin::End, &position), hr::kOk);
    EXPECT_EQ(position, 3u);
    std::uint8_t buffer[4] = {};
    std::size_t got = 9;
    EXPECT_EQ(stream.Read(buffer, 4, &got), hr::kOk) << "a short read still succeeds";
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(buffer[0], 4);
    EXPECT_EQ(stream.Read(buffer, 4, &got), hr::kOk);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(stream.Seek(-5, SeekOrigin::Current, &position), hr::kStgInvalidFunction);
    EXPECT_EQ(stream.Position(), 4u) << "a refused seek does not move";
    // Writing after a gap fills it with zeros.
    ASSERT_EQ(stream.Seek(6, SeekOrigin::Begin, nullptr), hr::kOk);
    ASSERT_EQ(stream.Write("\x09", 1), hr::kOk);
    EXPECT_EQ(stream.Bytes(), (Bytes{1, 2, 3, 4, 0, 0, 9}));
    EXPECT_EQ(stream.Seek(0, static_cast<SeekOrigin>(7), nullptr), hr::kStgInvalidFunction);
}

}  // namespace
}  // namespace zpdf
