// Tests of the frame holder through LoadFrame: the cache test and its hits, the three kinds of
// load, shared frames, the failure memory, smoothing settings and messages.
#include "playback/VaporixFrame.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "foundation/log.h"
#include "playback/FramePlayback.h"
#include "playback/MemoryParamStorage.h"
#include "TestSupport.h"
#include "VxgBuilder.h"

using namespace vaporix;
using vaporix::test::Bytes;
using vaporix::test::TempDir;

namespace {

constexpr int TPF = 160;

/// A stand-alone host on parameters in memory.
struct FakeHost : IPlaybackHost {
    MemoryParamStorage storage;
    VaporixParamsMax p{storage};
    bool node = true;
    int transformUpdates = 0;
    int lightClears = 0;

    bool hasNode() const override { return node; }
    int ticksPerFrame() const override { return TPF; }
    VaporixParams& params() override { return p; }
    std::string getCachePath(int kind) const override {
        return kind == CACHE_KIND_PLAYBACK ? p.getString("rendinput") : std::string();
    }
    bool hasCache(int kind) const override { return kind == 1 || kind == 100 || kind == 101; }
    void updateShaderTransform(int, VaporixFrameData*) override { ++transformUpdates; }
    void clearGeneratedLights() override { ++lightClears; }
};

/// Writes frame `n` of a sequence: a 4x4x4 grid whose smoke is `value` everywhere.
void writeFrame(const std::string& path, int n, float value) {
    struct Frame : VaporixFrameData {};
    Frame f;
    f.gridSize[0] = f.gridSize[1] = f.gridSize[2] = 4;
    f.frameNumber = n;
    const Bytes s = test::rawStream(std::vector<float>(64, value));
    ASSERT_TRUE(f.appendStreamBlock(CH_SMOKE, s.data.data(), s.size()));
    f.channelMask = 1u << CH_SMOKE;
    ASSERT_EQ(f.WriteVxg(path.c_str(), f.channelMask), 0);
}

std::string frameName(const TempDir& dir, int n) {
    char name[32];
    std::snprintf(name, sizeof name, "seq_%04d.vxg", n);
    return dir.file(name);
}

/// A sequence seq_####.vxg with the given frames, smoke = frame number.
std::string writeSequence(const TempDir& dir, const std::vector<int>& frames) {
    for (int n : frames) writeFrame(frameName(dir, n), n, float(n));
    return dir.file("seq_####.vxg");
}

float smokeOf(VaporixFrameData* f) {
    if (!f) return -1.0f;
    const float* d = f->GetChannelData(CH_SMOKE);
    return d ? d[21] : -1.0f;
}

struct Rig {
    FakeHost host;
    FramePlayback playback{host};
    int load(double sceneFrame, int mode = LOAD_MODE_NORMAL) {
        LoadFrameResult r;
        playback.LoadFrame(&r, static_cast<int>(sceneFrame * TPF + (sceneFrame < 0 ? -0.5 : 0.5)),
                           mode);
        return r.code;
    }
    VaporixFrameData* current() { return playback.frame.getFrame(0); }
};

/// Records the messages shown.
struct MessageRecorder {
    std::vector<std::string> texts;
    bool muteNext = false;
    MessageRecorder() {
        setMessageHandler([this](const std::string&, const std::string& text, int) {
            texts.push_back(text);
            return muteNext;
        });
    }
    ~MessageRecorder() { setMessageHandler({}); }
};

}  // namespace

TEST(VaporixFrame, PlainLoadAndRepeatedRequestOpensNoFile) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {1, 2, 3}));
    EXPECT_EQ(rig.load(2), 5);
    EXPECT_EQ(smokeOf(rig.current()), 2.0f);
    EXPECT_EQ(rig.current(), rig.playback.frame.getFrame(1));
    // The file is damaged now: a request that opened it would fail.
    test::writeBytes(frameName(dir, 2), {1, 2, 3});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(rig.load(2), 1);
    EXPECT_EQ(smokeOf(rig.current()), 2.0f);
    EXPECT_EQ(rig.load(3), 5);
    EXPECT_EQ(smokeOf(rig.current()), 3.0f);
}

