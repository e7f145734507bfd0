// The typical job of a print engine, run on one PDF file that comes from outside: set the
// document, count and measure its pages, draw the first pages, stamp it onto a small document,
// append it to one, save, split, and re-secure it when its file is encrypted. Used by the corpus
// run (one process per file), the valgrind run and the document fuzz target. The file itself is
// only read: the job works on a copy in its own folder.
#pragma once

#include <climits>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

namespace zpdf::corpus {

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
    // Where the job's lines go as soon as they are known, so that a run that stops shows how
    // far it got: "pages: N" once the document opened, then one line per step: "open: done: 2
    // pages", "append: refused: reason (0x8000FFFF)", "save: WRONG: what happened"...
    std::FILE* lines = nullptr;
};

struct JobReport {
    bool opened = false;  // the page count could be read
    // A step whose result is not what it should be, or that failed without saying why.
    bool wrong = false;
    std::string lines;  // every line of the job
};

JobReport RunTypicalJob(const JobOptions& options);

}  // namespace zpdf::corpus
