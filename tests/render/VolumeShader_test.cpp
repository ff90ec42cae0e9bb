// Tests of the ray marcher: analytic media, segment order, step edge cases, shadow roads, the
// probabilistic road, samplers, the light cache and the set-up from the parameters.
#include "render/VolumeShader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "cache/VaporixFrameData.h"
#include "playback/MemoryParamStorage.h"
#include "playback/VaporixParams.h"

namespace vaporix {
namespace {

// FastPow2's relative error bound per evaluation (the fit is good to about 7e-5).
constexpr double POW2_TOLERANCE = 1e-4;

/// Constant light on everything; records the calls it gets.
class ConstantIlluminator : public Illuminator {
public:
    float light[3] = {0.0f, 0.0f, 0.0f};
    int calls = 0;
    void Illuminate(float out[3], const float*, const float diffuse[3], float*, float*) override {
        ++calls;
        for (int c = 0; c < 3; ++c) out[c] = light[c] * diffuse[c];
    }
};

/// Records the t of every step the combiner accepts, by shader.
class OrderIlluminator : public ConstantIlluminator {
public:
    std::vector<std::pair<const VolumeShader*, double>> steps;
    /// World x of every lit point, through the current shader's transform.
    std::vector<float> litX;
    void Illuminate(float out[3], const float p[3], const float d[3], float* a, float* n) override {
        float w[3];
        currentShader->gridToWorld(p, w, 0.0f);
        litX.push_back(w[0]);
        ConstantIlluminator::Illuminate(out, p, d, a, n);
    }
    void ApplyAtmosphere(float*, const VolumeSegment& segment) override {
        steps.emplace_back(segment.shader, segment.t);
    }
};

/// Random numbers from a list, then repeating its last value.
class ScriptedIlluminator : public ConstantIlluminator {
public:
    std::vector<float> values;
    size_t next = 0;
    float Random() override {
        if (values.empty()) return 0.0f;
        const float v = values[std::min(next, values.size() - 1)];
        ++next;
        return v;
    }
};

/// A shader over grid data held by the test: identity transform (one world unit a cell),
/// no light cache, nothing skipped, deterministic steps.
struct TestGrid {
    int size[3];
    std::vector<float> smoke, emission;
    std::vector<TableColor> emissionTable;
    VolumeShader shader;

