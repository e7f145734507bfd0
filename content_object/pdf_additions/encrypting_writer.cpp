#include "content_object/pdf_additions/encrypting_writer.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "content_object/pdf_additions/secured_writers.h"
#include "content_object/pdf_additions/source_security.h"

namespace zpdf::additions {
namespace {

constexpr std::size_t kAesBlock = 16;
constexpr std::size_t kIdBytes = 16;
constexpr std::size_t kFlushBytes = 1u << 20;
constexpr std::size_t kStreamChunk = 256u * 1024;

// ---- Engine calls: each sequence in its own small function, engine errors as EngineError ----

struct ObjectSlot {
    int in_use = 0;
    int gen = 0;
    int is_stream = 0;
    pdf_obj* obj = nullptr;  // a reference of our own, dropped by the caller
};

void LoadSlot(fz_context* ctx, pdf_document* doc, int num, ObjectSlot* slot) {
    char doing[64];
    fz_snprintf(doing, sizeof doing, "cannot read object %d", num);
    fz_try(ctx) {
        const pdf_xref_entry* entry = pdf_get_xref_entry_no_null(ctx, doc, num);
        if (entry->type == 'n' || entry->type == 'o') {
            // Objects inside an object stream have generation 0; their entry holds an index.
            slot->gen = entry->type == 'n' ? entry->gen : 0;
            slot->obj = pdf_load_object(ctx, doc, num);
            slot->is_stream = pdf_obj_num_is_stream(ctx, doc, num);
            slot->in_use = 1;
        }
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, slot->obj);
        slot->obj = nullptr;
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, doing);
    }
}

fz_buffer* LoadRawStream(fz_context* ctx, pdf_document* doc, int num) {
    char doing[64];
    fz_snprintf(doing, sizeof doing, "cannot read the stream of object %d", num);
    fz_buffer* buffer = nullptr;
    fz_var(buffer);
    fz_try(ctx) {
        buffer = pdf_load_raw_stream_number(ctx, doc, num);
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, doing);
    }
    return buffer;
}

struct TrailerEntries {
    int xref_length = 0;
    pdf_obj* root = nullptr;  // borrowed from the document
    pdf_obj* info = nullptr;
    const char* first_id = nullptr;
    std::size_t first_id_size = 0;
};

void ReadTrailer(fz_context* ctx, pdf_document* doc, TrailerEntries* entries) {
    fz_try(ctx) {
        pdf_obj* trailer = pdf_trailer(ctx, doc);
        entries->xref_length = pdf_xref_len(ctx, doc);
        entries->root = pdf_dict_get(ctx, trailer, PDF_NAME(Root));
        entries->info = pdf_dict_get(ctx, trailer, PDF_NAME(Info));
        pdf_obj* first = pdf_array_get(ctx, pdf_dict_get(ctx, trailer, PDF_NAME(ID)), 0);
        if (pdf_is_string(ctx, first)) {
            entries->first_id = pdf_to_string(ctx, first, &entries->first_id_size);
        }
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, "cannot read the trailer");
    }
}

class BufferReference {
  public:
    BufferReference(fz_context* ctx, fz_buffer* buffer) : ctx_(ctx), buffer_(buffer) {}
    BufferReference(const BufferReference&) = delete;
    BufferReference& operator=(const BufferReference&) = delete;
    ~BufferReference() { fz_drop_buffer(ctx_, buffer_); }

  private:
    fz_context* ctx_;
    fz_buffer* buffer_;
};

// ---- AES-256-CBC as the AESV3 method uses it: a fresh random IV, then the padded data ----

class Aes256Cbc {
  public:
    explicit Aes256Cbc(const unsigned char* key) : cipher_(EVP_CIPHER_CTX_new()) {
        if (cipher_ == nullptr) throw std::bad_alloc();
        std::memcpy(key_, key, sizeof key_);
    }
    Aes256Cbc(const Aes256Cbc&) = delete;
    Aes256Cbc& operator=(const Aes256Cbc&) = delete;
    ~Aes256Cbc() {
        EVP_CIPHER_CTX_free(cipher_);
        OPENSSL_cleanse(key_, sizeof key_);
    }

    static std::size_t EncryptedSize(std::size_t size) {
        return kAesBlock + (size / kAesBlock + 1) * kAesBlock;
    }