TEST(VaporixFrame, PathWithoutPatternAnswersEveryTime) {
    TempDir dir;
    Rig rig;
    writeFrame(dir.file("single.vxg"), 0, 7.0f);
    rig.host.p.setString("rendinput", 0, dir.file("single.vxg"));
    EXPECT_EQ(rig.load(0), 5);
    std::remove(dir.file("single.vxg").c_str());
    EXPECT_EQ(rig.load(5), 1);
    EXPECT_EQ(rig.load(-40), 1);
    EXPECT_EQ(smokeOf(rig.current()), 7.0f);
}

TEST(VaporixFrame, NearestFileHitsWithoutReading) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {0, 5, 10}));
    rig.host.p.setInt("loadnearest", 0, 1);
    EXPECT_EQ(rig.load(6), 5);
    EXPECT_EQ(smokeOf(rig.current()), 5.0f);
    EXPECT_EQ(rig.load(7), 1);  // nearest is still frame 5
    EXPECT_EQ(rig.load(4), 1);
    EXPECT_EQ(rig.load(9), 5);
    EXPECT_EQ(smokeOf(rig.current()), 10.0f);

    // Without loadnearest a missing frame is no frame, and no failure to remember.
    rig.host.p.setInt("loadnearest", 0, 0);
    EXPECT_EQ(rig.load(7), 0);
    EXPECT_EQ(rig.current(), nullptr);
    EXPECT_EQ(rig.load(7), 0);  // tried again
    EXPECT_EQ(rig.playback.frame.failTime, NO_TIME);
}

TEST(VaporixFrame, HeaderOnlyThenFullReloadsButNotTheOpposite) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {1, 2}));
    EXPECT_EQ(rig.load(1, LOAD_MODE_HEADER_ONLY), 5);
    ASSERT_NE(rig.current(), nullptr);
    EXPECT_TRUE(rig.current()->frameFlags & FRAME_HEADER_ONLY);
    EXPECT_EQ(rig.load(1, LOAD_MODE_HEADER_ONLY), 1);
    EXPECT_EQ(rig.load(1), 5);
    EXPECT_EQ(smokeOf(rig.current()), 1.0f);
    EXPECT_EQ(rig.load(1, LOAD_MODE_HEADER_ONLY), 1);
    EXPECT_EQ(rig.load(1), 1);
}

TEST(VaporixFrame, HalfSpeedBlendsAndReusesTheSharedSource) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {1, 2, 3}));
    rig.host.p.setFloat("play_speed", 0, 0.5f);
    EXPECT_EQ(rig.load(3), 5);  // cache frame 1.5
    EXPECT_EQ(rig.current(), &rig.playback.frame.ownFrame);
    EXPECT_FLOAT_EQ(smokeOf(rig.current()), 1.5f);
    VaporixFrameData* two = rig.playback.frame.blendSourceB;
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(rig.playback.frame.getFrame(1), rig.playback.frame.blendSourceA);
    EXPECT_EQ(rig.load(4), 5);  // cache frame 2: the shared frame itself
    EXPECT_EQ(rig.current(), two);
    EXPECT_EQ(two->refCount, 1);
    EXPECT_EQ(rig.load(5), 5);  // 2.5: frame 2 stays, read once
    EXPECT_EQ(rig.playback.frame.blendSourceA, two);
    EXPECT_FLOAT_EQ(smokeOf(rig.current()), 2.5f);
}

TEST(VaporixFrame, BlendWithOneSideMissingShowsThatSide) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {1, 4}));
    rig.host.p.setFloat("play_speed", 0, 0.5f);
    EXPECT_EQ(rig.load(3), 5);  // 1.5: frame 2 is missing
    EXPECT_EQ(smokeOf(rig.current()), 1.0f);
    EXPECT_EQ(rig.playback.frame.blendSourceA, nullptr);
    EXPECT_EQ(rig.load(5), 0);  // 2.5: neither 2 nor 3
    EXPECT_EQ(rig.current(), nullptr);
}

