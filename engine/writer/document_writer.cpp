#include "engine/writer/document_writer.h"

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
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/graft.h"
#include "engine/placement.h"
#include "engine/security/secured_save.h"
#include "engine/security/source_security.h"

namespace zpdf::engine {
namespace {

constexpr std::size_t kAesBlock = 16;
constexpr std::size_t kIdBytes = 16;
constexpr std::size_t kFlushBytes = 256u * 1024;
constexpr std::size_t kStreamChunk = 256u * 1024;

// ---- Engine calls: each sequence in its own small function, engine errors as EngineError ----

struct ObjectSlot {
    int in_use = 0;
    int gen = 0;
    int is_stream = 0;
    pdf_obj* obj = nullptr;  // a reference of our own, dropped by the caller
};

// Fills `slot` for object `num`; throws an engine error.
void ReadSlot(fz_context* ctx, pdf_document* doc, int num, ObjectSlot* slot) {
    const pdf_xref_entry* entry = pdf_get_xref_entry_no_null(ctx, doc, num);
    if (entry->type == 'n' || entry->type == 'o') {
        // Objects inside an object stream have generation 0; their entry holds an index.
        slot->gen = entry->type == 'n' ? entry->gen : 0;
        slot->obj = pdf_load_object(ctx, doc, num);
        slot->is_stream = pdf_obj_num_is_stream(ctx, doc, num);
        slot->in_use = 1;
    }
}

void LoadSlot(fz_context* ctx, pdf_document* doc, int num, ObjectSlot* slot) {
    char doing[64];
    fz_snprintf(doing, sizeof doing, "cannot read object %d", num);
    fz_try(ctx) {
        ReadSlot(ctx, doc, num, slot);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, slot->obj);
        slot->obj = nullptr;
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, doing);
    }
}

// An object of the source of an append: one that cannot be read is left empty, to be copied as
// null, as the engine's page import copies it. Never throws.
void LoadCopiedSlot(fz_context* ctx, pdf_document* doc, int num, ObjectSlot* slot) {
    fz_try(ctx) {
        ReadSlot(ctx, doc, num, slot);
    }
    fz_catch(ctx) {
        pdf_drop_obj(ctx, slot->obj);
        *slot = ObjectSlot{};
        fz_warn(ctx, "cannot read object %d of an appended document, copied as null: %s", num,
                fz_caught_message(ctx));
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

// ---- What a page with recorded placements is written from ----

struct PlacementName {
    char text[32] = {};
};

// The page's content and resources, each a reference of our own (dropped by
// PlacedPageReferences): the writer releases objects as it goes, and nothing it prints from
// may go with them.
struct PlacedPage {
    pdf_obj* contents = nullptr;       // /Contents as the page holds it
    pdf_obj* content_array = nullptr;  // the array it names, when it is one
    int content_stream = 0;            // it names a stream
    pdf_obj* resources = nullptr;      // the page's own or inherited resources dictionary
    pdf_obj* xobjects = nullptr;       // their XObject dictionary
};

class PlacedPageReferences {
  public:
    PlacedPageReferences(fz_context* ctx, const PlacedPage& parts) : ctx_(ctx), parts_(parts) {}
    PlacedPageReferences(const PlacedPageReferences&) = delete;
    PlacedPageReferences& operator=(const PlacedPageReferences&) = delete;
    ~PlacedPageReferences() {
        pdf_drop_obj(ctx_, parts_.contents);
        pdf_drop_obj(ctx_, parts_.content_array);
        pdf_drop_obj(ctx_, parts_.resources);
        pdf_drop_obj(ctx_, parts_.xobjects);
    }

  private:
    fz_context* ctx_;
    const PlacedPage& parts_;
};

// Reads the parts of `page` and picks a name for each of `count` placements that its
// resources do not hold yet: "FXX" and the smallest free numbers.
void ReadPlacedPage(fz_context* ctx, pdf_obj* page, int count, PlacementName* names,
                    PlacedPage* parts) {
    fz_try(ctx) {
        pdf_obj* contents = pdf_dict_get(ctx, page, PDF_NAME(Contents));
        parts->contents = pdf_keep_obj(ctx, contents);
        if (pdf_is_array(ctx, contents)) {
            parts->content_array = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, contents));
        } else {
            parts->content_stream = pdf_is_indirect(ctx, contents) && pdf_is_stream(ctx, contents);
        }
        pdf_obj* resources = pdf_dict_get_inheritable(ctx, page, PDF_NAME(Resources));
        if (pdf_is_dict(ctx, resources)) {
            parts->resources = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, resources));
            pdf_obj* xobjects = pdf_dict_get(ctx, parts->resources, PDF_NAME(XObject));
            if (pdf_is_dict(ctx, xobjects))
                parts->xobjects = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, xobjects));
        }
        int n = 1;
        for (int i = 0; i < count; ++i, ++n) {
            for (;; ++n) {
                fz_snprintf(names[i].text, sizeof names[i].text, "FXX%d", n);
                if (parts->xobjects == nullptr ||
                    !pdf_dict_gets(ctx, parts->xobjects, names[i].text))
                    break;
            }
        }
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf,
                            "cannot read a page to draw its placements");
    }
}

