// OpenVDB's ParticlesToLevelSet (rasterizeSpheres) as a baseline of the blend benchmark, behind
// plain types so that only its own source file includes OpenVDB's headers.
#pragma once

#include <cstddef>

namespace vaporix::bench {

/// Rasterises `count` particles (x, y, z each, in voxels of size 1) as spheres of `radius`
/// voxels into a new narrow-band level set on `threads` TBB threads. @return its active voxels.
size_t vdbRasterizeSpheres(const float* positions, size_t count, float radius, int threads);

}  // namespace vaporix::bench
