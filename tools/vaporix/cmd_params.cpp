// vaporix params: the parameters of a grid object, and parameter sets as JSON files.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Command.h"
#include "FileOut.h"
#include "playback/CachePaths.h"
#include "playback/JsonValue.h"
#include "playback/MemoryParamStorage.h"
#include "playback/ParamAssign.h"
#include "playback/ParamJson.h"
#include "playback/ParamUpgrade.h"
#include "playback/VaporixDefaults.h"
#include "playback/VaporixParams.h"
#include "render/Blackbody.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix params [--json] [--load FILE.json] [--set NAME=VALUE]... [--save FILE.json]\n"
    "                      [--changed]\n"
    "\n"
    "Lists every parameter of a grid object with its block, id, type, default, range, control\n"
    "and label. With --load or --set the list shows the values of that parameter set too.\n"
    "  --json             machine-readable output\n"
    "  --load FILE.json   read a parameter set ({\"params\": {...}}); sets of an older version\n"
    "                     are upgraded\n"
    "  --set NAME=VALUE   set a parameter (repeatable, applied after --load):\n"
    "                       int 80 (or a combo's text: earg=Smoke), bool on/off, float 0.5,\n"
    "                       point3 0.2,0.2,0.2, string text, node handle;\n"
    "                       NAME[i]=VALUE sets item i of a tab, NAME@TICK=VALUE a key;\n"
    "                       a JSON value sets a whole tab or keys: NAME=[1,2] NAME={\"keys\":...}\n"
    "  --save FILE.json   write the parameter set instead of the list\n"
    "  --changed          with --save: only the parameters that differ from their default\n";

const char* blockLabel(int blockIndex) { return blockIndex == 0 ? "render" : "preview"; }

std::string formatFloat(double d) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%g", d);
    return buf;
}

/// A value as one short text for the list.
std::string formatValue(const ParamDef& def, const ParamValue& v) {
    switch (def.type) {
        case ParamType::Int:
            return std::to_string(v.i);
        case ParamType::Bool:
            return v.i ? "on" : "off";
        case ParamType::Float:
            return formatFloat(v.f);
        case ParamType::Point3:
            return "(" + formatFloat(v.v.x) + ", " + formatFloat(v.v.y) + ", " +
                   formatFloat(v.v.z) + ")";
        case ParamType::String:
        case ParamType::Texmap:
            return "\"" + v.s + "\"";
        case ParamType::Node:
            return v.node ? std::to_string(v.node) : "none";
    }
    return "";
}

std::string formatRange(const ParamDef& def) {
    if (!def.range.given) return "";
    return formatFloat(def.range.min) + ".." + formatFloat(def.range.max);
}

std::string typeText(const ParamDef& def) {
    std::string t = paramTypeName(def.type);
    if (def.isTab()) t += " tab";
    if (def.isAnimatable()) t += ", anim";
    return t;
}

std::string labelText(const ParamDef& def) {
    if (def.values) {
        std::string s;
        for (const ParamChoice& c : paramChoices(def))
            s += (s.empty() ? "" : ", ") + std::to_string(c.value) + " " + c.text;
        return s;
    }
    return def.label ? def.label : "";
}

std::string controlText(const ParamDef& def) {
    if (def.ui.kind == ControlKind::None) return "";
    std::string s = "map " + std::to_string(def.ui.map) + " " + controlKindName(def.ui.kind) + " ";
    for (int k = 0; k < def.ui.idCount; ++k) s += (k ? "/" : "") + std::to_string(def.ui.ids[k]);
    if (def.ui.spinStep) s += "/" + std::to_string(def.ui.spinStep);
    return s;
}

std::string currentText(const MemoryParamStorage& s, const ParamDef& def) {
    if (def.isTab()) return "[" + std::to_string(s.count(def)) + " items]";
    ParamValue v;
    s.get(def, 0, 0, v);
    std::string text = formatValue(def, v);
    if (!s.keys(def, 0).empty()) text += " (keyed)";
    return text;
}

