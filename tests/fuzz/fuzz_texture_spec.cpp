// libFuzzer target: texture descriptions (KIND:KEY=VALUE,...) through their reader; a texture
// that reads is evaluated at a few points, which must give finite colours.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "render/Texture.h"

using namespace vaporix;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string error;
    const auto texture = parseTextureSpec(text, error);
    if (!texture) {
        if (error.empty()) std::abort();  // a refusal always says why
        return 0;
    }
    const float points[][3] = {{0.0f, 0.0f, 0.0f}, {1.5f, -2.25f, 3.125f}, {1e6f, -1e7f, 1e8f}};
    for (const auto& p : points) {
        float out[3];
        texture->evaluate(out, p, 0.5f);
        for (float c : out)
            if (!std::isfinite(c) && std::isfinite(c * 0.0f)) std::abort();
    }
    return 0;
}
