// A frame as playback shows it, baked into a frame of its own that can be written: channels
// encoded afresh (a blend keeps none in encoded form), particle groups compressed.
#pragma once

#include <cstdint>
#include <string>

#include "cache/VaporixFrameData.h"

namespace vaporix {

/// Settings of the grid stream encoder, as the pack command takes them.
struct EncodeSettings {
    int quantBits = 16;
    float quantStep = 0;
    int passes = 2;
    int zones = 1;
};

/// Copies header, grid channels (0 to 30; the packed colour as its three float channels) and
/// particle groups of `src` into the empty frame `out`, numbered `number`, with the channels
/// encoded by `settings`. @return false with `error` when encoding fails.
bool bakeFrame(VaporixFrameData& src,
               int32_t number,
               const EncodeSettings& settings,
               VaporixFrameData& out,
               uint32_t& mask,
               std::string& error);

}  // namespace vaporix
