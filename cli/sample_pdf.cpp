#include "cli/sample_pdf.h"

#include <cstdio>
#include <fstream>

namespace zpdf::samples {
namespace {

std::string Number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", v);
    std::string s(text);
    while (!s.empty() && s.back() == '0') s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
    return s;
}

std::string EscapeText(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '(' || c == ')' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

}  // namespace

std::string TextContent(const std::vector<std::string>& lines, double height, double size) {
    std::string out = "BT /F1 " + Number(size) + " Tf " + Number(size * 1.2) + " TL 72 " +
                      Number(height - 72) + " Td\n";
    for (const std::string& line : lines) {
        out += '(';
        out += EscapeText(line);
        out += ") Tj T*\n";
    }
    out += "ET\n";
    return out;
}

std::string FilledRect(double x, double y, double width, double height, double grey) {
    return "q " + Number(grey) + " g " + Number(x) + " " + Number(y) + " " + Number(width) + " " +
           Number(height) + " re f Q\n";
}

std::string PdfFromObjects(const std::vector<std::string>& objects) {
    std::string out = "%PDF-1.4\n%\xE2\xE3\xCF\xD3\n";
    std::vector<std::size_t> offsets;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(out.size());
        out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const std::size_t xref = out.size();
    out += "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (std::size_t offset : offsets) {
        char entry[24];
        std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", offset);
        out += entry;
    }
    out += "trailer\n<< /Size " + std::to_string(objects.size() + 1) +
           " /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
    return out;
}

std::string BuildPdf(const std::vector<SamplePage>& pages) {
    // Objects: 1 catalog, 2 page tree, 3 font, then a page and its content per page.
    std::vector<std::string> objects;
    std::string kids;
    for (std::size_t i = 0; i < pages.size(); ++i) kids += std::to_string(4 + 2 * i) + " 0 R ";
    objects.push_back("<< /Type /Catalog /Pages 2 0 R >>");
    objects.push_back("<< /Type /Pages /Kids [ " + kids + "] /Count " +
                      std::to_string(pages.size()) + " >>");
    objects.push_back(
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>");
    for (std::size_t i = 0; i < pages.size(); ++i) {
        const SamplePage& page = pages[i];
        std::string dict = "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 " + Number(page.width) +
                           " " + Number(page.height) +
                           "] /Resources << /Font << /F1 3 0 R >> >> /Contents " +
                           std::to_string(5 + 2 * i) + " 0 R";
        if (page.rotate != 0) dict += " /Rotate " + std::to_string(page.rotate);
        if (!page.extra_entries.empty()) dict += " " + page.extra_entries;
        dict += " >>";
        objects.push_back(dict);
        objects.push_back("<< /Length " + std::to_string(page.content.size()) + " >>\nstream\n" +
                          page.content + "\nendstream");
    }

    return PdfFromObjects(objects);
}

bool WriteFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

}  // namespace zpdf::samples
