// The ray marcher: segments, steps, sampling, shading, shadows and the iso-surface search.
#include "render/VolumeShader.h"

#include <emmintrin.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cache/VaporixFrameData.h"
#include "foundation/MTJobs.h"
#include "foundation/log.h"

namespace vaporix {

// ---------------------------------------------------------------------------------------------
// Small helpers
// ---------------------------------------------------------------------------------------------

namespace {

constexpr int MAX_ROUNDS = 1000000;
constexpr int MAX_SHADOW_STEPS = 1000000;

inline float max3(const float v[3]) { return std::max(v[0], std::max(v[1], v[2])); }
inline float min3(const float v[3]) { return std::min(v[0], std::min(v[1], v[2])); }
inline bool anyPositive(const float v[3]) { return v[0] > 0.0f || v[1] > 0.0f || v[2] > 0.0f; }
inline void set3(float v[3], float a, float b, float c) {
    v[0] = a;
    v[1] = b;
    v[2] = c;
}
inline void zero3(float v[3]) { set3(v, 0.0f, 0.0f, 0.0f); }

/// Opacity of a step of world length `length` for the extinction `k` (log transparency per unit).
inline float stepOpacity(float k, float length) {
    return k == 0.0f ? 0.0f : 1.0f - FastPow2(k * length * LOG2_E);
}

/// a * b for row-vector transforms: first a, then b.
GridTransform compose(const GridTransform& a, const GridTransform& b) {
    GridTransform out;
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 3; ++c) {
            double v = r == 3 ? static_cast<double>(b.m[9 + c]) : 0.0;
            for (int k = 0; k < 3; ++k)
                v += static_cast<double>(a.m[3 * r + k]) * static_cast<double>(b.m[3 * k + c]);
            out.m[3 * r + c] = static_cast<float>(v);
        }
    }
    return out;
}

GridTransform lerpTransform(const GridTransform& a, const GridTransform& b, float t) {
    GridTransform out;
    for (int i = 0; i < 12; ++i) out.m[i] = a.m[i] + (b.m[i] - a.m[i]) * t;
    return out;
}

/// The seed of a light cache cell: the same on every thread and in every render.
uint32_t cellSeed(uint64_t index) {
    const uint32_t i = static_cast<uint32_t>(index);
    const uint32_t q = i * i;
    const uint32_t h =
        ((q << 10) ^ q ^ (q << 13) ^ ((q >> 7) & 0x1ffffffu) ^ (q >> 23)) * 0x41c64e6du +
        0xcc6c5534u;
    return (h >> 16) + ((h * 0x41c64e6du + 0x3039u) & 0xffff0000u);
}

// ---------------------------------------------------------------------------------------------
// Samplers: one routine, specialised by kind (Box, Linear, Spherical) and wrap per axis.
// ---------------------------------------------------------------------------------------------

/// Cells and weights along one axis.
struct AxisTaps {
    int index[3];
    float weight[3];
    int count;
};

inline int wrapIndex(int i, int n) {
    const int r = i % n;
    return r < 0 ? r + n : r;
}

template <bool WRAP>
inline int fixIndex(int i, int n) {
    if constexpr (WRAP) {
        return wrapIndex(i, n);
    } else {
        return i < 0 ? 0 : (i >= n ? n - 1 : i);
    }
}

template <bool WRAP>
inline void linearTaps(float x, int n, AxisTaps& t) {
    const float fl = std::floor(x);
    const int i0 = static_cast<int>(fl);
    const float f = x - fl;
    t.index[0] = fixIndex<WRAP>(i0, n);
    t.index[1] = fixIndex<WRAP>(i0 + 1, n);
    t.weight[0] = 1.0f - f;
    t.weight[1] = f;
    t.count = 2;
}

template <bool WRAP>
inline void sphericalTaps(float x, int n, AxisTaps& t) {
    const float c = std::floor(x + 0.5f);
    const int ci = static_cast<int>(c);
    if (n < 3 || (!WRAP && (ci < 1 || ci > n - 2))) {
        linearTaps<WRAP>(x, n, t);
        return;
    }
    const float f = x - (c - 0.5f);
    const float f2 = f * f;
    t.index[0] = fixIndex<WRAP>(ci - 1, n);
    t.index[1] = fixIndex<WRAP>(ci, n);
    t.index[2] = fixIndex<WRAP>(ci + 1, n);
    t.weight[0] = 0.5f * f2 - f + 0.5f;
    t.weight[1] = 0.5f - f2 + f;
    t.weight[2] = 0.5f * f2;
    t.count = 3;
}

/// The array behind bit k of a sample mask: the four arguments, then red, green and blue.
inline const float* sampleChannel(const VolumeShader& s, int k) {
    return k < 4 ? s.channel[k] : s.rgbChannel[k - 4];
}

/// Trilinear blend of the 2x2x2 cells from `c` (x stride 1, y stride `sy`, z stride `sz`).
[[gnu::always_inline]] inline float trilinear(
    const float* c, int64_t sy, int64_t sz, float tx, float ty, float tz) {
    const float c00 = c[0] + (c[1] - c[0]) * tx;
    const float c10 = c[sy] + (c[sy + 1] - c[sy]) * tx;
    const float c01 = c[sz] + (c[sz + 1] - c[sz]) * tx;
    const float c11 = c[sz + sy] + (c[sz + sy + 1] - c[sz + sy]) * tx;
    const float c0 = c00 + (c10 - c00) * ty;
    const float c1 = c01 + (c11 - c01) * ty;
    return c0 + (c1 - c0) * tz;
}

/// 1 - FastPow2(arg * extinction) for four arguments at once, 0 where an argument is 0: the
/// same operations as the single one, in the same order, so the same bits.
inline void smokeOpacity4(const float* arg, float extinction, float* out) {
#if !defined(__SSE2__)
    for (int i = 0; i < 4; ++i)
        out[i] = arg[i] == 0.0f ? 0.0f : 1.0f - FastPow2(arg[i] * extinction);
#else
    const __m128 a = _mm_load_ps(arg);
    __m128 p = _mm_mul_ps(a, _mm_set1_ps(extinction));
    // The upper limit keeps the integer conversion defined, as in FastPow2.
    const __m128 high = _mm_set1_ps(128.9f);
    const __m128 over = _mm_cmpgt_ps(p, high);
    p = _mm_or_ps(_mm_and_ps(over, high), _mm_andnot_ps(over, p));
    const __m128 low = _mm_set1_ps(-126.0f);
    const __m128 under = _mm_cmplt_ps(p, low);
    const __m128 c = _mm_or_ps(_mm_and_ps(under, low), _mm_andnot_ps(under, p));
    const __m128 w = _mm_cvtepi32_ps(_mm_cvttps_epi32(c));
    const __m128 off = _mm_and_ps(_mm_cmplt_ps(p, _mm_setzero_ps()), _mm_set1_ps(1.0f));
    const __m128 z = _mm_add_ps(_mm_sub_ps(c, w), off);
    __m128 v = _mm_add_ps(c, _mm_set1_ps(121.27405548f));
    v = _mm_add_ps(v,
                   _mm_div_ps(_mm_set1_ps(27.72802353f), _mm_sub_ps(_mm_set1_ps(4.84252548f), z)));
    v = _mm_sub_ps(v, _mm_mul_ps(_mm_set1_ps(1.49012911f), z));
    v = _mm_mul_ps(_mm_set1_ps(8388608.0f), v);
    const __m128 pow2 = _mm_castsi128_ps(_mm_cvttps_epi32(v));
    const __m128 alpha = _mm_sub_ps(_mm_set1_ps(1.0f), pow2);
    const __m128 zero = _mm_cmpeq_ps(a, _mm_setzero_ps());
    _mm_store_ps(out, _mm_andnot_ps(zero, alpha));
#endif
}

/// Gathers the channels of `mask` over the taps of three axes.
inline void gatherTaps(const VolumeShader& s, const AxisTaps t[3], uint32_t mask, float out[7]) {
    const int64_t nx = s.gridSize[0];
    const int64_t nxy = nx * s.gridSize[1];
    for (int k = 0; k < 7; ++k) {
        if (!(mask & (1u << k))) continue;
        const float* ch = sampleChannel(s, k);
        if (!ch) {
            out[k] = 0.0f;
            continue;
        }
        float sum = 0.0f;
        for (int c = 0; c < t[2].count; ++c) {
            const int64_t zOff = t[2].index[c] * nxy;
            float sy = 0.0f;
            for (int b = 0; b < t[1].count; ++b) {
                const float* row = ch + zOff + t[1].index[b] * nx;
                float sx = 0.0f;
                for (int a = 0; a < t[0].count; ++a) sx += t[0].weight[a] * row[t[0].index[a]];
                sy += t[1].weight[b] * sx;
            }
            sum += t[2].weight[c] * sy;
        }
        out[k] = sum;
    }
}

template <int KIND, int WRAP>
void sampleVariant(const VolumeShader& s, const float p[3], uint32_t mask, float out[7]) {
    constexpr bool WX = (WRAP & 1) != 0, WY = (WRAP & 2) != 0, WZ = (WRAP & 4) != 0;
    const int* n = s.gridSize;
    if constexpr (KIND == 0) {
        // Box: the nearest cell; outside an unwrapped axis everything reads 0.
        int idx[3];
        const bool wraps[3] = {WX, WY, WZ};
        for (int a = 0; a < 3; ++a) {
            const int i = static_cast<int>(std::floor(p[a] + 0.5f));
            if (wraps[a]) {
                idx[a] = wrapIndex(i, n[a]);
            } else if (i < 0 || i >= n[a]) {
                for (int k = 0; k < 7; ++k)
                    if (mask & (1u << k)) out[k] = 0.0f;
                return;
            } else {
                idx[a] = i;
            }
        }
        const int64_t cell =
            idx[0] + static_cast<int64_t>(n[0]) * (idx[1] + int64_t(n[1]) * idx[2]);
        for (int k = 0; k < 7; ++k) {
            if (!(mask & (1u << k))) continue;
            const float* ch = sampleChannel(s, k);
            out[k] = ch ? ch[cell] : 0.0f;
        }
    } else if constexpr (KIND == 1) {
        // Linear, with a fast path for the interior of an unwrapped grid.
        const float fx = std::floor(p[0]), fy = std::floor(p[1]), fz = std::floor(p[2]);
        const int ix = static_cast<int>(fx), iy = static_cast<int>(fy), iz = static_cast<int>(fz);
        if (ix >= 0 && iy >= 0 && iz >= 0 && ix + 1 < n[0] && iy + 1 < n[1] && iz + 1 < n[2]) {
            const float tx = p[0] - fx, ty = p[1] - fy, tz = p[2] - fz;
            const int64_t sy = n[0], sz = static_cast<int64_t>(n[0]) * n[1];
            const int64_t base = ix + sy * iy + sz * iz;
            for (int k = 0; k < 7; ++k) {
                if (!(mask & (1u << k))) continue;
                const float* ch = sampleChannel(s, k);
                if (!ch) {
                    out[k] = 0.0f;
                    continue;
                }
                out[k] = trilinear(ch + base, sy, sz, tx, ty, tz);
            }
            return;
        }
        AxisTaps t[3];
        linearTaps<WX>(p[0], n[0], t[0]);
        linearTaps<WY>(p[1], n[1], t[1]);
        linearTaps<WZ>(p[2], n[2], t[2]);
        gatherTaps(s, t, mask, out);
    } else {
        AxisTaps t[3];
        sphericalTaps<WX>(p[0], n[0], t[0]);
        sphericalTaps<WY>(p[1], n[1], t[1]);
        sphericalTaps<WZ>(p[2], n[2], t[2]);
        gatherTaps(s, t, mask, out);
    }
}

