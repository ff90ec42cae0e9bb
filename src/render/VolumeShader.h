// The ray marcher of a grid object: clips a ray to the grid, steps through it in grid space,
// turns channel values into emission, colour and opacity through the shading tables, asks an
// Illuminator for light, and merges the segments of several grids crossed by one ray in depth
// order.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>

#include "cache/GridTransform.h"
#include "render/Displacement.h"
#include "render/MotionBlur.h"
#include "render/ShadingTables.h"
#include "render/Texture.h"

namespace vaporix {

class VaporixFrameData;
class VolumeShader;
struct VolumeSegment;
struct SegmentList;

/// 2^p, approximated: the only exponent of the marcher. Relative error under about 1e-4 for
/// p in [-126, 128]; p = 128 gives the largest finite float. A rational fit of 2^fraction put
/// together with the integer part in the float's bits; inline because every marching step
/// calls it.
inline float FastPow2(float p) {
    // The only limit keeps the integer conversion defined (it would overflow a little above
    // 128.9); up to there the bits are the fit's own. Extinction never comes near.
    if (p > 128.9f) p = 128.9f;
    const float c = p < -126.0f ? -126.0f : p;
    const int w = static_cast<int>(c);
    const float off = p < 0.0f ? 1.0f : 0.0f;
    const float z = c - static_cast<float>(w) + off;
    const float v =
        8388608.0f * (c + 121.27405548f + 27.72802353f / (4.84252548f - z) - 1.49012911f * z);
    const uint32_t bits = static_cast<uint32_t>(static_cast<int32_t>(v));
    float out;
    std::memcpy(&out, &bits, 4);
    return out;
}

/// ln 2 inverse: opacity of a step of world length L for extinction k (negative) is
/// 1 - FastPow2(k * L * LOG2_E).
constexpr float LOG2_E = 1.44269502f;

/// Render elements (channels) an illuminator can ask for, as bits of `Illuminator::elements`.
enum RenderElement : int {
    RE_ATMOSPHERE = 0,
    RE_BACKGROUND,
    RE_DIFFUSE,
    RE_LIGHTING,
    RE_RAW_LIGHTING,
    RE_RAW_GI,
    RE_SELF_ILLUMINATION,
    RE_SHADOW,
    RE_ALPHA,
    RE_REFLECTION,
    RE_REFRACTION,
    RE_ZDEPTH,
    RE_NORMALS,
    RE_VELOCITY,
    RE_EMISSION,
    RENDER_ELEMENT_COUNT
};

/// Bits of `Illuminator::mode`: what kind of ray is being traced.
enum IlluminatorMode : uint8_t {
    IM_FORCED_SAMPLING = 1 << 0,  ///< cache fill or forced sampling: light directly
    IM_CACHE_FILL = 1 << 1,       ///< light cache fill
    IM_GI_MULTIPLIER = 1 << 2,    ///< GI ray multiplier in force
    IM_CAMERA = 1 << 3,           ///< camera ray of this object
    IM_SCATTER = 1 << 4,          ///< scattering ray
    IM_GI = 1 << 5,               ///< GI ray
    IM_CAUSTIC = 1 << 6,          ///< caustics or second GI ray
    IM_SHADOW = 1 << 7            ///< shadow ray
};

/// Bits of `VolumeShader::renderFlags`: how the object shows to the renderer's kinds of ray.
enum ShaderRenderFlag : uint32_t {
    RF_GI_VISIBLE = 1 << 0,     ///< shaded for GI rays and bounces
    RF_GI_IRRADIANCE = 1 << 1,  ///< lit by the renderer's GI engine too
    RF_NO_SHADOWS = 1 << 2,     ///< invisible to rays that want no colour (casts no shadow)
    RF_LIT_BY_SCATTER = 1 << 4  ///< lit when reached by a scattering ray
};

/// Bits of a sample mask: which arguments a sample needs.
enum SampleBit : uint32_t {
    SAMPLE_EMISSION = 1 << 0,
    SAMPLE_DIFFUSE = 1 << 1,
    SAMPLE_OPACITY = 1 << 2,
    SAMPLE_SURFACE = 1 << 3,
    SAMPLE_RGB = 0x70,
    SAMPLE_NO_DISPLACEMENT = 0x100,
    SAMPLE_RAW = 0x200  ///< arguments are not remapped to 0..1
};

/// The arguments of one sample point.
struct VolumeSample {
    float emission = 0.0f;
    float diffuse = 0.0f;
    float opacity = 0.0f;
    float surface = 0.0f;
    float rgb[3] = {0.0f, 0.0f, 0.0f};
    float position[3] = {0.0f, 0.0f, 0.0f};  ///< after displacement
};

/// Bits of `VolumeSegment::state`.
enum SegmentState : uint8_t {
    SEG_LAST_STEP = 1 << 0,     ///< the step that ends at tEnd was taken
    SEG_SHADED = 1 << 1,        ///< the segment returns colour
    SEG_PROBABILISTIC = 1 << 3  ///< colour is computed lazily (probabilistic road)
};

/// One ray interval inside one shader. Lives in the ray's SegmentList.
struct VolumeSegment {
    uint8_t state = 0;
    const VolumeShader* shader = nullptr;
    float dirLength = 0.0f;
    float invDirLength = 0.0f;
    float color[3] = {0.0f, 0.0f, 0.0f};  ///< colour of the current step, times alpha and step
    float alpha[3] = {0.0f, 0.0f, 0.0f};  ///< per-channel opacity of the current step
    double origin[3] = {0.0, 0.0, 0.0};   ///< grid space
    float dir[3] = {0.0f, 0.0f, 0.0f};    ///< grid space, not normalised
    float invDir[3] = {0.0f, 0.0f, 0.0f};
    int32_t dirSign[3] = {0, 0, 0};
    double t = 0.0;
    double tEnd = 0.0;
    double tStart = 0.0;  ///< where the segment opens (its order in the list)
    float xi = 0.0f;
    float transmit[3] = {1.0f, 1.0f, 1.0f};
    float position[3] = {0.0f, 0.0f, 0.0f};  ///< last accepted sample point
    float stepWorld = 0.0f;
    float ownAlphaUsed = 0.0f;
    float invAlpha = 0.0f;
    float time = 0.0f;
    VolumeSegment* next = nullptr;
    float worldPerUnit = 0.0f;
    bool started = false;  ///< the first call of NextStep happened

