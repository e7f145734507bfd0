// A page with placements made final: the one way a page gets the forms drawn on it, whether the
// placements are made in the document in memory (to count, draw or copy the page) or drawn in
// by our writer as it writes the page.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "engine/internal.h"

namespace zpdf::engine {

// The content streams that draw one placement named `name` in the page's resources: `front`
// goes before the page's content and `back` after it (empty for none). Beneath the content, the
// drawing comes first; above it, the page's content is wrapped in q/Q so that nothing it leaves
// changed moves the drawing.
struct PlacementStreams {
    std::string front;
    std::string back;
};
PlacementStreams PlacementContent(const PendingPlacement& placement, const std::string& name);

// Where the streams of a page's placements come from: a stream with those bytes, new or shared,
// by its object number. Throws EngineError.
class PlacementStreamSource {
  public:
    virtual ~PlacementStreamSource() = default;
    virtual int StreamFor(const std::string& bytes) = 0;
};

// The final dictionary of `page` with `placements` drawn on it, in order: a copy of the page's
// entries whose resources (its own or inherited) name each placement's form "FXX" and the
// smallest free number, and whose content is an array of the placements' streams around the
// page's content (on a page without content, the streams alone). Returns a new dictionary, a
// reference of the caller's; `page` is looked up again after each stream is made, through
// `find_page` (it returns a borrowed page dictionary and throws an engine error). Throws
// EngineError.
template <typename FindPage>
pdf_obj* FinalPlacedPage(fz_context* ctx, pdf_document* doc, FindPage find_page,
                         std::span<const PendingPlacement> placements,
                         PlacementStreamSource& streams);

// The engine-level steps of FinalPlacedPage, for its template. Each throws EngineError.
struct PlacementName {
    char text[32] = {};
};
void NamePlacements(fz_context* ctx, pdf_obj* page, std::span<PlacementName> names);
pdf_obj* ComposePlacedPage(fz_context* ctx, pdf_document* doc, pdf_obj* page,
                           std::span<const PendingPlacement> placements,
                           std::span<const PlacementName> names, std::span<const int> front,
                           std::span<const int> back);
// Borrows the page through `find_page` inside the engine's error scope; throws EngineError.
template <typename FindPage>
pdf_obj* FindPlacedPage(fz_context* ctx, FindPage& find_page) {
    pdf_obj* volatile page = nullptr;
    fz_try(ctx) {
        page = find_page();
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot find the page to place on");
    }
    return page;
}

template <typename FindPage>
pdf_obj* FinalPlacedPage(fz_context* ctx, pdf_document* doc, FindPage find_page,
                         std::span<const PendingPlacement> placements,
                         PlacementStreamSource& streams) {
    std::vector<PlacementName> names(placements.size());
    NamePlacements(ctx, FindPlacedPage(ctx, find_page), names);
    std::vector<int> front(placements.size(), 0);
    std::vector<int> back(placements.size(), 0);
    for (std::size_t i = 0; i < placements.size(); ++i) {
        const PlacementStreams content = PlacementContent(placements[i], names[i].text);
        front[i] = streams.StreamFor(content.front);
        if (!content.back.empty()) back[i] = streams.StreamFor(content.back);
    }
    return ComposePlacedPage(ctx, doc, FindPlacedPage(ctx, find_page), placements, names, front,
                             back);
}

}  // namespace zpdf::engine
