// Table tests of the time bend: clip clamps, loops and their cross-fade, Cache Index, wraps.
#include "playback/TimeBend.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "playback/MemoryParamStorage.h"
#include "playback/VaporixParams.h"

using namespace vaporix;

namespace {

constexpr int TPF = TICKS_PER_SECOND / 30;  // 160
constexpr int OUT_OF_CLIP = 2147483647;     // the wrapped marker of the Linear mode

TimeBendParams linear(int playStart, int length, float speed, int cacheStart, bool nearest) {
    TimeBendParams p;
    p.mode = ANIM_LINEAR;
    p.playStart = playStart;
    p.length = length;
    p.playSpeed = speed;
    p.cacheStart = cacheStart;
    p.nearest = nearest ? 1 : 0;
    return p;
}

int at(const TimeBendParams& p, double sceneFrame, float* blend = nullptr, int* partner = nullptr) {
    return computeCacheTime(static_cast<int>(std::lround(sceneFrame * TPF)), TPF, true, p, blend,
                            partner);
}

}  // namespace

TEST(TimeBend, WithoutBendTheTimePassesThroughFloored) {
    TimeBendParams p = linear(10, 20, 0.5f, 7, false);
    EXPECT_EQ(computeCacheTime(321, TPF, false, p, nullptr, nullptr), 321);
    EXPECT_EQ(computeCacheTime(-1, TPF, false, p, nullptr, nullptr), -1);
    EXPECT_EQ(computeCacheTime(0, TPF, false, p, nullptr, nullptr), 0);
    EXPECT_EQ(computeCacheTime(-161, TPF, false, p, nullptr, nullptr), -161);
}

TEST(TimeBend, DefaultsMapSceneFrameToTheSameCacheFrame) {
    TimeBendParams p;
    for (int frame : {-3, 0, 1, 17, 250}) EXPECT_EQ(at(p, frame), frame * TPF) << frame;
}

TEST(TimeBend, LinearLengthZeroNeverClamps) {
    TimeBendParams p = linear(10, 0, 1.0f, 100, false);
    EXPECT_EQ(at(p, 0), 90 * TPF);
    EXPECT_EQ(at(p, 5000), 5090 * TPF);
}

TEST(TimeBend, LinearClipWithoutNearestShowsNothingOutside) {
    TimeBendParams p = linear(10, 20, 1.0f, 100, false);
    EXPECT_EQ(at(p, 9), OUT_OF_CLIP);
    EXPECT_EQ(at(p, 10), 100 * TPF);
    EXPECT_EQ(at(p, 30), 120 * TPF);
    EXPECT_EQ(at(p, 31), OUT_OF_CLIP);
}

TEST(TimeBend, LinearClipWithNearestClamps) {
    TimeBendParams p = linear(10, 20, 1.0f, 100, true);
    EXPECT_EQ(at(p, 9), 100 * TPF);
    EXPECT_EQ(at(p, -500), 100 * TPF);
    EXPECT_EQ(at(p, 31), 120 * TPF);
    EXPECT_EQ(at(p, 20), 110 * TPF);
}

TEST(TimeBend, HalfSpeedAtAnOddFrameFallsHalfWay) {
    TimeBendParams p = linear(0, 0, 0.5f, 0, false);
    EXPECT_EQ(at(p, 11), 880);  // cache frame 5.5
    EXPECT_EQ(at(p, 12), 960);
}

TEST(TimeBend, NegativeSpeedIsUnbounded) {
    TimeBendParams p = linear(0, 20, -1.0f, 50, false);
    EXPECT_EQ(at(p, 30), 20 * TPF);  // no clamp although far outside 0..20
    EXPECT_EQ(at(p, 100), -50 * TPF);
}

TEST(TimeBend, LoopOverlapWeightsAndPartner) {
    TimeBendParams p;
    p.mode = ANIM_LOOP;
    p.length = 10;
    p.loopOverlap = 3;
    p.playStart = 5;
    p.cacheStart = 40;
    const float expected[] = {1.0f, 0.75f, 0.5f, 0.25f, -1.0f};
    for (int pos = 0; pos < 5; ++pos) {
        float blend = 7.0f;
        int partner = -7;
        EXPECT_EQ(at(p, 5 + pos, &blend, &partner), (40 + pos) * TPF);
        EXPECT_EQ(blend, expected[pos]) << pos;
        EXPECT_EQ(partner, 50 + pos) << pos;
    }
}

TEST(TimeBend, LoopWrapsByWholeLengthsAndKeepsTheEnd) {
    TimeBendParams p;
    p.mode = ANIM_LOOP;
    p.length = 10;
    EXPECT_EQ(at(p, 10), 10 * TPF);  // f == len stays
    EXPECT_EQ(at(p, 13), 3 * TPF);
    EXPECT_EQ(at(p, 47), 7 * TPF);
    EXPECT_EQ(at(p, -3), 7 * TPF);
    EXPECT_EQ(at(p, -20), 0);
}

