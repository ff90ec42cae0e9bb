// The grid stream codec: byte-exact agreement with a literal implementation of the format, round
// trips of every kind and size class, error bounds, zoned streams and malformed input.
#include "cache/SGCompressor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "SGReference.h"
#include "TestSupport.h"
#include "cache/VaporixFrameData.h"

using namespace vaporix;

namespace {

std::vector<uint8_t> bytesOf(const iArray<uint8_t, long long>& a) {
    return std::vector<uint8_t>(a.data, a.data + a.count);
}

// A smooth field with an empty border, a little noise and a constant patch, like a sim's smoke.
std::vector<float> smokeLike(int nx, int ny, int nz, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> noise(-0.02f, 0.02f);
    std::vector<float> v(static_cast<size_t>(nx) * ny * nz, 0.0f);
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const float fx = (x + 0.5f) / nx - 0.5f, fy = (y + 0.5f) / ny - 0.5f,
                            fz = (z + 0.5f) / nz - 0.3f;
                const float r2 = fx * fx + fy * fy + fz * fz;
                float d = r2 < 0.12f ? std::sin(6.0f * fx) * std::cos(5.0f * fy) + 1.2f - 4 * r2 +
                                           noise(rng)
                                     : 0.0f;
                if (z == nz - 1 && x < nx / 2) d = 0.75f;  // a constant patch
                v[static_cast<size_t>(x + nx * (y + ny * z))] = d;
            }
    return v;
}

std::vector<float> decodeAll(SGCompressor<3>& codec,
                             const std::vector<uint8_t>& stream,
                             uint64_t count,
                             bool* ok = nullptr) {
    std::vector<float> out(count, -12345.0f);
    const bool result = codec.decode(stream.data(), stream.size(), out.data(), count);
    if (ok) *ok = result;
    return out;
}

// Floats equal bit for bit (so that -0 and NaN compare as stored).
bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

// What the format's decoder gives: symbols decoded bit by bit, runs expanded, differences undone
// pass after pass, then floats.
std::vector<float> referenceDecode(const std::vector<uint8_t>& s, std::vector<int> dims) {
    int64_t d[3] = {1, 1, 1};
    size_t count = 1;
    for (size_t a = 0; a < dims.size(); ++a) {
        d[a] = dims[a];
        count *= static_cast<size_t>(dims[a]);
    }
    size_t pos = 3 + 4 * dims.size();
    float scale, mn;
    int32_t m;
    std::memcpy(&scale, &s[pos], 4);
    std::memcpy(&mn, &s[pos + 4], 4);
    std::memcpy(&m, &s[pos + 8], 4);
    const int passes = s[pos + 12];
    pos += 13;
    const auto symbols = reference::symbolDecode(s.data() + pos, s.size() - pos, count);
    std::vector<int32_t> q;
    for (int32_t sym : symbols) {
        if (q.size() >= count) break;
        if (sym < 0)
            q.insert(q.end(), static_cast<size_t>(-int64_t(sym)), q.back());
        else
            q.push_back(reference::wrap(int64_t(sym) + m));
    }
    q.resize(count);
    for (int p = passes; p >= 1; --p)
        for (int a = 0; a < 3; ++a) {
            const int64_t lines = int64_t(count) / d[a];
            for (int64_t l = 0; l < lines; ++l)
                for (int64_t k = p; k < d[a]; ++k)
                    q[reference::lineCell(d, a, l, k)] =
                        reference::wrap(int64_t(q[reference::lineCell(d, a, l, k)]) +
                                        q[reference::lineCell(d, a, l, k - 1)]);
        }
    const float inverse = 1.0f / scale;
    std::vector<float> out(count);
    for (size_t i = 0; i < count; ++i) out[i] = static_cast<float>(q[i]) * inverse + mn;
    return out;
}

struct Case {
    int nx, ny, nz;
    int quantBits;
    float quantStep;
    int passes;
};

}  // namespace

