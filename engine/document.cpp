#include <climits>
#include <cstring>
#include <new>

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// Alerts raised by document scripts are answered at once: there is nobody to click.
void AnswerDocumentEvent(fz_context* /*ctx*/, pdf_document* /*doc*/, pdf_doc_event* event,
                         void* /*data*/) {
    if (event->type == PDF_DOCUMENT_EVENT_ALERT) {
        pdf_alert_event* alert = pdf_access_alert_event(nullptr, event);
        if (alert != nullptr) alert->button_pressed = 0;
    }
}

// Runs the document's own scripts and its open action, as a viewer would on opening.
void RunOpenScripts(fz_context* ctx, pdf_document* doc) {
    pdf_set_doc_event_callback(ctx, doc, AnswerDocumentEvent, nullptr, nullptr);
    pdf_enable_js(ctx, doc);  // also runs the document-level scripts
    if (doc->js == nullptr) return;
    pdf_obj* action = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    action = pdf_dict_gets(ctx, action, "OpenAction");
    if (!pdf_is_dict(ctx, action) ||
        !pdf_name_eq(ctx, pdf_dict_get(ctx, action, PDF_NAME(S)), PDF_NAME(JavaScript))) {
        return;
    }
    char* code = pdf_load_stream_or_string_as_utf8(ctx, pdf_dict_get(ctx, action, PDF_NAME(JS)));
    char* result = nullptr;
    fz_try(ctx) {
        pdf_js_execute(doc->js, "OpenAction", code, &result);
    }
    fz_always(ctx) {
        fz_free(ctx, result);
        fz_free(ctx, code);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "open action failed: %s", fz_caught_message(ctx));
    }
}

// 1 when the document opens with what it was given, 0 when it needs another password.
int Authenticate(fz_context* ctx, pdf_document* doc, const char* password) {
    volatile int authenticated = 0;
    fz_try(ctx) {
        authenticated = !pdf_needs_password(ctx, doc) ||
                        (password != nullptr && pdf_authenticate_password(ctx, doc, password));
    }
    fz_catch(ctx) {
        authenticated = 0;
    }
    return authenticated;
}

// A walk of the page tree that counts the pages below each node, as the engine's lookup finds
// them. Checking, it stops at the first node whose /Count is wrong, or when it has looked at
// `budget` kids; correcting, it gives every node the number it holds.
struct PageTreeWalk {
    int64_t* counts = nullptr;  // by object number, for nodes met before; -1 for not yet
    int length = 0;
    bool correct = false;
    int budget = 0;
    bool found_wrong_count = false;
};

