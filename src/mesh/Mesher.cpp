// Marching-cubes mesher: the padded map, vertices, interest map, triangles and adjacency, then
// the cutter, smoothing, particle pass, normals, displacement and the ocean's subdivision.
#include "mesh/Mesher.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>

#include "foundation/log.h"
#include "mesh/MarchingTable.h"

namespace vaporix {

namespace {

enum Pass : uint32_t {
    PASS_MAP = 0,
    PASS_VERTICES = 1,
    PASS_INTEREST = 2,
    PASS_TRIANGLES = 3,
    PASS_DISPLACE = 4,
    PASS_OCEAN_NORMALS = 5,
    PASS_CUTTER = 6,
    PASS_SMOOTH = 7,
    PASS_COPY_SCRATCH = 8,
    PASS_NORMALS = 9,
    PASS_FILTER = 10,
    PASS_PARTICLES = 11,
    PASS_SPLIT = 12,
    PASS_MERGE_VERTICES = 13,
    PASS_MERGE_TRIANGLES = 14,
    PASS_PARTICLE_GRID = 15,
};

// Room of the per-job lists: large, so that they seldom grow during a pass.
constexpr int LOCAL_VERTICES = 500000;
constexpr int LOCAL_CONN = 600000;
constexpr int LOCAL_CELLS = 500000;
constexpr int LOCAL_TRIANGLES = 500000;
// Byte masks over eight map bytes at once.
constexpr uint64_t BIT0_BYTES = 0x0101010101010101ull;
constexpr uint64_t EDGE_BYTES = 0x0E0E0E0E0E0E0E0Eull;
constexpr uint64_t ABOVE1_BYTES = 0xFEFEFEFEFEFEFEFEull;
// Smallest triangle area smoothing takes into account, and the area below which it gives up.
constexpr float SMOOTH_MIN_AREA = 1e-5f;
constexpr float SMOOTH_MIN_AREA_SUM = 0.0001f;
// Squared radius of the particle pass (three cells).
constexpr float PARTICLE_RADIUS2 = 9.0f;
constexpr int PARTICLE_RING_MAX = 10000;

uint64_t load8(const uint8_t* p) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    return w;
}

void cross(const float a[3], const float b[3], float out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}
float dot(const float a[3], const float b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Corner-weighted normal (b - a) x (c - a) of a triangle.
void triangleNormal(const Mesher::UVertex* v, const Mesher::UTriangle& t, float n[3]) {
    const float* a = v[t.v[0]].pos;
    const float* b = v[t.v[1]].pos;
    const float* c = v[t.v[2]].pos;
    const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
    const float e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
    cross(e1, e2, n);
}

class Stopwatch {
public:
    double lap() {
        const auto now = std::chrono::steady_clock::now();
        const double s = std::chrono::duration<double>(now - mLast).count();
        mLast = now;
        return s;
    }

private:
    std::chrono::steady_clock::time_point mLast = std::chrono::steady_clock::now();
};

// Makes `a` hold n elements without writing them (plain elements only).
template <typename T, typename I>
bool sizeUninitialised(iArray<T, I>& a, I n) {
    if (n > a.capacity && !a.reserveExact(n)) return false;
    a.count = n;
    return true;
}

}  // namespace

// -------------------------------------------------------------------------------------------
// Per-job state

namespace {
struct MesherJob : Job {
    iArray<float> verts{0, 4};         // three floats a vertex
    iArray<int32_t> conn{0, 4};        // three entries a crossing cell
    iArray<long long> cells{0, 4};     // the crossing cells
    iArray<Mesher::UTriangle> tris{0, 4};
    iArray<float> splitUndisplaced{0, 4};
    iArray<Mesher::UVertex> splitVerts{0, 4};
    iArray<int32_t> splitSlots{0, 4};  // slots of edgeSplits that this job filled
    int32_t vertexBase = 0, connBase = 0, triangleBase = 0;
    bool failed = false;
};
}  // namespace

Job* Mesher::createJob() { return new (std::nothrow) MesherJob; }

Mesher::Mesher(ThreadManager* manager, int threads) : MTJobs(manager), mThreads(threads) {}

Mesher::~Mesher() { shutdown(); }

void Mesher::MesherParams::displace(float result[3], const float[3], int) {
    result[0] = result[1] = result[2] = 0.0f;
}

bool safeNormalize(float v[3]) {
    const float len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    const float m = std::max({std::fabs(v[0]), std::fabs(v[1]), std::fabs(v[2])});
    if (!(1e18f * len > m)) return false;
    v[0] /= len;
    v[1] /= len;
    v[2] /= len;
    return true;
}

// -------------------------------------------------------------------------------------------
// View

bool Mesher::View::project(const float p[3], float out[3]) const {
    float q[3];
    for (int j = 0; j < 3; ++j)
        q[j] = p[0] * worldToCam[0][j] + p[1] * worldToCam[1][j] + p[2] * worldToCam[2][j] +
               worldToCam[3][j];
    // Camera space looks along +z: the depth is z.
    out[2] = q[2];
    if (!spherical) {
        const float az = std::fabs(q[2]);
        out[0] = cx + q[0] / az;
        out[1] = cy - q[1] / az;
    } else {
        const float len = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
        const float a = std::acos(std::clamp(q[2] / len, -1.0f, 1.0f));
        const float s = a / (0.5f * fov * std::sqrt(q[0] * q[0] + q[1] * q[1]));
        out[0] = cx + cx * q[0] * s;
        out[1] = cy - cy * q[1] * s;
    }
    for (int j = 0; j < 3; ++j)
        if (!std::isfinite(out[j])) return false;
    return out[0] >= 0 && out[0] <= static_cast<float>(width) && out[1] >= 0 &&
           out[1] <= static_cast<float>(height) && out[2] >= 0;
}

void Mesher::View::pixelRay(float x, float y, float dir[3]) const {
    const float dx = x - cx, dy = cy - y;
    float c[3];
    if (!spherical) {
        c[0] = dx;
        c[1] = dy;
        c[2] = 1.0f;
    } else {
        const float ux = cx != 0 ? dx / cx : 0, uy = cy != 0 ? dy / cy : 0;
        const float r = std::sqrt(ux * ux + uy * uy);
        const float s = std::sin(fov * r / 2), co = std::cos(fov * r / 2);
        c[0] = r > 0 ? ux / r * s : 0;
        c[1] = r > 0 ? uy / r * s : 0;
        c[2] = co;
    }
    for (int j = 0; j < 3; ++j)
        dir[j] = c[0] * camToWorld[0][j] + c[1] * camToWorld[1][j] + c[2] * camToWorld[2][j];
}

// -------------------------------------------------------------------------------------------
// build

void Mesher::clearAll() {
    freeScratch();
    smap.free();
    cellConn.free();
    conn.free();
    mInterest.free();
    vertices.free();
    triangles.free();
    adjacency.free();
    undisplaced.free();
    active.free();
    edgeSplits.free();
    particleHeads.free();
    particleNext.free();
    mGridCopy.free();
    mScratch.free();
}

bool Mesher::reserveScratch(long long padded) {
    return sizeUninitialised(smap, padded) && sizeUninitialised(cellConn, padded) &&
           sizeUninitialised(mInterest, padded);
}

void Mesher::freeScratch() {
    if (keepScratch) {
        smap.count = cellConn.count = mInterest.count = 0;
        conn.resize(0);
        return;
    }
    smap.free();
    cellConn.free();
    conn.free();
    mInterest.free();
    mGridCopy.free();
}

bool Mesher::build(const float* field,
                   const int32_t size[3],
                   float surflevel,
                   MesherParams& p,
                   bool solidbelow,
                   int smoothmesh,
                   bool wantNormals,
                   const MesherParticles* prt,
                   const Gizmo* gz) {
    Stopwatch clock;
    error.clear();
    init(mThreads);
    params = &p;
    particles = prt && prt->points && prt->count > 0 ? prt : nullptr;
    gizmo = gz && gz->tree ? gz : nullptr;
    iso = surflevel;
    invert = solidbelow;
    smoothIterations = std::max(smoothmesh, 0);
    displFactor = 0.0f;
    mMadeNormals = false;
    vertices.resize(0);
    triangles.resize(0);
    adjacency.resize(0);
    undisplaced.resize(0);
    active.resize(0);
    edgeSplits.resize(0);

    // Sizes and the padded cell count; reserves of the result lists.
    long long padded = 1;
    for (int a = 0; a < 3; ++a) {
        if (size[a] < 1 || size[a] > 1 << 20 || !field) {
            error = "the grid is empty";
            return false;
        }
        dims[a] = size[a];
        padDims[a] = size[a] + 2;
        padded *= padDims[a];
    }
    if (padded >= (1ll << 40)) {
        error = "the grid is too large";
        return false;
    }
    padStrides[0] = 1;
    padStrides[1] = padDims[0];
    padStrides[2] = padDims[0] * padDims[1];
    grid = field;
    if ((vertices.capacity < vertexReserve && !vertices.reserveExact(vertexReserve)) ||
        (triangles.capacity < triangleReserve && !triangles.reserveExact(triangleReserve)) ||
        !reserveScratch(padded)) {
        error = "out of memory for the marching map";
        clearAll();
        return false;
    }
    setSpan(static_cast<uint64_t>(padded));

    // The gizmo cuts a private copy of the field.
    if (gizmo) {
        const long long cells = static_cast<long long>(dims[0]) * dims[1] * dims[2];
        if (cells > 0x7FFFFFFF || !mGridCopy.resize(static_cast<int>(cells), true)) {
            error = "out of memory for the gizmo's copy of the field";
            clearAll();
            return false;
        }
        std::memcpy(mGridCopy.data, field, static_cast<size_t>(cells) * sizeof(float));
        grid = mGridCopy.data;
        std::memset(smap.data, 0, static_cast<size_t>(padded));
        runCutter();
        lumoLog("#cutter:%f\n", clock.lap());
        setSpan(static_cast<uint64_t>(padded));
    }

    Stopwatch passClock;
    runJobs(PASS_MAP);
    passSeconds[0] = passClock.lap();
    lumoLog("#march cubes build smap:%f\n", clock.lap());

    runJobs(PASS_VERTICES);
    const bool vertexOk = mergeVertexLists();
    passSeconds[1] = passClock.lap();
    lumoLog("#march cubes vertices:%f\n", clock.lap());
    if (!vertexOk) {
        error = "out of memory for the vertices";
        clearAll();
        return false;
    }

    runJobs(PASS_INTEREST);
    runJobs(PASS_INTEREST + 100);
    passSeconds[2] = passClock.lap();
    lumoLog("#march cubes interest:%f\n", clock.lap());

    runJobs(PASS_TRIANGLES);
    const bool triangleOk = mergeTriangleLists();
    passSeconds[3] = passClock.lap();
    lumoLog("#march cubes conn time: %f result vertices:%d triangles:%d  \n", clock.lap(),
            vertices.count, triangles.count);
    freeScratch();
    if (!triangleOk) {
        error = "out of memory for the triangles";
        clearAll();
        return false;
    }

    if (smoothIterations == 0 && !wantNormals && !p.ocean) return true;
    if (!buildAdjacency()) {
        error = "out of memory for the adjacency";
        clearAll();
        return false;
    }
    if (vertices.count == 0) return true;
    if (p.ocean && smoothIterations > 0) {
        if (!active.resize(vertices.count, true)) {
            error = "out of memory";
            clearAll();
            return false;
        }
        for (int i = 0; i < vertices.count; ++i) active[i] = i;
    }
    if (p.extend) {
        // The extension to the horizon plugs in here; without it the patch stays as it is.
        lumoLog("#mesher: extend time %f vertices:%d triangles:%d\n", clock.lap(), vertices.count,
                triangles.count);
    }

    smooth();
    lumoLog("mesher: smooth %f\n", clock.lap());

    if (p.hasDisplacement) {
        displFactor = 0.0f;
        if (p.ocean) {
            measureDisplFactor();
            lumoLog("#mesher: displfactor:%f \n", displFactor);
        }
        if (!undisplaced.resize(vertices.count * 3, true)) {
            error = "out of memory";
            clearAll();
            return false;
        }
        if (vertices.count == 0) return true;
        if (!p.ocean && p.scalarDisplacement) {
            computeNormals(true);
            mMadeNormals = true;
            lumoLog("#mesher: normals %f\n", clock.lap());
        }
        setSpan(static_cast<uint64_t>(vertices.count));
        runJobs(PASS_DISPLACE);
        lumoLog("#mesher: displacement %f\n", clock.lap());
        if (p.ocean && p.edgePixels < 0.999f) {
            for (int k = 0; k < 3; ++k) {
                const bool more = subdivide();
                lumoLog("#mesher: subdiv %d %f\n", k, clock.lap());
                if (!error.empty()) {
                    clearAll();
                    return false;
                }
                if (!more) break;
            }
        }
    }

    if (wantNormals) {
        if (!mMadeNormals) {
            computeNormals(!p.hasDisplacement);
            lumoLog("#mesher: normals %f\n", clock.lap());
        }
        if (p.ocean && p.hasDisplacement) {
            setSpan(static_cast<uint64_t>(vertices.count));
            runJobs(PASS_OCEAN_NORMALS);
            lumoLog("#mesher: displ normals %f\n", clock.lap());
        }
        for (int i = 0; i < smoothIterations; ++i) filterNormals();
        lumoLog("normals filtering:%f\n", clock.lap());
    }
    if (p.uwGlasses && p.ocean) addUnderwaterQuad();
    return true;
}

void Mesher::jobProc(Job& base) {
    auto& job = static_cast<Job&>(base);
    switch (job.mode) {
        case PASS_MAP: passMap(job); break;
        case PASS_VERTICES: passVertices(job); break;
        case PASS_INTEREST: passInterest(job, smap.data, mInterest.data, true); break;
        case PASS_INTEREST + 100: passInterest(job, mInterest.data, smap.data, false); break;
        case PASS_TRIANGLES: passTriangles(job); break;
        case PASS_DISPLACE: passDisplace(job); break;
        case PASS_OCEAN_NORMALS: passOceanNormals(job); break;
        case PASS_CUTTER: passCutter(job); break;
        case PASS_SMOOTH: passSmooth(job); break;
        case PASS_COPY_SCRATCH:
        case PASS_COPY_SCRATCH + 1000: passCopyScratch(job); break;
        case PASS_NORMALS: passNormals(job); break;
        case PASS_FILTER: passFilter(job); break;
        case PASS_PARTICLES: passParticles(job); break;
        case PASS_SPLIT: passSplit(job); break;
        case PASS_MERGE_VERTICES: {
            auto& j = static_cast<MesherJob&>(job);
            const int n = j.verts.count / 3;
            UVertex* out = vertices.data + j.vertexBase;
            for (int i = 0; i < n; ++i) {
                UVertex& v = out[i];
                v.pos[0] = j.verts[3 * i];
                v.pos[1] = j.verts[3 * i + 1];
                v.pos[2] = j.verts[3 * i + 2];
                v.normal[0] = v.normal[1] = v.normal[2] = 0.0f;
                v.sharp = 0;
                v.triangles = nullptr;
                v.numTriangles = 0;
            }
            int32_t* c = conn.data + j.connBase;
            for (int i = 0; i < j.conn.count; ++i) c[i] = j.conn[i] + j.vertexBase;
            // The crossing bits go into the map only now, so that no job read a byte that
            // another was writing during the vertex pass.
            for (int i = 0; i < j.cells.count; ++i) {
                const long long cell = j.cells[i];
                cellConn[cell] = j.connBase + 3 * i;
                uint8_t bits = 0;
                for (int d = 0; d < 3; ++d)
                    if (j.conn[3 * i + d] >= 0) bits |= static_cast<uint8_t>(2u << d);
                smap[cell] |= bits;
            }
            break;
        }
        case PASS_MERGE_TRIANGLES: {
            auto& j = static_cast<MesherJob&>(job);
            if (j.tris.count)
                std::memcpy(triangles.data + j.triangleBase, j.tris.data,
                            static_cast<size_t>(j.tris.count) * sizeof(UTriangle));
            break;
        }
        case PASS_PARTICLE_GRID: {
            // Each particle goes onto the list of its cell; a head of -2 is a held lock.
            for (uint64_t i = job.first; i < job.last; ++i) {
                const float* q = particles->points + 3 * i;
                int32_t g[3];
                bool inside = true;
                for (int a = 0; a < 3; ++a) {
                    const float f = std::floor(q[a] + 0.5f);
                    inside = inside && f >= 0 && f < static_cast<float>(dims[a]);
                    g[a] = inside ? static_cast<int32_t>(f) : 0;
                }
                if (!inside) continue;
                const long long cell =
                    g[0] + static_cast<long long>(dims[0]) * (g[1] + static_cast<long long>(dims[1]) * g[2]);
                std::atomic_ref<int32_t> head(particleHeads[cell]);
                int32_t old;
                while ((old = head.exchange(-2, std::memory_order_acquire)) == -2) {
                }
                particleNext[static_cast<int>(i)] = old;
                head.store(static_cast<int32_t>(i), std::memory_order_release);
            }
            break;
        }
        default: break;
    }
}

// -------------------------------------------------------------------------------------------
// Marching passes

void Mesher::readClamped(int32_t g[3]) const {
    const int32_t* box = params->clampBox;
    for (int a = 0; a < 3; ++a) g[a] = std::clamp(g[a], box[a], box[3 + a]);
}

namespace {
// Position of a padded index as a three-digit counter.
struct PadCounter {
    int32_t p[3];
    const int32_t* dims;
    PadCounter(long long c, const int32_t* padDims) : dims(padDims) {
        p[0] = static_cast<int32_t>(c % padDims[0]);
        const long long r = c / padDims[0];
        p[1] = static_cast<int32_t>(r % padDims[1]);
        p[2] = static_cast<int32_t>(r / padDims[1]);
    }
    void advance(int32_t n) {
        p[0] += n;
        while (p[0] >= dims[0]) {
            p[0] -= dims[0];
            if (++p[1] >= dims[1]) {
                p[1] = 0;
                ++p[2];
            }
        }
    }
};
}  // namespace

void Mesher::passMap(Job& job) {
    const MesherParams& p = *params;
    const bool clamped = p.clampBox[0] < p.clampBox[3] && p.clampBox[1] < p.clampBox[4] &&
                         p.clampBox[2] < p.clampBox[5];
    const uint8_t flip = invert ? 0 : 1;
    const int up = std::clamp(p.upAxis, 0, 2);
    uint8_t* out = smap.data;
    const long long last = static_cast<long long>(job.last);
    long long c = static_cast<long long>(job.first);
    PadCounter k(c, padDims);
    while (c < last) {
        int32_t g[3] = {k.p[0] - 1, k.p[1] - 1, k.p[2] - 1};
        const bool rowInside = g[1] >= 0 && g[1] < dims[1] && g[2] >= 0 && g[2] < dims[2];
        // A whole row inside the grid in one vectorisable loop.
        if (!clamped && rowInside && g[0] == 0 && c + dims[0] <= last) {
            const float* row = grid + (static_cast<long long>(g[2]) * dims[1] + g[1]) * dims[0];
            uint8_t* o = out + c;
            const float level = iso;
            for (int32_t i = 0; i < dims[0]; ++i) o[i] = static_cast<uint8_t>(level < row[i]) ^ flip;
            c += dims[0];
            k.advance(dims[0]);
            continue;
        }
        bool inside = rowInside && g[0] >= 0 && g[0] < dims[0];
        if (clamped) {
            if (inside) {
                readClamped(g);
            } else {
                const bool below = static_cast<float>(g[up]) < p.level;
                if (below != invert) readClamped(g);
            }
            inside = g[0] >= 0 && g[0] < dims[0] && g[1] >= 0 && g[1] < dims[1] && g[2] >= 0 &&
                     g[2] < dims[2];
        }
        uint8_t bit;
        if (inside)
            bit = static_cast<uint8_t>(iso < grid[(static_cast<long long>(g[2]) * dims[1] + g[1]) * dims[0] + g[0]]) ^ flip;
        else
            bit = static_cast<uint8_t>(static_cast<float>(g[up]) < p.level) ^ flip;
        out[c] = bit;
        ++c;
        k.advance(1);
    }
}

void Mesher::passVertices(Job& base) {
    auto& job = static_cast<MesherJob&>(base);
    job.failed = false;
    job.verts.resize(0);
    job.conn.resize(0);
    job.cells.resize(0);
    if (job.verts.capacity < 3 * LOCAL_VERTICES) job.verts.reserveExact(3 * LOCAL_VERTICES);
    if (job.conn.capacity < LOCAL_CONN) job.conn.reserveExact(LOCAL_CONN);
    if (job.cells.capacity < LOCAL_CELLS) job.cells.reserveExact(LOCAL_CELLS);

    const MesherParams& p = *params;
    const bool clamped = p.clampBox[0] < p.clampBox[3] && p.clampBox[1] < p.clampBox[4] &&
                         p.clampBox[2] < p.clampBox[5];
    const int up = std::clamp(p.upAxis, 0, 2);
    double low = static_cast<double>(iso) - 0.1, high = static_cast<double>(iso) + 0.1;
    if (!invert) std::swap(low, high);
    const uint8_t* m = smap.data;
    const long long total = smap.count;
    const long long last = static_cast<long long>(job.last);
    const long long sy = padStrides[1], sz = padStrides[2];

    // The value read for a padded cell: the field at the clamped index, or the half-space value
    // its map bit stands for. A NaN cell reads as its bit says (outside the liquid).
    auto valueAt = [&](int32_t g[3], int bit) -> double {
        bool inside = g[0] >= 0 && g[0] < dims[0] && g[1] >= 0 && g[1] < dims[1] && g[2] >= 0 &&
                      g[2] < dims[2];
        if (clamped) {
            if (inside || ((static_cast<float>(g[up]) < p.level) != invert)) readClamped(g);
            inside = g[0] >= 0 && g[0] < dims[0] && g[1] >= 0 && g[1] < dims[1] && g[2] >= 0 &&
                     g[2] < dims[2];
        }
        if (inside) {
            const float v = grid[(static_cast<long long>(g[2]) * dims[1] + g[1]) * dims[0] + g[0]];
            if (!std::isnan(v)) return v;
        }
        return bit ? high : low;
    };

    long long c = static_cast<long long>(job.first);
    PadCounter k(c, padDims);
    while (c < last) {
        // Eight cells at once where none differs from its neighbours.
        if (c + 8 <= last && c + sz + 8 <= total) {
            const uint64_t w = load8(m + c);
            if ((((w ^ load8(m + c + 1)) | (w ^ load8(m + c + sy)) | (w ^ load8(m + c + sz))) &
                 BIT0_BYTES) == 0) {
                c += 8;
                k.advance(8);
                continue;
            }
        }
        const int b = m[c] & 1;
        int32_t triple[3] = {-1, -1, -1};
        bool any = false;
        for (int d = 0; d < 3; ++d) {
            if (k.p[d] == padDims[d] - 1) continue;
            const long long n = c + padStrides[d];
            const int bn = m[n] & 1;
            if (b == bn) continue;
            int32_t g[3] = {k.p[0] - 1, k.p[1] - 1, k.p[2] - 1};
            float pos[3] = {static_cast<float>(g[0]), static_cast<float>(g[1]),
                            static_cast<float>(g[2])};
            int32_t ga[3] = {g[0], g[1], g[2]};
            const double a = valueAt(ga, b);
            int32_t ge[3] = {g[0], g[1], g[2]};
            ++ge[d];
            const double e = valueAt(ge, bn);
            double t = (static_cast<double>(iso) - a) / (e - a);
            if (std::isnan(t)) t = 0.5;
            t = std::clamp(t, -1.0, 1.0);
            pos[d] = static_cast<float>(pos[d] + t);
            triple[d] = job.verts.count / 3;
            if (!job.verts.append(pos[0]) || !job.verts.append(pos[1]) ||
                !job.verts.append(pos[2]))
                job.failed = true;
            any = true;
        }
        if (any) {
            if (!job.conn.append(triple[0]) || !job.conn.append(triple[1]) ||
                !job.conn.append(triple[2]) || !job.cells.append(c))
                job.failed = true;
        }
        ++c;
        k.advance(1);
    }
}

bool Mesher::mergeVertexLists() {
    // Bases in the order of the spans: the job at the head of the chain holds the beginning.
    long long nv = 0, nc = 0;
    bool failed = false;
    for (Job* j = jobs; j; j = j->next) {
        auto& mj = static_cast<MesherJob&>(*j);
        failed = failed || mj.failed;
        mj.vertexBase = static_cast<int32_t>(nv);
        mj.connBase = static_cast<int32_t>(nc);
        nv += mj.verts.count / 3;
        nc += mj.conn.count;
    }
    if (failed || nv > 0x7FFFFFFF || nc > 0x7FFFFFFF) return false;
    if (!sizeUninitialised(vertices, static_cast<int>(nv)) ||
        !sizeUninitialised(conn, static_cast<int>(nc)))
        return false;
    runJobs(PASS_MERGE_VERTICES);
    return true;
}

void Mesher::passInterest(Job& job, const uint8_t* from, uint8_t* to, bool first) {
    // Reads `from` and writes `to`, never the same array in one pass: the two rounds together
    // give what two rounds in place would, without a byte read while another job writes it.
    const long long total = smap.count;
    const long long last = static_cast<long long>(job.last);
    const long long sy = padStrides[1], sz = padStrides[2];
    long long c = static_cast<long long>(job.first);
    PadCounter k(c, padDims);
    while (c < last) {
        if (c + 8 <= last && c + sz + 8 <= total) {
            const uint64_t any = load8(from + c + 1) | load8(from + c + sy) | load8(from + c + sz);
            if ((any & EDGE_BYTES) == 0) {
                if (first) {
                    const uint64_t own = load8(from + c) & EDGE_BYTES;
                    std::memcpy(to + c, &own, 8);
                }
                c += 8;
                k.advance(8);
                continue;
            }
        }
        uint8_t bits = static_cast<uint8_t>(from[c] & 0x0E);
        for (int d = 0; d < 3; ++d) {
            if (k.p[d] == padDims[d] - 1) continue;
            const uint8_t own = static_cast<uint8_t>(2u << d);
            if (from[c + padStrides[d]] & 0x0E & ~own) bits |= own;
        }
        if (first)
            to[c] = bits;
        else
            to[c] |= bits;
        ++c;
        k.advance(1);
    }
}

void Mesher::passTriangles(Job& base) {
    auto& job = static_cast<MesherJob&>(base);
    job.failed = false;
    job.tris.resize(0);
    if (job.tris.capacity < LOCAL_TRIANGLES) job.tris.reserveExact(LOCAL_TRIANGLES);
    const uint8_t* m = smap.data;
    const long long total = smap.count;
    const long long last = static_cast<long long>(job.last);
    const long long sy = padStrides[1], sz = padStrides[2];
    long long cornerOffset[8];
    for (int i = 0; i < 8; ++i)
        cornerOffset[i] = mesh::CORNER_OFFSET[i][0] + mesh::CORNER_OFFSET[i][1] * sy +
                          mesh::CORNER_OFFSET[i][2] * sz;
    long long c = static_cast<long long>(job.first);
    PadCounter k(c, padDims);
    while (c < last) {
        if (c + 8 <= last && c + 8 <= total && (load8(m + c) & ABOVE1_BYTES) == 0) {
            c += 8;
            k.advance(8);
            continue;
        }
        if (m[c] >= 2 && k.p[0] < padDims[0] - 1 && k.p[1] < padDims[1] - 1 &&
            k.p[2] < padDims[2] - 1) {
            int cube = 0;
            for (int i = 0; i < 8; ++i) cube |= (m[c + cornerOffset[i]] & 1) << i;
            const int8_t* row = mesh::triangleRow(cube);
            for (int r = 0; row[r] >= 0; r += 3) {
                int32_t v[3];
                for (int q = 0; q < 3; ++q) {
                    const int e = row[r + q];
                    const long long owner = c + cornerOffset[mesh::EDGE_OWNER[e]];
                    v[q] = conn[cellConn[owner] + mesh::EDGE_AXIS[e]];
                }
                // The table's first two corners swap: the surface faces away from the corners
                // that the map marks.
                if (!job.tris.append(UTriangle{{v[1], v[0], v[2]}})) job.failed = true;
            }
        }
        ++c;
        k.advance(1);
    }
}

bool Mesher::mergeTriangleLists() {
    long long nt = 0;
    bool failed = false;
    for (Job* j = jobs; j; j = j->next) {
        auto& mj = static_cast<MesherJob&>(*j);
        failed = failed || mj.failed;
        mj.triangleBase = static_cast<int32_t>(nt);
        nt += mj.tris.count;
    }
    if (failed || nt > 0x7FFFFFFF || !sizeUninitialised(triangles, static_cast<int>(nt)))
        return false;
    runJobs(PASS_MERGE_TRIANGLES);
    return true;
}

bool Mesher::buildAdjacency() {
    const int nv = vertices.count;
    for (int i = 0; i < nv; ++i) vertices[i].numTriangles = 0;
    for (int t = 0; t < triangles.count; ++t)
        for (int k = 0; k < 3; ++k) {
            const int v = triangles[t].v[k];
            if (v < 0 || v >= nv) {
                lumoLog("bad trg %d -> v%d=%d!!!\n", t, k, v);
                continue;
            }
            ++vertices[v].numTriangles;
        }
    if (!sizeUninitialised(adjacency, triangles.count * 3)) return false;
    int32_t* slice = adjacency.data;
    for (int i = 0; i < nv; ++i) {
        vertices[i].triangles = slice;
        slice += vertices[i].numTriangles;
        vertices[i].numTriangles = 0;
    }
    for (int t = 0; t < triangles.count; ++t)
        for (int k = 0; k < 3; ++k) {
            const int v = triangles[t].v[k];
            if (v < 0 || v >= nv) continue;
            UVertex& vx = vertices[v];
            vx.triangles[vx.numTriangles++] = t;
        }
    return true;
}

// -------------------------------------------------------------------------------------------
// Cutter

namespace {
void multiply(const double a[4][3], const float b[4][3], double out[4][3]) {
    for (int r = 0; r < 4; ++r)
        for (int j = 0; j < 3; ++j) {
            double s = r == 3 ? b[3][j] : 0.0;
            for (int i = 0; i < 3; ++i) s += a[r][i] * b[i][j];
            out[r][j] = s;
        }
}
bool invert43(const float m[4][3], float out[4][3]) {
    const double a = m[0][0], b = m[0][1], c = m[0][2], d = m[1][0], e = m[1][1], f = m[1][2],
                 g = m[2][0], h = m[2][1], i = m[2][2];
    const double det = a * (e * i - f * h) - b * (d * i - f * g) + c * (d * h - e * g);
    if (det == 0 || !std::isfinite(det)) return false;
    const double inv[3][3] = {{(e * i - f * h) / det, (c * h - b * i) / det, (b * f - c * e) / det},
                              {(f * g - d * i) / det, (a * i - c * g) / det, (c * d - a * f) / det},
                              {(d * h - e * g) / det, (b * g - a * h) / det, (a * e - b * d) / det}};
    for (int r = 0; r < 3; ++r)
        for (int j = 0; j < 3; ++j) out[r][j] = static_cast<float>(inv[r][j]);
    for (int j = 0; j < 3; ++j)
        out[3][j] = static_cast<float>(-(m[3][0] * inv[0][j] + m[3][1] * inv[1][j] + m[3][2] * inv[2][j]));
    return true;
}
}  // namespace

void Mesher::runCutter() {
    // Index space to gizmo space: index -> object -> world -> gizmo.
    double idx[4][3];
    for (int r = 0; r < 4; ++r)
        for (int j = 0; j < 3; ++j) idx[r][j] = gizmo->indexToObject[r][j];
    double toWorld[4][3];
    multiply(idx, gizmo->gridObjToWorld, toWorld);
    float worldToGizmo[4][3];
    if (!invert43(gizmo->gizmoToWorld, worldToGizmo)) {
        lumoLog("#cutter: the gizmo's transform can't be inverted\n");
        return;
    }
    multiply(toWorld, worldToGizmo, mIndexToGizmo);
    // A gizmo-space normal n maps to index space as L n, L the linear part of index-to-gizmo.
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) mNormalToIndex[i][j] = mIndexToGizmo[i][j];
    runJobs(PASS_CUTTER);
}

