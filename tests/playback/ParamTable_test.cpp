// Tests of the parameter declarations against the published table of both blocks.
#include "playback/ParamTable.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "playback/VaporixDefaults.h"

using namespace vaporix;

namespace {

const ParamDef& def(const char* name) {
    const ParamDef* d = findParamDef(name);
    EXPECT_NE(d, nullptr) << name;
    static const ParamDef none{};
    return d ? *d : none;
}

struct Row {
    const char* name;
    int block;
    int id;
    ParamType type;
    bool animatable;
    double def;
    bool hasRange;
    double lo, hi;
    int map;
    ControlKind control;
    int firstId;
};

}  // namespace

TEST(ParamTable, BlocksAndRollouts) {
    EXPECT_EQ(renderBlock().id, 4660);
    EXPECT_STREQ(renderBlock().name, "Rend PB");
    EXPECT_EQ(renderBlock().referenceIndex, 0);
    EXPECT_EQ(previewBlock().id, 4662);
    EXPECT_STREQ(previewBlock().name, "preview PB");
    EXPECT_EQ(previewBlock().referenceIndex, 2);
    ASSERT_EQ(paramRollouts().size(), 6u);
    EXPECT_EQ(paramRollouts()[1].dialog, 109);
    EXPECT_STREQ(paramRollouts()[1].title, "Fire");
    EXPECT_STREQ(paramRollouts()[3].title, "Smoke opacity");
    EXPECT_EQ(paramRollouts()[5].dialog, 1274);
}

TEST(ParamTable, IdsUniquePerBlockAndNamesUniqueOverall) {
    std::set<std::string> names;
    for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
        std::set<int> ids;
        const ParamBlockDef& block = paramBlock(b);
        for (int i = 0; i < block.count; ++i) {
            EXPECT_TRUE(ids.insert(block.params[i].id).second) << block.params[i].name;
            EXPECT_TRUE(names.insert(block.params[i].name).second) << block.params[i].name;
        }
    }
    // 123 single values and 72 curve tables in the render block, 69 in the preview block.
    EXPECT_EQ(renderBlock().count, 123 + 72);
    EXPECT_EQ(previewBlock().count, 69);
}

