// The blend of two cache frames into a third: cell by cell or along the velocity field, with
// the particle groups matched by ID or cross-faded by age and the liquid rebuilt from particles.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "cache/CellCounter.h"
#include "cache/PGroup.h"
#include "cache/ParticlesToGrid.h"
#include "cache/VaporixFrameData.h"
#include "cache/limits.h"
#include "foundation/MTJobs.h"
#include "foundation/log.h"

namespace vaporix {

namespace {

/// Largest float: the error every trace starts from.
constexpr float NO_ERROR_YET = 3.4028235e38f;
/// Smoke weight below which a cell counts as smokeless for the colour rule.
constexpr float MIN_SMOKE = 0.0001f;
/// Squared gradient length below which a channel counts as flat.
constexpr float FLAT_GRADIENT = 0.0001f;
/// Rounds of the search for a trace's source.
constexpr int SEARCH_ROUNDS = 20;
/// Damping of each Newton step, so that the search doesn't overshoot on curved fields.
constexpr double STEP_DAMPING = 0.7;

/// Where the three frames lie relative to each other: a destination cell d is cell
/// d + offsetA of A and d + offsetB of B.
struct BlendGeometry {
    int32_t dst[3] = {0, 0, 0};
    int32_t a[3] = {0, 0, 0};
    int32_t b[3] = {0, 0, 0};
    int32_t offsetA[3] = {0, 0, 0};
    int32_t offsetB[3] = {0, 0, 0};
};

using internal::CellCounter;

/// Index of cell (x, y, z) in a grid of `size`, or -1 outside it.
inline int64_t cellIndex(const int32_t size[3], int64_t x, int64_t y, int64_t z) {
    if (x < 0 || y < 0 || z < 0 || x >= size[0] || y >= size[1] || z >= size[2]) return -1;
    return x + int64_t(size[0]) * (y + int64_t(size[1]) * z);
}

/// Trilinear sample of one channel, with the clamping and arithmetic of SampleChannels (the
/// same operations in the same order, so the same bits), without its channel loop.
inline float sampleOne(const float* ch, const int32_t size[3], const float pos[3]) {
    int64_t cell[3], next[3];
    float frac[3];
    const bool inside = pos[0] >= 0.0f && pos[0] < static_cast<float>(size[0] - 1) &&
                        pos[1] >= 0.0f && pos[1] < static_cast<float>(size[1] - 1) &&
                        pos[2] >= 0.0f && pos[2] < static_cast<float>(size[2] - 1);
    for (int a = 0; a < 3; ++a) {
        float p = pos[a];
        if (!inside) {
            const float top = static_cast<float>(size[a] - 1);
            if (!(p >= 0.0f)) p = 0.0f;
            if (!(p <= top)) p = top;
        }
        cell[a] = static_cast<int64_t>(p);
        frac[a] = p - static_cast<float>(cell[a]);
        next[a] = (inside || cell[a] < size[a] - 1) ? cell[a] + 1 : cell[a];
    }
    const int64_t sx = size[0], sxy = int64_t(size[0]) * size[1];
    float sum = 0.0f;
    for (int k = 0; k < 8; ++k) {
        const int64_t x = (k & 1) ? next[0] : cell[0];
        const int64_t y = (k & 2) ? next[1] : cell[1];
        const int64_t z = (k & 4) ? next[2] : cell[2];
        const float wx = (k & 1) ? frac[0] : 1.0f - frac[0];
        const float wy = (k & 2) ? frac[1] : 1.0f - frac[1];
        const float wz = (k & 4) ? frac[2] : 1.0f - frac[2];
        sum += wx * wy * wz * ch[x + sx * y + sxy * z];
    }
    return sum;
}

// ---------------------------------------------------------------------------------------------
// Cell by cell

/// Unit = destination cell: B * wB + A * wA, an absent side counting 0. Colour channels follow
/// the smoke when `smokeA` is set: each side is weighted by its share of the weighted smoke.
class MTLinInterpCache : public MTJobs {
public:
    const char* getName() const override { return "MTLinInterpCache"; }

    int channel = 0;
    const BlendGeometry* geo = nullptr;
    const float* srcA = nullptr;
    const float* srcB = nullptr;
    float* dst = nullptr;
    const float* smokeA = nullptr;
    const float* smokeB = nullptr;
    float wA = 1.0f, wB = 0.0f;

