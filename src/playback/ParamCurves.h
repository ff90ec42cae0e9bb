// Curves and gradients as the parameter blocks keep them: table names by channel, and the
// reading and writing of MultiCurve and ColorGradient from and to their three tables.
#pragma once

#include <string>

#include "editors/ColorGradient.h"
#include "editors/MultiCurve.h"
#include "playback/VaporixParams.h"

namespace vaporix {

/// The channels that own curves and gradients, in the order of their tables.
constexpr int CURVE_CHANNELS[4] = {1, 2, 3, 10};

/// Suffix of a channel's tables: "t" temperature (1), "s" smoke (2), "v" speed (3), "f" fuel
/// (10); null for any other channel.
const char* channelSuffix(int channel);

/// "epower_t.epower_t_p" and the like: `family` "epower" or "tpower", `part` 'p', 'v' or 'i'.
/// Empty for a channel without tables.
std::string curveTableName(const char* family, int channel, char part);
/// "ecolor_t.ecolor_tp" and the like: `family` "ecolor" or "dcolor", `part` 'p', 'c' or 'i'.
std::string gradientTableName(const char* family, int channel, char part);
/// Old flat forms: "epower_t" or "transp_t" (Point3 tables of curve points).
std::string oldCurveName(const char* family, int channel);
/// Old flat forms: "ecolorx_t" (positions) and "ecolory_t" (colours); `axis` 'x' or 'y'.
std::string oldGradientName(const char* family, int channel, char axis);

/// Reads a curve from its three tables at `time`: the points in order, then rebuild(). False
/// (and `out` untouched) for a channel without tables or tables of unequal length.
bool readCurve(
    const VaporixParams& params, const char* family, int channel, double time, MultiCurve& out);
/// Writes all points of a curve to its three tables.
bool writeCurve(
    VaporixParams& params, const char* family, int channel, double time, const MultiCurve& curve);

/// Reads a gradient from its position and colour tables (the interpolation table is not
/// needed to evaluate). False for a channel without tables or tables of unequal length.
bool readGradient(
    const VaporixParams& params, const char* family, int channel, double time, ColorGradient& out);
/// Writes a gradient; every item of the interpolation table gets `interpolation`.
bool writeGradient(VaporixParams& params,
                   const char* family,
                   int channel,
                   double time,
                   const ColorGradient& gradient,
                   int interpolation = 3);

}  // namespace vaporix
