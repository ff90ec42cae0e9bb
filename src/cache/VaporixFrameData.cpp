// Frame data: lazy channel expansion, ranges, boxes, info text, clearing and the shared list.
#include "cache/VaporixFrameData.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "cache/CacheIO.h"
#include "cache/ParticleJobs.h"
#include "cache/limits.h"
#include "cache/zlibutil.h"
#include "foundation/EnumFiles.h"
#include "foundation/FramePattern.h"
#include "foundation/log.h"

namespace vaporix {

namespace {

float* allocFloats(int64_t n) {
    if (n <= 0) return nullptr;
    return static_cast<float*>(internal::arrayAllocate(static_cast<size_t>(n) * sizeof(float)));
}

void freeFloats(float*& p) {
    internal::arrayRelease(p);
    p = nullptr;
}

/// Resolves a pattern and a frame number to an existing file of the sequence.
bool resolveFrameFile(const char* pattern, int frame, bool exact, std::string& out) {
    return pattern && *pattern && findFrameFile(pattern, frame, exact, out);
}

/// The extension of a file name, folded to lower case, that picks its reader.
iString extensionOf(const char* path) { return iString(getExtension(path)).lower(); }

std::string groupDigits(int64_t n) {
    std::string digits = std::to_string(n);
    std::string out;
    const int len = static_cast<int>(digits.size());
    for (int i = 0; i < len; ++i) {
        if (i > 0 && (len - i) % 3 == 0 && digits[i - 1] != '-') out += ' ';
        out += digits[i];
    }
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Sampling

void SampleChannels(float* const* channels,
                    const int size[3],
                    const float pos[3],
                    float* out,
                    uint32_t linearMask,
                    uint32_t weightedMask,
                    int weightChannel) {
    if (size[0] <= 0 || size[1] <= 0 || size[2] <= 0) return;
    int64_t cell[3], next[3];
    float frac[3];
    const bool inside = pos[0] >= 0.0f && pos[0] < static_cast<float>(size[0] - 1) &&
                        pos[1] >= 0.0f && pos[1] < static_cast<float>(size[1] - 1) &&
                        pos[2] >= 0.0f && pos[2] < static_cast<float>(size[2] - 1);
    for (int a = 0; a < 3; ++a) {
        float p = pos[a];
        if (!inside) {
            // NaN fails both tests and lands on 0.
            const float top = static_cast<float>(size[a] - 1);
            if (!(p >= 0.0f)) p = 0.0f;
            if (!(p <= top)) p = top;
        }
        cell[a] = static_cast<int64_t>(p);
        frac[a] = p - static_cast<float>(cell[a]);
        next[a] = (inside || cell[a] < size[a] - 1) ? cell[a] + 1 : cell[a];
    }
    const int64_t sx = size[0], sxy = int64_t(size[0]) * size[1];
    int64_t idx[8];
    float w[8];
    for (int k = 0; k < 8; ++k) {
        const int64_t x = (k & 1) ? next[0] : cell[0];
        const int64_t y = (k & 2) ? next[1] : cell[1];
        const int64_t z = (k & 4) ? next[2] : cell[2];
        idx[k] = x + sx * y + sxy * z;
        const float wx = (k & 1) ? frac[0] : 1.0f - frac[0];
        const float wy = (k & 2) ? frac[1] : 1.0f - frac[1];
        const float wz = (k & 4) ? frac[2] : 1.0f - frac[2];
        w[k] = wx * wy * wz;
    }
    for (int n = 0; n < 16; ++n) {
        if (!((linearMask >> n) & 1u) || !channels[n]) continue;
        const float* ch = channels[n];
        float sum = 0.0f;
        for (int k = 0; k < 8; ++k) sum += w[k] * ch[idx[k]];
        out[n] = sum;
    }
    if (weightedMask == 0) return;
    // Without a weight channel among the sampled ones there is no weight at all: the weighted
    // channels read 0, as they do where the weights near the sample add up to nothing.
    float ww[8] = {};
    float total = 0.0f;
    if (weightChannel >= 0 && weightChannel < 16 && ((linearMask >> weightChannel) & 1u) &&
        channels[weightChannel]) {
        const float* wch = channels[weightChannel];
        for (int k = 0; k < 8; ++k) {
            ww[k] = w[k] * wch[idx[k]];
            total += ww[k];
        }
    }
    const bool usable = total > 1e-6f;
    const float inv = usable ? 1.0f / total : 0.0f;
    for (int n = 0; n < 16; ++n) {
        if (!((weightedMask >> n) & 1u) || !channels[n]) continue;
        if (!usable) {
            out[n] = 0.0f;
            continue;
        }
        const float* ch = channels[n];
        float sum = 0.0f;
        for (int k = 0; k < 8; ++k) sum += ww[k] * ch[idx[k]];
        out[n] = sum * inv;
    }
}

// ---------------------------------------------------------------------------------------------
// Life cycle and clearing

VaporixFrameData::VaporixFrameData() { resetHeader(false); }

VaporixFrameData::~VaporixFrameData() {
    clearChannels();
    clearContents();
    clearBlendScratch();
    for (auto*& c : compressors) {
        delete c;
        c = nullptr;
    }
}

void VaporixFrameData::clearChannels() {
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        freeFloats(channels[c]);
        rangeMin[c] = RANGE_UNKNOWN_MIN;
        rangeMax[c] = RANGE_UNKNOWN_MAX;
    }
}

void VaporixFrameData::clearContents() {
    internal::arrayRelease(comprData);
    comprData = nullptr;
    comprDataSzInts = 0;
    groups.free();
    comment.clear();
}

void VaporixFrameData::clearBlendScratch() {
    for (auto*& b : blendSource) freeFloats(b);
    blendSourceCells = 0;
}

void VaporixFrameData::resetHeader(bool headerOnly) {
    frameFlags &= static_cast<uint8_t>(~7u);
    if (headerOnly) frameFlags |= FRAME_HEADER_ONLY;
    std::memset(simRecord, 0, sizeof simRecord);
    auxTransform1 = GridTransform::zero();
    auxTransform2 = GridTransform::zero();
    // Every caller frees the arrays first; free here too so that no path can leak them.
    clearChannels();
    simFloat = 0.001f;
    timeStep = DEFAULT_TIME_STEP;
    auxTransform3 = GridTransform::identity();
    for (int a = 0; a < 3; ++a) {
        particleBox[a] = PARTICLE_BOX_EMPTY;
        particleBox[a + 3] = -PARTICLE_BOX_EMPTY;
    }
    channelMask = 0;
    axesSwapped = 0;
}

// ---------------------------------------------------------------------------------------------
// Header fields inside the record

double VaporixFrameData::simTime() const {
    double t;
    std::memcpy(&t, simRecord + SIM_TIME_OFFSET, 8);
    return t;
}
double VaporixFrameData::simTime2() const {
    double t;
    std::memcpy(&t, simRecord + SIM_TIME2_OFFSET, 8);
    return t;
}
int32_t VaporixFrameData::simInt() const {
    int32_t v;
    std::memcpy(&v, simRecord + SIM_INT_OFFSET, 4);
    return v;
}
void VaporixFrameData::setSimTime(double t) { std::memcpy(simRecord + SIM_TIME_OFFSET, &t, 8); }
void VaporixFrameData::setSimTime2(double t) { std::memcpy(simRecord + SIM_TIME2_OFFSET, &t, 8); }
void VaporixFrameData::setSimInt(int32_t v) { std::memcpy(simRecord + SIM_INT_OFFSET, &v, 4); }

// ---------------------------------------------------------------------------------------------
// Grid channels

int64_t VaporixFrameData::getCellCount() const {
    return int64_t(gridSize[0]) * int64_t(gridSize[1]) * int64_t(gridSize[2]);
}

bool VaporixFrameData::HasChannel(int channel) {
    if (channel < 0 || channel >= CHANNEL_COUNT || channel == CH_PACKED_RGB) return false;
    const uint32_t mask = channelMask & 0x7FFFFFFFu;
    if ((mask >> channel) & 1u) return true;
    if (channel >= CH_RED && channel <= CH_BLUE && ((mask >> CH_PACKED_RGB) & 1u)) return true;
    if (channel == CH_SPEED)
        return HasChannel(CH_VELOCITY_X) && HasChannel(CH_VELOCITY_Y) && HasChannel(CH_VELOCITY_Z);
    return false;
}

bool VaporixFrameData::hasAnyChannel() {
    for (int c = 0; c < CHANNEL_COUNT; ++c)
        if (HasChannel(c)) return true;
    return false;
}

bool VaporixFrameData::findBlock(int channel, int64_t& start, int64_t& words) const {
    int64_t i = 0;
    const int64_t n = comprDataSzInts;
    while (i < n - 1 && comprData[i + 1] > 0) {
        const int64_t length = comprData[i + 1];
        if (comprData[i] == channel) {
            // A block that claims more words than the stream holds is cut at its end.
            start = i + 2;
            words = std::min<int64_t>(length, n - start);
            return words > 0;
        }
        i += length + 2;
    }
    return false;
}

float* VaporixFrameData::GetChannelData(int channel) {
    if (channel < 0 || channel >= CHANNEL_COUNT) return nullptr;
    float* data;
    {
        std::lock_guard<std::mutex> lock(channelLocks[channel]);
        if (!channels[channel]) expandChannelLocked(channel);
        data = channels[channel];
    }
    if (!data && channel >= CH_RED && channel <= CH_BLUE) {
        // Red, green and blue may come packed in channel 18, which fills all three. That
        // expansion takes the three locks itself, so the pointer is read under ours again.
        GetChannelData(CH_PACKED_RGB);
        std::lock_guard<std::mutex> lock(channelLocks[channel]);
        data = channels[channel];
    }
    return data;
}

void VaporixFrameData::expandChannelLocked(int channel) {
    const int64_t cells = getCellCount();
    int64_t start = 0, words = 0;
    if (comprData && cells > 0 && cells <= MAX_GRID_CELLS && findBlock(channel, start, words)) {
        const uint8_t* payload = reinterpret_cast<const uint8_t*>(comprData + start);
        const uint64_t payloadBytes = static_cast<uint64_t>(words) * 4;
        bool ok = false;
        if (channel == CH_PACKED_RGB) {
            // A byte count, then a zlib stream of four bytes a cell.
            uint64_t streamBytes = 0;
            if (payloadBytes >= 8) std::memcpy(&streamBytes, payload, 8);
            const uint64_t outBytes = static_cast<uint64_t>(cells) * 4;
            if (payloadBytes >= 8 && streamBytes <= payloadBytes - 8 &&
                expansionJustified(outBytes, streamBytes)) {
                channels[channel] = allocFloats(cells + 4);
                uint64_t written = 0;
                ok = channels[channel] &&
                     inflateInto(payload + 8, streamBytes,
                                 reinterpret_cast<uint8_t*>(channels[channel]), outBytes,
                                 &written) &&
                     written == outBytes;
            }
        } else if (expansionJustified(static_cast<uint64_t>(cells) * 4, payloadBytes)) {
            channels[channel] = allocFloats(cells + 4);
            if (channels[channel]) {
                if (!compressors[channel])
                    compressors[channel] = new (std::nothrow) SGCompressor<3>;
                ok = compressors[channel] &&
                     compressors[channel]->decode(payload, payloadBytes, channels[channel],
                                                  static_cast<uint64_t>(cells));
            }
        }
        if (!ok) {
            lumoLog("Invalid cache file!!!\n");
            freeFloats(channels[channel]);
        }
    }
    if (channel == CH_PACKED_RGB && channels[CH_PACKED_RGB]) expandPackedRgbLocked();
    if (channel == CH_SPEED && !channels[CH_SPEED]) {
        // Speed derived from velocity; the lock of 3 is held while 4, 5, 6 take theirs.
        const float* vx = GetChannelData(CH_VELOCITY_X);
        const float* vy = GetChannelData(CH_VELOCITY_Y);
        const float* vz = GetChannelData(CH_VELOCITY_Z);
        if (vx && vy && vz && (channels[CH_SPEED] = allocFloats(cells + 4))) {
            float* speed = channels[CH_SPEED];
            for (int64_t i = 0; i < cells; ++i)
                speed[i] = sqrtf(vx[i] * vx[i] + vy[i] * vy[i] + vz[i] * vz[i]);
        }
    }
}

void VaporixFrameData::expandPackedRgbLocked() {
    const int64_t cells = getCellCount();
    const uint8_t* packed = reinterpret_cast<const uint8_t*>(channels[CH_PACKED_RGB]);
    // Byte 2 of a cell is red, byte 1 green, byte 0 blue.
    static constexpr int BYTE_OF[3] = {2, 1, 0};
    for (int k = 0; k < 3; ++k) {
        // The lock of 18 is held; 7, 8 and 9 never wait for 18 while holding their own (see
        // GetChannelData), so this order can't deadlock. A channel stored on its own wins.
        const int c = CH_RED + k;
        std::lock_guard<std::mutex> lock(channelLocks[c]);
        if (channels[c]) continue;
        float* out = allocFloats(cells + 4);
        if (!out) continue;
        for (int64_t i = 0; i < cells; ++i)
            out[i] = static_cast<float>(packed[i * 4 + BYTE_OF[k]] / 255.0);
        channels[c] = out;
    }
    freeFloats(channels[CH_PACKED_RGB]);
}

bool VaporixFrameData::appendStreamBlock(int channel, const void* payload, uint64_t payloadBytes) {
    const uint64_t words = (payloadBytes + 3) / 4;
    const uint64_t total = static_cast<uint64_t>(comprDataSzInts) + 2 + words;
    if (words == 0 || words > 0x7FFFFFFF || total > 0x7FFFFFFF) return false;
    auto* grown = static_cast<int32_t*>(internal::arrayAllocate(total * 4));
    if (!grown) return false;
    if (comprDataSzInts) std::memcpy(grown, comprData, static_cast<size_t>(comprDataSzInts) * 4);
    int32_t* block = grown + comprDataSzInts;
    block[0] = channel;
    block[1] = static_cast<int32_t>(words);
    block[1 + words] = 0;  // zero padding of the last word
    std::memcpy(block + 2, payload, payloadBytes);
    internal::arrayRelease(comprData);
    comprData = grown;
    comprDataSzInts = static_cast<int32_t>(total);
    return true;
}

bool VaporixFrameData::getChannelRange(int channel, float& min, float& max) {
    if (channel < 0 || channel >= CHANNEL_COUNT) return false;
    // The cache is shared by all threads without a lock: racing writers store equal values, and
    // relaxed atomic accesses make that well defined. A reader that sees only one of the two
    // stores finds max below the unknown min, and computes the range itself.
    std::atomic_ref<float> cachedMin(rangeMin[channel]), cachedMax(rangeMax[channel]);
    const float knownMin = cachedMin.load(std::memory_order_relaxed);
    const float knownMax = cachedMax.load(std::memory_order_relaxed);
    if (knownMax >= knownMin) {
        min = knownMin;
        max = knownMax;
        return true;
    }
    const float* data = GetChannelData(channel);
    const int64_t cells = getCellCount();
    if (!data || cells <= 0) return false;
    float lo = data[0], hi = data[0];
    for (int64_t i = 1; i < cells; ++i) {
        if (data[i] < lo) lo = data[i];
        if (data[i] > hi) hi = data[i];
    }
    cachedMin.store(lo, std::memory_order_relaxed);
    cachedMax.store(hi, std::memory_order_relaxed);
    min = lo;
    max = hi;
    return true;
}

bool VaporixFrameData::getChannelRange(int channel, std::pair<float, float>& minAndExtent) {
    float lo, hi;
    if (!getChannelRange(channel, lo, hi)) return false;
    minAndExtent = {lo, hi - lo};
    return true;
}

void VaporixFrameData::GetGridSize(int size[3]) {
    for (int a = 0; a < 3; ++a) size[a] = gridSize[a];
}

void VaporixFrameData::GetGridTransform(GridTransform& out) { out = gridTransform; }

void VaporixFrameData::getWorldBox(float box[6], bool withParticles) const {
    float lo[3] = {0, 0, 0};
    float hi[3] = {float(gridSize[0]), float(gridSize[1]), float(gridSize[2])};
    if (withParticles && particleBox[3] >= particleBox[0] && particleBox[4] >= particleBox[1] &&
        particleBox[5] >= particleBox[2]) {
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], particleBox[a]);
            hi[a] = std::max(hi[a], particleBox[a + 3]);
        }
    }
    for (int a = 0; a < 3; ++a) {
        box[a] = PARTICLE_BOX_EMPTY;
        box[a + 3] = -PARTICLE_BOX_EMPTY;
    }
    GridTransform toWorld;
    if (!gridTransform.inverse(toWorld)) return;
    for (int k = 0; k < 8; ++k) {
        const float corner[3] = {(k & 1) ? hi[0] : lo[0], (k & 2) ? hi[1] : lo[1],
                                 (k & 4) ? hi[2] : lo[2]};
        float w[3];
        toWorld.apply(corner, w);
        for (int a = 0; a < 3; ++a) {
            box[a] = std::min(box[a], w[a]);
            box[a + 3] = std::max(box[a + 3], w[a]);
        }
    }
    if (box[0] > box[3] || box[1] > box[4] || box[2] > box[5]) {
        for (int a = 0; a < 3; ++a) {
            box[a] = PARTICLE_BOX_EMPTY;
            box[a + 3] = -PARTICLE_BOX_EMPTY;
        }
    }
}

