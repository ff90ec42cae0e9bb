// Particle groups: expansion of each kind, ID order and lookup, grid velocity, frame accessors.
#include "cache/PGroup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "Fixtures.h"
#include "TestSupport.h"
#include "VxgBuilder.h"
#include "cache/ParticleJobs.h"
#include "cache/SGCompressor.h"
#include "cache/SymbolCoder.h"
#include "cache/VaporixFrameData.h"

using namespace vaporix;
using namespace vaporix::test;

namespace {

void setCompressed(PGroup& g, int channel, int kind, const Bytes& bytes) {
    ChannelData& cd = g.channelData[channel];
    cd.kind = kind;
    cd.expanded.free();
    cd.compressed.resize(static_cast<long long>(bytes.size()));
    std::memcpy(cd.compressed.data, bytes.data.data(), bytes.size());
}

void setIds(PGroup& g, const std::vector<int64_t>& ids) {
    g.count = static_cast<int>(ids.size());
    ASSERT_TRUE(g.setChannel(PRT_ID, ids.data(), ~uint64_t(0)));
    g.buildIdOrder();
}

/// The ID stream of the oldest files: (low, high) halves of the differences, the first from 0.
Bytes idDifferenceStream(const std::vector<int64_t>& ids) {
    std::vector<int32_t> pairs;
    for (size_t i = 0; i < ids.size(); ++i) {
        const uint64_t d =
            static_cast<uint64_t>(ids[i]) - (i ? static_cast<uint64_t>(ids[i - 1]) : 0);
        pairs.push_back(static_cast<int32_t>(static_cast<uint32_t>(d)));
        pairs.push_back(static_cast<int32_t>(static_cast<uint32_t>(d >> 32)));
    }
    SymbolCoder coder;
    coder.encode(pairs.data(), pairs.size());
    Bytes b;
    b.raw(coder.bytes.data, static_cast<size_t>(coder.bytes.count));
    return b;
}

std::vector<int64_t> idsOf(PGroup& g) {
    std::vector<int64_t> ids;
    for (int i = 0; i < g.count; ++i) ids.push_back(g.idAt(static_cast<uint32_t>(i)));
    return ids;
}

/// Whether idOrder is a permutation of the particles in ascending ID order.
bool idOrderSorts(PGroup& g) {
    if (g.idOrder.count != g.count) return false;
    std::vector<uint32_t> seen(g.idOrder.begin(), g.idOrder.end());
    std::sort(seen.begin(), seen.end());
    for (int i = 0; i < g.count; ++i)
        if (seen[static_cast<size_t>(i)] != static_cast<uint32_t>(i)) return false;
    for (int k = 1; k < g.count; ++k)
        if (g.idAt(g.idOrder[k - 1]) > g.idAt(g.idOrder[k])) return false;
    return true;
}

}  // namespace

TEST(PGroup, ComponentKindInterleavesPerParticle) {
    PGroup g;
    g.count = 2;
    // a0 a1 b0 b1 c0 c1 -> a0 b0 c0 a1 b1 c1
    setCompressed(g, 0, PRT_KIND_SG_COMPONENTS, rawStream({1, 2, 3, 4, 5, 6}));
    ASSERT_EQ(g.DecompressChannel(0, true), 1);
    float p[3];
    ASSERT_TRUE(g.GetValue(1, 0, p));
    EXPECT_EQ(p[0], 2.0f);
    EXPECT_EQ(p[1], 4.0f);
    EXPECT_EQ(p[2], 6.0f);
    EXPECT_EQ(g.channelData[0].compressed.count, 0);  // dropped on request
}

