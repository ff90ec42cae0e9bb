// Value types of the parameter blocks: the kinds of parameter, one value, and host tick time.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

namespace vaporix {

/// Three 32-bit floats: a colour or a point.
struct Vector {
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;
    bool operator==(const Vector& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const Vector& o) const { return !(*this == o); }
};

/// Host tick time: an int, `TICKS_PER_FRAME` ticks to a frame by default (4800 a second).
using TimeValue = int;
constexpr int TICKS_PER_FRAME = 160;
constexpr TimeValue NO_TIME = static_cast<TimeValue>(0x80000000u);

/// A time given as a double becomes ticks by adding 0.5 and flooring; a time that is not a
/// finite number within the int range reads as tick 0.
inline TimeValue ticksFromTime(double t) {
    const double f = std::floor(t + 0.5);
    if (!(f >= -2147483647.0 && f <= 2147483647.0)) return 0;
    return static_cast<TimeValue>(f);
}

/// A scene node as the parameter blocks keep it: the host's handle, 0 for none.
using NodeHandle = int64_t;

/// The host's parameter types. A texture map is kept as a reference text (a file or a name).
enum class ParamType : uint8_t { Int, Float, Bool, Point3, String, Texmap, Node };

const char* paramTypeName(ParamType t);

/// One value of a parameter; which member counts follows the parameter's type: Int and Bool
/// use `i`, Float `f`, Point3 `v`, String and Texmap `s`, Node `node`.
struct ParamValue {
    int i = 0;
    float f = 0.0f;
    Vector v;
    std::string s;
    NodeHandle node = 0;

    static ParamValue ofInt(int x) {
        ParamValue p;
        p.i = x;
        return p;
    }
    static ParamValue ofFloat(float x) {
        ParamValue p;
        p.f = x;
        return p;
    }
    static ParamValue ofVector(const Vector& x) {
        ParamValue p;
        p.v = x;
        return p;
    }
    static ParamValue ofString(const std::string& x) {
        ParamValue p;
        p.s = x;
        return p;
    }
    static ParamValue ofNode(NodeHandle x) {
        ParamValue p;
        p.node = x;
        return p;
    }
};

}  // namespace vaporix