void VaporixFrameData::getInfoText(std::string& out,
                                   const std::string& lineEnd,
                                   const std::string& lineStart) {
    out = iString::format("[GRID: %s cells, %dx%dx%d]", groupDigits(getCellCount()).c_str(),
                          gridSize[0], gridSize[1], gridSize[2]);
    out += lineEnd;
    auto line = [&](const std::string& text) { out += lineStart + text + lineEnd; };
    auto withRange = [&](const char* label, int channel) {
        float lo, hi;
        std::string text = label;
        if (getChannelRange(channel, lo, hi))
            text += iString::format("(%.2f : %.2f)", double(lo), double(hi));
        line(text);
    };
    if (HasChannel(CH_TEMPERATURE)) withRange("Liquid/Temperature ", CH_TEMPERATURE);
    if (HasChannel(CH_SMOKE)) withRange("Smoke ", CH_SMOKE);
    if (HasChannel(CH_RED) && HasChannel(CH_GREEN) && HasChannel(CH_BLUE)) line("RGB");
    if (HasChannel(CH_WAVELET)) line("Wavelet");
    if (HasChannel(CH_VELOCITY_X) && HasChannel(CH_VELOCITY_Y) && HasChannel(CH_VELOCITY_Z))
        withRange("Velocity ", CH_SPEED);
    else if (HasChannel(CH_SPEED))
        withRange("Speed ", CH_SPEED);
    if (HasChannel(CH_FUEL)) withRange("Fuel ", CH_FUEL);
    if (!lineEnd.empty() && out.size() >= lineEnd.size() &&
        out.compare(out.size() - lineEnd.size(), lineEnd.size(), lineEnd) == 0)
        out.resize(out.size() - lineEnd.size());
}