    TestGrid(int nx, int ny, int nz, float density)
        : size{nx, ny, nz},
          smoke(static_cast<size_t>(nx) * ny * nz, density),
          emission(static_cast<size_t>(nx) * ny * nz, 1.0f),
          emissionTable(SHADING_TABLE_ROWS, TableColor{1.0f, 0.5f, 0.25f}) {
        shader.flags = VolumeShader::pureVolumetric | VolumeShader::applyAtmospherics;
        shader.InitVolume(size);
        shader.sampler = 1;
        shader.channel[2] = smoke.data();
        shader.channel[0] = emission.data();
        shader.smokeExtinction = std::log(0.5f);
        shader.skipOpacity = 0.0f;
        shader.stopTransparency = 0.0f;
        shader.stepShade = 0.5f;
        shader.stepShadow = 0.5f;
        shader.scatterMode = 1;
    }
    /// Smoke lit by the illuminator (grey diffuse colour 1) and absorbing.
    void smokeOnly() {
        shader.flags |= VolumeShader::hasDiffuse;
        shader.simpleColor[0] = shader.simpleColor[1] = shader.simpleColor[2] = 1.0f;
    }
    /// Fire of the emission table, fully visible or by smoke opacity.
    void fire(int mode) {
        shader.flags |= VolumeShader::hasEmission;
        shader.fireOpacityMode = mode;
        shader.emissionColorTable = emissionTable.data();
        shader.shadeChannelMask = SAMPLE_EMISSION;
    }
    /// Moves the grid in the world: world = grid + offset.
    void offset(float x, float y, float z) {
        shader.worldToGridTM[0].m[9] = -x;
        shader.worldToGridTM[0].m[10] = -y;
        shader.worldToGridTM[0].m[11] = -z;
        shader.gridToWorldTM[0].m[9] = x;
        shader.gridToWorldTM[0].m[10] = y;
        shader.gridToWorldTM[0].m[11] = z;
    }
};

struct TraceResult {
    float color[3] = {0, 0, 0};
    float transparency[3] = {1, 1, 1};
    int status = 0;
};

TraceResult trace(const VolumeShader* const* shaders,
                  int count,
                  Illuminator& illum,
                  const double from[3],
                  const double to[3],
                  bool wantsColor = true,
                  int samples = 0) {
    TraceResult r;
    r.status = VolumeShader::TraceVolumes(from, to, r.color, r.transparency, illum, 0.0f, shaders,
                                          count, wantsColor, 1.0f, samples);
    return r;
}

TraceResult traceOne(const VolumeShader& s,
                     Illuminator& illum,
                     const double from[3],
                     const double to[3],
                     bool wantsColor = true) {
    const VolumeShader* list[1] = {&s};
    return trace(list, 1, illum, from, to, wantsColor);
}

TEST(FastPow2, FollowsTwoToThePower) {
    for (float p = -100.0f; p < 30.0f; p += 0.0137f) {
        const double exact = std::exp2(static_cast<double>(p));
        EXPECT_NEAR(FastPow2(p) / exact, 1.0, POW2_TOLERANCE) << p;
    }
    // Down to the smallest normal float the fit holds too; below it the result stays there.
    for (float p = -125.95f; p < -100.0f; p += 0.05f) {
        const double exact = std::exp2(static_cast<double>(p));
        EXPECT_NEAR(FastPow2(p) / exact, 1.0, POW2_TOLERANCE) << p;
    }
    EXPECT_FLOAT_EQ(FastPow2(0.0f), 1.0f);
    // Far below the float range it stays a tiny positive number instead of wrapping.
    EXPECT_GT(FastPow2(-1000.0f), 0.0f);
    EXPECT_LT(FastPow2(-1000.0f), 1e-37f);
}

TEST(FastPow2, ReachesTheTopOfTheFloatRange) {
    // No cut below 128: the fit's own bits all the way up. At p = 128 they are those of
    // 8388608 * (128 + 121.27405548 + 27.72802353 / 4.84252548) in floats: 0x7f7fff80, a
    // finite float within 1e-5 of the largest one.
    float top = FastPow2(128.0f);
    uint32_t bits;
    std::memcpy(&bits, &top, 4);
    EXPECT_EQ(bits, 0x7f7fff80u);
    EXPECT_TRUE(std::isfinite(top));
    EXPECT_NEAR(top / std::numeric_limits<float>::max(), 1.0, 1e-5);
    for (float p = 120.0f; p < 128.0f; p += 0.0625f)
        EXPECT_NEAR(FastPow2(p) / std::exp2(static_cast<double>(p)), 1.0, POW2_TOLERANCE) << p;
    EXPECT_GT(FastPow2(127.995f), FastPow2(127.99f));
    // Far above, the integer conversion stays defined (UBSan checks it) and the result is
    // whatever the fit's bits give at the guard; it is never a small number.
    EXPECT_FALSE(FastPow2(1e30f) < 1e38f);
}

TEST(VolumeShader, ConstantBoxTransmittanceIsExponential) {
    TestGrid g(16, 8, 8, 0.75f);
    g.smokeOnly();
    ConstantIlluminator illum;
    // Along x through the middle: 16 world units of density 0.75 and extinction ln 0.5.
    const double from[3] = {-5.0, 4.0, 4.0}, to[3] = {30.0, 4.0, 4.0};
    const TraceResult r = traceOne(g.shader, illum, from, to);
    ASSERT_EQ(r.status, 1);
    const double expected = std::exp(std::log(0.5) * 0.75 * 16.0);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(r.transparency[c] / expected, 1.0, 32 * POW2_TOLERANCE);
    // No light, no emission: no colour.
    EXPECT_EQ(r.color[0], 0.0f);

    // The same along a diagonal: the step follows the dominant axis, the length is the world's.
    const double dFrom[3] = {-1.0, -0.5, -0.5}, dTo[3] = {17.0, 8.5, 8.5};
    const TraceResult d = traceOne(g.shader, illum, dFrom, dTo);
    const double diagLength = std::sqrt(16.0 * 16.0 + 8.0 * 8.0 + 8.0 * 8.0);
    // Without jitter the partial last step is not sampled: at most one step short.
    const double stepLen = 0.5 * diagLength / 16.0;
    const double full = std::exp(std::log(0.5) * 0.75 * diagLength);
    const double oneShort = std::exp(std::log(0.5) * 0.75 * (diagLength - stepLen));
    EXPECT_GE(d.transparency[0], full * (1 - 40 * POW2_TOLERANCE));
    EXPECT_LE(d.transparency[0], oneShort * (1 + 40 * POW2_TOLERANCE));
}

TEST(VolumeShader, LitSmokeAddsTheLightThroughItsOwnTransparency) {
    TestGrid g(16, 4, 4, 0.5f);
    g.smokeOnly();
    ConstantIlluminator illum;
    illum.light[0] = illum.light[1] = illum.light[2] = 2.0f;
    const double from[3] = {-1.0, 2.0, 2.0}, to[3] = {20.0, 2.0, 2.0};
    const TraceResult r = traceOne(g.shader, illum, from, to);
    // Each step adds T * light * alpha: the sum telescopes to light * (1 - T_end).
    EXPECT_NEAR(r.color[0], 2.0f * (1.0f - r.transparency[0]), 1e-4);
    EXPECT_GT(illum.calls, 0);
}

TEST(VolumeShader, EmissionOnlySlabIntegratesAlongTheRay) {
    TestGrid g(8, 4, 4, 0.0f);
    g.fire(1);
    ConstantIlluminator illum;
    const double from[3] = {-1.0, 2.0, 2.0}, to[3] = {10.0, 2.0, 2.0};
    const TraceResult r = traceOne(g.shader, illum, from, to);
    // Fully visible fire with no smoke: the colour times the length, nothing absorbed.
    EXPECT_NEAR(r.color[0], 8.0f, 1e-4);
    EXPECT_NEAR(r.color[1], 4.0f, 1e-4);
    EXPECT_NEAR(r.color[2], 2.0f, 1e-4);
    EXPECT_EQ(r.transparency[0], 1.0f);

    // Fire that uses the smoke's opacity: with no smoke it shows nothing.
    TestGrid s(8, 4, 4, 0.0f);
    s.fire(0);
    const TraceResult none = traceOne(s.shader, illum, from, to);
    EXPECT_EQ(none.color[0], 0.0f);
    // With smoke it shows colour * (1 - T) over a constant medium.
    TestGrid t(8, 4, 4, 1.0f);
    t.fire(0);
    const TraceResult some = traceOne(t.shader, illum, from, to);
    EXPECT_NEAR(some.color[0], 1.0f - some.transparency[0], 1e-5);
    EXPECT_NEAR(some.color[1], 0.5f * (1.0f - some.transparency[0]), 1e-5);
}

TEST(VolumeShader, DegenerateAndGrazingRaysChangeNothing) {
    TestGrid g(4, 4, 4, 1.0f);
    g.smokeOnly();
    ConstantIlluminator illum;
    const double p[3] = {2.0, 2.0, 2.0}, q[3] = {2.0, 2.0, 2.0 + 5e-7};
    const TraceResult r = traceOne(g.shader, illum, p, q);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.transparency[0], 1.0f);
    const TraceResult s = traceOne(g.shader, illum, p, q, false);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.transparency[0], 1.0f);

