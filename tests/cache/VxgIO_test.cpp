// The .vxg reader over every generation, the writer's round trip, and damaged files.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include "Fixtures.h"
#include "TestSupport.h"
#include "VxgBuilder.h"
#include "cache/VaporixFrameData.h"

using namespace vaporix;
using namespace vaporix::test;

namespace {

int readFile(VaporixFrameData& f, const std::string& path, bool headerOnly = false) {
    return headerOnly ? f.importHeader(path.c_str(), "")
                      : f.importFile(path.c_str(), "", 0, true, false, false);
}

void expectSmallGrid(VaporixFrameData& f) {
    EXPECT_EQ(f.gridSize[0], 2);
    EXPECT_EQ(f.gridSize[2], 2);
    EXPECT_EQ(f.gridTransform.m[0], 2.0f);
    EXPECT_EQ(f.gridTransform.m[11], 1.0f);
    const float* ramp = f.GetChannelData(1);
    ASSERT_NE(ramp, nullptr);
    EXPECT_EQ(ramp[7], 7.0f);
    const float* smoke = f.GetChannelData(2);
    ASSERT_NE(smoke, nullptr);
    EXPECT_EQ(smoke[3], 0.5f);
}

std::string writeTemp(const TempDir& dir, const std::string& name, const std::vector<uint8_t>& b) {
    const std::string path = dir.file(name);
    writeBytes(path, b);
    return path;
}

}  // namespace

TEST(VxgFixtures, CommittedFilesMatchTheirGenerator) {
    TempDir dir;
    for (const auto& name : fixtureNames()) {
        ASSERT_TRUE(writeFixture(name, dir.file(name))) << name;
        EXPECT_EQ(readBytes(dir.file(name)), readBytes(testDataPath(name)))
            << name << " differs from tests/data: regenerate with vaporix_make_fixtures";
    }
}

TEST(VxgFixtures, OldestGenerationWithRawParticles) {
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, testDataPath("gen0_raw_particles.vxg")), 0);
    EXPECT_EQ(vxgFileVersion(testDataPath("gen0_raw_particles.vxg").c_str()), 0);
    expectSmallGrid(f);
    EXPECT_EQ(f.frameNumber, 7);
    EXPECT_EQ(f.timeStep, 1.0f / 24.0f);
    EXPECT_EQ(f.simTime(), 3.0);
    EXPECT_EQ(f.simInt(), 11);
    EXPECT_EQ(f.simFloat, 0.25f);
    ASSERT_EQ(f.groups.count, 1);
    PGroup& g = f.groups[0];
    EXPECT_EQ(g.name, "Liquid");
    EXPECT_EQ(g.count, 3);
    EXPECT_EQ(g.flags, 5);
    EXPECT_EQ(std::memcmp(g.reserved8, "ABCDEFGH", 8), 0);
    EXPECT_EQ(g.channelBits, 0x5u);
    float p[3];
    ASSERT_TRUE(g.GetValue(2, 0, p));
    EXPECT_EQ(p[1], 4.25f);
    float s;
    ASSERT_TRUE(g.GetValue(1, 2, &s));
    EXPECT_EQ(s, 0.2f);
    // Without a summary the box comes from the particles themselves.
    EXPECT_EQ(f.particleBox[0], 0.5f);
    EXPECT_EQ(f.particleBox[5], 6.125f);
}

TEST(VxgFixtures, OldestGenerationWithCodedParticles) {
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, testDataPath("gen0_coded_particles.vxg")), 0);
    expectSmallGrid(f);
    ASSERT_EQ(f.groups.count, 1);
    float p[3];
    ASSERT_TRUE(f.groups[0].GetValue(1, 0, p));
    EXPECT_EQ(p[0], 1.5f);
    EXPECT_EQ(p[2], 3.125f);
    EXPECT_TRUE(f.groups[0].HasChannel(2));
}