    void jobProc(Job& job) override {
        if (job.first >= job.last) return;
        CellCounter at;
        at.start(job.first, geo->dst);
        uint64_t i = job.first;
        while (i < job.last) {
            // One row piece at a time: which rows of A and B it meets is fixed along it.
            const uint64_t rowEnd = std::min<uint64_t>(job.last, i + uint64_t(at.sx - at.x));
            const int64_t ay = at.y + geo->offsetA[1], az = at.z + geo->offsetA[2];
            const int64_t by = at.y + geo->offsetB[1], bz = at.z + geo->offsetB[2];
            const bool rowA = ay >= 0 && az >= 0 && ay < geo->a[1] && az < geo->a[2];
            const bool rowB = by >= 0 && bz >= 0 && by < geo->b[1] && bz < geo->b[2];
            const int64_t baseA = rowA ? int64_t(geo->a[0]) * (ay + int64_t(geo->a[1]) * az) : 0;
            const int64_t baseB = rowB ? int64_t(geo->b[0]) * (by + int64_t(geo->b[1]) * bz) : 0;
            const int64_t x0 = at.x;
            const int64_t n = static_cast<int64_t>(rowEnd - i);
            float* out = dst + i;
            // x range (relative to x0) where each side is present.
            int64_t loA = 0, hiA = 0, loB = 0, hiB = 0;
            if (rowA) {
                loA = std::clamp<int64_t>(-geo->offsetA[0] - x0, 0, n);
                hiA = std::clamp<int64_t>(geo->a[0] - geo->offsetA[0] - x0, loA, n);
            }
            if (rowB) {
                loB = std::clamp<int64_t>(-geo->offsetB[0] - x0, 0, n);
                hiB = std::clamp<int64_t>(geo->b[0] - geo->offsetB[0] - x0, loB, n);
            }
            const int64_t ia0 = baseA + x0 + geo->offsetA[0];
            const int64_t ib0 = baseB + x0 + geo->offsetB[0];
            if (!smokeA && loA == 0 && hiA == n && loB == 0 && hiB == n) {
                // Both sides all along: the plain mix.
                const float* a = srcA + ia0;
                const float* b = srcB + ib0;
                const float fa = wA, fb = wB;
                for (int64_t k = 0; k < n; ++k) out[k] = b[k] * fb + a[k] * fa;
            } else {
                for (int64_t k = 0; k < n; ++k) {
                    const bool inA = k >= loA && k < hiA;
                    const bool inB = k >= loB && k < hiB;
                    const float va = inA ? srcA[ia0 + k] : 0.0f;
                    const float vb = inB ? srcB[ib0 + k] : 0.0f;
                    float fa = wA, fb = wB;
                    if (smokeA) {
                        const float sA = inA ? smokeA[ia0 + k] * wA : 0.0f;
                        const float sB = inB ? smokeB[ib0 + k] * wB : 0.0f;
                        if (sA + sB > MIN_SMOKE) {
                            fb = sB / (sA + sB);
                            // One minus B's weighted smoke, not 1 - fb: the two weights need not
                            // add up to 1. This is the rule the caches were made with; keep it.
                            fa = 1.0f - sB;
                        } else {
                            fa = fb = 0.0f;
                        }
                    }
                    out[k] = vb * fb + va * fa;
                }
            }
            i = rowEnd;
            at.nextRow();
        }
    }
};

// ---------------------------------------------------------------------------------------------
// Along the velocity

/// Unit = destination cell: the point of A whose value matches B's value in the cell, found by
/// a damped Newton search along A's forward-difference gradient that starts half a velocity
/// step back.
class MTCalcBlendSource : public MTJobs {
public:
    const char* getName() const override { return "MTCalcBlendSource"; }

    const BlendGeometry* geo = nullptr;
    const float* srcA = nullptr;
    const float* srcB = nullptr;
    const float* velocity[3] = {nullptr, nullptr, nullptr};
    float timeStep = 0.0f;
    float* source = nullptr;

    void jobProc(Job& job) override {
        if (job.first >= job.last) return;
        searchRange(job.first, job.last);
    }

private:
    /// One cell's search under way.
    struct Trace {
        uint64_t i = 0;
        int round = 0;
        float pA[3], p[3], dir[3], best[3];
        float limit = 0.0f, target = 0.0f, bestError = NO_ERROR_YET;
    };
    /// A's extent as the search reads it, made once a job.
    struct Extent {
        int64_t sx = 0, sxy = 0;
        /// Below these a point's cell and the next ones along every axis are all inside A.
        float innerTop[3] = {0.0f, 0.0f, 0.0f};
        float outerTop[3] = {0.0f, 0.0f, 0.0f};
    };

    /// Sets up the search of destination cell i, at `at`.
    void start(Trace& s, const CellCounter& at, uint64_t i) const {
        const int32_t* sizeA = geo->a;
        s.i = i;
        s.round = 0;
        const int64_t xa = at.x + geo->offsetA[0], ya = at.y + geo->offsetA[1],
                      za = at.z + geo->offsetA[2];
        s.pA[0] = static_cast<float>(xa);
        s.pA[1] = static_cast<float>(ya);
        s.pA[2] = static_cast<float>(za);
        const int64_t ia = cellIndex(sizeA, xa, ya, za);
        float v[3] = {0.0f, 0.0f, 0.0f};
        if (ia >= 0)
            for (int k = 0; k < 3; ++k) v[k] = velocity[k][ia];

        // Half a step back along the velocity to start, a whole step as the limit.
        float d[3];
        for (int k = 0; k < 3; ++k) d[k] = -v[k] * timeStep;
        s.limit = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        for (int k = 0; k < 3; ++k) s.p[k] = s.pA[k] + d[k] * 0.5f;
        const float length = std::sqrt(s.limit);
        const float largest =
            std::max(std::fabs(d[0]), std::max(std::fabs(d[1]), std::fabs(d[2])));
        // Without a velocity the direction stays unset: the first flat test ends the search.
        for (float& k : s.dir) k = 0.0f;
        if (1e18f * length > largest)
            for (int k = 0; k < 3; ++k) s.dir[k] = d[k] / length;

        const int64_t ib = cellIndex(geo->b, at.x + geo->offsetB[0], at.y + geo->offsetB[1],
                                     at.z + geo->offsetB[2]);
        s.target = ib >= 0 ? srcB[ib] : 0.0f;
        std::copy(s.p, s.p + 3, s.best);
        s.bestError = NO_ERROR_YET;
    }

