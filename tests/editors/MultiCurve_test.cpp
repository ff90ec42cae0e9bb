// Tests of MultiCurve: evaluation of every key kind and their cross-fades, and the editing
// operations with their snapshot and restore.
#include "editors/MultiCurve.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using vaporix::MultiCurve;
using namespace vaporix::VpxRenderSets;

namespace {

struct P {
    int kind;
    float x, y;
};

MultiCurve make(const std::vector<P>& points) {
    MultiCurve c;
    for (const P& p : points) c.insertPoint(c.count(), p.kind, p.x, p.y);
    c.rebuild();
    return c;
}

std::vector<P> pointsOf(const MultiCurve& c) {
    std::vector<P> out;
    for (int i = 0; i < c.count(); ++i) out.push_back({c.kinds[i], c.positions[i], c.values[i]});
    return out;
}

void expectSame(const std::vector<P>& a, const std::vector<P>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].kind, b[i].kind) << i;
        EXPECT_EQ(a[i].x, b[i].x) << i;
        EXPECT_EQ(a[i].y, b[i].y) << i;
    }
}

}  // namespace

TEST(MultiCurve, EmptyAndSingleKey) {
    MultiCurve empty;
    empty.rebuild();
    EXPECT_EQ(empty.evaluate(1.0f, 1), 0.0f);

    // A lone key gives its value everywhere, linear or spline (the spline through the inverse's
    // +-0.001 and the constant knot).
    for (int kind : {MCP_LINEAR, MCP_SPLINE}) {
        const MultiCurve c = make({{kind, 2.0f, 0.7f}});
        for (float x : {-100.0f, 1.9f, 2.0f, 2.1f, 1e6f})
            EXPECT_FLOAT_EQ(c.evaluate(x, 1), 0.7f) << kind << " " << x;
    }
}

TEST(MultiCurve, LinearKeysInterpolateAndExtendEndSegments) {
    const MultiCurve c =
        make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 1.0f, 2.0f}, {MCP_LINEAR, 3.0f, 1.0f}});
    EXPECT_FLOAT_EQ(c.evaluate(0.5f, 1), 1.0f);
    EXPECT_FLOAT_EQ(c.evaluate(2.0f, 1), 1.5f);
    EXPECT_FLOAT_EQ(c.evaluate(-1.0f, 1), -2.0f);  // first segment extended
    EXPECT_FLOAT_EQ(c.evaluate(5.0f, 1), 0.0f);    // last segment extended
    // End mode 2 holds the end values instead.
    EXPECT_FLOAT_EQ(c.evaluate(-1.0f, 2), 0.0f);
    EXPECT_FLOAT_EQ(c.evaluate(5.0f, 2), 1.0f);
}

TEST(MultiCurve, AtAKeyTheKeysOwnRuleDecides) {
    // x on the spline key: L is the linear key, R the spline key, f = 1.
    const MultiCurve c =
        make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_SPLINE, 1.0f, 1.0f}, {MCP_SPLINE, 2.0f, 0.0f}});
    EXPECT_NEAR(c.evaluate(1.0f, 1), 1.0f, 1e-5f);
    EXPECT_FLOAT_EQ(c.evaluate(0.0f, 1), 0.0f);
}

TEST(MultiCurve, LinearAndSplineKeysCrossFade) {
    const MultiCurve c =
        make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_SPLINE, 1.0f, 1.0f}, {MCP_SPLINE, 2.0f, 0.0f}});
    // Straight line at 0.5: 0.5. Spline over the key values 0, 1, 0 (central tangent 0 at the
    // peak, chord 1 at the start): the Hermite piece gives 0.625 at the middle. The keys are
    // equally spaced, so the position spline is the identity.
    EXPECT_NEAR(c.evaluate(0.5f, 1), 0.5f * 0.5f + 0.5f * 0.625f, 1e-5f);
    // Between two spline keys it is the spline alone.
    EXPECT_NEAR(c.evaluate(1.5f, 1), 0.625f, 1e-5f);
}