    // Fixed for the whole segment, worked out by its first step.
    double stepT = 0.0;       ///< ray parameter of one step
    float stepLength = 0.0f;  ///< world length of one step
    uint32_t sampleMask = 0;  ///< arguments each step samples
    int8_t samplerKind = 1;   ///< 0 Box, 1 Linear, 2 Spherical
    bool prob = false;        ///< the probabilistic test is on
    bool fastLinear = false;  ///< plain trilinear reads of channels (no wrap, no offsets)
};

/// The door of the marcher to lights, random numbers and render elements. One per ray (or per
/// thread); the renderer or a test implements `Illuminate`.
class Illuminator {
public:
    virtual ~Illuminator();

    /// Light arriving at a grid space point of the current shader, multiplied by `diffuse`.
    /// `alphaOut` and `normalOut` may be null.
    virtual void Illuminate(float out[3],
                            const float position[3],
                            const float diffuse[3],
                            float* alphaOut,
                            float* normalOut) = 0;
    /// Depth of the ray in the renderer's tree (0 for camera rays).
    virtual int GetRayDepth() { return 0; }
    /// A random number in [0, 1): a linear congruential generator on `seed`.
    virtual float Random();
    virtual void SetShader(const VolumeShader* shader) { currentShader = shader; }
    virtual void BeginShade(int first) { (void)first; }
    /// Hands the accumulated render elements to the renderer.
    virtual void EndShade() {}
    /// The atmosphere between the eye and a step, applied to the step's colour.
    virtual void ApplyAtmosphere(float color[3], const VolumeSegment& segment) {
        (void)color;
        (void)segment;
    }
    virtual void GetDifferentials(float out[3]) { out[0] = out[1] = out[2] = 0.0f; }
    virtual float GetRayFootprint() { return 0.0f; }

