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
    const auto save = [&] { return object->Save(); };
    const auto close = [&](HResult result) { return object->CloseDocuments(), result; };
    // `open` leaves documents open, holding `held` handles (-1: not checked); `close` closes
    // them and gives `result`.
    const struct {
        const char* name;
        std::function<void()> open;
        int held;
        std::function<HResult()> close;
        HResult result = hr::kOk;
    } cases[] = {
        {"drawn, CloseDocuments", [&] { Open(*object, document, u"", true); }, 1,
         [&] { return close(hr::kOk); }},
        {"drawn, Save", [&] { Open(*object, document, u"", true); }, 1, save},
        // The appended pages are read from a private copy of the source until the save.
        {"appended pages, Save, CloseDocuments of the source",
         [&] {
             Open(*object, document);
             Open(source, extra);
             ASSERT_EQ(object->AppendPages(&source), hr::kOk);
         },
         3, [&] { return save() == hr::kOk ? (source.CloseDocuments(), hr::kOk) : hr::kFail; }},
        {"SaveWithSecurity", [&] { Open(*object, encrypted, u"user"); }, 1,
         [&] { return object->SaveWithSecurity(u"user", u"owner"); }},
        {"Save failing at a write, CloseDocuments", [&] { Open(*object, document); }, 1,
         [&] { return close(Failing(fs::FileOp::Write, save)); }, hr::kFail},
        {"Save failing at the move", [&] { Open(*object, document); }, 1,
         [&] { return Failing(fs::FileOp::Move, save); }, hr::kFail},
        {"wrong password, CloseDocuments",
         [&] {
             ASSERT_EQ(object->SetPdfDocument(FromPath(encrypted), 0, u"wrong"), hr::kOk);
             EXPECT_EQ(Pages(*object), -1);
         },
         -1, [&] { return close(hr::kOk); }},
        {"another document set", [&] { Open(*object, document); }, 1,
         [&] { return object->SetPdfDocument(FromPath(extra), 0, u""); }},
        {"the object destroyed", [&] { Open(*object, document, u"", true); }, 1,
         [&] { return object.reset(), hr::kOk; }},
        {"SplitPdf", [] {}, 0, split},
        {"SplitPdf failing at a write", [] {}, 0, [&] { return Failing(fs::FileOp::Write, split); },
         hr::FromWin32(fs::kErrorDiskFull)},
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
        EXPECT_EQ(c.close(), c.result);
        EXPECT_EQ(OpenDescriptors(), before) << "after closing";
    }
    object.reset();
    ::testing::internal::GetCapturedStderr();
}

}  // namespace
}  // namespace zpdf