TEST(SGCompressor, EncoderMatchesTheFormatByteForByte) {
    // Size classes: size-1 axes, passes beyond a size, cubes, flat slabs, lines; bits from
    // coarse to fine and fixed steps.
    const Case cases[] = {
        {9, 7, 5, 8, 0, 1},        {9, 7, 5, 16, 0, 2},    {9, 7, 5, 12, 0, 0},
        {1, 1, 40, 10, 0, 2},      {40, 1, 1, 10, 0, 2},   {1, 30, 1, 6, 0, 3},
        {3, 4, 2, 8, 0, 5},        {2, 2, 2, 19, 0, 1},    {17, 13, 6, 0, 0.01f, 1},
        {17, 13, 6, -3, 0.25f, 2}, {16, 16, 16, 16, 0, 2}, {5, 5, 5, 1, 0, 0},
        {33, 2, 9, 14, 0, 3},      {1, 1, 1, 8, 0, 1}};
    uint32_t seed = 1;
    for (const Case& c : cases) {
        const std::vector<float> field = smokeLike(c.nx, c.ny, c.nz, seed++);
        const int dims[3] = {c.nx, c.ny, c.nz};
        SGCompressor<3> codec;
        const int64_t size = codec.Compress(field.data(), dims, c.quantBits, c.quantStep, c.passes);
        const auto expected =
            reference::encode(field, {c.nx, c.ny, c.nz}, c.quantBits, c.quantStep, c.passes);
        ASSERT_EQ(size, static_cast<int64_t>(expected.size()))
            << c.nx << "x" << c.ny << "x" << c.nz << " bits " << c.quantBits << " passes "
            << c.passes;
        EXPECT_EQ(bytesOf(codec.output), expected);
        // Decoding gives what the format's decoder gives, bit for bit.
        if (expected[2] == SG_KIND_CODED) {
            const auto want = referenceDecode(expected, {c.nx, c.ny, c.nz});
            for (bool streaming : {true, false}) {
                codec.setStreamingDecode(streaming);
                bool ok = false;
                const auto got = decodeAll(codec, expected, field.size(), &ok);
                EXPECT_TRUE(ok);
                EXPECT_TRUE(sameBits(got, want)) << "streaming " << streaming;
            }
        }
    }
}

TEST(SGCompressor, ConstantFieldsAreElevenBytes) {
    SGCompressor<3> codec;
    const std::vector<float> field(60, 2.5f);
    const int dims[3] = {3, 4, 5};
    ASSERT_EQ(codec.Compress(field.data(), dims, 16, 0, 2), 11);
    const std::vector<uint8_t> expected = {0x01, 0xFC, 1, 60, 0, 0, 0, 0x00, 0x00, 0x20, 0x40};
    EXPECT_EQ(bytesOf(codec.output), expected);
    EXPECT_TRUE(sameBits(decodeAll(codec, expected, 60), field));

    // One NaN or infinity: all zero.
    std::vector<float> bad = smokeLike(3, 4, 5, 3);
    bad[17] = std::numeric_limits<float>::quiet_NaN();
    ASSERT_EQ(codec.Compress(bad.data(), dims, 16, 0, 2), 11);
    EXPECT_EQ(codec.output.data[2], SG_KIND_CONSTANT);
    EXPECT_EQ(decodeAll(codec, bytesOf(codec.output), 60), std::vector<float>(60, 0.0f));
    bad[17] = -std::numeric_limits<float>::infinity();
    ASSERT_EQ(codec.Compress(bad.data(), dims, 8, 0, 1), 11);
    EXPECT_EQ(decodeAll(codec, bytesOf(codec.output), 60), std::vector<float>(60, 0.0f));
}

TEST(SGCompressor, RunsOfFourStayAndRunsOfFiveCollapse) {
    // With a step of 1 and no differencing the integers are the values less the minimum.
    SGCompressor<1> codec;
    const int five[1] = {6};
    const std::vector<float> a = {7, 7, 7, 7, 7, 5};
    ASSERT_GT(codec.Compress(a.data(), five, 0, 1.0f, 0), 0);
    // Header, then the flat coder: width 3, base -4, symbols 2 -4 0 as 6 0 4.
    const std::vector<uint8_t> expected = {
        0x01, 0xFC, 2, 6, 0, 0, 0, 0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0xA0,
        0x40, 0,    0, 0, 0, 0, 3, 0xFC, 0xFF, 0xFF, 0xFF, 0x06, 0x01, 0x00};
    EXPECT_EQ(bytesOf(codec.output), expected);
    std::vector<float> out(6);
    ASSERT_TRUE(codec.decode(expected.data(), expected.size(), out.data(), 6));
    EXPECT_EQ(out, a);

    // A value and three repeats: no marker, five symbols 2 2 2 2 0 of width 2.
    const int four[1] = {5};
    const std::vector<float> b = {7, 7, 7, 7, 5};
    ASSERT_GT(codec.Compress(b.data(), four, 0, 1.0f, 0), 0);
    EXPECT_EQ(codec.output.data[20], 2);  // the flat width
    EXPECT_EQ(bytesOf(codec.output), reference::encode(b, {5}, 0, 1.0f, 0));

    // A run at the very end.
    std::vector<float> c(100, 3.0f);
    c[0] = 9;
    const int hundred[1] = {100};
    ASSERT_GT(codec.Compress(c.data(), hundred, 0, 1.0f, 0), 0);
    EXPECT_EQ(bytesOf(codec.output), reference::encode(c, {100}, 0, 1.0f, 0));
    out.assign(100, 0);
    ASSERT_TRUE(codec.decode(codec.output.data, codec.output.count, out.data(), 100));
    EXPECT_EQ(out, c);
}

