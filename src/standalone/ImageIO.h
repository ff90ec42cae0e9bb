// Image files of the stand-alone renderer: PNG for viewing and OpenEXR for compositing.
#pragma once

#include <string>

#include "standalone/Image.h"

namespace vaporix {

/// Display gamma of PNG files: linear colour c is stored as round(255 * clamp(c)^(1/2.2)).
constexpr float PNG_GAMMA = 2.2f;

/// PNG, 8 bits per channel, RGBA: the beauty with the display gamma applied and clamped to
/// 0..1; alpha is linear, or 1 everywhere with `opaque` (when the background is part of the
/// picture, as a viewer would otherwise lay the image over its own backdrop).
bool writePng(const std::string& path, const Image& image, std::string& error, bool opaque = false);

/// OpenEXR, half floats, linear, zip compressed. Channels: R, G, B, A (the beauty and its
/// alpha); volume.R, volume.G, volume.B (the volumes' own light, premultiplied);
/// transmittance.R, transmittance.G, transmittance.B (the volumes' transparency).
bool writeExr(const std::string& path, const Image& image, std::string& error);

/// By the file's extension (.png or .exr, any case). @return false with `error` for another
/// extension or a failed write.
/// `opaquePng` is passed to `writePng`; OpenEXR files always keep the alpha.
bool writeImage(const std::string& path,
                const Image& image,
                std::string& error,
                bool opaquePng = false);

/// Whether the extension is one `writeImage` knows.
bool isImageFileName(const std::string& path);

// Every write goes to a temporary file in the same folder that is renamed into place when
// complete: a failed or interrupted write never leaves a half-written file under `path`.

}  // namespace vaporix
