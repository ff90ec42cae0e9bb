// Tests of the index-parameter cubic spline: interpolation, extrapolation, flags and inverse.
#include "editors/CSpline.h"

#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <vector>

using vaporix::CSpline;

namespace {

CSpline make(std::initializer_list<float> knots, int flags = 0) {
    CSpline s;
    s.flags = flags;
    for (float v : knots) s.append(v, false);
    s.recompute();
    return s;
}

}  // namespace

TEST(CSpline, EmptyAndSingleKnot) {
    CSpline empty;
    EXPECT_EQ(empty.value(3.0f), 0.0f);
    EXPECT_EQ(empty.inverse(3.0f), 0.0f);

    const CSpline one = make({2.5f});
    for (float u : {-10.0f, 0.0f, 0.5f, 1.0f, 7.0f}) EXPECT_EQ(one.value(u), 2.5f) << u;
    EXPECT_EQ(one.inverse(1.0f), -0.001f);
    EXPECT_EQ(one.inverse(3.0f), 0.001f);
    EXPECT_EQ(one.inverse(2.5f), 0.0f);
}

TEST(CSpline, PassesThroughKnotsAndReproducesLines) {
    const CSpline s = make({1.0f, 4.0f, -2.0f, 0.5f, 3.0f});
    for (int i = 0; i < s.count; ++i) EXPECT_FLOAT_EQ(s.value(static_cast<float>(i)), s.knot(i));

    // Equally spaced values: every tangent is the common step, so the spline is the line,
    // inside and in both extrapolations.
    const CSpline line = make({0.0f, 2.0f, 4.0f, 6.0f});
    for (float u : {-3.0f, -0.5f, 0.25f, 1.5f, 2.75f, 3.0f, 3.5f, 4.0f, 9.0f})
        EXPECT_NEAR(line.value(u), 2.0f * u, 1e-5f) << u;
}

TEST(CSpline, TangentRules) {
    // Central differences inside, one-sided chords at the ends.
    const CSpline s = make({0.0f, 1.0f, 4.0f, 9.0f});
    EXPECT_FLOAT_EQ(s.tangent(0), 1.0f);
    EXPECT_FLOAT_EQ(s.tangent(1), 2.0f);
    EXPECT_FLOAT_EQ(s.tangent(2), 4.0f);
    EXPECT_FLOAT_EQ(s.tangent(3), 5.0f);

    // Monotone: zero at a local extremum, otherwise the flatter chord.
    const CSpline peak = make({0.0f, 1.0f, 0.0f}, CSpline::MONOTONE);
    EXPECT_EQ(peak.tangent(1), 0.0f);
    const CSpline rising = make({0.0f, 1.0f, 4.0f}, CSpline::MONOTONE);
    EXPECT_FLOAT_EQ(rising.tangent(1), 1.0f);
    const CSpline falling = make({4.0f, 1.0f, 0.0f}, CSpline::MONOTONE);
    EXPECT_FLOAT_EQ(falling.tangent(1), -1.0f);

    // Closed: the ends wrap.
    const CSpline ring = make({0.0f, 1.0f, 3.0f}, CSpline::CLOSED);
    EXPECT_FLOAT_EQ(ring.tangent(0), (1.0f - 3.0f) * 0.5f);
    EXPECT_FLOAT_EQ(ring.tangent(2), (0.0f - 1.0f) * 0.5f);
}

TEST(CSpline, MonotoneFlagPreventsOvershoot) {
    const CSpline plain = make({0.0f, 0.0f, 1.0f, 1.0f});
    const CSpline mono = make({0.0f, 0.0f, 1.0f, 1.0f}, CSpline::MONOTONE);
    float plainMin = 1.0f, plainMax = 0.0f;
    for (int k = 0; k <= 300; ++k) {
        const float u = k * 0.01f;
        const float v = mono.value(u);
        EXPECT_GE(v, 0.0f) << u;
        EXPECT_LE(v, 1.0f) << u;
        plainMin = std::fmin(plainMin, plain.value(u));
        plainMax = std::fmax(plainMax, plain.value(u));
    }
    // The plain cubic does overshoot on this data; that is why positions use the flag.
    EXPECT_LT(plainMin, 0.0f);
    EXPECT_GT(plainMax, 1.0f);
}

TEST(CSpline, ClampAndClosedFlags) {
    const CSpline clamped = make({1.0f, 3.0f, 2.0f}, CSpline::CLAMP);
    EXPECT_EQ(clamped.value(-5.0f), 1.0f);
    EXPECT_EQ(clamped.value(10.0f), 2.0f);

    const CSpline ring = make({0.0f, 1.0f, 3.0f, 1.0f}, CSpline::CLOSED);
    EXPECT_FLOAT_EQ(ring.value(4.5f), ring.value(0.5f));
    // The remainder keeps the sign of u: below 0 a closed spline extrapolates from the first
    // knot as an open one does, instead of wrapping round to the end.
    EXPECT_FLOAT_EQ(ring.value(-0.5f), -0.5f * ring.segments[0].c + ring.segments[0].d);
    EXPECT_FLOAT_EQ(ring.value(-4.5f), ring.value(-0.5f));
    EXPECT_NE(ring.value(-0.5f), ring.value(3.5f));
    // The last piece runs back to the first knot.
    EXPECT_NEAR(ring.value(3.999f), 0.0f, 1e-2f);

    // Closed and clamped: first the remainder, then the clamp to 0..n-1.
    const CSpline both = make({0.0f, 1.0f, 3.0f, 1.0f}, CSpline::CLOSED | CSpline::CLAMP);
    EXPECT_EQ(both.value(-0.5f), 0.0f);
    EXPECT_EQ(both.value(-2.5f), 0.0f);
    EXPECT_EQ(both.value(3.5f), both.value(3.0f));
    EXPECT_EQ(both.value(3.5f), 1.0f);
    EXPECT_FLOAT_EQ(both.value(5.5f), ring.value(1.5f));
}

