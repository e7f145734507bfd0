// Engine internals shared by the files of engine/. Includes the engine's headers, so nothing
// outside this folder may include it.
#pragma once

extern "C" {
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>
}

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "engine/engine.h"

namespace zpdf::engine {

// The process context, started once before any document is opened.
fz_context* ProcessContext();

// A context of its own for one document, with locks and a store of its own. Contexts cloned from
// one another share their store, and the store tells keys that are dictionaries written inside a
// page apart by their words alone, across documents: a document was drawn with another one's font
// of the same words, and the comparison looked one document's object number up in the other's
// table, writing past its end.
fz_context* NewDocumentContext();
// Drops a context made by NewDocumentContext, and its locks with it.
void DropDocumentContext(fz_context* ctx);

// Reads the message of the error just caught and throws it as an EngineError. Call only from
// an fz_catch block.
[[noreturn]] void ThrowCaught(fz_context* ctx, ErrorCategory category, const char* doing);

// The facts of the encryption dictionary `encrypt` (nothing encrypted when it is not a
// dictionary). Throws engine errors; call it inside fz_try.
struct EncryptionFacts;
EncryptionFacts EncryptionFactsOf(fz_context* ctx, pdf_obj* encrypt);

// Engine stream over a C stdio file the caller owns; remembers read failures.
struct FileStreamState;
fz_stream* OpenFileStream(fz_context* ctx, std::FILE* file);
bool FileStreamFailed(fz_stream* stream);
// Why opening a document from `stream` failed, from the error just caught: the file could not be
// read, its security is not one the engine knows, or it is not a PDF. Call only from fz_catch.
ErrorCategory OpenFailureCategory(fz_context* ctx, fz_stream* stream);

// The engine rebuilds a damaged cross-reference table on its own when an object is not where the
// table says; when that rebuild fails halfway, the document is left without any object. Throws
// (an engine error, so call it inside fz_try) for a document without a catalog: nothing of it
// may be counted, drawn, copied or written as if it were the document.
void RequireCatalog(fz_context* ctx, pdf_document* doc);
// The page count of a document that has its catalog; throws an engine error otherwise.
int CountDocumentPages(fz_context* ctx, pdf_document* doc);

// Rebuilds the cross-reference table of a document whose page tree cannot be reached, as the
// engine rebuilds a damaged one; takes the file's own catalog where the trailer's still has no
// page tree; then makes a root that is a page a node. Never throws.
void RebuildIfPageTreeUnreachable(fz_context* ctx, pdf_document* doc);
// Where the catalog's /Pages is a page itself, puts a new page tree root above it that holds
// it as its one kid, so that the page is counted and found as other readers find it. Throws an
// engine error.
void MakePageTreeRootANode(fz_context* ctx, pdf_document* doc);

// Gives every node of the document's page tree the number of pages it holds, as the engine's
// page lookup walks the tree, where its /Count says otherwise. Never throws.
void CorrectPageCounts(fz_context* ctx, pdf_document* doc);

// The engine's compact writer puts nothing between an empty name ("/") and a number, boolean,
// null or reference after it: "/ 0" comes out as "/0" and reads back as another name, which can
// take the page tree with it. Its spaced layout keeps them apart, so a document holding an empty
// name is written spaced. True when an object of `doc` or its trailer holds one; throws only
// what pdf_xref_len throws.
bool DocumentHoldsEmptyName(fz_context* ctx, pdf_document* doc);

// Deeper page trees are broken or hostile.
inline constexpr int kMaxPageTreeDepth = 64;
// Sends every link, outline entry, page or document action and named destination that goes to
// one of the `count` pages from index `from` to the page as many places on from index `to`.
void RetargetDestinations(Document& doc, int from, int to, int count);
// Visits the pages of the document's page tree in the order the engine's page lookup finds
// them: `visit` gets each page as its node lists it (a reference, or a page written inside the
// node) and its index. The nodes on the way down are held and the objects parsed so far are
// released every kObjectsBetweenReleases pages, so that a long document is never held whole.
// Returns the number of pages visited, or -1 when the tree cannot be walked (a cycle, too deep,
// more than `limit` pages) or a visit failed. Never throws.
using PageVisitor = void (*)(fz_context* ctx, pdf_obj* kid, int index, void* state);
int VisitPages(fz_context* ctx, pdf_document* doc, int limit, PageVisitor visit,
               void* state) noexcept;
// Whether a kid of a page tree node is a node itself or a page, decided as the engine's page
// lookup decides it. Throws only what reading the kid throws.
bool IsPageTreeNode(fz_context* ctx, pdf_obj* kid);

// The dictionary a copy of the page `source` is made from, by the page import and by our writer
// alike: every key of the page but /Parent and /StructParents, /Type /Page, and the inherited
// attributes resolved onto it. A new direct dictionary of the source's document, a reference of
// the caller's; its values are the source's own, references included. Throws an engine error.
pdf_obj* CopiedPageDictionary(fz_context* ctx, pdf_obj* source);

// Readies a document for new pages: the producer, the catalog's type, a page tree root with a
// Kids array. Throws an engine error.
void PrepareForNewPages(fz_context* ctx, pdf_document* doc);

// Runs the engine's writer over `sink` with the given options; one that keeps the document's
// security restores its encryption dictionary first. Throws EngineError.
void RunEngineWriter(fz_context* ctx, pdf_document* doc, ByteSink& sink,
                     const pdf_write_options& options);
// The same for the document of `impl`, which frees what its removed pages left first.
void RunEngineWriter(Document::Impl& impl, ByteSink& sink, const pdf_write_options& options);

// A form XObject to be drawn on a page, recorded instead of made at once: a long print file
// stamped on every page would otherwise hold every changed page in memory until it is written.
struct PendingPlacement {
    int page = 0;  // the page's object number
    std::uint32_t form = 0;
    std::array<float, 6> matrix{};
    bool background = false;
};

// The pages of another document recorded to go at the end of this one: a long document
// appended to another would otherwise be held in memory, copied page by page, until written.
struct PendingAppend {
    std::unique_ptr<AppendSource> source;
    int pages = 0;
};

// The changes of a document's pages that are recorded instead of made at once, so that a long
// print file stamped or appended to is never held in memory: our writer makes them page by page
// as it writes the document, and anything else that reads or changes the pages makes them in the
// document first (MakePendingChanges). Replacing pages is made at once.
struct PendingPageChanges {
    // Placements, in the order they were asked for; pages that are objects of their own only.
    std::vector<PendingPlacement> placements;
    // Runs of another document's pages to go at the end, in order; counted at once.
    std::vector<PendingAppend> appends;
    bool Empty() const { return placements.empty() && appends.empty(); }
};

// Placements of the same content on many pages (a letterhead on every page of a long print
// file) share one stream instead of adding one a page. Content that differs from page to page
// is not worth keeping, so only short streams are remembered, and only so many.
class SharedPlacementStreams {
  public:
    // The stream remembered for these bytes, 0 for none.
    int Find(const std::string& bytes) const;
    void Remember(const std::string& bytes, int num);
    void Clear() { streams_.clear(); }

