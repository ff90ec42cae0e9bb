// The steps that bring the parameters of an older scene up to the present version.
#pragma once

#include <functional>
#include <string>

#include "playback/ParamTypes.h"
#include "playback/VaporixParams.h"

namespace vaporix {

/// What some steps need from outside the parameters. Every member may be empty: the step
/// that needs it then leaves its parameters as they are.
struct UpgradeContext {
    /// Luminance Y of the black-body XYZ row at a temperature in Kelvin (step 15).
    std::function<float(float kelvin)> blackbodyLuminance;
    /// The frame pattern found for an old folder or name prefix, or empty (step 8).
    std::function<std::string(const std::string& prefix)> findSequenceByPrefix;
    /// The expanded cache path of a kind (101 for step 19).
    std::function<std::string(int kind)> cachePath;
    /// The default channel map of a cache path (step 19).
    std::function<std::string(const std::string& path)> defaultChannelMap;
    /// The scene's only node of class (0xABA5ED, 0x30), or 0 when there is none or several
    /// (step 10).
    std::function<NodeHandle()> onlyLightNode;
    /// Asks the host to refresh the object (step 23).
    std::function<void()> refresh;
};

/// Runs the step that belongs to `version` (1 to 29); versions without a step do nothing.
/// @return true when `version` has a step.
bool runUpgradeStep(int version, VaporixParams& params, const UpgradeContext& context);

/// Runs the steps of every version above `fromVersion` in ascending order, then sets `version`
/// to the present one. @return the number of steps run.
int upgradeParams(VaporixParams& params, int fromVersion, const UpgradeContext& context);

/// Flag values kept in the third component of the points of old emissive and transparency
/// curves.
constexpr float OLD_EMISSIVE_CURVE_FLAG = 16.0f;
constexpr float OLD_TRANSPARENCY_CURVE_FLAG = 4.0f;

}  // namespace vaporix