    // Starts a new piece of data and puts its IV into `iv`.
    void Begin(unsigned char (&iv)[kAesBlock]) {
        if (RAND_bytes(iv, static_cast<int>(kAesBlock)) != 1) {
            throw SecuredSaveError("The random generator gave no initialisation vector");
        }
        if (EVP_EncryptInit_ex(cipher_, EVP_aes_256_cbc(), nullptr, key_, iv) != 1) {
            throw SecuredSaveError("AES-256 encryption could not start");
        }
    }
    // `out` has room for size + 16 bytes; size is at most kStreamChunk.
    std::size_t Update(const unsigned char* in, std::size_t size, unsigned char* out) {
        int written = 0;
        if (size > 0 &&
            EVP_EncryptUpdate(cipher_, out, &written, in, static_cast<int>(size)) != 1) {
            throw SecuredSaveError("AES-256 encryption failed");
        }
        return static_cast<std::size_t>(written);
    }
    // `out` has room for 16 bytes.
    std::size_t Final(unsigned char* out) {
        int written = 0;
        if (EVP_EncryptFinal_ex(cipher_, out, &written) != 1) {
            throw SecuredSaveError("AES-256 encryption failed");
        }
        return static_cast<std::size_t>(written);
    }

  private:
    EVP_CIPHER_CTX* cipher_;
    unsigned char key_[kFileKeyBytes];
};

bool IsRegularNameChar(unsigned char c) {
    if (c < 0x21 || c > 0x7E) return false;
    return std::strchr("()<>[]{}/%#", c) == nullptr;
}

// ---- The writer ----

class EncryptingWriter {
  public:
    EncryptingWriter(fz_context* ctx, pdf_document* doc, engine::ByteSink& sink,
                     const unsigned char* key)
        : ctx_(ctx), doc_(doc), sink_(sink), aes_(key) {
        buffer_.reserve(kFlushBytes + 4096);
        scratch_.resize(kStreamChunk + kAesBlock);
    }

    void Write(pdf_obj* encrypt_dict) {
        Put("%PDF-1.7\n%\xE2\xE3\xCF\xD3\n");
        const SourceSecurity source = ReadSourceSecurity(ctx_, doc_);
        TrailerEntries trailer;
        ReadTrailer(ctx_, doc_, &trailer);
        const int length = trailer.xref_length;
        offsets_.assign(static_cast<std::size_t>(length), -1);
        gens_.assign(static_cast<std::size_t>(length), 0);

        for (int num = 1; num < length; ++num) {
            // What was written is let go: a long document is not kept parsed in full.
            if (num % engine::kObjectsBetweenReleases == 0)
                engine::ReleaseUnchangedObjects(ctx_, doc_);
            if (num == source.object_number) continue;  // replaced by our dictionary
            ObjectSlot slot;
            LoadSlot(ctx_, doc_, num, &slot);
            const OwnedObject keep(ctx_, slot.obj);
            if (slot.in_use == 0 || IsSourceStructure(slot.obj)) continue;
            gens_[static_cast<std::size_t>(num)] = slot.gen;
            if (slot.is_stream != 0) {
                WriteStreamObject(num, slot.gen, slot.obj);
            } else {
                BeginObject(num, slot.gen);
                PrintObject(slot.obj, true);
                Put("\nendobj\n");
            }
        }

        int next = length;
        const int encrypt_num = source.object_number > 0 ? source.object_number : next++;
        BeginObject(encrypt_num, 0);
        PrintObject(encrypt_dict, false);
        Put("\nendobj\n");

        const std::string root = IndirectFor(trailer.root, next);
        const std::string info = IndirectFor(trailer.info, next);
        const std::int64_t xref_offset = Offset();
        WriteXref(next);

        Put("trailer\n<< /Size ");
        PutNumber(next);
        if (!root.empty()) Put(" /Root " + root);
        if (!info.empty()) Put(" /Info " + info);
        Put(" /Encrypt ");
        PutNumber(encrypt_num);
        Put(" 0 R /ID [ ");
        unsigned char second_id[kIdBytes];
        if (RAND_bytes(second_id, static_cast<int>(kIdBytes)) != 1) {
            throw SecuredSaveError("The random generator gave no file identifier");
        }
        if (trailer.first_id_size > 0) {
            PrintHexString(reinterpret_cast<const unsigned char*>(trailer.first_id),
                           trailer.first_id_size);
        } else {
            PrintHexString(second_id, kIdBytes);  // a new file: both halves the same
        }
        Put(" ");
        PrintHexString(second_id, kIdBytes);
        Put(" ] >>\nstartxref\n");
        PutNumber(xref_offset);
        Put("\n%%EOF\n");
        Flush();
    }

  private:
    // Object streams, cross-reference streams and the linearization dictionary describe the
    // source's layout, which is not kept.
    bool IsSourceStructure(pdf_obj* obj) const {
        if (!pdf_is_dict(ctx_, obj)) return false;
        pdf_obj* type = pdf_dict_get(ctx_, obj, PDF_NAME(Type));
        return pdf_name_eq(ctx_, type, PDF_NAME(ObjStm)) ||
               pdf_name_eq(ctx_, type, PDF_NAME(XRef)) ||
               pdf_dict_get(ctx_, obj, PDF_NAME(Linearized)) != nullptr;
    }

