// The content object's stream record: exact bytes in both directions, every refused record,
// embedded documents restored byte for byte, and failing streams and files at every step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
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

// Records as the host stores them, loaded and saved again: the state they give, and the same
// bytes back.
TEST_F(PersistenceTest, RecordsRoundTripByteForByte) {
    struct Case {
        const char* name;
        Bytes record;
        State state;          // the path is not compared for embedded documents
        std::string content;  // of the private copy, for embedded documents
    } cases[] = {
        {"linked",
         {0x01, 0x00, 0x00, 0x00,                                                // version
          0x0C, 0x00, 0x00, 0x00, 'D', 0, '.', 0, 'p', 0, 'd', 0, 'f', 0, 0, 0,  // path
          0x00, 0x00,                                                            // embed
          0x06, 0x00, 0x00, 0x00, 'p', 0, 'w', 0, 0,   0},                       // password
         {u"D.pdf", 0, u"pw"},
         ""},
        {"null strings",
         {0x01, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x00, 0, 0, 0, 0},
         {std::nullopt, 0, std::nullopt},
         ""},
        {"empty strings",
         {0x01, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0x00, 0x00, 0x02, 0, 0, 0, 0, 0},
         {u"", 0, u""},
         ""},
        {"characters beyond ASCII",
         {0x01, 0,    0, 0,                                            //
          0x08, 0,    0, 0, 0xE9, 0x00, 0x3D, 0xD8, 0x00, 0xDE, 0, 0,  // e-acute, a surrogate pair
          0x00, 0x00,                                                  //
          0x04, 0,    0, 0, 0xAC, 0x20, 0,    0},                      // the euro sign
         {u"\u00e9\U0001F600", 0, u"\u20AC"},
         ""},
        {"embedded",
         {0x01, 0,    0, 0, 0x02, 0,   0,   0,   0,  0,  // an empty path
          0xFF, 0xFF,                                    //
          0x00, 0,    0, 0,                              // a null password
          0x05, 0,    0, 0, 'h',  'e', 'l', 'l', 'o'},
         {std::nullopt, -1, std::nullopt},
         "hello"},
        {"embedded with flag 1 and no content",
         {0x01, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0x01, 0x00, 0x02, 0, 0, 0, 0, 0, 0x00, 0, 0, 0},
         {std::nullopt, 1, u""},
         ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, c.record), hr::kOk) << object.LastErrorText();
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        EXPECT_EQ(object.EmbedFlag(), c.state.embed);
        EXPECT_EQ(object.PasswordText(), c.state.password);
        if (c.state.embed == 0) {
            EXPECT_EQ(object.PdfFilePath(), c.state.path);
        } else {
            ASSERT_TRUE(object.HasPath());
            const stdfs::path copy = ToPath(*object.PdfFilePath());
            EXPECT_EQ(copy.parent_path(), tmp_);
            EXPECT_EQ(copy.filename().string().rfind("zpf", 0), 0u) << copy;
            EXPECT_EQ(test::ReadBytes(copy), c.content);
        }
        EXPECT_EQ(SaveBytes(object), c.record);
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
    }
}

