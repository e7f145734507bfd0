#include "tests/corpus/typical_job.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "engine/engine.h"
#include "platform/raster.h"
#include "platform/text.h"

namespace zpdf::corpus {
namespace {

namespace stdfs = std::filesystem;

template <typename... Parts>
std::string Cat(const Parts&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

// A one-page document of our own; with `marker`, its page ends a part for the split.
stdfs::path SmallDocument(const stdfs::path& path, bool marker) {
    samples::SamplePage page;
    page.content = samples::TextContent({"Cover sheet", marker ? "@@nd@@" : ""}, page.height);
    if (!samples::WriteFile(path, samples::BuildPdf({page})))
        throw std::runtime_error("cannot write " + path.string());
    return path;
}

// The page count of a file as a fresh content object reads it; -1 when it cannot.
int CountPages(const stdfs::path& file, const std::u16string& password = u"") {
    CZPdfContentObject reader;
    std::int32_t pages = 0;
    const bool read = hr::Succeeded(reader.SetPdfDocument(FromPath(file), 0, password)) &&
                      hr::Succeeded(reader.PageCount(&pages));
    return read ? pages : -1;
}

class Job {
  public:
    Job(const JobOptions& options, JobReport& report) : options_(options), report_(report) {}

    void Run() {
        std::error_code ec;
        stdfs::create_directories(options_.work_dir, ec);
        stdfs::copy_file(options_.document, copy_, stdfs::copy_options::overwrite_existing, ec);
        if (ec) throw std::runtime_error("cannot copy " + options_.document.string());
        if (!Open()) return;
        Measure();
        Draw();
        const bool assemble = pages_ <= options_.max_pages_to_assemble;
        if (!assemble) Done("stamp", Cat("left out: ", pages_, " pages"));
        const bool appended = assemble && (Stamp(), Append());
        Save();
        if (assemble) Split(appended);
        Secure();
    }

  private:
    void Line(const std::string& line) {
        report_.lines += line;
        if (options_.lines && std::fputs(line.c_str(), options_.lines) >= 0) fflush(options_.lines);
    }
    // "step: outcome: detail"; a WRONG outcome marks the report.
    void Record(const char* outcome, const std::string& detail) {
        report_.wrong |= std::string(outcome) == "WRONG";
        Line(Cat(step_, ": ", outcome, detail.empty() ? "" : ": ", detail, "\n"));
    }
    void Done(const char* step, const std::string& what = "") {
        step_ = step;
        Record("done", what);
    }
    // A failure is a refusal, or wrong when the object gives no reason. True on success.
    bool Ok(HResult result, const CZPdfContentObject& object, const std::string& doing = "") {
        if (hr::Succeeded(result)) return true;
        const std::string& why = object.LastErrorText();
        Record(why.empty() ? "WRONG" : "refused",
               Cat(doing, doing.empty() ? "" : ": ", why.empty() ? "failed without a reason" : why,
                   " (", FormatHResult(result), ")"));
        return false;
    }
    // A success whose result is not what it should be.
    bool Expect(bool holds, const std::string& what) {
        if (!holds) Record("WRONG", what);
        return holds;
    }

    bool Open() {
        step_ = "open";
        std::int32_t pages = 0;
        if (!Ok(object_.SetPdfDocument(FromPath(copy_), 0, u""), object_) ||
            !Ok(object_.PageCount(&pages), object_))
            return false;
        report_.opened = true;
        pages_ = pages;
        Line(Cat("pages: ", pages, "\n"));
        try {
            encrypted_ = object_.EngineDocument().Facts().encrypted;
            Done("open", Cat(pages, " pages", encrypted_ ? ", encrypted" : ""));
        } catch (const engine::EngineError& e) {
            Expect(false, Cat("the document's facts cannot be read: ", e.what()));
        }
        return true;
    }

    // Every page's size; a refused page ends the step.
    void Measure() {
        step_ = "measure";
        const int last = std::min(pages_, options_.pages_to_measure);
        for (int page = 1; page <= last; ++page) {
            double w = 0, h = 0;
            if (!Ok(object_.GetPageSize(page, &w, &h), object_, Cat("page ", page)) ||
                !Expect(std::isfinite(w) && std::isfinite(h) && w >= 0 && h >= 0,
                        Cat("page ", page, " measures ", w, " x ", h)))
                return;
            if (page == 1) first_size_ = {w, h};
        }
        Done("measure", Cat(last, " pages"));
    }

    // Draws a page into an in-memory raster of at most max_raster_side pixels a side.
    HResult DrawPage(CZPdfContentObject& object, int page) {
        double width = 0, height = 0;
        if (const HResult result = object.GetPageSize(page, &width, &height); hr::Failed(result))
            return result;
        double scale = options_.draw_dpi / 72.0;
        scale *= std::min(1.0, options_.max_raster_side / (std::max(width, height) * scale));
        const int w = std::max(1L, std::lround(width * scale)),
                  h = std::max(1L, std::lround(height * scale));
        RasterDeviceContext dc(w, h);
        return object.DrawPageToDC(dc, page, 0, 0, w, h, 0, 0, 0, 0, 0);
    }

    void Draw() {
        step_ = "draw";
        const int last = std::min(pages_, options_.pages_to_draw);
        for (int page = 1; page <= last; ++page)
            if (!Ok(DrawPage(object_, page), object_, Cat("page ", page))) return;
        Done("draw", Cat(last, " pages"));
    }

    // The document's pages become forms in a one-page document; the first form with content
    // is placed beneath that page's content and, scaled down, above it.
    void Stamp() {
        step_ = "stamp";
        CZPdfContentObject target;
        std::vector<std::uint32_t> forms;
        std::int32_t pages = 0;
        const stdfs::path path = SmallDocument(options_.work_dir / "stamped.pdf", false);
        if (!Ok(target.SetPdfDocument(FromPath(path), 0, u""), target) ||
            !Ok(target.ImportContent(&object_, &forms), target, "import") ||
            !Expect(forms.size() == static_cast<std::size_t>(pages_),
                    Cat("the import made ", forms.size(), " forms")))
            return;
        const auto form = std::find_if(forms.begin(), forms.end(), [](auto id) { return id != 0; });
        if (form != forms.end() &&
            (!Ok(target.PlaceContent(*form, 1, 0, 0, 1, 1, -1), target, "place beneath") ||
             !Ok(target.PlaceContent(*form, 1, 100, 100, 0.5f, 0.5f, 0), target, "place above")))
            return;
        if (Ok(target.Save(), target, "save") && Ok(target.PageCount(&pages), target, "reopen") &&
            Expect(pages == 1, Cat("the stamped document has ", pages, " pages")) &&
            Ok(DrawPage(target, 1), target, "draw"))
            Done("stamp", Cat(forms.size(), " forms"));
    }

    // The document's pages after a cover page that carries the part-end marker, saved; the
    // split then cuts that file after the cover.
    bool Append() {
        step_ = "append";
        CZPdfContentObject target;
        std::int32_t pages = 0;
        SmallDocument(appended_, true);
        if (!Ok(target.SetPdfDocument(FromPath(appended_), 0, u""), target) ||
            !Ok(target.AppendPages(&object_), target) ||
            !Ok(target.PageCount(&pages), target, "count") ||
            !Expect(pages == 1 + pages_, Cat("1 + ", pages_, " pages: ", pages)) ||
            !Ok(target.Save(), target, "save") ||
            !Expect(CountPages(appended_) == pages, "the saved file has other pages"))
            return false;
        Done("append", Cat(pages, " pages"));
        return true;
    }

    void Save() {
        step_ = "save";
        std::int32_t pages = 0;
        double w = 0, h = 0;
        if (!Ok(object_.Save(), object_) || !Ok(object_.PageCount(&pages), object_, "reopen") ||
            !Expect(pages == pages_, Cat(pages_, " pages became ", pages)))
            return;
        if (first_size_ && (!Ok(object_.GetPageSize(1, &w, &h), object_, "measure") ||
                            !Expect(std::abs(w - first_size_->first) <= 0.01 &&
                                        std::abs(h - first_size_->second) <= 0.01,
                                    Cat("page 1 measured ", first_size_->first, " x ",
                                        first_size_->second, ", after saving ", w, " x ", h))))
            return;
        Done("save");
    }

    void Split(bool appended) {
        step_ = "split";
        CZPdfContentObject splitter;
        // The document itself: its pages' text is read; a part-end marker is rare.
        std::int32_t own = 0, parts = 0;
        if (!Ok(splitter.SplitPdf(FromPath(copy_), FromPath(options_.work_dir / "self"), &own),
                splitter, "the document"))
            return;
        if (!appended) return Done("split", Cat("the document only: ", own, " parts"));
        // The appended file is cut after its cover page, and its parts hold every page. How
        // many more cuts the document's own markers make is not compared with the split of the
        // document itself: the engine reads a damaged file differently once it has rebuilt its
        // table, which can happen while either of them is read.
        const stdfs::path prefix = options_.work_dir / "part";
        if (!Ok(splitter.SplitPdf(FromPath(appended_), FromPath(prefix), &parts), splitter,
                "the appended file") ||
            !Expect((parts == 0) == (pages_ == 0) && parts != 1, Cat(parts, " parts")))
            return;
        int part_pages = 0;
        for (int part = 1; part <= parts; ++part) {
            const int pages = CountPages(Cat(prefix.string(), "_", part));
            if (!Expect(pages >= 1 && (part > 1 || pages == 1),
                        Cat("part ", part, " has ", pages, " pages")))
                return;
            part_pages += pages;
        }
        if (Expect(parts == 0 || part_pages == 1 + pages_,
                   Cat("the parts hold ", part_pages, " pages")))
            Done("split", Cat(parts, " parts"));
    }

    void Secure() {
        step_ = "secure";
        if (!Ok(object_.EnsurePdfDocument(), object_, "reopen")) return;
        const stdfs::path secured = options_.work_dir / "secured.pdf";
        const HResult result = object_.SaveWithSecurityTo(secured, u"user", u"owner");
        std::error_code ec;
        if (!encrypted_) {
            // A file without encryption is refused, and nothing is written.
            if (Expect(result == hr::kFail && !stdfs::exists(secured, ec),
                       "a file without encryption gave " + FormatHResult(result)))
                Done("secure", "E_FAIL for a file without encryption");
            return;
        }
        if (!Ok(result, object_, "passwords") ||
            !Expect(CountPages(secured, u"user") == pages_, "the secured file differs"))
            return;
        if (options_.certificate_pem) {
            const stdfs::path pubkey = options_.work_dir / "pubkey.pdf";
            const std::vector<OptionalText> recipients{Utf8ToUtf16(*options_.certificate_pem)};
            if (!Ok(object_.EnsurePdfDocument(), object_, "reopen") ||
                !Ok(object_.SaveWithPubKeySecurityTo(pubkey, &recipients), object_,
                    "certificates") ||
                !Expect(stdfs::file_size(pubkey, ec) > 0 && !ec, "the certificate save is empty"))
                return;
        }
        Done("secure", options_.certificate_pem ? "passwords and certificates" : "passwords");
    }

    const JobOptions& options_;
    JobReport& report_;
    CZPdfContentObject object_;
    const stdfs::path copy_ = options_.work_dir / "document.pdf";
    const stdfs::path appended_ = options_.work_dir / "appended.pdf";
    std::optional<std::pair<double, double>> first_size_;
    const char* step_ = "";
    int pages_ = 0;
    bool encrypted_ = false;
};

}  // namespace

JobReport RunTypicalJob(const JobOptions& options) {
    JobReport report;
    Job(options, report).Run();
    return report;
}

}  // namespace zpdf::corpus
