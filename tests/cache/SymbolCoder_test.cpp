// The symbol coder on its own: both forms, the size rules that pick them, extreme widths, deep
// code trees, bare streams of a given symbol count, and damaged tables.
#include "cache/SymbolCoder.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <vector>

#include "SGReference.h"

using namespace vaporix;

namespace {

std::vector<uint8_t> encoded(SymbolCoder& coder, const std::vector<int32_t>& s) {
    const int64_t n = coder.encode(s.data(), s.size());
    EXPECT_GT(n, 0);
    EXPECT_EQ(n % 4, 0);
    return std::vector<uint8_t>(coder.bytes.data, coder.bytes.data + coder.bytes.count);
}

std::vector<int32_t> decoded(const std::vector<uint8_t>& bytes, size_t count, bool* ok = nullptr) {
    std::vector<int32_t> out(count);
    const bool result = SymbolCoder::decodeSymbols(bytes.data(), bytes.size(), out.data(), count);
    if (ok) *ok = result;
    return out;
}

void expectRoundTrip(const std::vector<int32_t>& s, const char* what) {
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    EXPECT_EQ(bytes, reference::symbolEncode(s)) << what;
    bool ok = false;
    EXPECT_EQ(decoded(bytes, s.size(), &ok), s) << what;
    EXPECT_TRUE(ok) << what;
}

}  // namespace

TEST(SymbolCoder, SkewedSymbolsTakeTheTableForm) {
    std::mt19937 rng(1);
    std::geometric_distribution<int> g(0.3);
    std::vector<int32_t> s(20000);
    for (auto& v : s) v = g(rng) * ((rng() & 1) ? 1 : -1) + 1000;
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    EXPECT_EQ(bytes[0], 0);  // table form
    EXPECT_LT(bytes.size(), s.size());
    expectRoundTrip(s, "geometric");
}

TEST(SymbolCoder, OneSymbolHasNoCodeBits) {
    const std::vector<int32_t> s(1000, 5);
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    // 8 + 32 + 32 + 6 + 6 bits of header, one entry of 1 + 10 + 1 bits: three words.
    EXPECT_EQ(bytes.size(), 12u);
    EXPECT_EQ(bytes[0], 0);
    expectRoundTrip(s, "one symbol");
}

TEST(SymbolCoder, UniformSymbolsAndTooBigTablesFallBackToFlat) {
    std::mt19937 rng(2);
    // 127 values, 40 of each: the codes average almost 7 bits, as many as the flat form's.
    std::vector<int32_t> uniform;
    for (int v = 0; v < 127; ++v) uniform.insert(uniform.end(), 40, v - 20);
    std::shuffle(uniform.begin(), uniform.end(), rng);
    SymbolCoder coder;
    auto bytes = encoded(coder, uniform);
    EXPECT_EQ(bytes[0], 7);  // flat
    expectRoundTrip(uniform, "uniform");

    // The estimate favours the table, but 1000 wide entries do not fit under the flat size:
    // the table attempt is abandoned.
    std::vector<int32_t> sparse;
    for (int i = 0; i < 1000; ++i) sparse.push_back(i * 1000);
    for (int i = 0; i < 1000; ++i) std::swap(sparse[i], sparse[rng() % 1000]);
    bytes = encoded(coder, sparse);
    EXPECT_EQ(bytes[0], 20);
    EXPECT_EQ(bytes.size(), (40 + 20 * 1000 + 31) / 32 * 4u);
    expectRoundTrip(sparse, "abandoned table");
}

TEST(SymbolCoder, ExtremeSymbolsUseThirtyThreeBits) {
    const std::vector<int32_t> s = {std::numeric_limits<int32_t>::min(), 0, -1,
                                    std::numeric_limits<int32_t>::max(), 7};
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    EXPECT_EQ(bytes[0], 33);
    expectRoundTrip(s, "extremes");
    expectRoundTrip({}, "empty");
    expectRoundTrip({-3}, "single");
    expectRoundTrip({4, 4}, "two equal");
}

TEST(SymbolCoder, DeepCodesDecodeBeyondTheLookUpTable) {
    // Frequencies that halve from entry to entry make codes far longer than one look-up.
    std::vector<int32_t> s;
    for (int sym = 0; sym < 24; ++sym)
        for (int k = 0; k < (1 << (23 - sym)) / 64 + 1; ++k) s.push_back(sym * 3 - 30);
    std::mt19937 rng(4);
    std::shuffle(s.begin(), s.end(), rng);
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    ASSERT_EQ(bytes[0], 0);
    expectRoundTrip(s, "deep");
    // next() and the reference's bit-by-bit walk agree.
    ASSERT_TRUE(coder.startDecoding(bytes.data(), bytes.size()));
    const auto walk = reference::symbolDecode(bytes.data(), bytes.size(), s.size());
    for (size_t i = 0; i < s.size(); ++i) ASSERT_EQ(coder.next(), walk[i]) << i;
    EXPECT_FALSE(coder.overrun());
}

