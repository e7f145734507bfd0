// Objects on different threads do not interfere: eight threads run the typical job of the corpus
// run at once, twice each, every one on documents of its own, and each job checks its results as
// it goes; afterwards an independent reader finds each thread's own texts and no other's.
// scripts/run-tsan.sh runs this test under ThreadSanitizer, which also reports a data race
// between the threads that the results miss.
#include <gtest/gtest.h>

#include <filesystem>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "core/open_object.h"
#include "tests/corpus/typical_job.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

constexpr int kThreads = 8;
constexpr int kRounds = 2;

// Thread i's label starts every text of its document, whose page count and size differ from the
// other threads'; every other thread's document is encrypted (no user password), so that its
// job secures it again.
std::string Label(int i) {
    return "Thread" + std::to_string(i) + " ";
}
int PageCount(int i) {
    return 2 + i % 3;
}
Path Document(const Path& dir, int i) {
    const Path plain = dir / "plain.pdf";
    WriteBytes(plain,
               LabelledBytes(Labels(Label(i) + "page ", PageCount(i)), 300 + 10 * i, 400 + 20 * i));
    return i % 2 == 0 ? QpdfEncrypt(plain, dir / "encrypted.pdf", "", "owner", 256) : plain;
}

TEST(Concurrency, EightThreadsRunTheTypicalJobAtOnce) {
    const Path root = ScratchDir();
    std::vector<Path> documents;
    for (int i = 0; i < kThreads; ++i) {
        std::filesystem::create_directories(root / Label(i));
        documents.push_back(Document(root / Label(i), i));
    }

    // Standard error is not captured: a sanitizer's report must reach it.
    {
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                for (int round = 0; round < kRounds; ++round) {
                    corpus::JobOptions options;
                    options.document = documents[i];
                    options.work_dir = root / Label(i) / ("round" + std::to_string(round));
                    const corpus::JobReport report = corpus::RunTypicalJob(options);
                    // Every step did its work: none was refused (the job checks each result).
                    EXPECT_TRUE(report.opened && !report.wrong &&
                                report.lines.find(": refused") == std::string::npos)
                        << report.lines;
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }

    for (int i = 0; i < kThreads; ++i) {
        for (int round = 0; round < kRounds; ++round) {
            SCOPED_TRACE(Label(i) + "round " + std::to_string(round));
            // The results, read by pdftotext: the thread's own texts and no other's.
            const Path dir = root / Label(i) / ("round" + std::to_string(round));
            const std::string text = PdfToText(dir / "appended.pdf") +
                                     PdfToText(dir / "stamped.pdf") + PdfToText(dir / "part_2");
            for (int page = 1; page <= PageCount(i); ++page)
                EXPECT_NE(text.find(Label(i) + "page " + std::to_string(page)), std::string::npos)
                    << text;
            for (int other = 0; other < kThreads; ++other)
                EXPECT_TRUE(other == i || text.find(Label(other)) == std::string::npos) << text;
        }
    }
}

}  // namespace
}  // namespace zpdf
