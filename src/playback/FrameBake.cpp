// Baking a shown frame into a writable one.
#include "playback/FrameBake.h"

#include <cstring>

namespace vaporix {

bool bakeFrame(VaporixFrameData& src,
               int32_t number,
               const EncodeSettings& settings,
               VaporixFrameData& out,
               uint32_t& mask,
               std::string& error) {
    std::memcpy(out.gridSize, src.gridSize, sizeof out.gridSize);
    out.gridTransform = src.gridTransform;
    out.timeStep = src.timeStep;
    std::memcpy(out.simRecord, src.simRecord, sizeof out.simRecord);
    out.frameNumber = number;
    out.comment = src.comment;
    std::memcpy(out.particleBox, src.particleBox, sizeof out.particleBox);
    mask = 0;
    const int dims[3] = {src.gridSize[0], src.gridSize[1], src.gridSize[2]};
    SGCompressor<3> codec;
    // The packed colour (18) is written as its three float channels; 31 is no grid channel.
    for (int c = 0; c < CHANNEL_COUNT - 1; ++c) {
        if (c == CH_PACKED_RGB || !src.HasChannel(c)) continue;
        const float* data = src.GetChannelData(c);
        if (!data) continue;
        if (codec.encodeZoned(data, dims, settings.quantBits, settings.quantStep, settings.passes,
                              settings.zones) <= 0 ||
            !out.appendStreamBlock(c, codec.output.data,
                                   static_cast<uint64_t>(codec.output.count))) {
            error = "channel " + std::to_string(c) + " can't be encoded";
            return false;
        }
        mask |= 1u << c;
    }
    out.channelMask = mask;
    for (int g = 0; g < src.groups.count; ++g) {
        if (!out.groups.append(src.groups[g])) {
            error = "out of memory";
            return false;
        }
        PGroup& group = out.groups.last();
        group.frame = &out;
        for (int c = 0; c < PRT_CHANNELS; ++c) {
            ChannelData& cd = group.channelData[c];
            if (cd.compressed.count > 0 || cd.expanded.count == 0) continue;
            if (!group.CompressChannel(c, c == PRT_ID ? PRT_KIND_BITPLANES
                                                      : PRT_KIND_SG_COMPONENTS)) {
                error = "particles of group " + group.name + " can't be compressed";
                return false;
            }
        }
    }
    return true;
}

}  // namespace vaporix
