// Pages taken out of a document leave nothing of theirs in the file written next, whichever
// writer writes it, while everything still in use stays.
#include <gtest/gtest.h>

#include <functional>

#include "core/open_object.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

// Every object of `file`, those nothing refers to included, its streams as they are stored.
std::string AllObjects(const Path& file) {
    return test::Run("qpdf --qdf --object-streams=disable --preserve-unreferenced " + Quote(file) +
                     " -")
        .output;
}

// Page 1 shows "SECRET one" and has a note "SECRET note"; a structure element names it. Page 2
// shows "kept two".
std::string DocumentBytes() {
    return PdfFile({"<< /Type /Catalog /Pages 2 0 R /StructTreeRoot 8 0 R >>",
                    "<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 /MediaBox [0 0 300 300] "
                    "/Resources << /Font << /F1 7 0 R >> >> >>",
                    "<< /Type /Page /Parent 2 0 R /Contents 5 0 R /Annots [9 0 R] >>",
                    "<< /Type /Page /Parent 2 0 R /Contents 6 0 R >>",
                    PdfStream("", "BT /F1 12 Tf 20 200 Td (SECRET one) Tj ET"),
                    PdfStream("", "BT /F1 12 Tf 20 200 Td (kept two) Tj ET"),
                    "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
                    "<< /Type /StructTreeRoot /K 10 0 R >>",
                    "<< /Type /Annot /Subtype /Text /Rect [0 0 20 20] /Contents (SECRET note) "
                    "/P 3 0 R >>",
                    "<< /Type /StructElem /S /P /P 8 0 R /Pg 3 0 R /K 0 >>"});
}

// Page 1 replaced by a page "new", then the letterhead placed or not, and the document written
// by the engine's writer (nothing recorded) or ours (a placement recorded).
TEST(RemovedPages, LeaveNothingOfTheirsInTheFile) {
    const Path dir = ScratchDir(), file = dir / "doc.pdf", out = dir / "out.pdf";
    const Path replacement = LabelledPdf(dir / "new.pdf", {"new"});
    const Path letterhead = LabelledPdf(dir / "lh.pdf", {"letterhead"});
    const auto place = [](Obj& o, std::uint32_t form, std::int32_t page) {
        return o.PlaceContent(form, page, 0, -560, 1, 1, 0) == hr::kOk;
    };
    const struct {
        const char* name;
        std::function<bool(Obj&, std::uint32_t form)> finish;  // writes `out`
        std::vector<std::string> pages;
    } cases[] = {
        {"saved", [&](Obj& o, auto) { return o.SaveTo(out) == hr::kOk; }, {"new", "kept two"}},
        {"stamped after the replacement",
         [&](Obj& o, auto form) { return place(o, form, 2) && o.SaveTo(out) == hr::kOk; },
         {"new", "kept twoletterhead"}},
        {"a form imported before, placed after a save",
         [&](Obj& o, auto form) {
             return o.Save() == hr::kOk && place(o, form, 1) && o.SaveTo(out) == hr::kOk;
         },
         {"newletterhead", "kept two"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteBytes(file, DocumentBytes());
        Obj object, source, head;
        OpenQuietly(object, file);
        OpenQuietly(source, replacement);
        OpenQuietly(head, letterhead);
        std::vector<std::uint32_t> forms;
        ASSERT_EQ(object.ImportContent(&head, &forms), hr::kOk);
        ASSERT_EQ(object.ReplacePages(1, &source, 1, 1), hr::kOk);
        ASSERT_TRUE(c.finish(object, forms.at(0))) << object.LastErrorText();
        const std::string objects = AllObjects(out);
        EXPECT_EQ(objects.find("SECRET"), std::string::npos);
        EXPECT_NE(objects.find("kept two"), std::string::npos) << objects;
        EXPECT_EQ(PdfPageTexts(out), c.pages);
    }
}

}  // namespace
}  // namespace zpdf
