// Allocation for iArray: huge pages for big blocks, and a failure hook for tests.
#include "foundation/iArray.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdlib>

namespace vaporix {

namespace {
std::atomic<size_t> gAllocationLimit{0};
std::atomic<int64_t> gAllocationBudget{-1};
std::atomic<int64_t> gAllocationCount{0};
std::atomic<int64_t> gFailingAllocation{0};  // 0: none

/// Takes `bytes` from the budget, if one is set. @return false when it is spent.
bool takeFromBudget(size_t bytes) {
    int64_t left = gAllocationBudget.load(std::memory_order_relaxed);
    while (left >= 0) {
        if (bytes > static_cast<uint64_t>(left)) return false;
        if (gAllocationBudget.compare_exchange_weak(left, left - static_cast<int64_t>(bytes),
                                                    std::memory_order_relaxed))
            return true;
    }
    return true;
}
// Blocks from this size on are aligned to 2 MiB and advised as huge pages: first touch of fresh
// pages is about 40 times slower than reuse on these machines, and huge pages cut most of that.
constexpr size_t HUGE_BLOCK = size_t(4) << 20;
constexpr size_t HUGE_ALIGN = size_t(2) << 20;
}  // namespace

void setArrayAllocationLimit(size_t bytes) noexcept { gAllocationLimit.store(bytes); }

void setArrayAllocationBudget(int64_t bytes) noexcept { gAllocationBudget.store(bytes); }

void setArrayAllocationFailure(int64_t n) noexcept {
    gFailingAllocation.store(n > 0 ? gAllocationCount.load() + n : 0);
}

int64_t arrayAllocationCount() noexcept { return gAllocationCount.load(); }

namespace internal {

void* arrayAllocate(size_t bytes) noexcept {
    const int64_t number = gAllocationCount.fetch_add(1, std::memory_order_relaxed) + 1;
    if (number == gFailingAllocation.load(std::memory_order_relaxed)) return nullptr;
    const size_t limit = gAllocationLimit.load(std::memory_order_relaxed);
    if (limit != 0 && bytes > limit) return nullptr;
    if (!takeFromBudget(bytes)) return nullptr;
    if (bytes == 0) bytes = 1;
    void* block = nullptr;
    if (bytes >= HUGE_BLOCK) {
        if (posix_memalign(&block, HUGE_ALIGN, bytes) != 0) return nullptr;
        madvise(block, bytes, MADV_HUGEPAGE);
        return block;
    }
    if (posix_memalign(&block, 64, bytes) != 0) return nullptr;
    return block;
}

void arrayRelease(void* block) noexcept { std::free(block); }

}  // namespace internal
}  // namespace vaporix
