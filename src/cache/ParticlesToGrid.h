// Rebuilds a liquid field from particles: 0.5 marks the surface, 1 the inside, 0 the outside.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/MTJobs.h"
#include "foundation/iArray.h"

namespace vaporix {

class PGroup;

namespace ParticlesToGrid {

/// The level of the field at the liquid's surface.
constexpr float SURFACE_LEVEL = 0.5f;

/// One cell of the half-resolution grid: the list of its particles and what the rasterisation
/// found about its eight full cells.
class BaseCell {
public:
    virtual ~BaseCell() = default;

    /// First particle of this cell's list, -1 when empty.
    int32_t head = -1;
    /// Particles in the list.
    int32_t count = 0;
    /// Spin lock of the binning, taken by atomic exchange, 0 when free.
    std::atomic<int32_t> lock{0};
    /// Sub-cells (bit x + 2y + 4z) that got a surface mark in the last rasterisation.
    uint8_t surfaceBits = 0;
    /// Sub-cells whose value the last rasterisation left below the surface level.
    uint8_t openBits = 0;

    /// Whether any of the eight full cells got a surface mark.
    bool isSurface() const { return surfaceBits != 0; }
    /// Whether the full cell `c` (one of this cell's eight) lies in the open part of this cell's
    /// region: its value was below `level` (the bits are recorded at SURFACE_LEVEL, the level
    /// the ocean pass asks with; any other level answers from them too).
    bool inSurfaceRegion(const int c[3], float level) const;
};

/// Owner of the half-grid cells.
class BaseCellHolder {
public:
    int32_t size[3] = {0, 0, 0};
    virtual ~BaseCellHolder() = default;
    virtual BaseCell* cellByIndex(uint64_t index) = 0;
    virtual BaseCell* cellByCoords(const int xyz[3]) = 0;
    uint64_t cellCount() const { return uint64_t(size[0]) * uint64_t(size[1]) * uint64_t(size[2]); }
};

/// The holder of a blend: the cells in one array, index x + sizeX * (y + sizeY * z).
class BlendCellHolder : public BaseCellHolder {
public:
    BlendCellHolder() = default;
    ~BlendCellHolder() override;
    BlendCellHolder(const BlendCellHolder&) = delete;
    BlendCellHolder& operator=(const BlendCellHolder&) = delete;
    /// Makes the cells of a half grid for a full grid of `fullSize`. @return false when the
    /// size is empty or too big, or memory fails.
    bool allocate(const int fullSize[3]);
    BaseCell* cellByIndex(uint64_t index) override { return mCells + index; }
    BaseCell* cellByCoords(const int xyz[3]) override {
        return mCells + (uint64_t(xyz[0]) +
                         uint64_t(size[0]) * (uint64_t(xyz[1]) + uint64_t(size[1]) * uint64_t(xyz[2])));
    }

private:
    BaseCell* mCells = nullptr;
    uint64_t mCount = 0;
};

/// The particles of one group: one float array per particle channel.
class BasePrtHolder {
public:
    iArray<float, int64_t> channels[32];
    virtual ~BasePrtHolder() = default;
    /// Address of particle i in array 0 (three floats, grid coordinates).
    virtual float* position(int i) { return channels[0].data + int64_t(i) * 3; }
    /// Address of particle i in array 1.
    virtual float* velocity(int i) { return channels[1].data + int64_t(i) * 3; }
    /// Particles whose positions array 0 holds.
    int64_t particleCount() const { return channels[0].count / 3; }
};

/// Half-grid size of a full grid: (full + 1) / 2 per axis.
void halfSize(const int fullSize[3], int32_t out[3]);

/// Resets all cells, fills `nextParticle` with -1 and bins the particles into their half
/// cells (`ParticlesToHalfGridMT`); each cell's list is then put in ascending particle order so
/// that nothing downstream depends on which job binned first. @return false when aborted.
bool binParticles(BasePrtHolder& holder,
                  int64_t particleCount,
                  int32_t* nextParticle,
                  BaseCellHolder& cellHolder,
                  const std::atomic<int>* abortFlag,
                  int threads = -1);

/// Writes `target` (a full grid of `fullSize`) from the binned particles
/// (`ParticlesAndHalfGridToFullGridMT`). @return false when aborted.
bool rasterise(BasePrtHolder& holder,
               BaseCellHolder& cellHolder,
               const int fullSize[3],
               float* target,
               const int32_t* nextParticle,
               const std::atomic<int>* abortFlag,
               int threads = -1);

/// Closes the volume under an ocean `level` along `axis` (`AdjustGridForOceanMT`), after a
/// rasterisation into the same `target`. @return false when aborted.
bool adjustGridForOcean(BaseCellHolder& cellHolder,
                        const int fullSize[3],
                        float* target,
                        float level,
                        int axis,
                        const std::atomic<int>* abortFlag,
                        int threads = -1);

/// Bins the particles of `holder` (those of `group`) and rasterises them into `target`, a grid
/// of `size`. @return false when memory fails or the count is out of range.
bool fillGridFromParticles(const PGroup& group,
                           BasePrtHolder& holder,
                           float* target,
                           const int size[3],
                           const std::atomic<int>* abortFlag = nullptr,
                           int threads = -1);

}  // namespace ParticlesToGrid
}  // namespace vaporix
