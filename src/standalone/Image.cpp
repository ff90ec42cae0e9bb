// A rendered image and its render elements.
#include "standalone/Image.h"

#include <algorithm>
#include <new>

namespace vaporix {

bool Image::resize(int w, int h) {
    if (w < 1 || h < 1 || w > MAX_SIZE || h > MAX_SIZE) {
        width = height = 0;
        rgba.clear();
        volume.clear();
        transmittance.clear();
        return false;
    }
    const size_t n = static_cast<size_t>(w) * static_cast<size_t>(h);
    try {
        rgba.resize(4 * n);
        volume.resize(3 * n);
        transmittance.resize(3 * n);
    } catch (const std::bad_alloc&) {
        width = height = 0;
        rgba = {};
        volume = {};
        transmittance = {};
        return false;
    }
    width = w;
    height = h;
    clear();
    return true;
}

void Image::clear() {
    std::fill(rgba.begin(), rgba.end(), 0.0f);
    std::fill(volume.begin(), volume.end(), 0.0f);
    std::fill(transmittance.begin(), transmittance.end(), 1.0f);
}

}  // namespace vaporix
