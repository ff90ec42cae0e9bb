// Tests of the upgrade steps that bring old parameter sets to the present version.
#include "playback/ParamUpgrade.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "editors/Bezier.h"
#include "playback/MemoryParamStorage.h"
#include "playback/ParamCurves.h"

using namespace vaporix;

namespace {

struct Fixture {
    MemoryParamStorage storage;
    VaporixParamsMax p{storage};
    UpgradeContext context;

    void points(const char* name, const std::vector<Vector>& pts) {
        p.setCount(name, static_cast<int>(pts.size()));
        for (size_t k = 0; k < pts.size(); ++k) p.setVector(name, 0, pts[k], static_cast<int>(k));
    }
    std::vector<Vector> points(const char* name) const {
        std::vector<Vector> out;
        for (int k = 0; k < p.getCount(name); ++k) out.push_back(p.getVector(name, 0, k));
        return out;
    }
    bool run(int version) { return runUpgradeStep(version, p, context); }
};

float bezierAt(const std::vector<Vector>& pts, float x) {
    std::vector<Bezier::Point> b;
    for (const Vector& v : pts) b.push_back({v.x, v.y, v.z});
    return Bezier::evaluate(b.data(), static_cast<int>(b.size()), x);
}

}  // namespace

TEST(ParamUpgrade, StepsWithoutActionDoNothing) {
    Fixture f;
    for (int v : {2, 3, 5, 9, 11, 14, 21, 22, 25, 29}) EXPECT_FALSE(f.run(v)) << v;
    EXPECT_TRUE(f.storage.isDefault(*findParamDef("rendMode")));
}

TEST(ParamUpgrade, Step1RewritesOldPolylinesAsBezierTriples) {
    Fixture f;
    f.points("epower_t", {{0, 0, 0}, {1, 1, 0}, {3, 0, 0}});
    f.points("transp_s", {{0, 0.5f, 0}});
    f.points("epower_f", {{0, 1, 0}, {1, 2, 0}});  // fuel came later: untouched
    ASSERT_TRUE(f.run(1));
    const auto e = f.points("epower_t");
    ASSERT_EQ(e.size(), 9u);
    for (const Vector& v : e) EXPECT_EQ(v.z, OLD_EMISSIVE_CURVE_FLAG);
    EXPECT_EQ(e[4].x, 1.0f);
    // The same polyline, inside and continued outside.
    for (float x : {0.25f, 0.5f, 1.0f, 2.0f, 2.5f})
        EXPECT_NEAR(bezierAt(e, x), x <= 1 ? x : (3 - x) / 2, 1e-4f) << x;
    EXPECT_NEAR(bezierAt(e, -1.0f), -1.0f, 1e-5f);
    EXPECT_NEAR(bezierAt(e, 5.0f), -1.0f, 1e-5f);
    const auto t = f.points("transp_s");
    ASSERT_EQ(t.size(), 3u);
    EXPECT_EQ(t[0].z, OLD_TRANSPARENCY_CURVE_FLAG);
    EXPECT_NEAR(bezierAt(t, 9.0f), 0.5f, 1e-6f);
    EXPECT_EQ(f.points("epower_f").size(), 2u);
}

TEST(ParamUpgrade, Step4DerivesTheRenderModeFromOldSwitches) {
    struct Case {
        int mesher, ocean, geommode, rendsolid, heathaze, mode;
    };
    const Case cases[] = {{1, 1, 1, 1, 1, 2}, {1, 0, 1, 1, 1, 1}, {0, 1, 1, 1, 1, 6},
                          {0, 0, 1, 0, 1, 5}, {0, 0, 1, 0, 0, 4}, {0, 1, 0, 1, 1, 0}};
    for (const Case& c : cases) {
        Fixture f;
        f.p.setInt("mesher", 0, c.mesher);
        f.p.setInt("ocean", 0, c.ocean);
        f.p.setInt("geommode", 0, c.geommode);
        f.p.setInt("rendsolid", 0, c.rendsolid);
        f.p.setInt("heathaze", 0, c.heathaze);
        f.p.setInt("rendMode", 0, 3);
        f.run(4);
        EXPECT_EQ(f.p.getInt("rendMode"), c.mode);
    }
}