bool VaporixFrameData::initEmpty(const float size[3], float cellScale, bool unitScale) {
    clearChannels();
    clearContents();
    clearBlendScratch();
    resetHeader(false);
    for (int a = 0; a < 3; ++a) {
        // Rounded to the nearest whole size; what no int can hold (and NaN) counts as 0.
        const float rounded = std::floor(size[a] + 0.5f);
        gridSize[a] =
            (rounded >= 0.0f && rounded < 2147483648.0f) ? static_cast<int32_t>(rounded) : 0;
    }
    bool ok = false;
    // Beyond the largest grid a channel can hold the cell count would not even fit 64 bits.
    if (gridSize[0] > 0 && gridSize[1] > 0 && gridSize[2] > 0 && gridSizeAcceptable(gridSize)) {
        gridTransform = GridTransform::identity();
        gridTransform.m[9] = float(gridSize[0]) * 0.5f;
        gridTransform.m[10] = float(gridSize[1]) * 0.5f;
        gridTransform.m[11] = 0.0f;
        if (unitScale) {
            gridTransform.m[11] = float(gridSize[2]) * 0.5f;
            gridTransform.m[0] = float(gridSize[0]);
            gridTransform.m[4] = float(gridSize[1]);
            gridTransform.m[8] = float(gridSize[2]);
            ok = true;
        } else if (cellScale >= 0.001f) {
            gridTransform.m[0] = gridTransform.m[4] = gridTransform.m[8] = 1.0f / cellScale;
            ok = true;
        }
    }
    if (!ok) {
        clearContents();
        resetHeader(false);
        gridSize[0] = gridSize[1] = gridSize[2] = 0;
        gridTransform = GridTransform::identity();
    }
    return ok;
}