TEST(SGCompressor, CollapseRunsMarksFourRepeatsAndMore) {
    auto collapsed = [](std::vector<int32_t> v) {
        v.resize(static_cast<size_t>(collapseRuns(v.data(), static_cast<int64_t>(v.size()))));
        return v;
    };
    using V = std::vector<int32_t>;
    EXPECT_EQ(collapsed({7, 7, 7, 7, 7, 5}), (V{7, -4, 5}));
    EXPECT_EQ(collapsed({7, 7, 7, 7, 5}), (V{7, 7, 7, 7, 5}));   // three repeats stay
    EXPECT_EQ(collapsed({1, 2, 2, 2, 2, 2, 2}), (V{1, 2, -5}));  // a run at the very end
    EXPECT_EQ(collapsed({3, 3, 3, 3, 3, 3, 0, 0, 0, 0, 0, 0, 0, 0, 4, 4}), (V{3, -5, 0, -7, 4, 4}));
    EXPECT_EQ(collapsed({0, 0, 0, 0, 0, 0, 0, 0, 0}), (V{0, -8}));
    EXPECT_EQ(collapsed({9}), (V{9}));
    EXPECT_EQ(collapsed({}), V{});
    // Runs that restart right after a marker, and long fields of one value.
    EXPECT_EQ(collapsed({5, 5, 5, 5, 5, 6, 6, 6, 6, 6, 5, 5, 5, 5, 5}), (V{5, -4, 6, -4, 5, -4}));
    EXPECT_EQ(collapsed(V(100000, 2)), (V{2, -99999}));
}

TEST(SGCompressor, DecompressReadsMemoryAndOpenFiles) {
    const int dims[3] = {14, 9, 7};
    const auto field = smokeLike(14, 9, 7, 17);
    SGCompressor<3> codec;
    ASSERT_GT(codec.Compress(field.data(), dims, 14, 0, 2), 0);
    const auto stream = bytesOf(codec.output);
    std::vector<float> want(field.size()), got(field.size());
    ASSERT_EQ(codec.Decompress(stream.data(), stream.size(), want.data(), field.size()), 1);
    auto bad = stream;
    bad[1] = 0;  // unknown magic
    EXPECT_EQ(codec.Decompress(bad.data(), bad.size(), got.data(), field.size()), 0);
    EXPECT_EQ(codec.Decompress(nullptr, 10, got.data(), field.size()), 0);

    // A file with the stream between other bytes: read from where the file stands, no further
    // than the stream's length.
    test::TempDir dir;
    const std::string path = dir.file("block.bin");
    {
        std::FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        const std::vector<uint8_t> before(37, 0xAB), after(11, 0xCD);
        std::fwrite(before.data(), 1, before.size(), f);
        std::fwrite(stream.data(), 1, stream.size(), f);
        std::fwrite(after.data(), 1, after.size(), f);
        std::fclose(f);
    }
    std::FILE* f = std::fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    std::fseek(f, 37, SEEK_SET);
    ASSERT_EQ(codec.Decompress(f, stream.size(), got.data(), field.size(), true), 1);
    EXPECT_TRUE(sameBits(got, want));
    EXPECT_EQ(std::ftell(f), 37 + static_cast<long>(stream.size()));
    // A length far beyond the file reads what is there.
    std::fseek(f, 37, SEEK_SET);
    std::fill(got.begin(), got.end(), 0.0f);
    ASSERT_EQ(codec.Decompress(f, uint64_t(1) << 40, got.data(), field.size(), true), 1);
    EXPECT_TRUE(sameBits(got, want));
    // A file that ends inside the stream, and one positioned wrongly.
    std::fseek(f, 37, SEEK_SET);
    EXPECT_EQ(codec.Decompress(f, stream.size() / 2, got.data(), field.size(), true), 0);
    std::fseek(f, 36, SEEK_SET);
    EXPECT_EQ(codec.Decompress(f, stream.size(), got.data(), field.size(), true), 0);
    std::fclose(f);

    // A pipe cannot seek: it is read in pieces up to the stream's length.
    ASSERT_LT(stream.size(), 4096u);  // fits the pipe's buffer, so no writer thread is needed
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
    close(fds[1]);
    std::FILE* p = fdopen(fds[0], "rb");
    ASSERT_NE(p, nullptr);
    std::fill(got.begin(), got.end(), 0.0f);
    ASSERT_EQ(codec.Decompress(p, uint64_t(1) << 40, got.data(), field.size(), true), 1);
    EXPECT_TRUE(sameBits(got, want));
    std::fclose(p);
}