    // Along the top face: the clipped interval is empty, so no segment.
    SegmentList list;
    list.illuminator = &illum;
    list.wantsColor = 1;
    const VolumeShader* shaders[1] = {&g.shader};
    const double a[3] = {-1.0, 4.0, 1.0}, b[3] = {5.0, 4.0 + 1e-9, 1.0};
    EXPECT_FALSE(VolumeShader::BuildSegments(list, shaders, 1, a, b, 0.0f));
    EXPECT_EQ(list.count, 0);
    // A ray that misses the box entirely.
    const double c[3] = {-1.0, 6.0, 1.0}, d[3] = {5.0, 6.0, 1.0};
    const TraceResult miss = traceOne(g.shader, illum, c, d);
    EXPECT_EQ(miss.status, 1);
    EXPECT_EQ(miss.transparency[0], 1.0f);
}

TEST(VolumeShader, OverlappingGridsInterleaveTheirStepsInDepthOrder) {
    TestGrid a(8, 2, 2, 0.2f), b(8, 2, 2, 0.2f);
    a.smokeOnly();
    b.smokeOnly();
    b.offset(3.3f, 0.0f, 0.0f);  // overlaps a from x = 3.3 to 8
    OrderIlluminator illum;
    illum.light[0] = illum.light[1] = illum.light[2] = 1.0f;
    const VolumeShader* shaders[2] = {&b.shader, &a.shader};
    const double from[3] = {-1.0, 1.0, 1.0}, to[3] = {20.0, 1.0, 1.0};
    const TraceResult r = trace(shaders, 2, illum, from, to);
    ASSERT_GT(illum.steps.size(), 20u);
    bool sawA = false, sawB = false, switched = false;
    for (size_t i = 1; i < illum.steps.size(); ++i) {
        EXPECT_LE(illum.steps[i - 1].second, illum.steps[i].second) << "step " << i;
        if (illum.steps[i].first != illum.steps[i - 1].first) switched = true;
    }
    for (auto& s : illum.steps) (s.first == &a.shader ? sawA : sawB) = true;
    EXPECT_TRUE(sawA && sawB && switched);
    // Points of each grid are lit where they are in the world (b reaches to x = 11.3).
    ASSERT_FALSE(illum.litX.empty());
    EXPECT_GT(*std::max_element(illum.litX.begin(), illum.litX.end()), 10.0f);
    EXPECT_LT(*std::min_element(illum.litX.begin(), illum.litX.end()), 1.0f);
    // Both media attenuate: the product of the two transparencies.
    // (A step may fall just past either end, hence the tolerance of one step's absorption.)
    const double expected = std::exp(std::log(0.5) * 0.2 * 16.0);
    EXPECT_NEAR(r.transparency[0] / expected, 1.0, 0.08);
}

TEST(VolumeShader, SkipThresholdSkipsThinSmokeButNotFullyVisibleFire) {
    const double from[3] = {-1.0, 2.0, 2.0}, to[3] = {10.0, 2.0, 2.0};
    ConstantIlluminator illum;
    TestGrid none(8, 4, 4, 0.3f);
    none.smokeOnly();
    const TraceResult kept = traceOne(none.shader, illum, from, to);
    EXPECT_LT(kept.transparency[0], 0.9f);

    TestGrid all(8, 4, 4, 0.3f);
    all.smokeOnly();
    all.shader.skipOpacity = 1e6f;
    const TraceResult skipped = traceOne(all.shader, illum, from, to);
    EXPECT_EQ(skipped.transparency[0], 1.0f);

    TestGrid fire(8, 4, 4, 0.3f);
    fire.smokeOnly();
    fire.fire(1);
    fire.shader.skipOpacity = 0.5f;  // fire's colour sum is 1.75, above it
    const TraceResult shown = traceOne(fire.shader, illum, from, to);
    EXPECT_EQ(shown.transparency[0], 1.0f);
    EXPECT_NEAR(shown.color[0], 8.0f, 1e-4);
}