void Mesher::passCutter(Job& job) {
    const iKDTree& tree = *gizmo->tree;
    const bool inv = gizmo->invert;
    // The cells before an entering hit lie outside the gizmo; with `invert` those before a
    // leaving hit, inside it, are the ones cut.
    const int wanted = inv ? 0 : 1;
    iArray<int> ids(64, 4), facings(64, 4);
    iArray<double> ts(64, 4);
    const long long pz = padStrides[2], py = padStrides[1];
    auto padIndex = [&](const int32_t g[3]) {
        return (g[0] + 1) + (g[1] + 1) * py + (g[2] + 1) * pz;
    };
    auto cellIndex = [&](const int32_t g[3]) {
        return (static_cast<long long>(g[2]) * dims[1] + g[1]) * dims[0] + g[0];
    };
    float* field = mGridCopy.data;
    uint8_t* m = smap.data;
    for (int d = 0; d < 3; ++d) {
        const int a = (d + 1) % 3, b = (d + 2) % 3;
        const long long strideD = d == 0 ? 1 : d == 1 ? dims[0] : static_cast<long long>(dims[0]) * dims[1];
        for (int ia = 0; ia < dims[a]; ++ia) {
            for (int ib = job.index; ib < dims[b]; ib += numJobs) {
                int32_t g[3];
                g[d] = 0;
                g[a] = ia;
                g[b] = ib;
                double org[3];
                float dir[3];
                for (int j = 0; j < 3; ++j) {
                    org[j] = g[0] * mIndexToGizmo[0][j] + g[1] * mIndexToGizmo[1][j] +
                             g[2] * mIndexToGizmo[2][j] + mIndexToGizmo[3][j];
                    dir[j] = static_cast<float>(mIndexToGizmo[d][j]);
                }
                const iKDTree::Ray ray(org, dir, 0.0, 1e30);
                tree.intersectAll(ray, 10000, ids, ts, facings);
                int next = 0;
                int32_t pos = 0;
                while (pos < dims[d]) {
                    // Next hit at or after the current position; past the hits, the grid's end.
                    while (next < ids.count && ts[next] < pos) ++next;
                    const bool hit = next < ids.count && ts[next] < dims[d];
                    const double t = hit ? ts[next] : static_cast<double>(dims[d]);
                    const int facing = hit ? facings[next] : 1;
                    const int32_t ft = static_cast<int32_t>(std::floor(t));
                    if (facing == wanted) {
                        for (int32_t i = pos; i <= std::min(ft, dims[d] - 1); ++i) {
                            g[d] = i;
                            m[padIndex(g)] |= 0x80;
                        }
                    }
                    if (!hit) break;
                    if (ft < dims[d] - 1) {
                        g[d] = ft;
                        const long long c = cellIndex(g);
                        double f = t - ft;
                        const double v0 = field[c], v1 = field[c + strideD];
                        const double v = v0 + f * (v1 - v0);
                        if (v > 0.5) {
                            // The hit's normal in index space gives the slope across the level.
                            float tri[3][3];
                            tree.getTriangle(ids[next], tri);
                            const double e1[3] = {tri[1][0] - tri[0][0], tri[1][1] - tri[0][1], tri[1][2] - tri[0][2]};
                            const double e2[3] = {tri[2][0] - tri[0][0], tri[2][1] - tri[0][1], tri[2][2] - tri[0][2]};
                            const double ng[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                                  e1[0] * e2[1] - e1[1] * e2[0]};
                            double ni[3];
                            for (int r = 0; r < 3; ++r)
                                ni[r] = mNormalToIndex[r][0] * ng[0] + mNormalToIndex[r][1] * ng[1] +
                                        mNormalToIndex[r][2] * ng[2];
                            const double len = std::sqrt(ni[0] * ni[0] + ni[1] * ni[1] + ni[2] * ni[2]);
                            double w = len > 0 ? 0.5 * ni[d] / len : 0.0;
                            if (inv) {
                                w = -w;
                                f = facing == 1 ? f + 0.1 * (1 - f) : 0.9 * f;
                            }
                            const float nv0 = static_cast<float>(0.5 + f * w);
                            const float nv1 = static_cast<float>(0.5 - (1 - f) * w);
                            int32_t g1[3] = {g[0], g[1], g[2]};
                            ++g1[d];
                            uint8_t& m0 = m[padIndex(g)];
                            uint8_t& m1 = m[padIndex(g1)];
                            field[c] = (m0 & 7) ? std::max(field[c], nv0) : nv0;
                            field[c + strideD] = (m1 & 7) ? std::max(field[c + strideD], nv1) : nv1;
                            m0 |= static_cast<uint8_t>(1u << d);
                            m1 |= static_cast<uint8_t>(1u << d);
                        }
                    }
                    pos = ft + 2;
                    ++next;
                }
            }
        }
        // The next axis walks rows that cross this one's: all jobs finish this axis first.
        if (barrier()) return;
    }
    // Cut cells that no hit rewrote become empty.
    const long long cells = static_cast<long long>(dims[0]) * dims[1] * dims[2];
    const long long from = cells * job.index / numJobs, to = cells * (job.index + 1) / numJobs;
    for (long long c = from; c < to; ++c) {
        const long long x = c % dims[0], r = c / dims[0];
        const long long y = r % dims[1], z = r / dims[1];
        const uint8_t bits = m[(x + 1) + (y + 1) * py + (z + 1) * pz];
        if ((bits & 0x80) && !(bits & 7)) field[c] = 0.0f;
    }
}

