#include "engine/writer/cross_reference.h"

#include <cstdio>

namespace zpdf::engine {

CrossReference::CrossReference(int length)
    : offsets_(static_cast<std::size_t>(length), -1),
      gens_(static_cast<std::size_t>(length), 0),
      next_free_(length) {}

void CrossReference::BeginObject(PdfOutput& out, int num, int gen) {
    const auto index = static_cast<std::size_t>(num);
    if (index >= offsets_.size()) {
        offsets_.resize(index + 1, -1);
        gens_.resize(index + 1, 0);
    }
    offsets_[index] = out.Offset();
    gens_[index] = gen;
    out.PutNumber(num);
    out.PutChar(' ');
    out.PutNumber(gen);
    out.Put(" obj\n");
}

void CrossReference::WriteTable(PdfOutput& out) {
    const auto size = static_cast<std::size_t>(next_free_);
    offsets_.resize(size, -1);
    gens_.resize(size, 0);
    offsets_[0] = -1;
    // Each free entry names the next free one; the last names 0.
    std::vector<int> next_free(size, 0);
    int following = 0;
    for (std::size_t num = size; num-- > 0;) {
        if (offsets_[num] < 0) {
            next_free[num] = following;
            following = static_cast<int>(num);
        }
    }
    out.Put("xref\n0 ");
    out.PutNumber(next_free_);
    out.Put("\n");
    char entry[32];
    for (std::size_t num = 0; num < size; ++num) {
        if (offsets_[num] >= 0) {
            std::snprintf(entry, sizeof entry, "%010lld %05d n \n",
                          static_cast<long long>(offsets_[num]), gens_[num]);
        } else {
            std::snprintf(entry, sizeof entry, "%010d %05d f \n", next_free[num],
                          num == 0 ? 65535 : 0);
        }
        out.Put(entry);
    }
}

}  // namespace zpdf::engine
