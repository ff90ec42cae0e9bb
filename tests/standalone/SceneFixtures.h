// Frames and grid objects built in memory for the stand-alone renderer's tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "cache/SGCompressor.h"
#include "cache/VaporixFrameData.h"
#include "standalone/GridObject.h"

namespace vaporix::test {

/// FastPow2's relative error per evaluation is under 1e-4; a ray of a few dozen steps
/// multiplies as many factors, so transmittances are compared to within this relative error.
constexpr double MARCH_TOLERANCE = 3e-3;

/// Step of exactParams: a tenth of a cell along the ray's dominant axis, for shading and
/// shadow rays alike.
constexpr double EXACT_STEP_CELLS = 0.1;

/// World length of one step along a unit direction in a grid of unit cells.
inline double stepAlong(const double d[3]) {
    const double m = std::max(std::fabs(d[0]), std::max(std::fabs(d[1]), std::fabs(d[2])));
    return EXACT_STEP_CELLS / m;
}

/// A march through `length` world units of constant smoke of transparency `perUnit` gives
/// perUnit^length, or up to one step more light: a last step shorter than a full one is not
/// sampled. Both ends are widened by FastPow2's error.
inline ::testing::AssertionResult marched(double t, double perUnit, double length, double step) {
    const double full = std::pow(perUnit, length);
    const double short1 = std::pow(perUnit, std::max(0.0, length - step));
    if (t >= full * (1.0 - MARCH_TOLERANCE) && t <= short1 * (1.0 + MARCH_TOLERANCE))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "transmittance " << t << " outside [" << full << ", "
                                         << short1 << "] for " << length << " units";
}

/// Adds a channel of raw floats to a frame, as a loaded file holds it.
inline bool addChannel(VaporixFrameData& frame, int channel, const std::vector<float>& values) {
    SGCompressor<3> codec;
    if (!codec.encodeRaw(values.data(), static_cast<int64_t>(values.size()))) return false;
    return frame.appendStreamBlock(channel, codec.output.data,
                                   static_cast<uint64_t>(codec.output.count));
}

/// A grid of nx * ny * nz unit cells with constant smoke. In the world the grid spans
/// x in [-nx/2, nx/2], y in [-ny/2, ny/2], z in [0, nz].
inline bool makeSmokeBox(VaporixFrameData& frame, int nx, int ny, int nz, float smoke) {
    const float size[3] = {float(nx), float(ny), float(nz)};
    if (!frame.initEmpty(size, 1.0f, false)) return false;
    return addChannel(frame, CH_SMOKE, std::vector<float>(size_t(nx) * ny * nz, smoke));
}

/// A ball of smoke of radius n/3 in an n^3 grid, with a hot core (temperature up to 2500).
inline bool makeSmokeBall(VaporixFrameData& frame, int n) {
    const float size[3] = {float(n), float(n), float(n)};
    if (!frame.initEmpty(size, 1.0f, false)) return false;
    std::vector<float> smoke(size_t(n) * n * n), temp(smoke.size());
    const float c = 0.5f * float(n - 1), r = float(n) / 3.0f;
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) {
                const float d =
                    std::sqrt((x - c) * (x - c) + (y - c) * (y - c) + (z - c) * (z - c));
                const size_t i = size_t(x) + size_t(n) * (size_t(y) + size_t(n) * size_t(z));
                smoke[i] = d < r ? 1.0f - d / r : 0.0f;
                temp[i] = d < 0.5f * r ? 2500.0f * (1.0f - 2.0f * d / r) : 0.0f;
            }
    return addChannel(frame, CH_SMOKE, smoke) && addChannel(frame, CH_TEMPERATURE, temp);
}

/// Parameters under which marching is exact and noise-free: no jitter, no step skipped, no
/// early stop, no light cache, steps of EXACT_STEP_CELLS, plain (single-scattering) shadows, smoke
/// transparency `smokeTransparency` per world unit, no emission. Smoke keeps its constant diffuse
/// colour: without one it would not absorb either.
inline void exactParams(GridObject& object, float smokeTransparency) {
    std::string error;
    for (const char* s : {"jitter=off", "lightcache=off", "skiptransp=0", "stoptransp=1",
                          "noscatter=1", "earg=0", "rendstep=10", "rendshadstep=10"})
        object.applySetting(s, error);
    // transpmode 1 (the default) reads smoketransp as an opacity per world unit.
    object.params().setFloat("smoketransp", 0.0, 1.0f - smokeTransparency);
}

}  // namespace vaporix::test
