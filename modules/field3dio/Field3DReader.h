// Reader of Field3D files (HDF5 container) into cache frames: the work behind field3dio's exports.
#pragma once

#include "cache/CacheIO.h"

namespace vaporix {

class VaporixFrameData;
namespace LUtils {
class ThreadManager;
}

namespace field3dio {

/// The channels a Field3D file offers: a scalar layer by its name (kind 0), a vector layer L as
/// "L(x)", "L(y)", "L(z)" (kind 1). A layer name seen twice counts once. A file that can't be
/// read offers nothing.
void listChannels(const char* path, iArray<CacheIO::AvaiableChannels>& out);

/// Fills `frame` with the layers the mappings name: dense, sparse and MAC fields of half, float
/// or double. A mapped name the file lacks is skipped. The frame covers the union of the data
/// windows of the mapped layers (cell i of the grid is voxel i of that box, cell-centred), with
/// 0 where a layer has no data; the transform is the inverse of the partition's
/// voxel-to-world mapping at time 0.
/// @return 0; 3 when the file is missing; 5 when it can't be read (not HDF5, the Ogawa
/// container, a broken or unsupported layer, a data set that fails to read, no mapped layer);
/// 6 when memory runs out.
int importFrame(const char* path,
                VaporixFrameData& frame,
                bool headerOnly,
                const CacheIO::GridMapping* mappings,
                int count,
                LUtils::ThreadManager* threads);

/// Test hook: the largest frame, in cells, that the reader builds (0 restores the default).
void setMaxCellsForTesting(int64_t cells);

}  // namespace field3dio
}  // namespace vaporix
