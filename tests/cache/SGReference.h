// A slow, literal second implementation of the grid stream format, bit by bit and line by line,
// against which the optimised codec is checked byte for byte and value for value.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

namespace vaporix::reference {

inline int bitLength(uint64_t v) {
    int n = 0;
    while (v) {
        ++n;
        v >>= 1;
    }
    return n;
}

/// Bits appended LSB first through a 32-bit accumulator, with a size limit watched at each
/// 4-byte append.
struct BitOut {
    std::vector<uint8_t> bytes;
    uint32_t acc = 0;
    int n = 0;
    size_t limit = SIZE_MAX;
    bool over = false;
    void bit(uint32_t b) {
        acc |= (b & 1u) << n;
        if (++n == 32) flush();
    }
    void flush() {
        for (int k = 0; k < 4; ++k) bytes.push_back(static_cast<uint8_t>(acc >> (8 * k)));
        acc = 0;
        n = 0;
        if (bytes.size() >= limit) over = true;
    }
    void field(uint64_t v, int width) {
        for (int i = 0; i < width; ++i) bit(static_cast<uint32_t>(v >> i) & 1u);
    }
    void finish() {
        if (n) flush();
    }
};

struct Entry {
    int32_t symbolLessBase;
    uint64_t frequency;
};

/// The code tree split, recursive as it is described: codes are written as bit lists.
inline void buildCodeTree(const std::vector<Entry>& table,
                          size_t first,
                          size_t n,
                          uint64_t total,
                          std::vector<int> code,
                          std::map<int32_t, std::vector<int>>& codes) {
    for (;;) {
        if (n == 1) {
            codes[table[first].symbolLessBase] = code;
            return;
        }
        const uint64_t half = total / 2;
        uint64_t acc = 0;
        size_t i = first;
        for (; i < first + n; ++i) {
            acc += table[i].frequency;
            if (acc >= half) break;
        }
        const uint64_t prev = acc - table[i].frequency;
        size_t k = i - first + 1;
        if (acc - half > half - prev) {
            k = i - first;
            acc = prev;
        }
        if (k == 0 || k == n) return;
        std::vector<int> c0 = code, c1 = code;
        c0.push_back(0);
        c1.push_back(1);
        buildCodeTree(table, first, k, acc, c0, codes);
        first += k;
        n -= k;
        total -= acc;
        code = c1;
    }
}

inline std::vector<uint8_t> symbolEncode(const std::vector<int32_t>& s) {
    int32_t lo = 0, hi = 0;
    if (!s.empty()) lo = hi = s[0];
    for (int32_t v : s) {
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
    const int w = bitLength(static_cast<uint64_t>(int64_t(hi) - lo + 1));
    const uint64_t flatSize = static_cast<uint64_t>(w) * s.size() / 8;
    std::map<int32_t, uint64_t> histogram;
    for (int32_t v : s) ++histogram[static_cast<int32_t>(int64_t(v) - lo)];
    std::vector<Entry> table;
    for (auto& [sym, f] : histogram) table.push_back({sym, f});
    std::stable_sort(table.begin(), table.end(),
                     [](const Entry& a, const Entry& b) { return a.frequency > b.frequency; });
    if (!table.empty()) {
        std::map<int32_t, std::vector<int>> codes;
        buildCodeTree(table, 0, table.size(), s.size(), {}, codes);
        uint64_t bits = 0;
        for (const Entry& e : table) bits += codes[e.symbolLessBase].size() * e.frequency;
        if (!(bits / 8 + table.size() / 4 + 10 > flatSize)) {
            BitOut out;
            out.limit = flatSize + 8;
            out.field(0, 8);
            out.field(table.size(), 32);
            out.field(static_cast<uint32_t>(lo), 32);
            const int fw = bitLength(table[0].frequency);
            out.field(static_cast<uint64_t>(fw), 6);
            out.field(static_cast<uint64_t>(w), 6);
            for (size_t e = 0; e < table.size(); ++e) {
                const bool flag = e == 0 || table[e].frequency != table[e - 1].frequency;
                out.bit(flag);
                if (flag) out.field(table[e].frequency, fw);
                out.field(static_cast<uint32_t>(table[e].symbolLessBase), w);
            }
            for (int32_t v : s)
                for (int b : codes[static_cast<int32_t>(int64_t(v) - lo)]) out.bit(b);
            out.finish();
            if (!out.over) return out.bytes;
        }
    }
    BitOut flat;
    flat.field(static_cast<uint64_t>(w), 8);
    flat.field(static_cast<uint32_t>(lo), 32);
    for (int32_t v : s) flat.field(static_cast<uint64_t>(int64_t(v) - lo), w);
    flat.finish();
    return flat.bytes;
}

template <typename T>
void put(std::vector<uint8_t>& out, const T& v) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
    out.insert(out.end(), p, p + sizeof(T));
}

inline int32_t wrap(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

/// Index of cell k of line `line` along axis a of a grid of sizes d[3].
inline size_t lineCell(const int64_t d[3], int a, int64_t line, int64_t k) {
    int64_t c[3];
    const int b = (a + 1) % 3, e = (a + 2) % 3;
    c[a] = k;
    c[b] = line % d[b];
    c[e] = line / d[b];
    return static_cast<size_t>(c[0] + d[0] * (c[1] + d[1] * c[2]));
}

/// The whole encoder, step by step as described.
inline std::vector<uint8_t> encode(const std::vector<float>& v,
                                   std::vector<int> dims,
                                   int quantBits,
                                   float quantStep,
                                   int passes) {
    std::vector<uint8_t> out;
    put(out, uint16_t(64513));
    const int32_t count = static_cast<int32_t>(v.size());
    if (quantBits >= 20) {
        out.push_back(0);
        put(out, count);
        for (float x : v) put(out, x);
        return out;
    }
    float mn = v.empty() ? 0 : v[0], mx = mn;
    for (float x : v) {
        if (!std::isfinite(x)) {
            mn = mx = 0;
            break;
        }
        if (x < mn) mn = x;
        if (x > mx) mx = x;
    }
    if (std::fabs(double(mn) - double(mx)) < 1e-20) {
        out.push_back(1);
        put(out, count);
        put(out, mn);
        return out;
    }
    const float scale = quantBits > 0 ? float(1u << quantBits) / float(mx - mn) : 1.0f / quantStep;
    std::vector<int32_t> q(v.size());
    for (size_t i = 0; i < v.size(); ++i)
        q[i] = static_cast<int32_t>(std::floor(float(float(float(v[i] - mn) * scale) + 0.5f)));
    out.push_back(2);
    for (int d : dims) put(out, int32_t(d));
    put(out, scale);
    put(out, mn);
    int64_t d3[3] = {1, 1, 1};
    for (size_t a = 0; a < dims.size(); ++a) d3[a] = dims[a];
    for (int p = 0; p < passes; ++p)
        for (int a = 0; a < 3; ++a) {
            const int64_t lines = int64_t(v.size()) / d3[a];
            for (int64_t l = 0; l < lines; ++l)
                for (int64_t k = d3[a] - 1; k >= p + 1; --k)
                    q[lineCell(d3, a, l, k)] =
                        wrap(int64_t(q[lineCell(d3, a, l, k)]) - q[lineCell(d3, a, l, k - 1)]);
        }
    const int32_t m = *std::min_element(q.begin(), q.end());
    put(out, m);
    out.push_back(static_cast<uint8_t>(passes));
    for (auto& x : q) x = wrap(int64_t(x) - m);
    // Runs: the value, then -k for k >= 4 repeats.
    std::vector<int32_t> c;
    size_t i = 0;
    while (i < q.size()) {
        size_t j = i + 1;
        while (j < q.size() && q[j] == q[i]) ++j;
        const size_t repeats = j - i - 1;
        c.push_back(q[i]);
        if (repeats >= 4)
            c.push_back(-static_cast<int32_t>(repeats));
        else
            for (size_t r = 0; r < repeats; ++r) c.push_back(q[i]);
        i = j;
    }
    const auto coded = symbolEncode(c);
    out.insert(out.end(), coded.begin(), coded.end());
    return out;
}

/// Bits read LSB first; past the end, zeros.
struct BitIn {
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
    uint32_t bit() {
        const uint32_t b = pos / 8 < size ? (data[pos / 8] >> (pos % 8)) & 1u : 0u;
        ++pos;
        return b;
    }
    uint64_t field(int w) {
        uint64_t v = 0;
        for (int i = 0; i < w; ++i) v |= uint64_t(bit()) << i;
        return v;
    }
};

/// Decodes `count` symbols of a coded stream with a bit-by-bit walk of the tree.
inline std::vector<int32_t> symbolDecode(const uint8_t* data, size_t size, size_t count) {
    BitIn in{data, size};
    std::vector<int32_t> s;
    const int form = static_cast<int>(in.field(8));
    if (form) {
        const int32_t base = static_cast<int32_t>(in.field(32));
        for (size_t i = 0; i < count; ++i)
            s.push_back(wrap(int64_t(base) + static_cast<int64_t>(in.field(form))));
        return s;
    }
    const size_t n = in.field(32);
    const int32_t base = static_cast<int32_t>(in.field(32));
    const int fw = static_cast<int>(in.field(6));
    const int sw = static_cast<int>(in.field(6));
    std::vector<Entry> table;
    uint64_t f = 0;
    for (size_t e = 0; e < n; ++e) {
        if (in.bit()) f = in.field(fw);
        table.push_back({static_cast<int32_t>(in.field(sw)), f});
    }
    uint64_t total = 0;
    for (auto& e : table) total += e.frequency;
    std::map<int32_t, std::vector<int>> codes;
    buildCodeTree(table, 0, table.size(), total, {}, codes);
    for (size_t i = 0; i < count; ++i) {
        std::vector<int> path;
        for (;;) {
            bool found = false;
            for (auto& [sym, code] : codes)
                if (code == path) {
                    s.push_back(wrap(int64_t(sym) + base));
                    found = true;
                }
            if (found) break;
            path.push_back(static_cast<int>(in.bit()));
        }
    }
    return s;
}

}  // namespace vaporix::reference