    // "N G R" for an indirect trailer entry; a direct one is written as a new object first.
    std::string IndirectFor(pdf_obj* obj, int& next) {
        if (obj == nullptr) return {};
        if (pdf_is_indirect(ctx_, obj)) {
            return std::to_string(pdf_to_num(ctx_, obj)) + " " +
                   std::to_string(pdf_to_gen(ctx_, obj)) + " R";
        }
        const int num = next++;
        BeginObject(num, 0);
        PrintObject(obj, true);
        Put("\nendobj\n");
        return std::to_string(num) + " 0 R";
    }

    void WriteStreamObject(int num, int gen, pdf_obj* dict) {
        fz_buffer* raw = LoadRawStream(ctx_, doc_, num);
        const BufferReference keep(ctx_, raw);
        unsigned char* data = nullptr;
        const std::size_t size = fz_buffer_storage(ctx_, raw, &data);

        BeginObject(num, gen);
        Put("<<");
        const int entries = pdf_dict_len(ctx_, dict);
        for (int i = 0; i < entries; ++i) {
            pdf_obj* key = pdf_dict_get_key(ctx_, dict, i);
            if (pdf_name_eq(ctx_, key, PDF_NAME(Length))) continue;
            Put(" ");
            PrintObject(key, true);
            Put(" ");
            PrintObject(pdf_dict_get_val(ctx_, dict, i), true);
        }
        Put(" /Length ");
        PutNumber(static_cast<std::int64_t>(Aes256Cbc::EncryptedSize(size)));
        Put(" >>\nstream\n");

        unsigned char iv[kAesBlock];
        aes_.Begin(iv);
        PutBytes(iv, sizeof iv);
        for (std::size_t done = 0; done < size;) {
            const std::size_t chunk = std::min(kStreamChunk, size - done);
            PutBytes(scratch_.data(), aes_.Update(data + done, chunk, scratch_.data()));
            done += chunk;
        }
        PutBytes(scratch_.data(), aes_.Final(scratch_.data()));
        Put("\nendstream\nendobj\n");
    }

    void PrintObject(pdf_obj* obj, bool encrypt) {
        if (obj == nullptr || pdf_is_null(ctx_, obj)) {
            Put("null");
        } else if (pdf_is_indirect(ctx_, obj)) {
            PutNumber(pdf_to_num(ctx_, obj));
            Put(" ");
            PutNumber(pdf_to_gen(ctx_, obj));
            Put(" R");
        } else if (pdf_is_bool(ctx_, obj)) {
            Put(pdf_to_bool(ctx_, obj) ? "true" : "false");
        } else if (pdf_is_int(ctx_, obj)) {
            PutNumber(pdf_to_int64(ctx_, obj));
        } else if (pdf_is_real(ctx_, obj)) {
            char text[64];
            // The engine's %g never uses an exponent, which PDF numbers may not have.
            fz_snprintf(text, sizeof text, "%g", pdf_to_real(ctx_, obj));
            Put(text);
        } else if (pdf_is_name(ctx_, obj)) {
            PrintName(pdf_to_name(ctx_, obj));
        } else if (pdf_is_string(ctx_, obj)) {
            std::size_t size = 0;
            const auto* bytes =
                reinterpret_cast<const unsigned char*>(pdf_to_string(ctx_, obj, &size));
            if (encrypt) {
                PrintEncryptedString(bytes, size);
            } else {
                PrintHexString(bytes, size);
            }
        } else if (pdf_is_array(ctx_, obj)) {
            Put("[");
            const int count = pdf_array_len(ctx_, obj);
            for (int i = 0; i < count; ++i) {
                Put(" ");
                PrintObject(pdf_array_get(ctx_, obj, i), encrypt);
            }
            Put(" ]");
        } else if (pdf_is_dict(ctx_, obj)) {
            Put("<<");
            const int count = pdf_dict_len(ctx_, obj);
            for (int i = 0; i < count; ++i) {
                Put(" ");
                PrintObject(pdf_dict_get_key(ctx_, obj, i), encrypt);
                Put(" ");
                PrintObject(pdf_dict_get_val(ctx_, obj, i), encrypt);
            }
            Put(" >>");
        } else {
            Put("null");
        }
    }