// -------------------------------------------------------------------------------------------
// Smoothing and the particle pass

void Mesher::smooth() {
    if (smoothIterations <= 0 || vertices.count == 0) return;
    const uint64_t span = active.count > 0 ? active.count : vertices.count;
    if (particles) buildParticleGrid();
    for (int i = 0; i < smoothIterations; ++i) {
        setSpan(span);
        runJobs(PASS_SMOOTH);
        runJobs(PASS_COPY_SCRATCH);
        if (particles && particleHeads.count > 0 && i == smoothIterations / 2 + 1) {
            computeNormals(true);
            if (!mScratch.resize(vertices.count * 3, true)) continue;
            setSpan(span);
            runJobs(PASS_PARTICLES);
            runJobs(PASS_COPY_SCRATCH + 1000);
        }
    }
}

void Mesher::passSmooth(Job& job) {
    UVertex* vx = vertices.data;
    const UTriangle* tr = triangles.data;
    for (uint64_t s = job.first; s < job.last; ++s) {
        const int vi = active.count > 0 ? active[static_cast<int>(s)] : static_cast<int>(s);
        UVertex& v = vx[vi];
        v.normal[0] = v.pos[0];
        v.normal[1] = v.pos[1];
        v.normal[2] = v.pos[2];
        v.sharp = 0;
        float centroid[3] = {0, 0, 0}, nsum[3] = {0, 0, 0};
        float area = 0;
        for (int k = 0; k < v.numTriangles; ++k) {
            const UTriangle& t = tr[v.triangles[k]];
            float n[3];
            triangleNormal(vx, t, n);
            const float a = std::sqrt(dot(n, n));
            if (a < SMOOTH_MIN_AREA) continue;
            for (int j = 0; j < 3; ++j) {
                centroid[j] += a * (vx[t.v[0]].pos[j] + vx[t.v[1]].pos[j] + vx[t.v[2]].pos[j]) / 3.0f;
                nsum[j] += n[j];
            }
            area += a;
        }
        if (area < SMOOTH_MIN_AREA_SUM) continue;
        float c[3] = {centroid[0] / area, centroid[1] / area, centroid[2] / area};
        float out[3] = {c[0], c[1], c[2]};
        if (safeNormalize(nsum)) {
            // Back onto the surface: along the mean normal to the first of the vertex's own
            // triangles that the line meets.
            const double org[3] = {c[0], c[1], c[2]};
            const iKDTree::Ray ray(org, nsum, -1.0, 1e18);
            for (int k = v.numTriangles - 1; k >= 0; --k) {
                const UTriangle& t = tr[v.triangles[k]];
                float corners[3][3];
                for (int q = 0; q < 3; ++q)
                    for (int j = 0; j < 3; ++j) corners[q][j] = vx[t.v[q]].pos[j];
                double th;
                int facing;
                if (iKDTree::intersectTriangle(ray, corners, th, facing)) {
                    for (int j = 0; j < 3; ++j) out[j] = c[j] + static_cast<float>(th) * nsum[j];
                    break;
                }
            }
        }
        v.normal[0] = out[0];
        v.normal[1] = out[1];
        v.normal[2] = out[2];
    }
}

