// Defaults that a parameter's declaration asks its owner for, and the grid object's overrides.
#pragma once

#include <string>
#include <unordered_map>

#include "playback/ParamTable.h"
#include "playback/ParamTypes.h"

namespace vaporix {

/// Answers the defaults that a block declaration asks for by name. The base class answers
/// every question with the declaration's own fallback.
class VaporixDefaults {
public:
    virtual ~VaporixDefaults();
    virtual int getInt(const char* name, int fallback) const;
    virtual float getFloat(const char* name, float fallback) const;
    virtual void getVector(Vector& out, const char* name, const Vector& fallback) const;
    virtual std::string getString(const char* name, const std::string& fallback) const;
};

/// Defaults kept in four hash tables by name: ints, floats, vectors and strings. A table grows
/// when it is over 75 per cent full.
class VaporixDefaultsMax : public VaporixDefaults {
public:
    VaporixDefaultsMax();

    void setInt(const std::string& name, int value) { mInts[name] = value; }
    void setFloat(const std::string& name, float value) { mFloats[name] = value; }
    void setVector(const std::string& name, const Vector& value) { mVectors[name] = value; }
    void setString(const std::string& name, const std::string& value) { mStrings[name] = value; }

    int getInt(const char* name, int fallback) const override;
    float getFloat(const char* name, float fallback) const override;
    void getVector(Vector& out, const char* name, const Vector& fallback) const override;
    std::string getString(const char* name, const std::string& fallback) const override;

private:
    std::unordered_map<std::string, int> mInts;
    std::unordered_map<std::string, float> mFloats;
    std::unordered_map<std::string, Vector> mVectors;
    std::unordered_map<std::string, std::string> mStrings;
};

/// The grid object's overrides: an empty `rendinput`, `prv_t_color2` (1, 1, 0) and
/// `prv_particles` off; every other question gets the declaration's fallback.
const VaporixDefaults& gridObjectDefaults();

/// The default value of a parameter: the declaration's, or for a parameter that asks,
/// what `defaults` answers (the declaration's own fallback when `defaults` is null).
ParamValue defaultValue(const ParamDef& def, const VaporixDefaults* defaults);

/// A value limited to the declared range (each component of a point); unchanged without one.
ParamValue clampToRange(const ParamDef& def, const ParamValue& value);

}  // namespace vaporix
