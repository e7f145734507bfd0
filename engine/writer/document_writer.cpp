#include "engine/writer/document_writer.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/page_copy.h"
#include "engine/page_tree_plan.h"
#include "engine/placement.h"
#include "engine/security/secured_save.h"
#include "engine/security/source_security.h"
#include "engine/writer/cross_reference.h"
#include "engine/writer/object_printer.h"
#include "engine/writer/pdf_output.h"

namespace zpdf::engine {
namespace {

constexpr std::size_t kIdBytes = 16;

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
        ThrowCaught(ctx, ErrorCategory::NotPdf, doing);
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
        ThrowCaught(ctx, ErrorCategory::NotPdf, doing);
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
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the trailer");
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
        RequireCatalog(ctx, doc);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::File, "cannot write the document");
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
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the page tree");
    }
    if (num <= 0) {
        throw EngineError(ErrorCategory::Other,
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
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the table of objects");
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
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot read the page tree");
    }
}

// The dictionary of the copy of page `index` of `src` (a reference of our own, dropped by the
// caller), read in the source's own context, which reports its errors.
pdf_obj* ReadCopiedPage(Document::Impl& src, int index) {
    fz_context* ctx = src.ctx;
    pdf_obj* volatile page = nullptr;
    fz_try(ctx) {
        page = CopiedPageDictionary(ctx, LookupPage(src, index));
    }
    fz_catch(ctx) {
        char doing[64];
        fz_snprintf(doing, sizeof doing, "cannot read page %d of the appended document", index + 1);
        ThrowCaught(ctx, ErrorCategory::Page, doing);
    }
    return page;
}

// The object numbers of the `count` pages of `src`, in order; empty where its page tree does not
// give every page a number of its own (the pages are then found one by one as they are written).
std::vector<int> SourcePageNumbers(Document::Impl& src, int count) {
    fz_context* ctx = src.ctx;
    volatile int found = 0;
    fz_try(ctx) {
        if (count > 0) LookupPage(src, 0);  // fills the page number cache
        found = 1;
    }
    fz_catch(ctx) {
        found = 0;
    }
    if (found == 0 || src.page_numbers.size() != static_cast<std::size_t>(count)) return {};
    return src.page_numbers;
}

// The streams of the placements drawn into pages as they are written: one written before with
// the same bytes, or a new one, written after the page that first uses it.
class WrittenPlacementStreams final : public PlacementStreamSource {
  public:
    WrittenPlacementStreams(CrossReference& xref, SharedPlacementStreams& shared)
        : xref_(xref), shared_(shared) {}
    int StreamFor(const std::string& bytes) override {
        if (const int earlier = shared_.Find(bytes); earlier > 0) return earlier;
        const int num = xref_.NewNumber();
        shared_.Remember(bytes, num);
        added_.emplace_back(num, bytes);
        return num;
    }
    const std::vector<std::pair<int, std::string>>& Added() const { return added_; }

  private:
    CrossReference& xref_;
    SharedPlacementStreams& shared_;
    std::vector<std::pair<int, std::string>> added_;
};

// The pages of one recorded append and the page tree nodes that gather them, as PlanPageTree
// shapes them. Pages and the nodes of each level have consecutive object numbers.
struct AppendedRun {
    Document::Impl* source = nullptr;
    PageTreePlan plan;
    int first_page = 0;            // the first page's object number
    std::vector<int> level_first;  // the first node's object number, by level

    void Number(CrossReference& xref) {
        first_page = xref.NextFree();
        xref.NextFree() += plan.pages;
        for (const std::vector<PlannedNode>& level : plan.levels) {
            level_first.push_back(xref.NextFree());
            xref.NextFree() += static_cast<int>(level.size());
        }
    }
    // What goes into the root's Kids: the top node, or the one page.
    int Top() const { return level_first.empty() ? first_page : level_first.back(); }
    // The number of the node of `level` above item `k` of the level below; `root` above the top.
    int ParentNumber(int level, int k, int root) const {
        if (static_cast<std::size_t>(level) >= plan.levels.size()) return root;
        return level_first[static_cast<std::size_t>(level)] + plan.ParentOf(level, k);
    }
};

// ---- The writer: the document's own objects, each page with its placements drawn in, the
// pages of recorded appends with the objects they use, the table and the trailer ----

