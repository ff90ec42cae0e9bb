// Tests of the marching-cubes mesher: table, topology and measure, border, bad input, threads,
// cutter, smoothing, normals, displacement and the ocean's subdivision.
#include "mesh/Mesher.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "MeshChecks.h"
#include "TestSupport.h"
#include "foundation/ThreadManager.h"
#include "mesh/MarchingTable.h"

namespace vaporix {
namespace {

using test::makeField;
using test::measure;
using test::topology;

constexpr double PI = 3.14159265358979323846;

Mesher::MesherParams closedParams(const int size[3], bool invert = false) {
    Mesher::MesherParams p;
    for (int a = 0; a < 3; ++a) p.gridSize[a] = size[a];
    p.level = Mesher::closedLevel(invert);
    p.hasDisplacement = false;
    return p;
}

bool mesh(Mesher& m, const std::vector<float>& f, const int size[3], float iso, int smooth = 0,
          bool normals = false) {
    auto p = closedParams(size);
    return m.build(f.data(), size, iso, p, false, smooth, normals, nullptr, nullptr);
}

std::vector<float> sphereField(int n, float r) {
    const float c = 0.5f * (n - 1);
    return makeField(n, n, n, [&](float x, float y, float z) {
        return r - std::sqrt((x - c) * (x - c) + (y - c) * (y - c) + (z - c) * (z - c));
    });
}

std::vector<float> noiseField(int n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    return makeField(n, n, n, [&](float, float, float) { return u(rng); });
}

// ---------------------------------------------------------------------------------------------
// The table

TEST(MarchingTable, FirstRowsAsPublished) {
    const int8_t* r0 = mesh::triangleRow(0);
    EXPECT_EQ(r0[0], -1);
    const int8_t* r1 = mesh::triangleRow(1);
    EXPECT_EQ(r1[0], 0);
    EXPECT_EQ(r1[1], 8);
    EXPECT_EQ(r1[2], 3);
    EXPECT_EQ(r1[3], -1);
    const int8_t* r2 = mesh::triangleRow(2);
    EXPECT_EQ(r2[0], 0);
    EXPECT_EQ(r2[1], 1);
    EXPECT_EQ(r2[2], 9);
    EXPECT_EQ(r2[3], -1);
    EXPECT_EQ(mesh::triangleRow(255)[0], -1);
}

TEST(MarchingTable, RowsHoldAtMostFiveTrianglesOnCrossingEdges) {
    for (int index = 0; index < 256; ++index) {
        const int8_t* row = mesh::triangleRow(index);
        int n = 0;
        for (; row[n] >= 0; ++n) {
            const int e = row[n];
            const int a = mesh::EDGE_CORNERS[e][0], b = mesh::EDGE_CORNERS[e][1];
            EXPECT_NE((index >> a) & 1, (index >> b) & 1) << "row " << index << " edge " << e;
        }
        EXPECT_EQ(n % 3, 0);
        EXPECT_LE(n / 3, 5) << "row " << index;
    }
}

// ---------------------------------------------------------------------------------------------
// Topology and measure

TEST(Mesher, SphereIsClosedOrientedAndMeasuresRight) {
    const int n = 64, size[3] = {n, n, n};
    const float r = 24.0f;
    Mesher m;
    ASSERT_TRUE(mesh(m, sphereField(n, r), size, 0.0f));
    const auto t = topology(m);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.misoriented, 0);
    EXPECT_EQ(t.euler(), 2);
    EXPECT_EQ(t.vertices, m.vertices.count);
    double area, volume;
    measure(m, area, volume);
    // The triangles face away from the cells the map marks: into the liquid.
    EXPECT_LT(volume, 0.0);
    EXPECT_NEAR(area / (4 * PI * r * r), 1.0, 0.02);
    EXPECT_NEAR(-volume / (4.0 / 3.0 * PI * r * r * r), 1.0, 0.02);
}

TEST(Mesher, InvertedSphereFacesTheOtherWay) {
    const int n = 32, size[3] = {n, n, n};
    auto f = sphereField(n, 10.0f);
    for (float& v : f) v = -v;  // the liquid is now below the level
    Mesher m;
    auto p = closedParams(size, true);
    ASSERT_TRUE(m.build(f.data(), size, 0.0f, p, true, 0, false, nullptr, nullptr));
    const auto t = topology(m);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.misoriented, 0);
    EXPECT_EQ(t.euler(), 2);  // outside the grid reads as filled: no box around it
    double area, volume;
    measure(m, area, volume);
    EXPECT_LT(volume, 0.0);  // facing away from the filled side: into the hole
}

