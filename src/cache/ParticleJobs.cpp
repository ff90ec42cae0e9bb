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

void MTPrtIn::jobProc(Job& job) {
    const int64_t w = (mCount + 31) / 32;
    for (uint64_t u = job.first; u < job.last; ++u) {
        const int64_t i = static_cast<int64_t>(u);
        const uint32_t bit = 1u << (i & 31);
        const int64_t word = i >> 5;
        for (int k = 0; k < mComponents; ++k) {
            uint32_t v = 0;
            const uint32_t* plane = mPlanes + word + int64_t(k) * 32 * w;
            for (int b = 0; b < 32; ++b)
                if (plane[int64_t(b) * w] & bit) v |= 1u << b;
            mOut[i * mComponents + k] = v;
        }
    }
}

void MTPrtIn::gather(const uint32_t* planes, int64_t count, int components, uint32_t* out) {
    mPlanes = planes;
    mOut = out;
    mCount = count;
    mComponents = components;
    init();
    setSpan(static_cast<uint64_t>(count));
    runJobs(0);
}

}  // namespace vaporix
