// Particle box and bit-plane gather on the job engine.
#include "cache/ParticleJobs.h"

#include <algorithm>
#include <cmath>

#include "cache/PGroup.h"
#include "cache/VaporixFrameData.h"

namespace vaporix {

void MTComputeParticlesBbox::jobProc(Job& job) {
    Row& row = mRows[job.index];
    for (int a = 0; a < 3; ++a) {
        row.box[a] = PARTICLE_BOX_EMPTY;
        row.box[a + 3] = -PARTICLE_BOX_EMPTY;
    }
    row.bad = 0;
    for (uint64_t i = job.first; i < job.last; ++i) {
        float p[3];
        if (!mGroup->GetValue(static_cast<int>(i), PRT_POSITION, p)) continue;
        const float s = p[0] + p[1] + p[2];
        if (!std::isfinite(s) || !(std::fabs(s) < 100000.0f)) {
            ++row.bad;
            continue;
        }
        for (int a = 0; a < 3; ++a) {
            row.box[a] = std::min(row.box[a], p[a]);
            row.box[a + 3] = std::max(row.box[a + 3], p[a]);
        }
    }
}

int MTComputeParticlesBbox::compute(PGroup& group, float box[6]) {
    for (int a = 0; a < 3; ++a) {
        box[a] = PARTICLE_BOX_EMPTY;
        box[a + 3] = -PARTICLE_BOX_EMPTY;
    }
    init();
    const Row empty{{PARTICLE_BOX_EMPTY, PARTICLE_BOX_EMPTY, PARTICLE_BOX_EMPTY,
                     -PARTICLE_BOX_EMPTY, -PARTICLE_BOX_EMPTY, -PARTICLE_BOX_EMPTY},
                    0};
    mRows.resize(0);
    if (group.count <= 0 || !mRows.resize(numJobs, &empty, true)) return 0;
    mGroup = &group;
    setSpan(static_cast<uint64_t>(group.count));
    runJobs(0);
    mGroup = nullptr;
    int bad = 0;
    for (const Row& r : mRows) {
        for (int a = 0; a < 3; ++a) {
            box[a] = std::min(box[a], r.box[a]);
            box[a + 3] = std::max(box[a + 3], r.box[a + 3]);
        }
        bad += r.bad;
    }
    return bad;
}

MTComputeParticlesBbox& MTComputeParticlesBbox::instance() {
    // Lives for the whole process: its jobs sit on pool threads until exit.
    static MTComputeParticlesBbox* engine = new MTComputeParticlesBbox;
    return *engine;
}

namespace {

/// Transposes a 32x32 bit matrix in place: bit j of word i goes to bit i of word j.
void transpose32(uint32_t a[32]) {
    uint32_t m = 0x0000FFFFu;
    for (int j = 16; j != 0; j >>= 1, m ^= m << j) {
        for (int k = 0; k < 32; k = (k + j + 1) & ~j) {
            const uint32_t t = ((a[k] >> j) ^ a[k + j]) & m;
            a[k] ^= t << j;
            a[k + j] ^= t;
        }
    }
}

}  // namespace

void MTPrtIn::jobProc(Job& job) {
    const int64_t w = (mCount + 31) / 32;
    int64_t i = static_cast<int64_t>(job.first);
    const int64_t end = static_cast<int64_t>(job.last);
    while (i < end) {
        const int64_t word = i >> 5;
        if ((i & 31) == 0 && i + 32 <= end) {
            // A whole word of each plane: one bit transpose gives 32 particles at once.
            for (int k = 0; k < mComponents; ++k) {
                uint32_t block[32];
                const uint32_t* plane = mPlanes + word + int64_t(k) * 32 * w;
                for (int b = 0; b < 32; ++b) block[b] = plane[int64_t(b) * w];
                transpose32(block);
                for (int p = 0; p < 32; ++p) mOut[(i + p) * mComponents + k] = block[p];
            }
            i += 32;
            continue;
        }
        const uint32_t bit = 1u << (i & 31);
        for (int k = 0; k < mComponents; ++k) {
            uint32_t v = 0;
            const uint32_t* plane = mPlanes + word + int64_t(k) * 32 * w;
            for (int b = 0; b < 32; ++b)
                if (plane[int64_t(b) * w] & bit) v |= 1u << b;
            mOut[i * mComponents + k] = v;
        }
        ++i;
    }
}

void MTPrtIn::gather(
    const uint32_t* planes, int64_t count, int components, uint32_t* out, int threads) {
    mPlanes = planes;
    mOut = out;
    mCount = count;
    mComponents = components;
    init(threads);
    setSpan(static_cast<uint64_t>(count));
    runJobs(0);
}

}  // namespace vaporix
