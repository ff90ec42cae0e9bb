// Tests of the stand-alone renderer: an analytic image of a smoke box, the ground's shadow,
// images independent of the thread count, stopping, progress and refusals.
#include "standalone/Renderer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "SceneFixtures.h"
#include "standalone/StandaloneIlluminator.h"

namespace vaporix {
namespace {

/// Length of the part of the ray from `o` along unit `d` inside an axis-aligned box.
double chordInBox(const double o[3], const double d[3], const double box[6]) {
    double t0 = 0.0, t1 = 1e30;
    for (int a = 0; a < 3; ++a) {
        if (d[a] == 0.0) {
            if (o[a] < box[a] || o[a] > box[a + 3]) return 0.0;
            continue;
        }
        double ta = (box[a] - o[a]) / d[a], tb = (box[a + 3] - o[a]) / d[a];
        if (ta > tb) std::swap(ta, tb);
        t0 = std::max(t0, ta);
        t1 = std::min(t1, tb);
    }
    return t1 > t0 ? t1 - t0 : 0.0;
}

Light lightOf(const std::string& text) {
    Light light;
    std::string error;
    EXPECT_TRUE(parseLight(text, light, error)) << error;
    return light;
}

/// Smoke box of 8 units (x, y in [-4, 4], z in [0, 8]) with exact marching.
struct BoxScene {
    VaporixFrameData frame;
    GridObject object;
    std::vector<GridObject*> objects{&object};
    explicit BoxScene(float transparency) {
        EXPECT_TRUE(test::makeSmokeBox(frame, 8, 8, 8, 1.0f));
        object.setFrame(&frame);
        test::exactParams(object, transparency);
        std::string error;
        EXPECT_TRUE(object.prepare(error)) << error;
    }
};

TEST(Renderer, ConstantSmokeBoxSeenHeadOnTransmitsExponentially) {
    BoxScene scene(0.6f);
    RenderSettings s;
    s.width = 24;
    s.height = 16;
    s.camera.position[0] = 0.0, s.camera.position[1] = -50.0, s.camera.position[2] = 4.0;
    s.camera.target[0] = 0.0, s.camera.target[1] = 0.0, s.camera.target[2] = 4.0;
    s.camera.fov = 20.0;
    s.background[0] = 0.2f, s.background[1] = 0.3f, s.background[2] = 0.4f;
    Image image;
    std::string error;
    ASSERT_EQ(renderImage(s, scene.objects, image, nullptr, &error), RENDER_OK) << error;
    ASSERT_EQ(image.width, 24);
    ASSERT_EQ(image.height, 16);

    Camera cam = s.camera;
    ASSERT_TRUE(cam.prepare(s.width, s.height));
    const double box[6] = {-4, -4, 0, 4, 4, 8};
    int hits = 0, misses = 0;
    for (int y = 0; y < s.height; ++y) {
        for (int x = 0; x < s.width; ++x) {
            double d[3];
            cam.rayDirection(x + 0.5, y + 0.5, d);
            const double chord = chordInBox(cam.position, d, box);
            const size_t i = size_t(y) * s.width + x;
            const float* px = image.pixel(x, y);
            for (int c = 0; c < 3; ++c) {
                const float t = image.transmittance[3 * i + c];
                EXPECT_TRUE(test::marched(t, 0.6, chord, test::stepAlong(d))) << x << "," << y;
                // No light and no emission: the beauty is the background seen through.
                EXPECT_FLOAT_EQ(image.volume[3 * i + c], 0.0f);
                EXPECT_FLOAT_EQ(px[c], t * s.background[c]);
            }
            const float* t = &image.transmittance[3 * i];
            EXPECT_FLOAT_EQ(px[3], 1.0f - (t[0] + t[1] + t[2]) / 3.0f);
            if (chord > 0.0) {
                ++hits;
            } else {
                ++misses;
                EXPECT_EQ(px[3], 0.0f);
            }
        }
    }
    // The box fills the middle of the image, with clear sky around it.
    EXPECT_GT(hits, 60);
    EXPECT_GT(misses, 60);
}

TEST(Renderer, GroundCatchesTheShadowOfTheSmoke) {
    BoxScene scene(0.5f);
    RenderSettings s;
    s.width = 73;
    s.height = 73;
    // Straight down from high above, so the ground around the box is seen directly.
    s.camera.position[2] = 100.0;
    s.camera.position[1] = 0.0;
    s.camera.up[0] = 0.0, s.camera.up[1] = 1.0, s.camera.up[2] = 0.0;
    s.camera.fov = 40.0;
    s.lights.push_back(lightOf("directional:1,0,-1"));  // from the -x side, 45 degrees up
    s.ground.enabled = true;
    s.ground.height = 0.0;
    s.ground.color[0] = s.ground.color[1] = s.ground.color[2] = 0.5f;
    Image image;
    std::string error;
    ASSERT_EQ(renderImage(s, scene.objects, image, nullptr, &error), RENDER_OK) << error;

    Camera cam = s.camera;
    ASSERT_TRUE(cam.prepare(s.width, s.height));
    const double box[6] = {-4, -4, 0, 4, 4, 8};
    const double toLight[3] = {-std::sqrt(0.5), 0.0, std::sqrt(0.5)};
    // A pixel on each side of the box along x, on the middle row.
    bool sawShadow = false;
    for (int x : {28, 44}) {  // ground at x = -8 and x = +8
        const int y = 36;
        double d[3];
        cam.rayDirection(x + 0.5, y + 0.5, d);
        ASSERT_EQ(chordInBox(cam.position, d, box), 0.0);  // sees the ground itself
        const double t = -cam.position[2] / d[2];
        const double ground[3] = {cam.position[0] + t * d[0], cam.position[1] + t * d[1], 0.0};
        const double chord = chordInBox(ground, toLight, box);
        const double shadow = std::pow(0.5, chord);
        const float* px = image.pixel(x, y);
        EXPECT_TRUE(
            test::marched(px[0] / (0.5 * std::sqrt(0.5)), 0.5, chord, test::stepAlong(toLight)))
            << x;
        EXPECT_FLOAT_EQ(px[3], 1.0f);  // the ground is opaque
        sawShadow |= shadow < 0.1;
    }
    EXPECT_TRUE(sawShadow);
    EXPECT_LT(image.pixel(44, 36)[0], 0.5f * image.pixel(28, 36)[0]);
}

/// A scene with everything that draws random numbers or shares state between threads: jitter,
/// the light cache, every kind of light, the ground and jittered camera rays.
struct BallScene {
    VaporixFrameData frame;
    GridObject object;
    std::vector<GridObject*> objects{&object};
    RenderSettings settings;
    BallScene() {
        EXPECT_TRUE(test::makeSmokeBall(frame, 16));
        object.setFrame(&frame);
        std::string error;
        EXPECT_TRUE(object.applySetting("jitter=on", error));
        EXPECT_TRUE(object.applySetting("lightcache=on", error));
        EXPECT_TRUE(object.prepare(error)) << error;
        settings.width = 40;
        settings.height = 30;
        settings.tileSize = 5;
        settings.samples = 2;
        settings.ground.enabled = true;
        settings.lights = {lightOf("directional:1,1,-1"), lightOf("point:20,-20,30"),
                           lightOf("spot:0,-30,8:0,0,8:30"), lightOf("ambient:0.1,0.1,0.1")};
        EXPECT_TRUE(applyDefaultView(settings, objects));
    }
    Image render(int threads, uint32_t seed = 0) {
        settings.threads = threads;
        settings.frameSeed = seed;
        Image image;
        std::string error;
        EXPECT_EQ(renderImage(settings, objects, image, nullptr, &error), RENDER_OK) << error;
        return image;
    }
};

bool sameBits(const Image& a, const Image& b) {
    return a.width == b.width && a.height == b.height && a.rgba.size() == b.rgba.size() &&
           std::memcmp(a.rgba.data(), b.rgba.data(), a.rgba.size() * sizeof(float)) == 0 &&
           std::memcmp(a.volume.data(), b.volume.data(), a.volume.size() * sizeof(float)) == 0 &&
           std::memcmp(a.transmittance.data(), b.transmittance.data(),
                       a.transmittance.size() * sizeof(float)) == 0;
}

TEST(Renderer, ImageIsTheSameForOneAndTwoThreads) {
    BallScene scene;
    const Image one = scene.render(1);
    // A fresh light cache for the second render, then one already filled by the first.
    std::string error;
    ASSERT_TRUE(scene.object.prepare(error));
    const Image two = scene.render(2);
    const Image again = scene.render(2);
    EXPECT_TRUE(sameBits(one, two));
    EXPECT_TRUE(sameBits(one, again));
    // Something was drawn: smoke, fire, ground.
    float brightest = 0.0f;
    for (size_t i = 0; i < one.pixelCount(); ++i) brightest = std::max(brightest, one.rgba[4 * i]);
    EXPECT_GT(brightest, 0.05f);

    // Another seed gives other noise.
    const Image reseeded = scene.render(2, 99);
    EXPECT_FALSE(sameBits(one, reseeded));
}

/// Records what the renderer reports, and asks to stop after a number of abort tests.
class RecordingProgress : public ProgressCallback {
public:
    int stopAfter = -1;
    std::atomic<int> checks{0};
    int begins = 0, ends = 0;
    uint64_t highest = 0;
    void setProgress(uint64_t value) override { highest = std::max(highest, value); }
    int checkAbort() override { return stopAfter >= 0 && checks.fetch_add(1) >= stopAfter; }
    void begin() override { ++begins; }
    void end() override { ++ends; }
};

TEST(Renderer, ReportsProgressUpToEveryPixel) {
    BoxScene scene(0.5f);
    RenderSettings s;
    s.width = 50;
    s.height = 20;
    s.tileSize = 8;
    ASSERT_TRUE(applyDefaultView(s, scene.objects));
    RecordingProgress progress;
    Image image;
    ASSERT_EQ(renderImage(s, scene.objects, image, &progress), RENDER_OK);
    EXPECT_EQ(progress.begins, 1);
    EXPECT_EQ(progress.ends, 1);
    EXPECT_EQ(progress.highest, 1000u);
}

TEST(Renderer, AbortStopsBetweenTiles) {
    BoxScene scene(0.5f);
    RenderSettings s;
    s.width = 64;
    s.height = 64;
    s.tileSize = 4;  // 256 tiles
    s.threads = 2;
    s.background[0] = s.background[1] = s.background[2] = 1.0f;
    ASSERT_TRUE(applyDefaultView(s, scene.objects));
    RecordingProgress progress;
    progress.stopAfter = 6;
    Image image;
    EXPECT_EQ(renderImage(s, scene.objects, image, &progress), RENDER_ABORTED);
    EXPECT_EQ(progress.ends, 1);
    EXPECT_LT(progress.highest, 64u * 64u);
    // Only the tiles taken before the stop were drawn (each pixel drawn sees the background).
    size_t drawn = 0;
    for (size_t i = 0; i < image.pixelCount(); ++i) drawn += image.rgba[4 * i] > 0.0f;
    EXPECT_GT(drawn, 0u);
    EXPECT_LE(drawn, size_t(8 * 16));
}

TEST(Renderer, EmptySceneShowsTheBackgroundAndGround) {
    RenderSettings s;
    s.width = 16;
    s.height = 12;
    s.camera.position[2] = 5.0;
    s.camera.target[1] = 100.0;  // looking along +y, level with the horizon
    s.camera.target[2] = 5.0;
    s.background[2] = 0.75f;
    s.ground.enabled = true;
    s.ground.height = 0.0;
    s.lights.push_back(lightOf("ambient:1,1,1"));
    Image image;
    ASSERT_EQ(renderImage(s, {}, image), RENDER_OK);
    // Upper half: sky; lower half: the ground in ambient light.
    EXPECT_FLOAT_EQ(image.pixel(3, 2)[2], 0.75f);
    EXPECT_FLOAT_EQ(image.pixel(3, 2)[3], 0.0f);
    EXPECT_FLOAT_EQ(image.pixel(3, 10)[2], 0.5f);
    EXPECT_FLOAT_EQ(image.pixel(3, 10)[3], 1.0f);
}

TEST(Renderer, RefusesSettingsThatCannotMakeAnImage) {
    BoxScene scene(0.5f);
    RenderSettings good;
    ASSERT_TRUE(applyDefaultView(good, scene.objects));
    good.width = 8;
    good.height = 8;
    auto refused = [&](RenderSettings s) {
        Image image;
        std::string error;
        const int status = renderImage(s, scene.objects, image, nullptr, &error);
        EXPECT_FALSE(error.empty());
        return status == RENDER_FAILED;
    };
    RenderSettings s = good;
    s.width = 0;
    EXPECT_TRUE(refused(s));
    s = good;
    s.height = Image::MAX_SIZE + 1;
    EXPECT_TRUE(refused(s));
    s = good;
    s.samples = 0;
    EXPECT_TRUE(refused(s));
    s = good;
    s.tileSize = 0;
    EXPECT_TRUE(refused(s));
    s = good;
    s.camera.target[0] = s.camera.position[0];
    s.camera.target[1] = s.camera.position[1];
    s.camera.target[2] = s.camera.position[2];
    EXPECT_TRUE(refused(s));
    s = good;
    s.background[1] = NAN;
    EXPECT_TRUE(refused(s));
}

TEST(Renderer, DefaultViewFramesTheSceneWithAKeyLightAboveAndAmbient) {
    BoxScene scene(0.5f);
    RenderSettings s;
    s.camera.fov = 30.0;
    ASSERT_TRUE(applyDefaultView(s, scene.objects));
    EXPECT_DOUBLE_EQ(s.camera.fov, 30.0);
    EXPECT_NEAR(s.camera.target[2], 4.0, 1e-6);
    ASSERT_EQ(s.lights.size(), 2u);
    EXPECT_EQ(s.lights[0].kind, LightKind::Directional);
    EXPECT_LT(s.lights[0].direction[2], 0.0);  // shines downwards
    EXPECT_EQ(s.lights[1].kind, LightKind::Ambient);
    EXPECT_DOUBLE_EQ(s.ground.height, 0.0);  // the bottom of the box

    // Lights given beforehand are kept.
    RenderSettings own;
    own.lights.push_back(lightOf("point:0,0,30"));
    ASSERT_TRUE(applyDefaultView(own, scene.objects));
    ASSERT_EQ(own.lights.size(), 1u);
    EXPECT_EQ(own.lights[0].kind, LightKind::Point);

    RenderSettings nothing;
    EXPECT_FALSE(applyDefaultView(nothing, {}));
}

TEST(Renderer, PointLightWithoutIntensityDeliversItsColourAtTheSceneCentre) {
    // A box of nearly clear smoke lit by a point light at distance 10 from its centre: the
    // centre's light is the light's colour, whatever the distance.
    BoxScene scene(0.999f);
    std::string error;
    ASSERT_TRUE(scene.object.applySetting("darg=Constant color", error)) << error;
    ASSERT_TRUE(scene.object.applySetting("simple_color=1,1,1", error)) << error;
    ASSERT_TRUE(scene.object.prepare(error)) << error;
    RenderSettings near, far;
    for (RenderSettings* s : {&near, &far}) {
        s->width = s->height = 9;
        ASSERT_TRUE(applyDefaultView(*s, scene.objects));
        s->lights.clear();
    }
    near.lights.push_back(lightOf("point:0,0,14"));  // 10 above the centre
    far.lights.push_back(lightOf("point:0,0,104"));  // 100 above it
    Image a, b;
    ASSERT_EQ(renderImage(near, scene.objects, a), RENDER_OK);
    ASSERT_EQ(renderImage(far, scene.objects, b), RENDER_OK);
    // The far light reaches the whole box more evenly but as strongly at the centre: the
    // middle pixels agree within the spread of distances across the box.
    const float ca = a.volume[3 * (4 * 9 + 4)], cb = b.volume[3 * (4 * 9 + 4)];
    EXPECT_GT(ca, 0.0f);
    EXPECT_NEAR(cb / ca, 1.0f, 0.35f);
}

}  // namespace
}  // namespace vaporix
