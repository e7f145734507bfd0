// Allocation failures on demand, for tests that show how a host sees the component run out of
// memory. The core marks the places where it allocates for a caller's result with
// AllocationPoint(). In a build made with ZPDF_ALLOCATION_FAULTS the environment variable
// ZPDF_FAIL_ALLOCATION=N makes the N-th point reached from then on throw std::bad_alloc, once:
// each point counts the variable down, and the failing one removes it. In any other build the
// points compile to nothing.
#pragma once

namespace zpdf {

#if defined(ZPDF_ALLOCATION_FAULTS)
void AllocationPoint();
#else
inline void AllocationPoint() {}
#endif

}  // namespace zpdf
