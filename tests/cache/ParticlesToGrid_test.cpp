// Particles to a liquid field: binning, the rasterised values near one particle, solid blocks,
// a ball's surface, grid edges, abort, thread-count independence and the ocean pass.
#include "cache/ParticlesToGrid.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "cache/PGroup.h"

using namespace vaporix;
using namespace vaporix::ParticlesToGrid;

namespace {

/// Particles and what rasterising them gives.
struct Liquid {
    int size[3];
    BasePrtHolder holder;
    BlendCellHolder cells;
    std::vector<int32_t> next;
    std::vector<float> target;

    Liquid(int x, int y, int z, const std::vector<float>& positions, float fill = -7.0f)
        : size{x, y, z} {
        holder.channels[0].resize(static_cast<int64_t>(positions.size()), nullptr, true);
        if (!positions.empty())
            std::memcpy(holder.channels[0].data, positions.data(), positions.size() * 4);
        target.assign(static_cast<size_t>(x) * y * z + 8, fill);
        next.assign(positions.size() / 3 + 1, 0);
        EXPECT_TRUE(cells.allocate(size));
    }
    bool run(int threads = -1, const std::atomic<int>* abortFlag = nullptr) {
        return binParticles(holder, holder.particleCount(), next.data(), cells, abortFlag,
                            threads) &&
               rasterise(holder, cells, size, target.data(), next.data(), abortFlag, threads);
    }
    float at(int x, int y, int z) const {
        return target[static_cast<size_t>(x + size[0] * (y + size[1] * z))];
    }
};

std::vector<float> ball(const float c[3], float r, float spacing, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> jitter(-0.2f * spacing, 0.2f * spacing);
    std::vector<float> pos;
    const int n = static_cast<int>(std::ceil(r / spacing));
    for (int k = -n; k <= n; ++k)
        for (int j = -n; j <= n; ++j)
            for (int i = -n; i <= n; ++i) {
                const float p[3] = {i * spacing + jitter(rng), j * spacing + jitter(rng),
                                    k * spacing + jitter(rng)};
                if (p[0] * p[0] + p[1] * p[1] + p[2] * p[2] > r * r) continue;
                for (int a = 0; a < 3; ++a) pos.push_back(c[a] + p[a]);
            }
    return pos;
}

}  // namespace

TEST(ParticlesToGrid, HalfSizeRoundsUp) {
    const int full[3] = {5, 6, 1};
    int32_t half[3];
    halfSize(full, half);
    EXPECT_EQ(half[0], 3);
    EXPECT_EQ(half[1], 3);
    EXPECT_EQ(half[2], 1);
}

TEST(ParticlesToGrid, BinningPutsEachParticleInItsHalfCellInOrder) {
    // 0.9 rounds to half cell 0, 1.1 to 1; -0.9 still to 0, -1.5 falls out.
    Liquid l(8, 8, 8, {0.9f, 0, 0, 1.1f, 0, 0, -0.9f, 0, 0, -1.5f, 0, 0, 0.2f, 0.1f, 0});
    ASSERT_TRUE(binParticles(l.holder, 5, l.next.data(), l.cells, nullptr, 2));
    const int c0[3] = {0, 0, 0}, c1[3] = {1, 0, 0};
    BaseCell* zero = l.cells.cellByCoords(c0);
    EXPECT_EQ(zero->count, 3);
    // Ascending particle order, whatever order the jobs pushed in.
    EXPECT_EQ(zero->head, 0);
    EXPECT_EQ(l.next[0], 2);
    EXPECT_EQ(l.next[2], 4);
    EXPECT_EQ(l.next[4], -1);
    EXPECT_EQ(l.cells.cellByCoords(c1)->count, 1);
    EXPECT_EQ(l.next[3], -1);  // left out: untouched since the reset
}

