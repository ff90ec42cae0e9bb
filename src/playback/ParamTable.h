// The declaration of every parameter of a grid object: ids, names, types, defaults, ranges and
// controls of the render and preview blocks, in one table that everything else reads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "playback/ParamTypes.h"

namespace vaporix {

/// Flag bits of a parameter.
enum ParamFlag : uint16_t {
    PF_ANIMATABLE = 1,  ///< the host can key it
    PF_TAB = 2,         ///< an array whose length can change
    PF_TRANSIENT = 4,   ///< not stored with the scene (host flag 0x8000)
    PF_ASK_DEFAULT = 8  ///< the default comes from VaporixDefaults, the table gives the fallback
};

/// The kind of control that shows a parameter.
enum class ControlKind : uint8_t { None, Spinner, Combo, Check, Swatch, Edit, MapButton, NodePick };

const char* controlKindName(ControlKind k);

/// The default of a parameter: numbers in `v` (one for Int, Bool, Float; three for Point3),
/// text in `s`. Without `given` the host's zero value applies.
struct ParamDefault {
    double v[3] = {0.0, 0.0, 0.0};
    const char* s = nullptr;
    bool given = false;
};

/// The limits a value is clamped to when set (each component of a Point3).
struct ParamRange {
    double min = 0.0;
    double max = 0.0;
    bool given = false;
};

/// Where a parameter shows: rollout map, control and its resource ids (edit, spinner, ...).
struct ParamUi {
    int map = -1;
    ControlKind kind = ControlKind::None;
    int ids[6] = {0, 0, 0, 0, 0, 0};
    int idCount = 0;
    int spinStep = 0;  ///< 0: automatic scale
};

/// One parameter of a block.
struct ParamDef {
    int id = 0;
    const char* name = nullptr;
    ParamType type = ParamType::Int;
    uint16_t flags = 0;
    ParamDefault def;
    ParamRange range;
    ParamUi ui;
    const char* label = nullptr;
    /// Combo values as "value=Text;value=Text"; without a list the item index is the value.
    const char* values = nullptr;

    bool isTab() const { return (flags & PF_TAB) != 0; }
    bool isAnimatable() const { return (flags & PF_ANIMATABLE) != 0; }
    bool isTransient() const { return (flags & PF_TRANSIENT) != 0; }
};

/// One entry of a combo's value list.
struct ParamChoice {
    int value = 0;
    std::string text;
};
std::vector<ParamChoice> paramChoices(const ParamDef& def);

/// Block ids as the host numbers them.
constexpr int RENDER_BLOCK_ID = 4660;
constexpr int PREVIEW_BLOCK_ID = 4662;
/// The version of the parameter set written today; older sets are brought up by the upgrade.
constexpr int PARAMS_VERSION = 29;

struct ParamBlockDef {
    int id;
    const char* name;
    int referenceIndex;
    const ParamDef* params;
    int count;
};

/// The two blocks, render first: a name is searched in that order.
const ParamBlockDef& renderBlock();
const ParamBlockDef& previewBlock();
constexpr int PARAM_BLOCK_COUNT = 2;
const ParamBlockDef& paramBlock(int index);

/// The rollouts of the blocks: map id, dialog id and title ("" when the dialog has none).
struct ParamRollout {
    int map;
    int dialog;
    const char* title;
};
const std::vector<ParamRollout>& paramRollouts();

/// A parameter by name, render block first; null when no block holds it. `blockIndex` and
/// `paramIndex` receive its place when given.
const ParamDef* findParamDef(const std::string& name,
                             int* blockIndex = nullptr,
                             int* paramIndex = nullptr);
/// A parameter by block id and parameter id, or null.
const ParamDef* findParamDefById(int blockId, int id);

/// The enable rules: a check box that greys the listed parameters (by id, same block) while off.
struct ParamEnableRule {
    int blockId;
    const char* check;
    std::vector<int> greyed;
};
const std::vector<ParamEnableRule>& paramEnableRules();

}  // namespace vaporix
