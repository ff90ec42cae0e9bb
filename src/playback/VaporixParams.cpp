// Access to a grid object's parameters by name, and its implementation on the two blocks.
#include "playback/VaporixParams.h"

#include <cmath>
#include <cstring>

#include "playback/VaporixDefaults.h"

namespace vaporix {

VaporixParams::~VaporixParams() = default;

const char* smoothingParamFor(int smCh, bool enable) {
    switch (smCh) {
        case 1:
            return enable ? "enablesmoothtemp" : "smoothtemp";
        case 2:
            return enable ? "enablesmoothsmoke" : "smoothsmoke";
        case 101:
            return enable ? "enablesmoothuvw" : "smoothuvw";
        case 10:
            return enable ? "enablesmoothfuel" : "smoothfuel";
        case 100:
            return enable ? "enablesmoothvel" : "smoothvel";
        default:
            return nullptr;
    }
}

const char* surfaceLevelParamFor(int sarg) {
    switch (sarg) {
        case 0:
            return "surflevel_m";
        case 1:
            return "surflevel_t";
        case 2:
            return "surflevel_s";
        case 3:
            return "surflevel_v";
        case 10:
            return "surflevel_fl";
        default:
            return nullptr;
    }
}

namespace {

int toInt(float f) {
    if (!(f > -2147483648.0f && f < 2147483648.0f)) return 0;
    return static_cast<int>(f);
}

}  // namespace

const ParamDef* VaporixParamsMax::resolve(const char* name, double time) const {
    if (!name) return nullptr;
    // The panel's views of one channel: redirect to that channel's own parameter.
    const bool enableView = std::strcmp(name, "smoothenable_face") == 0;
    const char* target = nullptr;
    if (enableView || std::strcmp(name, "smoothprm_face") == 0) {
        target = smoothingParamFor(getInt("sm_ch", time), enableView);
    } else if (std::strcmp(name, "surflevel") == 0) {
        target = surfaceLevelParamFor(getInt("sarg", time));
    }
    if (target) {
        if (const ParamDef* def = findParamDef(target)) return def;
    }
    return findParamDef(name);
}

bool VaporixParamsMax::read(
    const char* name, double time, int tab, ParamValue& out, const ParamDef** def) const {
    const ParamDef* d = resolve(name, time);
    if (!d) return false;
    if (!mStorage.get(*d, ticksFromTime(time), tab, out)) return false;
    *def = d;
    return true;
}

int VaporixParamsMax::getInt(const char* name, double time, int tab) const {
    ParamValue v;
    const ParamDef* def = nullptr;
    if (!read(name, time, tab, v, &def)) return 0;
    if (def->type == ParamType::Int || def->type == ParamType::Bool) return v.i;
    if (def->type == ParamType::Float) return toInt(v.f);
    return 0;
}

float VaporixParamsMax::getFloat(const char* name, double time, int tab) const {
    ParamValue v;
    const ParamDef* def = nullptr;
    if (!read(name, time, tab, v, &def)) return 0.0f;
    if (def->type == ParamType::Float) return v.f;
    if (def->type == ParamType::Int || def->type == ParamType::Bool) return static_cast<float>(v.i);
    return 0.0f;
}

void VaporixParamsMax::getVector(Vector& out, const char* name, double time, int tab) const {
    ParamValue v;
    const ParamDef* def = nullptr;
    out = Vector{};
    if (read(name, time, tab, v, &def) && def->type == ParamType::Point3) out = v.v;
}

void VaporixParamsMax::getString(std::string& out, const char* name, double time, int tab) const {
    ParamValue v;
    const ParamDef* def = nullptr;
    out.clear();
    if (read(name, time, tab, v, &def) &&
        (def->type == ParamType::String || def->type == ParamType::Texmap))
        out = v.s;
}

NodeHandle VaporixParamsMax::getNode(const char* name, double time, int tab) const {
    ParamValue v;
    const ParamDef* def = nullptr;
    if (read(name, time, tab, v, &def) && def->type == ParamType::Node) return v.node;
    return 0;
}

int VaporixParamsMax::getCount(const char* name) const {
    const ParamDef* def = name ? findParamDef(name) : nullptr;
    return def ? mStorage.count(*def) : 0;
}

int VaporixParamsMax::findBlock(const char* name, int& blockId) const {
    int block = -1;
    int index = -1;
    if (!name || !findParamDef(name, &block, &index)) return -1;
    blockId = paramBlock(block).id;
    return index;
}

bool VaporixParamsMax::write(const char* name, double time, int tab, const ParamValue& value) {
    const ParamDef* def = resolve(name, time);
    if (!def) return false;
    // A view keeps the range of its control; the parameter behind it its own.
    ParamValue v = value;
    if (const ParamDef* view = findParamDef(name); view && view != def) v = clampToRange(*view, v);
    if (!mStorage.set(*def, ticksFromTime(time), tab, clampToRange(*def, v))) return false;

    // The path's accessor: a new cache resets the preview reduction and brings its channel map.
    if (std::strcmp(def->name, "rendinput") == 0) {
        if (getInt("prv_autoreduct", time)) setInt("prv_dwnsmp", time, 0);
        if (mChannelMaps && getString("usrchmap", time).empty())
            setString("usrchmap", time, mChannelMaps(value.s));
    }
    return true;
}

bool VaporixParamsMax::setInt(const char* name, double time, int value, int tab) {
    const ParamDef* def = resolve(name, time);
    if (!def) return false;
    if (def->type == ParamType::Int || def->type == ParamType::Bool)
        return write(name, time, tab, ParamValue::ofInt(value));
    if (def->type == ParamType::Float)
        return write(name, time, tab, ParamValue::ofFloat(static_cast<float>(value)));
    return false;
}

bool VaporixParamsMax::setFloat(const char* name, double time, float value, int tab) {
    const ParamDef* def = resolve(name, time);
    if (!def) return false;
    if (def->type == ParamType::Float) return write(name, time, tab, ParamValue::ofFloat(value));
    if (def->type == ParamType::Int || def->type == ParamType::Bool)
        return write(name, time, tab, ParamValue::ofInt(toInt(std::round(value))));
    return false;
}

bool VaporixParamsMax::setVector(const char* name, double time, const Vector& value, int tab) {
    const ParamDef* def = resolve(name, time);
    if (!def || def->type != ParamType::Point3) return false;
    return write(name, time, tab, ParamValue::ofVector(value));
}

bool VaporixParamsMax::setString(const char* name, double time, const std::string& value, int tab) {
    const ParamDef* def = resolve(name, time);
    if (!def || (def->type != ParamType::String && def->type != ParamType::Texmap)) return false;
    return write(name, time, tab, ParamValue::ofString(value));
}

bool VaporixParamsMax::setNode(const char* name, double time, NodeHandle value, int tab) {
    const ParamDef* def = resolve(name, time);
    if (!def || def->type != ParamType::Node) return false;
    return write(name, time, tab, ParamValue::ofNode(value));
}

bool VaporixParamsMax::setCount(const char* name, int count) {
    const ParamDef* def = name ? findParamDef(name) : nullptr;
    return def && mStorage.setCount(*def, count);
}

bool VaporixParamsMax::deleteItem(const char* name, int index, int count) {
    const ParamDef* def = name ? findParamDef(name) : nullptr;
    return def && mStorage.deleteItems(*def, index, count);
}

bool VaporixParamsMax::isEnabled(const char* name, double time) const {
    int block = -1;
    const ParamDef* def = name ? findParamDef(name, &block) : nullptr;
    if (!def) return false;
    const int blockId = paramBlock(block).id;
    for (const ParamEnableRule& rule : paramEnableRules()) {
        if (rule.blockId != blockId) continue;
        for (int id : rule.greyed)
            if (id == def->id && getInt(rule.check, time) == 0) return false;
    }
    return true;
}

}  // namespace vaporix
