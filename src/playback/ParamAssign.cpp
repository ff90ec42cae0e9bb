// Parameter assignments in their command-line form.
#include "playback/ParamAssign.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "playback/JsonValue.h"
#include "playback/ParamJson.h"

namespace vaporix {

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool parseInteger(const std::string& s, long long& out) {
    if (s.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoll(s.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

bool parseReal(const std::string& s, double& out) {
    if (s.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtod(s.c_str(), &end);
    return errno == 0 && end && *end == '\0' && std::isfinite(out);
}

std::string trim(std::string s) {
    while (!s.empty() && s.front() == ' ') s.erase(0, 1);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

/// One value of the parameter's type from its text.
bool parseValue(const ParamDef& def, const std::string& text, ParamValue& out) {
    long long i = 0;
    double d = 0.0;
    switch (def.type) {
        case ParamType::Int:
            if (parseInteger(text, i) && i >= -2147483648LL && i <= 2147483647LL) {
                out.i = static_cast<int>(i);
                return true;
            }
            for (const ParamChoice& c : paramChoices(def))
                if (lower(c.text) == lower(text)) {
                    out.i = c.value;
                    return true;
                }
            return false;
        case ParamType::Bool: {
            const std::string t = lower(text);
            if (t == "on" || t == "true" || t == "yes" || t == "1")
                out.i = 1;
            else if (t == "off" || t == "false" || t == "no" || t == "0")
                out.i = 0;
            else
                return false;
            return true;
        }
        case ParamType::Float:
            if (!parseReal(text, d)) return false;
            out.f = static_cast<float>(d);
            return true;
        case ParamType::Point3: {
            std::string t = text;
            if (t.size() >= 2 && t.front() == '(' && t.back() == ')') t = t.substr(1, t.size() - 2);
            float* c[3] = {&out.v.x, &out.v.y, &out.v.z};
            size_t start = 0;
            for (int k = 0; k < 3; ++k) {
                const size_t comma = t.find(',', start);
                if ((k < 2) != (comma != std::string::npos)) return false;
                const std::string part =
                    trim(t.substr(start, k < 2 ? comma - start : std::string::npos));
                if (!parseReal(part, d)) return false;
                *c[k] = static_cast<float>(d);
                start = comma + 1;
            }
            return true;
        }
        case ParamType::String:
        case ParamType::Texmap:
            out.s = text;
            return true;
        case ParamType::Node:
            if (!parseInteger(text, i)) return false;
            out.node = i;
            return true;
    }
    return false;
}

bool fail(std::string& error, const std::string& text) {
    error = text;
    return false;
}

}  // namespace

bool applyParamAssignment(const std::string& assignment,
                          MemoryParamStorage& storage,
                          VaporixParamsMax& params,
                          std::string& error) {
    const size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0)
        return fail(error, "a setting needs NAME=VALUE, got '" + assignment + "'");
    std::string name = assignment.substr(0, eq);
    const std::string text = assignment.substr(eq + 1);

    long long tick = 0;
    bool keyed = false;
    if (const size_t at = name.find('@'); at != std::string::npos) {
        if (!parseInteger(name.substr(at + 1), tick) || tick < -2147483647LL || tick > 2147483647LL)
            return fail(error, "bad tick in '" + name + "'");
        keyed = true;
        name.resize(at);
    }
    long long item = 0;
    bool indexed = false;
    if (const size_t br = name.find('['); br != std::string::npos) {
        if (name.back() != ']' || !parseInteger(name.substr(br + 1, name.size() - br - 2), item) ||
            item < 0 || item >= MemoryParamStorage::MAX_TAB_COUNT)
            return fail(error, "bad item index in '" + name + "'");
        indexed = true;
        name.resize(br);
    }
    const ParamDef* def = findParamDef(name);
    if (!def) return fail(error, "unknown parameter '" + name + "'");
    if (keyed && !def->isAnimatable()) return fail(error, "'" + name + "' cannot be keyed");
    if (indexed && !def->isTab()) return fail(error, "'" + name + "' is not a tab");

    // A JSON value: a whole tab or keyed values, read as parameter files are.
    if (!indexed && !keyed && !text.empty() && (text.front() == '[' || text.front() == '{') &&
        (def->isTab() || text.front() == '{')) {
        JsonValue j;
        std::string problem;
        if (!JsonValue::parse(text, j, problem)) return fail(error, "'" + name + "': " + problem);
        JsonValue obj = JsonValue::object();
        obj.set(name, std::move(j));
        std::vector<std::string> warnings;
        if (!paramsFromJson(obj, storage, warnings, problem)) return fail(error, problem);
        return true;
    }
    if (def->isTab() && !indexed)
        return fail(error, "'" + name + "' is a tab: give NAME[i]=VALUE or a list");

    ParamValue v;
    if (!parseValue(*def, text, v))
        return fail(error, "'" + text + "' is no " + paramTypeName(def->type) + " value for '" +
                               name + "'");
    const int index = static_cast<int>(item);
    if (indexed && index >= storage.count(*def) && !storage.setCount(*def, index + 1))
        return fail(error, "'" + name + "' cannot hold " + std::to_string(index + 1) + " items");
    if (keyed) {
        if (!storage.setKey(*def, static_cast<TimeValue>(tick), index, clampToRange(*def, v)))
            return fail(error, "could not key '" + name + "'");
        return true;
    }
    // Through the accessors, as the panel or a script would set it.
    bool ok = false;
    switch (def->type) {
        case ParamType::Int:
        case ParamType::Bool:
            ok = params.setInt(name.c_str(), 0, v.i, index);
            break;
        case ParamType::Float:
            ok = params.setFloat(name.c_str(), 0, v.f, index);
            break;
        case ParamType::Point3:
            ok = params.setVector(name.c_str(), 0, v.v, index);
            break;
        case ParamType::String:
        case ParamType::Texmap:
            ok = params.setString(name.c_str(), 0, v.s, index);
            break;
        case ParamType::Node:
            ok = params.setNode(name.c_str(), 0, v.node, index);
            break;
    }
    return ok ? true : fail(error, "could not set '" + name + "'");
}

}  // namespace vaporix