TEST(SGCompressor, LosslessAtTwentyBitsAndBoundedBelow) {
    const auto field = smokeLike(21, 19, 11, 7);
    const int dims[3] = {21, 19, 11};
    SGCompressor<3> codec;
    for (int bits : {20, 24, 32}) {
        ASSERT_GT(codec.Compress(field.data(), dims, bits, 0, 2), 0);
        EXPECT_EQ(codec.output.data[2], SG_KIND_RAW);
        EXPECT_TRUE(sameBits(decodeAll(codec, bytesOf(codec.output), field.size()), field));
    }
    const float lo = *std::min_element(field.begin(), field.end());
    const float hi = *std::max_element(field.begin(), field.end());
    for (int bits : {4, 8, 12, 16, 19}) {
        for (int passes : {0, 1, 2, 3}) {
            ASSERT_GT(codec.Compress(field.data(), dims, bits, 0, passes), 0);
            const auto got = decodeAll(codec, bytesOf(codec.output), field.size());
            // Half a step, plus float rounding of the scale, the product and the sum.
            const double bound = (hi - lo) / std::ldexp(2.0, bits) + 4e-7 * (std::fabs(hi) + 1);
            double worst = 0;
            for (size_t i = 0; i < field.size(); ++i)
                worst = std::max(worst, std::fabs(double(got[i]) - field[i]));
            EXPECT_LE(worst, bound) << bits << " bits, " << passes << " passes";
        }
    }
    // A fixed step: within half of it.
    ASSERT_GT(codec.Compress(field.data(), dims, 0, 0.001f, 1), 0);
    const auto got = decodeAll(codec, bytesOf(codec.output), field.size());
    for (size_t i = 0; i < field.size(); ++i) ASSERT_NEAR(got[i], field[i], 0.0005 + 1e-6);
}

TEST(SGCompressor, CompressesSmoothFields) {
    const auto field = smokeLike(48, 40, 32, 11);
    const int dims[3] = {48, 40, 32};
    SGCompressor<3> codec;
    const int64_t size = codec.Compress(field.data(), dims, 16, 0, 1);
    ASSERT_GT(size, 0);
    EXPECT_LT(size * 4, static_cast<int64_t>(field.size() * 4));  // at least 4x below raw
    EXPECT_EQ(codec.output.data[2], SG_KIND_CODED);
}

TEST(SGCompressor, BadSettingsAndHugeStepsAreHandled) {
    const auto field = smokeLike(8, 8, 8, 5);
    const int dims[3] = {8, 8, 8};
    SGCompressor<3> codec;
    EXPECT_EQ(codec.Compress(field.data(), dims, 0, 0.0f, 1), 0);    // no step
    EXPECT_EQ(codec.Compress(field.data(), dims, -1, -2.0f, 1), 0);  // negative step
    EXPECT_EQ(codec.Compress(field.data(), dims, 8, 0, 256), 0);     // passes in one byte
    EXPECT_EQ(codec.Compress(field.data(), dims, 8, 0, -1), 0);
    const int negative[3] = {8, -8, 8};
    EXPECT_EQ(codec.Compress(field.data(), negative, 8, 0, 1), 0);
    // Far more steps than 32-bit integers hold: stored losslessly instead.
    test::LogRecorder log;
    ASSERT_GT(codec.Compress(field.data(), dims, 0, 1e-12f, 1), 0);
    EXPECT_EQ(codec.output.data[2], SG_KIND_RAW);
    EXPECT_TRUE(log.contains("stored raw"));
    EXPECT_TRUE(sameBits(decodeAll(codec, bytesOf(codec.output), field.size()), field));
    // Empty field.
    const int empty[3] = {0, 5, 5};
    ASSERT_EQ(codec.Compress(nullptr, empty, 8, 0, 1), 11);
    EXPECT_TRUE(codec.decode(codec.output.data, codec.output.count, nullptr, 0));
}

TEST(SGCompressor, ParticleStreamsRoundTrip) {
    std::mt19937 rng(5);
    std::normal_distribution<float> g(3.0f, 2.0f);
    std::vector<float> v(5000);
    float walk = 0;
    for (auto& x : v) x = (walk += g(rng) * 0.01f);
    SGCompressor<1> codec;
    const int dims[1] = {5000};
    for (int passes : {0, 1, 2}) {
        ASSERT_GT(codec.Compress(v.data(), dims, 16, 0, passes), 0);
        const std::vector<uint8_t> s = bytesOf(codec.output);
        EXPECT_EQ(s, reference::encode(v, {5000}, 16, 0, passes));
        std::vector<float> out(5000);
        ASSERT_TRUE(codec.decode(s.data(), s.size(), out.data(), 5000));
        const auto want = referenceDecode(s, {5000});
        EXPECT_TRUE(sameBits(out, want));
    }
    ASSERT_TRUE(codec.encodeRaw(v.data(), 5000));
    std::vector<float> out(5000);
    ASSERT_TRUE(codec.decode(codec.output.data, codec.output.count, out.data(), 5000));
    EXPECT_TRUE(sameBits(out, v));
}

