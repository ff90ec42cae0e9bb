// The C entry points of the side modules (field3dio, openvdbio) as the main library resolves them.
//
// Both sides are built from one source tree with one compiler, so the frame and the arrays
// cross the boundary as the C++ objects they are: a module writes the public fields of the
// frame it is handed (gridSize, gridTransform, channelMask, frameFlags, channels) and
// allocates channel arrays with `vaporix::internal::arrayAllocate`, which the main library's
// clear releases. A module calls no non-virtual member of the frame.
#pragma once

#include "cache/CacheIO.h"

namespace vaporix {
class VaporixFrameData;
namespace LUtils {
class ThreadManager;
}
}  // namespace vaporix

extern "C" {

/// Resolved, not called.
typedef void (*SideModuleInitializeFn)(void);
/// Hands the module the job engine's thread manager. @return 0 on success.
typedef int (*SideModuleSetThreadManagerFn)(vaporix::LUtils::ThreadManager* manager);
typedef void (*SideModuleReleaseThreadManagerFn)(void);
/// Fills `frame` from the file at `path` by the `count` mappings. @return a load status.
typedef int (*SideModuleImportFrameFn)(const char* path,
                                       vaporix::VaporixFrameData* frame,
                                       int headerOnly,
                                       const vaporix::CacheIO::GridMapping* mappings,
                                       int count);
/// Appends the channels the file offers to `out`, each name once.
typedef void (*SideModuleGetAvailableChannelsFn)(
    const char* path,
    vaporix::iArray<vaporix::CacheIO::AvaiableChannels>* out);
/// openvdbio only, beside the five: writes the frame's channels as an OpenVDB file, values within
/// `tolerance` of the background left inactive. The channels to write must be expanded.
/// @return 0, or SAVE_FAILED with `error` (room for `errorSize` bytes) saying why.
typedef int (*SideModuleExportFrameFn)(const char* path,
                                       vaporix::VaporixFrameData* frame,
                                       float tolerance,
                                       char* error,
                                       int errorSize);

}  // extern "C"

namespace vaporix::sidemodule {

/// Export names, in the order the loader resolves them.
constexpr const char* INITIALIZE = "Initialize";
constexpr const char* SET_THREAD_MANAGER = "SetThreadManager";
constexpr const char* RELEASE_THREAD_MANAGER = "ReleaseThreadManager";
constexpr const char* IMPORT_F3D = "ImportFrameF3D";
constexpr const char* IMPORT_VDB = "ImportFrameVDB";
constexpr const char* GET_AVAILABLE_CHANNELS = "GetAvailableChannels";
constexpr const char* EXPORT_VDB = "ExportFrameVDB";

/// Statuses the modules return beyond those of every load.
constexpr int F3D_READ_FAILED = 5;
constexpr int F3D_OUT_OF_MEMORY = 6;
constexpr int VDB_READ_FAILED = 7;
constexpr int VDB_OUT_OF_MEMORY = 8;

/// Largest cell count a module hands over; bigger grids are downsampled.
constexpr int64_t MAX_IMPORT_CELLS = 2147483647;

}  // namespace vaporix::sidemodule
