// The test hook that makes marked allocations fail, as the Windows hosts use it: set to 1, the
// next marked point throws, once, and the variable is gone.
#include <gtest/gtest.h>

#include <new>

#include "platform/alloc_fault.h"
#include "platform/env.h"

namespace zpdf {
namespace {

TEST(AllocationFaults, OneFailsTheNextPointOnly) {
    ASSERT_TRUE(SetEnvironmentText("ZPDF_FAIL_ALLOCATION", "1"));
    EXPECT_THROW(AllocationPoint(), std::bad_alloc);
    EXPECT_EQ(GetEnvironmentText("ZPDF_FAIL_ALLOCATION"), std::nullopt);
    EXPECT_NO_THROW(AllocationPoint());
}

}  // namespace
}  // namespace zpdf