    void PrintName(const char* name) {
        static const char kHex[] = "0123456789ABCDEF";
        Put("/");
        for (const char* p = name; *p != '\0'; ++p) {
            const auto c = static_cast<unsigned char>(*p);
            if (IsRegularNameChar(c)) {
                buffer_ += static_cast<char>(c);
            } else {
                buffer_ += '#';
                buffer_ += kHex[c >> 4];
                buffer_ += kHex[c & 15];
            }
        }
    }

    void PrintHexString(const unsigned char* data, std::size_t size) {
        static const char kHex[] = "0123456789abcdef";
        buffer_ += '<';
        for (std::size_t i = 0; i < size; ++i) {
            buffer_ += kHex[data[i] >> 4];
            buffer_ += kHex[data[i] & 15];
        }
        buffer_ += '>';
        FlushIfFull();
    }

    void PrintEncryptedString(const unsigned char* data, std::size_t size) {
        std::vector<unsigned char>& out = string_scratch_;
        out.resize(Aes256Cbc::EncryptedSize(size));
        unsigned char iv[kAesBlock];
        aes_.Begin(iv);
        std::memcpy(out.data(), iv, sizeof iv);
        std::size_t length = sizeof iv;
        for (std::size_t done = 0; done < size;) {
            const std::size_t chunk = std::min(kStreamChunk, size - done);
            length += aes_.Update(data + done, chunk, out.data() + length);
            done += chunk;
        }
        length += aes_.Final(out.data() + length);
        PrintHexString(out.data(), length);
    }

    void BeginObject(int num, int gen) {
        const auto index = static_cast<std::size_t>(num);
        if (index >= offsets_.size()) {
            offsets_.resize(index + 1, -1);
            gens_.resize(index + 1, 0);
        }
        offsets_[index] = Offset();
        gens_[index] = gen;
        PutNumber(num);
        Put(" ");
        PutNumber(gen);
        Put(" obj\n");
    }

    // A classic table; free entries are chained from entry 0.
    void WriteXref(int size) {
        offsets_.resize(static_cast<std::size_t>(size), -1);
        gens_.resize(static_cast<std::size_t>(size), 0);
        offsets_[0] = -1;
        std::vector<int> next_free(static_cast<std::size_t>(size), 0);
        int following = 0;
        for (int num = size - 1; num >= 0; --num) {
            if (offsets_[static_cast<std::size_t>(num)] < 0) {
                next_free[static_cast<std::size_t>(num)] = following;
                following = num;
            }
        }
        Put("xref\n0 ");
        PutNumber(size);
        Put("\n");
        char entry[32];
        for (int num = 0; num < size; ++num) {
            const auto index = static_cast<std::size_t>(num);
            if (offsets_[index] >= 0) {
                std::snprintf(entry, sizeof entry, "%010lld %05d n \n",
                              static_cast<long long>(offsets_[index]), gens_[index]);
            } else {
                std::snprintf(entry, sizeof entry, "%010d %05d f \n", next_free[index],
                              num == 0 ? 65535 : 0);
            }
            Put(entry);
        }
    }

    std::int64_t Offset() const { return flushed_ + static_cast<std::int64_t>(buffer_.size()); }

    void Put(std::string_view text) {
        buffer_.append(text);
        FlushIfFull();
    }

    void PutNumber(std::int64_t value) {
        char text[24];
        const auto result = std::to_chars(text, text + sizeof text, value);
        buffer_.append(text, result.ptr);
    }

    void PutBytes(const unsigned char* data, std::size_t size) {
        buffer_.append(reinterpret_cast<const char*>(data), size);
        FlushIfFull();
    }

    void FlushIfFull() {
        if (buffer_.size() >= kFlushBytes) Flush();
    }

    void Flush() {
        if (buffer_.empty()) return;
        if (!sink_.Write(buffer_.data(), buffer_.size())) {
            throw SecuredSaveError("Cannot write the output file");
        }
        flushed_ += static_cast<std::int64_t>(buffer_.size());
        buffer_.clear();
    }

    fz_context* ctx_;
    pdf_document* doc_;
    engine::ByteSink& sink_;
    Aes256Cbc aes_;
    std::string buffer_;
    std::int64_t flushed_ = 0;
    std::vector<unsigned char> scratch_;
    std::vector<unsigned char> string_scratch_;
    std::vector<std::int64_t> offsets_;  // -1 for a free entry
    std::vector<int> gens_;
};

}  // namespace

void WriteEncryptedDocument(fz_context* ctx, pdf_document* doc, pdf_obj* encrypt_dict,
                            const unsigned char* file_key, engine::ByteSink& sink) {
    EncryptingWriter writer(ctx, doc, sink, file_key);
    writer.Write(encrypt_dict);
}

}  // namespace zpdf::additions
