// Tests of access by name: defaults, ranges, types, tabs, the panel's accessors and enable rules.
#include "playback/VaporixParams.h"

#include <gtest/gtest.h>

#include "playback/MemoryParamStorage.h"

using namespace vaporix;

namespace {

struct Fixture {
    MemoryParamStorage storage;
    VaporixParamsMax params{storage};
};

}  // namespace

TEST(VaporixParams, NewObjectDefaults) {
    Fixture f;
    VaporixParams& p = f.params;
    EXPECT_EQ(p.getString("rendinput"), "");
    EXPECT_EQ(p.getInt("rendMode"), 0);
    EXPECT_EQ(p.getInt("rendstep"), 80);
    EXPECT_EQ(p.getInt("version"), 29);
    EXPECT_EQ(p.getInt("al_enable"), 1);
    EXPECT_FLOAT_EQ(p.getFloat("stoptransp"), 0.999f);
    EXPECT_EQ(p.getVector("simple_color"), (Vector{0.2f, 0.2f, 0.2f}));
    EXPECT_EQ(p.getVector("prv_t_color2"), (Vector{1, 1, 0}));
    EXPECT_EQ(p.getInt("prv_particles"), 0);
    EXPECT_EQ(p.getInt("prob_samples"), -1);
    EXPECT_EQ(p.getCount("epower_t.epower_t_p"), 0);
    EXPECT_EQ(p.getCount("rendstep"), 1);
}

TEST(VaporixParams, UnknownNamesReadAsZero) {
    Fixture f;
    VaporixParams& p = f.params;
    EXPECT_EQ(p.getInt("nope"), 0);
    EXPECT_EQ(p.getFloat("nope"), 0.0f);
    EXPECT_EQ(p.getString("nope"), "");
    EXPECT_EQ(p.getVector("nope"), Vector{});
    EXPECT_EQ(p.getNode("nope"), 0);
    EXPECT_EQ(p.getCount("nope"), 0);
    EXPECT_FALSE(p.setInt("nope", 0, 1));
    EXPECT_FALSE(p.setCount("nope", 3));
    int block = 0;
    EXPECT_EQ(p.findBlock("nope", block), -1);
    // An item beyond a tab's end reads as zero too.
    EXPECT_EQ(p.getFloat("epower_t.epower_t_p", 0, 3), 0.0f);
}

TEST(VaporixParams, SettersClampToTheRange) {
    Fixture f;
    VaporixParams& p = f.params;
    EXPECT_TRUE(p.setFloat("play_speed", 0, 11.0f));
    EXPECT_FLOAT_EQ(p.getFloat("play_speed"), 10.0f);
    p.setFloat("play_speed", 0, -50.0f);
    EXPECT_FLOAT_EQ(p.getFloat("play_speed"), -10.0f);
    p.setInt("inpoffset", 0, 2000000);
    EXPECT_EQ(p.getInt("inpoffset"), 1000000);
    p.setInt("playat", 0, -2000000);
    EXPECT_EQ(p.getInt("playat"), -1000000);
    p.setFloat("subred", 0, 1.0f);
    EXPECT_FLOAT_EQ(p.getFloat("subred"), 0.999f);
    p.setInt("jitter", 0, 5);
    EXPECT_EQ(p.getInt("jitter"), 1);
}

TEST(VaporixParams, TypesConvertBetweenNumbersOnly) {
    Fixture f;
    VaporixParams& p = f.params;
    p.setFloat("emult", 0, 2.75f);
    EXPECT_EQ(p.getInt("emult"), 2);
    EXPECT_FLOAT_EQ(p.getFloat("rendstep"), 80.0f);
    EXPECT_TRUE(p.setFloat("rendstep", 0, 41.6f));
    EXPECT_EQ(p.getInt("rendstep"), 42);
    EXPECT_TRUE(p.setInt("emult", 0, 3));
    EXPECT_FLOAT_EQ(p.getFloat("emult"), 3.0f);
    EXPECT_FALSE(p.setString("rendstep", 0, "5"));
    EXPECT_FALSE(p.setVector("emult", 0, Vector{1, 2, 3}));
    EXPECT_FALSE(p.setInt("rendinput", 0, 3));
    EXPECT_EQ(p.getString("rendstep"), "");
    EXPECT_EQ(p.getVector("emult"), Vector{});
    EXPECT_TRUE(p.setNode("gizmo", 0, 77));
    EXPECT_EQ(p.getNode("gizmo"), 77);
    EXPECT_TRUE(p.setString("etxt", 0, "noise.png"));
    EXPECT_EQ(p.getString("etxt"), "noise.png");
}

TEST(VaporixParams, TabsGrowShrinkAndFindTheirBlock) {
    Fixture f;
    VaporixParams& p = f.params;
    ASSERT_TRUE(p.setCount("prv_prt_name", 3));
    EXPECT_TRUE(p.setString("prv_prt_name", 0, "a", 0));
    EXPECT_TRUE(p.setString("prv_prt_name", 0, "b", 1));
    EXPECT_TRUE(p.setString("prv_prt_name", 0, "c", 2));
    EXPECT_FALSE(p.setString("prv_prt_name", 0, "d", 3));
    EXPECT_TRUE(p.deleteItem("prv_prt_name", 1, 1));
    EXPECT_EQ(p.getCount("prv_prt_name"), 2);
    EXPECT_EQ(p.getString("prv_prt_name", 0, 1), "c");
    EXPECT_FALSE(p.setCount("rendstep", 4));  // not a tab
    EXPECT_FALSE(p.setCount("prv_prt_name", -1));
    EXPECT_FALSE(p.setCount("prv_prt_name", MemoryParamStorage::MAX_TAB_COUNT + 1));
    int block = 0;
    EXPECT_GE(p.findBlock("prv_prt_name", block), 0);
    EXPECT_EQ(block, PREVIEW_BLOCK_ID);
    const int index = p.findBlock("rendstep", block);
    EXPECT_EQ(block, RENDER_BLOCK_ID);
    EXPECT_STREQ(renderBlock().params[index].name, "rendstep");
}