TEST(MultiCurve, EndModeOnAFallingCurve) {
    const MultiCurve c = make({{MCP_LINEAR, 0.0f, 1.0f}, {MCP_LINEAR, 1.0f, 0.5f}});
    EXPECT_FLOAT_EQ(c.evaluate(3.0f, 2), 0.5f);
    EXPECT_FLOAT_EQ(c.evaluate(3.0f, 1), -0.5f);
    EXPECT_FLOAT_EQ(c.evaluate(-1.0f, 2), 1.0f);
}

TEST(MultiCurve, TwoBezierKeysEvaluateTheCubic) {
    MultiCurve c = make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 1.0f, 1.0f}});
    ASSERT_EQ(c.setKind(0, MCP_FREE_BEZIER, 1.0f), 1);
    ASSERT_EQ(c.setKind(3, MCP_SMOOTH_BEZIER, 1.0f), 1);
    ASSERT_EQ(c.count(), 6);
    // Handles half way to the neighbour, flat: the piece is symmetric about (0.5, 0.5).
    EXPECT_FLOAT_EQ(c.positions[2], 0.5f);
    EXPECT_FLOAT_EQ(c.positions[3], 0.5f);
    EXPECT_NEAR(c.evaluate(0.5f, 1), 0.5f, 1e-5f);
    EXPECT_NEAR(c.evaluate(0.25f, 1) + c.evaluate(0.75f, 1), 1.0f, 1e-5f);
    EXPECT_LT(c.evaluate(0.1f, 1), 0.1f);  // flat start
    // Outside: the straight lines through the outer handles (flat here).
    EXPECT_NEAR(c.evaluate(-2.0f, 1), 0.0f, 1e-6f);
    EXPECT_NEAR(c.evaluate(3.0f, 1), 1.0f, 1e-6f);
}

TEST(MultiCurve, BezierNextToOtherKindsUsesTheQuadratic) {
    // Bezier key at 0 with its out-handle at (0.5, 1), then a linear key at 2.
    const MultiCurve c = make({{MCP_LEFT_HANDLE, -0.5f, 0.0f},
                               {MCP_FREE_BEZIER, 0.0f, 0.0f},
                               {MCP_RIGHT_HANDLE, 0.5f, 1.0f},
                               {MCP_LINEAR, 2.0f, 0.0f}});
    ASSERT_TRUE(c.isValid());
    const float x = 1.0f;
    const float p[6] = {0.0f, 0.0f, 0.5f, 1.0f, 2.0f, 0.0f};
    const float vL = MultiCurve::evaluateQuadratic(p, x);
    // The linear rule runs over all keys: (0, 0) and (2, 0), so it gives 0 at x = 1.
    const float f = 0.5f;
    EXPECT_NEAR(c.evaluate(x, 1), (1 - f) * vL + f * 0.0f, 1e-6f);
    EXPECT_GT(vL, 0.0f);
}

TEST(MultiCurve, SplineKeyBeforeABezierKeyFadesIntoItsQuadratic) {
    // The right key's rule takes its in-handle, found by walking up from the left key.
    const MultiCurve c = make({{MCP_SPLINE, 0.0f, 0.0f},
                               {MCP_LEFT_HANDLE, 1.5f, 1.0f},
                               {MCP_SMOOTH_BEZIER, 2.0f, 1.0f},
                               {MCP_RIGHT_HANDLE, 2.5f, 1.0f}});
    ASSERT_TRUE(c.isValid());
    const float x = 1.0f;
    // Two keys: the position and value splines are straight, so the spline rule gives 0.5.
    const float vL = 0.5f;
    const float p[6] = {0.0f, 0.0f, 1.5f, 1.0f, 2.0f, 1.0f};
    const float vR = MultiCurve::evaluateQuadratic(p, x);
    EXPECT_GT(vR, vL);
    EXPECT_NEAR(c.evaluate(x, 1), 0.5f * vL + 0.5f * vR, 1e-5f);
    // At the Bezier key its own rule decides: the quadratic ends on the key.
    EXPECT_FLOAT_EQ(c.evaluate(2.0f, 1), 1.0f);
}

TEST(MultiCurve, BezierEndKeyExtendsThroughItsHandle) {
    const MultiCurve c = make({{MCP_LINEAR, -1.0f, 0.0f},
                               {MCP_LEFT_HANDLE, -0.5f, 0.0f},
                               {MCP_FREE_BEZIER, 0.0f, 1.0f},
                               {MCP_RIGHT_HANDLE, 1.0f, 2.0f}});
    ASSERT_TRUE(c.isValid());
    // Past the Bezier key there is no right key: the line through the key and the next point.
    EXPECT_FLOAT_EQ(c.evaluate(2.0f, 1), 3.0f);
    EXPECT_FLOAT_EQ(c.evaluate(2.0f, 2), 2.0f);  // holds the last point's value
}