TEST(VolumeShader, SoftBorderFadesTheEdgesOnly) {
    const double from[3] = {5.0, 5.0, -1.0}, to[3] = {5.0, 5.0, 12.0};
    ConstantIlluminator illum;
    TestGrid plain(11, 11, 11, 0.0f);
    plain.fire(1);
    plain.shader.stepShade = 1.0f;
    const float base = traceOne(plain.shader, illum, from, to).color[0];

    TestGrid half(11, 11, 11, 0.0f);
    half.fire(1);
    half.shader.stepShade = 1.0f;
    half.shader.softBorder = 0.5f;
    EXPECT_EQ(traceOne(half.shader, illum, from, to).color[0], base);

    // A sample deeper than the border carries the border's value as a factor (twice at 2.0);
    // the samples on the way in and out fade with their distance to the face.
    TestGrid soft(11, 11, 11, 0.0f);
    soft.fire(1);
    soft.shader.stepShade = 1.0f;
    soft.shader.softBorder = 2.0f;
    const float c = traceOne(soft.shader, illum, from, to).color[0];
    // Samples at z = 0..10 (plus the clamp at 11 which is beyond the last cell):
    // factors d/2 for d < 2 and 2 beyond; d = min(z, 10 - z), and z = 11 reads d = 0.
    float expected = 0.0f;
    for (int z = 0; z <= 11; ++z) {
        const float d = std::max(0.0f, std::min(float(z), 10.0f - float(z)));
        if (z == 0) continue;  // the first sample is one step in
        expected += d < 2.0f ? d / 2.0f : 2.0f;
    }
    EXPECT_NEAR(c, expected, 1e-4);
    EXPECT_GT(c, base);
}

TEST(VolumeShader, JitteredLastStepClampsOnceAndEndsPastTheEnd) {
    TestGrid g(8, 2, 2, 1.0f);
    g.smokeOnly();
    g.shader.flags |= VolumeShader::jitter;
    g.shader.stepShade = 1.0f;
    ScriptedIlluminator illum;
    illum.values = {0.25f};
    SegmentList list;
    list.illuminator = &illum;
    list.wantsColor = 1;
    const VolumeShader* shaders[1] = {&g.shader};
    const double from[3] = {0.0, 1.0, 1.0}, to[3] = {3.5, 1.0, 1.0};
    ASSERT_FALSE(VolumeShader::BuildSegments(list, shaders, 1, from, to, 0.0f));
    ASSERT_EQ(list.count, 1);
    VolumeSegment& s = *list.first;
    std::vector<float> xs;
    while (g.shader.NextStep(s, illum, list)) xs.push_back(s.position[0]);
    // Steps at 1, 2, 3 less the jitter of a quarter step; the step that crosses 3.5 is
    // clamped once, its sample (at 4 - 0.25) lies past the end and ends the segment.
    ASSERT_EQ(xs.size(), 3u);
    EXPECT_FLOAT_EQ(xs[0], 0.75f);
    EXPECT_FLOAT_EQ(xs[2], 2.75f);
    EXPECT_TRUE(s.state & SEG_LAST_STEP);

    // With a jitter of 0.75 the clamped step's sample (4 - 0.75) is inside: one more sample.
    SegmentList list2;
    list2.illuminator = &illum;
    list2.wantsColor = 1;
    illum.values = {0.75f};
    illum.next = 0;
    ASSERT_FALSE(VolumeShader::BuildSegments(list2, shaders, 1, from, to, 0.0f));
    VolumeSegment& s2 = *list2.first;
    xs.clear();
    while (g.shader.NextStep(s2, illum, list2)) xs.push_back(s2.position[0]);
    ASSERT_EQ(xs.size(), 4u);
    EXPECT_FLOAT_EQ(xs[3], 3.25f);
}

TEST(VolumeShader, ShadowRoadsAgreeForBlackSmokeAndSaturateForWhite) {
    TestGrid g(16, 4, 4, 0.25f);
    g.smokeOnly();
    g.shader.simpleColor[0] = g.shader.simpleColor[1] = g.shader.simpleColor[2] = 0.0f;
    g.shader.stopTransparency = 1e-6f;
    ConstantIlluminator illum;
    const double from[3] = {-1.0, 2.0, 2.0}, to[3] = {20.0, 2.0, 2.0};
    g.shader.scatterMode = 1;  // plain road
    const TraceResult plain = traceOne(g.shader, illum, from, to, false);
    g.shader.scatterMode = 3;  // weighted road
    const TraceResult weighted = traceOne(g.shader, illum, from, to, false);
    // The weighted road sums step opacities (E) and, for albedo 0, returns exp(-E), which is
    // close to the plain product for thin steps.
    EXPECT_NEAR(weighted.transparency[0], plain.transparency[0], 0.02f);
    EXPECT_LT(plain.transparency[0], 0.5f);

    // White smoke scatters light on: transmission 1 / (E + 1), more than the absorption.
    g.shader.simpleColor[0] = g.shader.simpleColor[1] = g.shader.simpleColor[2] = 1.0f;
    const TraceResult white = traceOne(g.shader, illum, from, to, false);
    EXPECT_GT(white.transparency[0], plain.transparency[0]);

    // Dense enough to pass the limit: fully dark at once.
    TestGrid dense(16, 4, 4, 50.0f);
    dense.smokeOnly();
    dense.shader.simpleColor[0] = dense.shader.simpleColor[1] = dense.shader.simpleColor[2] = 0.0f;
    dense.shader.scatterMode = 3;
    dense.shader.stopTransparency = 0.01f;
    const TraceResult dark = traceOne(dense.shader, illum, from, to, false);
    EXPECT_EQ(dark.transparency[0], 0.0f);
    dense.shader.scatterMode = 1;
    EXPECT_EQ(traceOne(dense.shader, illum, from, to, false).transparency[0], 0.0f);
}