TEST(VaporixFrame, CacheIndexBlendsTheFramesEitherSide) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {12, 13}));
    rig.host.p.setInt("animmode", 0, ANIM_CACHE_INDEX);
    rig.host.p.setFloat("t2f", 0, 12.5f);
    EXPECT_EQ(rig.load(0), 5);
    EXPECT_FLOAT_EQ(smokeOf(rig.current()), 12.5f);
    EXPECT_EQ(rig.load(99), 1);  // the same cache time
}

TEST(VaporixFrame, LoopOverlapCrossFadesThePartner) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {0, 1, 2, 3, 4, 5, 6}));
    rig.host.p.setInt("animmode", 0, ANIM_LOOP);
    rig.host.p.setInt("inplength", 0, 4);
    rig.host.p.setInt("loopjnt", 0, 2);
    EXPECT_EQ(rig.load(0), 5);  // weight 1: all partner (frame 4)
    EXPECT_FLOAT_EQ(smokeOf(rig.current()), 4.0f);
    EXPECT_EQ(rig.playback.frame.loopPartner, 4);
    EXPECT_EQ(rig.load(1), 5);  // weight 2/3 of frame 5 against frame 1
    EXPECT_NEAR(smokeOf(rig.current()), 1.0f / 3.0f + 5.0f * 2.0f / 3.0f, 1e-5f);
    EXPECT_EQ(rig.load(3), 5);  // past the overlap: frame 3 as it is
    EXPECT_EQ(smokeOf(rig.current()), 3.0f);
    EXPECT_EQ(rig.load(7), 1);  // the same cache frame one loop later
}

TEST(VaporixFrame, DamagedFrameFailsOnceAndTheNextFramesLoad) {
    TempDir dir;
    Rig rig;
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {1, 2, 3}));
    test::writeBytes(frameName(dir, 2), std::vector<uint8_t>(40, 0xAB));
    EXPECT_EQ(rig.load(2), 0);
    EXPECT_NE(rig.playback.frame.failStatus, 0);
    EXPECT_EQ(rig.playback.frame.failTime, 2 * TPF);
    EXPECT_EQ(rig.load(2), 1);  // neither read nor reported again
    EXPECT_EQ(rig.load(3), 5);
    EXPECT_EQ(rig.playback.frame.failTime, NO_TIME);
    EXPECT_EQ(rig.load(2), 0);  // a new request after a success tries again
}

TEST(VaporixFrame, NoNodeOrNoPathGivesNoFrameSilently) {
    TempDir dir;
    MessageRecorder messages;
    Rig rig;
    EXPECT_EQ(rig.load(1), 0);  // empty rendinput: an empty frame of size 0 fails
    EXPECT_EQ(rig.current(), nullptr);
    rig.host.p.setString("rendinput", 0, writeSequence(dir, {1}));
    EXPECT_EQ(rig.load(1), 5);
    rig.host.node = false;
    EXPECT_EQ(rig.load(1), 0);
    EXPECT_EQ(rig.current(), nullptr);
    EXPECT_TRUE(messages.texts.empty());
}

TEST(VaporixFrame, ObjectsShareOneFrameAndNeverFreeItInUse) {
    TempDir dir;
    const std::string pattern = writeSequence(dir, {1, 2});
    Rig a, b;
    a.host.p.setString("rendinput", 0, pattern);
    b.host.p.setString("rendinput", 0, pattern);
    EXPECT_EQ(a.load(1), 5);
    EXPECT_EQ(b.load(1), 5);
    EXPECT_EQ(a.current(), b.current());
    EXPECT_EQ(a.current()->refCount, 2);
    EXPECT_EQ(a.load(2), 5);
    EXPECT_EQ(smokeOf(b.current()), 1.0f);
    EXPECT_EQ(b.current()->refCount, 1);
    // A different channel map is a different frame.
    b.host.p.setString("usrchmap", 0, "x");
    EXPECT_EQ(b.load(2), 5);
    EXPECT_NE(a.current(), b.current());
}