TEST(CSpline, ExtrapolationFollowsEndSlopes) {
    const CSpline s = make({0.0f, 1.0f, 4.0f});
    // Below 0: the first knot's value and tangent.
    EXPECT_FLOAT_EQ(s.value(-2.0f), -2.0f * s.segments[0].c + s.segments[0].d);
    // At u >= n: the end of the last knot's piece and its end slope.
    const auto& l = s.segments[2];
    const float end = l.a + l.b + l.c + l.d;
    const float slope = 3 * l.a + 2 * l.b + l.c;
    EXPECT_FLOAT_EQ(s.value(5.0f), end + 2.0f * slope);
    // The last knot's piece continues the last chord: its end lies one chord further.
    EXPECT_FLOAT_EQ(end, 4.0f + 3.0f);
}

TEST(CSpline, InverseRoundTripsInsideTheRange) {
    const CSpline up = make({0.0f, 2.0f, 3.0f, 7.0f}, CSpline::MONOTONE);
    for (float u : {0.0f, 0.3f, 1.0f, 1.7f, 2.2f, 3.0f})
        EXPECT_NEAR(up.inverse(up.value(u)), u, 1e-5f) << u;
    const CSpline down = make({5.0f, 4.0f, 1.0f, 0.0f}, CSpline::MONOTONE);
    for (float u : {0.1f, 1.5f, 2.9f}) EXPECT_NEAR(down.inverse(down.value(u)), u, 1e-5f) << u;
}

TEST(CSpline, InverseOutsideTheRange) {
    CSpline s = make({1.0f, 3.0f, 4.0f});
    // Extension along the end tangents: tangent(0) = 2, tangent(2) = 1.
    EXPECT_FLOAT_EQ(s.inverse(-3.0f), (-3.0f - 1.0f) / 2.0f);
    EXPECT_FLOAT_EQ(s.inverse(6.0f), (6.0f - 4.0f) / 1.0f + 2.0f);
    s.flags |= CSpline::STRICT_INVERSE;
    EXPECT_FLOAT_EQ(s.inverse(-3.0f), -0.001f);
    EXPECT_FLOAT_EQ(s.inverse(6.0f), 2.001f);
}

TEST(CSpline, EditingKeepsCoefficientsCurrent) {
    CSpline s;
    for (int i = 0; i < 9; ++i) ASSERT_TRUE(s.append(static_cast<float>(i), true));
    // Growth: eight knots first, then doubling.
    EXPECT_EQ(s.capacity, 16);
    s.insert(0, -1.0f, true);
    EXPECT_EQ(s.count, 10);
    EXPECT_EQ(s.knot(0), -1.0f);
    s.remove(0, true);
    s.set(8, 8.0f, true);
    for (int i = 0; i < s.count; ++i) EXPECT_NEAR(s.value(i + 0.5f), i + 0.5f, 1e-5f);
    EXPECT_FALSE(s.insert(42, 1.0f, true));
    s.remove(-1, true);
    EXPECT_EQ(s.count, 9);

    const CSpline copy(s);
    EXPECT_EQ(copy.count, 9);
    EXPECT_EQ(copy.value(2.25f), s.value(2.25f));
}

TEST(CSpline, NonFiniteArgumentsStaySafe) {
    const CSpline s = make({0.0f, 1.0f, 2.0f});
    EXPECT_TRUE(std::isnan(s.value(NAN)));
    EXPECT_TRUE(std::isfinite(s.inverse(NAN)));
    EXPECT_TRUE(std::isinf(s.value(INFINITY)));
}

TEST(CSpline, BatchInverseEqualsOneByOne) {
    // Sorted runs share the first rounds of their bisections; any order, repeats, knots hit
    // exactly, values outside the range and splines that are not monotone must give the very
    // results of one inverse at a time.
    std::vector<std::vector<float>> inputs;
    std::vector<float> ramp(300), down(300), shuffled(300), repeats(300);
    for (int i = 0; i < 300; ++i) {
        ramp[i] = static_cast<float>(i) * 0.03f - 1.0f;
        down[i] = 8.0f - static_cast<float>(i) * 0.031f;
        shuffled[i] = static_cast<float>((i * 7919) % 300) * 0.027f - 0.5f;
        repeats[i] = static_cast<float>(i / 10) * 0.3f;
    }
    ramp[7] = NAN;
    ramp[8] = 2.0f;  // a knot: the bisection may hit it exactly
    ramp[9] = 2.0f;
    inputs = {ramp, down, shuffled, repeats, std::vector<float>(ramp.begin(), ramp.begin() + 13)};
    for (int flags : {0, int{CSpline::MONOTONE}, int{CSpline::STRICT_INVERSE}}) {
        for (const CSpline& s :
             {make({0.0f, 2.0f, 3.0f, 7.0f, 7.5f}, flags), make({5.0f, 1.0f, 0.5f}, flags),
              make({1.0f}, flags), make({0.0f, 0.1f, 5.0f, 5.1f, 5.2f, 9.0f}, flags)}) {
            for (const std::vector<float>& ys : inputs) {
                const int n = static_cast<int>(ys.size());
                std::vector<float> us(ys.size());
                s.inverseMany(ys.data(), us.data(), n);
                for (int i = 0; i < n; ++i) {
                    const float one = s.inverse(ys[i]);
                    if (std::isnan(one))
                        EXPECT_TRUE(std::isnan(us[i]));
                    else
                        EXPECT_EQ(us[i], one) << i << " flags " << flags << " y " << ys[i];
                }
            }
        }
    }
}
