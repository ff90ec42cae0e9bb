// Frame data: lazy expansion, derived channels, ranges, boxes, info text and the shared list.
#include "cache/VaporixFrameData.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "VxgBuilder.h"
#include "cache/zlibutil.h"

using namespace vaporix;
using namespace vaporix::test;

namespace {

/// A frame of the given size whose channels come from raw streams.
struct TestFrame : VaporixFrameData {
    TestFrame(int x, int y, int z) {
        gridSize[0] = x;
        gridSize[1] = y;
        gridSize[2] = z;
    }
    void addRaw(int channel, const std::vector<float>& values) {
        const Bytes s = rawStream(values);
        ASSERT_TRUE(appendStreamBlock(channel, s.data.data(), s.size()));
        channelMask |= 1u << channel;
    }
};

std::vector<float> iota(int n, float scale = 1.0f) {
    std::vector<float> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<size_t>(i)] = static_cast<float>(i) * scale;
    return v;
}

}  // namespace

TEST(VaporixFrameData, SingleCellChannelAndOutOfRangeOrdinals) {
    TestFrame f(1, 1, 1);
    f.addRaw(1, {4.5f});
    const float* d = f.GetChannelData(1);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d[0], 4.5f);
    float lo, hi;
    ASSERT_TRUE(f.getChannelRange(1, lo, hi));
    EXPECT_EQ(lo, hi);
    EXPECT_EQ(f.GetChannelData(32), nullptr);
    EXPECT_EQ(f.GetChannelData(-1), nullptr);
    EXPECT_FALSE(f.getChannelRange(32, lo, hi));
    EXPECT_FALSE(f.HasChannel(2));
    EXPECT_EQ(f.GetChannelData(2), nullptr);
}

TEST(VaporixFrameData, PackedRgbExpandsIntoThreeChannels) {
    TestFrame f(2, 1, 1);
    const uint8_t cells[8] = {10, 20, 30, 0, 255, 128, 0, 0};
    iArray<uint8_t, long long> z;
    ASSERT_TRUE(deflateInto(cells, sizeof cells, z));
    Bytes payload;
    payload.u64(static_cast<uint64_t>(z.count)).raw(z.data, static_cast<size_t>(z.count));
    ASSERT_TRUE(f.appendStreamBlock(18, payload.data.data(), payload.size()));
    f.channelMask = 1u << 18;
    EXPECT_FALSE(f.HasChannel(18));
    EXPECT_TRUE(f.HasChannel(7));
    EXPECT_TRUE(f.HasChannel(9));
    const float* green = f.GetChannelData(8);
    ASSERT_NE(green, nullptr);
    EXPECT_FLOAT_EQ(green[0], static_cast<float>(20 / 255.0));
    EXPECT_FLOAT_EQ(green[1], static_cast<float>(128 / 255.0));
    EXPECT_FLOAT_EQ(f.channels[7][0], static_cast<float>(30 / 255.0));   // byte 2 is red
    EXPECT_FLOAT_EQ(f.channels[9][1], static_cast<float>(255 / 255.0));  // byte 0 is blue
    EXPECT_EQ(f.channels[18], nullptr);                                  // the packed array is gone
}

TEST(VaporixFrameData, SpeedIsDerivedFromVelocity) {
    TestFrame f(2, 1, 1);
    f.addRaw(4, {3, 0});
    f.addRaw(5, {4, 0});
    EXPECT_FALSE(f.HasChannel(3));
    EXPECT_EQ(f.GetChannelData(3), nullptr);
    f.addRaw(6, {0, -2});
    EXPECT_TRUE(f.HasChannel(3));
    const float* speed = f.GetChannelData(3);
    ASSERT_NE(speed, nullptr);
    EXPECT_EQ(speed[0], 5.0f);
    EXPECT_EQ(speed[1], 2.0f);
}

