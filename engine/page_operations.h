// Operations on a document's pages that the engine does not offer as such: copying pages in
// from another document, turning a page into a form XObject, and drawing a form XObject on a
// page. All throw EngineError when the engine fails.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace zpdf::engine {

// The producer every page import stamps into the changed document.
inline constexpr const char* kProducer = "Norvik PLEXA";

// Prepares `dst` for receiving pages (producer, catalog type, page tree root) and copies the
// pages `pages` (0-based indexes into `src`; all pages when null) in front of page index `at`
// of `dst`. Resources shared by the copied pages are copied once. `src` may be `dst` itself.
// Fails, changing nothing, when `at` is outside 0 to the page count.
void ImportPages(Document& dst, Document& src, const std::vector<int>* pages, int at);

// Records that the pages of `source` go at the end of `dst`, after those recorded before, when
// `dst` is written; the page count of `dst` counts them at once. Anything else that needs them in
// the page tree (drawing, changing or copying pages) copies them in first, as ImportPages does.
// Takes `source` and returns true, or leaves it and returns false where the pages must be
// imported now: an encrypted document on either side, a source with changes or records of its
// own, no pages or none that can be counted, or a page tree root of `dst` that is not an object
// of its own. Never throws.
bool RecordAppend(Document& dst, std::unique_ptr<AppendSource>& source);

// True when the open document may differ from its file: objects changed, or placements or
// appends recorded. Never throws.
bool DiffersFromItsFile(Document& doc);

// Removes page `index` from the page tree. The objects only it used stay in the document
// until it is written, and are left out then. An index past the end does nothing.
void DeletePage(Document& doc, int index);

// Removes the pages from index `from` to the end that an import added only to make forms of
// them. Unlike pages removed by DeletePage, what they used stays when the document is written:
// the forms use it.
void RemoveImportedPages(Document& doc, int from);

// The second half of a replacement, once `count` new pages stand at index `at`: the `count`
// pages that follow them leave the page tree (as many as there are), and the links, outline
// entries, actions and named destinations that went to them go to the new pages, one for one.
void RemoveReplacedPages(Document& doc, int at, int count);

struct FormXObjectInfo {
    std::uint32_t object_number = 0;  // 0: the page has no content, nothing was made
    float width = 0;
    float height = 0;
};

// A form XObject drawing the page at `page_index`: its content streams decoded and joined,
// its box and page matrix, and a copy of its resources.
FormXObjectInfo MakePageFormXObject(Document& doc, int page_index);

// Writes the whole document into `sink`, as it stands with its recorded placements and keeping
// its own security. Throws EngineError, or std::runtime_error when the sink fails.
void WriteDocument(Document& doc, ByteSink& sink);

// True when `object_number` names a form XObject of the document.
bool IsFormXObject(Document& doc, std::uint32_t object_number);

// The drawing operator for a form XObject: "q a b c d e f cm /Name Do Q" and a line feed, each
// number with six decimals.
std::string FormatPlacement(const std::array<double, 6>& matrix, const std::string& name);

// Draws the form XObject `object_number` on the page, beneath its content (`background`) or
// above it; a page without content gets the drawing alone. Existing content streams are never
// rewritten. On a page that is an object of its own, the placement is recorded, and made when
// the page is written, drawn or copied.
void PlaceFormXObject(Document& doc, std::uint32_t object_number, int page_index,
                      const std::array<float, 6>& matrix, bool background);

}  // namespace zpdf::engine
