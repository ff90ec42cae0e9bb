// Piecewise cubic Bezier curves over the x axis: keys with an in-handle and an out-handle each.
#include "editors/Bezier.h"

namespace vaporix {

namespace {

/// de Casteljau's construction of one coordinate of a cubic at t.
float casteljau(float p0, float p1, float p2, float p3, float t) {
    const float s = 1.0f - t;
    const float a = p0 * s + p1 * t;
    const float b = p1 * s + p2 * t;
    const float c = p2 * s + p3 * t;
    const float ab = a * s + b * t;
    const float bc = b * s + c * t;
    return ab * s + bc * t;
}

}  // namespace

float Bezier::evaluate(const Point* p, int count, float x) {
    if (!p || count <= 0 || count % 3 != 0) return 0.0f;
    const int keys = count / 3;

    // Outside the keys: the straight line through the end key and its outer handle.
    const Point& firstKey = p[1];
    if (x <= firstKey.x) {
        const Point& h = p[0];
        const float f = (x - firstKey.x) / (h.x - firstKey.x);
        return firstKey.y + f * (h.y - firstKey.y);
    }
    const Point& lastKey = p[count - 2];
    if (x >= lastKey.x) {
        const Point& h = p[count - 1];
        const float f = (x - lastKey.x) / (h.x - lastKey.x);
        return lastKey.y + f * (h.y - lastKey.y);
    }

    // The piece: the last key at or below x, found by bisection over the keys.
    int lo = 0;
    int hi = keys - 1;
    while (hi - lo > 1) {
        const int mid = (lo + hi) / 2;
        if (p[3 * mid + 1].x <= x)
            lo = mid;
        else
            hi = mid;
    }
    const Point& p0 = p[3 * lo + 1];
    const Point& p1 = p[3 * lo + 2];
    const Point& p2 = p[3 * lo + 3];
    const Point& p3 = p[3 * lo + 4];

    const Point piece[4] = {p0, p1, p2, p3};
    float y = 0.0f;
    solvePieces(&piece, &x, &y, 1);
    return y;
}

void Bezier::solvePieces(const Point (*pieces)[4], const float* xs, float* ys, int n) {
    // The parameter whose x is the argument, by bisection on the x components; several
    // arguments side by side, each exactly as alone.
    constexpr int LANES = 8;
    for (int base = 0; base < n; base += LANES) {
        const int m = n - base < LANES ? n - base : LANES;
        float tl[LANES], th[LANES];
        for (int k = 0; k < LANES; ++k) {
            tl[k] = 0.0f;
            th[k] = 1.0f;
        }
        for (int round = 0; round < 24; ++round) {
            for (int k = 0; k < m; ++k) {
                if (!(th[k] - tl[k] > 1e-20f)) continue;
                const Point* p = pieces[base + k];
                const float t = (tl[k] + th[k]) * 0.5f;
                const bool below = casteljau(p[0].x, p[1].x, p[2].x, p[3].x, t) < xs[base + k];
                tl[k] = below ? t : tl[k];
                th[k] = below ? th[k] : t;
            }
        }
        for (int k = 0; k < m; ++k) {
            const Point* p = pieces[base + k];
            ys[base + k] = casteljau(p[0].y, p[1].y, p[2].y, p[3].y, tl[k]);
        }
    }
}

}  // namespace vaporix
