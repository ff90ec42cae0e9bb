// The shading tables of a grid object: emission, own opacity, diffuse colour and opacity baked
// from the user's curves and gradients into 8000 rows over each channel's value range.
#include "render/ShadingTables.h"

#include <cmath>

#include "editors/ColorGradient.h"
#include "editors/MultiCurve.h"
#include "playback/ParamCurves.h"
#include "playback/VaporixDefaults.h"
#include "render/Blackbody.h"

namespace vaporix {

namespace {

/// Lumens per watt: the black body's Y becomes luminance.
constexpr float LUMINOUS_EFFICACY = 683.0f;
/// The colour of self-opaque fire carries this factor, as scenes made with it expect.
constexpr float OWN_OPACITY_COLOR_FACTOR = 3.5f;
/// Transparency never reaches 0, so its logarithm stays finite.
constexpr float MIN_TRANSPARENCY = 1e-6f;
/// Emission curves extend their end segments; opacity curves hold their end values.
constexpr int EMISSION_END_MODE = 1;
constexpr int OPACITY_END_MODE = 2;

bool ensureRows(iArray<float>& a) {
    return a.count == SHADING_TABLE_ROWS || a.resize(SHADING_TABLE_ROWS, true);
}
bool ensureRows(iArray<TableColor>& a) {
    return a.count == SHADING_TABLE_ROWS || a.resize(SHADING_TABLE_ROWS, true);
}

float finiteOrZero(float v) { return std::isfinite(v) ? v : 0.0f; }

/// The physically based factor of a row: luminance over the exposure, blended with 1 by
/// `blackbody`.
struct FireScale {
    float p = 0.0f;   // 1 / physical scale
    float bb = 0.0f;  // clamp(blackbody, 0, 1)
    float temperaturePerUnit = 0.0f;