  private:
    std::unordered_map<std::string, int> streams_;
};

struct Document::Impl {
    fz_context* ctx = nullptr;
    pdf_document* doc = nullptr;
    fz_stream* stream = nullptr;
    // The object numbers of the pages in page order, so that stamping every page of a long
    // document does not walk the page tree once per page. Built on first use; cleared by every
    // change of the page tree; 0 for a page that is not an indirect object.
    std::vector<int> page_numbers;
    bool page_numbers_after_repair = false;
    // The page counts were corrected again after the engine rebuilt the document's table.
    bool counts_corrected_after_repair = false;
    // Every object of the table was found where the table says, or the table was rebuilt.
    bool objects_placed = false;
    // Units of per-page work since the unchanged objects were last released.
    unsigned work_since_release = 0;
    // The content streams placed on pages, by their bytes, so that the same content placed on
    // many pages is one stream. Checked against the document before each reuse.
    SharedPlacementStreams placed_streams;
    // What is recorded to change in the pages and not made in the document yet.
    PendingPageChanges pending;
    // The object numbers of the pages removed since the document was opened or last written,
    // and of the forms made of imported pages: what the one left behind is freed before a
    // write, what the other needs is kept.
    std::vector<int> removed_pages;
    std::vector<int> made_forms;
};

// Frees the objects that nothing in the document reaches any more once pages were removed from
// it: the removed pages, and what only they used. Objects the forms made of imported pages and
// the recorded placements use stay. Call it before any write of the document. Throws
// EngineError.
void FreeObjectsOfRemovedPages(Document::Impl& impl);

// Makes the pending placements of the page at `index`, or all of them for -1, in the document
// (placement.cpp). Throws EngineError.
void MakeRecordedPlacements(Document::Impl& impl, int index);
// Makes the pending appends in the document, in order (graft.cpp). Throws EngineError.
void MakeRecordedAppends(Document::Impl& impl);

// Makes the pending appends in the document before its page tree is read or changed. Throws
// EngineError.
inline void MakePendingAppends(Document::Impl& impl) {
    if (!impl.pending.appends.empty()) MakeRecordedAppends(impl);
}

// Makes what is recorded for the document: the pending appends, then the placements of the
// page at `index` (-1: all), before the content of a page is read or copied. Throws
// EngineError.
inline void MakePendingChanges(Document::Impl& impl, int index) {
    MakePendingAppends(impl);
    if (!impl.pending.placements.empty()) MakeRecordedPlacements(impl, index);
}

// Drops the objects the document parsed from its file that are still as the file has them and
// that nothing else holds; the engine parses them again from the file when they are next asked
// for. Changed and new objects live in the document's section of updates and stay. The engine
// otherwise keeps every object it has parsed until the document closes, so stamping or saving a
// long document would hold all of it. A pointer borrowed into a dropped object dangles: call it
// only where nothing up the stack holds one. Never throws.
void ReleaseUnchangedObjects(fz_context* ctx, pdf_document* doc) noexcept;
// The object `num` (a new reference), or null for one that is free or cannot be read. Never
// throws.
pdf_obj* LoadReadableObject(fz_context* ctx, pdf_document* doc, int num) noexcept;
// Object streams, cross-reference streams and the linearization dictionary describe the
// layout of the file the document was read from; nothing refers to them, and no writer keeps
// them.
inline bool IsSourceStructure(fz_context* ctx, pdf_obj* obj) {
    if (!pdf_is_dict(ctx, obj)) return false;
    pdf_obj* type = pdf_dict_get(ctx, obj, PDF_NAME(Type));
    return pdf_name_eq(ctx, type, PDF_NAME(ObjStm)) || pdf_name_eq(ctx, type, PDF_NAME(XRef)) ||
           pdf_dict_get(ctx, obj, PDF_NAME(Linearized)) != nullptr;
}
// Objects a pass over the whole document (a writer, a search) reads between two releases.
inline constexpr int kObjectsBetweenReleases = 1024;
// Counts one unit of per-page work on the document of `impl` and releases its unchanged objects
// every few hundred units. Call it where nothing up the stack holds a borrowed object.
void NoteWork(Document::Impl& impl) noexcept;

// The engine rebuilds a damaged table on its own when it meets an object that is not where the
// table says, and then reads every object again from the file: the page counts corrected when
// the document was opened come back as the file has them. Corrects them once more after such a
// rebuild. Never throws.
void KeepPageCountsCorrect(Document::Impl& impl);
// The engine rebuilds a document's table on its own the first time it reads an object that is
// not where the table says, and reads everything from the file again: changes made before that
// are gone (pages appended to a document vanished when a later drawing loaded a misplaced
// font, and the save wrote the document without them). Before the first change and before a
// write, the head of every object the table lists is checked once ("N G obj" where the table
// says), without parsing the objects, and a table that misplaces one is rebuilt there and then.
// Never throws.
void PlaceObjectsBeforeChanges(Document::Impl& impl);
// The page count of the document of `impl`, its counts kept correct; throws an engine error
// (call it inside fz_try) for a document without a catalog, and for one with pending appends,
// whose page tree does not hold all its pages yet (make them first).
int CountDocumentPages(Document::Impl& impl);
// The pages in the document's own page tree, without those recorded to be appended; throws an
// engine error for a document without a catalog.
int CountOwnPages(Document::Impl& impl);

// The page dictionary at `index` (borrowed: the document keeps it), through the page number
// cache of `impl` when it still describes the document. Throws an engine error (call it inside
// fz_try) for an index outside the document.
pdf_obj* LookupPage(Document::Impl& impl, int index);
// Forgets the page number cache; call it after any change of the page tree.
inline void PageTreeChanged(Document::Impl& impl) {
    impl.page_numbers.clear();
}

}  // namespace zpdf::engine
