// Particles to a liquid field: binning into a half-resolution grid, rasterisation of the eight
// full cells of each half cell from the particles around it, and the ocean pass.
#include "cache/ParticlesToGrid.h"
#include "cache/CellCounter.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "cache/PGroup.h"
#include "cache/limits.h"

namespace vaporix {
namespace ParticlesToGrid {

namespace {

struct Vec3 {
    float x, y, z;
};

/// A neighbourhood where every half cell holds this many particles counts as solid liquid.
constexpr int32_t DENSE_COUNT = 6;
/// Room each sub-cell's vector list starts with.
constexpr int LIST_RESERVE = 100;

using internal::CellCounter;

bool aborted(const std::atomic<int>* flag) {
    return flag && flag->load(std::memory_order_relaxed) != 0;
}

// ---------------------------------------------------------------------------------------------
// Binning

/// Mode 0 pushes each particle onto its half cell's list under the cell's spin lock (unit =
/// particle). Mode 1 (unit = half cell) sorts each list by particle index: the pushes of mode 0
/// land in an order that depends on the jobs' timing, and the rasterisation's float sums must
/// not.
class ParticlesToHalfGridMT : public MTJobs {
public:
    const char* getName() const override { return "ParticlesToHalfGridMT"; }

    BasePrtHolder* holder = nullptr;
    BaseCellHolder* cells = nullptr;
    int32_t* nextParticle = nullptr;
    const std::atomic<int>* abortFlag = nullptr;

    class SortJob : public Job {
    public:
        iArray<int32_t> scratch;
    };
    Job* createJob() override { return new SortJob; }

    void jobProc(Job& job) override {
        if (job.mode == 0)
            binRange(job.first, job.last);
        else
            sortRange(static_cast<SortJob&>(job), job.first, job.last);
    }

private:
    void binRange(uint64_t first, uint64_t last) {
        const int32_t* size = cells->size;
        for (uint64_t i = first; i < last; ++i) {
            if (aborted(abortFlag)) return;
            const float* p = holder->position(static_cast<int>(i));
            int xyz[3];
            bool inside = true;
            for (int a = 0; a < 3; ++a) {
                const float h = std::floor(p[a] * 0.5f + 0.5f);
                // Also false for NaN, so that no conversion below sees a value out of range.
                if (!(h >= 0.0f && h < static_cast<float>(size[a]))) {
                    inside = false;
                    break;
                }
                xyz[a] = static_cast<int>(h);
            }
            if (!inside) continue;
            BaseCell* cell = cells->cellByCoords(xyz);
            while (cell->lock.exchange(1, std::memory_order_acquire) != 0) {
            }
            nextParticle[i] = cell->head;
            cell->head = static_cast<int32_t>(i);
            ++cell->count;
            cell->lock.store(0, std::memory_order_release);
        }
    }

    void sortRange(SortJob& job, uint64_t first, uint64_t last) {
        for (uint64_t b = first; b < last; ++b) {
            if (aborted(abortFlag)) return;
            BaseCell* cell = cells->cellByIndex(b);
            if (cell->count < 2) continue;
            if (!job.scratch.resize(cell->count)) continue;  // keeps the list as it is
            int n = 0;
            for (int32_t i = cell->head; i >= 0 && n < cell->count; i = nextParticle[i])
                job.scratch[n++] = i;
            std::sort(job.scratch.data, job.scratch.data + n);
            cell->head = job.scratch[0];
            for (int k = 0; k + 1 < n; ++k) nextParticle[job.scratch[k]] = job.scratch[k + 1];
            nextParticle[job.scratch[n - 1]] = -1;
        }
    }
};

// ---------------------------------------------------------------------------------------------
// Rasterisation

/// Unit = half cell. The job with index j of n takes cells j, j + n, j + 2n, ...: work varies
/// strongly between regions (empty or solid ones leave at once), and the interleave spreads it.
class ParticlesAndHalfGridToFullGridMT : public MTJobs {
public:
    const char* getName() const override { return "ParticlesAndHalfGridToFullGridMT"; }

    BasePrtHolder* holder = nullptr;
    BaseCellHolder* cells = nullptr;
    const int32_t* nextParticle = nullptr;
    float* target = nullptr;
    int32_t full[3] = {0, 0, 0};
    const std::atomic<int>* abortFlag = nullptr;

    class RasterJob : public Job {
    public:
        iArray<Vec3> lists[8];
        RasterJob() {
            for (auto& l : lists) {
                l.resize(LIST_RESERVE);
                l.resize(0);
            }
        }
    };
    Job* createJob() override { return new RasterJob; }