class DocumentWriter {
  public:
    // `encryption` may be null: the document is written in clear.
    DocumentWriter(Document::Impl& impl, ByteSink& sink, ObjectEncryption* encryption)
        : impl_(impl),
          ctx_(impl.ctx),
          doc_(impl.doc),
          out_(sink),
          printer_(impl.ctx, out_, encryption),
          encrypting_(encryption != nullptr) {
        placements_ = impl.pending.placements;
        std::stable_sort(
            placements_.begin(), placements_.end(),
            [](const PendingPlacement& a, const PendingPlacement& b) { return a.page < b.page; });
    }

    // With `encrypt_dict` as the encryption dictionary when encrypting.
    void Write(pdf_obj* encrypt_dict) {
        if (encrypting_) {
            out_.Put("%PDF-1.7\n");
        } else {
            const int version = DocumentVersion(ctx_, doc_);
            out_.Put("%PDF-" + std::to_string(version / 10) + "." + std::to_string(version % 10) +
                     "\n");
        }
        out_.Put("%\xE2\xE3\xCF\xD3\n");
        const SourceSecurity source = ReadSourceSecurity(ctx_, doc_);
        TrailerEntries trailer;
        ReadTrailer(ctx_, doc_, &trailer);
        const int length = trailer.xref_length;
        xref_.emplace(length);
        if (!impl_.pending.appends.empty()) {
            pages_root_ = PageTreeRootNumber(ctx_, doc_);
            for (const PendingAppend& append : impl_.pending.appends) {
                AppendedRun& run = runs_.emplace_back();
                run.source = &append.source->Pages().Internals();
                run.plan = PlanPageTree(append.pages);
                run.Number(*xref_);
            }
        }

        for (int num = 1; num < length; ++num) {
            // What was written is let go: a long document is not kept parsed in full.
            if (num % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx_, doc_);
            if (num == source.object_number) continue;  // replaced by our dictionary
            ObjectSlot slot;
            LoadSlot(ctx_, doc_, num, &slot);
            const OwnedObject keep(ctx_, slot.obj);
            if (slot.in_use == 0 || IsSourceStructure(ctx_, slot.obj)) continue;
            if (slot.is_stream != 0) {
                WriteStreamObject(ctx_, doc_, num, num, slot.gen, slot.obj);
            } else if (num == pages_root_) {
                WritePageTreeRoot(num, slot.gen, slot.obj);
            } else if (const auto placed = PlacementsOf(num); !placed.empty()) {
                WritePlacedPage(num, slot.gen, slot.obj, placed);
            } else {
                xref_->BeginObject(out_, num, slot.gen);
                printer_.Print(slot.obj);
                out_.Put("\nendobj\n");
            }
        }

        for (const AppendedRun& run : runs_) WriteAppendedRun(run);

        int encrypt_num = 0;
        if (encrypting_) {
            encrypt_num = source.object_number > 0 ? source.object_number : xref_->NewNumber();
            xref_->BeginObject(out_, encrypt_num);
            printer_.Print(encrypt_dict, false);
            out_.Put("\nendobj\n");
        }
        WriteTrailer(trailer, encrypt_num);
    }

  private:
    void WriteTrailer(const TrailerEntries& trailer, int encrypt_num) {
        const std::string root = IndirectFor(trailer.root);
        const std::string info = IndirectFor(trailer.info);
        const std::int64_t xref_offset = out_.Offset();
        xref_->WriteTable(out_);

        out_.Put("trailer\n<< /Size ");
        out_.PutNumber(xref_->NextFree());
        if (!root.empty()) out_.Put(" /Root " + root);
        if (!info.empty()) out_.Put(" /Info " + info);
        if (encrypt_num > 0) {
            out_.Put(" /Encrypt ");
            out_.PutReference(encrypt_num);
        }
        out_.Put(" /ID [ ");
        unsigned char second_id[kIdBytes];
        if (RAND_bytes(second_id, static_cast<int>(kIdBytes)) != 1) {
            throw SecuredSaveError("The random generator gave no file identifier");
        }
        if (trailer.first_id_size > 0) {
            printer_.PrintHexString(reinterpret_cast<const unsigned char*>(trailer.first_id),
                                    trailer.first_id_size);
        } else {
            printer_.PrintHexString(second_id, kIdBytes);  // a new file: both halves the same
        }
        out_.Put(" ");
        printer_.PrintHexString(second_id, kIdBytes);
        out_.Put(" ] >>\nstartxref\n");
        out_.PutNumber(xref_offset);
        out_.Put("\n%%EOF\n");
        out_.Flush();
    }