struct PlacementPageOrder {
    const std::vector<engine::PendingPlacement>& placements;
    bool operator()(std::uint32_t index, int page) const { return placements[index].page < page; }
    bool operator()(int page, std::uint32_t index) const { return page < placements[index].page; }
};

// The document's version as the writer puts it in the header: 1.0 to 1.7.
int DocumentVersion(fz_context* ctx, pdf_document* doc) {
    volatile int version = 17;
    fz_try(ctx) {
        version = pdf_version(ctx, doc);
    }
    fz_catch(ctx) {
        version = 17;
    }
    return version >= 10 && version <= 17 ? version : 17;
}

void CheckCatalog(fz_context* ctx, pdf_document* doc) {
    fz_try(ctx) {
        engine::RequireCatalog(ctx, doc);
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::File, "cannot write the document");
    }
}

// ---- What the pages recorded to be appended are written from ----

// The page tree root's object number; throws EngineError where it is not an object of its own,
// which leaves no place for appended pages.
int PageTreeRootNumber(fz_context* ctx, pdf_document* doc) {
    volatile int num = 0;
    fz_try(ctx) {
        pdf_obj* root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        if (pdf_is_indirect(ctx, root)) num = pdf_to_num(ctx, root);
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, "cannot read the page tree");
    }
    if (num <= 0) {
        throw engine::EngineError(engine::ErrorCategory::Other,
                                  "cannot append pages: the page tree root is not an object");
    }
    return num;
}

int XrefLength(fz_context* ctx, pdf_document* doc) {
    volatile int length = 0;
    fz_try(ctx) {
        length = pdf_xref_len(ctx, doc);
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, "cannot read the table of objects");
    }
    return length;
}

// The root node's Kids array (a reference of our own, dropped by the caller) and its count.
void ReadPageTreeRoot(fz_context* ctx, pdf_obj* root, pdf_obj** kids, int* count) {
    fz_try(ctx) {
        *kids =
            pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, pdf_dict_get(ctx, root, PDF_NAME(Kids))));
        *count = pdf_dict_get_int(ctx, root, PDF_NAME(Count));
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::NotPdf, "cannot read the page tree");
    }
}

// The entries of page `index` of `src` that a copy keeps, in the order of CopiedPageEntries(),
// null where the page has none; each a reference of our own, dropped by the caller. Read in the
// source's own context, which reports its errors.
void ReadSourcePage(engine::Document::Impl& src, int index, pdf_obj** values) {
    fz_context* ctx = src.ctx;
    const auto entries = engine::CopiedPageEntries();
    fz_try(ctx) {
        pdf_obj* page = engine::LookupPage(src, index);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            pdf_obj* value = entries[i].inheritable
                                 ? pdf_dict_get_inheritable(ctx, page, entries[i].key)
                                 : pdf_dict_get(ctx, page, entries[i].key);
            values[i] = pdf_keep_obj(ctx, value);
        }
    }
    fz_catch(ctx) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            pdf_drop_obj(ctx, values[i]);
            values[i] = nullptr;
        }
        char doing[64];
        fz_snprintf(doing, sizeof doing, "cannot read page %d of the appended document", index + 1);
        engine::ThrowCaught(ctx, engine::ErrorCategory::Page, doing);
    }
}

