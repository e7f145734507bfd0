// zpdf stamp, append and replace: the page operations of a print job.
#include <cstdio>
#include <cstdlib>

#include "cli/command.h"
#include "cli/edit_session.h"
#include "cli/open_options.h"
#include "cli/outputs.h"
#include "cli/page_selection.h"

namespace zpdf::cli {
namespace {

// "X,Y" or "S" (both the same) into two numbers.
bool ParsePair(const std::string& text, bool allow_single, float* a, float* b) {
    char* end = nullptr;
    *a = std::strtof(text.c_str(), &end);
    if (end == text.c_str()) return false;
    if (*end == '\0' && allow_single) {
        *b = *a;
        return true;
    }
    if (*end != ',') return false;
    const char* second = end + 1;
    *b = std::strtof(second, &end);
    return end != second && *end == '\0';
}

int RunStamp(const std::vector<std::string>& args) {
    Arguments parsed(
        WithOpenOptions(WithOpenOptions({"--page", "--at", "--scale", "--letterhead-page", "-o"}),
                        "--letterhead-"),
        {"--all", "--background"});
    if (!parsed.Parse(args)) return UsageError(kStampCommand, parsed.Error());
    if (parsed.Positional().size() != 2)
        return UsageError(kStampCommand, "expected FILE LETTERHEAD");
    OpenOptions file_open;
    if (auto error = ReadOpenOptions(parsed, &file_open)) return UsageError(kStampCommand, *error);
    OpenOptions letterhead_open;
    if (auto error = ReadOpenOptions(parsed, &letterhead_open, "--letterhead-"))
        return UsageError(kStampCommand, *error);
    if (parsed.Has("--page") && parsed.Has("--all"))
        return UsageError(kStampCommand, "--page and --all exclude each other");
    float x = 0;
    float y = 0;
    float sx = 1;
    float sy = 1;
    if (auto at = parsed.Value("--at"); at && !ParsePair(*at, false, &x, &y)) {
        return UsageError(kStampCommand, "--at takes X,Y in points");
    }
    if (auto scale = parsed.Value("--scale"); scale && !ParsePair(*scale, true, &sx, &sy)) {
        return UsageError(kStampCommand, "--scale takes SX or SX,SY");
    }
    if (const auto problem = PlacementValueProblem(x, y, sx, sy))
        return UsageError(kStampCommand, *problem);
    const auto letterhead_page =
        ParseNumber(parsed.Value("--letterhead-page").value_or("1"), 1, 0x7FFFFFFF);
    if (!letterhead_page)
        return UsageError(kStampCommand, "--letterhead-page takes a page number from 1 on");
    std::optional<long> only_page;
    if (auto page = parsed.Value("--page")) {
        only_page = ParseNumber(*page, 1, 0x7FFFFFFF);
        if (!only_page) return UsageError(kStampCommand, "--page takes a page number from 1 on");
    }

    EditSession session(kStampCommand);
    if (int rc = session.Begin(parsed.Positional()[0], parsed.Value("-o"), file_open)) return rc;
    if (int rc =
            RefuseOutputOverInputs(kStampCommand, session.Destination(), {parsed.Positional()[1]}))
        return rc;
    OpenedDocument opened_letterhead(kStampCommand);
    if (int rc = opened_letterhead.Open(parsed.Positional()[1], letterhead_open)) return rc;
    CZPdfContentObject& letterhead = opened_letterhead.Object();

    CZPdfContentObject& object = session.Object();
    std::vector<std::uint32_t> forms;
    HResult result = object.ImportContent(&letterhead, &forms);
    if (hr::Failed(result))
        return Failure(kStampCommand, parsed.Positional()[1], object.LastErrorText(), result);
    if (static_cast<std::size_t>(*letterhead_page) > forms.size()) {
        return Failure(kStampCommand, parsed.Positional()[1],
                       "it has no page " + std::to_string(*letterhead_page), hr::kInvalidArg);
    }
    const std::uint32_t form = forms[static_cast<std::size_t>(*letterhead_page - 1)];
    if (form == 0) {
        return Failure(kStampCommand, parsed.Positional()[1],
                       "page " + std::to_string(*letterhead_page) + " has no content to stamp",
                       hr::kInvalidArg);
    }

    std::int32_t pages = 0;
    result = object.PageCount(&pages);
    if (hr::Failed(result))
        return Failure(kStampCommand, parsed.Positional()[0], object.LastErrorText(), result);
    const std::int32_t first = only_page ? static_cast<std::int32_t>(*only_page) : 1;
    const std::int32_t last = only_page ? first : pages;
    Progress progress("stamping page", last - first + 1);
    for (std::int32_t page = first; page <= last; ++page) {
        // --at counts from the visible box's lower-left corner; the placement takes user space.
        engine::PageGeometry geometry;
        result = object.GetPageGeometry(page, &geometry);
        if (hr::Failed(result)) {
            return Failure(kStampCommand, parsed.Positional()[0] + " page " + std::to_string(page),
                           object.LastErrorText(), result);
        }
        const auto user_x = static_cast<float>(geometry.visible.x0 + x);
        const auto user_y = static_cast<float>(geometry.visible.y0 + y);
        if (const auto problem = PlacementValueProblem(user_x, user_y, sx, sy)) {
            return Failure(kStampCommand, parsed.Positional()[0] + " page " + std::to_string(page),
                           *problem, hr::kInvalidArg);
        }
        result = object.PlaceContent(form, page, user_x, user_y, sx, sy,
                                     parsed.Has("--background") ? -1 : 0);
        if (hr::Failed(result)) {
            return Failure(kStampCommand, parsed.Positional()[0] + " page " + std::to_string(page),
                           object.LastErrorText(), result);
        }
        progress.Step(page - first + 1);
    }
    if (int rc = session.Commit()) return rc;
    Say("stamped %d page(s) %s -> %s\n", last - first + 1,
        parsed.Has("--background") ? "beneath their content" : "above their content",
        session.DestinationName().c_str());
    return kExitOk;
}

// One document whose pages an append takes: its name and the options that followed it.
struct AppendSource {
    std::string file;
    std::optional<std::string> pages;
    OpenOptions open;
};

// FILE [--password PW] SOURCE [--pages R] [--password PW | --key K --cert C] [SOURCE ...]
// [-o OUT]: an option belongs to the file named before it. False and an error text when the
// arguments do not parse.
bool ParseAppend(const std::vector<std::string>& args, std::vector<AppendSource>* files,
                 std::optional<std::string>* output, std::string* error) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        if (name == "-q" || name == "--quiet" || name == "-v" || name == "--verbose") {
            const bool quiet = name == "-q" || name == "--quiet";
            SetVerbosity(quiet ? Verbosity::kQuiet : Verbosity::kVerbose);
            continue;
        }
        if (name == "-" || name.empty() || name[0] != '-') {
            files->push_back({name, std::nullopt, {}});
            continue;
        }
        std::optional<std::string> value;
        if (const auto eq = name.find('='); eq != std::string::npos && name.rfind("--", 0) == 0) {
            value = name.substr(eq + 1);
            name.resize(eq);
        }
        if (name != "-o" && name != "--pages" && name != "--password" && name != "--key" &&
            name != "--cert") {
            *error = "unknown option " + args[i];
            return false;
        }
        if (!value) {
            if (i + 1 >= args.size()) {
                *error = name + " needs a value";
                return false;
            }
            value = args[++i];
        }
        if (name == "-o") {
            *output = *value;
        } else if (files->empty()) {
            *error = name + " follows the file it applies to";
            return false;
        } else if (name == "--pages") {
            if (files->size() == 1) {
                *error = "--pages applies to a SOURCE, not to FILE";
                return false;
            }
            files->back().pages = *value;
        } else if (name == "--password") {
            files->back().open.password = *value;
        } else if (name == "--key") {
            files->back().open.key = *value;
        } else {
            files->back().open.cert = *value;
        }
    }
    if (files->size() < 2) {
        *error = "expected FILE and at least one SOURCE";
        return false;
    }
    for (const AppendSource& file : *files) {
        if (file.open.key.has_value() != file.open.cert.has_value()) {
            *error = file.file + ": --key and --cert go together";
            return false;
        }
        if (file.open.key && file.open.password) {
            *error = file.file + ": --password and --key open different kinds of files; give one";
            return false;
        }
    }
    if (const auto refused = RefuseRecipientInPlace(files->front().open, *output)) {
        *error = *refused;
        return false;
    }
    return true;
}

