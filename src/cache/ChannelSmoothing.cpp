// Edge-driven channel smoothing: gradient sweeps, cell noise fixed in world space, and the
// rounds of the smoothing kernel into a side array.
#include "cache/ChannelSmoothing.h"

#include <cmath>
#include <algorithm>
#include <cstring>
#include <new>

namespace vaporix {

namespace {

/// 1/sqrt(27): scales the Sobel magnitude to the range of a single difference.
constexpr float SOBEL_NORM = 0.19245009f;
/// The floor of a warm background, written as its bits so no parser rounds it otherwise.
constexpr uint32_t WARM_FLOOR_BITS = 0x43960CCDu;  // 300.1f
constexpr float COLD_FLOOR = 0.01f;
constexpr float WARM_BACKGROUND = 5.0f;
/// Sum of the smoothing kernel's weights.
constexpr float SMOOTH_KERNEL_SUM = 32.0f;
/// Cells of a row smoothed into a stack buffer at a time.
constexpr int ROW_MAX = 512;

/// Weight 2 on the axis through the centre, 1 off it: the cross profile of the Sobel kernels.
constexpr int sobelProfile(int d) { return d == 0 ? 2 : 1; }

/// Rows of the 3x3 neighbourhood of a row of cells, in kernel order (z slowest, then y).
struct RowSet {
    const float* row[9];
    RowSet(const float* field, int64_t centre, int64_t sy, int64_t sz) {
        for (int k = 0; k < 9; ++k) row[k] = field + centre + (k / 3 - 1) * sz + (k % 3 - 1) * sy;
    }
};

/// Float to int as the truncating conversion of x86 gives it: out of range and NaN give
/// 0x80000000 (no undefined conversion).
int32_t truncToInt32(float v) {
    if (!(v > -2147483904.0f && v < 2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(v);
}

/// The Sobel magnitude of cells x0..x1-1 of one row; neighbours not above `limit` in
/// magnitude count as the centre's value. Sums run in kernel order, zero weights skipped.
/// Written over restrict rows so that the compiler can run it over several cells at once.
void sobelRow(const RowSet& n, int x0, int x1, float limit, float* __restrict out) {
    const float* __restrict r[9];
    for (int k = 0; k < 9; ++k) r[k] = n.row[k];
    for (int x = x0; x < x1; ++x) {
        const float c = r[4][x];
        float gx = 0.0f, gy = 0.0f, gz = 0.0f;
#pragma GCC unroll 27
        for (int k = 0; k < 27; ++k) {
            const int dz = k / 9 - 1, dy = (k / 3) % 3 - 1, dx = k % 3 - 1;
            const float v = r[k / 3][x + dx];
            const float s = std::fabs(v) > limit ? v : c;
            const int wx = dx * sobelProfile(dy) * sobelProfile(dz);
            const int wy = dy * sobelProfile(dx) * sobelProfile(dz);
            const int wz = dz * sobelProfile(dx) * sobelProfile(dy);
            if (wx != 0) gx += static_cast<float>(wx) * s;
            if (wy != 0) gy += static_cast<float>(wy) * s;
            if (wz != 0) gz += static_cast<float>(wz) * s;
        }
        out[x] = std::sqrt(gx * gx + gy * gy + gz * gz) * SOBEL_NORM;
    }
}

/// The smoothed value of every cell x0..x1-1 of a row (4 centre, 2 faces, 1 edges, 0.5
/// corners; each cell with its own limit), blended by the gradient above `t` when BLEND, into
/// out[0..x1-x0). One loop per form, so that neither has a branch.
template <bool BLEND>
void smoothRowAs(const RowSet& n,
                 const float* __restrict g,
                 int x0,
                 int x1,
                 float floor,
                 float similarity,
                 float t,
                 float* __restrict out) {
    const float* __restrict r[9];
    for (int k = 0; k < 9; ++k) r[k] = n.row[k];
    const float norm = 1.0f / (SMOOTH_KERNEL_SUM + similarity);
    for (int x = x0; x < x1; ++x) {
        const float c = r[4][x];
        // max and min written as selects (NaN picks the bound, as fmax and fmin do).
        const float scaled = std::fabs(similarity * c);
        const float limit = scaled > floor ? scaled : floor;
        float sum = 0.0f;
#pragma GCC unroll 27
        for (int k = 0; k < 27; ++k) {
            const int dz = k / 9 - 1, dy = (k / 3) % 3 - 1, dx = k % 3 - 1;
            const int offAxis = (dx != 0) + (dy != 0) + (dz != 0);
            const float w = 4.0f / static_cast<float>(1 << offAxis);
            const float v = r[k / 3][x + dx];
            sum += w * (std::fabs(v) > limit ? v : c);
        }
        if constexpr (BLEND) {
            const float ramp = (g[x] - t) / t;
            const float k = ramp < 1.0f ? ramp : 1.0f;
            out[x - x0] = c * (1.0f - k) + sum * norm * k;
        } else {
            out[x - x0] = sum * norm;
        }
    }
}

void smoothRow(const RowSet& n,
               const float* g,
               int x0,
               int x1,
               float floor,
               float similarity,
               float t,
               float* out) {
    // Thresholds this small are taken as none: the plain smoothed value.
    if (t < 0.0001f)
        smoothRowAs<false>(n, g, x0, x1, floor, similarity, t, out);
    else
        smoothRowAs<true>(n, g, x0, x1, floor, similarity, t, out);
}

}  // namespace

float smoothFloor(const float* field, const int size[3]) {
    const int64_t lastPlane = int64_t(size[0]) * size[1] * (size[2] - 1);
    const float background = (field[0] + field[lastPlane]) * 0.5f;
    if (std::fabs(background) < WARM_BACKGROUND) return COLD_FLOOR;
    float warm;
    std::memcpy(&warm, &WARM_FLOOR_BITS, sizeof warm);
    return warm;
}

uint64_t noiseStep(uint64_t s) {
    constexpr uint64_t MASK48 = (uint64_t(1) << 48) - 1;
    const uint64_t a = s * 25214903917ull + 11u;  // wraps at 64 bits
    const double sine = std::sin(static_cast<double>(a >> 16));
    uint64_t bits;
    std::memcpy(&bits, &sine, sizeof bits);
    return (a + (bits >> 32)) & MASK48;
}

float cellNoise(float value, float random, const float world[3]) {
    const float amount = value * random;
    const int32_t seed = truncToInt32(world[0] * 79367.0f + world[1] * 13757.0f + world[2] * 609221.0f);
    // Seeding is one step from the seed (sign-extended), then three more.
    uint64_t s = noiseStep(static_cast<uint64_t>(static_cast<int64_t>(seed)));
    for (int i = 0; i < 3; ++i) s = noiseStep(s);
    const float r = static_cast<float>(static_cast<double>(s >> 18) * 9.313225746154785e-10);
    return value + (r - 0.5f) * amount;
}

// ---------------------------------------------------------------------------------------------
// Sobel

void Sobel::run(int mode, int threads) {
    init(threads);
    setSpan(static_cast<uint64_t>(size[2] - 2));
    if (mode == 0) {
        mPass = 0;
        runJobs(0);
        // Noise only after every gradient was taken from the field as it was: the gradients
        // then can't depend on which plane another job happened to reach first.
        if (!(settings.random < SMOOTH_RANDOM_MIN)) {
            mPass = 1;
            runJobs(0);
        }
    } else {
        mPass = 2;
        runJobs(1);
    }
}

void Sobel::jobProc(Job& job) {
    const int nx = size[0], ny = size[1];
    const int64_t sy = nx, sz = int64_t(nx) * ny;
    for (uint64_t p = job.first; p < job.last; ++p) {
        const int z = static_cast<int>(p) + 1;
        for (int y = 1; y < ny - 1; ++y) {
            const int64_t rowStart = z * sz + y * sy;
            const RowSet n(field, rowStart, sy, sz);
            float* g = gradient + rowStart;
            if (mPass == 0) {
                sobelRow(n, 1, nx - 1, floor, g);
            } else if (mPass == 1) {
                float* f = field + rowStart;
                for (int x = 1; x < nx - 1; ++x) {
                    if (g[x] < settings.threshold) continue;
                    const float cell[3] = {float(x), float(y), float(z)};
                    float world[3];
                    cellToWorld.apply(cell, world);
                    f[x] = cellNoise(f[x], settings.random, world);
                }
            } else {
                // Only the cells that qualified are measured again; runs of them go together.
                int x = 1;
                while (x < nx - 1) {
                    if (g[x] < settings.threshold) {
                        ++x;
                        continue;
                    }
                    int end = x + 1;
                    while (end < nx - 1 && !(g[end] < settings.threshold)) ++end;
                    sobelRow(n, x, end, floor, g);
                    x = end;
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// MTSmooth

void MTSmooth::jobProc(Job& job) {
    const int nx = size[0], ny = size[1];
    const int64_t sy = nx, sz = int64_t(nx) * ny;
    const float t = threshold;
    for (uint64_t p = job.first; p < job.last; ++p) {
        const int z = static_cast<int>(p) + 1;
        if (job.mode == SMOOTH_COUNT) {
            int64_t count = 0;
            for (int y = 1; y < ny - 1; ++y) {
                const float* g = gradient + z * sz + y * sy;
                for (int x = 1; x < nx - 1; ++x) count += !(g[x] < t);
            }
            planeCount[z] = count;
            continue;
        }
        if (job.mode == SMOOTH_STORE) {
            const float* r = results + planeStart[z];
            for (int y = 1; y < ny - 1; ++y) {
                const int64_t row = z * sz + y * sy;
                const float* g = gradient + row;
                float* f = field + row;
                for (int x = 1; x < nx - 1; ++x)
                    if (!(g[x] < t)) f[x] = *r++;
            }
            continue;
        }
        float* out = results + planeStart[z];
        float row[ROW_MAX];
        for (int y = 1; y < ny - 1; ++y) {
            const int64_t rowStart = z * sz + y * sy;
            const float* g = gradient + rowStart;
            const RowSet n(field, rowStart, sy, sz);
            // Whole stretches of the row at once, then the qualifying cells packed.
            for (int x0 = 1; x0 < nx - 1; x0 += ROW_MAX - 2) {
                const int x1 = std::min(nx - 1, x0 + ROW_MAX - 2);
                smoothRow(n, g, x0, x1, floor, settings.similarity, t, row);
                for (int x = x0; x < x1; ++x)
                    if (!(g[x] < t)) *out++ = row[x - x0];
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// ChannelSmoother

ChannelSmoother::ChannelSmoother(ThreadManager* manager, int threads)
    : mSobel(manager), mSmooth(manager), mThreads(threads) {}

ChannelSmoother::~ChannelSmoother() = default;

bool ChannelSmoother::reserve(int64_t cells, int nz) {
    if (cells > mCapacity) {
        mGradient.reset();
        mResults.reset();
        mCapacity = 0;
        mGradient.reset(new (std::nothrow) float[static_cast<size_t>(cells)]);
        mResults.reset(new (std::nothrow) float[static_cast<size_t>(cells)]);
        if (!mGradient || !mResults) {
            mGradient.reset();
            mResults.reset();
            return false;
        }
        mCapacity = cells;
    }
    if (nz > mPlaneCapacity) {
        mPlaneStart.reset(new (std::nothrow) int64_t[static_cast<size_t>(nz)]);
        mPlaneCount.reset(new (std::nothrow) int64_t[static_cast<size_t>(nz)]);
        mPlaneCapacity = (mPlaneStart && mPlaneCount) ? nz : 0;
        if (!mPlaneCapacity) return false;
    }
    return true;
}

bool ChannelSmoother::smooth(float* field,
                             const int size[3],
                             const GridTransform& gridTransform,
                             const SmoothSettings& settings) {
    if (!field || size[0] <= 2 || size[1] <= 2 || size[2] <= 2) return true;
    const int64_t cells = int64_t(size[0]) * size[1] * size[2];
    if (!reserve(cells, size[2])) return false;

    // Background and floor, and where each cell lies in the world.
    const float floor = smoothFloor(field, size);
    GridTransform cellToWorld;
    if (!gridTransform.inverse(cellToWorld)) cellToWorld = GridTransform::identity();

    // Edge cells: gradients, noise, and the gradients of the noisy field.
    mSobel.field = field;
    mSobel.gradient = mGradient.get();
    std::memcpy(mSobel.size, size, sizeof mSobel.size);
    mSobel.settings = settings;
    mSobel.floor = floor;
    mSobel.cellToWorld = cellToWorld;
    mSobel.run(0, mThreads);
    if (!(settings.random < SMOOTH_RANDOM_MIN)) mSobel.run(1, mThreads);

    smoothPasses(field, size, settings, floor, SMOOTH_ROUNDS);
    return true;
}

void ChannelSmoother::smoothPasses(float* field,
                                   const int size[3],
                                   const SmoothSettings& s,
                                   float floor,
                                   int rounds) {
    const int nz = size[2];
    mSmooth.field = field;
    mSmooth.gradient = mGradient.get();
    std::memcpy(mSmooth.size, size, sizeof mSmooth.size);
    mSmooth.settings = s;
    mSmooth.floor = floor;
    mSmooth.results = mResults.get();
    mSmooth.planeStart = mPlaneStart.get();
    mSmooth.planeCount = mPlaneCount.get();
    mSmooth.init(mThreads);
    mSmooth.setSpan(static_cast<uint64_t>(nz - 2));

    float t = s.threshold;
    for (int round = 0; round < rounds; ++round) {
        // Count the cells of each plane that change, and give each plane its start.
        mSmooth.threshold = t;
        mSmooth.runJobs(MTSmooth::SMOOTH_COUNT);
        int64_t total = 0;
        for (int z = 1; z < nz - 1; ++z) {
            mPlaneStart[z] = total;
            total += mPlaneCount[z];
        }

        // Smoothed values into the side array, then back into the field in the same order.
        mSmooth.runJobs(MTSmooth::SMOOTH_RESULTS);
        mSmooth.runJobs(MTSmooth::SMOOTH_STORE);
        t *= SMOOTH_THRESHOLD_RISE;
    }
}

}  // namespace vaporix
