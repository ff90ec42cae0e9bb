// Tests of the shading tables: rows of each fire-opacity mode, diffuse and opacity tables,
// non-finite curve outputs, default curves and what a shader is given.
#include "render/ShadingTables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "playback/MemoryParamStorage.h"
#include "playback/ParamCurves.h"
#include "render/Blackbody.h"

using namespace vaporix;
using namespace vaporix::VpxRenderSets;

namespace {

struct Fixture {
    MemoryParamStorage storage;
    VaporixParamsMax p{storage};
    ShadingTables tables;
    ShadingInputs in;

    /// A curve of the given keys in one family and channel.
    void curve(const char* family, int channel, std::initializer_list<std::array<float, 3>> keys) {
        MultiCurve c;
        for (const auto& k : keys) c.insertPoint(c.count(), static_cast<int>(k[0]), k[1], k[2]);
        ASSERT_TRUE(writeCurve(p, family, channel, 0.0, c));
    }
    void gradient(const char* family,
                  int channel,
                  std::initializer_list<std::array<float, 4>> keys) {
        ColorGradient g;
        for (const auto& k : keys) {
            const float rgb[3] = {k[1], k[2], k[3]};
            g.insertKey(g.count(), k[0], rgb);
        }
        ASSERT_TRUE(writeGradient(p, family, channel, 0.0, g));
    }
    /// Raw store, past the range limits (as a hand-edited scene could hold).
    void raw(const char* name, float v) {
        storage.set(*findParamDef(name), 0, 0, ParamValue::ofFloat(v));
    }
};

struct FakeFrame : IChannelRangeSource {
    std::map<int, std::pair<float, float>> ranges;
    bool getChannelRange(int channel, float& lo, float& hi) override {
        const auto it = ranges.find(channel);
        if (it == ranges.end()) return false;
        lo = it->second.first;
        hi = it->second.second;
        return true;
    }
};

}  // namespace

TEST(ShadingTables, RowMapping) {
    EXPECT_EQ(ShadingTables::rowOf(0.0f), 0);
    EXPECT_EQ(ShadingTables::rowOf(0.5f), 4000);
    EXPECT_EQ(ShadingTables::rowOf(0.99999f), 7999);
    EXPECT_EQ(ShadingTables::rowOf(2.0f), 7999);
    EXPECT_EQ(ShadingTables::rowOf(-1.0f), 0);
    EXPECT_EQ(ShadingTables::rowOf(NAN), 0);
    // Rounded to the nearest row, not cut down.
    EXPECT_EQ(ShadingTables::rowOf(2000.6f / 8000.0f), 2001);
    EXPECT_EQ(ShadingTables::rowOf(2000.4f / 8000.0f), 2000);
    EXPECT_EQ(ShadingTables::rowOf(0.7f / 8000.0f), 1);
    EXPECT_EQ(ShadingTables::rowOf(0.3f / 8000.0f), 0);
    EXPECT_FLOAT_EQ(ShadingTables::rowValue(TableRange{100.0f, 8000.0f}, 4000), 4100.0f);
    EXPECT_FLOAT_EQ(ShadingTables::rowValue(TableRange{}, 2000), 0.25f);
}

TEST(ShadingTables, RangesScalesAndExposure) {
    FakeFrame frame;
    frame.ranges[1] = {300.0f, 2300.0f};
    frame.ranges[2] = {0.0f, 4.0f};
    EXPECT_FLOAT_EQ(argumentRange(&frame, 1).min, 300.0f);
    EXPECT_FLOAT_EQ(argumentRange(&frame, 1).span, 2000.0f);
    EXPECT_FLOAT_EQ(argumentRange(&frame, 3).span, 1.0f);  // absent
    EXPECT_FLOAT_EQ(argumentRange(&frame, 4).span, 1.0f);  // texture
    EXPECT_FLOAT_EQ(argumentRange(nullptr, 1).span, 1.0f);

    Fixture f;
    f.p.setInt("darg", 0, 2);
    f.tables.setRanges(f.p, 0, &frame);
    EXPECT_FLOAT_EQ(f.tables.emissionRange.min, 300.0f);
    EXPECT_FLOAT_EQ(f.tables.diffuseRange.span, 4.0f);
    EXPECT_FLOAT_EQ(f.tables.opacityRange.span, 1.0f);  // targ 0
    EXPECT_FLOAT_EQ(f.tables.surfaceRange.span, 4.0f);  // sarg 2

    const float identity[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 5, 6, 7};
    const float doubled[12] = {0, 2, 0, -2, 0, 0, 0, 0, 2, 0, 0, 0};
    EXPECT_FLOAT_EQ(SceneScale(identity), 1.0f);
    EXPECT_FLOAT_EQ(SceneScale(doubled), 0.5f);
    EXPECT_FLOAT_EQ(SceneScale(nullptr), 1.0f);
    EXPECT_FLOAT_EQ(PhysicalScale(nullptr, 0.0), 1500.0f);
    struct Exposure : IExposureControl {
        float physicalScale(TimeValue t) const override { return 100.0f + t; }
    } exposure;
    EXPECT_FLOAT_EQ(PhysicalScale(&exposure, 9.6), 110.0f);
}