TEST(VaporixFrameData, ZeroLengthBlockEndsTheSearch) {
    TestFrame f(2, 1, 1);
    f.addRaw(1, {1, 2});
    Bytes broken;
    broken.i32(2).i32(0);  // length word 0
    Bytes after = streamBlock(3, rawStream({5, 6}));
    std::vector<int32_t> words(static_cast<size_t>(f.comprDataSzInts));
    std::memcpy(words.data(), f.comprData, words.size() * 4);
    Bytes all;
    all.raw(words.data(), words.size() * 4).raw(broken).raw(after);
    internal::arrayRelease(f.comprData);
    f.comprData = static_cast<int32_t*>(internal::arrayAllocate(all.size()));
    std::memcpy(f.comprData, all.data.data(), all.size());
    f.comprDataSzInts = static_cast<int32_t>(all.size() / 4);
    f.channelMask |= (1u << 3);
    EXPECT_NE(f.GetChannelData(1), nullptr);
    EXPECT_EQ(f.GetChannelData(3), nullptr);
}

TEST(VaporixFrameData, DamagedChannelFailsEachTimeAndOthersStayUsable) {
    TestFrame f(2, 2, 1);
    f.addRaw(1, {1, 2, 3, 4});
    f.addRaw(2, {1, 2, 3});  // a stream of 3 values for 4 cells
    LogRecorder log;
    EXPECT_EQ(f.GetChannelData(2), nullptr);
    EXPECT_EQ(f.GetChannelData(2), nullptr);
    EXPECT_EQ(log.text(), "Invalid cache file!!!\nInvalid cache file!!!\n");
    EXPECT_TRUE(f.HasChannel(2));
    EXPECT_NE(f.GetChannelData(1), nullptr);
}

TEST(VaporixFrameData, RangesAreCachedAndInfoTextLists) {
    TestFrame f(10, 10, 10);
    f.addRaw(1, iota(1000, 2.0f));
    f.addRaw(2, iota(1000, 0.001f));
    f.addRaw(4, iota(1000));
    f.addRaw(5, iota(1000));
    f.addRaw(6, iota(1000));
    f.addRaw(10, iota(1000, -1.0f));
    float lo, hi;
    ASSERT_TRUE(f.getChannelRange(1, lo, hi));
    EXPECT_EQ(lo, 0.0f);
    EXPECT_EQ(hi, 1998.0f);
    std::pair<float, float> me;
    ASSERT_TRUE(f.getChannelRange(10, me));
    EXPECT_EQ(me.first, -999.0f);
    EXPECT_EQ(me.second, 999.0f);
    std::string text;
    f.getInfoText(text, "\n", "> ");
    EXPECT_EQ(text,
              "[GRID: 1 000 cells, 10x10x10]\n"
              "> Liquid/Temperature (0.00 : 1998.00)\n"
              "> Smoke (0.00 : 1.00)\n"
              "> Velocity (0.00 : 1730.32)\n"
              "> Fuel (-999.00 : -0.00)");
    TestFrame g(1000, 1000, 1);
    g.getInfoText(text, "|", "");
    EXPECT_EQ(text, "[GRID: 1 000 000 cells, 1000x1000x1]");
}

TEST(VaporixFrameData, WorldBoxUsesTheInverseTransform) {
    TestFrame f(4, 2, 2);
    // World to grid: scale by 2 and shift by (1, 1, 1).
    const float tm[12] = {2, 0, 0, 0, 2, 0, 0, 0, 2, 1, 1, 1};
    std::memcpy(f.gridTransform.m, tm, sizeof tm);
    float box[6];
    f.getWorldBox(box, false);
    EXPECT_FLOAT_EQ(box[0], -0.5f);
    EXPECT_FLOAT_EQ(box[3], 1.5f);
    EXPECT_FLOAT_EQ(box[5], 0.5f);
    const float particles[6] = {-3, 0, 0, 1, 1, 9};
    std::memcpy(f.particleBox, particles, sizeof particles);
    f.getWorldBox(box, true);
    EXPECT_FLOAT_EQ(box[0], -2.0f);
    EXPECT_FLOAT_EQ(box[5], 4.0f);
    // A singular transform has no world box.
    f.gridTransform = GridTransform::zero();
    f.getWorldBox(box, false);
    EXPECT_EQ(box[0], 1e20f);
    EXPECT_EQ(box[3], -1e20f);
}

