// The shape of the page tree nodes that gather a run of new pages: kPageTreeFanOut kids at most
// to a node, level by level, until one node holds the run. The page import builds the nodes in
// the document from it, and our writer writes them from it, so a run has one shape however it
// gets into a file.
#pragma once

#include <vector>

namespace zpdf::engine {

// How many kids each node made for a run holds at most, so that later page lookups never scan
// a long Kids array.
inline constexpr int kPageTreeFanOut = 32;

struct PlannedNode {
    int first = 0;  // its kids, as indexes into the level below (the pages, for level 0)
    int end = 0;
    int held = 0;  // pages below it
};

// levels[0] gathers the pages, each later level the nodes of the one before; the last level
// holds one node, the run's top. No levels for a run of one page: the page is its own top.
struct PageTreePlan {
    int pages = 0;
    std::vector<std::vector<PlannedNode>> levels;

    // The index in `levels[level]` of the node whose kids include item `k` of the level below.
    int ParentOf(int level, int k) const;
};

// Group sizes on a level differ by one at most. `pages` is at least 1.
PageTreePlan PlanPageTree(int pages);

}  // namespace zpdf::engine