// The pages of one recorded append and the page tree nodes that gather them, kGraftFanOut kids
// at most to a node, as a page import builds them. Pages and the nodes of each level have
// consecutive object numbers.
struct AppendedRun {
    struct Node {
        int num;
        int first;  // its kids, as indexes into the level below (pages for level 0)
        int end;
        int held;  // pages below it
    };
    engine::Document::Impl* source = nullptr;
    int pages = 0;
    int first_page = 0;                     // the first page's object number
    std::vector<std::vector<Node>> levels;  // the last level holds the run's top node alone
    int top = 0;  // what goes into the root's Kids: the top node, or the one page

    // Numbers the pages and nodes from `*next` on.
    void Plan(int* next) {
        first_page = *next;
        *next += pages;
        int items = pages;
        while (items > 1) {
            const int groups = (items + kGraftFanOut - 1) / kGraftFanOut;
            std::vector<Node> level(static_cast<std::size_t>(groups));
            for (int g = 0; g < groups; ++g) {
                // Even shares: group sizes differ by one at most.
                Node& node = level[static_cast<std::size_t>(g)];
                node.num = (*next)++;
                node.first = static_cast<int>(static_cast<long long>(items) * g / groups);
                node.end = static_cast<int>(static_cast<long long>(items) * (g + 1) / groups);
                node.held = 0;
                for (int k = node.first; k < node.end; ++k) node.held += Held(k);
            }
            levels.push_back(std::move(level));
            items = groups;
        }
        top = levels.empty() ? first_page : levels.back().front().num;
    }

    // What the item `k` of the level below the next one holds.
    int Held(int k) const {
        return levels.empty() ? 1 : levels.back()[static_cast<std::size_t>(k)].held;
    }
};

// ---- The writer ----

class DocumentWriter {
  public:
    // Encrypts under `key` (kFileKeyBytes long), or writes in clear when it is null.
    DocumentWriter(engine::Document::Impl& impl, engine::ByteSink& sink, const unsigned char* key)
        : ctx_(impl.ctx),
          doc_(impl.doc),
          sink_(sink),
          placements_(impl.pending_placements),
          appends_(impl.pending_appends) {
        buffer_.reserve(kFlushBytes + 4096);
        if (key != nullptr) {
            aes_.emplace(key);
            scratch_.resize(kStreamChunk + kAesBlock);
        }
        placement_order_.resize(placements_.size());
        for (std::size_t i = 0; i < placement_order_.size(); ++i)
            placement_order_[i] = static_cast<std::uint32_t>(i);
        std::stable_sort(placement_order_.begin(), placement_order_.end(),
                         [this](std::uint32_t a, std::uint32_t b) {
                             return placements_[a].page < placements_[b].page;
                         });
    }

