// zpdf_corpus_job: the typical job on one PDF file, for scripts/corpus/run.sh and the valgrind
// run.
//
//   zpdf_corpus_job FILE WORK_DIR [--certificate CERT.pem]
//
// Prints "pages: N" when the document opens, then one line per step. Exit status: 0 when the
// document opened and every step either did its work or was refused with a reason, 1 when the
// document itself was refused, 3 when a step gave a wrong result, 2 for a usage error.
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>

#include "tests/corpus/typical_job.h"

int main(int argc, char** argv) {
    if (argc != 3 && (argc != 5 || std::strcmp(argv[3], "--certificate") != 0)) {
        std::fputs("usage: zpdf_corpus_job FILE WORK_DIR [--certificate CERT.pem]\n", stderr);
        return 2;
    }
    zpdf::corpus::JobOptions options;
    options.document = argv[1];
    options.work_dir = argv[2];
    if (argc == 5) {
        std::ifstream in(argv[4], std::ios::binary);
        options.certificate_pem.emplace(std::istreambuf_iterator<char>(in),
                                        std::istreambuf_iterator<char>());
        if (!in || options.certificate_pem->empty()) {
            std::fprintf(stderr, "zpdf_corpus_job: cannot read %s\n", argv[4]);
            return 2;
        }
    }
    options.lines = stdout;
    try {
        const zpdf::corpus::JobReport report = zpdf::corpus::RunTypicalJob(options);
        if (!report.opened) return 1;
        return report.wrong ? 3 : 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zpdf_corpus_job: %s\n", e.what());
        return 2;
    }
}
