// A cubic Hermite spline over its knot index, with an inverse by bisection.
#include "editors/CSpline.h"

#include <cmath>
#include <cstdint>
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
    // Closed: the remainder keeps the sign of u, so a closed spline below 0 extrapolates from
    // the first knot as an open one does. The clamp applies after it, closed or not.
    if (flags & CLOSED) u = std::fmod(u, fn);
    if (flags & CLAMP) {
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

namespace {

/// The nodes of one bisection path of inverse(): for each round, the bounds it started from,
/// its midpoint, the spline's value there and the way it went (0 down, 1 up, 2 exact hit).
/// Neighbouring arguments of a table share the first rounds of their paths, so the next
/// argument reads those rounds from here instead of evaluating the spline again; where it goes
/// the other way, it continues from that node. The rounds and values are the very ones that
/// inverse() computes, so the result is the same to the bit.
struct BisectionPath {
    static constexpr int ROUNDS = 24;
    float lo[ROUNDS], hi[ROUNDS], mid[ROUNDS], value[ROUNDS];
    uint8_t way[ROUNDS];
    int length = 0;
};

}  // namespace

void CSpline::inverseMany(const float* ys, float* us, int n) const {
    if (count < 2) {
        for (int k = 0; k < n; ++k) us[k] = inverse(ys[k]);
        return;
    }
    const float first = segments[0].d;
    const float last = segments[count - 1].d;
    const float lastU = static_cast<float>(count - 1);
    const bool ascending = last >= first;
    constexpr int ROUNDS = BisectionPath::ROUNDS;

    // Lanes work through contiguous runs of the arguments side by side, each with the path of
    // its previous argument, so that the rounds that need the spline keep the processor busy.
    constexpr int LANES = 8;
    struct Lane {
        int next = 0, end = 0;  // the run still to do
        int index = -1;         // the argument being solved, -1 when the lane is idle
        int round = 0;
        float y = 0.0f;
        float bound[2] = {0.0f, 0.0f};  // lo, hi
        BisectionPath path;
    };
    Lane lanes[LANES];
    const int run = (n + LANES - 1) / LANES;
    for (int k = 0; k < LANES; ++k) {
        lanes[k].next = k * run < n ? k * run : n;
        lanes[k].end = (k + 1) * run < n ? (k + 1) * run : n;
    }

    // Takes the lane's next argument inside the range and walks the rounds it shares with the
    // previous path; false when the run is done.
    const auto startNext = [&](Lane& l) {
        while (l.next < l.end) {
            const int i = l.next++;
            const float y = ys[i];
            const bool outside = ascending ? (y < first || y > last) : (y > first || y < last);
            if (outside) {
                us[i] = inverse(y);
                continue;
            }
            BisectionPath& p = l.path;
            int r = 0;
            bool solved = false;
            for (; r < p.length; ++r) {
                const float v = p.value[r];
                if (v == y) {
                    p.way[r] = 2;
                    p.length = r + 1;
                    us[i] = p.mid[r];
                    solved = true;
                    break;
                }
                const uint8_t way = (ascending ? v < y : v > y) ? 1 : 0;
                if (way != p.way[r]) {
                    p.way[r] = way;
                    p.length = r + 1;
                    break;
                }
            }
            if (solved) continue;
            if (r == ROUNDS) {  // the whole path is shared
                us[i] = p.mid[ROUNDS - 1];
                continue;
            }
            if (r < p.length || (r > 0 && r == p.length)) {
                // Continue below the last shared node, the way this argument goes there.
                const int at = r < p.length ? r : r - 1;
                l.bound[0] = p.lo[at];
                l.bound[1] = p.hi[at];
                l.bound[1 - p.way[at]] = p.mid[at];
                l.round = at + 1;
                if (l.round == ROUNDS) {
                    us[i] = p.mid[ROUNDS - 1];
                    continue;
                }
            } else {
                l.bound[0] = 0.0f;
                l.bound[1] = lastU;
                l.round = 0;
            }
            l.index = i;
            l.y = y;
            return true;
        }
        l.index = -1;
        return false;
    };

    int busy = 0;
    for (Lane& l : lanes)
        if (startNext(l)) ++busy;
    while (busy > 0) {
        for (Lane& l : lanes) {
            if (l.index < 0) continue;
            // One round of inverse(), recorded in the path.
            BisectionPath& p = l.path;
            const int r = l.round;
            const float mid = (l.bound[1] - l.bound[0]) * 0.5f + l.bound[0];
            const float v = evaluatePiece(mid);
            p.lo[r] = l.bound[0];
            p.hi[r] = l.bound[1];
            p.mid[r] = mid;
            p.value[r] = v;
            p.length = r + 1;
            // The direction is a coin toss: the bound moves by an index, not a branch.
            const int up = ascending ? static_cast<int>(v < l.y) : static_cast<int>(v > l.y);
            p.way[r] = static_cast<uint8_t>(up);
            l.bound[1 - up] = mid;
            l.round = r + 1;
            bool done = l.round == ROUNDS;
            if (v == l.y) {
                p.way[r] = 2;
                done = true;
            }
            if (done) {
                us[l.index] = mid;
                if (!startNext(l)) --busy;
            }
        }
    }
}

}  // namespace vaporix
