// OpenVDB's volume renderer on a dense field copied into a sparse FloatGrid, with the thread count
// set by a TBB arena and a counting variant of its trilinear sampler.
#include "VolumeRender_openvdb.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/Dense.h>
#include <openvdb/tools/RayTracer.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <cmath>

namespace vaporix::bench {

namespace {

using openvdb::Vec3R;

/// Grid samples of the counting pass. That pass runs on one thread; relaxed increments keep it
/// well defined all the same.
std::atomic<uint64_t> gSamples{0};

/// The trilinear sampler VolumeRender uses by default, counting its calls.
struct CountingBoxSampler : openvdb::tools::BoxSampler {
    template <class TreeT>
    static bool sample(const TreeT& tree, const Vec3R& xyz, typename TreeT::ValueType& result) {
        gSamples.fetch_add(1, std::memory_order_relaxed);
        return openvdb::tools::BoxSampler::sample(tree, xyz, result);
    }
};

using Intersector = openvdb::tools::VolumeRayIntersector<openvdb::FloatGrid>;
using Render = openvdb::tools::VolumeRender<Intersector>;
using CountingRender = openvdb::tools::VolumeRender<Intersector, CountingBoxSampler>;

constexpr double PI = 3.14159265358979323846;
/// PerspectiveCamera's film width in mm; only its ratio to the focal length matters.
constexpr double APERTURE = 41.2136;

}  // namespace

struct VdbVolumeRender::Impl {
    VdbSceneDesc scene;
    openvdb::FloatGrid::Ptr grid;
    std::unique_ptr<Intersector> intersector;
    std::unique_ptr<openvdb::tools::Film> film;
    std::unique_ptr<openvdb::tools::PerspectiveCamera> camera;
    double primaryStep = 0.5;
    double shadowStep = 1.0;
    double cutoff = 0.005;

    template <typename R>
    void configure(R& r) const {
        r.setLightDir(scene.toLight[0], scene.toLight[1], scene.toLight[2]);
        r.setLightColor(scene.lightColor[0], scene.lightColor[1], scene.lightColor[2]);
        r.setPrimaryStep(primaryStep);
        r.setShadowStep(shadowStep);
        // All extinction scatters: the albedo is then the light colour, as in the other renders.
        r.setScattering(scene.extinction, scene.extinction, scene.extinction);
        r.setAbsorption(0.0, 0.0, 0.0);
        // No multiple-scattering fudge: plain Beer-Lambert along the shadow rays.
        r.setLightGain(0.0);
        r.setCutOff(cutoff);
    }
};

VdbVolumeRender::VdbVolumeRender(const VdbSceneDesc& scene) : mImpl(std::make_unique<Impl>()) {
    openvdb::initialize();
    Impl& m = *mImpl;
    m.scene = scene;
    m.primaryStep = scene.primaryStep;
    m.shadowStep = scene.shadowStep;
    m.cutoff = scene.cutoff;

    // The sparse grid: zero is the background, so the empty cells stay inactive.
    const openvdb::CoordBBox box(
        openvdb::Coord(0, 0, 0),
        openvdb::Coord(scene.size[0] - 1, scene.size[1] - 1, scene.size[2] - 1));
    openvdb::tools::Dense<const float, openvdb::tools::LayoutXYZ> dense(box, scene.density);
    m.grid = openvdb::FloatGrid::create(0.0f);
    openvdb::tools::copyFromDense(dense, *m.grid, 0.0f);
    openvdb::math::Transform::Ptr transform = openvdb::math::Transform::createLinearTransform(1.0);
    transform->postTranslate(
        openvdb::Vec3d(scene.worldOffset[0], scene.worldOffset[1], scene.worldOffset[2]));
    m.grid->setTransform(transform);
    m.grid->setGridClass(openvdb::GRID_FOG_VOLUME);
    m.intersector = std::make_unique<Intersector>(*m.grid);

    // The camera: PerspectiveCamera takes the horizontal extent as aperture / focal length.
    m.film = std::make_unique<openvdb::tools::Film>(scene.width, scene.height);
    const double tanHalfWidth =
        std::tan(0.5 * scene.fovY * PI / 180.0) * static_cast<double>(scene.width) / scene.height;
    const double focal = 0.5 * APERTURE / tanHalfWidth;
    m.camera = std::make_unique<openvdb::tools::PerspectiveCamera>(
        *m.film, Vec3R(0.0), Vec3R(scene.eye[0], scene.eye[1], scene.eye[2]), focal, APERTURE);
    m.camera->lookAt(Vec3R(scene.target[0], scene.target[1], scene.target[2]),
                     Vec3R(scene.up[0], scene.up[1], scene.up[2]));
}

VdbVolumeRender::~VdbVolumeRender() = default;

void VdbVolumeRender::setMarching(double primaryStep, double shadowStep, double cutoff) {
    mImpl->primaryStep = primaryStep;
    mImpl->shadowStep = shadowStep;
    mImpl->cutoff = cutoff;
}

void VdbVolumeRender::render(int threads) {
    Render r(*mImpl->intersector, *mImpl->camera);
    mImpl->configure(r);
    // render(true) is one tbb::parallel_for over the image rows; the arena caps its threads.
    tbb::task_arena arena(threads);
    arena.execute([&] { r.render(true); });
}

uint64_t VdbVolumeRender::countSamples() {
    CountingRender r(*mImpl->intersector, *mImpl->camera);
    mImpl->configure(r);
    gSamples.store(0);
    r.render(false);
    return gSamples.load();
}

void VdbVolumeRender::pixels(std::vector<float>& rgba) const {
    const openvdb::tools::Film& film = *mImpl->film;
    rgba.resize(film.numPixels() * 4);
    const openvdb::tools::Film::RGBA* p = film.pixels();
    for (size_t i = 0; i < film.numPixels(); ++i) {
        rgba[4 * i + 0] = p[i].r;
        rgba[4 * i + 1] = p[i].g;
        rgba[4 * i + 2] = p[i].b;
        rgba[4 * i + 3] = p[i].a;
    }
}

void VdbVolumeRender::rayDirection(int i, int j, double out[3]) const {
    const openvdb::math::Ray<double> ray =
        mImpl->camera->getRay(static_cast<size_t>(i), static_cast<size_t>(j));
    for (int a = 0; a < 3; ++a) out[a] = ray.dir()[a];
}

uint64_t VdbVolumeRender::activeVoxels() const { return mImpl->grid->activeVoxelCount(); }

}  // namespace vaporix::bench