TEST(VaporixFrameData, AxisSwapTwiceIsTheIdentityAndInitEmpty) {
    VaporixFrameData f;
    const float size[3] = {10, 20, 30};
    ASSERT_TRUE(f.initEmpty(size, 0.5f, false));
    EXPECT_EQ(f.gridTransform.m[0], 2.0f);
    EXPECT_EQ(f.gridTransform.m[9], 5.0f);
    EXPECT_EQ(f.gridTransform.m[11], 0.0f);
    f.gridTransform.m[3] = 7;
    f.gridTransform.m[7] = -3;
    const GridTransform before = f.gridTransform;
    f.toggleAxisSwap();
    EXPECT_EQ(f.gridTransform.m[6], 7.0f);  // row 2 takes the old row 1
    EXPECT_EQ(f.gridTransform.m[4], 3.0f);  // row 1 takes the negated old row 2
    f.toggleAxisSwap();
    EXPECT_TRUE(f.gridTransform == before);
    EXPECT_EQ(f.axesSwapped, 0);

    ASSERT_TRUE(f.initEmpty(size, 0, true));
    EXPECT_EQ(f.gridTransform.m[8], 30.0f);
    EXPECT_EQ(f.gridTransform.m[11], 15.0f);
    const float zero[3] = {0, 0, 0};
    EXPECT_FALSE(f.initEmpty(zero, 1, false));
    EXPECT_EQ(f.getCellCount(), 0);
    const float ten[3] = {10, 10, 10};
    EXPECT_FALSE(f.initEmpty(ten, 0.0005f, false));
    EXPECT_EQ(f.comprData, nullptr);
}

TEST(SampleChannels, InsideClampedAndWeighted) {
    const int size[3] = {2, 2, 2};
    std::vector<float> a = iota(8), w(8, 0.0f);
    w[1] = 1.0f;  // only cell (1,0,0) has weight
    float* ch[16] = {};
    ch[0] = a.data();
    ch[1] = w.data();
    ch[2] = a.data();
    float out[16] = {};
    const float centre[3] = {0.5f, 0.5f, 0.5f};
    SampleChannels(ch, size, centre, out, 0x3, 0, 0);
    EXPECT_FLOAT_EQ(out[0], 3.5f);
    // Outside: clamped to the far corner.
    const float far[3] = {5, 7, 9};
    SampleChannels(ch, size, far, out, 0x1, 0, 0);
    EXPECT_FLOAT_EQ(out[0], 7.0f);
    const float nan[3] = {NAN, -1, 0};
    SampleChannels(ch, size, nan, out, 0x1, 0, 0);
    EXPECT_FLOAT_EQ(out[0], 0.0f);
    // Weighted by channel 1: channel 2 reads only the weighted cell.
    SampleChannels(ch, size, centre, out, 0x3, 0x4, 1);
    EXPECT_FLOAT_EQ(out[2], 1.0f);
    // No weight near the sample: weighted channels get 0.
    std::fill(w.begin(), w.end(), 0.0f);
    out[2] = 99;
    SampleChannels(ch, size, centre, out, 0x3, 0x4, 1);
    EXPECT_EQ(out[2], 0.0f);
    // A weight channel that isn't sampled, or doesn't exist, weighs nothing either.
    std::fill(w.begin(), w.end(), 1.0f);
    for (uint32_t linear : {0x1u, 0x3u}) {
        float* without[16] = {a.data(), linear == 0x3u ? nullptr : w.data(), a.data()};
        out[2] = 99;
        SampleChannels(without, size, centre, out, linear, 0x4, 1);
        EXPECT_EQ(out[2], 0.0f) << linear;
        EXPECT_FLOAT_EQ(out[0], 3.5f);
    }
    // Positions on the upper edge clamp to the last cell without reading past it.
    const float edge[3] = {1.0f, 1.0f, 1.0f};
    SampleChannels(ch, size, edge, out, 0x1, 0, 0);
    EXPECT_EQ(out[0], 7.0f);
}