    // "N G R" for an indirect trailer entry; a direct one is written as a new object first.
    std::string IndirectFor(pdf_obj* obj) {
        if (obj == nullptr) return {};
        if (pdf_is_indirect(ctx_, obj)) {
            return std::to_string(pdf_to_num(ctx_, obj)) + " " +
                   std::to_string(pdf_to_gen(ctx_, obj)) + " R";
        }
        const int num = xref_->NewNumber();
        xref_->BeginObject(out_, num);
        printer_.Print(obj);
        out_.Put("\nendobj\n");
        return std::to_string(num) + " 0 R";
    }

    // The stream `stored` of the document `doc`, written as object `num`.
    void WriteStreamObject(fz_context* ctx, pdf_document* doc, int stored, int num, int gen,
                           pdf_obj* dict) {
        fz_buffer* raw = LoadRawStream(ctx, doc, stored);
        const BufferReference keep(ctx, raw);
        unsigned char* data = nullptr;
        const std::size_t size = fz_buffer_storage(ctx, raw, &data);
        xref_->BeginObject(out_, num, gen);
        out_.Put("<<");
        printer_.PrintEntries(dict, {PDF_NAME(Length)});
        printer_.PrintStreamData(data, size);
    }

    std::span<const PendingPlacement> PlacementsOf(int num) const {
        const auto range = std::equal_range(
            placements_.begin(), placements_.end(), PendingPlacement{num, 0, {}, false},
            [](const PendingPlacement& a, const PendingPlacement& b) { return a.page < b.page; });
        return {placements_.data() + (range.first - placements_.begin()),
                static_cast<std::size_t>(range.second - range.first)};
    }

    // The page as its final dictionary has it, each placement stream it uses for the first time
    // written after it.
    void WritePlacedPage(int num, int gen, pdf_obj* page,
                         std::span<const PendingPlacement> placed) {
        WrittenPlacementStreams streams(*xref_, written_streams_);
        const OwnedObject final(ctx_, FinalPlacedPage(
                                          ctx_, doc_, [page] { return page; }, placed, streams));
        xref_->BeginObject(out_, num, gen);
        printer_.Print(final.get());
        out_.Put("\nendobj\n");
        for (const auto& [stream_num, bytes] : streams.Added()) {
            xref_->BeginObject(out_, stream_num);
            out_.Put("<<");
            printer_.PrintStreamData(reinterpret_cast<const unsigned char*>(bytes.data()),
                                     bytes.size());
        }
    }

    // The root of the page tree, with the tops of the appended runs after its own kids.
    void WritePageTreeRoot(int num, int gen, pdf_obj* root) {
        pdf_obj* kids = nullptr;
        int count = 0;
        ReadPageTreeRoot(ctx_, root, &kids, &count);
        const OwnedObject keep(ctx_, kids);
        for (const AppendedRun& run : runs_) count += run.plan.pages;
        xref_->BeginObject(out_, num, gen);
        out_.Put("<<");
        printer_.PrintEntries(root, {PDF_NAME(Kids), PDF_NAME(Count)});
        out_.Put(" /Kids [");
        const int length = pdf_array_len(ctx_, kids);
        for (int i = 0; i < length; ++i) {
            out_.PutChar(' ');
            printer_.Print(pdf_array_get(ctx_, kids, i));
        }
        for (const AppendedRun& run : runs_) {
            out_.PutChar(' ');
            out_.PutReference(run.Top());
        }
        out_.Put(" ] /Count ");
        out_.PutNumber(count);
        out_.Put(" >>\nendobj\n");
    }

