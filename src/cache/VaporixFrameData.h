// One cache frame in memory: grid channels (kept compressed until asked for), transform,
// particle groups and header; plus the process-wide list of shared frames.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "cache/GridTransform.h"
#include "cache/PGroup.h"
#include "cache/SGCompressor.h"
#include "foundation/iArray.h"
#include "foundation/iString.h"

namespace vaporix {

/// Grid channel ordinals with a fixed meaning; any other ordinal below 32 is one float a cell.
constexpr int CH_TEMPERATURE = 1;  // or liquid
constexpr int CH_SMOKE = 2;
constexpr int CH_SPEED = 3;
constexpr int CH_VELOCITY_X = 4;
constexpr int CH_VELOCITY_Y = 5;
constexpr int CH_VELOCITY_Z = 6;
constexpr int CH_RED = 7;
constexpr int CH_GREEN = 8;
constexpr int CH_BLUE = 9;
constexpr int CH_FUEL = 10;
constexpr int CH_WAVELET = 14;
constexpr int CH_PACKED_RGB = 18;
constexpr int CHANNEL_COUNT = 32;

/// Load statuses.
constexpr int LOAD_OK = 0;
constexpr int LOAD_NO_MODULE = 2;
constexpr int LOAD_NO_FILE = 3;
constexpr int LOAD_BROKEN = 4;
constexpr int LOAD_NO_CHANNEL_MAP = 9;
constexpr int SAVE_FAILED = 10;

/// Frame flag values.
constexpr uint8_t FRAME_MASK_TOP_BIT = 1;
constexpr uint8_t FRAME_DOWNSAMPLED = 2;
constexpr uint8_t FRAME_HEADER_ONLY = 4;

/// The header record carried through load and save, and the places of its named fields.
constexpr int SIM_RECORD_SIZE = 392;
constexpr int SIM_TIME_OFFSET = 8;
constexpr int SIM_TIME2_OFFSET = 16;
constexpr int SIM_INT_OFFSET = 348;
constexpr int SIM_BLOCK8_OFFSET = 384;

/// Default frame length: 1/30 s, as the bits 0x3D088889.
constexpr float DEFAULT_TIME_STEP = 1.0f / 30.0f;
constexpr float RANGE_UNKNOWN_MIN = 3.4028235e38f;
constexpr float RANGE_UNKNOWN_MAX = -3.4028235e38f;
constexpr float PARTICLE_BOX_EMPTY = 1e20f;

/// Result codes of a frame request (a blend sets 0, 3 or 4 and otherwise leaves 5).
constexpr int32_t FRAME_RESULT_NONE = 0;
constexpr int32_t FRAME_RESULT_NO_ID = 3;
constexpr int32_t FRAME_RESULT_NO_AGE = 4;
constexpr int32_t FRAME_RESULT_NEW = 5;

/// Blend method words: the low byte picks the grid method, the next byte the particle method.
constexpr int BLEND_GRID_INTERPOLATION = 0;
constexpr int BLEND_GRID_VELOCITY = 1;
constexpr int BLEND_PARTICLES_BY_ID = 0;
constexpr int BLEND_PARTICLES_BY_AGE = 1;
constexpr int BLEND_HEADER_ONLY = 65535;

/// Status and text of a frame load: the code and the names of the particle groups concerned.
struct LoadFrameResult {
    int32_t code = FRAME_RESULT_NEW;
    iString text;
};

/// The read interface of a frame, as the shader, mesher and previews see it.
class IVxg {
public:
    /// The float array of a channel, expanded if necessary, or null.
    virtual float* GetChannelData(int channel) = 0;
    /// Whether the frame can deliver the channel.
    virtual bool HasChannel(int channel) = 0;
    virtual void GetGridSize(int size[3]) = 0;
    virtual void GetGridTransform(GridTransform& out) = 0;
    /// Groups with at least one particle.
    virtual int GetParticleGroupCount() = 0;
    virtual IVaporixPrtGroup* GetParticleGroup(int index) = 0;
    virtual IVaporixPrtGroup* FindParticleGroup(const std::string& name) = 0;

protected:
    ~IVxg() = default;
};

/// The one trilinear filter: samples up to 16 channels at a grid position, clamped at the edge.
/// Channels in `weightedMask` are weighted by the channel `weightChannel` (see the .cpp).
void SampleChannels(float* const* channels, const int size[3], const float pos[3], float* out,
                    uint32_t linearMask, uint32_t weightedMask, int weightChannel);

class VaporixFrameData : public IVxg {
public:
    using PGroup = vaporix::PGroup;

    uint8_t frameFlags = 0;
    int32_t* comprData = nullptr;
    int32_t comprDataSzInts = 0;
    uint32_t channelMask = 0;
    iArray<PGroup> groups;
    int32_t gridSize[3] = {0, 0, 0};
    int32_t frameNumber = 0;
    uint8_t simRecord[SIM_RECORD_SIZE] = {};
    float simFloat = 0.001f;
    GridTransform gridTransform;
    float timeStep = DEFAULT_TIME_STEP;
    GridTransform auxTransform1 = GridTransform::zero();
    GridTransform auxTransform2 = GridTransform::zero();
    GridTransform auxTransform3;
    float* channels[CHANNEL_COUNT] = {};
    float rangeMin[CHANNEL_COUNT];
    float rangeMax[CHANNEL_COUNT];
    SGCompressor<3>* compressors[CHANNEL_COUNT] = {};
    float particleBox[6];
    float* blendSource[CHANNEL_COUNT] = {};  // 3 floats a cell
    std::mutex channelLocks[CHANNEL_COUNT];
    iString comment;
    iString sourcePath;
    iString channelMap;
    float velocityScale = 1.0f;
    int32_t refCount = -1;
    uint8_t axesSwapped = 0;
    /// Cells that each array of `blendSource` holds, so that a reuse can be checked.
    int64_t blendSourceCells = 0;
    /// Jobs of the blend's passes (-1: the global thread count).
    int blendThreads = -1;

