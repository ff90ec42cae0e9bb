// OpenVDB files to cache frames and back: sparse trees to dense channels over the union of the
// mapped grids' active boxes, and dense channels to sparse trees, leaf by leaf on the job engine.
#include "openvdbio/OpenVDBIO.h"

#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "abi/SideModuleAbi.h"
#include "cache/VaporixFrameData.h"
#include "foundation/MTJobs.h"
#include "foundation/log.h"
#include "foundation/sys/Files.h"

namespace vaporix::openvdbio {

namespace {

using CacheIO::AvaiableChannels;
using CacheIO::GridMapping;
using openvdb::Coord;
using openvdb::CoordBBox;

constexpr int STATUS_READ_FAILED = sidemodule::VDB_READ_FAILED;
constexpr int STATUS_OUT_OF_MEMORY = sidemodule::VDB_OUT_OF_MEMORY;

// Metadata of files this module writes: the dense box of the frame in index space, so that a
// frame comes back with its size even where its border cells hold the background.
const char* const DENSE_MIN = "vaporix_dense_min";
const char* const DENSE_MAX = "vaporix_dense_max";

int64_t gMaxCells = sidemodule::MAX_IMPORT_CELLS;

void initializeOnce() {
    static std::once_flag once;
    std::call_once(once, [] { openvdb::initialize(); });
}

/// Thrown inside the reader; turned into a status by its handler.
struct ReadError {
    int status;
};

[[noreturn]] void fail(const char* what) {
    lumoLog("OpenVDB read failed: %s\n", what);
    throw ReadError{STATUS_READ_FAILED};
}

enum class Kind { Float, Double, Vec3s, Vec3d, Other };

Kind kindOf(const openvdb::GridBase& grid) {
    if (grid.isType<openvdb::FloatGrid>()) return Kind::Float;
    if (grid.isType<openvdb::DoubleGrid>()) return Kind::Double;
    if (grid.isType<openvdb::Vec3SGrid>()) return Kind::Vec3s;
    if (grid.isType<openvdb::Vec3DGrid>()) return Kind::Vec3d;
    return Kind::Other;
}

bool isVector(Kind k) { return k == Kind::Vec3s || k == Kind::Vec3d; }

/// One grid of the file as its metadata tells.
struct GridInfo {
    std::string name;
    Kind kind = Kind::Other;
    openvdb::GridBase::Ptr meta;  // metadata and transform, no tree
    openvdb::GridBase::Ptr grid;  // the tree, read when needed
};

std::vector<GridInfo> readGridInfos(openvdb::io::File& file) {
    std::vector<GridInfo> out;
    openvdb::GridPtrVecPtr metas = file.readAllGridMetadata();
    if (!metas) return out;
    for (const auto& m : *metas) {
        if (!m) continue;
        // A name is read by name: a later grid of the same name can't be reached, so only the
        // first one counts (the same one OpenVDB's readGrid returns).
        bool seen = false;
        for (const GridInfo& have : out)
            if (have.name == m->getName()) seen = true;
        if (seen) continue;
        GridInfo info;
        info.name = m->getName();
        info.kind = kindOf(*m);
        info.meta = m;
        out.push_back(std::move(info));
    }
    return out;
}

/// What fills one channel: a grid and a component of it.
struct Target {
    int grid;
    int component;
    int channel;
    float scale;
};

/// The grid and component a mapped name stands for: a scalar grid of that name, else a vector
/// grid G for "G.x" or "G(x)" (either case of the letter).
bool findChannel(const std::vector<GridInfo>& grids, const std::string& name, Target& t) {
    for (size_t i = 0; i < grids.size(); ++i)
        if (grids[i].name == name && !isVector(grids[i].kind) && grids[i].kind != Kind::Other) {
            t.grid = static_cast<int>(i);
            t.component = 0;
            return true;
        }
    for (size_t i = 0; i < grids.size(); ++i) {
        const GridInfo& g = grids[i];
        if (!isVector(g.kind) || name.size() < g.name.size() + 2) continue;
        if (name.compare(0, g.name.size(), g.name) != 0) continue;
        const std::string rest = name.substr(g.name.size());
        char letter = 0;
        if (rest.size() == 2 && rest[0] == '.')
            letter = rest[1];
        else if (rest.size() == 3 && rest[0] == '(' && rest[2] == ')')
            letter = rest[1];
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        if (letter < 'x' || letter > 'z') continue;
        t.grid = static_cast<int>(i);
        t.component = letter - 'x';
        return true;
    }
    for (const GridInfo& g : grids)
        if (g.name == name && g.kind == Kind::Other)
            lumoLog("OpenVDB grid %s skipped: values of type %s are not read\n", name.c_str(),
                    g.meta->valueType().c_str());
    return false;
}

bool sameTransform(const openvdb::GridBase& a, const openvdb::GridBase& b) {
    return a.transform() == b.transform();
}

/// The index-space box a grid's metadata declares: the dense box of our own files, else the
/// active box the writer recorded. False when it declares none.
bool declaredBox(const openvdb::GridBase& meta, CoordBBox& box, bool activeToo) {
    using openvdb::Vec3IMetadata;
    auto dmin = meta.getMetadata<Vec3IMetadata>(DENSE_MIN);
    auto dmax = meta.getMetadata<Vec3IMetadata>(DENSE_MAX);
    CoordBBox out;
    bool any = false;
    if (dmin && dmax) {
        out = CoordBBox(Coord(dmin->value()), Coord(dmax->value()));
        any = !out.empty();
    }
    if (activeToo) {
        auto amin = meta.getMetadata<Vec3IMetadata>(openvdb::GridBase::META_FILE_BBOX_MIN);
        auto amax = meta.getMetadata<Vec3IMetadata>(openvdb::GridBase::META_FILE_BBOX_MAX);
        if (amin && amax) {
            const CoordBBox active(Coord(amin->value()), Coord(amax->value()));
            if (!active.empty()) {
                if (any)
                    out.expand(active);
                else
                    out = active;
                any = true;
            }
        }
    }
    if (any) box = out;
    return any;
}

/// gridTransform from the index-to-world matrix: grid = (index - boxMin) / step + 0.5.
bool worldToGrid(const openvdb::math::Transform& xf,
                 const Coord& boxMin,
                 int step,
                 GridTransform& out) {
    if (!xf.isLinear()) return false;
    const openvdb::Mat4d m = xf.baseMap()->getAffineMap()->getMat4();
    if (m(0, 3) != 0.0 || m(1, 3) != 0.0 || m(2, 3) != 0.0 || m(3, 3) != 1.0) return false;
    double a[3][3], t[3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) a[r][c] = m(r, c);
    for (int c = 0; c < 3; ++c) t[c] = m(3, c);
    const double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                       a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                       a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    if (!std::isfinite(det) || det == 0.0) return false;
    double inv[3][3];
    inv[0][0] = (a[1][1] * a[2][2] - a[1][2] * a[2][1]) / det;
    inv[0][1] = (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det;
    inv[0][2] = (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det;
    inv[1][0] = (a[1][2] * a[2][0] - a[1][0] * a[2][2]) / det;
    inv[1][1] = (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det;
    inv[1][2] = (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det;
    inv[2][0] = (a[1][0] * a[2][1] - a[1][1] * a[2][0]) / det;
    inv[2][1] = (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det;
    inv[2][2] = (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det;
    double largest = 0.0;
    for (auto& row : inv)
        for (double v : row) largest = std::max(largest, std::fabs(v));
    // A matrix that went through float32 and back through a double inverse keeps its zeros only
    // to rounding: entries that small against the others are zeros.
    const double zero = largest * 1e-12;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            const double v = std::fabs(inv[r][c]) < zero ? 0.0 : inv[r][c];
            out.m[r * 3 + c] = static_cast<float>(v / step);
        }
    for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (int k = 0; k < 3; ++k) s -= t[k] * inv[k][c];
        double v = (s - boxMin[c]) / step + 0.5;
        if (std::fabs(v) < 1e-9) v = 0.0;
        out.m[9 + c] = static_cast<float>(v);
    }
    for (float v : out.m)
        if (!std::isfinite(v)) return false;
    return true;
}

/// The frame being filled: box, step and the channel arrays of one grid.
struct DenseTarget {
    Coord boxMin;
    int64_t size[3];
    int step;
    float* out[3] = {nullptr, nullptr, nullptr};
    float scale[3] = {1, 1, 1};

    /// Index of voxel ijk in the frame, or -1 when it is off the box or between samples.
    int64_t cellOf(const Coord& ijk) const {
        int64_t g[3];
        if (step == 1) {
            for (int a = 0; a < 3; ++a) {
                g[a] = static_cast<int64_t>(ijk[a]) - boxMin[a];
                if (g[a] < 0 || g[a] >= size[a]) return -1;
            }
            return g[0] + size[0] * (g[1] + size[1] * g[2]);
        }
        for (int a = 0; a < 3; ++a) {
            const int64_t d = static_cast<int64_t>(ijk[a]) - boxMin[a];
            if (d < 0 || d % step != 0) return -1;
            g[a] = d / step;
            if (g[a] >= size[a]) return -1;
        }
        return g[0] + size[0] * (g[1] + size[1] * g[2]);
    }
};

template <typename T>
float componentOf(const T& v, int) {
    return static_cast<float>(v);
}
template <typename T>
float componentOf(const openvdb::math::Vec3<T>& v, int c) {
    return static_cast<float>(v[c]);
}

/// Background everywhere, then the active voxels leaf by leaf (disjoint cells, so the result
/// does not depend on the thread count), then active tiles clipped to the box.
template <typename GridT>
void fillDense(const GridT& grid, const DenseTarget& d, MTFunction& engine) {
    using TreeT = typename GridT::TreeType;
    using LeafT = typename TreeT::LeafNodeType;
    const TreeT& tree = grid.tree();
    const int64_t cells = d.size[0] * d.size[1] * d.size[2];
    const auto background = tree.background();

    engine.forRange(static_cast<uint64_t>(cells), [&](uint64_t first, uint64_t last, Job&) {
        for (int c = 0; c < 3; ++c)
            if (d.out[c])
                std::fill(d.out[c] + first, d.out[c] + last,
                          componentOf(background, c) * d.scale[c]);
    });

    std::vector<const LeafT*> leaves;
    leaves.reserve(tree.leafCount());
    tree.getNodes(leaves);
    engine.forRange(leaves.size(), [&](uint64_t first, uint64_t last, Job&) {
        for (uint64_t i = first; i < last; ++i) {
            for (auto it = leaves[i]->cbeginValueOn(); it; ++it) {
                const int64_t cell = d.cellOf(it.getCoord());
                if (cell < 0) continue;
                for (int c = 0; c < 3; ++c)
                    if (d.out[c]) d.out[c][cell] = componentOf(*it, c) * d.scale[c];
            }
        }
    });

    // Active tiles above the leaves: rare in caches, written on this thread.
    typename TreeT::ValueOnCIter tiles = tree.cbeginValueOn();
    tiles.setMaxDepth(TreeT::ValueOnCIter::LEAF_DEPTH - 1);
    const CoordBBox frameBox(
        d.boxMin, d.boxMin + Coord(static_cast<int>((d.size[0] - 1) * d.step),
                                   static_cast<int>((d.size[1] - 1) * d.step),
                                   static_cast<int>((d.size[2] - 1) * d.step)));
    for (; tiles; ++tiles) {
        if (tiles.isVoxelValue()) continue;
        CoordBBox box;
        tiles.getBoundingBox(box);
        box.intersect(frameBox);
        if (box.empty()) continue;
        // Only the voxels that are samples of the frame: the first at or after the tile's
        // corner on each axis, then every step-th.
        int64_t first[3];
        for (int a = 0; a < 3; ++a) {
            const int64_t offset = static_cast<int64_t>(box.min()[a]) - d.boxMin[a];
            first[a] = d.boxMin[a] + (offset + d.step - 1) / d.step * d.step;
        }
        for (int64_t z = first[2]; z <= box.max().z(); z += d.step)
            for (int64_t y = first[1]; y <= box.max().y(); y += d.step)
                for (int64_t x = first[0]; x <= box.max().x(); x += d.step) {
                    const int64_t cell = d.cellOf(Coord(static_cast<int>(x), static_cast<int>(y),
                                                        static_cast<int>(z)));
                    if (cell < 0) continue;
                    for (int c = 0; c < 3; ++c)
                        if (d.out[c]) d.out[c][cell] = componentOf(*tiles, c) * d.scale[c];
                }
    }
}

void fillGrid(const openvdb::GridBase& grid, Kind kind, const DenseTarget& d, MTFunction& engine) {
    switch (kind) {
        case Kind::Float:
            fillDense(static_cast<const openvdb::FloatGrid&>(grid), d, engine);
            break;
        case Kind::Double:
            fillDense(static_cast<const openvdb::DoubleGrid&>(grid), d, engine);
            break;
        case Kind::Vec3s:
            fillDense(static_cast<const openvdb::Vec3SGrid&>(grid), d, engine);
            break;
        case Kind::Vec3d:
            fillDense(static_cast<const openvdb::Vec3DGrid&>(grid), d, engine);
            break;
        case Kind::Other:
            break;
    }
}

int readFrame(const char* path,
              VaporixFrameData& frame,
              bool headerOnly,
              const GridMapping* mappings,
              int count,
              LUtils::ThreadManager* threads) {
    if (!sys::isFile(path)) return LOAD_NO_FILE;
    initializeOnce();
    openvdb::io::File file(path);
    try {
        file.open(false);
    } catch (const openvdb::Exception& e) {
        lumoLog("OpenVDB read failed: %s\n", e.what());
        throw ReadError{STATUS_READ_FAILED};
    }
    std::vector<GridInfo> grids = readGridInfos(file);

    // The grids the mappings name, on the transform of the first of them.
    std::vector<Target> targets;
    for (int i = 0; i < count; ++i) {
        const int channel = mappings[i].channel;
        if (channel < 0 || channel >= CHANNEL_COUNT || channel == CH_PACKED_RGB) continue;
        Target t{};
        if (!findChannel(grids, mappings[i].name, t)) continue;
        t.channel = channel;
        t.scale = mappings[i].scale;
        const openvdb::GridBase& meta = *grids[t.grid].meta;
        if (!meta.transform().isLinear()) {
            lumoLog("OpenVDB grid %s skipped: its transform is not linear\n", meta.getName().c_str());
            continue;
        }
        if (!targets.empty() && !sameTransform(*grids[targets[0].grid].meta, meta)) {
            lumoLog("OpenVDB grid %s skipped: its transform differs from the first grid's\n",
                    meta.getName().c_str());
            continue;
        }
        targets.push_back(t);
    }
    if (targets.empty()) fail("none of the mapped grids is in the file");

    // The box: active boxes of the trees (or of the metadata for a header), dense boxes declared.
    CoordBBox box;
    bool hasBox = false;
    for (const Target& t : targets) {
        GridInfo& g = grids[t.grid];
        CoordBBox b;
        bool any = false;
        if (headerOnly) {
            any = declaredBox(*g.meta, b, true);
        } else {
            if (!g.grid) {
                g.grid = file.readGrid(g.name);
                if (!g.grid) fail("a grid can't be read");
                if (kindOf(*g.grid) != g.kind) fail("a grid's type differs from its metadata");
            }
            b = g.grid->evalActiveVoxelBoundingBox();
            any = !b.empty();
            CoordBBox dense;
            if (declaredBox(*g.meta, dense, false)) {
                if (any)
                    b.expand(dense);
                else
                    b = dense;
                any = true;
            }
        }
        if (!any) continue;
        if (hasBox)
            box.expand(b);
        else
            box = b;
        hasBox = true;
    }
    // Empty grids (the first frames of many simulations): one cell of background.
    if (!hasBox) box = CoordBBox(Coord(0), Coord(0));

    // Downsampling: the smallest whole step that brings the cell count under the limit.
    const int64_t full[3] = {static_cast<int64_t>(box.max().x()) - box.min().x() + 1,
                             static_cast<int64_t>(box.max().y()) - box.min().y() + 1,
                             static_cast<int64_t>(box.max().z()) - box.min().z() + 1};
    int64_t size[3];
    const double fullCells = static_cast<double>(full[0]) * full[1] * full[2];
    // Start just below the step that the cube root suggests, then take the first that fits.
    int step = std::max(1, static_cast<int>(std::cbrt(fullCells / static_cast<double>(gMaxCells))) - 1);
    for (;;) {
        double cells = 1.0;
        for (int a = 0; a < 3; ++a) {
            size[a] = (full[a] + step - 1) / step;
            cells *= static_cast<double>(size[a]);
        }
        if (cells <= static_cast<double>(gMaxCells)) break;
        if (step >= (1 << 20)) fail("the grid is too big");
        ++step;
    }
    if (step > 1) frame.frameFlags |= FRAME_DOWNSAMPLED;
    for (int a = 0; a < 3; ++a) frame.gridSize[a] = static_cast<int32_t>(size[a]);
    if (!worldToGrid(grids[targets[0].grid].meta->transform(), box.min(), step,
                     frame.gridTransform))
        fail("the transform can't be inverted");
    for (const Target& t : targets) frame.channelMask |= 1u << t.channel;
    if (headerOnly) return LOAD_OK;

    // The channels, grid by grid.
    const int64_t cells = size[0] * size[1] * size[2];
    MTFunction engine(threads);
    std::vector<bool> done(targets.size(), false);
    for (size_t i = 0; i < targets.size(); ++i) {
        if (done[i]) continue;
        DenseTarget d;
        d.boxMin = box.min();
        d.step = step;
        std::copy(size, size + 3, d.size);
        for (size_t j = i; j < targets.size(); ++j) {
            if (targets[j].grid != targets[i].grid) continue;
            done[j] = true;
            const Target& t = targets[j];
            auto* out = static_cast<float*>(
                internal::arrayAllocate(static_cast<size_t>(cells + 4) * sizeof(float)));
            if (!out) throw ReadError{STATUS_OUT_OF_MEMORY};
            std::fill(out + cells, out + cells + 4, 0.0f);
            internal::arrayRelease(frame.channels[t.channel]);
            frame.channels[t.channel] = out;
            // Two mappings of one component: the later one fills its own channel from a copy.
            if (d.out[t.component]) {
                DenseTarget again = d;
                std::fill(again.out, again.out + 3, nullptr);
                again.out[t.component] = out;
                again.scale[t.component] = t.scale;
                fillGrid(*grids[t.grid].grid, grids[t.grid].kind, again, engine);
                continue;
            }
            d.out[t.component] = out;
            d.scale[t.component] = t.scale;
        }
        fillGrid(*grids[targets[i].grid].grid, grids[targets[i].grid].kind, d, engine);
        grids[targets[i].grid].grid.reset();
    }
    return LOAD_OK;
}

// ---------------------------------------------------------------------------------------------
// Writing

/// Whether a value must stay active: farther than `tolerance` from the background; with
/// tolerance 0, any other bit pattern (so -0 and NaN survive a round trip).
inline bool keep(float v, float background, float tolerance) {
    if (tolerance <= 0.0f) {
        uint32_t a, b;
        std::memcpy(&a, &v, 4);
        std::memcpy(&b, &background, 4);
        return a != b;
    }
    return !(std::fabs(v - background) <= tolerance);
}

/// Builds a tree from dense channels, one leaf per 8^3 block that holds a value to keep. Blocks
/// are built in parallel into their own slots and added in block order.
template <typename GridT, int N>
typename GridT::Ptr denseToGrid(const float* const* channels,
                                const int size[3],
                                float tolerance,
                                MTFunction& engine) {
    using TreeT = typename GridT::TreeType;
    using LeafT = typename TreeT::LeafNodeType;
    using ValueT = typename GridT::ValueType;
    constexpr int DIM = LeafT::DIM;
    auto grid = GridT::create(ValueT(0));
    const int blocks[3] = {(size[0] + DIM - 1) / DIM, (size[1] + DIM - 1) / DIM,
                           (size[2] + DIM - 1) / DIM};
    const uint64_t total = static_cast<uint64_t>(blocks[0]) * blocks[1] * blocks[2];
    std::vector<LeafT*> leaves(total, nullptr);
    std::atomic<bool> outOfMemory{false};
    engine.forRange(total, [&](uint64_t first, uint64_t last, Job&) {
        for (uint64_t b = first; b < last; ++b) {
            const int bx = static_cast<int>(b % blocks[0]);
            const int by = static_cast<int>((b / blocks[0]) % blocks[1]);
            const int bz = static_cast<int>(b / (static_cast<uint64_t>(blocks[0]) * blocks[1]));
            const Coord origin(bx * DIM, by * DIM, bz * DIM);
            LeafT* leaf = nullptr;
            for (int z = origin.z(); z < std::min(origin.z() + DIM, size[2]); ++z)
                for (int y = origin.y(); y < std::min(origin.y() + DIM, size[1]); ++y)
                    for (int x = origin.x(); x < std::min(origin.x() + DIM, size[0]); ++x) {
                        const int64_t cell = x + static_cast<int64_t>(size[0]) *
                                                     (y + static_cast<int64_t>(size[1]) * z);
                        bool active = false;
                        float v[N];
                        for (int c = 0; c < N; ++c) {
                            v[c] = channels[c] ? channels[c][cell] : 0.0f;
                            if (keep(v[c], 0.0f, tolerance)) active = true;
                        }
                        if (!active) continue;
                        if (!leaf) {
                            leaf = new (std::nothrow) LeafT(origin, ValueT(0), false);
                            if (!leaf) {
                                outOfMemory = true;
                                return;
                            }
                        }
                        ValueT value;
                        if constexpr (N == 1)
                            value = v[0];
                        else
                            value = ValueT(v[0], v[1], v[2]);
                        leaf->setValueOn(Coord(x, y, z), value);
                    }
            leaves[b] = leaf;
        }
    });
    if (outOfMemory) {
        for (LeafT* l : leaves) delete l;
        throw std::bad_alloc();
    }
    for (LeafT* l : leaves)
        if (l) grid->tree().addLeaf(l);
    return grid;
}

/// The index-to-world transform of a frame: index i is grid coordinate i + 0.5.
openvdb::math::Transform::Ptr frameTransform(const GridTransform& worldToGrid) {
    const float* g = worldToGrid.m;
    double a[3][3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) a[r][c] = g[r * 3 + c];
    const double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                       a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                       a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    if (!std::isfinite(det) || det == 0.0) return nullptr;
    double b[3][3];
    b[0][0] = (a[1][1] * a[2][2] - a[1][2] * a[2][1]) / det;
    b[0][1] = (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det;
    b[0][2] = (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det;
    b[1][0] = (a[1][2] * a[2][0] - a[1][0] * a[2][2]) / det;
    b[1][1] = (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det;
    b[1][2] = (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det;
    b[2][0] = (a[1][0] * a[2][1] - a[1][1] * a[2][0]) / det;
    b[2][1] = (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det;
    b[2][2] = (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det;
    openvdb::Mat4d m = openvdb::Mat4d::identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) m(r, c) = b[r][c];
    // world = (index + 0.5 - offset) * B
    for (int c = 0; c < 3; ++c) {
        double s = 0.0;
        for (int k = 0; k < 3; ++k) s += (0.5 - static_cast<double>(g[9 + k])) * b[k][c];
        m(3, c) = s;
    }
    return openvdb::math::Transform::createLinearTransform(m);
}

}  // namespace

void setMaxCellsForTesting(int64_t cells) {
    gMaxCells = cells > 0 ? cells : sidemodule::MAX_IMPORT_CELLS;
}

void listChannels(const char* path, iArray<AvaiableChannels>& out) {
    if (!path || !sys::isFile(path)) return;
    try {
        initializeOnce();
        openvdb::io::File file(path);
        file.open(false);
        auto add = [&](const std::string& name, uint8_t kind) {
            for (const auto& have : out)
                if (have.name == name) return;
            AvaiableChannels ch;
            ch.name = iString(name);
            ch.kind = kind;
            out.append(ch);
        };
        for (const GridInfo& g : readGridInfos(file)) {
            if (g.kind == Kind::Float || g.kind == Kind::Double)
                add(g.name, CacheIO::KIND_SCALAR);
            else if (isVector(g.kind))
                for (const char* axis : {".x", ".y", ".z"})
                    add(g.name + axis, CacheIO::KIND_VECTOR_COMPONENT);
        }
    } catch (const std::exception& e) {
        lumoLog("OpenVDB channels of %s not read: %s\n", path, e.what());
    }
}

int importFrame(const char* path,
                VaporixFrameData& frame,
                bool headerOnly,
                const GridMapping* mappings,
                int count,
                LUtils::ThreadManager* threads) {
    if (!path || !*path) return LOAD_NO_FILE;
    int status;
    try {
        status = readFrame(path, frame, headerOnly, mappings, count, threads);
    } catch (const ReadError& e) {
        status = e.status;
    } catch (const std::bad_alloc&) {
        lumoLog("OpenVDB read failed: out of memory\n");
        status = STATUS_OUT_OF_MEMORY;
    } catch (const std::length_error&) {
        status = STATUS_OUT_OF_MEMORY;
    } catch (const std::exception& e) {
        lumoLog("OpenVDB read failed: %s\n", e.what());
        status = STATUS_READ_FAILED;
    }
    if (status != LOAD_OK) {
        for (auto*& c : frame.channels) {
            internal::arrayRelease(c);
            c = nullptr;
        }
        frame.channelMask = 0;
        frame.frameFlags &= static_cast<uint8_t>(~FRAME_DOWNSAMPLED);
        frame.gridSize[0] = frame.gridSize[1] = frame.gridSize[2] = 0;
    }
    return status;
}

int exportFrame(const char* path,
                const VaporixFrameData& frame,
                float tolerance,
                std::string& error,
                LUtils::ThreadManager* threads) {
    if (!path || !*path) {
        error = "no output file";
        return SAVE_FAILED;
    }
    const std::string target(path);
    const std::string temp = target + ".part";
    try {
        initializeOnce();
        const int size[3] = {frame.gridSize[0], frame.gridSize[1], frame.gridSize[2]};
        if (size[0] <= 0 || size[1] <= 0 || size[2] <= 0) {
            error = "the frame has no grid";
            return SAVE_FAILED;
        }
        openvdb::math::Transform::Ptr xf = frameTransform(frame.gridTransform);
        if (!xf) {
            error = "the frame's transform can't be inverted";
            return SAVE_FAILED;
        }
        if (!(tolerance >= 0.0f)) tolerance = 0.0f;
        MTFunction engine(threads);
        openvdb::GridPtrVec grids;
        auto finish = [&](openvdb::GridBase::Ptr g, const char* name, openvdb::GridClass cls) {
            g->setName(name);
            g->setTransform(xf->copy());
            g->setGridClass(cls);
            g->insertMeta(DENSE_MIN, openvdb::Vec3IMetadata(openvdb::Vec3i(0, 0, 0)));
            g->insertMeta(DENSE_MAX, openvdb::Vec3IMetadata(
                                         openvdb::Vec3i(size[0] - 1, size[1] - 1, size[2] - 1)));
            grids.push_back(g);
        };
        const struct {
            int channel;
            const char* name;
            openvdb::GridClass cls;
        } scalars[] = {{CH_SMOKE, "density", openvdb::GRID_FOG_VOLUME},
                       {CH_TEMPERATURE, "temperature", openvdb::GRID_UNKNOWN},
                       {CH_FUEL, "fuel", openvdb::GRID_UNKNOWN}};
        for (const auto& s : scalars) {
            if (!frame.channels[s.channel]) continue;
            const float* ch[1] = {frame.channels[s.channel]};
            finish(denseToGrid<openvdb::FloatGrid, 1>(ch, size, tolerance, engine), s.name, s.cls);
        }
        const struct {
            int first;
            const char* name;
        } vectors[] = {{CH_VELOCITY_X, "vel"}, {CH_RED, "Cd"}};
        for (const auto& v : vectors) {
            const float* ch[3] = {frame.channels[v.first], frame.channels[v.first + 1],
                                  frame.channels[v.first + 2]};
            if (!ch[0] || !ch[1] || !ch[2]) continue;
            auto g = denseToGrid<openvdb::Vec3SGrid, 3>(ch, size, tolerance, engine);
            if (v.first == CH_VELOCITY_X) g->setVectorType(openvdb::VEC_CONTRAVARIANT_RELATIVE);
            finish(g, v.name, openvdb::GRID_UNKNOWN);
        }
        if (grids.empty()) {
            error = "the frame has none of the channels written to OpenVDB";
            return SAVE_FAILED;
        }
        {
            openvdb::io::File out(temp);
            out.write(grids);
            out.close();
        }
        if (std::rename(temp.c_str(), target.c_str()) != 0) {
            std::remove(temp.c_str());
            error = "can't rename the written file to " + target;
            return SAVE_FAILED;
        }
        return 0;
    } catch (const std::bad_alloc&) {
        error = "out of memory";
    } catch (const std::exception& e) {
        error = e.what();
    }
    std::remove(temp.c_str());
    return SAVE_FAILED;
}

}  // namespace vaporix::openvdbio
