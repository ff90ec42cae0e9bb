// Assembles .vxg files of every generation byte by byte, for fixtures and damaged-file tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace vaporix::test {

/// Little-endian byte buffer with typed appends.
class Bytes {
public:
    std::vector<uint8_t> data;

    template <typename T>
    Bytes& put(const T& v) {
        const auto* p = reinterpret_cast<const uint8_t*>(&v);
        data.insert(data.end(), p, p + sizeof(T));
        return *this;
    }
    Bytes& i32(int32_t v) { return put(v); }
    Bytes& u32(uint32_t v) { return put(v); }
    Bytes& u64(uint64_t v) { return put(v); }
    Bytes& f32(float v) { return put(v); }
    Bytes& f64(double v) { return put(v); }
    Bytes& raw(const void* p, size_t n) {
        data.insert(data.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
        return *this;
    }
    Bytes& raw(const Bytes& b) { return raw(b.data.data(), b.data.size()); }
    Bytes& str(const std::string& s) {
        i32(static_cast<int32_t>(s.size()));
        return raw(s.data(), s.size());
    }
    Bytes& zeros(size_t n) {
        data.insert(data.end(), n, 0);
        return *this;
    }
    size_t size() const { return data.size(); }
};

/// A raw single grid stream (magic 64513, kind 0) of the given values.
Bytes rawStream(const std::vector<float>& values);
/// A constant single stream (kind 1).
Bytes constantStream(int32_t count, float value);
/// A stream block for comprData: ordinal, length in words, payload padded to words.
Bytes streamBlock(int32_t ordinal, const Bytes& payload);

/// One .vxg file: tag section, then (for versions >= 1) marker, chunks and trailer.
class VxgBuilder {
public:
    /// version 0: the oldest form with no trailer.
    explicit VxgBuilder(int version) : mVersion(version) { mTags.raw("VXGR", 4); }

    Bytes& tags() { return mTags; }
    VxgBuilder& tag(int32_t t) {
        mTags.i32(t);
        return *this;
    }
    VxgBuilder& mask(uint32_t m) {
        mTags.i32(1).u32(m);
        return *this;
    }
    VxgBuilder& grid(int x, int y, int z, const Bytes& blocks) {
        mTags.i32(3).i32(x).i32(y).i32(z).i32(static_cast<int32_t>(blocks.size() / 4)).raw(blocks);
        return *this;
    }
    VxgBuilder& frame(int32_t n) {
        mTags.i32(4).i32(n);
        return *this;
    }
    VxgBuilder& simRecord(int32_t n, uint8_t fill) {
        mTags.i32(12).i32(n);
        mTags.data.insert(mTags.data.end(), static_cast<size_t>(n), fill);
        return *this;
    }
    /// Adds a chunk (versions >= 1); its size field is 64 bits from version 4 on.
    VxgBuilder& chunk(int32_t id, const Bytes& body) {
        mChunks.i32(id);
        if (mVersion >= 4)
            mChunks.u64(body.size());
        else
            mChunks.i32(static_cast<int32_t>(body.size()));
        mChunks.raw(body);
        if (id == 1000) mChunks.i32(100000);  // the filler behind the summary
        return *this;
    }
    /// The whole file. The tag section must have been closed with tag 0 by the caller.
    std::vector<uint8_t> build() const;
    void write(const std::string& path) const;

private:
    int mVersion;
    Bytes mTags;
    Bytes mChunks;
};

/// Body of a group summary chunk with one group.
Bytes summaryBody(const std::string& name, int32_t count, uint32_t channelBits, int32_t flags,
                  const float box[6]);

}  // namespace vaporix::test