TEST(ParamTable, RenderBlockRows) {
    using T = ParamType;
    using C = ControlKind;
    const Row rows[] = {
        {"rendstep", 0, 35, T::Int, false, 80, true, 1, 10000, 0, C::Spinner, 1048},
        {"rendshadstep", 0, 442, T::Int, false, 200, true, 1, 10000, 0, C::Spinner, 1062},
        {"softb", 0, 25, T::Float, true, 0, true, 0, 40, 0, C::Spinner, 1054},
        {"sampler", 0, 36, T::Int, false, 1, false, 0, 0, 0, C::Combo, 1094},
        {"earg", 0, 49, T::Int, false, 1, false, 0, 0, 1, C::Combo, 1089},
        {"darg", 0, 50, T::Int, false, 5, false, 0, 0, 2, C::Combo, 1089},
        {"targ", 0, 51, T::Int, false, 0, false, 0, 0, 3, C::Combo, 1089},
        {"smoketransp", 0, 68, T::Float, true, 0.5, true, 0, 1, 3, C::Spinner, 1081},
        {"stoptransp", 0, 20, T::Float, true, 0.999, true, 0, 1, -1, C::None, 0},
        {"skiptransp", 0, 14, T::Float, true, 0.001, true, 0, 1, -1, C::None, 0},
        {"al_enable", 0, 265, T::Bool, false, 1, false, 0, 0, 1, C::Check, 1210},
        {"lights", 0, 40, T::Int, false, 500, false, 0, 0, -1, C::None, 0},
        {"lightsmultself", 0, 444, T::Float, true, 1, true, 0, 100, 1, C::Spinner, 1293},
        {"radmult", 0, 168, T::Float, true, 1, true, 0.0001, 100, -1, C::None, 0},
        {"gridreduct", 0, 405, T::Float, true, 5, true, 0.01, 100, 1, C::Spinner, 1129},
        {"selfshadow", 0, 42, T::Int, false, 2, false, 0, 0, 1, C::Combo, 1080},
        {"csubdivs", 0, 229, T::Int, false, 1000, true, 0, 2000000, 1, C::Spinner, 1121},
        {"fire_opacity_mode", 0, 431, T::Int, false, 1, false, 0, 0, 1, C::Combo, 1083},
        {"emult", 0, 218, T::Float, true, 1, true, 0, 100000, 1, C::Spinner, 1119},
        {"blackbody", 0, 446, T::Float, true, 1, true, 0, 1, 1, C::Spinner, 1134},
        {"subred", 0, 267, T::Float, false, 0.9, true, 0, 0.999, 2, C::Spinner, 1119},
        {"noscatter", 0, 52, T::Int, false, 3, false, 0, 0, 2, C::Combo, 1090},
        {"transfext", 0, 426, T::Float, true, 1, true, 0.1, 10, 2, C::Spinner, 1121},
        {"hhfactor", 0, 64, T::Float, true, 1, true, -1000, 1000, 0, C::Spinner, 1050},
        {"surflevel_v", 0, 293, T::Float, true, 20, false, 0, 0, -1, C::None, 0},
        {"rendMode", 0, 289, T::Int, false, 0, false, 0, 0, 0, C::Combo, 1091},
        {"smoothmesh", 0, 250, T::Int, false, 0, true, 0, 1000, 0, C::Spinner, 1385},
        {"oceanlevel", 0, 251, T::Float, true, 50, true, 0, 100, 0, C::Spinner, 1078},
        {"displ2d", 0, 354, T::Int, false, 1, false, 0, 0, 0, C::Combo, 1095},
        {"displ2", 0, 73, T::Texmap, false, 0, false, 0, 0, 0, C::MapButton, 1092},
        {"fadeobj", 0, 261, T::Node, false, 0, false, 0, 0, 0, C::NodePick, 1403},
        {"ttxt", 0, 76, T::Texmap, false, 0, false, 0, 0, 3, C::MapButton, 1086},
        {"transpmode", 0, 39, T::Int, false, 1, false, 0, 0, -1, C::None, 0},
        {"rendinput", 0, 43, T::String, false, 0, false, 0, 0, 4, C::Edit, 1067},
        {"inpoffset", 0, 87, T::Int, false, 0, true, -1000000, 1000000, 4, C::Spinner, 1152},
        {"play_speed", 0, 8, T::Float, false, 1, true, -10, 10, 4, C::Spinner, 1139},
        {"t2f", 0, 118, T::Float, true, 0, true, -1e6, 1e6, 4, C::Spinner, 1141},
        {"sm_ch", 0, 268, T::Int, false, 1, false, 0, 0, 4, C::Combo, 1225},
        {"gamma_mult", 0, 0, T::Float, false, 1, false, 0, 0, -1, C::None, 0},
        {"prob_samples_gi", 0, 379, T::Int, false, -1, false, 0, 0, -1, C::None, 0},
    };
    for (const Row& r : rows) {
        int block = -1;
        const ParamDef* d = findParamDef(r.name, &block);
        ASSERT_NE(d, nullptr) << r.name;
        EXPECT_EQ(block, r.block) << r.name;
        EXPECT_EQ(d->id, r.id) << r.name;
        EXPECT_EQ(d->type, r.type) << r.name;
        EXPECT_EQ(d->isAnimatable(), r.animatable) << r.name;
        EXPECT_FALSE(d->isTab()) << r.name;
        EXPECT_DOUBLE_EQ(d->def.v[0], r.def) << r.name;
        EXPECT_EQ(d->range.given, r.hasRange) << r.name;
        if (r.hasRange) {
            EXPECT_DOUBLE_EQ(d->range.min, r.lo) << r.name;
            EXPECT_DOUBLE_EQ(d->range.max, r.hi) << r.name;
        }
        EXPECT_EQ(d->ui.map, r.map) << r.name;
        EXPECT_EQ(d->ui.kind, r.control) << r.name;
        EXPECT_EQ(d->ui.ids[0], r.firstId) << r.name;
    }
    EXPECT_STREQ(def("lightsmult").label, "Light Power On World");
    EXPECT_STREQ(def("etmult").label, "Fire Opacity Mult");
    EXPECT_EQ(def("simple_color").type, ParamType::Point3);
    EXPECT_DOUBLE_EQ(def("simple_color").def.v[2], 0.2);
    EXPECT_TRUE(def("ex").isTransient());
    EXPECT_TRUE(def("ty").isTransient());
    EXPECT_EQ(def("smoothprm_face").ui.idCount, 6);
    EXPECT_EQ(def("smoothprm_face").ui.ids[5], 1151);
    EXPECT_DOUBLE_EQ(def("smoothvel").def.v[1], 0.5);
}

