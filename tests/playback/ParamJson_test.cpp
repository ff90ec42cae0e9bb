// Tests of parameter sets as JSON: round trips with keys and tabs, and refusals.
#include "playback/ParamJson.h"

#include <gtest/gtest.h>

#include "playback/VaporixParams.h"

using namespace vaporix;

namespace {
const ParamDef& def(const char* name) { return *findParamDef(name); }
}  // namespace

TEST(ParamJson, RoundTripKeepsEveryValue) {
    MemoryParamStorage a;
    VaporixParamsMax p(a);
    p.setInt("rendstep", 0, 33);
    p.setFloat("emult", 0, 0.1f);
    p.setVector("simple_color", 0, Vector{0.1f, 0.7f, 1e-8f});
    p.setString("rendinput", 0, "/tmp/a \"b\"_####.vxg");
    p.setNode("gizmo", 0, 1234567890123LL);
    p.setInt("jitter", 0, 0);
    p.setCount("epower_t.epower_t_p", 2);
    p.setFloat("epower_t.epower_t_p", 0, 800.0f, 0);
    p.setFloat("epower_t.epower_t_p", 0, 1350.5f, 1);
    a.setKey(def("t2f"), 0, 0, ParamValue::ofFloat(0.0f));
    a.setKey(def("t2f"), 480, 0, ParamValue::ofFloat(30.0f));
    a.setKey(def("epower_t.epower_t_p"), 160, 1, ParamValue::ofFloat(1400.0f));
    a.set(def("ex"), 0, 0, ParamValue::ofFloat(5.0f));  // transient: not stored

    const std::string text = writeParamsDocument(a);
    MemoryParamStorage b;
    std::vector<std::string> warnings;
    std::string error;
    ASSERT_TRUE(readParamsDocument(text, b, warnings, error)) << error;
    EXPECT_TRUE(warnings.empty());
    VaporixParamsMax q(b);
    EXPECT_EQ(q.getInt("rendstep"), 33);
    EXPECT_EQ(q.getFloat("emult"), 0.1f);
    EXPECT_EQ(q.getVector("simple_color"), (Vector{0.1f, 0.7f, 1e-8f}));
    EXPECT_EQ(q.getString("rendinput"), "/tmp/a \"b\"_####.vxg");
    EXPECT_EQ(q.getNode("gizmo"), 1234567890123LL);
    EXPECT_EQ(q.getInt("jitter"), 0);
    EXPECT_FLOAT_EQ(q.getFloat("t2f", 240), 15.0f);
    EXPECT_EQ(q.getFloat("epower_t.epower_t_p", 0, 0), 800.0f);
    EXPECT_EQ(q.getFloat("epower_t.epower_t_p", 160, 1), 1400.0f);
    EXPECT_EQ(q.getFloat("ex"), 0.0f);

    // The same document again: the form is stable.
    EXPECT_EQ(writeParamsDocument(b), text);
}

TEST(ParamJson, OnlyChangedWritesWhatDiffers) {
    MemoryParamStorage a;
    VaporixParamsMax p(a);
    p.setInt("rendstep", 0, 81);
    p.setCount("dontshow", 1);
    const JsonValue j = paramsToJson(a, true);
    ASSERT_EQ(j.members().size(), 2u);
    EXPECT_EQ(j.members()[0].first, "rendstep");
    EXPECT_EQ(j.members()[1].first, "dontshow");
}

TEST(ParamJson, ValuesAreClampedAndUnknownNamesWarned) {
    MemoryParamStorage s;
    std::vector<std::string> warnings;
    std::string error;
    ASSERT_TRUE(readParamsDocument(
        R"({"params": {"play_speed": 99, "no_such": 1, "jitter": 0, "al_enable": false}})", s,
        warnings, error))
        << error;
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("no_such"), std::string::npos);
    VaporixParamsMax p(s);
    EXPECT_EQ(p.getFloat("play_speed"), 10.0f);
    EXPECT_EQ(p.getInt("al_enable"), 0);
}

TEST(ParamJson, WrongFormsFailAndLeaveTheStoreAlone) {
    const char* bad[] = {
        R"({"params": {"rendstep": 1, "emult": "x"}})",
        R"({"params": {"rendstep": 2.5}})",
        R"({"params": {"simple_color": [1, 2]}})",
        R"({"params": {"rendinput": 3}})",
        R"({"params": {"epower_t.epower_t_p": 3}})",
        R"({"params": {"rendstep": {"keys": [[0, 1]]}}})",
        R"({"params": {"emult": {"keys": [[0.5, 1]]}}})",
        R"({"params": {"emult": {"keys": [[0, 1]], "extra": 1}}})",
        R"({"params": {"rendstep": 1e10}})",
        R"({"params": []})",
        R"({"other": {}})",
        R"({"params": {"rendstep": 1})",
    };
    for (const char* text : bad) {
        MemoryParamStorage s;
        std::vector<std::string> warnings;
        std::string error;
        EXPECT_FALSE(readParamsDocument(text, s, warnings, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
        VaporixParamsMax p(s);
        EXPECT_EQ(p.getInt("rendstep"), 80) << text;
    }
}

TEST(ParamJson, NonFiniteFloatsSurviveAsNull) {
    MemoryParamStorage a;
    a.set(def("bias"), 0, 0, ParamValue::ofFloat(NAN));
    const JsonValue j = paramsToJson(a, true);
    ASSERT_NE(j.find("bias"), nullptr);
    EXPECT_TRUE(j.find("bias")->isNull());
    MemoryParamStorage b;
    std::vector<std::string> w;
    std::string error;
    ASSERT_TRUE(paramsFromJson(j, b, w, error)) << error;
    ParamValue v;
    b.get(def("bias"), 0, 0, v);
    EXPECT_TRUE(std::isnan(v.f));
}