TEST(PGroup, BitPlanesAroundMultiplesOfThirtyTwo) {
    for (int count : {1, 31, 32, 33, 64, 65}) {
        PGroup g;
        g.count = count;
        std::vector<uint32_t> values;
        for (int i = 0; i < count; ++i) {
            values.push_back(0x9E3779B9u * static_cast<uint32_t>(i + 1));
            values.push_back(static_cast<uint32_t>(i) << 20);
        }
        const auto planes = toBitPlanes(values, count, 2);
        setCompressed(g, PRT_ID, PRT_KIND_BITPLANES,
                      deflateBytes(planes.data(), planes.size() * 4));
        ASSERT_EQ(g.DecompressChannel(PRT_ID, false), 1) << count;
        ASSERT_EQ(g.channelData[PRT_ID].expanded.count, count * 8);
        EXPECT_EQ(
            std::memcmp(g.channelData[PRT_ID].expanded.data, values.data(), values.size() * 4), 0)
            << count;
    }
    // Count 33: particle 32 reads bit 0 of the second word of each plane.
    PGroup g;
    g.count = 33;
    std::vector<uint32_t> planes(2 * 32, 0);
    planes[1] = 1;          // plane 0 (bit 0), word 1
    planes[2 * 5 + 1] = 1;  // plane 5 (bit 5), word 1
    setCompressed(g, 2, PRT_KIND_BITPLANES, deflateBytes(planes.data(), planes.size() * 4));
    ASSERT_EQ(g.DecompressChannel(2, false), 1);
    uint32_t v;
    ASSERT_TRUE(g.GetValue(32, 2, &v));
    EXPECT_EQ(v, 0x21u);
    ASSERT_TRUE(g.GetValue(0, 2, &v));
    EXPECT_EQ(v, 0u);
}

TEST(PGroup, DamagedChannelsAreDroppedAndKindsChecked) {
    PGroup g;
    g.count = 4;
    LogRecorder log;
    setCompressed(g, 2, PRT_KIND_ZLIB, Bytes().raw("not zlib", 8));
    EXPECT_EQ(g.DecompressChannel(2, false), 0);
    EXPECT_FALSE(g.HasChannel(2));
    setCompressed(g, 3, PRT_KIND_RAW, Bytes().f32(1).f32(2));  // 2 values for 4 particles
    EXPECT_EQ(g.DecompressChannel(3, false), 0);
    EXPECT_FALSE(g.HasChannel(3));
    setCompressed(g, 5, 7, Bytes().f32(1));  // no such kind
    EXPECT_EQ(g.DecompressChannel(5, false), 0);
    EXPECT_EQ(g.DecompressChannel(9, false), 0);
    EXPECT_TRUE(log.contains("PGroup::DecompressChannel failed: no compression data!"));
    // A zlib stream that holds more than the particles is refused too.
    std::vector<float> many(100, 1.0f);
    setCompressed(g, 4, PRT_KIND_ZLIB, deflateBytes(many.data(), many.size() * 4));
    EXPECT_EQ(g.DecompressChannel(4, false), 0);
}

TEST(PGroup, IdOrderAndFindById) {
    PGroup g;
    setIds(g, {5, 5, 7});
    EXPECT_EQ(g.idOrder.count, 0);  // equal neighbours count as sorted
    const int hit = g.FindById(5);
    EXPECT_TRUE(hit == 0 || hit == 1);
    EXPECT_EQ(g.FindById(7), 2);
    EXPECT_EQ(g.FindById(6), -1);

    setIds(g, {3, 1, 2});
    ASSERT_EQ(g.idOrder.count, 3);
    EXPECT_EQ(g.idOrder[0], 1u);
    EXPECT_EQ(g.idOrder[1], 2u);
    EXPECT_EQ(g.idOrder[2], 0u);
    EXPECT_EQ(g.FindById(3), 0);
    EXPECT_EQ(g.FindById(1), 1);

    setIds(g, {-4});  // below the 0 the first ID is compared with
    EXPECT_EQ(g.FindById(-4), 0);
    setIds(g, {42});
    EXPECT_EQ(g.FindById(42), 0);
    EXPECT_EQ(g.FindById(41), -1);

    // A long unsorted list takes the merge sort; IDs compare as signed 64-bit numbers.
    std::vector<int64_t> ids;
    for (int i = 0; i < 500; ++i) ids.push_back(((i * 7919) % 500 - 250) * (int64_t(1) << 40));
    setIds(g, ids);
    for (int i = 0; i < 500; i += 37) EXPECT_EQ(g.FindById(ids[static_cast<size_t>(i)]), i);
    for (int k = 1; k < g.idOrder.count; ++k)
        EXPECT_LE(g.idAt(g.idOrder[k - 1]), g.idAt(g.idOrder[k]));

    PGroup empty;
    EXPECT_EQ(empty.FindById(0), -1);
}

