// Distance grid: triangles become samples, samples seed cells and spread in waves; and the convex
// polyhedron of the camera clip.
#include "mesh/DistanceGrid.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "foundation/log.h"
#include "foundation/sys/threads.h"

namespace vaporix {

namespace {

enum Pass : uint32_t { PASS_SAMPLE = 0, PASS_COPY = 1, PASS_SEED = 2, PASS_SPREAD = 3, PASS_NONE = 4 };

constexpr int LOCAL_ROOM = 100000;
// Samples are laid at most half a cell apart, so a cell's nearest sample is within a quarter
// cell of the surface's nearest point.
constexpr float SAMPLE_STEP = 0.5f;
// A triangle is cut into at most this many steps along an edge.
constexpr int MAX_STEPS = 2048;

struct GridJob : Job {
    iArray<float> samples{0, 4};
    iArray<int32_t> triangle{0, 4};
    iArray<long long> changed{0, 4};
    int32_t base = 0;
    bool failed = false;
};

}  // namespace

// The jobs start at the first setup, not here: a pool thread must not see the object while a
// derived class is still being constructed.
DistanceGrid::DistanceGrid(ThreadManager* manager, int threads)
    : MTJobs(manager), mThreads(threads) {}

DistanceGrid::~DistanceGrid() { shutdown(); }

Job* DistanceGrid::createJob() { return new (std::nothrow) GridJob; }

bool DistanceGrid::setup(int triangleCount, int vertexCount, float spacingWanted) {
    cells.free();
    points.resize(0);
    pointTriangle.resize(0);
    size[0] = size[1] = size[2] = 0;
    if (!jobs) {
        init(mThreads);
        // An empty pass: the pool threads have started (and read the engine's name) before
        // anything may destroy it.
        setSpan(0);
        runJobs(PASS_NONE);
    }
    mTriangles = std::max(triangleCount, 0);
    mVertices = std::max(vertexCount, 0);
    spacing = spacingWanted;

    // The vertices' box, two cells wider on each side.
    float lo[3] = {1e20f, 1e20f, 1e20f}, hi[3] = {-1e20f, -1e20f, -1e20f};
    for (int i = 0; i < mVertices; ++i) {
        float p[3];
        getVertex(p, i);
        for (int a = 0; a < 3; ++a) {
            if (!std::isfinite(p[a])) continue;
            lo[a] = std::min(lo[a], p[a]);
            hi[a] = std::max(hi[a], p[a]);
        }
    }
    float extent[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] -= 2 * spacing;
        hi[a] += 2 * spacing;
        extent[a] = hi[a] - lo[a];
        origin[a] = lo[a];
    }
    float volume = (extent[0] / spacing) * (extent[1] / spacing) * (extent[2] / spacing);
    if (!std::isfinite(volume) || volume < 0 || volume > MAX_CELLS) {
        lumoLog("DistanceGrid: inadequate spacing, vol:%f spacing:%f bbox:%f %f %f\n",
                static_cast<double>(volume), static_cast<double>(spacing),
                static_cast<double>(extent[0]), static_cast<double>(extent[1]),
                static_cast<double>(extent[2]));
        spacing = std::pow(extent[0] * extent[1] * extent[2] / static_cast<float>(MAX_CELLS),
                           0.333333f);
        // The box itself may be unusable (no vertices, or a flat box): widen it by the new
        // spacing once more, as the first pass would have.
        if (std::isfinite(spacing) && spacing > 0)
            for (int a = 0; a < 3; ++a) {
                if (extent[a] < 4 * spacing) {
                    origin[a] -= 2 * spacing;
                    extent[a] += 4 * spacing;
                }
            }
    }
    if (!(spacing > 0) || !std::isfinite(spacing)) return false;
    double total = 1;
    for (int a = 0; a < 3; ++a) {
        const double n = std::ceil(static_cast<double>(extent[a]) / spacing);
        if (!(n >= 1) || n > 1e8) return false;
        size[a] = static_cast<int32_t>(n);
        total *= n;
    }
    if (total > 4 * MAX_CELLS) return false;
    const int32_t empty = EMPTY;
    if (!cells.resize(static_cast<long long>(total), &empty, true)) {
        size[0] = size[1] = size[2] = 0;
        return false;
    }
    for (Job* j = jobs; j; j = j->next) {
        auto& g = static_cast<GridJob&>(*j);
        if (g.samples.capacity < 3 * LOCAL_ROOM) g.samples.reserveExact(3 * LOCAL_ROOM);
        if (g.triangle.capacity < LOCAL_ROOM) g.triangle.reserveExact(LOCAL_ROOM);
        if (g.changed.capacity < LOCAL_ROOM) g.changed.reserveExact(LOCAL_ROOM);
    }
    return true;
}

