// zpdf-bench: one benchmark job per process, so that its time is measured the same way as the
// peer tools' (whole process, start-up included).
//   zpdf-bench count FILE          open and count the pages
//   zpdf-bench render FILE OUT.png draw page 1 at 150 dpi
//   zpdf-bench save FILE           open, then save in place through the side file
//   zpdf-bench split FILE PREFIX   split after the marker pages into PREFIX_1, PREFIX_2...
//   zpdf-bench make-text FILE N    write an N-page text document
//   zpdf-bench protect FILE PW     open with PW, save in place with AES-256 passwords U and O
//   zpdf-bench protect-pubkey FILE PW CERT.pem
//                                  open with PW, save in place for the certificate's holder
//   zpdf-bench jobs THREADS FILE LETTERHEAD DIR
//                                  two typical jobs (open, count, measure, draw page 1, stamp
//                                  the letterhead beneath every page, append the letterhead,
//                                  save a copy) on copies of FILE in DIR: on THREADS threads
//                                  (1: one after the other on one thread, 2: one each)
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "platform/png_device_context.h"

namespace {

using namespace zpdf;

int Check(HResult result, const CZPdfContentObject& object, const char* what) {
    if (hr::Succeeded(result)) return 0;
    std::fprintf(stderr, "zpdf-bench: %s: %s (%s)\n", what, object.LastErrorText().c_str(),
                 FormatHResult(result).c_str());
    return 1;
}

int Count(const std::string& file) {
    CZPdfContentObject object;
    std::int32_t pages = 0;
    if (int rc = Check(object.SetPdfDocument(FromAnsi(file), 0, u""), object, "set")) return rc;
    if (int rc = Check(object.PageCount(&pages), object, "count")) return rc;
    std::printf("%d\n", pages);
    return 0;
}

int Render(const std::string& file, const std::string& out) {
    CZPdfContentObject object;
    double width = 0;
    double height = 0;
    if (int rc = Check(object.SetPdfDocument(FromAnsi(file), 0, u""), object, "set")) return rc;
    if (int rc = Check(object.GetPageSize(1, &width, &height), object, "measure")) return rc;
    const int w = static_cast<int>(std::ceil(width * 150 / 72));
    const int h = static_cast<int>(std::ceil(height * 150 / 72));
    PngDeviceContext png;
    if (png.Open(FromAnsi(out), w, h, 150) != 0) return 1;
    if (int rc = Check(object.DrawPageToDC(png, 1, 0, 0, w, h, 0, 0, 0, 0, 0), object, "draw"))
        return rc;
    return png.Finish() == 0 ? 0 : 1;
}

int Save(const std::string& file) {
    CZPdfContentObject object;
    std::int32_t pages = 0;
    if (int rc = Check(object.SetPdfDocument(FromAnsi(file), 0, u""), object, "set")) return rc;
    if (int rc = Check(object.PageCount(&pages), object, "open")) return rc;
    return Check(object.Save(), object, "save");
}

int Protect(const std::string& file, const std::string& password) {
    CZPdfContentObject object;
    std::int32_t pages = 0;
    if (int rc = Check(object.SetPdfDocument(FromAnsi(file), 0, FromAnsi(password)), object, "set"))
        return rc;
    if (int rc = Check(object.PageCount(&pages), object, "open")) return rc;
    return Check(object.SaveWithSecurity(u"U", u"O"), object, "protect");
}

int ProtectPubKey(const std::string& file, const std::string& password, const std::string& cert) {
    std::ifstream in(cert, std::ios::binary);
    std::ostringstream pem;
    pem << in.rdbuf();
    const std::vector<OptionalText> recipients = {FromAnsi(pem.str())};
    CZPdfContentObject object;
    if (int rc = Check(object.SetPdfDocument(FromAnsi(file), 0, FromAnsi(password)), object, "set"))
        return rc;
    return Check(object.SaveWithPubKeySecurity(&recipients), object, "protect-pubkey");
}

int Split(const std::string& file, const std::string& prefix) {
    CZPdfContentObject object;
    std::int32_t parts = 0;
    const HResult result = object.SplitPdf(FromAnsi(file), FromAnsi(prefix), &parts);
    if (int rc = Check(result, object, "split")) return rc;
    std::printf("%d\n", parts);
    return 0;
}

int MakeText(const std::string& file, int pages) {
    std::vector<samples::SamplePage> all;
    for (int i = 1; i <= pages; ++i) {
        samples::SamplePage page;
        std::vector<std::string> lines;
        for (int line = 1; line <= 40; ++line) {
            lines.push_back("Page " + std::to_string(i) + " line " + std::to_string(line) +
                            ": the quick brown fox jumps over the lazy dog 0123456789");
        }
        page.content = samples::TextContent(lines, page.height, 10);
        all.push_back(page);
    }
    return samples::WriteFile(file, samples::BuildPdf(all)) ? 0 : 1;
}

// One content object doing the print engine's typical job on its own copy of `file`.
int TypicalJob(const std::string& file, const std::string& letterhead, const std::string& copy) {
    std::ifstream in(file, std::ios::binary);
    std::ofstream out(copy, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();
    CZPdfContentObject object;
    CZPdfContentObject head;
    std::int32_t pages = 0;
    double width = 0;
    double height = 0;
    if (int rc = Check(object.SetPdfDocument(FromAnsi(copy), 0, u""), object, "set")) return rc;
    if (int rc = Check(head.SetPdfDocument(FromAnsi(letterhead), 0, u""), head, "set")) return rc;
    if (int rc = Check(object.PageCount(&pages), object, "count")) return rc;
    for (std::int32_t page = 1; page <= pages; ++page) {
        if (int rc = Check(object.GetPageSize(page, &width, &height), object, "measure")) return rc;
    }
    PngDeviceContext png;
    const int w = static_cast<int>(std::ceil(width));
    const int h = static_cast<int>(std::ceil(height));
    if (png.Open(FromAnsi(copy + ".png"), w, h, 72) != 0) return 1;
    if (int rc = Check(object.DrawPageToDC(png, 1, 0, 0, w, h, 0, 0, 0, 0, 0), object, "draw"))
        return rc;
    if (png.Finish() != 0) return 1;
    std::vector<std::uint32_t> forms;
    if (int rc = Check(object.ImportContent(&head, &forms), object, "import")) return rc;
    for (std::int32_t page = 1; page <= pages; ++page) {
        if (int rc = Check(object.PlaceContent(forms[0], page, 0, 0, 1, 1, -1), object, "place"))
            return rc;
    }
    if (int rc = Check(object.AppendPages(&head), object, "append")) return rc;
    return Check(object.Save(), object, "save");
}

int Jobs(int threads, const std::string& file, const std::string& letterhead,
         const std::string& dir) {
    int results[2] = {0, 0};
    const auto job = [&](int i) {
        results[i] = TypicalJob(file, letterhead, dir + "/job" + std::to_string(i) + ".pdf");
    };
    if (threads == 2) {
        std::thread other(job, 1);
        job(0);
        other.join();
    } else {
        job(0);
        job(1);
    }
    return results[0] != 0 ? results[0] : results[1];
}

}  // namespace

int main(int argc, char** argv) {
    const std::string job = argc > 1 ? argv[1] : "";
    if (job == "count" && argc == 3) return Count(argv[2]);
    if (job == "render" && argc == 4) return Render(argv[2], argv[3]);
    if (job == "save" && argc == 3) return Save(argv[2]);
    if (job == "split" && argc == 4) return Split(argv[2], argv[3]);
    if (job == "make-text" && argc == 4) return MakeText(argv[2], std::atoi(argv[3]));
    if (job == "protect" && argc == 4) return Protect(argv[2], argv[3]);
    if (job == "protect-pubkey" && argc == 5) return ProtectPubKey(argv[2], argv[3], argv[4]);
    if (job == "jobs" && argc == 6) return Jobs(std::atoi(argv[2]), argv[3], argv[4], argv[5]);
    std::fputs(
        "usage: zpdf-bench count FILE | render FILE OUT.png | save FILE | split FILE PREFIX |\n"
        "       make-text FILE N | protect FILE PW | protect-pubkey FILE PW CERT.pem |\n"
        "       jobs THREADS FILE LETTERHEAD DIR\n",
        stderr);
    return 2;
}