void Mesher::passCopyScratch(Job& job) {
    for (uint64_t s = job.first; s < job.last; ++s) {
        const int vi = active.count > 0 ? active[static_cast<int>(s)] : static_cast<int>(s);
        UVertex& v = vertices[vi];
        if (job.mode == PASS_COPY_SCRATCH) {
            std::memcpy(v.pos, v.normal, sizeof v.pos);
        } else {
            std::memcpy(v.pos, mScratch.data + 3 * vi, sizeof v.pos);
        }
    }
}

void Mesher::buildParticleGrid() {
    const long long cells = static_cast<long long>(dims[0]) * dims[1] * dims[2];
    const int32_t empty = -1;
    if (particles->count > 0x7FFFFFFF || !particleHeads.resize(cells, &empty, true) ||
        !particleNext.resize(static_cast<int>(particles->count), &empty, true)) {
        particleHeads.free();
        particleNext.free();
        return;
    }
    particleCount = particles->count;
    setSpan(static_cast<uint64_t>(particles->count));
    runJobs(PASS_PARTICLE_GRID);
}

void Mesher::passParticles(Job& job) {
    UVertex* vx = vertices.data;
    iArray<int> ring(256, 4);
    iArray<int> stack(256, 4);
    for (uint64_t s = job.first; s < job.last; ++s) {
        const int vi = active.count > 0 ? active[static_cast<int>(s)] : static_cast<int>(s);
        const UVertex& v = vx[vi];
        float* out = mScratch.data + 3 * vi;
        std::memcpy(out, v.pos, sizeof v.pos);
        // The ring: vertices reached over shared edges within three cells of V.
        ring.resize(0);
        stack.resize(0);
        ring.append(vi);
        stack.append(vi);
        while (stack.count > 0 && ring.count < PARTICLE_RING_MAX) {
            const int u = stack.last();
            stack.resize(stack.count - 1);
            for (int k = 0; k < vx[u].numTriangles; ++k) {
                const UTriangle& t = triangles[vx[u].triangles[k]];
                for (int q = 0; q < 3; ++q) {
                    const int w = t.v[q];
                    const float d[3] = {vx[w].pos[0] - v.pos[0], vx[w].pos[1] - v.pos[1],
                                        vx[w].pos[2] - v.pos[2]};
                    if (dot(d, d) >= PARTICLE_RADIUS2 || ring.find(w) >= 0) continue;
                    if (ring.count >= PARTICLE_RING_MAX) break;
                    ring.append(w);
                    stack.append(w);
                }
            }
        }
        // Particles of the cells around V.
        int32_t lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            const float f = std::floor(v.pos[a]);
            lo[a] = static_cast<int32_t>(std::clamp(f - 2.0f, 0.0f, static_cast<float>(dims[a] - 1)));
            hi[a] = static_cast<int32_t>(std::clamp(f + 2.0f, 0.0f, static_cast<float>(dims[a] - 1)));
        }
        double wsum = 0, msum = 0;
        for (int z = lo[2]; z <= hi[2]; ++z)
            for (int y = lo[1]; y <= hi[1]; ++y)
                for (int x = lo[0]; x <= hi[0]; ++x) {
                    const long long cell = x + static_cast<long long>(dims[0]) * (y + static_cast<long long>(dims[1]) * z);
                    for (int pi = particleHeads[cell]; pi >= 0; pi = particleNext[pi]) {
                        const float* pp = particles->points + 3 * static_cast<long long>(pi);
                        const float dv[3] = {pp[0] - v.pos[0], pp[1] - v.pos[1], pp[2] - v.pos[2]};
                        const float dd = dot(dv, dv);
                        if (!(dd < PARTICLE_RADIUS2)) continue;
                        int nearest = vi;
                        float best = 3e38f;
                        for (int r = 0; r < ring.count; ++r) {
                            const float* up = vx[ring[r]].pos;
                            const float du[3] = {pp[0] - up[0], pp[1] - up[1], pp[2] - up[2]};
                            const float d2 = dot(du, du);
                            if (d2 < best) {
                                best = d2;
                                nearest = ring[r];
                            }
                        }
                        const UVertex& u = vx[nearest];
                        const float du[3] = {pp[0] - u.pos[0], pp[1] - u.pos[1], pp[2] - u.pos[2]};
                        const double h = dot(du, u.normal);
                        const double w = (PARTICLE_RADIUS2 - dd) / (h * h * h * h + 1.0);
                        wsum += w;
                        msum += w * dot(dv, v.normal);
                    }
                }
        if (wsum > 0.001) {
            const float move = static_cast<float>(msum / wsum) + particles->offset;
            for (int j = 0; j < 3; ++j) out[j] = v.pos[j] + move * v.normal[j];
        }
    }
}

