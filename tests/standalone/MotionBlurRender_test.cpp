// Renders with motion blur and textures: a moving smoke ball spreads along its motion only, no
// motion changes no pixel, a frame without velocity warns, and textures from the parameters.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "SceneFixtures.h"
#include "standalone/Renderer.h"

namespace vaporix {
namespace {

constexpr int N = 32;

/// A smoke ball of an N^3 grid moving with one velocity everywhere (cells per second).
struct MovingBall {
    VaporixFrameData frame;
    GridObject object;
    std::vector<GridObject*> objects{&object};

    explicit MovingBall(const float v[3], bool withVelocity = true) {
        EXPECT_TRUE(test::makeSmokeBall(frame, N));
        if (withVelocity) {
            for (int a = 0; a < 3; ++a) {
                EXPECT_TRUE(test::addChannel(frame, CH_VELOCITY_X + a,
                                             std::vector<float>(size_t(N) * N * N, v[a])));
            }
        }
        object.setFrame(&frame);
        std::string error;
        for (const char* s : {"jitter=off", "lightcache=off", "earg=0"})
            EXPECT_TRUE(object.applySetting(s, error)) << error;
    }
    bool prepare(bool blur) {
        object.motionBlur = blur;
        std::string error;
        const bool ok = object.prepare(error);
        EXPECT_TRUE(ok) << error;
        return ok;
    }
};

/// Looks at the ball from the front (-y): image x is world x, image y is world -z.
RenderSettings frontView(bool blur) {
    RenderSettings s;
    s.width = 64;
    s.height = 64;
    s.samples = 8;
    s.motionBlur = blur;
    s.camera.position[0] = 0.0, s.camera.position[1] = -120.0, s.camera.position[2] = N / 2.0;
    s.camera.target[0] = 0.0, s.camera.target[1] = 0.0, s.camera.target[2] = N / 2.0;
    s.camera.fov = 20.0;
    Light ambient;
    ambient.kind = LightKind::Ambient;
    s.lights.push_back(ambient);
    return s;
}

/// Columns and rows of the image where the volume shows (alpha over a threshold).
void extent(const Image& image, int& columns, int& rows) {
    std::vector<bool> col(size_t(image.width), false), row(size_t(image.height), false);
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            if (image.pixel(x, y)[3] > 0.02f) col[size_t(x)] = row[size_t(y)] = true;
    columns = static_cast<int>(std::count(col.begin(), col.end(), true));
    rows = static_cast<int>(std::count(row.begin(), row.end(), true));
}

TEST(MotionBlurRender, BallMovingAlongXSpreadsAlongXOnly) {
    const float v[3] = {30.0f * 12.0f, 0.0f, 0.0f};  // 12 cells a frame
    MovingBall ball(v);
    Image still, blurred;
    std::string error;
    ASSERT_TRUE(ball.prepare(false));
    ASSERT_EQ(renderImage(frontView(false), ball.objects, still, nullptr, &error), RENDER_OK);
    ASSERT_TRUE(ball.prepare(true));
    ASSERT_NE(ball.object.shader().motionBlur.field(), nullptr);
    ASSERT_EQ(renderImage(frontView(true), ball.objects, blurred, nullptr, &error), RENDER_OK);
    int c0, r0, c1, r1;
    extent(still, c0, r0);
    extent(blurred, c1, r1);
    EXPECT_GE(c1, c0 + 2) << "columns " << c0 << " -> " << c1;
    EXPECT_LE(std::abs(r1 - r0), 1) << "rows " << r0 << " -> " << r1;
}

TEST(MotionBlurRender, BallMovingAlongZSpreadsAlongZOnly) {
    const float v[3] = {0.0f, 0.0f, 30.0f * 12.0f};
    MovingBall ball(v);
    Image still, blurred;
    std::string error;
    ASSERT_TRUE(ball.prepare(false));
    ASSERT_EQ(renderImage(frontView(false), ball.objects, still, nullptr, &error), RENDER_OK);
    ASSERT_TRUE(ball.prepare(true));
    ASSERT_EQ(renderImage(frontView(true), ball.objects, blurred, nullptr, &error), RENDER_OK);
    int c0, r0, c1, r1;
    extent(still, c0, r0);
    extent(blurred, c1, r1);
    EXPECT_GE(r1, r0 + 2) << "rows " << r0 << " -> " << r1;
    EXPECT_LE(std::abs(c1 - c0), 1) << "columns " << c0 << " -> " << c1;
}

TEST(MotionBlurRender, ZeroVelocityLeavesEveryPixelAsWithoutBlur) {
    const float v[3] = {0.0f, 0.0f, 0.0f};
    MovingBall ball(v);
    Image still, blurred;
    std::string error;
    RenderSettings s = frontView(false);
    ASSERT_TRUE(ball.prepare(false));
    ASSERT_EQ(renderImage(s, ball.objects, still, nullptr, &error), RENDER_OK);
    ASSERT_TRUE(ball.prepare(true));
    s.motionBlur = true;
    ASSERT_EQ(renderImage(s, ball.objects, blurred, nullptr, &error), RENDER_OK);
    EXPECT_EQ(std::memcmp(still.rgba.data(), blurred.rgba.data(), still.rgba.size() * 4), 0);
    EXPECT_EQ(std::memcmp(still.transmittance.data(), blurred.transmittance.data(),
                          still.transmittance.size() * 4),
              0);
}

TEST(MotionBlurRender, ImageIsTheSameForOneAndThreeThreads) {
    const float v[3] = {200.0f, -90.0f, 150.0f};
    MovingBall ball(v);
    Image one, three;
    std::string error;
    ball.object.threads = 1;
    ASSERT_TRUE(ball.prepare(true));
    RenderSettings s = frontView(true);
    s.threads = 1;
    ASSERT_EQ(renderImage(s, ball.objects, one, nullptr, &error), RENDER_OK);
    ball.object.threads = 3;
    ASSERT_TRUE(ball.prepare(true));
    s.threads = 3;
    ASSERT_EQ(renderImage(s, ball.objects, three, nullptr, &error), RENDER_OK);
    EXPECT_EQ(std::memcmp(one.rgba.data(), three.rgba.data(), one.rgba.size() * 4), 0);
}

TEST(MotionBlurRender, FrameWithoutVelocityWarnsAndRendersStill) {
    const float v[3] = {0.0f, 0.0f, 0.0f};
    MovingBall ball(v, false);
    ball.object.displayName = "ball";
    ASSERT_TRUE(ball.prepare(true));
    ASSERT_EQ(ball.object.prepareWarnings.size(), 1u);
    EXPECT_EQ(ball.object.prepareWarnings[0].rfind("ball: There is no grid velocity channel in "
                                                   "the cache, Motion Blur in the container will "
                                                   "be disabled for this frame!\n",
                                                   0),
              0u);
    EXPECT_EQ(ball.object.shader().motionBlur.field(), nullptr);
    EXPECT_FALSE(ball.object.shader().motionBlur.velocityAvailable);
}

TEST(TextureRender, EmissionFromAConstantTextureLightsTheBall) {
    const float v[3] = {0.0f, 0.0f, 0.0f};
    MovingBall ball(v, false);
    std::string error;
    ASSERT_TRUE(ball.object.applySetting("earg=4", error)) << error;
    ASSERT_TRUE(ball.object.applySetting("etxt=constant:value=0.5,0.25,0", error)) << error;
    ASSERT_TRUE(ball.prepare(false));
    EXPECT_TRUE(ball.object.shader().flags & VolumeShader::emissionFromTexture);
    Image image;
    RenderSettings s = frontView(false);
    s.lights.clear();
    s.samples = 1;
    ASSERT_EQ(renderImage(s, ball.objects, image, nullptr, &error), RENDER_OK);
    const float* centre = image.pixel(32, 32);
    EXPECT_GT(centre[0], 0.0f);
    EXPECT_NEAR(centre[1] / centre[0], 0.5f, 1e-3f);
    EXPECT_EQ(centre[2], 0.0f);
}

TEST(TextureRender, SlotThatDoesNotParseFailsThePreparation) {
    const float v[3] = {0.0f, 0.0f, 0.0f};
    MovingBall ball(v, false);
    std::string error;
    ASSERT_TRUE(ball.object.applySetting("stex=noise:octaves=99", error));
    EXPECT_FALSE(ball.object.prepare(error));
    EXPECT_EQ(error, "stex: noise: octaves takes a whole number from 1 to 16");
    // Displacement slots are read only with displacement on.
    ASSERT_TRUE(ball.object.applySetting("stex=", error));
    ASSERT_TRUE(ball.object.applySetting("displ0=garbage", error));
    EXPECT_TRUE(ball.object.prepare(error)) << error;
    ASSERT_TRUE(ball.object.applySetting("displacement=on", error));
    EXPECT_FALSE(ball.object.prepare(error));
    EXPECT_EQ(error.rfind("displ0: unknown texture kind 'garbage'", 0), 0u) << error;
}

/// Renders the still ball with extra settings.
Image renderBall(const std::vector<const char*>& settings, bool* displaced = nullptr) {
    const float v[3] = {0.0f, 0.0f, 0.0f};
    MovingBall ball(v, false);
    std::string error;
    for (const char* s : settings) EXPECT_TRUE(ball.object.applySetting(s, error)) << error;
    EXPECT_TRUE(ball.prepare(false));
    if (displaced)
        *displaced = (ball.object.shader().flags & VolumeShader::hasDisplacement) ||
                     ball.object.shader().displacement.displacedChannels();
    Image image;
    RenderSettings s = frontView(false);
    s.samples = 2;
    EXPECT_EQ(renderImage(s, ball.objects, image, nullptr, &error), RENDER_OK) << error;
    return image;
}

bool sameImage(const Image& a, const Image& b) {
    return a.rgba.size() == b.rgba.size() &&
           std::memcmp(a.rgba.data(), b.rgba.data(), a.rgba.size() * 4) == 0;
}

TEST(DisplacementRender, MultiplierZeroSkipsIt) {
    const Image plain = renderBall({});
    bool displaced = true;
    const Image zero = renderBall({"displacement=on", "displmul=0", "displ0=constant:value=2",
                                   "displ2=constant:value=2"},
                                  &displaced);
    EXPECT_FALSE(displaced);
    EXPECT_TRUE(sameImage(plain, zero));
    const Image on = renderBall(
        {"displacement=on", "displ0=constant:value=2", "displ2=constant:value=2"}, &displaced);
    EXPECT_TRUE(displaced);
    EXPECT_FALSE(sameImage(plain, on));
}

TEST(DisplacementRender, NothingAboveTheSurfaceLevelRendersAsWithout) {
    const Image plain = renderBall({"surflevel=50"});
    bool displaced = true;
    const Image none = renderBall({"surflevel=50", "displacement=on", "displ0=constant:value=2",
                                   "displ2=noise:scale=0.5"},
                                  &displaced);
    EXPECT_FALSE(displaced);
    EXPECT_TRUE(sameImage(plain, none));
}

}  // namespace
}  // namespace vaporix
