#include "platform/alloc_fault.h"

#if defined(ZPDF_ALLOCATION_FAULTS)

#include <charconv>
#include <mutex>
#include <new>
#include <optional>
#include <string>

#include "platform/env.h"

namespace zpdf {
namespace {

constexpr char kVariable[] = "ZPDF_FAIL_ALLOCATION";
std::mutex g_mutex;

}  // namespace

void AllocationPoint() {
    // The count lives in the variable itself: each point reached counts it down, and the one
    // that reaches the end removes it and fails.
    std::lock_guard guard(g_mutex);
    const std::optional<std::string> text = GetEnvironmentText(kVariable);
    if (!text) return;
    long left = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), left);
    if (error != std::errc() || end != text->data() + text->size() || left < 1) return;
    if (left > 1) {
        SetEnvironmentText(kVariable, std::to_string(left - 1).c_str());
        return;
    }
    SetEnvironmentText(kVariable, nullptr);
    throw std::bad_alloc();
}

}  // namespace zpdf

#endif