void VaporixFrameData::toggleAxisSwap() {
    float* row1 = gridTransform.m + 3;
    float* row2 = gridTransform.m + 6;
    float old1[3], old2[3];
    std::memcpy(old1, row1, sizeof old1);
    std::memcpy(old2, row2, sizeof old2);
    for (int k = 0; k < 3; ++k) {
        if (!axesSwapped) {
            row2[k] = old1[k];
            row1[k] = -old2[k];
        } else {
            row1[k] = old2[k];
            row2[k] = -old1[k];
        }
    }
    axesSwapped = axesSwapped ? 0 : 1;
}

// ---------------------------------------------------------------------------------------------
// Particle groups

int VaporixFrameData::GetParticleGroupCount() {
    int n = 0;
    for (auto& g : groups)
        if (g.GetCount() > 0) ++n;
    return n;
}

IVaporixPrtGroup* VaporixFrameData::GetParticleGroup(int index) {
    // Counts through the non-empty groups, then hands out entry `index` of the whole list.
    int n = 0;
    for (auto& g : groups) {
        if (g.GetCount() <= 0) continue;
        if (n == index) return index < groups.count ? &groups[index] : nullptr;
        ++n;
    }
    return nullptr;
}

IVaporixPrtGroup* VaporixFrameData::FindParticleGroup(const std::string& name) {
    for (auto& g : groups)
        if (g.name == name) return &g;
    return nullptr;
}