TEST(SymbolCoder, RunExpansionAcrossPieces) {
    // 3, run of 6, 8, 9, run of 5: 14 values, expanded in pieces of 4.
    const std::vector<int32_t> s = {3, -6, 8, 9, -5};
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    ASSERT_TRUE(coder.startDecoding(bytes.data(), bytes.size()));
    SymbolCoder::RunState state;
    state.total = 14;
    state.base = 100;
    std::vector<int32_t> out(16, 0);
    for (int piece = 0; piece < 3; ++piece)
        ASSERT_TRUE(coder.expand(out.data() + piece * 4, 4, state));
    ASSERT_TRUE(coder.expand(out.data() + 12, 2, state));
    const std::vector<int32_t> want = {103, 103, 103, 103, 103, 103, 103, 108,
                                       109, 109, 109, 109, 109, 109, 0,   0};
    EXPECT_EQ(out, want);
    EXPECT_FALSE(coder.expand(out.data(), 1, state));  // nothing left

    // The free function over a whole field.
    ASSERT_TRUE(coder.startDecoding(bytes.data(), bytes.size()));
    std::vector<int32_t> all(14);
    ASSERT_TRUE(DecodeAndExpand(coder, all.data(), 14, 100));
    EXPECT_TRUE(std::equal(all.begin(), all.end(), want.begin()));
    EXPECT_TRUE(DecodeAndExpand(coder, all.data(), 0, 0));
}

TEST(SymbolCoder, ShortAndDamagedStreamsAreRefused) {
    std::mt19937 rng(6);
    std::geometric_distribution<int> g(0.2);
    std::vector<int32_t> s(3000);
    for (auto& v : s) v = g(rng);
    SymbolCoder coder;
    const auto bytes = encoded(coder, s);
    for (size_t n = 0; n + 4 <= bytes.size(); n += 4) {
        std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<long>(n));
        bool ok = true;
        decoded(cut, s.size(), &ok);
        EXPECT_FALSE(ok) << n;
    }
    // A table that claims more entries than the stream could hold.
    reference::BitOut big;
    big.field(0, 8);
    big.field(0xFFFFFFFFu, 32);
    big.field(0, 32);
    big.field(4, 6);
    big.field(3, 6);
    big.finish();
    bool ok = true;
    decoded(big.bytes, 4, &ok);
    EXPECT_FALSE(ok);
    // Frequencies whose sum overflows 64 bits.
    reference::BitOut overflow;
    overflow.field(0, 8);
    overflow.field(3, 32);
    overflow.field(0, 32);
    overflow.field(63, 6);
    overflow.field(2, 6);
    for (int e = 0; e < 3; ++e) {
        overflow.bit(1);
        overflow.field((uint64_t(1) << 63) - 1, 63);
        overflow.field(static_cast<uint64_t>(e), 2);
    }
    overflow.finish();
    decoded(overflow.bytes, 4, &ok);
    EXPECT_FALSE(ok);
    // A table whose frequencies cannot be split (all zero): decodes to something, safely.
    reference::BitOut zeros;
    zeros.field(0, 8);
    zeros.field(3, 32);
    zeros.field(10, 32);
    zeros.field(1, 6);
    zeros.field(2, 6);
    for (int e = 0; e < 3; ++e) {
        zeros.bit(1);
        zeros.field(0, 1);
        zeros.field(static_cast<uint64_t>(e), 2);
    }
    zeros.field(0, 32);
    zeros.finish();
    const auto z = decoded(zeros.bytes, 8, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(z, std::vector<int32_t>(8, 10));  // the root stays a leaf of value 0
    // A flat width above 33 bits.
    const std::vector<uint8_t> wide = {40, 0, 0, 0, 0, 0, 0, 0};
    decoded(wide, 1, &ok);
    EXPECT_FALSE(ok);
    // Random damage: no crash, no hang.
    for (int trial = 0; trial < 300; ++trial) {
        auto damaged = bytes;
        damaged[rng() % 24] = static_cast<uint8_t>(rng());
        decoded(damaged, s.size(), &ok);
    }
}

TEST(SymbolCoder, IdStreamsOfSymbolPairs) {
    // Particle IDs: low and high halves of 64-bit differences.
    const std::vector<int64_t> differences = {1000000000000ll, 1, 1, 2, -5, 1, 1, 1};
    std::vector<int32_t> pairs;
    for (int64_t d : differences) {
        pairs.push_back(static_cast<int32_t>(static_cast<uint32_t>(d)));
        pairs.push_back(static_cast<int32_t>(static_cast<uint32_t>(uint64_t(d) >> 32)));
    }
    SymbolCoder coder;
    const auto bytes = encoded(coder, pairs);
    bool ok = false;
    const auto back = decoded(bytes, pairs.size(), &ok);
    ASSERT_TRUE(ok);
    for (size_t i = 0; i < differences.size(); ++i) {
        const int64_t d =
            static_cast<int64_t>(uint64_t(static_cast<uint32_t>(back[2 * i])) |
                                 uint64_t(static_cast<uint32_t>(back[2 * i + 1])) << 32);
        EXPECT_EQ(d, differences[i]);
    }
}