TEST(ParticlesToGrid, OneParticleGivesOneMinusItsHalfDistance) {
    const float p[3] = {10.3f, 10.2f, 9.6f};
    Liquid l(24, 24, 24, {p[0], p[1], p[2]});
    ASSERT_TRUE(l.run());
    int touched = 0;
    for (int z = 0; z < 24; ++z)
        for (int y = 0; y < 24; ++y)
            for (int x = 0; x < 24; ++x) {
                const float d[3] = {(p[0] - x) * 0.5f, (p[1] - y) * 0.5f, (p[2] - z) * 0.5f};
                const float len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
                const float want = len <= 1.0f ? std::max(0.0f, 1.0f - len) : 0.0f;
                ASSERT_NEAR(l.at(x, y, z), want, 1e-6f) << x << " " << y << " " << z;
                if (l.at(x, y, z) > 0) ++touched;
            }
    EXPECT_GT(touched, 8);
    EXPECT_LT(touched, 40);
    // The half cell holding it is a surface cell.
    const int b[3] = {5, 5, 5};
    EXPECT_TRUE(l.cells.cellByCoords(b)->isSurface());
}

TEST(ParticlesToGrid, ParticleFarBelowZeroIsLeftOut) {
    Liquid l(8, 8, 8, {-1.5f, 3, 3});
    ASSERT_TRUE(l.run());
    for (int i = 0; i < 8 * 8 * 8; ++i) ASSERT_EQ(l.target[static_cast<size_t>(i)], 0.0f);
}

TEST(ParticlesToGrid, DenseBlockIsSolidInside) {
    // Four particles a cell in x 4..19 of a 24^3 grid: every half cell there holds many.
    std::vector<float> pos;
    for (int z = 4; z < 20; ++z)
        for (int y = 4; y < 20; ++y)
            for (int x = 4; x < 20; ++x)
                for (int k = 0; k < 4; ++k) {
                    pos.push_back(x + 0.2f * k);
                    pos.push_back(y + 0.1f * k);
                    pos.push_back(z + 0.15f * k);
                }
    Liquid l(24, 24, 24, pos);
    ASSERT_TRUE(l.run());
    for (int z = 8; z < 16; ++z)
        for (int y = 8; y < 16; ++y)
            for (int x = 8; x < 16; ++x) ASSERT_EQ(l.at(x, y, z), 1.0f);
    EXPECT_EQ(l.at(0, 0, 0), 0.0f);
    // At the rim the field falls through the surface level.
    EXPECT_LT(l.at(1, 12, 12), 0.5f);
}

TEST(ParticlesToGrid, BallSurfaceLiesAtItsRadius) {
    const float c[3] = {16.2f, 15.7f, 16.0f};
    // Each particle of the lattice stands for a cube of the spacing: the liquid reaches half a
    // spacing beyond the outermost particle centres.
    const float spacing = 0.5f;
    const float r = 8.0f + 0.5f * spacing;
    Liquid l(32, 32, 32, ball(c, r - 0.5f * spacing, spacing, 3));
    ASSERT_TRUE(l.run());
    // Along each axis both ways: the 0.5 crossing, by linear interpolation between cells.
    for (int axis = 0; axis < 3; ++axis)
        for (int dir : {-1, 1}) {
            int cell[3] = {static_cast<int>(std::lround(c[0])), static_cast<int>(std::lround(c[1])),
                           static_cast<int>(std::lround(c[2]))};
            float prev = l.at(cell[0], cell[1], cell[2]);
            ASSERT_GT(prev, 0.5f);
            float crossing = -1;
            for (int s = 1; s < 14; ++s) {
                cell[axis] += dir;
                const float v = l.at(cell[0], cell[1], cell[2]);
                if (v < 0.5f) {
                    const float f = (prev - 0.5f) / (prev - v);
                    crossing = static_cast<float>(cell[axis]) - dir * (1.0f - f);
                    break;
                }
                prev = v;
            }
            ASSERT_GE(crossing, 0) << axis << " " << dir;
            EXPECT_NEAR(std::fabs(crossing - c[axis]), r, 0.5f) << axis << " " << dir;
        }
}

TEST(ParticlesToGrid, OddGridWritesNothingBeyondItsEnd) {
    const float c[3] = {2.5f, 2.5f, 2.5f};
    Liquid l(5, 5, 5, ball(c, 2.4f, 0.4f, 5));
    ASSERT_TRUE(l.run(2));
    for (size_t i = 125; i < l.target.size(); ++i) EXPECT_EQ(l.target[i], -7.0f);
    EXPECT_GT(l.at(2, 2, 2), 0.5f);
    EXPECT_EQ(l.at(4, 4, 4), l.at(4, 4, 4));  // written: not the fill value
    EXPECT_NE(l.at(4, 4, 4), -7.0f);
}