    /// Render elements asked for (bits of RenderElement).
    uint32_t elements = 0;
    /// Kind of ray (IlluminatorMode bits).
    uint8_t mode = 0;
    /// Shaders whose render flags share a bit with this word are skipped.
    uint32_t excludeFlags = 0;
    /// Jitter of the step start in the current segment, in [0, 1).
    float jitterValue = 0.0f;
    uint32_t seed = 0;
    /// Per element colour sums.
    float elementColor[RENDER_ELEMENT_COUNT][3] = {};
    /// Image position of the ray, for messages.
    float imagePosition[2] = {0.0f, 0.0f};
    /// Transparency reached so far along the ray (told by Shade after each step).
    float transparency[3] = {1.0f, 1.0f, 1.0f};
    /// Raised by ShadeProbabilistic for each shaded hit.
    int sampleCount = 0;
    /// Statistics of the rays traced with this illuminator: positions the steps looked at, and
    /// those of them that read the grid (the others lay in blocks known to be empty).
    uint64_t stepsTaken = 0;
    uint64_t samplesTaken = 0;
    const VolumeShader* currentShader = nullptr;
};

/// The per-ray context of the marcher: the segments of all shaders crossed by one ray. The
/// first 16 segments live inside the list (on the ray's stack), more on the heap.
struct SegmentList {
    static constexpr int INLINE_SEGMENTS = 16;

    int32_t count = 0;
    double farthest = 0.0;
    int wantsColor = 0;
    int probabilistic = 0;
    int sawCamera = 0;
    Illuminator* illuminator = nullptr;
    VolumeSegment* first = nullptr;
    const VolumeShader* shader = nullptr;
    int rayDepth = 0;
    float time = 0.0f;

    SegmentList() = default;
    SegmentList(const SegmentList&) = delete;
    SegmentList& operator=(const SegmentList&) = delete;
    ~SegmentList();

    /// A fresh segment from the pool; null when memory ran out.
    VolumeSegment* allocate();

private:
    // Raw room for the inline segments: a segment is made when it is handed out, so a ray that
    // crosses one grid pays for one segment, not sixteen.
    alignas(VolumeSegment) unsigned char mInline[INLINE_SEGMENTS * sizeof(VolumeSegment)];
    VolumeSegment** mBlocks = nullptr;  ///< heap blocks of INLINE_SEGMENTS segments each
    int mBlockCount = 0;
    int mUsed = 0;
};

/// What SetupShader needs besides the parameters and the frame.
struct ShaderSetup {
    /// The object's transform: object to world (row vectors). Rays come in world space.
    GridTransform objectToWorld;
    /// The object's transform at the end of the motion blur interval (motion blur only).
    GridTransform objectToWorldEnd;
    /// Which textures exist for the mapping arguments (none in the stand-alone renderer).
    ShaderTextures textures;
    /// Visibility of the object to the renderer's kinds of ray (ShaderRenderFlag bits).
    uint32_t renderFlags = RF_GI_VISIBLE | RF_LIT_BY_SCATTER;
    /// Multiplier of the colour seen by GI rays.
    float giMultiplier = 1.0f;
    /// The renderer's motion blur is on: transforms follow the time and samples are offset.
    bool motionBlur = false;
};

/// The marcher of one grid object for one frame. Set up once per frame, then read-only for the
/// render (but for the light cache, which render threads fill lock-free).
class VolumeShader {
public:
    /// Bits of `flags`, byte by byte as bit (8 * byte + bit).
    enum ShaderFlag : uint32_t {
        hasEmission = 1u << 0,
        hasDiffuse = 1u << 1,
        heatHaze = 1u << 2,
        solidMode = 1u << 3,
        pureVolumetric = 1u << 4,
        hasDisplacement = 1u << 5,
        emissionFromTexture = 1u << 6,
        diffuseFromTexture = 1u << 7,
        opacityFromTexture = 1u << 8,
        surfaceFromTexture = 1u << 9,
        lightCacheOn = 1u << 10,
        jitter = 1u << 11,
        volumeReady = 1u << 12,
        motionBlurTM = 1u << 13,
        modulateEmission = 1u << 14,
        modulateDiffuse = 1u << 15,
        modulateOpacity = 1u << 16,
        probabilisticBounces = 1u << 17,
        invertGizmo = 1u << 19,
        applyAtmospherics = 1u << 20,
        probabilisticPrimary = 1u << 23,
        emissiveLightsOn = 1u << 25
    };