TEST(PGroup, VelocityFromTheGrid) {
    VaporixFrameData frame;
    frame.gridSize[0] = 2;
    frame.gridSize[1] = frame.gridSize[2] = 1;
    frame.channelMask = 0x70;
    PGroup g;
    g.frame = &frame;
    g.flags = PGROUP_GRID_VELOCITY;
    g.count = 1;
    const float pos[3] = {5, 0, 0};  // beyond the grid: clamped
    g.setChannel(PRT_POSITION, pos, ~uint64_t(0));
    const float stored[3] = {9, 9, 9};
    g.setChannel(PRT_VELOCITY, stored, ~uint64_t(0));
    // Flags 0x30000: presence follows the grid's channel 4, values still come from the group.
    frame.channelMask = 0;
    EXPECT_FALSE(g.HasChannel(PRT_VELOCITY));
    float v[3];
    ASSERT_TRUE(g.GetValue(0, PRT_VELOCITY, v));
    EXPECT_EQ(v[0], 9.0f);

    frame.channelMask = 0x70;
    g.channelData[PRT_VELOCITY].expanded.free();
    EXPECT_FALSE(g.GetValue(0, PRT_VELOCITY, v));  // grid not expanded: no expansion here
    const Bytes vx = rawStream({1, 3}), vy = rawStream({2, 4}), vz = rawStream({0, -1});
    frame.appendStreamBlock(4, vx.data.data(), vx.size());
    frame.appendStreamBlock(5, vy.data.data(), vy.size());
    frame.appendStreamBlock(6, vz.data.data(), vz.size());
    ASSERT_NE(frame.GetChannelData(4), nullptr);
    frame.GetChannelData(5);
    frame.GetChannelData(6);
    ASSERT_TRUE(g.GetValue(0, PRT_VELOCITY, v));
    EXPECT_EQ(v[0], 3.0f);
    EXPECT_EQ(v[1], 4.0f);
    EXPECT_EQ(v[2], -1.0f);

    // Through the frame: velocity scaled, and a grid without channel 6 gives 0 in z.
    VaporixFrameData two;
    two.gridSize[0] = 2;
    two.gridSize[1] = two.gridSize[2] = 1;
    two.channelMask = 0x30;
    two.velocityScale = 2;
    two.appendStreamBlock(4, vx.data.data(), vx.size());
    two.appendStreamBlock(5, vy.data.data(), vy.size());
    two.GetChannelData(4);
    two.GetChannelData(5);
    two.groups.resize(1);
    PGroup& h = two.groups[0];
    h.frame = &two;
    h.flags = PGROUP_GRID_VELOCITY;
    h.count = 1;
    const float mid[3] = {0.25f, 0, 0};
    h.setChannel(PRT_POSITION, mid, ~uint64_t(0));
    h.setChannel(PRT_VELOCITY, stored, ~uint64_t(0));
    h.channelData[PRT_VELOCITY].expanded.free();
    EXPECT_TRUE(h.HasChannel(PRT_VELOCITY));
    ASSERT_NE(two.getParticleVelocity(-1, 0, v, nullptr), nullptr);
    EXPECT_EQ(v[0], 2 * 1.5f);
    EXPECT_EQ(v[1], 2 * 2.5f);
    EXPECT_EQ(v[2], 0.0f);
}