using SampleFunction = void (*)(const VolumeShader&, const float*, uint32_t, float*);

// Indexed by sampler * 8 + the three wrap bits.
const SampleFunction SAMPLERS[3][8] = {
    {&sampleVariant<0, 0>, &sampleVariant<0, 1>, &sampleVariant<0, 2>, &sampleVariant<0, 3>,
     &sampleVariant<0, 4>, &sampleVariant<0, 5>, &sampleVariant<0, 6>, &sampleVariant<0, 7>},
    {&sampleVariant<1, 0>, &sampleVariant<1, 1>, &sampleVariant<1, 2>, &sampleVariant<1, 3>,
     &sampleVariant<1, 4>, &sampleVariant<1, 5>, &sampleVariant<1, 6>, &sampleVariant<1, 7>},
    {&sampleVariant<2, 0>, &sampleVariant<2, 1>, &sampleVariant<2, 2>, &sampleVariant<2, 3>,
     &sampleVariant<2, 4>, &sampleVariant<2, 5>, &sampleVariant<2, 6>, &sampleVariant<2, 7>}};

/// Linear read of one float grid, clamped at the edges (wrapped on the axes of `wrap`).
float readLinear(const float* grid, const int n[3], int wrap, const float p[3]) {
    AxisTaps t[3];
    for (int a = 0; a < 3; ++a) {
        if (n[a] <= 0) return 0.0f;
        if ((wrap >> a) & 1)
            linearTaps<true>(p[a], n[a], t[a]);
        else
            linearTaps<false>(p[a], n[a], t[a]);
    }
    const int64_t nx = n[0], nxy = nx * n[1];
    float sum = 0.0f;
    for (int c = 0; c < 2; ++c)
        for (int b = 0; b < 2; ++b)
            for (int a = 0; a < 2; ++a)
                sum += t[0].weight[a] * t[1].weight[b] * t[2].weight[c] *
                       grid[t[0].index[a] + nx * t[1].index[b] + nxy * t[2].index[c]];
    return sum;
}

