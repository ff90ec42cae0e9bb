// libFuzzer target: the particle sections of the oldest files (tags 7 and 13) behind a minimal
// tag section, read whole and as a header, then every particle value touched.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cache/VaporixFrameData.h"
#include "foundation/iArray.h"
#include "foundation/log.h"

using namespace vaporix;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = [] {
        setLogSink([](const std::string&) {});
        setenv("LUMO_LOG_DIR", "/dev/null/none", 1);
        setArrayAllocationLimit(size_t(16) << 20);
        return true;
    }();
    (void)quiet;
    if (size < 1) return 0;
    setArrayAllocationBudget(int64_t(64) << 20);
    // First byte: bit 0 picks tag 13 (coded pool) over tag 7 (raw pool); bit 1 puts a tiny grid
    // tag before it; the rest is the section as it stands in the file.
    std::vector<uint8_t> file = {'V', 'X', 'G', 'R'};
    const auto put32 = [&](int32_t v) {
        const auto* b = reinterpret_cast<const uint8_t*>(&v);
        file.insert(file.end(), b, b + 4);
    };
    if (data[0] & 2) {
        put32(3);
        put32(1), put32(1), put32(1), put32(0);
    }
    put32((data[0] & 1) ? 13 : 7);
    file.insert(file.end(), data + 1, data + size);
    const int fd = memfd_create("prt", 0);
    if (fd < 0) return 0;
    if (write(fd, file.data(), file.size()) != static_cast<ssize_t>(file.size())) {
        close(fd);
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    for (bool headerOnly : {false, true}) {
        VaporixFrameData frame;
        if (frame.ImportVxg(path.c_str(), true, headerOnly, false) != 0) continue;
        float box[6];
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
