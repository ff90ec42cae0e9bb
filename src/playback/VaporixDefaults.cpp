// Defaults that a parameter's declaration asks its owner for, and the grid object's overrides.
#include "playback/VaporixDefaults.h"

#include <cmath>

namespace vaporix {

VaporixDefaults::~VaporixDefaults() = default;

int VaporixDefaults::getInt(const char*, int fallback) const { return fallback; }
float VaporixDefaults::getFloat(const char*, float fallback) const { return fallback; }
void VaporixDefaults::getVector(Vector& out, const char*, const Vector& fallback) const {
    out = fallback;
}
std::string VaporixDefaults::getString(const char*, const std::string& fallback) const {
    return fallback;
}

VaporixDefaultsMax::VaporixDefaultsMax() {
    mInts.max_load_factor(0.75f);
    mFloats.max_load_factor(0.75f);
    mVectors.max_load_factor(0.75f);
    mStrings.max_load_factor(0.75f);
}

int VaporixDefaultsMax::getInt(const char* name, int fallback) const {
    const auto it = mInts.find(name);
    return it == mInts.end() ? fallback : it->second;
}

float VaporixDefaultsMax::getFloat(const char* name, float fallback) const {
    const auto it = mFloats.find(name);
    return it == mFloats.end() ? fallback : it->second;
}

void VaporixDefaultsMax::getVector(Vector& out, const char* name, const Vector& fallback) const {
    const auto it = mVectors.find(name);
    out = it == mVectors.end() ? fallback : it->second;
}

std::string VaporixDefaultsMax::getString(const char* name, const std::string& fallback) const {
    const auto it = mStrings.find(name);
    return it == mStrings.end() ? fallback : it->second;
}

const VaporixDefaults& gridObjectDefaults() {
    static const VaporixDefaultsMax defaults = [] {
        VaporixDefaultsMax d;
        d.setString("rendinput", "");
        d.setVector("prv_t_color2", Vector{1.0f, 1.0f, 0.0f});
        d.setInt("prv_particles", 0);
        return d;
    }();
    return defaults;
}

ParamValue defaultValue(const ParamDef& def, const VaporixDefaults* defaults) {
    static const VaporixDefaults fallbackOnly;
    const VaporixDefaults& d = (def.flags & PF_ASK_DEFAULT) && defaults ? *defaults : fallbackOnly;
    ParamValue v;
    if (!def.def.given) return v;
    switch (def.type) {
        case ParamType::Int:
        case ParamType::Bool:
            v.i = d.getInt(def.name, static_cast<int>(def.def.v[0]));
            break;
        case ParamType::Float:
            v.f = d.getFloat(def.name, static_cast<float>(def.def.v[0]));
            break;
        case ParamType::Point3:
            d.getVector(v.v, def.name,
                        Vector{static_cast<float>(def.def.v[0]), static_cast<float>(def.def.v[1]),
                               static_cast<float>(def.def.v[2])});
            break;
        case ParamType::String:
        case ParamType::Texmap:
            v.s = d.getString(def.name, def.def.s ? def.def.s : "");
            break;
        case ParamType::Node:
            break;
    }
    return v;
}

namespace {
float clampFloat(float x, double lo, double hi) {
    // NaN stays NaN here; the caller decides. Limits are compared in double so that large
    // ranges (1e20) are not rounded.
    if (static_cast<double>(x) < lo) return static_cast<float>(lo);
    if (static_cast<double>(x) > hi) return static_cast<float>(hi);
    return x;
}
}  // namespace

ParamValue clampToRange(const ParamDef& def, const ParamValue& value) {
    ParamValue v = value;
    if (def.type == ParamType::Bool) v.i = v.i != 0 ? 1 : 0;
    if (!def.range.given) return v;
    const double lo = def.range.min;
    const double hi = def.range.max;
    switch (def.type) {
        case ParamType::Int:
            if (v.i < lo) v.i = static_cast<int>(lo);
            if (v.i > hi) v.i = static_cast<int>(hi);
            break;
        case ParamType::Float:
            v.f = clampFloat(v.f, lo, hi);
            break;
        case ParamType::Point3:
            v.v.x = clampFloat(v.v.x, lo, hi);
            v.v.y = clampFloat(v.v.y, lo, hi);
            v.v.z = clampFloat(v.v.z, lo, hi);
            break;
        default:
            break;
    }
    return v;
}

}  // namespace vaporix