TEST(VxgFixtures, VersionTwoTakesTheSummaryThenTheTags) {
    VaporixFrameData f;
    const std::string path = testDataPath("gen2_summary.vxg");
    ASSERT_EQ(readFile(f, path), 0);
    EXPECT_EQ(vxgFileVersion(path.c_str()), 2);
    expectSmallGrid(f);
    EXPECT_EQ(f.particleBox[3], 2.5f);
    ASSERT_EQ(f.groups.count, 1);
    EXPECT_EQ(f.groups[0].GetCount(), 3);
    // A header read of such a file keeps the summary's groups and skips the pool.
    VaporixFrameData h;
    ASSERT_EQ(readFile(h, path, true), 0);
    ASSERT_EQ(h.groups.count, 1);
    EXPECT_EQ(h.getGroupCount(0), 3);
    EXPECT_EQ(h.groups[0].GetCount(), 0);
}

TEST(VxgFixtures, VersionThreeHasThirtyTwoBitChunkSizes) {
    VaporixFrameData f;
    const std::string path = testDataPath("gen3_chunks32.vxg");
    ASSERT_EQ(readFile(f, path), 0);
    expectSmallGrid(f);
    EXPECT_EQ(f.comment, "version three");
    ASSERT_EQ(f.groups.count, 1);
    PGroup& g = f.groups[0];
    EXPECT_EQ(g.name, "Mist");
    EXPECT_EQ(g.channelBits, 0x5u);
    float s;
    ASSERT_TRUE(g.GetValue(1, 2, &s));
    EXPECT_EQ(s, 0.75f);
}

TEST(VxgFixtures, WriterFileHoldsEveryForm) {
    VaporixFrameData f;
    const std::string path = testDataPath("gen4_writer.vxg");
    ASSERT_EQ(readFile(f, path), 0);
    EXPECT_EQ(vxgFileVersion(path.c_str()), 4);
    EXPECT_EQ(f.frameNumber, 12);
    EXPECT_EQ(f.simTime(), 1.5);
    EXPECT_EQ(f.simTime2(), 2.5);
    EXPECT_EQ(f.simInt(), 77);
    EXPECT_EQ(f.simFloat, 0.125f);
    EXPECT_EQ(f.auxTransform1.m[11], 11.0f);
    EXPECT_EQ(f.comment, "written by vaporix");
    const float* red = f.GetChannelData(7);
    ASSERT_NE(red, nullptr);
    EXPECT_FLOAT_EQ(red[1], static_cast<float>(((1 * 4 + 2) * 5) / 255.0));
    ASSERT_EQ(f.groups.count, 1);
    PGroup& g = f.groups[0];
    EXPECT_EQ(g.count, 33);
    float v[3];
    ASSERT_TRUE(g.GetValue(32, 1, v));
    EXPECT_EQ(v[0], 32.0f);
    EXPECT_EQ(v[2], 232.0f);
    float a;
    ASSERT_TRUE(g.GetValue(30, 3, &a));
    EXPECT_FLOAT_EQ(a, 3.0f);
    const auto ids = fixture::ids(33);
    int64_t id;
    ASSERT_TRUE(g.GetValue(32, 10, &id));
    EXPECT_EQ(id, ids[32]);
    EXPECT_EQ(g.FindById(ids[3]), 3);
    EXPECT_EQ(g.FindById(ids[4]), 4);
    EXPECT_EQ(g.FindById(999), -1);
}

TEST(VxgIO, RoundTripKeepsTheStreamByteForByte) {
    TempDir dir;
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, testDataPath("gen4_writer.vxg")), 0);
    VaporixFrameData g;
    ASSERT_EQ(g.importFile(testDataPath("gen4_writer.vxg").c_str(), "", 0, true, false, false), 0);
    // Re-reading with the compressed particle bytes kept writes the same file again.
    VaporixFrameData keep;
    ASSERT_EQ(keep.ImportVxg(testDataPath("gen4_writer.vxg").c_str(), true, false, false), 0);
    const std::string copy = dir.file("copy.vxg");
    ASSERT_EQ(keep.WriteVxg(copy.c_str(), keep.channelMask), 0);
    EXPECT_EQ(readBytes(copy), readBytes(testDataPath("gen4_writer.vxg")));
    VaporixFrameData back;
    ASSERT_EQ(readFile(back, copy), 0);
    ASSERT_EQ(back.comprDataSzInts, f.comprDataSzInts);
    EXPECT_EQ(std::memcmp(back.comprData, f.comprData, size_t(f.comprDataSzInts) * 4), 0);
}

