// The steps that bring the parameters of an older scene up to the present version.
#include "playback/ParamUpgrade.h"

#include <algorithm>
#include <vector>

#include "editors/Bezier.h"
#include "playback/ParamCurves.h"

namespace vaporix {

namespace {

using Points = std::vector<Vector>;

constexpr double NOW = 0.0;  // upgrades work on the values at time 0

Points readPoints(const VaporixParams& p, const std::string& name) {
    Points pts;
    const int n = p.getCount(name.c_str());
    pts.reserve(static_cast<size_t>(std::max(n, 0)));
    for (int k = 0; k < n; ++k) pts.push_back(p.getVector(name.c_str(), NOW, k));
    return pts;
}

void writePoints(VaporixParams& p, const std::string& name, const Points& pts) {
    if (!p.setCount(name.c_str(), static_cast<int>(pts.size()))) return;
    for (size_t k = 0; k < pts.size(); ++k)
        p.setVector(name.c_str(), NOW, pts[k], static_cast<int>(k));
}

/// The evaluator of the old curve form: Bezier triples of (in-handle, key, out-handle).
float oldEvaluate(const Points& pts, float x) {
    std::vector<Bezier::Point> b;
    b.reserve(pts.size());
    for (const Vector& v : pts) b.push_back(Bezier::Point{v.x, v.y, v.z});
    return Bezier::evaluate(b.data(), static_cast<int>(b.size()), x);
}

// Step 1: the old curves were straight lines between their points. Each point becomes a key
// with handles a third of the way along its chords (the extended chord at the ends), which is
// the same polyline in Bezier form; the flag value goes in the third component.
void step1(VaporixParams& p, const UpgradeContext&) {
    for (int ch : {1, 2, 3}) {
        for (const char* family : {"epower", "transp"}) {
            const float flag =
                family[0] == 'e' ? OLD_EMISSIVE_CURVE_FLAG : OLD_TRANSPARENCY_CURVE_FLAG;
            const std::string name = oldCurveName(family, ch);
            const Points old = readPoints(p, name);
            const size_t n = old.size();
            if (n == 0) continue;
            Points out;
            out.reserve(3 * n);
            for (size_t k = 0; k < n; ++k) {
                const Vector& v = old[k];
                float dlx = 1.0f, dly = 0.0f, drx = 1.0f, dry = 0.0f;
                if (n > 1) {
                    const Vector& a = k > 0 ? old[k - 1] : old[0];
                    const Vector& b = k > 0 ? old[k] : old[1];
                    dlx = b.x - a.x;
                    dly = b.y - a.y;
                    const Vector& c = k + 1 < n ? old[k] : old[n - 2];
                    const Vector& d = k + 1 < n ? old[k + 1] : old[n - 1];
                    drx = d.x - c.x;
                    dry = d.y - c.y;
                }
                out.push_back(Vector{v.x - dlx / 3.0f, v.y - dly / 3.0f, flag});
                out.push_back(Vector{v.x, v.y, flag});
                out.push_back(Vector{v.x + drx / 3.0f, v.y + dry / 3.0f, flag});
            }
            writePoints(p, name, out);
        }
    }
}

// Step 4: the render mode from the old switches.
void step4(VaporixParams& p, const UpgradeContext&) {
    int mode = 0;
    if (p.getInt("mesher"))
        mode = p.getInt("ocean") ? 2 : 1;
    else if (p.getInt("geommode"))
        mode = p.getInt("rendsolid") ? 6 : (p.getInt("heathaze") ? 5 : 4);
    p.setInt("rendMode", NOW, mode);
}

// Step 6: the emissive curve of the active channel resampled to 20 keys over its range and a
// tenth beyond, each with handles a quarter step off that follow the old curve's slope.
void step6(VaporixParams& p, const UpgradeContext&) {
    const std::string name = oldCurveName("epower", p.getInt("earg"));
    if (name.empty()) return;
    const Points old = readPoints(p, name);
    if (old.empty() || old.size() % 3 != 0) return;
    const float first = old[1].x;
    const float last = old[old.size() - 2].x;
    const float start = first - (last - first) / 20.0f;
    const float width = (last - first) * 1.1f;
    const float step = width / 20.0f;
    // A curve of one position has no range to resample over.
    if (!(step > 0.0f)) return;
    Points out;
    out.reserve(60);
    for (int i = 0; i < 20; ++i) {
        const float x = static_cast<float>(i) * step + start;
        const float q = step / 4.0f;
        const float y = oldEvaluate(old, x);
        const float dy = oldEvaluate(old, x + q) - y;
        out.push_back(Vector{x - q, y - dy, OLD_EMISSIVE_CURVE_FLAG});
        out.push_back(Vector{x, y, OLD_EMISSIVE_CURVE_FLAG});
        out.push_back(Vector{x + q, y + dy, OLD_EMISSIVE_CURVE_FLAG});
    }
    writePoints(p, name, out);
}

// Step 7: the fire's opacity mode from two old switches.
void step7(VaporixParams& p, const UpgradeContext&) {
    const int mode = p.getInt("fire_has_alpha") ? 2 : (p.getInt("no_alpha_e") ? 1 : 0);
    p.setInt("fire_opacity_mode", NOW, mode);
}

// Step 8: old scenes held a folder or name prefix; it becomes the pattern of the sequence.
void step8(VaporixParams& p, const UpgradeContext& c) {
    const std::string input = p.getString("rendinput");
    for (const char* macro : {"$(simoutput)", "$(implicit)", "$(same_as_output)", "$(scene_dir)",
                              "$(resimoutput)", "$(same_as_resimoutput)"})
        if (input == macro) return;
    if (!c.findSequenceByPrefix) return;
    const std::string pattern = c.findSequenceByPrefix(input);
    if (!pattern.empty()) p.setString("rendinput", NOW, pattern);
}

// Step 10: one GPU light node became a list.
void step10(VaporixParams& p, const UpgradeContext& c) {
    NodeHandle node = p.getNode("gpu_lightnode");
    if (!node && c.onlyLightNode) node = c.onlyLightNode();
    if (node && p.setCount("gpu_lightnodes", 1)) p.setNode("gpu_lightnodes", NOW, node, 0);
    p.setInt("gpu_light_incl", NOW, 1);
}

// Step 12: the subdivision reduction moved to a bounded scale.
void step12(VaporixParams& p, const UpgradeContext&) {
    const float s = p.getFloat("subred");
    p.setFloat("subred", NOW, 1.0f - 1.0f / (s + 1.0f));
}

// Step 13: shadow rays got their own step, starting at the shading step.
void step13(VaporixParams& p, const UpgradeContext&) {
    p.setInt("rendshadstep", NOW, p.getInt("rendstep"));
}

// Step 15: curves normalised to physically based fire. Emission is now multiplied by the
// black body's luminance, so old values are divided by it; a key below the curve's start turns
// emission off there; the largest value moves into the multiplier of the active channel.
void step15(VaporixParams& p, const UpgradeContext& c) {
    constexpr float SCALE[4] = {1.0f, 3000.0f, 10.0f, 3000.0f};
    const int mode = p.getInt("fire_opacity_mode");
    const int earg = p.getInt("earg");
    const float bb = p.getFloat("blackbody");
    for (int k = 0; k < 4; ++k) {
        const int ch = CURVE_CHANNELS[k];
        const std::string power = oldCurveName("epower", ch);
        Points pts = readPoints(p, power);
        if (!pts.empty()) {
            if ((mode == 0 || mode == 1) && c.blackbodyLuminance) {
                for (Vector& v : pts) {
                    const float t = v.x * SCALE[k];
                    if (!(t > 500.0f)) continue;
                    const float lum = 683.0f * c.blackbodyLuminance(t);
                    if (lum > 0.001f) v.y /= lum;
                }
            }
            if (pts.size() >= 2) {
                const bool startsLow = ch == 1 ? pts[1].x <= 301.0f : pts[1].x <= 0.001f;
                if (startsLow) {
                    if (bb > 0.0f)
                        for (Vector& v : pts) v.y /= bb;
                } else {
                    const float at = ch == 1 ? 300.0f : 0.0f;
                    const float off = ch == 1 ? 10.0f : 1.0f;
                    const Vector head[3] = {{at + off, -0.01f, OLD_EMISSIVE_CURVE_FLAG},
                                            {at, -0.01f, OLD_EMISSIVE_CURVE_FLAG},
                                            {at - off, -0.01f, OLD_EMISSIVE_CURVE_FLAG}};
                    pts.insert(pts.begin(), head, head + 3);
                }
            }
            float largest = 0.0f;
            for (const Vector& v : pts) largest = std::max(largest, v.y);
            for (Vector& v : pts) {
                if (largest > 1.0f) v.y /= largest;
                if (!(v.y >= -0.05f)) v.y = -0.05f;
            }
            if (largest > 1.0f && ch == earg) {
                const char* mult = mode == 2 ? "etmult" : "emult";
                p.setFloat(mult, NOW, p.getFloat(mult) * largest);
            }
            writePoints(p, power, pts);
        }
        const std::string transp = oldCurveName("transp", ch);
        Points tp = readPoints(p, transp);
        for (Vector& v : tp) v.y = v.y > -0.05f ? (v.y < 1.05f ? v.y : 1.05f) : -0.05f;
        if (!tp.empty()) writePoints(p, transp, tp);
    }
}

// Step 16: the old curves keep their keys only; the handles of every triple go.
void step16(VaporixParams& p, const UpgradeContext&) {
    for (int ch : CURVE_CHANNELS) {
        for (const char* family : {"epower", "transp"}) {
            const std::string name = oldCurveName(family, ch);
            const int n = p.getCount(name.c_str());
            if (n <= 0 || n % 3 != 0) continue;
            for (int t = n / 3 - 1; t >= 0; --t) {
                p.deleteItem(name.c_str(), 3 * t + 2, 1);
                p.deleteItem(name.c_str(), 3 * t, 1);
            }
        }
    }
}

// Step 17: a light count of 0 used to mean "no emissive lights".
void step17(VaporixParams& p, const UpgradeContext&) {
    const int lights = p.getInt("lights");
    if (lights == 0) p.setInt("al_enable", NOW, 0);
    if (lights < 500) p.setInt("lights", NOW, 500);
}

// Step 18: one mute switch became a bit list.
void step18(VaporixParams& p, const UpgradeContext&) {
    const int dontask = p.getInt("dontask");
    if (p.setCount("dontshow", 1)) p.setInt("dontshow", NOW, dontask, 0);
}

// Step 19: the channel map of a foreign cache became a parameter.
void step19(VaporixParams& p, const UpgradeContext& c) {
    if (!c.cachePath || !c.defaultChannelMap) return;
    const std::string path = c.cachePath(101);
    if (path.empty()) return;
    const std::string map = c.defaultChannelMap(path);
    if (!map.empty()) p.setString("usrchmap", NOW, map);
}

// Step 20: the render modes were renumbered.
void step20(VaporixParams& p, const UpgradeContext&) {
    constexpr int RENUMBER[7] = {0, 4, 5, 6, 1, 2, 3};
    const int mode = p.getInt("rendMode");
    if (mode >= 0 && mode < 7) p.setInt("rendMode", NOW, RENUMBER[mode]);
}

// Step 23: nothing to change, the host refreshes the object.
void step23(VaporixParams&, const UpgradeContext& c) {
    if (c.refresh) c.refresh();
}

// Step 24: the flat tables moved to the three-table form. Only tables that hold something are
// copied, so that a set that already has the new form keeps it.
void step24(VaporixParams& p, const UpgradeContext&) {
    for (int ch : CURVE_CHANNELS) {
        for (const char* family : {"ecolor", "dcolor"}) {
            const std::string xs = oldGradientName(family, ch, 'x');
            const std::string ys = oldGradientName(family, ch, 'y');
            const std::string pp = gradientTableName(family, ch, 'p');
            const std::string cc = gradientTableName(family, ch, 'c');
            const int nx = p.getCount(xs.c_str());
            const int ny = p.getCount(ys.c_str());
            if (nx > 0 && p.setCount(pp.c_str(), nx))
                for (int k = 0; k < nx; ++k)
                    p.setFloat(pp.c_str(), NOW, p.getFloat(xs.c_str(), NOW, k), k);
            if (ny > 0 && p.setCount(cc.c_str(), ny))
                for (int k = 0; k < ny; ++k)
                    p.setVector(cc.c_str(), NOW, p.getVector(ys.c_str(), NOW, k), k);
        }
        for (const char* family : {"epower", "transp"}) {
            const std::string old = oldCurveName(family, ch);
            const char* to = family[0] == 'e' ? "epower" : "tpower";
            const Points pts = readPoints(p, old);
            if (pts.empty()) continue;
            const std::string pp = curveTableName(to, ch, 'p');
            const std::string vv = curveTableName(to, ch, 'v');
            const std::string ii = curveTableName(to, ch, 'i');
            const int n = static_cast<int>(pts.size());
            if (!p.setCount(pp.c_str(), n) || !p.setCount(vv.c_str(), n) ||
                !p.setCount(ii.c_str(), n))
                continue;
            for (int k = 0; k < n; ++k) {
                p.setFloat(pp.c_str(), NOW, pts[static_cast<size_t>(k)].x, k);
                p.setFloat(vv.c_str(), NOW, pts[static_cast<size_t>(k)].y, k);
                p.setInt(ii.c_str(), NOW, 3, k);
            }
        }
    }
}

using Step = void (*)(VaporixParams&, const UpgradeContext&);

Step stepOf(int version) {
    switch (version) {
        case 1:
            return step1;
        case 4:
            return step4;
        case 6:
            return step6;
        case 7:
            return step7;
        case 8:
            return step8;
        case 10:
            return step10;
        case 12:
            return step12;
        case 13:
            return step13;
        case 15:
            return step15;
        case 16:
            return step16;
        case 17:
            return step17;
        case 18:
            return step18;
        case 19:
            return step19;
        case 20:
            return step20;
        case 23:
            return step23;
        case 24:
            return step24;
        default:
            return nullptr;
    }
}

}  // namespace

bool runUpgradeStep(int version, VaporixParams& params, const UpgradeContext& context) {
    const Step step = stepOf(version);
    if (!step) return false;
    step(params, context);
    return true;
}

int upgradeParams(VaporixParams& params, int fromVersion, const UpgradeContext& context) {
    int steps = 0;
    for (int v = std::max(fromVersion + 1, 1); v <= PARAMS_VERSION; ++v)
        if (runUpgradeStep(v, params, context)) ++steps;
    params.setInt("version", NOW, PARAMS_VERSION);
    return steps;
}

}  // namespace vaporix
