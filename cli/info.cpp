// zpdf info: version, encryption, page count, and each page's size, rotation and boxes.
#include <algorithm>
#include <cstdio>

#include "cli/command.h"
#include "cli/open_options.h"
#include "cli/page_selection.h"
#include "cli/streams.h"
#include "content_object/content_object.h"
#include "engine/security/pubkey_open.h"
#include "platform/files.h"

namespace zpdf::cli {
namespace {

std::string BoxText(const engine::Box& box) {
    return FormatPoints(box.x0) + " " + FormatPoints(box.y0) + " " + FormatPoints(box.x1) + " " +
           FormatPoints(box.y1);
}

std::string BoxJson(const engine::Box& box) {
    std::string json(1, '[');
    json += FormatPoints(box.x0) + ", " + FormatPoints(box.y0) + ", " + FormatPoints(box.x1) +
            ", " + FormatPoints(box.y1) + "]";
    return json;
}

std::string EncryptionText(const engine::EncryptionFacts& facts) {
    if (!facts.encrypted) return "none";
    if (facts.filter == "certificate") return facts.filter;
    std::string text = facts.method + " (" + facts.filter + ", V" + std::to_string(facts.version);
    if (facts.filter == "Standard") {
        text += ", R" + std::to_string(facts.revision);
    } else if (facts.recipients >= 0) {
        text += ", " + std::to_string(facts.recipients) + " recipient(s)";
    }
    return text + ")";
}

std::string EncryptionJson(const engine::EncryptionFacts& facts) {
    if (!facts.encrypted) return "null";
    if (facts.filter == "certificate")
        return "{\"filter\": \"certificate\", \"method\": null, \"recipients\": null}";
    std::string json = "{\"filter\": " + JsonString(facts.filter) +
                       ", \"method\": " + JsonString(facts.method) +
                       ", \"version\": " + std::to_string(facts.version);
    if (facts.filter == "Standard") {
        json += ", \"revision\": " + std::to_string(facts.revision);
    } else {
        json += ", \"recipients\": " +
                (facts.recipients >= 0 ? std::to_string(facts.recipients) : std::string("null"));
    }
    return json + "}";
}

// The page's line: size after rotation, the rotation when there is one, the MediaBox, and each
// other box only where it differs from the one it defaults to.
std::string PageText(int page, const engine::PageGeometry& g) {
    std::string line = "page " + std::to_string(page) + ": " + FormatPoints(g.Width()) + " x " +
                       FormatPoints(g.Height()) + " pt";
    if (g.rotation != 0) line += ", rotated " + std::to_string(g.rotation);
    line += ", MediaBox " + BoxText(g.media);
    if (g.crop != g.media) line += ", CropBox " + BoxText(g.crop);
    if (g.bleed != g.crop) line += ", BleedBox " + BoxText(g.bleed);
    if (g.trim != g.crop) line += ", TrimBox " + BoxText(g.trim);
    if (g.art != g.crop) line += ", ArtBox " + BoxText(g.art);
    return line + "\n";
}

std::string PageJson(int page, const engine::PageGeometry& g) {
    return "{\"page\": " + std::to_string(page) + ", \"width\": " + FormatPoints(g.Width()) +
           ", \"height\": " + FormatPoints(g.Height()) +
           ", \"rotation\": " + std::to_string(g.rotation) +
           ", \"media_box\": " + BoxJson(g.media) + ", \"crop_box\": " + BoxJson(g.crop) +
           ", \"bleed_box\": " + BoxJson(g.bleed) + ", \"trim_box\": " + BoxJson(g.trim) +
           ", \"art_box\": " + BoxJson(g.art) + "}";
}

// The encryption of a file secured for certificate holders, read from the file itself; when
// that fails after the file was opened, only that it is secured for certificate holders.
engine::EncryptionFacts RecipientEncryption(const std::string& file) {
    std::FILE* source = fs::OpenFile(ToPath(FromAnsi(file)), "rb");
    if (source != nullptr) {
        try {
            const engine::EncryptionFacts facts = engine::ReadRecipientEncryption(source);
            std::fclose(source);
            return facts;
        } catch (const std::exception&) {
            std::fclose(source);
        }
    }
    engine::EncryptionFacts facts;
    facts.encrypted = true;
    facts.filter = "certificate";
    facts.method = "unknown";
    facts.recipients = -1;
    return facts;
}

int RunInfo(const std::vector<std::string>& args) {
    for (const std::string& arg : args) {
        if (arg == "--json") SetJsonErrors(true);
    }
    Arguments parsed(WithOpenOptions({"--pages"}), {"--json"});
    if (!parsed.Parse(args)) return UsageError(kInfoCommand, parsed.Error());
    if (parsed.Positional().size() != 1) return UsageError(kInfoCommand, "expected one FILE");
    const std::string& file = parsed.Positional()[0];
    if (auto pages = parsed.Value("--pages")) {
        if (const auto check = ParsePageSelection(*pages, kUnknownPageCount); !check.error.empty())
            return UsageError(kInfoCommand, "--pages: " + check.error);
    }

    StreamFile input;
    std::string path = file;
    if (IsStandardStream(file)) {
        if (const int error = input.ReadStandardInput())
            return Failure(kInfoCommand, "standard input", "cannot read it", hr::FromWin32(error));
        path = input.Name();
    }
    const std::string shown = IsStandardStream(file) ? "standard input" : file;

    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) return UsageError(kInfoCommand, *error);
    OpenedDocument opened(kInfoCommand);
    if (const int rc = opened.Open(path, open)) return rc;
    CZPdfContentObject& object = opened.Object();
    HResult result = hr::kOk;
    std::int32_t pages = 0;
    std::string version;
    engine::EncryptionFacts encryption;
    if (hr::Succeeded(result)) result = object.PageCount(&pages);
    if (hr::Succeeded(result)) result = object.GetPdfVersion(&version);
    if (hr::Succeeded(result)) result = object.GetEncryption(&encryption);
    if (hr::Failed(result)) return Failure(kInfoCommand, shown, object.LastErrorText(), result);
    // A holder's key opens a plain copy: the encryption is read from the file itself.
    if (open.ForRecipient()) encryption = RecipientEncryption(path);