TEST(VxgIO, WriterCreatesFoldersAndNeverLeavesAHalfFile) {
    TempDir dir;
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, testDataPath("gen3_chunks32.vxg")), 0);
    const std::string nested = dir.file("a/b/frame.vxg");
    EXPECT_EQ(f.SaveFrame(nested.c_str(), f.channelMask), 0);
    VaporixFrameData back;
    EXPECT_EQ(readFile(back, nested), 0);
    // A target that can't be written leaves nothing behind.
    const std::string blocked = dir.file("file.vxg/frame.vxg");
    writeBytes(dir.file("file.vxg"), {1, 2, 3});
    EXPECT_EQ(f.WriteVxg(blocked.c_str(), 0), 10);
    EXPECT_EQ(readBytes(dir.file("file.vxg")), (std::vector<uint8_t>{1, 2, 3}));
}

TEST(VxgIO, HeaderOnlyReadTouchesOnlyTheEndAndSmallTags) {
    TempDir dir;
    VaporixFrameData f;
    f.gridSize[0] = f.gridSize[1] = f.gridSize[2] = 64;
    std::vector<float> big(64 * 64 * 64, 1.25f);
    const Bytes s = rawStream(big);
    ASSERT_TRUE(f.appendStreamBlock(1, s.data.data(), s.size()));
    f.channelMask = 2;
    f.groups.resize(1);
    f.groups[0].name = "Foam";
    f.groups[0].count = 100000;
    std::vector<float> pos(300000, 1.0f);
    f.groups[0].channelData[0].compressed.resize(1200000);
    std::memcpy(f.groups[0].channelData[0].compressed.data, pos.data(), 1200000);
    const std::string path = dir.file("big.vxg");
    ASSERT_EQ(f.WriteVxg(path.c_str(), f.channelMask), 0);

    VaporixFrameData h;
    ASSERT_EQ(readFile(h, path, true), 0);
    EXPECT_LT(lastImportBytesRead(), 1024u);
    EXPECT_EQ(h.gridSize[1], 64);
    EXPECT_EQ(h.comprDataSzInts, 1);
    EXPECT_EQ(h.frameFlags & FRAME_HEADER_ONLY, FRAME_HEADER_ONLY);
    ASSERT_EQ(h.groups.count, 1);
    EXPECT_EQ(h.groups[0].name, "Foam");
    EXPECT_EQ(h.getGroupCount(0), 100000);
    EXPECT_EQ(h.groups[0].channelData[0].expanded.count, 0);
    EXPECT_EQ(h.GetChannelData(1), nullptr);
}

TEST(VxgIO, SimRecordLengths) {
    TempDir dir;
    for (int n : {392, 100, 500}) {
        VxgBuilder b(0);
        b.simRecord(n, 0xAB).frame(42).tag(0);
        VaporixFrameData f;
        ASSERT_EQ(readFile(f, writeTemp(dir, "rec.vxg", b.build())), 0) << n;
        EXPECT_EQ(f.frameNumber, 42) << n;  // the tag behind the record is read correctly
        EXPECT_EQ(f.simRecord[std::min(n, 392) - 1], 0xAB);
        if (n < 392) {
            EXPECT_EQ(f.simRecord[n], 0);
        }
    }
}

TEST(VxgIO, TagAboveThirteenEndsTheSection) {
    TempDir dir;
    VxgBuilder b(0);
    b.frame(5).tag(14).frame(6);
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, writeTemp(dir, "t.vxg", b.build())), 0);
    EXPECT_EQ(f.frameNumber, 5);
}

