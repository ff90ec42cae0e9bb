// A named group of particles of a cache frame, with channels by ordinal.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/iArray.h"
#include "foundation/iString.h"

namespace vaporix {

class VaporixFrameData;

/// Particle channel ordinals with a fixed meaning.
constexpr int PRT_POSITION = 0;
constexpr int PRT_VELOCITY = 1;
constexpr int PRT_SIZE = 2;
constexpr int PRT_AGE = 3;
constexpr int PRT_ID = 10;
constexpr int PRT_CHANNELS = 32;

/// Groups whose velocity comes from the grid carry these flags.
constexpr int32_t PGROUP_GRID_VELOCITY = 0x30000;

/// Compression kinds of a particle channel in a file.
enum ParticleKind : int32_t {
    PRT_KIND_RAW = 0,
    PRT_KIND_ZLIB = 1,
    PRT_KIND_SG = 2,
    PRT_KIND_SG_COMPONENTS = 3,
    PRT_KIND_BITPLANES = 4,
};

/// The read side of a particle group, as renderers and previews see it.
class IVaporixPrtGroup {
public:
    virtual const char* GetName() = 0;
    /// Particles, or 0 while channel 0 has neither compressed nor expanded data.
    virtual int GetCount() = 0;
    /// Copies one particle's value of a channel to `out`. @return true on success.
    virtual bool GetValue(int index, int channel, void* out) = 0;
    virtual bool HasChannel(int channel) = 0;
    /// Bytes per particle of a channel.
    virtual int GetChannelStride(int channel) = 0;
    /// Index of the particle with this ID, or -1.
    virtual int FindById(int64_t id) = 0;

protected:
    ~IVaporixPrtGroup() = default;
};

/// Words per particle of a channel ordinal (0 for the unstored ordinals 6, 7, 8).
int prtComponentCount(int channel);

class PGroup;

/// Particle indices in ascending ID order.
class IDORD : public iArray<uint32_t> {
public:
    PGroup* group = nullptr;
    IDORD() = default;
    IDORD(const IDORD&) = default;
    IDORD& operator=(const IDORD&) = default;
    ~IDORD() override = default;
    /// ID of particle a > ID of particle b.
    virtual bool isGreater(const uint32_t& a, const uint32_t& b) const;
    /// Merge sort by isGreater, exchange sort below 7 elements.
    void sortById();

private:
    void mergeSort(uint32_t* items, uint32_t* scratch, int n) const;
};

/// One expandable channel of a group.
struct ChannelData {
    int32_t kind = PRT_KIND_RAW;
    iArray<uint8_t, long long> compressed;
    iArray<uint8_t, long long> expanded;
};

class PGroup : public IVaporixPrtGroup {
public:
    IDORD idOrder;
    iString name;
    uint32_t channelBits = 0;
    int32_t flags = 0;
    int32_t count = 0;
    uint8_t reserved8[8] = {};
    ChannelData channelData[PRT_CHANNELS];
    VaporixFrameData* frame = nullptr;

    PGroup() { idOrder.group = this; }
    PGroup(const PGroup& other);
    PGroup& operator=(const PGroup& other);
    virtual ~PGroup() = default;

    const char* GetName() override { return name.c_str(); }
    int GetCount() override;
    bool GetValue(int index, int channel, void* out) override;
    bool HasChannel(int channel) override;
    int GetChannelStride(int channel) override;
    int FindById(int64_t id) override;

    /// Expands a channel from its compressed bytes. A failure empties both arrays of the
    /// channel. @return 1 on success, 0 for a channel that can't be expanded (damaged, or of an
    /// unknown kind), -1 when memory ran out.
    int DecompressChannel(int channel, bool dropCompressed);
    /// Fills the compressed bytes of a channel from its expanded values in the given kind (the
    /// inverse of DecompressChannel; kinds 2 and 3 store lossless streams). @return false when
    /// the channel has no values, the kind is unknown or memory fails.
    bool CompressChannel(int channel, int kind);
    /// Sizes the expanded array for `count` particles; null when count is negative or memory fails.
    void* allocChannel(int channel);
    /// Copies `size` bytes in (size -1: count * stride); any other size must match the array.
    bool setChannel(int channel, const void* data, uint64_t size);
    /// Address of particle `index`'s value, or null when the channel isn't expanded.
    void* getChannelPointer(int index, int channel);

    /// ID of a particle (channel 10 expanded), as signed 64 bits.
    int64_t idAt(uint32_t index) const;
    /// Fills `idOrder` after channel 10 was expanded, or leaves it empty when IDs ascend.
    void buildIdOrder();
    /// Expands the IDs of the oldest files into channel 10: a bare symbol stream of (low, high)
    /// 32-bit halves of signed 64-bit differences, one pair per particle, summed up from the
    /// first. A negative difference after the first makes `idOrder`. @return false for a stream
    /// that is malformed, too short or too small for the particle count (channel 10 then stays
    /// empty).
    bool expandIdDifferences(const uint8_t* data, uint64_t size);
};

}  // namespace vaporix
