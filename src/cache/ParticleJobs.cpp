// Particle box and bit-plane gather on the job engine.
#include "cache/ParticleJobs.h"

#include <algorithm>
#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
    // Positions are read from the expanded channel only, so particles past its end can't count:
    // the pass covers what was expanded, never a count alone that a damaged file may claim.
    const int64_t expanded =
        group.channelData[PRT_POSITION].expanded.count / group.GetChannelStride(PRT_POSITION);
    const int64_t particles = std::min<int64_t>(group.count, expanded);
    mRows.resize(0);
    if (particles <= 0 || !mRows.resize(numJobs, &empty, true)) return 0;
    mGroup = &group;
    setSpan(static_cast<uint64_t>(particles));
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

#if defined(__SSE2__)
/// The 32x32 bit transpose of the gather: bit b of out[p] = bit p of rows[b]. Bytes q of 16
/// rows at a time go into one register, whose byte sign bits give bit 8q + 7 of those rows
/// at once; doubling the bytes brings the next bit into the sign.
void transposeBits(const uint32_t rows[32], uint32_t out[32]) {
    const __m128i low = _mm_set1_epi32(0xFF);
    __m128i r[8];
    for (int j = 0; j < 8; ++j) r[j] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows) + j);
    for (int q = 0; q < 4; ++q) {
        const __m128i shift = _mm_cvtsi32_si128(8 * q);
        __m128i bytes[2];
        for (int h = 0; h < 2; ++h) {
            const __m128i* v = r + 4 * h;
            const __m128i a = _mm_and_si128(_mm_srl_epi32(v[0], shift), low);
            const __m128i b = _mm_and_si128(_mm_srl_epi32(v[1], shift), low);
            const __m128i c = _mm_and_si128(_mm_srl_epi32(v[2], shift), low);
            const __m128i d = _mm_and_si128(_mm_srl_epi32(v[3], shift), low);
            // Byte q of rows 16h .. 16h + 15, in row order.
            bytes[h] = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
        }
        for (int bit = 7; bit >= 0; --bit) {
            out[8 * q + bit] = static_cast<uint32_t>(_mm_movemask_epi8(bytes[0])) |
                               (static_cast<uint32_t>(_mm_movemask_epi8(bytes[1])) << 16);
            bytes[0] = _mm_add_epi8(bytes[0], bytes[0]);
            bytes[1] = _mm_add_epi8(bytes[1], bytes[1]);
        }
    }
}
#else
/// The 32x32 bit transpose of the gather: bit b of out[p] = bit p of rows[b], by exchanging
/// ever smaller blocks.
void transposeBits(const uint32_t rows[32], uint32_t out[32]) {
    for (int k = 0; k < 32; ++k) out[k] = rows[k];
    uint32_t m = 0x0000FFFFu;
    for (int j = 16; j != 0; j >>= 1, m ^= m << j) {
        for (int k = 0; k < 32; k = (k + j + 1) & ~j) {
            const uint32_t t = ((out[k] >> j) ^ out[k + j]) & m;
            out[k] ^= t << j;
            out[k + j] ^= t;
        }
    }
}
#endif

}  // namespace

void MTPrtIn::jobProc(Job& job) {
    const int64_t w = (mCount + 31) / 32;
    const int64_t first = static_cast<int64_t>(job.first);
    const int64_t end = static_cast<int64_t>(job.last);
    // One component at a time: its 32 planes are the only streams read meanwhile.
    for (int k = 0; k < mComponents; ++k) {
        const uint32_t* planes = mPlanes + int64_t(k) * 32 * w;
        int64_t i = first;
        while (i < end) {
            const int64_t word = i >> 5;
            if ((i & 31) == 0 && i + 32 <= end) {
                // A whole word of each plane: one bit transpose gives 32 particles at once.
                uint32_t rows[32], values[32];
                for (int b = 0; b < 32; ++b) rows[b] = planes[word + int64_t(b) * w];
                transposeBits(rows, values);
                uint32_t* out = mOut + i * mComponents + k;
                for (int p = 0; p < 32; ++p) out[p * mComponents] = values[p];
                i += 32;
                continue;
            }
            const uint32_t bit = 1u << (i & 31);
            uint32_t v = 0;
            for (int b = 0; b < 32; ++b)
                if (planes[word + int64_t(b) * w] & bit) v |= 1u << b;
            mOut[i * mComponents + k] = v;
            ++i;
        }
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
