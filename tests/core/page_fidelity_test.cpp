// Pages keep what they carry besides their content through append, replace, split and stamping:
// their annotations pointing at them, links that reach the pages the result holds and lose the
// others, named destinations, form fields with their values (two of one name stay two), and for
// split parts the outline, page labels and document entries. Read back by qpdf and pdftotext.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>

#include "core/open_object.h"

namespace zpdf {
namespace {

using namespace test;  // NOLINT: the helpers of these tests

// What qpdf reads in a file, one line each: every page's keys but those every page has and its
// annotations, the page its open action goes to, then its annotations in order (subtype; a link's
// target as the page it reaches, "name=page" for a named destination, its web address, "-" for
// none; "!P" where /P is not the page), the form's fields by full name with their values, the
// outline (title>page, children in brackets), the page labels (prefix, style, number), the
// output intent and language, and how many catalogs, page tree nodes holding pages and
// structure-tree keys the file holds.
constexpr const char* kSummary = R"jq(
def v($o; r): if (r|type) == "string" and (r|test("^[0-9]+ [0-9]+ R$"))
  then ($o["obj:" + r] | (.value // .stream.dict)) else r end;
def text: if type == "string" then ltrimstr("u:") elif . == null then "-" else tostring end;
def ol: [.[] | .title + ">" + (if .destpageposfrom1 then "p" + (.destpageposfrom1|tostring)
  else "-" end) + (if (.kids|length) > 0 then "(" + (.kids|ol) + ")" else "" end)] | join(" ");
def count(f): [.qpdf[1][] | (.value // .stream.dict)? | objects | select(f)] | length;
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
(.pages[] | .object as $page | v($o; $page) as $p | "p\(.pageposfrom1):" + ([$p | keys[]
  | select(IN("/Parent", "/Contents", "/Resources", "/MediaBox", "/Type", "/Annots") | not)
  | " " + .] | join("")) + (if $p["/AA"] then " open>" + page(v($o; $p["/AA"])["/O"]) else "" end)
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
("catalogs: \(count(.["/Type"] == "/Catalog")) nodes: \(count(.["/Type"] == "/Pages" and
  (.["/Kids"] | length) > 0))"
  + " structure keys: \(count(has("/StructParents") or has("/StructParent")))")
)jq";

// What kSummary makes of qpdf's JSON listing of `file`, which qpdf must find sound; a failure
// of either tool shows in the text.
std::string Summary(const Path& file) {
    const Path program_file = file.parent_path() / "summary.jq";
    WriteBytes(program_file, kSummary);
    EXPECT_TRUE(QpdfCheckPasses(file)) << file;
    return Run("qpdf --json=2 --json-key=pages --json-key=acroform --json-key=outlines "
               "--json-key=qpdf " +
               Quote(file) + " | jq -r -f " + Quote(program_file))
        .output;
}

// The text of each page by pdftotext, which shows the form fields' values too: "Src one|...".
std::string PageTexts(const Path& file) {
    std::string texts;
    for (const std::string& text : PdfPageTexts(file)) texts += (texts.empty() ? "" : "|") + text;
    return texts;
}

// The page texts of InteractivePdf(tag), with what poppler draws of page 2's filled fields after
// the name: the check mark, the choice.
std::string Texts(const std::string& tag) {
    return tag + " one|" + tag + " two@@nd@@" + tag + "\u2713Blue|" + tag + " three|" + tag +
           " four";
}

// The summary lines of the pages of InteractivePdf(tag): its page i at `at[i - 1]` (0: not in the
// file), `named` what its link to the named destination reaches. Copied pages lose their
// structure key, and their web link's /P names its page.
std::string Annots(const std::string& tag, std::array<int, 4> at, const std::string& named,
                   bool copied = true) {
    const auto to = [&at](int page) {
        return at[page - 1] ? "p" + std::to_string(at[page - 1]) : "-";
    };
    const std::string lines[] = {
        std::string(copied ? "" : " /StructParents") + " Link>" + to(3) +
            " Link>https://example.com/" + tag + (copied ? "" : "!P") + " Link>" + named,
        " Widget Widget Widget Link>" + to(4), " Text Popup", " Widget Link>" + to(1)};
    std::string out;
    for (int i = 0; i < 4; ++i)
        if (at[i] != 0) out += "p" + std::to_string(at[i]) + ":" + lines[i] + "\n";
    return out;
}

// A page drawn with an optional content group that its document hides, and a second page.
std::string OptionalContentPdf() {
    return samples::PdfFromObjects({
        "<< /Type /Catalog /Pages 2 0 R /OCProperties << /OCGs [5 0 R 7 0 R]"
        " /D << /OFF [5 0 R] >> >> >>",
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

// Two pages "s1" "s2" with keys beyond the usual ones.
std::string KeysPdf() {
    std::vector<samples::SamplePage> pages;
    for (const char* label : {"s1", "s2"})
        pages.push_back({595, 842, 0, samples::TextContent({label}, 842), ""});
    pages[0].extra_entries =
        "/AA << /O << /S /GoTo /D [6 0 R /Fit] >> >> /Tabs /S /StructParents 3 /Dur 5"
        " /PieceInfo << /Z << /LastModified (D:20200101) >> >>";
    pages[1].extra_entries = "/Trans << /S /Dissolve >>";
    return samples::BuildPdf(pages);
}

// Source "Src" and target "Dst" go through an operation; every file written is read back. Links
// reach the pages the result holds and lose the others, and links to a replaced page reach the
// page in its place; named destinations come along, renamed
// where the name is taken; fields keep their values (two of one name stay two, renamed); a copied
// signature is unsigned; split parts keep their pages' outline entries (an entry pointing out of
// the part stays as the heading of those pointing in), restarted labels and the document's
// entries. Hidden content stays hidden, also in a result whose optional content hides everything
// it does not name. Pages appended from the source at the save keep every key but links into
// the source's trees, and a page action reaches the copy of its page. A stamped page keeps
// everything, and the letterhead's own annotations and fields stay behind.
TEST(PageFidelity, PagesKeepAnnotationsLinksAndFields) {
    const std::string src = InteractivePdf("Src"), dst = InteractivePdf("Dst"),
                      plain = LabelledBytes({"d1", "d2", "d3"});
    std::string hiding = LabelledBytes({"d1"});
    hiding.insert(hiding.find("/Type /Catalog"),
                  "/OCProperties << /OCGs [] /D << /BaseState /OFF /Order [] >> >> ");
    // Pages of `tag` appended to "Dst", whose link to its named destination reaches `named`.
    const auto appended = [](const std::string& own, const std::string& tag,
                             const std::string& named) {
        return Annots("Dst", {1, 2, 3, 4}, own, false) + Annots(tag, {5, 6, 7, 8}, named) +
               "fields: name=Dst agree=/Yes colour=Blue sign=ref name_2=" + tag +
               " agree_2=/Yes colour_2=Blue sign_2=-\n"
               "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3(Section B.1>p4)\n"
               "labels: r1 A-D5 A-D6 A-D7 A-D8 A-D9 A-D10 A-D11\n"
               "intent: FOGRA39 lang: en-GB\ncatalogs: 1 nodes: 2 structure keys: 2\n";
    };
    // "Dst" with all its pages in place; its page 3 reads like the source's.
    const std::string kept = Annots("Dst", {1, 2, 3, 4}, "chap2=p2", false) +
                             "fields: name=Dst agree=/Yes colour=Blue sign=ref\n"
                             "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3(Section B.1>p4)\n"
                             "labels: r1 A-D5 A-D6 A-D7\nintent: FOGRA39 lang: en-GB\n"
                             "catalogs: 1 nodes: 1 structure keys: 2\n";
    const std::string kNoParts =
        "outline: \nlabels:\nintent: - lang: -\ncatalogs: 1 nodes: 2 structure keys: 0\n";
    const std::string kSplitParts =
        "intent: FOGRA39 lang: en-GB\ncatalogs: 1 nodes: 1 structure keys: 0\n";
    using Run = std::function<HResult(Obj & dst, Obj & src, const Path& dir)>;
    const Run append = [](Obj& d, Obj& s, const Path&) { return d.AppendPages(&s); };
    const Run split = [](Obj& d, Obj&, const Path& dir) {
        std::int32_t written = 0;
        return d.SplitPdf(FromPath(dir / "src.pdf"), FromPath(dir / "part"), &written);
    };
    const struct {
        const char* name;
        std::string source, target;  // no target: the run splits the source
        Run run;
        // Of out.pdf, or of each part: texts separated by " / ", summaries by "--"; no summary:
        // not read.
        std::string texts, summary = "";
    } cases[] = {
        {"append", src, dst, append, Texts("Dst") + "|" + Texts("Src"),
         appended("chap2=p2", "Src", "p6")},
        {"append other names", src, InteractivePdf("Dst", "appendix"), append,
         Texts("Dst") + "|" + Texts("Src"), appended("appendix=p2", "Src", "chap2=p6")},
        {"replace", src, plain,
         [](Obj& d, Obj& s, const Path&) { return d.ReplacePages(2, &s, 1, 2); },
         "d1|Src one|Src two@@nd@@Src\u2713Blue",
         "p1:\n" + Annots("Src", {2, 3, 0, 0}, "chap2=p3") +
             "fields: name=Src agree=/Yes colour=Blue\n" + kNoParts},
        // Copied within its document, a page gets annotations of its own.
        {"replace with a page of its own", dst, dst,
         [](Obj& d, Obj&, const Path&) { return d.ReplacePages(4, &d, 3, 3); },
         "Dst one|Dst two@@nd@@Dst\u2713Blue|Dst three|Dst three",
         kept.substr(0, kept.find("p4:")) +
             "p4: Text Popup\nfields: name=Dst agree=/Yes colour=Blue\n" +
             kept.substr(kept.find("outline:"))},
        {"replace a page others link to", src, dst,
         [](Obj& d, Obj& s, const Path&) { return d.ReplacePages(3, &s, 3, 3); },
         "Dst one|Dst two@@nd@@Dst\u2713Blue|Src three|Dst four", kept},
        {"split after page 3", InteractivePdf("Src", "chap2", 3), "", split,
         "Src one|Src twoSrc\u2713Blue|Src three@@nd@@ / Src four",
         Annots("Src", {1, 2, 3, 0}, "chap2=p2") + "fields: name=Src agree=/Yes colour=Blue\n" +
             "outline: Chapter A>p1(Section A.1>p2) Chapter B>p3\nlabels: r1 A-D5 A-D6\n" +
             kSplitParts + "--\n" + Annots("Src", {0, 0, 0, 1}, "") + "fields: sign=-\n" +
             "outline: Chapter B>-(Section B.1>p1)\nlabels: A-D7\n" + kSplitParts},
        {"stamped", InteractivePdf("Head"), dst,
         [](Obj& d, Obj& s, const Path&) {
             std::vector<std::uint32_t> forms;
             HResult result = d.ImportContent(&s, &forms);
             for (std::int32_t page = 1; page <= 4 && result == hr::kOk; ++page)
                 result = d.PlaceContent(forms.at(0), page, 0, -400, 1, 1, false);
             return result;
         },
         "Dst oneHead one|Dst two@@nd@@Dst\u2713BlueHead one|Dst threeHead one|Dst fourHead one",
         kept},
        {"hidden content into a plain document", OptionalContentPdf(), LabelledBytes({"d1"}),
         append, "d1|shown@@nd@@|last"},
        {"hidden content into one that hides by default", OptionalContentPdf(), hiding, append,
         "d1|shown@@nd@@|last"},
        {"keys written at save", KeysPdf(), LabelledBytes({"d1"}), append, "d1|s1|s2",
         "p1:\np2: /AA /Dur /PieceInfo /Tabs open>p3\np3: /Trans\nfields:\n" + kNoParts},
    };
    const Path root = ScratchDir();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Path dir = root / c.name;
        std::filesystem::create_directories(dir);
        WriteBytes(dir / "src.pdf", c.source);
        Obj d, s;
        if (!c.target.empty()) {
            WriteBytes(dir / "dst.pdf", c.target);
            OpenQuietly(d, dir / "dst.pdf");
            OpenQuietly(s, dir / "src.pdf");
        }
        ASSERT_EQ(Quiet([&] { return c.run(d, s, dir); }), hr::kOk) << d.LastErrorText();
        ASSERT_EQ(c.target.empty() ? hr::kOk : d.SaveTo(dir / "out.pdf"), hr::kOk);
        std::vector<Path> files = {dir / "out.pdf"};
        if (c.target.empty()) files = FilesStartingWith(dir, "part_");
        std::sort(files.begin(), files.end());
        std::string texts, summaries;
        for (const Path& file : files) {
            texts += (texts.empty() ? "" : " / ") + PageTexts(file);
            if (!c.summary.empty()) summaries += (summaries.empty() ? "" : "--\n") + Summary(file);
        }
        EXPECT_EQ(texts, c.texts);
        EXPECT_EQ(summaries, c.summary);
    }
}

}  // namespace
}  // namespace zpdf
