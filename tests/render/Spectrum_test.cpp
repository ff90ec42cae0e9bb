// Tests of the sine and cosine spectra against direct sums, round trips, padding, filters and
// refusals of bad sizes.
#include "render/Spectrum.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace vaporix {
namespace {

constexpr double PI = 3.14159265358979323846;

/// Direct unnormalised transform of one axis of a box (x fastest): 2 sum x_j cos(pi (2j+1) k / 2n)
/// or, with `sine`, 2 sum x_j sin(pi (2j+1)(k+1) / 2n). O(n^2) per line, in double.
void directAxis(std::vector<double>& box, const int n[3], int axis, bool sine) {
    const int64_t stride[3] = {1, n[0], int64_t(n[0]) * n[1]};
    const int len = n[axis];
    std::vector<double> line(static_cast<size_t>(len));
    for (int64_t base = 0; base < int64_t(box.size()); ++base) {
        // A line starts where the axis index is 0.
        if ((base / stride[axis]) % len != 0) continue;
        for (int k = 0; k < len; ++k) {
            double sum = 0.0;
            for (int j = 0; j < len; ++j) {
                const double arg = PI * (2 * j + 1) * (sine ? k + 1 : k) / (2.0 * len);
                sum += box[size_t(base + stride[axis] * j)] * (sine ? std::sin(arg) : std::cos(arg));
            }
            line[size_t(k)] = 2.0 * sum;
        }
        for (int k = 0; k < len; ++k) box[size_t(base + stride[axis] * k)] = line[size_t(k)];
    }
}

std::vector<float> field(const int n[3]) {
    std::vector<float> v(size_t(n[0]) * n[1] * n[2]);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = static_cast<float>(std::sin(0.37 * i) + 0.5 * std::cos(1.3 * i * i) + 0.25);
    return v;
}

template <typename S>
void checkAgainstDirect(bool sine, int threads) {
    const int n[3] = {8, 4, 16};
    const std::vector<float> in = field(n);
    S spectrum;
    const int64_t stride[3] = {1, n[0], int64_t(n[0]) * n[1]};
    ASSERT_TRUE(spectrum.load(in.data(), n, stride));
    ASSERT_TRUE(spectrum.forward(threads));
    std::vector<double> expect(in.begin(), in.end());
    for (int a = 0; a < 3; ++a) directAxis(expect, n, a, sine);
    double peak = 0.0, worst = 0.0;
    for (size_t i = 0; i < expect.size(); ++i) {
        peak = std::max(peak, std::fabs(expect[i]));
        worst = std::max(worst, std::fabs(expect[i] - double(spectrum.data()[i])));
    }
    EXPECT_LT(worst / peak, 1e-5) << (sine ? "sine" : "cosine");
    // And back.
    std::vector<float> out(in.size(), -1.0f);
    ASSERT_TRUE(spectrum.inverse(out.data(), n, stride, threads));
    for (size_t i = 0; i < in.size(); ++i) EXPECT_NEAR(out[i], in[i], 2e-5f) << i;
}

TEST(CosSpectrum, MatchesTheDirectCosineTransformAndRoundTrips) {
    checkAgainstDirect<CosSpectrum<3>>(false, 1);
    checkAgainstDirect<CosSpectrum<3>>(false, 3);
}

TEST(Spectrum, MatchesTheDirectSineTransformAndRoundTrips) {
    checkAgainstDirect<Spectrum<3>>(true, 2);
}

TEST(CosSpectrum, PadsToPowersOfTwoAndReadsBackTheBoxOnly) {
    const int n[3] = {5, 3, 7};
    const std::vector<float> in = field(n);
    // The field lies in a larger array with z outermost and a gap after each row.
    const int64_t stride[3] = {1, 6, 6 * 3};
    std::vector<float> src(6 * 3 * 7, 0.0f), dst(src.size(), 42.0f);
    for (int z = 0; z < 7; ++z)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x) src[x + 6 * y + 18 * z] = in[x + 5 * (y + 3 * z)];
    CosSpectrum<3> spectrum;
    ASSERT_TRUE(spectrum.load(src.data(), n, stride));
    EXPECT_EQ(spectrum.sizes()[0], 8);
    EXPECT_EQ(spectrum.sizes()[1], 4);
    EXPECT_EQ(spectrum.sizes()[2], 8);
    EXPECT_EQ(spectrum.total(), 256);
    ASSERT_TRUE(spectrum.forward());
    ASSERT_TRUE(spectrum.inverse(dst.data(), n, stride));
    for (int z = 0; z < 7; ++z)
        for (int y = 0; y < 3; ++y) {
            for (int x = 0; x < 5; ++x)
                EXPECT_NEAR(dst[x + 6 * y + 18 * z], src[x + 6 * y + 18 * z], 2e-5f);
            EXPECT_EQ(dst[5 + 6 * y + 18 * z], 42.0f);  // the gap is not written
        }
}