namespace {

/// A damaged file, the status its read gives and the exact log text before the broken-file line.
struct BrokenCase {
    std::string what;
    std::vector<uint8_t> bytes;
    const char* log;
    bool headerOnly = false;
    int status = 4;
};

/// An oldest-generation file whose tag section is `tags` and ends there.
std::vector<uint8_t> oldTags(const std::function<void(Bytes&)>& tags) {
    VxgBuilder b(0);
    tags(b.tags());
    return b.build();
}

std::vector<uint8_t> bytesOf(const Bytes& b) { return b.data; }

/// A table of the 32-bit channel positions of an old particle section, all absent.
Bytes noChannels() {
    Bytes t;
    for (int c = 0; c < 32; ++c) t.u32(0xFFFFFFFFu);
    return t;
}

/// The start of an old particle section with an empty pool and one group "G" of 2 particles.
void oneOldGroup(Bytes& t) { t.i32(7).i32(0).i32(1).str("G").i32(2).raw(noChannels()); }

std::vector<BrokenCase> brokenCases() {
    std::vector<BrokenCase> cases;
    auto add = [&](std::string what, std::vector<uint8_t> bytes, const char* log) {
        cases.push_back({std::move(what), std::move(bytes), log});
    };
    // The trailer, read from the end.
    add("shorter than 8 bytes", {'V', 'X', 'G'}, "Failed while seeking to vxgr2 magic!\n");
    add("end magic only", bytesOf(Bytes().raw("VXGR2VPX", 8)),
        "Failed to seek to vxgr2 version!\n");
    add("no room for the 64-bit offset", bytesOf(Bytes().i32(4).raw("VXGR2VPX", 8)),
        "Failed seeking to marker chunk!\n");
    add("no room for the 32-bit offset", bytesOf(Bytes().i32(3).raw("VXGR2VPX", 8)),
        "Failed seeking to marker chunk!\n");
    {
        auto bytes = VxgBuilder(4).tag(0).build();
        const uint64_t wild = 1ull << 40;
        std::memcpy(bytes.data() + bytes.size() - 20, &wild, 8);
        add("marker offset beyond the file", bytes, "Failed seeking to marker chunk!\n");
    }
    // The chunk loop runs into the trailer: the marker offset puts the id or the size across
    // the file's end.
    for (const auto& [what, back, log] :
         {std::tuple{"chunk id cut short", 6, "Failed reading chunk id!\n"},
          std::tuple{"chunk size cut short", 10, "Failed reading chunk size!\n"}}) {
        auto bytes = VxgBuilder(4).tag(0).build();
        const uint64_t marker = bytes.size() - static_cast<uint64_t>(back);
        std::memcpy(bytes.data() + bytes.size() - 20, &marker, 8);
        add(what, bytes, log);
    }
    {
        VxgBuilder b(4);
        b.tag(0);
        Bytes body;
        body.i32(1 << 30);  // a group count far beyond the chunk
        b.chunk(1000, body);
        add("group count beyond the file", b.build(), "Failed reading chunk size!\n");
    }
    {
        VxgBuilder b(4);
        b.tag(0);
        auto bytes = b.build();
        // A chunk whose 64-bit size reaches beyond the file, in place of the end id.
        Bytes chunk;
        chunk.i32(5000).u64(1ull << 40);
        bytes.insert(bytes.end() - 24, chunk.data.begin(), chunk.data.end());
        const uint64_t marker = 4 + 4;
        std::memcpy(bytes.data() + bytes.size() - 20, &marker, 8);
        add("unknown chunk beyond the file", bytes, "Failed reading chunk size!\n");
    }
    {
        VxgBuilder b(4);
        b.tag(0);
        Bytes body;
        body.i32(1).str("P").i32(0).i32(3).zeros(8).i32(1).i32(0).i32(0).i32(1 << 20);
        b.chunk(1002, body);
        add("particle bytes beyond the file", b.build(),
            "Failed to load compressed particle data!\n");
    }
    // The tag section: each body cut inside gives the word of its place.
    add("wrong magic", bytesOf(Bytes().raw("XXGR", 4).i32(0)), "no hdr\n");
    add("next tag missing", oldTags([](Bytes& t) { t.i32(4).i32(7); }), "0\n");
    add("mask", oldTags([](Bytes& t) { t.i32(1); }), "1\n");
    add("transform", oldTags([](Bytes& t) { t.i32(2).zeros(20); }), "2\n");
    add("grid size", oldTags([](Bytes& t) { t.i32(3).i32(1); }), "3\n");
    add("stream length", oldTags([](Bytes& t) { t.i32(3).i32(1).i32(1).i32(1); }), "4\n");
    add("stream longer than the file",
        oldTags([](Bytes& t) { t.i32(3).i32(1).i32(1).i32(1).i32(1000).zeros(8); }), "x41\n");
    add("negative stream length",
        oldTags([](Bytes& t) { t.i32(3).i32(1).i32(1).i32(1).i32(-1).i32(0); }),
        "VaporixFrameData::ImportVxg bad comprDataSzInts!");
    add("frame number", oldTags([](Bytes& t) { t.i32(4); }), "4\n");
    add("time step", oldTags([](Bytes& t) { t.i32(5).zeros(2); }), "7\n");
    add("first aux transform", oldTags([](Bytes& t) { t.i32(6).zeros(47); }), "6\n");
    add("integer time", oldTags([](Bytes& t) { t.i32(8); }), "20\n");
    add("record integer", oldTags([](Bytes& t) { t.i32(9); }), "21\n");
    add("record float", oldTags([](Bytes& t) { t.i32(9).i32(1); }), "22\n");
    add("times", oldTags([](Bytes& t) { t.i32(10).zeros(7); }), "24\n");
    add("second time", oldTags([](Bytes& t) { t.i32(10).zeros(8); }), "25\n");
    add("aux transforms", oldTags([](Bytes& t) { t.i32(11).zeros(100); }), "11\n");
    add("aux block", oldTags([](Bytes& t) { t.i32(11).zeros(148); }), "x111\n");
    add("record length", oldTags([](Bytes& t) { t.i32(12); }), "12\n");
    add("negative record length", oldTags([](Bytes& t) { t.i32(12).i32(-5); }), "12\n");
    add("record", oldTags([](Bytes& t) { t.i32(12).i32(392).zeros(100); }), "12\n");
    add("record tail", oldTags([](Bytes& t) { t.i32(12).i32(500).zeros(400); }), "x121\n");
    // Old particle sections.
    add("pool length", oldTags([](Bytes& t) { t.i32(7); }), "9\n");
    add("raw pool", oldTags([](Bytes& t) { t.i32(7).i32(10).zeros(4); }), "x91\n");
    add("coded pool", oldTags([](Bytes& t) { t.i32(13).i32(10).zeros(4); }), "13\n");
    add("group count", oldTags([](Bytes& t) { t.i32(7).i32(0); }), "11\n");
    add("group name", oldTags([](Bytes& t) { t.i32(7).i32(0).i32(1).i32(5).raw("ab", 2); }),
        "11\n");
    add("particle count", oldTags([](Bytes& t) { t.i32(7).i32(0).i32(1).str("G"); }), "12\n");
    add("channel table",
        oldTags([](Bytes& t) { t.i32(7).i32(0).i32(1).str("G").i32(2).zeros(64); }), "13\n");
    add("sub-tag", oldTags([](Bytes& t) { oneOldGroup(t); }), "14\n");
    add("flags", oldTags([](Bytes& t) {
            oneOldGroup(t);
            t.i32(1);
        }),
        "15\n");
    add("ID length", oldTags([](Bytes& t) {
            oneOldGroup(t);
            t.i32(2);
        }),
        "16\n");
    add("IDs", oldTags([](Bytes& t) {
            oneOldGroup(t);
            t.i32(2).i32(100).zeros(10);
        }),
        "x161\n");
    add("reserved bytes", oldTags([](Bytes& t) {
            oneOldGroup(t);
            t.i32(3).zeros(4);
        }),
        "18\n");
    add("unknown sub-tag", oldTags([](Bytes& t) {
            oneOldGroup(t);
            t.i32(9).i32(0);
        }),
        "19\n");
    {
        // A header read after a summary skips the IDs by seeking, and stops at the file's end.
        VxgBuilder b(2);
        const float box[6] = {0, 0, 0, 1, 1, 1};
        b.chunk(1000, summaryBody("G", 2, 1, 0, box));
        oneOldGroup(b.tags());
        b.tags().i32(2).i32(1 << 20);
        cases.push_back({"skipped IDs", b.build(), "x162\n", true});
    }
    cases.push_back({"header read of a stream longer than the file",
                     oldTags([](Bytes& t) { t.i32(3).i32(1).i32(1).i32(1).i32(1000).zeros(8); }),
                     "x41\n", true});
    {
        auto bytes = VxgBuilder(3).tag(0).build();
        const int32_t negative = -8;
        std::memcpy(bytes.data() + bytes.size() - 16, &negative, 4);
        cases.push_back({"negative 32-bit offset", bytes, "", false, 3});
    }
    return cases;
}

}  // namespace

