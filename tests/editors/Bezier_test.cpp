// Tests of the Bezier evaluators: cubic pieces, end extrapolation and the quadratic companion.
#include "editors/Bezier.h"

#include <gtest/gtest.h>

#include <cmath>

#include "editors/MultiCurve.h"

using vaporix::Bezier;
using vaporix::MultiCurve;

namespace {

/// An independent solve of a cubic Bezier piece: Newton on x(t), then y(t).
float cubicAt(const Bezier::Point p[4], float x) {
    double t = 0.5;
    for (int k = 0; k < 60; ++k) {
        const double s = 1 - t;
        const double xt = s * s * s * p[0].x + 3 * s * s * t * p[1].x + 3 * s * t * t * p[2].x +
                          t * t * t * p[3].x;
        const double dx = 3 * s * s * (p[1].x - p[0].x) + 6 * s * t * (p[2].x - p[1].x) +
                          3 * t * t * (p[3].x - p[2].x);
        t -= (xt - x) / dx;
    }
    const double s = 1 - t;
    return static_cast<float>(s * s * s * p[0].y + 3 * s * s * t * p[1].y + 3 * s * t * t * p[2].y +
                              t * t * t * p[3].y);
}

Bezier twoKeys() {
    Bezier b;
    const Bezier::Point pts[6] = {{-0.5f, -1.0f, 0}, {0.0f, 0.0f, 0}, {0.3f, 0.9f, 0},
                                  {0.8f, 1.2f, 0},   {1.0f, 1.0f, 0}, {1.5f, 0.5f, 0}};
    for (const auto& p : pts) b.points.append(p);
    return b;
}

}  // namespace

TEST(Bezier, MalformedCountsGiveZero) {
    Bezier b;
    EXPECT_EQ(b.evaluate(0.5f), 0.0f);
    b.points.append({0, 1, 0});
    b.points.append({1, 2, 0});
    EXPECT_EQ(b.evaluate(0.5f), 0.0f);
}

TEST(Bezier, PieceMatchesAnIndependentSolve) {
    const Bezier b = twoKeys();
    const Bezier::Point piece[4] = {b.points[1], b.points[2], b.points[3], b.points[4]};
    for (float x : {0.05f, 0.25f, 0.5f, 0.75f, 0.95f})
        EXPECT_NEAR(b.evaluate(x), cubicAt(piece, x), 2e-5f) << x;
}

TEST(Bezier, EndsExtendThroughTheOuterHandles) {
    const Bezier b = twoKeys();
    EXPECT_FLOAT_EQ(b.evaluate(0.0f), 0.0f);
    EXPECT_FLOAT_EQ(b.evaluate(-1.0f), -2.0f);  // slope 2 through (-0.5, -1)
    EXPECT_FLOAT_EQ(b.evaluate(1.0f), 1.0f);
    EXPECT_FLOAT_EQ(b.evaluate(2.0f), 0.0f);  // slope -1 through (1.5, 0.5)
}

TEST(Bezier, FindsThePieceAmongManyKeys) {
    Bezier b;
    for (int k = 0; k < 7; ++k) {
        const float x = static_cast<float>(k);
        const float y = static_cast<float>(k * k);
        b.points.append({x - 0.25f, y, 0});
        b.points.append({x, y, 0});
        b.points.append({x + 0.25f, y, 0});
    }
    for (int k = 0; k < 6; ++k) {
        const Bezier::Point piece[4] = {b.points[3 * k + 1], b.points[3 * k + 2],
                                        b.points[3 * k + 3], b.points[3 * k + 4]};
        const float x = k + 0.4f;
        EXPECT_NEAR(b.evaluate(x), cubicAt(piece, x), 1e-4f) << x;
    }
}

TEST(Bezier, QuadraticCompanion) {
    const float p[6] = {0.0f, 0.0f, 0.5f, 1.0f, 1.0f, 0.0f};
    EXPECT_EQ(MultiCurve::evaluateQuadratic(p, -1.0f), 0.0f);
    EXPECT_EQ(MultiCurve::evaluateQuadratic(p, 2.0f), 0.0f);
    // Symmetric control points: x = t, and y = 2t(1 - t).
    for (float x : {0.1f, 0.25f, 0.5f, 0.8f})
        EXPECT_NEAR(MultiCurve::evaluateQuadratic(p, x), 2 * x * (1 - x), 1e-5f) << x;
    const float q[6] = {0.0f, 1.0f, 0.5f, 1.0f, 2.0f, 3.0f};
    EXPECT_EQ(MultiCurve::evaluateQuadratic(q, 2.0f), 3.0f);
}
