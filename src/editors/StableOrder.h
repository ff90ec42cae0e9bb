// The order in which parallel arrays are sorted by a float key: stable, and safe with NaN.
#pragma once

#include "foundation/iArray.h"

namespace vaporix::internal {

/// Fills `order` with the permutation that sorts `keys` ascending, keeping equal keys (and any
/// that do not compare, such as NaN) in their order: the result of a stable exchange sort with
/// a strict comparison, in n log n time. @return false when memory ran out.
bool stableOrder(const float* keys, int n, iArray<int>& order);

}  // namespace vaporix::internal