TEST(PGroup, ChannelsAndCopies) {
    PGroup g;
    g.count = 3;
    EXPECT_EQ(g.GetCount(), 0);  // no positions yet
    EXPECT_EQ(g.GetChannelStride(10), 8);
    EXPECT_EQ(g.GetChannelStride(7), 0);
    EXPECT_NE(g.allocChannel(0), nullptr);
    EXPECT_EQ(g.GetCount(), 3);
    g.allocChannel(7);
    EXPECT_FALSE(g.HasChannel(7));
    const float sizes[3] = {1, 2, 3};
    EXPECT_FALSE(g.setChannel(2, sizes, 8));
    EXPECT_TRUE(g.setChannel(2, sizes, 12));
    EXPECT_FALSE(g.setChannel(2, sizes, 16));  // refused sizes leave the values
    EXPECT_EQ(*static_cast<float*>(g.getChannelPointer(1, 2)), 2.0f);
    EXPECT_EQ(*static_cast<float*>(g.getChannelPointer(2, 2)), 3.0f);
    EXPECT_EQ(g.getChannelPointer(3, 2), nullptr);
    EXPECT_EQ(g.getChannelPointer(0, 4), nullptr);
    g.name = "Foam";
    PGroup copy(g);
    g.channelData[2].expanded.data[0] = 0;
    float s;
    ASSERT_TRUE(copy.GetValue(0, 2, &s));
    EXPECT_EQ(s, 1.0f);
    EXPECT_EQ(copy.idOrder.group, &copy);
    EXPECT_STREQ(copy.GetName(), "Foam");
}

TEST(VaporixFrameData, ParticleAccessorsWalkAllGroups) {
    VaporixFrameData frame;
    frame.groups.resize(3);
    const float pos[6] = {1, 2, 3, 4, 5, 6};
    frame.groups[0].name = "Empty";
    frame.groups[1].name = "A";
    frame.groups[1].count = 2;
    frame.groups[1].setChannel(PRT_POSITION, pos, ~uint64_t(0));
    frame.groups[2].name = "B";
    frame.groups[2].count = 1;
    frame.groups[2].setChannel(PRT_POSITION, pos, ~uint64_t(0));
    const float vel[3] = {1, 0, 0};
    frame.groups[2].setChannel(PRT_VELOCITY, vel, ~uint64_t(0));
    const float size = 2.0f;
    frame.groups[2].setChannel(PRT_SIZE, &size, ~uint64_t(0));
    int group = -1, index = 2;
    ASSERT_TRUE(frame.resolveParticle(group, index));
    EXPECT_EQ(group, 2);
    EXPECT_EQ(index, 0);
    group = -1;
    index = 3;
    EXPECT_FALSE(frame.resolveParticle(group, index));
    group = -2;  // only -1 walks the groups
    index = 0;
    EXPECT_FALSE(frame.resolveParticle(group, index));
    group = 0;
    EXPECT_FALSE(frame.resolveParticle(group, index));  // the empty group
    float out[3];
    GridTransform tm;
    tm.m[9] = 10;
    tm.m[0] = 2;
    EXPECT_EQ(frame.getParticlePosition(-1, 1, out, &tm), 1);
    EXPECT_EQ(out[0], 18.0f);
    frame.velocityScale = 3;
    EXPECT_NE(frame.getParticleVelocity(-1, 2, out, &tm), nullptr);
    EXPECT_EQ(out[0], 6.0f);  // no offset for vectors
    EXPECT_EQ(frame.getParticleVelocity(1, 0, out, nullptr), nullptr);
    EXPECT_EQ(frame.getParticleSize(-1, 2, 0.5f), 1.0f);
    EXPECT_EQ(frame.getParticleSize(1, 0, 0.5f), 0.1f);
    EXPECT_EQ(frame.getParticleAge(1, 0), 0.0f);
    EXPECT_EQ(frame.getParticleId(1, 0), 0);
    EXPECT_EQ(frame.getGroupCount(1), 2);
    EXPECT_EQ(frame.getGroupCount(5), 0);
    EXPECT_EQ(frame.GetParticleGroupCount(), 2);
    // Counts through the non-empty groups, then hands out that entry of the whole list.
    EXPECT_EQ(frame.GetParticleGroup(0), &frame.groups[0]);
    EXPECT_EQ(frame.GetParticleGroup(2), nullptr);
    EXPECT_EQ(frame.FindParticleGroup("B"), &frame.groups[2]);
    EXPECT_EQ(frame.FindParticleGroup("C"), nullptr);
}

