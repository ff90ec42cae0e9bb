// A rendered image: linear float RGBA beauty plus the render elements the renderer keeps.
#pragma once

#include <cstddef>
#include <vector>

namespace vaporix {

/// Pixels are stored row by row from the top-left corner. All colours are linear.
///  - `rgba`: the beauty, colour of the volumes + their transparency * what lies behind (the
///    background colour or the ground), and the alpha (1 - mean transparency; 1 where the
///    ground is seen);
///  - `volume`: the light of the volumes alone (premultiplied, nothing behind them);
///  - `transmittance`: the volumes' transparency per channel (1 = clear).
class Image {
public:
    /// Largest width or height accepted.
    static constexpr int MAX_SIZE = 16384;

    int width = 0;
    int height = 0;
    std::vector<float> rgba;
    std::vector<float> volume;
    std::vector<float> transmittance;

    /// Sizes the image and clears it (beauty and volume 0, transmittance 1). @return false for
    /// a size outside 1..MAX_SIZE or when memory runs out (the image is then empty).
    bool resize(int w, int h);
    void clear();

    float* pixel(int x, int y) { return rgba.data() + 4 * (static_cast<size_t>(y) * width + x); }
    const float* pixel(int x, int y) const {
        return rgba.data() + 4 * (static_cast<size_t>(y) * width + x);
    }
    size_t pixelCount() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
};

}  // namespace vaporix
