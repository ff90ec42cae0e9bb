// A cubic Hermite spline over its knot index, with an inverse by bisection.
#include "editors/CSpline.h"

#include <cmath>
#include <cstring>
#include <new>

namespace vaporix {

CSpline::CSpline(const CSpline& other) : flags(other.flags) {
    if (other.count > 0 && grow(other.count)) {
        std::memcpy(segments, other.segments, sizeof(Segment) * static_cast<size_t>(other.count));
        count = other.count;
    }
}

CSpline& CSpline::operator=(const CSpline& other) {
    if (this == &other) return *this;
    flags = other.flags;
    count = 0;
    if (other.count > 0 && grow(other.count)) {
        std::memcpy(segments, other.segments, sizeof(Segment) * static_cast<size_t>(other.count));
        count = other.count;
    }
    return *this;
}

CSpline::~CSpline() { delete[] segments; }

void CSpline::clear() { count = 0; }

bool CSpline::grow(int needed) {
    if (needed <= capacity) return true;
    // Small splines: 8 knots first, then doubling.
    int newCapacity = capacity < 8 ? 8 : capacity;
    while (newCapacity < needed) {
        if (newCapacity > (1 << 28)) {
            newCapacity = needed;
            break;
        }
        newCapacity *= 2;
    }
    Segment* block = new (std::nothrow) Segment[static_cast<size_t>(newCapacity)];
    if (!block) {
        delete[] segments;
        segments = nullptr;
        count = 0;
        capacity = 0;
        return false;
    }
    if (count > 0) std::memcpy(block, segments, sizeof(Segment) * static_cast<size_t>(count));
    delete[] segments;
    segments = block;
    capacity = newCapacity;
    return true;
}

bool CSpline::append(float value, bool recomputeNow) { return insert(count, value, recomputeNow); }

bool CSpline::insert(int index, float value, bool recomputeNow) {
    if (index < 0 || index > count || count == 0x7fffffff) return false;
    if (!grow(count + 1)) return false;
    std::memmove(segments + index + 1, segments + index,
                 sizeof(Segment) * static_cast<size_t>(count - index));
    segments[index] = Segment{0.0f, 0.0f, 0.0f, value};
    ++count;
    if (recomputeNow) recompute();
    return true;
}

void CSpline::remove(int index, bool recomputeNow) {
    if (index < 0 || index >= count) return;
    std::memmove(segments + index, segments + index + 1,
                 sizeof(Segment) * static_cast<size_t>(count - index - 1));
    --count;
    if (recomputeNow) recompute();
}

void CSpline::set(int index, float value, bool recomputeNow) {
    if (index < 0 || index >= count) return;
    segments[index].d = value;
    if (recomputeNow) recompute();
}

float CSpline::tangent(int i) const {
    const int n = count;
    if (n < 2 || i < 0 || i >= n) return 0.0f;
    const bool closed = (flags & CLOSED) != 0;
    auto v = [this, n](int k) { return segments[((k % n) + n) % n].d; };

    if (!closed && i == 0) return v(1) - v(0);
    if (!closed && i == n - 1) return v(n - 1) - v(n - 2);
    if (flags & MONOTONE) {
        // No overshoot: a tangent is zero at a local extremum and never steeper than the
        // flatter of its two neighbouring chords.
        const float dl = v(i) - v(i - 1);
        const float dr = v(i + 1) - v(i);
        if ((dl > 0.0f) != (dr > 0.0f)) return 0.0f;
        if (dr > 0.0f) return dl < dr ? dl : dr;
        return dl > dr ? dl : dr;
    }
    return (v(i + 1) - v(i - 1)) * 0.5f;
}

void CSpline::recompute() {
    const int n = count;
    if (n == 0) return;
    if (n == 1) {
        segments[0].a = segments[0].b = segments[0].c = 0.0f;
        return;
    }
    const bool closed = (flags & CLOSED) != 0;
    // Tangents first: the pieces must all see the same knot values.
    for (int i = 0; i < n; ++i) {
        const float m0 = tangent(i);
        if (!closed && i == n - 1) {
            // The last knot's piece continues the last chord, so that value() has something to
            // read at u = n-1 and a little beyond.
            const float d = segments[i].d - segments[i - 1].d;
            segments[i].a = 2.0f * m0 - 2.0f * d;
            segments[i].b = 3.0f * (d - m0);
            segments[i].c = m0;
            continue;
        }
        const int next = closed ? (i + 1) % n : i + 1;
        const float m1 = tangent(next);
        const float d = segments[next].d - segments[i].d;
        segments[i].a = m1 + m0 - 2.0f * d;
        segments[i].b = 3.0f * (d - m0) - m1 + m0;
        segments[i].c = m0;
    }
}

float CSpline::value(float u) const {
    const int n = count;
    if (n == 0) return 0.0f;
    const float fn = static_cast<float>(n);
    if (flags & CLOSED) {
        u = std::fmod(u, fn);
        if (u < 0.0f) u += fn;
    } else if (flags & CLAMP) {
        if (u < 0.0f) u = 0.0f;
        if (u > fn - 1.0f) u = fn - 1.0f;
    }
    // Before the first knot: the first tangent extended (NaN lands here too).
    if (!(u >= 0.0f)) return u * segments[0].c + segments[0].d;
    if (u >= fn) {
        // Beyond the end of the last piece: its end value and end slope.
        const Segment& s = segments[n - 1];
        return (s.a + s.b + s.c + s.d) + (u - fn) * (3.0f * s.a + 2.0f * s.b + s.c);
    }
    return evaluatePiece(u);
}

float CSpline::inverse(float y) const {
    const int n = count;
    if (n == 0) return 0.0f;
    if (n == 1) {
        const float v = segments[0].d;
        if (y < v) return -0.001f;
        if (y > v) return 0.001f;
        return 0.0f;
    }
    const float first = segments[0].d;
    const float last = segments[n - 1].d;
    const float lastU = static_cast<float>(n - 1);
    const bool ascending = last >= first;

    // Outside the range: a marker, or a straight extension along the end tangent.
    const bool beforeFirst = ascending ? y < first : y > first;
    const bool afterLast = ascending ? y > last : y < last;
    if (beforeFirst) {
        if (flags & STRICT_INVERSE) return -0.001f;
        return (y - first) / tangent(0);
    }
    if (afterLast) {
        if (flags & STRICT_INVERSE) return lastU + 0.001f;
        return (y - last) / tangent(n - 1) + lastU;
    }

    // Inside: bisection over the parameter; 24 rounds reach float resolution over any range
    // that matters to an editor. The parameter stays within 0..n-1 here, where value() is the
    // plain polynomial of a piece, so the rounds read the pieces directly; the bounds move by
    // selection rather than branches, since each round's direction is a coin toss.
    float lo = 0.0f;
    float hi = lastU;
    float mid = 0.0f;
    for (int round = 0; round < 24; ++round) {
        mid = (hi - lo) * 0.5f + lo;
        const float v = evaluatePiece(mid);
        if (v == y) break;
        const bool up = ascending ? v < y : v > y;
        lo = up ? mid : lo;
        hi = up ? hi : mid;
    }
    return mid;
}

void CSpline::inverseMany(const float* ys, float* us, int n) const {
    if (count < 2) {
        for (int k = 0; k < n; ++k) us[k] = inverse(ys[k]);
        return;
    }
    const float first = segments[0].d;
    const float last = segments[count - 1].d;
    const float lastU = static_cast<float>(count - 1);
    const bool ascending = last >= first;

    // Lanes of bisections in lock step; each lane does exactly what inverse() does.
    constexpr int LANES = 8;
    for (int base = 0; base < n; base += LANES) {
        float lo[LANES], hi[LANES], mid[LANES], y[LANES];
        bool active[LANES];
        for (int k = 0; k < LANES; ++k) {
            active[k] = false;
            lo[k] = mid[k] = y[k] = 0.0f;
            hi[k] = lastU;
            if (base + k >= n) continue;
            y[k] = ys[base + k];
            const bool outside =
                ascending ? (y[k] < first || y[k] > last) : (y[k] > first || y[k] < last);
            if (outside)
                us[base + k] = inverse(y[k]);
            else
                active[k] = true;
        }
        for (int round = 0; round < 24; ++round) {
            for (int k = 0; k < LANES; ++k) {
                if (!active[k]) continue;
                mid[k] = (hi[k] - lo[k]) * 0.5f + lo[k];
                const float v = evaluatePiece(mid[k]);
                if (v == y[k]) {
                    active[k] = false;
                    continue;
                }
                const bool up = ascending ? v < y[k] : v > y[k];
                lo[k] = up ? mid[k] : lo[k];
                hi[k] = up ? hi[k] : mid[k];
            }
        }
        for (int k = 0; k < LANES && base + k < n; ++k) {
            const float yk = ys[base + k];
            const bool outside = ascending ? (yk < first || yk > last) : (yk > first || yk < last);
            if (!outside) us[base + k] = mid[k];
        }
    }
}

}  // namespace vaporix
