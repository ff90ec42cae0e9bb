// OpenVDB's volumeToMesh and meshToVolume as baselines of the mesher benchmark.
#include <openvdb/openvdb.h>
#include <openvdb/tools/Dense.h>
#include <openvdb/tools/MeshToVolume.h>
#include <openvdb/tools/VolumeToMesh.h>
#include <tbb/task_arena.h>

#include "Mesher_baselines.h"

namespace vaporix::bench {

struct VdbVolumeToMesh::Impl {
    openvdb::FloatGrid::Ptr grid;
    float iso = 0;
    tbb::task_arena arena;
    explicit Impl(int threads) : arena(threads) {}
};

VdbVolumeToMesh::VdbVolumeToMesh(const float* field, const int size[3], float iso, int threads)
    : mImpl(new Impl(threads)) {
    openvdb::initialize();
    const openvdb::CoordBBox box(openvdb::Coord(0, 0, 0),
                                 openvdb::Coord(size[0] - 1, size[1] - 1, size[2] - 1));
    // Dense layout with x fastest is OpenVDB's LayoutXYZ (z fastest) transposed: copy by hand.
    openvdb::tools::Dense<float, openvdb::tools::LayoutXYZ> dense(box);
    for (int z = 0; z < size[2]; ++z)
        for (int y = 0; y < size[1]; ++y)
            for (int x = 0; x < size[0]; ++x)
                dense.setValue(openvdb::Coord(x, y, z),
                               field[(static_cast<size_t>(z) * size[1] + y) * size[0] + x]);
    mImpl->grid = openvdb::FloatGrid::create(0.0f);
    openvdb::tools::copyFromDense(dense, *mImpl->grid, 0.0f);
    mImpl->iso = iso;
}

VdbVolumeToMesh::~VdbVolumeToMesh() = default;

int64_t VdbVolumeToMesh::run() {
    int64_t n = 0;
    mImpl->arena.execute([&] {
        std::vector<openvdb::Vec3s> points;
        std::vector<openvdb::Vec3I> triangles;
        std::vector<openvdb::Vec4I> quads;
        openvdb::tools::volumeToMesh(*mImpl->grid, points, triangles, quads, mImpl->iso);
        n = static_cast<int64_t>(triangles.size() + quads.size());
    });
    return n;
}

struct VdbMeshToVolume::Impl {
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    openvdb::math::Transform::Ptr transform;
    float band = 3;
    tbb::task_arena arena;
    explicit Impl(int threads) : arena(threads) {}
};

VdbMeshToVolume::VdbMeshToVolume(const std::vector<float>& points,
                                 const std::vector<int32_t>& triangles, float voxelSize,
                                 float bandWidth, int threads)
    : mImpl(new Impl(threads)) {
    openvdb::initialize();
    mImpl->transform = openvdb::math::Transform::createLinearTransform(voxelSize);
    for (size_t i = 0; i + 2 < points.size(); i += 3)
        mImpl->points.push_back(mImpl->transform->worldToIndex(
            openvdb::Vec3d(points[i], points[i + 1], points[i + 2])));
    for (size_t i = 0; i + 2 < triangles.size(); i += 3)
        mImpl->triangles.emplace_back(triangles[i], triangles[i + 1], triangles[i + 2]);
    mImpl->band = bandWidth;
}

VdbMeshToVolume::~VdbMeshToVolume() = default;

int64_t VdbMeshToVolume::run() {
    int64_t n = 0;
    mImpl->arena.execute([&] {
        openvdb::tools::QuadAndTriangleDataAdapter<openvdb::Vec3s, openvdb::Vec3I> mesh(
            mImpl->points, mImpl->triangles);
        auto grid = openvdb::tools::meshToVolume<openvdb::FloatGrid>(
            mesh, *mImpl->transform, mImpl->band, mImpl->band,
            openvdb::tools::UNSIGNED_DISTANCE_FIELD);
        n = static_cast<int64_t>(grid->activeVoxelCount());
    });
    return n;
}

}  // namespace vaporix::bench