int64_t CountPagesBelow(fz_context* ctx, pdf_obj* node, PageTreeWalk* walk, int depth) {
    const int num = pdf_is_indirect(ctx, node) ? pdf_to_num(ctx, node) : 0;
    if (num > 0 && num < walk->length && walk->counts[num] >= 0) return walk->counts[num];
    if (depth > kMaxPageTreeDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "page tree too deep");
    if (pdf_mark_obj(ctx, node)) fz_throw(ctx, FZ_ERROR_GENERIC, "cycle in the page tree");
    volatile int64_t total = 0;
    fz_try(ctx) {
        pdf_obj* kids = pdf_dict_get(ctx, node, PDF_NAME(Kids));
        const int length = pdf_array_len(ctx, kids);
        for (int i = 0; i < length; ++i) {
            if (!walk->correct && --walk->budget < 0)
                fz_throw(ctx, FZ_ERROR_GENERIC, "enough of the page tree checked");
            pdf_obj* kid = pdf_array_get(ctx, kids, i);
            total =
                total + (IsPageTreeNode(ctx, kid) ? CountPagesBelow(ctx, kid, walk, depth + 1) : 1);
            if (total > INT_MAX) fz_throw(ctx, FZ_ERROR_GENERIC, "too many pages");
        }
        pdf_obj* count = pdf_dict_get(ctx, node, PDF_NAME(Count));
        if (!pdf_is_int(ctx, count) || pdf_to_int64(ctx, count) != total) {
            if (!walk->correct) {
                walk->found_wrong_count = true;
                fz_throw(ctx, FZ_ERROR_GENERIC, "a page count is wrong");
            }
            pdf_dict_put_int(ctx, node, PDF_NAME(Count), total);
        }
    }
    fz_always(ctx) {
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    if (num > 0 && num < walk->length) walk->counts[num] = total;
    return total;
}

// Kids looked at when the page tree is only checked: every page of a document of this many
// pages, the first ones of a longer one. Looking at a kid parses it, and checking all of a
// hundred thousand pages took longer than everything else opening the document does.
constexpr int kPageTreeKidsChecked = 2048;

// A root /Count that the tree cannot hold: not a number, negative, none for kids or some for
// none, or more pages than the document has objects for (eight to an object allows for nodes
// that several parents share).
bool RootCountImplausible(fz_context* ctx, pdf_document* doc, pdf_obj* root) {
    pdf_obj* count = pdf_dict_get(ctx, root, PDF_NAME(Count));
    if (!pdf_is_int(ctx, count)) return true;
    const int64_t pages = pdf_to_int64(ctx, count);
    const bool kids = pdf_array_len(ctx, pdf_dict_get(ctx, root, PDF_NAME(Kids))) > 0;
    return pages < 0 || (pages > 0) != kids ||
           pages > 8 * static_cast<int64_t>(pdf_xref_len(ctx, doc));
}

// Walks the tree from the root; a walk that stops early (checked enough, a wrong count found
// while checking, a cycle, too deep) changes nothing further.
void WalkPageTree(fz_context* ctx, pdf_obj* root, PageTreeWalk* walk) {
    for (int i = 0; i < walk->length; ++i) walk->counts[i] = -1;
    fz_try(ctx) {
        CountPagesBelow(ctx, root, walk, 0);
    }
    fz_catch(ctx) {
        if (walk->correct) fz_rethrow(ctx);
    }
}

}  // namespace

// The engine takes the number of pages from the page tree root's /Count and finds a page by
// the /Count of the nodes on the way down. A count that disagrees with the tree makes pages
// appear that are not there (a damaged /Count of ten billion) or vanish, or be found in another
// one's place. The tree is checked (all of it for a document of up to kPageTreeKidsChecked
// pages) and, when a count is wrong, each node is given the number of pages it holds; a
// repaired document, or one whose root count the tree cannot hold, is corrected at once. A tree
// with a cycle or too deep is left as it is: the engine refuses its pages as it meets them.
void CorrectPageCounts(fz_context* ctx, pdf_document* doc) {
    PageTreeWalk walk;
    fz_var(walk);
    fz_try(ctx) {
        pdf_obj* root = pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages");
        if (pdf_is_dict(ctx, root)) {
            walk.length = pdf_xref_len(ctx, doc);
            walk.counts = static_cast<int64_t*>(
                fz_malloc(ctx, sizeof(int64_t) * static_cast<size_t>(walk.length)));
            walk.correct = pdf_was_repaired(ctx, doc) || RootCountImplausible(ctx, doc, root);
            if (!walk.correct) {
                walk.budget = kPageTreeKidsChecked;
                WalkPageTree(ctx, root, &walk);
                walk.correct = walk.found_wrong_count;
            }
            if (walk.correct) WalkPageTree(ctx, root, &walk);
        }
    }
    fz_always(ctx) {
        fz_free(ctx, walk.counts);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot check the page counts: %s", fz_caught_message(ctx));
    }
}

namespace {

bool LooksLikeSecurityProblem(const char* message) {
    return std::strstr(message, "encrypt") != nullptr || std::strstr(message, "crypt") != nullptr ||
           std::strstr(message, "security") != nullptr;
}

}  // namespace

