// The main library's side of foreign caches: channel map text, module names and loading, the
// import steps (velocity rule, placeholder, axis mode, statuses) on fake modules, default maps,
// and the real modules through dlopen when they are built.
#include "cache/CacheIO.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "TestSupport.h"
#include "cache/VaporixFrameData.h"
#include "foundation/ThreadManager.h"

namespace vaporix {
namespace {

using CacheIO::AvaiableChannels;
using CacheIO::GridMapping;

const std::string FIXTURES = std::string(VAPORIX_SHARED_DIR) + "/field3d/fixtures/";

/// A fake cache file: one "name kind" line per channel.
void writeFake(const std::string& path, const std::vector<std::pair<std::string, int>>& channels) {
    std::ofstream out(path);
    for (const auto& [name, kind] : channels) out << name << ' ' << kind << '\n';
}

iArray<AvaiableChannels> offered(const std::vector<std::pair<std::string, int>>& channels) {
    iArray<AvaiableChannels> out;
    for (const auto& [name, kind] : channels) {
        AvaiableChannels c;
        c.name = name;
        c.kind = static_cast<uint8_t>(kind);
        out.append(c);
    }
    return out;
}

std::string defaultMap(const char* ext, const std::vector<std::pair<std::string, int>>& channels) {
    iArray<GridMapping> maps;
    CacheIO::defaultMappingFor(ext, offered(channels), maps);
    return CacheIO::printChannelMap(maps);
}

/// Loads the fake modules for one test and unloads them afterwards.
class FakeModules : public ::testing::Test {
protected:
    void SetUp() override {
        CacheIO::unloadSideModules();
        ASSERT_EQ(CacheIO::loadSideModules(3, VAPORIX_FAKE_MODULE_DIR, "fake", 1), 0);
    }
    void TearDown() override { CacheIO::unloadSideModules(); }
    test::TempDir dir;
};

TEST(ChannelMap, TextParsesIntoMappingsOfScaleOne) {
    iArray<GridMapping> maps;
    EXPECT_EQ(CacheIO::parseChannelMap("2,density;4,vel.x;", maps), 2);
    ASSERT_EQ(maps.count, 2);
    EXPECT_EQ(maps[0].channel, 2);
    EXPECT_EQ(maps[0].name, "density");
    EXPECT_EQ(maps[1].channel, 4);
    EXPECT_EQ(maps[1].name, "vel.x");
    EXPECT_EQ(maps[0].scale, 1.0f);
    EXPECT_EQ(maps[1].scale, 1.0f);
    EXPECT_EQ(CacheIO::printChannelMap(maps), "2,density;4,vel.x;");

    iArray<GridMapping> none;
    EXPECT_EQ(CacheIO::parseChannelMap("", none), 0);
    EXPECT_EQ(CacheIO::parseChannelMap(nullptr, none), 0);
    // A last item without its semicolon still counts; text without a comma is no mapping.
    EXPECT_EQ(CacheIO::parseChannelMap("1,temperature", none), 1);
    EXPECT_EQ(CacheIO::parseChannelMap("garbage", none), 0);
    EXPECT_EQ(none.count, 1);
}

TEST(SideModules, FileNamesFollowThePlatformsForm) {
    EXPECT_EQ(CacheIO::sideModuleFileName("openvdbio", nullptr, "lumo"), "openvdbio_lumo.so");
    EXPECT_EQ(CacheIO::sideModuleFileName("openvdbio", nullptr, nullptr), "openvdbio.so");
    // A search path without a suffix is no search path.
    EXPECT_EQ(CacheIO::sideModuleFileName("openvdbio", "/x", ""), "openvdbio.so");
    const std::string dir = VAPORIX_FAKE_MODULE_DIR;
    EXPECT_EQ(CacheIO::sideModuleFileName("openvdbio", ("/nowhere:" + dir + "/").c_str(), "fake"),
              dir + "/openvdbio_fake.so");
    EXPECT_EQ(CacheIO::sideModuleFileName("openvdbio", ("/nowhere;" + dir).c_str(), "fake"),
              dir + "/openvdbio_fake.so");
    EXPECT_EQ(CacheIO::sideModuleFileName("openvdbio", "/nowhere", "fake"), "");
}

TEST(SideModules, AModuleWithoutAllFiveExportsIsNotUsed) {
    CacheIO::unloadSideModules();
    EXPECT_EQ(CacheIO::loadSideModules(2, VAPORIX_FAKE_MODULE_DIR, "partial", 1),
              CacheIO::MODULE_OPENVDB);
    EXPECT_FALSE(CacheIO::hasOpenVDBModule());
    EXPECT_EQ(CacheIO::loadSideModules(3, "/nowhere", "lumo", 1), 3);
    EXPECT_FALSE(CacheIO::setSideModuleThreadManager(processThreadManager()));
    CacheIO::unloadSideModules();
}

TEST(SideModules, WithoutAModuleForeignFilesGiveStatus2Quietly) {
    CacheIO::unloadSideModules();
    test::TempDir dir;
    writeFake(dir.file("a.vdb"), {{"density", 0}});
    VaporixFrameData frame;
    EXPECT_EQ(frame.importFile(dir.file("a.vdb").c_str(), "2,density;", 1, false, false, false),
              LOAD_NO_MODULE);
    EXPECT_EQ(frame.importFile(dir.file("a.f3d").c_str(), "2,density;", 1, false, false, false),
              LOAD_NO_MODULE);
    std::string map = "unchanged";
    CacheIO::buildDefaultMapping(map, dir.file("a.vdb").c_str());
    EXPECT_EQ(map, "");
}

TEST_F(FakeModules, ImportKeepsVelocityOnlyWhole) {
    writeFake(dir.file("a.vdb"), {{"density", 0}});
    VaporixFrameData frame;
    ASSERT_EQ(frame.importFile(dir.file("a.vdb").c_str(), "2,density;4,vel.x;5,vel.y;", 17.0,
                               false, false, false),
              0);
    EXPECT_TRUE(frame.HasChannel(2));
    EXPECT_FALSE(frame.HasChannel(4));
    EXPECT_FALSE(frame.HasChannel(5));
    EXPECT_FALSE(frame.HasChannel(3));
    EXPECT_EQ(frame.channels[4], nullptr);
    EXPECT_EQ(frame.channels[5], nullptr);
    // The placeholder stream, the frame time and the file name.
    EXPECT_EQ(frame.comprDataSzInts, 1);
    EXPECT_EQ(frame.simTime(), 17.0);
    EXPECT_EQ(frame.sourcePath, dir.file("a.vdb"));

    ASSERT_EQ(frame.importFile(dir.file("a.vdb").c_str(), "4,vel.x;5,vel.y;6,vel.z;", 1, false,
                               false, false),
              0);
    EXPECT_TRUE(frame.HasChannel(3));
    ASSERT_NE(frame.GetChannelData(3), nullptr);
    EXPECT_FLOAT_EQ(frame.GetChannelData(3)[0], std::sqrt(16.0f + 25.0f + 36.0f));
}

TEST_F(FakeModules, EmptyMapIsStatus9WithItsLogLine) {
    writeFake(dir.file("a.vdb"), {{"density", 0}});
    test::LogRecorder log;
    VaporixFrameData frame;
    EXPECT_EQ(frame.importFile(dir.file("a.vdb").c_str(), "", 1, false, false, false),
              LOAD_NO_CHANNEL_MAP);
    EXPECT_TRUE(log.contains("Trying to import VDB files with no mappings specified!\n"));
    EXPECT_EQ(frame.importFile(dir.file("a.f3d").c_str(), "", 1, false, false, false),
              LOAD_NO_CHANNEL_MAP);
    EXPECT_TRUE(log.contains("Trying to import F3D files with no mappings specified!\n"));
    EXPECT_TRUE(frame.sourcePath.empty());
}

TEST_F(FakeModules, ModuleStatusesPassThroughAndHeaderOnlyReadsNoArrays) {
    writeFake(dir.file("a.f3d"), {{"density", 0}});
    VaporixFrameData frame;
    EXPECT_EQ(frame.importFile(dir.file("a.f3d").c_str(), "2,fail;", 1, false, false, false), 5);
    ASSERT_EQ(frame.importFile(dir.file("a.f3d").c_str(), "2,density;", 1, false, true, false),
              0);
    EXPECT_TRUE(frame.HasChannel(2));
    EXPECT_EQ(frame.channels[2], nullptr);
    EXPECT_NE(frame.frameFlags & FRAME_HEADER_ONLY, 0);
}

TEST_F(FakeModules, AxisMode2ExchangesYAndZRowsNegatingTheNewZ) {
    writeFake(dir.file("a.vdb"), {{"density", 0}});
    VaporixFrameData frame;
    ASSERT_EQ(frame.importFile(dir.file("a.vdb").c_str(), "2,density;", 1, false, false, false),
              0);
    const GridTransform asIs = frame.gridTransform;
    CacheIO::unloadSideModules();
    ASSERT_EQ(CacheIO::loadSideModules(3, VAPORIX_FAKE_MODULE_DIR, "fake", 2), 0);
    ASSERT_EQ(frame.importFile(dir.file("a.vdb").c_str(), "2,density;", 1, false, false, false),
              0);
    const float* m = frame.gridTransform.m;
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(m[k], asIs.m[k]);
        EXPECT_EQ(m[3 + k], asIs.m[6 + k]);
        EXPECT_EQ(m[6 + k], -asIs.m[3 + k]);
        EXPECT_EQ(m[9 + k], asIs.m[9 + k]);
    }
}

TEST_F(FakeModules, ThreadManagerGoesToEveryModule) {
    EXPECT_TRUE(CacheIO::setSideModuleThreadManager(processThreadManager()));
    // The fakes refuse a null manager: one refusal makes the whole call false.
    EXPECT_FALSE(CacheIO::setSideModuleThreadManager(nullptr));
    CacheIO::releaseSideModuleThreadManagers();
}

TEST_F(FakeModules, ChannelsOfASequenceAndItsDefaultMap) {
    writeFake(dir.file("s_0001.vdb"), {{"density", 0}, {"vel.x", 1}});
    writeFake(dir.file("s_0002.vdb"), {{"vel.y", 1}, {"vel.z", 1}, {"density", 0}});
    iArray<AvaiableChannels> list;
    EXPECT_EQ(CacheIO::listCacheChannels(dir.file("s_####.vdb").c_str(), list), 4);
    std::string map;
    CacheIO::buildDefaultMapping(map, dir.file("s_####.vdb").c_str());
    // Listing order follows the folder; the map holds each name once with its ordinal.
    for (const char* item : {"2,density;", "4,vel.x;", "5,vel.y;", "6,vel.z;"})
        EXPECT_NE(map.find(item), std::string::npos) << map;
    CacheIO::buildDefaultMapping(map, "");
    EXPECT_EQ(map, "");
    CacheIO::buildDefaultMapping(map, dir.file("none_####.vdb").c_str());
    EXPECT_EQ(map, "");
}

TEST(DefaultMap, TablesAndTheSmokeFallback) {
    // An unknown scalar becomes Smoke when nothing else is; velocity names never do.
    EXPECT_EQ(defaultMap("vdb", {{"vel.x", 0}, {"heat", 0}}), "4,vel.x;2,heat;");
    EXPECT_EQ(defaultMap("vdb", {{"density", 0}, {"heat", 0}}), "2,density;");
    EXPECT_EQ(defaultMap("vdb", {{"junk.x", 1}, {"heat", 0}}), "2,heat;");
    // Field3D: VelocitiesX goes to z, the capital in velocity(Y) is part of the name.
    EXPECT_EQ(defaultMap("f3d", {{"VelocitiesX", 0}, {"VelocitiesZ", 0}, {"Smoke", 0}}),
              "6,VelocitiesX;4,VelocitiesZ;2,Smoke;");
    EXPECT_EQ(defaultMap("f3d", {{"velocity(x)", 1}, {"velocity(y)", 1}, {"velocity(Y)", 1}}),
              "4,velocity(x);5,velocity(Y);");
    EXPECT_EQ(defaultMap("f3d", {{"VelocitiesY", 0}, {"other", 0}}), "5,VelocitiesY;2,other;");
    EXPECT_EQ(defaultMap("vxg", {{"density", 0}}), "");
}

TEST(DefaultMap, LevelSetRowsCarryTheirScale) {
    iArray<GridMapping> maps;
    CacheIO::defaultMappingFor("vdb", offered({{"surface", 0}, {"density", 0}}), maps);
    ASSERT_EQ(maps.count, 2);
    EXPECT_EQ(maps[0].channel, 1);
    EXPECT_EQ(maps[0].scale, -33.3333f);
    EXPECT_EQ(maps[1].scale, 1.0f);
}

#if defined(VAPORIX_HAS_FIELD3DIO)
TEST(RealModules, Field3DFixturesLoadThroughTheModuleWithTheirDefaultMap) {
    CacheIO::unloadSideModules();
    ASSERT_EQ(CacheIO::loadSideModules(1, VAPORIX_MODULE_DIR, "lumo", 1), 0);
    EXPECT_TRUE(CacheIO::setSideModuleThreadManager(processThreadManager()));

    std::string map;
    CacheIO::buildDefaultMapping(map, (FIXTURES + "style_caps.f3d").c_str());
    // Layers in name order; TextureCoord takes 7, 8, 9 after the colours, as the table says.
    EXPECT_EQ(map,
              "9,ColorB;8,ColorG;7,ColorR;10,FireFuel;2,Smoke;1,Temperature;7,TextureCoord(x);"
              "8,TextureCoord(y);9,TextureCoord(z);6,VelocitiesX;5,VelocitiesY;4,VelocitiesZ;");
    VaporixFrameData frame;
    ASSERT_EQ(frame.importFile((FIXTURES + "style_caps.f3d").c_str(), map.c_str(), 1, false,
                               false, false),
              0);
    for (int c : {1, 2, 4, 5, 6, 7, 8, 9, 10}) EXPECT_TRUE(frame.HasChannel(c)) << c;
    // VelocitiesX lands in z: velocity x of voxel (3,2,1) is 0.5*3 - 1.
    const int idx = 3 + 16 * (2 + 12 * 1);
    EXPECT_EQ(frame.channels[6][idx], 0.5f);
    EXPECT_EQ(frame.channels[4][idx], -1.5f);

    // dense_vector's default map names only velocity(x) (the table spells "velocity(Y)"), so the
    // velocity is dropped as partial.
    CacheIO::buildDefaultMapping(map, (FIXTURES + "dense_vector.f3d").c_str());
    EXPECT_EQ(map, "2,density;4,velocity(x);");
    ASSERT_EQ(frame.importFile((FIXTURES + "dense_vector.f3d").c_str(), map.c_str(), 1, false,
                               false, false),
              0);
    EXPECT_FALSE(frame.HasChannel(4));
    EXPECT_TRUE(frame.HasChannel(2));
    EXPECT_EQ(frame.importFile((FIXTURES + "lzf_filter.f3d").c_str(), "2,density;", 1, false,
                               false, false),
              5);
    EXPECT_NE(CacheIO::sideModuleStatusMessage(5), nullptr);
    CacheIO::releaseSideModuleThreadManagers();
    CacheIO::unloadSideModules();
}
#endif

#if defined(VAPORIX_HAS_OPENVDBIO)
TEST(RealModules, FramesGoToOpenVDBAndBackThroughTheModule) {
    CacheIO::unloadSideModules();
    ASSERT_EQ(CacheIO::loadSideModules(2, VAPORIX_MODULE_DIR, "lumo", 1), 0);
    ASSERT_TRUE(CacheIO::hasOpenVDBExport());
    test::TempDir dir;
    VaporixFrameData frame;
    frame.gridSize[0] = 5;
    frame.gridSize[1] = 4;
    frame.gridSize[2] = 3;
    for (int c : {2, 4, 5}) {
        frame.channels[c] = static_cast<float*>(internal::arrayAllocate(64 * sizeof(float)));
        for (int i = 0; i < 60; ++i) frame.channels[c][i] = static_cast<float>(i * c);
        frame.channelMask |= 1u << c;
    }
    std::string error;
    ASSERT_EQ(CacheIO::exportVDB(dir.file("f.vdb").c_str(), frame, 0.0f, error), 0) << error;
    std::string map;
    CacheIO::buildDefaultMapping(map, dir.file("f.vdb").c_str());
    EXPECT_EQ(map, "2,density;");  // no velocity grid: only two components existed
    VaporixFrameData back;
    ASSERT_EQ(back.importFile(dir.file("f.vdb").c_str(), map.c_str(), 3, false, false, false), 0);
    ASSERT_EQ(back.getCellCount(), 60);
    for (int i = 0; i < 60; ++i) EXPECT_EQ(back.channels[2][i], static_cast<float>(i * 2));
    // A map with one velocity component of a file that has no velocity: dropped, no error.
    ASSERT_EQ(back.importFile(dir.file("f.vdb").c_str(), "2,density;4,vel.x;", 3, false, false,
                              false),
              0);
    EXPECT_FALSE(back.HasChannel(4));
    CacheIO::unloadSideModules();
}
#endif

}  // namespace
}  // namespace vaporix