    void jobProc(Job& job) override {
        const uint64_t total = cells->cellCount();
        const uint64_t stride = static_cast<uint64_t>(numJobs);
        uint64_t b = static_cast<uint64_t>(job.index);
        if (b >= total) return;
        CellCounter at;
        at.start(b, cells->size);
        for (; b < total; b += stride, at.step(static_cast<int64_t>(stride))) {
            if (aborted(abortFlag)) return;
            const int xyz[3] = {static_cast<int>(at.x), static_cast<int>(at.y),
                                static_cast<int>(at.z)};
            halfCell(static_cast<RasterJob&>(job), xyz);
        }
    }

private:
    void writeCell(const int c[3], float value) {
        if (c[0] >= full[0] || c[1] >= full[1] || c[2] >= full[2]) return;
        target[uint64_t(c[0]) + uint64_t(full[0]) * (uint64_t(c[1]) + uint64_t(full[1]) * uint64_t(c[2]))] =
            value;
    }

    void halfCell(RasterJob& job, const int b[3]) {
        BaseCell* cell = cells->cellByCoords(b);
        cell->surfaceBits = 0;
        cell->openBits = 0;
        const int32_t* size = cells->size;

        // Count the particles of the 3x3x3 box around b, clipped to the grid.
        int lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::max(b[a] - 1, 0);
            hi[a] = std::min(b[a] + 1, size[a] - 1);
        }
        int64_t total = 0;
        int dense = 0, boxCells = 0;
        for (int z = lo[2]; z <= hi[2]; ++z)
            for (int y = lo[1]; y <= hi[1]; ++y)
                for (int x = lo[0]; x <= hi[0]; ++x) {
                    const int n[3] = {x, y, z};
                    const int32_t count = cells->cellByCoords(n)->count;
                    total += count;
                    if (count >= DENSE_COUNT) ++dense;
                    ++boxCells;
                }

        // Solid liquid or nothing at all: no distance work.
        if (dense == boxCells || total == 0) {
            const float value = dense == boxCells ? 1.0f : 0.0f;
            if (value < SURFACE_LEVEL) cell->openBits = 0xFF;
            for (int s = 0; s < 8; ++s) {
                const int c[3] = {2 * b[0] + (s & 1), 2 * b[1] + ((s >> 1) & 1),
                                  2 * b[2] + ((s >> 2) & 1)};
                writeCell(c, value);
            }
            return;
        }

        // Gather, for each of the eight full cells, the offsets of the particles within reach.
        Vec3 sums[8];
        for (int s = 0; s < 8; ++s) {
            job.lists[s].resize(0);
            sums[s] = {0.0f, 0.0f, 0.0f};
        }
        bool edge = false;
        for (int a = 0; a < 3; ++a)
            if (b[a] == 0 || b[a] == size[a] - 1) edge = true;
        for (int dz = -1; dz <= 1; ++dz)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int d[3] = {dx, dy, dz};
                    int n[3];
                    float mirror[3] = {0.0f, 0.0f, 0.0f};
                    for (int a = 0; a < 3; ++a) {
                        n[a] = b[a] + d[a];
                        if (!edge) continue;
                        // Beyond the grid the particles of the border cell stand in once more,
                        // moved by one half cell outwards, so the border doesn't read as a surface.
                        if (n[a] < 0) {
                            n[a] = 0;
                            mirror[a] = -1.0f;
                        } else if (n[a] >= size[a]) {
                            n[a] = size[a] - 1;
                            mirror[a] = 1.0f;
                        }
                    }
                    const BaseCell* nb = cells->cellByCoords(n);
                    int32_t left = nb->count;
                    for (int32_t i = nb->head; i >= 0 && left > 0; i = nextParticle[i], --left) {
                        const float* pos = holder->position(i);
                        Vec3 p = {pos[0] * 0.5f - static_cast<float>(b[0]),
                                  pos[1] * 0.5f - static_cast<float>(b[1]),
                                  pos[2] * 0.5f - static_cast<float>(b[2])};
                        if (edge) {
                            p.x += mirror[0];
                            p.y += mirror[1];
                            p.z += mirror[2];
                        }
                        for (int s = 0; s < 8; ++s) {
                            const Vec3 q = {(s & 1) ? p.x - 0.5f : p.x, (s & 2) ? p.y - 0.5f : p.y,
                                            (s & 4) ? p.z - 0.5f : p.z};
                            if (q.x * q.x + q.y * q.y + q.z * q.z > 1.0f) continue;
                            job.lists[s].append(q);
                            sums[s].x -= q.x;
                            sums[s].y -= q.y;
                            sums[s].z -= q.z;
                        }
                    }
                }