// A cross-reference table can read without error and still leave the catalog's page tree out,
// when a damaged subsection header cuts the table short. The engine rebuilds a table only when
// reading it fails, or when an object is not where the table says; an object the table does not
// list at all is simply absent. A document whose page tree cannot be reached is rebuilt here
// from its objects, with the steps the engine takes when it rebuilds one on its own.
void RebuildIfPageTreeUnreachable(fz_context* ctx, pdf_document* doc) {
    if (doc->repair_attempted) return;
    fz_try(ctx) {
        if (!pdf_is_dict(ctx, pdf_dict_getp(ctx, pdf_trailer(ctx, doc), "Root/Pages"))) {
            fz_warn(ctx, "the page tree cannot be reached: rebuilding the cross-reference table");
            pdf_repair_xref(ctx, doc);
            pdf_repair_obj_stms(ctx, doc);
            pdf_repair_trailer(ctx, doc);
        }
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot rebuild the document: %s", fz_caught_message(ctx));
    }
}

void RequireCatalog(fz_context* ctx, pdf_document* doc) {
    if (!pdf_is_dict(ctx, pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root)))) {
        fz_throw(ctx, FZ_ERROR_GENERIC,
                 doc->repair_attempted
                     ? "the document has no catalog: its damaged table could not be repaired"
                     : "the document has no catalog");
    }
}

int CountDocumentPages(fz_context* ctx, pdf_document* doc) {
    RequireCatalog(ctx, doc);
    return pdf_count_pages(ctx, doc);
}

void KeepPageCountsCorrect(Document::Impl& impl) {
    if (impl.counts_corrected_after_repair || impl.doc == nullptr) return;
    if (!pdf_was_repaired(impl.ctx, impl.doc)) return;
    CorrectPageCounts(impl.ctx, impl.doc);
    impl.counts_corrected_after_repair = true;
}

namespace {

// 1 when the object `num` of the table starts where its entry says, with its own number: what
// the engine checks before it decides to rebuild the table.
int ObjectHeadFits(fz_context* ctx, pdf_document* doc, int num, int64_t offset) {
    volatile int fits = 0;
    fz_try(ctx) {
        pdf_lexbuf* buf = &doc->lexbuf.base;
        fz_seek(ctx, doc->file, offset, SEEK_SET);
        if (pdf_lex(ctx, doc->file, buf) == PDF_TOK_INT && buf->i == num &&
            pdf_lex(ctx, doc->file, buf) == PDF_TOK_INT && buf->i >= 0 && buf->i < 65536 &&
            pdf_lex(ctx, doc->file, buf) == PDF_TOK_OBJ) {
            fits = 1;
        }
    }
    fz_catch(ctx) {
        fits = 0;
    }
    return fits;
}

int AllObjectsInPlace(fz_context* ctx, pdf_document* doc) {
    const int length = pdf_xref_len(ctx, doc);
    for (int num = 1; num < length; ++num) {
        const pdf_xref_entry* entry = pdf_get_xref_entry(ctx, doc, num);
        // Parsed objects and those of object streams are not read from an offset again.
        if (entry == nullptr || entry->type != 'n' || entry->obj != nullptr) continue;
        if (!ObjectHeadFits(ctx, doc, num, entry->ofs)) return 0;
    }
    return 1;
}

}  // namespace

void PlaceObjectsBeforeChanges(Document::Impl& impl) {
    if (impl.objects_placed || impl.doc == nullptr) return;
    impl.objects_placed = true;
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    if (doc->repair_attempted) return;  // the engine rebuilds a table only once
    fz_try(ctx) {
        if (!AllObjectsInPlace(ctx, doc)) {
            fz_warn(ctx, "an object is not where the table says: rebuilding the table");
            pdf_repair_xref(ctx, doc);
            pdf_repair_obj_stms(ctx, doc);
            pdf_repair_trailer(ctx, doc);
        }
    }
    fz_catch(ctx) {
        fz_warn(ctx, "cannot rebuild the document: %s", fz_caught_message(ctx));
    }
    KeepPageCountsCorrect(impl);
}

