// libFuzzer target: the command line's frame lists. Any text must give a list within the limits
// or a refusal with a reason, without crash, hang or stray access.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "playback/FrameList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<double> frames;
    std::string error;
    if (vaporix::parseFrameList(text, frames, error)) {
        if (frames.empty() || frames.size() > vaporix::FRAME_LIST_MAX) std::abort();
        for (double f : frames)
            if (!std::isfinite(f) || std::fabs(f) > 2 * vaporix::FRAME_LIST_LIMIT) std::abort();
    } else if (error.empty()) {
        std::abort();
    }
    return 0;
}
