// The test hook that makes marked allocations fail: counted down in its environment variable,
// failing once at the count's end, ignoring what is not a positive count.
#include <gtest/gtest.h>

#include <new>
#include <optional>
#include <string>

#include "platform/alloc_fault.h"
#include "platform/env.h"

namespace zpdf {
namespace {

constexpr char kVariable[] = "ZPDF_FAIL_ALLOCATION";

TEST(AllocationFaults, CountsDownAndFailsOnce) {
    const struct {
        const char* value;                // the variable before the points (null: not set)
        int points;                       // points reached
        int failing;                      // the point that throws, 0 for none
        std::optional<std::string> left;  // the variable afterwards
    } cases[] = {
        {"1", 3, 1, std::nullopt},  // the first point fails, and none after it
        {"3", 3, 3, std::nullopt},
        {"3", 2, 0, "1"},
        {nullptr, 3, 0, std::nullopt},
        {"0", 2, 0, "0"},
        {"-2", 2, 0, "-2"},
        {"2x", 2, 0, "2x"},
        {"", 2, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value != nullptr ? c.value : "(not set)");
        ASSERT_TRUE(SetEnvironmentText(kVariable, c.value));
        int failed_at = 0;
        for (int point = 1; point <= c.points; ++point) {
            try {
                AllocationPoint();
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(failed_at, 0) << "a second failure";
                failed_at = point;
            }
        }
        EXPECT_EQ(failed_at, c.failing);
        EXPECT_EQ(GetEnvironmentText(kVariable), c.left);
    }
    SetEnvironmentText(kVariable, nullptr);
}

}  // namespace
}  // namespace zpdf