    /// One round of the search. @return false once the search is over (`best` is its answer).
    bool searchRound(Trace& s, const Extent& a) const {
        const int64_t sx = a.sx, sxy = a.sxy;
        const float* innerTop = a.innerTop;
        const float* outerTop = a.outerTop;
        float* p = s.p;
        float e, g[3];
        if (p[0] >= 0.0f && p[0] < innerTop[0] && p[1] >= 0.0f && p[1] < innerTop[1] &&
            p[2] >= 0.0f && p[2] < innerTop[2]) {
            // Well inside: sampleOne's arithmetic in its order, on a cube that also gives the
            // gradient of the point's cell.
            const int64_t cx = static_cast<int64_t>(p[0]), cy = static_cast<int64_t>(p[1]),
                          cz = static_cast<int64_t>(p[2]);
            const float fx = p[0] - static_cast<float>(cx), fy = p[1] - static_cast<float>(cy),
                        fz = p[2] - static_cast<float>(cz);
            const float ux = 1.0f - fx, uy = 1.0f - fy, uz = 1.0f - fz;
            const float* c = srcA + (cx + sx * cy + sxy * cz);
            float sum = 0.0f;
            sum += ux * uy * uz * c[0];
            sum += fx * uy * uz * c[1];
            sum += ux * fy * uz * c[sx];
            sum += fx * fy * uz * c[sx + 1];
            sum += ux * uy * fz * c[sxy];
            sum += fx * uy * fz * c[sxy + 1];
            sum += ux * fy * fz * c[sxy + sx];
            sum += fx * fy * fz * c[sxy + sx + 1];
            e = sum - s.target;
            if (std::fabs(e) < s.bestError) {
                s.bestError = std::fabs(e);
                std::copy(p, p + 3, s.best);
            }
            g[0] = c[1] - c[0];
            g[1] = c[sx] - c[0];
            g[2] = c[sxy] - c[0];
        } else {
            const int32_t* sizeA = geo->a;
            e = sampleOne(srcA, sizeA, p) - s.target;
            if (std::fabs(e) < s.bestError) {
                s.bestError = std::fabs(e);
                std::copy(p, p + 3, s.best);
            }
            // Also false for NaN, so the conversion below sees only values in range.
            if (!(p[0] > -1.0f && p[0] < outerTop[0] && p[1] > -1.0f && p[1] < outerTop[1] &&
                  p[2] > -1.0f && p[2] < outerTop[2]))
                return false;
            const int64_t c[3] = {static_cast<int64_t>(p[0]), static_cast<int64_t>(p[1]),
                                  static_cast<int64_t>(p[2])};
            const float* here = srcA + (c[0] + sx * c[1] + sxy * c[2]);
            // Forward differences, 0 on the last cell of an axis.
            g[0] = c[0] < sizeA[0] - 1 ? here[1] - here[0] : 0.0f;
            g[1] = c[1] < sizeA[1] - 1 ? here[sx] - here[0] : 0.0f;
            g[2] = c[2] < sizeA[2] - 1 ? here[sxy] - here[0] : 0.0f;
        }
        const float m = g[0] * g[0] + g[1] * g[1] + g[2] * g[2];
        if (m < FLAT_GRADIENT) {
            // Flat here: walk along the velocity until a whole step is used up, and take the
            // cell's own place when nothing better turned up.
            const float dp[3] = {p[0] - s.pA[0], p[1] - s.pA[1], p[2] - s.pA[2]};
            if (!(dp[0] * dp[0] + dp[1] * dp[1] + dp[2] * dp[2] < s.limit)) {
                std::copy(s.pA, s.pA + 3, p);
                std::copy(s.pA, s.pA + 3, s.best);
                return false;
            }
            // Without a direction p stays put: the rounds left could not change best.
            if (s.dir[0] == 0.0f && s.dir[1] == 0.0f && s.dir[2] == 0.0f) return false;
            for (int k = 0; k < 3; ++k) p[k] += s.dir[k];
        } else {
            double step[3];
            const double f = static_cast<double>(e) / static_cast<double>(m);
            for (int k = 0; k < 3; ++k) step[k] = static_cast<double>(g[k]) * f * STEP_DAMPING;
            const double s2 = step[0] * step[0] + step[1] * step[1] + step[2] * step[2];
            if (s2 > 1.0) {
                const double inv = 1.0 / std::sqrt(s2);
                for (double& k : step) k *= inv;
            }
            const float before[3] = {p[0], p[1], p[2]};
            for (int k = 0; k < 3; ++k) p[k] -= static_cast<float>(step[k]);
            // A step too small to move p in float: every further round would sample the same
            // place, find the same error and take the same step, so none of them could change
            // `best`. Stopping here gives the same answer sooner.
            if (p[0] == before[0] && p[1] == before[1] && p[2] == before[2]) return false;
        }
        return ++s.round < SEARCH_ROUNDS;
    }