TEST(VxgIO, BrokenFilesGiveStatusAndTheWordOfTheirPlace) {
    TempDir dir;
    const std::string path = dir.file("broken.vxg");
    const std::string brokenLine =
        "VaporixFrameData::ImportVxg broken or bad memory allocation. File is: " + path + "\n";
    for (const auto& c : brokenCases()) {
        writeBytes(path, c.bytes);
        LogRecorder log;
        VaporixFrameData f;
        EXPECT_EQ(readFile(f, path, c.headerOnly), c.status) << c.what;
        EXPECT_EQ(log.text(), c.status == 4 ? c.log + brokenLine : std::string()) << c.what;
        EXPECT_EQ(f.comprData, nullptr) << c.what;
        EXPECT_EQ(f.comprDataSzInts, 0) << c.what;
        EXPECT_TRUE(f.sourcePath.empty()) << c.what;
    }
}

TEST(VxgIO, EveryTruncationAndByteFlipReadsSafely) {
    TempDir dir;
    for (const auto& name : fixtureNames()) {
        const auto good = readBytes(testDataPath(name));
        for (size_t n = 0; n < good.size(); ++n) {
            std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<long>(n));
            VaporixFrameData f;
            const int status = readFile(f, writeTemp(dir, "cut.vxg", cut));
            EXPECT_TRUE(status == 0 || status == 3 || status == 4) << name << " cut at " << n;
            if (status == 0)
                for (int c = 0; c < 32; ++c) f.GetChannelData(c);
        }
        for (size_t i = 0; i < good.size(); i += 3) {
            auto flipped = good;
            flipped[i] ^= 0xA5;
            VaporixFrameData f;
            if (readFile(f, writeTemp(dir, "flip.vxg", flipped)) == 0)
                for (int c = 0; c < 32; ++c) f.GetChannelData(c);
        }
    }
}

