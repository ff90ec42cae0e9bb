// Light records: the text form of the command line and the spot cone.
#include "standalone/Light.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace vaporix {

namespace {

constexpr double PI = 3.14159265358979323846;

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t at = s.find(sep, start);
        parts.push_back(s.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos) return parts;
        start = at + 1;
    }
}

bool parseNumber(const std::string& s, double& out) {
    if (s.empty() || std::isspace(static_cast<unsigned char>(s.front()))) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtod(s.c_str(), &end);
    return errno == 0 && end && *end == '\0' && std::isfinite(out);
}

/// Exactly `n` comma-separated numbers.
bool parseNumbers(const std::string& s, int n, double* out) {
    const std::vector<std::string> parts = split(s, ',');
    if (static_cast<int>(parts.size()) != n) return false;
    for (int k = 0; k < n; ++k)
        if (!parseNumber(parts[k], out[k])) return false;
    return true;
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

/// The optional ":R,G,B[:INTENSITY]" tail from part `first` on.
bool parseColorTail(const std::vector<std::string>& parts,
                    size_t first,
                    Light& out,
                    bool& intensityGiven,
                    std::string& error) {
    intensityGiven = false;
    if (parts.size() > first + 2) {
        error = "too many parts";
        return false;
    }
    if (parts.size() > first) {
        double c[3];
        if (!parseNumbers(parts[first], 3, c) || c[0] < 0.0 || c[1] < 0.0 || c[2] < 0.0) {
            error =
                "the colour must be three numbers R,G,B of at least 0, got '" + parts[first] + "'";
            return false;
        }
        for (int k = 0; k < 3; ++k) out.color[k] = static_cast<float>(c[k]);
    }
    if (parts.size() > first + 1) {
        double i;
        if (!parseNumber(parts[first + 1], i) || i < 0.0 || i > 1e30) {
            error = "the intensity must be a number of at least 0, got '" + parts[first + 1] + "'";
            return false;
        }
        out.intensity = static_cast<float>(i);
        intensityGiven = true;
    }
    return true;
}

bool parseDirection(const std::string& text, double out[3], std::string& error) {
    double d[3];
    if (!parseNumbers(text, 3, d)) {
        error = "a direction must be three numbers X,Y,Z, got '" + text + "'";
        return false;
    }
    const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    if (!(len > 1e-12) || !std::isfinite(len)) {
        error = "the direction '" + text + "' has no length";
        return false;
    }
    for (int k = 0; k < 3; ++k) out[k] = d[k] / len;
    return true;
}

}  // namespace

bool parseLight(const std::string& text, Light& out, std::string& error) {
    const std::vector<std::string> parts = split(text, ':');
    const std::string kind = lower(parts[0]);
    Light light;
    bool intensityGiven = false;
    std::string problem;
    bool ok = false;
    if (kind == "directional") {
        light.kind = LightKind::Directional;
        if (parts.size() < 2)
            problem = "needs a direction: directional:DX,DY,DZ";
        else
            ok = parseDirection(parts[1], light.direction, problem) &&
                 parseColorTail(parts, 2, light, intensityGiven, problem);
    } else if (kind == "point") {
        light.kind = LightKind::Point;
        if (parts.size() < 2 || !parseNumbers(parts[1], 3, light.position))
            problem = "needs a position: point:X,Y,Z";
        else
            ok = parseColorTail(parts, 2, light, intensityGiven, problem);
        light.autoIntensity = ok && !intensityGiven;
    } else if (kind == "spot") {
        light.kind = LightKind::Spot;
        double targetPoint[3];
        double angles[2] = {0.0, 0.0};
        const std::vector<std::string> angleParts =
            parts.size() >= 4 ? split(parts[3], ',') : std::vector<std::string>();
        if (parts.size() < 4) {
            problem = "needs a position, a target and an angle: spot:X,Y,Z:TX,TY,TZ:ANGLE";
        } else if (!parseNumbers(parts[1], 3, light.position)) {
            problem = "the position must be three numbers X,Y,Z, got '" + parts[1] + "'";
        } else if (!parseNumbers(parts[2], 3, targetPoint)) {
            problem = "the target must be three numbers X,Y,Z, got '" + parts[2] + "'";
        } else if ((angleParts.size() != 1 && angleParts.size() != 2) ||
                   !parseNumber(angleParts[0], angles[0]) ||
                   (angleParts.size() == 2 && !parseNumber(angleParts[1], angles[1]))) {
            problem =
                "the cone must be ANGLE or HOTSPOT,FALLOFF in degrees, got '" + parts[3] + "'";
        } else {
            if (angleParts.size() == 1) {
                angles[1] = angles[0];
                angles[0] *= 0.8;  // the outer fifth of the cone is its soft edge
            }
            double d[3] = {targetPoint[0] - light.position[0], targetPoint[1] - light.position[1],
                           targetPoint[2] - light.position[2]};
            const double len = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
            if (!(angles[1] > 0.0 && angles[1] < 180.0) || !(angles[0] > 0.0) ||
                angles[0] > angles[1]) {
                problem = "the cone angles must satisfy 0 < HOTSPOT <= FALLOFF < 180";
            } else if (!(len > 1e-12) || !std::isfinite(len)) {
                problem = "the target is the position";
            } else {
                for (int k = 0; k < 3; ++k) light.direction[k] = d[k] / len;
                light.hotspot = static_cast<float>(angles[0]);
                light.falloff = static_cast<float>(angles[1]);
                ok = parseColorTail(parts, 4, light, intensityGiven, problem);
            }
        }
        light.autoIntensity = ok && !intensityGiven;
    } else if (kind == "ambient") {
        light.kind = LightKind::Ambient;
        if (parts.size() < 2)
            problem = "needs a colour: ambient:R,G,B";
        else
            ok = parseColorTail(parts, 1, light, intensityGiven, problem);
    } else {
        problem = "the kind must be directional, point, spot or ambient";
    }
    if (!ok) {
        error = "bad light '" + text + "': " + problem;
        return false;
    }
    out = light;
    return true;
}

float spotFactor(const Light& light, double cosAngle) {
    const double cosInner = std::cos(0.5 * light.hotspot * PI / 180.0);
    const double cosOuter = std::cos(0.5 * light.falloff * PI / 180.0);
    if (cosAngle >= cosInner) return 1.0f;
    if (cosAngle <= cosOuter) return 0.0f;
    const double t = (cosAngle - cosOuter) / (cosInner - cosOuter);
    return static_cast<float>(t * t * (3.0 - 2.0 * t));
}

}  // namespace vaporix
