// Reader and writer of OpenVDB files for cache frames: the work behind openvdbio's exports.
#pragma once

#include <string>

#include "cache/CacheIO.h"

namespace vaporix {

class VaporixFrameData;
namespace LUtils {
class ThreadManager;
}

namespace openvdbio {

/// The channels of an OpenVDB file: a float or double grid by its name (kind 0), a vector grid G
/// as "G.x", "G.y", "G.z" (kind 1). Grids of other value types are not offered.
void listChannels(const char* path, iArray<CacheIO::AvaiableChannels>& out);

/// Fills `frame` with the grids the mappings name. A vector grid G answers to "G.x" and to
/// "G(x)" (the letter in either case). The frame covers the union of the active boxes of the
/// mapped grids (and the dense box a file written by `exportFrame` declares); grid cell i holds
/// index-space voxel box.min + i, cell-centred: grid coordinate i + 0.5 is the voxel's centre.
/// Values outside a grid's active set are its background. Frames above 2^31-1 cells are
/// point-sampled every n-th voxel (frame flag 2). Names the file lacks, and grids of other value
/// types, are skipped; grids whose transform differs from the first mapped grid's are skipped.
/// @return 0; 3 when the file is missing; 7 when it can't be read or none of the mapped grids is
/// usable; 8 when memory runs out.
int importFrame(const char* path,
                VaporixFrameData& frame,
                bool headerOnly,
                const CacheIO::GridMapping* mappings,
                int count,
                LUtils::ThreadManager* threads);

/// Writes the frame's expanded channels: "density" (2), "temperature" (1), "fuel" (10) as float
/// grids, "vel" (4, 5, 6) and "Cd" (7, 8, 9) as vector grids, with the frame's transform and
/// background 0; values within `tolerance` of it are left inactive, and leaves holding only such
/// values are left out. The file appears under its name only when complete.
/// @return 0, or SAVE_FAILED with `error` set.
int exportFrame(const char* path,
                const VaporixFrameData& frame,
                float tolerance,
                std::string& error,
                LUtils::ThreadManager* threads);

/// Test hook: the largest frame, in cells, before downsampling (0 restores 2^31-1).
void setMaxCellsForTesting(int64_t cells);

}  // namespace openvdbio
}  // namespace vaporix