bool DistanceGrid::build() {
    waves = 0;
    if (cells.count == 0) return false;
    for (Job* j = jobs; j; j = j->next) {
        auto& g = static_cast<GridJob&>(*j);
        g.samples.resize(0);
        g.triangle.resize(0);
        g.failed = false;
    }
    // Samples of the triangles, merged in span order.
    setSpan(static_cast<uint64_t>(mTriangles));
    runJobs(PASS_SAMPLE);
    long long total = 0;
    bool failed = false;
    for (Job* j = jobs; j; j = j->next) {
        auto& g = static_cast<GridJob&>(*j);
        failed = failed || g.failed;
        g.base = static_cast<int32_t>(total);
        total += g.triangle.count;
    }
    if (failed || total > 0x7FFFFFFF / 3 || !points.resize(static_cast<int>(total) * 3, true) ||
        !pointTriangle.resize(static_cast<int>(total), true))
        return false;
    runJobs(PASS_COPY);
    if (isAborted()) return false;

    // Seeds, then waves until no cell changes.
    setSpan(static_cast<uint64_t>(total));
    runJobs(PASS_SEED);
    while (mergeChanged()) {
        if (mWave.count == 0) return true;
        ++waves;
        setSpan(static_cast<uint64_t>(mWave.count));
        runJobs(PASS_SPREAD);
        if (isAborted()) return false;
    }
    return false;
}

bool DistanceGrid::mergeChanged() {
    // The wave: every changed cell once, in cell order, with the sample it holds now (no job
    // writes between passes, so these reads are stable).
    long long n = 0;
    bool failed = false;
    for (Job* j = jobs; j; j = j->next) {
        auto& g = static_cast<GridJob&>(*j);
        n += g.changed.count;
        failed = failed || g.failed;
    }
    if (failed || n > 0x7FFFFFFF || !mWave.resize(static_cast<int>(n), true)) return false;
    long long at = 0;
    for (Job* j = jobs; j; j = j->next) {
        auto& g = static_cast<GridJob&>(*j);
        if (g.changed.count)
            std::memcpy(mWave.data + at, g.changed.data,
                        static_cast<size_t>(g.changed.count) * sizeof(long long));
        at += g.changed.count;
        g.changed.resize(0);
    }
    std::sort(mWave.begin(), mWave.end());
    mWave.resize(static_cast<int>(std::unique(mWave.begin(), mWave.end()) - mWave.begin()));
    if (!mWavePoint.resize(mWave.count, true)) return false;
    for (int i = 0; i < mWave.count; ++i) mWavePoint[i] = cells[mWave[i]];
    return true;
}

