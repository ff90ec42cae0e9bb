// Tests of the displacement: a constant texture moves the surface by its length, the band and
// its smoothing, a grid with nothing inside, the render-time roads, memory failures, progress.
#include "render/Displacement.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "render/Texture.h"
#include "render/VolumeShader.h"

namespace vaporix {
namespace {

/// A ball whose surface argument falls linearly with the distance from the centre: value
/// R - distance, so the surface (level 0) is the sphere of radius R.
struct BallGrid {
    int n[3];
    float centre[3];
    float radius;
    std::vector<float> values;
    VolumeShader shader;

    BallGrid(int size, float r, int mode) : n{size, size, size}, radius(r) {
        for (float& c : centre) c = 0.5f * float(size - 1);
        values.resize(size_t(size) * size * size);
        for (int z = 0; z < size; ++z)
            for (int y = 0; y < size; ++y)
                for (int x = 0; x < size; ++x)
                    values[size_t(x) + size_t(size) * (y + size_t(size) * z)] =
                        r - distance(float(x), float(y), float(z));
        shader.InitVolume(n);
        shader.channel[2] = values.data();
        shader.channel[3] = values.data();
        shader.surfaceLevel = 0.0f;
        shader.displaceMode = mode;
        shader.displaceMult = 1.0f;
    }
    float distance(float x, float y, float z) const {
        return std::sqrt((x - centre[0]) * (x - centre[0]) + (y - centre[1]) * (y - centre[1]) +
                         (z - centre[2]) * (z - centre[2]));
    }
    void texture(int slot, const char* description) {
        std::string error;
        shader.textures[slot] = parseTextureSpec(description, error);
        ASSERT_TRUE(shader.textures[slot]) << error;
    }
    /// Where the surface argument (as the shader now reads it) crosses 0 along +x from the
    /// centre, by linear interpolation between cells.
    float crossingAlongX() const {
        const int y = int(centre[1]), z = int(centre[2]);
        const float* ch = shader.channel[3];
        for (int x = int(centre[0]); x + 1 < n[0]; ++x) {
            const float a = ch[x + size_t(n[0]) * (y + size_t(n[1]) * z)];
            const float b = ch[x + 1 + size_t(n[0]) * (y + size_t(n[1]) * z)];
            if (a > 0.0f && b <= 0.0f) return float(x) + a / (a - b) - centre[0];
        }
        return -1.0f;
    }
};

TEST(Displacement, ConstantTextureMovesTheSurfaceByItsLength) {
    // The grid's centre lies on a cell, so the crossing along x is exact before displacement.
    BallGrid g(33, 8.0f, 1);
    g.texture(TEX_DISPL0, "constant:value=1.5");
    EXPECT_NEAR(g.crossingAlongX(), 8.0f, 1e-4f);
    ASSERT_EQ(g.shader.displacement.BuildDisplacement(g.shader, 4, false, false), 1);
    ASSERT_NE(g.shader.displacement.displacedChannels(), nullptr);
    EXPECT_NE(g.shader.channel[3], g.values.data());
    // Length: displmul / 3 * (r + g + b) = 1.5 cells outward.
    EXPECT_NEAR(g.crossingAlongX(), 9.5f, 0.1f);
    // The smoothed normals point outward along the band.
    const float* nn = g.shader.displacement.surfaceNormal();
    const size_t at = 24 + 33 * (16 + 33 * size_t(16));
    EXPECT_NEAR(nn[3 * at], 1.0f, 1e-3f);
    EXPECT_NEAR(nn[3 * at + 1], 0.0f, 1e-3f);
}

TEST(Displacement, NegativeMultiplierMovesTheSurfaceInward) {
    BallGrid g(33, 8.0f, 1);
    g.shader.displaceMult = -2.0f;
    g.texture(TEX_DISPL0, "constant:value=0.5");
    ASSERT_EQ(g.shader.displacement.BuildDisplacement(g.shader, 4, false, false), 1);
    EXPECT_NEAR(g.crossingAlongX(), 7.0f, 0.1f);
}

TEST(Displacement, GradientAndVectorModesMoveTheSurfaceToo) {
    BallGrid gradient(33, 8.0f, 0);
    gradient.texture(TEX_DISPL0, "constant:value=1");
    ASSERT_EQ(gradient.shader.displacement.BuildDisplacement(gradient.shader, 4, false, false), 1);
    EXPECT_NEAR(gradient.crossingAlongX(), 9.0f, 0.1f);
    // Vector: every point reads from -displmul * colour; the ball moves by +colour.
    BallGrid vec(33, 8.0f, 2);
    vec.texture(TEX_DISPL1, "constant:value=2,0,0");
    ASSERT_EQ(vec.shader.displacement.BuildDisplacement(vec.shader, 5, false, false), 1);
    EXPECT_NEAR(vec.crossingAlongX(), 10.0f, 1e-3f);
}

TEST(Displacement, NothingAboveTheLevelBuildsNothing) {
    BallGrid g(17, 8.0f, 1);
    g.shader.surfaceLevel = 100.0f;
    g.texture(TEX_DISPL0, "constant:value=1");
    g.texture(TEX_DISPL2, "constant:value=1");
    EXPECT_EQ(g.shader.displacement.BuildDisplacement(g.shader, 4, false, false), 0);
    EXPECT_EQ(g.shader.channel[3], g.values.data());
    EXPECT_EQ(g.shader.displacement.PrepareDisplacement(g.shader, false), 0);
    EXPECT_FALSE(g.shader.flags & VolumeShader::hasDisplacement);
    EXPECT_EQ(g.shader.displacement.surfaceNormal(), nullptr);
}

TEST(Displacement, RenderTimeRoadMovesSamplesAlongTheNormal) {
    BallGrid g(33, 8.0f, 1);
    g.texture(TEX_DISPL2, "constant:value=1.5");
    ASSERT_EQ(g.shader.displacement.PrepareDisplacement(g.shader, false), 0);
    ASSERT_TRUE(g.shader.flags & VolumeShader::hasDisplacement);
    // Level 6 resamples nothing: the channels stay, samples move.
    EXPECT_EQ(g.shader.channel[3], g.values.data());
    DisplacementRead read;
    const float p[3] = {24.0f, 16.0f, 16.0f};
    g.shader.displacement.ReadDisplacement(g.shader, p, read);
    EXPECT_NEAR(read.weight, 1.0f, 1e-6f);
    EXPECT_NEAR(read.vector[0], -1.5f, 0.05f);  // inward: the sample reads denser smoke
    EXPECT_NEAR(read.moved[0], 22.5f, 0.05f);
    // A sample through the shader takes the same move; a 0x100 mask does not.
    VolumeSample s;
    g.shader.sample(s, p, SAMPLE_SURFACE | SAMPLE_RAW, 1, 0.0f);
    EXPECT_NEAR(s.position[0], read.moved[0], 1e-6f);
    g.shader.sample(s, p, SAMPLE_SURFACE | SAMPLE_RAW | SAMPLE_NO_DISPLACEMENT, 1, 0.0f);
    EXPECT_EQ(s.position[0], 24.0f);
}

TEST(Displacement, AdvectionReadsTheTextureAtEachSample) {
    BallGrid g(9, 3.0f, 3);
    g.texture(TEX_DISPL2, "constant:value=0.5,-1,2");
    g.shader.displaceMult = 2.0f;
    ASSERT_EQ(g.shader.displacement.PrepareDisplacement(g.shader, false), 0);
    ASSERT_TRUE(g.shader.flags & VolumeShader::hasDisplacement);
    float p[3] = {4.0f, 4.0f, 4.0f};
    g.shader.displacement.apply(g.shader, p);
    EXPECT_FLOAT_EQ(p[0], 3.0f);
    EXPECT_FLOAT_EQ(p[1], 6.0f);
    EXPECT_FLOAT_EQ(p[2], 0.0f);
}

TEST(Displacement, OutOfMemoryInAnyScratchBuildsNothing) {
    for (uint32_t bit : {DS_SCRATCH_CELLS, DS_SCRATCH_OFFSETS, DS_SCRATCH_SPECTRUM,
                         DS_SCRATCH_VALUES, DS_SCRATCH_CHANNELS}) {
        BallGrid g(17, 5.0f, 1);
        g.texture(TEX_DISPL0, "constant:value=1");
        g.texture(TEX_DISPL2, "constant:value=1");
        Displacement::failAllocations.store(bit);
        EXPECT_EQ(g.shader.displacement.PrepareDisplacement(g.shader, false), 0) << bit;
        Displacement::failAllocations.store(0);
        EXPECT_EQ(g.shader.channel[3], g.values.data()) << bit;
        if (bit != DS_SCRATCH_CHANNELS) {
            EXPECT_FALSE(g.shader.flags & VolumeShader::hasDisplacement) << bit;
        }
    }
}

/// Collects pass texts; asks to stop once a given text arrives.
class PassLog : public ProgressCallback {
public:
    std::vector<std::string> texts;
    std::string stopAt;
    void info(int, int, const char* format, ...) override {
        char buf[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(buf, sizeof buf, format, args);
        va_end(args);
        texts.push_back(buf);
    }
    int checkAbort() override {
        return !stopAt.empty() && !texts.empty() && texts.back() == stopAt;
    }
};

TEST(Displacement, ReportsItsPassesByLevelAndStopsWhenCancelled) {
    BallGrid g(17, 5.0f, 1);
    g.texture(TEX_DISPL1, "constant:value=1");
    PassLog log;
    g.shader.displacement.progress = &log;
    EXPECT_EQ(g.shader.displacement.BuildDisplacement(g.shader, 5, false, false), 1);
    ASSERT_EQ(log.texts.size(), 4u);
    for (int k = 0; k < 4; ++k)
        EXPECT_EQ(log.texts[k],
                  "Calculating displacement (level 1), pass " + std::to_string(k + 1));
    BallGrid h(17, 5.0f, 1);
    h.texture(TEX_DISPL0, "constant:value=1");
    PassLog stop;
    stop.stopAt = "Calculating displacement (level 0), pass 3";
    h.shader.displacement.progress = &stop;
    EXPECT_EQ(h.shader.displacement.PrepareDisplacement(h.shader, false), 1);
    EXPECT_EQ(h.shader.channel[3], h.values.data());
    EXPECT_EQ(h.shader.displacement.surfaceNormal(), nullptr);
}

TEST(Displacement, ResultsDoNotDependOnTheThreads) {
    std::vector<float> first;
    for (int threads : {1, 3}) {
        BallGrid g(20, 6.0f, 1);
        g.texture(TEX_DISPL0, "noise:scale=0.4,octaves=3");
        g.shader.displacement.threads = threads;
        ASSERT_EQ(g.shader.displacement.BuildDisplacement(g.shader, 4, false, false), 1);
        const float* d = g.shader.displacement.displacedChannels();
        std::vector<float> out(d, d + 4 * 20 * 20 * 20);
        if (first.empty()) {
            first = out;
        } else {
            EXPECT_EQ(first, out);
        }
    }
}

}  // namespace
}  // namespace vaporix
