// vaporix info: everything a cache frame's header says.
#include <cstdio>

#include "CacheArg.h"
#include "Playback.h"
#include "Command.h"
#include "Json.h"
#include "cache/VaporixFrameData.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix info FILE|PATTERN [--frame F] [--fps N] [--params FILE] [--set NAME=VALUE]...\n"
    "                    [--channel-map MAP] [--json] [--header-only]\n"
    "\n"
    "Prints the header of a cache frame: grid size and transform, channels with their value\n"
    "ranges, frame number and times, comment, particle groups and the particle box.\n"
    "  --frame N       with a frame pattern (smoke_####.vxg): the file of frame N (default:\n"
    "                  the sequence's first frame)\n"
    "  --json          machine-readable output\n"
    "  --header-only   read only the header (no channel is expanded, ranges are unknown)\n"
    "  --channel-map MAP  for .vdb and .f3d: which file channel fills which ordinal,\n"
    "                  \"2,density;1,temperature;\" (default: the sequence's default map, see\n"
    "                  'vaporix channels')\n";

void writeJson(VaporixFrameData& frame, const std::string& path, int status, int version,
               bool headerOnly) {
    JsonWriter j;
    j.beginObject();
    j.key("status").value(status);
    j.key("message").value(loadStatusText(status));
    j.key("path").value(path);
    j.key("version").value(version);
    if (status == LOAD_OK) {
        j.key("gridSize").beginArray(true);
        for (int a = 0; a < 3; ++a) j.value(frame.gridSize[a]);
        j.endArray();
        j.key("gridTransform").beginArray(true);
        for (float v : frame.gridTransform.m) j.value(v);
        j.endArray();
        j.key("channelMask").value(frame.channelMask);
        j.key("frameFlags").value(int(frame.frameFlags));
        j.key("channels").beginArray();
        for (int c = 0; c < CHANNEL_COUNT; ++c) {
            if (!frame.HasChannel(c)) continue;
            float lo, hi;
            const bool ranged = !headerOnly && frame.getChannelRange(c, lo, hi);
            j.beginObject();
            j.key("ordinal").value(c);
            j.key("name").value(channelName(c));
            j.key("min");
            ranged ? j.value(lo) : j.null();
            j.key("max");
            ranged ? j.value(hi) : j.null();
            j.endObject();
        }
        j.endArray();
        j.key("frameNumber").value(frame.frameNumber);
        j.key("timeStep").value(frame.timeStep);
        j.key("simTime").value(frame.simTime());
        j.key("simTime2").value(frame.simTime2());
        j.key("comment").value(frame.comment);
        j.key("particleBox").beginArray(true);
        for (float v : frame.particleBox) j.value(v);
        j.endArray();
        j.key("groups").beginArray();
        for (int g = 0; g < frame.groups.count; ++g) {
            PGroup& grp = frame.groups[g];
            j.beginObject();
            j.key("name").value(grp.name);
            j.key("count").value(frame.getGroupCount(g));
            j.key("channels").beginArray(true);
            for (int c = 0; c < PRT_CHANNELS; ++c)
                if ((grp.channelBits >> c) & 1u) j.value(c);
            j.endArray();
            j.key("flags").value(grp.flags);
            j.endObject();
        }
        j.endArray();
        std::string text;
        frame.getInfoText(text, "\n", "");
        j.key("infoText").beginArray();
        size_t start = 0;
        while (start <= text.size()) {
            const size_t end = text.find('\n', start);
            j.value(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
            if (end == std::string::npos) break;
            start = end + 1;
        }
        j.endArray();
    }
    j.endObject();
    std::fputs(j.str().c_str(), stdout);
}

void writeText(VaporixFrameData& frame, const std::string& path, int version, bool headerOnly) {
    std::printf("file        %s\n", path.c_str());
    std::printf("version     %d%s\n", version, version == 0 ? " (oldest, no trailer)" : "");
    std::printf("grid        %d x %d x %d\n", frame.gridSize[0], frame.gridSize[1],
                frame.gridSize[2]);
    std::printf("transform   ");
    for (int r = 0; r < 4; ++r) {
        const float* m = frame.gridTransform.m + r * 3;
        std::printf("[%g %g %g]%s", double(m[0]), double(m[1]), double(m[2]), r < 3 ? " " : "\n");
    }
    std::printf("frame       %d   time step %g s   sim time %g / %g\n", frame.frameNumber,
                double(frame.timeStep), frame.simTime(), frame.simTime2());
    std::printf("channels    mask 0x%08x\n", frame.channelMask);
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        if (!frame.HasChannel(c)) continue;
        float lo, hi;
        if (!headerOnly && frame.getChannelRange(c, lo, hi))
            std::printf("  %2d %-20s %g .. %g\n", c, channelName(c).c_str(), double(lo),
                        double(hi));
        else
            std::printf("  %2d %-20s %s\n", c, channelName(c).c_str(),
                        headerOnly ? "" : "(can't be expanded)");
    }
    if (!frame.comment.empty()) std::printf("comment     %s\n", frame.comment.c_str());
    std::printf("groups      %d\n", frame.groups.count);
    for (int g = 0; g < frame.groups.count; ++g) {
        PGroup& grp = frame.groups[g];
        std::printf("  %-16s %d particles, channels", grp.name.c_str(), frame.getGroupCount(g));
        for (int c = 0; c < PRT_CHANNELS; ++c)
            if ((grp.channelBits >> c) & 1u) std::printf(" %d", c);
        std::printf(", flags 0x%x\n", grp.flags);
    }
    const float* b = frame.particleBox;
    if (b[3] >= b[0])
        std::printf("particles   box (%g %g %g) .. (%g %g %g)\n", double(b[0]), double(b[1]),
                    double(b[2]), double(b[3]), double(b[4]), double(b[5]));
    std::string text;
    frame.getInfoText(text, "\n", "  ");
    std::printf("info\n  %s\n", text.c_str());
}

