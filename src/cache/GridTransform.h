// The 4x3 affine transform of the system: three matrix rows and an offset row, row vectors.
#pragma once

#include <cstring>

namespace vaporix {

/// A point p maps to p * M + offset: x' = x*m0 + y*m3 + z*m6 + m9, and so on.
struct GridTransform {
    float m[12] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};

    static GridTransform identity() { return GridTransform{}; }
    static GridTransform zero() {
        GridTransform t;
        std::memset(t.m, 0, sizeof t.m);
        return t;
    }

    void apply(const float p[3], float out[3]) const {
        const float x = p[0], y = p[1], z = p[2];
        out[0] = x * m[0] + y * m[3] + z * m[6] + m[9];
        out[1] = x * m[1] + y * m[4] + z * m[7] + m[10];
        out[2] = x * m[2] + y * m[5] + z * m[8] + m[11];
    }
    /// The 3x3 part only (directions).
    void applyVector(const float v[3], float out[3]) const {
        const float x = v[0], y = v[1], z = v[2];
        out[0] = x * m[0] + y * m[3] + z * m[6];
        out[1] = x * m[1] + y * m[4] + z * m[7];
        out[2] = x * m[2] + y * m[5] + z * m[8];
    }

    /// The inverse, computed in float64 by cofactors and rounded to float32. A singular matrix
    /// gives false and leaves `out` untouched.
    bool inverse(GridTransform& out) const;

    bool operator==(const GridTransform& o) const { return std::memcmp(m, o.m, sizeof m) == 0; }
};

}  // namespace vaporix