TEST(PGroup, EveryKindRoundTripsThroughCompressChannel) {
    for (int kind = PRT_KIND_RAW; kind <= PRT_KIND_BITPLANES; ++kind) {
        for (int channel : {PRT_POSITION, PRT_SIZE, PRT_ID}) {
            PGroup g;
            g.count = 45;
            auto* values = static_cast<uint32_t*>(g.allocChannel(channel));
            ASSERT_NE(values, nullptr);
            const int n = 45 * prtComponentCount(channel);
            for (int i = 0; i < n; ++i) values[i] = 0x3F800000u + static_cast<uint32_t>(i * 977);
            const std::vector<uint32_t> original(values, values + n);
            ASSERT_TRUE(g.CompressChannel(channel, kind)) << kind;
            g.channelData[channel].expanded.free();
            ASSERT_EQ(g.DecompressChannel(channel, true), 1) << kind << " " << channel;
            EXPECT_EQ(std::memcmp(g.channelData[channel].expanded.data, original.data(),
                                  original.size() * 4),
                      0)
                << "kind " << kind << " channel " << channel;
        }
    }
    PGroup g;
    g.count = 2;
    EXPECT_FALSE(g.CompressChannel(2, 0));  // nothing expanded
    g.allocChannel(2);
    EXPECT_FALSE(g.CompressChannel(2, 9));
}

TEST(VaporixFrameData, ParticleBoxSkipsBadParticles) {
    VaporixFrameData frame;
    frame.groups.resize(2);
    std::vector<float> pos;
    for (int i = 0; i < 1000; ++i) {
        pos.push_back(static_cast<float>(i % 10));
        pos.push_back(-static_cast<float>(i % 7));
        pos.push_back(static_cast<float>(i) * 0.01f);
    }
    pos[30] = NAN;        // particle 10
    pos[60] = 200000.0f;  // particle 20
    frame.groups[0].count = 1000;
    frame.groups[0].setChannel(PRT_POSITION, pos.data(), ~uint64_t(0));
    float box[6];
    frame.computeParticleBox(box);
    EXPECT_EQ(box[0], 0.0f);
    EXPECT_EQ(box[1], -6.0f);
    EXPECT_EQ(box[3], 9.0f);
    EXPECT_FLOAT_EQ(box[5], 9.99f);
    int bad = MTComputeParticlesBbox::instance().compute(frame.groups[0], box);
    EXPECT_EQ(bad, 2);
    VaporixFrameData none;
    none.computeParticleBox(box);
    EXPECT_EQ(box[0], 1e20f);

    // A count that a damaged file claims, with positions for two particles and a channel 0 of
    // a kind that can't expand: the box comes from what is there, without a walk over the rest.
    PGroup& claimed = frame.groups[1];
    claimed.count = 2;
    const float two[6] = {-5, 1, 1, 2, 2, 2};
    claimed.setChannel(PRT_POSITION, two, ~uint64_t(0));
    claimed.count = 0x7FFFFFFF;
    EXPECT_EQ(MTComputeParticlesBbox::instance().compute(claimed, box), 0);
    EXPECT_EQ(box[0], -5.0f);
    EXPECT_EQ(box[3], 2.0f);
    claimed.channelData[PRT_POSITION].expanded.free();
    setCompressed(claimed, PRT_POSITION, 9, Bytes().f32(1));
    EXPECT_EQ(claimed.DecompressChannel(PRT_POSITION, false), 0);
    EXPECT_EQ(claimed.GetCount(), 0x7FFFFFFF);
    frame.computeParticleBox(box);
    EXPECT_EQ(box[0], 0.0f);  // group 0 alone
}