TEST(ShadingTables, EmissionRowsArePhysicallyScaled) {
    Fixture f;
    f.curve("epower", 1, {{MCP_LINEAR, 0.0f, 1.0f}, {MCP_LINEAR, 10000.0f, 1.0f}});
    f.gradient("ecolor", 1, {{0.0f, 1.0f, 0.5f, 0.25f}});
    f.p.setFloat("emult", 0, 2.0f);
    f.tables.emissionRange = TableRange{0.0f, 10000.0f};
    ASSERT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 1);
    ASSERT_EQ(f.tables.emissionColorTable.count, SHADING_TABLE_ROWS);
    for (int row : {0, 121, 2400, 4000, 7999}) {
        const float t = row * 10000.0f / 8000.0f;
        const float expected = blackbodyLuminance(t) * 683.0f / 1500.0f * 2.0f;
        EXPECT_NEAR(f.tables.emissionColorTable[row].r, expected, 1e-6f * expected) << row;
        EXPECT_NEAR(f.tables.emissionColorTable[row].b, 0.25f * expected, 1e-6f * expected);
    }
    EXPECT_EQ(f.tables.emissionColorTable[0].r, 0.0f);    // 0 K is black
    EXPECT_GT(f.tables.emissionColorTable[800].r, 0.0f);  // 1000 K glows
    // 10000 K is past the table: black, though 9998.75 K is the brightest row.
    f.tables.emissionRange = TableRange{1250.0f, 10000.0f};
    f.tables.BuildEmissionTable(f.p, 0.0, f.in);
    EXPECT_GT(f.tables.emissionColorTable[6999].r, 1.0f);
    EXPECT_EQ(f.tables.emissionColorTable[7000].r, 0.0f);

    // blackbody 0: the curve is the brightness itself; out-of-range values clamp.
    f.raw("blackbody", -1.0f);
    f.tables.BuildEmissionTable(f.p, 0.0, f.in);
    EXPECT_FLOAT_EQ(f.tables.emissionColorTable[3000].g, 1.0f);
    f.raw("blackbody", 2.0f);
    f.tables.BuildEmissionTable(f.p, 0.0, f.in);
    const float y = blackbodyLuminance(5000.0f);  // row 3000 of 1250..11250 K
    const float full = y * 683.0f / 1500.0f * 2.0f;
    EXPECT_NEAR(f.tables.emissionColorTable[3000].r, full, 1e-6f * full);
    // Half way: a blend of both.
    f.raw("blackbody", 0.5f);
    f.in.physicalScale = 1000.0f;
    f.tables.BuildEmissionTable(f.p, 0.0, f.in);
    const float half = (y * 0.683f * 0.5f + 0.5f) * 2.0f;
    EXPECT_NEAR(f.tables.emissionColorTable[3000].r, half, 1e-6f * half);
}

TEST(ShadingTables, EmissionChannelScalesTemperature) {
    Fixture f;
    f.p.setInt("earg", 0, 2);  // smoke: 3000 K per unit
    f.curve("epower", 2, {{MCP_LINEAR, 0.0f, 1.0f}, {MCP_LINEAR, 1.0f, 1.0f}});
    f.gradient("ecolor", 2, {{0.0f, 1.0f, 1.0f, 1.0f}});
    ASSERT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 1);
    const float expected = blackbodyLuminance(0.5f * 3000.0f) * 683.0f / 1500.0f;
    EXPECT_NEAR(f.tables.emissionColorTable[4000].g, expected, 1e-6f * expected);
}