bool VaporixFrameData::resolveParticle(int& group, int& index) {
    if (index < 0 || group < -1) return false;
    if (group >= 0) return group < groups.count && index < groups[group].GetCount();
    int64_t sum = 0;
    for (int g = 0; g < groups.count; ++g) {
        const int n = groups[g].GetCount();
        if (index < sum + n) {
            group = g;
            index = static_cast<int>(index - sum);
            return true;
        }
        sum += n;
    }
    return false;
}

int VaporixFrameData::getParticlePosition(int group,
                                          int index,
                                          float out[3],
                                          const GridTransform* tm) {
    float p[3] = {0, 0, 0};
    if (!resolveParticle(group, index) || !groups[group].GetValue(index, PRT_POSITION, p)) {
        out[0] = out[1] = out[2] = 0.0f;
        return 0;
    }
    if (tm)
        tm->apply(p, out);
    else
        std::memcpy(out, p, sizeof p);
    return 1;
}

void* VaporixFrameData::getParticleVelocity(int group,
                                            int index,
                                            float out[3],
                                            const GridTransform* tm) {
    float v[3] = {0, 0, 0};
    if (!resolveParticle(group, index) || !groups[group].GetValue(index, PRT_VELOCITY, v)) {
        out[0] = out[1] = out[2] = 0.0f;
        return nullptr;
    }
    if (tm)
        tm->applyVector(v, out);
    else
        std::memcpy(out, v, sizeof v);
    for (int a = 0; a < 3; ++a) out[a] *= velocityScale;
    return out;
}

