// File assembly for tests.
#include "VxgBuilder.h"

#include <fstream>

namespace vaporix::test {

Bytes rawStream(const std::vector<float>& values) {
    Bytes b;
    b.put(uint16_t(64513)).put(uint8_t(0)).i32(static_cast<int32_t>(values.size()));
    b.raw(values.data(), values.size() * 4);
    return b;
}

Bytes constantStream(int32_t count, float value) {
    Bytes b;
    b.put(uint16_t(64513)).put(uint8_t(1)).i32(count).f32(value);
    return b;
}

Bytes streamBlock(int32_t ordinal, const Bytes& payload) {
    Bytes b;
    const size_t words = (payload.size() + 3) / 4;
    b.i32(ordinal).i32(static_cast<int32_t>(words)).raw(payload).zeros(words * 4 - payload.size());
    return b;
}

std::vector<uint8_t> VxgBuilder::build() const {
    Bytes file;
    file.raw(mTags);
    if (mVersion == 0) return file.data;
    const uint64_t marker = file.size();
    file.i32(13).raw(mChunks).i32(9999999);
    if (mVersion >= 4)
        file.u64(marker);
    else
        file.i32(static_cast<int32_t>(marker));
    file.i32(mVersion).raw("VXGR2VPX", 8);
    return file.data;
}

void VxgBuilder::write(const std::string& path) const {
    const auto bytes = build();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes summaryBody(const std::string& name, int32_t count, uint32_t channelBits, int32_t flags,
                  const float box[6]) {
    Bytes b;
    b.i32(1).str(name).i32(count).u32(channelBits).i32(flags);
    b.raw(box, 24);
    return b;
}

}  // namespace vaporix::test