TEST(Mesher, TorusHasCharacteristicZero) {
    const int n = 48, size[3] = {n, n, n};
    const float c = 0.5f * (n - 1), big = 14.0f, small = 5.0f;
    auto f = makeField(n, n, n, [&](float x, float y, float z) {
        const float q = std::sqrt((x - c) * (x - c) + (y - c) * (y - c)) - big;
        return small - std::sqrt(q * q + (z - c) * (z - c));
    });
    Mesher m;
    ASSERT_TRUE(mesh(m, f, size, 0.0f));
    const auto t = topology(m);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.misoriented, 0);
    EXPECT_EQ(t.euler(), 0);
}

TEST(Mesher, NoiseGivesAWatertightConsistentlyOrientedMesh) {
    // Every ambiguous face of the table shows up in noise; cracks would leave open edges.
    const int n = 20, size[3] = {n, n, n};
    Mesher m;
    ASSERT_TRUE(mesh(m, noiseField(n, 7), size, 0.0f));
    const auto t = topology(m);
    EXPECT_GT(t.faces, 1000);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.misoriented, 0);
}

// ---------------------------------------------------------------------------------------------
// The border

TEST(Mesher, HalfFilledGridClosesAtTheBorders) {
    const int size[3] = {12, 10, 16};
    auto f = makeField(12, 10, 16, [](float, float, float z) { return 7.5f - z; });
    Mesher m;
    ASSERT_TRUE(mesh(m, f, size, 0.0f));
    const auto t = topology(m);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.euler(), 2);
    double area, volume;
    measure(m, area, volume);
    // A box from -1 + t to 7.5 in z and from -1 + t to size in x and y.
    EXPECT_GT(-volume, 12.0 * 10.0 * 8.0);
}

TEST(Mesher, WaterPlaneRunsThroughTheBorder) {
    const int size[3] = {10, 10, 10};
    auto f = makeField(10, 10, 10, [](float, float, float z) { return 4.5f - z; });
    Mesher m;
    Mesher::MesherParams p;
    std::memcpy(p.gridSize, size, sizeof size);
    p.level = 4.5f;
    p.upAxis = 2;
    p.hasDisplacement = false;
    ASSERT_TRUE(m.build(f.data(), size, 0.0f, p, false, 0, false, nullptr, nullptr));
    ASSERT_GT(m.vertices.count, 0);
    float lo = 1e9f, hi = -1e9f;
    for (const auto& v : m.vertices) {
        EXPECT_FLOAT_EQ(v.pos[2], 4.5f);
        lo = std::min(lo, v.pos[0]);
        hi = std::max(hi, v.pos[0]);
    }
    // The plane reaches through the padding: from index -1 to the padded far side.
    EXPECT_EQ(lo, -1.0f);
    EXPECT_EQ(hi, 10.0f);
    const auto t = topology(m);
    EXPECT_EQ(t.overusedEdges, 0);
    EXPECT_EQ(t.openEdges, 4 * 11);  // the rim of an 11 x 11 sheet of cells
}