// -------------------------------------------------------------------------------------------
// Normals

void Mesher::computeNormals(bool normalize) {
    mNormalize = normalize;
    setSpan(static_cast<uint64_t>(vertices.count));
    runJobs(PASS_NORMALS);
}

void Mesher::passNormals(Job& job) {
    UVertex* vx = vertices.data;
    for (uint64_t i = job.first; i < job.last; ++i) {
        UVertex& v = vx[i];
        float s[3] = {0, 0, 0};
        for (int k = 0; k < v.numTriangles; ++k) {
            float n[3];
            triangleNormal(vx, triangles[v.triangles[k]], n);
            if (dot(n, n) < 1e-20f) continue;
            s[0] += n[0];
            s[1] += n[1];
            s[2] += n[2];
        }
        if (mNormalize && !(s[0] == 0 && s[1] == 0 && s[2] == 0)) safeNormalize(s);
        if (mNormalize && s[0] == 0 && s[1] == 0 && s[2] == 0) s[2] = 1.0f;
        std::memcpy(v.normal, s, sizeof s);
    }
}

void Mesher::filterNormals() {
    if (!mScratch.resize(vertices.count * 3, true)) return;
    setSpan(static_cast<uint64_t>(vertices.count));
    runJobs(PASS_FILTER);
    for (int i = 0; i < vertices.count; ++i) std::memcpy(vertices[i].normal, mScratch.data + 3 * i, 12);
}

