#include "tests/corpus/typical_job.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "engine/engine.h"
#include "platform/raster.h"
#include "platform/text.h"

namespace zpdf::corpus {
namespace {

namespace stdfs = std::filesystem;

// The text that makes the split cut after a page.
constexpr const char* kPartEndMarker = "@@nd@@";

std::string Describe(HResult result, const std::string& why) {
    return why + " (" + FormatHResult(result) + ")";
}

std::string PageSizeText(double width, double height) {
    char text[96];
    std::snprintf(text, sizeof text, "%g x %g pt", width, height);
    return text;
}

// A one-page document of our own; with `marker`, its page ends a part for the split.
void WriteSmallDocument(const stdfs::path& path, bool marker) {
    samples::SamplePage page;
    page.content = samples::TextContent({"Cover sheet", marker ? kPartEndMarker : ""}, page.height);
    if (!samples::WriteFile(path, samples::BuildPdf({page})))
        throw std::runtime_error("cannot write " + path.string());
}

class Job {
  public:
    Job(const JobOptions& options, JobReport& report) : options_(options), report_(report) {}

    void Run() {
        std::error_code ec;
        stdfs::create_directories(options_.work_dir, ec);
        copy_ = options_.work_dir / "document.pdf";
        stdfs::copy_file(options_.document, copy_, stdfs::copy_options::overwrite_existing, ec);
        if (ec) throw std::runtime_error("cannot copy " + options_.document.string());

        if (!Open()) return;
        Measure();
        Draw();
        if (report_.pages > options_.max_pages_to_assemble) {
            Done("stamp", "left out: " + std::to_string(report_.pages) + " pages");
            Save();
        } else {
            Stamp();
            const bool appended = Append();
            Save();
            Split(appended);
        }
        Secure();
    }

  private:
    void Record(const char* step, Outcome outcome, HResult result, std::string detail) {
        report_.steps.push_back(StepReport{step, outcome, result, std::move(detail)});
        if (options_.on_step) options_.on_step(report_, report_.steps.back());
    }

    // Records a failure result as a refusal, or as wrong when the object gives no reason.
    // True when the call succeeded.
    bool Succeeded(const char* step, HResult result, const CZPdfContentObject& object,
                   const std::string& doing = "") {
        if (hr::Succeeded(result)) return true;
        const std::string why =
            doing.empty() ? object.LastErrorText() : doing + ": " + object.LastErrorText();
        if (object.LastErrorText().empty()) {
            Record(step, Outcome::Wrong, result,
                   Describe(result, doing + ": failed without a reason"));
        } else {
            Record(step, Outcome::Refused, result, Describe(result, why));
        }
        return false;
    }

    void Wrong(const char* step, std::string what) {
        Record(step, Outcome::Wrong, hr::kOk, std::move(what));
    }

    void Done(const char* step, std::string what = "") {
        Record(step, Outcome::Done, hr::kOk, std::move(what));
    }

    // The page count of a file as a fresh content object reads it; -1 when it cannot.
    static int CountPages(const stdfs::path& file, const std::u16string& password = u"") {
        CZPdfContentObject reader;
        std::int32_t pages = 0;
        if (hr::Failed(reader.SetPdfDocument(FromPath(file), 0, password)) ||
            hr::Failed(reader.PageCount(&pages))) {
            return -1;
        }
        return pages;
    }

    bool Open() {
        std::int32_t pages = 0;
        if (!Succeeded("open", object_.SetPdfDocument(FromPath(copy_), 0, u""), object_) ||
            !Succeeded("open", object_.PageCount(&pages), object_)) {
            return false;
        }
        report_.opened = true;
        report_.pages = pages;
        try {
            report_.encrypted = object_.EngineDocument().Facts().encrypted;
        } catch (const engine::EngineError& e) {
            Wrong("open", std::string("the document's facts cannot be read: ") + e.what());
            return true;
        }
        Done("open", std::to_string(pages) + " pages" + (report_.encrypted ? ", encrypted" : ""));
        return true;
    }

    void Measure() {
        const int last = std::min(report_.pages, options_.pages_to_measure);
        int refused = 0;
        std::string first_refusal;
        for (int page = 1; page <= last; ++page) {
            double width = 0;
            double height = 0;
            const HResult result = object_.GetPageSize(page, &width, &height);
            if (hr::Failed(result)) {
                if (refused++ == 0) {
                    first_refusal = Describe(
                        result, "page " + std::to_string(page) + ": " + object_.LastErrorText());
                }
                continue;
            }
            if (!std::isfinite(width) || !std::isfinite(height) || width < 0 || height < 0) {
                Wrong("measure",
                      "page " + std::to_string(page) + " measures " + PageSizeText(width, height));
                return;
            }
            if (page == 1) first_size_ = {width, height};
        }
        if (refused > 0) {
            Record("measure", Outcome::Refused, hr::kUnexpected,
                   std::to_string(refused) + " of " + std::to_string(last) +
                       " pages refused, first " + first_refusal);
        } else {
            Done("measure", std::to_string(last) + " pages");
        }
    }

