// Displacement: classification of the cells against the surface level, the band of normals and
// offsets around the surface, their smoothing in the cosine spectrum, the resampling of the
// arguments at displaced points, and the offset of a sample at render time.
#include "render/Displacement.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "foundation/MTJobs.h"
#include "foundation/log.h"
#include "render/VolumeShader.h"

namespace vaporix {

std::atomic<uint32_t> Displacement::failAllocations{0};

namespace {

/// Cancel tests run every this many cells.
constexpr uint64_t CANCEL_EVERY = 10000;
/// Width of the Lorentzian of the render-time road, in cells.
constexpr float LORENTZ_SIGMA = 2.0f;

template <typename T>
std::unique_ptr<T[]> allocScratch(uint64_t count, uint32_t which) {
    if (Displacement::failAllocations.load(std::memory_order_relaxed) & which) return nullptr;
    if (count == 0 || count > (uint64_t(1) << 38)) return nullptr;
    return std::unique_ptr<T[]>(new (std::nothrow) T[static_cast<size_t>(count)]);
}

/// Directions: +x, +y, +z, -x, -y, -z.
constexpr int DIR[6][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {-1, 0, 0}, {0, -1, 0}, {0, 0, -1}};

inline void normalise(float v[3]) {
    const float m = std::max({std::fabs(v[0]), std::fabs(v[1]), std::fabs(v[2])});
    const float len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    // A vector is normalised only when its length is not negligible against its components.
    if (1e18f * len > m && len > 0.0f)
        for (int a = 0; a < 3; ++a) v[a] /= len;
}

/// Mean of a texture's colour at a grid point.
inline float textureLength(const VolumeShader& shader, int kind, const float p[3]) {
    const float none[3] = {0.0f, 0.0f, 0.0f};
    float rgb[3];
    shader.EvalTexture(rgb, kind, none, p);
    const float sum = rgb[0] + rgb[1] + rgb[2];
    return std::isfinite(sum) ? sum : 0.0f;
}

/// The surface argument of a cell: the surface texture's mean, or the channel remapped.
inline float surfaceAt(const VolumeShader& shader, int x, int y, int z, int64_t index) {
    if (shader.flags & VolumeShader::surfaceFromTexture) {
        const float p[3] = {float(x), float(y), float(z)};
        return textureLength(shader, 3, p) / 3.0f * shader.remapScale[3] + shader.remapOffset[3];
    }
    const float* ch = shader.channel[3];
    return ch ? ch[index] * shader.remapScale[3] + shader.remapOffset[3] : 0.0f;
}

}  // namespace

void Displacement::release() {
    mOffset.reset();
    mNormal.reset();
    mChannels.reset();
    mSize[0] = mSize[1] = mSize[2] = 0;
}

bool Displacement::aborted() {
    if (mCancelled.load(std::memory_order_relaxed)) return true;
    if (progress && progress->checkAbort()) mCancelled.store(true);
    return mCancelled.load();
}

int Displacement::PrepareDisplacement(VolumeShader& shader, bool preview) {
    (void)preview;
    mCancelled.store(false);
    shader.flags &= ~VolumeShader::hasDisplacement;
    // The two resampling levels move the arguments themselves; the surface texture replaces
    // the surface those levels follow, so they don't run with one.
    if (!shader.HasTexture(3)) {
        for (int level : {4, 5}) {
            if (!shader.HasTexture(level)) continue;
            BuildDisplacement(shader, level, false, false);
            if (mCancelled) {
                release();
                return 1;
            }
        }
    }
    if (shader.HasTexture(6) && BuildDisplacement(shader, 6, true, false) == 1) {
        shader.flags |= VolumeShader::hasDisplacement;
    } else {
        mOffset.reset();
        mNormal.reset();
    }
    if (mCancelled) {
        release();
        return 1;
    }
    return 0;
}

bool Displacement::smooth(float* field, int components, bool surfaceOnly, const int n[3]) {
    const int64_t stride[3] = {components, int64_t(components) * n[0],
                               int64_t(components) * n[0] * n[1]};
    for (int c = 0; c < components; ++c) {
        if (failAllocations.load() & DS_SCRATCH_SPECTRUM) return false;
        if (!mSpectrum.load(field + c, n, stride)) return false;
        if (!mSpectrum.forward(threads, progress)) return false;
        if (surfaceOnly)
            mSpectrum.filterLorentzian(LORENTZ_SIGMA);
        else
            mSpectrum.filterRadial(radialLowPassTable());
        if (!mSpectrum.inverse(field + c, n, stride, threads, progress)) return false;
    }
    return true;
}

bool Displacement::smoothOrCancel(float* field, int components, bool surfaceOnly, const int n[3]) {
    if (smooth(field, components, surfaceOnly, n)) return true;
    if (progress && progress->checkAbort()) mCancelled.store(true);
    return false;
}

int Displacement::BuildDisplacement(VolumeShader& shader, int level, bool surfaceOnly, bool quiet) {
    ProgressCallback* const saved = progress;
    if (quiet) progress = nullptr;  // no cancel hook
    struct Restore {
        Displacement& d;
        ProgressCallback* p;
        ~Restore() { d.progress = p; }
    } restore{*this, saved};

    const int mode = shader.displaceMode;
    int n[3];
    for (int a = 0; a < 3; ++a) n[a] = shader.gridSize[a];
    if (n[0] <= 0 || n[1] <= 0 || n[2] <= 0) return 0;
    const uint64_t cells = uint64_t(n[0]) * uint64_t(n[1]) * uint64_t(n[2]);
    std::memcpy(mSize, n, sizeof n);

    if (mode != 1) {
        // Gradient driven: no field of its own; vector and advection read the texture itself.
        if (mode == 0) {
            mOffset.reset();
            mNormal.reset();
        }
        if (mode < 0 || mode > 3) return 0;
        if (surfaceOnly) return 1;
        return ResampleDisplaced(shader, level) ? 1 : 0;
    }

    auto say = [&](int pass) {
        if (progress)
            progress->info(0, 0, "Calculating displacement (level %d), pass %d", level - 4, pass);
    };
    MTFunction engine(nullptr, threads);
    const int64_t nx = n[0], nxy = nx * n[1];
    const float surfaceLevel = shader.surfaceLevel;

    // Pass 1: classify the cells against the surface level.
    say(1);
    std::unique_ptr<SurfaceCell[]> cell = allocScratch<SurfaceCell>(cells, DS_SCRATCH_CELLS);
    std::unique_ptr<float[]> values = allocScratch<float>(cells, DS_SCRATCH_VALUES);
    if (!cell || !values) {
        lumoLog("BuildDisplacement: not enough memory for %.0f cells\n", double(cells));
        return 0;
    }
    std::atomic<uint64_t> insideCount{0};
    auto forCells = [&](auto&& body) {
        return engine.forRange(
                   cells,
                   [&](uint64_t first, uint64_t last, Job&) {
                       uint64_t since = 0;
                       for (uint64_t i = first; i < last; ++i) {
                           const int x = static_cast<int>(i % uint64_t(nx));
                           const int y = static_cast<int>((i / uint64_t(nx)) % uint64_t(n[1]));
                           const int z = static_cast<int>(i / uint64_t(nxy));
                           body(x, y, z, static_cast<int64_t>(i));
                           if (++since == CANCEL_EVERY) {
                               since = 0;
                               if (aborted()) return;
                           }
                       }
                   },
                   progress) &&
               !mCancelled;
    };
    if (!forCells([&](int x, int y, int z, int64_t i) {
            values[i] = surfaceAt(shader, x, y, z, i);
        }))
        return 0;
    if (!forCells([&](int x, int y, int z, int64_t i) {
            SurfaceCell& c = cell[i];
            c = SurfaceCell{};
            const int at[3] = {x, y, z};
            for (int a = 0; a < 3; ++a) {
                if (at[a] == 0) c.border |= uint8_t(1u << a);
                if (at[a] == n[a] - 1) c.border |= uint8_t(1u << (a + 3));
            }
            c.inside = values[i] > surfaceLevel ? 1 : 0;
            if (c.inside) insideCount.fetch_add(1, std::memory_order_relaxed);
            // A link is cleared toward every neighbour that is inside.
            c.insideLinks = 0x3f;
            for (int d = 0; d < 6; ++d) {
                const int q[3] = {x + DIR[d][0], y + DIR[d][1], z + DIR[d][2]};
                if (q[0] < 0 || q[1] < 0 || q[2] < 0 || q[0] >= n[0] || q[1] >= n[1] ||
                    q[2] >= n[2])
                    continue;
                if (values[q[0] + nx * q[1] + nxy * q[2]] > surfaceLevel)
                    c.insideLinks &= uint8_t(~(1u << d));
            }
        }))
        return 0;
    if (insideCount.load() == 0) return 0;

    // Pass 2: the band of cells where inside meets outside.
    say(2);
    mOffset = allocScratch<float>(cells * 3, DS_SCRATCH_OFFSETS);
    mNormal = allocScratch<float>(cells * 3, DS_SCRATCH_OFFSETS);
    if (!mOffset || !mNormal) {
        mOffset.reset();
        mNormal.reset();
        return 0;
    }
    std::fill(mOffset.get(), mOffset.get() + cells * 3, 0.0f);
    std::fill(mNormal.get(), mNormal.get() + cells * 3, 0.0f);
    if (!forCells([&](int, int, int, int64_t i) {
            SurfaceCell& c = cell[i];
            // The neighbours of the other side: all links set inside, some cleared outside.
            const uint8_t other = c.inside ? c.insideLinks : uint8_t(~c.insideLinks & 0x3f);
            uint8_t present = 0x3f;
            for (int a = 0; a < 3; ++a) {
                if (c.border & (1u << a)) present &= uint8_t(~(1u << (a + 3)));
                if (c.border & (1u << (a + 3))) present &= uint8_t(~(1u << a));
            }
            if (!(other & present)) return;
            const float v = values[i];
            float weight = 0.0f, grad[3] = {0.0f, 0.0f, 0.0f};
            for (int d = 0; d < 6; ++d) {
                // Neighbours past the grid's faces count as the cell itself.
                const float w = (present >> d) & 1
                                    ? values[i + DIR[d][0] + nx * DIR[d][1] + nxy * DIR[d][2]]
                                    : v;
                if (((other & present) >> d) & 1 && v != w)
                    weight = std::max(weight, (v - surfaceLevel) / (v - w));
                const float sign = d < 3 ? 1.0f : -1.0f;
                grad[d % 3] += sign * w;
            }
            // The outward normal: values fall outward.
            float normal[3] = {-grad[0], -grad[1], -grad[2]};
            if (normal[0] == 0.0f && normal[1] == 0.0f && normal[2] == 0.0f) return;
            c.flags |= 1;
            c.weight = weight;
            normalise(normal);
            // The vector from the cell to the surface: inward from outside, outward from inside.
            const float toSurface = c.inside ? weight : -weight;
            for (int a = 0; a < 3; ++a) {
                c.normal[a] = normal[a];
                mNormal[3 * i + a] = normal[a] * weight;
                mOffset[3 * i + a] = normal[a] * toSurface * weight;
            }
        }))
        return 0;

    // Pass 3: smooth the normals and offsets in the spectrum.
    say(3);
    if (!smoothOrCancel(mNormal.get(), 3, surfaceOnly, n) ||
        !smoothOrCancel(mOffset.get(), 3, surfaceOnly, n)) {
        if (!mCancelled) lumoLog("BuildDisplacement: the spectrum failed\n");
        mOffset.reset();
        mNormal.reset();
        return 0;
    }

    // Pass 4: the weights go the same road; then each cell's vectors are divided by its weight.
    say(4);
    for (uint64_t i = 0; i < cells; ++i) values[i] = cell[i].weight;
    cell.reset();
    if (!smoothOrCancel(values.get(), 1, surfaceOnly, n) ||
        !forCells([&](int, int, int, int64_t i) {
            float* nn = mNormal.get() + 3 * i;
            float* o = mOffset.get() + 3 * i;
            const float w = values[i];
            if (!(w >= 1e-6f)) {
                nn[0] = nn[1] = nn[2] = 0.0f;
                o[0] = o[1] = o[2] = 0.0f;
                return;
            }
            for (int a = 0; a < 3; ++a) {
                nn[a] /= w;
                o[a] /= w;
            }
            normalise(nn);
        })) {
        mOffset.reset();
        mNormal.reset();
        return 0;
    }
    values.reset();

    if (!surfaceOnly && !ResampleDisplaced(shader, level)) return 0;
    return 1;
}

bool Displacement::ResampleDisplaced(VolumeShader& shader, int level) {
    int n[3];
    for (int a = 0; a < 3; ++a) n[a] = shader.gridSize[a];
    const uint64_t cells = uint64_t(n[0]) * uint64_t(n[1]) * uint64_t(n[2]);
    if (!cells) return false;
    // A new block: the arguments may come from the block of an earlier level.
    std::unique_ptr<float[]> block = allocScratch<float>(cells * 4, DS_SCRATCH_CHANNELS);
    if (!block) {
        lumoLog("ResampleDisplaced: not enough memory for %.0f cells\n", double(cells));
        return false;
    }
    const int mode = shader.displaceMode;
    const float mult = shader.displaceMult;
    const int64_t nx = n[0], nxy = nx * n[1];
    const float* offset = mOffset.get();
    const float* normal = mNormal.get();
    MTFunction engine(nullptr, threads);
    const bool done = engine.forRange(
        cells,
        [&](uint64_t first, uint64_t last, Job&) {
            uint64_t since = 0;
            for (uint64_t i = first; i < last; ++i) {
                const int x = static_cast<int>(i % uint64_t(nx));
                const int y = static_cast<int>((i / uint64_t(nx)) % uint64_t(n[1]));
                const int z = static_cast<int>(i / uint64_t(nxy));
                float p[3] = {float(x), float(y), float(z)};
                if (mode == 1 && normal) {
                    const float* nn = normal + 3 * i;
                    if (nn[0] != 0.0f || nn[1] != 0.0f || nn[2] != 0.0f) {
                        const float at[3] = {p[0] + offset[3 * i], p[1] + offset[3 * i + 1],
                                             p[2] + offset[3 * i + 2]};
                        const float len = mult / 3.0f * textureLength(shader, level, at);
                        for (int a = 0; a < 3; ++a) p[a] -= len * nn[a];
                    }
                } else if (mode == 0) {
                    // The outward direction from the neighbouring surface values.
                    float g[3];
                    const int at[3] = {x, y, z};
                    for (int a = 0; a < 3; ++a) {
                        int lo[3] = {x, y, z}, hi[3] = {x, y, z};
                        lo[a] = std::max(at[a] - 1, 0);
                        hi[a] = std::min(at[a] + 1, n[a] - 1);
                        g[a] = -(surfaceAt(shader, hi[0], hi[1], hi[2],
                                           hi[0] + nx * hi[1] + nxy * hi[2]) -
                                 surfaceAt(shader, lo[0], lo[1], lo[2],
                                           lo[0] + nx * lo[1] + nxy * lo[2]));
                    }
                    const float len2 = g[0] * g[0] + g[1] * g[1] + g[2] * g[2];
                    if (len2 > 0.0f && std::isfinite(len2)) {
                        normalise(g);
                        const float len = mult / 3.0f * textureLength(shader, level, p);
                        for (int a = 0; a < 3; ++a) p[a] -= len * g[a];
                    }
                } else if (mode == 2 || mode == 3) {
                    const float none[3] = {0.0f, 0.0f, 0.0f};
                    float rgb[3];
                    shader.EvalTexture(rgb, level, none, p);
                    for (int a = 0; a < 3; ++a)
                        if (std::isfinite(rgb[a])) p[a] -= mult * rgb[a];
                }
                VolumeSample s;
                shader.sample(s, p, 0xfu | SAMPLE_RAW | SAMPLE_NO_DISPLACEMENT, 1, 0.0f);
                const float v[4] = {s.emission, s.diffuse, s.opacity, s.surface};
                for (int k = 0; k < 4; ++k) block[uint64_t(k) * cells + i] = v[k];
                if (++since == CANCEL_EVERY) {
                    since = 0;
                    if (aborted()) return;
                }
            }
        },
        progress);
    if (!done || mCancelled) return false;
    // The marcher reads the moved values from now on and pays nothing for the displacement.
    for (int k = 0; k < 4; ++k) {
        if (!shader.channel[k]) continue;
        if (k == 3 && (shader.flags & VolumeShader::surfaceFromTexture)) continue;
        shader.channel[k] = block.get() + uint64_t(k) * cells;
    }
    mChannels = std::move(block);
    return true;
}

void Displacement::ReadDisplacement(const VolumeShader& shader,
                                    const float position[3],
                                    DisplacementRead& out) const {
    out = DisplacementRead{};
    std::memcpy(out.moved, position, sizeof out.moved);
    if (!mNormal || !mOffset) return;
    const int* n = mSize;
    int i0[3];
    float f[3];
    for (int a = 0; a < 3; ++a) {
        const float x = position[a];
        // Past a face by more than a cell no corner is left (and not-a-number goes too).
        if (!(x >= -1.0f && x < static_cast<float>(n[a]))) return;
        const float fl = std::floor(x);
        i0[a] = static_cast<int>(fl);
        f[a] = x - fl;
    }
    float normal[3] = {0.0f, 0.0f, 0.0f};
    const int64_t nx = n[0], nxy = nx * n[1];
    for (int c = 0; c < 8; ++c) {
        const int ix = i0[0] + (c & 1), iy = i0[1] + ((c >> 1) & 1), iz = i0[2] + ((c >> 2) & 1);
        // Corners past the grid are dropped.
        if (ix < 0 || iy < 0 || iz < 0 || ix >= n[0] || iy >= n[1] || iz >= n[2]) continue;
        const float w = ((c & 1) ? f[0] : 1.0f - f[0]) * ((c & 2) ? f[1] : 1.0f - f[1]) *
                        ((c & 4) ? f[2] : 1.0f - f[2]);
        const int64_t at = 3 * (ix + nx * iy + nxy * iz);
        for (int a = 0; a < 3; ++a) {
            normal[a] += w * mNormal[at + a];
            out.offset[a] += w * mOffset[at + a];
        }
        out.weight += w;
    }
    if (normal[0] == 0.0f && normal[1] == 0.0f && normal[2] == 0.0f) return;
    const float at[3] = {position[0] + out.offset[0], position[1] + out.offset[1],
                         position[2] + out.offset[2]};
    const float len = textureLength(shader, 6, at) / 3.0f * shader.displaceMult;
    for (int a = 0; a < 3; ++a) {
        out.vector[a] = -len * normal[a];
        out.moved[a] = position[a] + out.vector[a];
    }
}

void Displacement::apply(const VolumeShader& shader, float position[3]) const {
    if (shader.displaceMode == 3) {
        const float none[3] = {0.0f, 0.0f, 0.0f};
        float rgb[3];
        shader.EvalTexture(rgb, 6, none, position);
        for (int a = 0; a < 3; ++a)
            if (std::isfinite(rgb[a])) position[a] -= shader.displaceMult * rgb[a];
        return;
    }
    DisplacementRead read;
    ReadDisplacement(shader, position, read);
    std::memcpy(position, read.moved, sizeof read.moved);
}

}  // namespace vaporix