TEST(ParamTable, CurveTables) {
    struct C {
        const char* name;
        int id;
        ParamType type;
    };
    const C tables[] = {
        {"epower_t", 301, ParamType::Point3},
        {"epower_f", 304, ParamType::Point3},
        {"transp_s", 312, ParamType::Point3},
        {"ecolorx_t", 322, ParamType::Float},
        {"ecolory_t", 323, ParamType::Point3},
        {"ecolory_f", 329, ParamType::Point3},
        {"dcolorx_v", 346, ParamType::Float},
        {"ecolor_t.ecolor_tp", 448, ParamType::Float},
        {"ecolor_t.ecolor_tc", 449, ParamType::Point3},
        {"ecolor_f.ecolor_fi", 459, ParamType::Int},
        {"dcolor_s.dcolor_sc", 464, ParamType::Point3},
        {"epower_t.epower_t_p", 472, ParamType::Float},
        {"epower_v.epower_v_v", 479, ParamType::Float},
        {"epower_f.epower_f_i", 483, ParamType::Int},
        {"tpower_t.tpower_t_p", 484, ParamType::Float},
        {"tpower_f.tpower_f_i", 495, ParamType::Int},
    };
    for (const C& c : tables) {
        const ParamDef& d = def(c.name);
        EXPECT_EQ(d.id, c.id) << c.name;
        EXPECT_EQ(d.type, c.type) << c.name;
        // Host flags 0x1001: animatable, variable size.
        EXPECT_TRUE(d.isTab()) << c.name;
        EXPECT_TRUE(d.isAnimatable()) << c.name;
        EXPECT_FALSE(d.def.given) << c.name;
    }
    EXPECT_STREQ(def("transp_v").label, "Transparency");
    EXPECT_STREQ(def("dcolory_f").label, "Diffuse color");
}

TEST(ParamTable, PreviewBlockRows) {
    EXPECT_EQ(def("version").id, 511);
    EXPECT_DOUBLE_EQ(def("version").def.v[0], 29);
    EXPECT_EQ(def("prv_sect_lvl").ui.spinStep, 1);
    EXPECT_EQ(def("gpu_save_from").ui.spinStep, 1);
    EXPECT_EQ(def("gpu_save_to").ui.ids[1], 1149);
    EXPECT_EQ(def("rendstep").ui.spinStep, 0);
    EXPECT_DOUBLE_EQ(def("prv_v_threshold2").range.max, 1e20);
    EXPECT_DOUBLE_EQ(def("gpu_gamma").def.v[0], 2.2);
    EXPECT_DOUBLE_EQ(def("prv_v_color2").def.v[2], 0.5);
    EXPECT_EQ(def("exportas").ui.map, 18);
    EXPECT_TRUE(def("dontshow").isTab());
    EXPECT_EQ(def("dontshow").type, ParamType::Int);
    EXPECT_EQ(def("ielist").type, ParamType::Node);
    EXPECT_TRUE(def("prv_prt_name").isTab());
    EXPECT_FALSE(def("prv_prt_name").isAnimatable());
    // Same id in both blocks; the name decides.
    EXPECT_EQ(findParamDefById(RENDER_BLOCK_ID, 406), &def("usrchmap"));
    EXPECT_EQ(findParamDefById(PREVIEW_BLOCK_ID, 406), &def("prv_dwnsmp"));
    EXPECT_EQ(findParamDefById(PREVIEW_BLOCK_ID, 9999), nullptr);
    EXPECT_EQ(findParamDef("no_such_param"), nullptr);
}

