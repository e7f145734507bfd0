// zpdf info: the page count and the size of every page.
#include <cstdio>

#include "cli/command.h"
#include "cli/open_options.h"
#include "content_object/content_object.h"

namespace zpdf::cli {
namespace {

int RunInfo(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions({}), {"--json"});
    if (!parsed.Parse(args)) return UsageError(kInfoCommand, parsed.Error());
    if (parsed.Positional().size() != 1) return UsageError(kInfoCommand, "expected one FILE");
    const std::string& file = parsed.Positional()[0];

    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) return UsageError(kInfoCommand, *error);
    OpenedDocument opened(kInfoCommand);
    if (const int rc = opened.Open(file, open)) return rc;
    CZPdfContentObject& object = opened.Object();
    HResult result = hr::kOk;

    std::int32_t pages = 0;
    result = object.PageCount(&pages);
    if (hr::Failed(result)) return Failure(kInfoCommand, file, object.LastErrorText(), result);

    const bool json = parsed.Has("--json");
    std::string out = json ? "{\"file\": " + JsonString(file) +
                                 ", \"pages\": " + std::to_string(pages) + ", \"page_sizes\": ["
                           : "pages: " + std::to_string(pages) + "\n";
    for (std::int32_t page = 1; page <= pages; ++page) {
        double width = 0;
        double height = 0;
        result = object.GetPageSize(page, &width, &height);
        if (hr::Failed(result)) {
            return Failure(kInfoCommand, file + " page " + std::to_string(page),
                           object.LastErrorText(), result);
        }
        if (json) {
            out += std::string(page > 1 ? ", " : "") + "{\"page\": " + std::to_string(page) +
                   ", \"width\": " + FormatPoints(width) + ", \"height\": " + FormatPoints(height) +
                   "}";
        } else {
            out += "page " + std::to_string(page) + ": " + FormatPoints(width) + " x " +
                   FormatPoints(height) + " pt\n";
        }
    }
    if (json) out += "]}\n";
    std::fputs(out.c_str(), stdout);
    return kExitOk;
}

}  // namespace

const Command kInfoCommand{
    "info", "print the page count and page sizes of a PDF",
    "Usage: zpdf info FILE [--password PW | --key KEY.pem --cert CERT.pem] [--json]\n"
    "\n"
    "Opens FILE and prints its page count and the size of each page in points\n"
    "(1/72 inch), after the page's rotation:\n"
    "\n"
    "  pages: 2\n"
    "  page 1: 595 x 842 pt\n"
    "  page 2: 842 x 595 pt\n"
    "\n"
    "Options:\n"
    "  --password PW  password for an encrypted file\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                 open a file secured for certificate holders as the holder of\n"
    "                 CERT.pem, with its private key KEY.pem (PEM, unencrypted)\n"
    "  --json         print the same facts as one JSON object\n",
    RunInfo};

}  // namespace zpdf::cli
