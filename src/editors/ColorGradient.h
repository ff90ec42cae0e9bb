// A colour ramp over a channel value: keys with a position and an RGB colour, smooth between.
#pragma once

#include "editors/CSpline.h"
#include "foundation/iArray.h"

namespace vaporix {

/// Keys of position and colour. Positions and each colour component are plain cubic splines over
/// the key index, so unevenly spaced keys still give a smooth ramp; evaluation inverts the
/// position spline and limits each component to 0..1, which keeps the cubic's overshoot out.
class ColorGradient {
public:
    CSpline position;
    CSpline red;
    CSpline green;
    CSpline blue;
    iArray<bool> selected;

    int count() const { return position.count; }
    float keyPosition(int i) const { return position.knot(i); }
    void keyColor(int i, float out[3]) const;

    /// The colour at x; black without keys. Components are always finite and within 0..1.
    void evaluate(float x, float out[3]) const;
    /// evaluate() at n arguments into n RGB triples, with the same results.
    void evaluateMany(const float* x, float* rgb, int n) const;

    /// Inserts behind the last key at or below x. @return the new index, or -1 without memory.
    int addKey(float x, const float rgb[3]);
    /// Inserts at `index` (clamped to 0..count). @return the index, or -1 without memory.
    int insertKey(int index, float x, const float rgb[3]);
    void deleteKey(int index);
    void deleteSelected();
    /// Moves the selected keys by dx and sorts. @return where key `focus` has landed.
    int shiftSelected(float dx, int focus);
    /// Stable exchange sort of all five arrays by position, then recompute.
    void sort();
    void clear();

    /// Same count and, key by key, equal position and components (NaN counts as different).
    bool equals(const ColorGradient& other) const;
    /// Copies the keys and the selection.
    void assign(const ColorGradient& other);

private:
    void recomputeAll();
    /// sort(), answering where key `focus` has landed.
    int sortTracking(int focus);
    /// Keeps the five arrays at one count after a failed allocation.
    void dropAll();
};

}  // namespace vaporix
