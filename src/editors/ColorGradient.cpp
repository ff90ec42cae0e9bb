// A colour ramp over a channel value: keys with a position and an RGB colour, smooth between.
#include "editors/ColorGradient.h"

#include "editors/StableOrder.h"

namespace vaporix {

namespace {
/// Limits to 0..1; NaN becomes 0 so that no table ever receives it.
float unit(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }
}  // namespace

void ColorGradient::keyColor(int i, float out[3]) const {
    out[0] = red.knot(i);
    out[1] = green.knot(i);
    out[2] = blue.knot(i);
}

void ColorGradient::evaluate(float x, float out[3]) const {
    if (count() == 0) {
        out[0] = out[1] = out[2] = 0.0f;
        return;
    }
    const float u = position.inverse(x);
    out[0] = unit(red.value(u));
    out[1] = unit(green.value(u));
    out[2] = unit(blue.value(u));
}

void ColorGradient::evaluateMany(const float* xs, float* rgb, int n) const {
    if (count() == 0) {
        for (int k = 0; k < 3 * n; ++k) rgb[k] = 0.0f;
        return;
    }
    constexpr int CHUNK = 256;
    float us[CHUNK];
    for (int base = 0; base < n; base += CHUNK) {
        const int m = n - base < CHUNK ? n - base : CHUNK;
        position.inverseMany(xs + base, us, m);
        for (int k = 0; k < m; ++k) {
            float* out = rgb + 3 * (base + k);
            out[0] = unit(red.value(us[k]));
            out[1] = unit(green.value(us[k]));
            out[2] = unit(blue.value(us[k]));
        }
    }
}

void ColorGradient::recomputeAll() {
    position.recompute();
    red.recompute();
    green.recompute();
    blue.recompute();
}

void ColorGradient::dropAll() {
    position.clear();
    red.clear();
    green.clear();
    blue.clear();
    selected.resize(0);
}

void ColorGradient::clear() { dropAll(); }

int ColorGradient::addKey(float x, const float rgb[3]) {
    int index = 0;
    for (int i = 0; i < count(); ++i)
        if (position.knot(i) <= x) index = i + 1;
    return insertKey(index, x, rgb);
}

int ColorGradient::insertKey(int index, float x, const float rgb[3]) {
    if (index < 0) index = 0;
    if (index > count()) index = count();
    bool ok = position.insert(index, x, true) && red.insert(index, rgb[0], true) &&
              green.insert(index, rgb[1], true) && blue.insert(index, rgb[2], true);
    if (ok) {
        ok = selected.resize(selected.count + 1) != 0;
        if (ok) {
            for (int j = selected.count - 1; j > index; --j) selected[j] = selected[j - 1];
            selected[index] = false;
        }
    }
    if (!ok) {
        dropAll();
        return -1;
    }
    return index;
}

void ColorGradient::deleteKey(int index) {
    if (index < 0 || index >= count()) return;
    position.remove(index, true);
    red.remove(index, true);
    green.remove(index, true);
    blue.remove(index, true);
    selected.removeRange(index, 1, true);
}

void ColorGradient::deleteSelected() {
    for (int i = count() - 1; i >= 0; --i) {
        if (i >= selected.count || !selected[i]) continue;
        position.remove(i, false);
        red.remove(i, false);
        green.remove(i, false);
        blue.remove(i, false);
        selected.removeRange(i, 1, true);
    }
    recomputeAll();
}

int ColorGradient::shiftSelected(float dx, int focus) {
    for (int i = 0; i < count() && i < selected.count; ++i)
        if (selected[i]) position.set(i, position.knot(i) + dx, false);
    return sortTracking(focus);
}

void ColorGradient::sort() { sortTracking(-1); }

int ColorGradient::sortTracking(int focus) {
    const int n = count();
    int landed = focus;
    iArray<float> keys;
    iArray<int> order;
    if (n >= 2 && selected.count == n && keys.resize(n, true)) {
        for (int i = 0; i < n; ++i) keys[i] = position.knot(i);
        const CSpline p(position), r(red), g(green), b(blue);
        const iArray<bool> s(selected);
        if (internal::stableOrder(keys.data, n, order) && p.count == n && r.count == n &&
            g.count == n && b.count == n && s.count == n) {
            for (int i = 0; i < n; ++i) {
                const int from = order[i];
                position.segments[i].d = p.segments[from].d;
                red.segments[i].d = r.segments[from].d;
                green.segments[i].d = g.segments[from].d;
                blue.segments[i].d = b.segments[from].d;
                selected[i] = s[from];
                if (from == focus) landed = i;
            }
        }
    }
    recomputeAll();
    return landed;
}

bool ColorGradient::equals(const ColorGradient& other) const {
    if (count() != other.count()) return false;
    for (int i = 0; i < count(); ++i) {
        // NaN != NaN, so a NaN anywhere makes the gradients differ.
        if (!(position.knot(i) == other.position.knot(i)) || !(red.knot(i) == other.red.knot(i)) ||
            !(green.knot(i) == other.green.knot(i)) || !(blue.knot(i) == other.blue.knot(i)))
            return false;
    }
    return true;
}

void ColorGradient::assign(const ColorGradient& other) {
    if (this == &other) return;
    position = other.position;
    red = other.red;
    green = other.green;
    blue = other.blue;
    selected = other.selected;
    if (position.count != other.count() || red.count != other.count() ||
        green.count != other.count() || blue.count != other.count() ||
        selected.count != other.count())
        dropAll();
}

}  // namespace vaporix