    // The run's nodes, then its pages, each followed by the objects of the source it uses that
    // were not written before. The source's objects are numbered as they are first met.
    void WriteAppendedRun(const AppendedRun& run) {
        const PageTreePlan& plan = run.plan;
        for (std::size_t l = 0; l < plan.levels.size(); ++l) {
            const int kid_first = l == 0 ? run.first_page : run.level_first[l - 1];
            for (std::size_t g = 0; g < plan.levels[l].size(); ++g) {
                const PlannedNode& node = plan.levels[l][g];
                xref_->BeginObject(out_, run.level_first[l] + static_cast<int>(g));
                out_.Put("<< /Type /Pages /Parent ");
                out_.PutReference(
                    run.ParentNumber(static_cast<int>(l) + 1, static_cast<int>(g), pages_root_));
                out_.Put(" /Kids [");
                for (int k = node.first; k < node.end; ++k) {
                    out_.PutChar(' ');
                    out_.PutReference(kid_first + k);
                }
                out_.Put(" ] /Count ");
                out_.PutNumber(node.held);
                out_.Put(" >>\nendobj\n");
            }
        }

        Document::Impl& source = *run.source;
        ObjectCopy copy(XrefLength(source.ctx, source.doc), xref_->NextFree());
        struct CopyScope {
            ObjectPrinter& printer;
            fz_context* ctx;
            ~CopyScope() { printer.SetCopy(ctx, nullptr); }
        } scope{printer_, ctx_};
        printer_.SetCopy(source.ctx, &copy);
        // References to the source's pages (a page action's destination) reach their copies.
        const std::vector<int> pages = SourcePageNumbers(source, plan.pages);
        for (std::size_t k = 0; k < pages.size(); ++k)
            copy.Seed(pages[k], run.first_page + static_cast<int>(k));
        for (int k = 0; k < plan.pages; ++k) {
            const OwnedObject page(source.ctx, ReadCopiedPage(source, k));
            xref_->BeginObject(out_, run.first_page + k);
            out_.Put("<< /Parent ");
            out_.PutReference(run.ParentNumber(0, k, pages_root_));
            printer_.PrintEntries(page.get());
            out_.Put(" >>\nendobj\n");
            int stored = 0;
            int num = 0;
            while (copy.TakeQueued(&stored, &num)) WriteCopiedObject(source, stored, num);
            // The source's objects written so far are held by nobody now.
            NoteWork(source);
        }
    }

    // The source's object `stored`, written as object `num`; null where the source has none.
    void WriteCopiedObject(Document::Impl& source, int stored, int num) {
        ObjectSlot slot;
        LoadCopiedSlot(source.ctx, source.doc, stored, &slot);
        const OwnedObject keep(source.ctx, slot.obj);
        // The source's catalog, page tree, structure tree and outline stay behind: what points
        // at them reads null, and nothing they point at is dragged along.
        if (slot.in_use != 0 && IsDocumentStructure(source.ctx, slot.obj)) {
            xref_->BeginObject(out_, num);
            out_.Put("null\nendobj\n");
            return;
        }
        if (slot.in_use != 0 && slot.is_stream != 0) {
            WriteStreamObject(source.ctx, source.doc, stored, num, 0, slot.obj);
            return;
        }
        xref_->BeginObject(out_, num);
        printer_.Print(slot.in_use != 0 ? slot.obj : nullptr);
        out_.Put("\nendobj\n");
    }

    Document::Impl& impl_;
    fz_context* ctx_;
    pdf_document* doc_;
    PdfOutput out_;
    ObjectPrinter printer_;
    bool encrypting_;
    std::optional<CrossReference> xref_;
    std::vector<PendingPlacement> placements_;  // by page
    SharedPlacementStreams written_streams_;
    std::vector<AppendedRun> runs_;
    int pages_root_ = 0;  // the page tree root's number, when pages are appended
};

}  // namespace

void WriteEncryptedDocument(Document::Impl& impl, pdf_obj* encrypt_dict,
                            ObjectEncryption& encryption, ByteSink& sink) {
    FreeObjectsOfRemovedPages(impl);
    DocumentWriter writer(impl, sink, &encryption);
    writer.Write(encrypt_dict);
}

void WritePlainDocument(Document::Impl& impl, ByteSink& sink) {
    CheckCatalog(impl.ctx, impl.doc);
    FreeObjectsOfRemovedPages(impl);
    DocumentWriter writer(impl, sink, nullptr);
    writer.Write(nullptr);
    // Reading every object can make the engine rebuild a damaged table, and a rebuild that
    // fails empties the document: what was written then is not the document.
    CheckCatalog(impl.ctx, impl.doc);
}

}  // namespace zpdf::engine
