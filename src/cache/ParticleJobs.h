// Parallel passes over particle groups: the box of a group and the bit-plane gather.
#pragma once

#include <cstdint>
#include <mutex>

#include "foundation/MTJobs.h"
#include "foundation/iArray.h"

namespace vaporix {

class PGroup;

/// Box of one group's positions, with a count of bad particles (sum of the coordinates not
/// finite, or its magnitude 100000 or more), one result row per job merged by the caller.
class MTComputeParticlesBbox : public MTJobs {
public:
    const char* getName() const override { return "MTComputeParticlesBbox"; }
    void jobProc(Job& job) override;

    /// Runs over the particles of `group` that have expanded positions and merges the rows
    /// into `box`; @return the bad particle count.
    int compute(PGroup& group, float box[6]);

    /// The process-wide instance, built on first use; `lock()` serialises its users.
    static MTComputeParticlesBbox& instance();
    std::mutex& lock() { return mLock; }

private:
    struct Row {
        float box[6];
        int bad;
    };
    PGroup* mGroup = nullptr;
    iArray<Row> mRows;
    std::mutex mLock;
};

/// Gathers the bit planes of particle channel kind 4 into interleaved values, one unit per
/// particle: bit b of component k of particle i is bit (i mod 32) of word
/// (i / 32) + (k * 32 + b) * w of the planes, w = ceil(count / 32).
class MTPrtIn : public MTJobs {
public:
    const char* getName() const override { return "MT PRTIN"; }
    void jobProc(Job& job) override;
    /// Fills `out` with count * components words; `threads` as for MTJobs::init.
    void gather(
        const uint32_t* planes, int64_t count, int components, uint32_t* out, int threads = -1);

private:
    const uint32_t* mPlanes = nullptr;
    uint32_t* mOut = nullptr;
    int64_t mCount = 0;
    int mComponents = 0;
};

}  // namespace vaporix
