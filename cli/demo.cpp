// zpdf demo: the typical job of a print engine, on documents the program makes itself.
#include <cstdio>
#include <filesystem>

#include "cli/command.h"
#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/files.h"
#include "platform/png_device_context.h"

namespace zpdf::cli {
namespace {

// Writes a sample document into the demo's folder. Returns an empty text, or why it failed.
std::string WriteSample(const std::filesystem::path& path, const std::string& bytes) {
    fs::FileReplacement file(path, fs::FileReplacement::Durability::Buffered);
    if (file.Open() != 0 || file.Write(bytes.data(), bytes.size()) != 0 || file.Commit() != 0)
        return file.Problem();
    return {};
}

// The demo's folder, new or empty, so that the demo never writes over a file of the user's.
// Returns 0, or the exit code after the message.
int PrepareFolder(const std::filesystem::path& dir) {
    std::error_code ec;
    const auto status = std::filesystem::symlink_status(dir, ec);
    if (std::filesystem::exists(status)) {
        if (!std::filesystem::is_directory(std::filesystem::status(dir, ec))) {
            return Failure(kDemoCommand, dir.string(), "exists and is not a folder",
                           hr::FromWin32(fs::kErrorFileExists));
        }
        if (!std::filesystem::is_empty(dir, ec) || ec) {
            return Failure(kDemoCommand, dir.string(),
                           "is not empty: the demo writes into a new or empty folder",
                           hr::FromWin32(fs::kErrorFileExists));
        }
        return kExitOk;
    }
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        return Failure(kDemoCommand, dir.string(), "cannot create the folder: " + ec.message(),
                       hr::FromWin32(fs::Win32ErrorFromErrorCode(ec)));
    }
    return kExitOk;
}

std::vector<samples::SamplePage> InvoicePages() {
    std::vector<samples::SamplePage> pages;
    for (int i = 1; i <= 3; ++i) {
        samples::SamplePage page;
        page.content = samples::TextContent(
            {"Invoice 2026-" + std::to_string(1000 + i), "Customer: Example Print Shop",
             "Amount due: " + std::to_string(120 * i) + ".00",
             "Page " + std::to_string(i) + " of 3"},
            page.height, 14);
        page.content += samples::FilledRect(72, 600, 200, 20, 0.85);
        pages.push_back(page);
    }
    return pages;
}

samples::SamplePage LetterheadPage() {
    samples::SamplePage page;
    page.content = samples::FilledRect(0, 792, 595, 50, 0.2) +
                   "BT /F1 22 Tf 1 g 40 809 Td (Example Print Shop) Tj ET\n" +
                   samples::FilledRect(0, 0, 595, 24, 0.2);
    return page;
}

samples::SamplePage TermsPage() {
    samples::SamplePage page;
    page.content = samples::TextContent(
        {"Terms and conditions", "Payment is due within 30 days of the invoice date."}, page.height,
        12);
    return page;
}

// Three letters of 2, 1 and 3 pages in one print file. The last page of each letter but the
// last carries the part-end marker, in white, as print files carry it.
std::vector<samples::SamplePage> LetterPages() {
    const int letter_pages[] = {2, 1, 3};
    std::vector<samples::SamplePage> pages;
    for (int letter = 1; letter <= 3; ++letter) {
        const int count = letter_pages[letter - 1];
        for (int page = 1; page <= count; ++page) {
            samples::SamplePage sample;
            sample.content = samples::TextContent(
                {"Letter " + std::to_string(letter), "Dear customer,",
                 "Page " + std::to_string(page) + " of " + std::to_string(count)},
                sample.height, 14);
            if (page == count && letter < 3) {
                sample.content += "q 1 g\n" + samples::TextContent({"@@nd@@"}, 60, 6) + "Q\n";
            }
            pages.push_back(sample);
        }
    }
    return pages;
}

int Step(const char* what, HResult result, const CZPdfContentObject& object) {
    if (hr::Succeeded(result)) return kExitOk;
    return Failure(kDemoCommand, what, object.LastErrorText(), result);
}

int RunDemo(const std::vector<std::string>& args) {
    Arguments parsed({}, {});
    if (!parsed.Parse(args)) return UsageError(kDemoCommand, parsed.Error());
    if (parsed.Positional().size() > 1) return UsageError(kDemoCommand, "expected at most one DIR");
    const std::filesystem::path dir =
        parsed.Positional().empty() ? "zpdf-demo" : parsed.Positional()[0];
    if (const int rc = PrepareFolder(dir)) return rc;
    std::error_code ec;

    // 1. A document to work on.
    const std::filesystem::path invoice = dir / "invoice.pdf";
    if (const std::string why = WriteSample(invoice, samples::BuildPdf(InvoicePages()));
        !why.empty()) {
        return Failure(kDemoCommand, invoice.string(), why, hr::kFail);
    }
    Say("made the sample document %s\n", invoice.string().c_str());

    // 2. The engine's first questions: how many pages, how large.
    CZPdfContentObject object;
    if (int rc = Step("set the document",
                      object.SetPdfDocument(FromPath(invoice), 0, std::u16string()), object))
        return rc;
    std::int32_t pages = 0;
    if (int rc = Step("count the pages", object.PageCount(&pages), object)) return rc;
    double width = 0;
    double height = 0;
    if (int rc = Step("measure page 1", object.GetPageSize(1, &width, &height), object)) return rc;
    Say("%d pages, page 1 is %s x %s pt\n", pages, FormatPoints(width).c_str(),
        FormatPoints(height).c_str());

    // 3. A letterhead stamped beneath every page, as vector content stored once.
    const std::filesystem::path letterhead_path = dir / "letterhead.pdf";
    const std::filesystem::path terms_path = dir / "terms.pdf";
    for (const auto& [path, page] :
         {std::pair{letterhead_path, LetterheadPage()}, std::pair{terms_path, TermsPage()}}) {
        if (const std::string why = WriteSample(path, samples::BuildPdf({page})); !why.empty())
            return Failure(kDemoCommand, path.string(), why, hr::kFail);
    }
    CZPdfContentObject letterhead;
    if (int rc = Step("set the letterhead",
                      letterhead.SetPdfDocument(FromPath(letterhead_path), 0, u""), letterhead))
        return rc;
    std::vector<std::uint32_t> forms;
    if (int rc = Step("import the letterhead", object.ImportContent(&letterhead, &forms), object))
        return rc;
    for (std::int32_t page = 1; page <= pages; ++page) {
        if (int rc =
                Step("stamp a page", object.PlaceContent(forms[0], page, 0, 0, 1, 1, -1), object))
            return rc;
    }
    Say("stamped %s beneath all %d pages\n", letterhead_path.string().c_str(), pages);

    // 4. The terms appended at the end.
    CZPdfContentObject terms;
    if (int rc = Step("set the terms", terms.SetPdfDocument(FromPath(terms_path), 0, u""), terms))
        return rc;
    if (int rc = Step("append the terms", object.AppendPages(&terms), object)) return rc;
    if (int rc = Step("count the pages", object.PageCount(&pages), object)) return rc;
    Say("appended %s: now %d pages\n", terms_path.string().c_str(), pages);

    // 5. Drawing a page, as the layout does for a placed element.
    const std::filesystem::path png_path = dir / "invoice-page1.png";
    PngDeviceContext png;
    const int w = static_cast<int>(width * 100 / 72 + 0.5);
    const int h = static_cast<int>(height * 100 / 72 + 0.5);
    if (const int error = png.Open(png_path, w, h, 100)) {
        return Failure(kDemoCommand, png_path.string(),
                       "cannot create the file: " + fs::ErrorText(error), hr::FromWin32(error));
    }
    if (int rc =
            Step("draw page 1", object.DrawPageToDC(png, 1, 0, 0, w, h, 0, 0, 0, 0, 0), object))
        return rc;
    if (const int error = png.Finish()) {
        return Failure(kDemoCommand, png_path.string(),
                       "cannot write the file: " + fs::ErrorText(error), hr::FromWin32(error));
    }
    Say("drew page 1 at 100 dpi into %s\n", png_path.string().c_str());

    // 6. Saving: the document is rewritten through a side file that replaces it when whole.
    if (int rc = Step("save", object.Save(), object)) return rc;
    Say("saved %s (%lld bytes)\n", invoice.string().c_str(),
        static_cast<long long>(std::filesystem::file_size(invoice, ec)));

    // 5. Splitting a print file after its marker pages, one file per letter.
    const std::filesystem::path letters = dir / "letters.pdf";
    if (const std::string why = WriteSample(letters, samples::BuildPdf(LetterPages()));
        !why.empty()) {
        return Failure(kDemoCommand, letters.string(), why, hr::kFail);
    }
    CZPdfContentObject splitter;
    std::int32_t parts = 0;
    if (int rc =
            Step("split", splitter.SplitPdf(FromPath(letters), FromPath(dir / "letter"), &parts),
                 splitter))
        return rc;
    Say("split %s after its marker pages into %d parts: %s_1 to %s_%d\n", letters.string().c_str(),
        parts, (dir / "letter").string().c_str(), (dir / "letter").string().c_str(), parts);

    Say("demo finished: outputs are in %s\n", dir.string().c_str());
    return kExitOk;
}

}  // namespace

const Command kDemoCommand{
    "demo", "run a typical print job on sample documents it makes itself",
    "Usage: zpdf demo [DIR]\n"
    "\n"
    "Makes sample documents in DIR (default ./zpdf-demo), which must be new or\n"
    "empty, and runs the job a print engine runs on them: open, count and measure\n"
    "the pages, stamp a letterhead beneath every page, append the terms, draw page 1\n"
    "into a PNG, save, and split a print file of three letters after its marker\n"
    "pages. It says what it wrote where. No input is needed.\n",
    RunDemo};

}  // namespace zpdf::cli
