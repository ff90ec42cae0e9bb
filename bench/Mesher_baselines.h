// Isosurface and distance baselines of the mesher benchmark behind plain types: VTK's Flying
// Edges and OpenVDB's volumeToMesh and meshToVolume, so that only their own sources include
// those libraries' headers.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace vaporix::bench {

/// VTK's vtkFlyingEdges3D over a dense float field (x fastest), `threads` SMP threads.
class VtkFlyingEdges {
public:
    VtkFlyingEdges(const float* field, const int size[3], float iso, int threads);
    ~VtkFlyingEdges();
    /// Extracts the surface again. @return its triangle count.
    int64_t run();

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// OpenVDB's volumeToMesh over the field converted to a sparse grid (conversion in the
/// constructor, not timed), on a TBB arena of `threads`.
class VdbVolumeToMesh {
public:
    VdbVolumeToMesh(const float* field, const int size[3], float iso, int threads);
    ~VdbVolumeToMesh();
    /// @return the polygon count (triangles and quads).
    int64_t run();

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

/// OpenVDB's meshToVolume as an unsigned distance field of a triangle mesh, `bandWidth` voxels
/// of `voxelSize` around the surface.
class VdbMeshToVolume {
public:
    VdbMeshToVolume(const std::vector<float>& points, const std::vector<int32_t>& triangles,
                    float voxelSize, float bandWidth, int threads);
    ~VdbMeshToVolume();
    /// @return the active voxel count.
    int64_t run();

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace vaporix::bench