void Mesher::passFilter(Job& job) {
    const UVertex* vx = vertices.data;
    for (uint64_t i = job.first; i < job.last; ++i) {
        const UVertex& v = vx[i];
        float s[3] = {v.normal[0] * v.numTriangles, v.normal[1] * v.numTriangles,
                      v.normal[2] * v.numTriangles};
        for (int k = 0; k < v.numTriangles; ++k) {
            const UTriangle& t = triangles[v.triangles[k]];
            const int at = t.v[0] == static_cast<int>(i) ? 0 : t.v[1] == static_cast<int>(i) ? 1 : 2;
            const float* n = vx[t.v[(at + 1) % 3]].normal;
            s[0] += n[0];
            s[1] += n[1];
            s[2] += n[2];
        }
        if (!safeNormalize(s)) std::memcpy(s, v.normal, sizeof s);
        std::memcpy(mScratch.data + 3 * i, s, sizeof s);
    }
}

// -------------------------------------------------------------------------------------------
// Displacement

void Mesher::passDisplace(Job& job) {
    const MesherParams& p = *params;
    const int up = std::clamp(p.upAxis, 0, 2);
    for (uint64_t i = job.first; i < job.last; ++i) {
        UVertex& v = vertices[static_cast<int>(i)];
        std::memcpy(undisplaced.data + 3 * i, v.pos, 12);
        float out[3];
        params->displace(out, v.pos, job.index);
        if (p.scalarDisplacement) {
            if (p.ocean)
                v.pos[up] += out[1];
            else
                for (int j = 0; j < 3; ++j) v.pos[j] += out[1] * v.normal[j];
        } else {
            for (int j = 0; j < 3; ++j) v.pos[j] += out[j];
        }
    }
}