    // Draws a page into an in-memory raster of at most max_raster_side pixels a side.
    HResult DrawPage(CZPdfContentObject& object, int page) {
        double width = 0;
        double height = 0;
        if (const HResult result = object.GetPageSize(page, &width, &height); hr::Failed(result))
            return result;
        double scale = options_.draw_dpi / 72.0;
        const double longest = std::max(width, height) * scale;
        if (longest > options_.max_raster_side) scale *= options_.max_raster_side / longest;
        const int w = std::max(1, static_cast<int>(std::lround(width * scale)));
        const int h = std::max(1, static_cast<int>(std::lround(height * scale)));
        RasterDeviceContext dc(w, h);
        return object.DrawPageToDC(dc, page, 0, 0, w, h, 0, 0, 0, 0, 0);
    }

    void Draw() {
        const int last = std::min(report_.pages, options_.pages_to_draw);
        for (int page = 1; page <= last; ++page) {
            if (!Succeeded("draw", DrawPage(object_, page), object_,
                           "page " + std::to_string(page)))
                return;
        }
        Done("draw", std::to_string(last) + " pages");
    }

    // The document's pages become forms in a one-page document; the first form with content
    // is placed beneath that page's content and, scaled down, above it.
    void Stamp() {
        const stdfs::path target_path = options_.work_dir / "stamped.pdf";
        WriteSmallDocument(target_path, false);
        CZPdfContentObject target;
        if (!Succeeded("stamp", target.SetPdfDocument(FromPath(target_path), 0, u""), target))
            return;
        std::vector<std::uint32_t> forms;
        if (!Succeeded("stamp", target.ImportContent(&object_, &forms), target, "import")) return;
        if (forms.size() != static_cast<std::size_t>(report_.pages)) {
            Wrong("stamp", "the import made " + std::to_string(forms.size()) + " forms of " +
                               std::to_string(report_.pages) + " pages");
            return;
        }
        const auto form =
            std::find_if(forms.begin(), forms.end(), [](std::uint32_t id) { return id != 0; });
        if (form != forms.end()) {
            if (!Succeeded("stamp", target.PlaceContent(*form, 1, 0, 0, 1, 1, -1), target,
                           "place beneath") ||
                !Succeeded("stamp", target.PlaceContent(*form, 1, 100, 100, 0.5f, 0.5f, 0), target,
                           "place above"))
                return;
        }
        if (!Succeeded("stamp", target.Save(), target, "save")) return;
        std::int32_t pages = 0;
        if (!Succeeded("stamp", target.PageCount(&pages), target, "reopen")) return;
        if (pages != 1) {
            Wrong("stamp", "the stamped one-page document has " + std::to_string(pages) + " pages");
            return;
        }
        if (!Succeeded("stamp", DrawPage(target, 1), target, "draw")) return;
        Done("stamp", std::to_string(forms.size()) + " forms");
    }

    // The document's pages after a cover page that carries the part-end marker, saved; the
    // split then cuts that file after the cover.
    bool Append() {
        appended_ = options_.work_dir / "appended.pdf";
        WriteSmallDocument(appended_, true);
        CZPdfContentObject target;
        if (!Succeeded("append", target.SetPdfDocument(FromPath(appended_), 0, u""), target))
            return false;
        if (!Succeeded("append", target.AppendPages(&object_), target)) return false;
        std::int32_t pages = 0;
        if (!Succeeded("append", target.PageCount(&pages), target, "count")) return false;
        if (pages != 1 + report_.pages) {
            Wrong("append", "1 + " + std::to_string(report_.pages) + " pages became " +
                                std::to_string(pages));
            return false;
        }
        if (!Succeeded("append", target.Save(), target, "save")) return false;
        if (const int saved = CountPages(appended_); saved != pages) {
            Wrong("append", "the saved file has " + std::to_string(saved) + " pages, not " +
                                std::to_string(pages));
            return false;
        }
        Done("append", std::to_string(pages) + " pages");
        return true;
    }

    void Save() {
        if (!Succeeded("save", object_.Save(), object_)) return;
        std::int32_t pages = 0;
        if (!Succeeded("save", object_.PageCount(&pages), object_, "reopen")) return;
        if (pages != report_.pages) {
            Wrong("save", std::to_string(report_.pages) + " pages became " + std::to_string(pages));
            return;
        }
        if (first_size_) {
            double width = 0;
            double height = 0;
            if (!Succeeded("save", object_.GetPageSize(1, &width, &height), object_, "measure"))
                return;
            if (std::abs(width - first_size_->first) > 0.01 ||
                std::abs(height - first_size_->second) > 0.01) {
                Wrong("save", "page 1 measured " +
                                  PageSizeText(first_size_->first, first_size_->second) +
                                  ", after saving " + PageSizeText(width, height));
                return;
            }
        }
        Done("save");
    }