TEST(VxgIO, MissingPathsAndExtensions) {
    VaporixFrameData f;
    EXPECT_EQ(f.importFile(nullptr, "", 0, true, false, false), 3);
    EXPECT_EQ(f.importFile("", "", 0, true, false, false), 3);
    EXPECT_EQ(f.importFile("/no/such/file.vxg", "", 0, true, false, false), 3);
    EXPECT_EQ(f.importFile("/no/such/file.txt", "", 0, true, false, false), 3);
    TempDir dir;
    EXPECT_EQ(f.importFile(dir.path().c_str(), "", 0, true, false, false), 3);
    EXPECT_EQ(f.ImportVxg(dir.path().c_str(), false, false, true), 3);  // a folder, no retries
}

TEST(VxgIO, SaveAndLoadThroughFramePatterns) {
    TempDir dir;
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, testDataPath("gen3_chunks32.vxg")), 0);
    const std::string pattern = dir.file("seq/smoke_####.vxg");
    for (int n : {3, 7}) {
        f.frameNumber = n;
        ASSERT_EQ(f.SaveFrame(pattern.c_str(), f.channelMask), 0);
    }
    EXPECT_FALSE(readBytes(dir.file("seq/smoke_0003.vxg")).empty());
    VaporixFrameData g;
    EXPECT_EQ(g.loadByFrame(7, pattern.c_str(), "", true, true, false), 0);
    EXPECT_EQ(g.frameNumber, 7);
    EXPECT_EQ(g.sourcePath, dir.file("seq/smoke_0007.vxg"));
    EXPECT_EQ(g.loadByFrame(5, pattern.c_str(), "", true, true, false), 3);
    EXPECT_EQ(g.loadByFrame(6, pattern.c_str(), "", false, true, true), 0);  // nearest: 7
    EXPECT_EQ(g.frameNumber, 7);
    EXPECT_EQ(g.comprDataSzInts, 1);
}

// Inputs found by fuzzing the reader, rebuilt in readable form.

TEST(VxgIO, GridSizesWhoseProductOverflowsAreRejected) {
    TempDir dir;
    // The first case is the one fuzzing found (its cell count wraps 64 bits to a negative
    // number); the second wraps to exactly 0. Both once passed the size check.
    const int32_t sizes[][3] = {{44338864, 721420289, 100663296}, {1 << 21, 1 << 21, 1 << 22}};
    for (const auto& s : sizes) {
        VxgBuilder b(0);
        b.tags().i32(3).i32(s[0]).i32(s[1]).i32(s[2]).i32(0);
        b.tag(0);
        LogRecorder log;
        VaporixFrameData f;
        EXPECT_EQ(readFile(f, writeTemp(dir, "huge.vxg", b.build())), 4) << s[0];
        EXPECT_TRUE(log.contains("3\n")) << log.text();
    }
    // Sizes up to the largest channel are still taken, and a zero axis is an empty grid.
    for (const auto& s : {std::array<int32_t, 3>{1024, 1024, 2047}, {0, 1 << 30, 1 << 30}}) {
        VxgBuilder b(0);
        b.tags().i32(3).i32(s[0]).i32(s[1]).i32(s[2]).i32(0);
        b.tag(0);
        VaporixFrameData f;
        EXPECT_EQ(readFile(f, writeTemp(dir, "big.vxg", b.build())), 0) << s[2];
        EXPECT_EQ(f.gridSize[2], s[2]);
    }
}