TEST(VolumeShader, ProbabilisticPrimaryAveragesToTheMarchedResult) {
    TestGrid g(8, 4, 4, 0.6f);
    g.smokeOnly();
    g.fire(0);
    ConstantIlluminator exact;
    exact.light[0] = exact.light[1] = exact.light[2] = 0.5f;
    const double from[3] = {-1.0, 2.0, 2.0}, to[3] = {10.0, 2.0, 2.0};
    const TraceResult reference = traceOne(g.shader, exact, from, to);

    g.shader.flags |= VolumeShader::probabilisticPrimary;
    ConstantIlluminator illum;
    illum.light[0] = illum.light[1] = illum.light[2] = 0.5f;
    illum.seed = 12345;
    const int n = 20000;
    double colour = 0.0, transparency = 0.0;
    for (int i = 0; i < n; ++i) {
        const TraceResult r = traceOne(g.shader, illum, from, to);
        // Each ray either stops somewhere or passes: transparency 0 or 1.
        ASSERT_TRUE(r.transparency[0] == 0.0f || r.transparency[0] == 1.0f);
        colour += r.color[0];
        transparency += r.transparency[0];
    }
    colour /= n;
    transparency /= n;
    // Binomial standard error of the mean: sqrt(p(1-p)/n) ~ 0.0035 here; allow 4 of them.
    const double p = reference.transparency[0];
    EXPECT_NEAR(transparency, p, 4 * std::sqrt(p * (1 - p) / n));
    EXPECT_NEAR(colour, reference.color[0], 0.02 * reference.color[0] + 0.005);
}

TEST(VolumeShader, SamplersReadCellsAtIntegerPositionsAndWrap) {
    TestGrid g(4, 4, 4, 0.0f);
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                g.smoke[size_t(x + 4 * (y + 4 * z))] = float(x + 10 * y + 100 * z);
    VolumeSample s;
    const float at[3] = {1.0f, 2.0f, 3.0f};
    for (int kind = 0; kind < 3; ++kind) {
        g.shader.sample(s, at, SAMPLE_OPACITY | SAMPLE_RAW, kind, 0.0f);
        EXPECT_NEAR(s.opacity, 321.0f, kind == 2 ? 1e-3f : 0.0f) << kind;
    }
    // Linear and spherical reproduce a linear field between the cells (spherical in its
    // interior, linear at the borders).
    const float mid[3] = {1.5f, 1.25f, 1.75f};
    g.shader.sample(s, mid, SAMPLE_OPACITY | SAMPLE_RAW, 1, 0.0f);
    EXPECT_NEAR(s.opacity, 1.5f + 12.5f + 175.0f, 1e-3f);
    g.shader.sample(s, mid, SAMPLE_OPACITY | SAMPLE_RAW, 2, 0.0f);
    EXPECT_NEAR(s.opacity, 1.5f + 12.5f + 175.0f, 1e-3f);
    // Box: nearest cell, and zero outside an unwrapped axis.
    const float near[3] = {1.4f, 2.6f, 0.2f};
    g.shader.sample(s, near, SAMPLE_OPACITY | SAMPLE_RAW, 0, 0.0f);
    EXPECT_EQ(s.opacity, 31.0f);
    const float outside[3] = {-0.7f, 1.0f, 1.0f};
    g.shader.sample(s, outside, SAMPLE_OPACITY | SAMPLE_RAW, 0, 0.0f);
    EXPECT_EQ(s.opacity, 0.0f);
    // Linear clamps outside; a wrapped x reads the far side.
    g.shader.sample(s, outside, SAMPLE_OPACITY | SAMPLE_RAW, 1, 0.0f);
    EXPECT_EQ(s.opacity, 110.0f);
    g.shader.wrapMask = 1;
    g.shader.sample(s, outside, SAMPLE_OPACITY | SAMPLE_RAW, 0, 0.0f);
    EXPECT_EQ(s.opacity, 113.0f);  // cell -1 is cell 3
    const float wrapMid[3] = {-0.5f, 1.0f, 1.0f};
    g.shader.sample(s, wrapMid, SAMPLE_OPACITY | SAMPLE_RAW, 1, 0.0f);
    EXPECT_NEAR(s.opacity, 0.5f * 113.0f + 0.5f * 110.0f, 1e-4f);
    // Remapping turns raw values into 0..1 arguments.
    g.shader.wrapMask = 0;
    g.shader.remapScale[2] = 0.01f;
    g.shader.remapOffset[2] = -1.0f;
    g.shader.sample(s, at, SAMPLE_OPACITY, 1, 0.0f);
    EXPECT_NEAR(s.opacity, 2.21f, 1e-5f);
}

TEST(VolumeShader, LightCacheFillsEachCornerOnceAndReadsTheLastCellAtTheFarFace) {
    TestGrid g(3, 3, 3, 1.0f);
    g.shader.flags |= VolumeShader::lightCacheOn;
    g.shader.InitVolume(g.size);
    ASSERT_NE(g.shader.lightCache, nullptr);
    g.shader.subRed = 0.5f;
    ConstantIlluminator illum;
    illum.light[0] = 1.0f;
    illum.light[1] = 2.0f;
    illum.light[2] = 3.0f;
    float out[3];
    const float p[3] = {0.5f, 0.5f, 0.5f};
    g.shader.ReadLightCache(out, p, illum);
    // The grey diffuse of 1 - subred is divided out again.
    EXPECT_NEAR(out[0], 1.0f, 1e-6);
    EXPECT_NEAR(out[2], 3.0f, 1e-6);
    EXPECT_EQ(illum.calls, 8);
    g.shader.ReadLightCache(out, p, illum);
    EXPECT_EQ(illum.calls, 8);
    EXPECT_EQ(illum.mode, 0);  // modes restored after the fill
    const float far[3] = {3.0f, 3.0f, 3.0f};
    g.shader.ReadLightCache(out, far, illum);
    EXPECT_EQ(illum.calls, 9);  // one corner: the last cell
    EXPECT_NEAR(out[1], 2.0f, 1e-6);
}