float VaporixFrameData::getParticleSize(int group, int index, float multiplier) {
    float s;
    if (!resolveParticle(group, index) || !groups[group].GetValue(index, PRT_SIZE, &s)) return 0.1f;
    return s * multiplier;
}

float VaporixFrameData::getParticleAge(int group, int index) {
    float a;
    if (!resolveParticle(group, index) || !groups[group].GetValue(index, PRT_AGE, &a)) return 0;
    return a;
}

int64_t VaporixFrameData::getParticleId(int group, int index) {
    int64_t id;
    if (!resolveParticle(group, index) || !groups[group].GetValue(index, PRT_ID, &id)) return 0;
    return id;
}

void VaporixFrameData::computeParticleBox(float box[6]) {
    for (int a = 0; a < 3; ++a) {
        box[a] = PARTICLE_BOX_EMPTY;
        box[a + 3] = -PARTICLE_BOX_EMPTY;
    }
    MTComputeParticlesBbox& job = MTComputeParticlesBbox::instance();
    std::lock_guard<std::mutex> lock(job.lock());
    for (auto& g : groups) {
        if (g.GetCount() <= 0) continue;
        float part[6];
        job.compute(g, part);
        for (int a = 0; a < 3; ++a) {
            box[a] = std::min(box[a], part[a]);
            box[a + 3] = std::max(box[a + 3], part[a + 3]);
        }
    }
}

