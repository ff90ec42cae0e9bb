// Fixture generation: hand-assembled old generations and a file of our own writer.
#include "Fixtures.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "cache/VaporixFrameData.h"
#include "cache/zlibutil.h"

namespace vaporix::test {

namespace fixture {

std::vector<float> ramp(int n) {
    std::vector<float> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<size_t>(i)] = static_cast<float>(i);
    return v;
}

std::vector<float> positions(int count) {
    std::vector<float> v;
    for (int i = 0; i < count; ++i) {
        v.push_back(i + 0.5f);
        v.push_back(2.0f * i + 0.25f);
        v.push_back(3.0f * i + 0.125f);
    }
    return v;
}

std::vector<int64_t> ids(int count) {
    std::vector<int64_t> v;
    for (int i = 0; i < count; ++i) v.push_back(1000 + 7 * i);
    if (count > 4) std::swap(v[3], v[4]);
    return v;
}

}  // namespace fixture

std::vector<uint32_t> toBitPlanes(const std::vector<uint32_t>& values, int count, int components) {
    const size_t w = static_cast<size_t>((count + 31) / 32);
    std::vector<uint32_t> planes(w * static_cast<size_t>(components) * 32, 0);
    for (int i = 0; i < count; ++i)
        for (int k = 0; k < components; ++k)
            for (int b = 0; b < 32; ++b)
                if ((values[static_cast<size_t>(i * components + k)] >> b) & 1u)
                    planes[static_cast<size_t>(i / 32) + static_cast<size_t>(k * 32 + b) * w] |=
                        1u << (i % 32);
    return planes;
}

Bytes deflateBytes(const void* data, size_t n) {
    iArray<uint8_t, long long> out;
    deflateInto(static_cast<const uint8_t*>(data), n, out, 9);
    Bytes b;
    b.raw(out.data, static_cast<size_t>(out.count));
    return b;
}