TEST(VolumeShader, SetupFromTheDefaultParameters) {
    MemoryParamStorage storage;
    VaporixParamsMax params(storage);
    VaporixFrameData frame;
    const float size[3] = {6, 5, 4};
    ASSERT_TRUE(frame.initEmpty(size, 0.5f, false));
    std::vector<float> smoke(6 * 5 * 4, 0.5f), temp(6 * 5 * 4, 1200.0f);
    SGCompressor<3> codec;
    ASSERT_TRUE(codec.encodeRaw(smoke.data(), int64_t(smoke.size())));
    ASSERT_TRUE(frame.appendStreamBlock(CH_SMOKE, codec.output.data, uint64_t(codec.output.count)));
    ASSERT_TRUE(codec.encodeRaw(temp.data(), int64_t(temp.size())));
    ASSERT_TRUE(
        frame.appendStreamBlock(CH_TEMPERATURE, codec.output.data, uint64_t(codec.output.count)));

    ShadingTables tables;
    ResetEmission(params, -1);
    ResetDiffuse(params, -1);
    ResetOpacity(params, -1);
    tables.buildFrameTables(params, 0.0, ShadingInputs{});
    VolumeShader shader;
    ShaderSetup setup;
    shader.SetupShader(params, tables, frame, setup, 0.0, false);

    EXPECT_TRUE(shader.flags & VolumeShader::volumeReady);
    EXPECT_TRUE(shader.flags & VolumeShader::pureVolumetric);
    EXPECT_TRUE(shader.flags & VolumeShader::applyAtmospherics);
    EXPECT_TRUE(shader.flags & VolumeShader::hasEmission);
    EXPECT_TRUE(shader.flags & VolumeShader::hasDiffuse);
    EXPECT_EQ(shader.gridSize[0], 6);
    EXPECT_FLOAT_EQ(shader.boundingBox[5], 4.0f);
    // Cells of half a world unit.
    EXPECT_NEAR(shader.cellSize[0], 0.5f, 1e-6);
    // transpmode 1: the interface's values are opacities to stop at and transparencies to skip.
    EXPECT_NEAR(shader.stopTransparency, 1.0f - params.getFloat("stoptransp"), 1e-6);
    EXPECT_NEAR(shader.skipOpacity, params.getFloat("skiptransp"), 1e-6);
    EXPECT_NEAR(shader.smokeExtinction, std::log(1.0f - params.getFloat("smoketransp")), 1e-6);
    EXPECT_NEAR(shader.stepShade, params.getInt("rendstep") * 0.01f, 1e-6);
    EXPECT_EQ(shader.channel[2], frame.GetChannelData(CH_SMOKE));
    EXPECT_EQ(shader.channel[0], frame.GetChannelData(CH_TEMPERATURE));
    EXPECT_NE(shader.emissionColorTable, nullptr);
    EXPECT_EQ(shader.opacityTable, nullptr);  // simple smoke
    EXPECT_EQ(shader.maxBounces, 0x7fffffff);

    // transpmode 0 turns the interface's values around.
    ASSERT_TRUE(params.setInt("transpmode", 0.0, 0));
    ASSERT_TRUE(params.setFloat("smoketransp", 0.0, 0.25f));
    ASSERT_TRUE(params.setFloat("skiptransp", 0.0, 0.9f));
    shader.SetupShader(params, tables, frame, setup, 0.0, false);
    EXPECT_NEAR(shader.smokeExtinction, std::log(0.25f), 1e-6);
    EXPECT_NEAR(shader.skipOpacity, 0.1f, 1e-6);
    EXPECT_NEAR(shader.stopTransparency, params.getFloat("stoptransp"), 1e-6);
}

TEST(VolumeShader, ScaledObjectKeepsItsLook) {
    // A grid twice as large in the world, with extinction halved by the scene scale, gives the
    // same transparency along the same relative path.
    auto run = [](float scale) {
        MemoryParamStorage storage;
        VaporixParamsMax params(storage);
        VaporixFrameData frame;
        const float size[3] = {8, 4, 4};
        EXPECT_TRUE(frame.initEmpty(size, 1.0f, false));
        std::vector<float> smoke(8 * 4 * 4, 1.0f);
        SGCompressor<3> codec;
        EXPECT_TRUE(codec.encodeRaw(smoke.data(), int64_t(smoke.size())));
        EXPECT_TRUE(
            frame.appendStreamBlock(CH_SMOKE, codec.output.data, uint64_t(codec.output.count)));
        params.setInt("jitter", 0.0, 0);
        params.setFloat("skiptransp", 0.0, 0.0f);
        params.setFloat("stoptransp", 0.0, 1.0f);
        ShadingTables tables;
        tables.buildFrameTables(params, 0.0, ShadingInputs{});
        VolumeShader shader;
        ShaderSetup setup;
        for (int a = 0; a < 3; ++a) setup.objectToWorld.m[4 * a] = scale;
        shader.SetupShader(params, tables, frame, setup, 0.0, false);
        shader.flags &= ~VolumeShader::lightCacheOn;
        ConstantIlluminator illum;
        // Through the middle of the grid along x (grid x from 0 to 8 is world -4..4 * scale).
        const double from[3] = {-10.0 * scale, 0.0, 2.0 * scale},
                     to[3] = {10.0 * scale, 0.0, 2.0 * scale};
        return traceOne(shader, illum, from, to).transparency[0];
    };
    const float one = run(1.0f), two = run(2.0f);
    EXPECT_LT(one, 0.9f);
    EXPECT_NEAR(two, one, 1e-3f);
}

}  // namespace
}  // namespace vaporix

