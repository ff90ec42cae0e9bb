// Tests of the lights' text form and the spot cone.
#include "standalone/Light.h"

#include <gtest/gtest.h>

#include <cmath>

namespace vaporix {
namespace {

constexpr double PI = 3.14159265358979323846;

Light parsed(const std::string& text) {
    Light light;
    std::string error;
    EXPECT_TRUE(parseLight(text, light, error)) << text << ": " << error;
    return light;
}

TEST(Light, ParsesEveryKindWithItsDefaults) {
    Light sun = parsed("directional:0,0,-2");
    EXPECT_EQ(sun.kind, LightKind::Directional);
    EXPECT_DOUBLE_EQ(sun.direction[2], -1.0);  // normalised
    EXPECT_FLOAT_EQ(sun.color[0], 1.0f);
    EXPECT_FLOAT_EQ(sun.intensity, 1.0f);
    EXPECT_FALSE(sun.autoIntensity);

    Light tinted = parsed("Directional:3,0,4:1,0.5,0.25:2.5");
    EXPECT_DOUBLE_EQ(tinted.direction[0], 0.6);
    EXPECT_DOUBLE_EQ(tinted.direction[2], 0.8);
    EXPECT_FLOAT_EQ(tinted.color[1], 0.5f);
    EXPECT_FLOAT_EQ(tinted.color[2], 0.25f);
    EXPECT_FLOAT_EQ(tinted.intensity, 2.5f);

    // A point light without an intensity is left for the renderer to scale.
    Light bulb = parsed("point:1,-2,3.5");
    EXPECT_EQ(bulb.kind, LightKind::Point);
    EXPECT_DOUBLE_EQ(bulb.position[1], -2.0);
    EXPECT_DOUBLE_EQ(bulb.position[2], 3.5);
    EXPECT_TRUE(bulb.autoIntensity);
    Light strong = parsed("point:0,0,0:1,1,1:1e4");
    EXPECT_FALSE(strong.autoIntensity);
    EXPECT_FLOAT_EQ(strong.intensity, 1e4f);

    // ANGLE alone: the full cone, its outer fifth soft.
    Light spot = parsed("spot:0,0,10:0,0,0:40");
    EXPECT_EQ(spot.kind, LightKind::Spot);
    EXPECT_DOUBLE_EQ(spot.direction[2], -1.0);
    EXPECT_FLOAT_EQ(spot.falloff, 40.0f);
    EXPECT_FLOAT_EQ(spot.hotspot, 32.0f);
    EXPECT_TRUE(spot.autoIntensity);
    Light hot = parsed("spot:0,0,10:10,0,10:20,50:0,1,0:3");
    EXPECT_DOUBLE_EQ(hot.direction[0], 1.0);
    EXPECT_FLOAT_EQ(hot.hotspot, 20.0f);
    EXPECT_FLOAT_EQ(hot.falloff, 50.0f);
    EXPECT_FLOAT_EQ(hot.color[0], 0.0f);
    EXPECT_FALSE(hot.autoIntensity);

    Light ambient = parsed("ambient:0.1,0.2,0.3");
    EXPECT_EQ(ambient.kind, LightKind::Ambient);
    EXPECT_FLOAT_EQ(ambient.color[2], 0.3f);
    Light dimAmbient = parsed("ambient:1,1,1:0.05");
    EXPECT_FLOAT_EQ(dimAmbient.intensity, 0.05f);
}

TEST(Light, RefusesMalformedTextAndLeavesTheLight) {
    const char* bad[] = {
        "",
        "sun:0,0,-1",
        "directional",
        "directional:0,0,0",  // no direction
        "directional:1,2",    // two numbers
        "directional:1,2,3,4",
        "directional:1,2,x",
        "directional:1,2,3:1,1",       // two colour components
        "directional:1,2,3:1,-1,1",    // negative colour
        "directional:1,2,3:1,1,1:-2",  // negative intensity
        "directional:1,2,3:1,1,1:2:9",
        "point",
        "point:1,2,nan",
        "point:1,2, 3",
        "point:1,2,3:",
        "spot:0,0,1:0,0,0",     // no angle
        "spot:0,0,0:0,0,0:30",  // target at the position
        "spot:0,0,1:0,0,0:0",
        "spot:0,0,1:0,0,0:180",
        "spot:0,0,1:0,0,0:50,40",  // hotspot wider than the cone
        "spot:0,0,1:0,0,0:10,20,30",
        "ambient",
        "ambient:1,1",
        "ambient:1,1,1:1:1",
    };
    for (const char* text : bad) {
        Light light;
        light.intensity = 7.0f;
        std::string error;
        EXPECT_FALSE(parseLight(text, light, error)) << text;
        EXPECT_NE(error.find(std::string("'") + text + "'"), std::string::npos) << error;
        EXPECT_FLOAT_EQ(light.intensity, 7.0f) << text;
    }
}

TEST(Light, SpotConeIsFullInsideTheHotspotDarkOutsideAndSmoothBetween) {
    const Light spot = parsed("spot:0,0,10:0,0,0:20,40");
    auto at = [&](double degrees) { return spotFactor(spot, std::cos(degrees * PI / 180.0)); };
    EXPECT_FLOAT_EQ(at(0.0), 1.0f);
    EXPECT_FLOAT_EQ(at(9.99), 1.0f);   // half the hotspot
    EXPECT_FLOAT_EQ(at(20.01), 0.0f);  // half the falloff
    EXPECT_FLOAT_EQ(at(90.0), 0.0f);
    float previous = 1.0f;
    for (double a = 10.0; a <= 20.0; a += 0.5) {
        const float f = at(a);
        EXPECT_LE(f, previous);
        previous = f;
    }
    EXPECT_GT(at(15.0), 0.2f);
    EXPECT_LT(at(15.0), 0.8f);

    // A hard cone: hotspot equal to the falloff.
    const Light hard = parsed("spot:0,0,10:0,0,0:30,30");
    EXPECT_FLOAT_EQ(spotFactor(hard, std::cos(14.9 * PI / 180.0)), 1.0f);
    EXPECT_FLOAT_EQ(spotFactor(hard, std::cos(15.1 * PI / 180.0)), 0.0f);
}

}  // namespace
}  // namespace vaporix