    VaporixFrameData();
    VaporixFrameData(const VaporixFrameData&) = delete;
    VaporixFrameData& operator=(const VaporixFrameData&) = delete;
    virtual ~VaporixFrameData();

    // IVxg
    float* GetChannelData(int channel) override;
    bool HasChannel(int channel) override;
    void GetGridSize(int size[3]) override;
    void GetGridTransform(GridTransform& out) override;
    int GetParticleGroupCount() override;
    IVaporixPrtGroup* GetParticleGroup(int index) override;
    IVaporixPrtGroup* FindParticleGroup(const std::string& name) override;

    // Header fields inside simRecord.
    double simTime() const;
    double simTime2() const;
    int32_t simInt() const;
    void setSimTime(double t);
    void setSimTime2(double t);
    void setSimInt(int32_t v);

    int64_t getCellCount() const;
    /// Cached or computed value range. @return false when the channel can't be delivered.
    bool getChannelRange(int channel, float& min, float& max);
    /// min and (max - min).
    bool getChannelRange(int channel, std::pair<float, float>& minAndExtent);
    /// World-space box of the grid (and of the particles when asked).
    void getWorldBox(float box[6], bool withParticles) const;
    /// The lines of the cache information field.
    void getInfoText(std::string& out, const std::string& lineEnd, const std::string& lineStart);
    bool hasAnyChannel();

    // Loading and saving; statuses as the LOAD_ constants.
    int importFile(const char* path, const char* channelMapArg, double frameTime, bool noRetry,
                   bool headerOnly, bool dropCompressed);
    int importHeader(const char* path, const char* channelMapArg);
    int loadByFrame(int frame, const char* pattern, const char* channelMapArg, bool exact,
                    bool noRetry, bool headerOnly);
    int ImportVxg(const char* path, bool noRetry, bool headerOnly, bool dropCompressed);
    /// Writes a version 4 file; never leaves a half-written file in place of a good one.
    /// @return 0 or SAVE_FAILED.
    int WriteVxg(const char* path, uint32_t mask);
    /// Builds the name from `pattern` and frameNumber, then WriteVxg with up to 6 attempts.
    int SaveFrame(const char* pattern, uint32_t mask);

    /// Makes this frame the mix of A and B at weight `t` of B (FrameBlend.cpp). `method`: low
    /// byte the grid method (0 cell by cell, 1 along the velocity, other: header only), next byte
    /// the particle method (0 by ID, 1 by age, other: none). `sourcesChanged` false reuses the
    /// velocity traces of the previous call; `overlapTime` is the loop overlap in seconds.
    /// @return code 0 on failure (logged), 3 or 4 when groups lacked IDs or ages (their names
    /// in `text`), 5 otherwise.
    LoadFrameResult Blend(const VaporixFrameData& A,
                          const VaporixFrameData& B,
                          float t,
                          int method,
                          bool sourcesChanged,
                          float overlapTime);

    bool initEmpty(const float size[3], float cellScale, bool unitScale);
    void toggleAxisSwap();

    /// Frees expanded channels; ranges become unknown.
    void clearChannels();
    /// Frees the compressed stream, the groups and the comment.
    void clearContents();
    /// Frees the velocity blend's source positions.
    void clearBlendScratch();
    /// The reset that starts every read.
    void resetHeader(bool headerOnly);

    // Particle access over all groups; `group` -1 counts `index` through all groups.
    bool resolveParticle(int& group, int& index);
    int getParticlePosition(int group, int index, float out[3], const GridTransform* tm);
    void* getParticleVelocity(int group, int index, float out[3], const GridTransform* tm);
    float getParticleSize(int group, int index, float multiplier);
    float getParticleAge(int group, int index);
    int64_t getParticleId(int group, int index);
    int getGroupCount(int group) const;
    void computeParticleBox(float box[6]);

    /// Appends one block (ordinal, payload) to the compressed stream. @return false on failure.
    bool appendStreamBlock(int channel, const void* payload, uint64_t payloadBytes);

private:
    /// Finds the block of a channel in comprData: payload start and length in words.
    bool findBlock(int channel, int64_t& start, int64_t& words) const;
    void expandChannelLocked(int channel);
    void expandPackedRgbLocked();
};

/// The process-wide list of shared frames, by file name and channel map.
class FrameDataArray : public iArray<VaporixFrameData*> {
public:
    FrameDataArray() = default;
    ~FrameDataArray() override;
};

/// The one list of the process.
FrameDataArray& frameDataArray();

/// Takes a frame from the shared list or reads it into it. See the .cpp for the steps.
int acquireShared(VaporixFrameData*& slot, int frame, const char* pattern,
                  const char* channelMapArg, bool exact, bool noRetry, bool releaseOld);
/// Drops one reference; frames not in the list are ignored.
void releaseFrame(VaporixFrameData* frame);

/// Bytes the last ImportVxg on this thread read from its file (tests of header-only reads).
uint64_t lastImportBytesRead();

/// The generation of a .vxg file from its trailer: 0 for the oldest (no trailer), the stored
/// version otherwise, -1 when the file can't be opened.
int vxgFileVersion(const char* path);

/// One-line description of a load status ("file not found", ...).
const char* loadStatusText(int status);

/// Display name of a grid channel ordinal ("Smoke", "Velocity X", "Channel 12").
std::string channelName(int channel);

}  // namespace vaporix