TEST(ParamUpgrade, Step6ResamplesTheActiveEmissiveCurve) {
    Fixture f;
    f.p.setInt("earg", 0, 2);
    // A straight line y = x / 1000 from 1000 to 2000, in the old triple form.
    f.points("epower_s", {{900, 0.9f, 16},
                          {1000, 1, 16},
                          {1100, 1.1f, 16},
                          {1900, 1.9f, 16},
                          {2000, 2, 16},
                          {2100, 2.1f, 16}});
    f.points("epower_t", {{0, 0, 0}, {1, 1, 0}, {2, 2, 0}});
    ASSERT_TRUE(f.run(6));
    const auto e = f.points("epower_s");
    ASSERT_EQ(e.size(), 60u);
    const float start = 1000.0f - 1000.0f / 20.0f;
    const float step = 1000.0f * 1.1f / 20.0f;
    for (int i = 0; i < 20; ++i) {
        const float x = i * step + start;
        EXPECT_NEAR(e[3 * i + 1].x, x, 1e-3f) << i;
        EXPECT_NEAR(e[3 * i + 1].y, x / 1000.0f, 1e-4f) << i;
        EXPECT_NEAR(e[3 * i].x, x - step / 4, 1e-3f) << i;
        EXPECT_NEAR(e[3 * i + 2].x, x + step / 4, 1e-3f) << i;
        EXPECT_NEAR(e[3 * i + 2].y - e[3 * i + 1].y, step / 4000.0f, 1e-4f) << i;
        EXPECT_NEAR(e[3 * i + 1].y - e[3 * i].y, step / 4000.0f, 1e-4f) << i;
    }
    EXPECT_EQ(f.points("epower_t").size(), 3u);  // not the active channel
}

TEST(ParamUpgrade, Step6LeavesCurvesThatAreNotTriples) {
    Fixture f;
    f.points("epower_t", {{0, 0, 0}, {1, 1, 0}});
    f.run(6);
    EXPECT_EQ(f.points("epower_t").size(), 2u);
}

TEST(ParamUpgrade, Step7FireOpacityMode) {
    const int cases[][3] = {{1, 1, 2}, {1, 0, 2}, {0, 1, 1}, {0, 0, 0}};
    for (const auto& c : cases) {
        Fixture f;
        f.p.setInt("fire_has_alpha", 0, c[0]);
        f.p.setInt("no_alpha_e", 0, c[1]);
        f.run(7);
        EXPECT_EQ(f.p.getInt("fire_opacity_mode"), c[2]);
    }
}

TEST(ParamUpgrade, Step8FindsTheSequenceOfAPrefix) {
    Fixture f;
    std::vector<std::string> asked;
    f.context.findSequenceByPrefix = [&](const std::string& prefix) {
        asked.push_back(prefix);
        return prefix == "/c/fire_" ? std::string("/c/fire_####.vxg") : std::string();
    };
    f.p.setString("rendinput", 0, "/c/fire_");
    f.run(8);
    EXPECT_EQ(f.p.getString("rendinput"), "/c/fire_####.vxg");
    f.p.setString("rendinput", 0, "/c/none_");
    f.run(8);
    EXPECT_EQ(f.p.getString("rendinput"), "/c/none_");
    f.p.setString("rendinput", 0, "$(same_as_output)");
    f.run(8);
    EXPECT_EQ(f.p.getString("rendinput"), "$(same_as_output)");
    EXPECT_EQ(asked.size(), 2u);  // macros are never searched
}

TEST(ParamUpgrade, Step10GpuLightNodes) {
    Fixture f;
    f.p.setNode("gpu_lightnode", 0, 42);
    f.p.setInt("gpu_light_incl", 0, 0);
    f.context.onlyLightNode = [] { return NodeHandle(7); };
    f.run(10);
    ASSERT_EQ(f.p.getCount("gpu_lightnodes"), 1);
    EXPECT_EQ(f.p.getNode("gpu_lightnodes", 0, 0), 42);
    EXPECT_EQ(f.p.getInt("gpu_light_incl"), 1);

    Fixture g;
    g.context.onlyLightNode = [] { return NodeHandle(7); };
    g.run(10);
    EXPECT_EQ(g.p.getNode("gpu_lightnodes", 0, 0), 7);

    Fixture h;
    h.context.onlyLightNode = [] { return NodeHandle(0); };
    h.run(10);
    EXPECT_EQ(h.p.getCount("gpu_lightnodes"), 0);
}

TEST(ParamUpgrade, Steps12And13) {
    Fixture f;
    f.p.setFloat("subred", 0, 0.5f);
    f.p.setInt("rendstep", 0, 123);
    f.run(12);
    f.run(13);
    EXPECT_FLOAT_EQ(f.p.getFloat("subred"), 1.0f - 1.0f / 1.5f);
    EXPECT_EQ(f.p.getInt("rendshadstep"), 123);
}