namespace vaporix {
namespace {

TEST(VolumeShader, FindSurfaceRefinesTheCrossingAndFacesTheRay) {
    // A sphere of radius 5 around (8, 8, 8): surface argument = 10 - distance, level 5.
    TestGrid g(16, 16, 16, 0.0f);
    for (int z = 0; z < 16; ++z)
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 16; ++x)
                g.smoke[size_t(x + 16 * (y + 16 * z))] =
                    10.0f -
                    std::sqrt(float((x - 8) * (x - 8) + (y - 8) * (y - 8) + (z - 8) * (z - 8)));
    g.shader.channel[3] = g.smoke.data();
    g.shader.surfaceLevel = 5.0f;
    const double o[3] = {-4.0, 8.0, 8.0};
    const float d[3] = {1.0f, 0.0f, 0.0f};
    float normal[3];
    double t = 0.0;
    bool insideOut = true;
    ASSERT_TRUE(g.shader.FindSurface(o, d, 40.0, 0.7f, normal, 1, 1, 0.0f, t, insideOut));
    // Entering at x = 3 (linear interpolation of the distance is exact along the axis).
    EXPECT_NEAR(o[0] + t, 3.0, 1e-3);
    EXPECT_FALSE(insideOut);
    EXPECT_NEAR(normal[0], -1.0f, 1e-3);
    // Looking for the way out from inside finds the far side, normal along the ray.
    const double in[3] = {8.0, 8.0, 8.0};
    ASSERT_TRUE(g.shader.FindSurface(in, d, 40.0, 0.7f, normal, 2, 1, 0.0f, t, insideOut));
    EXPECT_NEAR(in[0] + t, 13.0, 1e-3);
    EXPECT_TRUE(insideOut);
    // A ray that passes beside the sphere finds nothing.
    const double beside[3] = {-4.0, 15.0, 15.0};
    EXPECT_FALSE(g.shader.FindSurface(beside, d, 40.0, 0.7f, normal, 3, 1, 0.0f, t, insideOut));
}

TEST(VolumeShader, HeatHazeBendsTowardsTheTemperatureGradient) {
    TestGrid g(8, 8, 8, 0.0f);
    std::vector<float> temp(8 * 8 * 8);
    for (int z = 0; z < 8; ++z)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x) temp[size_t(x + 8 * (y + 8 * z))] = 100.0f * float(y);
    g.shader.temperatureChannel = temp.data();
    g.shader.hazeFactor = 0.001f;
    float dir[3] = {1.0f, 0.0f, 0.0f};
    const float p[3] = {4.0f, 4.0f, 4.0f};
    ASSERT_TRUE(g.shader.Refract(dir, p, 1.0f, 0.0f));
    EXPECT_GT(dir[1], 0.0f);
    EXPECT_NEAR(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2], 1.0f, 1e-5f);
    // Along the gradient nothing bends.
    float up[3] = {0.0f, 1.0f, 0.0f};
    EXPECT_FALSE(g.shader.Refract(up, p, 1.0f, 0.0f));
}

TEST(VolumeShader, GammaRaisesColourOverTransparency) {
    TestGrid g(8, 4, 4, 0.3f);
    g.smokeOnly();
    ConstantIlluminator illum;
    illum.light[0] = illum.light[1] = illum.light[2] = 0.5f;
    const VolumeShader* list[1] = {&g.shader};
    const double from[3] = {-1.0, 2.0, 2.0}, to[3] = {10.0, 2.0, 2.0};
    float c1[3] = {0, 0, 0}, t1[3] = {1, 1, 1}, c2[3] = {0, 0, 0}, t2[3] = {1, 1, 1};
    VolumeShader::TraceVolumes(from, to, c1, t1, illum, 0.0f, list, 1, true, 1.0f, 0);
    VolumeShader::TraceVolumes(from, to, c2, t2, illum, 0.0f, list, 1, true, 2.0f, 0);
    EXPECT_EQ(t1[0], t2[0]);
    EXPECT_NEAR(c2[0], std::pow(c1[0] / t1[0], 2.0f) * t1[0], 1e-6f);
}

}  // namespace
}  // namespace vaporix

namespace vaporix {
namespace {

/// Light from one direction, shadowed by the volumes: a shadow ray per lit point.
class ShadowingIlluminator : public Illuminator {
public:
    const VolumeShader* const* shaders = nullptr;
    int count = 0;
    void Illuminate(
        float out[3], const float p[3], const float diffuse[3], float*, float*) override {
        float w[3];
        currentShader->gridToWorld(p, w, 0.0f);
        const double from[3] = {w[0], w[1], w[2]};
        const double to[3] = {w[0] - 40.0, w[1] + 10.0, w[2] + 60.0};
        ConstantIlluminator shadow;
        shadow.seed = seed;
        float colour[3] = {0, 0, 0}, t[3] = {1, 1, 1};
        VolumeShader::TraceVolumes(from, to, colour, t, shadow, 0.0f, shaders, count, false);
        for (int c = 0; c < 3; ++c) out[c] = 3.0f * t[c] * diffuse[c];
    }
};

/// A frame with a smoke ball and a hot core, empty around them.
struct BallFrame {
    VaporixFrameData frame;
    MemoryParamStorage storage;
    VaporixParamsMax params{storage};
    ShadingTables tables;

