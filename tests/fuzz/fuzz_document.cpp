// Any bytes as a PDF file: a content object loads them and runs the typical job on the loaded
// document (page count, page sizes, the first page drawn small into an in-memory raster, its
// pages stamped onto a small document and appended to one, saved to a temporary file, split,
// and re-secured when encrypted). The component must refuse what it cannot do with a result and
// a reason. Crashes, hangs and sanitizer reports stop every run. Whether what it claims to have
// done holds (a step whose result is wrong) stops a run only with ZPDF_FUZZ_STRICT=1: such
// findings on mangled bytes are triaged by hand, with the corpus run, and are not to fail the
// bounded run of the test command on whatever input it happens to reach.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/corpus/typical_job.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using zpdf::fuzz::Check;

std::filesystem::path g_folder;

}  // namespace

// Every file of a run goes to the run's folder; so do the component's private copies.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_folder = zpdf::fuzz::RunFolder();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::filesystem::path input = g_folder / "input.pdf";
    Check(static_cast<bool>(
        std::ofstream(input, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size))));
    const zpdf::corpus::JobOptions options{.document = input,
                                           .work_dir = g_folder / "job",
                                           .pages_to_measure = 16,
                                           .max_pages_to_assemble = 16,
                                           .pages_to_draw = 1,
                                           .draw_dpi = 9,
                                           .max_raster_side = 64};
    const zpdf::corpus::JobReport report = zpdf::corpus::RunTypicalJob(options);
    static const bool strict =
        std::getenv("ZPDF_FUZZ_STRICT") && std::string(std::getenv("ZPDF_FUZZ_STRICT")) == "1";
    if (strict && report.wrong) {
        std::fputs(report.lines.c_str(), stderr);
        std::abort();
    }
    std::error_code ec;
    std::filesystem::remove_all(options.work_dir, ec);
    return 0;
}
