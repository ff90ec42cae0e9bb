// Piecewise cubic Bezier curves over the x axis: keys with an in-handle and an out-handle each.
#pragma once

#include "foundation/iArray.h"

namespace vaporix {

/// A function of x drawn as cubic Bezier pieces. `points` holds, for each key, its in-handle,
/// the key itself and its out-handle, so its count is a multiple of 3; keys ascend in x.
/// Older scenes stored their curves in this form, and a curve's run between two Bezier keys is
/// evaluated through it.
class Bezier {
public:
    /// One control point; only x and y are read, z carries what the owner stores there.
    struct Point {
        float x, y, z;
    };

    iArray<Point> points;

    /// The value at x; 0 for a count that is no multiple of 3, or 0.
    float evaluate(float x) const { return evaluate(points.data, points.count, x); }

    /// The same over a plain array of `count` points.
    static float evaluate(const Point* points, int count, float x);

    /// The value inside single cubic pieces (key, out-handle, in-handle, key): n arguments,
    /// each with its own piece, solved side by side with the same result as evaluate().
    static void solvePieces(const Point (*pieces)[4], const float* x, float* y, int n);
};

}  // namespace vaporix