TEST(CosSpectrum, LorentzianKeepsTheMeanAndDampsDetail) {
    const int n[3] = {16, 16, 16};
    std::vector<float> in(16 * 16 * 16);
    for (int i = 0; i < int(in.size()); ++i) in[size_t(i)] = 1.0f + ((i & 1) ? 0.5f : -0.5f);
    const int64_t stride[3] = {1, 16, 256};
    CosSpectrum<3> spectrum;
    ASSERT_TRUE(spectrum.load(in.data(), n, stride));
    ASSERT_TRUE(spectrum.forward());
    const float dc = spectrum.get(0);
    spectrum.filterLorentzian(2.0f);
    EXPECT_EQ(spectrum.get(0), dc);
    std::vector<float> out(in.size());
    ASSERT_TRUE(spectrum.inverse(out.data(), n, stride));
    // The alternation along x is the highest frequency: most of it goes, the mean stays.
    double mean = 0.0, swing = 0.0;
    for (float v : out) {
        mean += v;
        swing = std::max(swing, std::fabs(double(v) - 1.0));
    }
    EXPECT_NEAR(mean / double(out.size()), 1.0, 1e-5);
    EXPECT_LT(swing, 0.25);
}

TEST(CosSpectrum, RadialTableFallsFromOneToZero) {
    const float* t = radialLowPassTable();
    EXPECT_FLOAT_EQ(t[0], 1.0f);
    EXPECT_NEAR(t[256], 0.0f, 1e-7f);
    for (int i = 0; i < 256; ++i) EXPECT_LE(t[i + 1], t[i]);
    // A constant passes the radial filter unchanged.
    const int n[3] = {4, 4, 4};
    const std::vector<float> in(64, 3.0f);
    const int64_t stride[3] = {1, 4, 16};
    CosSpectrum<3> spectrum;
    ASSERT_TRUE(spectrum.load(in.data(), n, stride));
    ASSERT_TRUE(spectrum.forward());
    spectrum.filterRadial(t);
    std::vector<float> out(64);
    ASSERT_TRUE(spectrum.inverse(out.data(), n, stride));
    for (float v : out) EXPECT_NEAR(v, 3.0f, 1e-5f);
}

TEST(CosSpectrum, OneCellAxesTransformToo) {
    const int n[3] = {1, 8, 1};
    const std::vector<float> in = field(n);
    const int64_t stride[3] = {1, 1, 8};
    CosSpectrum<3> spectrum;
    ASSERT_TRUE(spectrum.load(in.data(), n, stride));
    ASSERT_TRUE(spectrum.forward());
    std::vector<float> out(8);
    ASSERT_TRUE(spectrum.inverse(out.data(), n, stride));
    for (int i = 0; i < 8; ++i) EXPECT_NEAR(out[size_t(i)], in[size_t(i)], 1e-5f);
}

TEST(Spectrum, RefusesBadSizesAndFailedAllocations) {
    CosSpectrum<3> spectrum;
    const int zero[3] = {0, 4, 4}, negative[3] = {4, -1, 4}, huge[3] = {1 << 30, 1 << 30, 4};
    EXPECT_FALSE(spectrum.allocate(zero));
    EXPECT_FALSE(spectrum.allocate(negative));
    EXPECT_FALSE(spectrum.allocate(huge));
    EXPECT_EQ(spectrum.total(), 0);
    EXPECT_FALSE(spectrum.forward());
    const int ok[3] = {3, 3, 3};
    Spectrum<3>::failNextAllocation = true;
    EXPECT_FALSE(spectrum.allocate(ok));
    EXPECT_TRUE(spectrum.allocate(ok));
    EXPECT_EQ(spectrum.total(), 64);
}

}  // namespace
}  // namespace vaporix
