// vaporix dump: one grid channel, expanded, as raw little-endian float32.
#include <cstdio>

#include "CacheArg.h"
#include "Command.h"
#include "FileOut.h"
#include "cache/VaporixFrameData.h"

namespace vaporix::cli {
namespace {

const char* USAGE =
    "usage: vaporix dump FILE|PATTERN [--frame N] --channel N -o OUT.f32\n"
    "\n"
    "Writes grid channel N of a cache frame, expanded, as little-endian float32 values with x\n"
    "running fastest (index = x + sizeX * (y + sizeY * z)).\n";

int run(int argc, char** argv) {
    Args args;
    std::string error;
    if (!args.parse(argc, argv, 2, {{"--channel", 1}, {"-o", 1}, frameOption(), {"--help"}, {"-h"}}, error))
        return usageError("dump", error);
    if (args.has("--help") || args.has("-h")) {
        std::fputs(USAGE, stdout);
        return EXIT_OK;
    }
    if (args.positional.size() != 1) return usageError("dump", "expected one FILE");
    long long channel;
    if (!args.has("--channel") || !parseInt(args.value("--channel"), channel) || channel < 0 ||
        channel >= CHANNEL_COUNT)
        return usageError("dump", "--channel needs an ordinal from 0 to 31");
    if (!args.has("-o")) return usageError("dump", "-o OUT is required");
    std::string path;
    if (const int rc = resolveCacheArg("dump", args.positional[0], args, path); rc != EXIT_OK)
        return rc;

    VaporixFrameData frame;
    const int status = frame.importFile(path.c_str(), "", 0, true, false, false);
    if (status != LOAD_OK)
        return failure("dump", path + ": " + loadStatusText(status) + " (status " +
                                   std::to_string(status) + ")");
    const int c = static_cast<int>(channel);
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
