// The illuminator of the stand-alone renderer: light from point, spot, directional and ambient
// lights, shadowed by every volume of the scene.
#pragma once

#include <cstdint>
#include <vector>

#include "render/VolumeShader.h"
#include "standalone/Light.h"

namespace vaporix {

/// What all illuminators of one render share: the lights and the volumes that cast shadows.
/// Read-only during the render.
struct LightingScene {
    std::vector<Light> lights;
    const VolumeShader* const* shaders = nullptr;
    int shaderCount = 0;
    /// World box around all volumes (min x, y, z, max x, y, z): shadow rays of directional
    /// lights run until they are out of it.
    double box[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    /// Motion blur time of the rays.
    float time = 0.0f;
};

/// Lights a grid point of the current shader with every light of the scene. Each light's
/// contribution is colour * intensity * falloff (inverse square for point and spot, the cone for
/// spot) * the transmittance of all volumes between the point and the light. The light is
/// computed from the point alone (the random numbers of its shadow rays come from a hash of the
/// point), so a light cache filled by any thread holds the same values.
class StandaloneIlluminator : public Illuminator {
public:
    explicit StandaloneIlluminator(const LightingScene& scene) : mScene(scene) {}

    void Illuminate(float out[3],
                    const float position[3],
                    const float diffuse[3],
                    float* alphaOut,
                    float* normalOut) override;

    /// Light arriving at a world point, shadowed by the volumes. With a `normal` (unit) the
    /// light is weighted by the cosine to it and lights from behind give nothing (a surface);
    /// without one every direction counts fully (a volume point). Ambient adds its colour.
    void lightAt(const double point[3], const double* normal, float out[3]);

    /// Transmittance of all volumes between two world points (1 = clear), per channel.
    /// `rayseed` drives the jitter of the shadow ray.
    void transmittance(const double from[3], const double to[3], uint32_t rayseed, float out[3]);

    const LightingScene& scene() const { return mScene; }

    /// Steps and grid samples of the shadow rays this illuminator traced (statistics; the
    /// camera rays' own are in `stepsTaken` and `samplesTaken`).
    uint64_t shadowSteps = 0;
    uint64_t shadowSamples = 0;

private:
    const LightingScene& mScene;
};

/// Deterministic 32-bit hash of three words (pixel x, y and the frame seed, for example).
uint32_t hashSeed(uint32_t a, uint32_t b, uint32_t c);

}  // namespace vaporix