TEST(ShadingTables, NonFiniteAndNegativePowerBecomesZero) {
    Fixture f;
    f.p.setFloat("blackbody", 0, 0.0f);
    // Falling through zero, then a Bezier end key whose handle sits on it: no slope, NaN.
    f.curve("epower", 1,
            {{MCP_LINEAR, 0.0f, 1.0f},
             {MCP_LINEAR, 0.5f, -1.0f},
             {MCP_LEFT_HANDLE, 0.55f, -1.0f},
             {MCP_FREE_BEZIER, 0.6f, 1.0f},
             {MCP_RIGHT_HANDLE, 0.6f, 1.0f}});
    f.gradient("ecolor", 1, {{0.0f, 1.0f, 1.0f, 1.0f}});
    ASSERT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 1);
    EXPECT_GT(f.tables.emissionColorTable[400].r, 0.0f);
    EXPECT_EQ(f.tables.emissionColorTable[3200].r, 0.0f);  // negative
    EXPECT_EQ(f.tables.emissionColorTable[7000].r, 0.0f);  // not finite
    for (const TableColor& c : f.tables.emissionColorTable) EXPECT_TRUE(std::isfinite(c.r));

    // The log tables take the transparent end for a non-finite opacity.
    f.p.setInt("fire_opacity_mode", 0, 2);
    ASSERT_EQ(f.tables.BuildEmissionOwnOpacityTable(f.p, 0.0, f.in), 1);
    EXPECT_EQ(f.tables.emissionPowerTable[7000], 0.0f);
    // Without a host exposure scale the physically based factor is not finite: rows are 0.
    f.p.setFloat("blackbody", 0, 1.0f);
    f.in.physicalScale = 0.0f;
    ASSERT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 1);
    ASSERT_EQ(f.tables.BuildEmissionOwnOpacityTable(f.p, 0.0, f.in), 1);
    for (int i = 0; i < SHADING_TABLE_ROWS; i += 97)
        EXPECT_TRUE(std::isfinite(f.tables.emissionColorTable[i].g)) << i;
}

TEST(ShadingTables, OwnOpacityMode) {
    Fixture f;
    f.p.setInt("fire_opacity_mode", 0, 2);
    f.p.setFloat("blackbody", 0, 0.0f);
    f.p.setFloat("emult", 0, 2.0f);
    f.curve("epower", 1, {{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 1.0f, 2.0f}});
    f.gradient("ecolor", 1, {{0.0f, 0.5f, 0.5f, 0.5f}});
    f.tables.emissionRange = TableRange{0.0f, 1.0f};
    f.in.sceneScale = 0.5f;
    f.tables.buildFrameTables(f.p, 0.0, f.in);
    ASSERT_EQ(f.tables.emissionPowerTable.count, SHADING_TABLE_ROWS);
    EXPECT_EQ(f.tables.emissionPowerTable[0], 0.0f);
    EXPECT_NEAR(f.tables.emissionPowerTable[2000], std::log(0.5f) * 0.5f, 1e-6f);
    EXPECT_NEAR(f.tables.emissionPowerTable[6000], std::log(1e-6f) * 0.5f, 1e-4f);
    EXPECT_FLOAT_EQ(f.tables.emissionColorTable[100].r, 0.5f * 2.0f * 3.5f);

    // etmult 0: every row is ln(1) = 0, so the fire is invisible.
    f.p.setFloat("etmult", 0, 0.0f);
    f.tables.buildFrameTables(f.p, 0.0, f.in);
    for (float k : f.tables.emissionPowerTable) EXPECT_EQ(k, 0.0f);
}

