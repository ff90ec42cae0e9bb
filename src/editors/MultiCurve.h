// The user-drawn function of the volume shading: a curve whose keys mix linear, spline and
// Bezier kinds, with the editing operations of the curve editor.
#pragma once

#include "editors/Bezier.h"
#include "editors/CSpline.h"
#include "foundation/iArray.h"

namespace vaporix {

namespace VpxRenderSets {
/// The kind of a curve point. 0 and 2 never stand in a curve: inserting them gives kind 3.
enum MultiCurvePointType : int {
    MCP_LINEAR = 1,         ///< "Make Linear"
    MCP_SPLINE = 3,         ///< "Make Spline"
    MCP_FREE_BEZIER = 4,    ///< "Make Free Bezier"
    MCP_SMOOTH_BEZIER = 5,  ///< "Make Smooth Bezier"
    MCP_LEFT_HANDLE = 6,    ///< in-handle of a Bezier key, directly before it
    MCP_RIGHT_HANDLE = 7,   ///< out-handle of a Bezier key, directly after it
};
}  // namespace VpxRenderSets

/// A curve of keys and Bezier handles. The four point arrays are parallel and sorted by position;
/// the key arrays and splines are derived by rebuild(), which evaluate() needs.
///
/// Evaluation looks at the key on each side of x, computes what each key's own kind says and
/// cross-fades the two, so a segment between a linear and a spline key blends a line and a
/// spline. Every editing operation keeps a snapshot and restores it when the result is not
/// valid, so a curve is never left broken; after a successful edit the derived data is current.
class MultiCurve {
public:
    using Kind = VpxRenderSets::MultiCurvePointType;

    iArray<Kind> kinds;
    iArray<float> positions;
    iArray<float> values;
    iArray<bool> selected;
    /// The open rectangle in which every key must lie (handles are free).
    float minX = -3.4028235e38f;
    float minY = -3.4028235e38f;
    float maxX = 3.4028235e38f;
    float maxY = 3.4028235e38f;
    /// Derived: the keys without handles, for the linear rule and as splines over their index.
    iArray<float> keyPositions;
    iArray<float> keyValues;
    CSpline splineX;
    CSpline splineY;

    int count() const { return positions.count; }
    static bool isHandle(int kind) { return (kind & ~1) == 6; }
    static bool isBezier(int kind) { return (kind & ~1) == 4; }

    /// The value at x. `endMode` 2 holds the end values outside the points; 1 leaves the ends
    /// to the extrapolation of the segment rules.
    float evaluate(float x, int endMode) const;
    /// evaluate() at n arguments, with the same results, faster for long runs (tables).
    void evaluateMany(const float* x, float* out, int n, int endMode) const;

    /// Inserts a spline key behind the last point at or below x. @return its index, or -1 when
    /// the curve would not be valid (it is then unchanged).
    int addPoint(float x, float y);
    /// Raw insertion into all four arrays, not selected, without any check.
    void insertPoint(int index, int kind, float x, float y);
    /// Sets position and value, sorts and validates. @return 1, or 0 after restoring the curve.
    int movePoint(int index, float x, float y);
    /// Changes the kind of a key, adding or removing Bezier handles. @return 1 on change.
    int setKind(int index, int kind, float width);
    /// Deletes a key (a Bezier key with both handles); handles are not deleted. @return 1 on
    /// change.
    int deletePoint(int index);
    /// Deletes every selected key as deletePoint() does. @return the number of keys deleted.
    int deleteSelected();

    /// The in-handle (kind 6) or out-handle (kind 7) of a Bezier key, or -1.
    int leftHandle(int index) const;
    int rightHandle(int index) const;
    /// The Bezier key a handle belongs to, or -1.
    int keyOfHandle(int index) const;
    /// The last index whose position is at or below x, or -1.
    int keyBelow(float x) const;

    void rebuild();
    bool isValid() const;
    /// Stable exchange sort of the four arrays by position.
    void sort();
    void clear();

    /// Value of the quadratic Bezier through three (x, y) points p[0..5] at x, with the
    /// parameter found by bisection on x.
    static float evaluateQuadratic(const float p[6], float x);
    /// evaluateQuadratic() of n arguments, each with its own three points, with the same
    /// results: the bisections run side by side.
    static void evaluateQuadraticMany(const float (*p)[6], const float* x, float* out, int n);

private:
    struct Snapshot;
    Snapshot takeSnapshot() const;
    void restore(const Snapshot& s);
    void removePoint(int index);
    /// The largest index whose position is strictly below x, or -1.
    int lastBelow(float x) const;
    /// The cubic piece that evaluate(x, endMode) reads between two Bezier keys, when it does.
    bool bezierPiece(float x, int endMode, Bezier::Point piece[4]) const;
    /// Whether evaluate(x, endMode) reads the spline rule.
    bool needsSplineInverse(float x, int endMode) const;
    /// The three points of the quadratic that evaluate(x, endMode) reads next to a Bezier key,
    /// when it does.
    bool quadraticPiece(float x, int endMode, float p[6]) const;
    /// Values found beforehand for one argument: `splineU` splineX.inverse(x), `quadratic` the
    /// quadratic rule's value; null when not.
    struct Precomputed {
        const float* splineU = nullptr;
        const float* quadratic = nullptr;
    };
    float evaluateAt(float x, int endMode, const Precomputed& pre) const;
    float evaluateKey(
        int key, int left, int right, float x, const Precomputed& pre, bool& noHandle) const;
    float evaluateLinear(float x) const;
};

}  // namespace vaporix
