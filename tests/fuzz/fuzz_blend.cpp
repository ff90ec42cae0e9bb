// libFuzzer target: two small frames built from the input (sizes, shifts, scales, channel
// values including NaN and infinities, particle groups with or without IDs and ages) blended
// with every method; nothing may crash, read out of bounds or hang.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cache/PGroup.h"
#include "cache/VaporixFrameData.h"
#include "foundation/iArray.h"

using namespace vaporix;

namespace {

struct Input {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    float value() {
        uint32_t bits = 0;
        for (int k = 0; k < 4; ++k) bits |= uint32_t(byte()) << (8 * k);
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    }
};

void buildFrame(VaporixFrameData& f, Input& in) {
    for (int a = 0; a < 3; ++a) f.gridSize[a] = 1 + in.byte() % 7;
    f.gridTransform = GridTransform::identity();
    const uint8_t shape = in.byte();
    for (int a = 0; a < 3; ++a) f.gridTransform.m[9 + a] = float(int(in.byte() % 21) - 10);
    if (shape & 1) f.gridTransform.m[0] = in.value();  // another scale, or nonsense
    if (shape & 2) {
        // Any shift, within 64 cells when finite: a union box of billions of cells is a valid
        // (slow) blend, not something this target should spend its time on.
        float shift = in.value();
        if (std::isfinite(shift) && std::fabs(shift) > 64.0f) shift = std::fmod(shift, 64.0f);
        f.gridTransform.m[9] = shift;
    }
    f.timeStep = (shape & 4) ? in.value() : 0.5f;
    f.frameNumber = int(in.byte());
    const int64_t cells = f.getCellCount();
    const uint32_t mask = uint32_t(in.byte()) | uint32_t(in.byte()) << 8;
    for (int c = 0; c < 16; ++c) {
        if (!((mask >> c) & 1u)) continue;
        auto* data = static_cast<float*>(internal::arrayAllocate(size_t(cells + 4) * 4));
        for (int64_t i = 0; i < cells; ++i) data[i] = (in.byte() & 1) ? in.value() : float(in.byte());
        f.channels[c] = data;
        f.channelMask |= 1u << c;
    }
    const int groups = in.byte() % 3;
    static const char* names[] = {"Liquid", "Foam"};
    for (int g = 0; g < groups; ++g) {
        PGroup group;
        group.name = names[in.byte() & 1];
        group.count = in.byte() % 24;
        group.frame = &f;
        if (!f.groups.append(group)) return;
        PGroup& d = f.groups.last();
        const uint8_t has = in.byte();
        for (int c : {PRT_POSITION, PRT_AGE, PRT_ID, PRT_SIZE}) {
            if (c != PRT_POSITION && !(has & (1u << c % 8))) continue;
            auto* bytes = static_cast<uint8_t*>(d.allocChannel(c));
            if (!bytes) continue;
            const int stride = prtComponentCount(c) * 4;
            for (int i = 0; i < d.count * stride; ++i) bytes[i] = in.byte();
            if (c == PRT_POSITION)
                for (int i = 0; i < d.count * 3; ++i) {
                    float v = float(in.byte() % 40) * 0.25f - 1.0f;
                    std::memcpy(bytes + 4 * i, &v, 4);
                }
        }
        if (d.channelData[PRT_ID].expanded.count > 0) d.buildIdOrder();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    VaporixFrameData a, b, d;
    a.blendThreads = b.blendThreads = d.blendThreads = 2;
    buildFrame(a, in);
    buildFrame(b, in);
    const float t = float(in.byte()) / 255.0f;
    const int grid = in.byte() % 3, particles = in.byte() % 3;
    const int method = (grid == 2 ? 0xFF : grid) | (particles == 2 ? 0xFF : particles) << 8;
    const float overlap = in.value();
    d.Blend(a, b, t, method, true, overlap);
    d.Blend(a, b, 1.0f - t, method, false, overlap);
    return 0;
}
