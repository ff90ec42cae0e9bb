// OpenVDB's volume renderer (openvdb::tools::VolumeRender) as a baseline of the render benchmark,
// behind plain types so that only its own source file includes OpenVDB's headers.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace vaporix::bench {

/// A scene in the terms VolumeRender takes. Voxel (i, j, k) of the dense field sits at the world
/// point (i, j, k) + `worldOffset`, one world unit a voxel.
struct VdbSceneDesc {
    const float* density = nullptr;  ///< nx * ny * nz values, x fastest
    int size[3] = {0, 0, 0};
    double worldOffset[3] = {0.0, 0.0, 0.0};
    /// Pinhole camera: eye, target, up and the vertical field of view in degrees.
    double eye[3] = {0.0, 0.0, 0.0};
    double target[3] = {0.0, 0.0, 1.0};
    double up[3] = {0.0, 0.0, 1.0};
    double fovY = 40.0;
    int width = 640;
    int height = 360;
    /// Unit direction from the volume towards the directional light, and what a fully lit,
    /// fully opaque voxel returns (light colour times albedo).
    double toLight[3] = {0.0, 0.0, 1.0};
    double lightColor[3] = {1.0, 1.0, 1.0};
    /// Extinction per voxel length at density 1 (all of it scattering).
    double extinction = 1.0;
    /// Ray steps in voxels (euclidean length along the ray).
    double primaryStep = 0.5;
    double shadowStep = 1.0;
    /// VolumeRender's one cut-off: densities under it are skipped, and a ray stops when the
    /// squared length of its RGB transmittance falls under it.
    double cutoff = 0.005;
};

/// One VolumeRender set up for a scene: the sparse grid, its intersector, camera and film.
class VdbVolumeRender {
public:
    explicit VdbVolumeRender(const VdbSceneDesc& scene);
    ~VdbVolumeRender();
    VdbVolumeRender(const VdbVolumeRender&) = delete;
    VdbVolumeRender& operator=(const VdbVolumeRender&) = delete;

    /// Changes the ray steps and the cut-off of the next renders.
    void setMarching(double primaryStep, double shadowStep, double cutoff);
    /// Renders the image on a TBB arena of `threads` threads.
    void render(int threads);
    /// Renders once on one thread with a sampler that counts its grid samples.
    /// @return the samples taken (primary and shadow).
    uint64_t countSamples();
    /// The last image: RGBA floats row by row from the top-left (premultiplied, no background).
    void pixels(std::vector<float>& rgba) const;
    /// The unit world direction of the camera ray through the centre of pixel (i, j).
    void rayDirection(int i, int j, double out[3]) const;
    /// Active voxels of the sparse grid made from the dense field.
    uint64_t activeVoxels() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

}  // namespace vaporix::bench