void printList(const MemoryParamStorage* values, bool json) {
    if (json) {
        const JsonValue current = values ? paramsToJson(*values, false) : JsonValue();
        JsonValue doc = JsonValue::object();
        JsonValue& list = doc.set("params", JsonValue::array());
        for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
            const ParamBlockDef& block = paramBlock(b);
            for (int i = 0; i < block.count; ++i) {
                const ParamDef& def = block.params[i];
                JsonValue p = JsonValue::object();
                p.set("block", JsonValue::string(blockLabel(b)));
                p.set("blockId", JsonValue::number(block.id));
                p.set("id", JsonValue::number(def.id));
                p.set("name", JsonValue::string(def.name));
                p.set("type", JsonValue::string(paramTypeName(def.type)));
                p.set("tab", JsonValue::boolean(def.isTab()));
                p.set("animatable", JsonValue::boolean(def.isAnimatable()));
                p.set("transient", JsonValue::boolean(def.isTransient()));
                p.set("default", def.def.given ? paramValueToJson(
                                                     def, defaultValue(def, &gridObjectDefaults()))
                                               : JsonValue());
                if (def.range.given) {
                    JsonValue r = JsonValue::array();
                    r.push(JsonValue::number(def.range.min));
                    r.push(JsonValue::number(def.range.max));
                    p.set("range", std::move(r));
                } else {
                    p.set("range", JsonValue());
                }
                p.set("label", def.label ? JsonValue::string(def.label) : JsonValue());
                if (def.ui.kind != ControlKind::None) {
                    JsonValue c = JsonValue::object();
                    c.set("map", JsonValue::number(def.ui.map));
                    c.set("kind", JsonValue::string(controlKindName(def.ui.kind)));
                    JsonValue ids = JsonValue::array();
                    for (int k = 0; k < def.ui.idCount; ++k)
                        ids.push(JsonValue::number(def.ui.ids[k]));
                    c.set("ids", std::move(ids));
                    if (def.ui.spinStep) c.set("step", JsonValue::number(def.ui.spinStep));
                    p.set("control", std::move(c));
                } else {
                    p.set("control", JsonValue());
                }
                if (def.values) {
                    JsonValue choices = JsonValue::array();
                    for (const ParamChoice& ch : paramChoices(def)) {
                        JsonValue c = JsonValue::object();
                        c.set("value", JsonValue::number(ch.value));
                        c.set("text", JsonValue::string(ch.text));
                        choices.push(std::move(c));
                    }
                    p.set("values", std::move(choices));
                }
                if (values) {
                    const JsonValue* v = current.find(def.name);  // transient ones are absent
                    p.set("value", v ? *v : JsonValue());
                }
                list.push(std::move(p));
            }
        }
        std::fputs(doc.write(2).c_str(), stdout);
        return;
    }
    std::printf("%-8s %4s %-24s %-17s %-20s %-14s%s %-26s %s\n", "block", "id", "name", "type",
                "default", "range", values ? " value                " : "", "control", "label");
    for (int b = 0; b < PARAM_BLOCK_COUNT; ++b) {
        const ParamBlockDef& block = paramBlock(b);
        for (int i = 0; i < block.count; ++i) {
            const ParamDef& def = block.params[i];
            const std::string dflt =
                def.def.given ? formatValue(def, defaultValue(def, &gridObjectDefaults())) : "-";
            std::string value;
            if (values) {
                value = currentText(*values, def);
                if (value.size() < 21) value.resize(21, ' ');
                value = " " + value;
            }
            std::printf("%-8s %4d %-24s %-17s %-20s %-14s%s %-26s %s\n", blockLabel(b), def.id,
                        def.name, typeText(def).c_str(), dflt.c_str(), formatRange(def).c_str(),
                        value.c_str(), controlText(def).c_str(), labelText(def).c_str());
        }
    }
}


int run(int argc, char** argv) {
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2,
                    {{"--json"},
                     {"--load", 1},
                     {"--set", 1, true},
                     {"--save", 1},
                     {"--changed"},
                     {"--help"},
                     {"-h"}},
                    error))
        return usageError("params", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (!args.positional.empty()) return usageError("params", "unexpected " + args.positional[0]);
    if (args.has("--changed") && !args.has("--save"))
        return usageError("params", "--changed goes with --save");

    MemoryParamStorage storage;
    VaporixParamsMax params(storage);
    const bool haveSet = args.has("--load") || args.has("--set");

    if (args.has("--load")) {
        const std::string path = args.value("--load");
        std::vector<uint8_t> bytes;
        if (!readWholeFile(path, bytes)) return failure("params", path + ": cannot be read");
        std::vector<std::string> warnings;
        if (!readParamsDocument(std::string(bytes.begin(), bytes.end()), storage, warnings, error))
            return failure("params", path + ": " + error);
        for (const std::string& w : warnings)
            std::fprintf(stderr, "vaporix params: %s\n", w.c_str());
        const int version = params.getInt("version");
        if (version < PARAMS_VERSION) {
            UpgradeContext context;
            context.blackbodyLuminance = [](float kelvin) { return blackbodyLuminance(kelvin); };
            // An old cache prefix becomes the pattern of the sequence found beside it.
            context.findSequenceByPrefix = [](const std::string& prefix) {
                return findSequenceByPrefix(prefix);
            };
            upgradeParams(params, version, context);
            std::fprintf(stderr, "vaporix params: upgraded a version %d set to %d\n", version,
                         PARAMS_VERSION);
        }
    }
    for (const auto& use : args.uses("--set")) {
        std::string problem;
        if (!applyParamAssignment(use[0], storage, params, problem))
            return usageError("params", problem);
    }

    if (args.has("--save")) {
        const std::string path = args.value("--save");
        const std::string text = writeParamsDocument(storage, args.has("--changed"));
        if (!writeFileAtomically(path, text.data(), text.size()))
            return failure("params", path + ": cannot be written: " + std::strerror(errno));
        return EXIT_OK;
    }
    printList(haveSet ? &storage : nullptr, args.has("--json"));
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("params", "list grid object parameters; read and write parameter sets", run);

}  // namespace vaporix::cli