TEST(FrameDataArray, SharesByNameAndChannelMap) {
    TempDir dir;
    const std::string path = dir.file("shared.vxg");
    {
        TestFrame f(2, 1, 1);
        f.addRaw(1, {1, 2});
        ASSERT_EQ(f.WriteVxg(path.c_str(), f.channelMask), 0);
    }
    FrameDataArray& list = frameDataArray();
    const int before = list.count;
    VaporixFrameData* a = nullptr;
    VaporixFrameData* b = nullptr;
    VaporixFrameData* c = nullptr;
    ASSERT_EQ(acquireShared(a, 1, path.c_str(), "", true, true, true), 0);
    ASSERT_EQ(acquireShared(b, 1, path.c_str(), "", true, true, true), 0);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a->refCount, 2);
    EXPECT_EQ(list.count, before + 1);
    ASSERT_EQ(acquireShared(c, 1, path.c_str(), "other", true, true, true), 0);
    EXPECT_NE(c, a);
    EXPECT_EQ(list.count, before + 2);
    // A missing file releases the old frame and leaves the slot empty.
    EXPECT_EQ(acquireShared(c, 1, dir.file("none.vxg").c_str(), "other", true, true, true), 3);
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(list.count, before + 1);
    // A frame already in the list is handed out again without reading the file.
    writeBytes(path, {'n', 'o', 'n', 'e'});
    VaporixFrameData* d = nullptr;
    ASSERT_EQ(acquireShared(d, 1, path.c_str(), "", true, true, true), 0);
    EXPECT_EQ(d, a);
    EXPECT_EQ(a->refCount, 3);
    releaseFrame(d);
    VaporixFrameData byValue;
    releaseFrame(&byValue);  // not in the list: ignored
    releaseFrame(a);
    EXPECT_EQ(b->refCount, 1);
    releaseFrame(b);
    EXPECT_EQ(list.count, before);
    // Now the file must be read, and it is broken: nothing is added.
    EXPECT_EQ(acquireShared(d, 1, path.c_str(), "", true, true, true), 4);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(list.count, before);
}

TEST(FrameDataArray, ReleaseMovesTheLastEntryAndExitReportsLeftovers) {
    TempDir dir;
    std::vector<std::string> paths;
    for (int i = 0; i < 3; ++i) {
        TestFrame f(1, 1, 1);
        f.frameNumber = 20 + i;
        f.addRaw(1, {float(i)});
        paths.push_back(dir.file("f" + std::to_string(i) + ".vxg"));
        ASSERT_EQ(f.WriteVxg(paths.back().c_str(), f.channelMask), 0);
    }
    FrameDataArray& list = frameDataArray();
    const int before = list.count;
    VaporixFrameData* slots[3] = {};
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(acquireShared(slots[i], 20 + i, paths[static_cast<size_t>(i)].c_str(), "", true,
                                true, false),
                  0);
    releaseFrame(slots[0]);
    ASSERT_EQ(list.count, before + 2);
    EXPECT_EQ(list[before], slots[2]);  // the last entry took the freed place
    EXPECT_EQ(list[before + 1], slots[1]);
    // A slot that is refilled releases its old frame only after the new reference is taken.
    VaporixFrameData* slot = slots[1];
    ASSERT_EQ(acquireShared(slot, 21, paths[1].c_str(), "", true, true, true), 0);
    EXPECT_EQ(slot, slots[1]);
    EXPECT_EQ(slot->refCount, 1);
    releaseFrame(slots[1]);
    releaseFrame(slots[2]);
    EXPECT_EQ(list.count, before);

    // A list that ends with frames still in it reports each, last first.
    LogRecorder log;
    {
        FrameDataArray leftovers;
        for (int i = 0; i < 2; ++i) {
            auto* frame = new VaporixFrameData;
            frame->frameNumber = 5 + i;
            frame->refCount = 2 - i;
            ASSERT_TRUE(leftovers.append(frame));
        }
    }
    EXPECT_EQ(log.text(),
              "Vaporix cache file not released 6 ref:1\n"
              "Vaporix cache file not released 5 ref:2\n");
}