    VolumeShader();
    virtual ~VolumeShader();
    VolumeShader(const VolumeShader&) = delete;
    VolumeShader& operator=(const VolumeShader&) = delete;

    // Texture access; the renderer's bridge overrides these. Kinds: 0 emission, 1 diffuse,
    // 2 opacity, 3 surface, 4 to 6 displacement levels. By default they read `textures` at the
    // grid position taken to object space, at `textureTime`.
    virtual void EvalTexture(float outColor[3],
                             int kind,
                             const float sampleRGB[3],
                             const float position[3]) const;
    virtual bool HasTexture(int kind) const;
    /// The velocity channels at a grid position (trilinear, clamped); zero without them.
    virtual void EvalVelocity(float out[3], const float position[3]) const;

    /// Frees the per-frame caches, sets `volumeReady` and the box; allocates the light cache when
    /// it is asked for. Negative sizes count as 0.
    void InitVolume(const int size[3]);

    /// Fills every field from the parameters at `time`, the frame and its tables. The tables
    /// must have been built for this frame (ShadingTables::setRanges, buildFrameTables): the
    /// shader points at them and never owns them.
    void SetupShader(const VaporixParams& params,
                     const ShadingTables& tables,
                     VaporixFrameData& frame,
                     const ShaderSetup& setup,
                     double time,
                     bool preview);

    /// The top entry of a ray from `from` to `to` (world space) through `count` shaders.
    /// `color` receives (+=) the light of the volumes seen along the ray, already weighted by
    /// the transparency in front of them; `transparency` (in and out, 1 = clear) is multiplied
    /// by the volumes' transmittance. With `wantsColor` false only the transparency is computed
    /// (a shadow ray). `samples` > 0 asks for the probabilistic road with that many samples.
    /// @return 0 for a degenerate ray (nothing changes), 1 otherwise.
    static int TraceVolumes(const double from[3],
                            const double to[3],
                            float color[3],
                            float transparency[3],
                            Illuminator& illuminator,
                            float time,
                            const VolumeShader* const* shaders,
                            int count,
                            bool wantsColor,
                            float gamma = 1.0f,
                            int samples = 0);

    /// Clips the ray to each shader and fills the list in depth order.
    /// @return true when the ray is degenerate (shorter than 1e-6).
    static bool BuildSegments(SegmentList& list,
                              const VolumeShader* const* shaders,
                              int count,
                              const double from[3],
                              const double to[3],
                              float time);

    /// Colour and transparency along the list. `transparency` is the caller's and is updated.
    static void Shade(float result[3],
                      SegmentList& list,
                      float transparency[3],
                      Illuminator& illuminator);
    static void ShadeProbabilistic(float result[3],
                                   SegmentList& list,
                                   float transparency[3],
                                   Illuminator& illuminator,
                                   int samples);
    /// Opacity of the volumes along a shadow ray (`opacity` in and out).
    static void Shadow(SegmentList& list, float opacity[3], Illuminator& illuminator, int ownLight);

    /// One step of a segment. @return 1 with the step's `alpha` and `color`, 0 when the segment
    /// has ended.
    int NextStep(VolumeSegment& segment, Illuminator& illuminator, SegmentList& list) const;
    /// The colour of the segment's last accepted sample, shaded again (probabilistic road).
    void ShadeAgain(VolumeSegment& segment, Illuminator& illuminator, SegmentList& list) const;
    int NextStepProbabilistic(VolumeSegment& segment,
                              Illuminator& illuminator,
                              SegmentList& list) const;

    /// Samples the arguments in `mask` at a grid position.
    void sample(VolumeSample& out,
                const float position[3],
                uint32_t mask,
                int samplerKind,
                float time) const;

