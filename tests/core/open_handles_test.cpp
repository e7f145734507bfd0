// File handles: a content object holds its document's file while the document is open, and
// every road that closes the documents (the failing ones too) gives every handle back.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/files.h"
#include "platform/raster.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;

// Open descriptors of this process (the listing's own one included, every time alike).
int OpenDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : stdfs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

stdfs::path Sample(const stdfs::path& path, int pages) {
    std::vector<samples::SamplePage> list(static_cast<std::size_t>(pages));
    for (int i = 0; i < pages; ++i) {
        list[static_cast<std::size_t>(i)].content =
            samples::TextContent({"Page " + std::to_string(i + 1), "@@nd@@"}, 842) +
            samples::FilledRect(100, 100, 200, 200);
    }
    EXPECT_TRUE(samples::WriteFile(path, samples::BuildPdf(list)));
    return path;
}

struct Files {
    stdfs::path dir;
    stdfs::path document;   // three pages, each with a split marker
    stdfs::path extra;      // one page
    stdfs::path encrypted;  // passwords "user" and "owner"
};

// What one case works with; every case starts from fresh copies.
struct Job {
    Job(const Files& all, const stdfs::path& dir)
        : files(all), document(dir / "document.pdf"), encrypted(dir / "encrypted.pdf") {}
    const Files& files;
    stdfs::path document;
    stdfs::path encrypted;
    std::unique_ptr<CZPdfContentObject> object = std::make_unique<CZPdfContentObject>();
    CZPdfContentObject extra;
};

void Open(CZPdfContentObject& object, const stdfs::path& file, const OptionalText& password) {
    ASSERT_EQ(object.SetPdfDocument(FromPath(file), 0, password), hr::kOk);
    std::int32_t pages = 0;
    ASSERT_EQ(object.PageCount(&pages), hr::kOk) << object.LastErrorText();
}

void Draw(CZPdfContentObject& object) {
    RasterDeviceContext dc(100, 140);
    ASSERT_EQ(object.DrawPageToDC(dc, 1, 0, 0, 100, 140, 0, 0, 0, 0, 0), hr::kOk)
        << object.LastErrorText();
    double width = 0;
    double height = 0;
    ASSERT_EQ(object.GetPageSize(2, &width, &height), hr::kOk);
}

// Makes the next save fail at the first step of kind `op`.
void FailNext(fs::FileOp op) {
    fs::SetFaultHook(
        [op](fs::FileOp seen, const stdfs::path&) { return seen == op ? fs::kErrorDiskFull : 0; });
}

class OpenHandlesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        files_.dir = test::ScratchDir();
        files_.document = Sample(files_.dir / "document.pdf", 3);
        files_.extra = Sample(files_.dir / "extra.pdf", 1);
        files_.encrypted =
            test::QpdfEncrypt(files_.document, files_.dir / "encrypted.pdf", "user", "owner", 256);
    }
    void TearDown() override { fs::SetFaultHook(nullptr); }
    Files files_;
};

TEST_F(OpenHandlesTest, EveryRoadThatClosesGivesTheHandlesBack) {
    struct Case {
        const char* name;
        std::function<void(Job&)> open;  // leaves documents open
        int held;                        // handles held while they are open; -1: not checked
        std::function<void(Job&)> close;
    } cases[] = {
        {"page count, drawing, CloseDocuments",
         [](Job& job) {
             Open(*job.object, job.document, u"");
             Draw(*job.object);
         },
         1, [](Job& job) { job.object->CloseDocuments(); }},
        {"Save",
         [](Job& job) {
             Open(*job.object, job.document, u"");
             Draw(*job.object);
         },
         1, [](Job& job) { ASSERT_EQ(job.object->Save(), hr::kOk); }},
        // The appended pages are read from a private copy of the source until the save.
        {"appended pages, Save, CloseDocuments of the source",
         [](Job& job) {
             Open(*job.object, job.document, u"");
             Open(job.extra, job.files.extra, u"");
             ASSERT_EQ(job.object->AppendPages(&job.extra), hr::kOk);
         },
         3,
         [](Job& job) {
             ASSERT_EQ(job.object->Save(), hr::kOk);
             job.extra.CloseDocuments();
         }},
        {"SaveWithSecurity", [](Job& job) { Open(*job.object, job.encrypted, u"user"); }, 1,
         [](Job& job) { ASSERT_EQ(job.object->SaveWithSecurity(u"u", u"o"), hr::kOk); }},
        {"Save failing at a write, CloseDocuments",
         [](Job& job) { Open(*job.object, job.document, u""); }, 1,
         [](Job& job) {
             FailNext(fs::FileOp::Write);
             EXPECT_EQ(job.object->Save(), hr::kFail);
             fs::SetFaultHook(nullptr);
             job.object->CloseDocuments();
         }},
        {"Save failing at the move", [](Job& job) { Open(*job.object, job.document, u""); }, 1,
         [](Job& job) {
             FailNext(fs::FileOp::Move);
             EXPECT_EQ(job.object->Save(), hr::kFail);
             fs::SetFaultHook(nullptr);
         }},
        {"wrong password, CloseDocuments",
         [](Job& job) {
             ASSERT_EQ(job.object->SetPdfDocument(FromPath(job.encrypted), 0, u"wrong"), hr::kOk);
             std::int32_t pages = 0;
             EXPECT_EQ(job.object->PageCount(&pages), hr::kUnexpected);
         },
         -1, [](Job& job) { job.object->CloseDocuments(); }},
        {"another document set", [](Job& job) { Open(*job.object, job.document, u""); }, 1,
         [](Job& job) {
             ASSERT_EQ(job.object->SetPdfDocument(FromPath(job.files.extra), 0, u""), hr::kOk);
         }},
        {"the object destroyed",
         [](Job& job) {
             Open(*job.object, job.document, u"");
             Draw(*job.object);
         },
         1, [](Job& job) { job.object.reset(); }},
        {"SplitPdf", [](Job&) {}, 0,
         [](Job& job) {
             std::int32_t parts = 0;
             ASSERT_EQ(job.object->SplitPdf(FromPath(job.document),
                                            FromPath(job.files.dir / "part"), &parts),
                       hr::kOk);
             EXPECT_EQ(parts, 3);
         }},
        {"SplitPdf failing at a write", [](Job&) {}, 0,
         [](Job& job) {
             std::int32_t parts = 0;
             FailNext(fs::FileOp::Write);
             EXPECT_EQ(job.object->SplitPdf(FromPath(job.document),
                                            FromPath(job.files.dir / "failing"), &parts),
                       hr::FromWin32(fs::kErrorDiskFull));
             fs::SetFaultHook(nullptr);
         }},
    };

    // Whatever the engine opens once per process (and keeps) is opened before counting.
    {
        CZPdfContentObject warm_up;
        ::testing::internal::CaptureStderr();
        Open(warm_up, files_.document, u"");
        Draw(warm_up);
        ::testing::internal::GetCapturedStderr();
    }

    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const stdfs::path dir = files_.dir / std::to_string(++n);
        stdfs::create_directories(dir);
        Job job(files_, dir);
        stdfs::copy_file(files_.document, job.document);
        stdfs::copy_file(files_.encrypted, job.encrypted);

        ::testing::internal::CaptureStderr();
        const int before = OpenDescriptors();
        c.open(job);
        if (c.held >= 0) {
            EXPECT_EQ(OpenDescriptors(), before + c.held) << "while open";
        }
        c.close(job);
        EXPECT_EQ(OpenDescriptors(), before) << "after closing";
        ::testing::internal::GetCapturedStderr();
    }
}

}  // namespace
}  // namespace zpdf
