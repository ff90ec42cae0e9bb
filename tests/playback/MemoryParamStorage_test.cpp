// Tests of the in-memory parameter store: keyed values, animate mode, resets.
#include "playback/MemoryParamStorage.h"

#include <gtest/gtest.h>

using namespace vaporix;

namespace {

const ParamDef& def(const char* name) { return *findParamDef(name); }

float floatAt(const MemoryParamStorage& s, const char* name, TimeValue t, int index = 0) {
    ParamValue v;
    EXPECT_TRUE(s.get(def(name), t, index, v));
    return v.f;
}

}  // namespace

TEST(MemoryParamStorage, KeysInterpolateLinearlyAndHoldAtTheEnds) {
    MemoryParamStorage s;
    ASSERT_TRUE(s.setKey(def("t2f"), 0, 0, ParamValue::ofFloat(0.0f)));
    ASSERT_TRUE(s.setKey(def("t2f"), 320, 0, ParamValue::ofFloat(10.0f)));
    ASSERT_TRUE(s.setKey(def("t2f"), 160, 0, ParamValue::ofFloat(2.0f)));
    EXPECT_FLOAT_EQ(floatAt(s, "t2f", -100), 0.0f);
    EXPECT_FLOAT_EQ(floatAt(s, "t2f", 80), 1.0f);
    EXPECT_FLOAT_EQ(floatAt(s, "t2f", 160), 2.0f);
    EXPECT_FLOAT_EQ(floatAt(s, "t2f", 240), 6.0f);
    EXPECT_FLOAT_EQ(floatAt(s, "t2f", 1000), 10.0f);
    // Replacing a key keeps one key per time.
    s.setKey(def("t2f"), 160, 0, ParamValue::ofFloat(4.0f));
    EXPECT_EQ(s.keys(def("t2f"), 0).size(), 3u);
    EXPECT_FLOAT_EQ(floatAt(s, "t2f", 80), 2.0f);
}

TEST(MemoryParamStorage, PointsInterpolateAndNonAnimatableRefusesKeys) {
    MemoryParamStorage s;
    s.setKey(def("simple_color"), 0, 0, ParamValue::ofVector({0, 0, 0}));
    s.setKey(def("simple_color"), 100, 0, ParamValue::ofVector({1, 2, 4}));
    ParamValue v;
    s.get(def("simple_color"), 25, 0, v);
    EXPECT_EQ(v.v, (Vector{0.25f, 0.5f, 1.0f}));
    EXPECT_FALSE(s.setKey(def("rendstep"), 10, 0, ParamValue::ofInt(3)));
    s.setAnimateMode(true);
    EXPECT_TRUE(s.set(def("rendstep"), 10, 0, ParamValue::ofInt(3)));
    EXPECT_TRUE(s.keys(def("rendstep"), 0).empty());
}

TEST(MemoryParamStorage, AnimateModeMakesKeysAndOtherwiseShiftsThem) {
    MemoryParamStorage s;
    s.setAnimateMode(true);
    s.set(def("emult"), 0, 0, ParamValue::ofFloat(1.0f));
    s.set(def("emult"), 160, 0, ParamValue::ofFloat(3.0f));
    EXPECT_EQ(s.keys(def("emult"), 0).size(), 2u);
    s.setAnimateMode(false);
    // Setting 5 where the curve reads 2 moves every key by 3.
    s.set(def("emult"), 80, 0, ParamValue::ofFloat(5.0f));
    EXPECT_FLOAT_EQ(floatAt(s, "emult", 0), 4.0f);
    EXPECT_FLOAT_EQ(floatAt(s, "emult", 160), 6.0f);
    s.clearKeys(def("emult"), 0, 160);
    EXPECT_TRUE(s.keys(def("emult"), 0).empty());
    EXPECT_FLOAT_EQ(floatAt(s, "emult", 0), 6.0f);
}

TEST(MemoryParamStorage, TabItemsAreKeyedOnTheirOwn) {
    MemoryParamStorage s;
    const ParamDef& p = def("epower_t.epower_t_v");
    ASSERT_TRUE(s.setCount(p, 2));
    s.set(p, 0, 0, ParamValue::ofFloat(1.0f));
    s.setKey(p, 0, 1, ParamValue::ofFloat(0.0f));
    s.setKey(p, 100, 1, ParamValue::ofFloat(1.0f));
    EXPECT_FLOAT_EQ(floatAt(s, "epower_t.epower_t_v", 50, 0), 1.0f);
    EXPECT_FLOAT_EQ(floatAt(s, "epower_t.epower_t_v", 50, 1), 0.5f);
    ParamValue v;
    EXPECT_FALSE(s.get(p, 0, 2, v));
    EXPECT_FALSE(s.deleteItems(p, 2, 1));
    EXPECT_TRUE(s.deleteItems(p, 0, 100));
    EXPECT_EQ(s.count(p), 0);
}

TEST(MemoryParamStorage, ResetAndDefaultState) {
    MemoryParamStorage s;
    EXPECT_TRUE(s.isDefault(def("rendstep")));
    s.set(def("rendstep"), 0, 0, ParamValue::ofInt(5));
    EXPECT_FALSE(s.isDefault(def("rendstep")));
    s.setCount(def("dontshow"), 1);
    EXPECT_FALSE(s.isDefault(def("dontshow")));
    s.resetAll();
    EXPECT_TRUE(s.isDefault(def("rendstep")));
    EXPECT_EQ(s.count(def("dontshow")), 0);
    // The description's fallback without the grid object's overrides.
    const VaporixDefaults plain;
    MemoryParamStorage bare(&plain);
    ParamValue v;
    bare.get(def("rendinput"), 0, 0, v);
    EXPECT_EQ(v.s, "$(same_as_output)");
}

TEST(MemoryParamStorage, ForeignDeclarationsAreRefused) {
    MemoryParamStorage s;
    const ParamDef stray = def("rendstep");  // a copy, not the table's entry
    ParamValue v;
    EXPECT_FALSE(s.get(stray, 0, 0, v));
    EXPECT_FALSE(s.set(stray, 0, 0, v));
    EXPECT_EQ(s.count(stray), 0);
}