    void searchRange(uint64_t first, uint64_t last) {
        const int32_t* sizeA = geo->a;
        Extent extent;
        extent.sx = sizeA[0];
        extent.sxy = int64_t(sizeA[0]) * sizeA[1];
        for (int k = 0; k < 3; ++k) {
            extent.innerTop[k] = static_cast<float>(sizeA[k] - 1);
            extent.outerTop[k] = static_cast<float>(sizeA[k]);
        }
        // Each round waits on the one before (sample, division, step): several cells are
        // searched side by side so that the processor can overlap their rounds. Every cell
        // still goes through its own rounds in order, so its answer is the same.
        constexpr int LANES = 4;
        Trace lane[LANES];
        int live = 0;
        CellCounter at;
        at.start(first, geo->dst);
        uint64_t next = first;
        for (; live < LANES && next < last; ++live, ++next, at.step()) start(lane[live], at, next);
        while (live > 0) {
            for (int k = 0; k < live;) {
                Trace& s = lane[k];
                if (searchRound(s, extent)) {
                    ++k;
                    continue;
                }
                std::copy(s.best, s.best + 3, source + 3 * s.i);
                if (next < last) {
                    start(s, at, next);
                    ++next;
                    at.step();
                    ++k;
                } else {
                    s = lane[--live];
                }
            }
        }
    }
};

/// Unit = destination cell: each channel with a trace is read from A at the point that lies
/// the fraction t along the way from the cell's own place to its traced source. Only A is read:
/// the frames mix by moving along the trace, not by mixing values.
class MTInterpUsingVelocity : public MTJobs {
public:
    const char* getName() const override { return "MTInterpUsingVelocity"; }

    const BlendGeometry* geo = nullptr;
    float t = 0.0f;
    int channelCount = 0;
    int ordinals[CHANNEL_COUNT] = {};
    const float* srcA[CHANNEL_COUNT] = {};
    const float* source[CHANNEL_COUNT] = {};
    float* dst[CHANNEL_COUNT] = {};