TEST(ParticlesToGrid, AbortKeepsFormerContent) {
    const float c[3] = {8, 8, 8};
    Liquid l(16, 16, 16, ball(c, 4.0f, 0.5f, 7));
    std::atomic<int> abortFlag{1};
    EXPECT_FALSE(l.run(2, &abortFlag));
    for (float v : l.target) ASSERT_EQ(v, -7.0f);
}

TEST(ParticlesToGrid, ResultDoesNotDependOnTheThreadCount) {
    std::vector<float> pos;
    for (unsigned s = 0; s < 6; ++s) {
        const float c[3] = {10.0f + 3 * s, 12.0f + 1.5f * s, 9.0f + 2 * s};
        const std::vector<float> part = ball(c, 5.0f + s, 0.55f, s);
        pos.insert(pos.end(), part.begin(), part.end());
    }
    Liquid one(40, 36, 34, pos), two(40, 36, 34, pos), three(40, 36, 34, pos);
    ASSERT_TRUE(one.run(1));
    ASSERT_TRUE(two.run(2));
    ASSERT_TRUE(three.run(3));
    EXPECT_EQ(std::memcmp(one.target.data(), two.target.data(), one.target.size() * 4), 0);
    EXPECT_EQ(std::memcmp(one.target.data(), three.target.data(), one.target.size() * 4), 0);
}

TEST(ParticlesToGrid, FillFromGroupUsesTheHolder) {
    PGroup g;
    g.count = 1;
    BasePrtHolder holder;
    const float p[3] = {3, 3, 3};
    holder.channels[0].resize(3, nullptr, true);
    std::memcpy(holder.channels[0].data, p, sizeof p);
    std::vector<float> target(8 * 8 * 8, -1.0f);
    const int size[3] = {8, 8, 8};
    ASSERT_TRUE(fillGridFromParticles(g, holder, target.data(), size));
    EXPECT_EQ(target[3 + 8 * (3 + 8 * 3)], 1.0f);
    EXPECT_EQ(target[0], 0.0f);
    const int bad[3] = {0, 8, 8};
    EXPECT_FALSE(fillGridFromParticles(g, holder, target.data(), bad));
}

TEST(ParticlesToGrid, OceanClosesTheVolumeUnderTheLevel) {
    // No particles: every cell open. Level 4 along z fills the cells up to z = 4.
    Liquid empty(6, 6, 10, {});
    ASSERT_TRUE(empty.run());
    ASSERT_TRUE(adjustGridForOcean(empty.cells, empty.size, empty.target.data(), 4.0f, 2, nullptr,
                                   2));
    for (int z = 0; z < 10; ++z) EXPECT_EQ(empty.at(3, 3, z), z <= 4 ? 1.0f : 0.0f) << z;

    // A solid slab at the bottom: open cells above it next to solid ones get the level's
    // fraction instead of a full cell.
    std::vector<float> pos;
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 12; ++y)
            for (int x = 0; x < 12; ++x)
                for (int k = 0; k < 3; ++k) {
                    pos.push_back(x + 0.3f * k);
                    pos.push_back(y + 0.2f * k);
                    pos.push_back(z + 0.25f * k);
                }
    Liquid slab(12, 12, 16, pos);
    ASSERT_TRUE(slab.run());
    std::vector<float> before = slab.target;
    ASSERT_TRUE(adjustGridForOcean(slab.cells, slab.size, slab.target.data(), 12.0f, 2, nullptr));
    // Far above the level nothing changes, and no value falls.
    for (int x = 0; x < 12; ++x) EXPECT_EQ(slab.at(x, 6, 14), before[x + 12 * (6 + 12 * 14)]);
    for (size_t i = 0; i < 12 * 12 * 16; ++i) ASSERT_GE(slab.target[i], before[i]);
    // Open cells well under the level and away from the liquid are filled.
    EXPECT_EQ(slab.at(6, 6, 11), 1.0f);
    EXPECT_FALSE(adjustGridForOcean(slab.cells, slab.size, slab.target.data(), 1.0f, 3, nullptr));
}