TEST(VaporixFrame, SmoothingMakesAPrivateFrameAndReloadsOnChange) {
    TempDir dir;
    Rig rig;
    const std::string pattern = dir.file("s_####.vxg");
    {
        // A smoke step in x: smoothing blurs it.
        struct Frame : VaporixFrameData {};
        Frame f;
        f.gridSize[0] = f.gridSize[1] = f.gridSize[2] = 6;
        std::vector<float> v(216);
        for (int i = 0; i < 216; ++i) v[i] = (i % 6) < 3 ? 0.0f : 1.0f;
        const Bytes s = test::rawStream(v);
        ASSERT_TRUE(f.appendStreamBlock(CH_SMOKE, s.data.data(), s.size()));
        f.channelMask = 1u << CH_SMOKE;
        ASSERT_EQ(f.WriteVxg(dir.file("s_0001.vxg").c_str(), f.channelMask), 0);
    }
    rig.host.p.setString("rendinput", 0, pattern);
    EXPECT_EQ(rig.load(1), 5);
    VaporixFrameData* shared = rig.current();
    const float plain = shared->GetChannelData(CH_SMOKE)[2 + 6 * (2 + 6 * 2)];
    EXPECT_EQ(plain, 0.0f);

    rig.playback.gpuPreviewStale = false;
    rig.host.p.setInt("enablesmoothsmoke", 0, 1);
    rig.host.p.setVector("smoothsmoke", 0, Vector{0, 0.5f, 0});
    EXPECT_EQ(rig.load(1), 1);  // made again by the settings change itself
    EXPECT_TRUE(rig.playback.gpuPreviewStale);
    EXPECT_EQ(rig.current(), &rig.playback.frame.ownFrame);
    const float smoothed = rig.current()->GetChannelData(CH_SMOKE)[2 + 6 * (2 + 6 * 2)];
    EXPECT_GT(smoothed, 0.0f);
    EXPECT_EQ(rig.load(1), 1);  // unchanged settings: nothing to do

    rig.host.p.setVector("smoothsmoke", 0, Vector{0, 0.25f, 0});
    rig.playback.voxelPreviewStale = false;
    EXPECT_EQ(rig.load(1), 1);
    EXPECT_TRUE(rig.playback.voxelPreviewStale);
    EXPECT_NE(rig.current()->GetChannelData(CH_SMOKE)[2 + 6 * (2 + 6 * 2)], smoothed);

    rig.host.p.setInt("enablesmoothsmoke", 0, 0);
    EXPECT_EQ(rig.load(1), 1);
    EXPECT_NE(rig.current(), &rig.playback.frame.ownFrame);
    EXPECT_EQ(rig.current()->GetChannelData(CH_SMOKE)[2 + 6 * (2 + 6 * 2)], 0.0f);
}

TEST(VaporixFrame, MessagesAreMutedByTheirBit) {
    MessageRecorder messages;
    FakeHost host;
    FramePlayback playback(host);
    messages.muteNext = true;
    playback.message("first", 11, MESSAGE_ERROR);
    messages.muteNext = false;
    playback.message("second", 11, MESSAGE_ERROR);
    playback.message("other bit", 40, MESSAGE_WARNING);
    ASSERT_EQ(messages.texts.size(), 2u);
    EXPECT_EQ(messages.texts[0], "first");
    EXPECT_EQ(messages.texts[1], "other bit");
    EXPECT_EQ(host.p.getInt("dontshow", 0, 0), 1 << 11);
}

TEST(VaporixFrame, MapTimeOffersBothSensesOfTheFlag) {
    FakeHost host;
    FramePlayback playback(host);
    host.p.setInt("inpoffset", 0, 10);
    EXPECT_EQ(playback.mapTimeToCacheTime(320, true), 12 * TPF);
    EXPECT_EQ(playback.getCacheTime(320, false), 12 * TPF);
    EXPECT_EQ(playback.getCacheTime(320, true), 320);
}