int RunAppend(const std::vector<std::string>& args) {
    std::vector<AppendSource> files;
    std::optional<std::string> output;
    std::string error;
    if (!ParseAppend(args, &files, &output, &error)) return UsageError(kAppendCommand, error);
    // A selection that cannot be right for any document is refused before anything is opened.
    for (const AppendSource& source : files) {
        if (!source.pages) continue;
        if (const auto check = ParsePageSelection(*source.pages, kUnknownPageCount);
            !check.error.empty())
            return UsageError(kAppendCommand, source.file + ": --pages: " + check.error);
    }

    EditSession session(kAppendCommand);
    if (int rc = session.Begin(files[0].file, output, files[0].open)) return rc;
    {
        // None of the sources is the output, under any name.
        std::vector<std::string> sources;
        for (std::size_t i = 1; i < files.size(); ++i) sources.push_back(files[i].file);
        if (int rc = RefuseOutputOverInputs(kAppendCommand, session.Destination(), sources))
            return rc;
    }
    CZPdfContentObject& object = session.Object();
    const std::size_t count = files.size() - 1;
    Progress progress("appending source", static_cast<long>(count));
    for (std::size_t i = 1; i < files.size(); ++i) {
        const AppendSource& source = files[i];
        // A certificate holder's source is read from a plain temporary copy of it.
        ReadableFile readable(kAppendCommand);
        if (int rc = readable.Make(source.file, source.open)) return rc;
        CZPdfContentObject document;
        HResult result = hr::kOk;
        if (!source.pages) {
            // A whole source is taken in when the result is written, read from a private copy
            // of its file alone.
            result = document.SetPdfDocument(readable.Path(), 0, readable.Password());
            if (hr::Failed(result))
                return Failure(kAppendCommand, source.file, document.LastErrorText(), result);
            result = object.AppendPages(&document);
        } else {
            result = document.SetPdfDocument(readable.Path(), 0, readable.Password());
            if (hr::Succeeded(result)) result = document.EnsurePdfDocument();
            if (hr::Failed(result))
                return Failure(kAppendCommand, source.file, document.LastErrorText(), result);
            std::int32_t pages = 0;
            result = document.PageCount(&pages);
            if (hr::Failed(result))
                return Failure(kAppendCommand, source.file, document.LastErrorText(), result);
            const PageSelection selection = ParsePageSelection(*source.pages, pages);
            if (!selection.error.empty())
                return UsageError(kAppendCommand, source.file + ": --pages: " + selection.error);
            std::int32_t own = 0;
            result = object.PageCount(&own);
            if (hr::Succeeded(result))
                result = object.InsertSelectedPages(own + 1, &document, selection.pages, false);
        }
        if (hr::Failed(result))
            return Failure(kAppendCommand, source.file, object.LastErrorText(), result);
        // The document keeps what it needs of the source; the source's own tables can go.
        document.CloseDocuments();
        progress.Step(static_cast<long>(i));
    }
    std::int32_t pages = 0;
    object.PageCount(&pages);
    if (int rc = session.Commit()) return rc;
    Say("appended %zu source(s): %d pages -> %s\n", count, pages,
        session.DestinationName().c_str());
    return kExitOk;
}