/// Linear read of an RGB grid of size n (self-illumination map); zero outside.
void readRgbLinear(const float* map, const int n[3], int wrap, const float p[3], float out[3]) {
    zero3(out);
    AxisTaps t[3];
    for (int a = 0; a < 3; ++a) {
        if (n[a] <= 0) return;
        const bool w = (wrap >> a) & 1;
        if (!w && (p[a] < 0.0f || p[a] > static_cast<float>(n[a]))) return;
        if (w)
            linearTaps<true>(p[a], n[a], t[a]);
        else
            linearTaps<false>(p[a], n[a], t[a]);
    }
    const int64_t nx = n[0], nxy = nx * n[1];
    for (int c = 0; c < 2; ++c)
        for (int b = 0; b < 2; ++b)
            for (int a = 0; a < 2; ++a) {
                const float w = t[0].weight[a] * t[1].weight[b] * t[2].weight[c];
                const float* e =
                    map + 3 * (t[0].index[a] + nx * t[1].index[b] + nxy * t[2].index[c]);
                out[0] += w * e[0];
                out[1] += w * e[1];
                out[2] += w * e[2];
            }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Illuminator and segment list
// ---------------------------------------------------------------------------------------------

Illuminator::~Illuminator() = default;

float Illuminator::Random() {
    seed = seed * 1103515245u + 12345u;
    return static_cast<float>(static_cast<double>(seed) / 4294967295.0 * 0.999999);
}

SegmentList::~SegmentList() {
    for (int i = 0; i < mBlockCount; ++i) delete[] mBlocks[i];
    std::free(mBlocks);
}

VolumeSegment* SegmentList::allocate() {
    if (mUsed < INLINE_SEGMENTS) {
        void* room = mInline + sizeof(VolumeSegment) * static_cast<size_t>(mUsed);
        ++mUsed;
        return new (room) VolumeSegment;
    }
    // Beyond the inline ones, blocks of the same size on the heap.
    const int block = mUsed / INLINE_SEGMENTS - 1;
    if (block >= mBlockCount) {
        auto** grown = static_cast<VolumeSegment**>(
            std::realloc(mBlocks, sizeof(VolumeSegment*) * static_cast<size_t>(block + 1)));
        if (!grown) return nullptr;
        mBlocks = grown;
        mBlocks[block] = new (std::nothrow) VolumeSegment[INLINE_SEGMENTS];
        if (!mBlocks[block]) return nullptr;
        mBlockCount = block + 1;
    }
    VolumeSegment* s = &mBlocks[block][mUsed % INLINE_SEGMENTS];
    ++mUsed;
    *s = VolumeSegment{};
    return s;
}

// ---------------------------------------------------------------------------------------------
// Set-up
// ---------------------------------------------------------------------------------------------

VolumeShader::VolumeShader() = default;

VolumeShader::~VolumeShader() { freeFrameData(); }

void VolumeShader::EvalTexture(float outColor[3],
                               int kind,
                               const float*,
                               const float* position) const {
    const Texture* texture = kind >= 0 && kind < TEXTURE_SLOTS ? textures[kind].get() : nullptr;
    if (!texture) {
        zero3(outColor);
        return;
    }
    float p[3];
    gridToObjectTM.apply(position, p);
    texture->evaluate(outColor, p, textureTime);
}

bool VolumeShader::HasTexture(int kind) const {
    return kind >= 0 && kind < TEXTURE_SLOTS && textures[kind] != nullptr;
}

void VolumeShader::EvalVelocity(float out[3], const float* position) const {
    for (int a = 0; a < 3; ++a)
        out[a] = velocityChannel[a] ? readLinear(velocityChannel[a], gridSize, wrapMask, position)
                                    : 0.0f;
}

void VolumeShader::freeFrameData() {
    delete[] lightCache;
    lightCache = nullptr;
    delete[] emptyBlocks;
    emptyBlocks = nullptr;
    blockCount[0] = blockCount[1] = blockCount[2] = 0;
    mLightCacheCells = 0;
    transparencyMap = nullptr;
    selfIllumMap = nullptr;
    flags &= ~hasDisplacement;
    motionBlur.release();
    motionBlur.velocityAvailable = false;
    displacement.release();
    velocityChannel[0] = velocityChannel[1] = velocityChannel[2] = nullptr;
}

void VolumeShader::InitVolume(const int size[3]) {
    freeFrameData();
    flags |= volumeReady;
    for (int a = 0; a < 3; ++a) gridSize[a] = size[a] < 0 ? 0 : size[a];
    lumoLog("VolumeShader::InitVolume: %d %d %d\n", gridSize[0], gridSize[1], gridSize[2]);
    if (!(flags & solidMode) && (flags & lightCacheOn)) {
        const uint64_t cells =
            uint64_t(gridSize[0]) * uint64_t(gridSize[1]) * uint64_t(gridSize[2]);
        // One RGB entry per cell; -1 in red marks an entry not computed yet.
        lightCache = cells ? new (std::nothrow) float[cells * 3] : nullptr;
        if (!lightCache && cells) {
            lumoLog(
                "VolumeShader::InitVolume: Not enough memory for the light cache! Requested "
                "%.0f\n",
                static_cast<double>(cells));
            flags &= ~lightCacheOn;
        } else if (lightCache) {
            std::fill(lightCache, lightCache + cells * 3, -1.0f);
            mLightCacheCells = cells;
        }
    }
    for (int a = 0; a < 3; ++a) {
        boundingBox[a] = 0.0f;
        boundingBox[a + 3] = static_cast<float>(gridSize[a]);
        gridSizeF[a] = static_cast<float>(gridSize[a]);
    }
}

namespace {

/// The grid channel of a mapping argument, or 0 when the argument is no channel.
int argumentChannel(int argument) {
    switch (argument) {
        case 1:
            return CH_TEMPERATURE;
        case 2:
            return CH_SMOKE;
        case 3:
            return CH_SPEED;
        case 10:
            return CH_FUEL;
        default:
            return 0;
    }
}

}  // namespace

void VolumeShader::SetupShader(const VaporixParams& params,
                               const ShadingTables& tables,
                               VaporixFrameData& frame,
                               const ShaderSetup& setup,
                               double time,
                               bool preview) {
    (void)preview;
    auto getInt = [&](const char* n) { return params.getInt(n, time); };
    auto getFloat = [&](const char* n) { return params.getFloat(n, time); };

    // Flags start from the one constant bit.
    flags = applyAtmospherics;

    // Transforms: world to grid is the inverse of the object's transform, then the frame's.
    const GridTransform ends[2] = {setup.objectToWorld, setup.objectToWorldEnd};
    for (int e = 0; e < 2; ++e) {
        GridTransform worldToObject;
        if (!ends[e].inverse(worldToObject)) worldToObject = GridTransform::identity();
        worldToGridTM[e] = compose(worldToObject, frame.gridTransform);
        if (!worldToGridTM[e].inverse(gridToWorldTM[e]))
            gridToWorldTM[e] = GridTransform::identity();
    }
    normalTM = worldToGridTM[0];
    if (!frame.gridTransform.inverse(gridToObjectTM)) gridToObjectTM = GridTransform::identity();
    textureTime = static_cast<float>(time / (TICKS_PER_FRAME * 30.0));
    for (int a = 0; a < 3; ++a) {
        const float* row = &gridToWorldTM[0].m[3 * a];
        cellSize[a] = std::sqrt(row[0] * row[0] + row[1] * row[1] + row[2] * row[2]);
    }

    // Switches.
    if (getInt("lightcache")) flags |= lightCacheOn;
    if (getInt("pmbounces")) flags |= probabilisticBounces;
    if (getInt("pmprimary")) flags |= probabilisticPrimary;
    if (getInt("heathaze")) flags |= heatHaze;
    hazeFactor = getFloat("hhfactor") * -0.000293f / 300.0f;
    const int geommode = getInt("geommode");
    if (geommode != 0 && getInt("rendsolid") != 0) flags |= solidMode;
    if (geommode == 0) flags |= pureVolumetric;
    if (getInt("jitter")) flags |= jitter;
    if (getInt("invgizmo")) flags |= invertGizmo;
    if (setup.motionBlur) flags |= motionBlurTM;

    InitVolume(frame.gridSize);

    // Marching values.
    const int bounces = getInt("bounces");
    maxBounces = bounces == 0 ? 0x7fffffff : bounces;
    stepShade = static_cast<float>(getInt("rendstep")) * 0.01f;
    stepShadow = static_cast<float>(getInt("rendshadstep")) * 0.01f;
    softBorder = getFloat("softb");
    displaceMult = getFloat("displmul");
    displaceFade = getFloat("displfade");
    fadeByVel = getFloat("fadebyvel");
    surfaceLevel = getFloat("surflevel");
    diffuseMult = getFloat("difmul");
    transferExternal = getFloat("transfext");
    transferOwn = getFloat("transfown");
    shadowStrength = getFloat("shad_strength");
    subRed = std::clamp(getFloat("subred"), 0.0f, 0.999f);
    const int samplerParam = getInt("sampler");
    if (samplerParam >= 0 && samplerParam <= 2) sampler = samplerParam;
    const float smoketransp = getFloat("smoketransp");
    const float stoptransp = getFloat("stoptransp");
    const float skiptransp = getFloat("skiptransp");
    playSpeed = getFloat("play_speed");
    velocityScale = 1.0f / 30.0f;
    bias = getFloat("bias");
    const int noscatter = getInt("noscatter");
    if (noscatter >= 0 && noscatter <= 3) scatterMode = noscatter;
    const bool alEnable = getInt("al_enable") != 0;
    if (alEnable) flags |= emissiveLightsOn;
    selfIllumOn = alEnable && getInt("selfshadow") == 2 ? 1 : 0;
    const float gridreduct = getFloat("gridreduct");
    gridReduct = gridreduct != 0.0f ? 1.0f / (gridreduct / 100.0f) : 1.0f;
    selfIllumMinPower = getFloat("self_illum_map_min_pow");
    const int alDecay = getInt("al_decay");
    if (alDecay >= 0 && alDecay <= 2) decayMode = alDecay;
    mbSmooth = getInt("mbsmooth");
    const int displ2d = getInt("displ2d");
    if (displ2d >= 0 && displ2d <= 3) displaceMode = displ2d;

    // Transparency values: always a transparency to stop at and an opacity to skip under.
    const float sceneScale = SceneScale(setup.objectToWorld.m);
    const int transpmode = getInt("transpmode");
    const float simple = transpmode == 0 ? smoketransp : 1.0f - smoketransp;
    smokeExtinction = std::log(std::clamp(simple, 1e-12f, 1.0f)) * sceneScale;
    if (transpmode == 0) {
        stopTransparency = stoptransp;
        skipOpacity = 1.0f - skiptransp;
    } else {
        stopTransparency = 1.0f - stoptransp;
        skipOpacity = skiptransp;
    }

    // Mapping arguments, tables and channels.
    const int fom = getInt("fire_opacity_mode");
    if (fom >= 0 && fom <= 2) fireOpacityMode = fom;
    if (fireOpacityMode == 2) selfIllumMinPower *= selfIllumMinPower;
    const ShaderTableSelection sel = selectShaderTables(params, time, tables, setup.textures);
    emissionColorTable = sel.emissionColorTable;
    emissionPowerTable = sel.emissionPowerTable;
    diffuseColorTable = sel.diffuseColorTable;
    opacityTable = sel.opacityTable;
    set3(simpleColor, sel.simpleColor.r, sel.simpleColor.g, sel.simpleColor.b);
    if (sel.hasEmission) flags |= hasEmission;
    if (sel.hasDiffuse) flags |= hasDiffuse;
    if (sel.emissionFromTexture) flags |= emissionFromTexture;
    if (sel.diffuseFromTexture) flags |= diffuseFromTexture;
    if (sel.opacityFromTexture) flags |= opacityFromTexture;
    if (sel.surfaceFromTexture) flags |= surfaceFromTexture;
    if (getInt("mod_e") && HasTexture(0)) flags |= modulateEmission;
    if (getInt("mod_d") && HasTexture(1)) flags |= modulateDiffuse;
    if (getInt("mod_t") && HasTexture(2)) flags |= modulateOpacity;
    shadeChannelMask = static_cast<uint32_t>(sel.shadeChannelMask);
    const int darg = getInt("darg");
    constantDiffuse = darg == 6 ? 1 : 0;

    const int args[4] = {getInt("earg"), darg, sel.opacityArgument == 0 ? 2 : sel.opacityArgument,
                         getInt("sarg")};
    const TableRange ranges[4] = {tables.emissionRange, tables.diffuseRange, sel.opacityRange,
                                  tables.surfaceRange};
    for (int k = 0; k < 4; ++k) {
        const int ch = argumentChannel(args[k]);
        channel[k] = ch ? frame.GetChannelData(ch) : nullptr;
        if (k == 3) break;
        const float span = ranges[k].span != 0.0f ? ranges[k].span : 1.0f;
        remapScale[k] = 1.0f / span;
        remapOffset[k] = -ranges[k].min / span;
    }
    for (int c = 0; c < 3; ++c)
        rgbChannel[c] = sel.fetchRGB ? frame.GetChannelData(CH_RED + c) : nullptr;
    temperatureChannel = (flags & heatHaze) ? frame.GetChannelData(CH_TEMPERATURE) : nullptr;

    // The surface keeps raw values; mirrored around the level below a solid surface.
    remapOffset[3] = sel.surfaceRemapOffset;
    remapScale[3] = sel.surfaceRemapScale;

    // Wrap and extra render channels.
    wrapMask = (getInt("wrapx") ? 1 : 0) | (getInt("wrapy") ? 2 : 0) | (getInt("wrapz") ? 4 : 0);
    volumeNormals = getInt("volnorm");
    volumeZDepth = getInt("volzdepth");
    renderFlags = setup.renderFlags;
    giMultiplier = setup.giMultiplier;

    buildEmptyBlocks();
}

// ---------------------------------------------------------------------------------------------
// Empty blocks
// ---------------------------------------------------------------------------------------------

namespace {

constexpr int BLOCK_SHIFT = VolumeShader::EMPTY_BLOCK_SHIFT;
constexpr int BLOCK_EDGE = 1 << BLOCK_SHIFT;

/// True when every value of a channel is exactly 0 over cells [lo, hi] (inclusive, clamped).
bool allZero(const float* ch, const int n[3], const int lo[3], const int hi[3]) {
    if (!ch) return true;
    int a[3], b[3];
    for (int k = 0; k < 3; ++k) {
        a[k] = std::max(lo[k], 0);
        b[k] = std::min(hi[k], n[k] - 1);
    }
    for (int z = a[2]; z <= b[2]; ++z)
        for (int y = a[1]; y <= b[1]; ++y) {
            const float* row = ch + (static_cast<int64_t>(z) * n[1] + y) * n[0];
            for (int x = a[0]; x <= b[0]; ++x)
                if (row[x] != 0.0f) return false;
        }
    return true;
}

}  // namespace

void VolumeShader::buildEmptyBlocks() {
    delete[] emptyBlocks;
    emptyBlocks = nullptr;
    blockCount[0] = blockCount[1] = blockCount[2] = 0;
    if (!(flags & volumeReady) || gridSize[0] <= 0 || gridSize[1] <= 0 || gridSize[2] <= 0) return;
    // The test reads raw channel values: it holds only where a zero value is certain to give a
    // step that shows nothing, and where samples read the grid's own cells.
    if (wrapMask || transparencyMap ||
        (flags & (opacityFromTexture | modulateOpacity | emissionFromTexture | modulateEmission |
                  hasDisplacement | motionBlurTM | surfaceFromTexture)))
        return;
    const float zeroArgument = remapOffset[2];
    const bool zeroIsClear =
        opacityTable ? opacityTable[tableRow(zeroArgument)] == 0.0f : zeroArgument == 0.0f;
    if (!zeroIsClear) return;
    // Fire that shows without smoke must be dark too where the emission channel is 0.
    const bool fireCounts = (flags & hasEmission) && fireOpacityMode != 0;
    if (fireCounts) {
        const float e = remapOffset[0];
        if (fireOpacityMode == 1) {
            if (!emissionColorTable) return;
            const TableColor& c = emissionColorTable[tableRow(e)];
            if (c.r > 0.0f || c.g > 0.0f || c.b > 0.0f) return;
        } else if (emissionPowerTable && emissionPowerTable[tableRow(e)] < -0.001f) {
            return;
        }
    }

    for (int a = 0; a < 3; ++a) blockCount[a] = (gridSize[a] + BLOCK_EDGE - 1) >> BLOCK_SHIFT;
    const int64_t blocks = int64_t(blockCount[0]) * blockCount[1] * blockCount[2];
    emptyBlocks = new (std::nothrow) uint8_t[static_cast<size_t>(blocks)];
    if (!emptyBlocks) {
        blockCount[0] = blockCount[1] = blockCount[2] = 0;
        return;
    }
    const float* opacityChannel = channel[2];
    const float* emissionChannel = fireCounts ? channel[0] : nullptr;
    // A sample in a block reads cells from one before it to two after it (any sampler).
    parallelFor(static_cast<uint64_t>(blocks), [&](uint64_t first, uint64_t last, Job&) {
        for (uint64_t b = first; b < last; ++b) {
            const uint64_t nx = uint64_t(blockCount[0]), ny = uint64_t(blockCount[1]);
            const int bx = static_cast<int>(b % nx);
            const int by = static_cast<int>((b / nx) % ny);
            const int bz = static_cast<int>(b / (nx * ny));
            const int lo[3] = {(bx << BLOCK_SHIFT) - 1, (by << BLOCK_SHIFT) - 1,
                               (bz << BLOCK_SHIFT) - 1};
            const int hi[3] = {lo[0] + BLOCK_EDGE + 2, lo[1] + BLOCK_EDGE + 2,
                               lo[2] + BLOCK_EDGE + 2};
            emptyBlocks[b] = allZero(opacityChannel, gridSize, lo, hi) &&
                                     allZero(emissionChannel, gridSize, lo, hi)
                                 ? 1
                                 : 0;
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Transforms
// ---------------------------------------------------------------------------------------------

void VolumeShader::worldToGrid(const double in[3], double out[3], float time) const {
    const GridTransform tm = (flags & motionBlurTM)
                                 ? lerpTransform(worldToGridTM[0], worldToGridTM[1], time)
                                 : worldToGridTM[0];
    const float* m = tm.m;
    for (int c = 0; c < 3; ++c)
        out[c] = in[0] * double(m[c]) + in[1] * double(m[3 + c]) + in[2] * double(m[6 + c]) +
                 double(m[9 + c]);
}

void VolumeShader::gridToWorld(const float in[3], float out[3], float time) const {
    if (flags & motionBlurTM)
        lerpTransform(gridToWorldTM[0], gridToWorldTM[1], time).apply(in, out);
    else
        gridToWorldTM[0].apply(in, out);
}

void VolumeShader::gridToWorldVector(const float in[3], float out[3], float time) const {
    if (flags & motionBlurTM)
        lerpTransform(gridToWorldTM[0], gridToWorldTM[1], time).applyVector(in, out);
    else
        gridToWorldTM[0].applyVector(in, out);
}

// ---------------------------------------------------------------------------------------------
// Sampling
// ---------------------------------------------------------------------------------------------

void VolumeShader::sample(
    VolumeSample& out, const float position[3], uint32_t mask, int samplerKind, float time) const {
    out = VolumeSample{};
    if (!(flags & volumeReady)) return;
    std::memcpy(out.position, position, sizeof out.position);
    if (!mask) return;
    // Displacement moves the sample point off the surface; motion to where what shows at the
    // sample's time came from.
    if ((flags & hasDisplacement) && !(mask & SAMPLE_NO_DISPLACEMENT))
        displacement.apply(*this, out.position);
    if (flags & motionBlurTM) motionBlur.ApplyMotion(*this, out.position, time);
    if ((mask & 0xffu) && gridSize[0] > 0 && gridSize[1] > 0 && gridSize[2] > 0) {
        float v[7] = {0, 0, 0, 0, 0, 0, 0};
        const int kind = samplerKind < 0 || samplerKind > 2 ? 1 : samplerKind;
        SAMPLERS[kind][wrapMask & 7](*this, out.position, mask, v);
        if (!(mask & SAMPLE_RAW)) {
            for (int k = 0; k < 4; ++k) v[k] = v[k] * remapScale[k] + remapOffset[k];
        }
        out.emission = v[0];
        out.diffuse = v[1];
        out.opacity = v[2];
        out.surface = v[3];
        set3(out.rgb, v[4], v[5], v[6]);
    }
    if ((flags & surfaceFromTexture) && (mask & SAMPLE_SURFACE)) {
        float tex[3];
        EvalTexture(tex, 3, out.rgb, out.position);
        out.surface = (tex[0] + tex[1] + tex[2]) / 3.0f * remapScale[3] + remapOffset[3];
    }
}

/// Per-channel opacity of a step from a sample; returns the extinction row used (0 when none).
float VolumeShader::opacityOf(const VolumeSample& s, float stepWorld, float alpha[3]) const {
    if (flags & opacityFromTexture) {
        float tex[3];
        EvalTexture(tex, 2, s.rgb, s.position);
        for (int c = 0; c < 3; ++c) {
            const float a = std::clamp(tex[c], 0.0f, 1.0f);
            alpha[c] = 1.0f - std::pow(1.0f - a, stepWorld);
        }
        return 0.0f;
    }
    float a;
    if (opacityTable) {
        const float k = opacityTable[tableRow(s.opacity)];
        a = stepOpacity(k, stepWorld);
    } else {
        a = s.opacity == 0.0f ? 0.0f
                              : 1.0f - FastPow2(s.opacity * (LOG2_E * smokeExtinction * stepWorld));
    }
    set3(alpha, a, a, a);
    return 0.0f;
}

// ---------------------------------------------------------------------------------------------
// Segments
// ---------------------------------------------------------------------------------------------

bool VolumeShader::BuildSegments(SegmentList& list,
                                 const VolumeShader* const* shaders,
                                 int count,
                                 const double from[3],
                                 const double to[3],
                                 float time) {
    const double wd[3] = {to[0] - from[0], to[1] - from[1], to[2] - from[2]};
    const double len2 = wd[0] * wd[0] + wd[1] * wd[1] + wd[2] * wd[2];
    if (len2 < 1e-12) return true;
    const double length = std::sqrt(len2);
    // The ray parameter is the world distance from `from`, shared by all shaders.
    const double unit[3] = {wd[0] / length, wd[1] / length, wd[2] / length};
    Illuminator& illum = *list.illuminator;

    for (int si = 0; si < count; ++si) {
        const VolumeShader* sh = shaders[si];
        if (!sh || !(sh->flags & volumeReady)) continue;

        // The ray in grid space: origin and the image of a unit world step.
        double o[3], e[3];
        sh->worldToGrid(from, o, time);
        const double ahead[3] = {from[0] + unit[0], from[1] + unit[1], from[2] + unit[2]};
        sh->worldToGrid(ahead, e, time);
        const double d[3] = {e[0] - o[0], e[1] - o[1], e[2] - o[2]};

        // Slab clipping against the grid box, in double.
        double tmin = 0.0, tmax = length;
        bool empty = false;
        for (int a = 0; a < 3 && !empty; ++a) {
            const double lo = sh->boundingBox[a], hi = sh->boundingBox[a + 3];
            if (d[a] == 0.0) {
                if (o[a] < lo || o[a] > hi) empty = true;
                continue;
            }
            double t0 = (lo - o[a]) / d[a], t1 = (hi - o[a]) / d[a];
            if (t0 > t1) std::swap(t0, t1);
            tmin = std::max(tmin, t0);
            tmax = std::min(tmax, t1);
        }
        if (empty) continue;
        const double dl2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
        if (!(dl2 > 0.0) || !std::isfinite(dl2)) continue;  // singular transform
        if (!(tmin <= tmax * 1.00000095) || tmax - tmin < 1e-6) continue;
        if (!(list.wantsColor || !(sh->renderFlags & RF_NO_SHADOWS))) continue;
        if (illum.excludeFlags & sh->renderFlags) continue;

        illum.SetShader(sh);
        list.shader = sh;
        if (illum.mode & IM_CAMERA) list.sawCamera = 1;
        if ((illum.mode & IM_GI) && !(sh->renderFlags & RF_GI_VISIBLE)) continue;

        // Add the segment. (A gizmo would cut it into its inside intervals here.)
        VolumeSegment* seg = list.allocate();
        if (!seg) continue;
        ++list.count;
        seg->shader = sh;
        for (int a = 0; a < 3; ++a) {
            seg->origin[a] = o[a];
            seg->dir[a] = static_cast<float>(d[a]);
            seg->invDir[a] = d[a] != 0.0 ? static_cast<float>(1.0 / d[a]) : 1e30f;
            seg->dirSign[a] = d[a] < 0.0 ? 1 : 0;
        }
        seg->dirLength = std::sqrt(seg->dir[0] * seg->dir[0] + seg->dir[1] * seg->dir[1] +
                                   seg->dir[2] * seg->dir[2]);
        seg->invDirLength = seg->dirLength > 0.0f ? 1.0f / seg->dirLength : 0.0f;
        float w2 = 0.0f;
        for (int a = 0; a < 3; ++a) {
            const float u = seg->dir[a] * seg->invDirLength * sh->cellSize[a];
            w2 += u * u;
        }
        seg->worldPerUnit = std::sqrt(w2);
        seg->t = seg->tStart = tmin;
        seg->tEnd = tmax;
        seg->time = time;
        if (list.probabilistic) seg->state |= SEG_PROBABILISTIC;
        if (list.wantsColor) {
            if (!(illum.mode & IM_GI_MULTIPLIER) ||
                ((sh->renderFlags & RF_GI_VISIBLE) && list.rayDepth <= sh->maxBounces))
                seg->state |= SEG_SHADED;
            // Sorted by start; ties go after the segments already there.
            VolumeSegment** link = &list.first;
            while (*link && (*link)->tStart <= seg->tStart) link = &(*link)->next;
            seg->next = *link;
            *link = seg;
        } else {
            seg->next = list.first;
            list.first = seg;
        }
        list.farthest = std::max(list.farthest, seg->tEnd);
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Stepping
// ---------------------------------------------------------------------------------------------

bool VolumeShader::startSegment(VolumeSegment& seg, Illuminator& illum) const {
    seg.started = true;
    // Step length: the shading or shadow step in cells along the ray's dominant axis.
    const float m =
        std::max(std::fabs(seg.dir[0]), std::max(std::fabs(seg.dir[1]), std::fabs(seg.dir[2])));
    const bool shaded = (seg.state & SEG_SHADED) != 0;
    const float step = (seg.dirLength / m) * (shaded ? stepShade : stepShadow);
    seg.stepLength = seg.worldPerUnit * step;
    seg.stepT = static_cast<double>(step * seg.invDirLength);
    if (!(seg.stepT > 0.0) || !std::isfinite(seg.stepT)) {
        seg.state |= SEG_LAST_STEP;
        return false;
    }

    // The probabilistic test of this segment.
    seg.prob = false;
    if (flags & probabilisticPrimary)
        seg.prob = shaded || !(flags & lightCacheOn);
    else if (flags & probabilisticBounces)
        seg.prob = (illum.mode & (IM_GI | IM_CAUSTIC)) != 0;

    // What each sample needs, and which sampler.
    uint32_t mask = 0;
    if (seg.state & SEG_PROBABILISTIC)
        mask = (fireOpacityMode != 0 && (flags & hasEmission)) ? uint32_t(SAMPLE_EMISSION) : 0u;
    else if (shaded)
        mask = shadeChannelMask;
    if (!(flags & opacityFromTexture) &&
        ((flags & hasDiffuse) || ((flags & hasEmission) && fireOpacityMode == 0)))
        mask |= SAMPLE_OPACITY;
    int kind = sampler;
    if (illum.mode & (IM_GI | IM_CAUSTIC))
        kind = 0;
    else if (illum.mode & IM_SHADOW)
        kind = std::min(sampler, 1);
    seg.sampleMask = mask;
    seg.samplerKind = static_cast<int8_t>(kind < 0 || kind > 2 ? 1 : kind);
    seg.fastLinear = seg.samplerKind == 1 && wrapMask == 0 && (flags & volumeReady) &&
                     !(flags & (hasDisplacement | motionBlurTM | surfaceFromTexture)) &&
                     !(mask & (SAMPLE_RGB | SAMPLE_RAW)) && gridSize[0] > 0 && gridSize[1] > 0 &&
                     gridSize[2] > 0;

    if (flags & jitter) illum.jitterValue = illum.Random();
    if (seg.prob) {
        seg.xi = illum.Random();
        set3(seg.transmit, 1.0f, 1.0f, 1.0f);
    }
    return true;
}

namespace {

/// Trilinear read of the arguments of `mask` (emission, diffuse, opacity, surface), remapped:
/// the common sample of the marcher, without the sampler table.
[[gnu::always_inline]] inline void sampleLinear(const VolumeShader& sh,
                                                const float p[3],
                                                uint32_t mask,
                                                VolumeSample& s) {
    const int* n = sh.gridSize;
    const float fx = std::floor(p[0]), fy = std::floor(p[1]), fz = std::floor(p[2]);
    const int ix = static_cast<int>(fx), iy = static_cast<int>(fy), iz = static_cast<int>(fz);
    float v[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    if (ix >= 0 && iy >= 0 && iz >= 0 && ix + 1 < n[0] && iy + 1 < n[1] && iz + 1 < n[2]) {
        const float tx = p[0] - fx, ty = p[1] - fy, tz = p[2] - fz;
        const int64_t sy = n[0], sz = static_cast<int64_t>(n[0]) * n[1];
        const int64_t base = ix + sy * iy + sz * iz;
        for (int k = 0; k < 4; ++k) {
            if (!(mask & (1u << k)) || !sh.channel[k]) continue;
            v[k] = trilinear(sh.channel[k] + base, sy, sz, tx, ty, tz);
        }
    } else {
        AxisTaps t[3];
        linearTaps<false>(p[0], n[0], t[0]);
        linearTaps<false>(p[1], n[1], t[1]);
        linearTaps<false>(p[2], n[2], t[2]);
        float g[7];
        gatherTaps(sh, t, mask & 0xfu, g);
        for (int k = 0; k < 4; ++k)
            if (mask & (1u << k)) v[k] = g[k];
    }
    s.emission = (mask & SAMPLE_EMISSION) ? v[0] * sh.remapScale[0] + sh.remapOffset[0] : 0.0f;
    s.diffuse = (mask & SAMPLE_DIFFUSE) ? v[1] * sh.remapScale[1] + sh.remapOffset[1] : 0.0f;
    s.opacity = (mask & SAMPLE_OPACITY) ? v[2] * sh.remapScale[2] + sh.remapOffset[2] : 0.0f;
    s.surface = (mask & SAMPLE_SURFACE) ? v[3] * sh.remapScale[3] + sh.remapOffset[3] : 0.0f;
    s.position[0] = p[0];
    s.position[1] = p[1];
    s.position[2] = p[2];
}

}  // namespace

int VolumeShader::NextStep(VolumeSegment& seg, Illuminator& illum, SegmentList& list) const {
    // Lights are asked in the grid space of the segment's own shader.
    if (illum.currentShader != this) illum.SetShader(this);
    if (!seg.started && !startSegment(seg, illum)) {
        zero3(seg.color);
        zero3(seg.alpha);
        return 0;
    }
    const bool shaded = (seg.state & SEG_SHADED) != 0;
    const bool probSeg = (seg.state & SEG_PROBABILISTIC) != 0;
    const bool prob = seg.prob;
    const float stepWorld = seg.stepLength;
    const double stepT = seg.stepT;
    const float jitterShift =
        (flags & jitter) ? illum.jitterValue * static_cast<float>(stepT) : 0.0f;
    const float skipLimit = skipOpacity * stepWorld;
    const float alphaScale = shaded ? 1.0f : shadowStrength;
    // The simple smoke's extinction over one step, in powers of two per unit of argument.
    const float extinction = LOG2_E * smokeExtinction * stepWorld;

    auto endSegment = [&]() {
        if (!(flags & pureVolumetric)) {
            zero3(seg.color);
            zero3(seg.alpha);
        }
        return 0;
    };

    const bool fireOwn = (flags & hasEmission) && fireOpacityMode == 2;
    const bool fireVisible = (flags & hasEmission) && fireOpacityMode == 1;
    for (;;) {
        // Advance; the step that crosses the end is clamped to it once.
        const double newT = seg.t + stepT;
        if (!(newT > seg.t)) {
            // A step too small to move the ray on would never end.
            seg.state |= SEG_LAST_STEP;
            return endSegment();
        }
        if (newT <= seg.tEnd) {
            seg.t = newT;
        } else if (seg.state & SEG_LAST_STEP) {
            seg.t = newT;
            return endSegment();
        } else {
            seg.state |= SEG_LAST_STEP;
            seg.t = seg.tEnd;
        }
        const float p = static_cast<float>(newT) - jitterShift;
        if (static_cast<double>(p) > seg.tEnd) return endSegment();
        ++illum.stepsTaken;

        float pos[3];
        for (int a = 0; a < 3; ++a) pos[a] = static_cast<float>(seg.origin[a]) + seg.dir[a] * p;

        bool emptyStep = false;
        if (transparencyMap) {
            int cell[3];
            bool inside = true;
            for (int a = 0; a < 3; ++a) {
                cell[a] = static_cast<int>(std::floor(sampler == 2 ? pos[a] + 0.5f : pos[a]));
                inside = inside && cell[a] >= 0 && cell[a] < gridSize[a];
            }
            if (inside) {
                const uint64_t i =
                    uint64_t(cell[0]) +
                    uint64_t(gridSize[0]) *
                        (uint64_t(cell[1]) + uint64_t(gridSize[1]) * uint64_t(cell[2]));
                emptyStep = (transparencyMap[i >> 5] >> (i & 31)) & 1;
            }
        }
        if (!emptyStep && emptyBlocks && !prob && !probSeg) emptyStep = inEmptyBlock(pos);

        if (!emptyStep) {
            VolumeSample s;
            if (seg.fastLinear)
                sampleLinear(*this, pos, seg.sampleMask, s);
            else
                sample(s, pos, seg.sampleMask, seg.samplerKind, seg.time);
            ++illum.samplesTaken;

            // Opacity of the step: texture, table of extinction, or the simple smoke.
            float alpha[3];
            if (flags & opacityFromTexture) {
                opacityOf(s, stepWorld, alpha);
            } else {
                float a;
                if (opacityTable) {
                    const float k = opacityTable[tableRow(s.opacity)];
                    a = k == 0.0f ? 0.0f : 1.0f - FastPow2(k * stepWorld * LOG2_E);
                } else {
                    a = s.opacity == 0.0f ? 0.0f : 1.0f - FastPow2(s.opacity * extinction);
                }
                set3(alpha, a, a, a);
            }
            if (flags & modulateOpacity) {
                float tex[3];
                EvalTexture(tex, 2, s.rgb, s.position);
                for (int c = 0; c < 3; ++c) alpha[c] *= tex[c];
            }
            if (!shaded)
                for (int c = 0; c < 3; ++c) alpha[c] *= alphaScale;

            // Skip test: a step that is too thin is empty, unless fully visible fire shows.
            bool emissionOnly = false;
            bool alive = true;
            if (!(fireOwn && shaded)) {
                if (!(max3(alpha) > skipLimit)) {
                    zero3(alpha);
                    if (shaded) zero3(seg.color);
                    if (fireVisible)
                        emissionOnly = true;
                    else
                        alive = false;
                }
            }

            // A plain shadow step: nothing else to decide.
            if (alive && !shaded && !prob && !emissionOnly && !(softBorder > 0.5f)) {
                for (int c = 0; c < 3; ++c) alpha[c] = std::min(alpha[c], 1.0f);
                std::memcpy(seg.position, s.position, sizeof seg.position);
                seg.stepWorld = stepWorld;
                seg.invAlpha = alpha[0] > 0.0f ? 1.0f / alpha[0] : 0.0f;
                std::memcpy(seg.alpha, alpha, sizeof seg.alpha);
                return 1;
            }

            if (alive) {
                // Soft border: opacity fades over the last cells before the grid's faces.
                float f = 0.0f;
                if (softBorder > 0.5f) {
                    float d = softBorder;
                    for (int a = 0; a < 3; ++a) {
                        d = std::min(d, pos[a]);
                        d = std::min(d, gridSizeF[a] - 1.0f - pos[a]);
                    }
                    d = std::max(d, 0.0f);
                    f = d;
                    if (d < softBorder) {
                        f = d / softBorder;
                        if (!emissionOnly)
                            for (int c = 0; c < 3; ++c)
                                alpha[c] = 1.0f - std::pow(1.0f - alpha[c], f);
                    }
                }
                for (int c = 0; c < 3; ++c) alpha[c] = std::min(alpha[c], 1.0f);

                float invAlpha = alpha[0] > 0.0f ? 1.0f / alpha[0] : 0.0f;
                bool ownAlpha = false;
                const float ownRow = (flags & hasEmission) && emissionPowerTable
                                         ? emissionPowerTable[tableRow(s.emission)]
                                         : 0.0f;
                bool keep = true;
                if (fireOpacityMode == 2 && (prob || probSeg) && (flags & hasEmission) &&
                    emissionPowerTable && shaded && ownRow < -0.001f) {
                    const float a = 1.0f - FastPow2(ownRow * stepWorld * LOG2_E);
                    set3(alpha, a, a, a);
                    ownAlpha = true;
                }
                if (prob) {
                    // Russian roulette on the transmittance: the ray stops here or passes.
                    if (fireOpacityMode == 1) {
                        alpha[0] += 0.001f;
                        invAlpha = 1.0f / alpha[0];
                    }
                    for (int c = 0; c < 3; ++c) seg.transmit[c] *= std::max(0.0f, 1.0f - alpha[c]);
                    if (seg.xi < seg.transmit[0]) {
                        zero3(alpha);
                        zero3(seg.color);
                        keep = false;
                    } else {
                        set3(alpha, 1.0f, 1.0f, 1.0f);
                    }
                }
                if (keep) {
                    std::memcpy(seg.position, s.position, sizeof seg.position);
                    seg.stepWorld = stepWorld;
                    seg.invAlpha = invAlpha;
                    if (!shaded) {
                        if (!emissionOnly) {
                            std::memcpy(seg.alpha, alpha, sizeof seg.alpha);
                            return 1;
                        }
                        keep = false;
                    }
                }
                if (keep && !prob && fireOpacityMode == 2) {
                    if (ownRow < -0.001f && (flags & hasEmission) && emissionPowerTable) {
                        const float a = 1.0f - FastPow2(ownRow * stepWorld * LOG2_E);
                        set3(alpha, a, a, a);
                        ownAlpha = true;
                    } else if (!(max3(alpha) > skipOpacity * stepWorld)) {
                        keep = false;
                    }
                }
                if (keep) {
                    zero3(seg.color);
                    if (fireOpacityMode == 1) {
                        // Fully visible fire: emission by step length, not by opacity.
                        float e[3];
                        emissionOf(e, s, stepWorld, list);
                        if (prob)
                            for (int c = 0; c < 3; ++c) e[c] *= invAlpha;
                        if (softBorder > 0.5f)
                            for (int c = 0; c < 3; ++c) e[c] *= f;
                        if (emissionOnly && e[0] + e[1] + e[2] < skipOpacity) keep = false;
                        for (int c = 0; c < 3; ++c) seg.color[c] = e[c] * stepWorld;
                    }
                }
                if (keep) {
                    seg.ownAlphaUsed = ownAlpha ? 1.0f : 0.0f;
                    std::memcpy(seg.alpha, alpha, sizeof seg.alpha);
                    if (!probSeg) fullShade(seg, illum, list, s, prob);
                    return 1;
                }
            }
        }
        if (flags & heatHaze) {
            zero3(seg.color);
            zero3(seg.alpha);
            return 1;
        }
    }
}

void VolumeShader::emissionOf(float out[3],
                              const VolumeSample& s,
                              float stepWorld,
                              const SegmentList& list) const {
    zero3(out);
    (void)list;
    if (!(flags & hasEmission)) return;
    if (flags & emissionFromTexture) {
        EvalTexture(out, 0, s.rgb, s.position);
    } else if (emissionColorTable) {
        const TableColor& c = emissionColorTable[tableRow(s.emission)];
        set3(out, c.r, c.g, c.b);
    } else {
        std::memcpy(out, s.rgb, sizeof s.rgb);
    }
    if (flags & modulateEmission) {
        float tex[3];
        EvalTexture(tex, 0, s.rgb, s.position);
        for (int c = 0; c < 3; ++c) out[c] *= tex[c];
    }
    if (fireOpacityMode == 2) {
        if (emissionPowerTable) {
            const float a = stepOpacity(emissionPowerTable[tableRow(s.emission)], stepWorld);
            for (int c = 0; c < 3; ++c) out[c] *= a;
        } else {
            std::memcpy(out, s.rgb, sizeof s.rgb);
        }
    }
    for (int c = 0; c < 3; ++c) out[c] = std::max(out[c], 0.0f);
}

void VolumeShader::lightAt(float out[3],
                           const float position[3],
                           const float diffuse[3],
                           Illuminator& illum) const {
    zero3(out);
    if ((flags & lightCacheOn) && lightCache && !(illum.mode & IM_FORCED_SAMPLING)) {
        float light[3];
        ReadLightCache(light, position, illum);
        for (int c = 0; c < 3; ++c) out[c] = diffuse[c] * light[c];
        return;
    }
    // An object that is not a pure volume, without the cache, is lit for GI rays only.
    if (!(flags & pureVolumetric) && !(illum.mode & (IM_GI_MULTIPLIER | IM_GI))) return;
    illum.Illuminate(out, position, diffuse, nullptr, nullptr);
    if (selfIllumOn && selfIllumMap && reducedScale > 0.0f) {
        const float rp[3] = {position[0] / reducedScale, position[1] / reducedScale,
                             position[2] / reducedScale};
        float self[3];
        readRgbLinear(selfIllumMap, reducedSize, wrapMask, rp, self);
        for (int c = 0; c < 3; ++c) out[c] += self[c] * diffuse[c];
    }
}

void VolumeShader::fullShade(VolumeSegment& seg,
                             Illuminator& illum,
                             SegmentList& list,
                             const VolumeSample& s,
                             bool prob) const {
    const bool ownAlpha = seg.ownAlphaUsed != 0.0f;
    // Emission (fully visible fire has it already).
    if (fireOpacityMode != 1) {
        float e[3] = {0.0f, 0.0f, 0.0f};
        if (!((illum.mode & IM_GI) && (flags & emissiveLightsOn)))
            emissionOf(e, s, seg.stepWorld, list);
        if (ownAlpha) {
            if (prob)
                for (int c = 0; c < 3; ++c) e[c] *= seg.invAlpha;
        } else {
            for (int c = 0; c < 3; ++c) e[c] *= seg.alpha[c];
        }
        for (int c = 0; c < 3; ++c) seg.color[c] += e[c];
    }

    // Normals for the render element: the opacity's gradient.
    if ((illum.elements & (1u << RE_NORMALS)) && volumeNormals) {
        const float h = sampler == 0 ? 1.0f : 0.01f;
        const float a0 = prob && seg.invAlpha > 0.0f ? 1.0f / seg.invAlpha : seg.alpha[0];
        float g[3];
        for (int a = 0; a < 3; ++a) {
            float q[3] = {s.position[0], s.position[1], s.position[2]};
            q[a] += h;
            VolumeSample n;
            sample(n, q, SAMPLE_OPACITY | SAMPLE_NO_DISPLACEMENT, sampler, seg.time);
            float an[3];
            opacityOf(n, seg.stepWorld, an);
            g[a] = a0 - (an[0] + an[1] + an[2]) / 3.0f;
        }
        float w[3];
        gridToWorldVector(g, w, seg.time);
        const float len = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
        if (len > 0.0f) {
            const float k = (flags & pureVolumetric)
                                ? (seg.alpha[0] + seg.alpha[1] + seg.alpha[2]) / 3.0f
                                : 1.0f;
            for (int c = 0; c < 3; ++c) illum.elementColor[RE_NORMALS][c] = w[c] / len * k;
        }
    }

    // Diffuse colour lit by the lights.
    if ((flags & hasDiffuse) && !ownAlpha) {
        float dif[3];
        if (flags & diffuseFromTexture) {
            EvalTexture(dif, 1, s.rgb, s.position);
        } else {
            if (diffuseColorTable) {
                const TableColor& c = diffuseColorTable[tableRow(s.diffuse)];
                set3(dif, c.r, c.g, c.b);
            } else if (constantDiffuse && (shadeChannelMask & SAMPLE_RGB)) {
                std::memcpy(dif, s.rgb, sizeof dif);
            } else {
                std::memcpy(dif, simpleColor, sizeof dif);
            }
            if (flags & modulateDiffuse) {
                float tex[3];
                EvalTexture(tex, 1, s.rgb, s.position);
                for (int c = 0; c < 3; ++c) dif[c] *= tex[c];
            }
        }
        for (int c = 0; c < 3; ++c) {
            dif[c] *= seg.alpha[c];
            if (scatterMode != 0) dif[c] *= diffuseMult;
        }
        if (!((illum.mode & IM_SCATTER) && !(renderFlags & RF_LIT_BY_SCATTER))) {
            float light[3];
            lightAt(light, s.position, dif, illum);
            for (int c = 0; c < 3; ++c) seg.color[c] += light[c];
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Light cache
// ---------------------------------------------------------------------------------------------

void VolumeShader::ReadLightCache(float out[3], const float position[3], Illuminator& illum) const {
    zero3(out);
    if (!lightCache) return;
    int base[3], span[3];
    float frac[3];
    for (int a = 0; a < 3; ++a) {
        const int n = gridSize[a];
        if (position[a] < 0.0f) {
            base[a] = 0;
            frac[a] = 0.0f;
            span[a] = 1;
        } else {
            const int b = static_cast<int>(position[a]);
            if (b >= n - 1) {
                base[a] = n - 1;
                frac[a] = 0.0f;
                span[a] = 1;
            } else {
                base[a] = b;
                frac[a] = position[a] - static_cast<float>(b);
                span[a] = 2;
            }
        }
    }
    const uint64_t nx = uint64_t(gridSize[0]), nxy = nx * uint64_t(gridSize[1]);
    for (int k = 0; k < span[2]; ++k)
        for (int j = 0; j < span[1]; ++j)
            for (int i = 0; i < span[0]; ++i) {
                const float w = (i ? frac[0] : 1.0f - frac[0]) * (j ? frac[1] : 1.0f - frac[1]) *
                                (k ? frac[2] : 1.0f - frac[2]);
                const int cx = base[0] + i, cy = base[1] + j, cz = base[2] + k;
                const uint64_t index = uint64_t(cx) + nx * uint64_t(cy) + nxy * uint64_t(cz);
                float* entry = lightCache + 3 * index;
                std::atomic_ref<float> red(entry[0]);
                std::atomic_ref<float> green(entry[1]);
                std::atomic_ref<float> blue(entry[2]);
                float v[3];
                v[0] = red.load(std::memory_order_acquire);
                if (v[0] == -1.0f) {
                    // Fill the corner: light at the cell with a grey diffuse, seeded by the cell.
                    const uint8_t savedMode = illum.mode;
                    const uint32_t savedSeed = illum.seed;
                    illum.mode |= IM_FORCED_SAMPLING | IM_CACHE_FILL;
                    illum.seed = cellSeed(index);
                    const float cell[3] = {float(cx), float(cy), float(cz)};
                    const float grey = 1.0f - subRed;
                    const float dif[3] = {grey, grey, grey};
                    float light[3];
                    illum.Illuminate(light, cell, dif, nullptr, nullptr);
                    for (int c = 0; c < 3; ++c) light[c] *= 1.0f / grey;
                    if (selfIllumOn && selfIllumMap && reducedScale > 0.0f) {
                        const float rp[3] = {cell[0] / reducedScale, cell[1] / reducedScale,
                                             cell[2] / reducedScale};
                        float self[3];
                        readRgbLinear(selfIllumMap, reducedSize, wrapMask, rp, self);
                        for (int c = 0; c < 3; ++c) light[c] += self[c];
                    }
                    illum.seed = savedSeed;
                    illum.mode = savedMode;
                    // Published by red; another thread may have stored the same value first.
                    green.store(light[1], std::memory_order_relaxed);
                    blue.store(light[2], std::memory_order_relaxed);
                    float expected = -1.0f;
                    if (red.compare_exchange_strong(expected, light[0], std::memory_order_release,
                                                    std::memory_order_acquire)) {
                        v[0] = light[0];
                    } else {
                        v[0] = expected;
                    }
                }
                v[1] = green.load(std::memory_order_relaxed);
                v[2] = blue.load(std::memory_order_relaxed);
                for (int c = 0; c < 3; ++c) out[c] += w * v[c];
            }
}

// ---------------------------------------------------------------------------------------------
// Combining segments
// ---------------------------------------------------------------------------------------------

namespace {

/// The open segments of a ray, and the next one to open (the list is sorted by start).
struct ActiveSet {
    VolumeSegment* inlineItems[SegmentList::INLINE_SEGMENTS];
    VolumeSegment** items = inlineItems;
    int count = 0;
    VolumeSegment* pending = nullptr;

    explicit ActiveSet(SegmentList& list) : pending(list.first) {
        if (list.count > SegmentList::INLINE_SEGMENTS)
            items = new (std::nothrow) VolumeSegment*[static_cast<size_t>(list.count)];
        if (!items) {
            items = inlineItems;
            pending = nullptr;  // out of memory: nothing is marched
        }
    }
    ~ActiveSet() {
        if (items != inlineItems) delete[] items;
    }
    ActiveSet(const ActiveSet&) = delete;
    ActiveSet& operator=(const ActiveSet&) = delete;

    int capacity(const SegmentList& list) const {
        return items == inlineItems ? SegmentList::INLINE_SEGMENTS : list.count;
    }

    /// The open segment with the smallest t (ties to the first found); opens the pending
    /// segments that start before it. `step` gives a newly opened segment its first step.
    template <typename StepFn>
    int next(SegmentList& list, StepFn&& step) {
        for (;;) {
            int best = -1;
            for (int i = 0; i < count; ++i)
                if (best < 0 || items[i]->t < items[best]->t) best = i;
            if (pending && (best < 0 || pending->tStart <= items[best]->t)) {
                VolumeSegment* s = pending;
                pending = pending->next;
                if (step(*s) && count < capacity(list)) items[count++] = s;
                continue;
            }
            return best;
        }
    }
    void remove(int i) { items[i] = items[--count]; }
};

}  // namespace

void VolumeShader::Shade(float result[3],
                         SegmentList& list,
                         float transparency[3],
                         Illuminator& illum) {
    zero3(result);
    float T[3] = {transparency[0], transparency[1], transparency[2]};
    ActiveSet active(list);
    auto step = [&](VolumeSegment& s) {
        if (s.shader->NextStep(s, illum, list)) return true;
        zero3(s.color);
        zero3(s.alpha);
        return false;
    };
    float depth = 0.0f;
    bool haveDepth = false;
    for (int round = 0;; ++round) {
        if (round >= MAX_ROUNDS) {
            lumoLog("#::Shade - color cycle! pt:%f %f \n", double(illum.imagePosition[0]),
                    double(illum.imagePosition[1]));
            break;
        }
        const int i = active.next(list, step);
        if (i < 0) break;
        VolumeSegment& s = *active.items[i];
        const VolumeShader& sh = *s.shader;
        if (anyPositive(s.alpha) || anyPositive(s.color)) {
            if (sh.flags & applyAtmospherics) illum.ApplyAtmosphere(s.color, s);
            const float m = (illum.mode & IM_GI_MULTIPLIER) ? sh.giMultiplier : 1.0f;
            for (int c = 0; c < 3; ++c) result[c] += T[c] * m * s.color[c];
            if ((illum.elements & (1u << RE_ZDEPTH)) && !haveDepth && anyPositive(s.alpha)) {
                depth = sh.volumeZDepth ? s.alpha[1] * static_cast<float>(s.t) : 0.0f;
                haveDepth = true;
            }
            for (int c = 0; c < 3; ++c) T[c] *= 1.0f - s.alpha[c];
            std::memcpy(illum.transparency, T, sizeof T);
        }
        if (max3(T) < sh.stopTransparency) {
            zero3(T);
            break;
        }
        if (s.state & SEG_LAST_STEP)
            active.remove(i);
        else if (!sh.NextStep(s, illum, list)) {
            zero3(s.color);
            zero3(s.alpha);
        }
    }
    if (haveDepth) set3(illum.elementColor[RE_ZDEPTH], depth, depth, depth);
    std::memcpy(transparency, T, sizeof T);
}

void VolumeShader::ShadeAgain(VolumeSegment& seg, Illuminator& illum, SegmentList& list) const {
    if (illum.currentShader != this) illum.SetShader(this);
    // The colour of a stop of the probabilistic road: what a step gives per unit of its opacity.
    VolumeSample s;
    uint32_t mask = shadeChannelMask;
    if (!(flags & opacityFromTexture)) mask |= SAMPLE_OPACITY;
    sample(s, seg.position, mask, sampler, seg.time);
    zero3(seg.color);
    set3(seg.alpha, 1.0f, 1.0f, 1.0f);
    if (!((illum.mode & IM_GI) && (flags & emissiveLightsOn))) {
        float e[3];
        emissionOf(e, s, seg.stepWorld, list);
        const float k = fireOpacityMode == 1 ? seg.stepWorld * seg.invAlpha
                                             : (fireOpacityMode == 2 ? seg.invAlpha : 1.0f);
        for (int c = 0; c < 3; ++c) seg.color[c] += e[c] * k;
    }
    if (flags & hasDiffuse) {
        float dif[3];
        if (flags & diffuseFromTexture) {
            EvalTexture(dif, 1, s.rgb, s.position);
        } else if (diffuseColorTable) {
            const TableColor& c = diffuseColorTable[tableRow(s.diffuse)];
            set3(dif, c.r, c.g, c.b);
        } else if (constantDiffuse && (shadeChannelMask & SAMPLE_RGB)) {
            std::memcpy(dif, s.rgb, sizeof dif);
        } else {
            std::memcpy(dif, simpleColor, sizeof dif);
        }
        if (scatterMode != 0)
            for (int c = 0; c < 3; ++c) dif[c] *= diffuseMult;
        float light[3];
        if (!(flags & lightCacheOn) || !lightCache || (illum.mode & IM_FORCED_SAMPLING)) {
            illum.Illuminate(light, s.position, dif, nullptr, nullptr);
        } else {
            float l[3];
            ReadLightCache(l, s.position, illum);
            for (int c = 0; c < 3; ++c) light[c] = l[c] * dif[c];
        }
        for (int c = 0; c < 3; ++c) seg.color[c] += light[c];
    }
}

int VolumeShader::NextStepProbabilistic(VolumeSegment& seg,
                                        Illuminator& illum,
                                        SegmentList& list) const {
    if (illum.currentShader != this) illum.SetShader(this);
    const float m =
        std::max(std::fabs(seg.dir[0]), std::max(std::fabs(seg.dir[1]), std::fabs(seg.dir[2])));
    const bool shaded = (seg.state & SEG_SHADED) != 0;
    const float step = (seg.dirLength / m) * (shaded ? stepShade : stepShadow);
    float stepWorld = seg.worldPerUnit * step;
    if (!shaded) stepWorld *= shadowStrength;
    double stepT = static_cast<double>(step * seg.invDirLength);
    if (!seg.started) {
        // A fresh random threshold; the first step is shortened by it.
        seg.started = true;
        illum.jitterValue = illum.Random();
        set3(seg.transmit, 1.0f, 1.0f, 1.0f);
        seg.xi = static_cast<float>(seg.t);
        seg.t += stepT * static_cast<double>(illum.jitterValue);
    } else {
        seg.t = std::max(seg.t, static_cast<double>(seg.xi)) + stepT;
        // A new threshold for the next event along the ray.
        illum.jitterValue = illum.Random();
        set3(seg.transmit, 1.0f, 1.0f, 1.0f);
    }
    uint32_t mask = shaded ? shadeChannelMask : 0;
    if (!(flags & opacityFromTexture)) mask |= SAMPLE_OPACITY;
    for (; seg.t <= seg.tEnd; seg.t += stepT) {
        float pos[3];
        const float p = static_cast<float>(seg.t);
        for (int a = 0; a < 3; ++a) pos[a] = static_cast<float>(seg.origin[a]) + seg.dir[a] * p;
        VolumeSample s;
        sample(s, pos, mask, sampler, seg.time);
        ++illum.samplesTaken;
        ++illum.stepsTaken;
        float alpha[3];
        opacityOf(s, stepWorld, alpha);
        if (max3(alpha) > skipOpacity * stepWorld && softBorder > 0.5f) {
            float d = softBorder;
            for (int a = 0; a < 3; ++a) {
                d = std::min(d, pos[a]);
                d = std::min(d, gridSizeF[a] - 1.0f - pos[a]);
            }
            d = std::max(d, 0.0f);
            if (d < softBorder)
                for (int c = 0; c < 3; ++c)
                    alpha[c] = 1.0f - std::pow(1.0f - alpha[c], d / softBorder);
        }
        const float a0 = std::min(alpha[0], 1.0f);
        for (int c = 0; c < 3; ++c) seg.transmit[c] *= 1.0f - std::min(alpha[c], 1.0f);
        if (1.0f - skipOpacity <= min3(seg.transmit)) seg.xi = p;
        if (min3(seg.transmit) <= illum.jitterValue) {
            std::memcpy(seg.position, s.position, sizeof seg.position);
            seg.stepWorld = stepWorld;
            seg.invAlpha = a0 > 0.0f ? 1.0f / a0 : 0.0f;
            seg.xi = p;
            set3(seg.alpha, 1.0f, 1.0f, 1.0f);
            if (!shaded) return 1;
            ShadeAgain(seg, illum, list);
            return 1;
        }
    }
    zero3(seg.color);
    zero3(seg.alpha);
    seg.state |= SEG_LAST_STEP;
    return 0;
}

void VolumeShader::ShadeProbabilistic(
    float result[3], SegmentList& list, float transparency[3], Illuminator& illum, int samples) {
    zero3(result);
    const int n = std::max(samples, 1);
    const float r = static_cast<float>(n - 1) + illum.Random();
    int hits = 0;
    float T[3] = {transparency[0], transparency[1], transparency[2]};
    ActiveSet active(list);
    auto step = [&](VolumeSegment& s) {
        return s.shader->NextStepProbabilistic(s, illum, list) != 0;
    };
    for (int round = 0; round < MAX_ROUNDS && hits < n; ++round) {
        const int i = active.next(list, step);
        if (i < 0) break;
        VolumeSegment& s = *active.items[i];
        const VolumeShader& sh = *s.shader;
        if (anyPositive(s.alpha)) {
            for (int c = 0; c < 3; ++c) T[c] *= 1.0f - s.alpha[c];
            bool first = true;
            while (hits < n && max3(T) <= (r - static_cast<float>(hits)) / static_cast<float>(n)) {
                if (first) ++illum.sampleCount;
                first = false;
                sh.ShadeAgain(s, illum, list);
                if (sh.flags & applyAtmospherics) illum.ApplyAtmosphere(s.color, s);
                const float m = (illum.mode & IM_GI_MULTIPLIER) ? sh.giMultiplier : 1.0f;
                for (int c = 0; c < 3; ++c) result[c] += s.color[c] * m;
                ++hits;
            }
            if (hits < n && max3(T) < sh.stopTransparency) hits = n;
        }
        if (s.state & SEG_LAST_STEP)
            active.remove(i);
        else if (!sh.NextStepProbabilistic(s, illum, list))
            active.remove(i);
    }
    const float opacity = static_cast<float>(hits) / static_cast<float>(n);
    for (int c = 0; c < 3; ++c) {
        transparency[c] *= 1.0f - opacity;
        if (hits) result[c] /= static_cast<float>(n);
    }
}

template <typename F>
void VolumeShader::marchShadow(VolumeSegment& seg,
                               Illuminator& illum,
                               SegmentList& list,
                               F&& onStep) const {
    if (illum.currentShader != this) illum.SetShader(this);
    if (!seg.started && !startSegment(seg, illum)) return;
    // Anything beyond a plain opacity step takes the general road.
    const bool plain = !(seg.state & SEG_SHADED) && !seg.prob && seg.fastLinear &&
                       seg.sampleMask == SAMPLE_OPACITY && !transparencyMap &&
                       !(softBorder > 0.5f) &&
                       !(flags & (opacityFromTexture | modulateOpacity | heatHaze));
    if (!plain) {
        while (NextStep(seg, illum, list))
            if (onStep(seg.alpha)) return;
        return;
    }
    // The same steps as NextStep takes for such a segment, without a call per step: the
    // arguments of up to BATCH steps are read first, their opacities worked out four at a time,
    // then handed on in order. The segment is not stepped again once `onStep` stops it.
    const double stepT = seg.stepT;
    const float stepWorld = seg.stepLength;
    const float jitterShift =
        (flags & jitter) ? illum.jitterValue * static_cast<float>(stepT) : 0.0f;
    const float skipLimit = skipOpacity * stepWorld;
    const float extinction = LOG2_E * smokeExtinction * stepWorld;
    const float* const opacityChannel = channel[2];
    const int* n = gridSize;
    const int64_t sy = n[0], sz = static_cast<int64_t>(n[0]) * n[1];
    const float o[3] = {static_cast<float>(seg.origin[0]), static_cast<float>(seg.origin[1]),
                        static_cast<float>(seg.origin[2])};
    constexpr int BATCH = 16;
    alignas(16) float args[BATCH];
    alignas(16) float alphas[BATCH];
    uint64_t stepsAt[BATCH];
    uint64_t samples = 0, steps = 0;
    bool ended = false;
    while (!ended) {
        // Read the arguments of the next steps that lie outside empty blocks.
        int count = 0;
        while (count < BATCH) {
            const double newT = seg.t + stepT;
            if (!(newT > seg.t)) {
                seg.state |= SEG_LAST_STEP;
                ended = true;
                break;
            }
            if (newT <= seg.tEnd) {
                seg.t = newT;
            } else if (seg.state & SEG_LAST_STEP) {
                seg.t = newT;
                ended = true;
                break;
            } else {
                seg.state |= SEG_LAST_STEP;
                seg.t = seg.tEnd;
            }
            const float p = static_cast<float>(newT) - jitterShift;
            if (static_cast<double>(p) > seg.tEnd) {
                ended = true;
                break;
            }
            ++steps;
            const float pos[3] = {o[0] + seg.dir[0] * p, o[1] + seg.dir[1] * p,
                                  o[2] + seg.dir[2] * p};
            if (emptyBlocks && inEmptyBlock(pos)) continue;
            float arg = remapOffset[2];
            if (opacityChannel) {
                const float fx = std::floor(pos[0]), fy = std::floor(pos[1]),
                            fz = std::floor(pos[2]);
                const int ix = static_cast<int>(fx), iy = static_cast<int>(fy),
                          iz = static_cast<int>(fz);
                if (ix >= 0 && iy >= 0 && iz >= 0 && ix + 1 < n[0] && iy + 1 < n[1] &&
                    iz + 1 < n[2]) {
                    arg = trilinear(opacityChannel + (ix + sy * iy + sz * iz), sy, sz, pos[0] - fx,
                                    pos[1] - fy, pos[2] - fz) *
                              remapScale[2] +
                          remapOffset[2];
                } else {
                    VolumeSample s;
                    sampleLinear(*this, pos, SAMPLE_OPACITY, s);
                    arg = s.opacity;
                }
            }
            stepsAt[count] = steps;
            args[count++] = arg;
        }
        samples += static_cast<uint64_t>(count);

        // Opacities of the batch.
        if (opacityTable) {
            for (int i = 0; i < count; ++i) {
                const float k = opacityTable[tableRow(args[i])];
                alphas[i] = k == 0.0f ? 0.0f : 1.0f - FastPow2(k * stepWorld * LOG2_E);
            }
        } else {
            for (int i = count; i < ((count + 3) & ~3); ++i) args[i] = 0.0f;
            for (int i = 0; i < count; i += 4) smokeOpacity4(args + i, extinction, alphas + i);
        }

        // Hand them on in order, as single steps.
        for (int i = 0; i < count; ++i) {
            float a = alphas[i] * shadowStrength;
            if (!(a > skipLimit)) continue;
            a = std::min(a, 1.0f);
            set3(seg.alpha, a, a, a);
            if (onStep(seg.alpha)) {
                // What was read beyond the step that stopped the ray does not count.
                samples -= static_cast<uint64_t>(count - 1 - i);
                steps = stepsAt[i];
                ended = true;
                break;
            }
        }
    }
    illum.samplesTaken += samples;
    illum.stepsTaken += steps;
}

void VolumeShader::Shadow(SegmentList& list, float opacity[3], Illuminator& illum, int ownLight) {
    illum.mode |= IM_SHADOW;
    float T[3], E[3] = {0, 0, 0}, Q[3] = {0, 0, 0};
    for (int c = 0; c < 3; ++c) T[c] = std::max(0.0f, 1.0f - opacity[c]);
    const int own = ownLight == 0 ? list.sawCamera : 0;
    for (VolumeSegment* seg = list.first; seg; seg = seg->next) {
        const VolumeShader& sh = *seg->shader;
        const float s = list.sawCamera == 0 ? sh.shadowStrength : 1.0f;
        if (sh.scatterMode == 3 || (sh.scatterMode == 2 && list.sawCamera)) {
            // Weighted road: optical depth with the multiple-scattering approximation.
            const float wt = ownLight == 0 ? sh.transferExternal : sh.transferOwn;
            const float w = wt * wt;
            float limit[3];
            for (int c = 0; c < 3; ++c) {
                const float a = sh.simpleColor[c];
                const float x = own ? 1.0f + a : 1.0f;
                if (sh.stopTransparency < 1e-12f)
                    limit[c] = 1e22f;
                else if (a > 0.99f)
                    limit[c] = x / sh.stopTransparency - 1.0f;
                else
                    limit[c] = std::log(a + (1.0f - a) * x / sh.stopTransparency) / (1.0f - a);
            }
            float e[3] = {0, 0, 0};
            int steps = 0;
            bool dark = false;
            sh.marchShadow(*seg, illum, list, [&](const float alpha[3]) {
                if (++steps > MAX_SHADOW_STEPS) {
                    lumoLog("#::Shade - alpha cycle! pt:%f %f t:%f\n",
                            double(illum.imagePosition[0]), double(illum.imagePosition[1]), seg->t);
                    return true;
                }
                for (int c = 0; c < 3; ++c) e[c] += alpha[c] * s;
                dark = std::min(e[0] - limit[0] * w,
                                std::min(e[1] - limit[1] * w, e[2] - limit[2] * w)) > 0.0f;
                return dark;
            });
            if (dark) {
                set3(opacity, 1.0f, 1.0f, 1.0f);
                return;
            }
            for (int c = 0; c < 3; ++c) {
                E[c] += e[c] / w;
                Q[c] += e[c] / w * sh.simpleColor[c];
            }
        } else {
            // Plain road: the product of the steps' transparencies.
            float t[3] = {1.0f, 1.0f, 1.0f};
            bool dark = false;
            sh.marchShadow(*seg, illum, list, [&](const float alpha[3]) {
                for (int c = 0; c < 3; ++c) t[c] *= 1.0f - alpha[c] * s;
                dark = max3(t) < sh.stopTransparency;
                return dark;
            });
            if (dark) {
                set3(opacity, 1.0f, 1.0f, 1.0f);
                return;
            }
            for (int c = 0; c < 3; ++c) T[c] *= t[c];
        }
    }
    float g[3] = {1.0f, 1.0f, 1.0f};
    if (max3(E) > 0.0f && !(max3(E) < 1e-12f)) {
        for (int c = 0; c < 3; ++c) {
            const float a = E[c] > 0.0f ? Q[c] / E[c] : 0.0f;
            const float x = own ? 1.0f + a : 1.0f;
            if (a > 0.99f) {
                g[c] = x / (E[c] + 1.0f);
            } else {
                const float ed = E[c] * (1.0f - a);
                g[c] = ed >= 12.0f ? 0.0f : x * (1.0f - a) / (FastPow2(ed * LOG2_E) - a);
            }
        }
    }
    for (int c = 0; c < 3; ++c) opacity[c] = std::max(0.0f, 1.0f - T[c] * g[c]);
}

int VolumeShader::TraceVolumes(const double from[3],
                               const double to[3],
                               float color[3],
                               float transparency[3],
                               Illuminator& illum,
                               float time,
                               const VolumeShader* const* shaders,
                               int count,
                               bool wantsColor,
                               float gamma,
                               int samples) {
    SegmentList list;
    list.illuminator = &illum;
    list.wantsColor = wantsColor ? 1 : 0;
    list.probabilistic = wantsColor && samples > 0 ? 1 : 0;
    list.rayDepth = illum.GetRayDepth();
    list.time = time;
    if (BuildSegments(list, shaders, count, from, to, time)) return 0;
    if (!wantsColor) {
        float opacity[3] = {0.0f, 0.0f, 0.0f};
        if (list.count > 0) Shadow(list, opacity, illum, 0);
        for (int c = 0; c < 3; ++c) transparency[c] *= 1.0f - opacity[c];
        return 1;
    }
    if (list.count == 0) return 1;
    float result[3];
    if (list.probabilistic)
        ShadeProbabilistic(result, list, transparency, illum, samples);
    else
        Shade(result, list, transparency, illum);
    if (gamma != 1.0f && !(min3(transparency) < 1e-6f)) {
        for (int c = 0; c < 3; ++c)
            result[c] = std::pow(result[c] / transparency[c], gamma) * transparency[c];
    }
    for (int c = 0; c < 3; ++c) color[c] += result[c];
    return 1;
}

// ---------------------------------------------------------------------------------------------
// Gradients, heat haze and the iso-surface
// ---------------------------------------------------------------------------------------------

void VolumeShader::surfaceGradient(float out[3],
                                   const float p[3],
                                   int samplerKind,
                                   float time) const {
    auto value = [&](const float q[3]) {
        VolumeSample s;
        sample(s, q, SAMPLE_SURFACE, samplerKind, time);
        return s.surface;
    };
    if (flags & surfaceFromTexture) {
        // Forward differences of 0.01 from a start 0.01 below the point.
        const float start[3] = {p[0] - 0.01f, p[1] - 0.01f, p[2] - 0.01f};
        const float v0 = value(start);
        for (int a = 0; a < 3; ++a) {
            float q[3] = {start[0], start[1], start[2]};
            q[a] += 0.01f;
            out[a] = (value(q) - v0) * -50.0f;
        }
        return;
    }
    if (samplerKind == 0 && !(flags & hasDisplacement)) {
        // Box: across the nearest face of the cell, the axis of the nearest face.
        int axis = -1;
        float best = 2.0f;
        for (int a = 0; a < 3; ++a) {
            const float c = std::floor(p[a] + 0.5f);
            const float d = 0.5f - std::fabs(p[a] - c);
            if (d < best) {
                best = d;
                axis = a;
            }
        }
        zero3(out);
        if (axis < 0) return;
        float q0[3] = {p[0], p[1], p[2]}, q1[3] = {p[0], p[1], p[2]};
        const float face =
            std::floor(p[axis] + 0.5f) + (p[axis] >= std::floor(p[axis] + 0.5f) ? 0.5f : -0.5f);
        q0[axis] = face - 0.1f;
        q1[axis] = face + 0.1f;
        out[axis] = (value(q1) - value(q0)) * 0.5f;
        return;
    }
    for (int a = 0; a < 3; ++a) {
        float q0[3] = {p[0], p[1], p[2]}, q1[3] = {p[0], p[1], p[2]};
        q0[a] -= 0.0005f;
        q1[a] += 0.0005f;
        out[a] = (value(q1) - value(q0)) * 999.99994f;
    }
}

void VolumeShader::temperatureGradient(float out[3], const float p[3], float time) const {
    (void)time;
    zero3(out);
    if (!temperatureChannel) return;
    const float h = sampler == 0 ? 0.1f : 0.01f;
    for (int a = 0; a < 3; ++a) {
        float q0[3] = {p[0], p[1], p[2]}, q1[3] = {p[0], p[1], p[2]};
        q0[a] -= h;
        q1[a] += h;
        out[a] = (readLinear(temperatureChannel, gridSize, wrapMask, q1) -
                  readLinear(temperatureChannel, gridSize, wrapMask, q0)) /
                 (2.0f * h);
    }
}

bool VolumeShader::Refract(float dir[3], const float position[3], float length, float time) const {
    float g[3];
    temperatureGradient(g, position, time);
    const float gd = g[0] * dir[0] + g[1] * dir[1] + g[2] * dir[2];
    float nd[3];
    for (int a = 0; a < 3; ++a) nd[a] = dir[a] + (g[a] - dir[a] * gd) * hazeFactor * length;
    const float len = std::sqrt(nd[0] * nd[0] + nd[1] * nd[1] + nd[2] * nd[2]);
    const float big = std::max(std::fabs(nd[0]), std::max(std::fabs(nd[1]), std::fabs(nd[2])));
    if (!(1e18f * len > big) || len == 0.0f) return false;
    float change = 0.0f;
    for (int a = 0; a < 3; ++a) {
        nd[a] /= len;
        change += (nd[a] - dir[a]) * (nd[a] - dir[a]);
        dir[a] = nd[a];
    }
    return change > 1e-6f;
}

double VolumeShader::RefineSurface(const double o[3],
                                   const float d[3],
                                   double t0,
                                   float v0,
                                   double t1,
                                   float v1,
                                   int samplerKind,
                                   float time) const {
    auto value = [&](double t) {
        const float p[3] = {float(o[0] + double(d[0]) * t), float(o[1] + double(d[1]) * t),
                            float(o[2] + double(d[2]) * t)};
        VolumeSample s;
        sample(s, p, SAMPLE_SURFACE, samplerKind, time);
        return s.surface - surfaceLevel;
    };
    double a = t0, b = t1;
    float fa = v0 - surfaceLevel, fb = v1 - surfaceLevel;
    const double span = std::fabs(static_cast<double>(fb - fa));
    double t = a;
    for (int it = 0; it < 20; ++it) {
        // Regula falsi, or bisection when the fraction would barely move.
        double f = fa != fb ? static_cast<double>(fa) / static_cast<double>(fa - fb) : 0.5;
        const double smaller = std::min(f, 1.0 - f);
        if (smaller < 0.3 * 0.5 && it > 0) f = 0.5;
        t = a + (b - a) * f;
        const float ft = value(t);
        if (std::fabs(static_cast<double>(ft)) < span * 1e-6) break;
        if ((ft > 0.0f) == (fa > 0.0f)) {
            a = t;
            fa = ft;
        } else {
            b = t;
            fb = ft;
        }
    }
    return t;
}

bool VolumeShader::FindSurface(const double o[3],
                               const float d[3],
                               double tMax,
                               float step,
                               float normalOut[3],
                               int sides,
                               int samplerKind,
                               float time,
                               double& tHit,
                               bool& insideOut,
                               bool onCellFaces) const {
    // Clip to the box, noting the entry axis.
    double t0 = 0.0, t1 = tMax;
    int entryAxis = -1;
    for (int a = 0; a < 3; ++a) {
        if (d[a] == 0.0f) {
            if (o[a] < double(boundingBox[a]) || o[a] > double(boundingBox[a + 3])) return false;
            continue;
        }
        double ta = (double(boundingBox[a]) - o[a]) / double(d[a]),
               tb = (double(boundingBox[a + 3]) - o[a]) / double(d[a]);
        if (ta > tb) std::swap(ta, tb);
        if (ta > t0) {
            t0 = ta;
            entryAxis = a;
        }
        t1 = std::min(t1, tb);
    }
    if (t0 > t1 || step <= 0.0f) return false;
    auto value = [&](double t) {
        const float p[3] = {float(o[0] + double(d[0]) * t), float(o[1] + double(d[1]) * t),
                            float(o[2] + double(d[2]) * t)};
        VolumeSample s;
        sample(s, p, SAMPLE_SURFACE, samplerKind, time);
        return s.surface;
    };
    float v = value(t0);
    bool inside = v > surfaceLevel;
    if (inside && (sides & 2) && entryAxis >= 0) {
        tHit = t0;
        insideOut = false;
        zero3(normalOut);
        normalOut[entryAxis] = d[entryAxis] > 0.0f ? -1.0f : 1.0f;
        return true;
    }
    double t = t0;
    int rounds = 0;
    while (t < t1 && rounds++ < 10000000) {
        double tn = t + static_cast<double>(step);
        if (onCellFaces) {
            double face = 1e30;
            for (int a = 0; a < 3; ++a) {
                if (d[a] == 0.0f) continue;
                const double p = o[a] + double(d[a]) * t;
                const double next = d[a] > 0.0f ? std::floor(p) + 1.0 : std::ceil(p) - 1.0;
                face = std::min(face, (next - o[a]) / double(d[a]));
            }
            if (face > t + 1e-9) tn = std::min(tn, face);
        }
        tn = std::min(tn, t1);
        const float vn = value(tn);
        const bool insideN = vn > surfaceLevel;
        if (insideN != inside && (sides & (insideN ? 1 : 2))) {
            tHit = RefineSurface(o, d, t, v, tn, vn, samplerKind, time);
            insideOut = inside;
            const float p[3] = {float(o[0] + double(d[0]) * tHit),
                                float(o[1] + double(d[1]) * tHit),
                                float(o[2] + double(d[2]) * tHit)};
            float g[3];
            surfaceGradient(g, p, samplerKind, time);
            float n[3] = {-g[0], -g[1], -g[2]};
            float len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
            if (!(len > 0.0f)) {
                set3(n, -d[0], -d[1], -d[2]);
                len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
            }
            for (int a = 0; a < 3; ++a) n[a] /= len;
            // The normal faces the side the ray comes from.
            const float facing = n[0] * d[0] + n[1] * d[1] + n[2] * d[2];
            if (facing > 0.0f)
                for (int a = 0; a < 3; ++a) n[a] = -n[a];
            std::memcpy(normalOut, n, sizeof n);
            return true;
        }
        inside = insideN;
        v = vn;
        if (tn >= t1) break;
        t = tn;
    }
    return false;
}

}  // namespace vaporix
