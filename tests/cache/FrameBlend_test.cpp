// Frame blending: grid union and offsets, the three grid methods, the colour rule, header
// values, particles by ID and by age, liquid from particles, and refused inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

#include "TestSupport.h"
#include "cache/PGroup.h"
#include "cache/VaporixFrameData.h"

using namespace vaporix;
using namespace vaporix::test;

namespace {

using Field = std::function<float(int x, int y, int z)>;

/// A frame of the given size whose world-to-grid transform is a shift by `offset` cells.
void shape(VaporixFrameData& f, int sx, int sy, int sz, float ox = 0, float oy = 0, float oz = 0) {
    f.gridSize[0] = sx;
    f.gridSize[1] = sy;
    f.gridSize[2] = sz;
    f.gridTransform = GridTransform::identity();
    f.gridTransform.m[9] = ox;
    f.gridTransform.m[10] = oy;
    f.gridTransform.m[11] = oz;
}

float* setChannel(VaporixFrameData& f, int c, const Field& value) {
    const int64_t n = f.getCellCount();
    auto* data =
        static_cast<float*>(internal::arrayAllocate(static_cast<size_t>(n + 4) * sizeof(float)));
    for (int z = 0; z < f.gridSize[2]; ++z)
        for (int y = 0; y < f.gridSize[1]; ++y)
            for (int x = 0; x < f.gridSize[0]; ++x)
                data[x + f.gridSize[0] * (y + f.gridSize[1] * z)] = value(x, y, z);
    f.channels[c] = data;
    f.channelMask |= 1u << c;
    return data;
}

float at(const VaporixFrameData& f, int c, int x, int y, int z) {
    return f.channels[c][x + f.gridSize[0] * (y + f.gridSize[1] * z)];
}

/// A group with positions, IDs and ages as given (empty vectors leave the channel out).
PGroup& addGroup(VaporixFrameData& f,
                 const char* name,
                 const std::vector<float>& positions,
                 const std::vector<int64_t>& ids,
                 const std::vector<float>& ages,
                 const std::vector<float>& sizes = {}) {
    PGroup g;
    g.name = name;
    g.count = static_cast<int32_t>(positions.size() / 3);
    g.frame = &f;
    EXPECT_TRUE(f.groups.append(g));
    PGroup& d = f.groups.last();
    if (!positions.empty()) {
        EXPECT_TRUE(d.setChannel(PRT_POSITION, positions.data(), ~uint64_t(0)));
    }
    if (!ids.empty()) {
        EXPECT_TRUE(d.setChannel(PRT_ID, ids.data(), ~uint64_t(0)));
        d.buildIdOrder();
    }
    if (!ages.empty()) {
        EXPECT_TRUE(d.setChannel(PRT_AGE, ages.data(), ~uint64_t(0)));
    }
    if (!sizes.empty()) {
        EXPECT_TRUE(d.setChannel(PRT_SIZE, sizes.data(), ~uint64_t(0)));
    }
    return d;
}

std::vector<float> channelOf(PGroup& g, int c) {
    const int k = prtComponentCount(c);
    std::vector<float> v(static_cast<size_t>(g.count) * k);
    for (int i = 0; i < g.count; ++i) EXPECT_TRUE(g.GetValue(i, c, v.data() + i * k));
    return v;
}

std::vector<int64_t> idsOf(PGroup& g) {
    std::vector<int64_t> v(static_cast<size_t>(g.count));
    for (int i = 0; i < g.count; ++i) EXPECT_TRUE(g.GetValue(i, PRT_ID, &v[i]));
    return v;
}


bool sameBits(const VaporixFrameData& a, const VaporixFrameData& b, int c) {
    return a.getCellCount() == b.getCellCount() && a.channels[c] && b.channels[c] &&
           std::memcmp(a.channels[c], b.channels[c],
                       static_cast<size_t>(a.getCellCount()) * sizeof(float)) == 0;
}

constexpr int LINEAR_NO_PARTICLES = 0xFF00;
constexpr int VELOCITY_NO_PARTICLES = 0xFF01;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Grids

TEST(FrameBlend, SameGridMixesEachCell) {
    VaporixFrameData a, b, d;
    shape(a, 4, 3, 2);
    shape(b, 4, 3, 2);
    setChannel(a, CH_SMOKE, [](int x, int y, int z) { return float(x + 10 * y + 100 * z); });
    setChannel(b, CH_SMOKE, [](int x, int y, int z) { return float(7 * x - y + z) * 0.5f; });
    setChannel(a, 12, [](int, int, int) { return 1.0f; });  // only in A: no destination array
    const LoadFrameResult r = d.Blend(a, b, 0.25f, LINEAR_NO_PARTICLES, true, 0);
    EXPECT_EQ(r.code, FRAME_RESULT_NEW);
    ASSERT_EQ(d.getCellCount(), 24);
    EXPECT_EQ(d.channels[12], nullptr);
    EXPECT_EQ(d.channelMask, 1u << CH_SMOKE);
    for (int z = 0; z < 2; ++z)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                EXPECT_EQ(at(d, CH_SMOKE, x, y, z),
                          at(b, CH_SMOKE, x, y, z) * 0.25f + at(a, CH_SMOKE, x, y, z) * 0.75f);
    // At t = 0 the result is A, bit for bit.
    d.Blend(a, b, 0.0f, LINEAR_NO_PARTICLES, true, 0);
    EXPECT_TRUE(sameBits(d, a, CH_SMOKE));
}

TEST(FrameBlend, ShiftedGridsCoverTheUnion) {
    // World point p is cell p of A and cell p + 3 of B: A sits 3 cells into B.
    VaporixFrameData a, b, d;
    shape(a, 10, 10, 10);
    shape(b, 10, 10, 10, 3, 0, 0);
    setChannel(a, CH_SMOKE, [](int x, int, int) { return 1.0f + x; });
    setChannel(b, CH_SMOKE, [](int x, int, int) { return 100.0f + x; });
    ASSERT_EQ(d.Blend(a, b, 0.25f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_EQ(d.gridSize[0], 13);
    EXPECT_EQ(d.gridSize[1], 10);
    EXPECT_EQ(d.gridSize[2], 10);
    // Destination = B's cells: A's transform with offsetA = -3 subtracted.
    EXPECT_EQ(d.gridTransform.m[9], 3.0f);
    // Cells 0..2 only in B, 10..12 only in A, each at its own weight.
    EXPECT_EQ(at(d, CH_SMOKE, 0, 5, 5), 100.0f * 0.25f);
    EXPECT_EQ(at(d, CH_SMOKE, 2, 5, 5), 102.0f * 0.25f);
    EXPECT_EQ(at(d, CH_SMOKE, 3, 5, 5), 103.0f * 0.25f + 1.0f * 0.75f);
    EXPECT_EQ(at(d, CH_SMOKE, 9, 5, 5), 109.0f * 0.25f + 7.0f * 0.75f);
    EXPECT_EQ(at(d, CH_SMOKE, 10, 5, 5), 8.0f * 0.75f);
    EXPECT_EQ(at(d, CH_SMOKE, 12, 5, 5), 10.0f * 0.75f);
}

TEST(FrameBlend, ShiftTheOtherWayOffsetsB) {
    // A sits -3 cells into B (B further along z this time, and smaller): offsetA 0, offsetB -3.
    VaporixFrameData a, b, d;
    shape(a, 4, 4, 10);
    shape(b, 4, 4, 6, 0, 0, -3);
    setChannel(a, CH_SMOKE, [](int, int, int z) { return 1.0f + z; });
    setChannel(b, CH_SMOKE, [](int, int, int z) { return 100.0f + z; });
    ASSERT_EQ(d.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_EQ(d.gridSize[2], 10);  // B's cells -3..2 of A's 0..9 lie inside A
    EXPECT_EQ(d.gridTransform.m[11], 0.0f);
    EXPECT_EQ(at(d, CH_SMOKE, 1, 1, 2), 3.0f * 0.5f);  // B's cell -1: absent
    EXPECT_EQ(at(d, CH_SMOKE, 1, 1, 3), 100.0f * 0.5f + 4.0f * 0.5f);
    EXPECT_EQ(at(d, CH_SMOKE, 1, 1, 8), 105.0f * 0.5f + 9.0f * 0.5f);
    EXPECT_EQ(at(d, CH_SMOKE, 1, 1, 9), 10.0f * 0.5f);  // B's cell 6: beyond B
}

TEST(FrameBlend, ColourFollowsTheSmoke) {
    VaporixFrameData a, b, d;
    shape(a, 6, 1, 1);
    shape(b, 6, 1, 1, 2, 0, 0);  // A's cell x is B's cell x + 2
    // A has smoke in cells 0..3, B in none of its cells 0..1 and all others.
    setChannel(a, CH_SMOKE, [](int x, int, int) { return x < 4 ? 2.0f : 0.0f; });
    setChannel(b, CH_SMOKE, [](int x, int, int) { return x < 2 ? 0.0f : 4.0f; });
    setChannel(a, CH_RED, [](int, int, int) { return 0.8f; });
    setChannel(b, CH_RED, [](int, int, int) { return 0.2f; });
    const float t = 0.25f, w = 0.75f;
    ASSERT_EQ(d.Blend(a, b, t, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    ASSERT_EQ(d.gridSize[0], 8);
    // Destination cell 0: B's cell 0 only (no smoke there) -> 0.
    EXPECT_EQ(at(d, CH_RED, 0, 0, 0), 0.0f);
    // Cell 2: A's 0 (smoke 2) and B's 2 (smoke 4).
    {
        const float sA = 2.0f * w, sB = 4.0f * t;
        const float wb = sB / (sA + sB), wa = 1.0f - sB;
        EXPECT_EQ(at(d, CH_RED, 2, 0, 0), 0.2f * wb + 0.8f * wa);
    }
    // Cell 7: A's 5 (no smoke) only -> 0; cell 6: A's 4 (no smoke), B's... beyond -> 0.
    EXPECT_EQ(at(d, CH_RED, 7, 0, 0), 0.0f);
    // Cell 1: B's cell 1 has no smoke and A is absent -> 0.
    EXPECT_EQ(at(d, CH_RED, 1, 0, 0), 0.0f);
    // Where only A carries smoke, its colour counts in full (weight 1 - 0).
    VaporixFrameData a2, b2, d2;
    shape(a2, 2, 1, 1);
    shape(b2, 2, 1, 1);
    setChannel(a2, CH_SMOKE, [](int, int, int) { return 1.0f; });
    setChannel(b2, CH_SMOKE, [](int, int, int) { return 0.0f; });
    setChannel(a2, CH_GREEN, [](int, int, int) { return 0.6f; });
    setChannel(b2, CH_GREEN, [](int, int, int) { return 0.1f; });
    ASSERT_EQ(d2.Blend(a2, b2, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_EQ(at(d2, CH_GREEN, 0, 0, 0), 0.6f);
    // The smoke itself is mixed plainly.
    EXPECT_EQ(at(d2, CH_SMOKE, 0, 0, 0), 0.5f);
}

TEST(FrameBlend, HeaderValues) {
    VaporixFrameData a, b, d;
    shape(a, 2, 2, 2);
    shape(b, 2, 2, 2);
    a.frameNumber = 10;
    b.frameNumber = 11;
    a.timeStep = 0.04f;
    b.timeStep = 1.0f;
    a.setSimTime(2.0);
    b.setSimTime(3.0);
    a.setSimTime2(-1.0);
    b.setSimTime2(1.0);
    a.setSimInt(7);
    b.setSimInt(9);
    const float boxA[6] = {0, 0, 0, 2, 2, 2}, boxB[6] = {1, 1, 1, 4, 4, 4};
    std::memcpy(a.particleBox, boxA, sizeof boxA);
    std::memcpy(b.particleBox, boxB, sizeof boxB);
    LoadFrameResult r = d.Blend(a, b, 0.5f, BLEND_HEADER_ONLY, true, 0);
    EXPECT_EQ(r.code, FRAME_RESULT_NEW);
    EXPECT_EQ(d.frameNumber, 10);  // 10.5 truncated
    EXPECT_EQ(d.simTime(), 2.5);
    EXPECT_EQ(d.simTime2(), 0.0);
    EXPECT_EQ(d.simInt(), 7);
    EXPECT_EQ(d.timeStep, 0.5f * 0.04f);  // scaled by the weight, B's step unused
    EXPECT_EQ(d.particleBox[0], 0.5f);
    EXPECT_EQ(d.particleBox[5], 3.0f);
    EXPECT_EQ(d.comprDataSzInts, 1);
    EXPECT_EQ(d.channels[CH_SMOKE], nullptr);
    // One empty box leaves the result empty.
    b.particleBox[3] = -PARTICLE_BOX_EMPTY;
    d.Blend(a, b, 0.5f, BLEND_HEADER_ONLY, true, 0);
    EXPECT_EQ(d.particleBox[0], PARTICLE_BOX_EMPTY);
    EXPECT_EQ(d.particleBox[3], -PARTICLE_BOX_EMPTY);
}

TEST(FrameBlend, DifferentScaleOrRotationIsRefused) {
    LogRecorder log;
    VaporixFrameData a, b, d;
    shape(a, 4, 4, 4);
    shape(b, 4, 4, 4);
    setChannel(a, CH_SMOKE, [](int, int, int) { return 1.0f; });
    setChannel(b, CH_SMOKE, [](int, int, int) { return 1.0f; });
    for (int k : {0, 4, 8}) b.gridTransform.m[k] = 1.01f;
    EXPECT_EQ(d.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NONE);
    EXPECT_TRUE(log.contains("Blending frames with different scale!\n"));
    // A quarter turn about z.
    b.gridTransform = GridTransform::identity();
    b.gridTransform.m[0] = 0;
    b.gridTransform.m[1] = 1;
    b.gridTransform.m[3] = -1;
    b.gridTransform.m[4] = 0;
    log.clear();
    EXPECT_EQ(d.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NONE);
    EXPECT_TRUE(log.contains("Blending frames with different scale!\n"));
    // A singular transform can't be compared at all.
    a.gridTransform = GridTransform::zero();
    EXPECT_EQ(d.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NONE);
}

TEST(FrameBlend, UnionTooBigIsRefusedBeforeAllocating) {
    LogRecorder log;
    VaporixFrameData a, b, d;
    shape(a, 4, 4, 4);
    shape(b, 4, 4, 4, 2e9f, 0, 0);
    setChannel(a, CH_SMOKE, [](int, int, int) { return 1.0f; });
    setChannel(b, CH_SMOKE, [](int, int, int) { return 1.0f; });
    setArrayAllocationBudget(0);
    const LoadFrameResult r = d.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0);
    setArrayAllocationBudget(-1);
    EXPECT_EQ(r.code, FRAME_RESULT_NONE);
    EXPECT_TRUE(log.contains("Blending frames whose union is too big!\n"));
    // Each axis fits but the product doesn't.
    shape(b, 4, 4, 4, 2000, -2000, 2000);
    log.clear();
    setArrayAllocationBudget(0);
    EXPECT_EQ(d.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NONE);
    setArrayAllocationBudget(-1);
    EXPECT_TRUE(log.contains("Blending frames whose union is too big!\n"));
    EXPECT_EQ(d.channels[CH_SMOKE], nullptr);
}

// ---------------------------------------------------------------------------------------------
// Along the velocity

namespace {

/// A blob along x centred at `cx`, constant velocity `vx` cells per second.
void blobFrame(VaporixFrameData& f, float cx, float vx) {
    shape(f, 32, 3, 3);
    f.timeStep = 0.5f;
    setChannel(f, CH_SMOKE, [cx](int x, int, int) {
        const float d = (static_cast<float>(x) - cx) / 2.5f;
        return std::exp(-d * d);
    });
    setChannel(f, CH_VELOCITY_X, [vx](int, int, int) { return vx; });
    setChannel(f, CH_VELOCITY_Y, [](int, int, int) { return 0.0f; });
    setChannel(f, CH_VELOCITY_Z, [](int, int, int) { return 0.0f; });
}

/// Place of the largest value along x in row (y, z) = (1, 1), refined by a parabola.
float peakOf(const VaporixFrameData& f, int c, float* height = nullptr) {
    int best = 0;
    for (int x = 1; x < f.gridSize[0]; ++x)
        if (at(f, c, x, 1, 1) > at(f, c, best, 1, 1)) best = x;
    if (height) *height = at(f, c, best, 1, 1);
    if (best == 0 || best == f.gridSize[0] - 1) return static_cast<float>(best);
    const float l = at(f, c, best - 1, 1, 1), m = at(f, c, best, 1, 1),
                r = at(f, c, best + 1, 1, 1);
    return static_cast<float>(best) + 0.5f * (l - r) / (l - 2 * m + r);
}

}  // namespace

TEST(FrameBlend, VelocityMethodMovesTheBlobHalfWay) {
    // The blob moves 5 cells a frame (10 cells/s * 0.5 s): from 12.5 in A to 17.5 in B.
    // (The search is seeded half a step back and follows forward differences: for a blob
    // centred on a cell, or moved much further than its width, some cells near the peak find
    // the mirror answer on its other flank, and the peak comes out a cell early.)
    VaporixFrameData a, b, lin, vel;
    blobFrame(a, 12.5f, 10.0f);
    blobFrame(b, 17.5f, 10.0f);
    ASSERT_EQ(vel.Blend(a, b, 0.5f, VELOCITY_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    float height = 0;
    EXPECT_NEAR(peakOf(vel, CH_SMOKE, &height), 15.0f, 0.5f);
    EXPECT_GT(height, 0.9f);
    // The cell-by-cell mix leaves two half-height peaks with a dip half-way.
    ASSERT_EQ(lin.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_LT(at(lin, CH_SMOKE, 15, 1, 1), 0.4f);
    EXPECT_NEAR(at(lin, CH_SMOKE, 12, 1, 1), 0.5f * (std::exp(-0.04f) + std::exp(-5.5f * 5.5f / 6.25f)),
                1e-5f);
    // A constant velocity is flat: its traces end at the cells' own places and it stays.
    for (int64_t i = 0; i < vel.getCellCount(); ++i) ASSERT_EQ(vel.channels[CH_VELOCITY_X][i], 10.0f);
}

TEST(FrameBlend, VelocityTracesAreReusedWhileThePairStays) {
    VaporixFrameData a, b, d, fresh;
    blobFrame(a, 12.0f, 8.0f);
    blobFrame(b, 16.0f, 8.0f);
    ASSERT_EQ(d.Blend(a, b, 0.25f, VELOCITY_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    const float* kept = d.blendSource[CH_SMOKE];
    ASSERT_NE(kept, nullptr);
    const std::vector<float> traces(kept, kept + 3 * d.getCellCount());
    // A different B with sourcesChanged false: the old traces stay in use.
    VaporixFrameData other;
    blobFrame(other, 20.0f, 8.0f);
    ASSERT_EQ(d.Blend(a, other, 0.75f, VELOCITY_NO_PARTICLES, false, 0).code, FRAME_RESULT_NEW);
    EXPECT_EQ(d.blendSource[CH_SMOKE], kept);
    EXPECT_EQ(std::memcmp(kept, traces.data(), traces.size() * sizeof(float)), 0);
    ASSERT_EQ(fresh.Blend(a, b, 0.75f, VELOCITY_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_TRUE(sameBits(d, fresh, CH_SMOKE));
}

TEST(FrameBlend, FlatChannelAndStillCellsKeepTheirPlace) {
    VaporixFrameData a, b, d;
    shape(a, 5, 4, 3);
    shape(b, 5, 4, 3);
    setChannel(a, 11, [](int, int, int) { return 3.0f; });
    setChannel(b, 11, [](int, int, int) { return 5.0f; });
    // One cell a frame in -x for x < 2 (step 1/30 s); the rest is still.
    setChannel(a, CH_VELOCITY_X, [](int x, int, int) { return x < 2 ? 30.0f : 0.0f; });
    setChannel(a, CH_VELOCITY_Y, [](int, int, int) { return 0.0f; });
    setChannel(a, CH_VELOCITY_Z, [](int, int, int) { return 0.0f; });
    ASSERT_EQ(d.Blend(a, b, 0.5f, VELOCITY_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    const float* s = d.blendSource[11];
    ASSERT_NE(s, nullptr);
    for (int z = 0; z < 3; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x) {
                const int64_t i = x + 5 * (y + 4 * z);
                // Every trace walks the flat field to the end of its step and settles on its
                // own place; from x = 0 the walk leaves the grid first and keeps its start.
                EXPECT_EQ(s[3 * i], x == 0 ? -0.5f : float(x));
                EXPECT_EQ(s[3 * i + 1], float(y));
                EXPECT_EQ(s[3 * i + 2], float(z));
                EXPECT_EQ(d.channels[11][i], 3.0f);  // only A is read
            }
    // B's velocity isn't needed; no velocity in A is refused.
    VaporixFrameData plain;
    shape(plain, 5, 4, 3);
    setChannel(plain, 11, [](int, int, int) { return 1.0f; });
    LogRecorder log;
    EXPECT_EQ(d.Blend(plain, b, 0.5f, VELOCITY_NO_PARTICLES, true, 0).code, FRAME_RESULT_NONE);
    EXPECT_TRUE(log.contains("Blending frames could not expand the velocity channel!\n"));
}

TEST(FrameBlend, DamagedVelocityChannelIsRefused) {
    VaporixFrameData a, b, d;
    shape(a, 4, 4, 4);
    shape(b, 4, 4, 4);
    setChannel(a, CH_VELOCITY_X, [](int, int, int) { return 1.0f; });
    setChannel(a, CH_VELOCITY_Y, [](int, int, int) { return 1.0f; });
    // Channel 6 is announced and has a block, but the block is garbage.
    const uint32_t junk[3] = {0xFFFFFFFFu, 0x12345678u, 0x9u};
    ASSERT_TRUE(a.appendStreamBlock(CH_VELOCITY_Z, junk, sizeof junk));
    a.channelMask |= 1u << CH_VELOCITY_Z;
    setChannel(a, CH_SMOKE, [](int, int, int) { return 1.0f; });
    setChannel(b, CH_SMOKE, [](int, int, int) { return 1.0f; });
    LogRecorder log;
    EXPECT_EQ(d.Blend(a, b, 0.5f, VELOCITY_NO_PARTICLES, true, 0).code, FRAME_RESULT_NONE);
    EXPECT_TRUE(log.contains("Blending frames could not expand the velocity channel!\n"));
}

// ---------------------------------------------------------------------------------------------
// Particles

TEST(FrameBlend, ParticlesMatchedById) {
    VaporixFrameData a, b, d;
    shape(a, 8, 8, 8);
    shape(b, 8, 8, 8, 2, 0, 0);  // A's cell x is B's x + 2: offsetA = -2
    addGroup(a, "Foam", {1, 1, 1, 2, 2, 2, 3, 3, 3}, {1, 2, 3}, {}, {10, 20, 30});
    addGroup(b, "Foam", {6, 2, 2, 7, 3, 3, 8, 4, 4}, {2, 3, 4}, {}, {40, 50, 60});
    addGroup(a, "Mist", {1, 1, 1}, {5}, {});  // not in B: dropped
    const LoadFrameResult r = d.Blend(a, b, 0.5f, BLEND_PARTICLES_BY_ID << 8 | 0xFF, true, 0);
    EXPECT_EQ(r.code, FRAME_RESULT_NEW);
    ASSERT_EQ(d.groups.count, 1);
    PGroup& g = d.groups[0];
    EXPECT_EQ(std::string(g.GetName()), "Foam");
    ASSERT_EQ(g.count, 2);
    EXPECT_EQ(idsOf(g), (std::vector<int64_t>{2, 3}));
    // Positions into the destination's cells (A's + 2, B's + 0), then mixed.
    EXPECT_EQ(channelOf(g, PRT_POSITION), (std::vector<float>{5, 2, 2, 6, 3, 3}));
    EXPECT_EQ(channelOf(g, PRT_SIZE), (std::vector<float>{30, 40}));
    EXPECT_EQ(g.FindById(3), 1);
    EXPECT_EQ(g.frame, &d);
}

TEST(FrameBlend, GroupsWithoutIdsAreNamed) {
    VaporixFrameData a, b, d;
    shape(a, 4, 4, 4);
    shape(b, 4, 4, 4);
    addGroup(a, "Foam", {1, 1, 1}, {}, {});
    addGroup(b, "Foam", {1, 1, 1}, {1}, {});
    addGroup(a, "Liquid", {1, 1, 1}, {1}, {});
    addGroup(b, "Liquid", {2, 2, 2}, {1}, {});
    addGroup(a, "Spray", {1, 1, 1}, {1}, {});
    addGroup(b, "Spray", {1, 1, 1}, {}, {});
    const LoadFrameResult r = d.Blend(a, b, 0.5f, 0xFF, true, 0);
    EXPECT_EQ(r.code, FRAME_RESULT_NO_ID);
    EXPECT_EQ(std::string(r.text), "Foam, Spray");
    ASSERT_EQ(d.groups.count, 3);
    EXPECT_EQ(d.groups[0].count, 0);
    EXPECT_EQ(d.groups[1].count, 1);  // the blend goes on for the others
    EXPECT_EQ(d.groups[2].count, 0);
}

TEST(FrameBlend, ParticlesByAge) {
    VaporixFrameData a, b, d;
    shape(a, 8, 8, 8);
    shape(b, 8, 8, 8);
    addGroup(a, "Foam", {1, 1, 1, 2, 2, 2, 3, 3, 3}, {1, 2, 3}, {0.1f, 0.5f, 0.9f});
    addGroup(b, "Foam", {4, 4, 4, 5, 5, 5}, {7, 8}, {0.2f, 0.6f});
    const int byAge = BLEND_PARTICLES_BY_AGE << 8 | 0xFF;
    // Overlap 0: the threshold is 0, so none of A and all of B.
    LoadFrameResult r = d.Blend(a, b, 0.3f, byAge, true, 0.0f);
    EXPECT_EQ(r.code, FRAME_RESULT_NEW);
    ASSERT_EQ(d.groups.count, 1);
    EXPECT_EQ(idsOf(d.groups[0]), (std::vector<int64_t>{7, 8}));
    // Overlap 1 s at t = 0.5: threshold 0.5; A's younger ones first, then B's older ones.
    r = d.Blend(a, b, 0.5f, byAge, true, 1.0f);
    ASSERT_EQ(d.groups.count, 1);
    PGroup& g = d.groups[0];
    EXPECT_EQ(idsOf(g), (std::vector<int64_t>{1, 8}));
    EXPECT_EQ(channelOf(g, PRT_AGE), (std::vector<float>{0.1f, 0.6f}));
    EXPECT_EQ(channelOf(g, PRT_POSITION), (std::vector<float>{1, 1, 1, 5, 5, 5}));
}

TEST(FrameBlend, ParticlesByAgeMoveThroughTheWorldWhenGridsDiffer) {
    VaporixFrameData a, b, d;
    shape(a, 8, 8, 8);
    shape(b, 8, 8, 8, 0, 0, -2);  // A's z is B's z - 2: offsetB = -2 on z
    addGroup(a, "Foam", {1, 1, 1}, {}, {0.0f});
    addGroup(b, "Foam", {4, 4, 4}, {}, {1.0f});
    ASSERT_EQ(d.Blend(a, b, 0.5f, BLEND_PARTICLES_BY_AGE << 8 | 0xFF, true, 1.0f).code,
              FRAME_RESULT_NEW);
    ASSERT_EQ(d.groups[0].count, 2);
    // The destination's grid is A's: B's particle at z = 4 lies at A's z = 6.
    EXPECT_EQ(channelOf(d.groups[0], PRT_POSITION), (std::vector<float>{1, 1, 1, 4, 4, 6}));
}

TEST(FrameBlend, GroupsWithoutAgesAndDifferentChannelSets) {
    VaporixFrameData a, b, d;
    shape(a, 4, 4, 4);
    shape(b, 4, 4, 4);
    addGroup(a, "Foam", {1, 1, 1}, {3}, {0.0f}, {2.0f});
    addGroup(b, "Foam", {2, 2, 2}, {}, {1.0f});  // no IDs, no sizes
    addGroup(a, "Mist", {1, 1, 1}, {}, {});
    addGroup(b, "Mist", {1, 1, 1}, {}, {0.0f});
    const LoadFrameResult r = d.Blend(a, b, 0.5f, BLEND_PARTICLES_BY_AGE << 8 | 0xFF, true, 1.0f);
    EXPECT_EQ(r.code, FRAME_RESULT_NO_AGE);
    EXPECT_EQ(std::string(r.text), "Mist");
    PGroup& foam = d.groups[0];
    ASSERT_EQ(foam.count, 2);
    // Only the channels both sides have.
    EXPECT_TRUE(foam.HasChannel(PRT_POSITION));
    EXPECT_TRUE(foam.HasChannel(PRT_AGE));
    EXPECT_FALSE(foam.HasChannel(PRT_ID));
    EXPECT_FALSE(foam.HasChannel(PRT_SIZE));
    // Particles in one frame only, by ID, with no partner at all.
    EXPECT_EQ(d.Blend(a, b, 0.5f, 0xFF, true, 0).code, FRAME_RESULT_NO_ID);
}

// ---------------------------------------------------------------------------------------------
// Liquid

namespace {

/// A ball of particles of radius `r` around `c`, on a lattice of `spacing` cells, ID by place.
void ballGroup(VaporixFrameData& f, const float c[3], float r, float spacing) {
    std::vector<float> pos;
    std::vector<int64_t> ids;
    const int n = static_cast<int>(std::ceil(r / spacing));
    int64_t id = 0;
    for (int k = -n; k <= n; ++k)
        for (int j = -n; j <= n; ++j)
            for (int i = -n; i <= n; ++i) {
                ++id;
                const float p[3] = {i * spacing, j * spacing, k * spacing};
                if (p[0] * p[0] + p[1] * p[1] + p[2] * p[2] > r * r) continue;
                for (int a = 0; a < 3; ++a) pos.push_back(c[a] + p[a]);
                ids.push_back(id);
            }
    addGroup(f, "Liquid", pos, ids, {});
}

}  // namespace

TEST(FrameBlend, LiquidComesFromTheParticles) {
    VaporixFrameData a, b, d;
    shape(a, 24, 24, 24);
    shape(b, 24, 24, 24);
    // The grid's liquid channel says nothing; the particles say there is a ball.
    setChannel(a, CH_TEMPERATURE, [](int, int, int) { return 0.0f; });
    setChannel(b, CH_TEMPERATURE, [](int, int, int) { return 0.0f; });
    setChannel(a, CH_SMOKE, [](int, int, int) { return 2.0f; });
    setChannel(b, CH_SMOKE, [](int, int, int) { return 4.0f; });
    const float c[3] = {12, 12, 12};
    ballGroup(a, c, 5.0f, 0.5f);
    ballGroup(b, c, 5.0f, 0.5f);
    ASSERT_EQ(d.Blend(a, b, 0.5f, 0, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_EQ(at(d, CH_TEMPERATURE, 12, 12, 12), 1.0f);
    EXPECT_EQ(at(d, CH_TEMPERATURE, 1, 1, 1), 0.0f);
    EXPECT_EQ(at(d, CH_SMOKE, 1, 1, 1), 3.0f);  // the others are still mixed
    // Without particles the channel is mixed like any other.
    VaporixFrameData plain;
    ASSERT_EQ(plain.Blend(a, b, 0.5f, LINEAR_NO_PARTICLES, true, 0).code, FRAME_RESULT_NEW);
    EXPECT_EQ(at(plain, CH_TEMPERATURE, 12, 12, 12), 0.0f);
}

TEST(FrameBlend, ResultsDoNotDependOnTheThreadCount) {
    VaporixFrameData a, b;
    shape(a, 40, 20, 18);
    shape(b, 38, 22, 18, 1, -2, 0);
    auto wave = [](float s) {
        return [s](int x, int y, int z) {
            return std::sin(0.3f * x * s + 0.2f * y) * std::cos(0.25f * z - s) + 1.0f;
        };
    };
    for (auto* f : {&a, &b}) {
        const float s = f == &a ? 1.0f : 1.3f;
        setChannel(*f, CH_TEMPERATURE, wave(s));
        setChannel(*f, CH_SMOKE, wave(s * 0.7f));
        setChannel(*f, CH_RED, wave(s * 1.7f));
        setChannel(*f, CH_VELOCITY_X, [s](int x, int, int) { return 3.0f * std::sin(0.1f * x * s); });
        setChannel(*f, CH_VELOCITY_Y, [](int, int y, int) { return 0.1f * y; });
        setChannel(*f, CH_VELOCITY_Z, [](int, int, int z) { return -0.2f * z; });
        const float c[3] = {15.0f * s, 10, 9};
        ballGroup(*f, c, 6.0f, 0.45f);
    }
    for (int method : {0, 1}) {
        VaporixFrameData one, two;
        one.blendThreads = 1;
        two.blendThreads = 2;
        ASSERT_EQ(one.Blend(a, b, 0.4f, method, true, 0).code, FRAME_RESULT_NEW);
        ASSERT_EQ(two.Blend(a, b, 0.4f, method, true, 0).code, FRAME_RESULT_NEW);
        for (int c : {CH_TEMPERATURE, CH_SMOKE, CH_SPEED, CH_VELOCITY_X, CH_RED})
            EXPECT_TRUE(sameBits(one, two, c)) << "method " << method << " channel " << c;
    }
}