TEST(ParamUpgrade, Step15NormalisesCurves) {
    Fixture f;
    f.p.setInt("fire_opacity_mode", 0, 1);
    f.p.setInt("earg", 0, 1);
    // A fake luminance so that 683 * Y(T) = T / 1000.
    f.context.blackbodyLuminance = [](float t) { return t / 1000.0f / 683.0f; };
    // Temperature curve starting above 301 K: a head key at 300 K is added.
    f.points(
        "epower_t",
        {{900, 4, 16}, {1000, 4, 16}, {1100, 4, 16}, {1900, 8, 16}, {2000, 8, 16}, {2100, 8, 16}});
    // Smoke curve starting at 0: divided by `blackbody` instead.
    f.p.setFloat("blackbody", 0, 0.5f);
    f.points("epower_s", {{-0.1f, 0.2f, 16}, {0, 0.2f, 16}, {0.1f, 0.2f, 16}});
    f.points("transp_v", {{0, -3, 4}, {1, 0.5f, 4}, {2, 9, 4}});
    const float emult = f.p.getFloat("emult");
    f.run(15);

    const auto t = f.points("epower_t");
    ASSERT_EQ(t.size(), 9u);
    EXPECT_EQ(t[0].x, 310.0f);
    EXPECT_EQ(t[1].x, 300.0f);
    EXPECT_EQ(t[2].x, 290.0f);
    // Divided by T / 1000: 4 / 0.9, 4 / 1, 4 / 1.1, 8 / 1.9, 8 / 2, 8 / 2.1; the largest,
    // 4 / 0.9, becomes 1 and moves into emult.
    const float largest = 4.0f / 0.9f;
    EXPECT_FLOAT_EQ(t[3].y, 1.0f);
    EXPECT_FLOAT_EQ(t[4].y, 4.0f / largest);
    EXPECT_FLOAT_EQ(t[8].y, 8.0f / 2.1f / largest);
    EXPECT_FLOAT_EQ(t[1].y, -0.01f / largest);
    EXPECT_FLOAT_EQ(f.p.getFloat("emult"), emult * largest);

    // Smoke: scaled positions below 500 K are not divided; / blackbody gives 0.4.
    const auto s = f.points("epower_s");
    ASSERT_EQ(s.size(), 3u);
    EXPECT_FLOAT_EQ(s[1].y, 0.4f);
    const auto tv = f.points("transp_v");
    EXPECT_FLOAT_EQ(tv[0].y, -0.05f);
    EXPECT_FLOAT_EQ(tv[1].y, 0.5f);
    EXPECT_FLOAT_EQ(tv[2].y, 1.05f);
}

TEST(ParamUpgrade, Step15OwnOpacityScalesEtmultAndLimitsBelow) {
    Fixture f;
    f.p.setInt("fire_opacity_mode", 0, 2);
    f.p.setInt("earg", 0, 10);
    f.context.blackbodyLuminance = [](float) { return 1.0f; };  // not used in mode 2
    f.points("epower_f", {{0.5f, -1, 16}, {1, 3, 16}, {1.5f, 6, 16}});
    f.run(15);
    const auto e = f.points("epower_f");
    ASSERT_EQ(e.size(), 6u);  // (1, -0.01), (0, -0.01), (-1, -0.01) in front
    EXPECT_EQ(e[1].x, 0.0f);
    EXPECT_FLOAT_EQ(e[3].y, -0.05f);  // -1 / 6 limited
    EXPECT_FLOAT_EQ(e[5].y, 1.0f);
    EXPECT_FLOAT_EQ(f.p.getFloat("etmult"), 6.0f);
    EXPECT_FLOAT_EQ(f.p.getFloat("emult"), 1.0f);
}

TEST(ParamUpgrade, Step16KeepsTheMiddleOfEachTriple) {
    Fixture f;
    f.points("transp_f", {{0, 0, 0}, {1, 1, 0}, {2, 2, 0}, {3, 3, 0}, {4, 4, 0}, {5, 5, 0}});
    f.points("epower_v", {{0, 0, 0}, {1, 1, 0}});
    f.run(16);
    const auto t = f.points("transp_f");
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0].x, 1.0f);
    EXPECT_EQ(t[1].x, 4.0f);
    EXPECT_EQ(f.points("epower_v").size(), 2u);
}