    std::vector<int> selected;
    if (auto text = parsed.Value("--pages")) {
        PageSelection selection = ParsePageSelection(*text, pages);
        if (!selection.error.empty())
            return UsageError(kInfoCommand, "--pages: " + selection.error);
        selected = std::move(selection.pages);
    } else {
        selected.reserve(static_cast<std::size_t>(pages));
        for (int page = 1; page <= pages; ++page) selected.push_back(page);
    }

    const bool json = parsed.Has("--json");
    std::string out = json ? "{\"file\": " + JsonString(shown) +
                                 ", \"version\": " + JsonString(version) +
                                 ", \"encryption\": " + EncryptionJson(encryption) +
                                 ", \"pages\": " + std::to_string(pages) + ", \"page_sizes\": ["
                           : "file: " + shown + "\nPDF version: " + version +
                                 "\nencryption: " + EncryptionText(encryption) +
                                 "\npages: " + std::to_string(pages) + "\n";
    // A selection is read a batch at a time, so that memory stays flat however long it is; the
    // whole document is read in one pass of its page tree.
    const std::size_t kBatch = parsed.Has("--pages") ? 4096 : selected.size();
    std::vector<engine::PageGeometry> geometries;
    for (std::size_t start = 0; start < selected.size(); start += kBatch) {
        const std::vector<int> batch(selected.begin() + static_cast<std::ptrdiff_t>(start),
                                     selected.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                            selected.size(), start + kBatch)));
        result = object.GetPageGeometries(batch, &geometries);
        if (hr::Failed(result)) return Failure(kInfoCommand, shown, object.LastErrorText(), result);
        for (std::size_t i = 0; i < batch.size(); ++i) {
            if (json) {
                out += (start + i == 0 ? "" : ", ") + PageJson(batch[i], geometries[i]);
            } else {
                out += PageText(batch[i], geometries[i]);
            }
        }
        // What is ready goes out, so the text does not grow with the file.
        std::fwrite(out.data(), 1, out.size(), stdout);
        out.clear();
    }
    if (json) out += "]}\n";
    std::fwrite(out.data(), 1, out.size(), stdout);
    return kExitOk;
}

}  // namespace

const Command kInfoCommand{
    "info", "print a PDF's version, encryption, pages and their boxes",
    "Usage: zpdf info FILE [--password PW | --key KEY.pem --cert CERT.pem] [--pages RANGE]\n"
    "                 [--json]\n"
    "\n"
    "Opens FILE ('-': standard input) and prints its PDF version, its encryption,\n"
    "its page count and, for each page, its size in points (1/72 inch) after the\n"
    "page's rotation, the rotation when there is one, and its MediaBox, with the\n"
    "CropBox, BleedBox, TrimBox and ArtBox where they differ from their default:\n"
    "\n"
    "  file: report.pdf\n"
    "  PDF version: 1.7\n"
    "  encryption: AES-256 (Standard, V5, R6)\n"
    "  pages: 2\n"
    "  page 1: 595 x 842 pt, MediaBox 0 0 595 842\n"
    "  page 2: 842 x 595 pt, rotated 90, MediaBox 0 0 595 842\n"
    "\n"
    "The size is that of the visible box: the CropBox clipped to the MediaBox.\n"
    "A file opened with --key and --cert shows its method, its filter and the\n"
    "number of recipients its envelopes name: AES-256 (Adobe.PubSec, V5, 2\n"
    "recipient(s)).\n"
    "\n"
    "Options:\n"
    "  --password PW    password for an encrypted file\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                   open a file secured for certificate holders as the holder of\n"
    "                   CERT.pem, with its private key KEY.pem (PEM, unencrypted)\n"
    "  --pages RANGE    only these pages (1-3,5,z,r1 as for append)\n"
    "  --json           print the same facts as one JSON object: file, version,\n"
    "                   encryption (null, or filter, method, version, and revision or\n"
    "                   recipients), pages, page_sizes (page, width, height, rotation,\n"
    "                   media_box, crop_box, bleed_box, trim_box, art_box); a failure\n"
    "                   is then {\"error\": TEXT, \"code\": \"0x...\", \"exit\": N} on\n"
    "                   standard output\n",
    RunInfo};

}  // namespace zpdf::cli
