// zpdf render: one page to a PNG file.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli/command.h"
#include "cli/edit_session.h"
#include "cli/open_options.h"
#include "cli/outputs.h"
#include "cli/streams.h"
#include "content_object/content_object.h"
#include "platform/files.h"
#include "platform/png_device_context.h"

namespace zpdf::cli {
namespace {

// Passes the drawing on to the image and shows, on a terminal, how many of its rows are done:
// a large page at a high resolution takes seconds.
class ProgressDeviceContext final : public DeviceContext {
  public:
    ProgressDeviceContext(DeviceContext& target, int rows)
        : target_(target), rows_(rows), shown_(ProgressWanted() && rows >= 2000) {}
    ~ProgressDeviceContext() override {
        if (shown_) std::fputs("\r\033[K", stderr);
    }
    bool LogicalToDevice(DevicePoint* points, int count) override {
        return target_.LogicalToDevice(points, count);
    }
    int SaveState() override { return target_.SaveState(); }
    bool RestoreState(int token) override { return target_.RestoreState(token); }
    bool SetTextMapping() override { return target_.SetTextMapping(); }
    std::optional<DeviceRect> ClipBox() override { return target_.ClipBox(); }
    bool DrawBgra(std::int32_t x, std::int32_t y, int width, int height, const std::uint8_t* pixels,
                  std::ptrdiff_t stride) override {
        const bool drawn = target_.DrawBgra(x, y, width, height, pixels, stride);
        done_ += height;
        if (shown_) {
            std::fprintf(stderr, "\rdrawing row %d/%d", std::min(done_, rows_), rows_);
            std::fflush(stderr);
        }
        return drawn;
    }

  private:
    DeviceContext& target_;
    int rows_;
    bool shown_;
    int done_ = 0;
};

int RunRender(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions({"--dpi"}), {});
    if (!parsed.Parse(args)) return UsageError(kRenderCommand, parsed.Error());
    if (parsed.Positional().size() != 3)
        return UsageError(kRenderCommand, "expected FILE PAGE OUT.png");
    const std::string& file = parsed.Positional()[0];
    const std::string& out = parsed.Positional()[2];
    const auto page = ParseNumber(parsed.Positional()[1], 1, 0x7FFFFFFF);
    if (!page) return UsageError(kRenderCommand, "PAGE must be a page number from 1 on");
    const auto dpi = ParseNumber(parsed.Value("--dpi").value_or("150"), 1, 4800);
    if (!dpi) return UsageError(kRenderCommand, "--dpi must be a whole number from 1 to 4800");
    if (int rc = RefuseOutputOverInputs(kRenderCommand, ToPath(FromAnsi(out)), {file})) return rc;

    // "-" reads the document from standard input and writes the image to standard output.
    StreamFile input;
    StreamFile output;
    std::string path = file;
    if (IsStandardStream(file)) {
        if (const int error = input.ReadStandardInput())
            return Failure(kRenderCommand, "standard input", "cannot read it",
                           hr::FromWin32(error));
        path = input.Name();
    }
    std::string image = out;
    if (IsStandardStream(out)) {
        if (const int error = output.ForStandardOutput()) {
            return Failure(kRenderCommand, "standard output", "cannot make its temporary file",
                           hr::FromWin32(error));
        }
        image = output.Name();
    }
    const std::string shown_in = IsStandardStream(file) ? "standard input" : file;
    const std::string shown_out = IsStandardStream(out) ? "standard output" : out;

    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) return UsageError(kRenderCommand, *error);
    OpenedDocument opened(kRenderCommand);
    if (const int rc = opened.Open(path, open)) return rc;
    CZPdfContentObject& object = opened.Object();
    HResult result = hr::kOk;

    double width_pt = 0;
    double height_pt = 0;
    result = object.GetPageSize(static_cast<std::int32_t>(*page), &width_pt, &height_pt);
    if (hr::Failed(result))
        return Failure(kRenderCommand, shown_in, object.LastErrorText(), result);
    const double width_px = std::ceil(width_pt * static_cast<double>(*dpi) / 72.0);
    const double height_px = std::ceil(height_pt * static_cast<double>(*dpi) / 72.0);
    if (width_px < 1 || height_px < 1 || width_px > 1e6 || height_px > 1e6) {
        return Failure(kRenderCommand, shown_in,
                       "the page is too small or too large to draw at this resolution",
                       hr::kInvalidArg);
    }

    PngDeviceContext png;
    const int w = static_cast<int>(width_px);
    const int h = static_cast<int>(height_px);
    if (const int error = png.Open(ToPath(FromAnsi(image)), w, h, static_cast<int>(*dpi))) {
        return Failure(kRenderCommand, shown_out, "cannot create the file: " + fs::ErrorText(error),
                       hr::FromWin32(error));
    }
    {
        ProgressDeviceContext drawing(png, h);
        result = object.DrawPageToDC(drawing, static_cast<std::int32_t>(*page), 0, 0, w, h, 0, 0, 0,
                                     0, 0);
    }
    if (hr::Failed(result))
        return Failure(kRenderCommand, shown_in, object.LastErrorText(), result);
    if (const int error = png.Finish()) {
        return Failure(kRenderCommand, shown_out, "cannot write the file: " + fs::ErrorText(error),
                       hr::FromWin32(error));
    }
    if (IsStandardStream(out)) {
        if (const int error = output.WriteStandardOutput())
            return Failure(kRenderCommand, shown_out, "cannot write it", hr::FromWin32(error));
    }
    Say("page %ld of %s: %d x %d pixels at %ld dpi -> %s\n", *page, shown_in.c_str(), w, h, *dpi,
        shown_out.c_str());
    return kExitOk;
}

}  // namespace

const Command kRenderCommand{
    "render", "draw one page into a PNG file",
    "Usage: zpdf render FILE PAGE OUT.png [--dpi N]\n"
    "                                 [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "\n"
    "Draws page PAGE (from 1) of FILE as it prints, annotations included, into the\n"
    "PNG file OUT.png. The image is drawn and written in bands, so memory stays\n"
    "small even at high resolutions.\n"
    "\n"
    "FILE '-' reads the document from standard input; OUT.png '-' writes the image\n"
    "to standard output.\n"
    "\n"
    "Options:\n"
    "  --dpi N        resolution in dots per inch (default 150)\n"
    "  --password PW  password for an encrypted file\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                 open a file secured for certificate holders as the holder of\n"
    "                 CERT.pem, with its private key KEY.pem (PEM, unencrypted)\n",
    RunRender};

}  // namespace zpdf::cli
