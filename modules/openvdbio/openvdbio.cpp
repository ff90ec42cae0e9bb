// The exports of openvdbio: OpenVDB frames in and out, behind the catch-all guard.
#include <cstdio>

#include "abi/ExportGuard.h"
#include "abi/SideModuleAbi.h"
#include "cache/VaporixFrameData.h"
#include "openvdbio/OpenVDBIO.h"

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

VAPORIX_EXPORT int ImportFrameVDB(const char* path,
                                  vaporix::VaporixFrameData* frame,
                                  int headerOnly,
                                  const vaporix::CacheIO::GridMapping* mappings,
                                  int count) {
    if (!frame || (count > 0 && !mappings)) return vaporix::sidemodule::VDB_READ_FAILED;
    VAPORIX_MODULE_GUARD(vaporix::sidemodule::VDB_READ_FAILED, {
        return vaporix::openvdbio::importFrame(path, *frame, headerOnly != 0, mappings, count,
                                               gThreads);
    })
}

VAPORIX_EXPORT void GetAvailableChannels(
    const char* path,
    vaporix::iArray<vaporix::CacheIO::AvaiableChannels>* out) {
    if (!out) return;
    VAPORIX_MODULE_GUARD(, { vaporix::openvdbio::listChannels(path, *out); })
}

VAPORIX_EXPORT int ExportFrameVDB(const char* path,
                                  vaporix::VaporixFrameData* frame,
                                  float tolerance,
                                  char* error,
                                  int errorSize) {
    if (!frame) return vaporix::SAVE_FAILED;
    VAPORIX_MODULE_GUARD(vaporix::SAVE_FAILED, {
        std::string message;
        const int status =
            vaporix::openvdbio::exportFrame(path, *frame, tolerance, message, gThreads);
        if (status != 0 && error && errorSize > 0)
            std::snprintf(error, static_cast<size_t>(errorSize), "%s", message.c_str());
        return status;
    })
}