TEST(ShadingTables, FullyVisibleAndSmokeOpacityModesBuildOnlyColour) {
    for (int mode : {0, 1}) {
        Fixture f;
        ResetEmission(f.p, -1);
        f.p.setInt("fire_opacity_mode", 0, mode);
        f.tables.emissionRange = TableRange{0.0f, 4000.0f};
        f.tables.buildFrameTables(f.p, 0.0, f.in);
        EXPECT_EQ(f.tables.emissionColorTable.count, SHADING_TABLE_ROWS) << mode;
        EXPECT_EQ(f.tables.emissionPowerTable.count, 0) << mode;
        // Default curve: no power below 800 K, rising above.
        EXPECT_EQ(f.tables.emissionColorTable[1000].r, 0.0f) << mode;
        EXPECT_GT(f.tables.emissionColorTable[5000].r, f.tables.emissionColorTable[3000].r);
    }
}

TEST(ShadingTables, TablesStayWhenTheyCannotBeBuilt) {
    Fixture f;
    // Empty tables make an empty curve and gradient: a black table.
    ASSERT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 1);
    EXPECT_EQ(f.tables.emissionColorTable[4000].r, 0.0f);
    f.curve("epower", 1, {{MCP_LINEAR, 0.0f, 1.0f}});
    f.gradient("ecolor", 1, {{0.0f, 1.0f, 1.0f, 1.0f}});
    f.p.setFloat("blackbody", 0, 0.0f);
    ASSERT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 1);
    f.p.setCount("epower_t.epower_t_v", 2);  // unequal lengths
    EXPECT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 0);
    EXPECT_FLOAT_EQ(f.tables.emissionColorTable[10].r, 1.0f);
    f.p.setInt("earg", 0, 5);  // RGB: no curve
    EXPECT_EQ(f.tables.BuildEmissionTable(f.p, 0.0, f.in), 0);
    f.p.setInt("darg", 0, 6);
    EXPECT_EQ(f.tables.BuildDiffuseTable(f.p, 0.0), 0);
    EXPECT_EQ(f.tables.diffuseColorTable.count, 0);
}

TEST(ShadingTables, DiffuseTable) {
    Fixture f;
    ResetDiffuse(f.p, 1);
    f.p.setInt("darg", 0, 1);
    f.tables.diffuseRange = TableRange{0.0f, 4000.0f};
    ASSERT_EQ(f.tables.BuildDiffuseTable(f.p, 0.0), 1);
    const TableColor first = f.tables.diffuseColorTable[0];
    EXPECT_FLOAT_EQ(first.b, 1.0f);
    EXPECT_FLOAT_EQ(first.r, 0.0f);
    const TableColor third = f.tables.diffuseColorTable[ShadingTables::rowOf(2.0f / 3.0f)];
    EXPECT_NEAR(third.r, 1.0f, 1e-3f);  // yellow
    EXPECT_NEAR(third.g, 1.0f, 1e-3f);
    for (const TableColor& c : f.tables.diffuseColorTable) {
        EXPECT_GE(c.r, 0.0f);
        EXPECT_LE(c.g, 1.0f);
    }
}

TEST(ShadingTables, OpacityTable) {
    Fixture f;
    EXPECT_EQ(f.tables.BuildOpacityTable(f.p, 0.0, f.in), 0);  // targ 0: simple smoke
    EXPECT_EQ(f.tables.opacityTable.count, 0);

    f.p.setInt("targ", 0, 2);
    f.curve("tpower", 2, {{MCP_LINEAR, 0.0f, 0.0f}, {MCP_LINEAR, 0.5f, 0.5f}});
    f.in.sceneScale = 2.0f;
    ASSERT_EQ(f.tables.BuildOpacityTable(f.p, 0.0, f.in), 1);
    // transpmode 1: the curve is opacity, the row ln(1 - o) per unit, scaled.
    EXPECT_EQ(f.tables.opacityTable[0], 0.0f);
    EXPECT_NEAR(f.tables.opacityTable[2000], std::log(0.75f) * 2.0f, 1e-5f);
    // End mode 2: past the last key the value holds at 0.5.
    EXPECT_NEAR(f.tables.opacityTable[7000], std::log(0.5f) * 2.0f, 1e-5f);

    // transpmode 0: the curve is transparency, limited to 1e-6..1.
    f.p.setInt("transpmode", 0, 0);
    ASSERT_EQ(f.tables.BuildOpacityTable(f.p, 0.0, f.in), 1);
    EXPECT_NEAR(f.tables.opacityTable[0], std::log(1e-6f) * 2.0f, 1e-4f);
    EXPECT_NEAR(f.tables.opacityTable[2000], std::log(0.25f) * 2.0f, 1e-5f);
}

