// A side module for the loader's tests. Its "cache files" are text: one "name kind" line per
// channel. An import gives a 2x2x2 grid whose mapped channels hold their ordinal; the name
// "fail" in a map returns status 5. Built as field3dio and openvdbio (FAKE_IMPORT names the
// import export), and without GetAvailableChannels (FAKE_PARTIAL).
#include <cstring>
#include <fstream>
#include <string>

#include "abi/SideModuleAbi.h"
#include "cache/VaporixFrameData.h"

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
int gThreadManagerCalls = 0;
}

FAKE_EXPORT void Initialize(void) {}

FAKE_EXPORT int SetThreadManager(vaporix::LUtils::ThreadManager* manager) {
    ++gThreadManagerCalls;
    return manager ? 0 : 1;
}

FAKE_EXPORT void ReleaseThreadManager(void) {}

FAKE_EXPORT int FAKE_IMPORT(const char* path,
                            vaporix::VaporixFrameData* frame,
                            int headerOnly,
                            const vaporix::CacheIO::GridMapping* mappings,
                            int count) {
    std::ifstream in(path);
    if (!in) return vaporix::LOAD_NO_FILE;
    frame->gridSize[0] = frame->gridSize[1] = frame->gridSize[2] = 2;
    const float m[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    std::memcpy(frame->gridTransform.m, m, sizeof m);
    for (int i = 0; i < count; ++i) {
        if (mappings[i].name == "fail") return 5;
        const int c = mappings[i].channel;
        frame->channelMask |= 1u << c;
        if (headerOnly) continue;
        auto* data = static_cast<float*>(vaporix::internal::arrayAllocate(12 * sizeof(float)));
        for (int k = 0; k < 12; ++k) data[k] = static_cast<float>(c) * mappings[i].scale;
        frame->channels[c] = data;
    }
    return 0;
}

#ifndef FAKE_PARTIAL
FAKE_EXPORT void GetAvailableChannels(
    const char* path,
    vaporix::iArray<vaporix::CacheIO::AvaiableChannels>* out) {
    std::ifstream in(path);
    std::string name;
    int kind;
    while (in >> name >> kind) {
        vaporix::CacheIO::AvaiableChannels ch;
        ch.name = name;
        ch.kind = static_cast<uint8_t>(kind);
        out->append(ch);
    }
}
#endif
