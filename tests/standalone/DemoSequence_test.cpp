// The built-in fire-and-smoke sample: settings checks, determinism, plausible fire, transport by
// its own velocity, and frames that read back through the cache reader.
#include "standalone/DemoSequence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "cache/VaporixFrameData.h"
#include "foundation/ProgressCallback.h"

using namespace vaporix;
using namespace vaporix::test;

namespace {

/// A small grid keeps every test fast; the sample's shapes scale with the grid.
DemoSettings smallSettings(int threads = -1) {
    DemoSettings s;
    s.size[0] = 24;
    s.size[1] = 24;
    s.size[2] = 32;
    s.frames = 3;
    s.warmupFrames = 4;
    s.threads = threads;
    return s;
}

int64_t cellCount(const DemoSettings& s) { return int64_t(s.size[0]) * s.size[1] * s.size[2]; }

struct Moments {
    double mass = 0;
    double centre[3] = {0, 0, 0};
};

Moments momentsOf(const float* density, const int n[3]) {
    Moments m;
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                const double d = density[x + n[0] * (y + n[1] * z)];
                m.mass += d;
                m.centre[0] += d * x;
                m.centre[1] += d * y;
                m.centre[2] += d * z;
            }
    for (double& c : m.centre) c /= m.mass;
    return m;
}

/// Mean velocity weighted by a density.
void weightedVelocity(const DemoSequence& demo,
                      const float* density,
                      int64_t cells,
                      double out[3]) {
    double mass = 0;
    out[0] = out[1] = out[2] = 0;
    for (int64_t c = 0; c < cells; ++c) {
        mass += density[c];
        for (int a = 0; a < 3; ++a) out[a] += double(density[c]) * demo.channel(4 + a)[c];
    }
    for (int a = 0; a < 3; ++a) out[a] /= mass;
}

std::vector<std::string> writeAll(const DemoSettings& s, const std::string& folder) {
    std::vector<std::string> paths;
    std::string error;
    EXPECT_TRUE(DemoSequence::writeSequence(s, folder, paths, error)) << error;
    return paths;
}

}  // namespace

TEST(DemoSequence, RejectsSettingsOutOfRange) {
    auto expectRejected = [](DemoSettings s, const std::string& words) {
        DemoSequence demo(s);
        EXPECT_FALSE(demo.isValid());
        EXPECT_NE(demo.error().find(words), std::string::npos) << demo.error();
        EXPECT_EQ(demo.channel(CH_SMOKE), nullptr);
        EXPECT_FALSE(demo.start());
        EXPECT_FALSE(demo.advance());
        VaporixFrameData frame;
        EXPECT_FALSE(demo.fillFrame(frame));
        TempDir dir;
        std::vector<std::string> paths;
        std::string error;
        EXPECT_FALSE(DemoSequence::writeSequence(s, dir.path(), paths, error));
        EXPECT_EQ(error, demo.error());
        EXPECT_TRUE(paths.empty());
    };
    DemoSettings s = smallSettings();
    s.size[1] = DEMO_MIN_AXIS - 1;
    expectRejected(s, "axis");
    s = smallSettings();
    s.size[2] = DEMO_MAX_AXIS + 1;
    expectRejected(s, "axis");
    s = smallSettings();
    s.size[0] = s.size[1] = s.size[2] = DEMO_MAX_AXIS;  // each axis fine, too many cells in all
    expectRejected(s, "cells");
    s = smallSettings();
    s.frames = 0;
    expectRejected(s, "frames");
    s = smallSettings();
    s.warmupFrames = -1;
    expectRejected(s, "frames");
    s = smallSettings();
    s.substeps = 0;
    expectRejected(s, "steps");

    DemoSequence good(smallSettings());
    ASSERT_TRUE(good.isValid());
    EXPECT_EQ(good.channel(3), nullptr);  // speed is derived by readers, never stored
    EXPECT_EQ(good.channel(7), nullptr);
}