namespace {

// The pages in the document's own page tree, without those recorded to be appended.
int CountOwnPages(Document::Impl& impl) {
    KeepPageCountsCorrect(impl);
    return CountDocumentPages(impl.ctx, impl.doc);
}

}  // namespace

int CountDocumentPages(Document::Impl& impl) {
    if (!impl.pending_appends.empty()) {
        fz_throw(impl.ctx, FZ_ERROR_GENERIC, "the appended pages are not in the page tree yet");
    }
    return CountOwnPages(impl);
}

namespace {

// Fills the page number cache from one walk of the page tree. Leaves it empty when the tree
// cannot be walked; lookups then take the engine's own way.
struct PageNumberWalk {
    pdf_document* doc;
    int* numbers;  // room for `count`
    int count;
    int found;
    unsigned since_release;
};

// Pages looked at between two releases while the page numbers are collected.
constexpr unsigned kPagesBetweenReleases = 1024;

// Collects the object numbers of the pages below `node` in page order, as the engine's page
// lookup finds them. The nodes on the way down are held, so that releasing the pages parsed
// so far can let go of everything else: the engine's own page map parses every page at once.
void CollectPageNumbers(fz_context* ctx, pdf_obj* node, PageNumberWalk* walk, int depth) {
    if (depth > kMaxPageTreeDepth) fz_throw(ctx, FZ_ERROR_GENERIC, "page tree too deep");
    if (pdf_mark_obj(ctx, node)) fz_throw(ctx, FZ_ERROR_GENERIC, "cycle in the page tree");
    pdf_obj* kids = nullptr;
    pdf_obj* child = nullptr;
    fz_var(kids);
    fz_var(child);
    fz_try(ctx) {
        kids =
            pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, pdf_dict_get(ctx, node, PDF_NAME(Kids))));
        const int length = pdf_array_len(ctx, kids);
        for (int i = 0; i < length; ++i) {
            pdf_obj* kid = pdf_array_get(ctx, kids, i);
            if (IsPageTreeNode(ctx, kid)) {
                child = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, kid));
                CollectPageNumbers(ctx, child, walk, depth + 1);
                pdf_drop_obj(ctx, child);
                child = nullptr;
                continue;
            }
            if (walk->found >= walk->count)
                fz_throw(ctx, FZ_ERROR_GENERIC, "more pages than counted");
            walk->numbers[walk->found++] = pdf_is_indirect(ctx, kid) ? pdf_to_num(ctx, kid) : 0;
            if (++walk->since_release >= kPagesBetweenReleases) {
                walk->since_release = 0;
                ReleaseUnchangedObjects(ctx, walk->doc);
            }
        }
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, child);
        pdf_drop_obj(ctx, kids);
        pdf_unmark_obj(ctx, node);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
}

// Fills the page number cache; leaves it empty when the tree does not hold `count` pages
// where the lookup finds them.
void LoadPageNumbers(Document::Impl& impl, int count) noexcept {
    fz_context* ctx = impl.ctx;
    try {
        impl.page_numbers.assign(static_cast<std::size_t>(count), 0);
    } catch (const std::bad_alloc&) {
        impl.page_numbers.clear();
        return;
    }
    PageNumberWalk walk{impl.doc, impl.page_numbers.data(), count, 0, 0};
    pdf_obj* root = nullptr;
    fz_var(root);
    fz_try(ctx) {
        pdf_obj* pages = pdf_dict_getp(ctx, pdf_trailer(ctx, impl.doc), "Root/Pages");
        root = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, pages));
        CollectPageNumbers(ctx, root, &walk, 0);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, root);
    }
    fz_catch(ctx) {
        walk.found = -1;
    }
    if (walk.found != count) impl.page_numbers.clear();
}

}  // namespace

bool IsPageTreeNode(fz_context* ctx, pdf_obj* kid) {
    pdf_obj* type = pdf_dict_get(ctx, kid, PDF_NAME(Type));
    if (type != nullptr) return pdf_name_eq(ctx, type, PDF_NAME(Pages)) != 0;
    return pdf_dict_get(ctx, kid, PDF_NAME(Kids)) != nullptr &&
           pdf_dict_get(ctx, kid, PDF_NAME(MediaBox)) == nullptr;
}

