// Tests of the stand-alone illuminator: falloff, cosines, cones, shadows through the volumes,
// and light that depends on the point alone.
#include "standalone/StandaloneIlluminator.h"

#include <gtest/gtest.h>

#include <cmath>

#include "SceneFixtures.h"

namespace vaporix {
namespace {

Light lightOf(const std::string& text) {
    Light light;
    std::string error;
    EXPECT_TRUE(parseLight(text, light, error)) << error;
    light.autoIntensity = false;
    return light;
}

/// An 8x8x8 box of constant smoke (world x, y in [-4, 4], z in [0, 8]) that lets through
/// `transparency` per world unit, prepared for exact marching.
struct SmokeBox {
    VaporixFrameData frame;
    GridObject object;
    const VolumeShader* shaders[1];
    explicit SmokeBox(float transparency, bool jitter = false) {
        EXPECT_TRUE(test::makeSmokeBox(frame, 8, 8, 8, 1.0f));
        object.setFrame(&frame);
        test::exactParams(object, transparency);
        std::string error;
        if (jitter) object.applySetting("jitter=on", error);
        EXPECT_TRUE(object.prepare(error)) << error;
        shaders[0] = &object.shader();
    }
    void into(LightingScene& scene) {
        scene.shaders = shaders;
        scene.shaderCount = 1;
        const double box[6] = {-4, -4, 0, 4, 4, 8};
        for (int a = 0; a < 6; ++a) scene.box[a] = box[a];
    }
};

TEST(StandaloneIlluminator, PointLightFallsOffWithTheSquaredDistanceAndTheCosine) {
    LightingScene scene;
    Light bulb = lightOf("point:0,0,0:1,0.5,0.25:100");
    scene.lights.push_back(bulb);
    StandaloneIlluminator illum(scene);
    float out[3];
    const double p[3] = {0.0, 0.0, 5.0};
    illum.lightAt(p, nullptr, out);
    EXPECT_FLOAT_EQ(out[0], 4.0f);
    EXPECT_FLOAT_EQ(out[1], 2.0f);
    EXPECT_FLOAT_EQ(out[2], 1.0f);
    const double far[3] = {0.0, 10.0, 0.0};
    illum.lightAt(far, nullptr, out);
    EXPECT_FLOAT_EQ(out[0], 1.0f);

    // A surface facing the light gets it all, one turned 60 degrees half, one turned away none.
    const double facing[3] = {0.0, 0.0, -1.0};
    illum.lightAt(p, facing, out);
    EXPECT_FLOAT_EQ(out[0], 4.0f);
    const double tilted[3] = {std::sqrt(0.75), 0.0, -0.5};
    illum.lightAt(p, tilted, out);
    EXPECT_NEAR(out[0], 2.0f, 1e-5f);
    const double away[3] = {0.0, 0.0, 1.0};
    illum.lightAt(p, away, out);
    EXPECT_FLOAT_EQ(out[0], 0.0f);
}

TEST(StandaloneIlluminator, SpotLightsOnlyItsConeAndAmbientLightsEverything) {
    LightingScene scene;
    scene.lights.push_back(lightOf("spot:0,0,10:0,0,0:20,30:1,1,1:100"));
    scene.lights.push_back(lightOf("ambient:0.1,0.2,0.3"));
    StandaloneIlluminator illum(scene);
    const double up[3] = {0.0, 0.0, 1.0}, down[3] = {0.0, 0.0, -1.0};
    float out[3];
    const double centre[3] = {0.0, 0.0, 0.0};
    illum.lightAt(centre, up, out);
    EXPECT_FLOAT_EQ(out[0], 1.0f + 0.1f);
    // 45 degrees off the spot's axis: outside its cone, the ambient light alone.
    const double aside[3] = {10.0, 0.0, 0.0};
    illum.lightAt(aside, up, out);
    EXPECT_FLOAT_EQ(out[0], 0.1f);
    EXPECT_FLOAT_EQ(out[2], 0.3f);
    // The ambient light has no direction: it lights the side turned away too.
    illum.lightAt(centre, down, out);
    EXPECT_FLOAT_EQ(out[1], 0.2f);
}

TEST(StandaloneIlluminator, ShadowThroughConstantSmokeIsExponential) {
    SmokeBox box(0.9f);
    LightingScene scene;
    box.into(scene);
    scene.lights.push_back(lightOf("directional:0,0,-1:1,1,1:2"));  // straight down
    StandaloneIlluminator illum(scene);
    float out[3];

    // Under the box the light crossed all 8 units of smoke.
    const double below[3] = {0.5, -1.5, -1.0};
    illum.lightAt(below, nullptr, out);
    const double vertical = test::EXACT_STEP_CELLS;
    for (int c = 0; c < 3; ++c) EXPECT_TRUE(test::marched(out[c] / 2.0, 0.9, 8.0, vertical));

    // Inside, at height 5: the 3 units above it.
    const double inside[3] = {0.0, 0.0, 5.0};
    illum.lightAt(inside, nullptr, out);
    EXPECT_TRUE(test::marched(out[0] / 2.0, 0.9, 3.0, vertical));

    // Beside the box the light is not shadowed at all.
    const double beside[3] = {6.0, 0.0, 1.0};
    illum.lightAt(beside, nullptr, out);
    EXPECT_FLOAT_EQ(out[0], 2.0f);

    float t[3];
    const double from[3] = {-10.0, 0.0, 4.0}, to[3] = {10.0, 0.0, 4.0};
    illum.transmittance(from, to, 1u, t);
    EXPECT_TRUE(test::marched(t[1], 0.9, 8.0, test::EXACT_STEP_CELLS));
}

TEST(StandaloneIlluminator, VolumePointsAreLitInTheirShadersWorldAndWeightedByDiffuse) {
    SmokeBox box(0.8f);
    LightingScene scene;
    box.into(scene);
    scene.lights.push_back(lightOf("point:0,0,20:1,1,1:400"));
    StandaloneIlluminator illum(scene);
    illum.SetShader(box.shaders[0]);

    // Grid (4, 4, 6) is world (0, 0, 6): 14 units below the light, 2 of them in smoke.
    const float grid[3] = {4.0f, 4.0f, 6.0f};
    const float diffuse[3] = {0.5f, 0.25f, 1.0f};
    float out[3];
    illum.Illuminate(out, grid, diffuse, nullptr, nullptr);
    const double unshadowed = 400.0 / (14.0 * 14.0);
    EXPECT_TRUE(test::marched(out[0] / (0.5 * unshadowed), 0.8, 2.0, test::EXACT_STEP_CELLS));
    EXPECT_TRUE(test::marched(out[1] / (0.25 * unshadowed), 0.8, 2.0, test::EXACT_STEP_CELLS));
    EXPECT_TRUE(test::marched(out[2] / unshadowed, 0.8, 2.0, test::EXACT_STEP_CELLS));
    EXPECT_FLOAT_EQ(out[0] / out[2], 0.5f);

    // Without a current shader there is no point to light.
    illum.SetShader(nullptr);
    illum.Illuminate(out, grid, diffuse, nullptr, nullptr);
    EXPECT_FLOAT_EQ(out[2], 0.0f);
}

TEST(StandaloneIlluminator, LightDependsOnThePointAloneEvenWithJitter) {
    // A light cache may be filled by any thread, from any pixel: the value at a point must not
    // depend on the illuminator's random state.
    SmokeBox box(0.7f, true);
    LightingScene scene;
    box.into(scene);
    scene.lights.push_back(lightOf("directional:1,0.5,-1"));
    StandaloneIlluminator a(scene), b(scene);
    a.SetShader(box.shaders[0]);
    b.SetShader(box.shaders[0]);
    a.seed = 1;
    b.seed = 987654321;
    b.Random();
    const float diffuse[3] = {1.0f, 1.0f, 1.0f};
    float first[3], second[3];
    for (float x = 0.25f; x < 8.0f; x += 1.3f) {
        const float p[3] = {x, 3.0f, 2.5f};
        a.Illuminate(first, p, diffuse, nullptr, nullptr);
        b.Illuminate(second, p, diffuse, nullptr, nullptr);
        EXPECT_EQ(first[0], second[0]);
        EXPECT_GT(first[0], 0.0f);
        EXPECT_LT(first[0], 1.0f);
    }
}

TEST(StandaloneIlluminator, SeedHashSpreadsNeighbouringPixels) {
    // Neighbouring pixels and frames get unrelated seeds; the same inputs the same seed.
    EXPECT_EQ(hashSeed(3, 4, 5), hashSeed(3, 4, 5));
    EXPECT_NE(hashSeed(3, 4, 5), hashSeed(4, 3, 5));
    EXPECT_NE(hashSeed(3, 4, 5), hashSeed(3, 4, 6));
    int differentBits = 0;
    for (uint32_t x = 0; x < 64; ++x)
        differentBits += __builtin_popcount(hashSeed(x, 0, 0) ^ hashSeed(x + 1, 0, 0));
    EXPECT_GT(differentBits, 64 * 12);
    EXPECT_LT(differentBits, 64 * 20);
}

}  // namespace
}  // namespace vaporix