TEST(ShadingTables, ResetsFillDefaultCurves) {
    Fixture f;
    ResetEmission(f.p, 2);
    ASSERT_EQ(f.p.getCount("epower_s.epower_s_p"), 5);
    EXPECT_EQ(f.p.getCount("epower_t.epower_t_p"), 0);
    EXPECT_FLOAT_EQ(f.p.getFloat("epower_s.epower_s_p", 0, 1), 1350.0f / 3000.0f);
    EXPECT_FLOAT_EQ(f.p.getFloat("epower_s.epower_s_v", 0, 4), 1.0f);
    EXPECT_FLOAT_EQ(f.p.getFloat("epower_s.epower_s_v", 0, 2), 0.5f);
    EXPECT_EQ(f.p.getInt("epower_s.epower_s_i", 0, 3), 3);
    EXPECT_FLOAT_EQ(f.p.getFloat("ecolor_s.ecolor_sp", 0, 4), 1.0f);
    const Vector c = f.p.getVector("ecolor_s.ecolor_sc", 0, 0);  // 800 K: red
    EXPECT_FLOAT_EQ(c.x, 1.0f);
    EXPECT_LT(c.y, 0.5f);

    ResetEmission(f.p, 3);
    EXPECT_FLOAT_EQ(f.p.getFloat("epower_v.epower_v_p", 0, 0), 80.0f);

    ResetDiffuse(f.p, 3);
    EXPECT_FLOAT_EQ(f.p.getFloat("dcolor_v.dcolor_vp", 0, 3), 400.0f);
    EXPECT_EQ(f.p.getVector("dcolor_v.dcolor_vc", 0, 3), (Vector{1, 0, 0}));

    ResetOpacity(f.p, 1);
    ASSERT_EQ(f.p.getCount("tpower_t.tpower_t_p"), 2);
    EXPECT_FLOAT_EQ(f.p.getFloat("tpower_t.tpower_t_p", 0, 1), 4000.0f);
    EXPECT_FLOAT_EQ(f.p.getFloat("tpower_t.tpower_t_v", 0, 1), 1.0f);
    EXPECT_EQ(f.p.getInt("tpower_t.tpower_t_i", 0, 0), 3);

    // -1: all channels, and the rollout's plain parameters.
    f.p.setFloat("emult", 0, 9.0f);
    f.p.setFloat("smoketransp", 0, 0.9f);
    f.p.setInt("targ", 0, 2);
    f.p.setInt("rendstep", 0, 5);
    ResetEmission(f.p, -1);
    ResetOpacity(f.p, -1);
    ResetDiffuse(f.p, -1);
    EXPECT_FLOAT_EQ(f.p.getFloat("emult"), 1.0f);
    EXPECT_FLOAT_EQ(f.p.getFloat("smoketransp"), 0.5f);
    EXPECT_EQ(f.p.getInt("targ"), 0);
    EXPECT_EQ(f.p.getInt("rendstep"), 5);  // another rollout
    for (int ch : CURVE_CHANNELS) {
        EXPECT_EQ(f.p.getCount(curveTableName("epower", ch, 'v').c_str()), 5);
        EXPECT_EQ(f.p.getCount(curveTableName("tpower", ch, 'v').c_str()), 2);
        EXPECT_EQ(f.p.getCount(gradientTableName("dcolor", ch, 'c').c_str()), 4);
    }
    ResetEmission(f.p, 7);  // no such channel: nothing
}