TEST(SGCompressor, ZonedStreamsDecodeLikeTheirSlabs) {
    PosixThreadManager manager;
    const int nx = 13, ny = 11, nz = 9;
    const auto field = smokeLike(nx, ny, nz, 21);
    const int dims[3] = {nx, ny, nz};
    SGCompressor<3> codec(&manager);
    for (int zones : {2, 3, 4, 9, 40}) {
        ASSERT_GT(codec.encodeZoned(field.data(), dims, 12, 0, 2, zones), 0);
        const std::vector<uint8_t> zoned = bytesOf(codec.output);
        uint16_t magic, count;
        std::memcpy(&magic, zoned.data(), 2);
        std::memcpy(&count, zoned.data() + 2, 2);
        EXPECT_EQ(magic, SG_MAGIC_ZONED);
        EXPECT_EQ(count, std::min(zones, nz));

        // Expected: each slab encoded on its own, decoded into its place.
        std::vector<float> expected(field.size());
        // Slabs as the stream places them: in order, each at least one slice thick.
        std::vector<int> bounds;
        for (int i = 0; i < count; ++i) {
            int32_t position;
            std::memcpy(&position, zoned.data() + 4 + 4 * i, 4);
            ASSERT_EQ(position % (nx * ny), 0);
            bounds.push_back(position / (nx * ny));
        }
        bounds.push_back(nz);
        for (int i = 0; i < count; ++i) {
            const int z0 = bounds[i], z1 = bounds[i + 1];
            ASSERT_LT(z0, z1);
            const int slab[3] = {nx, ny, z1 - z0};
            SGCompressor<3> single;
            ASSERT_GT(single.Compress(field.data() + size_t(z0) * nx * ny, slab, 12, 0, 2), 0);
            ASSERT_TRUE(single.decode(single.output.data, single.output.count,
                                      expected.data() + size_t(z0) * nx * ny,
                                      size_t(z1 - z0) * nx * ny));
        }
        for (int repeat = 0; repeat < 2; ++repeat) {  // the jobs are reused
            bool ok = false;
            EXPECT_TRUE(sameBits(decodeAll(codec, zoned, field.size(), &ok), expected));
            EXPECT_TRUE(ok);
        }
        // A compressor of its own (other job count), and the whole-field path, agree.
        SGCompressor<3> other(&manager);
        other.setStreamingDecode(false);
        EXPECT_TRUE(sameBits(decodeAll(other, zoned, field.size()), expected));
    }
}

TEST(SGCompressor, ZonedStreamsDecodeWithoutAThreadManager) {
    const int dims[3] = {10, 6, 8};
    const auto field = smokeLike(10, 6, 8, 4);
    SGCompressor<3> writer;
    ASSERT_GT(writer.encodeZoned(field.data(), dims, 16, 0, 1, 4), 0);
    const auto zoned = bytesOf(writer.output);
    std::vector<float> withThreads(field.size());
    ASSERT_TRUE(writer.decode(zoned.data(), zoned.size(), withThreads.data(), field.size()));

    std::vector<ThreadManager*> saved;
    while (ThreadManager* top = getGlobalThreadManager()) {
        saved.push_back(top);
        releaseGlobalThreadManager();
    }
    {
        SGCompressor<3> reader;
        std::vector<float> alone(field.size());
        EXPECT_TRUE(reader.decode(zoned.data(), zoned.size(), alone.data(), field.size()));
        EXPECT_TRUE(sameBits(alone, withThreads));
        EXPECT_EQ(reader.threadManager, nullptr);
        // Zoned encoding without threads gives the same bytes.
        SGCompressor<3> alsoAlone;
        ASSERT_GT(alsoAlone.encodeZoned(field.data(), dims, 16, 0, 1, 4), 0);
        EXPECT_EQ(bytesOf(alsoAlone.output), zoned);
    }
    for (auto it = saved.rbegin(); it != saved.rend(); ++it) setGlobalThreadManager(*it);
}

TEST(SGCompressor, MalformedStreamsAreRejected) {
    const int dims[3] = {12, 10, 8};
    const auto field = smokeLike(12, 10, 8, 9);
    SGCompressor<3> codec;
    ASSERT_GT(codec.Compress(field.data(), dims, 12, 0, 2), 0);
    const auto good = bytesOf(codec.output);
    const uint64_t cells = field.size();
    std::vector<float> out(cells + 16);

    EXPECT_FALSE(codec.decode(good.data(), good.size(), out.data(), cells - 1));  // wrong count
    EXPECT_FALSE(codec.decode(good.data(), good.size(), out.data(), cells + 1));
    EXPECT_FALSE(codec.decode(nullptr, 10, out.data(), cells));
    // Every truncation: rejected, never read past the end (the sanitizers watch). Only the
    // unused bits of the last word may go.
    for (size_t n = 0; n + 4 <= good.size(); ++n) {
        std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<long>(n));
        EXPECT_FALSE(codec.decode(cut.data(), cut.size(), out.data(), cells)) << n;
    }
    // Unknown magic and kind.
    auto bad = good;
    bad[0] ^= 1;
    EXPECT_FALSE(codec.decode(bad.data(), bad.size(), out.data(), cells));
    bad = good;
    bad[2] = 3;
    EXPECT_FALSE(codec.decode(bad.data(), bad.size(), out.data(), cells));
    // Raw and constant streams that claim more than they hold.
    ASSERT_TRUE(codec.encodeRaw(field.data(), static_cast<int64_t>(cells)));
    auto raw = bytesOf(codec.output);
    raw.resize(raw.size() - 1);
    EXPECT_FALSE(codec.decode(raw.data(), raw.size(), out.data(), cells));
    const std::vector<uint8_t> constant = {0x01, 0xFC, 1, 5, 0, 0, 0, 0, 0};
    EXPECT_FALSE(codec.decode(constant.data(), constant.size(), out.data(), 5));
    // Random damage: any answer, but no crash and no hang.
    std::mt19937 rng(3);
    for (int trial = 0; trial < 300; ++trial) {
        auto damaged = good;
        for (int k = 0; k < 3; ++k) damaged[rng() % damaged.size()] = static_cast<uint8_t>(rng());
        codec.decode(damaged.data(), damaged.size(), out.data(), cells);
    }
}