std::span<const CopiedPageEntry> CopiedPageEntries() {
    static const CopiedPageEntry entries[] = {
        {PDF_NAME(Contents), false}, {PDF_NAME(Resources), true}, {PDF_NAME(MediaBox), true},
        {PDF_NAME(CropBox), true},   {PDF_NAME(BleedBox), false}, {PDF_NAME(TrimBox), false},
        {PDF_NAME(ArtBox), false},   {PDF_NAME(Rotate), true},    {PDF_NAME(UserUnit), false},
        {PDF_NAME(Group), false},
    };
    return entries;
}

int CopyPageObject(fz_context* ctx, pdf_graft_map* map, pdf_document* dst, pdf_obj* source) {
    pdf_obj* page = nullptr;
    volatile int number = 0;
    fz_var(page);
    fz_try(ctx) {
        page = pdf_new_dict(ctx, dst, 12);
        pdf_dict_put(ctx, page, PDF_NAME(Type), PDF_NAME(Page));
        for (const CopiedPageEntry& entry : CopiedPageEntries()) {
            pdf_obj* value = entry.inheritable ? pdf_dict_get_inheritable(ctx, source, entry.key)
                                               : pdf_dict_get(ctx, source, entry.key);
            if (value != nullptr) {
                pdf_dict_put_drop(ctx, page, entry.key, pdf_graft_mapped_object(ctx, map, value));
            }
        }
        pdf_obj* ref = pdf_add_object(ctx, dst, page);
        number = pdf_to_num(ctx, ref);
        pdf_drop_obj(ctx, ref);
    }
    fz_always(ctx) {
        pdf_drop_obj(ctx, page);
    }
    fz_catch(ctx) {
        fz_rethrow(ctx);
    }
    return number;
}

void ReleaseUnchangedObjects(fz_context* ctx, pdf_document* doc) noexcept {
    // A document made in memory has no file to parse its objects from again; a rebuilt table
    // changes objects where they stand (stream lengths), and those changes are not in the file.
    if (doc == nullptr || doc->file == nullptr || doc->repair_attempted) return;
    // The sections past the updates are the file's own: an object changed since opening was
    // moved to the update section, and what it left behind here is a copy nothing needs.
    for (int x = doc->num_incremental_sections; x < doc->num_xref_sections; ++x) {
        for (pdf_xref_subsec* sub = doc->xref_sections[x].subsec; sub != nullptr; sub = sub->next) {
            for (int e = 0; e < sub->len; ++e) {
                pdf_xref_entry& entry = sub->table[e];
                if (entry.obj == nullptr || entry.stm_buf != nullptr) continue;
                if (entry.type != 'n' && entry.type != 'o') continue;
                if (pdf_obj_refs(ctx, entry.obj) != 1) continue;
                pdf_drop_obj(ctx, entry.obj);
                entry.obj = nullptr;
            }
        }
    }
}

void NoteWork(Document::Impl& impl) noexcept {
    constexpr unsigned kWorkBetweenReleases = 256;
    if (++impl.work_since_release < kWorkBetweenReleases) return;
    impl.work_since_release = 0;
    ReleaseUnchangedObjects(impl.ctx, impl.doc);
}

