// The shading tables of a grid object: emission, own opacity, diffuse colour and opacity baked
// from the user's curves and gradients into 8000 rows over each channel's value range.
#pragma once

#include "foundation/iArray.h"
#include "playback/ParamTypes.h"
#include "playback/VaporixParams.h"

namespace vaporix {

/// Rows of every shading table.
constexpr int SHADING_TABLE_ROWS = 8000;

struct TableColor {
    float r = 0.0f;
    float g = 0.0f;
    float b = 0.0f;
};

/// A channel's value range as the tables use it: row i stands for (i / 8000) * span + min.
struct TableRange {
    float min = 0.0f;
    float span = 1.0f;
};

/// Where the tables find a frame's channel ranges (the frame itself in a render).
class IChannelRangeSource {
public:
    virtual ~IChannelRangeSource() = default;
    /// False when the channel is absent.
    virtual bool getChannelRange(int channel, float& min, float& max) = 0;
};

/// The host's exposure control, where there is one.
class IExposureControl {
public:
    virtual ~IExposureControl() = default;
    /// The physical scale of the exposure at a time.
    virtual float physicalScale(TimeValue t) const = 0;
};

/// What the host gives the table builders besides the parameters.
struct ShadingInputs {
    /// The exposure's physical scale, used as 1 / value (see PhysicalScale).
    float physicalScale = 1500.0f;
    /// Extinction scale of the object (see SceneScale).
    float sceneScale = 1.0f;
};

/// The physical scale of the exposure control; 1500 when the scene has none.
float PhysicalScale(const IExposureControl* exposure, double time);
/// 3 divided by the sum of the lengths of the three axes of the object's transform (four rows
/// of three floats, row vectors); 1 without an object. A grid scaled up by two keeps its look.
float SceneScale(const float* objectTransform);

/// Temperature per unit of a mapping argument: 1 temperature, 3000 smoke, 10 speed, 3000 fuel;
/// 0 for arguments that are no channel.
float temperatureScale(int argument);

/// The range of a mapping argument in a frame: the channel's value range; (0, 1) for an absent
/// channel or an argument that is no channel (texture, RGB, disabled).
TableRange argumentRange(IChannelRangeSource* frame, int argument);

/// The tables of one grid object. A table is allocated on first need and kept; a shader points
/// at them and never owns them. Rows are computed on one thread.
class ShadingTables {
public:
    iArray<TableColor> emissionColorTable;
    iArray<float> emissionPowerTable;
    iArray<TableColor> diffuseColorTable;
    iArray<float> opacityTable;
    TableRange emissionRange;
    TableRange diffuseRange;
    TableRange opacityRange;
    TableRange surfaceRange;

    /// Takes the ranges of `earg`, `darg`, `targ` and `sarg` from the frame (null: all (0, 1)).
    void setRanges(const VaporixParams& params, double time, IChannelRangeSource* frame);

    /// Emission colour for `fire_opacity_mode` 0 and 1.
    /// @return 1 when built, 0 when left as it was (no curve or gradient for `earg`, tables of
    /// unequal length), -1 when memory ran out.
    int BuildEmissionTable(const VaporixParams& params, double time, const ShadingInputs& in);
    /// `fire_opacity_mode` 2: own opacity (log transparency per unit length) and colour.
    int BuildEmissionOwnOpacityTable(const VaporixParams& params,
                                     double time,
                                     const ShadingInputs& in);
    int BuildDiffuseTable(const VaporixParams& params, double time);
    /// Nothing is done when `targ` is 0.
    int BuildOpacityTable(const VaporixParams& params, double time, const ShadingInputs& in);

    /// The per-frame build: the emission table of the fire's opacity mode, then diffuse, then
    /// opacity.
    void buildFrameTables(const VaporixParams& params, double time, const ShadingInputs& in);

    /// The raw channel value of row i in a range.
    static float rowValue(const TableRange& range, int row) {
        return static_cast<float>(row) / static_cast<float>(SHADING_TABLE_ROWS) * range.span +
               range.min;
    }
    /// The row of a normalised argument: floor(a * 8000 + 0.5), clamped to 0..7999.
    static int rowOf(float argument);
};

/// Default curves and gradients of a channel (1, 2, 3 or 10), or of all four with -1, which
/// also resets the plain parameters of the rollout (fire, smoke colour, smoke opacity).
void ResetEmission(VaporixParams& params, int channel);
void ResetDiffuse(VaporixParams& params, int channel);
void ResetOpacity(VaporixParams& params, int channel);

/// Which textures exist for the mapping arguments.
struct ShaderTextures {
    bool emission = false;  ///< `etxt`
    bool diffuse = false;   ///< `dtxt`
    bool opacity = false;   ///< `ttxt`
    bool surface = false;   ///< `stex`
};

/// What a shader receives of the tables and the mapping switches.
struct ShaderTableSelection {
    const TableColor* emissionColorTable = nullptr;
    const float* emissionPowerTable = nullptr;
    const TableColor* diffuseColorTable = nullptr;
    const float* opacityTable = nullptr;
    TableRange opacityRange;
    /// `simple_color` without a diffuse table, else the mean of its rows.
    TableColor simpleColor;
    bool hasEmission = false;
    bool hasDiffuse = false;
    bool emissionFromTexture = false;
    bool diffuseFromTexture = false;
    bool opacityFromTexture = false;
    bool surfaceFromTexture = false;
    /// The opacity argument after its substitutions (0 when a texture is missing).
    int opacityArgument = 0;
    /// The channel whose values drive opacity (smoke for simple smoke).
    int opacityChannel = 0;
    /// Channels 7, 8, 9 (RGB) are fetched too.
    bool fetchRGB = false;
    /// Bit 0 emission, bit 1 diffuse, 0x70 the three RGB components.
    int shadeChannelMask = 0;
    /// Surface remap (offset, scale): mirrored around the level with `solidbelow`.
    float surfaceRemapOffset = 0.0f;
    float surfaceRemapScale = 1.0f;
};

ShaderTableSelection selectShaderTables(const VaporixParams& params,
                                        double time,
                                        const ShadingTables& tables,
                                        const ShaderTextures& textures);

}  // namespace vaporix
