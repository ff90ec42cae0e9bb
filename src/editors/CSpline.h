// A cubic Hermite spline over its knot index, with an inverse by bisection.
#pragma once

namespace vaporix {

/// A cubic spline whose parameter is the knot index: the piece from knot i to knot i+1 at
/// t in [0, 1] is ((a*t + b)*t + c)*t + d, and d is the knot's value. Curves use it for their
/// positions and values, gradients for positions and colour components.
class CSpline {
public:
    /// Flag bits.
    enum : int {
        CLOSED = 1,          ///< indices wrap
        MONOTONE = 2,        ///< tangents are limited so that the spline does not overshoot
        CLAMP = 4,           ///< arguments outside the range are clamped, not extrapolated
        STRICT_INVERSE = 8,  ///< the inverse answers out-of-range values with a marker
    };

    /// The coefficients of one knot's piece.
    struct Segment {
        float a, b, c, d;
    };

    Segment* segments = nullptr;
    int count = 0;
    int capacity = 0;
    int flags = 0;

    CSpline() = default;
    CSpline(const CSpline& other);
    CSpline& operator=(const CSpline& other);
    virtual ~CSpline();

    void clear();
    /// Appends a knot. @return false when the array could not grow (the spline is then empty).
    bool append(float value, bool recompute);
    /// Inserts a knot before `index` (0..count). @return false on a bad index or failed growth.
    bool insert(int index, float value, bool recompute);
    /// Removes the knot at `index`; a bad index does nothing.
    void remove(int index, bool recompute);
    /// Sets the value of an existing knot; a bad index does nothing.
    void set(int index, float value, bool recompute);
    /// Recomputes the coefficients of every piece from the knot values.
    void recompute();

    /// The value of knot i (no bounds check beyond 0..count-1 returning 0).
    float knot(int i) const { return i >= 0 && i < count ? segments[i].d : 0.0f; }
    float tangent(int i) const;
    /// The value at parameter u.
    float value(float u) const;
    /// The parameter u at which the spline has the value y.
    float inverse(float y) const;
    /// inverse() of n values at once, with the same result for each: the bisections of several
    /// values run side by side, which keeps the processor busy while each waits on its last
    /// round. Table builders call it for thousands of values.
    void inverseMany(const float* y, float* u, int n) const;

private:
    bool grow(int needed);
    /// Polynomial of the piece that holds u, with u already brought into range (0..count).
    /// Inline: the bisections spend most of their time here.
    float evaluatePiece(float u) const {
        int i = static_cast<int>(u);
        if (i > count - 1) i = count - 1;
        const float t = u - static_cast<float>(i);
        const Segment& s = segments[i];
        return ((s.a * t + s.b) * t + s.c) * t + s.d;
    }
};

}  // namespace vaporix