    /// Light at a grid position through the light cache, filling the corners it needs.
    void ReadLightCache(float out[3], const float position[3], Illuminator& illuminator) const;

    /// Gradient of the surface argument at a grid position.
    void surfaceGradient(float out[3], const float position[3], int samplerKind, float time) const;
    /// Gradient of the temperature at a grid position (heat haze): six-point difference.
    void temperatureGradient(float out[3], const float position[3], float time) const;
    /// Bends a grid space direction by the heat haze over a world length. @return true when
    /// the direction changed enough for the ray to restart.
    bool Refract(float dir[3], const float position[3], float length, float time) const;

    /// Iso-surface search along a grid space ray (origin, unit direction, length `tMax`).
    /// `sides`: bit 0 outside-in, bit 1 inside-out. @return true with the hit's t and normal.
    bool FindSurface(const double origin[3],
                     const float dir[3],
                     double tMax,
                     float step,
                     float normalOut[3],
                     int sides,
                     int samplerKind,
                     float time,
                     double& tHit,
                     bool& insideOut,
                     bool onCellFaces = false) const;
    /// Regula falsi between two points of the ray with surface values on either side.
    double RefineSurface(const double origin[3],
                         const float dir[3],
                         double t0,
                         float v0,
                         double t1,
                         float v1,
                         int samplerKind,
                         float time) const;

    // Transforms at a time (world <-> grid).
    void worldToGrid(const double in[3], double out[3], float time) const;
    void gridToWorld(const float in[3], float out[3], float time) const;
    /// World direction of a grid space direction (not normalised).
    void gridToWorldVector(const float in[3], float out[3], float time) const;

    /// Value of a table row for a normalised argument.
    static int tableRow(float argument) { return ShadingTables::rowOf(argument); }