TEST(Mesher, FullGridGivesABoxAtTheInterpolatedBorder) {
    const int size[3] = {4, 5, 6};
    std::vector<float> f(4 * 5 * 6, 1.0f);
    Mesher m;
    ASSERT_TRUE(mesh(m, f, size, 0.5f));
    EXPECT_TRUE(topology(m).closed());
    // Between the padding's 0.4 and the field's 1: a sixth of a cell out from index -1.
    float lo = 1e9f, hi = -1e9f;
    for (const auto& v : m.vertices) {
        lo = std::min(lo, v.pos[0]);
        hi = std::max(hi, v.pos[0]);
    }
    EXPECT_NEAR(lo, -1.0f + 1.0f / 6.0f, 1e-6);
    EXPECT_NEAR(hi, 4.0f - 1.0f / 6.0f, 1e-6);
}

TEST(Mesher, ValueEqualToLevelCountsByInvert) {
    const int size[3] = {3, 3, 3};
    std::vector<float> f(27, 0.0f);
    f[13] = 0.5f;  // the centre sits exactly at the level
    Mesher plain;
    ASSERT_TRUE(mesh(plain, f, size, 0.5f));
    EXPECT_EQ(plain.vertices.count, 0);  // not above the level: empty
    Mesher inverted;
    auto p = closedParams(size, true);
    ASSERT_TRUE(inverted.build(f.data(), size, 0.5f, p, true, 0, false, nullptr, nullptr));
    // With invert everything is filled but for the centre, which is not above the level.
    EXPECT_GT(inverted.vertices.count, 0);
    EXPECT_TRUE(topology(inverted).closed());
}

// ---------------------------------------------------------------------------------------------
// Bad input

TEST(Mesher, EmptyAndOutOfRangeLevelsGiveNoMesh) {
    const int size[3] = {8, 8, 8};
    auto f = sphereField(8, 3.0f);
    Mesher m;
    ASSERT_TRUE(mesh(m, f, size, 100.0f));
    EXPECT_EQ(m.vertices.count, 0);
    EXPECT_EQ(m.triangles.count, 0);
    EXPECT_TRUE(m.error.empty());
    ASSERT_TRUE(mesh(m, f, size, -100.0f));
    EXPECT_GT(m.vertices.count, 0);  // everything is liquid: the box around the grid
}

TEST(Mesher, ZeroSizedOrNullFieldIsRefused) {
    const int zero[3] = {0, 8, 8}, ok[3] = {2, 2, 2};
    auto p = closedParams(ok);
    Mesher m;
    float one = 1.0f;
    EXPECT_FALSE(m.build(&one, zero, 0.0f, p, false, 0, false, nullptr, nullptr));
    EXPECT_FALSE(m.error.empty());
    EXPECT_FALSE(m.build(nullptr, ok, 0.0f, p, false, 0, false, nullptr, nullptr));
    EXPECT_EQ(m.vertices.count, 0);
}

TEST(Mesher, NanCellsReadAsOutside) {
    const int n = 9, size[3] = {n, n, n};
    std::vector<float> f(n * n * n, 1.0f);
    f[(4 * n + 4) * n + 4] = std::numeric_limits<float>::quiet_NaN();
    Mesher m;
    ASSERT_TRUE(mesh(m, f, size, 0.5f, 2, true));
    const auto t = topology(m);
    // The outer box and a small closed pocket around the NaN cell.
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.euler(), 4);
    for (const auto& v : m.vertices)
        for (int j = 0; j < 3; ++j) {
            EXPECT_TRUE(std::isfinite(v.pos[j]));
            EXPECT_TRUE(std::isfinite(v.normal[j]));
        }
}

TEST(Mesher, OneCellAxesStillClose) {
    for (const auto& s : {std::array<int, 3>{1, 1, 1}, std::array<int, 3>{5, 1, 4},
                          std::array<int, 3>{1, 7, 1}}) {
        const int size[3] = {s[0], s[1], s[2]};
        std::vector<float> f(s[0] * s[1] * s[2], 1.0f);
        Mesher m;
        ASSERT_TRUE(mesh(m, f, size, 0.5f, 1, true));
        const auto t = topology(m);
        EXPECT_TRUE(t.closed());
        EXPECT_EQ(t.euler(), 2);
    }
}