int run(int argc, char** argv) {
    Args args;
    std::string error;
    std::vector<OptionSpec> specs = {{"--json"}, {"--header-only"}, {"--help"}, {"-h"}};
    for (const OptionSpec& o : playbackOptions()) specs.push_back(o);
    if (!args.parse(argc, argv, 2, specs, error)) return usageError("info", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        std::fputs(PLAYBACK_HELP, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError("info", "expected one FILE");
    const bool headerOnly = args.has("--header-only");
    if (args.has("--frame")) {
        // A scene frame: what playback provides at that time.
        CliPlayback playback;
        VaporixFrameData own;
        VaporixFrameData* frame = nullptr;
        std::string label;
        if (const int rc = loadCacheArgFrame("info", args.positional[0], args, headerOnly,
                                             playback, own, frame, label);
            rc != EXIT_OK)
            return rc;
        const std::string& file = playback.playback().frame.currentFile;
        const int version = file.empty() ? -1 : vxgFileVersion(file.c_str());
        if (args.has("--json"))
            writeJson(*frame, label, LOAD_OK, version, headerOnly);
        else
            writeText(*frame, label, version, headerOnly);
        return EXIT_OK;
    }
    std::string path;
    if (const int rc = resolveCacheArg("info", args.positional[0], args, path); rc != EXIT_OK)
        return rc;
    const std::string map = channelMapFor(args, args.positional[0]);
    VaporixFrameData frame;
    const int status = headerOnly ? frame.importHeader(path.c_str(), map.c_str())
                                  : frame.importFile(path.c_str(), map.c_str(), 0, true, false, false);
    if (status == LOAD_OK) reportFrameWarnings("info", frame);
    const int version = status == LOAD_OK ? vxgFileVersion(path.c_str()) : -1;
    if (args.has("--json")) {
        writeJson(frame, path, status, version, headerOnly);
        return status == LOAD_OK ? EXIT_OK : EXIT_FAILED;
    }
    if (status != LOAD_OK)
        return failure("info", loadFailureText(path, status));
    writeText(frame, path, version, headerOnly);
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("info", "print what a cache frame holds", run);

}  // namespace vaporix::cli