bool DistanceGrid::offer(long long cell, int32_t candidate) {
    std::atomic_ref<int32_t> slot(cells[cell]);
    int32_t old;
    while ((old = slot.exchange(LOCKED, std::memory_order_acquire)) == LOCKED) sys::yieldThread();
    if (old == candidate) {
        slot.store(old, std::memory_order_release);
        return false;
    }
    if (old >= 0) {
        // Squared distances from the cell's own position; equal ones keep the lower sample.
        const long long x = cell % size[0], r = cell / size[0];
        const long long y = r % size[1], z = r / size[1];
        const float c[3] = {origin[0] + static_cast<float>(x) * spacing,
                            origin[1] + static_cast<float>(y) * spacing,
                            origin[2] + static_cast<float>(z) * spacing};
        auto dist2 = [&](int32_t s) {
            const float* p = points.data + 3 * static_cast<long long>(s);
            const float d[3] = {p[0] - c[0], p[1] - c[1], p[2] - c[2]};
            return d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        };
        const float dOld = dist2(old), dNew = dist2(candidate);
        if (dOld < dNew || (dOld == dNew && old < candidate)) {
            slot.store(old, std::memory_order_release);
            return false;
        }
    }
    slot.store(candidate, std::memory_order_release);
    return true;
}

void DistanceGrid::jobProc(Job& base) {
    switch (base.mode) {
        case PASS_SAMPLE: passSample(base); break;
        case PASS_COPY: passCopySamples(base); break;
        case PASS_SEED: passSeed(base); break;
        case PASS_SPREAD: passSpread(base); break;
        default: break;
    }
}

void DistanceGrid::passSample(Job& base) {
    auto& job = static_cast<GridJob&>(base);
    const float step = SAMPLE_STEP * spacing;
    for (uint64_t t = job.first; t < job.last; ++t) {
        int v[3];
        getTriangle(static_cast<int>(t), v);
        float c[3][3];
        bool ok = true;
        for (int k = 0; k < 3; ++k) {
            ok = ok && v[k] >= 0 && v[k] < mVertices;
            if (ok) getVertex(c[k], v[k]);
        }
        if (!ok) continue;
        // A lattice over the triangle, fine enough that no edge step exceeds half a cell.
        float longest = 0;
        for (int k = 0; k < 3; ++k) {
            const float* a = c[k];
            const float* b = c[(k + 1) % 3];
            const float d[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
            longest = std::max(longest, std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]));
        }
        if (!std::isfinite(longest)) continue;
        const int n = std::clamp(static_cast<int>(std::ceil(longest / step)), 1, MAX_STEPS);
        for (int i = 0; i <= n; ++i)
            for (int j = 0; i + j <= n; ++j) {
                const float u = static_cast<float>(i) / n, w = static_cast<float>(j) / n;
                for (int a = 0; a < 3; ++a)
                    if (!job.samples.append(c[0][a] + (c[1][a] - c[0][a]) * u + (c[2][a] - c[0][a]) * w))
                        job.failed = true;
                if (!job.triangle.append(static_cast<int32_t>(t))) job.failed = true;
            }
        if (job.failed) return;
    }
}

void DistanceGrid::passCopySamples(Job& base) {
    auto& job = static_cast<GridJob&>(base);
    if (job.triangle.count == 0) return;
    std::memcpy(points.data + 3 * static_cast<long long>(job.base), job.samples.data,
                static_cast<size_t>(job.samples.count) * sizeof(float));
    std::memcpy(pointTriangle.data + job.base, job.triangle.data,
                static_cast<size_t>(job.triangle.count) * sizeof(int32_t));
}

void DistanceGrid::passSeed(Job& base) {
    auto& job = static_cast<GridJob&>(base);
    for (uint64_t s = job.first; s < job.last; ++s) {
        const float* p = points.data + 3 * s;
        long long idx[3];
        bool inside = true;
        for (int a = 0; a < 3; ++a) {
            const float f = std::floor((p[a] - origin[a]) / spacing + 0.5f);
            inside = inside && f >= 0 && f < static_cast<float>(size[a]);
            idx[a] = inside ? static_cast<long long>(f) : 0;
        }
        if (!inside) continue;
        const long long cell = idx[0] + size[0] * (idx[1] + size[1] * idx[2]);
        if (offer(cell, static_cast<int32_t>(s)) && !job.changed.append(cell)) job.failed = true;
    }
}

