// Tests of the procedural textures: value ranges, lattice zeros, continuity, period, seeds,
// the mapping of scale and offset, and the reader of descriptions with its refusals.
#include "render/Texture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "render/VolumeShader.h"

namespace vaporix {
namespace {

/// Points spread over a few lattice cells, off the lattice.
template <typename F>
void forSamplePoints(F&& f) {
    for (int i = 0; i < 500; ++i) {
        const float p[3] = {0.37f * i - 40.0f, std::sin(0.71f * i) * 9.0f, 0.113f * i};
        f(p);
    }
}

TEST(GradientNoise, VanishesOnTheLatticeAndStaysInRange) {
    for (int x = -3; x < 3; ++x)
        for (int y = -3; y < 3; ++y) {
            const float p[3] = {float(x), float(y), 7.0f};
            EXPECT_EQ(gradientNoise(p, 5), 0.0f);
        }
    float lo = 1.0f, hi = -1.0f;
    forSamplePoints([&](const float* p) {
        const float n = gradientNoise(p, 1);
        lo = std::min(lo, n);
        hi = std::max(hi, n);
    });
    EXPECT_GE(lo, -1.0f);
    EXPECT_LE(hi, 1.0f);
    // It is noise, not a constant.
    EXPECT_LT(lo, -0.2f);
    EXPECT_GT(hi, 0.2f);
}

TEST(GradientNoise, IsContinuousPeriodicAndSeeded) {
    forSamplePoints([&](const float* p) {
        const float q[3] = {p[0] + 1e-3f, p[1], p[2]};
        EXPECT_NEAR(gradientNoise(p, 3), gradientNoise(q, 3), 0.01f);
        const float r[3] = {p[0] + 256.0f, p[1] - 512.0f, p[2]};
        EXPECT_NEAR(gradientNoise(p, 3), gradientNoise(r, 3), 1e-3f);
    });
    int differ = 0;
    forSamplePoints([&](const float* p) { differ += gradientNoise(p, 3) != gradientNoise(p, 4); });
    EXPECT_GT(differ, 400);
}

TEST(GradientNoise, PointsThatAreNoNumbersOrHugeGiveFiniteValues) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float bad[][3] = {{nan, 0, 0}, {0, inf, 0}, {1e30f, -3e38f, 2e20f}};
    for (const auto& p : bad) {
        EXPECT_TRUE(std::isfinite(gradientNoise(p, 0)));
        EXPECT_TRUE(std::isfinite(fbmNoise(p, 8, 2.0f, 0.5f, 0)));
        const float c = cellularNoise(p, 1.0f, 0);
        EXPECT_TRUE(c >= 0.0f && c <= 1.0f);
    }
}

TEST(FractalNoise, OneOctaveIsPlainNoiseAndSumsStayInRange) {
    forSamplePoints([&](const float* p) {
        EXPECT_EQ(fbmNoise(p, 1, 2.0f, 0.5f, 9), gradientNoise(p, 9));
        const float f = fbmNoise(p, 6, 2.0f, 0.5f, 9);
        EXPECT_GE(f, -1.0f);
        EXPECT_LE(f, 1.0f);
        const float t = turbulenceNoise(p, 6, 2.0f, 0.5f, 9);
        EXPECT_GE(t, 0.0f);
        EXPECT_LE(t, 1.0f);
    });
}

TEST(CellularNoise, IsZeroOnFeaturePointsAndBounded) {
    // Without jitter the feature points are the cell centres.
    const float centre[3] = {2.5f, 7.5f, -3.5f};
    EXPECT_NEAR(cellularNoise(centre, 0.0f, 1), 0.0f, 1e-6f);
    const float corner[3] = {2.0f, 7.0f, -3.0f};
    EXPECT_NEAR(cellularNoise(corner, 0.0f, 1), std::sqrt(0.75f), 1e-5f);
    forSamplePoints([&](const float* p) {
        const float c = cellularNoise(p, 1.0f, 2);
        EXPECT_GE(c, 0.0f);
        EXPECT_LE(c, 1.0f);
    });
}

TEST(TextureSpec, NoiseMapsScaleOffsetAndColours) {
    std::string error;
    auto tex = parseTextureSpec("noise:scale=2,offset=1,2,3,octaves=4,low=0.5,high=1", error);
    ASSERT_TRUE(tex) << error;
    forSamplePoints([&](const float* p) {
        float out[3];
        tex->evaluate(out, p, 0.0f);
        const float q[3] = {p[0] * 2 + 1, p[1] * 2 + 2, p[2] * 2 + 3};
        const float v = 0.5f + 0.5f * fbmNoise(q, 4, 2.0f, 0.5f, 0);
        EXPECT_FLOAT_EQ(out[0], 0.5f + 0.5f * v);
        EXPECT_EQ(out[0], out[1]);
        EXPECT_EQ(out[0], out[2]);
    });
}

TEST(TextureSpec, DriftMovesThePatternWithTime) {
    std::string error;
    auto tex = parseTextureSpec("turbulence:drift=1,0,0,octaves=3", error);
    ASSERT_TRUE(tex) << error;
    const float p[3] = {0.3f, 0.6f, 0.2f}, q[3] = {2.3f, 0.6f, 0.2f};
    float a[3], b[3];
    tex->evaluate(a, p, 2.0f);
    tex->evaluate(b, q, 0.0f);
    EXPECT_FLOAT_EQ(a[0], b[0]);
}

TEST(TextureSpec, ConstantAndCellularRead) {
    std::string error;
    auto c = parseTextureSpec("constant:value=0.25,0.5,2", error);
    ASSERT_TRUE(c) << error;
    float out[3];
    const float p[3] = {1, 2, 3};
    c->evaluate(out, p, 0.0f);
    EXPECT_EQ(out[0], 0.25f);
    EXPECT_EQ(out[1], 0.5f);
    EXPECT_EQ(out[2], 2.0f);
    auto one = parseTextureSpec(" constant : value = 0.75 ", error);
    ASSERT_TRUE(one) << error;
    one->evaluate(out, p, 0.0f);
    EXPECT_EQ(out[2], 0.75f);
    EXPECT_TRUE(parseTextureSpec("constant", error));
    EXPECT_TRUE(parseTextureSpec("cellular:jitter=0.5,seed=7,scale=3", error)) << error;
}

TEST(TextureSpec, RefusalsSayWhy) {
    const struct {
        const char* text;
        const char* says;
    } cases[] = {
        {"", "starts with its kind"},
        {"marble", "unknown texture kind 'marble'"},
        {"noise:scale", "expected KEY=VALUE"},
        {"noise:colour=1", "unknown key 'colour'"},
        {"noise:octaves=0", "octaves takes a whole number from 1 to 16"},
        {"noise:octaves=2.5", "octaves takes a whole number"},
        {"noise:octaves=17", "octaves"},
        {"noise:scale=1,2", "scale takes one number or three"},
        {"noise:scale=nan", "scale takes numbers"},
        {"noise:scale=1e999", "scale takes numbers"},
        {"noise:scale=2,scale=3", "scale is given twice"},
        {"noise:=3", "no key"},
        {"cellular:octaves=3", "unknown key 'octaves' for cellular"},
        {"noise:jitter=1", "unknown key 'jitter'"},
        {"constant:scale=2", "unknown key 'scale'"},
        {"noise:gain=-1", "gain takes one number from 0 to 8"},
        {"noise:seed=-1", "seed takes a whole number"},
        {"cellular:jitter=2", "jitter takes one number from 0 to 1"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(parseTextureSpec(c.text, error)) << c.text;
        EXPECT_NE(error.find(c.says), std::string::npos) << c.text << ": " << error;
    }
}

TEST(TextureSlots, NamesRoundTrip) {
    for (int k = 0; k < TEX_DISPL2 + 1; ++k) EXPECT_EQ(textureSlotOf(textureSlotName(k)), k);
    EXPECT_EQ(textureSlotName(7), nullptr);
    EXPECT_EQ(textureSlotOf("displ3"), -1);
}

TEST(TextureSlots, ShaderReadsTheSlotInObjectSpace) {
    VolumeShader shader;
    std::string error;
    shader.textures[TEX_DISPL1] = parseTextureSpec("noise:octaves=2", error);
    // Grid cells of half a unit, the grid starting at object x = 1.
    shader.gridToObjectTM.m[0] = shader.gridToObjectTM.m[4] = shader.gridToObjectTM.m[8] = 0.5f;
    shader.gridToObjectTM.m[9] = 1.0f;
    EXPECT_TRUE(shader.HasTexture(TEX_DISPL1));
    EXPECT_FALSE(shader.HasTexture(TEX_EMISSION));
    const float grid[3] = {3.0f, 0.6f, 1.4f}, object[3] = {2.5f, 0.3f, 0.7f};
    float a[3], b[3], none[3] = {9, 9, 9};
    shader.EvalTexture(a, TEX_DISPL1, nullptr, grid);
    shader.textures[TEX_DISPL1]->evaluate(b, object, 0.0f);
    EXPECT_FLOAT_EQ(a[0], b[0]);
    shader.EvalTexture(none, TEX_EMISSION, nullptr, grid);
    EXPECT_EQ(none[0], 0.0f);
}

}  // namespace
}  // namespace vaporix