TEST(SGCompressor, RunsPastTheEndStopTheFieldAndZeroTheRest) {
    // A 1-D stream of 6 cells whose flat coder says: value 2, then a run of 9.
    std::vector<uint8_t> s = {0x01, 0xFC, 2, 6, 0, 0, 0, 0x00, 0x00, 0x80,
                              0x3F, 0,    0, 0, 0, 0, 0, 0,    0,    0};
    // Width 5, base -9, symbols 2 and -9 as 11 and 0.
    reference::BitOut bits;
    bits.field(5, 8);
    bits.field(static_cast<uint32_t>(-9), 32);
    bits.field(11, 5);
    bits.field(0, 5);
    bits.finish();
    s.insert(s.end(), bits.bytes.begin(), bits.bytes.end());
    SGCompressor<1> codec;
    // The destination holds something else first: none of it may show through.
    std::vector<float> out(6, 7.0f);
    test::LogRecorder log;
    ASSERT_TRUE(codec.decode(s.data(), s.size(), out.data(), 6));
    EXPECT_EQ(log.text(), "DecodeAndExpand - constant sequence longer than expected\n");
    EXPECT_EQ(out, (std::vector<float>{2, 0, 0, 0, 0, 0}));
    // The same run fits a field of 10.
    s[3] = 10;
    out.resize(10);
    ASSERT_TRUE(codec.decode(s.data(), s.size(), out.data(), 10));
    EXPECT_EQ(out, std::vector<float>(10, 2.0f));
    // A run with nothing before it.
    reference::BitOut lonely;
    lonely.field(5, 8);
    lonely.field(static_cast<uint32_t>(-9), 32);
    lonely.field(0, 5);
    lonely.finish();
    s.resize(20);
    s.insert(s.end(), lonely.bytes.begin(), lonely.bytes.end());
    s[3] = 9;
    out.resize(9);
    EXPECT_FALSE(codec.decode(s.data(), s.size(), out.data(), 9));
}

// A 2x2x2 grid stream (kind 2, no differences, scale 1, minimum 0) whose symbols are `values`,
// then a run of `run`, in the flat form of width 6 with base -31.
static std::vector<uint8_t> gridWithRun(const std::vector<uint32_t>& values, uint32_t run) {
    std::vector<uint8_t> s = {0x01, 0xFC, 2};
    for (int32_t d : {2, 2, 2})
        for (int k = 0; k < 4; ++k) s.push_back(static_cast<uint8_t>(d >> (8 * k)));
    for (uint8_t b : {0x00, 0x00, 0x80, 0x3F, 0, 0, 0, 0, 0, 0, 0, 0, 0}) s.push_back(b);
    reference::BitOut bits;
    bits.field(6, 8);
    bits.field(static_cast<uint32_t>(-31), 32);
    for (uint32_t v : values) bits.field(v + 31, 6);
    bits.field(31 - run, 6);
    bits.finish();
    s.insert(s.end(), bits.bytes.begin(), bits.bytes.end());
    return s;
}

TEST(SGCompressor, RunPastTheEndInEveryDecoderPath) {
    // Cells 0..2 decoded, a run of 20 at cell 3 ends the field. Slice by slice and whole: the
    // same answer, the first three cells kept and the rest 0.
    const auto s = gridWithRun({3, 1, 4}, 20);
    for (bool streaming : {true, false}) {
        SGCompressor<3> codec;
        codec.setStreamingDecode(streaming);
        std::vector<float> out(8, -5.0f);
        test::LogRecorder log;
        ASSERT_TRUE(codec.decode(s.data(), s.size(), out.data(), 8)) << streaming;
        EXPECT_EQ(out, (std::vector<float>{3, 1, 4, 0, 0, 0, 0, 0})) << streaming;
        EXPECT_TRUE(log.contains("DecodeAndExpand - constant sequence longer than expected\n"));
    }
    // One cell too long is too long: the run is not written at all.
    const auto byOne = gridWithRun({3}, 8);
    for (bool streaming : {true, false}) {
        SGCompressor<3> codec;
        codec.setStreamingDecode(streaming);
        std::vector<float> out(8, -5.0f);
        test::LogRecorder log;
        ASSERT_TRUE(codec.decode(byOne.data(), byOne.size(), out.data(), 8)) << streaming;
        EXPECT_EQ(out, (std::vector<float>{3, 0, 0, 0, 0, 0, 0, 0})) << streaming;
        EXPECT_EQ(log.text(), "DecodeAndExpand - constant sequence longer than expected\n");
    }
    // A run that ends exactly at the last cell is no error.
    const auto exact = gridWithRun({3}, 7);
    SGCompressor<3> codec;
    std::vector<float> out(8, -5.0f);
    test::LogRecorder log;
    ASSERT_TRUE(codec.decode(exact.data(), exact.size(), out.data(), 8));
    EXPECT_EQ(out, std::vector<float>(8, 3.0f));
    EXPECT_EQ(log.text(), "");
}

