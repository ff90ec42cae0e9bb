// Textures of the shader's slots: colour at a point in object space and time, and the small set
// of procedural 3D textures (gradient noise, turbulence, cellular, constant) read from a text.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace vaporix {

/// A colour field over object space. Evaluated by render threads at once: implementations are
/// immutable after construction.
class Texture {
public:
    virtual ~Texture();
    /// Colour at `p` (object space) at `time` (seconds).
    virtual void evaluate(float out[3], const float p[3], float time) const = 0;
};

/// The texture slots of a grid object, in the order of the shader's texture kinds.
enum TextureSlot : int {
    TEX_EMISSION = 0,  ///< `etxt`
    TEX_DIFFUSE,       ///< `dtxt`
    TEX_OPACITY,       ///< `ttxt`
    TEX_SURFACE,       ///< `stex`
    TEX_DISPL0,        ///< `displ0`
    TEX_DISPL1,        ///< `displ1`
    TEX_DISPL2,        ///< `displ2`
    TEXTURE_SLOTS = 8  ///< one slot stays free
};

/// Parameter name of a slot ("etxt" ... "displ2"); null for the free slot or a bad index.
const char* textureSlotName(int slot);
/// Slot of a parameter name; -1 when the name is no texture slot.
int textureSlotOf(const std::string& name);

/// What the procedural textures share: the point is mapped by p' = (p + drift * time) * scale +
/// offset before the pattern is read, and the pattern's value v in 0..1 gives the colour
/// low + (high - low) * v.
struct ProceduralSettings {
    float scale[3] = {1.0f, 1.0f, 1.0f};
    float offset[3] = {0.0f, 0.0f, 0.0f};
    float drift[3] = {0.0f, 0.0f, 0.0f};
    float low[3] = {0.0f, 0.0f, 0.0f};
    float high[3] = {1.0f, 1.0f, 1.0f};
    int octaves = 1;
    float lacunarity = 2.0f;
    float gain = 0.5f;
    /// Cellular: how far feature points stray from their cell's centre (0..1).
    float jitter = 1.0f;
    uint32_t seed = 0;
};

/// Perlin-style gradient noise of period 256 on every axis, in about -1..1; 0 at lattice points.
float gradientNoise(const float p[3], uint32_t seed);
/// Fractal sum of gradient noise over `octaves`, each `lacunarity` times finer and `gain` times
/// weaker, divided by the sum of the weights: about -1..1.
float fbmNoise(const float p[3], int octaves, float lacunarity, float gain, uint32_t seed);
/// The same sum over |noise|: 0..1.
float turbulenceNoise(const float p[3], int octaves, float lacunarity, float gain, uint32_t seed);
/// Distance to the nearest feature point (one per unit cell, placed by a hash), limited to 1.
float cellularNoise(const float p[3], float jitter, uint32_t seed);

/// Reads a texture description: KIND[:KEY=VALUE[,KEY=VALUE]...], a value of several numbers
/// written comma-separated (`noise:scale=2,offset=1,2,3,octaves=4`). Kinds and keys:
///   noise, turbulence  scale, offset, drift, low, high, octaves (1..16), lacunarity, gain, seed
///   cellular           scale, offset, drift, low, high, jitter (0..1), seed
///   constant           value (one number or R,G,B)
/// scale, offset, drift, low, high and value take one number (for all three) or three.
/// @return the texture, or null with `error` saying why.
std::shared_ptr<const Texture> parseTextureSpec(const std::string& text, std::string& error);

}  // namespace vaporix
