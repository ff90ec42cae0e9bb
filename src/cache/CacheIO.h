// Foreign caches (Field3D, OpenVDB) through the side modules: loading the modules, channel maps,
// the import of a frame and the default map of a sequence.
//
// Entry points, most used first:
//   loadSideModules(3, defaultModuleSearchPath().c_str(), "lumo", 1)   once at start
//   importVDB / importF3D(path, frame, channelMap, headerOnly)          from the frame loader
//   buildDefaultMapping(out, pattern)                                   the map a sequence gets
//   listCacheChannels(pattern, list)                                    what a sequence offers
#pragma once

#include <cstdint>
#include <string>

#include "foundation/iArray.h"
#include "foundation/iString.h"

namespace vaporix {

class VaporixFrameData;
namespace LUtils {
class ThreadManager;
}

namespace CacheIO {

/// Ties a channel of a foreign file to a grid channel ordinal.
struct GridMapping {
    iString name;
    /// Target ordinal; -1 while being parsed.
    int32_t channel = -1;
    float scale = 1.0f;
    int32_t flags = 0;
};

/// A channel a foreign file offers. Kind 0 (a scalar field) qualifies for the Smoke fallback of
/// the default map; kind 1 is a component of a vector field.
struct AvaiableChannels {
    iString name;
    uint8_t kind = 0;
};
constexpr uint8_t KIND_SCALAR = 0;
constexpr uint8_t KIND_VECTOR_COMPONENT = 1;

/// Module bits of `loadSideModules` and its result.
constexpr int MODULE_FIELD3D = 1;
constexpr int MODULE_OPENVDB = 2;

/// Parses "%d,%s;" items (ordinal by atoi, name up to the semicolon), each appended with scale
/// 1.0. An empty or null text gives no mapping. @return the number of mappings appended.
int parseChannelMap(const char* text, iArray<GridMapping>& out);
/// The text form: "%d,%s;" per mapping, in order (scales are not part of it).
std::string printChannelMap(const iArray<GridMapping>& mappings);

/// The file name of a module: without a search path (or without a suffix) the bare name
/// "<module>_<suffix>.so" or "<module>.so" for the loader's own search; with both, the first
/// "<dir>/<module>_<suffix>.so" that exists among the directories of `searchPath` (separated
/// by ':' or ';'), or empty when none does. Names longer than 1024 characters are skipped.
std::string sideModuleFileName(const char* module, const char* searchPath, const char* suffix);

/// The search path of this platform: the folders of $LUMO_MODULE_PATH, then the folder of the
/// running program.
std::string defaultModuleSearchPath();

/// Loads the modules of `which` (bit 0 field3dio, bit 1 openvdbio) unless loaded already.
/// A module whose library can't be found or opened, or that lacks one of the five exports, is
/// not used. `axisMode` (1 as is, 2 y and z exchanged) holds for all later imports.
/// @return the mask of the modules that failed.
int loadSideModules(int which, const char* searchPath, const char* suffix, int axisMode);
/// Forgets the modules and their exports (end of the process, tests); the libraries stay mapped.
void unloadSideModules();

/// Calls SetThreadManager of each loaded module. @return true when at least one module exists
/// and all returned 0.
bool setSideModuleThreadManager(LUtils::ThreadManager* manager);
void releaseSideModuleThreadManagers();

bool hasField3DModule();
bool hasOpenVDBModule();
/// The OpenVDB module also offers the writer (`exportVDB`).
bool hasOpenVDBExport();
/// The axis mode given to `loadSideModules`.
int sideModuleAxisMode();

/// Imports a foreign frame: resets the header, parses `channelMap`, calls the module, keeps
/// velocity only when all three components came, puts in the placeholder stream word and
/// applies the axis mode. @return 0, 2 (no module), 9 (no mapping) or the module's status.
int importF3D(const char* path, VaporixFrameData& frame, const char* channelMap, bool headerOnly);
int importVDB(const char* path, VaporixFrameData& frame, const char* channelMap, bool headerOnly);

/// Writes the frame's channels as OpenVDB grids "density", "temperature", "fuel", "vel"
/// (vector) and "Cd" (vector) with the frame's transform. Expands what it writes.
/// @return 0, 2 without the module, or SAVE_FAILED with `error` set.
int exportVDB(const char* path, VaporixFrameData& frame, float tolerance, std::string& error);

/// Gathers the channels of every file of the sequence `pattern` (each name once, in the order
/// first seen). A file of another extension ends the walk; without the module for a file's
/// format nothing is added. @return the number of channels in `out`.
int listCacheChannels(const char* pattern, iArray<AvaiableChannels>& out);

/// The default channel map of a foreign sequence by the tables of its format, with the Smoke
/// fallback; empty for an empty pattern, no channels, or another extension.
void buildDefaultMapping(std::string& out, const char* pattern);

/// The default map for a list of channels of a format ("vdb" or "f3d"); what
/// `buildDefaultMapping` does once the channels are listed.
void defaultMappingFor(const char* extension,
                       const iArray<AvaiableChannels>& channels,
                       iArray<GridMapping>& out);

/// The user message of a module status (5, 6, 8), or null for a status that has none.
const char* sideModuleStatusMessage(int status);
/// The warning for a frame that the module downsampled.
const char* downsampledMessage();

}  // namespace CacheIO
}  // namespace vaporix