    void jobProc(Job& job) override {
        if (job.first >= job.last) return;
        const float w = 1.0f - t;
        CellCounter at;
        at.start(job.first, geo->dst);
        for (uint64_t i = job.first; i < job.last; ++i, at.step()) {
            const float own[3] = {static_cast<float>(at.x + geo->offsetA[0]),
                                  static_cast<float>(at.y + geo->offsetA[1]),
                                  static_cast<float>(at.z + geo->offsetA[2])};
            for (int n = 0; n < channelCount; ++n) {
                if (!srcA[n]) {
                    dst[n][i] = 0.0f;
                    continue;
                }
                // The sampler serves ordinals below 16; the others keep what they hold.
                if (ordinals[n] >= 16) continue;
                const float* s = source[n] + 3 * i;
                const float pos[3] = {own[0] * w + s[0] * t, own[1] * w + s[1] * t,
                                      own[2] * w + s[2] * t};
                dst[n][i] = sampleOne(srcA[n], geo->a, pos);
            }
        }
    }
};

// ---------------------------------------------------------------------------------------------
// Particles

bool hasParticles(const PGroup& g) {
    const ChannelData& pos = g.channelData[PRT_POSITION];
    return g.count > 0 && (pos.compressed.count > 0 || pos.expanded.count > 0);
}

/// The values of a particle channel when they cover every particle of the group, else null.
const uint8_t* channelValues(const PGroup& g, int c) {
    const int stride = prtComponentCount(c) * 4;
    if (stride == 0 || g.count <= 0) return nullptr;
    const ChannelData& cd = g.channelData[c];
    if (cd.expanded.count < static_cast<long long>(g.count) * stride) return nullptr;
    return cd.expanded.data;
}

const PGroup* findGroup(const VaporixFrameData& frame, const iString& name) {
    for (const PGroup& g : frame.groups)
        if (g.name == name) return &g;
    return nullptr;
}

void addName(LoadFrameResult& result, const iString& name) {
    if (!result.text.empty()) result.text += ", ";
    result.text += name;
}

/// Particles matched by ID and mixed; those in one frame only are dropped. @return false when
/// memory failed.
bool blendGroupsById(VaporixFrameData& dst,
                     const VaporixFrameData& A,
                     const VaporixFrameData& B,
                     float t,
                     const int32_t offsetA[3],
                     const int32_t offsetB[3],
                     LoadFrameResult& result) {
    const float w = 1.0f - t;
    for (const PGroup& ga : A.groups) {
        const PGroup* gb = findGroup(B, ga.name);
        if (!gb) continue;
        PGroup made;
        made.name = ga.name;
        made.frame = &dst;
        if (!dst.groups.append(made)) return false;
        PGroup& d = dst.groups.last();
        const auto* idsA = reinterpret_cast<const int64_t*>(channelValues(ga, PRT_ID));
        const auto* idsB = channelValues(*gb, PRT_ID);
        if ((hasParticles(ga) && !idsA) || (hasParticles(*gb) && !idsB)) {
            result.code = FRAME_RESULT_NO_ID;
            addName(result, ga.name);
            continue;
        }
        iArray<int64_t> ids;
        iArray<int32_t> pairs;  // (i of A, j of B)
        if (idsA && idsB) {
            PGroup& searchable = const_cast<PGroup&>(*gb);  // FindById only reads
            for (int32_t i = 0; i < ga.count; ++i) {
                int64_t id;
                std::memcpy(&id, idsA + i, 8);
                const int j = searchable.FindById(id);
                if (j < 0) continue;
                if (!ids.append(id) || !pairs.append(i) || !pairs.append(j)) return false;
            }
        }
        d.count = ids.count;
        d.flags = ga.flags;
        if (d.count == 0) continue;
        if (!d.setChannel(PRT_ID, ids.data, uint64_t(ids.count) * 8)) return false;
        d.channelBits |= 1u << PRT_ID;
        for (int c = 0; c < PRT_CHANNELS; ++c) {
            if (c == PRT_ID) continue;
            const auto* va = reinterpret_cast<const float*>(channelValues(ga, c));
            const auto* vb = reinterpret_cast<const float*>(channelValues(*gb, c));
            if (!va || !vb) continue;
            auto* out = static_cast<float*>(d.allocChannel(c));
            if (!out) return false;
            const int k = prtComponentCount(c);
            for (int32_t n = 0; n < d.count; ++n) {
                const int64_t i = pairs[2 * n], j = pairs[2 * n + 1];
                for (int m = 0; m < k; ++m) {
                    const float a = va[i * k + m], b = vb[j * k + m];
                    // Positions are grid coordinates of their own frame.
                    out[int64_t(n) * k + m] =
                        c == PRT_POSITION ? (a - static_cast<float>(offsetA[m])) * w +
                                                (b - static_cast<float>(offsetB[m])) * t
                                          : a * w + b * t;
                }
            }
            d.channelBits |= 1u << c;
        }
        d.buildIdOrder();
    }
    return true;
}

/// The loop cross-fade: A's particles younger than the threshold and B's older ones. @return
/// false when memory failed.
bool blendGroupsByAge(VaporixFrameData& dst,
                      const VaporixFrameData& A,
                      const VaporixFrameData& B,
                      float t,
                      float overlapTime,
                      LoadFrameResult& result) {
    const float threshold = (1.0f - t) * overlapTime;
    const bool sameGrid = A.gridTransform == B.gridTransform;
    GridTransform toWorldA, toWorldB;
    if (!sameGrid && (!A.gridTransform.inverse(toWorldA) || !B.gridTransform.inverse(toWorldB)))
        return false;
    for (const PGroup& ga : A.groups) {
        const PGroup* gb = findGroup(B, ga.name);
        if (!gb) continue;
        PGroup made;
        made.name = ga.name;
        made.frame = &dst;
        if (!dst.groups.append(made)) return false;
        PGroup& d = dst.groups.last();
        const auto* ageA = reinterpret_cast<const float*>(channelValues(ga, PRT_AGE));
        const auto* ageB = reinterpret_cast<const float*>(channelValues(*gb, PRT_AGE));
        if ((hasParticles(ga) && !ageA) || (hasParticles(*gb) && !ageB)) {
            result.code = FRAME_RESULT_NO_AGE;
            addName(result, ga.name);
            continue;
        }
        iArray<int32_t> pickA, pickB;
        for (int32_t i = 0; ageA && i < ga.count; ++i)
            if (ageA[i] < threshold && !pickA.append(i)) return false;
        for (int32_t j = 0; ageB && j < gb->count; ++j)
            if (ageB[j] >= threshold && !pickB.append(j)) return false;
        d.count = pickA.count + pickB.count;
        d.flags = ga.flags;
        if (d.count == 0) continue;
        for (int c = 0; c < PRT_CHANNELS; ++c) {
            const uint8_t* va = channelValues(ga, c);
            const uint8_t* vb = channelValues(*gb, c);
            if (!va || !vb) continue;
            auto* out = static_cast<uint8_t*>(d.allocChannel(c));
            if (!out) return false;
            const size_t stride = static_cast<size_t>(prtComponentCount(c)) * 4;
            size_t at = 0;
            for (int32_t i : pickA) std::memcpy(out + stride * at++, va + stride * size_t(i), stride);
            for (int32_t j : pickB) std::memcpy(out + stride * at++, vb + stride * size_t(j), stride);
            if (c == PRT_POSITION && !sameGrid) {
                // Through the world into the destination's grid.
                auto* p = reinterpret_cast<float*>(out);
                for (int32_t n = 0; n < d.count; ++n) {
                    float world[3];
                    (n < pickA.count ? toWorldA : toWorldB).apply(p + 3 * n, world);
                    dst.gridTransform.apply(world, p + 3 * n);
                }
            }
            d.channelBits |= 1u << c;
        }
        if (d.channelBits & (1u << PRT_ID)) d.buildIdOrder();
    }
    return true;
}

/// Frees or keeps the destination's channel arrays: an array is kept for reuse when the cell
/// count stays, since first touch of fresh memory costs more than the blend itself.
void releaseChannels(VaporixFrameData& dst, int64_t oldCells, int64_t newCells, uint32_t keep) {
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        if (!((keep >> c) & 1u) || oldCells != newCells) {
            internal::arrayRelease(dst.channels[c]);
            dst.channels[c] = nullptr;
        }
        dst.rangeMin[c] = RANGE_UNKNOWN_MIN;
        dst.rangeMax[c] = RANGE_UNKNOWN_MAX;
    }
}

bool isEmptyBox(const float box[6]) {
    return box[3] < box[0] || box[4] < box[1] || box[5] < box[2];
}

}  // namespace

