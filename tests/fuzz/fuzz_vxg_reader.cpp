// libFuzzer target: whole .vxg files through the reader, then every channel and particle access.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "cache/VaporixFrameData.h"
#include "foundation/iArray.h"
#include "foundation/log.h"

using namespace vaporix;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = [] {
        setLogSink([](const std::string&) {});
        setenv("LUMO_LOG_DIR", "/dev/null/none", 1);  // no log file is written while fuzzing
        // A tiny file may rightly ask for channels of a gigabyte each (a constant stream of a
        // big grid, a short zlib stream of many particles), and under AddressSanitizer every
        // such block costs passes over its memory and its shadow. A machine with little memory
        // keeps each input fast, and runs the out-of-memory paths of every reader step too.
        setArrayAllocationLimit(size_t(16) << 20);
        return true;
    }();
    (void)quiet;
    setArrayAllocationBudget(int64_t(64) << 20);
    const int fd = memfd_create("vxg", 0);
    if (fd < 0) return 0;
    if (size && write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    for (bool headerOnly : {false, true}) {
        VaporixFrameData frame;
        if (frame.ImportVxg(path.c_str(), true, headerOnly, !headerOnly) != 0) continue;
        for (int c = -1; c <= 32; ++c) {
            frame.GetChannelData(c);
            float lo, hi;
            frame.getChannelRange(c, lo, hi);
        }
        std::string text;
        frame.getInfoText(text, "\n", "");
        float box[6];
        frame.getWorldBox(box, true);
        frame.computeParticleBox(box);
        for (int g = 0; g < frame.groups.count; ++g) {
            PGroup& group = frame.groups[g];
            const int n = group.GetCount();
            for (int i = 0; i < n && i < 64; ++i) {
                uint8_t value[16];
                for (int c = 0; c < PRT_CHANNELS; ++c) group.GetValue(i, c, value);
                group.FindById(i);
            }
        }
    }
    close(fd);
    return 0;
}
