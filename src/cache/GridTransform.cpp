// Inverse of the affine grid transform.
#include "cache/GridTransform.h"

namespace vaporix {

bool GridTransform::inverse(GridTransform& out) const {
    // Matrix rows r0 = (m0 m1 m2), r1 = (m3 m4 m5), r2 = (m6 m7 m8).
    const double a = m[0], b = m[1], c = m[2];
    const double d = m[3], e = m[4], f = m[5];
    const double g = m[6], h = m[7], i = m[8];
    const double c00 = e * i - f * h, c01 = -(d * i - f * g), c02 = d * h - e * g;
    const double det = a * c00 + b * c01 + c * c02;
    if (det == 0.0) return false;
    const double inv = 1.0 / det;
    double r[9];
    r[0] = c00 * inv;
    r[1] = -(b * i - c * h) * inv;
    r[2] = (b * f - c * e) * inv;
    r[3] = c01 * inv;
    r[4] = (a * i - c * g) * inv;
    r[5] = -(a * f - c * d) * inv;
    r[6] = c02 * inv;
    r[7] = -(a * h - b * g) * inv;
    r[8] = (a * e - b * d) * inv;
    // The offset row maps back: -t * M^-1.
    const double tx = m[9], ty = m[10], tz = m[11];
    for (int k = 0; k < 9; ++k) out.m[k] = static_cast<float>(r[k]);
    for (int col = 0; col < 3; ++col)
        out.m[9 + col] = static_cast<float>(-(tx * r[col] + ty * r[3 + col] + tz * r[6 + col]));
    return true;
}

}  // namespace vaporix