TEST(SGCompressor, AFrameChannelWithARunPastTheEndStillLoads) {
    VaporixFrameData frame;
    frame.gridSize[0] = frame.gridSize[1] = frame.gridSize[2] = 2;
    const auto s = gridWithRun({3, 1, 4}, 20);
    ASSERT_TRUE(frame.appendStreamBlock(2, s.data(), s.size()));
    frame.channelMask |= 1u << 2;
    test::LogRecorder log;
    const float* smoke = frame.GetChannelData(2);
    ASSERT_NE(smoke, nullptr);
    EXPECT_EQ(std::vector<float>(smoke, smoke + 8), (std::vector<float>{3, 1, 4, 0, 0, 0, 0, 0}));
    EXPECT_EQ(log.text(), "DecodeAndExpand - constant sequence longer than expected\n");
}

TEST(SGCompressor, MalformedZonesAreRejected) {
    const int dims[3] = {6, 5, 8};
    const auto field = smokeLike(6, 5, 8, 2);
    SGCompressor<3> codec;
    ASSERT_GT(codec.encodeZoned(field.data(), dims, 10, 0, 1, 2), 0);
    const auto good = bytesOf(codec.output);
    std::vector<float> out(field.size());
    ASSERT_TRUE(codec.decode(good.data(), good.size(), out.data(), field.size()));
    auto zone = [&](std::vector<uint8_t> s, int i, int table, int32_t v) {
        std::memcpy(s.data() + 4 + 4 * (table * 2 + i), &v, 4);
        return s;
    };
    int32_t half;  // where the second zone starts
    std::memcpy(&half, good.data() + 8, 4);
    ASSERT_GT(half, 0);
    // Overlap, gap, beyond the destination, negative, past the input.
    EXPECT_FALSE(codec.decode(zone(good, 1, 0, half - 1).data(), good.size(), out.data(), 240));
    EXPECT_FALSE(codec.decode(zone(good, 1, 0, half + 1).data(), good.size(), out.data(), 240));
    EXPECT_FALSE(codec.decode(zone(good, 0, 0, half).data(), good.size(), out.data(), 240));
    EXPECT_FALSE(codec.decode(zone(good, 1, 0, 0).data(), good.size(), out.data(), 240));
    EXPECT_FALSE(codec.decode(zone(good, 0, 0, -1).data(), good.size(), out.data(), 240));
    EXPECT_FALSE(codec.decode(zone(good, 1, 1, 100000).data(), good.size(), out.data(), 240));
    EXPECT_FALSE(codec.decode(zone(good, 1, 1, -4).data(), good.size(), out.data(), 240));
    // Swapped zones are fine: the destination positions place them.
    auto swapped = zone(zone(good, 0, 0, half), 1, 0, 0);  // streams swapped below
    int32_t s0, s1;
    std::memcpy(&s0, good.data() + 12, 4);
    std::memcpy(&s1, good.data() + 16, 4);
    swapped = zone(zone(swapped, 0, 1, s1), 1, 1, s0);
    std::vector<float> again(field.size());
    ASSERT_TRUE(codec.decode(swapped.data(), swapped.size(), again.data(), 240));
    EXPECT_TRUE(sameBits(again, out));
    // A table longer than the stream, no zones, and a zoned stream inside a zone.
    std::vector<uint8_t> shortTable = {0x02, 0xFC, 5, 0, 0, 0};
    EXPECT_FALSE(codec.decode(shortTable.data(), shortTable.size(), out.data(), 240));
    std::vector<uint8_t> none = {0x02, 0xFC, 0, 0};
    EXPECT_TRUE(codec.decode(none.data(), none.size(), out.data(), 0));
    EXPECT_FALSE(codec.decode(none.data(), none.size(), out.data(), 1));
    std::vector<uint8_t> nested = {0x02, 0xFC, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0xFC, 0, 0};
    EXPECT_FALSE(codec.decode(nested.data(), nested.size(), out.data(), 0));
}

TEST(SGCompressor, ResultsDoNotDependOnTheThreadCount) {
    const int dims[3] = {20, 16, 24};
    const auto field = smokeLike(20, 16, 24, 8);
    std::vector<uint8_t> first;
    std::vector<float> firstDecoded;
    for (int threads : {1, 2, 5}) {
        PosixThreadManager manager;
        struct Fixed : SGCompressor<3> {
            using SGCompressor<3>::SGCompressor;
            int count = 1;
            int defaultThreads() override { return count; }
        } codec(&manager);
        codec.count = threads;
        ASSERT_GT(codec.encodeZoned(field.data(), dims, 14, 0, 2, 6), 0);
        std::vector<float> out(field.size());
        ASSERT_TRUE(codec.decode(codec.output.data, codec.output.count, out.data(), out.size()));
        if (first.empty()) {
            first = bytesOf(codec.output);
            firstDecoded = out;
        } else {
            EXPECT_EQ(bytesOf(codec.output), first) << threads;
            EXPECT_TRUE(sameBits(out, firstDecoded)) << threads;
        }
    }
}