LoadFrameResult VaporixFrameData::Blend(const VaporixFrameData& A,
                                        const VaporixFrameData& B,
                                        float t,
                                        int method,
                                        bool sourcesChanged,
                                        float overlapTime) {
    LoadFrameResult result;
    const int gridMethod = method & 0xFF;
    const int particleMethod = (method >> 8) & 0xFF;
    // Channels are expanded on demand, which is safe on shared frames (one lock a channel).
    auto& srcA = const_cast<VaporixFrameData&>(A);
    auto& srcB = const_cast<VaporixFrameData&>(B);
    if (&A == this || &B == this) {
        lumoLog("Blending frames into one of its sources!\n");
        result.code = FRAME_RESULT_NONE;
        return result;
    }

    // The velocity method needs A's velocity.
    if (gridMethod == BLEND_GRID_VELOCITY &&
        (!srcA.GetChannelData(CH_VELOCITY_X) || !srcA.GetChannelData(CH_VELOCITY_Y) ||
         !srcA.GetChannelData(CH_VELOCITY_Z))) {
        lumoLog("Blending frames could not expand the velocity channel!\n");
        result.code = FRAME_RESULT_NONE;
        return result;
    }

    // Relative transform from A's grid to B's: the frames may differ by a shift only.
    double rel[12];
    bool sameScale = false;
    {
        // A's inverse by cofactors in double, composed with B's transform in double.
        const float* m = A.gridTransform.m;
        const double a = m[0], b = m[1], c = m[2], d = m[3], e = m[4], f = m[5], g = m[6],
                     h = m[7], k = m[8];
        const double c00 = e * k - f * h, c01 = -(d * k - f * g), c02 = d * h - e * g;
        const double det = a * c00 + b * c01 + c * c02;
        if (det != 0.0 && std::isfinite(det)) {
            const double inv = 1.0 / det;
            const double r[9] = {c00 * inv,           -(b * k - c * h) * inv, (b * f - c * e) * inv,
                                 c01 * inv,           (a * k - c * g) * inv,  -(a * f - c * d) * inv,
                                 c02 * inv,           -(a * h - b * g) * inv, (a * e - b * d) * inv};
            double off[3];
            for (int col = 0; col < 3; ++col)
                off[col] = -(m[9] * r[col] + m[10] * r[3 + col] + m[11] * r[6 + col]);
            const float* n = B.gridTransform.m;
            // rel = invA followed by B: row i of the 3x3 part is r_i * N, the offset off * N + t_B.
            for (int row = 0; row < 3; ++row)
                for (int col = 0; col < 3; ++col)
                    rel[row * 3 + col] = r[row * 3] * n[col] + r[row * 3 + 1] * n[3 + col] +
                                         r[row * 3 + 2] * n[6 + col];
            for (int col = 0; col < 3; ++col)
                rel[9 + col] = off[0] * n[col] + off[1] * n[3 + col] + off[2] * n[6 + col] +
                               n[9 + col];
            // (1,1,1) through the 3x3 part must come back unchanged.
            double diff2 = 0.0;
            for (int col = 0; col < 3; ++col) {
                const double v = rel[col] + rel[3 + col] + rel[6 + col] - 1.0;
                diff2 += v * v;
            }
            sameScale = std::sqrt(diff2) <= 0.001;
        }
    }
    if (!sameScale) {
        lumoLog("Blending frames with different scale!\n");
        result.code = FRAME_RESULT_NONE;
        return result;
    }

    // The union of both boxes in B's cells, and the offsets of A and B in it.
    BlendGeometry geo;
    int64_t lo[3], hi[3];
    for (int ax = 0; ax < 3; ++ax) {
        const double s = std::floor(rel[9 + ax] + 0.5);
        // A shift beyond the largest grid can't give a union that fits.
        if (!(std::fabs(s) <= double(MAX_GRID_CELLS)) || A.gridSize[ax] < 0 || B.gridSize[ax] < 0) {
            lumoLog("Blending frames whose union is too big!\n");
            result.code = FRAME_RESULT_NONE;
            return result;
        }
        const int64_t shift = static_cast<int64_t>(s);
        lo[ax] = std::min<int64_t>(shift, 0);
        hi[ax] = std::max<int64_t>(shift + A.gridSize[ax], B.gridSize[ax]);
        geo.a[ax] = A.gridSize[ax];
        geo.b[ax] = B.gridSize[ax];
        if (hi[ax] - lo[ax] > MAX_GRID_CELLS) {
            lumoLog("Blending frames whose union is too big!\n");
            result.code = FRAME_RESULT_NONE;
            return result;
        }
        geo.dst[ax] = static_cast<int32_t>(hi[ax] - lo[ax]);
        geo.offsetA[ax] = shift > 0 ? static_cast<int32_t>(-shift) : 0;
        geo.offsetB[ax] = shift > 0 ? 0 : static_cast<int32_t>(shift);
    }
    if (!gridSizeAcceptable(geo.dst)) {
        lumoLog("Blending frames whose union is too big!\n");
        result.code = FRAME_RESULT_NONE;
        return result;
    }
    const int64_t oldCells = getCellCount();
    for (int ax = 0; ax < 3; ++ax) gridSize[ax] = geo.dst[ax];
    const int64_t cells = getCellCount();
    gridTransform = A.gridTransform;
    for (int ax = 0; ax < 3; ++ax) gridTransform.m[9 + ax] -= static_cast<float>(geo.offsetA[ax]);

    // Destination arrays for the channels that both frames deliver.
    const float* chA[CHANNEL_COUNT] = {};
    const float* chB[CHANNEL_COUNT] = {};
    uint32_t both = 0;
    const bool gridWork = gridMethod <= BLEND_GRID_VELOCITY;
    if (gridWork) {
        for (int c = 0; c < CHANNEL_COUNT; ++c) {
            chA[c] = srcA.GetChannelData(c);
            if (chA[c]) chB[c] = srcB.GetChannelData(c);
            if (chA[c] && chB[c]) both |= 1u << c;
        }
    }
    releaseChannels(*this, oldCells, cells, both);
    if (gridWork) {
        for (int c = 0; c < CHANNEL_COUNT; ++c) {
            if (!((both >> c) & 1u) || channels[c]) continue;
            // Four floats beyond the end, as every channel array has.
            channels[c] = static_cast<float*>(
                internal::arrayAllocate(static_cast<size_t>(cells + 4) * sizeof(float)));
            if (!channels[c]) {
                result.code = FRAME_RESULT_NONE;
                return result;
            }
        }
        channelMask = both;
    } else {
        channelMask = A.channelMask & B.channelMask;
    }

    // Particles; their result is the call's.
    groups.free();
    bool groupsMade = true;
    if (particleMethod == BLEND_PARTICLES_BY_ID)
        groupsMade = blendGroupsById(*this, A, B, t, geo.offsetA, geo.offsetB, result);
    else if (particleMethod == BLEND_PARTICLES_BY_AGE)
        groupsMade = blendGroupsByAge(*this, A, B, t, overlapTime, result);
    if (!groupsMade) {
        result.code = FRAME_RESULT_NONE;
        return result;
    }

    // A liquid surface is rebuilt from its blended particles, not mixed.
    uint32_t done = 0;
    if (channels[CH_TEMPERATURE]) {
        for (PGroup& g : groups) {
            if (g.name != "Liquid" || !hasParticles(g)) continue;
            const auto* pos = reinterpret_cast<const float*>(channelValues(g, PRT_POSITION));
            if (!pos) continue;
            ParticlesToGrid::BasePrtHolder holder;
            if (!holder.channels[0].resize(int64_t(g.count) * 3, nullptr, true)) {
                result.code = FRAME_RESULT_NONE;
                return result;
            }
            std::memcpy(holder.channels[0].data, pos, size_t(g.count) * 3 * sizeof(float));
            if (!ParticlesToGrid::fillGridFromParticles(g, holder, channels[CH_TEMPERATURE],
                                                        gridSize, nullptr, blendThreads)) {
                result.code = FRAME_RESULT_NONE;
                return result;
            }
            done |= 1u << CH_TEMPERATURE;
            break;
        }
    }

    if (gridMethod == BLEND_GRID_INTERPOLATION) {
        MTLinInterpCache engine;
        engine.geo = &geo;
        engine.wA = 1.0f - t;
        engine.wB = t;
        engine.init(blendThreads);
        for (int c = 0; c < CHANNEL_COUNT; ++c) {
            if (!channels[c] || !((both >> c) & 1u) || ((done >> c) & 1u)) continue;
            engine.channel = c;
            engine.srcA = chA[c];
            engine.srcB = chB[c];
            engine.dst = channels[c];
            const bool colour = c >= CH_RED && c <= CH_BLUE && channels[CH_SMOKE];
            engine.smokeA = colour ? chA[CH_SMOKE] : nullptr;
            engine.smokeB = colour ? chB[CH_SMOKE] : nullptr;
            engine.setSpan(static_cast<uint64_t>(cells));
            engine.runJobs(0);
        }
    } else if (gridMethod == BLEND_GRID_VELOCITY) {
        // The traces cost up to twenty samples a cell: they are searched only for a new pair
        // (or when the kept ones no longer fit the grid).
        if (sourcesChanged || blendSourceCells != cells) {
            // Arrays of the right size are kept for reuse: first touch of fresh memory costs
            // about as much as the search itself. Those of channels not traced now go.
            for (int c = 0; c < CHANNEL_COUNT; ++c) {
                const bool traced = channels[c] && ((both >> c) & 1u) && !((done >> c) & 1u);
                if (!traced || blendSourceCells != cells) {
                    internal::arrayRelease(blendSource[c]);
                    blendSource[c] = nullptr;
                }
            }
            blendSourceCells = 0;
            MTCalcBlendSource engine;
            engine.geo = &geo;
            engine.timeStep = A.timeStep;
            for (int k = 0; k < 3; ++k) engine.velocity[k] = chA[CH_VELOCITY_X + k];
            engine.init(blendThreads);
            const int64_t cellsA = A.getCellCount();
            for (int c = 0; c < CHANNEL_COUNT; ++c) {
                if (!channels[c] || !((both >> c) & 1u) || ((done >> c) & 1u)) continue;
                if (!blendSource[c])
                    blendSource[c] = static_cast<float*>(
                        internal::arrayAllocate(static_cast<size_t>(cells) * 3 * sizeof(float)));
                if (!blendSource[c]) {
                    clearBlendScratch();
                    result.code = FRAME_RESULT_NONE;
                    return result;
                }
                engine.srcA = chA[c];
                engine.srcB = chB[c];
                engine.source = blendSource[c];
                if (cellsA > 0) {
                    // The gradient is read from A where the search needs it: no pass of its own.
                    engine.setSpan(static_cast<uint64_t>(cells));
                    engine.runJobs(0);
                } else {
                    // An empty A: every trace stays at the cell's own place.
                    for (int64_t i = 0; i < cells * 3; ++i) blendSource[c][i] = 0.0f;
                }
            }
            blendSourceCells = cells;
        }
        MTInterpUsingVelocity engine;
        engine.geo = &geo;
        engine.t = t;
        for (int c = 0; c < CHANNEL_COUNT; ++c) {
            if (!channels[c] || !blendSource[c] || ((done >> c) & 1u)) continue;
            // Ordinals the sampler doesn't serve start from 0 rather than stale memory.
            if (c >= 16) std::memset(channels[c], 0, static_cast<size_t>(cells) * sizeof(float));
            const int n = engine.channelCount++;
            engine.ordinals[n] = c;
            engine.srcA[n] = chA[c];
            engine.source[n] = blendSource[c];
            engine.dst[n] = channels[c];
        }
        if (A.getCellCount() > 0 && engine.channelCount > 0) {
            engine.init(blendThreads);
            engine.setSpan(static_cast<uint64_t>(cells));
            engine.runJobs(0);
        }
    }

    // The stream is gone: one placeholder word.
    if (comprDataSzInts != 1) {
        internal::arrayRelease(comprData);
        comprData = static_cast<int32_t*>(internal::arrayAllocate(sizeof(int32_t)));
        comprDataSzInts = comprData ? 1 : 0;
        if (comprData) comprData[0] = 0;
    }

    // Header values.
    const float w = 1.0f - t;
    frameNumber = static_cast<int32_t>(static_cast<float>(A.frameNumber) * w +
                                       static_cast<float>(B.frameNumber) * t);
    const double wd = 1.0 - static_cast<double>(t), td = t;
    setSimTime(A.simTime() * wd + B.simTime() * td);
    setSimTime2(A.simTime2() * wd + B.simTime2() * td);
    setSimInt(A.simInt());
    // Scaled by the weight, not mixed with B's step: consumers that scale velocities by it see
    // a shortened step, and the caches' playback is tuned to that.
    timeStep = t * A.timeStep;

    for (int ax = 0; ax < 3; ++ax) {
        particleBox[ax] = PARTICLE_BOX_EMPTY;
        particleBox[ax + 3] = -PARTICLE_BOX_EMPTY;
    }
    if (!isEmptyBox(A.particleBox) && !isEmptyBox(B.particleBox))
        for (int k = 0; k < 6; ++k) particleBox[k] = A.particleBox[k] * w + B.particleBox[k] * t;
    return result;
}

}  // namespace vaporix
