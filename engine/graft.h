// Copying a run of pages from one document into another in time linear in the number of pages:
// every page is copied first, then the run goes into the destination's page tree in one step,
// as a balanced subtree of page tree nodes.
#pragma once

#include <cstddef>

#include "engine/internal.h"

namespace zpdf::engine {

// Copies the pages `pages` of `src` (0-based indexes; the first `count` pages when null) into
// `dst` and inserts them, in that order, in front of page index `at` (0 to `total`, the page
// count of `dst`). Resources shared by the copied pages are copied once. `src` may be `dst`: the
// indexes name the pages as they are before the call. `dst` needs a page tree root with a Kids
// array.
//
// Returns -1 when every page went in, under page tree nodes shaped by PlanPageTree. Otherwise
// returns the 0-based position in the run of the page that could not be copied (0 when the run
// could not be inserted), writes the engine's reason into `why` (`why_size` bytes) and leaves the
// page tree of `dst` as it was and none of the objects made for the run in it. Never throws. The
// caller forgets the page number cache of `dst` afterwards.
int GraftPageRun(Document::Impl& dst, Document::Impl& src, const int* pages, int count, int at,
                 int total, char* why, std::size_t why_size);

}  // namespace zpdf::engine
