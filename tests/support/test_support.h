// Shared helpers of the native tests: scratch folders, outside tools, documents made by them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zpdf::test {

// A fresh, empty folder for one test, below ZPDF_TEST_TMP (or the system's temporary folder).
std::filesystem::path ScratchDir();

struct ToolResult {
    int exit_code = -1;
    std::string output;  // standard output and standard error together
};
// Runs a shell command line.
ToolResult Run(const std::string& command);
std::string Quote(const std::filesystem::path& path);

std::string ReadBytes(const std::filesystem::path& path);
void WriteBytes(const std::filesystem::path& path, const std::string& bytes);

// Documents made by Ghostscript: each string is the PostScript of one page (showpage added).
// Page size in points.
std::filesystem::path GhostscriptPdf(const std::filesystem::path& path,
                                     const std::vector<std::string>& pages, int width = 595,
                                     int height = 842);
// One page of Helvetica text per entry.
std::filesystem::path TextPdf(const std::filesystem::path& path,
                              const std::vector<std::string>& texts);

// qpdf transformations of an existing document.
std::filesystem::path QpdfEncrypt(const std::filesystem::path& in, const std::filesystem::path& out,
                                  const std::string& user, const std::string& owner, int bits);

// A self-signed certificate for `name` with a new key of `key` (an openssl -newkey argument),
// written as <name>-cert.pem and <name>-key.pem in `dir`; returns the certificate's PEM text.
std::string MakeCertificate(const std::filesystem::path& dir, const std::string& name,
                            const std::string& key = "rsa:2048");

// Independent readers.
// What qpdf shows of `file`'s encryption, opened with `password`.
std::string ShowEncryption(const std::filesystem::path& file, const std::string& password);
int QpdfPageCount(const std::filesystem::path& path);  // -1 when qpdf cannot read the file
bool QpdfCheckPasses(const std::filesystem::path& path);
// The text of the document, opened with `password` (user's or owner's) when one is given.
std::string PdfToText(const std::filesystem::path& path, const std::string& password = "");
// The text of each page, by pdftotext, line breaks removed.
std::vector<std::string> PdfPageTexts(const std::filesystem::path& path);

// Points TMPDIR, where the component puts its private copies, at `folder` while it lives, so
// that a test can count what is left there; puts the old value back when it goes.
class TempFolderOverride {
  public:
    explicit TempFolderOverride(const std::filesystem::path& folder);
    ~TempFolderOverride();
    TempFolderOverride(const TempFolderOverride&) = delete;
    TempFolderOverride& operator=(const TempFolderOverride&) = delete;

  private:
    std::optional<std::string> old_;
};

// Files whose name starts with `prefix` in `dir`.
std::vector<std::filesystem::path> FilesStartingWith(const std::filesystem::path& dir,
                                                     const std::string& prefix);

// "<< dict /Length n >> stream ... endstream" for `data`.
std::string PdfStream(const std::string& dict, const std::string& data);

// A PDF file whose object i + 1 is objects[i], with a classic cross-reference table that lists
// the first `listed` objects (all of them when negative) and a /Size to match, and /Root
// `root`. The entry of object `misplaced` points at the end of the object before it.
std::string PdfFile(const std::vector<std::string>& objects, int listed = -1, int misplaced = 0,
                    int root = 1);

// A four-page document with what a page can carry besides its content, each text and value
// holding `tag`. Page 1 ("<tag> one") has a link to page 3, a web link to
// https://example.com/<tag> (whose /P names page 4, wrongly, as some producers write it) and a
// link to the named destination (chap2), which is page 2. Page 2
// ("<tag> two", then the split marker "@@nd@@") has the text field "name" (value `tag`), the check
// box "agree" (on, /Yes), the combo box "colour" (Blue) and a link whose action goes to page 4.
// Page 3 has a note ("note <tag>") with its popup, page 4 a signed signature field "sign" and a
// link to page 1. The outline is "Chapter A" (page 1) > "Section A.1" (chap2), "Chapter B" (page 3,
// by an action) > "Section B.1" (page 4). Pages are labelled i, A-5, A-6, A-7; there is an output
// intent "FOGRA39", the language en-GB, and a structure tree that page 1 and its first link
// point into.
// `dest` renames the named destination; `marked` moves the marker to another page.
std::string InteractivePdf(const std::string& tag, const std::string& dest = "chap2",
                           int marked = 2);

// Bytes written as pairs of hex digits; spaces only group them.
std::vector<std::uint8_t> HexBytes(std::string_view digits);

}  // namespace zpdf::test