pdf_obj* LookupPage(Document::Impl& impl, int index) {
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    const int count = CountDocumentPages(impl);
    if (index < 0 || index >= count) {
        fz_throw(ctx, FZ_ERROR_GENERIC, "page %d does not exist", index + 1);
    }
    // A repair may renumber everything; a count that moved means pages came or went.
    const bool repaired = pdf_was_repaired(ctx, doc) != 0;
    if (impl.page_numbers.size() != static_cast<std::size_t>(count) ||
        impl.page_numbers_after_repair != repaired) {
        impl.page_numbers.clear();
        LoadPageNumbers(impl, count);
        impl.page_numbers_after_repair = repaired;
    }
    if (!impl.page_numbers.empty() && impl.page_numbers[static_cast<std::size_t>(index)] > 0) {
        pdf_obj* page =
            pdf_load_object(ctx, doc, impl.page_numbers[static_cast<std::size_t>(index)]);
        // The document's table of objects keeps the page; the caller borrows it from there, as
        // it would borrow it from the page tree.
        pdf_drop_obj(ctx, page);
        if (pdf_is_dict(ctx, page)) return page;
    }
    return pdf_lookup_page_obj(ctx, doc, index);
}

Document::Document() : impl_(std::make_unique<Impl>()) {
    impl_->ctx = NewDocumentContext();
}

Document::~Document() {
    Close();
    fz_drop_context(impl_->ctx);
}

bool Document::IsOpen() const {
    return impl_->doc != nullptr;
}

void Document::Open(std::FILE* file, const std::optional<std::string>& password) {
    Close();
    fz_context* ctx = impl_->ctx;
    fz_stream* stm = OpenFileStream(ctx, file);
    if (stm == nullptr)
        throw EngineError(ErrorCategory::Other, "out of memory opening the document");

    pdf_document* doc = nullptr;
    fz_try(ctx) {
        doc = pdf_open_document_with_stream(ctx, stm);
    }
    fz_catch(ctx) {
        const bool read_failed = FileStreamFailed(stm);
        const bool security = LooksLikeSecurityProblem(fz_caught_message(ctx));
        fz_drop_stream(ctx, stm);
        ThrowCaught(ctx,
                    read_failed ? ErrorCategory::File
                    : security  ? ErrorCategory::UnsupportedSecurity
                                : ErrorCategory::NotPdf,
                    "cannot open the document");
    }

    if (!Authenticate(ctx, doc, password ? password->c_str() : nullptr)) {
        pdf_drop_document(ctx, doc);
        fz_drop_stream(ctx, stm);
        throw EngineError(ErrorCategory::Password,
                          "the document needs a password, and none given fits");
    }

    RebuildIfPageTreeUnreachable(ctx, doc);
    CorrectPageCounts(ctx, doc);

    fz_try(ctx) {
        RunOpenScripts(ctx, doc);
    }
    fz_catch(ctx) {
        fz_warn(ctx, "document scripts failed: %s", fz_caught_message(ctx));
    }

    impl_->doc = doc;
    impl_->stream = stm;
    impl_->counts_corrected_after_repair = false;
    impl_->objects_placed = false;
    impl_->placed_streams.clear();
    impl_->pending_placements.clear();
}

void Document::Close() noexcept {
    fz_context* ctx = impl_->ctx;
    if (impl_->doc != nullptr) {
        fz_try(ctx) {
            pdf_document_event_will_close(ctx, impl_->doc);
        }
        fz_catch(ctx) {
            fz_warn(ctx, "will-close action failed: %s", fz_caught_message(ctx));
        }
        pdf_drop_document(ctx, impl_->doc);
        impl_->doc = nullptr;
        impl_->placed_streams.clear();
        impl_->pending_placements.clear();
    }
    // The documents recorded to be appended go with the document, and their files with them.
    impl_->pending_appends.clear();
    if (impl_->stream != nullptr) {
        fz_drop_stream(ctx, impl_->stream);
        impl_->stream = nullptr;
    }
}

int Document::PageCount() {
    fz_context* ctx = impl_->ctx;
    volatile int count = 0;
    fz_try(ctx) {
        count = CountOwnPages(*impl_);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::NotPdf, "cannot count the pages");
    }
    int total = count;
    for (const PendingAppend& append : impl_->pending_appends) total += append.pages;
    return total;
}