    // With `encrypt_dict` as the encryption dictionary when encrypting.
    void Write(pdf_obj* encrypt_dict) {
        if (aes_) {
            Put("%PDF-1.7\n");
        } else {
            const int version = DocumentVersion(ctx_, doc_);
            Put("%PDF-" + std::to_string(version / 10) + "." + std::to_string(version % 10) + "\n");
        }
        Put("%\xE2\xE3\xCF\xD3\n");
        const SourceSecurity source = ReadSourceSecurity(ctx_, doc_);
        TrailerEntries trailer;
        ReadTrailer(ctx_, doc_, &trailer);
        const int length = trailer.xref_length;
        offsets_.assign(static_cast<std::size_t>(length), -1);
        gens_.assign(static_cast<std::size_t>(length), 0);
        next_ = length;
        if (!appends_.empty()) {
            pages_root_ = PageTreeRootNumber(ctx_, doc_);
            for (const engine::PendingAppend& append : appends_) {
                AppendedRun& run = runs_.emplace_back();
                run.source = &append.source->Pages().Internals();
                run.pages = append.pages;
                run.Plan(&next_);
            }
        }

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
                WriteStreamObject(num, num, slot.gen, slot.obj);
            } else if (num == pages_root_) {
                WritePageTreeRoot(num, slot.gen, slot.obj);
            } else if (const auto placed = PlacementsOf(num); !placed.empty()) {
                WritePlacedPage(num, slot.gen, slot.obj, placed);
            } else {
                BeginObject(num, slot.gen);
                PrintObject(slot.obj, true);
                Put("\nendobj\n");
            }
        }

        for (const AppendedRun& run : runs_) WriteAppendedRun(run);

        int encrypt_num = 0;
        if (aes_) {
            encrypt_num = source.object_number > 0 ? source.object_number : next_++;
            BeginObject(encrypt_num, 0);
            PrintObject(encrypt_dict, false);
            Put("\nendobj\n");
        }

        const std::string root = IndirectFor(trailer.root);
        const std::string info = IndirectFor(trailer.info);
        const std::int64_t xref_offset = Offset();
        WriteXref(next_);

        Put("trailer\n<< /Size ");
        PutNumber(next_);
        if (!root.empty()) Put(" /Root " + root);
        if (!info.empty()) Put(" /Info " + info);
        if (aes_) {
            Put(" /Encrypt ");
            PutNumber(encrypt_num);
            Put(" 0 R");
        }
        Put(" /ID [ ");
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
    std::string IndirectFor(pdf_obj* obj) {
        if (obj == nullptr) return {};
        if (pdf_is_indirect(ctx_, obj)) {
            return std::to_string(pdf_to_num(ctx_, obj)) + " " +
                   std::to_string(pdf_to_gen(ctx_, obj)) + " R";
        }
        const int num = next_++;
        BeginObject(num, 0);
        PrintObject(obj, true);
        Put("\nendobj\n");
        return std::to_string(num) + " 0 R";
    }

    // The stream `stored` of the document read from, written as object `num`.
    void WriteStreamObject(int stored, int num, int gen, pdf_obj* dict) {
        fz_buffer* raw = LoadRawStream(ctx_, doc_, stored);
        const BufferReference keep(ctx_, raw);
        unsigned char* data = nullptr;
        const std::size_t size = fz_buffer_storage(ctx_, raw, &data);

        BeginObject(num, gen);
        Put("<<");
        PrintEntries(dict, true, PDF_NAME(Length));
        PutStreamData(data, size);
    }

    // The stream dictionary's /Length, its end and the data, encrypted when encrypting.
    void PutStreamData(const unsigned char* data, std::size_t size) {
        Put(" /Length ");
        PutNumber(static_cast<std::int64_t>(aes_ ? Aes256Cbc::EncryptedSize(size) : size));
        Put(" >>\nstream\n");
        if (aes_) {
            unsigned char iv[kAesBlock];
            aes_->Begin(iv);
            PutBytes(iv, sizeof iv);
            for (std::size_t done = 0; done < size;) {
                const std::size_t chunk = std::min(kStreamChunk, size - done);
                PutBytes(scratch_.data(), aes_->Update(data + done, chunk, scratch_.data()));
                done += chunk;
            }
            PutBytes(scratch_.data(), aes_->Final(scratch_.data()));
        } else {
            PutBytes(data, size);
        }
        Put("\nendstream\nendobj\n");
    }

    // ---- Recorded placements, drawn into their pages as the pages are written ----

    std::vector<engine::PendingPlacement> PlacementsOf(int num) const {
        const auto range = std::equal_range(placement_order_.begin(), placement_order_.end(), num,
                                            PlacementPageOrder{placements_});
        std::vector<engine::PendingPlacement> found;
        for (auto it = range.first; it != range.second; ++it) found.push_back(placements_[*it]);
        return found;
    }

    // The page with its placements' forms named in its resources (a copy of its own where it
    // inherited them) and their streams around its content, each new stream written after it.
    void WritePlacedPage(int num, int gen, pdf_obj* page,
                         const std::vector<engine::PendingPlacement>& placed) {
        std::vector<PlacementName> names(placed.size());
        PlacedPage parts;
        ReadPlacedPage(ctx_, page, static_cast<int>(names.size()), names.data(), &parts);
        const PlacedPageReferences keep(ctx_, parts);
        if (parts.content_array == nullptr && parts.content_stream == 0) {
            // Nothing to draw around: the page is written as it is.
            BeginObject(num, gen);
            PrintObject(page, true);
            Put("\nendobj\n");
            return;
        }

        std::vector<int> front;
        std::vector<int> back;
        std::vector<std::pair<int, std::string>> added;
        for (std::size_t i = 0; i < placed.size(); ++i) {
            const PlacementStreams streams = PlacementContent(placed[i], names[i].text);
            front.push_back(StreamNumber(streams.front, added));
            if (!streams.back.empty()) back.push_back(StreamNumber(streams.back, added));
        }

        BeginObject(num, gen);
        Put("<<");
        PrintEntries(page, true, PDF_NAME(Contents), PDF_NAME(Resources));
        Put(" /Resources <<");
        PrintEntries(parts.resources, true, PDF_NAME(XObject));
        Put(" /XObject <<");
        PrintEntries(parts.xobjects, true);
        for (std::size_t i = 0; i < placed.size(); ++i) {
            Put(" ");
            PrintName(names[i].text);
            Put(" ");
            PutReference(static_cast<std::int64_t>(placed[i].form));
        }
        Put(" >> >> /Contents [");
        for (auto it = front.rbegin(); it != front.rend(); ++it) {
            Put(" ");
            PutReference(*it);
        }
        if (parts.content_array != nullptr) {
            const int count = pdf_array_len(ctx_, parts.content_array);
            for (int i = 0; i < count; ++i) {
                Put(" ");
                PrintObject(pdf_array_get(ctx_, parts.content_array, i), true);
            }
        } else {
            Put(" ");
            PrintObject(parts.contents, true);
        }
        for (const int stream : back) {
            Put(" ");
            PutReference(stream);
        }
        Put(" ] >>\nendobj\n");

        for (const auto& [stream_num, bytes] : added) {
            BeginObject(stream_num, 0);
            Put("<<");
            PutStreamData(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        }
    }

    // ---- Recorded appends, written after the document's own objects ----

    // The root of the page tree, with the tops of the appended runs after its own kids.
    void WritePageTreeRoot(int num, int gen, pdf_obj* root) {
        pdf_obj* kids = nullptr;
        int count = 0;
        ReadPageTreeRoot(ctx_, root, &kids, &count);
        const OwnedObject keep(ctx_, kids);
        for (const AppendedRun& run : runs_) count += run.pages;
        BeginObject(num, gen);
        Put("<<");
        PrintEntries(root, true, PDF_NAME(Kids), PDF_NAME(Count));
        Put(" /Kids [");
        const int length = pdf_array_len(ctx_, kids);
        for (int i = 0; i < length; ++i) {
            Put(" ");
            PrintObject(pdf_array_get(ctx_, kids, i), true);
        }
        for (const AppendedRun& run : runs_) {
            Put(" ");
            PutReference(run.top);
        }
        Put(" ] /Count ");
        PutNumber(count);
        Put(" >>\nendobj\n");
    }

    // The run's nodes, then its pages, each followed by the objects of the source it uses that
    // were not written before. The source's objects are numbered as they are first met.
    void WriteAppendedRun(const AppendedRun& run) {
        for (std::size_t l = 0; l < run.levels.size(); ++l) {
            const std::vector<AppendedRun::Node>& level = run.levels[l];
            const int kid_base = l == 0 ? run.first_page : run.levels[l - 1].front().num;
            for (std::size_t g = 0; g < level.size(); ++g) {
                const AppendedRun::Node& node = level[g];
                BeginObject(node.num, 0);
                Put("<< /Type /Pages /Parent ");
                PutReference(l + 1 < run.levels.size()
                                 ? ParentOf(run.levels[l + 1], static_cast<int>(g))
                                 : pages_root_);
                Put(" /Kids [");
                for (int k = node.first; k < node.end; ++k) {
                    Put(" ");
                    PutReference(kid_base + k);
                }
                Put(" ] /Count ");
                PutNumber(node.held);
                Put(" >>\nendobj\n");
            }
        }

        const ReadingSource reading(*this, *run.source);
        copied_.assign(static_cast<std::size_t>(XrefLength(ctx_, doc_)), 0);
        for (int k = 0; k < run.pages; ++k) {
            const int parent = run.levels.empty() ? pages_root_ : ParentOf(run.levels.front(), k);
            WriteAppendedPage(*run.source, k, run.first_page + k, parent);
            while (!to_copy_.empty()) {
                const int stored = to_copy_.back();
                to_copy_.pop_back();
                WriteCopiedObject(stored, copied_[static_cast<std::size_t>(stored)]);
            }
            // The source's objects written so far are held by nobody now.
            engine::NoteWork(*run.source);
        }
    }

    // Reads objects from the source of an append, in its own context, and writes references
    // under the numbers given to its objects, for as long as it lives.
    class ReadingSource {
      public:
        ReadingSource(DocumentWriter& writer, engine::Document::Impl& source)
            : writer_(writer), ctx_(writer.ctx_), doc_(writer.doc_) {
            writer_.ctx_ = source.ctx;
            writer_.doc_ = source.doc;
            writer_.copying_ = true;
        }
        ReadingSource(const ReadingSource&) = delete;
        ReadingSource& operator=(const ReadingSource&) = delete;
        ~ReadingSource() {
            writer_.ctx_ = ctx_;
            writer_.doc_ = doc_;
            writer_.copying_ = false;
            writer_.copied_ = {};
            writer_.to_copy_.clear();
        }

      private:
        DocumentWriter& writer_;
        fz_context* ctx_;
        pdf_document* doc_;
    };

    // The number of the node of `level` whose kids include item `k` of the level below.
    static int ParentOf(const std::vector<AppendedRun::Node>& level, int k) {
        const auto it = std::upper_bound(
            level.begin(), level.end(), k,
            [](int item, const AppendedRun::Node& node) { return item < node.end; });
        return it->num;
    }

    void WriteAppendedPage(engine::Document::Impl& source, int index, int num, int parent) {
        const auto entries = engine::CopiedPageEntries();
        std::vector<pdf_obj*> values(entries.size(), nullptr);
        ReadSourcePage(source, index, values.data());
        struct Drop {
            fz_context* ctx;
            std::vector<pdf_obj*>& values;
            ~Drop() {
                for (pdf_obj* value : values) pdf_drop_obj(ctx, value);
            }
        } drop{ctx_, values};
        BeginObject(num, 0);
        Put("<< /Type /Page /Parent ");
        PutReference(parent);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            if (values[i] == nullptr) continue;
            Put(" ");
            PrintObject(entries[i].key, true);
            Put(" ");
            PrintObject(values[i], true);
        }
        Put(" >>\nendobj\n");
    }

    // The source's object `stored`, written as object `num`; null where the source has none.
    void WriteCopiedObject(int stored, int num) {
        ObjectSlot slot;
        LoadCopiedSlot(ctx_, doc_, stored, &slot);
        const OwnedObject keep(ctx_, slot.obj);
        if (slot.in_use != 0 && slot.is_stream != 0) {
            WriteStreamObject(stored, num, 0, slot.obj);
            return;
        }
        BeginObject(num, 0);
        PrintObject(slot.in_use != 0 ? slot.obj : nullptr, true);
        Put("\nendobj\n");
    }

    // The number the source's object `stored` is written under, given when it is first met;
    // 0 for a number outside the source's table.
    int CopiedNumber(int stored) {
        if (stored <= 0 || static_cast<std::size_t>(stored) >= copied_.size()) return 0;
        int& num = copied_[static_cast<std::size_t>(stored)];
        if (num == 0) {
            num = next_++;
            to_copy_.push_back(stored);
        }
        return num;
    }

    // The object number of a placement stream with these bytes: one written before, or a new
    // one, added to `added` to be written after the page.
    int StreamNumber(const std::string& bytes, std::vector<std::pair<int, std::string>>& added) {
        // Placements that differ from page to page are not worth remembering.
        constexpr std::size_t kMaxRemembered = 64;
        if (const auto found = written_streams_.find(bytes); found != written_streams_.end())
            return found->second;
        const int num = next_++;
        if (written_streams_.size() < kMaxRemembered) written_streams_.emplace(bytes, num);
        added.emplace_back(num, bytes);
        return num;
    }

    // The entries of `dict` (none for null), each with a space in front, but for the keys
    // `left_out` and `also_left_out`.
    void PrintEntries(pdf_obj* dict, bool encrypt, pdf_obj* left_out = nullptr,
                      pdf_obj* also_left_out = nullptr) {
        if (dict == nullptr) return;
        const int count = pdf_dict_len(ctx_, dict);
        for (int i = 0; i < count; ++i) {
            pdf_obj* key = pdf_dict_get_key(ctx_, dict, i);
            if ((left_out != nullptr && pdf_name_eq(ctx_, key, left_out)) ||
                (also_left_out != nullptr && pdf_name_eq(ctx_, key, also_left_out)))
                continue;
            Put(" ");
            PrintObject(key, encrypt);
            Put(" ");
            PrintObject(pdf_dict_get_val(ctx_, dict, i), encrypt);
        }
    }

    void PutReference(std::int64_t num) {
        PutNumber(num);
        Put(" 0 R");
    }

    void PrintObject(pdf_obj* obj, bool encrypt) {
        // A reference is written as it stands: asking first whether it is null would parse the
        // object it names (every page, for the page tree's Kids), and could fail right here.
        if (obj != nullptr && pdf_is_indirect(ctx_, obj)) {
            if (copying_) {
                const int num = CopiedNumber(pdf_to_num(ctx_, obj));
                if (num > 0) {
                    PutReference(num);
                } else {
                    Put("null");
                }
            } else {
                PutNumber(pdf_to_num(ctx_, obj));
                Put(" ");
                PutNumber(pdf_to_gen(ctx_, obj));
                Put(" R");
            }
        } else if (obj == nullptr || pdf_is_null(ctx_, obj)) {
            Put("null");
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
            if (encrypt && aes_) {
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
            PrintEntries(obj, encrypt);
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
        aes_->Begin(iv);
        std::memcpy(out.data(), iv, sizeof iv);
        std::size_t length = sizeof iv;
        for (std::size_t done = 0; done < size;) {
            const std::size_t chunk = std::min(kStreamChunk, size - done);
            length += aes_->Update(data + done, chunk, out.data() + length);
            done += chunk;
        }
        length += aes_->Final(out.data() + length);
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
    const std::vector<engine::PendingPlacement>& placements_;
    const std::vector<engine::PendingAppend>& appends_;
    std::vector<AppendedRun> runs_;
    int pages_root_ = 0;  // the page tree root's number, when pages are appended
    // While the pages of an append are written, references name the source's objects: each
    // is written under a number of ours, given when first met, and queued to be written.
    bool copying_ = false;
    std::vector<int> copied_;  // by the source's object number; 0 until met
    std::vector<int> to_copy_;
    std::vector<std::uint32_t> placement_order_;  // indexes into placements_, by page
    std::unordered_map<std::string, int> written_streams_;
    int next_ = 0;  // the next free object number
    std::optional<Aes256Cbc> aes_;
    std::string buffer_;
    std::int64_t flushed_ = 0;
    std::vector<unsigned char> scratch_;
    std::vector<unsigned char> string_scratch_;
    std::vector<std::int64_t> offsets_;  // -1 for a free entry
    std::vector<int> gens_;
};

}  // namespace

void WriteEncryptedDocument(engine::Document::Impl& impl, pdf_obj* encrypt_dict,
                            const unsigned char* file_key, engine::ByteSink& sink) {
    DocumentWriter writer(impl, sink, file_key);
    writer.Write(encrypt_dict);
}

void WritePlainDocument(engine::Document::Impl& impl, engine::ByteSink& sink) {
    CheckCatalog(impl.ctx, impl.doc);
    DocumentWriter writer(impl, sink, nullptr);
    writer.Write(nullptr);
    // Reading every object can make the engine rebuild a damaged table, and a rebuild that
    // fails empties the document: what was written then is not the document.
    CheckCatalog(impl.ctx, impl.doc);
}

}  // namespace zpdf::engine
