// Curves and gradients as the parameter blocks keep them: table names by channel, and the
// reading and writing of MultiCurve and ColorGradient from and to their three tables.
#include "playback/ParamCurves.h"

namespace vaporix {

const char* channelSuffix(int channel) {
    switch (channel) {
        case 1:
            return "t";
        case 2:
            return "s";
        case 3:
            return "v";
        case 10:
            return "f";
        default:
            return nullptr;
    }
}

std::string curveTableName(const char* family, int channel, char part) {
    const char* c = channelSuffix(channel);
    if (!c || !family) return {};
    const std::string base = std::string(family) + "_" + c;
    return base + "." + base + "_" + part;
}

std::string gradientTableName(const char* family, int channel, char part) {
    const char* c = channelSuffix(channel);
    if (!c || !family) return {};
    const std::string base = std::string(family) + "_" + c;
    return base + "." + base + part;
}

std::string oldCurveName(const char* family, int channel) {
    const char* c = channelSuffix(channel);
    if (!c || !family) return {};
    return std::string(family) + "_" + c;
}

std::string oldGradientName(const char* family, int channel, char axis) {
    const char* c = channelSuffix(channel);
    if (!c || !family) return {};
    return std::string(family) + axis + "_" + c;
}

bool readCurve(
    const VaporixParams& params, const char* family, int channel, double time, MultiCurve& out) {
    const std::string p = curveTableName(family, channel, 'p');
    const std::string v = curveTableName(family, channel, 'v');
    const std::string i = curveTableName(family, channel, 'i');
    if (p.empty()) return false;
    const int n = params.getCount(p.c_str());
    if (params.getCount(v.c_str()) != n || params.getCount(i.c_str()) != n) return false;
    out.clear();
    for (int k = 0; k < n; ++k)
        out.insertPoint(k, params.getInt(i.c_str(), time, k), params.getFloat(p.c_str(), time, k),
                        params.getFloat(v.c_str(), time, k));
    out.rebuild();
    return true;
}

bool writeCurve(
    VaporixParams& params, const char* family, int channel, double time, const MultiCurve& curve) {
    const std::string p = curveTableName(family, channel, 'p');
    const std::string v = curveTableName(family, channel, 'v');
    const std::string i = curveTableName(family, channel, 'i');
    if (p.empty()) return false;
    const int n = curve.count();
    if (!params.setCount(p.c_str(), n) || !params.setCount(v.c_str(), n) ||
        !params.setCount(i.c_str(), n))
        return false;
    for (int k = 0; k < n; ++k) {
        params.setFloat(p.c_str(), time, curve.positions[k], k);
        params.setFloat(v.c_str(), time, curve.values[k], k);
        params.setInt(i.c_str(), time, curve.kinds[k], k);
    }
    return true;
}

bool readGradient(
    const VaporixParams& params, const char* family, int channel, double time, ColorGradient& out) {
    const std::string p = gradientTableName(family, channel, 'p');
    const std::string c = gradientTableName(family, channel, 'c');
    if (p.empty()) return false;
    const int n = params.getCount(p.c_str());
    if (params.getCount(c.c_str()) != n) return false;
    out.clear();
    // Keys go in as stored, then one sort (which recomputes the splines): a gradient from a
    // file may be out of order.
    for (int k = 0; k < n; ++k) {
        const Vector col = params.getVector(c.c_str(), time, k);
        if (!out.position.append(params.getFloat(p.c_str(), time, k), false) ||
            !out.red.append(col.x, false) || !out.green.append(col.y, false) ||
            !out.blue.append(col.z, false) || !out.selected.append(false)) {
            out.clear();
            return false;
        }
    }
    out.sort();
    return true;
}

bool writeGradient(VaporixParams& params,
                   const char* family,
                   int channel,
                   double time,
                   const ColorGradient& gradient,
                   int interpolation) {
    const std::string p = gradientTableName(family, channel, 'p');
    const std::string c = gradientTableName(family, channel, 'c');
    const std::string i = gradientTableName(family, channel, 'i');
    if (p.empty()) return false;
    const int n = gradient.count();
    if (!params.setCount(p.c_str(), n) || !params.setCount(c.c_str(), n) ||
        !params.setCount(i.c_str(), n))
        return false;
    for (int k = 0; k < n; ++k) {
        float rgb[3];
        gradient.keyColor(k, rgb);
        params.setFloat(p.c_str(), time, gradient.keyPosition(k), k);
        params.setVector(c.c_str(), time, Vector{rgb[0], rgb[1], rgb[2]}, k);
        params.setInt(i.c_str(), time, interpolation, k);
    }
    return true;
}

}  // namespace vaporix
