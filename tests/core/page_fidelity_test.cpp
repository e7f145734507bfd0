// Pages keep what they carry besides their content through append, replace, split and stamping:
// their annotations pointing at them, links that reach the pages the result holds and lose the
// others, named destinations, form fields with their values (two of one name stay two), and for
// split parts the outline, page labels and document entries. Read back by qpdf and pdftotext.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "core/open_object.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

// What qpdf reads in a file, one line each: every page's annotations in order (subtype; a link's
// target as the page it reaches, "name=page" for a named destination, its web address, "-" for
// none; "!P" where /P is not the page), the form's fields by full name with their values, the
// outline (title>page, children in brackets), the page labels (prefix, style, number), the
// output intent and language, and how many catalogs and structure-tree keys the file holds.
constexpr const char* kSummary = R"jq(
def v($o; r): if (r|type) == "string" and (r|test("^[0-9]+ [0-9]+ R$"))
  then ($o["obj:" + r] | (.value // .stream.dict)) else r end;
def text: if type == "string" then ltrimstr("u:") elif . == null then "-" else tostring end;
def ol: [.[] | .title + ">" + (if .destpageposfrom1 then "p" + (.destpageposfrom1|tostring)
  else "-" end) + (if (.kids|length) > 0 then "(" + (.kids|ol) + ")" else "" end)] | join(" ");
.qpdf[1] as $o
| (.pages | map({key: .object, value: .pageposfrom1}) | from_entries) as $pos
| v($o; $o.trailer.value["/Root"]) as $root
| (v($o; v($o; v($o; $root["/Names"])["/Dests"]?)["/Names"]?) // []) as $names
| def page(d): (v($o; d)) as $d | if ($d|type) == "object" then page($d["/D"])
    elif ($d|type) == "array" then "p" + (($pos[$d[0]] // "?")|tostring) else "?" end;
  def target(d): (v($o; d)) as $d | if ($d|type) == "string" then ($names | index($d)) as $i
    | ($d|text) + "=" + (if $i == null then "?" else page($names[$i + 1]) end)
    elif $d == null then "-" else page($d) end;
  def link(a): if a["/Dest"] != null then target(a["/Dest"])
    elif a["/A"] != null then (v($o; a["/A"])) as $a | (if $a["/S"] == "/URI"
      then ($a["/URI"]|text) elif $a["/S"] == "/GoTo" then target($a["/D"]) else "?" end)
    else "-" end;
(.pages[] | .object as $page | v($o; $page) as $p | "p\(.pageposfrom1):"
  + ([(v($o; $p["/Annots"]) // [])[] | v($o; .) as $a | " " + ($a["/Subtype"]|ltrimstr("/"))
  + (if $a["/Subtype"] == "/Link" then ">" + link($a) else "" end)
  + (if $a["/P"] == $page then "" else "!P" end)] | join(""))),
("fields:" + ([.acroform.fields[] | " \(.fullname)=" + (.value | if type == "string" and
  test("^[0-9]+ [0-9]+ R$") then "ref" else text end)] | join(""))),
("outline: " + (.outlines | ol)),
("labels:" + ([.pages[] | select(.label != null) | " " + (.label["/P"] // "" | text)
  + (.label["/S"] // "" | ltrimstr("/")) + (.label["/St"] // 1 | tostring)] | join(""))),
("intent: " + (v($o; v($o; $root["/OutputIntents"])[0]?)["/OutputConditionIdentifier"]? | text)
  + " lang: " + ($root["/Lang"] | text)),
("catalogs: \([$o[] | (.value // .stream.dict)? | objects | select(.["/Type"] == "/Catalog")]
  | length) structure keys: \([$o[] | (.value // .stream.dict)? | objects
  | select(has("/StructParents") or has("/StructParent"))] | length)")
)jq";

// Each page's keys but those every page has, the page its open action goes to, and how many
// catalogs and page tree nodes the file holds.
constexpr const char* kPageKeys = R"jq(
def v($o; r): if (r|type) == "string" and (r|test("^[0-9]+ [0-9]+ R$"))
  then ($o["obj:" + r] | (.value // .stream.dict)) else r end;
.qpdf[1] as $o
| (.pages | map({key: .object, value: .pageposfrom1}) | from_entries) as $pos
| (.pages[] | v($o; .object) as $p | "p\(.pageposfrom1):" + ([$p | keys[]
  | select(IN("/Parent", "/Contents", "/Resources", "/MediaBox", "/Type") | not) | " " + .]
  | join("")) + (if $p["/AA"] then " open>p" + ($pos[v($o; v($o; v($o; $p["/AA"])["/O"])["/D"])[0]]
  | tostring) else "" end)),
("catalogs: \([$o[] | (.value // .stream.dict)? | objects | select(.["/Type"] == "/Catalog")]
  | length) nodes: \([$o[] | (.value // .stream.dict)? | objects | select(.["/Type"] == "/Pages")]
  | length)")
)jq";

// What the jq `program` makes of qpdf's description of `file`.
std::string Summary(const Path& file, const char* program = kSummary) {
    const Path program_file = file.parent_path() / "summary.jq";
    WriteBytes(program_file, program);
    EXPECT_TRUE(QpdfCheckPasses(file)) << file;
    const ToolResult result =
        Run("qpdf --json=2 --json-key=pages --json-key=acroform --json-key=outlines "
            "--json-key=qpdf " +
            Quote(file) + " | jq -r -f " + Quote(program_file));
    EXPECT_EQ(result.exit_code, 0) << result.output;
    return result.output;
}

// The text of each page by pdftotext, which shows the form fields' values too: "Src one|...".
std::string PageTexts(const Path& file) {
    std::string texts;
    for (const std::string& text : PdfPageTexts(file)) texts += (texts.empty() ? "" : "|") + text;
    return texts;
}

// The source "Src" and what each operation makes of it, by the summary of every file written.
TEST(PageFidelity, PagesKeepAnnotationsLinksAndFields) {
    struct Docs {
        Path dir;
        Obj dst, src;
    };
    const std::string kAllPages =
        "p1: Link>p3 Link>https://example.com/Src!P Link>chap2=p2\n"
        "p2: Widget Widget Widget Link>p4\n"
        "p3: Text Popup\n"
        "p4: Widget Link>p1\n";
    // What poppler draws of page 2's filled fields after the name: the check mark, the choice.
    const std::string kFilled = "\u2713Blue";
    const std::string kNoDocumentParts =
        "outline: \nlabels:\nintent: - lang: -\ncatalogs: 1 structure keys: 0\n";
    const struct {
        const char* name;
        // "plain": a labelled page each; "interactive": InteractivePdf("Dst"); else
        // InteractivePdf("Dst") with that name for its named destination
        std::string target;
        std::function<HResult(Docs&)> run;
        std::vector<std::string> files;  // written, by name in the case's folder
        std::vector<std::string> heads;
        std::vector<std::string> summaries;
    } cases[] = {
        // Appended to a document like it: links reach the copies; the taken name "chap2" is
        // made explicit; same-named fields stay apart, renamed; the copied signature is unsigned.
        {"append",
         "interactive",
         [](Docs& d) { return d.dst.AppendPages(&d.src); },
         {"out.pdf"},
         {"Dst one|Dst two@@nd@@Dst" + kFilled + "|Dst three|Dst four|Src one|Src two@@nd@@Src" +
          kFilled + "|Src three|Src four"},
         {"p1: Link>p3 Link>https://example.com/Dst!P Link>chap2=p2\n"
          "p2: Widget Widget Widget Link>p4\n"
          "p3: Text Popup\n"
          "p4: Widget Link>p1\n"
          "p5: Link>p7 Link>https://example.com/Src Link>p6\n"
          "p6: Widget Widget Widget Link>p8\n"
          "p7: Text Popup\n"
          "p8: Widget Link>p5\n"
          "fields: name=Dst agree=/Yes colour=Blue sign=ref name_2=Src agree_2=/Yes "
          "colour_2=Blue sign_2=-\n"
          "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3(Section B.1>p4)\n"
          "labels: r1 A-D5 A-D6 A-D7 A-D8 A-D9 A-D10 A-D11\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 2\n"}},
        // The source's named destination joins the target's tree of them.
        {"append other names",
         "appendix",
         [](Docs& d) { return d.dst.AppendPages(&d.src); },
         {"out.pdf"},
         {"Dst one|Dst two@@nd@@Dst" + kFilled + "|Dst three|Dst four|Src one|Src two@@nd@@Src" +
          kFilled + "|Src three|Src four"},
         {"p1: Link>p3 Link>https://example.com/Dst!P Link>appendix=p2\n"
          "p2: Widget Widget Widget Link>p4\n"
          "p3: Text Popup\n"
          "p4: Widget Link>p1\n"
          "p5: Link>p7 Link>https://example.com/Src Link>chap2=p6\n"
          "p6: Widget Widget Widget Link>p8\n"
          "p7: Text Popup\n"
          "p8: Widget Link>p5\n"
          "fields: name=Dst agree=/Yes colour=Blue sign=ref name_2=Src agree_2=/Yes "
          "colour_2=Blue sign_2=-\n"
          "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3(Section B.1>p4)\n"
          "labels: r1 A-D5 A-D6 A-D7 A-D8 A-D9 A-D10 A-D11\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 2\n"}},
        // Appended to itself: the copies' annotations and fields are objects of their own.
        {"append itself",
         "interactive",
         [](Docs& d) { return d.dst.AppendPages(&d.dst); },
         {"out.pdf"},
         {"Dst one|Dst two@@nd@@Dst" + kFilled + "|Dst three|Dst four|Dst one|Dst two@@nd@@Dst" +
          kFilled + "|Dst three|Dst four"},
         {"p1: Link>p3 Link>https://example.com/Dst!P Link>chap2=p2\n"
          "p2: Widget Widget Widget Link>p4\n"
          "p3: Text Popup\n"
          "p4: Widget Link>p1\n"
          "p5: Link>p7 Link>https://example.com/Dst Link>p6\n"
          "p6: Widget Widget Widget Link>p8\n"
          "p7: Text Popup\n"
          "p8: Widget Link>p5\n"
          "fields: name=Dst agree=/Yes colour=Blue sign=ref name_2=Dst agree_2=/Yes "
          "colour_2=Blue sign_2=-\n"
          "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3(Section B.1>p4)\n"
          "labels: r1 A-D5 A-D6 A-D7 A-D8 A-D9 A-D10 A-D11\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 2\n"}},
        // Two pages in place of pages 2 and 3 of a plain document: links to pages left behind
        // lose their target, the named one comes along with its name, the form is made.
        {"replace",
         "plain",
         [](Docs& d) { return d.dst.ReplacePages(2, &d.src, 1, 2); },
         {"out.pdf"},
         {"d1|Src one|Src two@@nd@@Src" + kFilled},
         {"p1:\n"
          "p2: Link>- Link>https://example.com/Src Link>chap2=p3\n"
          "p3: Widget Widget Widget Link>-\n"
          "fields: name=Src agree=/Yes colour=Blue\n" +
          kNoDocumentParts}},
        // The whole source into a plain document.
        {"append to plain",
         "plain",
         [](Docs& d) { return d.dst.AppendPages(&d.src); },
         {"out.pdf"},
         {"d1|d2|d3|Src one|Src two@@nd@@Src" + kFilled + "|Src three|Src four"},
         {"p1:\np2:\np3:\n"
          "p4: Link>p6 Link>https://example.com/Src Link>chap2=p5\n"
          "p5: Widget Widget Widget Link>p7\n"
          "p6: Text Popup\n"
          "p7: Widget Link>p4\n"
          "fields: name=Src agree=/Yes colour=Blue sign=-\n" +
          kNoDocumentParts}},
        // Parts after the marker on page 2: each keeps its own pages' annotations, fields,
        // outline entries (hierarchy kept) and restarted labels, and the document's entries.
        {"split",
         "",
         [](Docs& d) {
             std::int32_t written = 0;
             return d.dst.SplitPdf(FromPath(d.dir / "src.pdf"), FromPath(d.dir / "part"), &written);
         },
         {"part_1", "part_2"},
         {"Src one|Src two@@nd@@Src" + kFilled, "Src three|Src four"},
         {"p1: Link>- Link>https://example.com/Src Link>chap2=p2\n"
          "p2: Widget Widget Widget Link>-\n"
          "fields: name=Src agree=/Yes colour=Blue\n"
          "outline: Chapter A>p1(Section A.1>p2)\n"
          "labels: r1 A-D5\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 0\n",
          "p1: Text Popup\n"
          "p2: Widget Link>-\n"
          "fields: sign=-\n"
          "outline: Chapter B>p1(Section B.1>p2)\n"
          "labels: A-D6 A-D7\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 0\n"}},
        // Parts after page 3: an outline entry pointing out of the part stays as the heading
        // of the entries below it that point into it.
        {"split after page 3",
         "",
         [](Docs& d) {
             WriteBytes(d.dir / "late.pdf", InteractivePdf("Src", "chap2", 3));
             std::int32_t written = 0;
             return d.dst.SplitPdf(FromPath(d.dir / "late.pdf"), FromPath(d.dir / "part"),
                                   &written);
         },
         {"part_1", "part_2"},
         {"Src one|Src twoSrc" + kFilled + "|Src three@@nd@@", "Src four"},
         {"p1: Link>p3 Link>https://example.com/Src Link>chap2=p2\n"
          "p2: Widget Widget Widget Link>-\n"
          "p3: Text Popup\n"
          "fields: name=Src agree=/Yes colour=Blue\n"
          "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3\n"
          "labels: r1 A-D5 A-D6\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 0\n",
          "p1: Widget Link>-\n"
          "fields: sign=-\n"
          "outline: Chapter B>-(Section B.1>p1)\n"
          "labels: A-D7\n"
          "intent: FOGRA39 lang: en-GB\n"
          "catalogs: 1 structure keys: 0\n"}},
    };
    const Path root = ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Docs d{root / c.name, {}, {}};
        std::filesystem::create_directories(d.dir);
        WriteBytes(d.dir / "src.pdf", InteractivePdf("Src"));
        EXPECT_EQ(Summary(d.dir / "src.pdf"),
                  kAllPages +
                      "fields: name=Src agree=/Yes colour=Blue sign=ref\n"
                      "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3(Section B.1>p4)\n"
                      "labels: r1 A-D5 A-D6 A-D7\nintent: FOGRA39 lang: en-GB\n"
                      "catalogs: 1 structure keys: 2\n");
        if (!c.target.empty()) {
            WriteBytes(d.dir / "dst.pdf", c.target == "plain" ? LabelledBytes({"d1", "d2", "d3"})
                                          : c.target == "interactive"
                                              ? InteractivePdf("Dst")
                                              : InteractivePdf("Dst", c.target));
            OpenQuietly(d.dst, d.dir / "dst.pdf");
            OpenQuietly(d.src, d.dir / "src.pdf");
        }
        ASSERT_EQ(Quiet([&] { return c.run(d); }), hr::kOk) << d.dst.LastErrorText();
        if (!c.target.empty()) {
            ASSERT_EQ(d.dst.SaveTo(d.dir / "out.pdf"), hr::kOk);
        }
        for (std::size_t f = 0; f < c.files.size(); ++f) {
            SCOPED_TRACE(c.files[f]);
            EXPECT_EQ(PageTexts(d.dir / c.files[f]), c.heads[f]);
            EXPECT_EQ(Summary(d.dir / c.files[f]), c.summaries[f]);
        }
    }
}

// A page drawn with an optional content group that its document hides: `own` more entries for
// the catalog, and a second page marked with the split marker.
std::string OptionalContentPdf(const std::string& own = "") {
    return samples::PdfFromObjects({
        "<< /Type /Catalog /Pages 2 0 R /OCProperties << /OCGs [5 0 R 7 0 R]"
        " /D << /OFF [5 0 R] >> >> " +
            own + " >>",
        "<< /Type /Pages /Kids [3 0 R 8 0 R] /Count 2 /MediaBox [0 0 300 300] >>",
        "<< /Type /Page /Parent 2 0 R /Contents 4 0 R /Resources << /Font << /F1 6 0 R >>"
        " /Properties << /H 5 0 R /S 7 0 R >> >> >>",
        PdfStream("",
                  "/OC /H BDC BT /F1 12 Tf 10 250 Td (secret) Tj ET EMC"
                  " /OC /S BDC BT /F1 12 Tf 10 200 Td (shown) Tj ET EMC"
                  " BT /F1 12 Tf 10 150 Td (@@nd@@) Tj ET"),
        "<< /Type /OCG /Name (Hidden) >>",
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        "<< /Type /OCG /Name (Shown) >>",
        "<< /Type /Page /Parent 2 0 R /Contents 9 0 R /Resources << /Font << /F1 6 0 R >> >> >>",
        PdfStream("", "BT /F1 12 Tf 10 250 Td (last) Tj ET"),
    });
}

// Content that the source hides stays hidden wherever its page goes, and what it shows stays
// shown, also in a result whose own optional content hides everything it does not name.
TEST(PageFidelity, HiddenContentStaysHidden) {
    const struct {
        const char* name;
        std::string target;  // the destination's own catalog entries; none for a split
        const char* file;
        const char* texts;
    } cases[] = {
        {"into a plain document", "", "out.pdf", "d1|shown@@nd@@|last"},
        {"into one that hides by default",
         "/OCProperties << /OCGs [] /D << /BaseState /OFF /Order [] >> >>", "out.pdf",
         "d1|shown@@nd@@|last"},
        {"split", "-", "part_1", "shown@@nd@@"},
    };
    const Path root = ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Path dir = root / c.name;
        std::filesystem::create_directories(dir);
        WriteBytes(dir / "src.pdf", OptionalContentPdf());
        Obj dst, src;
        if (c.target == "-") {
            std::int32_t written = 0;
            ASSERT_EQ(Quiet([&] {
                          return dst.SplitPdf(FromPath(dir / "src.pdf"), FromPath(dir / "part"),
                                              &written);
                      }),
                      hr::kOk);
        } else {
            if (c.target.empty()) {
                LabelledPdf(dir / "dst.pdf", {"d1"});
            } else {
                std::string bytes = LabelledBytes({"d1"});
                const std::size_t at = bytes.find("/Type /Catalog");
                ASSERT_NE(at, std::string::npos);
                bytes.insert(at, c.target + " ");
                WriteBytes(dir / "dst.pdf", bytes);
            }
            OpenQuietly(dst, dir / "dst.pdf");
            OpenQuietly(src, dir / "src.pdf");
            ASSERT_EQ(dst.AppendPages(&src), hr::kOk) << dst.LastErrorText();
            ASSERT_EQ(dst.SaveTo(dir / "out.pdf"), hr::kOk);
        }
        EXPECT_EQ(PageTexts(dir / c.file), c.texts);
    }
}

// Appending keeps every key of a page but its links into the source's trees, whether the pages
// are written from the source when the document is saved (a source without annotations) or
// copied at once; a page action reaches the copy of its page, and the source's catalog and page
// tree stay behind.
TEST(PageFidelity, AppendedPagesKeepTheirKeys) {
    const std::string first =
        "/AA << /O << /S /GoTo /D [6 0 R /Fit] >> >> /Tabs /S /StructParents 3 /Dur 5"
        " /PieceInfo << /Z << /LastModified (D:20200101) >> >>";
    const struct {
        const char* name;
        std::string second;  // more entries of the source's second page
        std::string second_keys;
    } cases[] = {
        {"written at save", "/Trans << /S /Dissolve >>", " /Trans"},
        {"copied at once",
         "/Trans << /S /Dissolve >> /Annots [<< /Type /Annot /Subtype /Text /Rect [0 0 9 9] >>]",
         " /Annots /Trans"},
    };
    const Path root = ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Path dir = root / c.name;
        std::filesystem::create_directories(dir);
        std::vector<samples::SamplePage> pages;
        for (const char* label : {"s1", "s2"})
            pages.push_back({595, 842, 0, samples::TextContent({label}, 842), ""});
        pages[0].extra_entries = first;
        pages[1].extra_entries = c.second;
        WriteBytes(dir / "src.pdf", samples::BuildPdf(pages));
        Obj dst, src;
        OpenQuietly(dst, LabelledPdf(dir / "dst.pdf", {"d1"}));
        OpenQuietly(src, dir / "src.pdf");
        ASSERT_EQ(dst.AppendPages(&src), hr::kOk);
        ASSERT_EQ(dst.SaveTo(dir / "out.pdf"), hr::kOk);
        EXPECT_EQ(PageTexts(dir / "out.pdf"), "d1|s1|s2");
        EXPECT_EQ(Summary(dir / "out.pdf", kPageKeys),
                  "p1:\np2: /AA /Dur /PieceInfo /Tabs open>p3\np3:" + c.second_keys +
                      "\ncatalogs: 1 nodes: 2\n");
    }
}

// A stamped page keeps all its annotations, fields and keys, and the document its parts; the
// letterhead's own annotations and fields do not come along with its content.
TEST(PageFidelity, StampedPagesKeepTheirAnnotations) {
    const Path dir = ScratchDir();
    WriteBytes(dir / "dst.pdf", InteractivePdf("Dst"));
    WriteBytes(dir / "head.pdf", InteractivePdf("Head"));
    const std::string before = Summary(dir / "dst.pdf");
    Obj dst, head;
    OpenQuietly(dst, dir / "dst.pdf");
    OpenQuietly(head, dir / "head.pdf");
    std::vector<std::uint32_t> forms;
    ASSERT_EQ(dst.ImportContent(&head, &forms), hr::kOk) << dst.LastErrorText();
    ASSERT_EQ(forms.size(), 4u);
    for (std::int32_t page = 1; page <= 4; ++page)
        ASSERT_EQ(dst.PlaceContent(forms[0], page, 0, -400, 1, 1, false), hr::kOk);
    ASSERT_EQ(dst.SaveTo(dir / "out.pdf"), hr::kOk);
    EXPECT_EQ(Summary(dir / "out.pdf"), before);
    const std::string texts = PageTexts(dir / "out.pdf");
    for (const char* text : {"Dst one", "Dst two", "Dst three", "Dst four"})
        EXPECT_NE(texts.find(text), std::string::npos) << texts;
    EXPECT_EQ(std::count(texts.begin(), texts.end(), '|'), 3);
    std::size_t heads = 0;
    for (std::size_t at = texts.find("Head one"); at != std::string::npos;
         at = texts.find("Head one", at + 1))
        ++heads;
    EXPECT_EQ(heads, 4u) << texts;
}

}  // namespace
}  // namespace zpdf
