// Tests of the black-body tables: the observer data, the lit rows, and rows against an
// independent computation and published chromaticities.
#include "render/Blackbody.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace vaporix;

namespace {

/// XYZ of a temperature from CODATA 2018 constants, summed as the table sums (5 nm, 360 to
/// 710 nm, the step counted as the number 5, the renderer's scale).
void referenceXYZ(double t, double xyz[3]) {
    const double h = 6.62607015e-34, c = 299792458.0, k = 1.380649e-23;
    const double pi = 3.14159265358979323846;
    xyz[0] = xyz[1] = xyz[2] = 0.0;
    for (int i = 0; i < CIE_SAMPLES; ++i) {
        const double l = (360.0 + 5.0 * i) * 1e-9;
        const double b = 2.0 * pi * h * c * c / std::pow(l, 5) / std::expm1(h * c / (k * t * l));
        xyz[0] += b * CIE1931_X[i] * 5.0 * 3.1471528e-10;
        xyz[1] += b * CIE1931_Y[i] * 5.0 * 3.1471528e-10;
        xyz[2] += b * CIE1931_Z[i] * 5.0 * 3.1471528e-10;
    }
}

}  // namespace

TEST(Blackbody, ObserverTablesLookLikeTheStandard) {
    double sx = 0, sy = 0, sz = 0;
    for (int i = 0; i < CIE_SAMPLES; ++i) {
        sx += CIE1931_X[i];
        sy += CIE1931_Y[i];
        sz += CIE1931_Z[i];
    }
    // The full 360-830 nm sums are 21.371 (x, y) and 21.378 (z); little lies beyond 710 nm.
    EXPECT_NEAR(sx, 21.359, 0.002);
    EXPECT_NEAR(sy, 21.366, 0.002);
    EXPECT_NEAR(sz, 21.379, 0.002);
    EXPECT_EQ(CIE1931_Y[(555 - 360) / 5], 1.0f);  // peak of the luminosity function
    EXPECT_EQ(CIE1931_Z[(650 - 360) / 5], 0.0f);
}

TEST(Blackbody, RowsOutsideTheLitRangeAreBlack) {
    float c[3];
    for (float t : {-5.0f, 0.0f, 150.0f, 150.4f, 10000.0f, 9999.5f, 1e9f, NAN}) {
        blackbodyXYZ(t, c);
        EXPECT_EQ(c[1], 0.0f) << t;
        blackbodyRGB(t, c);
        EXPECT_EQ(c[0] + c[1] + c[2], 0.0f) << t;
        EXPECT_EQ(blackbodyLuminance(t), 0.0f) << t;
    }
    // 151 K is the first row read. Its value lies below the smallest float (about 1e-50
    // in double), so it reads as 0 all the same; the rule is seen on the row.
    EXPECT_FALSE(isBlackbodyLit(150.0f));
    EXPECT_FALSE(isBlackbodyLit(150.49f));
    EXPECT_TRUE(isBlackbodyLit(150.5f));  // rounds to 151
    EXPECT_TRUE(isBlackbodyLit(151.0f));
    EXPECT_TRUE(isBlackbodyLit(9999.0f));
    EXPECT_FALSE(isBlackbodyLit(9999.5f));
    EXPECT_FALSE(isBlackbodyLit(10000.0f));
    float row[3], rgb[3];
    computeBlackbodyRow(151, row, rgb);
    blackbodyXYZ(151.0f, c);
    EXPECT_EQ(c[1], row[1]);
    EXPECT_GT(blackbodyLuminance(400.0f), 0.0f);  // the dimmest rows that floats can hold
    EXPECT_GT(blackbodyLuminance(9999.0f), 0.0f);
    EXPECT_EQ(blackbodyRow(150.5f), 151);
    EXPECT_EQ(blackbodyRow(1e20f), 10000);
    EXPECT_EQ(blackbodyRow(-1.0f), 0);
}

TEST(Blackbody, RowsMatchAnIndependentComputation) {
    for (int t : {400, 800, 1500, 3000, 5500, 9999}) {
        double ref[3];
        referenceXYZ(t, ref);
        float xyz[3];
        blackbodyXYZ(static_cast<float>(t), xyz);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(xyz[c] / ref[c], 1.0, 2e-4) << t << " " << c;
        EXPECT_EQ(blackbodyLuminance(static_cast<float>(t)), xyz[1]);

        // RGB: the matrix, negatives clamped, mean scaled to 683 Y / 6000.
        const double m[3][3] = {{2.370672, -0.900039, -0.470634},
                                {-0.513883, 1.425302, 0.088581},
                                {0.005298, -0.014695, 1.009397}};
        double r[3];
        for (int c = 0; c < 3; ++c)
            r[c] = std::fmax(0.0, m[c][0] * ref[0] + m[c][1] * ref[1] + m[c][2] * ref[2]);
        const double s = 683.0 * ref[1] / ((r[0] + r[1] + r[2]) / 3.0) / 6000.0;
        float rgb[3];
        blackbodyRGB(static_cast<float>(t), rgb);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(rgb[c], r[c] * s, 2e-4 * r[c] * s + 1e-30) << t;
        EXPECT_NEAR((rgb[0] + rgb[1] + rgb[2]) / 3.0, 683.0 * xyz[1] / 6000.0,
                    1e-5 * 683.0 * xyz[1] / 6000.0);
    }
}

TEST(Blackbody, ChromaticityFollowsThePlanckianLocus) {
    // Published chromaticities of black bodies: CIE illuminant A (2856 K) and 6500 K.
    struct P {
        int t;
        double x, y;
    };
    for (const P& p : {P{2856, 0.44757, 0.40745}, P{6500, 0.31352, 0.32363}}) {
        float c[3];
        blackbodyXYZ(static_cast<float>(p.t), c);
        const double sum = static_cast<double>(c[0]) + c[1] + c[2];
        EXPECT_NEAR(c[0] / sum, p.x, 2e-3) << p.t;
        EXPECT_NEAR(c[1] / sum, p.y, 2e-3) << p.t;
    }
}

TEST(Blackbody, FireIsRedAndHotterIsBluer) {
    float low[3], high[3];
    blackbodyRGB(1500.0f, low);
    blackbodyRGB(9000.0f, high);
    EXPECT_GT(low[0], low[1]);
    EXPECT_GT(low[1], low[2]);
    EXPECT_GT(high[2] / high[0], low[2] / low[0]);
    EXPECT_GT(blackbodyLuminance(3000.0f), blackbodyLuminance(1500.0f));
}

TEST(Blackbody, ComputedRowEqualsTheTable) {
    float xyz[3], rgb[3], t[3];
    computeBlackbodyRow(4321, xyz, rgb);
    blackbodyXYZ(4321.0f, t);
    EXPECT_EQ(xyz[0], t[0]);
    EXPECT_EQ(xyz[2], t[2]);
    blackbodyRGB(4321.2f, t);
    EXPECT_EQ(rgb[1], t[1]);
}