PageSize Document::GetPageSize(int index) {
    if (!impl_->pending_appends.empty()) {
        // A page still to be appended measures as in its own document: the copy keeps its
        // boxes, its rotation and its unit.
        int first = PageCount();
        for (auto it = impl_->pending_appends.rbegin(); it != impl_->pending_appends.rend(); ++it) {
            first -= it->pages;
            if (index >= first && index < first + it->pages)
                return it->source->Pages().GetPageSize(index - first);
        }
    }
    NoteWork(*impl_);
    fz_context* ctx = impl_->ctx;
    fz_rect bounds = fz_empty_rect;
    fz_page* page = nullptr;
    fz_var(page);
    fz_try(ctx) {
        if (index < 0 || index >= CountOwnPages(*impl_)) {
            fz_throw(ctx, FZ_ERROR_GENERIC, "page %d does not exist", index + 1);
        }
        page = fz_load_page(ctx, &impl_->doc->super, index);
        bounds = fz_bound_page(ctx, page);
    }
    fz_always(ctx) {
        fz_drop_page(ctx, page);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot measure the page");
    }
    return PageSize{bounds.x1 - bounds.x0, bounds.y1 - bounds.y0};
}

DocumentFacts Document::Facts() {
    fz_context* ctx = impl_->ctx;
    DocumentFacts facts;
    facts.pages = PageCount();
    fz_try(ctx) {
        facts.encrypted = impl_->doc->crypt != nullptr;
        facts.repaired = pdf_was_repaired(ctx, impl_->doc) != 0;
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot inspect the document");
    }
    return facts;
}

namespace {

// Feature bits found in the catalog; plain data, filled inside the engine's error scope.
enum FeatureBits : unsigned {
    kXfa = 1,
    kPortfolio = 2,
    kAttachment = 4,
    kRights = 8,
    kSignature = 16,
};

unsigned FindFeatures(fz_context* ctx, pdf_document* doc) {
    pdf_obj* root = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Root));
    pdf_obj* form = pdf_dict_get(ctx, root, PDF_NAME(AcroForm));
    unsigned found = 0;
    if (pdf_dict_get(ctx, form, PDF_NAME(XFA))) found |= kXfa;
    if (pdf_dict_get(ctx, root, PDF_NAME(Collection))) found |= kPortfolio;
    if (pdf_dict_get(ctx, pdf_dict_get(ctx, root, PDF_NAME(Names)), PDF_NAME(EmbeddedFiles)))
        found |= kAttachment;
    if (pdf_dict_get(ctx, root, PDF_NAME(Perms))) found |= kRights;
    if (pdf_dict_get_int(ctx, form, PDF_NAME(SigFlags)) != 0) found |= kSignature;
    return found;
}

struct SinkState {
    ByteSink* sink;
    int64_t position;
    pdf_document* doc;
    int64_t released_at;
};

// Bytes written between two releases of the objects the writer has parsed and written.
constexpr int64_t kBytesBetweenReleases = 256 * 1024;

void WriteToSink(fz_context* ctx, void* state, const void* data, size_t size) {
    auto* s = static_cast<SinkState*>(state);
    if (!s->sink->Write(data, size))
        fz_throw(ctx, FZ_ERROR_GENERIC, "cannot write the output file");
    s->position += static_cast<int64_t>(size);
    // The writer holds the object it is writing; those written before are held by nobody and
    // are let go, so that writing a long document does not keep all of it parsed.
    if (s->position - s->released_at >= kBytesBetweenReleases) {
        s->released_at = s->position;
        ReleaseUnchangedObjects(ctx, s->doc);
    }
}

int64_t TellSink(fz_context* /*ctx*/, void* state) {
    return static_cast<SinkState*>(state)->position;
}

// Objects nested deeper are not searched for empty names.
constexpr int kMaxNameSearchDepth = 256;