int VaporixFrameData::getGroupCount(int group) const {
    return (group >= 0 && group < groups.count) ? groups[group].count : 0;
}

// ---------------------------------------------------------------------------------------------
// Loading entries and the shared list

int VaporixFrameData::importFile(const char* path,
                                 const char* channelMapArg,
                                 double frameTime,
                                 bool noRetry,
                                 bool headerOnly,
                                 bool dropCompressed) {
    clearChannels();
    clearContents();
    if (!path || !*path) {
        sourcePath.clear();
        return LOAD_NO_FILE;
    }
    int status;
    if (headerOnly) {
        status = importHeader(path, channelMapArg);
    } else {
        const iString ext = extensionOf(path);
        if (ext == "vxg") {
            status = ImportVxg(path, noRetry, false, dropCompressed);
        } else if (ext == "f3d" || ext == "vdb") {
            status = ext == "f3d" ? CacheIO::importF3D(path, *this, channelMapArg, false)
                                  : CacheIO::importVDB(path, *this, channelMapArg, false);
            if (status == LOAD_OK) setSimTime(frameTime);
        } else {
            status = LOAD_NO_FILE;
        }
    }
    if (status != LOAD_OK)
        sourcePath.clear();
    else
        sourcePath = path;
    return status;
}

int VaporixFrameData::importHeader(const char* path, const char* channelMapArg) {
    if (!path || !*path) return LOAD_NO_FILE;
    const iString ext = extensionOf(path);
    if (ext == "vxg") return ImportVxg(path, true, true, true);
    if (ext == "f3d") return CacheIO::importF3D(path, *this, channelMapArg, true);
    if (ext == "vdb") return CacheIO::importVDB(path, *this, channelMapArg, true);
    return LOAD_NO_FILE;
}

int VaporixFrameData::loadByFrame(int frame,
                                  const char* pattern,
                                  const char* channelMapArg,
                                  bool exact,
                                  bool noRetry,
                                  bool headerOnly) {
    clearChannels();
    clearContents();
    std::string file;
    if (!pattern || !resolveFrameFile(pattern, frame, exact, file)) return LOAD_NO_FILE;
    return importFile(file.c_str(), channelMapArg, frame, noRetry, headerOnly, false);
}

