// Tests of the edge-driven smoothing: analytic fields, the floor, the threshold, the noise and
// independence from the thread count.
#include "cache/ChannelSmoothing.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "foundation/ThreadManager.h"

using namespace vaporix;

namespace {

struct Grid {
    int size[3];
    std::vector<float> v;
    Grid(int x, int y, int z, float fill = 0.0f) : size{x, y, z}, v(size_t(x) * y * z, fill) {}
    float& at(int x, int y, int z) { return v[x + size_t(size[0]) * (y + size_t(size[1]) * z)]; }
    bool isRim(int x, int y, int z) const {
        return x == 0 || y == 0 || z == 0 || x == size[0] - 1 || y == size[1] - 1 ||
               z == size[2] - 1;
    }
};

SmoothSettings settings(float threshold, float similarity, float random) {
    SmoothSettings s;
    s.threshold = threshold;
    s.similarity = similarity;
    s.random = random;
    return s;
}

/// A field with edges and quiet parts: a noisy blob on a zero background.
Grid blob(int n) {
    Grid g(n, n + 1, n + 2);
    uint32_t state = 12345;
    for (int z = 0; z < g.size[2]; ++z)
        for (int y = 0; y < g.size[1]; ++y)
            for (int x = 0; x < g.size[0]; ++x) {
                state = state * 1664525u + 1013904223u;
                const float d = std::hypot(x - n / 2.0f, y - n / 2.0f, z - n / 2.0f);
                g.at(x, y, z) = d < n / 3.0f ? 2.0f + float(state >> 8) / 16777216.0f : 0.0f;
            }
    return g;
}

}  // namespace

TEST(ChannelSmoothing, ThinGridsHaveNoInnerCells) {
    ChannelSmoother smoother;
    for (auto dims : {std::vector<int>{2, 6, 6}, {6, 1, 6}, {6, 6, 2}}) {
        Grid g(dims[0], dims[1], dims[2]);
        for (size_t i = 0; i < g.v.size(); ++i) g.v[i] = float(i % 7);
        const std::vector<float> before = g.v;
        EXPECT_TRUE(smoother.smooth(g.v.data(), g.size, GridTransform{}, settings(0, 0.5f, 0.1f)));
        EXPECT_EQ(g.v, before);
    }
}

TEST(ChannelSmoothing, ConstantFieldKeepsItsValueOnlyWithoutSimilarity) {
    ChannelSmoother smoother;
    Grid g(5, 6, 7, 3.0f);
    ASSERT_TRUE(smoother.smooth(g.v.data(), g.size, GridTransform{}, settings(0, 0, 0)));
    for (float v : g.v) EXPECT_EQ(v, 3.0f);

    // With similarity the norm is 1 / 32.5: one round makes every inner cell 96 / 32.5 (the
    // gradients are in place from a run whose threshold nothing reaches); the rim stays.
    Grid h(5, 6, 7, 3.0f);
    ASSERT_TRUE(smoother.smooth(h.v.data(), h.size, GridTransform{}, settings(1e9f, 0.5f, 0)));
    for (float v : h.v) EXPECT_EQ(v, 3.0f);
    smoother.smoothPasses(h.v.data(), h.size, settings(0, 0.5f, 0), 0.01f, 1);
    const float inner = 96.0f * (1.0f / 32.5f);
    for (int z = 0; z < 7; ++z)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 5; ++x)
                EXPECT_EQ(h.at(x, y, z), h.isRim(x, y, z) ? 3.0f : inner) << x << y << z;
}

TEST(ChannelSmoothing, FloorFollowsTheBackground) {
    Grid cold(4, 4, 4, 1.0f);
    EXPECT_EQ(smoothFloor(cold.v.data(), cold.size), 0.01f);
    Grid warm(4, 4, 4, 300.0f);
    const float floor = smoothFloor(warm.v.data(), warm.size);
    EXPECT_EQ(std::bit_cast<uint32_t>(floor), 0x43960CCDu);
    EXPECT_EQ(floor, 300.1f);
    Grid negative(4, 4, 4, -5.0f);
    EXPECT_EQ(smoothFloor(negative.v.data(), negative.size), 300.1f);
    // Only the first cell and the first cell of the last plane count.
    Grid mixed(4, 4, 4, 100.0f);
    mixed.at(0, 0, 0) = 2.0f;
    mixed.at(0, 0, 3) = 4.0f;
    EXPECT_EQ(smoothFloor(mixed.v.data(), mixed.size), 0.01f);
}