namespace {

const float BOX[6] = {0.5f, 0.25f, 0.125f, 2.5f, 4.25f, 6.125f};

/// The grid every hand-made fixture carries: channel 1 a ramp, channel 2 constant 0.5.
void smallGrid(VxgBuilder& f) {
    Bytes blocks;
    blocks.raw(streamBlock(1, rawStream(fixture::ramp(8))));
    blocks.raw(streamBlock(2, constantStream(8, 0.5f)));
    f.mask(0x6).grid(2, 2, 2, blocks);
    f.tag(2);
    const float tm[12] = {2, 0, 0, 0, 2, 0, 0, 0, 2, 1, 1, 1};
    f.tags().raw(tm, sizeof tm);
}

/// Tag 7 or 13 particle section with one group of 3 particles (position and size).
void oldParticleSection(VxgBuilder& f, bool coded, bool ids) {
    const int count = 3;
    const auto pos = fixture::positions(count);
    const std::vector<float> sizes = {0.1f, 0.2f, 0.3f};
    Bytes pool;
    uint32_t table[32];
    for (auto& t : table) t = 0xFFFFFFFFu;
    if (!coded) {
        table[0] = 0;
        pool.raw(pos.data(), pos.size() * 4);
        table[2] = static_cast<uint32_t>(pool.size() / 4);
        pool.raw(sizes.data(), sizes.size() * 4);
    } else {
        // Component after component, as the coded form stores them.
        std::vector<float> planar;
        for (int k = 0; k < 3; ++k)
            for (int i = 0; i < count; ++i) planar.push_back(pos[static_cast<size_t>(i * 3 + k)]);
        table[0] = 0;
        Bytes s = rawStream(planar);
        pool.raw(s).zeros((4 - s.size() % 4) % 4);
        table[2] = static_cast<uint32_t>(pool.size() / 4);
        s = rawStream(sizes);
        pool.raw(s).zeros((4 - s.size() % 4) % 4);
    }
    Bytes& t = f.tags();
    t.i32(coded ? 13 : 7).i32(static_cast<int32_t>(pool.size() / 4)).raw(pool);
    t.i32(1).str("Liquid").i32(count).raw(table, sizeof table);
    t.i32(1).i32(5);              // flags
    t.i32(3).raw("ABCDEFGH", 8);  // reserved8
    if (ids) {
        // The IDs as (low, high) halves of their differences, the first from 0, in the flat
        // form of the symbol coder assembled bit by bit: width, base, symbols less base.
        std::vector<int32_t> pairs;
        for (int i = 0; i < 3; ++i) {
            const uint64_t d = static_cast<uint64_t>(fixture::OLD_IDS[i]) -
                               static_cast<uint64_t>(i ? fixture::OLD_IDS[i - 1] : 0);
            pairs.push_back(static_cast<int32_t>(static_cast<uint32_t>(d)));
            pairs.push_back(static_cast<int32_t>(static_cast<uint32_t>(d >> 32)));
        }
        const int32_t base = *std::min_element(pairs.begin(), pairs.end());
        const int width = 6;  // the spread of these symbols is 50
        std::vector<uint8_t> stream;
        uint64_t acc = 0;
        int filled = 0;
        auto put = [&](uint64_t v, int n) {
            for (int b = 0; b < n; ++b) {
                acc |= ((v >> b) & 1u) << filled;
                if (++filled == 8) {
                    stream.push_back(static_cast<uint8_t>(acc));
                    acc = 0;
                    filled = 0;
                }
            }
        };
        put(width, 8);
        put(static_cast<uint32_t>(base), 32);
        for (int32_t p : pairs) put(static_cast<uint32_t>(p - base), width);
        put(0, (8 - filled) % 8);
        while (stream.size() % 4) stream.push_back(0);
        t.i32(2).i32(static_cast<int32_t>(stream.size())).raw(stream.data(), stream.size());
    }
    t.i32(0);
}

bool gen0Raw(const std::string& path) {
    VxgBuilder f(0);
    smallGrid(f);
    f.frame(7);
    f.tag(5).tags().f32(1.0f / 24.0f);
    f.tag(8).tags().i32(3);
    f.tag(9).tags().i32(11).f32(0.25f);
    oldParticleSection(f, false, false);
    f.tag(0);
    f.write(path);
    return true;
}

bool gen0Coded(const std::string& path) {
    VxgBuilder f(0);
    smallGrid(f);
    f.frame(8);
    oldParticleSection(f, true, true);
    f.tag(0);
    f.write(path);
    return true;
}

bool gen2(const std::string& path) {
    VxgBuilder f(2);
    f.chunk(1000, summaryBody("Liquid", 3, 0x5, 0, BOX));
    smallGrid(f);
    f.frame(9);
    oldParticleSection(f, false, false);
    f.tag(0);
    f.write(path);
    return true;
}

bool gen3(const std::string& path) {
    VxgBuilder f(3);
    const auto pos = fixture::positions(2);
    f.chunk(1000, summaryBody("Mist", 2, 0x5, 0, BOX));
    Bytes comment;
    comment.str("version three");
    f.chunk(1001, comment);
    Bytes particles;
    particles.i32(1).str("Mist").i32(0).i32(2).raw("12345678", 8).i32(2);
    particles.i32(0).i32(0).i32(24).raw(pos.data(), 24);  // position, raw
    const float sizes[2] = {0.5f, 0.75f};
    Bytes z = deflateBytes(sizes, sizeof sizes);
    particles.i32(2).i32(1).i32(static_cast<int32_t>(z.size())).raw(z);  // size, zlib
    f.chunk(1002, particles);
    smallGrid(f);
    f.frame(10);
    f.tag(0);
    f.write(path);
    return true;
}

/// A version 4 file of our own writer, with every grid and particle form it can hold.
bool gen4(const std::string& path) {
    VaporixFrameData frame;
    frame.gridSize[0] = 3;
    frame.gridSize[1] = 2;
    frame.gridSize[2] = 2;
    const Bytes ramp = rawStream(fixture::ramp(12));
    const Bytes constant = constantStream(12, 0.5f);
    frame.appendStreamBlock(1, ramp.data.data(), ramp.size());
    frame.appendStreamBlock(2, constant.data.data(), constant.size());
    std::vector<uint8_t> rgb(12 * 4);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 5);
    const Bytes z = deflateBytes(rgb.data(), rgb.size());
    Bytes packed;
    packed.u64(z.size()).raw(z);
    frame.appendStreamBlock(18, packed.data.data(), packed.size());
    frame.channelMask = (1u << 1) | (1u << 2) | (1u << 18);
    frame.frameNumber = 12;
    frame.timeStep = 0.04f;
    frame.setSimTime(1.5);
    frame.setSimTime2(2.5);
    frame.setSimInt(77);
    frame.simFloat = 0.125f;
    for (int k = 0; k < 12; ++k) frame.auxTransform1.m[k] = static_cast<float>(k);
    frame.comment = "written by vaporix";
    std::memcpy(frame.particleBox, BOX, sizeof BOX);