TEST(VaporixParams, TimeIsRoundedToTicks) {
    Fixture f;
    f.storage.setAnimateMode(true);
    VaporixParams& p = f.params;
    p.setFloat("emult", 0.0, 1.0f);
    p.setFloat("emult", 159.6, 2.0f);  // tick 160
    const auto& keys = f.storage.keys(*findParamDef("emult"), 0);
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[1].time, 160);
    EXPECT_FLOAT_EQ(p.getFloat("emult", 80.4), 1.5f);  // tick 80
    EXPECT_FLOAT_EQ(p.getFloat("emult", 159.5), 2.0f);
}

TEST(VaporixParams, SmoothingPanelShowsTheSelectedChannel) {
    Fixture f;
    VaporixParams& p = f.params;
    // sm_ch 1: temperature.
    p.setInt("smoothenable_face", 0, 1);
    p.setVector("smoothprm_face", 0, Vector{1, 2, 3});
    EXPECT_EQ(p.getInt("enablesmoothtemp"), 1);
    EXPECT_EQ(p.getVector("smoothtemp"), (Vector{1, 2, 3}));
    // Velocity: the panel now shows the velocity values.
    p.setInt("sm_ch", 0, 100);
    EXPECT_EQ(p.getInt("smoothenable_face"), 0);
    EXPECT_EQ(p.getVector("smoothprm_face"), (Vector{0, 0.5f, 0.1f}));
    p.setVector("smoothprm_face", 0, Vector{-5, 200000, 4});  // the panel's range applies
    EXPECT_EQ(p.getVector("smoothvel"), (Vector{0, 100000, 4}));
    EXPECT_EQ(p.getVector("smoothtemp"), (Vector{1, 2, 3}));
    p.setInt("sm_ch", 0, 101);
    p.setInt("smoothenable_face", 0, 1);
    EXPECT_EQ(p.getInt("enablesmoothuvw"), 1);
    EXPECT_EQ(p.getInt("enablesmoothsmoke"), 0);
}

TEST(VaporixParams, SurfaceLevelFollowsTheSurfaceChannel) {
    Fixture f;
    VaporixParams& p = f.params;
    EXPECT_FLOAT_EQ(p.getFloat("surflevel"), 0.1f);  // smoke
    p.setInt("sarg", 0, 1);
    EXPECT_FLOAT_EQ(p.getFloat("surflevel"), 0.5f);  // temperature
    p.setFloat("surflevel", 0, 0.0f);
    EXPECT_FLOAT_EQ(p.getFloat("surflevel_t"), 0.0f);
    p.setInt("sarg", 0, 3);
    EXPECT_FLOAT_EQ(p.getFloat("surflevel"), 20.0f);
    p.setFloat("surflevel", 0, 1e9f);
    EXPECT_FLOAT_EQ(p.getFloat("surflevel_v"), 10000.0f);
}

TEST(VaporixParams, RendinputAccessor) {
    Fixture f;
    VaporixParamsMax& p = f.params;
    p.setInt("prv_dwnsmp", 0, 7);
    p.setChannelMapSource([](const std::string& path) { return "map of " + path; });
    p.setString("rendinput", 0, "/caches/a_####.vdb");
    EXPECT_EQ(p.getInt("prv_dwnsmp"), 0);
    EXPECT_EQ(p.getString("usrchmap"), "map of /caches/a_####.vdb");
    // A set channel map stays; without auto reduction the downsampling stays.
    p.setInt("prv_autoreduct", 0, 0);
    p.setInt("prv_dwnsmp", 0, 7);
    p.setString("rendinput", 0, "/caches/b_####.vdb");
    EXPECT_EQ(p.getInt("prv_dwnsmp"), 7);
    EXPECT_EQ(p.getString("usrchmap"), "map of /caches/a_####.vdb");
}

TEST(VaporixParams, EnableRules) {
    Fixture f;
    VaporixParamsMax& p = f.params;
    EXPECT_TRUE(p.isEnabled("lightsmult"));
    p.setInt("al_enable", 0, 0);
    EXPECT_FALSE(p.isEnabled("lightsmult"));
    EXPECT_FALSE(p.isEnabled("gridreduct"));
    EXPECT_TRUE(p.isEnabled("emult"));
    // gpu_ambient is greyed by either of two check boxes.
    EXPECT_FALSE(p.isEnabled("gpu_ambient"));  // gpu_viewport is off by default
    p.setInt("gpu_viewport", 0, 1);
    EXPECT_TRUE(p.isEnabled("gpu_ambient"));
    p.setInt("gpu_lighting", 0, 0);
    EXPECT_FALSE(p.isEnabled("gpu_ambient"));
    EXPECT_FALSE(p.isEnabled("prv_sect_lvl"));
    EXPECT_TRUE(p.isEnabled("gridcells"));
}