TEST(VxgIO, OldParticleCountsDoNotDriveTheBoxPass) {
    // Groups of an old section that claim two thousand million particles but whose position
    // stream can't deliver them: the box pass must not walk the claimed count (once it did, and
    // once for every group of the frame over each group, which never ended).
    TempDir dir;
    for (bool coded : {true, false}) {
        VxgBuilder b(0);
        Bytes& t = b.tags();
        t.i32(coded ? 13 : 7).i32(16);
        for (int i = 0; i < 16; ++i) t.u32(0x3F000000u + static_cast<uint32_t>(i));
        t.i32(8);
        for (int g = 0; g < 8; ++g) {
            t.str("G" + std::to_string(g)).i32(0x7FFFFFFF);
            uint32_t table[32];
            for (auto& e : table) e = 0xFFFFFFFFu;
            table[0] = 3;
            t.raw(table, sizeof table).i32(0);
        }
        b.tag(0);
        VaporixFrameData f;
        ASSERT_EQ(readFile(f, writeTemp(dir, "claims.vxg", b.build())), 0) << coded;
        ASSERT_EQ(f.groups.count, 8);
        EXPECT_EQ(f.getGroupCount(7), 0x7FFFFFFF);
        EXPECT_EQ(f.groups[7].GetCount(), 0);  // no position data could be read
        EXPECT_GT(f.particleBox[0], f.particleBox[3]);
    }
}

