// vaporix channels: what a foreign cache sequence offers and the channel map it gets by default.
#include <cstdio>

#include "CacheArg.h"
#include "Command.h"
#include "Json.h"
#include "cache/CacheIO.h"
#include "foundation/FramePattern.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix channels PATTERN [--json]\n"
    "\n"
    "Lists the channels that the files of an OpenVDB (.vdb) or Field3D (.f3d) sequence offer,\n"
    "with their kind (scalar, or a component of a vector field), and the default channel map:\n"
    "which channel fills which grid ordinal (1 temperature, 2 smoke, 4-6 velocity, 7-9 colour,\n"
    "10 fuel). The map text is what --channel-map of info, dump and render takes.\n"
    "  --json   machine-readable output\n";

int run(int argc, char** argv) {
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2, {{"--json"}, {"--help"}, {"-h"}}, error))
        return usageError("channels", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError("channels", "expected one PATTERN");
    const std::string pattern = toNativeSeparators(args.positional[0]);
    const iString ext = iString(getExtension(pattern)).lower();
    if (ext != "vdb" && ext != "f3d")
        return usageError("channels", "PATTERN must name .vdb or .f3d files");
    if ((ext == "vdb" && !CacheIO::hasOpenVDBModule()) ||
        (ext == "f3d" && !CacheIO::hasField3DModule()))
        return failure("channels", std::string("the ") +
                                       (ext == "vdb" ? "OpenVDB module (openvdbio_lumo.so)"
                                                     : "Field3D module (field3dio_lumo.so)") +
                                       " is not available");

    iArray<CacheIO::AvaiableChannels> list;
    CacheIO::listCacheChannels(pattern.c_str(), list);
    if (list.count == 0) return failure("channels", "no readable file matches " + pattern);
    iArray<CacheIO::GridMapping> maps;
    CacheIO::defaultMappingFor(ext.c_str(), list, maps);
    const std::string mapText = CacheIO::printChannelMap(maps);
    auto kindName = [](uint8_t kind) {
        return kind == CacheIO::KIND_SCALAR ? "scalar" : "vector component";
    };

    if (args.has("--json")) {
        JsonWriter j;
        j.beginObject();
        j.key("pattern").value(pattern);
        j.key("channels").beginArray();
        for (const auto& c : list) {
            j.beginObject();
            j.key("name").value(c.name);
            j.key("kind").value(int(c.kind));
            j.key("kindName").value(kindName(c.kind));
            j.endObject();
        }
        j.endArray();
        j.key("defaultMap").value(mapText);
        j.key("mappings").beginArray();
        for (const auto& m : maps) {
            j.beginObject();
            j.key("name").value(m.name);
            j.key("ordinal").value(m.channel);
            j.key("scale").value(m.scale);
            j.endObject();
        }
        j.endArray();
        j.endObject();
        std::fputs(j.str().c_str(), stdout);
        return EXIT_OK;
    }
    std::printf("channels of %s\n", pattern.c_str());
    for (const auto& c : list) {
        int ordinal = -1;
        for (const auto& m : maps)
            if (m.name == c.name) ordinal = m.channel;
        if (ordinal >= 0)
            std::printf("  %-28s %-17s -> %2d %s\n", c.name.c_str(), kindName(c.kind), ordinal,
                        channelName(ordinal).c_str());
        else
            std::printf("  %-28s %-17s (not mapped)\n", c.name.c_str(), kindName(c.kind));
    }
    std::printf("default map: %s\n", mapText.empty() ? "(none)" : mapText.c_str());
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("channels", "list a foreign cache's channels and its default channel map", run);

}  // namespace vaporix::cli