TEST(Mesher, RunningOutOfMemoryLeavesNoMesh) {
    const int n = 24, size[3] = {n, n, n};
    auto f = sphereField(n, 8.0f);
    Mesher reference;
    ASSERT_TRUE(mesh(reference, f, size, 0.0f, 2, true));
    reference.clearAll();
    // Budgets that fail each reserve in turn: the result lists, the map, the per-job lists,
    // the merge and the adjacency.
    int failures = 0;
    for (int64_t budget : {int64_t(0), int64_t(1000), int64_t(50000), int64_t(5000000),
                           int64_t(100000000), int64_t(150000000), int64_t(160000000)}) {
        Mesher m(nullptr, 1);
        m.vertexReserve = 100000;
        m.triangleReserve = 200000;
        setArrayAllocationBudget(budget);
        const bool ok = mesh(m, f, size, 0.0f, 2, true);
        setArrayAllocationBudget(-1);
        if (!ok) {
            ++failures;
            EXPECT_FALSE(m.error.empty());
            EXPECT_EQ(m.vertices.count, 0);
            EXPECT_EQ(m.triangles.count, 0);
        }
    }
    EXPECT_GE(failures, 3);
}

// ---------------------------------------------------------------------------------------------
// Threads

TEST(Mesher, SameMeshForAnyNumberOfThreads) {
    const int n = 40, size[3] = {n, n, n};
    auto f = noiseField(n, 3);
    for (float& v : f) v += 0.3f;
    PosixThreadManager manager;
    Mesher one(&manager, 1);
    ASSERT_TRUE(mesh(one, f, size, 0.0f, 3, true));
    for (int threads : {2, 3, 5}) {
        Mesher many(&manager, threads);
        ASSERT_TRUE(mesh(many, f, size, 0.0f, 3, true));
        ASSERT_EQ(many.vertices.count, one.vertices.count) << threads;
        ASSERT_EQ(many.triangles.count, one.triangles.count) << threads;
        EXPECT_EQ(0, std::memcmp(many.triangles.data, one.triangles.data,
                                 sizeof(Mesher::UTriangle) * one.triangles.count));
        for (int i = 0; i < one.vertices.count; ++i) {
            ASSERT_EQ(0, std::memcmp(many.vertices[i].pos, one.vertices[i].pos, 12)) << i;
            ASSERT_EQ(0, std::memcmp(many.vertices[i].normal, one.vertices[i].normal, 12)) << i;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Cutter

class BoxGizmo : public iKDTree {
public:
    BoxGizmo(float lo, float hi) {
        // Twelve triangles wound with outward normals.
        const float c[8][3] = {{lo, lo, lo}, {hi, lo, lo}, {hi, hi, lo}, {lo, hi, lo},
                               {lo, lo, hi}, {hi, lo, hi}, {hi, hi, hi}, {lo, hi, hi}};
        const int t[12][3] = {{0, 2, 1}, {0, 3, 2}, {4, 5, 6}, {4, 6, 7}, {0, 1, 5}, {0, 5, 4},
                              {3, 6, 2}, {3, 7, 6}, {0, 4, 7}, {0, 7, 3}, {1, 2, 6}, {1, 6, 5}};
        std::memcpy(mCorners, c, sizeof c);
        std::memcpy(mTris, t, sizeof t);
        for (int i = 0; i < 12; ++i) AddObject(i);
        Divide();
    }
    void getTriangle(int id, float out[3][3]) const override {
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < 3; ++j) out[k][j] = mCorners[mTris[id][k]][j];
    }

private:
    float mCorners[8][3];
    int mTris[12][3];
};

TEST(Mesher, GizmoCutsTheLiquidToItsShape) {
    const int n = 20, size[3] = {n, n, n};
    std::vector<float> f(n * n * n, 1.0f);
    BoxGizmo box(4.3f, 12.6f);
    Mesher::Gizmo g;
    g.tree = &box;
    Mesher m;
    auto p = closedParams(size);
    test::LogRecorder log;
    ASSERT_TRUE(m.build(f.data(), size, 0.5f, p, false, 0, false, nullptr, &g));
    EXPECT_TRUE(log.contains("cutter:"));
    const auto t = topology(m);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.euler(), 2);
    for (const auto& v : m.vertices)
        for (int j = 0; j < 3; ++j) {
            // Edges and corners, where two axes rewrote a cell, may bulge a little.
            EXPECT_GE(v.pos[j], 4.3f - 0.05f);
            EXPECT_LE(v.pos[j], 12.6f + 0.05f);
        }
    double area, volume;
    measure(m, area, volume);
    const double side = 12.6 - 4.3;
    EXPECT_NEAR(-volume / (side * side * side), 1.0, 0.05);
    // The caller's field is untouched: the cutter works on a copy.
    EXPECT_EQ(f[0], 1.0f);
}

TEST(Mesher, InvertedGizmoCutsAHole) {
    const int n = 20, size[3] = {n, n, n};
    std::vector<float> f(n * n * n, 1.0f);
    BoxGizmo box(6.3f, 12.6f);
    Mesher::Gizmo g;
    g.tree = &box;
    g.invert = true;
    Mesher m;
    auto p = closedParams(size);
    ASSERT_TRUE(m.build(f.data(), size, 0.5f, p, false, 0, false, nullptr, &g));
    const auto t = topology(m);
    EXPECT_TRUE(t.closed());
    EXPECT_EQ(t.euler(), 4);  // the outer box and the hole
}

// ---------------------------------------------------------------------------------------------
// Smoothing, normals, particles

TEST(Mesher, SmoothingShrinksNoiseButKeepsTheRadius) {
    const int n = 48, size[3] = {n, n, n};
    const float r = 16.0f, c = 0.5f * (n - 1);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-0.6f, 0.6f);
    auto f = sphereField(n, r);
    for (float& v : f) v += u(rng);
    auto stats = [&](const Mesher& m, double& mean, double& spread) {
        double s = 0, s2 = 0;
        for (const auto& v : m.vertices) {
            const double d = std::sqrt((v.pos[0] - c) * (v.pos[0] - c) +
                                       (v.pos[1] - c) * (v.pos[1] - c) +
                                       (v.pos[2] - c) * (v.pos[2] - c));
            s += d;
            s2 += d * d;
        }
        mean = s / m.vertices.count;
        spread = std::sqrt(s2 / m.vertices.count - mean * mean);
    };
    Mesher rough, smooth;
    ASSERT_TRUE(mesh(rough, f, size, 0.0f));
    ASSERT_TRUE(mesh(smooth, f, size, 0.0f, 10));
    EXPECT_EQ(rough.vertices.count, smooth.vertices.count);  // smoothing adds no vertices
    double m0, s0, m1, s1;
    stats(rough, m0, s0);
    stats(smooth, m1, s1);
    EXPECT_LT(s1, 0.6 * s0);
    EXPECT_LT(std::fabs(m1 - m0), 1.0);
    EXPECT_LT(std::fabs(m1 - r), 1.0);
}

