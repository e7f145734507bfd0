// File handles: a content object holds its document's file while the document is open, and
// every road that closes the documents (the failing ones too) gives every handle back.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "core/open_object.h"
#include "platform/files.h"
#include "platform/raster.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using namespace test;  // NOLINT: the helpers of these tests

// Open descriptors of this process (the listing's own one included, every time alike).
int OpenDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : stdfs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

// Opens `file`, and with `draw` draws and measures it too.
void Open(Obj& object, const Path& file, const OptionalText& password = u"", bool draw = false) {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, password), hr::kOk);
    ASSERT_GT(Pages(object), 0) << object.LastErrorText();
    RasterDeviceContext dc(100, 140);
    if (!draw) return;
    ASSERT_EQ(object.DrawPageToDC(dc, 1, 0, 0, 100, 140, 0, 0, 0, 0, 0), hr::kOk);
    ASSERT_EQ(PageSize(object, 2), Size(595, 842));
}

// `call` with the first step of kind `op` failing.
HResult Failing(fs::FileOp op, const std::function<HResult()>& call) {
    fs::SetFaultHook(
        [op](fs::FileOp seen, const stdfs::path&) { return seen == op ? fs::kErrorDiskFull : 0; });
    const HResult result = call();
    fs::SetFaultHook(nullptr);
    return result;
}

TEST(OpenHandles, EveryRoadThatClosesGivesTheHandlesBack) {
    // Three pages that each end a part for the split, that document encrypted, and one page.
    const Path dir = ScratchDir();
    const Path document =
        LabelledPdf(dir / "document.pdf", {"one @@nd@@", "two @@nd@@", "three @@nd@@"});
    const Path extra = LabelledPdf(dir / "extra.pdf", {"extra"});
    const Path encrypted = QpdfEncrypt(document, dir / "encrypted.pdf", "user", "owner", 256);
    std::unique_ptr<Obj> object;
    Obj source;
    std::int32_t parts = 0;
    const auto split = [&] {
        return object->SplitPdf(FromPath(document), FromPath(dir / "part"), &parts);
    };
    const struct {
        const char* name;
        std::function<void()> open;  // leaves documents open
        int held;                    // handles held while they are open; -1: not checked
        std::function<void()> close;
    } cases[] = {
        {"drawn, CloseDocuments", [&] { Open(*object, document, u"", true); }, 1,
         [&] { object->CloseDocuments(); }},
        {"drawn, Save", [&] { Open(*object, document, u"", true); }, 1,
         [&] { ASSERT_EQ(object->Save(), hr::kOk); }},
        // The appended pages are read from a private copy of the source until the save.
        {"appended pages, Save, CloseDocuments of the source",
         [&] {
             Open(*object, document);
             Open(source, extra);
             ASSERT_EQ(object->AppendPages(&source), hr::kOk);
         },
         3,
         [&] {
             ASSERT_EQ(object->Save(), hr::kOk);
             source.CloseDocuments();
         }},
        {"SaveWithSecurity", [&] { Open(*object, encrypted, u"user"); }, 1,
         [&] { ASSERT_EQ(object->SaveWithSecurity(u"user", u"owner"), hr::kOk); }},
        {"Save failing at a write, CloseDocuments", [&] { Open(*object, document); }, 1,
         [&] {
             EXPECT_EQ(Failing(fs::FileOp::Write, [&] { return object->Save(); }), hr::kFail);
             object->CloseDocuments();
         }},
        {"Save failing at the move", [&] { Open(*object, document); }, 1,
         [&] { EXPECT_EQ(Failing(fs::FileOp::Move, [&] { return object->Save(); }), hr::kFail); }},
        {"wrong password, CloseDocuments",
         [&] {
             ASSERT_EQ(object->SetPdfDocument(FromPath(encrypted), 0, u"wrong"), hr::kOk);
             EXPECT_EQ(Pages(*object), -1);
         },
         -1, [&] { object->CloseDocuments(); }},
        {"another document set", [&] { Open(*object, document); }, 1,
         [&] { ASSERT_EQ(object->SetPdfDocument(FromPath(extra), 0, u""), hr::kOk); }},
        {"the object destroyed", [&] { Open(*object, document, u"", true); }, 1,
         [&] { object.reset(); }},
        {"SplitPdf", [] {}, 0, [&] { ASSERT_EQ(split(), hr::kOk); }},
        {"SplitPdf failing at a write", [] {}, 0,
         [&] { EXPECT_EQ(Failing(fs::FileOp::Write, split), hr::FromWin32(fs::kErrorDiskFull)); }},
    };

    ::testing::internal::CaptureStderr();
    // Whatever the engine opens once per process (and keeps) is opened before counting.
    object = std::make_unique<Obj>();
    Open(*object, document, u"", true);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        object = std::make_unique<Obj>();
        const int before = OpenDescriptors();
        c.open();
        EXPECT_TRUE(c.held < 0 || OpenDescriptors() == before + c.held) << "while open";
        c.close();
        EXPECT_EQ(OpenDescriptors(), before) << "after closing";
    }
    object.reset();
    ::testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace zpdf