TEST(DemoSequence, SameBytesForEveryRunAndThreadCount) {
    TempDir dir;
    const auto one = writeAll(smallSettings(1), dir.file("one"));
    const auto two = writeAll(smallSettings(2), dir.file("two"));
    const auto again = writeAll(smallSettings(2), dir.file("again"));
    const auto three = writeAll(smallSettings(3), dir.file("three"));
    ASSERT_EQ(one.size(), 3u);
    ASSERT_EQ(two.size(), 3u);
    ASSERT_EQ(again.size(), 3u);
    ASSERT_EQ(three.size(), 3u);
    for (size_t k = 0; k < one.size(); ++k) {
        const auto bytes = readBytes(one[k]);
        ASSERT_FALSE(bytes.empty());
        EXPECT_EQ(bytes, readBytes(two[k])) << "frame " << k + 1;
        EXPECT_EQ(bytes, readBytes(again[k])) << "frame " << k + 1;
        EXPECT_EQ(bytes, readBytes(three[k])) << "frame " << k + 1;
        // Frames differ from each other: the sample is animated.
        if (k > 0) {
            EXPECT_NE(bytes, readBytes(one[k - 1]));
        }
    }
}

TEST(DemoSequence, FireBurnsBelowAndSmokeRisesAbove) {
    DemoSettings s = smallSettings();
    s.warmupFrames = DemoSettings().warmupFrames;  // as the sample's frames begin
    DemoSequence demo(s);
    ASSERT_TRUE(demo.start());
    EXPECT_EQ(demo.frameNumber(), 1);
    ASSERT_TRUE(demo.advance());
    ASSERT_TRUE(demo.advance());
    EXPECT_EQ(demo.frameNumber(), 3);
    EXPECT_DOUBLE_EQ(demo.simTime(), 3 / 30.0);

    const int64_t cells = cellCount(s), layer = int64_t(s.size[0]) * s.size[1];
    const float* temperature = demo.channel(CH_TEMPERATURE);
    const float* smoke = demo.channel(CH_SMOKE);
    const float* fuel = demo.channel(CH_FUEL);
    float hottest = 0, densest = 0, fullest = 0;
    for (int64_t c = 0; c < cells; ++c) {
        ASSERT_TRUE(temperature[c] >= 0.0f && temperature[c] <= 3000.0f) << temperature[c];
        ASSERT_TRUE(smoke[c] >= 0.0f && smoke[c] <= 5.0f) << smoke[c];
        ASSERT_TRUE(fuel[c] >= 0.0f && fuel[c] <= 1.0f) << fuel[c];
        for (int a = 0; a < 3; ++a) ASSERT_TRUE(std::isfinite(demo.channel(4 + a)[c]));
        hottest = std::max(hottest, temperature[c]);
        densest = std::max(densest, smoke[c]);
        fullest = std::max(fullest, fuel[c]);
    }
    // A hot core where the default emission curve (800 to 3000 K) shows it, smoke of about
    // unit density, and fuel from the burner.
    EXPECT_GT(hottest, 1500.0f);
    EXPECT_LT(hottest, 2800.0f);
    EXPECT_GT(densest, 0.5f);
    EXPECT_GT(fullest, 0.5f);

    // Sums over the bottom and the top quarter: fuel and fire below, smoke above.
    auto sumOver = [&](const float* f, int z0, int z1) {
        double sum = 0;
        for (int64_t c = z0 * layer; c < z1 * layer; ++c) sum += f[c];
        return sum;
    };
    const int q = s.size[2] / 4;
    EXPECT_GT(sumOver(fuel, 0, q), 10 * sumOver(fuel, 3 * q, 4 * q));
    EXPECT_GT(sumOver(temperature, 0, q), 2 * sumOver(temperature, 3 * q, 4 * q));
    EXPECT_GT(sumOver(smoke, 3 * q, 4 * q), 0.1 * sumOver(smoke, 0, q));
    // The flow rises through the fire.
    double v[3];
    weightedVelocity(demo, temperature, cells, v);
    EXPECT_GT(v[2], 0.5 * s.size[2]);  // cells per second
    EXPECT_LT(std::fabs(v[0]), v[2]);
    EXPECT_LT(std::fabs(v[1]), v[2]);
}