bool HoldsEmptyName(fz_context* ctx, pdf_obj* obj, int depth) {
    if (depth > kMaxNameSearchDepth || pdf_is_indirect(ctx, obj)) return false;
    if (pdf_is_name(ctx, obj)) return pdf_to_name(ctx, obj)[0] == '\0';
    if (pdf_is_array(ctx, obj)) {
        const int length = pdf_array_len(ctx, obj);
        for (int i = 0; i < length; ++i) {
            if (HoldsEmptyName(ctx, pdf_array_get(ctx, obj, i), depth + 1)) return true;
        }
    } else if (pdf_is_dict(ctx, obj)) {
        const int length = pdf_dict_len(ctx, obj);
        for (int i = 0; i < length; ++i) {
            if (HoldsEmptyName(ctx, pdf_dict_get_key(ctx, obj, i), depth + 1) ||
                HoldsEmptyName(ctx, pdf_dict_get_val(ctx, obj, i), depth + 1)) {
                return true;
            }
        }
    }
    return false;
}

// The objects are loaded here as the writer loads them next; one it cannot read is left to
// the writer to report.
int ObjectHoldsEmptyName(fz_context* ctx, pdf_document* doc, int num) {
    volatile int found = 0;
    fz_try(ctx) {
        const pdf_xref_entry* entry = pdf_get_xref_entry_no_null(ctx, doc, num);
        if (entry->type == 'n' || entry->type == 'o') {
            pdf_obj* obj = pdf_load_object(ctx, doc, num);
            found = HoldsEmptyName(ctx, obj, 0);
            pdf_drop_obj(ctx, obj);
        }
    }
    fz_catch(ctx) {
        found = 0;
    }
    return found;
}

}  // namespace

bool DocumentHoldsEmptyName(fz_context* ctx, pdf_document* doc) {
    const int length = pdf_xref_len(ctx, doc);
    for (int num = 1; num < length; ++num) {
        if (ObjectHoldsEmptyName(ctx, doc, num)) return true;
        if (num % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, doc);
    }
    return HoldsEmptyName(ctx, pdf_trailer(ctx, doc), 0);
}

void RunEngineWriter(fz_context* ctx, pdf_document* doc, ByteSink& sink,
                   const pdf_write_options& options) {
    fz_output* out = nullptr;
    fz_var(out);
    SinkState state{&sink, 0, doc, 0};
    pdf_write_options chosen = options;
    fz_try(ctx) {
        RequireCatalog(ctx, doc);
        if (!chosen.do_pretty && DocumentHoldsEmptyName(ctx, doc)) chosen.do_pretty = 1;
        out = fz_new_output(ctx, 64 * 1024, &state, WriteToSink, nullptr, nullptr);
        out->tell = TellSink;
        pdf_write_document(ctx, doc, out, &chosen);
        // Reading every object can make the engine rebuild a damaged table, and a rebuild that
        // fails empties the document: what was written then is not the document.
        RequireCatalog(ctx, doc);
        fz_close_output(ctx, out);
    }
    fz_always(ctx) {
        fz_drop_output(ctx, out);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::File, "cannot write the document");
    }
}

std::vector<std::string> Document::UnsupportedFeatures() {
    fz_context* ctx = impl_->ctx;
    volatile unsigned found = 0;
    fz_try(ctx) {
        found = FindFeatures(ctx, impl_->doc);
    }
    fz_catch(ctx) {
        found = 0;
    }
    std::vector<std::string> names;
    const std::pair<unsigned, const char*> known[] = {{kXfa, "XFA"},
                                                      {kPortfolio, "Portfolios_Packages"},
                                                      {kAttachment, "Attachment"},
                                                      {kRights, "Rights_Management"},
                                                      {kSignature, "Digital_Signature"}};
    for (const auto& [bit, name] : known) {
        if ((found & bit) != 0) names.emplace_back(name);
    }
    return names;
}

void Document::Write(ByteSink& sink) {
    pdf_write_options options = pdf_default_write_options;
    options.do_incremental = 0;
    options.do_encrypt = PDF_ENCRYPT_KEEP;
    MakePendingChanges(*impl_, -1);
    PlaceObjectsBeforeChanges(*impl_);
    RunEngineWriter(impl_->ctx, impl_->doc, sink, options);
}

}  // namespace zpdf::engine