TEST(VaporixFrameData, ConcurrentReadersShareOneExpansion) {
    // Render threads ask for the same and for different channels at once: packed colour that
    // fills three channels, speed derived from velocity, and the range cache. Each thread must
    // see the one array of a channel, with its values (run under TSan to see the locking).
    const int n = 4096;
    TestFrame f(16, 16, 16);
    std::vector<uint8_t> cells(static_cast<size_t>(n) * 4);
    for (int i = 0; i < n * 4; ++i) cells[static_cast<size_t>(i)] = static_cast<uint8_t>(i * 7);
    iArray<uint8_t, long long> z;
    ASSERT_TRUE(deflateInto(cells.data(), cells.size(), z));
    Bytes payload;
    payload.u64(static_cast<uint64_t>(z.count)).raw(z.data, static_cast<size_t>(z.count));
    ASSERT_TRUE(f.appendStreamBlock(18, payload.data.data(), payload.size()));
    f.channelMask |= 1u << 18;
    f.addRaw(4, iota(n));
    f.addRaw(5, iota(n, 2.0f));
    f.addRaw(6, iota(n, -2.0f));
    const int threads = 8;
    std::vector<const float*> seen(threads * 4);
    std::vector<float> ranges(threads);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            const int order[4] = {7 + t % 3, 3, 7 + (t + 1) % 3, 7 + (t + 2) % 3};
            for (int k = 0; k < 4; ++k)
                seen[static_cast<size_t>(t * 4 + k)] = f.GetChannelData(order[k]);
            float lo, hi;
            ranges[static_cast<size_t>(t)] = f.getChannelRange(3, lo, hi) ? hi : -1.0f;
        });
    }
    for (auto& th : pool) th.join();
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(seen[static_cast<size_t>(t * 4 + 1)], f.channels[3]);
        for (int k : {0, 2, 3}) {
            const float* got = seen[static_cast<size_t>(t * 4 + k)];
            ASSERT_NE(got, nullptr);
            EXPECT_TRUE(got == f.channels[7] || got == f.channels[8] || got == f.channels[9]);
        }
        EXPECT_EQ(ranges[static_cast<size_t>(t)], sqrtf(9.0f * 4095.0f * 4095.0f));
    }
    EXPECT_EQ(f.channels[18], nullptr);
    EXPECT_FLOAT_EQ(f.channels[7][5], static_cast<float>(cells[5 * 4 + 2] / 255.0));
    EXPECT_FLOAT_EQ(f.channels[9][n - 1], static_cast<float>(cells[(n - 1) * 4] / 255.0));
}

TEST(VaporixFrameData, InitEmptyRejectsSizesNoGridCanHold) {
    VaporixFrameData f;
    const float rounded[3] = {9.5f, 2.49f, 1.0f};
    ASSERT_TRUE(f.initEmpty(rounded, 1.0f, false));
    EXPECT_EQ(f.gridSize[0], 10);
    EXPECT_EQ(f.gridSize[1], 2);
    const float sizes[][3] = {
        {1e10f, 1e10f, 1e10f},  // more than an int per axis
        {NAN, 4, 4},
        {-10, -10, 10},         // a positive product of negative sizes
        {65536, 65536, 65536},  // each axis fits, the cell count does not
    };
    for (const auto& s : sizes) {
        EXPECT_FALSE(f.initEmpty(s, 1.0f, true)) << s[0];
        EXPECT_EQ(f.getCellCount(), 0);
        EXPECT_EQ(f.comprData, nullptr);
    }
}
