// The stand-alone illuminator: lights, inverse-square falloff, spot cones and shadow rays
// through all volumes.
#include "standalone/StandaloneIlluminator.h"

#include <cmath>
#include <cstring>

namespace vaporix {

namespace {

/// The illuminator of a shadow ray. The shadow road marks the illuminator it is given as a
/// shadow ray, so shadow rays never share the shading ray's illuminator. It lights nothing.
class ShadowIlluminator : public Illuminator {
public:
    void Illuminate(float out[3], const float*, const float*, float*, float*) override {
        out[0] = out[1] = out[2] = 0.0f;
    }
};

uint32_t mix32(uint32_t x) {
    // A 32-bit finaliser with good avalanche: every input bit changes about half the output.
    x ^= x >> 16;
    x *= 0x7feb352du;
    x ^= x >> 15;
    x *= 0x846ca68bu;
    x ^= x >> 16;
    return x;
}

uint32_t floatBits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

double length(const double v[3]) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

}  // namespace

uint32_t hashSeed(uint32_t a, uint32_t b, uint32_t c) {
    return mix32(a ^ (mix32(b ^ (mix32(c + 0x9e3779b9u) + 0x85ebca6bu)) + 0xc2b2ae35u));
}

void StandaloneIlluminator::Illuminate(float out[3],
                                       const float position[3],
                                       const float diffuse[3],
                                       float* /*alphaOut*/,
                                       float* /*normalOut*/) {
    out[0] = out[1] = out[2] = 0.0f;
    if (!currentShader) return;
    float world[3];
    currentShader->gridToWorld(position, world, mScene.time);
    const double point[3] = {world[0], world[1], world[2]};
    float light[3];
    lightAt(point, nullptr, light);
    for (int c = 0; c < 3; ++c) out[c] = light[c] * diffuse[c];
}

void StandaloneIlluminator::lightAt(const double point[3], const double* normal, float out[3]) {
    out[0] = out[1] = out[2] = 0.0f;
    // Shadow-ray noise keyed by the point itself, not by the pixel or the thread.
    const uint32_t pointSeed =
        hashSeed(floatBits(static_cast<float>(point[0])), floatBits(static_cast<float>(point[1])),
                 floatBits(static_cast<float>(point[2])));
    const double* box = mScene.box;
    const double centre[3] = {0.5 * (box[0] + box[3]), 0.5 * (box[1] + box[4]),
                              0.5 * (box[2] + box[5])};
    const double halfDiagonal[3] = {0.5 * (box[3] - box[0]), 0.5 * (box[4] - box[1]),
                                    0.5 * (box[5] - box[2])};
    const double toCentre[3] = {point[0] - centre[0], point[1] - centre[1], point[2] - centre[2]};
    // From the point, any place farther than this is outside the scene's box.
    const double farEnough = length(toCentre) + length(halfDiagonal) + 1.0;

    for (size_t i = 0; i < mScene.lights.size(); ++i) {
        const Light& light = mScene.lights[i];
        float strength = light.intensity;
        if (light.kind == LightKind::Ambient) {
            for (int c = 0; c < 3; ++c) out[c] += light.color[c] * strength;
            continue;
        }
        double toLight[3];
        double target[3];
        if (light.kind == LightKind::Directional) {
            for (int a = 0; a < 3; ++a) {
                toLight[a] = -light.direction[a];
                target[a] = point[a] + toLight[a] * farEnough;
            }
        } else {
            double v[3] = {light.position[0] - point[0], light.position[1] - point[1],
                           light.position[2] - point[2]};
            const double d2 = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
            if (!(d2 > 1e-12)) continue;
            const double d = std::sqrt(d2);
            for (int a = 0; a < 3; ++a) {
                toLight[a] = v[a] / d;
                target[a] = light.position[a];
            }
            strength = static_cast<float>(strength / d2);
            if (light.kind == LightKind::Spot) {
                const double cosAngle =
                    -(toLight[0] * light.direction[0] + toLight[1] * light.direction[1] +
                      toLight[2] * light.direction[2]);
                strength *= spotFactor(light, cosAngle);
            }
        }
        if (normal) {
            const double cosine =
                normal[0] * toLight[0] + normal[1] * toLight[1] + normal[2] * toLight[2];
            if (!(cosine > 0.0)) continue;
            strength = static_cast<float>(strength * cosine);
        }
        if (!(strength > 0.0f)) continue;
        float t[3];
        transmittance(point, target, hashSeed(pointSeed, static_cast<uint32_t>(i), 0x5f3759dfu), t);
        for (int c = 0; c < 3; ++c) out[c] += light.color[c] * strength * t[c];
    }
}

void StandaloneIlluminator::transmittance(const double from[3],
                                          const double to[3],
                                          uint32_t rayseed,
                                          float out[3]) {
    out[0] = out[1] = out[2] = 1.0f;
    if (!mScene.shaders || mScene.shaderCount <= 0) return;
    ShadowIlluminator shadow;
    shadow.seed = rayseed;
    float color[3] = {0.0f, 0.0f, 0.0f};
    VolumeShader::TraceVolumes(from, to, color, out, shadow, mScene.time, mScene.shaders,
                               mScene.shaderCount, false);
    shadowSteps += shadow.stepsTaken;
    shadowSamples += shadow.samplesTaken;
    for (int c = 0; c < 3; ++c) {
        if (!(out[c] >= 0.0f)) out[c] = 0.0f;  // NaN too
        if (out[c] > 1.0f) out[c] = 1.0f;
    }
}

}  // namespace vaporix
