// Prefix coding of int32 symbol sequences: a flat fixed-width form and a frequency-table form
// whose codes come from a Shannon-Fano style split of the table.
#pragma once

#include <cstdint>

#include "foundation/iArray.h"

namespace vaporix {

/// Writes or reads a sequence of int32 symbols as bits, LSB first in each byte. The first 8 bits
/// tell the form: non-zero is the width of the flat form, 0 starts the table form.
///
/// Encoding: `encode` fills `bytes`. Decoding: `startDecoding` reads the form, the table and
/// builds the code tree, then `next` returns one symbol at a time. A coder may be reused for any
/// number of streams; its working tables are kept for the next one.
class SymbolCoder {
public:
    SymbolCoder() = default;
    SymbolCoder(const SymbolCoder&) = delete;
    SymbolCoder& operator=(const SymbolCoder&) = delete;

    /// Codes `count` symbols into `bytes`, in the table form when that is smaller, else in the
    /// flat form. @return the byte count (a multiple of 4), 0 when memory ran out.
    int64_t encode(const int32_t* symbols, uint64_t count);
    /// The coded stream of the last `encode`.
    iArray<uint8_t, long long> bytes;

    /// Reads the form and, for the table form, the table and the code tree from a stream of
    /// `size` bytes. A table of more than `maxSymbols` entries is refused (a stream of k symbols
    /// never has more than k). @return false for a malformed stream or when memory ran out.
    bool startDecoding(const uint8_t* data, uint64_t size, uint64_t maxSymbols = UINT64_MAX);
    /// One decoded symbol, base included. Past the end of the stream zero bits are read and
    /// `overrun()` becomes true.
    int32_t next();
    /// Whether more bits were taken than the stream holds.
    bool overrun() const;
    /// Number of stream bytes that the symbols read so far occupy.
    uint64_t bytesConsumed() const;

    /// Decodes `count` symbols of a bare coded stream (as the particle ID streams are stored).
    /// @return false for a malformed or too short stream.
    static bool decodeSymbols(const uint8_t* data, uint64_t size, int32_t* out, uint64_t count);

    /// State of a run expansion that is done in pieces (see `expand`).
    struct RunState {
        uint64_t total = 0;     // values of the whole field
        uint64_t produced = 0;  // values written by earlier pieces
        uint64_t pending = 0;   // repeats of `last` still to write
        int32_t last = 0;
        int32_t base = 0;  // added to every stored value
        bool hasLast = false;
        bool stopped = false;  // a run longer than the rest of the field was met
    };
    /// Run expansion: writes exactly `n` values to `out`, continuing `state`. A negative symbol
    /// repeats the last value that many times; others are stored with `state.base` added.
    /// A run longer than the rest of the field is logged and ends the expansion: the values
    /// before it stay, every later one (in this piece and all that follow) is 0, and the
    /// field still counts as decoded.
    /// @return false for a run with nothing before it, or a stream that ended early.
    bool expand(int32_t* out, uint64_t n, RunState& state);

    /// Frees the working tables.
    void release();

    /// Longest code the decoder resolves with one table look-up; longer ones go on through
    /// further tables of SUBTABLE_BITS bits.
    static constexpr int LOOKUP_BITS = 11;
    static constexpr int SUBTABLE_BITS = 6;

private:
    struct Node {
        int32_t value;
        int32_t child[2];  // child[0] < 0 in a leaf
    };

    // Encoder helpers.
    bool buildTable(const int32_t* symbols, uint64_t count, int32_t lo, int32_t hi);
    // The code tree of the table as it stands, built alike on both sides: the encoder takes
    // each entry's code and length from it, the decoder its nodes and look-up tables.
    bool buildCodeTree(bool forEncoder);
    void writeFlat(const int32_t* symbols, uint64_t count, int32_t lo, int width);
    // 1: written; 0: given up at `limit` bytes; -1: out of memory.
    int writeTable(const int32_t* symbols, uint64_t count, int32_t lo, int width, uint64_t limit);
    uint32_t entryOf(int32_t symbol) const;

    // Decoder helpers.
    bool readTableAndTree();
    bool buildLookup();
    void refill();
    void refillSlow();
    uint64_t takeBits(int n);
    uint64_t readField(int n);
    int32_t walkFrom(int32_t node);
    int32_t resolveLong(uint64_t entry);
    template <bool Flat>
    bool expandForm(int32_t* out, uint64_t n, RunState& state);

    // Encoder tables: entries sorted by descending frequency (then ascending symbol), with their
    // codes, and a map from symbols to entries: a dense window of counts (then entry numbers)
    // below the largest symbol, and a sorted list of the few symbols under the window.
    struct Entry {
        uint64_t frequency;
        int32_t symbol;
        uint32_t unused;
    };
    iArray<Entry, long long> mEntries;
    iArray<uint64_t, long long> mEntryCode;
    iArray<uint8_t, long long> mEntryLength;
    iArray<uint32_t, long long> mWindow;
    int32_t mWindowLow = 0;
    iArray<int32_t, long long> mOutside;
    iArray<uint32_t, long long> mOutsideEntry;

    // Decoder state: the bit reader, the form, the tree and its look-up table.
    const uint8_t* mData = nullptr;
    uint64_t mSize = 0;
    uint64_t mPos = 0;
    uint64_t mPadBytes = 0;
    uint64_t mBuf = 0;
    int mBits = 0;
    bool mFlat = true;
    int mWidth = 0;
    int32_t mBase = 0;
    iArray<Node, long long> mNodes;
    iArray<uint64_t, long long> mPrefix;  // prefix sums of the table's frequencies
    // A part of the table still to split: entries [first, first + n) of frequency `total`,
    // the code so far and, for the decoder, the node it becomes.
    struct TreePart {
        uint64_t first, n, total, code;
        int32_t node, depth;
    };
    iArray<TreePart, long long> mParts;
    iArray<int32_t, long long> mTableSymbols;
    iArray<uint64_t, long long> mLookup;
    iArray<uint16_t, long long> mHeights;
    int mLookupBits = 0;
};

/// Expands `count` run-collapsed values with `base` added to each stored value, as a single
/// stream's decoder does. @return false as `SymbolCoder::expand`.
bool DecodeAndExpand(SymbolCoder& coder, int32_t* out, int64_t count, int32_t base);

}  // namespace vaporix