        // Each full cell's value from its list.
        for (int s = 0; s < 8; ++s) {
            const iArray<Vec3>& list = job.lists[s];
            float value = 0.0f;
            bool surface = false;
            if (list.count == 1) {
                const Vec3& q = list[0];
                value = std::max(0.0f, 1.0f - std::sqrt(q.x * q.x + q.y * q.y + q.z * q.z));
                surface = true;
            } else if (list.count > 1) {
                const Vec3& sum = sums[s];
                const float len = std::sqrt(sum.x * sum.x + sum.y * sum.y + sum.z * sum.z);
                const float largest =
                    std::max(std::fabs(sum.x), std::max(std::fabs(sum.y), std::fabs(sum.z)));
                if (!(1e18f * len > largest)) {
                    // Particles on all sides alike: inside.
                    value = 1.0f;
                    surface = true;
                } else {
                    const Vec3 n = {sum.x / len, sum.y / len, sum.z / len};
                    // Weighted search along n for the place where the particles end: each one
                    // pulls t towards half a cell beyond itself, the nearest ones the most.
                    float t = 0.0f;
                    for (int round = 0; round < 10; ++round) {
                        float num = 0.0f, den = 0.0f;
                        for (const Vec3& q : list) {
                            const float d = (q.x - n.x * t) * n.x + (q.y - n.y * t) * n.y +
                                            (q.z - n.z * t) * n.z;
                            const float w = 1.0f / (d * d + 0.0625f);
                            num += w * (d + 0.5f);
                            den += w;
                        }
                        const float step = num / den;
                        t += step;
                        if (std::fabs(step) < 0.01f) break;
                    }
                    value = std::min(1.0f, t + 0.5f);
                    surface = !(t + 0.5f > 1.0f);
                }
            }
            if (surface) cell->surfaceBits |= static_cast<uint8_t>(1u << s);
            if (value < SURFACE_LEVEL) cell->openBits |= static_cast<uint8_t>(1u << s);
            const int c[3] = {2 * b[0] + (s & 1), 2 * b[1] + ((s >> 1) & 1),
                              2 * b[2] + ((s >> 2) & 1)};
            writeCell(c, value);
        }
    }
};

// ---------------------------------------------------------------------------------------------
// Ocean

/// Unit = full cell. Writes only cells that the rasterisation left open, and reads the values
/// of neighbours only where they are not open: no cell is read that another job may write.
class AdjustGridForOceanMT : public MTJobs {
public:
    const char* getName() const override { return "AdjustGridForOceanMT"; }

    BaseCellHolder* cells = nullptr;
    float* target = nullptr;
    int32_t full[3] = {0, 0, 0};
    float level = 0.0f;
    int axis = 2;
    const std::atomic<int>* abortFlag = nullptr;

