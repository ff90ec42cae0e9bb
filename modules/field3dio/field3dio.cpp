// The exports of field3dio: Field3D frames through the reader, behind the catch-all guard.
#include "abi/ExportGuard.h"
#include "abi/SideModuleAbi.h"
#include "field3dio/Field3DReader.h"

namespace {
vaporix::LUtils::ThreadManager* gThreads = nullptr;
}

#define VAPORIX_EXPORT extern "C" __attribute__((visibility("default")))

VAPORIX_EXPORT void Initialize(void) {}

VAPORIX_EXPORT int SetThreadManager(vaporix::LUtils::ThreadManager* manager) {
    gThreads = manager;
    return 0;
}

VAPORIX_EXPORT void ReleaseThreadManager(void) { gThreads = nullptr; }

VAPORIX_EXPORT int ImportFrameF3D(const char* path,
                                  vaporix::VaporixFrameData* frame,
                                  int headerOnly,
                                  const vaporix::CacheIO::GridMapping* mappings,
                                  int count) {
    if (!frame || (count > 0 && !mappings)) return vaporix::sidemodule::F3D_READ_FAILED;
    VAPORIX_MODULE_GUARD(vaporix::sidemodule::F3D_READ_FAILED, {
        return vaporix::field3dio::importFrame(path, *frame, headerOnly != 0, mappings, count,
                                               gThreads);
    })
}

VAPORIX_EXPORT void GetAvailableChannels(
    const char* path,
    vaporix::iArray<vaporix::CacheIO::AvaiableChannels>* out) {
    if (!out) return;
    VAPORIX_MODULE_GUARD(, { vaporix::field3dio::listChannels(path, *out); })
}