    void Split(bool appended) {
        CZPdfContentObject splitter;
        // The document itself: its pages' text is read; a part-end marker is rare.
        std::int32_t own_parts = 0;
        if (!Succeeded("split",
                       splitter.SplitPdf(FromPath(copy_), FromPath(options_.work_dir / "self"),
                                         &own_parts),
                       splitter, "the document"))
            return;
        if (!appended) {
            Done("split", "the document only: " + std::to_string(own_parts) + " parts");
            return;
        }
        // The appended file is cut after its cover page, and its parts hold every page. How
        // many more cuts the document's own markers make is not compared with the split of the
        // document itself: the engine reads a damaged file differently once it has rebuilt its
        // table, which can happen while either of them is read.
        const stdfs::path prefix = options_.work_dir / "part";
        std::int32_t parts = 0;
        const HResult result = splitter.SplitPdf(FromPath(appended_), FromPath(prefix), &parts);
        if (!Succeeded("split", result, splitter, "the appended file")) return;
        if (report_.pages == 0) {
            if (parts != 0)
                Wrong("split", "a one-page file was cut into parts");
            else
                Done("split", "nothing to cut");
            return;
        }
        if (parts < 2) {
            Wrong("split", "the appended file was cut into " + std::to_string(parts) +
                               " parts, not after its cover page");
            return;
        }
        int part_pages = 0;
        for (int part = 1; part <= parts; ++part) {
            const int pages = CountPages(prefix.string() + "_" + std::to_string(part));
            if (pages < 1 || (part == 1 && pages != 1)) {
                Wrong("split",
                      "part " + std::to_string(part) + " has " + std::to_string(pages) + " pages");
                return;
            }
            part_pages += pages;
        }
        if (part_pages != 1 + report_.pages) {
            Wrong("split", "the parts hold " + std::to_string(part_pages) + " pages, not 1 + " +
                               std::to_string(report_.pages));
            return;
        }
        Done("split", std::to_string(parts) + " parts");
    }

    void Secure() {
        if (!options_.secured_saves) return;
        if (!Succeeded("secure", object_.EnsurePdfDocument(), object_, "reopen")) return;
        const stdfs::path secured = options_.work_dir / "secured.pdf";
        const HResult result = object_.SaveWithSecurityTo(secured, u"user", u"owner");
        if (!report_.encrypted) {
            // A file without encryption is refused, and nothing is written.
            std::error_code ec;
            if (result != hr::kFail || stdfs::exists(secured, ec)) {
                Wrong("secure", "a file without encryption gave " + FormatHResult(result));
            } else {
                Done("secure", "E_FAIL for a file without encryption");
            }
            return;
        }
        if (!Succeeded("secure", result, object_, "passwords")) return;
        if (const int pages = CountPages(secured, u"user"); pages != report_.pages) {
            Wrong("secure", "the secured file opens with " + std::to_string(pages) +
                                " pages, not " + std::to_string(report_.pages));
            return;
        }
        if (options_.certificate_pem) {
            if (!Succeeded("secure", object_.EnsurePdfDocument(), object_, "reopen")) return;
            const stdfs::path pubkey = options_.work_dir / "pubkey.pdf";
            const std::vector<OptionalText> recipients{Utf8ToUtf16(*options_.certificate_pem)};
            if (!Succeeded("secure", object_.SaveWithPubKeySecurityTo(pubkey, &recipients), object_,
                           "certificates"))
                return;
            std::error_code ec;
            if (stdfs::file_size(pubkey, ec) == 0 || ec) {
                Wrong("secure", "the certificate-secured file is empty");
                return;
            }
        }
        Done("secure", options_.certificate_pem ? "passwords and certificates" : "passwords");
    }

    const JobOptions& options_;
    JobReport& report_;
    CZPdfContentObject object_;
    stdfs::path copy_;
    stdfs::path appended_;
    std::optional<std::pair<double, double>> first_size_;
};

const char* OutcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::Done:
            return "done";
        case Outcome::Refused:
            return "refused";
        case Outcome::Wrong:
            return "WRONG";
    }
    return "?";
}

}  // namespace

bool JobReport::AnyWrong() const {
    return std::any_of(steps.begin(), steps.end(),
                       [](const StepReport& s) { return s.outcome == Outcome::Wrong; });
}

bool JobReport::AnyRefused() const {
    return std::any_of(steps.begin(), steps.end(),
                       [](const StepReport& s) { return s.outcome == Outcome::Refused; });
}

JobReport RunTypicalJob(const JobOptions& options) {
    JobReport report;
    Job(options, report).Run();
    return report;
}

std::string FormatStep(const StepReport& step) {
    std::string out = step.step + ": " + OutcomeText(step.outcome);
    if (!step.detail.empty()) out += ": " + step.detail;
    return out + '\n';
}

std::string FormatReport(const JobReport& report) {
    std::string out;
    for (const StepReport& step : report.steps) out += FormatStep(step);
    return out;
}

}  // namespace zpdf::corpus
