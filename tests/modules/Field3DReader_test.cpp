// Field3D reader: every fixture written by the Field3D library loads as its manifest says; sparse
// layers, header-only reads, channel lists, and damaged or unsupported files.
#include "field3dio/Field3DReader.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Field3DWriter.h"
#include "TestSupport.h"
#include "cache/VaporixFrameData.h"

namespace vaporix {
namespace {

using CacheIO::AvaiableChannels;
using CacheIO::GridMapping;
using nlohmann::json;

const std::string FIXTURES = std::string(VAPORIX_SHARED_DIR) + "/field3d/fixtures/";

// World positions in the manifests are float64; ours pass through a float32 transform.
constexpr float WORLD_TOLERANCE = 1e-4f;

iArray<GridMapping> mapOf(std::initializer_list<std::pair<int, const char*>> items) {
    iArray<GridMapping> out;
    for (const auto& [channel, name] : items) {
        GridMapping m;
        m.channel = channel;
        m.name = name;
        out.append(m);
    }
    return out;
}

int import(const std::string& path, VaporixFrameData& frame, const iArray<GridMapping>& maps,
           bool headerOnly = false) {
    frame.resetHeader(headerOnly);
    return field3dio::importFrame(path.c_str(), frame, headerOnly, maps.data, maps.count, nullptr);
}

json manifest(const std::string& file) {
    std::ifstream in(FIXTURES + file + ".json");
    return json::parse(in);
}

/// Grid coordinate of a world point through the frame's transform.
void toGrid(const VaporixFrameData& frame, const json& world, float out[3]) {
    const float p[3] = {world[0].get<float>(), world[1].get<float>(), world[2].get<float>()};
    frame.gridTransform.apply(p, out);
}

/// Checks one layer of a fixture against its manifest: values at the samples, the CRC of all
/// values as float32, and the world position of the sampled voxel centres.
void checkLayer(const std::string& file, const json& layer) {
    SCOPED_TRACE(file + " layer " + layer["name"].get<std::string>());
    const bool vector = layer["components"].get<int>() == 3;
    const std::string name = layer["name"];
    iArray<GridMapping> maps =
        vector ? mapOf({{11, (name + "(x)").c_str()}, {12, (name + "(y)").c_str()},
                        {13, (name + "(z)").c_str()}})
               : mapOf({{11, name.c_str()}});
    VaporixFrameData frame;
    ASSERT_EQ(import(FIXTURES + file, frame, maps), 0);
    const auto& res = layer["resolution"];
    for (int a = 0; a < 3; ++a) ASSERT_EQ(frame.gridSize[a], res[a].get<int>());
    const int comps = vector ? 3 : 1;
    for (int c = 0; c < comps; ++c) ASSERT_NE(frame.channels[11 + c], nullptr);
    const auto& window = layer["data_window"];
    auto index = [&](const json& ijk) {
        const int x = ijk[0].get<int>() - window[0].get<int>();
        const int y = ijk[1].get<int>() - window[1].get<int>();
        const int z = ijk[2].get<int>() - window[2].get<int>();
        return x + frame.gridSize[0] * (y + frame.gridSize[1] * z);
    };
    auto expectWorld = [&](const json& sample) {
        float g[3];
        toGrid(frame, sample["world_center"], g);
        for (int a = 0; a < 3; ++a)
            EXPECT_NEAR(g[a], sample["ijk"][a].get<int>() - window[a].get<int>() + 0.5f,
                        WORLD_TOLERANCE);
    };

    if (layer.contains("mac")) {
        for (const auto& s : layer["cell_center_samples"]) {
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(frame.channels[11 + c][index(s["ijk"])],
                          s["cell_centered_value"][c].get<float>());
            expectWorld(s);
        }
        return;
    }
    for (const auto& s : layer["samples"]) {
        for (int c = 0; c < comps; ++c) {
            const float want = vector ? s["value"][c].get<float>() : s["value"].get<float>();
            EXPECT_EQ(frame.channels[11 + c][index(s["ijk"])], want);
        }
        expectWorld(s);
    }
    // Every value: the CRC of the float32 values, components interleaved.
    const int64_t cells = frame.getCellCount();
    std::vector<float> all(static_cast<size_t>(cells * comps));
    for (int64_t i = 0; i < cells; ++i)
        for (int c = 0; c < comps; ++c) all[i * comps + c] = frame.channels[11 + c][i];
    const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(all.data()),
                            static_cast<uInt>(all.size() * sizeof(float)));
    char hex[9];
    std::snprintf(hex, sizeof hex, "%08lx", crc);
    EXPECT_EQ(std::string(hex), layer["checksums_over_data_window"]["crc32_f32"].get<std::string>());
}

TEST(Field3DReader, EveryReadableFixtureLoadsAsItsManifestSays) {
    for (const char* file :
         {"dense_basic.f3d", "dense_vector.f3d", "mac_velocity.f3d", "half_double.f3d",
          "style_caps.f3d", "smoke_0001.f3d", "smoke_0002.f3d", "legacy_matrix_mapping.f3d",
          "uncompressed.f3d", "compat_v18.f3d"}) {
        const json m = manifest(file);
        int layers = 0;
        for (const auto& p : m["partitions"])
            for (const auto& l : p["layers"]) {
                checkLayer(file, l);
                ++layers;
            }
        EXPECT_GT(layers, 0) << file;
    }
}

TEST(Field3DReader, UnreadableFixturesFailWithTheReadStatus) {
    for (const char* file : {"ogawa_dense.f3d", "lzf_filter.f3d", "truncated.f3d"}) {
        VaporixFrameData frame;
        EXPECT_EQ(import(FIXTURES + file, frame, mapOf({{2, "density"}})), 5) << file;
        EXPECT_EQ(frame.channels[2], nullptr);
        EXPECT_EQ(frame.channelMask, 0u);
    }
}

TEST(Field3DReader, SeveralChannelsShareOneGridAndTransform) {
    VaporixFrameData frame;
    ASSERT_EQ(import(FIXTURES + "mac_velocity.f3d", frame,
                     mapOf({{2, "density"}, {1, "temperature"}, {10, "fuel"}, {4, "v_mac(x)"},
                            {5, "v_mac(Y)"}, {6, "v_mac.z"}, {7, "Cd(x)"}})),
              0);
    EXPECT_EQ(frame.channelMask, (1u << 1) | (1u << 2) | (1u << 4) | (1u << 5) | (1u << 6) |
                                     (1u << 7) | (1u << 10));
    // density = 0.5i + 2j + 32k + 1 at voxel (3, 2, 1).
    const int idx = 3 + 16 * (2 + 12 * 1);
    EXPECT_EQ(frame.channels[2][idx], 0.5f * 3 + 2 * 2 + 32 * 1 + 1);
    EXPECT_EQ(frame.channels[10][idx], 0.125f * (3 * 2 + 1));
    // The box of 0.2 world units per voxel centred on the origin: world 0 is the grid's middle.
    float g[3];
    const float origin[3] = {0, 0, 0};
    frame.gridTransform.apply(origin, g);
    EXPECT_NEAR(g[0], 8.0f, 1e-5f);
    EXPECT_NEAR(g[1], 6.0f, 1e-5f);
    EXPECT_NEAR(g[2], 5.0f, 1e-5f);
}

TEST(Field3DReader, NamesTheFileLacksAreSkippedAndNoneAtAllFails) {
    VaporixFrameData frame;
    EXPECT_EQ(import(FIXTURES + "dense_basic.f3d", frame, mapOf({{2, "density"}, {1, "nope"}})),
              0);
    EXPECT_EQ(frame.channelMask, 1u << 2);
    EXPECT_EQ(frame.channels[1], nullptr);
    EXPECT_EQ(import(FIXTURES + "dense_basic.f3d", frame, mapOf({{1, "nope"}})), 5);
    EXPECT_EQ(import(FIXTURES + "no_such_file.f3d", frame, mapOf({{2, "density"}})), 3);
}

TEST(Field3DReader, HeaderOnlySetsSizeMaskAndTransformWithoutArrays) {
    VaporixFrameData full, header;
    const auto maps = mapOf({{2, "density"}, {1, "temperature"}});
    ASSERT_EQ(import(FIXTURES + "dense_basic.f3d", full, maps), 0);
    ASSERT_EQ(import(FIXTURES + "dense_basic.f3d", header, maps, true), 0);
    for (int a = 0; a < 3; ++a) EXPECT_EQ(header.gridSize[a], full.gridSize[a]);
    EXPECT_EQ(header.channelMask, full.channelMask);
    EXPECT_EQ(header.gridTransform, full.gridTransform);
    for (auto* c : header.channels) EXPECT_EQ(c, nullptr);
}

TEST(Field3DReader, ChannelListNamesScalarsAndVectorComponents) {
    iArray<AvaiableChannels> list;
    field3dio::listChannels((FIXTURES + "dense_vector.f3d").c_str(), list);
    std::vector<std::pair<std::string, int>> got;
    for (const auto& c : list) got.emplace_back(c.name, c.kind);
    const std::vector<std::pair<std::string, int>> want = {
        {"Cd(x)", 1}, {"Cd(y)", 1}, {"Cd(z)", 1}, {"density", 0},
        {"velocity(x)", 1}, {"velocity(y)", 1}, {"velocity(z)", 1}};
    EXPECT_EQ(got, want);
    iArray<AvaiableChannels> none;
    field3dio::listChannels((FIXTURES + "ogawa_dense.f3d").c_str(), none);
    field3dio::listChannels("/no/such/file.f3d", none);
    EXPECT_EQ(none.count, 0);
}

// A sparse layer: blocks with data, blocks holding only a non-zero empty value, a data window
// that is offset and not a multiple of the block size.
TEST(Field3DReader, SparseLayersFillEmptyBlocksWithTheirValue) {
    test::TempDir dir;
    test::F3DLayer l;
    l.name = "density";
    l.className = "SparseField";
    const int ext[6] = {-2, 1, 0, 6, 5, 4};  // 9 x 5 x 5
    std::copy(ext, ext + 6, l.extents);
    std::copy(ext, ext + 6, l.window);
    l.blockOrder = 1;
    l.emptyValue = 0.5f;
    l.values.assign(9 * 5 * 5, 0.5f);
    auto at = [](int x, int y, int z) { return x + 9 * (y + 5 * z); };
    l.values[at(0, 0, 0)] = 7.0f;
    l.values[at(8, 4, 4)] = -3.0f;  // in an edge block
    l.values[at(4, 2, 3)] = 1.25f;
    const double scale2[16] = {9, 0, 0, 0, 0, 5, 0, 0, 0, 0, 5, 0, 10, 20, 30, 1};
    ASSERT_TRUE(test::writeField3D(dir.file("sparse.f3d"), "fluid", scale2, {l}));

    VaporixFrameData frame;
    ASSERT_EQ(import(dir.file("sparse.f3d"), frame, mapOf({{2, "density"}})), 0);
    ASSERT_EQ(frame.gridSize[0], 9);
    ASSERT_EQ(frame.gridSize[1], 5);
    ASSERT_EQ(frame.gridSize[2], 5);
    for (int i = 0; i < 9 * 5 * 5; ++i) ASSERT_EQ(frame.channels[2][i], l.values[i]) << i;
    // Local space spans the extents: voxel (-2, 1, 0)'s corner is world (10, 20, 30).
    const float corner[3] = {10, 20, 30};
    float g[3];
    frame.gridTransform.apply(corner, g);
    for (float v : g) EXPECT_NEAR(v, 0.0f, 1e-5f);
}

TEST(Field3DReader, DamagedLayersFailInsteadOfAllocating) {
    test::TempDir dir;
    const double unit[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    VaporixFrameData frame;

    test::F3DLayer badBlocks;
    badBlocks.name = "density";
    badBlocks.className = "SparseField";
    badBlocks.values.assign(64, 1.0f);
    badBlocks.blockResOverride = {9, 9, 9};
    ASSERT_TRUE(test::writeField3D(dir.file("blocks.f3d"), "f", unit, {badBlocks}));
    EXPECT_EQ(import(dir.file("blocks.f3d"), frame, mapOf({{2, "density"}})), 5);

    // A data set that claims a thousand million cells and stores none of them.
    test::F3DLayer claim;
    claim.name = "density";
    const int big[6] = {0, 0, 0, 999, 999, 999};
    std::copy(big, big + 6, claim.extents);
    std::copy(big, big + 6, claim.window);
    claim.denseCountOverride = 1000LL * 1000 * 1000;
    ASSERT_TRUE(test::writeField3D(dir.file("claim.f3d"), "f", unit, {claim}));
    EXPECT_EQ(import(dir.file("claim.f3d"), frame, mapOf({{2, "density"}})), 5);

    // A count that disagrees with the data window.
    test::F3DLayer shortSet;
    shortSet.name = "density";
    shortSet.denseCountOverride = 10;
    ASSERT_TRUE(test::writeField3D(dir.file("short.f3d"), "f", unit, {shortSet}));
    EXPECT_EQ(import(dir.file("short.f3d"), frame, mapOf({{2, "density"}})), 5);

    // Not a Field3D file at all.
    test::writeBytes(dir.file("text.f3d"), {'h', 'e', 'l', 'l', 'o'});
    EXPECT_EQ(import(dir.file("text.f3d"), frame, mapOf({{2, "density"}})), 5);
}

TEST(Field3DReader, MemoryThatRunsOutGivesStatus6) {
    VaporixFrameData frame;
    const auto maps = mapOf({{2, "density"}});
    setArrayAllocationLimit(64);
    const int status = import(FIXTURES + "dense_basic.f3d", frame, maps);
    setArrayAllocationLimit(0);
    EXPECT_EQ(status, 6);
    EXPECT_EQ(frame.channels[2], nullptr);
}

TEST(Field3DReader, GridsAboveTheCellLimitAreRefused) {
    VaporixFrameData frame;
    field3dio::setMaxCellsForTesting(1000);
    const int status = import(FIXTURES + "dense_basic.f3d", frame, mapOf({{2, "density"}}));
    field3dio::setMaxCellsForTesting(0);
    EXPECT_EQ(status, 5);
}

}  // namespace
}  // namespace vaporix
