// The cross-reference table of a written file: where each object starts, and the free entries
// chained from entry 0. The objects of the document read from keep their numbers; new objects
// are numbered after them.
#pragma once

#include <cstdint>
#include <vector>

#include "engine/writer/pdf_output.h"

namespace zpdf::engine {

class CrossReference {
  public:
    // Numbers below `length` are the document's own.
    explicit CrossReference(int length);
    // A number for a new object.
    int NewNumber() { return next_free_++; }
    // Where new numbers come from; an ObjectCopy takes its numbers from here.
    int& NextFree() { return next_free_; }
    // Records where object `num` starts and writes its head.
    void BeginObject(PdfOutput& out, int num, int gen = 0);
    // Writes "xref" and one entry for every number below NextFree().
    void WriteTable(PdfOutput& out);

  private:
    std::vector<std::int64_t> offsets_;  // -1 for a free entry
    std::vector<int> gens_;
    int next_free_;
};

}  // namespace zpdf::engine