    explicit BallFrame(int fireMode) {
        const int n[3] = {40, 32, 48};
        const float size[3] = {40, 32, 48};
        EXPECT_TRUE(frame.initEmpty(size, 1.0f, false));
        std::vector<float> smoke(size_t(n[0]) * n[1] * n[2]), temp(smoke.size());
        for (int z = 0; z < n[2]; ++z)
            for (int y = 0; y < n[1]; ++y)
                for (int x = 0; x < n[0]; ++x) {
                    const float d = std::sqrt(
                        float((x - 20) * (x - 20) + (y - 16) * (y - 16) + (z - 20) * (z - 20)));
                    const size_t i = size_t(x + n[0] * (y + n[1] * z));
                    smoke[i] = d < 9.0f ? 0.8f * (1.0f - d / 9.0f) : 0.0f;
                    temp[i] = d < 5.0f ? 2200.0f * (1.0f - d / 5.0f) : 0.0f;
                }
        SGCompressor<3> codec;
        EXPECT_TRUE(codec.encodeRaw(smoke.data(), int64_t(smoke.size())));
        EXPECT_TRUE(
            frame.appendStreamBlock(CH_SMOKE, codec.output.data, uint64_t(codec.output.count)));
        EXPECT_TRUE(codec.encodeRaw(temp.data(), int64_t(temp.size())));
        EXPECT_TRUE(frame.appendStreamBlock(CH_TEMPERATURE, codec.output.data,
                                            uint64_t(codec.output.count)));
        ResetEmission(params, -1);
        ResetDiffuse(params, -1);
        ResetOpacity(params, -1);
        params.setInt("fire_opacity_mode", 0.0, fireMode);
        params.setInt("lightcache", 0.0, 0);
        struct Ranges : IChannelRangeSource {
            VaporixFrameData* f;
            bool getChannelRange(int c, float& lo, float& hi) override {
                return f->getChannelRange(c, lo, hi);
            }
        } ranges;
        ranges.f = &frame;
        tables.setRanges(params, 0.0, &ranges);
        tables.buildFrameTables(params, 0.0, ShadingInputs{});
    }
};

/// Colour and transparency of a fan of camera rays.
std::vector<float> renderFan(const VolumeShader& shader) {
    const VolumeShader* list[1] = {&shader};
    ShadowingIlluminator illum;
    illum.shaders = list;
    illum.count = 1;
    illum.mode = IM_CAMERA;
    std::vector<float> out;
    for (int i = 0; i < 24; ++i)
        for (int j = 0; j < 18; ++j) {
            illum.seed = uint32_t(1 + i * 31 + j);
            const double from[3] = {-60.0, -50.0, 25.0};
            const double to[3] = {60.0, 40.0 - 3.0 * i, -10.0 + 4.0 * j};
            float c[3] = {0, 0, 0}, t[3] = {1, 1, 1};
            VolumeShader::TraceVolumes(from, to, c, t, illum, 0.0f, list, 1, true);
            out.insert(out.end(), {c[0], c[1], c[2], t[0], t[1], t[2]});
        }
    return out;
}

TEST(VolumeShader, SkippingEmptyBlocksAndTheFastShadowMarchChangeNoPixel) {
    for (int mode = 0; mode <= 2; ++mode) {
        BallFrame ball(mode);
        VolumeShader shader;
        shader.SetupShader(ball.params, ball.tables, ball.frame, ShaderSetup{}, 0.0, false);
        ASSERT_NE(shader.emptyBlocks, nullptr) << mode;
        int empty = 0;
        const int blocks = shader.blockCount[0] * shader.blockCount[1] * shader.blockCount[2];
        for (int b = 0; b < blocks; ++b) empty += shader.emptyBlocks[b];
        EXPECT_GT(empty, blocks / 3) << mode;
        EXPECT_LT(empty, blocks) << mode;
        const std::vector<float> withBlocks = renderFan(shader);

        delete[] shader.emptyBlocks;
        shader.emptyBlocks = nullptr;
        const std::vector<float> without = renderFan(shader);
        // An all-clear transparency map sends shadow rays down the general road.
        std::vector<uint32_t> clearMap(size_t(40 * 32 * 48 / 32 + 1), 0u);
        shader.transparencyMap = clearMap.data();
        const std::vector<float> general = renderFan(shader);
        shader.transparencyMap = nullptr;

        ASSERT_EQ(withBlocks.size(), without.size());
        float lit = 0.0f;
        for (size_t i = 0; i < withBlocks.size(); ++i) {
            EXPECT_EQ(withBlocks[i], without[i]) << "mode " << mode << " value " << i;
            EXPECT_EQ(withBlocks[i], general[i]) << "mode " << mode << " value " << i;
            if (i % 6 < 3) lit += withBlocks[i];
        }
        EXPECT_GT(lit, 0.0f) << mode;
    }
}

}  // namespace
}  // namespace vaporix