TEST(ParamTable, ComboValues) {
    const auto earg = paramChoices(def("earg"));
    ASSERT_EQ(earg.size(), 7u);
    EXPECT_EQ(earg[6].value, 10);
    EXPECT_EQ(earg[6].text, "Fuel");
    const auto darg = paramChoices(def("darg"));
    EXPECT_EQ(darg[5].text, "Constant color");
    EXPECT_EQ(darg[6].value, 6);
    const auto sm = paramChoices(def("sm_ch"));
    ASSERT_EQ(sm.size(), 5u);
    EXPECT_EQ(sm[2].value, 101);
    EXPECT_EQ(sm[2].text, "UVW");
    EXPECT_EQ(paramChoices(def("noscatter"))[0].text, "Ray-Traced (GI only)");
    EXPECT_TRUE(paramChoices(def("rendstep")).empty());
}

TEST(ParamTable, EnableRulesNameExistingParameters) {
    ASSERT_EQ(paramEnableRules().size(), 8u);
    for (const ParamEnableRule& rule : paramEnableRules()) {
        int block = -1;
        const ParamDef* check = findParamDef(rule.check, &block);
        ASSERT_NE(check, nullptr) << rule.check;
        EXPECT_EQ(check->type, ParamType::Bool) << rule.check;
        EXPECT_EQ(paramBlock(block).id, rule.blockId) << rule.check;
        for (int id : rule.greyed) EXPECT_NE(findParamDefById(rule.blockId, id), nullptr) << id;
    }
    EXPECT_EQ(paramEnableRules()[0].greyed.size(), 10u);
}

TEST(ParamTable, GridObjectDefaultsOverrideTheDescription) {
    const VaporixDefaults& d = gridObjectDefaults();
    EXPECT_EQ(defaultValue(def("rendinput"), &d).s, "");
    EXPECT_EQ(defaultValue(def("rendinput"), nullptr).s, "$(same_as_output)");
    EXPECT_EQ(defaultValue(def("prv_t_color2"), &d).v, (Vector{1, 1, 0}));
    EXPECT_EQ(defaultValue(def("prv_t_color2"), nullptr).v, (Vector{0, 0, 1}));
    EXPECT_EQ(defaultValue(def("prv_particles"), &d).i, 0);
    EXPECT_EQ(defaultValue(def("prv_particles"), nullptr).i, 1);
    // Parameters that ask but have no override keep the fallback.
    EXPECT_EQ(defaultValue(def("sarg"), &d).i, 2);
    EXPECT_FLOAT_EQ(defaultValue(def("surflevel"), &d).f, 0.1f);
    EXPECT_EQ(defaultValue(def("rendMode"), &d).i, 0);
    EXPECT_FLOAT_EQ(defaultValue(def("prv_t_threshold2"), &d).f, 10000.0f);
    EXPECT_EQ(defaultValue(def("prv_plank_t"), &d).i, 1);
    // Only parameters that ask are answered by the defaults object.
    VaporixDefaultsMax custom;
    custom.setInt("rendstep", 5);
    custom.setInt("sarg", 10);
    EXPECT_EQ(defaultValue(def("rendstep"), &custom).i, 80);
    EXPECT_EQ(defaultValue(def("sarg"), &custom).i, 10);
}

TEST(ParamTable, ClampToRange) {
    EXPECT_FLOAT_EQ(clampToRange(def("play_speed"), ParamValue::ofFloat(25.0f)).f, 10.0f);
    EXPECT_FLOAT_EQ(clampToRange(def("play_speed"), ParamValue::ofFloat(-25.0f)).f, -10.0f);
    EXPECT_EQ(clampToRange(def("playat"), ParamValue::ofInt(5000000)).i, 1000000);
    EXPECT_EQ(clampToRange(def("inpoffset"), ParamValue::ofInt(-5000000)).i, -1000000);
    EXPECT_EQ(clampToRange(def("lights"), ParamValue::ofInt(-7)).i, -7);  // no range
    const Vector v = clampToRange(def("smoothprm_face"), ParamValue::ofVector({-1, 5, 1e9f})).v;
    EXPECT_EQ(v, (Vector{0, 5, 100000}));
    EXPECT_EQ(clampToRange(def("jitter"), ParamValue::ofInt(7)).i, 1);
}
