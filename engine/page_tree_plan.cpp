#include "engine/page_tree_plan.h"

#include <algorithm>

namespace zpdf::engine {

PageTreePlan PlanPageTree(int pages) {
    PageTreePlan plan;
    plan.pages = pages;
    int items = pages;
    while (items > 1) {
        const int groups = (items + kPageTreeFanOut - 1) / kPageTreeFanOut;
        std::vector<PlannedNode> level(static_cast<std::size_t>(groups));
        for (int g = 0; g < groups; ++g) {
            PlannedNode& node = level[static_cast<std::size_t>(g)];
            node.first = static_cast<int>(static_cast<long long>(items) * g / groups);
            node.end = static_cast<int>(static_cast<long long>(items) * (g + 1) / groups);
            for (int k = node.first; k < node.end; ++k) {
                node.held += plan.levels.empty() ? 1 : plan.levels.back()[k].held;
            }
        }
        plan.levels.push_back(std::move(level));
        items = groups;
    }
    return plan;
}

int PageTreePlan::ParentOf(int level, int k) const {
    const std::vector<PlannedNode>& nodes = levels[static_cast<std::size_t>(level)];
    const auto it =
        std::upper_bound(nodes.begin(), nodes.end(), k,
                         [](int item, const PlannedNode& node) { return item < node.end; });
    return static_cast<int>(it - nodes.begin());
}

}  // namespace zpdf::engine