TEST(SGCompressor, FrameChannelsExpandCodedAndZonedStreams) {
    // A frame with a coded channel, a zoned one, and two whose streams do not fit the grid.
    const int nx = 24, ny = 20, nz = 16;
    const uint64_t cells = uint64_t(nx) * ny * nz;
    const auto smoke = smokeLike(nx, ny, nz, 31), heat = smokeLike(nx, ny, nz, 32);
    const int dims[3] = {nx, ny, nz};
    VaporixFrameData frame;
    frame.gridSize[0] = nx;
    frame.gridSize[1] = ny;
    frame.gridSize[2] = nz;
    SGCompressor<3> writer;
    auto add = [&](int channel) {
        ASSERT_TRUE(frame.appendStreamBlock(channel, writer.output.data,
                                            static_cast<uint64_t>(writer.output.count)));
        frame.channelMask |= 1u << channel;
    };
    ASSERT_GT(writer.Compress(smoke.data(), dims, 12, 0, 2), 0);
    const auto coded = bytesOf(writer.output);
    add(CH_SMOKE);
    ASSERT_GT(writer.encodeZoned(heat.data(), dims, 16, 0, 1, 4), 0);
    const auto zoned = bytesOf(writer.output);
    add(CH_TEMPERATURE);
    const int shorter[3] = {nx, ny, nz - 1};
    ASSERT_GT(writer.Compress(heat.data(), shorter, 16, 0, 1), 0);
    add(CH_FUEL);
    const int longer[3] = {nx, ny, nz + 1};
    std::vector<float> more(heat);
    more.resize(cells + uint64_t(nx) * ny, 0.5f);
    ASSERT_GT(writer.encodeZoned(more.data(), longer, 16, 0, 1, 3), 0);
    add(CH_WAVELET);

    const auto wantSmoke = decodeAll(writer, coded, cells);
    const auto wantHeat = decodeAll(writer, zoned, cells);

    // Render threads ask for the channels at once; each sees the one array of a channel.
    std::vector<const float*> seenSmoke(4), seenHeat(4);
    std::vector<float> heatMax(4);
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&, t] {
            seenHeat[static_cast<size_t>(t)] = frame.GetChannelData(CH_TEMPERATURE);
            seenSmoke[static_cast<size_t>(t)] = frame.GetChannelData(CH_SMOKE);
            float lo, hi;
            heatMax[static_cast<size_t>(t)] =
                frame.getChannelRange(CH_TEMPERATURE, lo, hi) ? hi : -1.0f;
        });
    for (auto& r : readers) r.join();
    const float* smokeData = frame.channels[CH_SMOKE];
    const float* heatData = frame.channels[CH_TEMPERATURE];
    ASSERT_NE(smokeData, nullptr);
    ASSERT_NE(heatData, nullptr);
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(seenSmoke[static_cast<size_t>(t)], smokeData);
        EXPECT_EQ(seenHeat[static_cast<size_t>(t)], heatData);
        EXPECT_EQ(heatMax[static_cast<size_t>(t)],
                  *std::max_element(wantHeat.begin(), wantHeat.end()));
    }
    EXPECT_TRUE(sameBits(std::vector<float>(smokeData, smokeData + cells), wantSmoke));
    EXPECT_TRUE(sameBits(std::vector<float>(heatData, heatData + cells), wantHeat));

    // Streams of another cell count fail to expand, each time, and leave the frame usable.
    test::LogRecorder log;
    EXPECT_EQ(frame.GetChannelData(CH_FUEL), nullptr);
    EXPECT_EQ(frame.GetChannelData(CH_WAVELET), nullptr);
    EXPECT_EQ(frame.GetChannelData(CH_FUEL), nullptr);
    EXPECT_EQ(log.text(), "Invalid cache file!!!\nInvalid cache file!!!\nInvalid cache file!!!\n");
    EXPECT_TRUE(frame.HasChannel(CH_FUEL));

    // A channel expanded again after a clear reuses the compressor (and the zone jobs) it had.
    SGCompressor<3>* kept = frame.compressors[CH_TEMPERATURE];
    ASSERT_NE(kept, nullptr);
    const int32_t jobs = kept->numJobs;
    frame.clearChannels();
    ASSERT_NE(frame.GetChannelData(CH_TEMPERATURE), nullptr);
    EXPECT_EQ(frame.compressors[CH_TEMPERATURE], kept);
    EXPECT_EQ(kept->numJobs, jobs);
    EXPECT_TRUE(sameBits(
        std::vector<float>(frame.channels[CH_TEMPERATURE], frame.channels[CH_TEMPERATURE] + cells),
        wantHeat));
}
