// Procedural smoke density and fire temperature fields, shaped like a simulation's output, for
// benchmarks: a wandering plume that widens as it rises, turbulent inside, exactly zero outside.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace vaporix::bench {

/// A field of nx * ny * nz floats, x fastest, z up.
struct ProceduralField {
    int nx = 0, ny = 0, nz = 0;
    std::vector<float> values;
    uint64_t cells() const { return values.size(); }
    uint64_t bytes() const { return values.size() * sizeof(float); }
};

namespace detail {

inline uint32_t hash3(int x, int y, int z, uint32_t seed) {
    uint32_t h = seed * 0x9E3779B9u;
    h ^= static_cast<uint32_t>(x) * 0x85EBCA6Bu;
    h = (h << 13) | (h >> 19);
    h ^= static_cast<uint32_t>(y) * 0xC2B2AE35u;
    h = (h << 17) | (h >> 15);
    h ^= static_cast<uint32_t>(z) * 0x27D4EB2Fu;
    h ^= h >> 16;
    h *= 0x7FEB352Du;
    h ^= h >> 15;
    h *= 0x846CA68Bu;
    h ^= h >> 16;
    return h;
}

inline float lattice(int x, int y, int z, uint32_t seed) {
    return static_cast<float>(hash3(x, y, z, seed) >> 8) * (2.0f / 16777216.0f) - 1.0f;
}

/// Smooth value noise in [-1, 1].
inline float valueNoise(float x, float y, float z, uint32_t seed) {
    const float fx = std::floor(x), fy = std::floor(y), fz = std::floor(z);
    const int ix = static_cast<int>(fx), iy = static_cast<int>(fy), iz = static_cast<int>(fz);
    auto smooth = [](float t) { return t * t * (3.0f - 2.0f * t); };
    const float tx = smooth(x - fx), ty = smooth(y - fy), tz = smooth(z - fz);
    float c[2][2];
    for (int dz = 0; dz < 2; ++dz)
        for (int dy = 0; dy < 2; ++dy) {
            const float a = lattice(ix, iy + dy, iz + dz, seed);
            const float b = lattice(ix + 1, iy + dy, iz + dz, seed);
            c[dz][dy] = a + (b - a) * tx;
        }
    const float lo = c[0][0] + (c[0][1] - c[0][0]) * ty;
    const float hi = c[1][0] + (c[1][1] - c[1][0]) * ty;
    return lo + (hi - lo) * tz;
}

/// Four octaves of value noise, roughly in [-1, 1].
inline float turbulence(float x, float y, float z, uint32_t seed) {
    float sum = 0, amplitude = 0.5f, frequency = 1.0f;
    for (int octave = 0; octave < 4; ++octave) {
        sum += amplitude * valueNoise(x * frequency, y * frequency, z * frequency, seed + octave);
        amplitude *= 0.5f;
        frequency *= 2.03f;
    }
    return sum / 0.9375f;
}

}  // namespace detail

/// Smoke density: a plume rising from the floor, widening and thinning with height, turbulent
/// inside; cells below 0.002 are empty (exactly 0), as a solver leaves them. The turbulence is
/// band-limited like a solver's output: its finest octave has a wavelength of about 4 cells
/// across and 6 cells up (advection and the grid smooth anything finer away).
inline ProceduralField smokeDensity(int nx = 128, int ny = 128, int nz = 192, uint32_t seed = 1) {
    ProceduralField f{nx, ny, nz, std::vector<float>(static_cast<size_t>(nx) * ny * nz, 0.0f)};
    for (int z = 0; z < nz; ++z) {
        const float h = (z + 0.5f) / nz;
        const float cx = 0.5f + 0.08f * std::sin(3.1f * h + 0.4f);
        const float cy = 0.5f + 0.06f * std::cos(2.3f * h);
        const float radius = 0.07f + 0.3f * h;
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const float px = (x + 0.5f) / nx, py = (y + 0.5f) / ny;
                const float dx = px - cx, dy = py - cy;
                const float edge =
                    radius * (1.0f + 0.35f * detail::turbulence(px * 3, py * 3, h * 3, seed));
                const float d = std::sqrt(dx * dx + dy * dy);
                if (d >= edge) continue;
                const float core = 1.0f - d / edge;
                const float swirl = detail::turbulence(px * 4, py * 4, h * 4 - 0.7f, seed + 9);
                float density = std::pow(core, 0.6f) * (0.65f + 0.35f * swirl) * (1.1f - 0.6f * h);
                if (density < 0.002f) density = 0.0f;
                f.values[static_cast<size_t>(x + nx * (y + static_cast<size_t>(ny) * z))] = density;
            }
    }
    return f;
}

/// Fire temperature: a flame at the foot of the plume, up to about 2000, cooling with height;
/// the ambient is 0. Its flicker is band-limited as the smoke's turbulence.
inline ProceduralField fireTemperature(int nx = 128,
                                       int ny = 128,
                                       int nz = 192,
                                       uint32_t seed = 2) {
    ProceduralField f{nx, ny, nz, std::vector<float>(static_cast<size_t>(nx) * ny * nz, 0.0f)};
    for (int z = 0; z < nz; ++z) {
        const float h = (z + 0.5f) / nz;
        if (h > 0.55f) continue;
        const float cx = 0.5f + 0.05f * std::sin(7.0f * h);
        const float cy = 0.5f + 0.04f * std::cos(5.0f * h);
        const float radius = 0.16f * (1.0f - h / 0.6f);
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const float px = (x + 0.5f) / nx, py = (y + 0.5f) / ny;
                const float dx = px - cx, dy = py - cy;
                const float flicker = detail::turbulence(px * 4, py * 4, h * 4 - 1.3f, seed);
                const float edge = radius * (1.0f + 0.4f * flicker);
                const float d = std::sqrt(dx * dx + dy * dy);
                if (d >= edge) continue;
                const float heat = 1.0f - d / edge;
                const float temperature =
                    2000.0f * heat * heat * (0.8f + 0.2f * flicker) * (1.0f - 0.8f * h);
                f.values[static_cast<size_t>(x + nx * (y + static_cast<size_t>(ny) * z))] =
                    temperature < 1.0f ? 0.0f : temperature;
            }
    }
    return f;
}

}  // namespace vaporix::bench