TEST(TimeBend, LoopWithoutLengthOrOverlapGivesNoWeight) {
    TimeBendParams p;
    p.mode = ANIM_LOOP;
    p.length = 0;
    p.loopOverlap = 3;
    float blend = 9.0f;
    int partner = 9;
    EXPECT_EQ(at(p, 25, &blend, &partner), 25 * TPF);
    EXPECT_EQ(blend, 9.0f);  // untouched: no loop at all
    EXPECT_EQ(partner, 9);
    p.length = 10;
    p.loopOverlap = 0;
    EXPECT_EQ(at(p, 10, &blend, &partner), 10 * TPF);
    EXPECT_EQ(blend, -1.0f);
}

TEST(TimeBend, CacheIndexIgnoresTheClip) {
    TimeBendParams p = linear(10, 20, 2.0f, 100, true);
    p.mode = ANIM_CACHE_INDEX;
    p.directIndex = 12.5f;
    EXPECT_EQ(at(p, 0), 2000);
    EXPECT_EQ(at(p, 77), 2000);
}

TEST(TimeBend, UnknownModesPassTheTimeThrough) {
    for (int mode : {3, -1, 99}) {
        TimeBendParams p = linear(10, 20, 2.0f, 100, true);
        p.mode = mode;
        EXPECT_EQ(at(p, 42), 42 * TPF) << mode;
    }
}

TEST(TimeBend, MarkerWithOneTickPerFrameIsNoTime) {
    TimeBendParams p = linear(10, 20, 1.0f, 0, false);
    EXPECT_EQ(computeCacheTime(0, 1, true, p, nullptr, nullptr), NO_TIME);
}

TEST(TimeBend, AbsurdValuesEndWithoutATime) {
    TimeBendParams p;
    p.playSpeed = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(at(p, 3), NO_TIME);
    EXPECT_STRNE(timeBendProblem(p, TPF), "");

    // A loop so long in time that whole-length steps would never end.
    TimeBendParams q;
    q.mode = ANIM_LOOP;
    q.length = 1;
    q.playSpeed = 1e-3f;
    q.playStart = -1000000;
    float blend = 0;
    const int r = computeCacheTime(2147483000, 1, true, q, &blend, nullptr);
    EXPECT_GE(r, 0);
    EXPECT_LE(r, 1);

    TimeBendParams huge = linear(0, 1000000, 10.0f, 1000000, false);
    EXPECT_EQ(at(huge, 100), int64_t(1001000) * TPF);
    EXPECT_EQ(computeCacheTime(5, 0, true, huge, nullptr, nullptr), NO_TIME);
    EXPECT_STRNE(timeBendProblem(huge, 0), "");
    EXPECT_STREQ(timeBendProblem(TimeBendParams{}, TPF), "");
}

TEST(TimeBend, TruncationAsTheHardwareDoesIt) {
    EXPECT_EQ(truncToInt(2.9f), 2);
    EXPECT_EQ(truncToInt(-2.9f), -2);
    EXPECT_EQ(truncToInt(-2147483648.0f), INT32_MIN);
    EXPECT_EQ(truncToInt(2147483648.0f), INT32_MIN);
    EXPECT_EQ(truncToInt(-1e20f), INT32_MIN);
    EXPECT_EQ(truncToInt(std::numeric_limits<float>::quiet_NaN()), INT32_MIN);
    EXPECT_EQ(truncToInt(2147483520.0f), 2147483520);
}

TEST(TimeBend, ParametersReadFromTheBlocks) {
    MemoryParamStorage storage;
    VaporixParamsMax params(storage);
    params.setFloat("play_speed", 0, 0.5f);
    params.setInt("inpoffset", 0, 7);
    params.setInt("playat", 0, 3);
    params.setInt("inplength", 0, 40);
    params.setInt("animmode", 0, 2);
    params.setInt("loadnearest", 0, 1);
    params.setInt("loopjnt", 0, 4);
    params.setFloat("t2f", 0, 12.5f);
    const TimeBendParams p = readTimeBendParams(params, 800.7);
    EXPECT_EQ(p.playSpeed, 0.5f);
    EXPECT_EQ(p.cacheStart, 7);
    EXPECT_EQ(p.playStart, 3);
    EXPECT_EQ(p.length, 40);
    EXPECT_EQ(p.mode, 2);
    EXPECT_EQ(p.nearest, 1);
    EXPECT_EQ(p.loopOverlap, 4);
    EXPECT_EQ(p.directIndex, 12.5f);
}