    FireScale(const VaporixParams& params, double time, const ShadingInputs& in, int earg) {
        p = 1.0f / in.physicalScale;
        const float b = params.getFloat("blackbody", time);
        bb = b > 0.0f ? (b < 1.0f ? b : 1.0f) : 0.0f;
        temperaturePerUnit = temperatureScale(earg);
    }
    float at(float v) const {
        const float y = blackbodyLuminance(v * temperaturePerUnit);
        return y * LUMINOUS_EFFICACY * p * bb + (1.0f - bb);
    }
};

/// ln(o) for an opacity already turned into a transparency, limited to 1e-6..1.
float logTransparency(float o, float sceneScale) {
    if (!(o <= 1.0f)) o = 1.0f;
    if (!(o >= MIN_TRANSPARENCY)) o = MIN_TRANSPARENCY;
    return std::log(o) * sceneScale;
}

/// Rows are computed in chunks: the arguments, then the curve and gradient over all of them
/// at once, then each row.
constexpr int CHUNK = 256;

void chunkArguments(const TableRange& range, int base, int n, float* xs) {
    for (int k = 0; k < n; ++k) xs[k] = ShadingTables::rowValue(range, base + k);
}

}  // namespace

float PhysicalScale(const IExposureControl* exposure, double time) {
    return exposure ? exposure->physicalScale(ticksFromTime(time)) : 1500.0f;
}

float SceneScale(const float* m) {
    if (!m) return 1.0f;
    float sum = 0.0f;
    for (int axis = 0; axis < 3; ++axis) {
        const float* r = m + 3 * axis;
        sum += std::sqrt(r[0] * r[0] + r[1] * r[1] + r[2] * r[2]);
    }
    return sum > 0.0f ? 3.0f / sum : 1.0f;
}

float temperatureScale(int argument) {
    switch (argument) {
        case 1:
            return 1.0f;
        case 2:
            return 3000.0f;
        case 3:
            return 10.0f;
        case 10:
            return 3000.0f;
        default:
            return 0.0f;
    }
}

TableRange argumentRange(IChannelRangeSource* frame, int argument) {
    TableRange r;
    if (!frame || !channelSuffix(argument)) return r;
    float lo = 0.0f;
    float hi = 0.0f;
    if (!frame->getChannelRange(argument, lo, hi) || !(hi >= lo)) return r;
    r.min = lo;
    r.span = hi - lo;
    return r;
}

int ShadingTables::rowOf(float a) {
    const float f = std::floor(a * static_cast<float>(SHADING_TABLE_ROWS) + 0.5f);
    if (!(f > 0.0f)) return 0;
    if (f >= static_cast<float>(SHADING_TABLE_ROWS - 1)) return SHADING_TABLE_ROWS - 1;
    return static_cast<int>(f);
}

void ShadingTables::setRanges(const VaporixParams& params,
                              double time,
                              IChannelRangeSource* frame) {
    emissionRange = argumentRange(frame, params.getInt("earg", time));
    diffuseRange = argumentRange(frame, params.getInt("darg", time));
    opacityRange = argumentRange(frame, params.getInt("targ", time));
    surfaceRange = argumentRange(frame, params.getInt("sarg", time));
}

int ShadingTables::BuildEmissionTable(const VaporixParams& params,
                                      double time,
                                      const ShadingInputs& in) {
    const int earg = params.getInt("earg", time);
    MultiCurve curve;
    ColorGradient gradient;
    if (!readCurve(params, "epower", earg, time, curve) ||
        !readGradient(params, "ecolor", earg, time, gradient))
        return 0;
    if (!ensureRows(emissionColorTable)) return -1;
    const FireScale fire(params, time, in, earg);
    const float emult = params.getFloat("emult", time);
    float xs[CHUNK], curveValues[CHUNK], rgb[3 * CHUNK];
    for (int base = 0; base < SHADING_TABLE_ROWS; base += CHUNK) {
        const int n = SHADING_TABLE_ROWS - base < CHUNK ? SHADING_TABLE_ROWS - base : CHUNK;
        chunkArguments(emissionRange, base, n, xs);
        curve.evaluateMany(xs, curveValues, n, EMISSION_END_MODE);
        gradient.evaluateMany(xs, rgb, n);
        for (int k = 0; k < n; ++k) {
            float power = curveValues[k] * fire.at(xs[k]);
            if (!std::isfinite(power) || power < 0.0f) power = 0.0f;
            // colour * power * emult, in that order: rows are reproducible to the bit.
            const float* c = rgb + 3 * k;
            emissionColorTable[base + k] =
                TableColor{finiteOrZero(c[0] * power * emult), finiteOrZero(c[1] * power * emult),
                           finiteOrZero(c[2] * power * emult)};
        }
    }
    return 1;
}

int ShadingTables::BuildEmissionOwnOpacityTable(const VaporixParams& params,
                                                double time,
                                                const ShadingInputs& in) {
    const int earg = params.getInt("earg", time);
    MultiCurve curve;
    ColorGradient gradient;
    if (!readCurve(params, "epower", earg, time, curve) ||
        !readGradient(params, "ecolor", earg, time, gradient))
        return 0;
    if (!ensureRows(emissionColorTable) || !ensureRows(emissionPowerTable)) return -1;
    const FireScale fire(params, time, in, earg);
    const float emult = params.getFloat("emult", time);
    const float etmult = params.getFloat("etmult", time);
    float xs[CHUNK], curveValues[CHUNK], rgb[3 * CHUNK];
    for (int base = 0; base < SHADING_TABLE_ROWS; base += CHUNK) {
        const int n = SHADING_TABLE_ROWS - base < CHUNK ? SHADING_TABLE_ROWS - base : CHUNK;
        chunkArguments(emissionRange, base, n, xs);
        curve.evaluateMany(xs, curveValues, n, EMISSION_END_MODE);
        gradient.evaluateMany(xs, rgb, n);
        for (int k = 0; k < n; ++k) {
            // The curve is the fire's own opacity; the row its log transparency.
            const float o = finiteOrZero(curveValues[k] * etmult);
            emissionPowerTable[base + k] = logTransparency(1.0f - o, in.sceneScale);
            // gradient * fire * emult * 3.5, in that order.
            const float f = fire.at(xs[k]);
            const float* c = rgb + 3 * k;
            emissionColorTable[base + k] =
                TableColor{finiteOrZero(c[0] * f * emult * OWN_OPACITY_COLOR_FACTOR),
                           finiteOrZero(c[1] * f * emult * OWN_OPACITY_COLOR_FACTOR),
                           finiteOrZero(c[2] * f * emult * OWN_OPACITY_COLOR_FACTOR)};
        }
    }
    return 1;
}

int ShadingTables::BuildDiffuseTable(const VaporixParams& params, double time) {
    ColorGradient gradient;
    if (!readGradient(params, "dcolor", params.getInt("darg", time), time, gradient)) return 0;
    if (!ensureRows(diffuseColorTable)) return -1;
    float xs[CHUNK], rgb[3 * CHUNK];
    for (int base = 0; base < SHADING_TABLE_ROWS; base += CHUNK) {
        const int n = SHADING_TABLE_ROWS - base < CHUNK ? SHADING_TABLE_ROWS - base : CHUNK;
        chunkArguments(diffuseRange, base, n, xs);
        gradient.evaluateMany(xs, rgb, n);
        for (int k = 0; k < n; ++k)
            diffuseColorTable[base + k] = TableColor{rgb[3 * k], rgb[3 * k + 1], rgb[3 * k + 2]};
    }
    return 1;
}

int ShadingTables::BuildOpacityTable(const VaporixParams& params,
                                     double time,
                                     const ShadingInputs& in) {
    const int targ = params.getInt("targ", time);
    if (targ == 0) return 0;
    MultiCurve curve;
    if (!readCurve(params, "tpower", targ, time, curve)) return 0;
    if (!ensureRows(opacityTable)) return -1;
    const bool opacityCurve = params.getInt("transpmode", time) != 0;
    float xs[CHUNK], curveValues[CHUNK];
    for (int base = 0; base < SHADING_TABLE_ROWS; base += CHUNK) {
        const int n = SHADING_TABLE_ROWS - base < CHUNK ? SHADING_TABLE_ROWS - base : CHUNK;
        chunkArguments(opacityRange, base, n, xs);
        curve.evaluateMany(xs, curveValues, n, OPACITY_END_MODE);
        for (int k = 0; k < n; ++k) {
            float o = finiteOrZero(curveValues[k]);
            if (opacityCurve) o = 1.0f - o;
            opacityTable[base + k] = logTransparency(o, in.sceneScale);
        }
    }
    return 1;
}

void ShadingTables::buildFrameTables(const VaporixParams& params,
                                     double time,
                                     const ShadingInputs& in) {
    if (params.getInt("fire_opacity_mode", time) == 2)
        BuildEmissionOwnOpacityTable(params, time, in);
    else
        BuildEmissionTable(params, time, in);
    BuildDiffuseTable(params, time);
    BuildOpacityTable(params, time, in);
}

// ---------------------------------------------------------------------------------------------
// Default curves

namespace {

/// Channels a reset touches: one, or all four for -1.
template <typename F>
void forChannels(int channel, F&& f) {
    if (channel == -1) {
        for (int c : CURVE_CHANNELS) f(c);
    } else if (channelSuffix(channel)) {
        f(channel);
    }
}

/// The upper end of the default diffuse and opacity ramps by channel.
float rampTop(int channel) {
    switch (channel) {
        case 1:
            return 4000.0f;
        case 3:
            return 400.0f;
        default:
            return 1.0f;
    }
}

/// Plain parameters of a rollout back to their defaults.
void resetRollout(VaporixParams& params, int map) {
    const ParamBlockDef& block = renderBlock();
    for (int i = 0; i < block.count; ++i) {
        const ParamDef& def = block.params[i];
        if (def.isTab() || def.ui.map != map) continue;
        const ParamValue v = defaultValue(def, &gridObjectDefaults());
        switch (def.type) {
            case ParamType::Int:
            case ParamType::Bool:
                params.setInt(def.name, 0.0, v.i);
                break;
            case ParamType::Float:
                params.setFloat(def.name, 0.0, v.f);
                break;
            case ParamType::Point3:
                params.setVector(def.name, 0.0, v.v);
                break;
            case ParamType::String:
            case ParamType::Texmap:
                params.setString(def.name, 0.0, v.s);
                break;
            case ParamType::Node:
                params.setNode(def.name, 0.0, v.node);
                break;
        }
    }
}

constexpr int FIRE_ROLLOUT = 1;
constexpr int SMOKE_COLOR_ROLLOUT = 2;
constexpr int SMOKE_OPACITY_ROLLOUT = 3;

}  // namespace

void ResetEmission(VaporixParams& params, int channel) {
    if (channel == -1) resetRollout(params, FIRE_ROLLOUT);
    forChannels(channel, [&](int c) {
        // Five spline keys from 800 K to 3000 K: power rising from 0 to 1, coloured by the
        // black body at each temperature with its largest component at 1.
        const float perKelvin = c == 1 ? 1.0f : (c == 3 ? 0.1f : 1.0f / 3000.0f);
        MultiCurve curve;
        ColorGradient gradient;
        for (int j = 0; j < 5; ++j) {
            const float t = 800.0f + 550.0f * static_cast<float>(j);
            const float x = perKelvin * t;
            curve.insertPoint(j, VpxRenderSets::MCP_SPLINE, x, (t - 800.0f) / 2200.0f);
            float rgb[3];
            blackbodyRGB(t, rgb);
            const float top = std::fmax(rgb[0], std::fmax(rgb[1], rgb[2]));
            for (float& k : rgb) k = top > 0.0f ? k / top : 0.0f;
            gradient.insertKey(j, x, rgb);
        }
        writeCurve(params, "epower", c, 0.0, curve);
        writeGradient(params, "ecolor", c, 0.0, gradient);
    });
}

void ResetDiffuse(VaporixParams& params, int channel) {
    if (channel == -1) resetRollout(params, SMOKE_COLOR_ROLLOUT);
    forChannels(channel, [&](int c) {
        static const float COLORS[4][3] = {{0, 0, 1}, {0, 1, 0}, {1, 1, 0}, {1, 0, 0}};
        ColorGradient gradient;
        for (int j = 0; j < 4; ++j)
            gradient.insertKey(j, static_cast<float>(j) * rampTop(c) / 3.0f, COLORS[j]);
        writeGradient(params, "dcolor", c, 0.0, gradient);
    });
}

void ResetOpacity(VaporixParams& params, int channel) {
    if (channel == -1) resetRollout(params, SMOKE_OPACITY_ROLLOUT);
    forChannels(channel, [&](int c) {
        MultiCurve curve;
        curve.insertPoint(0, VpxRenderSets::MCP_SPLINE, 0.0f, 0.0f);
        curve.insertPoint(1, VpxRenderSets::MCP_SPLINE, rampTop(c), 1.0f);
        writeCurve(params, "tpower", c, 0.0, curve);
    });
}

// ---------------------------------------------------------------------------------------------
// What a shader gets

ShaderTableSelection selectShaderTables(const VaporixParams& params,
                                        double time,
                                        const ShadingTables& tables,
                                        const ShaderTextures& textures) {
    ShaderTableSelection s;
    const int earg = params.getInt("earg", time);
    const int darg = params.getInt("darg", time);
    int targ = params.getInt("targ", time);
    const int sarg = params.getInt("sarg", time);

    s.emissionFromTexture = earg == 4 && textures.emission;
    s.diffuseFromTexture = darg == 4 && textures.diffuse;
    s.surfaceFromTexture = sarg == 0 && textures.surface;
    // An opacity texture that is missing turns the mapping back to simple smoke.
    if (targ == 4 && !textures.opacity) targ = 0;
    s.opacityFromTexture = targ == 4;
    s.hasEmission = earg != 0 && (earg != 4 || textures.emission);
    s.hasDiffuse = darg != 0 && (darg != 4 || textures.diffuse);

    if (earg != 5) {
        s.emissionColorTable = tables.emissionColorTable.count == SHADING_TABLE_ROWS
                                   ? tables.emissionColorTable.data
                                   : nullptr;
        s.emissionPowerTable = tables.emissionPowerTable.count == SHADING_TABLE_ROWS
                                   ? tables.emissionPowerTable.data
                                   : nullptr;
    }
    if (darg != 5 && darg != 6 && !s.diffuseFromTexture &&
        tables.diffuseColorTable.count == SHADING_TABLE_ROWS)
        s.diffuseColorTable = tables.diffuseColorTable.data;
    if (targ != 0 && tables.opacityTable.count == SHADING_TABLE_ROWS)
        s.opacityTable = tables.opacityTable.data;

    s.opacityArgument = targ;
    s.opacityChannel = targ == 0 ? 2 : targ;
    s.opacityRange = targ == 0 ? TableRange{} : tables.opacityRange;

    // The constant colour, or the table's mean for scattering and fast approximations.
    if (s.diffuseColorTable) {
        double sum[3] = {0.0, 0.0, 0.0};
        for (int i = 0; i < SHADING_TABLE_ROWS; ++i) {
            sum[0] += static_cast<double>(s.diffuseColorTable[i].r);
            sum[1] += static_cast<double>(s.diffuseColorTable[i].g);
            sum[2] += static_cast<double>(s.diffuseColorTable[i].b);
        }
        s.simpleColor = TableColor{static_cast<float>(sum[0] / SHADING_TABLE_ROWS),
                                   static_cast<float>(sum[1] / SHADING_TABLE_ROWS),
                                   static_cast<float>(sum[2] / SHADING_TABLE_ROWS)};
    } else {
        const Vector c = params.getVector("simple_color", time);
        s.simpleColor = TableColor{c.x, c.y, c.z};
    }

    const bool anyTexture = s.emissionFromTexture || s.diffuseFromTexture || s.opacityFromTexture ||
                            s.surfaceFromTexture;
    s.fetchRGB = darg == 6 || earg == 5 || anyTexture;
    if (s.hasEmission && !s.emissionFromTexture) s.shadeChannelMask |= 1;
    if (s.hasDiffuse && s.diffuseColorTable && !s.diffuseFromTexture) s.shadeChannelMask |= 2;
    if (s.fetchRGB) s.shadeChannelMask |= 0x70;

    if (params.getInt("solidbelow", time)) {
        s.surfaceRemapOffset = 2.0f * params.getFloat("surflevel", time);
        s.surfaceRemapScale = -1.0f;
    }
    return s;
}

}  // namespace vaporix