TEST(DemoSequence, FlowIsDivergenceFree) {
    const DemoSettings s = smallSettings();
    DemoSequence demo(s);
    ASSERT_TRUE(demo.isValid());
    const int* n = s.size;
    const float* v[3] = {demo.channel(4), demo.channel(5), demo.channel(6)};
    auto at = [&](int x, int y, int z) { return x + int64_t(n[0]) * (y + int64_t(n[1]) * z); };
    double largest = 0, worst = 0, strain = 0;
    for (int z = 1; z < n[2] - 1; ++z)
        for (int y = 1; y < n[1] - 1; ++y)
            for (int x = 1; x < n[0] - 1; ++x) {
                const double dxx = v[0][at(x + 1, y, z)] - v[0][at(x - 1, y, z)];
                const double dyy = v[1][at(x, y + 1, z)] - v[1][at(x, y - 1, z)];
                const double dzz = v[2][at(x, y, z + 1)] - v[2][at(x, y, z - 1)];
                worst = std::max(worst, std::fabs(dxx + dyy + dzz) / 2);
                strain = std::max({strain, std::fabs(dxx), std::fabs(dyy), std::fabs(dzz)});
                for (int a = 0; a < 3; ++a)
                    largest = std::max(largest, double(std::fabs(v[a][at(x, y, z)])));
            }
    // The flow is not trivial: it is fast and its parts change across cells...
    EXPECT_GT(largest, s.size[2]);
    EXPECT_GT(strain, 0.05 * largest);
    // ...yet the central differences cancel up to float rounding.
    EXPECT_LT(worst, 1e-4 * largest);
}

TEST(DemoSequence, ContentsMoveWithTheVelocity) {
    DemoSettings s = smallSettings();
    s.burner = false;
    s.warmupFrames = 0;
    DemoSequence demo(s);
    ASSERT_TRUE(demo.isValid());
    const int* n = s.size;
    const int64_t cells = cellCount(s);

    // A soft ball of smoke off the axis, low in the grid, where the flow is fast and swirls.
    float* smoke = demo.channel(CH_SMOKE);
    const double centre[3] = {0.4 * n[0], 0.55 * n[1], 0.25 * n[2]};
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                const double d2 = (x - centre[0]) * (x - centre[0]) +
                                  (y - centre[1]) * (y - centre[1]) +
                                  (z - centre[2]) * (z - centre[2]);
                smoke[x + n[0] * (y + n[1] * z)] = float(std::exp(-d2 / (2 * 2.5 * 2.5)));
            }

    Moments before = momentsOf(smoke, n);
    double travelled = 0;
    for (int frame = 0; frame < 3; ++frame) {
        // Expected shift: the density-weighted velocity at both ends of the frame, averaged,
        // times the frame's length.
        double v0[3], v1[3];
        weightedVelocity(demo, demo.channel(CH_SMOKE), cells, v0);
        ASSERT_TRUE(demo.advance());
        weightedVelocity(demo, demo.channel(CH_SMOKE), cells, v1);
        const Moments after = momentsOf(demo.channel(CH_SMOKE), n);
        double expected[3], moved[3], error = 0, length = 0;
        for (int a = 0; a < 3; ++a) {
            expected[a] = 0.5 * (v0[a] + v1[a]) / 30.0;
            moved[a] = after.centre[a] - before.centre[a];
            error += (moved[a] - expected[a]) * (moved[a] - expected[a]);
            length += expected[a] * expected[a];
        }
        error = std::sqrt(error);
        length = std::sqrt(length);
        travelled += length;
        EXPECT_GT(length, 1.0) << "frame " << frame;  // cells: a real test of the transport
        EXPECT_LT(error, 0.03 * length + 0.02)
            << "frame " << frame << ": moved " << moved[0] << " " << moved[1] << " " << moved[2]
            << ", expected " << expected[0] << " " << expected[1] << " " << expected[2];
        // Nothing burns or appears: the smoke is only carried (and thins out very slowly).
        EXPECT_NEAR(after.mass / before.mass, 1.0, 0.02) << "frame " << frame;
        before = after;
    }
    EXPECT_GT(travelled, 3.0);
    for (int64_t c = 0; c < cells; ++c) {
        ASSERT_EQ(demo.channel(CH_TEMPERATURE)[c], 0.0f);
        ASSERT_EQ(demo.channel(CH_FUEL)[c], 0.0f);
    }
}