void Mesher::measureDisplFactor() {
    const MesherParams& p = *params;
    const int up = std::clamp(p.upAxis, 0, 2);
    float dir[3] = {p.view.direction[0], p.view.direction[1], p.view.direction[2]};
    dir[up] = 0;
    if (!safeNormalize(dir)) {
        dir[0] = 1;
        dir[1] = dir[2] = 0;
    }
    uint32_t x = 345;
    uint32_t state = (x ^ (x << 10) ^ (x << 13) ^ (x >> 7) ^ (x >> 23)) + 7;
    double sum = 0;
    for (int i = 0; i < 1000; ++i) {
        state = state * 1103515245u + 12345u;
        const double r = state / 4294967295.0 * 100000.0;
        const float q[3] = {static_cast<float>(r * dir[0]), static_cast<float>(r * dir[1]),
                            static_cast<float>(r * dir[2])};
        float out[3];
        params->displace(out, q, 0);
        sum += std::fabs(out[up]);
    }
    displFactor = static_cast<float>(sum / 1000.0);
}

void Mesher::displacedNormal(const float pt[3], const float e[3], float n[3], int jobIndex) {
    if (displFactor < 1e-6f) return;
    const MesherParams& p = *params;
    const int up = std::clamp(p.upAxis, 0, 2);
    float t[3], s[3];
    cross(n, p.view.direction, t);
    if (dot(t, t) < 0.001f) cross(n, p.view.axis2, t);
    cross(n, t, s);
    const float h = displFactor + std::sqrt(dot(pt, pt)) * 0.0001f;
    float shifted[2][3];
    float* axes[2] = {s, t};
    for (int k = 0; k < 2; ++k) {
        float* a = axes[k];
        if (!safeNormalize(a)) return;
        float q[3] = {pt[0] + a[0] * h, pt[1] + a[1] * h, pt[2] + a[2] * h};
        float out[3];
        params->displace(out, q, jobIndex);
        if (p.scalarDisplacement) {
            q[up] += out[1];
        } else {
            for (int j = 0; j < 3; ++j) q[j] += out[j];
        }
        for (int j = 0; j < 3; ++j) shifted[k][j] = q[j] - (pt[j] + e[j]);
    }
    float c[3];
    cross(shifted[0], shifted[1], c);
    if (dot(c, n) < 0) c[0] = -c[0], c[1] = -c[1], c[2] = -c[2];
    if (safeNormalize(c)) std::memcpy(n, c, sizeof c);
}

void Mesher::passOceanNormals(Job& job) {
    const MesherParams& p = *params;
    const int up = std::clamp(p.upAxis, 0, 2);
    const double threshold = 0.5 * static_cast<double>(displFactor) * displFactor / 0.0036;
    int bad = 0;
    for (uint64_t i = job.first; i < job.last; ++i) {
        UVertex& v = vertices[static_cast<int>(i)];
        const float* und = undisplaced.count >= static_cast<int>(3 * (i + 1)) ? undisplaced.data + 3 * i : v.pos;
        const float r[3] = {v.normal[0], v.normal[1], v.normal[2]};
        const float len = std::sqrt(dot(r, r));
        if (len > threshold) {
            for (int j = 0; j < 3; ++j) v.normal[j] = r[j] / len;
            float u[3] = {0, 0, 0};
            u[up] = 1.0f;
            const float e[3] = {v.pos[0] - und[0], v.pos[1] - und[1], v.pos[2] - und[2]};
            displacedNormal(und, e, u, job.index);
            const float k = static_cast<float>(std::sqrt(len / threshold));
            for (int j = 0; j < 3; ++j) v.normal[j] += u[j] * k;
        }
        float w[3] = {p.view.position[0] - und[0], p.view.position[1] - und[1],
                      p.view.position[2] - und[2]};
        if (dot(r, w) > 0 && safeNormalize(w)) {
            const float d = dot(w, v.normal);
            if (d < 0)
                for (int j = 0; j < 3; ++j) v.normal[j] -= 2 * d * w[j];
        }
        if (!safeNormalize(v.normal)) {
            v.normal[0] = v.normal[1] = v.normal[2] = 0;
            v.normal[up] = invert ? 1.0f : -1.0f;
            ++bad;
        }
    }
    if (bad) lumoLog("bad normals %d\n", bad);
}

// -------------------------------------------------------------------------------------------
// Screen-adaptive subdivision

