// A parameter set as JSON: every parameter by name, keyed values and tabs included.
#include "playback/ParamJson.h"

#include <cmath>

namespace vaporix {

namespace {
/// A float, or null for a non-finite one (JSON has no such numbers).
JsonValue floatJson(float f) { return std::isfinite(f) ? JsonValue::single(f) : JsonValue(); }
}  // namespace

JsonValue paramValueToJson(const ParamDef& def, const ParamValue& v) {
    switch (def.type) {
        case ParamType::Int:
            return JsonValue::number(v.i);
        case ParamType::Bool:
            return JsonValue::boolean(v.i != 0);
        case ParamType::Float:
            return floatJson(v.f);
        case ParamType::Point3: {
            JsonValue a = JsonValue::array();
            a.push(floatJson(v.v.x));
            a.push(floatJson(v.v.y));
            a.push(floatJson(v.v.z));
            return a;
        }
        case ParamType::String:
        case ParamType::Texmap:
            return JsonValue::string(v.s);
        case ParamType::Node:
            return JsonValue::number(static_cast<double>(v.node));
    }
    return JsonValue();
}

namespace {

/// A float from a number, or NaN from null (the writer's form of a non-finite value).
bool floatOf(const JsonValue& j, float& out) {
    if (j.isNull()) {
        out = NAN;
        return true;
    }
    if (!j.isNumber()) return false;
    out = static_cast<float>(j.asNumber());
    return true;
}

bool integerOf(const JsonValue& j, double lo, double hi, double& out) {
    if (!j.isNumber()) return false;
    const double d = j.asNumber();
    if (d != std::floor(d) || d < lo || d > hi) return false;
    out = d;
    return true;
}

}  // namespace

bool paramValueFromJson(const ParamDef& def, const JsonValue& j, ParamValue& out) {
    out = ParamValue{};
    double d = 0.0;
    switch (def.type) {
        case ParamType::Int:
            if (!integerOf(j, -2147483648.0, 2147483647.0, d)) return false;
            out.i = static_cast<int>(d);
            return true;
        case ParamType::Bool:
            if (j.isBool()) {
                out.i = j.asBool() ? 1 : 0;
                return true;
            }
            if (!integerOf(j, -2147483648.0, 2147483647.0, d)) return false;
            out.i = d != 0.0 ? 1 : 0;
            return true;
        case ParamType::Float:
            return floatOf(j, out.f);
        case ParamType::Point3:
            if (!j.isArray() || j.items().size() != 3) return false;
            return floatOf(j.items()[0], out.v.x) && floatOf(j.items()[1], out.v.y) &&
                   floatOf(j.items()[2], out.v.z);
        case ParamType::String:
        case ParamType::Texmap:
            if (!j.isString()) return false;
            out.s = j.asString();
            return true;
        case ParamType::Node:
            if (!integerOf(j, -9007199254740992.0, 9007199254740992.0, d)) return false;
            out.node = static_cast<NodeHandle>(d);
            return true;
    }
    return false;
}

namespace {

JsonValue itemToJson(const MemoryParamStorage& storage, const ParamDef& def, int index) {
    const auto& keys = storage.keys(def, index);
    if (keys.empty()) {
        ParamValue v;
        storage.get(def, 0, index, v);
        return paramValueToJson(def, v);
    }
    JsonValue list = JsonValue::array();
    for (const auto& k : keys) {
        JsonValue pair = JsonValue::array();
        pair.push(JsonValue::number(k.time));
        pair.push(paramValueToJson(def, k.value));
        list.push(std::move(pair));
    }
    JsonValue item = JsonValue::object();
    item.set("keys", std::move(list));
    return item;
}

/// Reads one item: a plain value, or keys for an animatable parameter.
bool itemFromJson(MemoryParamStorage& storage, const ParamDef& def, int index, const JsonValue& j) {
    const JsonValue* keys = j.isObject() ? j.find("keys") : nullptr;
    if (!keys) {
        ParamValue v;
        if (!paramValueFromJson(def, j, v)) return false;
        storage.clearKeys(def, index);
        return storage.set(def, 0, index, clampToRange(def, v));
    }
    if (!def.isAnimatable() || !keys->isArray() || j.members().size() != 1) return false;
    storage.clearKeys(def, index);
    for (const JsonValue& k : keys->items()) {
        double t = 0.0;
        ParamValue v;
        if (!k.isArray() || k.items().size() != 2 ||
            !integerOf(k.items()[0], -2147483647.0, 2147483647.0, t) ||
            !paramValueFromJson(def, k.items()[1], v))
            return false;
        if (!storage.setKey(def, static_cast<TimeValue>(t), index, clampToRange(def, v)))
            return false;
    }
    return true;
}

}  // namespace

JsonValue paramsToJson(const MemoryParamStorage& storage, bool onlyChanged) {
    JsonValue params = JsonValue::object();
    for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
        const ParamBlockDef& block = paramBlock(b);
        for (int i = 0; i < block.count; ++i) {
            const ParamDef& def = block.params[i];
            if (def.isTransient() || (onlyChanged && storage.isDefault(def))) continue;
            if (def.isTab()) {
                JsonValue items = JsonValue::array();
                for (int k = 0; k < storage.count(def); ++k)
                    items.push(itemToJson(storage, def, k));
                params.append(def.name, std::move(items));
            } else {
                params.append(def.name, itemToJson(storage, def, 0));
            }
        }
    }
    return params;
}

bool paramsFromJson(const JsonValue& params,
                    MemoryParamStorage& storage,
                    std::vector<std::string>& warnings,
                    std::string& error) {
    if (!params.isObject()) {
        error = "the parameters are not a JSON object";
        return false;
    }
    // Work on a copy, so that a failure leaves the store as it was.
    MemoryParamStorage work(storage);
    for (const auto& [name, value] : params.members()) {
        const ParamDef* def = findParamDef(name);
        if (!def) {
            warnings.push_back("unknown parameter '" + name + "' skipped");
            continue;
        }
        bool ok = true;
        if (def->isTab()) {
            const size_t n = value.isArray() ? value.items().size() : 0;
            ok = value.isArray() && n <= static_cast<size_t>(MemoryParamStorage::MAX_TAB_COUNT) &&
                 work.setCount(*def, static_cast<int>(n));
            for (size_t k = 0; ok && k < n; ++k)
                ok = itemFromJson(work, *def, static_cast<int>(k), value.items()[k]);
        } else {
            ok = itemFromJson(work, *def, 0, value);
        }
        if (!ok) {
            error = std::string("parameter '") + name + "': expected " +
                    (def->isTab() ? "a list of " : "") + paramTypeName(def->type) +
                    (def->isAnimatable() ? " values or keys" : " values");
            return false;
        }
    }
    storage = std::move(work);
    return true;
}

std::string writeParamsDocument(const MemoryParamStorage& storage, bool onlyChanged) {
    JsonValue doc = JsonValue::object();
    doc.set("params", paramsToJson(storage, onlyChanged));
    return doc.write(2);
}

bool readParamsDocument(const std::string& text,
                        MemoryParamStorage& storage,
                        std::vector<std::string>& warnings,
                        std::string& error) {
    JsonValue doc;
    if (!JsonValue::parse(text, doc, error)) return false;
    const JsonValue* params = doc.find("params");
    if (!params) {
        error = "no \"params\" object in the document";
        return false;
    }
    return paramsFromJson(*params, storage, warnings, error);
}

}  // namespace vaporix