const char* loadStatusText(int status) {
    switch (status) {
        case LOAD_OK:
            return "ok";
        case LOAD_NO_MODULE:
            return "no module for this cache format";
        case LOAD_NO_FILE:
            return "file not found or not a cache file";
        case LOAD_BROKEN:
            return "broken file or out of memory";
        case 5:
            return "Field3D cache read failed";
        case 6:
            return "Field3D cache read failed: not enough memory";
        case 7:
            return "OpenVDB cache read failed";
        case 8:
            return "OpenVDB cache read failed: not enough memory";
        case LOAD_NO_CHANNEL_MAP:
            return "no channel map for a foreign cache";
        case SAVE_FAILED:
            return "the frame can't be written";
        default:
            return "read failure";
    }
}

std::string channelName(int channel) {
    switch (channel) {
        case CH_TEMPERATURE:
            return "Liquid/Temperature";
        case CH_SMOKE:
            return "Smoke";
        case CH_SPEED:
            return "Speed";
        case CH_VELOCITY_X:
            return "Velocity X";
        case CH_VELOCITY_Y:
            return "Velocity Y";
        case CH_VELOCITY_Z:
            return "Velocity Z";
        case CH_RED:
            return "Red";
        case CH_GREEN:
            return "Green";
        case CH_BLUE:
            return "Blue";
        case CH_FUEL:
            return "Fuel";
        case CH_WAVELET:
            return "Wavelet";
        case CH_PACKED_RGB:
            return "Packed RGB";
        default:
            return "Channel " + std::to_string(channel);
    }
}

FrameDataArray::~FrameDataArray() {
    for (int i = count - 1; i >= 0; --i) {
        VaporixFrameData* f = data[i];
        lumoLog("Vaporix cache file not released %d ref:%d\n", f->frameNumber, f->refCount);
        delete f;
    }
    resize(0);
}

FrameDataArray& frameDataArray() {
    static FrameDataArray list;
    return list;
}

int acquireShared(VaporixFrameData*& slot,
                  int frame,
                  const char* pattern,
                  const char* channelMapArg,
                  bool exact,
                  bool noRetry,
                  bool releaseOld) {
    FrameDataArray& list = frameDataArray();
    const std::string map = channelMapArg ? channelMapArg : "";
    std::string file;
    if (!pattern || !resolveFrameFile(pattern, frame, exact, file)) {
        if (releaseOld) releaseFrame(slot);
        slot = nullptr;
        return LOAD_NO_FILE;
    }
    for (VaporixFrameData* f : list) {
        if (f->sourcePath == file && f->channelMap == map) {
            ++f->refCount;
            VaporixFrameData* old = slot;
            slot = f;
            if (releaseOld) releaseFrame(old);
            return LOAD_OK;
        }
    }
    if (releaseOld) releaseFrame(slot);
    slot = nullptr;
    auto* fresh = new (std::nothrow) VaporixFrameData;
    if (!fresh) return LOAD_BROKEN;
    const int status = fresh->importFile(file.c_str(), map.c_str(), frame, noRetry, false, true);
    if (status != LOAD_OK) {
        delete fresh;
        return status;
    }
    fresh->sourcePath = file;
    fresh->channelMap = map;
    fresh->refCount = 1;
    if (!list.append(fresh)) {
        delete fresh;
        return LOAD_BROKEN;
    }
    slot = fresh;
    return LOAD_OK;
}

void releaseFrame(VaporixFrameData* frame) {
    if (!frame) return;
    FrameDataArray& list = frameDataArray();
    const int at = list.find(frame);
    if (at < 0) return;
    if (--frame->refCount >= 1) return;
    delete frame;
    list.data[at] = list.data[list.count - 1];
    list.resize(list.count - 1);
}

}  // namespace vaporix
