// A small writer of plain PDF files, used by `zpdf demo`, the tests and the benchmarks to make
// documents with known content without any outside tool.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace zpdf::samples {

struct SamplePage {
    double width = 595.0;  // A4 in points
    double height = 842.0;
    int rotate = 0;
    // Page content operators. The font resource /F1 is Helvetica.
    std::string content;
    // More entries for the page dictionary, for example "/CropBox [0 0 100 100]".
    std::string extra_entries;
};

// The bytes of a complete PDF file holding `pages`.
std::string BuildPdf(const std::vector<SamplePage>& pages);

// A PDF file whose object i + 1 is objects[i] (object 1 the catalog), with a cross-reference
// table that lists them all.
std::string PdfFromObjects(const std::vector<std::string>& objects);

// Content operators that write `lines` of text from the top left of a page of `height` points.
std::string TextContent(const std::vector<std::string>& lines, double height, double size = 12);

// Content operators that fill a rectangle (x, y from the bottom left, in points) with a grey level.
std::string FilledRect(double x, double y, double width, double height, double grey = 0.0);

// Writes `bytes` to `path`; false on any failure.
bool WriteFile(const std::filesystem::path& path, const std::string& bytes);

}  // namespace zpdf::samples
