// The order in which parallel arrays are sorted by a float key: stable, and safe with NaN.
#include "editors/StableOrder.h"

namespace vaporix::internal {

bool stableOrder(const float* keys, int n, iArray<int>& order) {
    if (n < 0) n = 0;
    if (!order.resize(n, true)) return false;
    for (int i = 0; i < n; ++i) order[i] = i;

    // Already in order, the usual case after an edit: nothing to do.
    bool sorted = true;
    for (int i = 1; i < n && sorted; ++i) sorted = !(keys[i - 1] > keys[i]);
    if (sorted) return true;

    // Bottom-up merge sort; the right run goes first only when strictly smaller.
    iArray<int> scratch;
    if (!scratch.resize(n, true)) return false;
    int* src = order.data;
    int* dst = scratch.data;
    for (int width = 1; width < n; width *= 2) {
        for (int start = 0; start < n; start += 2 * width) {
            const int mid = start + width < n ? start + width : n;
            const int end = start + 2 * width < n ? start + 2 * width : n;
            int a = start;
            int b = mid;
            int out = start;
            while (a < mid && b < end)
                dst[out++] = keys[src[a]] > keys[src[b]] ? src[b++] : src[a++];
            while (a < mid) dst[out++] = src[a++];
            while (b < end) dst[out++] = src[b++];
        }
        int* t = src;
        src = dst;
        dst = t;
        if (width > n / 2) break;
    }
    if (src != order.data)
        for (int i = 0; i < n; ++i) order[i] = src[i];
    return true;
}

}  // namespace vaporix::internal