TEST(ShadingTables, WhatAShaderGets) {
    Fixture f;
    ResetEmission(f.p, -1);
    ResetDiffuse(f.p, -1);
    ResetOpacity(f.p, -1);
    f.p.setInt("darg", 0, 1);
    f.p.setInt("targ", 0, 2);
    f.tables.buildFrameTables(f.p, 0.0, f.in);
    ShaderTableSelection s = selectShaderTables(f.p, 0.0, f.tables, ShaderTextures{});
    EXPECT_EQ(s.emissionColorTable, f.tables.emissionColorTable.data);
    EXPECT_EQ(s.diffuseColorTable, f.tables.diffuseColorTable.data);
    EXPECT_EQ(s.opacityTable, f.tables.opacityTable.data);
    EXPECT_TRUE(s.hasEmission);
    EXPECT_TRUE(s.hasDiffuse);
    EXPECT_EQ(s.shadeChannelMask, 3);
    EXPECT_FALSE(s.fetchRGB);
    double mean = 0.0;
    for (const TableColor& c : f.tables.diffuseColorTable) mean += c.g;
    EXPECT_NEAR(s.simpleColor.g, mean / SHADING_TABLE_ROWS, 1e-6);

    // RGB emission, constant diffuse, simple smoke.
    f.p.setInt("earg", 0, 5);
    f.p.setInt("darg", 0, 5);
    f.p.setInt("targ", 0, 0);
    f.p.setVector("simple_color", 0, Vector{0.1f, 0.2f, 0.3f});
    s = selectShaderTables(f.p, 0.0, f.tables, ShaderTextures{});
    EXPECT_EQ(s.emissionColorTable, nullptr);
    EXPECT_EQ(s.diffuseColorTable, nullptr);
    EXPECT_EQ(s.opacityTable, nullptr);
    EXPECT_EQ(s.opacityChannel, 2);
    EXPECT_FLOAT_EQ(s.opacityRange.span, 1.0f);
    EXPECT_FLOAT_EQ(s.simpleColor.b, 0.3f);
    EXPECT_TRUE(s.fetchRGB);
    EXPECT_EQ(s.shadeChannelMask, 0x71);

    // Textures: a missing opacity texture falls back to simple smoke.
    f.p.setInt("earg", 0, 4);
    f.p.setInt("darg", 0, 4);
    f.p.setInt("targ", 0, 4);
    ShaderTextures tex;
    tex.diffuse = true;
    s = selectShaderTables(f.p, 0.0, f.tables, tex);
    EXPECT_FALSE(s.hasEmission);
    EXPECT_TRUE(s.diffuseFromTexture);
    EXPECT_EQ(s.diffuseColorTable, nullptr);
    EXPECT_EQ(s.opacityArgument, 0);
    EXPECT_EQ(s.opacityTable, nullptr);
    EXPECT_EQ(s.shadeChannelMask, 0x70);

    // Solid below: the surface is mirrored around the level.
    f.p.setInt("solidbelow", 0, 1);
    f.p.setFloat("surflevel", 0, 0.25f);
    s = selectShaderTables(f.p, 0.0, f.tables, tex);
    EXPECT_FLOAT_EQ(s.surfaceRemapOffset, 0.5f);
    EXPECT_FLOAT_EQ(s.surfaceRemapScale, -1.0f);
}