int RunReplace(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions(WithOpenOptions({"-o", "--pages"}), "--source-"), {});
    if (!parsed.Parse(args)) return UsageError(kReplaceCommand, parsed.Error());
    OpenOptions file_open;
    if (auto error = ReadOpenOptions(parsed, &file_open))
        return UsageError(kReplaceCommand, *error);
    OpenOptions source_open;
    if (auto error = ReadOpenOptions(parsed, &source_open, "--source-"))
        return UsageError(kReplaceCommand, *error);
    const auto& pos = parsed.Positional();
    const bool by_numbers = pos.size() == 5;
    if (!(by_numbers || pos.size() == 3))
        return UsageError(kReplaceCommand, "expected FILE DESTPAGE SOURCE [START END]");
    if (by_numbers && parsed.Has("--pages"))
        return UsageError(kReplaceCommand, "give START END or --pages, not both");
    const auto dest = ParseNumber(pos[1], -0x7FFFFFFF, 0x7FFFFFFF);
    const auto start = by_numbers ? ParseNumber(pos[3], -0x7FFFFFFF, 0x7FFFFFFF) : 0L;
    const auto end = by_numbers ? ParseNumber(pos[4], -0x7FFFFFFF, 0x7FFFFFFF) : 0L;
    if (!dest || !start || !end)
        return UsageError(kReplaceCommand, "DESTPAGE, START and END are page numbers");
    const std::string selection_text = parsed.Value("--pages").value_or("1-z");
    if (const auto check = ParsePageSelection(selection_text, kUnknownPageCount);
        !check.error.empty())
        return UsageError(kReplaceCommand, "--pages: " + check.error);

    EditSession session(kReplaceCommand);
    if (int rc = session.Begin(pos[0], parsed.Value("-o"), file_open)) return rc;
    if (int rc = RefuseOutputOverInputs(kReplaceCommand, session.Destination(), {pos[2]}))
        return rc;
    OpenedDocument opened_source(kReplaceCommand);
    if (int rc = opened_source.Open(pos[2], source_open)) return rc;
    CZPdfContentObject& source = opened_source.Object();
    CZPdfContentObject& object = session.Object();
    HResult result = hr::kOk;
    std::string what;
    if (by_numbers) {
        // The component's own call, with its own rules for the numbers.
        result =
            object.ReplacePages(static_cast<std::int32_t>(*dest), &source,
                                static_cast<std::int32_t>(*start), static_cast<std::int32_t>(*end));
        what = "pages " + std::to_string(*start) + "-" + std::to_string(*end);
    } else {
        std::int32_t source_pages = 0;
        result = source.PageCount(&source_pages);
        if (hr::Failed(result))
            return Failure(kReplaceCommand, pos[2], source.LastErrorText(), result);
        const PageSelection selection = ParsePageSelection(selection_text, source_pages);
        if (!selection.error.empty())
            return UsageError(kReplaceCommand, pos[2] + ": --pages: " + selection.error);
        result = object.InsertSelectedPages(static_cast<std::int32_t>(*dest), &source,
                                            selection.pages, true);
        what = "pages " + selection_text;
    }
    if (hr::Failed(result)) return Failure(kReplaceCommand, pos[0], object.LastErrorText(), result);
    std::int32_t pages = 0;
    object.PageCount(&pages);
    if (int rc = session.Commit()) return rc;
    Say("replaced from page %ld with %s of %s: %d pages -> %s\n", *dest, what.c_str(),
        pos[2].c_str(), pages, session.DestinationName().c_str());
    return kExitOk;
}

}  // namespace

