// zpdf split: cuts a PDF after every page that carries the part-end marker.
#include <chrono>
#include <cstdio>

#if defined(_WIN32)
#include <io.h>
#define ZPDF_ISATTY(f) _isatty(_fileno(f))
#else
#include <unistd.h>
#define ZPDF_ISATTY(f) ::isatty(::fileno(f))
#endif

#include "cli/command.h"
#include "cli/edit_session.h"
#include "cli/open_options.h"
#include "cli/page_selection.h"
#include "cli/streams.h"
#include "content_object/content_object.h"
#include "platform/files.h"

namespace zpdf::cli {
namespace {

// Files of at least this many pages show their progress (on a terminal only).
constexpr int kProgressFromPages = 200;

std::string PageRange(int first, int last) {
    return first == last ? "page " + std::to_string(first)
                         : "pages " + std::to_string(first) + "-" + std::to_string(last);
}

class SplitReport final : public CZPdfContentObject::SplitObserver {
  public:
    // `progress`: standard error is a terminal; `shared`: standard output goes to it as well.
    SplitReport(bool progress, bool shared) : progress_(progress), shared_(shared) {}

    void PageExamined(int examined, int pages) override {
        if (!progress_ || pages < kProgressFromPages) return;
        const auto now = std::chrono::steady_clock::now();
        if (shown_ && examined + 1 < pages && now - last_shown_ < std::chrono::milliseconds(100))
            return;
        std::fprintf(stderr, "\rexamining page %d of %d", examined, pages);
        std::fflush(stderr);
        shown_ = true;
        last_shown_ = now;
    }

    void PartWritten(int /*number*/, int first_page, int last_page,
                     const std::filesystem::path& file) override {
        if (shared_) EraseProgress();
        std::printf("%s: %s\n", file.string().c_str(), PageRange(first_page, last_page).c_str());
        std::fflush(stdout);
    }

    void EraseProgress() {
        if (!shown_) return;
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        shown_ = false;
    }

  private:
    bool progress_;
    bool shared_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_shown_;
};

int RunSplit(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions({"--ext", "--outdir", "--pages"}), {});
    if (!parsed.Parse(args)) return UsageError(kSplitCommand, parsed.Error());
    if (parsed.Positional().size() != 2) return UsageError(kSplitCommand, "expected FILE PREFIX");
    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) return UsageError(kSplitCommand, *error);
    const std::string& file = parsed.Positional()[0];
    std::u16string prefix = FromAnsi(parsed.Positional()[1]);

    CZPdfContentObject::SplitOptions options;
    options.password = parsed.Value("--password");
    if (auto ext = parsed.Value("--ext")) {
        if (ext->find_first_of("/\\") != std::string::npos)
            return UsageError(kSplitCommand, "--ext takes an extension, not a path");
        if (!ext->empty() && (*ext)[0] != '.') ext = std::string(1, '.') + *ext;
        options.extension = FromAnsi(*ext);
    }
    if (auto dir = parsed.Value("--outdir")) {
        if (dir->empty()) return UsageError(kSplitCommand, "--outdir needs a folder");
        const std::filesystem::path folder = ToPath(FromAnsi(*dir));
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) {
            return Failure(kSplitCommand, *dir, "cannot create the folder: " + error.message(),
                           hr::FromWin32(fs::Win32ErrorFromErrorCode(error)));
        }
        prefix = FromPath(folder / ToPath(prefix));
    }

    if (auto text = parsed.Value("--pages")) {
        if (const auto check = ParsePageSelection(*text, kUnknownPageCount); !check.error.empty())
            return UsageError(kSplitCommand, "--pages: " + check.error);
    }

    // A certificate holder's FILE is split from a plain temporary copy of it.
    ReadableFile readable(kSplitCommand);
    if (int rc = readable.Make(file, open)) return rc;
    std::u16string source = readable.Path();
    if (open.ForRecipient()) options.password.reset();
    // A selection is split as a document of its own, made in a temporary file.
    StreamFile selected;
    if (auto text = parsed.Value("--pages")) {
        CZPdfContentObject whole;
        HResult opened = whole.SetPdfDocument(source, 0, readable.Password());
        if (hr::Succeeded(opened)) opened = whole.EnsurePdfDocument();
        if (hr::Failed(opened)) return Failure(kSplitCommand, file, whole.LastErrorText(), opened);
        std::int32_t count = 0;
        HResult result = whole.PageCount(&count);
        if (hr::Failed(result)) return Failure(kSplitCommand, file, whole.LastErrorText(), result);
        const PageSelection selection = ParsePageSelection(*text, count);
        if (!selection.error.empty())
            return UsageError(kSplitCommand, "--pages: " + selection.error);
        if (const int error = selected.MakeTemporary())
            return Failure(kSplitCommand, file, "cannot make a temporary file",
                           hr::FromWin32(error));
        result = whole.KeepSelectedPages(selection.pages);
        if (hr::Succeeded(result)) result = whole.SaveTo(selected.Path());
        if (hr::Failed(result)) return Failure(kSplitCommand, file, whole.LastErrorText(), result);
        source = FromPath(selected.Path());
    }

    CZPdfContentObject object;
    SplitReport report(ProgressWanted(), ZPDF_ISATTY(stdout) != 0);
    std::int32_t parts = 0;
    const HResult result = object.SplitPdf(source, prefix, &parts, &report, &options);
    report.EraseProgress();
    if (hr::Failed(result)) {
        std::string reason = object.LastErrorText();
        if (parts > 0) reason += "; " + std::to_string(parts) + " parts were written before";
        return Failure(kSplitCommand, file, reason, result);
    }
    if (parts == 0) {
        std::puts("0 parts: no page before the last one carries the marker, nothing written");
    } else {
        std::printf("%d parts\n", parts);
    }
    return kExitOk;
}

}  // namespace

const Command kSplitCommand{
    "split", "cut a PDF after every page that carries the marker @@nd@@",
    "Usage: zpdf split FILE PREFIX [--pages RANGE] [--ext .pdf] [--outdir DIR]\n"
    "                  [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "\n"
    "Cuts FILE into parts: a part ends after every page whose text holds \"@@nd@@\"\n"
    "(case-sensitive, anywhere in the page's text); the last page always ends the\n"
    "last part. The parts are written as PREFIX_1, PREFIX_2, ... (no extension is\n"
    "added unless --ext asks), each a new PDF of exactly its pages, written whole or\n"
    "not at all. When no page before the last carries the marker, nothing is\n"
    "written. Prints each part's name and page range, then the count:\n"
    "\n"
    "  out/job_1: pages 1-3\n"
    "  out/job_2: page 4\n"
    "  2 parts\n"
    "\n"
    "Long files show their progress on standard error when it is a terminal.\n"
    "\n"
    "Options:\n"
    "  --pages RANGE  split only these pages, taken in this order as if they were\n"
    "                 the file (1-3,5,z,r1 as for append); the page numbers printed\n"
    "                 count within the selection\n"
    "  --ext EXT      add EXT to every part's name (\".pdf\" or \"pdf\": PREFIX_1.pdf)\n"
    "  --outdir DIR   write the parts into DIR (made when missing): DIR/PREFIX_1...\n"
    "  --password PW  password of FILE; the parts are written without encryption\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                 open FILE, secured for certificate holders, as the holder of\n"
    "                 CERT.pem with its private key KEY.pem (PEM, unencrypted); the\n"
    "                 parts are written without encryption\n",
    RunSplit};

}  // namespace zpdf::cli