TEST(DemoSequence, FramesReadBackWithTheirHeader) {
    const DemoSettings s = smallSettings();
    TempDir dir;
    const auto paths = writeAll(s, dir.file("out/demo"));
    ASSERT_EQ(paths.size(), 3u);

    DemoSequence reference(s);
    ASSERT_TRUE(reference.start());
    float transform[12];
    DemoSequence::gridTransformFor(s.size, transform);
    for (int f = 1; f <= 3; ++f) {
        if (f > 1) {
            ASSERT_TRUE(reference.advance());
        }
        char name[32];
        std::snprintf(name, sizeof name, "/fire_%04d.vxg", f);
        EXPECT_EQ(paths[f - 1], dir.file("out/demo") + name);

        VaporixFrameData frame;
        ASSERT_EQ(frame.ImportVxg(paths[f - 1].c_str(), true, false, false), LOAD_OK);
        EXPECT_EQ(frame.gridSize[0], s.size[0]);
        EXPECT_EQ(frame.gridSize[1], s.size[1]);
        EXPECT_EQ(frame.gridSize[2], s.size[2]);
        EXPECT_EQ(frame.frameNumber, f);
        EXPECT_EQ(frame.timeStep, DEFAULT_TIME_STEP);
        EXPECT_DOUBLE_EQ(frame.simTime(), f / 30.0);
        EXPECT_EQ(std::memcmp(frame.gridTransform.m, transform, sizeof transform), 0);
        uint32_t mask = 0;
        for (int c : DEMO_CHANNELS) mask |= 1u << c;
        EXPECT_EQ(frame.channelMask, mask);

        // Cells of one world unit, centred on the origin in x and y, standing on z = 0.
        float box[6];
        frame.getWorldBox(box, false);
        EXPECT_FLOAT_EQ(box[0], -0.5f * s.size[0]);
        EXPECT_FLOAT_EQ(box[1], -0.5f * s.size[1]);
        EXPECT_FLOAT_EQ(box[2], 0.0f);
        EXPECT_FLOAT_EQ(box[3], 0.5f * s.size[0]);
        EXPECT_FLOAT_EQ(box[4], 0.5f * s.size[1]);
        EXPECT_FLOAT_EQ(box[5], float(s.size[2]));

        // Each channel is the simulation's, within the codec's 16-bit steps over its range.
        for (int c : DEMO_CHANNELS) {
            const float* read = frame.GetChannelData(c);
            const float* want = reference.channel(c);
            ASSERT_NE(read, nullptr) << "channel " << c;
            const auto [lo, hi] = std::minmax_element(want, want + cellCount(s));
            const float step = (*hi - *lo) / 65536.0f;
            float worst = 0;
            for (int64_t k = 0; k < cellCount(s); ++k)
                worst = std::max(worst, std::fabs(read[k] - want[k]));
            EXPECT_LE(worst, step) << "channel " << c;
        }
    }
}

TEST(DemoSequence, StopsWhenAskedAndReportsWriteFailures) {
    struct StopAfterOne : ProgressCallback {
        uint64_t done = 0;
        void setProgress(uint64_t value) override { done = value; }
        int checkAbort() override { return done >= 1 ? 1 : 0; }
    } stop;
    TempDir dir;
    std::vector<std::string> paths;
    std::string error;
    EXPECT_FALSE(DemoSequence::writeSequence(smallSettings(), dir.path(), paths, error, &stop));
    EXPECT_EQ(error, "stopped");
    ASSERT_EQ(paths.size(), 1u);
    EXPECT_FALSE(readBytes(paths[0]).empty());

    // A folder that can't be made: its parent is a file.
    writeBytes(dir.file("plain"), {1, 2, 3});
    EXPECT_FALSE(DemoSequence::writeSequence(smallSettings(), dir.file("plain/sub"), paths, error));
    EXPECT_NE(error.find(dir.file("plain/sub")), std::string::npos) << error;
    EXPECT_TRUE(paths.empty());
}