TEST(Mesher, NormalsAreUnitAndFaceTheLiquid) {
    const int n = 32, size[3] = {n, n, n};
    const float c = 0.5f * (n - 1);
    Mesher m;
    ASSERT_TRUE(mesh(m, sphereField(n, 10.0f), size, 0.0f, 1, true));
    for (const auto& v : m.vertices) {
        const float d[3] = {v.pos[0] - c, v.pos[1] - c, v.pos[2] - c};
        const float len = std::sqrt(v.normal[0] * v.normal[0] + v.normal[1] * v.normal[1] +
                                    v.normal[2] * v.normal[2]);
        EXPECT_NEAR(len, 1.0f, 1e-4f);
        EXPECT_LT(d[0] * v.normal[0] + d[1] * v.normal[1] + d[2] * v.normal[2], 0.0f);
    }
}

TEST(Mesher, ParticlesPullTheSurface) {
    const int n = 24, size[3] = {n, n, n};
    auto f = makeField(n, n, n, [](float, float, float z) { return 10.5f - z; });
    std::vector<float> pts;
    for (int y = 6; y < 18; ++y)
        for (int x = 6; x < 18; ++x) {
            pts.insert(pts.end(), {float(x), float(y), 11.5f});
        }
    Mesher::MesherParticles prt;
    prt.points = pts.data();
    prt.count = static_cast<int64_t>(pts.size() / 3);
    prt.offset = 0.0f;
    auto p = closedParams(size);
    Mesher with, without;
    ASSERT_TRUE(with.build(f.data(), size, 0.0f, p, false, 4, false, &prt, nullptr));
    ASSERT_TRUE(without.build(f.data(), size, 0.0f, p, false, 4, false, nullptr, nullptr));
    ASSERT_EQ(with.vertices.count, without.vertices.count);
    // Vertices of the top face under the particles move towards them.
    int moved = 0;
    for (int i = 0; i < with.vertices.count; ++i) {
        const auto& a = with.vertices[i];
        const auto& b = without.vertices[i];
        if (b.pos[2] > 10 && b.pos[0] > 9 && b.pos[0] < 15 && b.pos[1] > 9 && b.pos[1] < 15) {
            EXPECT_GT(a.pos[2], b.pos[2] + 0.05f);
            ++moved;
        }
    }
    EXPECT_GT(moved, 10);
}

