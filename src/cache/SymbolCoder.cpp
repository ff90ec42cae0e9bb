// Symbol coder: histogram, frequency table, Shannon-Fano code tree, bit writer and a
// table-driven bit reader whose look-ups resolve short codes at once.
#include "cache/SymbolCoder.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "foundation/log.h"

namespace vaporix {

static_assert(std::endian::native == std::endian::little,
              "the bit reader loads little-endian words directly");

namespace {

// Symbols are counted in a dense window below the largest one, at most WINDOW wide and reaching
// no lower than -WINDOW_NEGATIVE; the rest (markers of runs longer than that, a handful in any
// field) go to a sorted list. Markers reach down to minus the cell count, so a window over the
// whole range would cost a clear and a scan of the size of the field on every stream.
constexpr int64_t WINDOW = int64_t(1) << 22;
constexpr int64_t WINDOW_NEGATIVE = int64_t(1) << 16;
// The widest symbol field: (largest - smallest + 1) of two int32 needs 33 bits.
constexpr int MAX_WIDTH = 33;
// Codes of the encoder are kept in 64-bit words; deeper trees (which real data never makes)
// fall back to the flat form.
constexpr int MAX_CODE_DEPTH = 63;

// Look-up entries: the symbol in the low 32 bits, the bits to consume in bits 32..39, and flags.
constexpr uint64_t LOOKUP_CONTINUE = uint64_t(1) << 40;  // low bits: tree node to go on from
constexpr uint64_t LOOKUP_NEGATIVE = uint64_t(1) << 41;  // symbol below 0: a run marker
// Low bits: offset of a further table, indexed by the next (bits 48..55) bits.
constexpr uint64_t LOOKUP_SUBTABLE = uint64_t(1) << 42;

int bitLength(uint64_t v) { return v ? 64 - std::countl_zero(v) : 0; }

uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

// The encoder's bit writer: a 32-bit accumulator appended as four bytes whenever full, with an
// optional size limit that is checked at each append.
class BitWriter {
public:
    BitWriter(uint8_t* out, uint64_t limit) : mOut(out), mLimit(limit) {}
    // Adds the low `n` bits of `v`, lowest first; n may be up to 64.
    void put(uint64_t v, int n) {
        while (n > 32) {
            put32(v & 0xFFFFFFFFu, 32);
            v >>= 32;
            n -= 32;
        }
        put32(v, n);
    }
    void put32(uint64_t v, int n) {
        if (n <= 0) return;
        mAcc |= (v & ((uint64_t(1) << n) - 1)) << mCount;
        mCount += n;
        if (mCount >= 32) {
            emit(static_cast<uint32_t>(mAcc));
            mAcc >>= 32;
            mCount -= 32;
        }
    }
    // Appends a partly filled accumulator whole; nothing when it is empty.
    void finish() {
        if (mCount > 0) emit(static_cast<uint32_t>(mAcc));
        mAcc = 0;
        mCount = 0;
    }
    bool exceeded() const { return mExceeded; }
    uint64_t size() const { return mSize; }

private:
    void emit(uint32_t word) {
        std::memcpy(mOut + mSize, &word, 4);
        mSize += 4;
        if (mSize >= mLimit) mExceeded = true;
    }
    uint8_t* mOut;
    uint64_t mLimit;
    uint64_t mSize = 0;
    uint64_t mAcc = 0;
    int mCount = 0;
    bool mExceeded = false;
};

// The split of a table part [first, first + n) with frequency `total` (prefix sums `p`): the
// first entry at which the running sum reaches half the total goes to whichever part it
// unbalances less. Returns the size k of the first part and sets `acc` to its frequency.
uint64_t splitPart(const uint64_t* p, uint64_t first, uint64_t n, uint64_t total, uint64_t& acc) {
    const uint64_t half = total / 2;
    const uint64_t target = p[first] + half;
    const uint64_t* begin = p + first + 1;
    const uint64_t* at = std::lower_bound(begin, begin + n, target);
    if (at == begin + n) {
        acc = total;
        return n;
    }
    const uint64_t i = static_cast<uint64_t>(at - (p + 1));
    acc = p[i + 1] - p[first];
    const uint64_t prev = p[i] - p[first];
    const uint64_t over = acc - half;
    if (over > half - prev) {
        acc = prev;
        return i - first;
    }
    return i - first + 1;
}

}  // namespace

// =============================================================================================
// Encoding

int64_t SymbolCoder::encode(const int32_t* symbols, uint64_t count) {
    bytes.resize(0);
    int32_t lo = 0, hi = 0;
    if (count) {
        lo = hi = symbols[0];
        for (uint64_t i = 1; i < count; ++i) {
            lo = std::min(lo, symbols[i]);
            hi = std::max(hi, symbols[i]);
        }
    }
    const uint64_t range = static_cast<uint64_t>(int64_t(hi) - int64_t(lo)) + 1;
    const int width = bitLength(range);
    const uint64_t flatSize = static_cast<uint64_t>(width) * count / 8;

    bool coded = false;
    if (count) {
        if (!buildTable(symbols, count, lo, hi)) return 0;
        if (buildCodeTree(true)) {
            uint64_t bits = 0;
            for (long long e = 0; e < mEntries.count; ++e)
                bits += mEntryLength.data[e] * mEntries.data[e].frequency;
            const uint64_t n = static_cast<uint64_t>(mEntries.count);
            if (!(bits / 8 + n / 4 + 10 > flatSize)) {
                const int written = writeTable(symbols, count, lo, width, flatSize + 8);
                if (written < 0) return 0;
                coded = written > 0;
            }
        }
    }
    if (!coded) writeFlat(symbols, count, lo, width);
    return bytes.count;
}

bool SymbolCoder::buildTable(const int32_t* symbols, uint64_t count, int32_t lo, int32_t hi) {
    // Count in the window [windowLow, hi]; symbols under it are sorted and counted apart.
    const int64_t windowLow = std::max(
        {int64_t(lo), int64_t(hi) - (WINDOW - 1), std::min<int64_t>(-WINDOW_NEGATIVE, hi)});
    const long long windowSize = static_cast<long long>(int64_t(hi) - windowLow + 1);
    mWindowLow = static_cast<int32_t>(windowLow);
    if (!mWindow.resize(windowSize, nullptr, true)) return false;
    std::memset(mWindow.data, 0, static_cast<size_t>(windowSize) * sizeof(uint32_t));
    mOutside.resize(0);
    uint32_t* window = mWindow.data;
    for (uint64_t i = 0; i < count; ++i) {
        const int32_t s = symbols[i];
        if (s >= mWindowLow)
            ++window[s - mWindowLow];
        else if (!mOutside.append(s))
            return false;
    }
    std::sort(mOutside.begin(), mOutside.end());

    // Entries in ascending symbol order: those under the window first, then the window's.
    mEntries.resize(0);
    long long distinctOutside = 0;
    for (long long i = 0; i < mOutside.count;) {
        long long j = i;
        while (j < mOutside.count && mOutside.data[j] == mOutside.data[i]) ++j;
        if (!mEntries.append(Entry{static_cast<uint64_t>(j - i), mOutside.data[i], 0}))
            return false;
        mOutside.data[distinctOutside++] = mOutside.data[i];
        i = j;
    }
    mOutside.resize(distinctOutside);
    for (long long b = 0; b < windowSize; ++b)
        if (window[b] &&
            !mEntries.append(Entry{window[b], static_cast<int32_t>(mWindowLow + b), 0}))
            return false;

    // Descending frequency; equal frequencies keep ascending symbol order.
    std::sort(mEntries.begin(), mEntries.end(), [](const Entry& a, const Entry& b) {
        return a.frequency != b.frequency ? a.frequency > b.frequency : a.symbol < b.symbol;
    });

    // From now on the window and the list map symbols to entry numbers.
    if (!mOutsideEntry.resize(mOutside.count, nullptr, true)) return false;
    for (long long e = 0; e < mEntries.count; ++e) {
        const int32_t s = mEntries.data[e].symbol;
        if (s >= mWindowLow) {
            window[s - mWindowLow] = static_cast<uint32_t>(e);
        } else {
            const int32_t* at = std::lower_bound(mOutside.begin(), mOutside.end(), s);
            mOutsideEntry.data[at - mOutside.begin()] = static_cast<uint32_t>(e);
        }
    }

    // Frequencies as prefix sums, which the tree's splits search.
    if (!mPrefix.resize(mEntries.count + 1, nullptr, true)) return false;
    mPrefix.data[0] = 0;
    for (long long e = 0; e < mEntries.count; ++e)
        mPrefix.data[e + 1] = mPrefix.data[e] + mEntries.data[e].frequency;
    return true;
}

uint32_t SymbolCoder::entryOf(int32_t symbol) const {
    if (symbol >= mWindowLow) return mWindow.data[symbol - mWindowLow];
    const int32_t* at = std::lower_bound(mOutside.begin(), mOutside.end(), symbol);
    return mOutsideEntry.data[at - mOutside.begin()];
}

bool SymbolCoder::buildCodeTree(bool forEncoder) {
    // The table as it stands: its entries' symbols and their frequencies as prefix sums.
    const long long n = forEncoder ? mEntries.count : mTableSymbols.count;
    if (n <= 0) return false;
    if (forEncoder) {
        if (!mEntryCode.resize(n, nullptr, true) || !mEntryLength.resize(n, nullptr, true))
            return false;
    } else {
        if (!mNodes.resize(2 * n, nullptr, true)) return false;
        for (long long i = 0; i < 2 * n; ++i) mNodes.data[i] = Node{0, {-1, -1}};
    }

    // Each part goes on with its second half at once and leaves its first half on the stack,
    // so the stack never holds more parts than the tree is deep.
    using Part = TreePart;
    mParts.resize(0);
    if (!mParts.append(Part{0, static_cast<uint64_t>(n), mPrefix.data[n], 0, 0, 0})) return false;
    int32_t nextNode = 1;
    int maxDepth = 0;
    while (mParts.count > 0) {
        Part part = mParts.last();
        mParts.resize(mParts.count - 1);
        for (;;) {
            if (part.n == 1) {
                if (forEncoder) {
                    mEntryCode.data[part.first] = part.code;
                    mEntryLength.data[part.first] = static_cast<uint8_t>(part.depth);
                } else {
                    mNodes.data[part.node].value = mTableSymbols.data[part.first];
                }
                maxDepth = std::max(maxDepth, static_cast<int>(part.depth));
                break;
            }
            uint64_t acc = 0;
            const uint64_t k = splitPart(mPrefix.data, part.first, part.n, part.total, acc);
            // A part that cannot be split (only zero frequencies do that) leaves its node as it
            // is: a leaf of value 0 for the decoder. The encoder never meets one.
            if (k == 0 || k == part.n) {
                if (forEncoder) return false;
                break;
            }
            if (forEncoder && part.depth >= MAX_CODE_DEPTH) return false;
            int32_t c0 = 0, c1 = 0;
            if (!forEncoder) {
                c0 = nextNode++;
                c1 = nextNode++;
                Node& node = mNodes.data[part.node];
                node.value = static_cast<int32_t>(part.first + k);
                node.child[0] = c0;
                node.child[1] = c1;
            }
            const uint64_t bit = part.depth < 64 ? uint64_t(1) << part.depth : 0;
            if (!mParts.append(Part{part.first, k, acc, part.code, c0, part.depth + 1}))
                return false;
            part = Part{part.first + k,  part.n - k, part.total - acc,
                        part.code | bit, c1,         part.depth + 1};
        }
    }
    if (!forEncoder) {
        mLookupBits = std::min(maxDepth, LOOKUP_BITS);
        return buildLookup();
    }
    return true;
}

int SymbolCoder::writeTable(
    const int32_t* symbols, uint64_t count, int32_t lo, int width, uint64_t limit) {
    // The writer gives up at the limit, so the buffer never needs more than that and a word.
    if (!bytes.resize(static_cast<long long>(limit + 8), nullptr, true)) return -1;
    BitWriter w(bytes.data, limit);
    const long long n = mEntries.count;
    const int fw = bitLength(mEntries.data[0].frequency);
    w.put(0, 8);
    w.put(static_cast<uint64_t>(n), 32);
    w.put(static_cast<uint32_t>(lo), 32);
    w.put(static_cast<uint64_t>(fw), 6);
    w.put(static_cast<uint64_t>(width), 6);
    uint64_t previous = 0;
    for (long long e = 0; e < n && !w.exceeded(); ++e) {
        const Entry& entry = mEntries.data[e];
        const bool newFrequency = e == 0 || entry.frequency != previous;
        w.put(newFrequency ? 1 : 0, 1);
        if (newFrequency) w.put(entry.frequency, fw);
        w.put(static_cast<uint64_t>(int64_t(entry.symbol) - lo), width);
        previous = entry.frequency;
    }
    const uint64_t* code = mEntryCode.data;
    const uint8_t* length = mEntryLength.data;
    for (uint64_t i = 0; i < count && !w.exceeded(); ++i) {
        const uint32_t e = entryOf(symbols[i]);
        w.put(code[e], length[e]);
    }
    if (!w.exceeded()) w.finish();
    if (w.exceeded()) {
        bytes.resize(0);
        return 0;
    }
    bytes.resize(static_cast<long long>(w.size()));
    return 1;
}

void SymbolCoder::writeFlat(const int32_t* symbols, uint64_t count, int32_t lo, int width) {
    const uint64_t bits = 40 + static_cast<uint64_t>(width) * count;
    const uint64_t size = (bits + 31) / 32 * 4;
    if (!bytes.resize(static_cast<long long>(size + 8), nullptr, true)) return;
    BitWriter w(bytes.data, UINT64_MAX);
    w.put(static_cast<uint64_t>(width), 8);
    w.put(static_cast<uint32_t>(lo), 32);
    for (uint64_t i = 0; i < count; ++i)
        w.put(static_cast<uint64_t>(int64_t(symbols[i]) - lo), width);
    w.finish();
    bytes.resize(static_cast<long long>(w.size()));
}

// =============================================================================================
// Decoding

void SymbolCoder::refillSlow() {
    while (mBits <= 56) {
        uint64_t b = 0;
        if (mPos < mSize)
            b = mData[mPos++];
        else
            ++mPadBytes;
        mBuf |= b << mBits;
        mBits += 8;
    }
}

inline void SymbolCoder::refill() {
    if (mPos + 8 <= mSize) {
        // Whole bytes only: the bits loaded beyond them are the same bytes the next load reads.
        mBuf |= load64(mData + mPos) << mBits;
        mPos += static_cast<uint64_t>(63 - mBits) >> 3;
        mBits |= 56;
    } else {
        refillSlow();
    }
}

inline uint64_t SymbolCoder::takeBits(int n) {
    if (mBits < n) refill();
    const uint64_t v = n >= 64 ? mBuf : mBuf & ((uint64_t(1) << n) - 1);
    mBuf >>= n;
    mBits -= n;
    return v;
}

uint64_t SymbolCoder::readField(int n) {
    if (n <= 32) return takeBits(n);
    const uint64_t low = takeBits(32);
    return low | (takeBits(n - 32) << 32);
}

bool SymbolCoder::overrun() const {
    return (mPos + mPadBytes) * 8 - static_cast<uint64_t>(mBits) > mSize * 8;
}

uint64_t SymbolCoder::bytesConsumed() const {
    const uint64_t bits = (mPos + mPadBytes) * 8 - static_cast<uint64_t>(mBits);
    return (bits + 7) / 8;
}

bool SymbolCoder::startDecoding(const uint8_t* data, uint64_t size, uint64_t maxSymbols) {
    mData = data;
    mSize = data ? size : 0;
    mPos = 0;
    mPadBytes = 0;
    mBuf = 0;
    mBits = 0;
    const int form = static_cast<int>(takeBits(8));
    if (form != 0) {
        mFlat = true;
        mWidth = form;
        mBase = static_cast<int32_t>(static_cast<uint32_t>(takeBits(32)));
        return mWidth <= MAX_WIDTH && !overrun();
    }
    mFlat = false;
    return readTableAndTree() && !overrun() &&
           static_cast<uint64_t>(mTableSymbols.count) <= maxSymbols;
}

bool SymbolCoder::readTableAndTree() {
    const uint64_t n = takeBits(32);
    mBase = static_cast<int32_t>(static_cast<uint32_t>(takeBits(32)));
    const int fw = static_cast<int>(takeBits(6));
    const int sw = static_cast<int>(takeBits(6));
    if (n == 0 || overrun()) return false;
    // Every entry takes at least its flag and its symbol: refuse tables the stream cannot hold
    // before allocating for them.
    const uint64_t bitsLeft = mSize * 8 - ((mPos + mPadBytes) * 8 - static_cast<uint64_t>(mBits));
    if (n > bitsLeft / static_cast<uint64_t>(1 + sw)) return false;
    const long long count = static_cast<long long>(n);
    if (!mTableSymbols.resize(count, nullptr, true) || !mPrefix.resize(count + 1, nullptr, true))
        return false;

    // Entries, as prefix sums of their frequencies.
    uint64_t frequency = 0;
    mPrefix.data[0] = 0;
    for (long long e = 0; e < count; ++e) {
        const bool newFrequency = takeBits(1) != 0;
        if (newFrequency)
            frequency = readField(fw);
        else if (e == 0)
            return false;  // the first entry always carries its frequency
        mTableSymbols.data[e] = static_cast<int32_t>(static_cast<uint32_t>(readField(sw)));
        if (mPrefix.data[e] + frequency < mPrefix.data[e]) return false;  // sum overflows
        mPrefix.data[e + 1] = mPrefix.data[e] + frequency;
    }
    if (overrun()) return false;

    // The tree, built as the encoder builds it, and its look-up tables.
    return buildCodeTree(false);
}

bool SymbolCoder::buildLookup() {
    // Heights of the subtrees (children always come after their parent in the node array).
    const long long nodes = mNodes.count;
    if (!mHeights.resize(nodes, nullptr, true)) return false;
    for (long long i = nodes - 1; i >= 0; --i) {
        const Node& node = mNodes.data[i];
        mHeights.data[i] = node.child[0] < 0
                               ? 0
                               : static_cast<uint16_t>(std::min(
                                     65535, 1 + std::max<int>(mHeights.data[node.child[0]],
                                                              mHeights.data[node.child[1]])));
    }

    // The first level: LOOKUP_BITS bits (fewer for shallow trees). Deeper codes go on in tables
    // of up to SUBTABLE_BITS bits each, as long as the budget lasts, then bit by bit.
    const long long first = 1ll << mLookupBits;
    const long long budget = first + 16 * (mTableSymbols.count + 4);
    if (!mLookup.resize(first, nullptr, true)) return false;
    struct Level {
        int32_t node;
        int32_t bits;
        long long offset;
    };
    iArray<Level, long long> levels;
    if (!levels.append(Level{0, mLookupBits, 0})) return false;
    for (long long l = 0; l < levels.count; ++l) {
        const Level level = levels.data[l];
        const long long size = 1ll << level.bits;
        struct Visit {
            int32_t node;
            int32_t depth;
            uint32_t code;
        };
        Visit stack[LOOKUP_BITS + SUBTABLE_BITS + 2];
        int top = 0;
        stack[top++] = Visit{level.node, 0, 0};
        while (top > 0) {
            const Visit v = stack[--top];
            const Node& node = mNodes.data[v.node];
            if (node.child[0] < 0) {
                const uint32_t symbol =
                    static_cast<uint32_t>(node.value) + static_cast<uint32_t>(mBase);
                uint64_t entry = symbol | (static_cast<uint64_t>(v.depth) << 32);
                if (static_cast<int32_t>(symbol) < 0) entry |= LOOKUP_NEGATIVE;
                for (long long i = v.code; i < size; i += 1ll << v.depth)
                    mLookup.data[level.offset + i] = entry;
            } else if (v.depth == level.bits) {
                const int sub = std::min<int>(SUBTABLE_BITS, mHeights.data[v.node]);
                uint64_t entry = static_cast<uint64_t>(level.bits) << 32;
                const long long at = mLookup.count;
                // Grown with room to spare: exact growth would copy the table once per
                // subtable, quadratic in big alphabets.
                if (at + (1ll << sub) <= budget && mLookup.resize(at + (1ll << sub))) {
                    entry |= static_cast<uint32_t>(at) | LOOKUP_SUBTABLE |
                             (static_cast<uint64_t>(sub) << 48);
                    if (!levels.append(Level{v.node, sub, at})) return false;
                } else {
                    if (mLookup.count < at) return false;  // a failed resize emptied it
                    entry |= static_cast<uint32_t>(v.node) | LOOKUP_CONTINUE;
                }
                mLookup.data[level.offset + v.code] = entry;
            } else {
                stack[top++] = Visit{node.child[1], v.depth + 1, v.code | (1u << v.depth)};
                stack[top++] = Visit{node.child[0], v.depth + 1, v.code};
            }
        }
    }
    return true;
}

int32_t SymbolCoder::resolveLong(uint64_t e) {
    while (e & LOOKUP_SUBTABLE) {
        const int bits = static_cast<int>((e >> 48) & 0xFF);
        if (mBits < bits) refill();
        e = mLookup.data[static_cast<uint32_t>(e) + (mBuf & ((uint64_t(1) << bits) - 1))];
        const int length = static_cast<int>((e >> 32) & 0xFF);
        mBuf >>= length;
        mBits -= length;
    }
    if (e & LOOKUP_CONTINUE) return walkFrom(static_cast<int32_t>(static_cast<uint32_t>(e)));
    return static_cast<int32_t>(static_cast<uint32_t>(e));
}

int32_t SymbolCoder::walkFrom(int32_t index) {
    const Node* nodes = mNodes.data;
    while (nodes[index].child[0] >= 0) {
        if (mBits == 0) refill();
        const int bit = static_cast<int>(mBuf & 1);
        mBuf >>= 1;
        --mBits;
        index = nodes[index].child[bit];
    }
    return static_cast<int32_t>(static_cast<uint32_t>(nodes[index].value) +
                                static_cast<uint32_t>(mBase));
}

int32_t SymbolCoder::next() {
    if (mFlat) {
        const uint64_t v = takeBits(mWidth);
        return static_cast<int32_t>(static_cast<uint32_t>(mBase) + static_cast<uint32_t>(v));
    }
    if (mBits < LOOKUP_BITS) refill();
    const uint64_t e = mLookup.data[mBuf & ((uint64_t(1) << mLookupBits) - 1)];
    const int length = static_cast<int>((e >> 32) & 0xFF);
    mBuf >>= length;
    mBits -= length;
    if (e & (LOOKUP_CONTINUE | LOOKUP_SUBTABLE)) return resolveLong(e);
    return static_cast<int32_t>(static_cast<uint32_t>(e));
}

bool SymbolCoder::decodeSymbols(const uint8_t* data, uint64_t size, int32_t* out, uint64_t count) {
    SymbolCoder coder;
    if (!coder.startDecoding(data, size, count)) return false;
    for (uint64_t i = 0; i < count; ++i) {
        out[i] = coder.next();
        // A stream that ends early would otherwise be read as endless zero bits.
        if ((i & 4095) == 4095 && coder.overrun()) return false;
    }
    return !coder.overrun();
}

// ---------------------------------------------------------------------------------------------
// Run expansion

namespace {
void logLongRun() { lumoLog("DecodeAndExpand - constant sequence longer than expected\n"); }
}  // namespace

template <bool Flat>
bool SymbolCoder::expandForm(int32_t* out, uint64_t n, RunState& st) {
    const uint32_t base = static_cast<uint32_t>(st.base);
    const uint32_t coderBase = static_cast<uint32_t>(mBase);
    const uint64_t* lookup = mLookup.data;
    const uint64_t lookupMask = (uint64_t(1) << mLookupBits) - 1;
    const int width = mWidth;
    const uint64_t widthMask = width >= 64 ? ~uint64_t(0) : (uint64_t(1) << width) - 1;
    uint64_t i = 0;
    while (i < n) {
        if (st.pending) {
            const int32_t last = i ? out[i - 1] : st.last;
            const uint64_t k = std::min(st.pending, n - i);
            std::fill_n(out + i, k, last);
            i += k;
            st.pending -= k;
            continue;
        }
        // Plain values until the piece is full or a run marker comes.
        int32_t s;
        for (;;) {
            if constexpr (Flat) {
                if (mBits < width) refill();
                s = static_cast<int32_t>(coderBase + static_cast<uint32_t>(mBuf & widthMask));
                mBuf >>= width;
                mBits -= width;
                if (s < 0) break;
            } else {
                if (mBits < LOOKUP_BITS) refill();
                const uint64_t e = lookup[mBuf & lookupMask];
                const int length = static_cast<int>((e >> 32) & 0xFF);
                mBuf >>= length;
                mBits -= length;
                s = static_cast<int32_t>(static_cast<uint32_t>(e));
                if (e >> 40) {
                    if (e & (LOOKUP_CONTINUE | LOOKUP_SUBTABLE)) s = resolveLong(e);
                    if (s < 0) break;
                }
            }
            out[i++] = static_cast<int32_t>(static_cast<uint32_t>(s) + base);
            if (i == n) {
                st.last = out[n - 1];
                st.hasLast = true;
                st.produced += n;
                return !overrun();
            }
        }
        // A run: repeat the last value written -s times.
        if (i) {
            st.last = out[i - 1];
            st.hasLast = true;
        }
        if (!st.hasLast) return false;
        const uint64_t run = static_cast<uint64_t>(-static_cast<int64_t>(s));
        if (run > st.total - st.produced - i) {
            // The field ends here: what came before stays, the rest is 0 rather than whatever
            // the buffer held.
            logLongRun();
            std::fill(out + i, out + n, 0);
            st.stopped = true;
            st.pending = 0;
            st.produced += n;
            return !overrun();
        }
        st.pending = run;
    }
    if (n) {
        st.last = out[n - 1];
        st.hasLast = true;
    }
    st.produced += n;
    return !overrun();
}

bool SymbolCoder::expand(int32_t* out, uint64_t n, RunState& state) {
    if (n > state.total - state.produced) return false;
    if (state.stopped) {
        std::fill(out, out + n, 0);
        state.produced += n;
        return true;
    }
    return mFlat ? expandForm<true>(out, n, state) : expandForm<false>(out, n, state);
}

void SymbolCoder::release() {
    bytes.free();
    mEntries.free();
    mEntryCode.free();
    mEntryLength.free();
    mWindow.free();
    mOutside.free();
    mOutsideEntry.free();
    mNodes.free();
    mPrefix.free();
    mParts.free();
    mTableSymbols.free();
    mLookup.free();
    mHeights.free();
}

bool DecodeAndExpand(SymbolCoder& coder, int32_t* out, int64_t count, int32_t base) {
    if (count <= 0) return true;
    SymbolCoder::RunState state;
    state.total = static_cast<uint64_t>(count);
    state.base = base;
    return coder.expand(out, static_cast<uint64_t>(count), state);
}

}  // namespace vaporix
