// Light records of the stand-alone renderer and the text form the command line gives them.
#pragma once

#include <string>

namespace vaporix {

enum class LightKind { Point, Spot, Directional, Ambient };

/// One light. Point and spot lights fall off with the inverse square of the distance; a
/// directional light reaches every point alike; the ambient light adds its colour to every
/// lit point without a shadow.
struct Light {
    LightKind kind = LightKind::Directional;
    float color[3] = {1.0f, 1.0f, 1.0f};
    /// Multiplies `color`. Point and spot lights deliver color * intensity / distance^2.
    float intensity = 1.0f;
    /// Point and spot: where the light is (world).
    double position[3] = {0.0, 0.0, 0.0};
    /// Directional: the direction the light travels (from the light into the scene); spot:
    /// where it points (from the position towards its target). Unit length after `parseLight`.
    double direction[3] = {0.0, 0.0, -1.0};
    /// Spot: full cone angles in degrees. Full light inside `hotspot`, none outside `falloff`,
    /// a smooth edge between.
    float hotspot = 24.0f;
    float falloff = 30.0f;
    /// Point and spot: the intensity was not given. The renderer then chooses it so that the
    /// light delivers `color` at the centre of the scene's box (intensity = distance^2).
    bool autoIntensity = false;
};

/// Parses a light from its text form (numbers comma-separated, parts by colons):
///
///     directional:DX,DY,DZ[:R,G,B[:INTENSITY]]     the direction the light travels
///     point:X,Y,Z[:R,G,B[:INTENSITY]]
///     spot:X,Y,Z:TX,TY,TZ:ANGLE[,FALLOFF][:R,G,B[:INTENSITY]]
///     ambient:R,G,B[:INTENSITY]
///
/// The colour defaults to white. A spot's ANGLE alone is the full cone angle, its soft edge
/// the outer fifth; with FALLOFF, ANGLE is the hotspot and FALLOFF the full cone. Point and spot
/// lights without an intensity get `autoIntensity`.
/// @return false with `error` for text that is no light.
bool parseLight(const std::string& text, Light& out, std::string& error);

/// Spot cone factor for the cosine of the angle between the spot's direction and the way to a
/// point: 1 inside the hotspot, 0 outside the falloff, smooth between.
float spotFactor(const Light& light, double cosAngle);

}  // namespace vaporix
