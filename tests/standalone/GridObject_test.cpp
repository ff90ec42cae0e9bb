// Tests of the grid object of the stand-alone renderer: frames from files and from memory,
// parameter assignments and files, the default curves, and the world box.
#include "standalone/GridObject.h"

#include <gtest/gtest.h>

#include "SceneFixtures.h"
#include "TestSupport.h"
#include "playback/ParamJson.h"
#include "playback/ParamAssign.h"

namespace vaporix {
namespace {

TEST(GridObject, LoadsAFrameFileAndTakesItsFrameNumberAsTheTime) {
    test::TempDir dir;
    VaporixFrameData frame;
    ASSERT_TRUE(test::makeSmokeBox(frame, 4, 6, 8, 0.5f));
    frame.frameNumber = 7;
    const std::string path = dir.file("box_0007.vxg");
    ASSERT_EQ(frame.WriteVxg(path.c_str(), frame.channelMask), 0);

    GridObject object;
    std::string error;
    ASSERT_EQ(object.loadFrame(path, 0, error), LOAD_OK) << error;
    EXPECT_DOUBLE_EQ(object.time(), 7.0 * TICKS_PER_FRAME);
    ASSERT_NE(object.frame(), nullptr);
    EXPECT_EQ(object.frame()->gridSize[2], 8);
    ASSERT_TRUE(object.prepare(error)) << error;
    EXPECT_EQ(object.shader().gridSize[1], 6);

    // Through a pattern the asked frame gives the time.
    GridObject byPattern;
    ASSERT_EQ(byPattern.loadFrame(dir.file("box_####.vxg"), 7, error), LOAD_OK) << error;
    EXPECT_DOUBLE_EQ(byPattern.time(), 7.0 * TICKS_PER_FRAME);
}

TEST(GridObject, MissingFramesAndEmptyObjectsFailWithAMessage) {
    test::TempDir dir;
    GridObject object;
    std::string error;
    const std::string missing = dir.file("nothing_####.vxg");
    EXPECT_EQ(object.loadFrame(missing, 3, error), LOAD_NO_FILE);
    EXPECT_NE(error.find(missing), std::string::npos);
    EXPECT_EQ(object.frame(), nullptr);
    float box[6];
    EXPECT_FALSE(object.worldBox(box));
    error.clear();
    EXPECT_FALSE(object.prepare(error));
    EXPECT_FALSE(error.empty());
}

TEST(GridObject, WorldBoxFollowsTheObjectTransform) {
    VaporixFrameData frame;
    ASSERT_TRUE(test::makeSmokeBox(frame, 4, 6, 8, 1.0f));
    GridObject object;
    object.setFrame(&frame, 3);
    EXPECT_DOUBLE_EQ(object.time(), 3.0 * TICKS_PER_FRAME);
    float box[6];
    ASSERT_TRUE(object.worldBox(box));
    const float plain[6] = {-2, -3, 0, 2, 3, 8};
    for (int a = 0; a < 6; ++a) EXPECT_FLOAT_EQ(box[a], plain[a]);

    // Twice as large, then moved by (10, 0, -1).
    for (int a = 0; a < 3; ++a) object.objectToWorld.m[4 * a] = 2.0f;
    object.objectToWorld.m[9] = 10.0f;
    object.objectToWorld.m[11] = -1.0f;
    ASSERT_TRUE(object.worldBox(box));
    const float moved[6] = {6, -6, -1, 14, 6, 15};
    for (int a = 0; a < 6; ++a) EXPECT_FLOAT_EQ(box[a], moved[a]);
}

TEST(GridObject, NewObjectHasTheDefaultCurvesSoFireShows) {
    VaporixFrameData frame;
    ASSERT_TRUE(test::makeSmokeBall(frame, 12));
    GridObject object;
    EXPECT_GT(object.params().getCount("epower_t.epower_t_p"), 0);
    EXPECT_GT(object.params().getCount("dcolor_s.dcolor_sp"), 0);
    object.setFrame(&frame);
    std::string error;
    ASSERT_TRUE(object.prepare(error)) << error;
    EXPECT_TRUE(object.shader().flags & VolumeShader::hasEmission);
    ASSERT_NE(object.shader().emissionColorTable, nullptr);
    // The hottest row of the temperature range glows.
    const TableColor& top = object.shader().emissionColorTable[SHADING_TABLE_ROWS - 1];
    EXPECT_GT(top.r, 0.0f);
}

TEST(GridObject, AssignmentsTakeEveryFormOfTheCommandLine) {
    GridObject object;
    std::string error;
    EXPECT_TRUE(object.applySetting("smoketransp=0.25", error)) << error;
    EXPECT_FLOAT_EQ(object.params().getFloat("smoketransp"), 0.25f);
    EXPECT_TRUE(object.applySetting("earg=Smoke", error)) << error;  // a combo's text
    EXPECT_EQ(object.params().getInt("earg"), 2);
    EXPECT_TRUE(object.applySetting("jitter=off", error));
    EXPECT_EQ(object.params().getInt("jitter"), 0);
    EXPECT_TRUE(object.applySetting("simple_color=(0.1, 0.2,0.3)", error)) << error;
    EXPECT_FLOAT_EQ(object.params().getVector("simple_color").z, 0.3f);
    // Values beyond the range are limited to it, as the panel does.
    EXPECT_TRUE(object.applySetting("smoketransp=7", error));
    EXPECT_FLOAT_EQ(object.params().getFloat("smoketransp"), 1.0f);
    // A key at a tick, and the value between keys.
    EXPECT_TRUE(object.applySetting("emult@0=1", error)) << error;
    EXPECT_TRUE(object.applySetting("emult@320=3", error)) << error;
    EXPECT_FLOAT_EQ(object.params().getFloat("emult", 160.0), 2.0f);
    // Items of a tab, and a whole tab as JSON.
    EXPECT_TRUE(object.applySetting("epower_t.epower_t_v[1]=0.75", error)) << error;
    EXPECT_FLOAT_EQ(object.params().getFloat("epower_t.epower_t_v", 0.0, 1), 0.75f);
    EXPECT_TRUE(object.applySetting("epower_t.epower_t_p=[0, 500, 1000]", error)) << error;
    EXPECT_EQ(object.params().getCount("epower_t.epower_t_p"), 3);

    const char* bad[] = {"smoketransp",      "=3",
                         "nosuchparam=1",    "smoketransp=abc",
                         "earg=Plasma",      "jitter=maybe",
                         "smoketransp[2]=1", "rendstep@10=5",
                         "simple_color=1,2", "epower_t.epower_t_p=3",
                         "emult@x=1",        "epower_t.epower_t_p=[1,"};
    for (const char* text : bad) {
        error.clear();
        EXPECT_FALSE(object.applySetting(text, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
    EXPECT_FLOAT_EQ(object.params().getFloat("smoketransp"), 1.0f);  // untouched by failures
}

TEST(GridObject, ParameterFilesLoadWithWarningsAndGetCurvesWhenTheyHaveNone) {
    test::TempDir dir;
    // A set written from a store that never had curves, with one changed value.
    MemoryParamStorage bare;
    VaporixParamsMax bareParams(bare);
    bareParams.setFloat("difmul", 0.0, 3.5f);
    const std::string full = dir.file("full.json");
    test::writeBytes(full, [&] {
        const std::string t = writeParamsDocument(bare, false);
        return std::vector<uint8_t>(t.begin(), t.end());
    }());
    GridObject object;
    std::vector<std::string> warnings;
    std::string error;
    ASSERT_TRUE(object.loadParams(full, warnings, error)) << error;
    EXPECT_FLOAT_EQ(object.params().getFloat("difmul"), 3.5f);
    EXPECT_GT(object.params().getCount("epower_t.epower_t_p"), 0);

    // Unknown names are warnings; a broken file or a missing one is an error.
    const std::string odd = dir.file("odd.json");
    const std::string oddText = R"({"params": {"notaparam": 1, "smoketransp": 0.125}})";
    test::writeBytes(odd, std::vector<uint8_t>(oddText.begin(), oddText.end()));
    warnings.clear();
    ASSERT_TRUE(object.loadParams(odd, warnings, error)) << error;
    EXPECT_FLOAT_EQ(object.params().getFloat("smoketransp"), 0.125f);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("notaparam"), std::string::npos);

    const std::string broken = dir.file("broken.json");
    const std::string brokenText = R"({"params": {"smoketransp": )";
    test::writeBytes(broken, std::vector<uint8_t>(brokenText.begin(), brokenText.end()));
    EXPECT_FALSE(object.loadParams(broken, warnings, error));
    EXPECT_NE(error.find(broken), std::string::npos);
    EXPECT_FALSE(object.loadParams(dir.file("absent.json"), warnings, error));
    EXPECT_NE(error.find("cannot be read"), std::string::npos);
}

TEST(GridObject, OlderParameterSetsAreUpgraded) {
    test::TempDir dir;
    const std::string path = dir.file("old.json");
    const std::string text = R"({"params": {"version": 20}})";
    test::writeBytes(path, std::vector<uint8_t>(text.begin(), text.end()));
    GridObject object;
    std::vector<std::string> warnings;
    std::string error;
    ASSERT_TRUE(object.loadParams(path, warnings, error)) << error;
    EXPECT_EQ(object.params().getInt("version"), PARAMS_VERSION);
    ASSERT_FALSE(warnings.empty());
    EXPECT_NE(warnings.back().find("upgraded"), std::string::npos);
}

}  // namespace
}  // namespace vaporix