    // Fields read by the render (see SetupShader).
    const TableColor* emissionColorTable = nullptr;
    const float* emissionPowerTable = nullptr;
    const TableColor* diffuseColorTable = nullptr;
    const float* opacityTable = nullptr;
    uint32_t flags = 0;
    int sampler = 2;
    float simpleColor[3] = {0.0f, 0.0f, 0.0f};
    float surfaceLevel = 1500.0f;
    float hazeFactor = 0.00001f;
    float smokeExtinction = -0.69314718f;
    float stopTransparency = 0.01f;
    float skipOpacity = 0.01f;
    float stepShade = 0.8f;
    float stepShadow = 2.0f;
    float diffuseMult = 1.0f;
    float transferExternal = 1.0f;
    float transferOwn = 1.0f;
    int fireOpacityMode = 0;
    float softBorder = 0.0f;
    int scatterMode = 2;
    float shadowStrength = 1.0f;
    float cellSize[3] = {1.0f, 1.0f, 1.0f};
    int maxBounces = 0x7fffffff;
    float subRed = 0.0f;
    int selfIllumOn = 0;
    float gridReduct = 1.0f;
    float selfIllumMinPower = 0.1f;
    int decayMode = 2;
    uint32_t shadeChannelMask = 0;
    int constantDiffuse = 0;
    int mbSmooth = 3;
    int displaceMode = 0;
    float displaceMult = 1.0f;
    float displaceFade = 1.0f;
    float fadeByVel = 1.0f;
    int volumeNormals = 0;
    int volumeZDepth = 0;
    float playSpeed = 1.0f;
    float velocityScale = 1.0f / 30.0f;
    float bias = 1.0f;
    /// Channel arrays per argument: emission, diffuse, opacity, surface; and the RGB channel.
    const float* channel[4] = {nullptr, nullptr, nullptr, nullptr};
    const float* rgbChannel[3] = {nullptr, nullptr, nullptr};
    /// The temperature channel, for the heat haze.
    const float* temperatureChannel = nullptr;
    /// Per argument (offset, scale): value * scale + offset turns a raw value into 0..1.
    float remapOffset[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    float remapScale[4] = {1.0f, 1.0f, 1.0f, 1.0f};
    /// Grid space box: [0, n] per axis.
    float boundingBox[6] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    int gridSize[3] = {0, 0, 0};
    float gridSizeF[3] = {0.0f, 0.0f, 0.0f};
    /// Wrap per axis (bits 0 to 2: x, y, z).
    int wrapMask = 0;
    /// Visibility to kinds of ray (ShaderRenderFlag bits).
    uint32_t renderFlags = RF_GI_VISIBLE | RF_LIT_BY_SCATTER;
    float giMultiplier = 1.0f;
    /// World to grid at the start and the end of the motion interval, and their inverses.
    GridTransform worldToGridTM[2];
    GridTransform gridToWorldTM[2];
    /// Object to grid rotation part, for normals.
    GridTransform normalTM;
    /// One bit per cell: set when the cell can be skipped (built by a pre-pass; may be null).
    const uint32_t* transparencyMap = nullptr;
    /// One RGB entry per cell; red -1 means not yet computed. Null when off.
    float* lightCache = nullptr;
    /// Blocks of 8x8x8 cells whose samples are certain to be empty (no opacity, no emission):
    /// one byte a block, 1 when empty; null when the set-up does not allow the test.
    uint8_t* emptyBlocks = nullptr;
    int blockCount[3] = {0, 0, 0};
    /// Cells per block edge, as a shift.
    static constexpr int EMPTY_BLOCK_SHIFT = 3;
    /// Self-illumination map and its reduction (null when none).
    const float* selfIllumMap = nullptr;
    int reducedSize[3] = {0, 0, 0};
    float reducedScale = 1.0f;

    /// Velocity channels x, y, z (null without them; see attachVelocity).
    const float* velocityChannel[3] = {nullptr, nullptr, nullptr};
    /// Motion blur of the frame (its field is built by a pre-pass).
    MotionBlur motionBlur;
    /// Displacement of the frame (built by a pre-pass; `hasDisplacement` when ready).
    Displacement displacement;
    /// The textures of the slots (TextureSlot order; null for an empty slot).
    std::shared_ptr<const Texture> textures[TEXTURE_SLOTS];
    /// Grid to object space, for the textures; the frame's time in seconds.
    GridTransform gridToObjectTM;
    float textureTime = 0.0f;

    /// Finds the blocks of cells that no sample can see (see `emptyBlocks`). SetupShader runs
    /// it; a pre-pass that changes what samples read runs it again.
    void buildEmptyBlocks();

private:
    /// Works out a segment's fixed step values at its first step. @return false when its step
    /// cannot move the ray on.
    bool startSegment(VolumeSegment& seg, Illuminator& illum) const;
    /// The steps of an unshaded segment, each handed to `onStep(alpha)` until it returns true
    /// or the segment ends.
    template <typename F>
    void marchShadow(VolumeSegment& seg, Illuminator& illum, SegmentList& list, F&& onStep) const;
    /// True when the block around a grid position is empty. Positions lie inside the box, give
    /// or take a rounding; they are clamped to the blocks.
    bool inEmptyBlock(const float pos[3]) const {
        int b[3];
        for (int a = 0; a < 3; ++a) {
            const int i = static_cast<int>(pos[a]) >> EMPTY_BLOCK_SHIFT;
            b[a] = i < 0 ? 0 : (i >= blockCount[a] ? blockCount[a] - 1 : i);
        }
        return emptyBlocks[b[0] +
                           int64_t(blockCount[0]) * (b[1] + int64_t(blockCount[1]) * b[2])] != 0;
    }

    void freeFrameData();
    float opacityOf(const VolumeSample& s, float stepWorld, float alpha[3]) const;
    void fullShade(VolumeSegment& segment,
                   Illuminator& illuminator,
                   SegmentList& list,
                   const VolumeSample& sample,
                   bool prob) const;
    void emissionOf(float out[3],
                    const VolumeSample& sample,
                    float stepWorld,
                    const SegmentList& list) const;
    void lightAt(float out[3],
                 const float position[3],
                 const float diffuse[3],
                 Illuminator& illuminator) const;

    uint64_t mLightCacheCells = 0;
};

}  // namespace vaporix