// ---------------------------------------------------------------------------------------------
// Displacement and the ocean

class ConstantDisplacement : public Mesher::MesherParams {
public:
    float d[3] = {0, 0, 0};
    void displace(float result[3], const float[3], int) override {
        result[0] = d[0];
        result[1] = d[1];
        result[2] = d[2];
    }
};

Mesher::View topDownView(float height) {
    // Camera above (16, 16) looking down -z; camera x along world x, y along world -y.
    Mesher::View v;
    v.width = v.height = 200;
    v.cx = v.cy = 100;
    v.position[0] = 16;
    v.position[1] = 16;
    v.position[2] = height;
    v.direction[0] = v.direction[1] = 0;
    v.direction[2] = -1;
    v.axis2[0] = 1;
    v.axis2[1] = v.axis2[2] = 0;
    // World to camera: x' = x - 16, y' = -(y - 16), z' = h - z, all scaled by the focal length.
    const float focal = 100.0f;
    const float w2c[4][3] = {{focal, 0, 0}, {0, -focal, 0}, {0, 0, -1},
                             {-16 * focal, 16 * focal, height}};
    std::memcpy(v.worldToCam, w2c, sizeof w2c);
    const float c2w[4][3] = {{1 / focal, 0, 0}, {0, -1 / focal, 0}, {0, 0, -1}, {16, 16, height}};
    std::memcpy(v.camToWorld, c2w, sizeof c2w);
    return v;
}

TEST(Mesher, DisplacementMovesVerticesAndKeepsTheUndisplaced) {
    const int n = 16, size[3] = {n, n, n};
    ConstantDisplacement p;
    std::memcpy(p.gridSize, size, sizeof size);
    p.level = Mesher::closedLevel(false);
    p.d[0] = 0.25f;
    Mesher m;
    test::LogRecorder log;
    ASSERT_TRUE(m.build(sphereField(n, 5.0f).data(), size, 0.0f, p, false, 0, true, nullptr,
                        nullptr));
    EXPECT_TRUE(log.contains("mesher: displacement"));
    ASSERT_EQ(m.undisplaced.count, 3 * m.vertices.count);
    for (int i = 0; i < m.vertices.count; ++i)
        EXPECT_FLOAT_EQ(m.vertices[i].pos[0], m.undisplaced[3 * i] + 0.25f);
}

