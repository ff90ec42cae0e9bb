// Tests of the KD tree: ray and sphere queries against brute force, facing, and the build rules.
#include "foundation/iKDTree.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
#include <vector>

namespace vaporix {
namespace {

class Soup : public iKDTree {
public:
    std::vector<float> corners;  // nine floats a triangle
    std::vector<float> points;   // three floats a point
    int progressCalls = 0;
    int stopAt = 0;

    void getTriangle(int id, float out[3][3]) const override {
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < 3; ++j) out[k][j] = corners[9 * id + 3 * k + j];
    }
    void getPoint(int id, float out[3]) const override {
        for (int j = 0; j < 3; ++j) out[j] = points[3 * id + j];
    }
    int progress(int) override { return ++progressCalls >= stopAt && stopAt > 0; }
};

void randomSoup(Soup& s, int n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> pos(-10, 10), off(-1, 1);
    for (int i = 0; i < n; ++i) {
        const float c[3] = {pos(rng), pos(rng), pos(rng)};
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < 3; ++j) s.corners.push_back(c[j] + off(rng));
        s.AddObject(i);
    }
}

TEST(iKDTree, RayQueryFindsTheNearestHitLikeBruteForce) {
    Soup s;
    randomSoup(s, 2000, 5);
    ASSERT_TRUE(s.Divide());
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> u(-1, 1);
    int hits = 0;
    for (int r = 0; r < 500; ++r) {
        const double org[3] = {u(rng) * 12.0, u(rng) * 12.0, u(rng) * 12.0};
        float dir[3] = {u(rng), u(rng), u(rng)};
        if (r % 10 == 0) dir[0] = dir[1] = 0, dir[2] = 1;  // axis-parallel rays too
        const iKDTree::Ray ray(org, dir, 0.0, 1e30);
        double best = 1e300;
        int bestId = -1, bestFacing = 0;
        for (int i = 0; i < 2000; ++i) {
            float c[3][3];
            s.getTriangle(i, c);
            double t;
            int facing;
            if (iKDTree::intersectTriangle(ray, c, t, facing) && t < best) {
                best = t;
                bestId = i;
                bestFacing = facing;
            }
        }
        double t = -1;
        int facing = -1;
        const int id = s.intersect(ray, t, facing);
        ASSERT_EQ(id, bestId) << "ray " << r;
        if (id >= 0) {
            ++hits;
            EXPECT_EQ(t, best);
            EXPECT_EQ(facing, bestFacing);
        }
    }
    EXPECT_GT(hits, 50);
}

TEST(iKDTree, FacingTellsFrontFromBack) {
    Soup s;
    // One triangle in the plane z = 0 whose winding normal points along +z.
    s.corners = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    s.AddObject(0);
    ASSERT_TRUE(s.Divide());
    const double above[3] = {0.2, 0.2, 1}, below[3] = {0.2, 0.2, -1};
    const float down[3] = {0, 0, -1}, up[3] = {0, 0, 1};
    double t;
    int facing;
    ASSERT_EQ(s.intersect(iKDTree::Ray(above, down, 0, 10), t, facing), 0);
    EXPECT_EQ(facing, 1);
    EXPECT_DOUBLE_EQ(t, 1.0);
    ASSERT_EQ(s.intersect(iKDTree::Ray(below, up, 0, 10), t, facing), 0);
    EXPECT_EQ(facing, 0);
    // Outside the t range: no hit.
    EXPECT_EQ(s.intersect(iKDTree::Ray(above, down, 0, 0.5), t, facing), -1);
}

TEST(iKDTree, AllHitsComeInOrder) {
    Soup s;
    for (int k = 0; k < 5; ++k) {
        const float z = static_cast<float>(4 - k);
        s.corners.insert(s.corners.end(), {-1, -1, z, 3, -1, z, -1, 3, z});
        s.AddObject(k);
    }
    ASSERT_TRUE(s.Divide());
    const double org[3] = {0, 0, -10};
    const float dir[3] = {0, 0, 1};
    iArray<int> ids;
    iArray<double> ts;
    iArray<int> facings;
    ASSERT_EQ(s.intersectAll(iKDTree::Ray(org, dir, 0, 1e30), 3, ids, ts, facings), 3);
    EXPECT_EQ(ids[0], 4);
    EXPECT_EQ(ids[1], 3);
    EXPECT_EQ(ids[2], 2);
    EXPECT_DOUBLE_EQ(ts[0], 10.0);
}

TEST(iKDTree, SphereQueryMatchesBruteForce) {
    Soup s;
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-5, 5);
    for (int i = 0; i < 3000; ++i) {
        s.points.insert(s.points.end(), {u(rng), u(rng), u(rng)});
        s.AddObject(i);
    }
    ASSERT_TRUE(s.DivideP());
    struct Collect : iKDTree::SphereCallback {
        std::set<int> ids;
        void found(int id, float) override { ids.insert(id); }
    };
    struct Odd : iKDTree::OutFilter {
        int skip(int id) override { return id & 1; }
    };
    for (int q = 0; q < 50; ++q) {
        const float c[3] = {u(rng), u(rng), u(rng)};
        const float r = 1.5f;
        Collect all, even;
        Odd odd;
        s.CollectSphere(c, r, all);
        s.CollectSphere(c, r, even, &odd);
        std::set<int> expect;
        for (int i = 0; i < 3000; ++i) {
            const float* p = &s.points[3 * i];
            const float d2 = (p[0] - c[0]) * (p[0] - c[0]) + (p[1] - c[1]) * (p[1] - c[1]) +
                             (p[2] - c[2]) * (p[2] - c[2]);
            if (d2 <= r * r) expect.insert(i);
        }
        EXPECT_EQ(all.ids, expect);
        for (int id : even.ids) EXPECT_EQ(id & 1, 0);
        EXPECT_LE(even.ids.size(), expect.size());
    }
}

TEST(iKDTree, EmptyTreeAndStoppedBuild) {
    Soup empty;
    EXPECT_TRUE(empty.Divide());
    const double org[3] = {0, 0, 0};
    const float dir[3] = {1, 0, 0};
    double t;
    int facing;
    EXPECT_EQ(empty.intersect(iKDTree::Ray(org, dir, 0, 1), t, facing), -1);
    Soup big;
    randomSoup(big, 20000, 1);
    big.stopAt = 1;
    EXPECT_FALSE(big.Divide());  // the progress test at depth 8 said stop
    EXPECT_GE(big.progressCalls, 1);
}

TEST(iKDTree, IdenticalObjectsStayInOneLeaf) {
    // No split can separate copies of one triangle: the duplicates would not pay.
    Soup s;
    for (int i = 0; i < 100; ++i) {
        s.corners.insert(s.corners.end(), {0, 0, 0, 1, 0, 0, 0, 1, 0});
        s.AddObject(i);
    }
    ASSERT_TRUE(s.Divide());
    const double org[3] = {0.1, 0.1, 1};
    const float dir[3] = {0, 0, -1};
    double t;
    int facing;
    EXPECT_EQ(s.intersect(iKDTree::Ray(org, dir, 0, 10), t, facing), 0);  // ties keep the first
}

}  // namespace
}  // namespace vaporix