TEST(ChannelSmoothing, NeighboursBelowTheFloorCountAsTheCentre) {
    // A hot cell in a field at room temperature: the 300 K neighbours are below the 300.1
    // floor and count as the hot cell itself, so one round leaves it as it is.
    ChannelSmoother smoother;
    Grid g(7, 7, 7, 300.0f);
    g.at(3, 3, 3) = 5000.0f;
    ASSERT_TRUE(smoother.smooth(g.v.data(), g.size, GridTransform{}, settings(1e9f, 0, 0)));
    EXPECT_EQ(g.at(3, 3, 3), 5000.0f);  // gradients are all far below the threshold
    smoother.smoothPasses(g.v.data(), g.size, settings(0, 0, 0), 300.1f, 1);
    EXPECT_EQ(g.at(3, 3, 3), 5000.0f);
    EXPECT_GT(g.at(3, 3, 2), 300.0f);  // a neighbour sees the hot cell

    // A cold floor lets the neighbours in.
    Grid c(7, 7, 7, 300.0f);
    c.at(3, 3, 3) = 5000.0f;
    smoother.smooth(c.v.data(), c.size, GridTransform{}, settings(1e9f, 0, 0));
    smoother.smoothPasses(c.v.data(), c.size, settings(0, 0, 0), 0.01f, 1);
    EXPECT_LT(c.at(3, 3, 3), 5000.0f);
}

TEST(ChannelSmoothing, ThresholdSparesQuietCells) {
    // A linear ramp has the Sobel magnitude 32 / sqrt(27) = 6.158 everywhere inside.
    ChannelSmoother smoother;
    Grid ramp(8, 6, 6);
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 8; ++x) ramp.at(x, y, z) = 1.0f + float(x);
    Grid above = ramp;
    ASSERT_TRUE(smoother.smooth(above.v.data(), above.size, GridTransform{}, settings(6.2f, 0.5f, 0)));
    EXPECT_EQ(above.v, ramp.v);

    Grid below = ramp;
    ASSERT_TRUE(smoother.smooth(below.v.data(), below.size, GridTransform{}, settings(6.1f, 0.5f, 0)));
    EXPECT_NE(below.v, ramp.v);

    // Without similarity the symmetric kernel keeps a ramp exactly.
    Grid exact = ramp;
    ASSERT_TRUE(smoother.smooth(exact.v.data(), exact.size, GridTransform{}, settings(0, 0, 0)));
    EXPECT_EQ(exact.v, ramp.v);
}

TEST(ChannelSmoothing, NoiseGenerator) {
    EXPECT_EQ(noiseStep(0), 11u);  // sin(0) adds nothing
    for (uint64_t s : {1ull, 77777ull, (1ull << 48) - 1}) EXPECT_LT(noiseStep(s), 1ull << 48);
    const float w[3] = {1.5f, -2.0f, 30.25f};
    const float a = cellNoise(10.0f, 0.2f, w);
    EXPECT_EQ(a, cellNoise(10.0f, 0.2f, w));  // the same in every frame
    EXPECT_LE(std::fabs(a - 10.0f), 1.0f);     // half of value * random either way
    const float w2[3] = {2.5f, -2.0f, 30.25f};
    EXPECT_NE(a, cellNoise(10.0f, 0.2f, w2));
    EXPECT_EQ(cellNoise(0.0f, 0.5f, w), 0.0f);
}

TEST(ChannelSmoothing, NoiseStandsStillInTheWorld) {
    // The same world content in two grids that are offset by whole cells gets the same noise,
    // so a growing grid doesn't make it crawl.
    GridTransform shifted;  // world to grid: grid = world + 2 along x
    shifted.m[9] = 2.0f;
    GridTransform back;
    ASSERT_TRUE(shifted.inverse(back));
    const float cellA[3] = {5, 3, 4};
    const float cellB[3] = {7, 3, 4};  // the same world point in the shifted grid
    float wA[3], wB[3];
    GridTransform{}.apply(cellA, wA);
    back.apply(cellB, wB);
    EXPECT_EQ(cellNoise(4.0f, 0.3f, wA), cellNoise(4.0f, 0.3f, wB));
}

TEST(ChannelSmoothing, ResultDoesNotDependOnTheThreadCount) {
    PosixThreadManager manager;
    GridTransform tm;
    tm.m[0] = tm.m[4] = tm.m[8] = 0.5f;
    tm.m[9] = 1.25f;
    std::vector<float> reference;
    for (int threads : {1, 2, 3, 7}) {
        ChannelSmoother smoother(&manager, threads);
        Grid g = blob(17);
        ASSERT_TRUE(smoother.smooth(g.v.data(), g.size, tm, settings(0.05f, 0.4f, 0.3f)));
        if (reference.empty()) {
            reference = g.v;
            EXPECT_NE(reference, blob(17).v);
        } else {
            EXPECT_EQ(0, std::memcmp(g.v.data(), reference.data(), g.v.size() * sizeof(float)))
                << threads << " threads";
        }
    }
}

TEST(ChannelSmoothing, ScratchIsReusedAcrossSizes) {
    ChannelSmoother smoother;
    Grid big = blob(16);
    Grid small = blob(9);
    Grid small2 = blob(9);
    ASSERT_TRUE(smoother.smooth(big.v.data(), big.size, GridTransform{}, settings(0, 0.5f, 0.1f)));
    ASSERT_TRUE(smoother.smooth(small.v.data(), small.size, GridTransform{}, settings(0, 0.5f, 0.1f)));
    ChannelSmoother fresh;
    ASSERT_TRUE(fresh.smooth(small2.v.data(), small2.size, GridTransform{}, settings(0, 0.5f, 0.1f)));
    EXPECT_EQ(small.v, small2.v);
}
