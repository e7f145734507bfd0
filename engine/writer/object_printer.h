// Prints the engine's objects in PDF syntax: references as they stand, or renumbered while
// objects of another document are copied in; strings and stream data through the encryption
// filter when there is one.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

#include "engine/internal.h"
#include "engine/writer/object_encryption.h"
#include "engine/writer/pdf_output.h"

namespace zpdf::engine {

// The objects of another document that the written document takes in: each gets a number of
// ours when it is first met, and waits in a queue to be written.
class ObjectCopy {
  public:
    // `source_length` is the length of the source's table; numbers come from `next_free`.
    ObjectCopy(int source_length, int& next_free)
        : numbers_(static_cast<std::size_t>(source_length), 0), next_free_(next_free) {}
    // The number the source's object `stored` is written under; 0 (written as null) outside the
    // source's table and for objects left out.
    int NumberFor(int stored);
    // Writes the source's object `stored` under `num`, which is written elsewhere: nothing is
    // queued for it. For pages copied along, so that references to them reach their copies.
    void Seed(int stored, int num);
    // Leaves the source's object `stored` out: references to it are written as null.
    void LeaveOut(int stored);
    // The next object met and not written yet. False when there is none.
    bool TakeQueued(int* stored, int* num);

  private:
    std::vector<int> numbers_;  // by the source's object number; 0 until met, -1 left out
    std::vector<int> queue_;
    int& next_free_;
};

class ObjectPrinter {
  public:
    // `encryption` may be null: everything is written in clear.
    ObjectPrinter(fz_context* ctx, PdfOutput& out, ObjectEncryption* encryption)
        : ctx_(ctx), out_(out), encryption_(encryption) {}

    // While `copy` is set, objects are read in `ctx` and their references renumbered by it.
    void SetCopy(fz_context* ctx, ObjectCopy* copy) {
        ctx_ = ctx;
        copy_ = copy;
    }
    fz_context* Context() const { return ctx_; }

    // `encrypt` false writes strings in clear (the encryption dictionary's own).
    void Print(pdf_obj* obj, bool encrypt = true);
    // The entries of `dict` (none for null), each with a space in front, but for `left_out`.
    void PrintEntries(pdf_obj* dict, std::initializer_list<pdf_obj*> left_out = {},
                      bool encrypt = true);
    void PrintName(const char* name);
    void PrintHexString(const unsigned char* data, std::size_t size);
    // Ends a stream dictionary with its /Length and writes the data and the object's end.
    void PrintStreamData(const unsigned char* data, std::size_t size);

  private:
    fz_context* ctx_;
    PdfOutput& out_;
    ObjectEncryption* encryption_;
    ObjectCopy* copy_ = nullptr;
    std::vector<unsigned char> encrypted_;
};

}  // namespace zpdf::engine
