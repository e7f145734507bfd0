// Damaged and malformed inputs that other readers open must not come out worse: a page tree
// whose root is a page keeps its page through every operation, and an encrypted file the engine
// had to repair is written with encryption that opens with the same password, checked by qpdf.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "core/open_object.h"
#include "platform/raster.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

// ---- A page tree whose root is a page ----

const std::string kFont = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>";
const std::string kText = PdfStream("", "BT /F1 20 Tf 30 100 Td (Lonely page) Tj ET");

// What a document goes through, with a one-page letterhead; `into_head`: the letterhead's
// document is the result.
struct Operation {
    const char* name;
    std::function<HResult(Obj& doc, Obj& head)> run;
    bool into_head = false;
};
const Operation kOperations[] = {
    {"stamp",
     [](Obj& doc, Obj& head) {
         std::vector<std::uint32_t> ids;
         const HResult imported = doc.ImportContent(&head, &ids);
         return imported != hr::kOk ? imported : doc.PlaceContent(ids.at(0), 1, 0, 0, 1, 1, 0);
     }},
    {"append to it", [](Obj& doc, Obj& head) { return doc.AppendPages(&head); }},
    {"append it", [](Obj& doc, Obj& head) { return head.AppendPages(&doc); }, true},
};

// Pages other readers find where the catalog's /Pages is the one page of the document, or
// where the last trailer of a file whose table must be rebuilt names as its catalog an object
// that is none, while the file's own catalog is still there. And changes that survive the
// rebuild of a table whose font entry is wrong: drawing after the change reads the font, and
// the engine then read everything from the file again, changes lost, until the table was
// checked, and rebuilt if need be, before the first change.
TEST(DamagedInput, PagesOthersFindAreKeptThroughEveryOperation) {
    const Path dir = ScratchDir();
    const struct Case {
        const char* name;
        std::vector<std::string> objects;
        int root = 1;
        std::string update = "";  // added at the end of the file
        int misplaced = 0;        // the object whose table entry is wrong
    } cases[] = {
        {"typed /Page",
         {"<< /Type /Catalog /Pages 2 0 R >>",
          "<< /Type /Page /MediaBox [0 0 300 200] /Contents 3 0 R /Resources << /Font << /F1 4 0 R "
          ">> >> >>",
          kText, kFont}},
        {"last trailer naming the information as the catalog",
         {"<< /Producer (Old) >>", "<< /Type /Catalog /Pages 3 0 R >>",
          "<< /Type /Pages /Kids [4 0 R] /Count 1 >>",
          "<< /Type /Page /Parent 3 0 R /MediaBox [0 0 300 200] /Contents 5 0 R "
          "/Resources << /Font << /F1 6 0 R >> >> >>",
          kText, kFont},
         2,
         "trailer\n<< /Size 7 /Root 1 0 R >>\nstartxref\n9\n%%EOF\n"},
        {"font not where the table says",
         {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
          "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 300 200] /Contents 4 0 R "
          "/Resources << /Font << /F1 5 0 R >> >> >>",
          kText, kFont},
         1,
         "",
         5},
    };
    const Path letterhead = dir / "letterhead.pdf";
    WriteBytes(letterhead, LabelledBytes({"Head"}, 300, 200));
    // Per operation: the result's pages and their texts, by pdftotext.
    const std::vector<std::string> results[] = {
        {"HeadLonely page"}, {"Lonely page", "Head"}, {"Head", "Lonely page"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Path file = dir / "root-page.pdf";
        WriteBytes(file, PdfFile(c.objects, -1, c.misplaced, c.root) + c.update);
        for (std::size_t i = 0; i < std::size(kOperations); ++i) {
            const Operation& op = kOperations[i];
            SCOPED_TRACE(op.name);
            Obj doc, head;
            OpenQuietly(doc, file);
            OpenQuietly(head, letterhead);
            EXPECT_EQ(Pages(doc), 1);
            ASSERT_EQ(Quiet([&] { return op.run(doc, head); }), hr::kOk) << doc.LastErrorText();
            RasterDeviceContext dc(300, 200);
            EXPECT_EQ(Quiet([&] { return doc.DrawPageToDC(dc, 1, 0, 0, 300, 200, 0, 0, 0, 0, 0); }),
                      hr::kOk);
            const Path out = dir / "out.pdf";
            std::filesystem::remove(out);
            ASSERT_EQ(Quiet([&] { return (op.into_head ? head : doc).SaveTo(out); }), hr::kOk);
            EXPECT_EQ(PdfPageTexts(out), results[i]);
        }
    }
}

// ---- Encryption kept through a repair ----

// qpdf's options for each encryption the writer can keep, and the revision it reports.
struct Encryption {
    const char* name;
    const char* options;
    const char* revision;
};
const Encryption kEncryptions[] = {
    {"RC4 40", "--allow-weak-crypto --encrypt user owner 40 --", "R = 2"},
    {"AES-256", "--encrypt user owner 256 --", "R = 6"},
};

// The ways the engine comes to rebuild a file's table: at opening, before the document's
// security is read (the table cannot be found), or later, once it is (an object is not where
// its entry says).
enum class Damage { kNone, kStartxref, kMisplacedObject };

std::string Damaged(std::string bytes, Damage damage) {
    if (damage == Damage::kStartxref) {
        const auto at = bytes.rfind("startxref\n");
        return bytes.substr(0, at) + "startxref\n17\n%%EOF\n";
    }
    if (damage == Damage::kMisplacedObject) {
        // The entry of object 3, a page's contents in these files, points 5 bytes early.
        const auto table = bytes.rfind("\nxref\n");
        const auto entry = bytes.find('\n', table + 6) + 1 + 3 * 20;
        const long offset = std::stol(bytes.substr(entry, 10));
        char moved[24];
        std::snprintf(moved, sizeof moved, "%010ld", offset - 5);
        bytes.replace(entry, 10, std::string(moved).substr(0, 10));
    }
    return bytes;
}

TEST(DamagedInput, KeptEncryptionOpensWithTheSamePasswordAfterARepair) {
    const Path dir = ScratchDir();
    const Path plain = LabelledPdf(dir / "plain.pdf", Labels("Sheet ", 3));
    for (const Encryption& encryption : kEncryptions) {
        const Path intact = dir / "encrypted.pdf";
        const auto made = test::Run(std::string("qpdf ") + encryption.options + " " + Quote(plain) +
                                    " " + Quote(intact));
        ASSERT_EQ(made.exit_code, 0) << made.output;
        for (Damage damage : {Damage::kNone, Damage::kStartxref, Damage::kMisplacedObject}) {
            SCOPED_TRACE(std::string(encryption.name) + ", damage " +
                         std::to_string(static_cast<int>(damage)));
            const Path source = dir / "source.pdf", out = dir / "out.pdf";
            WriteBytes(source, Damaged(ReadBytes(intact), damage));
            std::filesystem::remove(out);
            Obj doc;
            OpenQuietly(doc, source, u"user");
            ASSERT_EQ(Quiet([&] { return doc.SaveTo(out); }), hr::kOk) << doc.LastErrorText();
            const std::string shown = ShowEncryption(out, "user");
            EXPECT_NE(shown.find("Supplied password is user password"), std::string::npos) << shown;
            EXPECT_NE(shown.find(encryption.revision), std::string::npos) << shown;
        }
    }
}

}  // namespace
}  // namespace zpdf
