// zpdf stamp, append and replace: the page operations of a print job.
#include <cstdio>
#include <cstdlib>

#include "cli/command.h"
#include "cli/edit_session.h"
#include "cli/outputs.h"

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
    Arguments parsed({"--page", "--at", "--scale", "--letterhead-page", "-o", "--password"},
                     {"--all", "--background"});
    if (!parsed.Parse(args)) return UsageError(kStampCommand, parsed.Error());
    if (parsed.Positional().size() != 2)
        return UsageError(kStampCommand, "expected FILE LETTERHEAD");
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
    if (int rc =
            session.Begin(parsed.Positional()[0], parsed.Value("-o"), parsed.Value("--password")))
        return rc;
    if (int rc =
            RefuseOutputOverInputs(kStampCommand, session.Destination(), {parsed.Positional()[1]}))
        return rc;
    CZPdfContentObject letterhead;
    if (int rc = OpenSource(kStampCommand, letterhead, parsed.Positional()[1], std::nullopt))
        return rc;

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
        result = object.PlaceContent(form, page, x, y, sx, sy, parsed.Has("--background") ? -1 : 0);
        if (hr::Failed(result)) {
            return Failure(kStampCommand, parsed.Positional()[0] + " page " + std::to_string(page),
                           object.LastErrorText(), result);
        }
        progress.Step(page - first + 1);
    }
    if (int rc = session.Commit()) return rc;
    std::printf("stamped %d page(s) %s -> %s\n", last - first + 1,
                parsed.Has("--background") ? "beneath their content" : "above their content",
                session.Destination().string().c_str());
    return kExitOk;
}

int RunAppend(const std::vector<std::string>& args) {
    Arguments parsed({"-o", "--password"}, {});
    if (!parsed.Parse(args)) return UsageError(kAppendCommand, parsed.Error());
    if (parsed.Positional().size() != 2) return UsageError(kAppendCommand, "expected FILE SOURCE");
    EditSession session(kAppendCommand);
    if (int rc =
            session.Begin(parsed.Positional()[0], parsed.Value("-o"), parsed.Value("--password")))
        return rc;
    if (int rc =
            RefuseOutputOverInputs(kAppendCommand, session.Destination(), {parsed.Positional()[1]}))
        return rc;
    // The source is opened by the append, which reads an unencrypted one from a private copy of
    // its file alone.
    CZPdfContentObject source;
    if (const HResult set = source.SetPdfDocument(FromAnsi(parsed.Positional()[1]), 0, u"");
        hr::Failed(set))
        return Failure(kAppendCommand, parsed.Positional()[1], source.LastErrorText(), set);
    CZPdfContentObject& object = session.Object();
    const HResult result = object.AppendPages(&source);
    if (hr::Failed(result))
        return Failure(kAppendCommand, parsed.Positional()[1], object.LastErrorText(), result);
    // The document keeps what it needs of the source; the source's own tables can go.
    source.CloseDocuments();
    std::int32_t pages = 0;
    object.PageCount(&pages);
    if (int rc = session.Commit()) return rc;
    std::printf("appended %s: %d pages -> %s\n", parsed.Positional()[1].c_str(), pages,
                session.Destination().string().c_str());
    return kExitOk;
}

int RunReplace(const std::vector<std::string>& args) {
    Arguments parsed({"-o", "--password"}, {});
    if (!parsed.Parse(args)) return UsageError(kReplaceCommand, parsed.Error());
    const auto& pos = parsed.Positional();
    if (pos.size() != 5)
        return UsageError(kReplaceCommand, "expected FILE DESTPAGE SOURCE START END");
    const auto dest = ParseNumber(pos[1], -0x7FFFFFFF, 0x7FFFFFFF);
    const auto start = ParseNumber(pos[3], -0x7FFFFFFF, 0x7FFFFFFF);
    const auto end = ParseNumber(pos[4], -0x7FFFFFFF, 0x7FFFFFFF);
    if (!dest || !start || !end)
        return UsageError(kReplaceCommand, "DESTPAGE, START and END are page numbers");
    EditSession session(kReplaceCommand);
    if (int rc = session.Begin(pos[0], parsed.Value("-o"), parsed.Value("--password"))) return rc;
    if (int rc = RefuseOutputOverInputs(kReplaceCommand, session.Destination(), {pos[2]}))
        return rc;
    CZPdfContentObject source;
    if (int rc = OpenSource(kReplaceCommand, source, pos[2], std::nullopt)) return rc;
    CZPdfContentObject& object = session.Object();
    const HResult result =
        object.ReplacePages(static_cast<std::int32_t>(*dest), &source,
                            static_cast<std::int32_t>(*start), static_cast<std::int32_t>(*end));
    if (hr::Failed(result)) return Failure(kReplaceCommand, pos[0], object.LastErrorText(), result);
    std::int32_t pages = 0;
    object.PageCount(&pages);
    if (int rc = session.Commit()) return rc;
    std::printf("replaced from page %ld with pages %ld-%ld of %s: %d pages -> %s\n", *dest, *start,
                *end, pos[2].c_str(), pages, session.Destination().string().c_str());
    return kExitOk;
}

}  // namespace

const Command kStampCommand{
    "stamp", "stamp a letterhead page onto pages, as vector content",
    "Usage: zpdf stamp FILE LETTERHEAD [--page N | --all] [--at X,Y] [--scale SX[,SY]]\n"
    "                  [--background] [--letterhead-page K] [--password PW] [-o OUT]\n"
    "\n"
    "Draws page K (default 1) of LETTERHEAD onto every page of FILE (--all, the\n"
    "default) or onto page N only, as a form XObject: vector content, stored once.\n"
    "\n"
    "Options:\n"
    "  --at X,Y             where the letterhead's lower-left corner lands, in points\n"
    "                       from the page's lower-left corner (default 0,0)\n"
    "  --scale SX[,SY]      scale factors (default 1)\n"
    "  --background         draw beneath the page's content (default: above it)\n"
    "  --letterhead-page K  which page of LETTERHEAD to stamp\n"
    "  --password PW        password of FILE\n"
    "  -o OUT               write the result to OUT and leave FILE as it is; without it\n"
    "                       FILE is replaced, safely, only once the result is complete\n",
    RunStamp};

const Command kAppendCommand{"append", "append all pages of another PDF",
                             "Usage: zpdf append FILE SOURCE [--password PW] [-o OUT]\n"
                             "\n"
                             "Appends every page of SOURCE at the end of FILE.\n"
                             "\n"
                             "Options:\n"
                             "  --password PW  password of FILE\n"
                             "  -o OUT         write the result to OUT and leave FILE as it is\n",
                             RunAppend};

const Command kReplaceCommand{
    "replace", "put pages of another PDF in place of pages",
    "Usage: zpdf replace FILE DESTPAGE SOURCE START END [--password PW] [-o OUT]\n"
    "\n"
    "Inserts pages START to END of SOURCE before page DESTPAGE of FILE, then removes\n"
    "as many pages as were named, from the ones that followed. When fewer pages\n"
    "follow, only those are removed and the document grows.\n"
    "\n"
    "Options:\n"
    "  --password PW  password of FILE\n"
    "  -o OUT         write the result to OUT and leave FILE as it is\n",
    RunReplace};

}  // namespace zpdf::cli
