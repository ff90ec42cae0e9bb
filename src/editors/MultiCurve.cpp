// The user-drawn function of the volume shading: evaluation and editing of a MultiCurve.
#include "editors/MultiCurve.h"

#include <cmath>

#include "editors/StableOrder.h"

namespace vaporix {

using namespace VpxRenderSets;

struct MultiCurve::Snapshot {
    iArray<Kind> kinds;
    iArray<float> positions;
    iArray<float> values;
    iArray<bool> selected;
};

MultiCurve::Snapshot MultiCurve::takeSnapshot() const {
    return Snapshot{kinds, positions, values, selected};
}

void MultiCurve::restore(const Snapshot& s) {
    kinds = s.kinds;
    positions = s.positions;
    values = s.values;
    selected = s.selected;
    rebuild();
}

void MultiCurve::clear() {
    kinds.resize(0);
    positions.resize(0);
    values.resize(0);
    selected.resize(0);
    rebuild();
}

// ---------------------------------------------------------------------------------------------
// Structure queries

int MultiCurve::leftHandle(int index) const {
    if (index < 0 || index >= count() || !isBezier(kinds[index])) return -1;
    // Handles of neighbouring keys may cross: step over out-handles of the key before.
    for (int j = index - 1; j >= 0; --j) {
        if (kinds[j] == MCP_RIGHT_HANDLE) continue;
        return kinds[j] == MCP_LEFT_HANDLE ? j : -1;
    }
    return -1;
}

int MultiCurve::rightHandle(int index) const {
    if (index < 0 || index >= count() || !isBezier(kinds[index])) return -1;
    for (int j = index + 1; j < count(); ++j) {
        if (kinds[j] == MCP_LEFT_HANDLE) continue;
        return kinds[j] == MCP_RIGHT_HANDLE ? j : -1;
    }
    return -1;
}

int MultiCurve::keyOfHandle(int index) const {
    if (index < 0 || index >= count()) return -1;
    if (kinds[index] == MCP_LEFT_HANDLE) {
        for (int j = index + 1; j < count(); ++j)
            if (isBezier(kinds[j])) return j;
    } else if (kinds[index] == MCP_RIGHT_HANDLE) {
        for (int j = index - 1; j >= 0; --j)
            if (isBezier(kinds[j])) return j;
    }
    return -1;
}

int MultiCurve::keyBelow(float x) const {
    int found = -1;
    for (int i = 0; i < count(); ++i)
        if (positions[i] <= x) found = i;
    return found;
}

bool MultiCurve::isValid() const {
    const int n = count();
    if (kinds.count != n || values.count != n || selected.count != n) return false;
    int previousKind = 8;  // no kind has this value
    float maxPosition = 0.0f;
    for (int i = 0; i < n; ++i) {
        const int k = kinds[i];
        const float x = positions[i];
        const float y = values[i];
        if (k != MCP_LINEAR && k != MCP_SPLINE && !isBezier(k) && !isHandle(k)) return false;

        // Keys lie strictly inside the rectangle; handles are free.
        if (!isHandle(k) && !(x > minX && x < maxX && y > minY && y < maxY)) return false;

        // Ascending positions; a tie only between two handles or two spline keys.
        if (i > 0) {
            if (!(x >= maxPosition)) return false;
            if (x == maxPosition) {
                const bool handles = isHandle(previousKind) && isHandle(k);
                const bool splines = previousKind == MCP_SPLINE && k == MCP_SPLINE;
                if (!handles && !splines) return false;
            }
        }
        if (i == 0 || x > maxPosition) maxPosition = x;

        // Handles belong to a Bezier key, across the crossing handles of the neighbour only.
        if (k == MCP_LEFT_HANDLE) {
            int j = i + 1;
            while (j < n && kinds[j] == MCP_RIGHT_HANDLE) ++j;
            if (j >= n || !isBezier(kinds[j])) return false;
        } else if (k == MCP_RIGHT_HANDLE) {
            int j = i - 1;
            while (j >= 0 && kinds[j] == MCP_LEFT_HANDLE) --j;
            if (j < 0 || !isBezier(kinds[j])) return false;
        } else if (isBezier(k)) {
            if (leftHandle(i) < 0 || rightHandle(i) < 0) return false;
        }
        previousKind = k;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Order and derived data

void MultiCurve::sort() {
    const int n = count();
    if (n < 2) return;
    iArray<int> order;
    if (!internal::stableOrder(positions.data, n, order)) return;
    iArray<Kind> k(kinds);
    iArray<float> p(positions);
    iArray<float> v(values);
    iArray<bool> s(selected);
    if (k.count != n || p.count != n || v.count != n || s.count != n) return;
    for (int i = 0; i < n; ++i) {
        kinds[i] = k[order[i]];
        positions[i] = p[order[i]];
        values[i] = v[order[i]];
        selected[i] = s[order[i]];
    }
}

void MultiCurve::rebuild() {
    sort();
    keyPositions.resize(0);
    keyValues.resize(0);
    splineX.clear();
    splineY.clear();
    for (int i = 0; i < count(); ++i) {
        if (isHandle(kinds[i])) continue;
        keyPositions.append(positions[i]);
        keyValues.append(values[i]);
        splineX.append(positions[i], false);
        splineY.append(values[i], false);
    }
    // Positions must map to the index monotonically for the inverse; values may overshoot.
    splineX.flags |= CSpline::MONOTONE;
    splineY.flags &= ~CSpline::MONOTONE;
    if (splineX.count > 0) splineX.recompute();
    if (splineY.count > 0) splineY.recompute();
}

// ---------------------------------------------------------------------------------------------
// Evaluation

float MultiCurve::evaluateQuadratic(const float p[6], float x) {
    if (x <= p[0]) return p[1];
    if (x >= p[4]) return p[5];
    float lo = 0.0f;
    float hi = 1.0f;
    float t = 0.5f;
    float s = 0.5f;
    for (;;) {
        t = (hi + lo) * 0.5f;
        s = 1.0f - t;
        const float e = x - (p[0] * s + p[2] * t) * s - (p[2] * s + p[4] * t) * t;
        if (std::fabs(e) < 1e-6f) break;
        if (e > 0.0f)
            lo = t;
        else
            hi = t;
        if (hi - lo <= 1e-6f) break;
    }
    return (p[1] * s + t * p[3]) * s + t * (p[5] * t + p[3] * s);
}

void MultiCurve::evaluateQuadraticMany(const float (*p)[6], const float* xs, float* out, int n) {
    // Lanes of the bisection of evaluateQuadratic() in lock step; each lane stops where it would
    // stop alone and keeps the t and s of its last round.
    constexpr int LANES = 8;
    for (int base = 0; base < n; base += LANES) {
        const int m = n - base < LANES ? n - base : LANES;
        float lo[LANES], hi[LANES], t[LANES], s[LANES];
        bool active[LANES];
        int running = 0;
        for (int k = 0; k < LANES; ++k) {
            lo[k] = 0.0f;
            hi[k] = 1.0f;
            t[k] = s[k] = 0.5f;
            active[k] = false;
            if (k >= m) continue;
            const float* q = p[base + k];
            const float x = xs[base + k];
            if (x <= q[0]) {
                out[base + k] = q[1];
            } else if (x >= q[4]) {
                out[base + k] = q[5];
            } else {
                active[k] = true;
                ++running;
            }
        }
        while (running > 0) {
            for (int k = 0; k < m; ++k) {
                if (!active[k]) continue;
                const float* q = p[base + k];
                t[k] = (hi[k] + lo[k]) * 0.5f;
                s[k] = 1.0f - t[k];
                const float e = xs[base + k] - (q[0] * s[k] + q[2] * t[k]) * s[k] -
                                (q[2] * s[k] + q[4] * t[k]) * t[k];
                bool done = std::fabs(e) < 1e-6f;
                if (!done) {
                    if (e > 0.0f)
                        lo[k] = t[k];
                    else
                        hi[k] = t[k];
                    done = hi[k] - lo[k] <= 1e-6f;
                }
                if (done) {
                    active[k] = false;
                    --running;
                    out[base + k] =
                        (q[1] * s[k] + t[k] * q[3]) * s[k] + t[k] * (q[5] * t[k] + q[3] * s[k]);
                }
            }
        }
    }
}

float MultiCurve::evaluateLinear(float x) const {
    const int n = keyPositions.count;
    if (n == 0) return 0.0f;
    if (n == 1) return keyValues[0];
    // The segment that begins at the last key below x; the end segments extend outward.
    int lo = 0;
    int hi = n;
    while (lo < hi) {  // first key at or above x
        const int mid = (lo + hi) / 2;
        if (keyPositions[mid] < x)
            lo = mid + 1;
        else
            hi = mid;
    }
    int j = lo - 1;
    if (j < 0) j = 0;
    if (j > n - 2) j = n - 2;
    const float span = keyPositions[j + 1] - keyPositions[j];
    // A zero-length end segment (two spline keys at one position) has no slope to extend.
    if (span == 0.0f) return x <= keyPositions[j] ? keyValues[j] : keyValues[j + 1];
    const float f = (x - keyPositions[j]) / span;
    return (1.0f - f) * keyValues[j] + f * keyValues[j + 1];
}

float MultiCurve::evaluateKey(
    int key, int left, int right, float x, const Precomputed& pre, bool& noHandle) const {
    const int k = kinds[key];
    if (k == MCP_LINEAR) return evaluateLinear(x);
    if (!isBezier(k)) return splineY.value(pre.splineU ? *pre.splineU : splineX.inverse(x));

    const int n = count();
    if (key == left) {
        if (right < 0) {
            // Past the last key: straight on through its out-handle.
            if (key + 1 >= n) return values[key];
            const float f = (x - positions[key]) / (positions[key + 1] - positions[key]);
            return (1.0f - f) * values[key] + f * values[key + 1];
        }
        int h = key + 1;
        while (h < n && kinds[h] != MCP_RIGHT_HANDLE) ++h;
        if (h >= n) {
            noHandle = true;
            return 0.0f;
        }
        if (pre.quadratic) return *pre.quadratic;
        const float p[6] = {positions[key], values[key],      positions[h],
                            values[h],      positions[right], values[right]};
        return evaluateQuadratic(p, x);
    }
    if (left < 0) {
        // Before the first key: straight on through its in-handle.
        if (key - 1 < 0) return values[key];
        const float f = (x - positions[key]) / (positions[key - 1] - positions[key]);
        return (1.0f - f) * values[key] + f * values[key - 1];
    }
    // The in-handle is searched from the left key, as the editor has always done.
    int h = left + 1;
    while (h < n && kinds[h] != MCP_LEFT_HANDLE) ++h;
    if (h >= n) {
        noHandle = true;
        return 0.0f;
    }
    if (pre.quadratic) return *pre.quadratic;
    const float p[6] = {positions[left], values[left],   positions[h],
                        values[h],       positions[key], values[key]};
    return evaluateQuadratic(p, x);
}

float MultiCurve::evaluate(float x, int endMode) const {
    return evaluateAt(x, endMode, Precomputed{});
}

void MultiCurve::evaluateMany(const float* xs, float* out, int n, int endMode) const {
    // The bisections of the evaluation run in batches: the position spline's inverse for
    // arguments under spline keys, the cubic piece for arguments between two Bezier keys, and
    // the quadratic for arguments between a Bezier key and a key of another kind.
    bool anySpline = false;
    bool anyBezier = false;
    for (int i = 0; i < count(); ++i) {
        anySpline = anySpline || kinds[i] == MCP_SPLINE;
        anyBezier = anyBezier || isBezier(kinds[i]);
    }
    constexpr int CHUNK = 256;
    float us[CHUNK];
    float splineArgs[CHUNK];
    int splineSlot[CHUNK];
    float bezierArgs[CHUNK];
    float bezierValues[CHUNK];
    Bezier::Point pieces[CHUNK][4];
    int bezierSlot[CHUNK];
    float quadraticArgs[CHUNK];
    float quadraticValues[CHUNK];
    float quadratics[CHUNK][6];
    int quadraticSlot[CHUNK];
    for (int base = 0; base < n; base += CHUNK) {
        const int m = n - base < CHUNK ? n - base : CHUNK;
        int splines = 0;
        int beziers = 0;
        int quads = 0;
        for (int k = 0; k < m; ++k) {
            const float x = xs[base + k];
            splineSlot[k] = bezierSlot[k] = quadraticSlot[k] = -1;
            if (anyBezier && bezierPiece(x, endMode, pieces[beziers])) {
                bezierSlot[k] = beziers;
                bezierArgs[beziers++] = x;
                continue;
            }
            if (anySpline && needsSplineInverse(x, endMode)) {
                splineSlot[k] = splines;
                splineArgs[splines++] = x;
            }
            if (anyBezier && quadraticPiece(x, endMode, quadratics[quads])) {
                quadraticSlot[k] = quads;
                quadraticArgs[quads++] = x;
            }
        }
        splineX.inverseMany(splineArgs, us, splines);
        Bezier::solvePieces(pieces, bezierArgs, bezierValues, beziers);
        evaluateQuadraticMany(quadratics, quadraticArgs, quadraticValues, quads);
        for (int k = 0; k < m; ++k) {
            if (bezierSlot[k] >= 0) {
                out[base + k] = bezierValues[bezierSlot[k]];
                continue;
            }
            Precomputed pre;
            if (splineSlot[k] >= 0) pre.splineU = &us[splineSlot[k]];
            if (quadraticSlot[k] >= 0) pre.quadratic = &quadraticValues[quadraticSlot[k]];
            out[base + k] = evaluateAt(xs[base + k], endMode, pre);
        }
    }
}

bool MultiCurve::bezierPiece(float x, int endMode, Bezier::Point piece[4]) const {
    const int n = count();
    if (n == 0) return false;
    if (endMode == 2 && (x <= positions[0] || x >= positions[n - 1])) return false;
    const int i = lastBelow(x);
    int left = i;
    while (left >= 0 && isHandle(kinds[left])) --left;
    int right = i + 1;
    while (right < n && isHandle(kinds[right])) ++right;
    if (left < 0 || right >= n || !isBezier(kinds[left]) || !isBezier(kinds[right])) return false;
    const int idx[4] = {left, rightHandle(left), leftHandle(right), right};
    // Missing handles, and the key positions themselves, take the ordinary path.
    if (idx[1] < 0 || idx[2] < 0 || leftHandle(left) < 0 || rightHandle(right) < 0) return false;
    if (!(x > positions[left] && x < positions[right])) return false;
    for (int k = 0; k < 4; ++k) piece[k] = Bezier::Point{positions[idx[k]], values[idx[k]], 0.0f};
    return true;
}

bool MultiCurve::needsSplineInverse(float x, int endMode) const {
    const int n = count();
    if (n == 0) return false;
    if (endMode == 2 && (x <= positions[0] || x >= positions[n - 1])) return false;
    const int i = lastBelow(x);
    int left = i;
    while (left >= 0 && isHandle(kinds[left])) --left;
    int right = i + 1;
    while (right < n && isHandle(kinds[right])) ++right;
    return (left >= 0 && kinds[left] == MCP_SPLINE) || (right < n && kinds[right] == MCP_SPLINE);
}

bool MultiCurve::quadraticPiece(float x, int endMode, float p[6]) const {
    const int n = count();
    if (n == 0) return false;
    if (endMode == 2 && (x <= positions[0] || x >= positions[n - 1])) return false;
    const int i = lastBelow(x);
    int left = i;
    while (left >= 0 && isHandle(kinds[left])) --left;
    int right = i + 1;
    while (right < n && isHandle(kinds[right])) ++right;
    if (left < 0 || right >= n) return false;
    const bool bezierLeft = isBezier(kinds[left]);
    const bool bezierRight = isBezier(kinds[right]);
    if (bezierLeft == bezierRight) return false;
    // The handle as evaluateKey() finds it: the out-handle of a left Bezier key, or the first
    // in-handle after the left key for a right one.
    const int handleKind = bezierLeft ? MCP_RIGHT_HANDLE : MCP_LEFT_HANDLE;
    int h = left + 1;
    while (h < n && kinds[h] != handleKind) ++h;
    if (h >= n) return false;
    p[0] = positions[left];
    p[1] = values[left];
    p[2] = positions[h];
    p[3] = values[h];
    p[4] = positions[right];
    p[5] = values[right];
    return true;
}

int MultiCurve::lastBelow(float x) const {
    int lo = 0;
    int hi = count();
    while (lo < hi) {
        const int mid = (lo + hi) / 2;
        if (positions[mid] < x)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo - 1;
}

float MultiCurve::evaluateAt(float x, int endMode, const Precomputed& pre) const {
    const int n = count();
    if (n == 0) return 0.0f;

    // i: the largest index whose position is strictly below x.
    const int i = lastBelow(x);

    // The keys on each side, stepping over handles.
    int left = i;
    while (left >= 0 && isHandle(kinds[left])) --left;
    int right = i + 1;
    while (right < n && isHandle(kinds[right])) ++right;
    if (right >= n) right = -1;

    if (endMode == 2) {
        if (x <= positions[0]) return values[0];
        if (x >= positions[n - 1]) return values[n - 1];
    }

    // Two Bezier keys: the cubic piece between them.
    if (left >= 0 && right >= 0 && isBezier(kinds[left]) && isBezier(kinds[right])) {
        const int idx[6] = {leftHandle(left),  left,  rightHandle(left),
                            leftHandle(right), right, rightHandle(right)};
        Bezier::Point pts[6];
        for (int k = 0; k < 6; ++k) {
            if (idx[k] < 0) return 0.0f;
            pts[k] = Bezier::Point{positions[idx[k]], values[idx[k]], 0.0f};
        }
        return Bezier::evaluate(pts, 6, x);
    }

    // Otherwise each key's own rule, cross-faded over the segment.
    // A Bezier key without the handle its rule needs makes the whole value 0.
    bool noHandle = false;
    const float vL = left >= 0 ? evaluateKey(left, left, right, x, pre, noHandle) : 0.0f;
    // Two linear or two spline keys share one rule over the whole curve: its value is computed
    // once (the fade below still runs, so the result is the same to the bit).
    const bool sameRule = left >= 0 && right >= 0 && kinds[left] == kinds[right] &&
                          (kinds[left] == MCP_LINEAR || kinds[left] == MCP_SPLINE);
    const float vR = sameRule     ? vL
                     : right >= 0 ? evaluateKey(right, left, right, x, pre, noHandle)
                                  : 0.0f;
    if (noHandle) return 0.0f;
    if (left >= 0 && right >= 0) {
        const float f = (x - positions[left]) / (positions[right] - positions[left]);
        return (1.0f - f) * vL + f * vR;
    }
    if (left >= 0) return vL;
    if (right >= 0) return vR;
    return 0.0f;
}

// ---------------------------------------------------------------------------------------------
// Editing

void MultiCurve::insertPoint(int index, int kind, float x, float y) {
    const int n = count();
    if (index < 0) index = 0;
    if (index > n) index = n;
    // Kinds 0 and 2 (and anything unknown from a damaged table) become spline keys.
    if (kind != MCP_LINEAR && kind != MCP_SPLINE && !isBezier(kind) && !isHandle(kind))
        kind = MCP_SPLINE;
    if (!kinds.resize(n + 1) || !positions.resize(n + 1) || !values.resize(n + 1) ||
        !selected.resize(n + 1)) {
        kinds.resize(0);
        positions.resize(0);
        values.resize(0);
        selected.resize(0);
        return;
    }
    for (int j = n; j > index; --j) {
        kinds[j] = kinds[j - 1];
        positions[j] = positions[j - 1];
        values[j] = values[j - 1];
        selected[j] = selected[j - 1];
    }
    kinds[index] = static_cast<Kind>(kind);
    positions[index] = x;
    values[index] = y;
    selected[index] = false;
}

void MultiCurve::removePoint(int index) {
    kinds.removeRange(index, 1, true);
    positions.removeRange(index, 1, true);
    values.removeRange(index, 1, true);
    selected.removeRange(index, 1, true);
}

int MultiCurve::addPoint(float x, float y) {
    const Snapshot before = takeSnapshot();
    const int index = keyBelow(x) + 1;
    insertPoint(index, MCP_SPLINE, x, y);
    if (!isValid()) {
        restore(before);
        return -1;
    }
    rebuild();
    return index;
}

int MultiCurve::movePoint(int index, float x, float y) {
    if (index < 0 || index >= count()) return 0;
    const Snapshot before = takeSnapshot();
    positions[index] = x;
    values[index] = y;
    sort();
    if (!isValid()) {
        restore(before);
        return 0;
    }
    rebuild();
    return 1;
}

int MultiCurve::setKind(int index, int kind, float width) {
    if (index < 0 || index >= count()) return 0;
    if (kind == 0 || kind == 2) kind = MCP_SPLINE;
    if (kind != MCP_LINEAR && kind != MCP_SPLINE && !isBezier(kind)) return 0;
    if (isHandle(kinds[index])) return 0;
    const Snapshot before = takeSnapshot();
    const int old = kinds[index];

    // Smooth to free Bezier keeps the handles where they are.
    if (old == MCP_SMOOTH_BEZIER && kind == MCP_FREE_BEZIER) {
        kinds[index] = MCP_FREE_BEZIER;
    } else {
        if (old == kind) return 0;
        // Leaving a Bezier kind (free to smooth too): its handles go.
        if (isBezier(old)) {
            const int l = leftHandle(index);
            const int r = rightHandle(index);
            if (l < 0 || r < 0) {
                restore(before);
                return 0;
            }
            kinds[index] = static_cast<Kind>(kind);
            removePoint(r);
            removePoint(l);
            --index;
        }
        if (!isBezier(kind)) {
            kinds[index] = static_cast<Kind>(kind);
        } else {
            // New handles half way to the nearer neighbouring key, at the key's height.
            int before_ = index - 1;
            while (before_ >= 0 && isHandle(kinds[before_])) --before_;
            int after = index + 1;
            while (after < count() && isHandle(kinds[after])) ++after;
            const bool hasBefore = before_ >= 0;
            const bool hasAfter = after < count();
            float dl = 0.0f;
            float dr = 0.0f;
            if (hasBefore && hasAfter) {
                dl = positions[index] - positions[before_];
                dr = positions[after] - positions[index];
            } else if (hasBefore) {
                dl = dr = positions[index] - positions[before_];
            } else if (hasAfter) {
                dl = dr = positions[after] - positions[index];
            } else {
                dl = dr = width * 0.2f;
            }
            const float d = dl < dr ? dl : dr;
            const float x = positions[index];
            const float y = values[index];
            kinds[index] = static_cast<Kind>(kind);
            insertPoint(index + 1, MCP_RIGHT_HANDLE, x + 0.5f * d, y);
            insertPoint(index, MCP_LEFT_HANDLE, x - 0.5f * d, y);
            sort();
        }
    }
    if (!isValid()) {
        restore(before);
        return 0;
    }
    rebuild();
    return 1;
}

int MultiCurve::deletePoint(int index) {
    if (index < 0 || index >= count() || isHandle(kinds[index])) return 0;
    const Snapshot before = takeSnapshot();
    if (isBezier(kinds[index])) {
        const int l = leftHandle(index);
        const int r = rightHandle(index);
        if (r >= 0) removePoint(r);
        removePoint(index);
        if (l >= 0) removePoint(l);
    } else {
        removePoint(index);
    }
    if (!isValid()) {
        restore(before);
        return 0;
    }
    rebuild();
    return 1;
}

int MultiCurve::deleteSelected() {
    int deleted = 0;
    int i = 0;
    while (i < count()) {
        if (!selected[i] || isHandle(kinds[i])) {
            ++i;
            continue;
        }
        const bool bezier = isBezier(kinds[i]);
        if (!deletePoint(i)) {
            ++i;
            continue;
        }
        ++deleted;
        // A Bezier key took points before it with it: walk again from the start.
        if (bezier) i = 0;
    }
    return deleted;
}

}  // namespace vaporix
