// OpenVDB's particle rasteriser on the benchmark's particles, with the thread count set by a TBB
// arena.
#include "ParticlesToLevelSet_openvdb.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/ParticlesToLevelSet.h>
#include <tbb/task_arena.h>

namespace vaporix::bench {

namespace {

/// The particle list interface ParticlesToLevelSet reads: positions and one radius for all.
class ParticleList {
public:
    using PosType = openvdb::Vec3R;
    ParticleList(const float* p, size_t n, float r) : mPos(p), mCount(n), mRadius(r) {}
    size_t size() const { return mCount; }
    void getPos(size_t n, openvdb::Vec3R& xyz) const {
        xyz = openvdb::Vec3R(mPos[3 * n], mPos[3 * n + 1], mPos[3 * n + 2]);
    }
    void getPosRad(size_t n, openvdb::Vec3R& xyz, openvdb::Real& radius) const {
        getPos(n, xyz);
        radius = mRadius;
    }
    void getPosRadVel(size_t n, openvdb::Vec3R& xyz, openvdb::Real& radius,
                      openvdb::Vec3R& v) const {
        getPosRad(n, xyz, radius);
        v = openvdb::Vec3R(0, 0, 0);
    }
    void getAtt(size_t n, openvdb::Index32& att) const { att = openvdb::Index32(n); }

private:
    const float* mPos;
    size_t mCount;
    float mRadius;
};

}  // namespace

size_t vdbRasterizeSpheres(const float* positions, size_t count, float radius, int threads) {
    openvdb::initialize();
    tbb::task_arena arena(threads);
    size_t active = 0;
    arena.execute([&] {
        auto grid = openvdb::createLevelSet<openvdb::FloatGrid>(1.0, 3.0);
        openvdb::tools::ParticlesToLevelSet<openvdb::FloatGrid> raster(*grid);
        // Its default smallest radius is 1.5 voxels: one-voxel spheres would be skipped.
        raster.setRmin(0.5);
        ParticleList list(positions, count, radius);
        raster.rasterizeSpheres(list);
        raster.finalize();
        active = grid->activeVoxelCount();
    });
    return active;
}

}  // namespace vaporix::bench