TEST(MultiCurve, SetKindPlacesAndRemovesHandles) {
    MultiCurve lone = make({{MCP_LINEAR, 5.0f, 1.0f}});
    ASSERT_EQ(lone.setKind(0, MCP_FREE_BEZIER, 10.0f), 1);
    ASSERT_EQ(lone.count(), 3);
    EXPECT_EQ(lone.kinds[0], MCP_LEFT_HANDLE);
    EXPECT_FLOAT_EQ(lone.positions[0], 5.0f - 0.1f * 10.0f);
    EXPECT_FLOAT_EQ(lone.positions[2], 5.0f + 0.1f * 10.0f);
    EXPECT_EQ(lone.values[0], 1.0f);

    // Smooth to free keeps moved handles; free to smooth re-creates them.
    ASSERT_EQ(lone.setKind(1, MCP_SMOOTH_BEZIER, 10.0f), 1);
    ASSERT_EQ(lone.movePoint(2, 7.0f, 3.0f), 1);
    ASSERT_EQ(lone.setKind(1, MCP_FREE_BEZIER, 10.0f), 1);
    EXPECT_EQ(lone.positions[2], 7.0f);
    ASSERT_EQ(lone.setKind(1, MCP_SMOOTH_BEZIER, 10.0f), 1);
    EXPECT_FLOAT_EQ(lone.positions[2], 6.0f);
    EXPECT_EQ(lone.values[2], 1.0f);

    // Back to linear: handles go, the key stays.
    ASSERT_EQ(lone.setKind(1, MCP_LINEAR, 10.0f), 1);
    ASSERT_EQ(lone.count(), 1);
    EXPECT_EQ(lone.kinds[0], MCP_LINEAR);

    // No change, and handles are never re-kinded.
    EXPECT_EQ(lone.setKind(0, MCP_LINEAR, 10.0f), 0);
    MultiCurve b = make({{MCP_LINEAR, 0.0f, 0.0f}});
    b.setKind(0, MCP_FREE_BEZIER, 1.0f);
    EXPECT_EQ(b.setKind(0, MCP_LINEAR, 1.0f), 0);
    EXPECT_EQ(b.setKind(1, MCP_LEFT_HANDLE, 1.0f), 0);
}

TEST(MultiCurve, SetKindUsesTheNearerNeighbour) {
    MultiCurve c =
        make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 1.0f, 1.0f}, {MCP_LINEAR, 5.0f, 0.0f}});
    ASSERT_EQ(c.setKind(1, MCP_FREE_BEZIER, 100.0f), 1);
    EXPECT_FLOAT_EQ(c.positions[1], 0.5f);
    EXPECT_FLOAT_EQ(c.positions[3], 1.5f);
}

TEST(MultiCurve, TiesAreValidOnlyBetweenSplineKeysOrHandles) {
    MultiCurve splines = make({{MCP_SPLINE, 0.0f, 0.0f}, {MCP_SPLINE, 1.0f, 1.0f}});
    EXPECT_EQ(splines.movePoint(1, 0.0f, 1.0f), 1);
    EXPECT_TRUE(splines.isValid());

    MultiCurve linear = make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 1.0f, 1.0f}});
    const auto before = pointsOf(linear);
    EXPECT_EQ(linear.movePoint(1, 0.0f, 5.0f), 0);
    expectSame(pointsOf(linear), before);
    EXPECT_FLOAT_EQ(linear.evaluate(0.5f, 1), 0.5f);  // derived data restored as well
}

