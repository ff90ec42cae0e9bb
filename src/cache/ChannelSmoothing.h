// Edge-driven smoothing of a grid channel: a Sobel gradient finds where the field varies, and
// only those cells are smoothed, in three rounds with a rising threshold.
#pragma once

#include <cstdint>
#include <memory>

#include "cache/GridTransform.h"
#include "foundation/MTJobs.h"

namespace vaporix {

/// The three values of one channel's smoothing, in the order of the parameter triples.
struct SmoothSettings {
    float threshold = 0.0f;   ///< gradient a cell needs before it is smoothed
    float similarity = 0.5f;  ///< neighbours within this fraction of the cell count as the cell
    float random = 0.1f;      ///< relative noise added to edge cells before smoothing
};

/// Rounds of `smoothPasses`, and the factor the threshold rises by after each.
constexpr int SMOOTH_ROUNDS = 3;
constexpr float SMOOTH_THRESHOLD_RISE = 1.2f;
/// A `random` below this adds no noise (and skips the second gradient sweep).
constexpr float SMOOTH_RANDOM_MIN = 1e-5f;

/// Neighbours whose magnitude is not above this floor count as the centre cell: 0.01 for a
/// background near zero, 300.1 (a temperature field at room temperature) when the background's
/// magnitude is 5 or more.
float smoothFloor(const float* field, const int size[3]);

/// One step of the 48-bit noise generator: a = s * 25214903917 + 11, plus the high word of
/// sin(a >> 16), modulo 2^48.
uint64_t noiseStep(uint64_t s);
/// The noise of a cell: `value` moved by up to half of `value * random` either way, by a
/// generator seeded from the cell's world position, so it stands still in the world and is
/// the same in every frame.
float cellNoise(float value, float random, const float world[3]);

/// The gradient sweep over the inner cells, as a job engine ("MTSobel"). Mode 0 computes
/// `gradient` of every inner cell and then adds noise to the qualifying cells of the channel;
/// mode 1 computes the gradient again, on the noisy field, where it qualified. Jobs take
/// contiguous stretches of z planes; every result depends only on the cell, so the split does
/// not change a bit.
class Sobel : public MTJobs {
public:
    explicit Sobel(ThreadManager* manager = nullptr) : MTJobs(manager) {}
    const char* getName() const override { return "MTSobel"; }
    void jobProc(Job& job) override;

    /// Runs one mode over the whole grid with `threads` jobs (-1: the global count).
    void run(int mode, int threads);

    float* field = nullptr;
    float* gradient = nullptr;
    int size[3] = {0, 0, 0};
    SmoothSettings settings;
    float floor = 0.01f;
    GridTransform cellToWorld;

private:
    uint32_t mPass = 0;  // 0 gradients, 1 noise, 2 gradients on the noisy field
};

/// One smoothing round as a job engine ("MTSmooth"): every inner cell whose gradient is not
/// below `threshold` gets its smoothed value, written to the compact `results` at its plane's
/// start position, in cell order. All cells of a round read the field as it was before it;
/// a pass of its own then stores the results back.
class MTSmooth : public MTJobs {
public:
    explicit MTSmooth(ThreadManager* manager = nullptr) : MTJobs(manager) {}
    const char* getName() const override { return "MTSmooth"; }
    void jobProc(Job& job) override;

    /// Pass modes: count the cells of each plane, smooth into `results`, store them back.
    static constexpr uint32_t SMOOTH_COUNT = 0;
    static constexpr uint32_t SMOOTH_RESULTS = 1;
    static constexpr uint32_t SMOOTH_STORE = 2;

    float* field = nullptr;
    const float* gradient = nullptr;
    int size[3] = {0, 0, 0};
    SmoothSettings settings;
    float floor = 0.01f;
    float threshold = 0.0f;
    /// First result position of each z plane.
    const int64_t* planeStart = nullptr;
    float* results = nullptr;
    /// Qualifying cells of each z plane (written by the counting pass).
    int64_t* planeCount = nullptr;
};

/// Smooths channels with scratch that it keeps between calls (a gradient per cell, the
/// compact results, per-plane counts), so a frame after frame costs no fresh memory.
class ChannelSmoother {
public:
    /// `threads` -1 uses the global thread count; `manager` null the global manager.
    explicit ChannelSmoother(ThreadManager* manager = nullptr, int threads = -1);
    ~ChannelSmoother();
    ChannelSmoother(const ChannelSmoother&) = delete;
    ChannelSmoother& operator=(const ChannelSmoother&) = delete;

    /// Smooths `field` (size[0] * size[1] * size[2] floats, x fastest) in place. `gridTransform`
    /// maps world to grid; its inverse places the noise in the world (identity when singular).
    /// Grids of 2 cells or fewer along an axis have no inner cells and stay as they are.
    /// @return false when the scratch can't be had (the field is then untouched).
    bool smooth(float* field,
                const int size[3],
                const GridTransform& gridTransform,
                const SmoothSettings& settings);

    /// The three rounds alone, on gradients already in place (after `Sobel`).
    void smoothPasses(float* field, const int size[3], const SmoothSettings& s, float floor,
                      int rounds);

private:
    bool reserve(int64_t cells, int nz);

    Sobel mSobel;
    MTSmooth mSmooth;
    int mThreads;
    std::unique_ptr<float[]> mGradient;
    std::unique_ptr<float[]> mResults;
    std::unique_ptr<int64_t[]> mPlaneStart;
    std::unique_ptr<int64_t[]> mPlaneCount;
    int64_t mCapacity = 0;
    int mPlaneCapacity = 0;
};

}  // namespace vaporix
