// Tests of the motion path field and the sample offsets: the kernel, uniform and zero motion,
// thread-count independence, bad velocities, tiny grids, memory failures and cancellation.
#include "render/MotionBlur.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <limits>
#include <vector>

#include "render/VolumeShader.h"

namespace vaporix {
namespace {

/// A shader over three velocity arrays held by the test.
struct VelocityGrid {
    int n[3];
    std::vector<float> v[3];
    VolumeShader shader;

    VelocityGrid(int nx, int ny, int nz, float vx, float vy, float vz) : n{nx, ny, nz} {
        const size_t cells = size_t(nx) * ny * nz;
        v[0].assign(cells, vx);
        v[1].assign(cells, vy);
        v[2].assign(cells, vz);
        shader.InitVolume(n);
        attach();
    }
    void attach() {
        for (int a = 0; a < 3; ++a) shader.velocityChannel[a] = v[a].data();
        shader.motionBlur.velocityAvailable = true;
        shader.motionBlur.motionScale = 1.0f;
    }
    size_t at(int x, int y, int z) const { return size_t(x) + size_t(n[0]) * (y + size_t(n[1]) * z); }
    std::vector<float> build(MotionBlurSettings s) {
        EXPECT_EQ(shader.motionBlur.BuildMotionBlur(shader, s), 0);
        const float* f = shader.motionBlur.field();
        if (!f) return {};
        return std::vector<float>(f, f + 3 * size_t(n[0]) * n[1] * n[2]);
    }
};

/// Clears the allocation test hook when a test ends.
struct FailAllocations {
    explicit FailAllocations(uint32_t bits) { MotionBlur::failAllocations.store(bits); }
    ~FailAllocations() { MotionBlur::failAllocations.store(0); }
};

TEST(MotionBlurKernel, SumsToOneAndIsSymmetric) {
    for (int r = 1; r <= 12; ++r) {
        const std::vector<float> k = motionBlurKernel(r);
        ASSERT_EQ(k.size(), size_t(2 * r + 1));
        double sum = 0.0;
        for (float v : k) sum += v;
        EXPECT_NEAR(sum, 1.0, 1e-6) << "r " << r;
        for (int i = 0; i < r; ++i) EXPECT_EQ(k[i], k[2 * r - i]);
        // Repeated boxes: the centre weighs most, falling off to the ends.
        for (int i = 0; i < r; ++i) EXPECT_LE(k[i], k[i + 1]);
    }
    // r = 1: one box of three.
    const std::vector<float> k1 = motionBlurKernel(1);
    for (float v : k1) EXPECT_FLOAT_EQ(v, 1.0f / 3.0f);
}

TEST(MotionBlurKernel, RadiusZeroOrBelowIsNoBlur) {
    EXPECT_TRUE(motionBlurKernel(0).empty());
    EXPECT_TRUE(motionBlurKernel(-3).empty());
}

TEST(MotionBlur, UniformVelocityGivesAUniformFieldInside) {
    VelocityGrid g(24, 16, 20, 4.0f, 0.0f, 0.0f);
    MotionBlurSettings s;
    s.tStart = 0.0f;
    s.tEnd = 0.5f;
    s.mbSmooth = 2;
    const std::vector<float> f = g.build(s);
    ASSERT_FALSE(f.empty());
    // Away from the faces (path reach 2 cells, blur radius 2) every cell holds the same mean
    // motion: the velocity times the mean path time, about a quarter of the frame.
    const size_t ref = g.at(12, 8, 10);
    EXPECT_NEAR(f[3 * ref], 4.0f * 0.25f, 0.05f);
    for (int z = 5; z < 15; ++z)
        for (int y = 5; y < 11; ++y)
            for (int x = 7; x < 19; ++x) {
                const size_t i = g.at(x, y, z);
                EXPECT_NEAR(f[3 * i], f[3 * ref], 1e-5f) << x << " " << y << " " << z;
                EXPECT_EQ(f[3 * i + 1], 0.0f);
                EXPECT_EQ(f[3 * i + 2], 0.0f);
            }
}

TEST(MotionBlur, ZeroVelocityGivesAZeroField) {
    VelocityGrid g(8, 9, 10, 0.0f, 0.0f, 0.0f);
    const std::vector<float> f = g.build(MotionBlurSettings{});
    ASSERT_EQ(f.size(), size_t(3 * 8 * 9 * 10));
    for (float v : f) ASSERT_EQ(v, 0.0f);
    // And a sample stays exactly where it was.
    float p[3] = {3.3f, 4.7f, 5.1f};
    g.shader.motionBlur.ApplyMotion(g.shader, p, 0.7f);
    EXPECT_EQ(p[0], 3.3f);
    EXPECT_EQ(p[1], 4.7f);
    EXPECT_EQ(p[2], 5.1f);
}

TEST(MotionBlur, FieldIsTheSameForAnyThreadCount) {
    // A swirling field with fast motion along z, so that paths cross slab borders.
    VelocityGrid g(20, 18, 40, 0.0f, 0.0f, 0.0f);
    for (int z = 0; z < 40; ++z)
        for (int y = 0; y < 18; ++y)
            for (int x = 0; x < 20; ++x) {
                const size_t i = g.at(x, y, z);
                g.v[0][i] = 3.0f * std::sin(0.3f * y + 0.1f * z);
                g.v[1][i] = 2.0f * std::cos(0.4f * x);
                g.v[2][i] = 6.0f * std::sin(0.2f * x + 0.3f * y);
            }
    MotionBlurSettings s;
    s.tStart = -0.25f;
    s.tEnd = 0.5f;
    s.threads = 1;
    const std::vector<float> one = g.build(s);
    ASSERT_FALSE(one.empty());
    for (int threads : {2, 3, 5}) {
        s.threads = threads;
        const std::vector<float> many = g.build(s);
        ASSERT_EQ(many.size(), one.size());
        EXPECT_EQ(std::memcmp(many.data(), one.data(), one.size() * sizeof(float)), 0)
            << threads << " threads";
    }
}

TEST(MotionBlur, NotANumberAndHugeVelocitiesAreTamed) {
    VelocityGrid g(12, 12, 12, 1.0f, 0.0f, 0.0f);
    g.v[0][g.at(3, 3, 3)] = std::numeric_limits<float>::quiet_NaN();
    g.v[1][g.at(4, 4, 4)] = std::numeric_limits<float>::infinity();
    g.v[2][g.at(5, 5, 5)] = 1e30f;
    g.v[0][g.at(6, 6, 6)] = -3e38f;
    MotionBlurSettings s;
    s.tStart = 0.0f;
    s.tEnd = 1.0f;
    const std::vector<float> f = g.build(s);
    ASSERT_FALSE(f.empty());
    for (float v : f) ASSERT_TRUE(std::isfinite(v));
    // Per-sample reads of the same data stay finite as well.
    g.shader.motionBlur.perSampleRead = true;
    for (int i = 0; i < 12; ++i) {
        float p[3] = {float(i), float(i), float(i)};
        g.shader.motionBlur.ApplyMotion(g.shader, p, 0.9f);
        for (float c : p) ASSERT_TRUE(std::isfinite(c));
    }
}

TEST(MotionBlur, OneCellAxesAndShortShuttersWork) {
    for (const auto& size : {std::array<int, 3>{1, 1, 1}, std::array<int, 3>{1, 7, 1},
                             std::array<int, 3>{5, 1, 9}}) {
        VelocityGrid g(size[0], size[1], size[2], 2.0f, -1.0f, 3.0f);
        MotionBlurSettings s;
        s.mbSmooth = 4;
        EXPECT_FALSE(g.build(s).empty());
        s.tStart = s.tEnd = 0.25f;  // an instant
        const std::vector<float> f = g.build(s);
        ASSERT_FALSE(f.empty());
        for (float v : f) EXPECT_TRUE(std::isfinite(v));
    }
}

TEST(MotionBlur, OutOfMemoryInAnyScratchLeavesNoFieldAndGoesOn) {
    for (uint32_t bit : {MB_SCRATCH_WEIGHT, MB_SCRATCH_FIELD, MB_SCRATCH_RING}) {
        VelocityGrid g(10, 10, 10, 2.0f, 0.0f, 0.0f);
        FailAllocations fail(bit);
        EXPECT_EQ(g.shader.motionBlur.BuildMotionBlur(g.shader, MotionBlurSettings{}), 0);
        EXPECT_EQ(g.shader.motionBlur.field(), nullptr) << bit;
    }
}

/// Asks to stop at once.
class StopNow : public ProgressCallback {
public:
    int checkAbort() override { return 1; }
};

TEST(MotionBlur, CancellationReturnsOneAndKeepsNoField) {
    VelocityGrid g(64, 64, 8, 2.0f, 0.0f, 0.0f);
    StopNow stop;
    MotionBlurSettings s;
    s.progress = &stop;
    EXPECT_EQ(g.shader.motionBlur.BuildMotionBlur(g.shader, s), 1);
    EXPECT_EQ(g.shader.motionBlur.field(), nullptr);
}

/// Collects the pass texts.
class TextLog : public ProgressCallback {
public:
    std::vector<std::string> texts;
    void info(int, int, const char* format, ...) override {
        char buf[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(buf, sizeof buf, format, args);
        va_end(args);
        texts.push_back(buf);
    }
};

TEST(MotionBlur, ReportsItsFourPasses) {
    VelocityGrid g(6, 6, 6, 1.0f, 0.0f, 0.0f);
    TextLog log;
    MotionBlurSettings s;
    s.progress = &log;
    g.build(s);
    ASSERT_EQ(log.texts.size(), 4u);
    for (int k = 0; k < 4; ++k)
        EXPECT_EQ(log.texts[k], "Calculating motion blur, pass " + std::to_string(k + 1));
}

TEST(ApplyMotion, FieldOffsetGrowsWithTheSampleTime) {
    VelocityGrid g(16, 16, 16, 4.0f, 0.0f, 0.0f);
    const std::vector<float> f = g.build(MotionBlurSettings{});
    const float fx = f[3 * g.at(8, 8, 8)];
    ASSERT_GT(fx, 0.0f);
    float early[3] = {8.0f, 8.0f, 8.0f}, late[3] = {8.0f, 8.0f, 8.0f}, none[3] = {8, 8, 8};
    g.shader.motionBlur.ApplyMotion(g.shader, early, 0.25f);
    g.shader.motionBlur.ApplyMotion(g.shader, late, 1.0f);
    g.shader.motionBlur.ApplyMotion(g.shader, none, 1e-7f);  // under 1e-6: no change
    EXPECT_NEAR(early[0] - 8.0f, 0.25f * fx, 1e-6f);
    EXPECT_NEAR(late[0] - 8.0f, fx, 1e-6f);
    EXPECT_EQ(early[1], 8.0f);
    EXPECT_EQ(none[0], 8.0f);
}

TEST(ApplyMotion, WithoutAFieldReadsTheVelocityAtTheSample) {
    VelocityGrid g(16, 16, 16, 2.0f, -1.0f, 0.5f);
    MotionBlur& m = g.shader.motionBlur;
    m.shutterScale = 0.5f;
    float p[3] = {8.0f, 8.0f, 8.0f};
    m.ApplyMotion(g.shader, p, 1.0f);
    // tau' = (1 - 0.5) * 0.5 + 0.5 = 0.75; the offset is -v * tau'.
    EXPECT_FLOAT_EQ(p[0], 8.0f - 2.0f * 0.75f);
    EXPECT_FLOAT_EQ(p[1], 8.0f + 1.0f * 0.75f);
    EXPECT_FLOAT_EQ(p[2], 8.0f - 0.5f * 0.75f);

    // The second read averages with the velocity where the first leads (here twice as fast
    // by play speed); slow flows (|v|^2 <= 0.25) don't take it.
    m.secondVelocityRead = true;
    m.playSpeed = 2.0f;
    float q[3] = {8.0f, 8.0f, 8.0f};
    m.ApplyMotion(g.shader, q, 1.0f);
    EXPECT_FLOAT_EQ(q[0], 8.0f - 0.5f * (2.0f + 4.0f) * 0.75f);
    VelocityGrid slow(8, 8, 8, 0.3f, 0.0f, 0.0f);
    slow.shader.motionBlur.secondVelocityRead = true;
    slow.shader.motionBlur.playSpeed = 10.0f;
    float r[3] = {4.0f, 4.0f, 4.0f};
    slow.shader.motionBlur.ApplyMotion(slow.shader, r, 0.5f);
    EXPECT_FLOAT_EQ(r[0], 4.0f - 0.3f * 0.5f);
}

TEST(ApplyMotion, WithoutVelocityNothingMoves) {
    VelocityGrid g(8, 8, 8, 2.0f, 0.0f, 0.0f);
    g.shader.motionBlur.velocityAvailable = false;
    float p[3] = {4.0f, 4.0f, 4.0f};
    g.shader.motionBlur.ApplyMotion(g.shader, p, 1.0f);
    EXPECT_EQ(p[0], 4.0f);
}

/// Records what the gizmo test saw.
class RecordingGizmo : public IMotionGizmo {
public:
    mutable int calls = 0;
    mutable float before[3] = {0, 0, 0}, moved[3] = {0, 0, 0}, tau = 0;
    void testMotion(const float b[3], const float m[3], float t) const override {
        ++calls;
        std::memcpy(before, b, sizeof before);
        std::memcpy(moved, m, sizeof moved);
        tau = t;
    }
};

TEST(ApplyMotion, GizmoSeesTheMoveAndLeavesThePointAsMoved) {
    VelocityGrid g(8, 8, 8, 2.0f, 0.0f, 0.0f);
    RecordingGizmo gizmo;
    g.shader.motionBlur.gizmo = &gizmo;
    float p[3] = {4.0f, 4.0f, 4.0f};
    g.shader.motionBlur.ApplyMotion(g.shader, p, 0.5f);
    EXPECT_EQ(gizmo.calls, 1);
    EXPECT_EQ(gizmo.before[0], 4.0f);
    EXPECT_EQ(gizmo.moved[0], p[0]);
    EXPECT_NE(p[0], 4.0f);
    EXPECT_EQ(gizmo.tau, 0.5f);
}

}  // namespace
}  // namespace vaporix
