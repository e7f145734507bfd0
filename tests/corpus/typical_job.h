// The typical job of a print engine, run on one PDF file that comes from outside: set the
// document, count and measure its pages, draw the first pages, stamp it onto a small document,
// append it to one, save, split, and re-secure it when its file is encrypted. Used by the corpus
// run (one process per file), the valgrind run and the document fuzz target. The file itself is
// only read: the job works on a copy in its own folder.
#pragma once

#include <climits>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/hresult.h"

namespace zpdf::corpus {

enum class Outcome {
    Done,     // the step did what it should
    Refused,  // the component refused with a failure result and a reason
    Wrong,    // the component claimed success but the result is not what it should be, or
              // failed without saying why
};

struct StepReport {
    std::string step;
    Outcome outcome = Outcome::Done;
    HResult result = hr::kOk;
    std::string detail;
};

struct JobReport {
    bool opened = false;  // the page count could be read
    int pages = 0;
    bool encrypted = false;
    std::vector<StepReport> steps;  // the first one is "open"

    bool AnyWrong() const;
};

struct JobOptions {
    std::filesystem::path document;  // the file to try; never written
    std::filesystem::path work_dir;  // created if missing; the job's files go here
    int pages_to_measure = INT_MAX;
    // A document with more pages is opened, measured, drawn and saved, but not stamped,
    // appended or split.
    int max_pages_to_assemble = INT_MAX;
    int pages_to_draw = 2;
    int draw_dpi = 36;
    int max_raster_side = 600;  // pixels; larger pages are drawn smaller
    // PEM text of the recipient certificate for the certificate-recipient save; without it that
    // save is left out.
    std::optional<std::string> certificate_pem;
    // Told of each step as soon as it is over, so that a run that stops shows how far it got.
    std::function<void(const JobReport&, const StepReport&)> on_step;
};

JobReport RunTypicalJob(const JobOptions& options);

// One line for a step, or one per step of a report: "open: done", "append: refused: reason
// (0x8000FFFF)"...
std::string FormatStep(const StepReport& step);
std::string FormatReport(const JobReport& report);

}  // namespace zpdf::corpus