TEST(ParamUpgrade, Step17To20) {
    Fixture f;
    f.p.setInt("lights", 0, 0);
    f.p.setInt("dontask", 0, 5);
    f.p.setInt("rendMode", 0, 4);
    std::vector<int> kinds;
    f.context.cachePath = [&](int kind) {
        kinds.push_back(kind);
        return std::string("/c/a_####.vdb");
    };
    f.context.defaultChannelMap = [](const std::string&) { return std::string("1=temperature"); };
    for (int v = 17; v <= 20; ++v) EXPECT_TRUE(f.run(v));
    EXPECT_EQ(f.p.getInt("al_enable"), 0);
    EXPECT_EQ(f.p.getInt("lights"), 500);
    ASSERT_EQ(f.p.getCount("dontshow"), 1);
    EXPECT_EQ(f.p.getInt("dontshow", 0, 0), 5);
    EXPECT_EQ(kinds, std::vector<int>{101});
    EXPECT_EQ(f.p.getString("usrchmap"), "1=temperature");
    EXPECT_EQ(f.p.getInt("rendMode"), 1);

    Fixture g;
    g.p.setInt("lights", 0, 800);
    g.run(17);
    EXPECT_EQ(g.p.getInt("al_enable"), 1);
    EXPECT_EQ(g.p.getInt("lights"), 800);
    const int renumbered[7] = {0, 4, 5, 6, 1, 2, 3};
    for (int m = 0; m < 7; ++m) {
        g.p.setInt("rendMode", 0, m);
        g.run(20);
        EXPECT_EQ(g.p.getInt("rendMode"), renumbered[m]);
    }
}

TEST(ParamUpgrade, Step23RefreshesAndStep24CopiesTheOldTables) {
    Fixture f;
    int refreshed = 0;
    f.context.refresh = [&] { ++refreshed; };
    f.run(23);
    EXPECT_EQ(refreshed, 1);

    f.p.setCount("ecolorx_s", 2);
    f.p.setFloat("ecolorx_s", 0, 0.25f, 1);
    f.points("ecolory_s", {{1, 0, 0}, {0, 1, 0}});
    f.points("dcolory_t", {{0, 0, 1}});
    f.points("transp_t", {{0, 0, 0}, {400, 1, 0}});
    f.p.setCount("ecolor_s.ecolor_si", 4);
    f.run(24);
    EXPECT_EQ(f.p.getCount("ecolor_s.ecolor_sp"), 2);
    EXPECT_EQ(f.p.getFloat("ecolor_s.ecolor_sp", 0, 1), 0.25f);
    EXPECT_EQ(f.p.getVector("ecolor_s.ecolor_sc", 0, 1), (Vector{0, 1, 0}));
    EXPECT_EQ(f.p.getCount("ecolor_s.ecolor_si"), 4);  // left as it was
    EXPECT_EQ(f.p.getCount("dcolor_t.dcolor_tc"), 1);
    EXPECT_EQ(f.p.getCount("tpower_t.tpower_t_p"), 2);
    EXPECT_EQ(f.p.getFloat("tpower_t.tpower_t_p", 0, 1), 400.0f);
    EXPECT_EQ(f.p.getFloat("tpower_t.tpower_t_v", 0, 1), 1.0f);
    EXPECT_EQ(f.p.getInt("tpower_t.tpower_t_i", 0, 0), 3);
    EXPECT_EQ(f.p.getCount("epower_t.epower_t_p"), 0);  // nothing old to copy

    MultiCurve c;
    ASSERT_TRUE(readCurve(f.p, "tpower", 1, 0.0, c));
    EXPECT_NEAR(c.evaluate(200.0f, 2), 0.5f, 1e-4f);
}

TEST(ParamUpgrade, WholeRunFromAnOldVersion) {
    Fixture f;
    f.p.setInt("version", 0, 3);
    f.p.setInt("mesher", 0, 1);  // old rendMode 1
    f.p.setInt("lights", 0, 0);
    f.p.setFloat("subred", 0, 0.5f);
    // Steps 4, 6, 7, 8, 10, 12, 13, 15, 16, 17, 18, 19, 20, 23, 24.
    EXPECT_EQ(upgradeParams(f.p, 3, f.context), 15);
    EXPECT_EQ(f.p.getInt("version"), 29);
    EXPECT_EQ(f.p.getInt("rendMode"), 4);
    EXPECT_EQ(f.p.getInt("al_enable"), 0);
    EXPECT_EQ(f.p.getInt("lights"), 500);
    EXPECT_FLOAT_EQ(f.p.getFloat("subred"), 1.0f - 1.0f / 1.5f);

    Fixture g;
    EXPECT_EQ(upgradeParams(g.p, 29, g.context), 0);
    EXPECT_EQ(upgradeParams(g.p, 23, g.context), 1);
}