const Command kStampCommand{
    "stamp", "stamp a letterhead page onto pages, as vector content",
    "Usage: zpdf stamp FILE LETTERHEAD [--page N | --all] [--at X,Y] [--scale SX[,SY]]\n"
    "                  [--background] [--letterhead-page K]\n"
    "                  [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "                  [--letterhead-password PW |\n"
    "                   --letterhead-key KEY.pem --letterhead-cert CERT.pem] [-o OUT]\n"
    "\n"
    "Draws page K (default 1) of LETTERHEAD onto every page of FILE (--all, the\n"
    "default) or onto page N only, as a form XObject: vector content, stored once.\n"
    "\n"
    "Options:\n"
    "  --at X,Y             where the letterhead's lower-left corner lands, in points\n"
    "                       from the lower-left corner of the page's visible box (the\n"
    "                       CropBox clipped to the MediaBox), before the page's\n"
    "                       rotation (default 0,0)\n"
    "  --scale SX[,SY]      scale factors (default 1)\n"
    "  --background         draw beneath the page's content (default: above it)\n"
    "  --letterhead-page K  which page of LETTERHEAD to stamp\n"
    "  --password PW        password of FILE\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                       open FILE, secured for certificate holders, as the\n"
    "                       holder of CERT.pem with its private key KEY.pem (PEM,\n"
    "                       unencrypted); with -o only: the result is written to OUT\n"
    "                       without encryption\n"
    "  --letterhead-password PW  password of LETTERHEAD\n"
    "  --letterhead-key KEY.pem --letterhead-cert CERT.pem\n"
    "                       open LETTERHEAD, secured for certificate holders, as the\n"
    "                       holder of CERT.pem with its private key KEY.pem\n"
    "  -o OUT               write the result to OUT and leave FILE as it is; without it\n"
    "                       FILE is replaced, safely, only once the result is complete.\n"
    "                       '-o -' writes it to standard output; FILE '-' reads standard\n"
    "                       input (with -o only)\n",
    RunStamp};

const Command kAppendCommand{
    "append", "append pages of other PDFs",
    "Usage: zpdf append FILE [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "                   SOURCE [--pages RANGE]\n"
    "                   [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "                   [SOURCE [--pages RANGE] [--password PW | --key K --cert C]]...\n"
    "                   [-o OUT]\n"
    "\n"
    "Appends the pages of each SOURCE, in the order given, at the end of FILE. The\n"
    "options --pages, --password, --key and --cert belong to the file named just\n"
    "before them.\n"
    "\n"
    "Options:\n"
    "  --pages RANGE  the SOURCE's pages to take, in the order written (default: all):\n"
    "                 N, z (last page), rN (Nth from the end), A-B (backwards when A\n"
    "                 is after B: 5-1, z-1), items separated by commas, and :odd or\n"
    "                 :even after an item for every other page of it; e.g. 1-3,5,z,r2\n"
    "  --password PW  password of FILE, or of the SOURCE it follows\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                 open the file they follow, secured for certificate holders, as\n"
    "                 the holder of CERT.pem with its private key KEY.pem (PEM,\n"
    "                 unencrypted); after FILE with -o only: the result is written to\n"
    "                 OUT without encryption\n"
    "  -o OUT         write the result to OUT and leave FILE as it is ('-o -':\n"
    "                 standard output; FILE '-' reads standard input, with -o only)\n",
    RunAppend};

const Command kReplaceCommand{
    "replace", "put pages of another PDF in place of pages",
    "Usage: zpdf replace FILE DESTPAGE SOURCE [START END | --pages RANGE]\n"
    "                    [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "                    [--source-password PW |\n"
    "                     --source-key KEY.pem --source-cert CERT.pem] [-o OUT]\n"
    "\n"
    "Inserts pages of SOURCE before page DESTPAGE of FILE, then removes as many\n"
    "pages as were inserted, from the ones that followed. When fewer pages follow,\n"
    "only those are removed and the document grows. The pages are START to END, or\n"
    "those --pages selects, or all of SOURCE when neither is given. What the removed\n"
    "pages used and no other page uses (their content, images, annotations) is not\n"
    "written.\n"
    "\n"
    "Options:\n"
    "  --pages RANGE         as for append: 1-3,5,z,r1, 5-1 (backwards), 2-z:even\n"
    "  --password PW         password of FILE\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                        open FILE, secured for certificate holders, as the\n"
    "                        holder of CERT.pem with its private key KEY.pem (PEM,\n"
    "                        unencrypted); with -o only: the result is written to OUT\n"
    "                        without encryption\n"
    "  --source-password PW  password of SOURCE\n"
    "  --source-key KEY.pem --source-cert CERT.pem\n"
    "                        open SOURCE, secured for certificate holders, likewise\n"
    "  -o OUT                write the result to OUT and leave FILE as it is\n"
    "                        ('-o -': standard output)\n",
    RunReplace};

}  // namespace zpdf::cli