TEST_F(PersistenceTest, OlderVersionZeroIsReadAndSavedAsOne) {
    CZPdfContentObject object;
    ASSERT_EQ(LoadBytes(object, U32(0) + Str("a.pdf") + kEmbedFalse + Str("x")), hr::kOk);
    ExpectState(object, {u"a.pdf", 0, u"x"});
    EXPECT_EQ(SaveBytes(object), kV1 + Str("a.pdf") + kEmbedFalse + Str("x"));
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

    std::uint64_t size = 0;
    EXPECT_EQ(first.GetSizeMax(&size), hr::kOk);
    EXPECT_EQ(size, 4u) << "only the version has a fixed size";

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

TEST_F(PersistenceTest, ShortContentEndsTheCopyEarly) {
    CZPdfContentObject object;
    const Bytes record = kV1 + Str("") + kEmbedTrue + kNull + U32(10) + Raw("abc");
    ASSERT_EQ(LoadBytes(object, record), hr::kOk) << object.LastErrorText();
    ASSERT_TRUE(object.HasPath());
    EXPECT_EQ(test::ReadBytes(ToPath(*object.PdfFilePath())), "abc");
    EXPECT_EQ(object.IsDirty(), hr::kFalse);
}

TEST_F(PersistenceTest, EmbeddedWithStoredPathReadsNoContent) {
    // Only a record without a path carries the bytes; what follows belongs to the host.
    const stdfs::path elsewhere = dir_ / "not-there.pdf";
    const Bytes record = kV1 + Str(elsewhere.string()) + kEmbedTrue + Str("pw");
    MemoryByteStream stream(record + U32(3) + Raw("xyz"));
    CZPdfContentObject object;
    ASSERT_EQ(object.Load(stream), hr::kOk);
    EXPECT_EQ(stream.Position(), record.size());
    ExpectState(object, {FromPath(elsewhere), -1, u"pw"});
    EXPECT_EQ(PrivateCopies(), 0u);
}

TEST_F(PersistenceTest, EmbeddedRecordWithPathNeverDeletesThatFile) {
    // A crafted record that claims someone's file as the private copy must not get it deleted.
    const stdfs::path victim = dir_ / "precious.pdf";
    test::WriteBytes(victim, "user data");
    MemoryByteStream stream(kV1 + Str(victim.string()) + kEmbedTrue + Str(""));
    {
        CZPdfContentObject object;
        ASSERT_EQ(object.Load(stream), hr::kOk);
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
    const State kReset{u"", 0, u""};
    struct Case {
        const char* name;
        Bytes record;
        HResult result;
        bool untouched;  // the earlier document is still held
        State state;     // when not untouched
        long position;   // where the stream is left; -1: not checked
    } cases[] = {
        {"empty stream", {}, hr::kFail, true, {}, -1},
        {"version cut short", {0x01, 0x00}, hr::kFail, true, {}, -1},
        {"version 2", U32(2) + Str("a") + kEmbedFalse + kNull, hr::kUnexpected, true, {}, -1},
        {"version 0xFFFFFFFF", U32(0xFFFFFFFF), hr::kUnexpected, true, {}, -1},
        {"path count cut short", kV1 + Bytes{0x05, 0x00}, hr::kFail, false, kReset, 4},
        {"path count 1", kV1 + U32(1) + Bytes{0, 0}, hr::kFail, false, kReset, 4},
        {"path count above the limit", kV1 + over_limit, hr::kAccessDenied, false, kReset, 4},
        {"path text cut short", kV1 + U32(10) + Raw(std::string("a\0b\0", 4)), hr::kFail, false,
         kReset, 4},
        {"path without terminator", kV1 + U32(6) + Raw(std::string("a\0b\0c\0", 6)), hr::kFail,
         false, kReset, 4},
        {"embed flag cut short", kV1 + path_a + Bytes{0x01}, hr::kFail, false, {u"a", 0, u""}, -1},
        {"password count 1",
         kV1 + path_a + kEmbedFalse + U32(1),
         hr::kFail,
         false,
         {u"a", 0, u""},
         14},
        {"password above the limit",
         kV1 + path_a + Bytes{0x01, 0x00} + over_limit,
         hr::kAccessDenied,
         false,
         {u"a", 1, u""},
         14},
        {"password without terminator",
         kV1 + path_a + kEmbedFalse + U32(4) + Raw("pw"),
         hr::kFail,
         false,
         {u"a", 0, u""},
         14},
        {"content length cut short",
         kV1 + Str("") + kEmbedTrue + kNull + Bytes{0x05},
         hr::kFail,
         false,
         {u"", -1, std::nullopt},
         -1},
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
        if (c.untouched) {
            ExpectState(object, before);
            EXPECT_TRUE(stdfs::exists(copy));
        } else {
            ExpectState(object, c.state);
            EXPECT_FALSE(stdfs::exists(copy)) << "the reset deletes the earlier private copy";
        }
        EXPECT_EQ(PrivateCopies(), c.untouched ? 1u : 0u);
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

// A stream whose k-th write fails, for every k: the failure is returned at once with nothing
// written after it, and the object is unchanged, dirty flag included.
TEST_F(PersistenceTest, SaveStopsAtTheFailingWrite) {
    std::string content(10000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
    CZPdfContentObject object;
    ASSERT_EQ(LoadBytes(object, kV1 + Str("") + kEmbedTrue + Str("pw") + U32(10000) + Raw(content)),
              hr::kOk);
    ASSERT_EQ(object.InitNew(), hr::kOk);
    const State before = StateOf(object);

    test::FaultInjectingStream clean;
    ASSERT_EQ(object.Save(clean, false), hr::kOk);
    const Bytes full = clean.Bytes();
    ASSERT_GT(clean.Writes(), 6) << "the content goes in several writes";

    for (int k = 1; k <= clean.Writes(); ++k) {
        SCOPED_TRACE("write " + std::to_string(k));
        test::FaultInjectingStream stream;
        stream.FailWrite(k);
        EXPECT_EQ(object.Save(stream, true), test::kStreamMediumFull);
        EXPECT_EQ(stream.Writes(), k);
        const Bytes& written = stream.Bytes();
        ASSERT_LE(written.size(), full.size());
        EXPECT_TRUE(std::equal(written.begin(), written.end(), full.begin()));
        EXPECT_EQ(object.IsDirty(), hr::kOk);
        ExpectState(object, before);
        EXPECT_EQ(test::ReadBytes(ToPath(*before.path)), content);
    }
}

// A stream whose k-th read fails, for every k: the failure is returned, the first read leaves
// the earlier document in place, every later one leaves the object reset, and no private copy
// is left behind.
TEST_F(PersistenceTest, LoadStopsAtTheFailingRead) {
    const Bytes record =
        kV1 + Str("") + kEmbedTrue + Str("pw") + U32(9000) + Raw(std::string(9000, 'z'));
    const Bytes earlier = kV1 + Str("earlier.pdf") + kEmbedFalse + Str("old");

    test::FaultInjectingStream clean(record);
    {
        CZPdfContentObject object;
        ASSERT_EQ(object.Load(clean), hr::kOk);
    }
    ASSERT_GT(clean.Reads(), 6);
    for (int k = 1; k <= clean.Reads(); ++k) {
        SCOPED_TRACE("read " + std::to_string(k));
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, earlier), hr::kOk);
        test::FaultInjectingStream stream(record);
        stream.FailRead(k);
        EXPECT_EQ(object.Load(stream), test::kStreamReadFault);
        EXPECT_EQ(object.IsDirty(), hr::kFalse);
        if (k == 1) {
            ExpectState(object, {u"earlier.pdf", 0, u"old"});
        } else {
            EXPECT_EQ(object.PdfFilePath(), OptionalText(u""));
        }
        EXPECT_EQ(PrivateCopies(), 0u);
    }
}

// A private copy that cannot be read while the record is saved. (Every failing disk step of a
// load, which writes the private copy, is in fault_injection_test.cpp.)
TEST_F(PersistenceTest, FailingReadOfThePrivateCopy) {
    const Bytes record =
        kV1 + Str("") + kEmbedTrue + kNull + U32(6000) + Raw(std::string(6000, 'q'));
    for (int nth = 1; nth <= 2; ++nth) {
        SCOPED_TRACE("save: read #" + std::to_string(nth));
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, record), hr::kOk);
        int seen = 0;
        fs::SetFaultHook([&](fs::FileOp op, const stdfs::path&) {
            return op == fs::FileOp::Read && ++seen == nth ? fs::kErrorReadFault : 0;
        });
        MemoryByteStream stream;
        EXPECT_EQ(object.Save(stream, true), hr::FromWin32(fs::kErrorReadFault));
        fs::SetFaultHook(nullptr);
        EXPECT_EQ(object.IsDirty(), hr::kFalse) << "left as the load made it";
        EXPECT_EQ(stream.Bytes().size(), 20u + 4096u * static_cast<unsigned>(nth - 1));
    }
}

// Saving an embedded document whose private copy is gone, or was never made: the fields before
// the content are written, then the failure.
TEST_F(PersistenceTest, EmbeddedSaveWithoutItsCopy) {
    const Bytes fields = kV1 + Str("") + kEmbedTrue + Str("pw");
    {
        CZPdfContentObject object;
        ASSERT_EQ(LoadBytes(object, fields + U32(3) + Raw("pdf")), hr::kOk);
        stdfs::remove(ToPath(*object.PdfFilePath()));
        MemoryByteStream stream;
        EXPECT_EQ(object.Save(stream, true), hr::FromWin32(fs::kErrorFileNotFound));
        EXPECT_EQ(stream.Bytes(), fields);
    }
    {
        // A load that failed inside the content leaves the flag without a copy.
        CZPdfContentObject object;
        EXPECT_EQ(LoadBytes(object, fields + Bytes{0x03}), hr::kFail);
        ASSERT_EQ(object.InitNew(), hr::kOk);
        MemoryByteStream stream;
        EXPECT_EQ(object.Save(stream, true), hr::kUnexpected);
        EXPECT_EQ(stream.Bytes(), fields);
        EXPECT_EQ(object.IsDirty(), hr::kOk);
    }
}

TEST_F(PersistenceTest, DirtyFlagAndSizeHint) {
    CZPdfContentObject object;
    EXPECT_EQ(object.IsDirty(), hr::kOk) << "a new object is dirty";
    EXPECT_EQ(object.InitNew(), hr::kOk);
    EXPECT_EQ(object.IsDirty(), hr::kOk);
    EXPECT_EQ(object.GetSizeMax(nullptr), hr::kPointer);

    MemoryByteStream stream;
    ASSERT_EQ(object.Save(stream, true), hr::kOk);
    EXPECT_EQ(object.IsDirty(), hr::kFalse);
    // InitNew marks the object dirty without touching what it holds.
    ASSERT_EQ(LoadBytes(object, kV1 + Str("kept.pdf") + kEmbedFalse + Str("pw")), hr::kOk);
    EXPECT_EQ(object.IsDirty(), hr::kFalse);
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
