// Tests of ColorGradient: evaluation, extrapolation and clamping, and the key operations.
#include "editors/ColorGradient.h"

#include <gtest/gtest.h>

#include <cmath>

using vaporix::ColorGradient;

namespace {

ColorGradient twoKeys() {
    ColorGradient g;
    const float black[3] = {0.0f, 0.2f, 1.0f};
    const float white[3] = {1.0f, 0.6f, 0.0f};
    g.addKey(0.0f, black);
    g.addKey(1.0f, white);
    return g;
}

}  // namespace

TEST(ColorGradient, EmptyIsBlackEverywhere) {
    const ColorGradient g;
    float c[3] = {9, 9, 9};
    for (float x : {-1.0f, 0.0f, 100.0f}) {
        g.evaluate(x, c);
        EXPECT_EQ(c[0], 0.0f);
        EXPECT_EQ(c[1], 0.0f);
        EXPECT_EQ(c[2], 0.0f);
    }
}

TEST(ColorGradient, OneKeyIsItsColourEverywhere) {
    ColorGradient g;
    const float rgb[3] = {0.25f, 0.5f, 0.75f};
    g.addKey(3.0f, rgb);
    float c[3];
    for (float x : {-100.0f, 2.9f, 3.0f, 3.1f, 1e6f}) {
        g.evaluate(x, c);
        EXPECT_FLOAT_EQ(c[0], 0.25f) << x;
        EXPECT_FLOAT_EQ(c[1], 0.5f) << x;
        EXPECT_FLOAT_EQ(c[2], 0.75f) << x;
    }
}

TEST(ColorGradient, TwoKeysMeanAtTheMiddleAndClampOutside) {
    const ColorGradient g = twoKeys();
    float c[3];
    g.evaluate(0.5f, c);
    EXPECT_NEAR(c[0], 0.5f, 1e-5f);
    EXPECT_NEAR(c[1], 0.4f, 1e-5f);
    EXPECT_NEAR(c[2], 0.5f, 1e-5f);
    // Outside, the splines extrapolate and every component is limited to 0..1.
    g.evaluate(-0.25f, c);
    EXPECT_EQ(c[0], 0.0f);
    EXPECT_NEAR(c[1], 0.1f, 1e-5f);
    EXPECT_EQ(c[2], 1.0f);
    g.evaluate(10.0f, c);
    EXPECT_EQ(c[0], 1.0f);
    EXPECT_EQ(c[1], 1.0f);
    EXPECT_EQ(c[2], 0.0f);
}

TEST(ColorGradient, UnevenKeysFollowThePositionSpline) {
    ColorGradient g;
    const float a[3] = {0, 0, 0}, b[3] = {0.5f, 0.5f, 0.5f}, d[3] = {1, 1, 1};
    g.addKey(0.0f, a);
    g.addKey(4.0f, d);
    g.addKey(1.0f, b);  // lands between the two
    ASSERT_EQ(g.count(), 3);
    EXPECT_EQ(g.keyPosition(1), 1.0f);
    float c[3];
    for (int i = 0; i < 3; ++i) {
        g.evaluate(g.keyPosition(i), c);
        float k[3];
        g.keyColor(i, k);
        EXPECT_NEAR(c[0], k[0], 1e-5f) << i;
    }
    // Monotone between keys here, and never outside 0..1.
    float last = -1.0f;
    for (int s = 0; s <= 40; ++s) {
        g.evaluate(s * 0.1f, c);
        EXPECT_GE(c[0], last - 1e-6f);
        last = c[0];
    }
}

TEST(ColorGradient, NonFiniteArgumentsGiveFiniteColours) {
    const ColorGradient g = twoKeys();
    float c[3];
    for (float x : {NAN, INFINITY, -INFINITY}) {
        g.evaluate(x, c);
        for (float v : c) {
            EXPECT_TRUE(std::isfinite(v));
            EXPECT_GE(v, 0.0f);
            EXPECT_LE(v, 1.0f);
        }
    }
}

TEST(ColorGradient, ShiftSelectedReportsWhereTheKeyLanded) {
    ColorGradient g;
    const float r[3] = {1, 0, 0}, gr[3] = {0, 1, 0}, b[3] = {0, 0, 1};
    g.addKey(0.0f, r);
    g.addKey(1.0f, gr);
    g.addKey(2.0f, b);
    g.selected[0] = true;
    EXPECT_EQ(g.shiftSelected(1.5f, 0), 1);
    EXPECT_FLOAT_EQ(g.keyPosition(1), 1.5f);
    float k[3];
    g.keyColor(1, k);
    EXPECT_EQ(k[0], 1.0f);
    EXPECT_TRUE(g.selected[1]);
    EXPECT_EQ(g.shiftSelected(5.0f, 1), 2);
    EXPECT_FLOAT_EQ(g.keyPosition(2), 6.5f);
    // A drag that passes nothing keeps the index.
    EXPECT_EQ(g.shiftSelected(-0.5f, 2), 2);
}

TEST(ColorGradient, DeleteInsertAndSort) {
    ColorGradient g;
    const float c0[3] = {0.1f, 0.1f, 0.1f}, c1[3] = {0.2f, 0.2f, 0.2f}, c2[3] = {0.3f, 0.3f, 0.3f};
    EXPECT_EQ(g.insertKey(0, 2.0f, c2), 0);
    EXPECT_EQ(g.insertKey(0, 0.0f, c0), 0);
    EXPECT_EQ(g.insertKey(99, 1.0f, c1), 2);  // clamped to the end, out of order
    g.sort();
    EXPECT_EQ(g.keyPosition(1), 1.0f);
    EXPECT_EQ(g.red.knot(1), 0.2f);
    g.selected[0] = g.selected[2] = true;
    g.deleteSelected();
    ASSERT_EQ(g.count(), 1);
    EXPECT_EQ(g.keyPosition(0), 1.0f);
    g.deleteKey(5);
    g.deleteKey(0);
    EXPECT_EQ(g.count(), 0);
    EXPECT_EQ(g.selected.count, 0);
}

TEST(ColorGradient, EqualsAndAssign) {
    const ColorGradient a = twoKeys();
    ColorGradient b;
    EXPECT_FALSE(b.equals(a));
    b.assign(a);
    EXPECT_TRUE(b.equals(a));
    b.green.set(1, 0.61f, true);
    EXPECT_FALSE(b.equals(a));
    b.assign(a);
    b.position.set(0, NAN, true);
    EXPECT_FALSE(b.equals(b));  // NaN counts as different, even from itself
}

TEST(ColorGradient, BatchEvaluationEqualsOneByOne) {
    ColorGradient g;
    const float a[3] = {0.0f, 0.1f, 1.0f}, b[3] = {0.9f, 0.2f, 0.0f}, c[3] = {1.0f, 1.0f, 0.3f};
    g.addKey(0.0f, a);
    g.addKey(0.3f, b);
    g.addKey(2.0f, c);
    float xs[700];
    for (int i = 0; i < 700; ++i) xs[i] = static_cast<float>(i) * 0.004f - 0.3f;
    xs[5] = NAN;
    float rgb[3 * 700];
    g.evaluateMany(xs, rgb, 700);
    for (int i = 0; i < 700; ++i) {
        float one[3];
        g.evaluate(xs[i], one);
        for (int k = 0; k < 3; ++k) EXPECT_EQ(rgb[3 * i + k], one[k]) << i;
    }
    ColorGradient empty;
    empty.evaluateMany(xs, rgb, 2);
    EXPECT_EQ(rgb[0] + rgb[4], 0.0f);
}