TEST(MultiCurve, ValidityRules) {
    EXPECT_TRUE(make({}).isValid());
    // A handle without its key, a handle pointing at a non-Bezier key.
    EXPECT_FALSE(make({{MCP_LEFT_HANDLE, 0.0f, 0.0f}}).isValid());
    EXPECT_FALSE(make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_RIGHT_HANDLE, 1.0f, 0.0f}}).isValid());
    EXPECT_FALSE(make({{MCP_LEFT_HANDLE, 0.0f, 0.0f},
                       {MCP_LEFT_HANDLE, 0.5f, 0.0f},
                       {MCP_FREE_BEZIER, 1.0f, 0.0f},
                       {MCP_RIGHT_HANDLE, 2.0f, 0.0f}})
                     .isValid());
    // A Bezier key without handles.
    EXPECT_FALSE(make({{MCP_SMOOTH_BEZIER, 0.0f, 0.0f}}).isValid());
    // Crossing handles of neighbouring Bezier keys are fine.
    EXPECT_TRUE(make({{MCP_LEFT_HANDLE, -1.0f, 0.0f},
                      {MCP_FREE_BEZIER, 0.0f, 0.0f},
                      {MCP_LEFT_HANDLE, 0.4f, 1.0f},
                      {MCP_RIGHT_HANDLE, 0.6f, 0.0f},
                      {MCP_FREE_BEZIER, 1.0f, 1.0f},
                      {MCP_RIGHT_HANDLE, 2.0f, 1.0f}})
                    .isValid());
    // Keys must lie strictly inside the rectangle; handles need not.
    MultiCurve boxed = make({{MCP_LINEAR, 0.5f, 0.5f}});
    boxed.minX = boxed.minY = 0.0f;
    boxed.maxX = boxed.maxY = 1.0f;
    EXPECT_TRUE(boxed.isValid());
    EXPECT_EQ(boxed.addPoint(1.0f, 0.5f), -1);
    EXPECT_EQ(boxed.addPoint(0.7f, 1.5f), -1);
    EXPECT_EQ(boxed.setKind(0, MCP_FREE_BEZIER, 100.0f), 1);  // handles at +-10, outside
    // A NaN key is never valid.
    EXPECT_FALSE(make({{MCP_LINEAR, NAN, 0.0f}}).isValid());
}

TEST(MultiCurve, AddPointInsertsSplineKeysInOrder) {
    MultiCurve c;
    c.rebuild();
    EXPECT_EQ(c.addPoint(1.0f, 1.0f), 0);
    EXPECT_EQ(c.addPoint(3.0f, 3.0f), 1);
    EXPECT_EQ(c.addPoint(2.0f, 5.0f), 1);
    EXPECT_EQ(c.addPoint(2.0f, 6.0f), 2);  // behind the last point at or below x
    EXPECT_EQ(c.kinds[1], MCP_SPLINE);
    EXPECT_EQ(c.values[1], 5.0f);
    EXPECT_EQ(c.values[2], 6.0f);
    // Kinds 0 and 2 do not exist in a curve.
    c.insertPoint(0, 0, -1.0f, 0.0f);
    c.insertPoint(0, 2, -2.0f, 0.0f);
    EXPECT_EQ(c.kinds[0], MCP_SPLINE);
    EXPECT_EQ(c.kinds[1], MCP_SPLINE);
}

TEST(MultiCurve, DeleteTakesHandlesAlongAndSparesHandles) {
    MultiCurve c =
        make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 1.0f, 1.0f}, {MCP_LINEAR, 2.0f, 0.0f}});
    ASSERT_EQ(c.setKind(1, MCP_FREE_BEZIER, 1.0f), 1);
    ASSERT_EQ(c.count(), 5);
    EXPECT_EQ(c.deletePoint(1), 0);  // a handle
    EXPECT_EQ(c.keyOfHandle(1), 2);
    EXPECT_EQ(c.keyOfHandle(3), 2);
    EXPECT_EQ(c.keyOfHandle(2), -1);
    EXPECT_EQ(c.leftHandle(2), 1);
    EXPECT_EQ(c.rightHandle(2), 3);
    EXPECT_EQ(c.leftHandle(0), -1);
    EXPECT_EQ(c.keyBelow(1.5f), 3);
    EXPECT_EQ(c.keyBelow(-1.0f), -1);
    EXPECT_EQ(c.deletePoint(2), 1);
    ASSERT_EQ(c.count(), 2);
    EXPECT_EQ(c.positions[1], 2.0f);
}