TEST(PGroup, CodedStreamsOfKindsTwoAndThree) {
    // Quantised streams, as a simulator writes them: kind 3 must interleave what the codec
    // decodes, kind 2 must take it as it stands.
    const int count = 301;
    std::vector<float> planar;
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < count; ++i) planar.push_back(std::sin(0.05f * i + k) * (k + 1) * 40.0f);
    SGCompressor<1> codec;
    const int dims[1] = {count * 3};
    ASSERT_GT(codec.encode(planar.data(), dims, 12, 0, 1), 0);
    const Bytes stream = Bytes().raw(codec.output.data, static_cast<size_t>(codec.output.count));
    std::vector<float> decoded(planar.size());
    ASSERT_TRUE(codec.decode(stream.data.data(), stream.size(), decoded.data(), decoded.size()));
    ASSERT_NE(decoded, planar);  // lossy: the test compares with the codec, not the input

    PGroup g;
    g.count = count;
    setCompressed(g, PRT_VELOCITY, PRT_KIND_SG_COMPONENTS, stream);
    setCompressed(g, 4, PRT_KIND_SG, stream);
    ASSERT_EQ(g.DecompressChannel(PRT_VELOCITY, false), 1);
    ASSERT_EQ(g.DecompressChannel(4, false), 1);
    for (int i = 0; i < count; i += 7) {
        float v[3], w[3];
        ASSERT_TRUE(g.GetValue(i, PRT_VELOCITY, v));
        ASSERT_TRUE(g.GetValue(i, 4, w));
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(v[k], decoded[static_cast<size_t>(k * count + i)]) << i << " " << k;
            EXPECT_EQ(w[k], decoded[static_cast<size_t>(i * 3 + k)]) << i << " " << k;
        }
    }
    // A stream for fewer values than the particles need is damaged.
    PGroup more;
    more.count = count + 1;
    setCompressed(more, PRT_VELOCITY, PRT_KIND_SG_COMPONENTS, stream);
    EXPECT_EQ(more.DecompressChannel(PRT_VELOCITY, false), 0);
    EXPECT_FALSE(more.HasChannel(PRT_VELOCITY));
}

TEST(PRTIN, ResultDoesNotDependOnTheJobCount) {
    // Job spans that don't fall on multiples of 32 take the bit-by-bit path at their edges.
    const int count = 1000;
    const int components = 3;
    std::mt19937 rng(11);
    std::vector<uint32_t> values(count * components);
    for (auto& v : values) v = rng();
    const auto planes = toBitPlanes(values, count, components);
    for (int threads : {1, 3, 7, 13}) {
        std::vector<uint32_t> out(values.size(), 0xDEADBEEFu);
        MTPrtIn gather;
        gather.gather(planes.data(), count, components, out.data(), threads);
        EXPECT_EQ(out, values) << threads << " jobs";
    }
}

TEST(PGroup, IdsOfOldFilesAreSummedDifferences) {
    struct Case {
        std::vector<int64_t> ids;
        bool ordered;  // whether idOrder is needed
    };
    const Case cases[] = {
        {{10, 20, 20, 35}, false},  // equal neighbours are ascending
        {{-7, 3}, false},           // only the differences after the first count
        {{30, 10, 20}, true},       // idOrder 1, 2, 0
        {{int64_t(1) << 40, (int64_t(1) << 40) + 5, -(int64_t(1) << 50)}, true},  // both halves
        {{42}, false},
    };
    for (const Case& c : cases) {
        PGroup g;
        g.count = static_cast<int>(c.ids.size());
        const Bytes stream = idDifferenceStream(c.ids);
        ASSERT_TRUE(g.expandIdDifferences(stream.data.data(), stream.size()));
        EXPECT_EQ(idsOf(g), c.ids);
        EXPECT_TRUE(g.HasChannel(PRT_ID));
        EXPECT_EQ(g.idOrder.count, c.ordered ? g.count : 0);
        if (c.ordered) {
            EXPECT_TRUE(idOrderSorts(g));
        }
        for (size_t i = 0; i < c.ids.size(); ++i) {
            const int at = g.FindById(c.ids[i]);
            ASSERT_GE(at, 0) << c.ids[i];
            EXPECT_EQ(g.idAt(static_cast<uint32_t>(at)), c.ids[i]);
        }
        EXPECT_EQ(g.FindById(c.ids[0] + 1000), -1);
    }
    PGroup g;
    g.count = 3;
    const std::vector<uint32_t> order = {1, 2, 0};
    const Bytes unsorted = idDifferenceStream({30, 10, 20});
    ASSERT_TRUE(g.expandIdDifferences(unsorted.data.data(), unsorted.size()));
    EXPECT_EQ(std::vector<uint32_t>(g.idOrder.begin(), g.idOrder.end()), order);
    EXPECT_EQ(g.FindById(30), 0);

    // A stream for far fewer particles (a few more fit in its padding bits), a damaged one and
    // an empty group leave no IDs behind.
    g.count = 40;
    EXPECT_FALSE(g.expandIdDifferences(unsorted.data.data(), unsorted.size()));
    EXPECT_FALSE(g.HasChannel(PRT_ID));
    EXPECT_EQ(g.idOrder.count, 0);
    EXPECT_EQ(g.FindById(30), -1);
    const uint8_t junk[4] = {0, 0xFF, 0xFF, 0xFF};
    EXPECT_FALSE(g.expandIdDifferences(junk, sizeof junk));
    EXPECT_FALSE(g.HasChannel(PRT_ID));
    g.count = 0;
    EXPECT_FALSE(g.expandIdDifferences(unsorted.data.data(), unsorted.size()));
}