bool Mesher::subdivide() {
    const int32_t none = -1;
    edgeSplits.resize(0);
    if (!edgeSplits.resize(triangles.count * 3, &none, true)) {
        error = "out of memory for the subdivision";
        return false;
    }
    firstNewVertex = vertices.count;
    for (Job* j = jobs; j; j = j->next) {
        auto& mj = static_cast<MesherJob&>(*j);
        mj.splitVerts.resize(0);
        mj.splitUndisplaced.resize(0);
        mj.splitSlots.resize(0);
        mj.failed = false;
    }
    setSpan(static_cast<uint64_t>(vertices.count));
    runJobs(PASS_SPLIT);
    // New vertices in the order of the jobs, their slots moved by each job's base.
    long long total = vertices.count;
    bool failed = false;
    for (Job* j = jobs; j; j = j->next) {
        auto& mj = static_cast<MesherJob&>(*j);
        failed = failed || mj.failed;
        mj.vertexBase = static_cast<int32_t>(total);
        total += mj.splitVerts.count;
    }
    if (failed || total > 0x7FFFFFFF || !vertices.resize(static_cast<int>(total)) ||
        !undisplaced.resize(static_cast<int>(total) * 3, true)) {
        error = "out of memory for the subdivision";
        return false;
    }
    for (Job* j = jobs; j; j = j->next) {
        auto& mj = static_cast<MesherJob&>(*j);
        for (int i = 0; i < mj.splitVerts.count; ++i) {
            vertices[mj.vertexBase + i] = mj.splitVerts[i];
            std::memcpy(undisplaced.data + 3 * (mj.vertexBase + i), mj.splitUndisplaced.data + 3 * i, 12);
        }
        for (int i = 0; i < mj.splitSlots.count; ++i) edgeSplits[mj.splitSlots[i]] += mj.vertexBase;
    }
    retriangulate();
    if (!error.empty()) return false;
    const int added = mAddedTriangles;
    if (added > 0 && !buildAdjacency()) {
        error = "out of memory for the adjacency";
        return false;
    }
    return added > triangles.count / 10;
}

void Mesher::passSplit(Job& base) {
    auto& job = static_cast<MesherJob&>(base);
    const MesherParams& p = *params;
    const View& view = p.view;
    const int up = std::clamp(p.upAxis, 0, 2);
    // Each job takes its span of the vertices, so that the new vertices come out in vertex order
    // for any number of jobs; a shared edge is handled by its higher end only.
    struct Made {
        int other;
        int local;
    };
    iArray<Made> made(16, 4);
    for (int v = static_cast<int>(job.first); v < static_cast<int>(job.last); ++v) {
        const UVertex& vx = vertices[v];
        float sv[3];
        if (!view.project(vx.pos, sv)) continue;
        const float w[3] = {vx.pos[0] - view.position[0], vx.pos[1] - view.position[1],
                            vx.pos[2] - view.position[2]};
        const float least = std::max(p.edgePixels, 0.5f);
        float tx = least, ty = least;
        const float wl = std::sqrt(dot(w, w));
        const float c = wl > 0 ? std::fabs(w[up]) / wl : 0;
        if (c > 0.001f) {
            const float s = std::sqrt(c);
            tx = std::min(least / s, 2.0f);
            ty = std::max(p.edgePixels, least * s);
        }
        tx *= 1.3f;
        ty *= 1.3f;
        ty = std::max(ty, p.edgePixels);
        made.resize(0);
        for (int k = 0; k < vx.numTriangles; ++k) {
            const int ti = vx.triangles[k];
            const UTriangle& t = triangles[ti];
            if (t.v[0] == t.v[1] || t.v[1] == t.v[2] || t.v[0] == t.v[2]) continue;
            for (int q = 0; q < 3; ++q) {
                const int other = t.v[q];
                if (other >= v) continue;
                float so[3];
                if (!view.project(vertices[other].pos, so)) continue;
                if (!(std::fabs(so[0] - sv[0]) > tx || std::fabs(so[1] - sv[1]) > ty)) continue;
                int local = -1;
                for (int m = 0; m < made.count; ++m)
                    if (made[m].other == other) local = made[m].local;
                if (local < 0) {
                    local = job.splitVerts.count;
                    UVertex nv{};
                    float mid[3];
                    for (int j = 0; j < 3; ++j)
                        mid[j] = 0.5f * (undisplaced[3 * v + j] + undisplaced[3 * other + j]);
                    std::memcpy(nv.pos, mid, 12);
                    if (!job.splitVerts.append(nv) || !job.splitUndisplaced.append(mid[0]) ||
                        !job.splitUndisplaced.append(mid[1]) || !job.splitUndisplaced.append(mid[2]) ||
                        !made.append(Made{other, local})) {
                        job.failed = true;
                        return;
                    }
                }
                // The slot of the edge (v, other) is the one of the third corner.
                int third = 0;
                while (third < 3 && (t.v[third] == v || t.v[third] == other)) ++third;
                if (third == 3) continue;
                int32_t& slot = edgeSplits[3 * ti + third];
                if (slot == -1) {
                    slot = local;
                    if (!job.splitSlots.append(3 * ti + third)) job.failed = true;
                }
            }
        }
    }
    // Displace the new vertices as the displacement pass would.
    for (int i = 0; i < job.splitVerts.count; ++i) {
        UVertex& nv = job.splitVerts[i];
        float out[3];
        params->displace(out, nv.pos, job.index);
        if (p.scalarDisplacement)
            nv.pos[up] += out[1];
        else
            for (int j = 0; j < 3; ++j) nv.pos[j] += out[j];
    }
}

void Mesher::retriangulate() {
    const int original = triangles.count;
    mAddedTriangles = 0;
    auto und = [&](int v) { return undisplaced.data + 3 * v; };
    auto dist2 = [&](int a, int b) {
        const float* p = und(a);
        const float* q = und(b);
        const float d[3] = {p[0] - q[0], p[1] - q[1], p[2] - q[2]};
        return dot(d, d);
    };
    for (int i = 0; i < original; ++i) {
        int32_t t[3] = {triangles[i].v[0], triangles[i].v[1], triangles[i].v[2]};
        const int32_t m[3] = {edgeSplits[3 * i], edgeSplits[3 * i + 1], edgeSplits[3 * i + 2]};
        const int n = (m[0] >= 0) + (m[1] >= 0) + (m[2] >= 0);
        if (n == 0) continue;
        auto add = [&](int a, int b, int c) {
            if (!triangles.append(UTriangle{{a, b, c}})) error = "out of memory for the subdivision";
            ++mAddedTriangles;
        };
        if (n == 1) {
            const int k = m[0] >= 0 ? 0 : m[1] >= 0 ? 1 : 2;
            add(m[k], t[k], t[(k + 1) % 3]);
            t[(k + 1) % 3] = m[k];
        } else if (n == 2) {
            const int k = m[0] < 0 ? 0 : m[1] < 0 ? 1 : 2;
            const int a = (k + 1) % 3, b = (k + 2) % 3;
            const int c = dist2(t[b], m[b]) > dist2(t[a], m[a]) ? a : b;
            add(t[c], m[a], m[b]);
            add(m[b], m[a], t[k]);
            t[k] = m[c];
        } else {
            for (int j = 0; j < 3; ++j) add(t[j], m[(j + 2) % 3], m[(j + 1) % 3]);
            t[0] = m[0];
            t[1] = m[1];
            t[2] = m[2];
        }
        if (!error.empty()) return;
        triangles[i] = UTriangle{{t[0], t[1], t[2]}};
    }
}

// -------------------------------------------------------------------------------------------
// Underwater quad

void Mesher::addUnderwaterQuad() {
    const MesherParams& p = *params;
    const View& view = p.view;
    const int up = std::clamp(p.upAxis, 0, 2);
    if ((view.position[up] < p.level) != invert) return;
    const int v = vertices.count;
    const bool withUndisplaced = undisplaced.count > 0;
    for (int i = 0; i < 4; ++i) {
        const float x = (i & 1) ? static_cast<float>(view.width) : 0.0f;
        const float y = (i & 2) ? static_cast<float>(view.height) : 0.0f;
        float dir[3];
        view.pixelRay(x, y, dir);
        UVertex nv{};
        for (int j = 0; j < 3; ++j) {
            nv.pos[j] = view.position[j] + dir[j];
            nv.normal[j] = -view.direction[j];
        }
        if (!vertices.append(nv)) return;
        if (withUndisplaced)
            for (int j = 0; j < 3; ++j) undisplaced.append(nv.pos[j]);
    }
    triangles.append(UTriangle{{v, v + 1, v + 3}});
    triangles.append(UTriangle{{v, v + 3, v + 2}});
}

}  // namespace vaporix