TEST(MultiCurve, DeleteSelectedWalksAgainAfterBezierKeys) {
    MultiCurve c = make({{MCP_LINEAR, 0.0f, 0.0f},
                         {MCP_LINEAR, 1.0f, 1.0f},
                         {MCP_LINEAR, 2.0f, 0.0f},
                         {MCP_LINEAR, 3.0f, 1.0f},
                         {MCP_LINEAR, 4.0f, 0.0f}});
    ASSERT_EQ(c.setKind(1, MCP_FREE_BEZIER, 1.0f), 1);
    ASSERT_EQ(c.setKind(5, MCP_SMOOTH_BEZIER, 1.0f), 1);
    ASSERT_EQ(c.count(), 9);
    for (int i = 0; i < c.count(); ++i) c.selected[i] = true;
    c.selected[0] = false;
    EXPECT_EQ(c.deleteSelected(), 4);
    ASSERT_EQ(c.count(), 1);
    EXPECT_EQ(c.positions[0], 0.0f);
}

TEST(MultiCurve, SortIsStable) {
    MultiCurve c;
    c.insertPoint(0, MCP_SPLINE, 2.0f, 1.0f);
    c.insertPoint(1, MCP_SPLINE, 1.0f, 2.0f);
    c.insertPoint(2, MCP_SPLINE, 2.0f, 3.0f);
    c.insertPoint(3, MCP_SPLINE, 1.0f, 4.0f);
    c.sort();
    const float expected[4] = {2.0f, 4.0f, 1.0f, 3.0f};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(c.values[i], expected[i]) << i;
}

TEST(MultiCurve, NonFiniteInputsDoNotCrash) {
    const MultiCurve c =
        make({{MCP_LINEAR, 0.0f, 0.0f}, {MCP_SPLINE, 1.0f, 1.0f}, {MCP_SPLINE, 2.0f, 0.0f}});
    // NaN finds no key below it: the first key's (linear) rule answers, with NaN.
    EXPECT_TRUE(std::isnan(c.evaluate(NAN, 1)));
    EXPECT_TRUE(std::isfinite(c.evaluate(1e30f, 2)));
    // A Bezier end key whose out-handle sits on the key has no slope to extend: the value is
    // not finite, and the table builders turn it into their safe value.
    const MultiCurve flat = make({{MCP_LINEAR, -1.0f, 0.0f},
                                  {MCP_LEFT_HANDLE, -0.5f, 0.0f},
                                  {MCP_FREE_BEZIER, 0.0f, 1.0f},
                                  {MCP_RIGHT_HANDLE, 0.0f, 1.0f}});
    EXPECT_FALSE(std::isfinite(flat.evaluate(1.0f, 1)));
}

TEST(MultiCurve, BatchEvaluationEqualsOneByOne) {
    MultiCurve c = make({{MCP_LINEAR, 0.0f, 0.0f},
                         {MCP_SPLINE, 800.0f, 0.1f},
                         {MCP_SPLINE, 1500.0f, 0.6f},
                         {MCP_LINEAR, 2200.0f, 0.8f},
                         {MCP_SPLINE, 3000.0f, 1.0f},
                         {MCP_SPLINE, 3200.0f, 0.2f}});
    ASSERT_EQ(c.setKind(2, MCP_SMOOTH_BEZIER, 3500.0f), 1);
    ASSERT_EQ(c.setKind(5, MCP_FREE_BEZIER, 3500.0f), 1);
    ASSERT_EQ(c.movePoint(4, 1800.0f, 0.9f), 1);  // a handle off its key's height
    std::vector<float> xs;
    for (int i = -40; i < 4000; ++i) xs.push_back(static_cast<float>(i) * 0.9f);
    for (float k : {0.0f, 800.0f, 1500.0f, 2200.0f, 3000.0f, 3200.0f, NAN, INFINITY, -1e30f})
        xs.push_back(k);
    std::vector<float> batch(xs.size());
    for (int endMode : {1, 2}) {
        c.evaluateMany(xs.data(), batch.data(), static_cast<int>(xs.size()), endMode);
        for (size_t i = 0; i < xs.size(); ++i) {
            const float one = c.evaluate(xs[i], endMode);
            if (std::isnan(one))
                EXPECT_TRUE(std::isnan(batch[i])) << xs[i];
            else
                EXPECT_EQ(batch[i], one) << xs[i] << " mode " << endMode;
        }
    }
}
