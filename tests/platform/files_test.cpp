// The one road of written files, on real files, links, modes and folders: what the replaced
// file keeps, what the side file never touches, and what happens when two writers meet.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "platform/cleanup_registry.h"
#include "platform/files.h"
#include "platform/text.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

namespace stdfs = std::filesystem;
using Path = stdfs::path;

// Writes `bytes` over `target` through the road; the error, 0 on success.
int Replace(const Path& target, const std::string& bytes, std::string* problem = nullptr) {
    fs::FileReplacement file(target);
    int error = file.Open();
    if (error == 0) error = file.Write(bytes.data(), bytes.size());
    if (error == 0) error = file.Commit();
    if (problem != nullptr) *problem = file.Problem();
    return error;
}

// Everything in `dir`, by name, sorted.
std::vector<std::string> Entries(const Path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : stdfs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

struct stat Stat(const Path& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st;
}

// What lies around the target before the write (`prepare` returns the name written to), the
// folder's entries afterwards, and what else must hold. A refusal (`error` not 0) leaves the
// entries as they were and says what failed, `problem` among it, in one line.
struct ReplaceCase {
    const char* name;
    std::function<Path(const Path& dir)> prepare;
    std::vector<std::string> entries;
    std::function<void(const Path& dir, const Path& target)> check = [](auto&, auto&) {};
    int error = 0;
    const char* problem = "";
};

TEST(Files, ReplaceChangesTheContentAndNothingElse) {
    const ReplaceCase cases[] = {
        {"new file takes the usual mode",
         [](const Path& dir) { return dir / "new.pdf"; },
         {"new.pdf"},
         [](const Path&, const Path& target) {
             const mode_t mask = ::umask(0);
             ::umask(mask);
             EXPECT_EQ(Stat(target).st_mode & 07777, 0666 & ~mask);
         }},
        {"mode, owner, group and extended attributes are kept",
         [](const Path& dir) {
             test::WriteBytes(dir / "doc.pdf", "old");
             EXPECT_EQ(::chmod((dir / "doc.pdf").c_str(), 0640), 0);
             // Another user's file, as only the superuser can make it; others keep their own.
             if (::geteuid() == 0) {
                 EXPECT_EQ(::chown((dir / "doc.pdf").c_str(), 4321, 8765), 0);
             }
             if (::setxattr((dir / "doc.pdf").c_str(), "user.origin", "scanner", 7, 0) != 0)
                 test::WriteBytes(dir / "no-xattr", "");  // this file system keeps none
             return dir / "doc.pdf";
         },
         {"doc.pdf"},
         [](const Path& dir, const Path& target) {
             const struct stat st = Stat(target);
             EXPECT_EQ(st.st_mode & 07777, 0640u);
             EXPECT_EQ(st.st_uid, ::geteuid() == 0 ? 4321u : ::geteuid());
             EXPECT_EQ(st.st_gid, ::geteuid() == 0 ? 8765u : ::getegid());
             if (stdfs::remove(dir / "no-xattr")) return;
             char value[32] = {};
             ASSERT_EQ(::getxattr(target.c_str(), "user.origin", value, sizeof value), 7);
             EXPECT_EQ(std::string(value, 7), "scanner");
         }},
        {"links are followed to the end and stay links",
         [](const Path& dir) {
             stdfs::create_directory(dir / "real");
             test::WriteBytes(dir / "real" / "doc.pdf", "old");
             stdfs::create_symlink("real/doc.pdf", dir / "one");
             stdfs::create_symlink(dir / "one", dir / "two");
             return dir / "two";
         },
         {"one", "real", "two"},
         [](const Path& dir, const Path& target) {
             EXPECT_EQ(stdfs::read_symlink(target), dir / "one");
             EXPECT_EQ(stdfs::read_symlink(dir / "one"), "real/doc.pdf");
             EXPECT_EQ(Entries(dir / "real"), std::vector<std::string>{"doc.pdf"});
         }},
        {"name of the longest length",
         [](const Path& dir) { return dir / (std::string(250, 'n') + ".pdf"); },
         {std::string(250, 'n') + ".pdf"}},
        {"target is a folder",
         [](const Path& dir) {
             stdfs::create_directory(dir / "folder");
             return dir / "folder";
         },
         {"folder"},
         {},
         fs::kErrorAccessDenied,
         "not a file"},
        {"link loop",
         [](const Path& dir) {
             stdfs::create_symlink("b", dir / "a");
             stdfs::create_symlink("a", dir / "b");
             return dir / "a";
         },
         {"a", "b"},
         {},
         fs::kErrorGenFailure,
         "Cannot create"},
    };
    const int registered = fs::RegisteredFileCount();
    for (const ReplaceCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Path dir = test::ScratchDir();
        const Path target = c.prepare(dir);
        std::string problem;
        EXPECT_EQ(Replace(target, "new", &problem), c.error) << problem;
        if (c.error == 0) {
            EXPECT_EQ(test::ReadBytes(target), "new");
            c.check(dir, target);
        } else {
            EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
            EXPECT_EQ(problem.find('\n'), std::string::npos);
        }
        EXPECT_EQ(Entries(dir), c.entries);
        EXPECT_EQ(fs::RegisteredFileCount(), registered);
    }
}

// Two writers of one file in one process: the second cannot start while the first writes, and
// a writer whose file was replaced or created under it fails at the move instead of winning.
// A writer that has not finished its data cannot move it.
TEST(Files, TwoWritersNeverBothSucceed) {
    const Path dir = test::ScratchDir();
    const Path target = dir / "doc.pdf";
    test::WriteBytes(target, "old");

    fs::FileReplacement first(target);
    ASSERT_EQ(first.Open(), 0);
    fs::FileReplacement second(target);
    EXPECT_EQ(second.Open(), fs::kErrorSharingViolation);
    EXPECT_NE(second.Problem().find("another writer"), std::string::npos) << second.Problem();
    ASSERT_EQ(first.Write("one", 3), 0);
    ASSERT_EQ(first.Commit(), 0);

    // Read before the first writer's save, written after it.
    fs::FileIdentity read_from;
    ASSERT_TRUE(fs::IdentifyFile(target, &read_from));
    ASSERT_EQ(Replace(target, "two"), 0);
    fs::FileReplacement late(target);
    late.ExpectVersion(read_from);
    EXPECT_EQ(late.Open(), fs::kErrorSharingViolation);
    EXPECT_EQ(test::ReadBytes(target), "two");

    // Changed in place, by a writer that takes no lock, between open and move.
    fs::FileReplacement third(target);
    ASSERT_EQ(third.Open(), 0);
    ASSERT_EQ(third.Write("three", 5), 0);
    // A side file still being written never takes the target's place.
    EXPECT_EQ(third.Replace(), fs::kErrorGenFailure);
    EXPECT_EQ(test::ReadBytes(target), "two");
    ASSERT_EQ(third.FinishData(), 0);
    test::WriteBytes(target, "outside");
    EXPECT_EQ(third.Replace(), fs::kErrorSharingViolation);
    EXPECT_EQ(test::ReadBytes(target), "outside");

    // Both start on a missing file; the one that comes second to the move fails.
    const Path fresh = dir / "fresh.pdf";
    fs::FileReplacement a(fresh), b(fresh);
    ASSERT_EQ(a.Open(), 0);
    ASSERT_EQ(b.Open(), 0);
    ASSERT_EQ(a.Write("a", 1), 0);
    ASSERT_EQ(b.Write("b", 1), 0);
    ASSERT_EQ(b.Commit(), 0);
    EXPECT_EQ(a.Commit(), fs::kErrorSharingViolation);
    EXPECT_NE(a.Problem().find("created it meanwhile"), std::string::npos) << a.Problem();
    EXPECT_EQ(test::ReadBytes(fresh), "b");
}

// Whatever stands at the side file's randomly chosen name (here a link to a user's file) is
// never opened, followed or removed: the writer picks another name, and gives up when every name
// it tries is taken. Links are put at the first `collisions` names the writer chooses (-1: all).
TEST(Files, EntriesAtTheChosenSideNamesAreLeftAlone) {
    for (const int collisions : {3, -1}) {
        SCOPED_TRACE(collisions);
        const Path dir = test::ScratchDir() / std::to_string(collisions);
        stdfs::create_directories(dir);
        test::WriteBytes(dir / "victim", "victim");
        test::WriteBytes(dir / "doc.pdf", "old");
        int planted = 0;
        fs::SetFaultHook([&](fs::FileOp op, const Path& path) {
            if (op == fs::FileOp::Create && (collisions < 0 || planted < collisions)) {
                stdfs::create_symlink(dir / "victim", path);
                ++planted;
            }
            return 0;
        });
        std::string problem;
        const int error = Replace(dir / "doc.pdf", "new", &problem);
        fs::SetFaultHook(nullptr);
        EXPECT_EQ(error, collisions < 0 ? fs::kErrorFileExists : 0) << problem;
        EXPECT_EQ(test::ReadBytes(dir / "doc.pdf"), collisions < 0 ? "old" : "new");
        EXPECT_EQ(test::ReadBytes(dir / "victim"), "victim");
        // The two files and every planted link, nothing of the writer's own.
        ASSERT_GE(planted, 3);
        EXPECT_EQ(Entries(dir).size(), 2u + planted);
    }
}

// Files on the list are removed by the handler's call, and only those.
TEST(Files, RegisteredFilesAreRemovedOnRequest) {
    const int registered = fs::RegisteredFileCount();
    const Path dir = test::ScratchDir();
    for (const char* name : {"side", "copy", "kept"}) test::WriteBytes(dir / name, name);
    ASSERT_TRUE(fs::RegisterForCleanup(dir / "side"));
    ASSERT_TRUE(fs::RegisterForCleanup(dir / "copy"));
    ASSERT_TRUE(fs::RegisterForCleanup(dir / "kept"));
    fs::UnregisterCleanup(dir / "kept");
    EXPECT_EQ(fs::RegisteredFileCount(), registered + 2);
    fs::RemoveRegisteredFiles();
    EXPECT_EQ(Entries(dir), std::vector<std::string>{"kept"});
    fs::RemoveQuietly(dir / "side");  // what the owners do afterwards
    fs::RemoveQuietly(dir / "copy");
    EXPECT_EQ(fs::RegisteredFileCount(), registered);

    // A private copy is on the list while it exists; a source that cannot be read makes none.
    Path copy;
    ASSERT_EQ(fs::MakeTempCopy(dir / "kept", &copy), 0);
    EXPECT_EQ(fs::RegisteredFileCount(), registered + 1);
    fs::RemoveQuietly(copy);
    // The system's own reason is passed on: below a file is no path at all.
    EXPECT_EQ(fs::MakeTempCopy(dir / "kept" / "inner.bin", &copy), fs::kErrorPathNotFound);
    EXPECT_EQ(fs::RegisteredFileCount(), registered);
    EXPECT_FALSE(fs::FileExists(dir)) << "a folder is not a file";
}

// Any byte sequence is a name: it survives the trip through the interface's UTF-16 strings.
TEST(Text, NamesThatAreNotUtf8SurviveUtf16) {
    const std::string names[] = {
        "gr\xC3\xBC\xC3\x9F.pdf",  // valid UTF-8
        "latin1-\xE9.pdf",
        "\xFF\xFE",               // invalid bytes
        "over\xC0\x80long",       // an overlong NUL
        "sur\xED\xB2\x80rogate",  // an encoded low surrogate
        "cut\xE2\x82",            // a sequence that ends early
        "\xF4\x90\x80\x80",       // past the last code point
        "emoji\xF0\x9F\x98\x80",
    };
    for (const std::string& name : names) {
        EXPECT_EQ(ToPath(FromPath(Path(name))).native(), name) << name;
        EXPECT_EQ(ToPath(FromAnsi(name)).native(), name) << name;
    }
    // Valid text is plain UTF-16, without escapes.
    EXPECT_EQ(BytesToUtf16("gr\xC3\xBC\xC3\x9F"), u"gr\u00fc\u00df");
    EXPECT_EQ(BytesToUtf16("a\xFF"), std::u16string(u"a") + char16_t(0xDCFF));
}

}  // namespace
}  // namespace zpdf