    const int count = 33;  // two words per bit plane
    frame.groups.resize(1);
    PGroup& g = frame.groups[0];
    g.name = "Splashes";
    g.count = count;
    g.frame = &frame;
    const auto pos = fixture::positions(count);
    g.channelData[0].kind = 0;
    g.channelData[0].compressed.resize(static_cast<long long>(pos.size() * 4));
    std::memcpy(g.channelData[0].compressed.data, pos.data(), pos.size() * 4);
    // Velocity: kind 3, one stream component after component.
    std::vector<float> planar;
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < count; ++i) planar.push_back(static_cast<float>(k * 100 + i));
    const Bytes vel = rawStream(planar);
    g.channelData[1].kind = 3;
    g.channelData[1].compressed.resize(static_cast<long long>(vel.size()));
    std::memcpy(g.channelData[1].compressed.data, vel.data.data(), vel.size());
    // Size: kind 2, one stream as it stands.
    std::vector<float> sizes;
    for (int i = 0; i < count; ++i) sizes.push_back(0.01f * static_cast<float>(i));
    const Bytes sz = rawStream(sizes);
    g.channelData[2].kind = 2;
    g.channelData[2].compressed.resize(static_cast<long long>(sz.size()));
    std::memcpy(g.channelData[2].compressed.data, sz.data.data(), sz.size());
    // Age: kind 1, zlib.
    std::vector<float> ages;
    for (int i = 0; i < count; ++i) ages.push_back(static_cast<float>(i) / 10.0f);
    const Bytes za = deflateBytes(ages.data(), ages.size() * 4);
    g.channelData[3].kind = 1;
    g.channelData[3].compressed.resize(static_cast<long long>(za.size()));
    std::memcpy(g.channelData[3].compressed.data, za.data.data(), za.size());
    // IDs: kind 4, bit planes.
    const auto ids = fixture::ids(count);
    std::vector<uint32_t> words(ids.size() * 2);
    std::memcpy(words.data(), ids.data(), ids.size() * 8);
    const auto planes = toBitPlanes(words, count, 2);
    const Bytes zi = deflateBytes(planes.data(), planes.size() * 4);
    g.channelData[10].kind = 4;
    g.channelData[10].compressed.resize(static_cast<long long>(zi.size()));
    std::memcpy(g.channelData[10].compressed.data, zi.data.data(), zi.size());
    return frame.WriteVxg(path.c_str(), frame.channelMask) == 0;
}

}  // namespace

std::vector<std::string> fixtureNames() {
    return {"gen0_raw_particles.vxg", "gen0_coded_particles.vxg", "gen2_summary.vxg",
            "gen3_chunks32.vxg", "gen4_writer.vxg"};
}

bool writeFixture(const std::string& name, const std::string& path) {
    if (name == "gen0_raw_particles.vxg") return gen0Raw(path);
    if (name == "gen0_coded_particles.vxg") return gen0Coded(path);
    if (name == "gen2_summary.vxg") return gen2(path);
    if (name == "gen3_chunks32.vxg") return gen3(path);
    if (name == "gen4_writer.vxg") return gen4(path);
    return false;
}

}  // namespace vaporix::test