void DistanceGrid::passSpread(Job& base) {
    auto& job = static_cast<GridJob&>(base);
    for (uint64_t w = job.first; w < job.last; ++w) {
        const long long cell = mWave[static_cast<int>(w)];
        const int32_t sample = mWavePoint[static_cast<int>(w)];
        if (sample < 0) continue;
        const long long x = cell % size[0], r = cell / size[0];
        const long long y = r % size[1], z = r / size[1];
        for (int dz = -1; dz <= 1; ++dz) {
            if (z + dz < 0 || z + dz >= size[2]) continue;
            for (int dy = -1; dy <= 1; ++dy) {
                if (y + dy < 0 || y + dy >= size[1]) continue;
                for (int dx = -1; dx <= 1; ++dx) {
                    if (x + dx < 0 || x + dx >= size[0] || (dx == 0 && dy == 0 && dz == 0))
                        continue;
                    const long long n = cell + dx + size[0] * (dy + static_cast<long long>(size[1]) * dz);
                    if (offer(n, sample) && !job.changed.append(n)) job.failed = true;
                }
            }
        }
        if (job.failed) return;
    }
}

int32_t DistanceGrid::nearestSample(const float p[3]) const {
    if (cells.count == 0) return -1;
    long long idx[3];
    for (int a = 0; a < 3; ++a) {
        float f = std::floor((p[a] - origin[a]) / spacing + 0.5f);
        if (!(f >= 0)) f = 0;
        if (f > static_cast<float>(size[a] - 1)) f = static_cast<float>(size[a] - 1);
        idx[a] = static_cast<long long>(f);
    }
    return cells[idx[0] + size[0] * (idx[1] + size[1] * idx[2])];
}

float DistanceGrid::distance(const float p[3]) const {
    const int32_t s = nearestSample(p);
    if (s < 0) return 1e30f;
    const float* q = points.data + 3 * static_cast<long long>(s);
    const float d[3] = {p[0] - q[0], p[1] - q[1], p[2] - q[2]};
    return std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
}

// -------------------------------------------------------------------------------------------
// ConvexPolyhedron

bool ConvexPolyhedron::addFace(const float normal[3], float d) {
    UPolyhedronFace f;
    std::memcpy(f.normal, normal, sizeof f.normal);
    f.d = d;
    return faces.append(f) != 0;
}

bool ConvexPolyhedron::fromCamera(const float m[4][3], float tanHalfFov, float aspect) {
    faces.resize(0);
    const float* eye = m[3];
    // Side planes through the eye, outward normals in camera space, then to world.
    const float tx = tanHalfFov, ty = tanHalfFov * aspect;
    const float local[5][3] = {{1, 0, -tx}, {-1, 0, -tx}, {0, 1, -ty}, {0, -1, -ty}, {0, 0, -1}};
    for (const auto& n : local) {
        float w[3];
        for (int j = 0; j < 3; ++j) w[j] = n[0] * m[0][j] + n[1] * m[1][j] + n[2] * m[2][j];
        const float len = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
        if (!(len > 0)) return false;
        for (float& c : w) c /= len;
        if (!addFace(w, w[0] * eye[0] + w[1] * eye[1] + w[2] * eye[2])) return false;
    }
    // The limiting box.
    for (int a = 0; a < 3; ++a)
        for (int s = -1; s <= 1; s += 2) {
            float n[3] = {0, 0, 0};
            n[a] = static_cast<float>(s);
            if (!addFace(n, LIMIT)) return false;
        }
    return true;
}

bool ConvexPolyhedron::contains(const float p[3]) const {
    for (const auto& f : faces)
        if (f.normal[0] * p[0] + f.normal[1] * p[1] + f.normal[2] * p[2] > f.d) return false;
    return true;
}

bool ConvexPolyhedron::mayIntersectBox(const float lo[3], const float hi[3]) const {
    for (const auto& f : faces) {
        // The box corner furthest against the normal.
        float m = 0;
        for (int a = 0; a < 3; ++a) m += f.normal[a] * (f.normal[a] >= 0 ? lo[a] : hi[a]);
        if (m > f.d) return false;
    }
    return true;
}

}  // namespace vaporix