TEST(ShadingTables, EveryRowOfEachFireOpacityModeFollowsItsFormula) {
    // A curve of every key kind and an uneven gradient; every row is checked to the bit
    // against the formula computed one row at a time.
    Fixture f;
    MultiCurve c;
    c.insertPoint(0, MCP_LINEAR, 300.0f, 0.0f);
    c.insertPoint(1, MCP_SPLINE, 900.0f, 0.3f);
    c.insertPoint(2, MCP_SPLINE, 1600.0f, 0.9f);
    c.insertPoint(3, MCP_SPLINE, 2400.0f, 0.7f);
    c.insertPoint(4, MCP_LINEAR, 3200.0f, 1.2f);
    c.rebuild();
    ASSERT_EQ(c.setKind(3, MCP_SMOOTH_BEZIER, 3000.0f), 1);
    ASSERT_TRUE(writeCurve(f.p, "epower", 1, 0.0, c));
    f.gradient(
        "ecolor", 1,
        {{500.0f, 1.0f, 0.2f, 0.0f}, {1500.0f, 1.0f, 0.6f, 0.1f}, {3000.0f, 1.0f, 1.0f, 0.8f}});
    f.p.setFloat("emult", 0, 1.7f);
    f.p.setFloat("etmult", 0, 0.8f);
    f.p.setFloat("blackbody", 0, 0.6f);
    f.in.physicalScale = 1200.0f;
    f.in.sceneScale = 0.75f;
    f.tables.emissionRange = TableRange{100.0f, 3600.0f};

    MultiCurve curve;
    ColorGradient gradient;
    ASSERT_TRUE(readCurve(f.p, "epower", 1, 0.0, curve));
    ASSERT_TRUE(readGradient(f.p, "ecolor", 1, 0.0, gradient));
    const float p = 1.0f / f.in.physicalScale;
    const float bb = 0.6f;
    const auto fireAt = [&](float v) {
        return blackbodyLuminance(v) * 683.0f * p * bb + (1.0f - bb);
    };

    for (int mode : {0, 1, 2}) {
        SCOPED_TRACE(mode);
        f.p.setInt("fire_opacity_mode", 0, mode);
        f.tables.buildFrameTables(f.p, 0.0, f.in);
        ASSERT_EQ(f.tables.emissionColorTable.count, SHADING_TABLE_ROWS);
        int wrong = 0;
        int lit = 0;
        for (int i = 0; i < SHADING_TABLE_ROWS; ++i) {
            const float v = ShadingTables::rowValue(f.tables.emissionRange, i);
            float rgb[3];
            gradient.evaluate(v, rgb);
            TableColor want;
            if (mode != 2) {
                float power = curve.evaluate(v, 1) * fireAt(v);
                if (!std::isfinite(power) || power < 0.0f) power = 0.0f;
                want =
                    TableColor{rgb[0] * power * 1.7f, rgb[1] * power * 1.7f, rgb[2] * power * 1.7f};
            } else {
                float o = curve.evaluate(v, 1) * 0.8f;
                if (!std::isfinite(o)) o = 0.0f;
                o = std::fmin(std::fmax(1.0f - o, 1e-6f), 1.0f);
                if (f.tables.emissionPowerTable[i] != std::log(o) * 0.75f) ++wrong;
                const float k = fireAt(v);
                want = TableColor{rgb[0] * k * 1.7f * 3.5f, rgb[1] * k * 1.7f * 3.5f,
                                  rgb[2] * k * 1.7f * 3.5f};
            }
            const TableColor& got = f.tables.emissionColorTable[i];
            if (got.r != want.r || got.g != want.g || got.b != want.b) ++wrong;
            if (got.r > 0.0f) ++lit;
        }
        EXPECT_EQ(wrong, 0);
        EXPECT_GT(lit, SHADING_TABLE_ROWS / 2);
    }
}

TEST(ShadingTables, OpacityRowsFollowTheFormulaInBothTransparencyModes) {
    Fixture f;
    f.p.setInt("targ", 0, 3);
    // Falls below 0 and rises past 1 between its keys: both clamps are reached.
    f.curve("tpower", 3,
            {{MCP_SPLINE, 10.0f, 0.2f},
             {MCP_SPLINE, 40.0f, -0.3f},
             {MCP_LINEAR, 80.0f, 1.4f},
             {MCP_SPLINE, 120.0f, 0.5f}});
    MultiCurve curve;
    ASSERT_TRUE(readCurve(f.p, "tpower", 3, 0.0, curve));
    f.in.sceneScale = 1.5f;
    f.tables.opacityRange = TableRange{0.0f, 150.0f};
    for (int transpmode : {0, 1}) {
        SCOPED_TRACE(transpmode);
        f.p.setInt("transpmode", 0, transpmode);
        ASSERT_EQ(f.tables.BuildOpacityTable(f.p, 0.0, f.in), 1);
        int wrong = 0;
        for (int i = 0; i < SHADING_TABLE_ROWS; ++i) {
            float o = curve.evaluate(ShadingTables::rowValue(f.tables.opacityRange, i), 2);
            if (!std::isfinite(o)) o = 0.0f;
            if (transpmode != 0) o = 1.0f - o;
            o = std::fmin(std::fmax(o, 1e-6f), 1.0f);
            if (f.tables.opacityTable[i] != std::log(o) * 1.5f) ++wrong;
            if (!(f.tables.opacityTable[i] <= 0.0f)) ++wrong;
        }
        EXPECT_EQ(wrong, 0);
        // Past the last key the value holds (end mode 2).
        EXPECT_EQ(f.tables.opacityTable[7999], f.tables.opacityTable[6500]);
    }
}
