// Tests of curves and gradients kept in parameter tables: names, round trips, refusals.
#include "playback/ParamCurves.h"

#include <gtest/gtest.h>

#include "playback/MemoryParamStorage.h"

using namespace vaporix;
using namespace vaporix::VpxRenderSets;

TEST(ParamCurves, TableNames) {
    EXPECT_EQ(curveTableName("epower", 1, 'p'), "epower_t.epower_t_p");
    EXPECT_EQ(curveTableName("tpower", 10, 'i'), "tpower_f.tpower_f_i");
    EXPECT_EQ(gradientTableName("ecolor", 2, 'c'), "ecolor_s.ecolor_sc");
    EXPECT_EQ(gradientTableName("dcolor", 3, 'p'), "dcolor_v.dcolor_vp");
    EXPECT_EQ(oldCurveName("transp", 3), "transp_v");
    EXPECT_EQ(oldGradientName("dcolor", 10, 'y'), "dcolory_f");
    EXPECT_EQ(curveTableName("epower", 4, 'p'), "");
    EXPECT_EQ(channelSuffix(5), nullptr);
    // Every name built here is declared.
    for (int ch : CURVE_CHANNELS) {
        for (char part : {'p', 'v', 'i'}) {
            EXPECT_NE(findParamDef(curveTableName("epower", ch, part)), nullptr);
            EXPECT_NE(findParamDef(curveTableName("tpower", ch, part)), nullptr);
        }
        for (char part : {'p', 'c', 'i'}) {
            EXPECT_NE(findParamDef(gradientTableName("ecolor", ch, part)), nullptr);
            EXPECT_NE(findParamDef(gradientTableName("dcolor", ch, part)), nullptr);
        }
        EXPECT_NE(findParamDef(oldCurveName("epower", ch)), nullptr);
        EXPECT_NE(findParamDef(oldGradientName("ecolor", ch, 'x')), nullptr);
    }
}

TEST(ParamCurves, CurveRoundTrip) {
    MemoryParamStorage storage;
    VaporixParamsMax params(storage);
    MultiCurve c;
    c.insertPoint(0, MCP_LINEAR, 0.0f, 0.0f);
    c.insertPoint(1, MCP_SPLINE, 1.0f, 2.0f);
    c.insertPoint(2, MCP_LINEAR, 3.0f, 1.0f);
    c.rebuild();
    ASSERT_EQ(c.setKind(1, MCP_FREE_BEZIER, 3.0f), 1);
    ASSERT_TRUE(writeCurve(params, "tpower", 2, 0.0, c));
    EXPECT_EQ(params.getCount("tpower_s.tpower_s_i"), 5);

    MultiCurve back;
    ASSERT_TRUE(readCurve(params, "tpower", 2, 0.0, back));
    ASSERT_EQ(back.count(), c.count());
    for (int i = 0; i < c.count(); ++i) {
        EXPECT_EQ(back.kinds[i], c.kinds[i]);
        EXPECT_EQ(back.positions[i], c.positions[i]);
    }
    for (float x : {-1.0f, 0.5f, 1.0f, 2.2f, 5.0f})
        EXPECT_EQ(back.evaluate(x, 1), c.evaluate(x, 1));
}

TEST(ParamCurves, UnequalTablesOrUnknownChannelsAreRefused) {
    MemoryParamStorage storage;
    VaporixParamsMax params(storage);
    MultiCurve c;
    c.insertPoint(0, MCP_SPLINE, 7.0f, 7.0f);
    params.setCount("epower_v.epower_v_p", 2);
    params.setCount("epower_v.epower_v_v", 2);
    params.setCount("epower_v.epower_v_i", 1);
    EXPECT_FALSE(readCurve(params, "epower", 3, 0.0, c));
    EXPECT_EQ(c.count(), 1);  // untouched
    EXPECT_FALSE(readCurve(params, "epower", 4, 0.0, c));
    ColorGradient g;
    params.setCount("ecolor_t.ecolor_tp", 2);
    EXPECT_FALSE(readGradient(params, "ecolor", 1, 0.0, g));
    EXPECT_FALSE(readGradient(params, "ecolor", 5, 0.0, g));
    // Empty tables make an empty curve.
    EXPECT_TRUE(readCurve(params, "tpower", 1, 0.0, c));
    EXPECT_EQ(c.count(), 0);
}

TEST(ParamCurves, GradientRoundTripSortsStoredKeys) {
    MemoryParamStorage storage;
    VaporixParamsMax params(storage);
    // Stored out of order, as a hand-written file might have it.
    params.setCount("dcolor_f.dcolor_fp", 3);
    params.setCount("dcolor_f.dcolor_fc", 3);
    params.setFloat("dcolor_f.dcolor_fp", 0, 1.0f, 0);
    params.setFloat("dcolor_f.dcolor_fp", 0, 0.0f, 1);
    params.setFloat("dcolor_f.dcolor_fp", 0, 0.5f, 2);
    params.setVector("dcolor_f.dcolor_fc", 0, Vector{1, 0, 0}, 0);
    params.setVector("dcolor_f.dcolor_fc", 0, Vector{0, 0, 1}, 1);
    params.setVector("dcolor_f.dcolor_fc", 0, Vector{0, 1, 0}, 2);
    ColorGradient g;
    ASSERT_TRUE(readGradient(params, "dcolor", 10, 0.0, g));
    ASSERT_EQ(g.count(), 3);
    EXPECT_EQ(g.keyPosition(0), 0.0f);
    EXPECT_EQ(g.blue.knot(0), 1.0f);
    EXPECT_EQ(g.green.knot(1), 1.0f);
    float rgb[3];
    g.evaluate(0.5f, rgb);
    EXPECT_NEAR(rgb[1], 1.0f, 1e-5f);

    ASSERT_TRUE(writeGradient(params, "ecolor", 1, 0.0, g));
    EXPECT_EQ(params.getInt("ecolor_t.ecolor_ti", 0, 2), 3);
    ColorGradient back;
    ASSERT_TRUE(readGradient(params, "ecolor", 1, 0.0, back));
    EXPECT_TRUE(back.equals(g));
}