TEST(VxgIO, BadParticlesOfOldSectionsAreReportedOncePerGroup) {
    TempDir dir;
    VxgBuilder b(0);
    Bytes& t = b.tags();
    // Two groups share a pool of one good and one far-away particle.
    const float pool[6] = {1, 2, 3, 1e6f, 0, 0};
    t.i32(7).i32(6).raw(pool, sizeof pool).i32(2);
    for (const char* name : {"A", "B"}) {
        uint32_t table[32];
        for (auto& e : table) e = 0xFFFFFFFFu;
        table[0] = 0;
        t.str(name).i32(2).raw(table, sizeof table).i32(0);
    }
    b.tag(0);
    LogRecorder log;
    VaporixFrameData f;
    ASSERT_EQ(readFile(f, writeTemp(dir, "bad.vxg", b.build())), 0);
    const std::string text = log.text();
    EXPECT_NE(text.find("bad particles found in group A, count:1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("bad particles found in group B, count:1\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("bad particles found in group A", text.find("group A") + 1),
              std::string::npos);
    // The box holds only the good particle.
    EXPECT_EQ(f.particleBox[0], 1.0f);
    EXPECT_EQ(f.particleBox[3], 1.0f);
    EXPECT_EQ(f.particleBox[5], 3.0f);
}

TEST(VxgIO, WriterLayoutOfAFrameWithoutGroups) {
    // Tags in the writer's order, the marker, the summary with its filler behind it, the
    // comment, no particle chunk, the end id and the version 4 trailer with a 64-bit offset.
    TempDir dir;
    VaporixFrameData f;
    f.gridSize[0] = f.gridSize[1] = f.gridSize[2] = 1;
    const Bytes s = rawStream({2.5f});
    ASSERT_TRUE(f.appendStreamBlock(1, s.data.data(), s.size()));
    f.frameNumber = 3;
    f.comment = "c";
    const std::string path = dir.file("layout.vxg");
    ASSERT_EQ(f.WriteVxg(path.c_str(), 0x80000002u), 0);
    const auto b = readBytes(path);
    size_t at = 0;
    auto i32 = [&] {
        int32_t v;
        std::memcpy(&v, b.data() + at, 4);
        at += 4;
        return v;
    };
    auto u64 = [&] {
        uint64_t v;
        std::memcpy(&v, b.data() + at, 8);
        at += 8;
        return v;
    };
    ASSERT_EQ(std::memcmp(b.data(), "VXGR", 4), 0);
    at = 4;
    std::vector<int32_t> tags;
    for (;;) {
        const int32_t tag = i32();
        tags.push_back(tag);
        if (tag == 0) break;
        const size_t body[] = {0, 4, 48, 0, 4, 4, 0, 0, 0, 8, 16, 152, 0};
        if (tag == 3) {
            at += 12;
            at += 4 * static_cast<size_t>(i32());
        } else if (tag == 12) {
            EXPECT_EQ(i32(), 392);
            at += 392;
        } else {
            ASSERT_LT(tag, 13);
            at += body[tag];
        }
    }
    EXPECT_EQ(tags, (std::vector<int32_t>{1, 2, 3, 4, 5, 9, 10, 11, 12, 0}));
    const size_t marker = at;
    EXPECT_EQ(i32(), 13);
    EXPECT_EQ(i32(), 1000);
    EXPECT_EQ(u64(), 4u + 24u);  // count 0 and the box; the filler is not counted
    EXPECT_EQ(i32(), 0);
    at += 24;
    EXPECT_EQ(i32(), 100000);
    EXPECT_EQ(i32(), 1001);
    EXPECT_EQ(u64(), 5u);
    EXPECT_EQ(i32(), 1);
    at += 1;
    EXPECT_EQ(i32(), 9999999);
    EXPECT_EQ(u64(), marker);
    EXPECT_EQ(i32(), 4);
    ASSERT_EQ(at + 8, b.size());
    EXPECT_EQ(std::memcmp(b.data() + at, "VXGR2VPX", 8), 0);
    // The mask argument is what tag 1 holds, its top bit included.
    VaporixFrameData back;
    ASSERT_EQ(readFile(back, path), 0);
    EXPECT_EQ(back.channelMask, 0x80000002u);
    EXPECT_EQ(back.frameFlags & FRAME_MASK_TOP_BIT, FRAME_MASK_TOP_BIT);
    EXPECT_TRUE(back.HasChannel(1));
    EXPECT_FALSE(back.HasChannel(31));
    EXPECT_EQ(back.comment, "c");
    EXPECT_EQ(back.groups.count, 0);
}

TEST(VxgIO, SummaryAnnouncesGridVelocityOfItsGroups) {
    // A group that takes its velocity from the grid lists channel 1 in the summary when the
    // written mask has a velocity bit, so that a header read knows it without the data.
    TempDir dir;
    VaporixFrameData f;
    f.gridSize[0] = f.gridSize[1] = f.gridSize[2] = 1;
    f.groups.resize(2);
    const std::vector<float> pos = {0.5f, 0.5f, 0.5f};
    for (int g = 0; g < 2; ++g) {
        PGroup& grp = f.groups[g];
        grp.name = g ? "Plain" : "Carried";
        grp.count = 1;
        grp.flags = g ? 0 : PGROUP_GRID_VELOCITY;
        grp.frame = &f;
        ASSERT_TRUE(grp.setChannel(PRT_POSITION, pos.data(), 12));
        ASSERT_TRUE(grp.CompressChannel(PRT_POSITION, PRT_KIND_RAW));
    }
    const float box[6] = {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f};
    std::memcpy(f.particleBox, box, sizeof box);
    const std::string path = dir.file("carried.vxg");
    for (uint32_t mask : {0u, 1u << 5}) {
        ASSERT_EQ(f.WriteVxg(path.c_str(), mask), 0);
        VaporixFrameData h;
        ASSERT_EQ(readFile(h, path, true), 0);
        ASSERT_EQ(h.groups.count, 2);
        EXPECT_EQ(h.groups[0].channelBits, mask ? 0x3u : 0x1u) << mask;
        EXPECT_EQ(h.groups[1].channelBits, 0x1u) << mask;
        EXPECT_EQ(h.groups[0].flags, PGROUP_GRID_VELOCITY);
        EXPECT_EQ(h.particleBox[3], 0.5f);
        EXPECT_EQ(h.groups[0].channelData[PRT_POSITION].compressed.count, 0);
    }
}
