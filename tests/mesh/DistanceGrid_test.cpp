// Tests of the distance grid (accuracy, thread independence, the spacing repair) and of the
// convex polyhedron of the camera clip.
#include "mesh/DistanceGrid.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "TestSupport.h"
#include "foundation/ThreadManager.h"
#include "foundation/iKDTree.h"

namespace vaporix {
namespace {

class MeshGrid : public DistanceGrid {
public:
    std::vector<float> verts;
    std::vector<int> tris;
    explicit MeshGrid(ThreadManager* m = nullptr, int threads = -1) : DistanceGrid(m, threads) {}
    void getTriangle(int index, int corners[3]) override {
        for (int k = 0; k < 3; ++k) corners[k] = tris[3 * index + k];
    }
    void getVertex(float result[3], int index) override {
        for (int j = 0; j < 3; ++j) result[j] = verts[3 * index + j];
    }
};

// A unit-radius-ish box surface from 0 to 4 on each axis, two triangles a face.
void makeBox(MeshGrid& g) {
    const float c[8][3] = {{0, 0, 0}, {4, 0, 0}, {4, 4, 0}, {0, 4, 0},
                           {0, 0, 4}, {4, 0, 4}, {4, 4, 4}, {0, 4, 4}};
    const int t[12][3] = {{0, 2, 1}, {0, 3, 2}, {4, 5, 6}, {4, 6, 7}, {0, 1, 5}, {0, 5, 4},
                          {3, 6, 2}, {3, 7, 6}, {0, 4, 7}, {0, 7, 3}, {1, 2, 6}, {1, 6, 5}};
    for (const auto& p : c) g.verts.insert(g.verts.end(), p, p + 3);
    for (const auto& tri : t) g.tris.insert(g.tris.end(), tri, tri + 3);
}

// Exact distance from p to the surface of the box [0, 4]^3.
float boxDistance(const float p[3]) {
    float outside = 0, inside = 1e30f;
    for (int a = 0; a < 3; ++a) {
        const float d = std::max({0.0f - p[a], 0.0f, p[a] - 4.0f});
        outside += d * d;
        inside = std::min({inside, p[a], 4.0f - p[a]});
    }
    return outside > 0 ? std::sqrt(outside) : inside;
}

TEST(DistanceGrid, DistancesMatchTheSurfaceWithinACell) {
    MeshGrid g;
    makeBox(g);
    const float spacing = 0.25f;
    ASSERT_TRUE(g.setup(12, 8, spacing));
    ASSERT_TRUE(g.build());
    EXPECT_GT(g.waves, 3);
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> u(-0.4f, 4.4f);
    for (int i = 0; i < 2000; ++i) {
        const float p[3] = {u(rng), u(rng), u(rng)};
        // The cell's sample is the nearest to the cell's position, which lies up to half a cell
        // diagonal from p; the two nearest distances differ by at most that much twice.
        EXPECT_NEAR(g.distance(p), boxDistance(p), spacing * 1.2f) << p[0] << " " << p[1] << " " << p[2];
    }
}

TEST(DistanceGrid, SameGridForAnyNumberOfThreads) {
    PosixThreadManager manager;
    MeshGrid one(&manager, 1), three(&manager, 3);
    makeBox(one);
    makeBox(three);
    ASSERT_TRUE(one.setup(12, 8, 0.2f));
    ASSERT_TRUE(three.setup(12, 8, 0.2f));
    ASSERT_TRUE(one.build());
    ASSERT_TRUE(three.build());
    ASSERT_EQ(one.cells.count, three.cells.count);
    EXPECT_EQ(0, std::memcmp(one.cells.data, three.cells.data,
                             static_cast<size_t>(one.cells.count) * sizeof(int32_t)));
    ASSERT_EQ(one.points.count, three.points.count);
    EXPECT_EQ(0, std::memcmp(one.points.data, three.points.data,
                             static_cast<size_t>(one.points.count) * sizeof(float)));
}

TEST(DistanceGrid, InadequateSpacingIsRepaired) {
    test::LogRecorder log;
    MeshGrid g;
    makeBox(g);
    ASSERT_TRUE(g.setup(12, 8, 0.0f));
    EXPECT_TRUE(log.contains("DistanceGrid: inadequate spacing, vol:"));
    EXPECT_GT(g.spacing, 0.0f);
    const double cells = double(g.size[0]) * g.size[1] * g.size[2];
    EXPECT_LE(cells, 1.1e8);
    g.cells.free();

    log.clear();
    MeshGrid small;
    makeBox(small);
    ASSERT_TRUE(small.setup(12, 8, 0.5f));
    EXPECT_FALSE(log.contains("inadequate spacing"));
    EXPECT_EQ(small.size[0], 12);  // (4 + 4 * 0.5) / 0.5
}

TEST(DistanceGrid, EmptyMeshLogsAndGivesNoGrid) {
    test::LogRecorder log;
    MeshGrid g;
    EXPECT_FALSE(g.setup(0, 0, 0.5f));
    EXPECT_TRUE(log.contains("DistanceGrid: inadequate spacing"));
    EXPECT_FALSE(g.build());
    const float p[3] = {0, 0, 0};
    EXPECT_EQ(g.distance(p), 1e30f);
}

TEST(DistanceGrid, BadTriangleIndicesAreSkipped) {
    MeshGrid g;
    makeBox(g);
    g.tris.insert(g.tris.end(), {0, 1, 99});  // one triangle past the vertices
    ASSERT_TRUE(g.setup(13, 8, 0.5f));
    ASSERT_TRUE(g.build());
    const float p[3] = {2, 2, -1};
    EXPECT_NEAR(g.distance(p), 1.0f, 0.5f);
}

TEST(ConvexPolyhedron, CameraPyramidContainsWhatTheCameraSees) {
    // Camera at (0, 0, -10) looking along +z with a 90 degree field of view.
    const float m[4][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, -10}};
    ConvexPolyhedron poly;
    ASSERT_TRUE(poly.fromCamera(m, 1.0f, 1.0f));
    EXPECT_EQ(poly.faces.count, 11);
    const float ahead[3] = {0, 0, 0}, edge[3] = {9.9f, 0, 0}, aside[3] = {10.1f, 0, 0},
                behind[3] = {0, 0, -11}, far[3] = {0, 0, 2e9f};
    EXPECT_TRUE(poly.contains(ahead));
    EXPECT_TRUE(poly.contains(edge));
    EXPECT_FALSE(poly.contains(aside));
    EXPECT_FALSE(poly.contains(behind));
    EXPECT_FALSE(poly.contains(far));
    const float lo[3] = {-1, -1, -1}, hi[3] = {1, 1, 1};
    EXPECT_TRUE(poly.mayIntersectBox(lo, hi));
    const float blo[3] = {-1, -1, -15}, bhi[3] = {1, 1, -12};
    EXPECT_FALSE(poly.mayIntersectBox(blo, bhi));
}

}  // namespace
}  // namespace vaporix
