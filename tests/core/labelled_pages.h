// Documents whose pages show a label, and what the content object and pdftotext read of them.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "cli/sample_pdf.h"
#include "content_object/content_object.h"
#include "support/test_support.h"

namespace zpdf::test {

// "<prefix>1" to "<prefix><count>".
inline std::vector<std::string> Labels(const std::string& prefix, int count) {
    std::vector<std::string> labels;
    for (int i = 1; i <= count; ++i)
        labels.push_back(std::string(prefix).append(std::to_string(i)));
    return labels;
}

// One page of `width` x `height` points per label, the label written at its top left.
inline std::string LabelledBytes(const std::vector<std::string>& labels, double width = 595,
                                 double height = 842) {
    std::vector<samples::SamplePage> pages;
    for (const std::string& label : labels)
        pages.push_back({width, height, 0, samples::TextContent({label}, height), ""});
    return samples::BuildPdf(pages);
}
inline std::filesystem::path LabelledPdf(const std::filesystem::path& path,
                                         const std::vector<std::string>& labels) {
    WriteBytes(path, LabelledBytes(labels));
    return path;
}

inline std::int32_t Pages(CZPdfContentObject& object) {
    std::int32_t pages = -1;
    EXPECT_EQ(object.PageCount(&pages), hr::kOk);
    return pages;
}

// Width and height of a page in points; {-1, -1} when it cannot be measured.
inline std::pair<double, double> PageSize(CZPdfContentObject& object, std::int32_t page) {
    std::pair<double, double> size;
    if (object.GetPageSize(page, &size.first, &size.second) != hr::kOk) return {-1, -1};
    return size;
}

// The text of each page without white space, a '*' for every "letterhead" in it instead of the
// word, the pages separated by a space: "d1** d2" is page d1 stamped twice, then page d2.
inline std::string Stamped(const std::filesystem::path& file) {
    std::string pages;
    for (std::string text : PdfPageTexts(file)) {
        std::size_t stamps = 0;
        for (std::size_t at; (at = text.find("letterhead")) != std::string::npos; ++stamps)
            text.erase(at, 10);
        std::erase_if(text, [](unsigned char c) { return std::isspace(c) != 0; });
        pages += text.append(stamps, '*') + ' ';
    }
    if (!pages.empty()) pages.pop_back();
    return pages;
}

}  // namespace zpdf::test
