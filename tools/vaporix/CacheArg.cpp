// Cache path arguments with frame patterns.
#include "CacheArg.h"

#include <climits>

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

std::string cacheOutputPath(const std::string& path, int32_t frame) {
    return expandFramePattern(toNativeSeparators(path), frame);
}

}  // namespace vaporix::cli
