#include "engine/writer/object_printer.h"

#include <cstring>

namespace zpdf::engine {
namespace {

bool IsRegularNameChar(unsigned char c) {
    if (c < 0x21 || c > 0x7E) return false;
    return std::strchr("()<>[]{}/%#", c) == nullptr;
}

}  // namespace

int ObjectCopy::NumberFor(int stored) {
    if (stored <= 0 || static_cast<std::size_t>(stored) >= numbers_.size()) return 0;
    int& num = numbers_[static_cast<std::size_t>(stored)];
    if (num == 0) {
        num = next_free_++;
        queue_.push_back(stored);
    }
    return num > 0 ? num : 0;
}

void ObjectCopy::Seed(int stored, int num) {
    if (stored > 0 && static_cast<std::size_t>(stored) < numbers_.size())
        numbers_[static_cast<std::size_t>(stored)] = num;
}

void ObjectCopy::LeaveOut(int stored) {
    Seed(stored, -1);
}

bool ObjectCopy::TakeQueued(int* stored, int* num) {
    if (queue_.empty()) return false;
    *stored = queue_.back();
    queue_.pop_back();
    *num = numbers_[static_cast<std::size_t>(*stored)];
    return true;
}

void ObjectPrinter::Print(pdf_obj* obj, bool encrypt) {
    // A reference is written as it stands: asking first whether it is null would parse the
    // object it names (every page, for the page tree's Kids), and could fail right here.
    if (obj != nullptr && pdf_is_indirect(ctx_, obj)) {
        if (copy_ == nullptr) {
            out_.PutReference(pdf_to_num(ctx_, obj), pdf_to_gen(ctx_, obj));
        } else if (const int num = copy_->NumberFor(pdf_to_num(ctx_, obj)); num > 0) {
            out_.PutReference(num);
        } else {
            out_.Put("null");
        }
    } else if (obj == nullptr || pdf_is_null(ctx_, obj)) {
        out_.Put("null");
    } else if (pdf_is_bool(ctx_, obj)) {
        out_.Put(pdf_to_bool(ctx_, obj) ? "true" : "false");
    } else if (pdf_is_int(ctx_, obj)) {
        out_.PutNumber(pdf_to_int64(ctx_, obj));
    } else if (pdf_is_real(ctx_, obj)) {
        char text[64];
        // The engine's %g never uses an exponent, which PDF numbers may not have.
        fz_snprintf(text, sizeof text, "%g", pdf_to_real(ctx_, obj));
        out_.Put(text);
    } else if (pdf_is_name(ctx_, obj)) {
        PrintName(pdf_to_name(ctx_, obj));
    } else if (pdf_is_string(ctx_, obj)) {
        std::size_t size = 0;
        const auto* bytes = reinterpret_cast<const unsigned char*>(pdf_to_string(ctx_, obj, &size));
        if (encrypt && encryption_ != nullptr) {
            encrypted_.clear();
            encryption_->Encrypt(bytes, size, [this](const unsigned char* data, std::size_t n) {
                encrypted_.insert(encrypted_.end(), data, data + n);
            });
            PrintHexString(encrypted_.data(), encrypted_.size());
        } else {
            PrintHexString(bytes, size);
        }
    } else if (pdf_is_array(ctx_, obj)) {
        out_.PutChar('[');
        const int count = pdf_array_len(ctx_, obj);
        for (int i = 0; i < count; ++i) {
            out_.PutChar(' ');
            Print(pdf_array_get(ctx_, obj, i), encrypt);
        }
        out_.Put(" ]");
    } else if (pdf_is_dict(ctx_, obj)) {
        out_.Put("<<");
        PrintEntries(obj, {}, encrypt);
        out_.Put(" >>");
    } else {
        out_.Put("null");
    }
}

void ObjectPrinter::PrintEntries(pdf_obj* dict, std::initializer_list<pdf_obj*> left_out,
                                 bool encrypt) {
    if (dict == nullptr) return;
    const int count = pdf_dict_len(ctx_, dict);
    for (int i = 0; i < count; ++i) {
        pdf_obj* key = pdf_dict_get_key(ctx_, dict, i);
        bool skip = false;
        for (pdf_obj* name : left_out) skip = skip || pdf_name_eq(ctx_, key, name);
        if (skip) continue;
        out_.PutChar(' ');
        Print(key, encrypt);
        out_.PutChar(' ');
        Print(pdf_dict_get_val(ctx_, dict, i), encrypt);
    }
}

void ObjectPrinter::PrintName(const char* name) {
    static const char kHex[] = "0123456789ABCDEF";
    out_.PutChar('/');
    for (const char* p = name; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (IsRegularNameChar(c)) {
            out_.PutChar(static_cast<char>(c));
        } else {
            out_.PutChar('#');
            out_.PutChar(kHex[c >> 4]);
            out_.PutChar(kHex[c & 15]);
        }
    }
}

void ObjectPrinter::PrintHexString(const unsigned char* data, std::size_t size) {
    static const char kHex[] = "0123456789abcdef";
    out_.PutChar('<');
    for (std::size_t i = 0; i < size; ++i) {
        out_.PutChar(kHex[data[i] >> 4]);
        out_.PutChar(kHex[data[i] & 15]);
    }
    out_.Put(">");  // gives the output a chance to flush a long string
}

void ObjectPrinter::PrintStreamData(const unsigned char* data, std::size_t size) {
    out_.Put(" /Length ");
    out_.PutNumber(static_cast<std::int64_t>(
        encryption_ != nullptr ? encryption_->EncryptedSize(size) : size));
    out_.Put(" >>\nstream\n");
    if (encryption_ != nullptr) {
        encryption_->Encrypt(data, size, [this](const unsigned char* piece, std::size_t n) {
            out_.PutBytes(piece, n);
        });
    } else {
        out_.PutBytes(data, size);
    }
    out_.Put("\nendstream\nendobj\n");
}

}  // namespace zpdf::engine