    void jobProc(Job& job) override {
        if (job.first >= job.last) return;
        CellCounter at;
        at.start(job.first, full);
        const int64_t sx = full[0], sxy = int64_t(full[0]) * full[1];
        const int64_t strides[3] = {1, sx, sxy};
        for (uint64_t i = job.first; i < job.last; ++i, at.step(1)) {
            if (aborted(abortFlag)) return;
            const int c[3] = {static_cast<int>(at.x), static_cast<int>(at.y),
                              static_cast<int>(at.z)};
            const int b[3] = {c[0] / 2, c[1] / 2, c[2] / 2};
            const BaseCell* cell = cells->cellByCoords(b);
            if (cell->isSurface()) continue;
            const float a =
                std::clamp(level + 0.5f - static_cast<float>(c[axis]), 0.0f, 1.0f);
            if (a < 0.5f) continue;
            if (!cell->inSurfaceRegion(c, SURFACE_LEVEL)) continue;
            bool decided = false;
            // Neighbours in the order -x, -y, -z, +x, +y, +z.
            for (int k = 0; k < 6 && !decided; ++k) {
                const int ax = k % 3;
                const int dir = k < 3 ? -1 : 1;
                int n[3] = {c[0], c[1], c[2]};
                n[ax] += dir;
                if (n[ax] < 0 || n[ax] >= full[ax]) continue;
                const int nb[3] = {n[0] / 2, n[1] / 2, n[2] / 2};
                if (cells->cellByCoords(nb)->inSurfaceRegion(n, SURFACE_LEVEL)) continue;
                const float v = target[int64_t(i) + dir * strides[ax]];
                if (v > 0.5f) {
                    target[i] = std::max(target[i], a);
                    decided = true;
                }
            }
            if (!decided) target[i] = 1.0f;
        }
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Cells and holders

bool BaseCell::inSurfaceRegion(const int c[3], float /*level*/) const {
    const int s = (c[0] & 1) | ((c[1] & 1) << 1) | ((c[2] & 1) << 2);
    return (openBits >> s) & 1u;
}

BlendCellHolder::~BlendCellHolder() {
    for (uint64_t i = 0; i < mCount; ++i) mCells[i].~BaseCell();
    internal::arrayRelease(mCells);
}

bool BlendCellHolder::allocate(const int fullSize[3]) {
    int32_t half[3];
    halfSize(fullSize, half);
    if (half[0] <= 0 || half[1] <= 0 || half[2] <= 0 || !gridSizeAcceptable(half)) return false;
    const uint64_t n = uint64_t(half[0]) * uint64_t(half[1]) * uint64_t(half[2]);
    if (n != mCount) {
        for (uint64_t i = 0; i < mCount; ++i) mCells[i].~BaseCell();
        internal::arrayRelease(mCells);
        mCells = nullptr;
        mCount = 0;
        void* block = internal::arrayAllocate(n * sizeof(BaseCell));
        if (!block) return false;
        mCells = static_cast<BaseCell*>(block);
        for (uint64_t i = 0; i < n; ++i) new (mCells + i) BaseCell;
        mCount = n;
    }
    for (int a = 0; a < 3; ++a) size[a] = half[a];
    return true;
}

void halfSize(const int fullSize[3], int32_t out[3]) {
    for (int a = 0; a < 3; ++a) out[a] = fullSize[a] > 0 ? (fullSize[a] + 1) / 2 : 0;
}

// ---------------------------------------------------------------------------------------------
// Passes

bool binParticles(BasePrtHolder& holder,
                  int64_t particleCount,
                  int32_t* nextParticle,
                  BaseCellHolder& cellHolder,
                  const std::atomic<int>* abortFlag,
                  int threads) {
    const uint64_t cellCount = cellHolder.cellCount();
    for (uint64_t i = 0; i < cellCount; ++i) {
        BaseCell* cell = cellHolder.cellByIndex(i);
        cell->head = -1;
        cell->count = 0;
        cell->lock.store(0, std::memory_order_relaxed);
    }
    particleCount = std::min(particleCount, holder.particleCount());
    for (int64_t i = 0; i < particleCount; ++i) nextParticle[i] = -1;
    ParticlesToHalfGridMT engine;
    engine.holder = &holder;
    engine.cells = &cellHolder;
    engine.nextParticle = nextParticle;
    engine.abortFlag = abortFlag;
    engine.init(threads);
    if (particleCount > 0) {
        engine.setSpan(static_cast<uint64_t>(particleCount));
        engine.runJobs(0);
    }
    if (aborted(abortFlag)) return false;
    engine.setSpan(cellCount);
    engine.runJobs(1);
    return !aborted(abortFlag);
}

bool rasterise(BasePrtHolder& holder,
               BaseCellHolder& cellHolder,
               const int fullSize[3],
               float* target,
               const int32_t* nextParticle,
               const std::atomic<int>* abortFlag,
               int threads) {
    ParticlesAndHalfGridToFullGridMT engine;
    engine.holder = &holder;
    engine.cells = &cellHolder;
    engine.nextParticle = nextParticle;
    engine.target = target;
    for (int a = 0; a < 3; ++a) engine.full[a] = fullSize[a];
    engine.abortFlag = abortFlag;
    engine.init(threads);
    engine.setSpan(cellHolder.cellCount());
    engine.runJobs(0);
    return !aborted(abortFlag);
}

bool adjustGridForOcean(BaseCellHolder& cellHolder,
                        const int fullSize[3],
                        float* target,
                        float level,
                        int axis,
                        const std::atomic<int>* abortFlag,
                        int threads) {
    if (axis < 0 || axis > 2) return false;
    AdjustGridForOceanMT engine;
    engine.cells = &cellHolder;
    engine.target = target;
    for (int a = 0; a < 3; ++a) engine.full[a] = fullSize[a];
    engine.level = level;
    engine.axis = axis;
    engine.abortFlag = abortFlag;
    engine.init(threads);
    engine.setSpan(uint64_t(fullSize[0]) * uint64_t(fullSize[1]) * uint64_t(fullSize[2]));
    engine.runJobs(0);
    return !aborted(abortFlag);
}

bool fillGridFromParticles(const PGroup& group,
                           BasePrtHolder& holder,
                           float* target,
                           const int size[3],
                           const std::atomic<int>* abortFlag,
                           int threads) {
    const int64_t count = std::min<int64_t>(group.count, holder.particleCount());
    if (count < 0 || count > 0x7FFFFFFF || !target) return false;
    BlendCellHolder cells;
    if (!cells.allocate(size)) return false;
    iArray<int32_t, int64_t> next;
    if (count > 0 && !next.resize(count, nullptr, true)) return false;
    if (!binParticles(holder, count, next.data, cells, abortFlag, threads)) return false;
    return rasterise(holder, cells, size, target, next.data, abortFlag, threads);
}

}  // namespace ParticlesToGrid
}  // namespace vaporix