TEST(PGroup, ExchangeAndMergeSortAgreeAroundSeven) {
    std::mt19937 rng(5);
    for (int n = 2; n <= 40; ++n) {
        std::vector<int64_t> ids(static_cast<size_t>(n));
        // Few distinct values: duplicates on both sides of every merge.
        for (auto& id : ids) id = static_cast<int64_t>(rng() % 5) - 2;
        PGroup g;
        setIds(g, ids);
        if (std::is_sorted(ids.begin(), ids.end()) && ids[0] >= 0) {
            EXPECT_EQ(g.idOrder.count, 0) << n;
        } else {
            EXPECT_TRUE(idOrderSorts(g)) << n;
        }
        for (int64_t id = -3; id <= 3; ++id) {
            const int at = g.FindById(id);
            const bool present = std::find(ids.begin(), ids.end(), id) != ids.end();
            EXPECT_EQ(at >= 0, present) << n << " " << id;
            if (at >= 0) {
                EXPECT_EQ(ids[static_cast<size_t>(at)], id);
            }
        }
    }
}

TEST(PGroup, OldCodedFileTakesItsIdsFromTheSubTag) {
    VaporixFrameData f;
    ASSERT_EQ(
        f.importFile(testDataPath("gen0_coded_particles.vxg").c_str(), "", 0, true, false, false),
        0);
    ASSERT_EQ(f.groups.count, 1);
    PGroup& g = f.groups[0];
    EXPECT_NE(g.channelBits & (1u << PRT_ID), 0u);
    ASSERT_TRUE(g.HasChannel(PRT_ID));
    EXPECT_EQ(idsOf(g),
              std::vector<int64_t>(std::begin(fixture::OLD_IDS), std::end(fixture::OLD_IDS)));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(g.FindById(fixture::OLD_IDS[i]), i);
        EXPECT_EQ(f.getParticleId(-1, i), fixture::OLD_IDS[i]);
    }
    EXPECT_TRUE(idOrderSorts(g));
    // A header read of the same file still takes the particles: there is no summary.
    VaporixFrameData h;
    ASSERT_EQ(h.importHeader(testDataPath("gen0_coded_particles.vxg").c_str(), ""), 0);
    ASSERT_EQ(h.groups.count, 1);
    EXPECT_EQ(h.groups[0].FindById(10), 1);
}

