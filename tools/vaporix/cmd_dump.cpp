// vaporix dump: one grid channel, expanded, as raw little-endian float32.
#include <cstdio>

#include "CacheArg.h"
#include "Playback.h"
#include "Command.h"
#include "FileOut.h"
#include "cache/VaporixFrameData.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix dump FILE|PATTERN [--frame F] [--fps N] [--params FILE] [--set ...]...\n"
    "                    [--channel-map MAP] --channel N -o OUT.f32\n"
    "       vaporix dump FILE|PATTERN [--frame F] ... --group NAME --pchannel C -o OUT.bin\n"
    "\n"
    "Writes grid channel N of a cache frame, expanded, as little-endian float32 values with x\n"
    "running fastest (index = x + sizeX * (y + sizeY * z)); or particle channel C of a group,\n"
    "expanded, particle after particle (position, velocity and other vectors: 3 float32;\n"
    "ID (10): one int64; other channels: one float32).\n";

int run(int argc, char** argv) {
    Args args;
    std::string error;
    std::vector<OptionSpec> specs = {{"--channel", 1}, {"--group", 1}, {"--pchannel", 1},
                                     {"-o", 1},        {"--help"},     {"-h"}};
    for (const OptionSpec& o : playbackOptions()) specs.push_back(o);
    if (!args.parse(argc, argv, 2, specs, error)) return usageError("dump", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        std::fputs(PLAYBACK_HELP, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError("dump", "expected one FILE");
    const bool particles = args.has("--group") || args.has("--pchannel");
    long long channel;
    const std::string which = particles ? "--pchannel" : "--channel";
    if (particles && (!args.has("--group") || !args.has("--pchannel") || args.has("--channel")))
        return usageError("dump", "particles need --group NAME and --pchannel C (and no --channel)");
    if (!args.has(which) || !parseInt(args.value(which), channel) || channel < 0 ||
        channel >= CHANNEL_COUNT)
        return usageError("dump", which + " needs an ordinal from 0 to 31");
    if (!args.has("-o")) return usageError("dump", "-o OUT is required");
    CliPlayback playback;
    VaporixFrameData own;
    VaporixFrameData* shown = nullptr;
    std::string path;
    if (const int rc =
            loadCacheArgFrame("dump", args.positional[0], args, false, playback, own, shown, path);
        rc != EXIT_OK)
        return rc;
    VaporixFrameData& frame = *shown;
    const int c = static_cast<int>(channel);
    if (particles) {
        auto* group = static_cast<PGroup*>(frame.FindParticleGroup(args.value("--group")));
        if (!group) return failure("dump", path + " has no particle group " + args.value("--group"));
        const ChannelData& cd = group->channelData[c];
        if (cd.expanded.count == 0)
            return failure("dump", "group " + group->name + " has no expandable channel " +
                                       std::to_string(c));
        if (!writeFileAtomically(args.value("-o"), cd.expanded.data,
                                 static_cast<uint64_t>(cd.expanded.count)))
            return failure("dump", "can't write " + args.value("-o"));
        return EXIT_OK;
    }
    if (!frame.HasChannel(c))
        return failure("dump", path + " has no channel " + std::to_string(c));
    const float* data = frame.GetChannelData(c);
    if (!data)
        return failure("dump", "channel " + std::to_string(c) + " of " + path +
                                   " can't be expanded (damaged data)");
    const uint64_t bytes = static_cast<uint64_t>(frame.getCellCount()) * sizeof(float);
    if (!writeFileAtomically(args.value("-o"), data, bytes))
        return failure("dump", "can't write " + args.value("-o"));
    return EXIT_OK;
}

}  // namespace

VAPORIX_COMMAND("dump", "write one grid channel as raw float32", run);

}  // namespace vaporix::cli