TEST(Mesher, OceanMeasuresDisplFactor) {
    const int n = 16, size[3] = {n, n, n};
    ConstantDisplacement p;
    std::memcpy(p.gridSize, size, sizeof size);
    p.ocean = true;
    p.uwGlasses = false;
    p.level = 8.5f;
    p.d[2] = -0.75f;
    p.view = topDownView(100.0f);
    auto f = makeField(n, n, n, [](float, float, float z) { return 8.5f - z; });
    Mesher m;
    ASSERT_TRUE(m.build(f.data(), size, 0.0f, p, false, 0, true, nullptr, nullptr));
    EXPECT_FLOAT_EQ(m.displFactor, 0.75f);
    for (const auto& v : m.vertices) EXPECT_NEAR(v.pos[2], 7.75f, 1e-5f);
}

TEST(Mesher, SubdivisionSplitsOnlyLongEdgesOnScreen) {
    const int n = 32, size[3] = {n, n, n};
    auto f = makeField(n, n, n, [](float, float, float z) { return 8.5f - z; });
    auto run = [&](float height, float edgePixels, Mesher& m) {
        ConstantDisplacement p;
        std::memcpy(p.gridSize, size, sizeof size);
        p.ocean = true;
        p.uwGlasses = false;
        p.level = 8.5f;
        p.edgePixels = edgePixels;
        p.view = topDownView(height);
        return m.build(f.data(), size, 0.0f, p, true, 0, true, nullptr, nullptr);
    };
    Mesher plain, far, near;
    ASSERT_TRUE(run(100.0f, 1.0f, plain));
    // Far away an edge of one cell covers about one pixel: nothing to split at 0.9 pixels.
    ASSERT_TRUE(run(1000.0f, 0.9f, far));
    EXPECT_EQ(far.triangles.count, plain.triangles.count);
    // Close by a cell covers several pixels: edges in view are split.
    ASSERT_TRUE(run(60.0f, 0.5f, near));
    EXPECT_GT(near.triangles.count, plain.triangles.count);
    const auto t = topology(near);
    EXPECT_EQ(t.overusedEdges, 0);
    EXPECT_EQ(t.misoriented, 0);
    // Each new vertex is the midpoint of two vertices of the mesh before it.
    for (int i = plain.vertices.count; i < near.vertices.count; ++i)
        EXPECT_NEAR(near.vertices[i].pos[2], 8.5f, 1e-5f);
}

TEST(Mesher, UnderwaterCameraAddsTheQuad) {
    const int n = 16, size[3] = {n, n, n};
    auto f = makeField(n, n, n, [](float, float, float z) { return 8.5f - z; });
    ConstantDisplacement p;
    std::memcpy(p.gridSize, size, sizeof size);
    p.ocean = true;
    p.level = 8.5f;
    p.view = topDownView(4.0f);  // below the water
    Mesher m;
    ASSERT_TRUE(m.build(f.data(), size, 0.0f, p, true, 0, true, nullptr, nullptr));
    Mesher above;
    p.view = topDownView(40.0f);
    ASSERT_TRUE(above.build(f.data(), size, 0.0f, p, true, 0, true, nullptr, nullptr));
    EXPECT_EQ(m.vertices.count, above.vertices.count + 4);
    EXPECT_EQ(m.triangles.count, above.triangles.count + 2);
    const auto& last = m.vertices[m.vertices.count - 1];
    EXPECT_FLOAT_EQ(last.normal[2], 1.0f);  // the negated camera direction
}

TEST(Mesher, LogsEveryPass) {
    const int n = 12, size[3] = {n, n, n};
    test::LogRecorder log;
    Mesher m;
    ASSERT_TRUE(mesh(m, sphereField(n, 4.0f), size, 0.0f, 1, true));
    for (const char* line : {"march cubes build smap:", "march cubes vertices:",
                             "march cubes interest:", "march cubes conn time: ",
                             "mesher: smooth", "mesher: normals", "normals filtering:"})
        EXPECT_TRUE(log.contains(line)) << line;
}

}  // namespace
}  // namespace vaporix