TEST(PGroup, DamagedChannelsOfAFileAreDroppedWhileTheFrameLoads) {
    TempDir dir;
    const auto pos = fixture::positions(4);
    const float ages[4] = {1, 2, 3, 4};
    const Bytes zAges = deflateBytes(ages, sizeof ages);
    Bytes particles;
    particles.i32(1).str("Foam").i32(0).i32(4).raw("12345678", 8).i32(5);
    particles.i32(0).i32(0).i32(48).raw(pos.data(), 48);                         // good, raw
    particles.i32(2).i32(1).i32(8).raw("not zlib", 8);                           // damaged zlib
    particles.i32(3).i32(1).i32(static_cast<int32_t>(zAges.size())).raw(zAges);  // good
    particles.i32(5).i32(3).i32(7).raw(rawStream({1, 2}).data.data(), 7);        // cut stream
    particles.i32(10).i32(4).i32(6).raw("\x78\x9c\x01\x02\x03\x04", 6);          // damaged planes
    VxgBuilder v4(4);
    const float box[6] = {0, 0, 0, 1, 1, 1};
    v4.chunk(1000, summaryBody("Foam", 4, 0x42D, 0, box));
    v4.chunk(1002, particles);
    v4.tag(0);
    v4.write(dir.file("v4.vxg"));

    VaporixFrameData f;
    ASSERT_EQ(f.importFile(dir.file("v4.vxg").c_str(), "", 0, true, false, false), 0);
    ASSERT_EQ(f.groups.count, 1);
    PGroup& g = f.groups[0];
    EXPECT_EQ(g.channelBits, (1u << PRT_POSITION) | (1u << PRT_AGE));
    EXPECT_EQ(g.GetCount(), 4);
    EXPECT_FALSE(g.HasChannel(PRT_SIZE));
    EXPECT_FALSE(g.HasChannel(5));
    EXPECT_FALSE(g.HasChannel(PRT_ID));
    EXPECT_EQ(g.FindById(0), -1);
    EXPECT_EQ(f.getParticleAge(-1, 3), 4.0f);
    EXPECT_EQ(f.getParticleSize(-1, 3, 2.0f), 0.1f);
    float p[3];
    EXPECT_EQ(f.getParticlePosition(-1, 3, p, nullptr), 1);
    EXPECT_EQ(p[2], pos[11]);

    // The oldest form: a cut ID stream under the sub-tag costs the IDs, not the file.
    const Bytes ids = idDifferenceStream({5, 6, 7, 8});
    VxgBuilder old(0);
    uint32_t table[32];
    for (auto& e : table) e = 0xFFFFFFFFu;
    table[0] = 0;
    old.tags().i32(7).i32(12).raw(pos.data(), 48);
    old.tags().i32(1).str("Liquid").i32(4).raw(table, sizeof table);
    old.tags()
        .i32(2)
        .i32(static_cast<int32_t>(ids.size() / 2))
        .raw(ids.data.data(), ids.size() / 2);
    old.tags().i32(0);
    old.tag(0);
    old.write(dir.file("old.vxg"));
    VaporixFrameData o;
    ASSERT_EQ(o.importFile(dir.file("old.vxg").c_str(), "", 0, true, false, false), 0);
    ASSERT_EQ(o.groups.count, 1);
    EXPECT_EQ(o.groups[0].channelBits, 1u << PRT_POSITION);
    EXPECT_FALSE(o.groups[0].HasChannel(PRT_ID));
    EXPECT_EQ(o.particleBox[5], pos[11]);
}

TEST(PGroup, MemoryThatRunsOutFailsTheLoadButADamagedChannelDoesNot) {
    // 20000 ages of one value: a short zlib stream that expands to 80000 bytes.
    TempDir dir;
    const int count = 20000;
    const std::vector<float> ages(count, 3.0f), pos(size_t(count) * 3, 0.5f);
    const Bytes zAges = deflateBytes(ages.data(), ages.size() * 4);
    const Bytes zPos = deflateBytes(pos.data(), pos.size() * 4);
    Bytes particles;
    particles.i32(1).str("Mist").i32(0).i32(count).raw("12345678", 8).i32(2);
    particles.i32(0).i32(1).i32(static_cast<int32_t>(zPos.size())).raw(zPos);
    particles.i32(3).i32(1).i32(static_cast<int32_t>(zAges.size())).raw(zAges);
    VxgBuilder v4(4);
    const float box[6] = {0, 0, 0, 1, 1, 1};
    v4.chunk(1000, summaryBody("Mist", count, 0x9, 0, box));
    v4.chunk(1002, particles);
    v4.tag(0);
    v4.write(dir.file("mist.vxg"));

    VaporixFrameData whole;
    ASSERT_EQ(whole.importFile(dir.file("mist.vxg").c_str(), "", 0, true, false, false), 0);
    ASSERT_EQ(whole.groups.count, 1);
    EXPECT_TRUE(whole.groups[0].HasChannel(PRT_AGE));

    // Room for the compressed bytes but not for the expanded positions: a broken load.
    setArrayAllocationLimit(100000);
    VaporixFrameData starved;
    const int status = starved.importFile(dir.file("mist.vxg").c_str(), "", 0, true, false, false);
    setArrayAllocationLimit(0);
    EXPECT_EQ(status, LOAD_BROKEN);
    EXPECT_EQ(starved.comprData, nullptr);
}
