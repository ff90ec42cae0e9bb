// Cache path arguments with frame patterns.
#include "CacheArg.h"

#include <climits>
#include <cstdio>

#include "cache/CacheIO.h"
#include "foundation/ThreadManager.h"

#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"

namespace vaporix::cli {

int resolveCacheArg(const char* command,
                    const std::string& path,
                    const Args& args,
                    std::string& file) {
    long long frame = 0;
    const bool hasFrame = args.has("--frame");
    if (hasFrame &&
        (!parseInt(args.value("--frame"), frame) || frame < INT_MIN / 2 || frame > INT_MAX / 2))
        return usageError(command, "--frame takes a whole number");
    // Only a pattern in the file name makes a sequence: a plain file in a folder such as
    // "take#2/" is read as it is, where a frame search would ignore it for want of a number.
    std::string folder, name;
    splitPath(folder, toNativeSeparators(path), name);
    if (!hasFramePattern(name)) {
        file = path;
        return EXIT_OK;
    }
    // Without a frame the nearest to a very low number is the sequence's first frame.
    const int32_t wanted = hasFrame ? static_cast<int32_t>(frame) : INT_MIN / 2;
    if (!findFrameFile(path, wanted, hasFrame, file))
        return failure(command, hasFrame
                                    ? "no file for frame " + std::to_string(frame) + " of " + path
                                    : "no file matches " + path);
    return EXIT_OK;
}

std::string channelMapFor(const Args& args, const std::string& pattern) {
    if (args.has("--channel-map")) return args.value("--channel-map");
    const iString ext = iString(getExtension(pattern)).lower();
    if (ext != "vdb" && ext != "f3d") return {};
    std::string map;
    CacheIO::buildDefaultMapping(map, toNativeSeparators(pattern).c_str());
    return map;
}

void loadToolSideModules() {
    static bool loaded = false;
    if (loaded) return;
    loaded = true;
    const std::string searchPath = CacheIO::defaultModuleSearchPath();
    CacheIO::loadSideModules(CacheIO::MODULE_FIELD3D | CacheIO::MODULE_OPENVDB, searchPath.c_str(),
                             "lumo", 1);
    CacheIO::setSideModuleThreadManager(processThreadManager());
}

void reportFrameWarnings(const char* command, const VaporixFrameData& frame) {
    if (frame.frameFlags & FRAME_DOWNSAMPLED)
        std::fprintf(stderr, "vaporix %s: warning: %s\n", command, CacheIO::downsampledMessage());
}

std::string loadFailureText(const std::string& path, int status) {
    const char* message = CacheIO::sideModuleStatusMessage(status);
    return path + ": " + (message ? message : loadStatusText(status)) + " (status " +
           std::to_string(status) + ")";
}

std::string cacheOutputPath(const std::string& path, int32_t frame) {
    return expandFramePattern(toNativeSeparators(path), frame);
}

}  // namespace vaporix::cli
