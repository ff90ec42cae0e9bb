// The .vxg reader (all four generations) and the version 4 writer.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cache/ParticleJobs.h"
#include "cache/VaporixFrameData.h"
#include "cache/limits.h"
#include "foundation/FramePattern.h"
#include "foundation/log.h"
#include "foundation/sys/FileAccess.h"

namespace vaporix {

namespace {

constexpr char FILE_MAGIC[4] = {'V', 'X', 'G', 'R'};
constexpr char END_MAGIC[8] = {'V', 'X', 'G', 'R', '2', 'V', 'P', 'X'};

/// Format generations, told apart by the trailer.
constexpr int32_t VXG_VERSION_SUMMARY_ONLY = 2;  // versions 1 and 2: summary chunk, then tags
constexpr int32_t VXG_VERSION_CHUNKS32 = 3;      // chunks with 32-bit sizes
constexpr int32_t VXG_VERSION_CURRENT = 4;       // chunks with 64-bit sizes

enum : int32_t {
    TAG_END = 0,
    TAG_MASK = 1,
    TAG_TRANSFORM = 2,
    TAG_GRID = 3,
    TAG_FRAME = 4,
    TAG_TIME_STEP = 5,
    TAG_AUX1 = 6,
    TAG_RAW_PARTICLES = 7,
    TAG_SIM_TIME_INT = 8,
    TAG_SIM_INT = 9,
    TAG_SIM_TIMES = 10,
    TAG_AUX_ALL = 11,
    TAG_SIM_RECORD = 12,
    TAG_MARKER = 13,  // also the coded particle section of the oldest files
};

enum : int32_t {
    CHUNK_SUMMARY = 1000,
    CHUNK_COMMENT = 1001,
    CHUNK_PARTICLES = 1002,
    CHUNK_END = 9999999,
};

/// Written behind the summary chunk and not counted in its size.
constexpr int32_t SUMMARY_FILLER = 100000;
/// Writes go out in pieces of this size.
constexpr size_t WRITE_PIECE = 1048576;

thread_local uint64_t tBytesRead = 0;

/// Thrown by the read helpers after they logged the place of the failure.
struct IOErrException {};

/// Reads from an open file with every size checked against what is left of it.
class VxgReader {
public:
    explicit VxgReader(FILE* file) : mFile(file) {}
    ~VxgReader() {
        if (mFile) sys::closeStream(mFile);
    }

    void close() {
        if (mFile) sys::closeStream(mFile);
        mFile = nullptr;
    }

    /// Finds the length by seeking to the end.
    void measure() {
        if (fseeko(mFile, 0, SEEK_END) != 0) fail("Failed to seek to EOF!\n");
        const off_t end = ftello(mFile);
        if (end < 0) fail("Failed to seek to EOF!\n");
        mLength = static_cast<uint64_t>(end);
        mPos = mLength;
    }

    uint64_t length() const { return mLength; }
    uint64_t position() const { return mPos; }
    uint64_t remaining() const { return mPos <= mLength ? mLength - mPos : 0; }

    void seek(int64_t pos, const char* message) {
        if (pos < 0 || static_cast<uint64_t>(pos) > mLength ||
            fseeko(mFile, static_cast<off_t>(pos), SEEK_SET) != 0)
            fail(message);
        mPos = static_cast<uint64_t>(pos);
    }

    /// Steps over `n` bytes, which must lie inside the file.
    void skip(uint64_t n, const char* trace) {
        if (n > remaining()) fail(trace);
        seek(static_cast<int64_t>(mPos + n), trace);
    }

    void read(void* dst, uint64_t n, const char* trace) {
        if (n > remaining()) fail(trace);
        if (n && std::fread(dst, 1, n, mFile) != n) fail(trace);
        mPos += n;
        tBytesRead += n;
    }

    template <typename T>
    T get(const char* trace) {
        T v;
        read(&v, sizeof v, trace);
        return v;
    }

    /// A length of `unit`-byte elements, read under `trace`. A negative one fails there; one
    /// that reaches beyond the file fails with `bodyTrace`, the place where reading its body
    /// would have stopped, before anything is allocated for it.
    uint64_t length32(const char* trace, const char* bodyTrace, uint64_t unit = 1) {
        const int32_t n = get<int32_t>(trace);
        if (n < 0) fail(trace);
        if (static_cast<uint64_t>(n) > remaining() / unit) fail(bodyTrace);
        return static_cast<uint64_t>(n);
    }

    iString string(const char* trace) {
        const uint64_t n = length32(trace, trace);
        iString s(n, '\0');
        read(s.data(), n, trace);
        return s;
    }

    [[noreturn]] void fail(const char* trace) {
        if (trace) lumoLog("%s", trace);
        throw IOErrException{};
    }

private:
    FILE* mFile;
    uint64_t mLength = 0;
    uint64_t mPos = 0;
};

FILE* openWithRetry(const char* path, bool noRetry) {
    // errno 22 comes from files that another process is still writing: wait and try again.
    const int attempts = noRetry ? 1 : 30;
    for (int i = 0; i < attempts; ++i) {
        FILE* f = sys::openStream(path, "rb");
        if (f) {
            struct stat st;
            if (::stat(path, &st) == 0 && S_ISREG(st.st_mode)) return f;
            sys::closeStream(f);
            return nullptr;
        }
        if (errno != EINVAL) return nullptr;
        if (i + 1 < attempts) sys::pauseBeforeRetry(200);
    }
    return nullptr;
}

}  // namespace

uint64_t lastImportBytesRead() { return tBytesRead; }

// ---------------------------------------------------------------------------------------------
// Reading

namespace {

/// Fewest bytes one group takes in the summary, in the particle chunk and in an old section.
constexpr uint64_t SUMMARY_GROUP_MIN_BYTES = 4 + 4 + 4 + 4;
constexpr uint64_t PARTICLE_GROUP_MIN_BYTES = 4 + 4 + 4 + 8 + 4;
constexpr uint64_t OLD_GROUP_MIN_BYTES = 4 + 4 + 32 * 4 + 4;

/// Reading state shared by the steps of one ImportVxg.
struct ReadState {
    VaporixFrameData& frame;
    VxgReader& in;
    bool headerOnly;
    bool dropCompressed;
    bool summaryRead = false;
    bool sectionRead = false;
};

/// Reads a group count and empties the group list for it. The count is not trusted: groups
/// are added one at a time as their fields are read, so a count beyond the file fails at the
/// field where the file ends. Room is made up front only for as many groups as the rest of the
/// file can hold at `minBytes` each, so that a good file's groups are never moved.
int32_t readGroupCount(VxgReader& in,
                       VaporixFrameData& frame,
                       const char* trace,
                       uint64_t minBytes) {
    const int32_t n = in.get<int32_t>(trace);
    if (n < 0) in.fail(trace);
    frame.groups.free();
    const uint64_t room = std::min<uint64_t>(static_cast<uint64_t>(n), in.remaining() / minBytes);
    if (room > 0 && !frame.groups.reserveExact(static_cast<int>(room))) in.fail(nullptr);
    return n;
}

PGroup& nextGroup(VxgReader& in, VaporixFrameData& frame) {
    if (!frame.groups.resize(frame.groups.count + 1)) in.fail(nullptr);
    PGroup& grp = frame.groups.last();
    grp.frame = &frame;
    return grp;
}

void readSummaryChunk(ReadState& st) {
    VxgReader& in = st.in;
    const char* trace = "Failed reading chunk size!\n";
    const int32_t n = readGroupCount(in, st.frame, trace, SUMMARY_GROUP_MIN_BYTES);
    for (int32_t g = 0; g < n; ++g) {
        PGroup& grp = nextGroup(in, st.frame);
        grp.name = in.string(trace);
        grp.count = in.get<int32_t>(trace);
        grp.channelBits = in.get<uint32_t>(trace);
        grp.flags = in.get<int32_t>(trace);
        if (grp.count < 0) in.fail(trace);
    }
    in.read(st.frame.particleBox, sizeof st.frame.particleBox, trace);
    st.summaryRead = true;
}

void readParticleChunk(ReadState& st) {
    VxgReader& in = st.in;
    const char* trace = "Failed reading chunk size!\n";
    const char* dataTrace = "Failed to load compressed particle data!\n";
    VaporixFrameData& frame = st.frame;
    const int32_t n = readGroupCount(in, frame, trace, PARTICLE_GROUP_MIN_BYTES);
    for (int32_t g = 0; g < n; ++g) {
        PGroup& grp = nextGroup(in, frame);
        grp.channelBits = 0;
        grp.name = in.string(trace);
        grp.flags = in.get<int32_t>(trace);
        grp.count = in.get<int32_t>(trace);
        in.read(grp.reserved8, 8, trace);
        if (grp.count < 0) in.fail(trace);
        const int32_t m = in.get<int32_t>(trace);
        for (int32_t k = 0; k < m; ++k) {
            const int32_t ordinal = in.get<int32_t>(trace);
            const int32_t kind = in.get<int32_t>(trace);
            const uint64_t bytes = in.length32(dataTrace, dataTrace);
            if (ordinal < 0 || ordinal >= PRT_CHANNELS) {
                // An ordinal this reader can't hold: step over its bytes.
                in.skip(bytes, dataTrace);
                continue;
            }
            ChannelData& cd = grp.channelData[ordinal];
            cd.kind = kind;
            cd.expanded.free();
            if (!cd.compressed.resize(static_cast<long long>(bytes), nullptr, true))
                in.fail(nullptr);
            in.read(cd.compressed.data, bytes, dataTrace);
            // A damaged channel is dropped and the frame stays valid; memory that runs out
            // makes the load fail.
            if (grp.DecompressChannel(ordinal, st.dropCompressed) < 0) in.fail(nullptr);
            if (grp.HasChannel(ordinal)) grp.channelBits |= 1u << ordinal;
            if (ordinal == PRT_ID && grp.channelData[PRT_ID].expanded.count > 0) grp.buildIdOrder();
        }
    }
}

/// The particle sections of tags 7 (raw pool) and 13 (coded pool) of the oldest files.
void readOldParticleSection(ReadState& st, bool coded) {
    VxgReader& in = st.in;
    VaporixFrameData& frame = st.frame;
    const bool load = !(st.headerOnly && (st.summaryRead || st.sectionRead));
    const char* poolTrace = coded ? "13\n" : "x91\n";
    const uint64_t poolWords = in.length32("9\n", poolTrace, 4);
    iArray<uint32_t, long long> pool;
    if (load) {
        if (!pool.resize(static_cast<long long>(poolWords), nullptr, true) && poolWords)
            in.fail(nullptr);
        in.read(pool.data, poolWords * 4, poolTrace);
    } else {
        in.skip(poolWords * 4, poolTrace);
    }
    const int32_t n = readGroupCount(in, frame, "11\n", OLD_GROUP_MIN_BYTES);
    for (int32_t g = 0; g < n; ++g) {
        PGroup& grp = nextGroup(in, frame);
        grp.name = in.string("11\n");
        grp.count = in.get<int32_t>("12\n");
        if (grp.count < 0) in.fail("12\n");
        uint32_t table[PRT_CHANNELS];
        in.read(table, sizeof table, "13\n");
        grp.channelBits = 0;
        for (int c = 0; c < PRT_CHANNELS && load; ++c) {
            const int comps = prtComponentCount(c);
            if (table[c] == 0xFFFFFFFFu || comps == 0) continue;
            const uint64_t values = static_cast<uint64_t>(grp.count) * comps;
            if (table[c] >= poolWords) continue;
            ChannelData& cd = grp.channelData[c];
            if (!coded) {
                // Raw pool: the interleaved values stand as they are.
                if (values > poolWords - table[c]) continue;
                cd.kind = PRT_KIND_RAW;
                if (!cd.expanded.resize(static_cast<long long>(values * 4), nullptr, true) &&
                    values)
                    in.fail(nullptr);
                if (values) std::memcpy(cd.expanded.data, pool.data + table[c], values * 4);
            } else {
                // A coded stream per channel, component after component, up to the pool's end.
                cd.kind = PRT_KIND_SG_COMPONENTS;
                const uint64_t bytes = (poolWords - table[c]) * 4;
                if (!cd.compressed.resize(static_cast<long long>(bytes), nullptr, true))
                    in.fail(nullptr);
                std::memcpy(cd.compressed.data, pool.data + table[c], bytes);
                if (grp.DecompressChannel(c, true) < 0) in.fail(nullptr);
            }
            if (grp.HasChannel(c)) grp.channelBits |= 1u << c;
        }
        if (load && !st.summaryRead) {
            // No summary: check the particles and build the box from them. The old reader ran
            // this once for every group of the frame over the same group; each round gives the
            // same box, so one pass and one line per group keep the result without making the
            // work grow with the square of a count that the file chooses. Only positions that
            // were read for every particle are scanned: the count alone never drives the pass.
            const ChannelData& pos = grp.channelData[PRT_POSITION];
            const uint64_t positionBytes =
                static_cast<uint64_t>(grp.count) * prtComponentCount(PRT_POSITION) * 4;
            if (grp.count > 0 && static_cast<uint64_t>(pos.expanded.count) >= positionBytes) {
                MTComputeParticlesBbox& job = MTComputeParticlesBbox::instance();
                std::lock_guard<std::mutex> lock(job.lock());
                float box[6];
                const int bad = job.compute(grp, box);
                for (int a = 0; a < 3; ++a) {
                    frame.particleBox[a] = std::min(frame.particleBox[a], box[a]);
                    frame.particleBox[a + 3] = std::max(frame.particleBox[a + 3], box[a + 3]);
                }
                if (bad)
                    lumoLog("#bad particles found in group %s, count:%d\n", grp.name.c_str(), bad);
            }
        }
        for (;;) {
            const int32_t sub = in.get<int32_t>("14\n");
            if (sub == 0) break;
            if (sub == 1) {
                grp.flags = in.get<int32_t>("15\n");
            } else if (sub == 2) {
                const uint64_t bytes = in.length32("16\n", load ? "x161\n" : "x162\n");
                if (load) {
                    iArray<uint8_t, long long> ids;
                    if (!ids.resize(static_cast<long long>(bytes), nullptr, true) && bytes)
                        in.fail(nullptr);
                    in.read(ids.data, bytes, "x161\n");
                    // A damaged ID stream leaves the group without IDs; the file stays good.
                    grp.expandIdDifferences(ids.data, bytes);
                    if (grp.HasChannel(PRT_ID)) grp.channelBits |= 1u << PRT_ID;
                } else {
                    in.skip(bytes, "x162\n");
                }
            } else if (sub == 3) {
                in.read(grp.reserved8, 8, "18\n");
            } else {
                in.fail("19\n");
            }
        }
    }
    st.sectionRead = true;
}

}  // namespace

int VaporixFrameData::ImportVxg(const char* path,
                                bool noRetry,
                                bool headerOnly,
                                bool dropCompressed) {
    tBytesRead = 0;
    // Step 1: header reset.
    resetHeader(headerOnly);
    comprDataSzInts = 0;
    internal::arrayRelease(comprData);
    comprData = nullptr;
    frameNumber = 0;
    if (!path || !*path) return LOAD_NO_FILE;

    FILE* file = openWithRetry(path, noRetry);
    if (!file) return LOAD_NO_FILE;
    VxgReader in(file);
    ReadState st{*this, in, headerOnly, dropCompressed};

    try {
        // Trailer: the newer generations identify themselves from the file's end.
        in.measure();
        if (in.length() < 8) in.fail("Failed while seeking to vxgr2 magic!\n");
        in.seek(static_cast<int64_t>(in.length() - 8), "Failed while seeking to vxgr2 magic!\n");
        char endMagic[8];
        in.read(endMagic, 8, "Failed reading vxgr2 magic!\n");
        if (std::memcmp(endMagic, END_MAGIC, 8) == 0) {
            if (in.length() < 12) in.fail("Failed to seek to vxgr2 version!\n");
            in.seek(static_cast<int64_t>(in.length() - 12), "Failed to seek to vxgr2 version!\n");
            const int32_t version = in.get<int32_t>("Failed reading vxgr2 version!\n");
            int64_t markerOffset;
            if (version >= VXG_VERSION_CURRENT) {
                if (in.length() < 20) in.fail("Failed seeking to marker chunk!\n");
                in.seek(static_cast<int64_t>(in.length() - 20),
                        "Failed seeking to marker chunk!\n");
                const uint64_t off = in.get<uint64_t>("Failed reading vxgr2 data offset!\n");
                if (off > in.length()) in.fail("Failed seeking to marker chunk!\n");
                markerOffset = static_cast<int64_t>(off);
            } else {
                if (in.length() < 16) in.fail("Failed seeking to marker chunk!\n");
                in.seek(static_cast<int64_t>(in.length() - 16),
                        "Failed seeking to marker chunk!\n");
                markerOffset = in.get<int32_t>("Failed reading vxgr2 data offset!\n");
                if (markerOffset < 0) return LOAD_NO_FILE;
            }
            // Chunk loop, behind the marker tag.
            in.seek(markerOffset + 4, "Failed seeking to marker chunk!\n");
            const bool wideSizes = version > VXG_VERSION_CHUNKS32;
            for (;;) {
                const int32_t id = in.get<int32_t>("Failed reading chunk id!\n");
                if (id == CHUNK_END) break;
                uint64_t size;
                if (wideSizes) {
                    size = in.get<uint64_t>("Failed reading chunk size!\n");
                } else {
                    const int32_t s = in.get<int32_t>("Failed reading chunk size!\n");
                    if (s < 0) in.fail("Failed reading chunk size!\n");
                    size = static_cast<uint64_t>(s);
                }
                if (size > in.remaining()) in.fail("Failed reading chunk size!\n");
                const uint64_t bodyEnd = in.position() + size;
                if (id == CHUNK_SUMMARY) {
                    readSummaryChunk(st);
                    in.seek(static_cast<int64_t>(bodyEnd), "Failed reading chunk id!\n");
                    in.get<int32_t>("Failed reading chunk id!\n");  // the filler
                    if (version <= VXG_VERSION_SUMMARY_ONLY) break;
                } else if (id == CHUNK_COMMENT) {
                    comment = in.string("Failed reading chunk size!\n");
                    in.seek(static_cast<int64_t>(bodyEnd), "Failed reading chunk id!\n");
                } else if (id == CHUNK_PARTICLES && !headerOnly) {
                    readParticleChunk(st);
                    in.seek(static_cast<int64_t>(bodyEnd), "Failed reading chunk id!\n");
                } else {
                    in.skip(size, "Failed reading chunk size!\n");
                }
            }
        }

        // Tag section from the file's start.
        in.seek(0, "no hdr\n");
        char magic[4] = {};
        if (in.remaining() < 4) in.fail("no hdr\n");
        in.read(magic, 4, "no hdr\n");
        if (std::memcmp(magic, FILE_MAGIC, 4) != 0) in.fail("no hdr\n");

        for (bool more = true; more;) {
            const int32_t tag = in.get<int32_t>("0\n");
            switch (tag) {
                case TAG_MASK:
                    channelMask = in.get<uint32_t>("1\n");
                    if (channelMask & 0x80000000u) frameFlags |= FRAME_MASK_TOP_BIT;
                    break;
                case TAG_TRANSFORM:
                    in.read(gridTransform.m, 48, "2\n");
                    break;
                case TAG_GRID: {
                    int32_t size[3];
                    in.read(size, sizeof size, "3\n");
                    const int32_t words = in.get<int32_t>("4\n");
                    if (words < 0) {
                        lumoLog("VaporixFrameData::ImportVxg bad comprDataSzInts!");
                        in.fail(nullptr);
                    }
                    if (!gridSizeAcceptable(size)) in.fail("3\n");
                    for (int a = 0; a < 3; ++a) gridSize[a] = size[a];
                    if (headerOnly) {
                        in.skip(static_cast<uint64_t>(words) * 4, "x41\n");
                    } else {
                        if (static_cast<uint64_t>(words) > in.remaining() / 4) in.fail("x41\n");
                        internal::arrayRelease(comprData);
                        comprData = nullptr;
                        comprDataSzInts = 0;
                        if (words > 0) {
                            comprData = static_cast<int32_t*>(
                                internal::arrayAllocate(static_cast<size_t>(words) * 4));
                            if (!comprData) in.fail(nullptr);
                            in.read(comprData, static_cast<uint64_t>(words) * 4, "x41\n");
                        }
                        comprDataSzInts = words;
                    }
                    break;
                }
                case TAG_FRAME:
                    frameNumber = in.get<int32_t>("4\n");
                    break;
                case TAG_TIME_STEP:
                    timeStep = in.get<float>("7\n");
                    break;
                case TAG_AUX1:
                    in.read(auxTransform1.m, 48, "6\n");
                    break;
                case TAG_RAW_PARTICLES:
                    readOldParticleSection(st, false);
                    break;
                case TAG_SIM_TIME_INT:
                    setSimTime(static_cast<double>(in.get<int32_t>("20\n")));
                    break;
                case TAG_SIM_INT:
                    setSimInt(in.get<int32_t>("21\n"));
                    simFloat = in.get<float>("22\n");
                    break;
                case TAG_SIM_TIMES:
                    setSimTime(in.get<double>("24\n"));
                    setSimTime2(in.get<double>("25\n"));
                    break;
                case TAG_AUX_ALL:
                    in.read(auxTransform1.m, 48, "11\n");
                    in.read(auxTransform2.m, 48, "11\n");
                    in.read(auxTransform3.m, 48, "11\n");
                    in.read(simRecord + SIM_BLOCK8_OFFSET, 8, "x111\n");
                    break;
                case TAG_SIM_RECORD: {
                    const int32_t n = in.get<int32_t>("12\n");
                    if (n < 0) in.fail("12\n");
                    const uint64_t kept =
                        std::min<uint64_t>(static_cast<uint64_t>(n), SIM_RECORD_SIZE);
                    in.read(simRecord, kept, "12\n");
                    if (static_cast<uint64_t>(n) > kept) in.skip(n - kept, "x121\n");
                    break;
                }
                case TAG_MARKER:
                    readOldParticleSection(st, true);
                    break;
                default:
                    // Tag 0, and any tag this reader does not know, ends the section.
                    more = false;
                    break;
            }
        }
        in.close();
        if (headerOnly) {
            internal::arrayRelease(comprData);
            comprData = static_cast<int32_t*>(internal::arrayAllocate(4));
            if (!comprData) throw IOErrException{};
            comprData[0] = 0;
            comprDataSzInts = 1;
        }
        return LOAD_OK;
    } catch (const IOErrException&) {
    } catch (const std::bad_alloc&) {
    }
    lumoLog("VaporixFrameData::ImportVxg broken or bad memory allocation. File is: %s\n", path);
    internal::arrayRelease(comprData);
    comprData = nullptr;
    comprDataSzInts = 0;
    return LOAD_BROKEN;
}

// ---------------------------------------------------------------------------------------------
// Writing

namespace {

/// Writes to a temporary file beside the target and renames it into place on commit, so that a
/// failed write never replaces a good file.
class VxgWriter {
public:
    bool open(const std::string& path) {
        mTarget = path;
        mTemp = path + ".tmp" + std::to_string(getpid());
        mFile = sys::openStream(mTemp, "wb");
        // A buffer of one piece: the file goes to the system in pieces of exactly 1 MiB.
        if (mFile) {
            mBuffer.resize(WRITE_PIECE);
            std::setvbuf(mFile, mBuffer.data(), _IOFBF, WRITE_PIECE);
        }
        return mFile != nullptr;
    }
    ~VxgWriter() {
        if (mFile) {
            sys::closeStream(mFile);
            ::unlink(mTemp.c_str());
        }
    }

    void write(const void* data, uint64_t n) {
        const auto* p = static_cast<const uint8_t*>(data);
        while (n > 0 && mOk) {
            const size_t piece = n > WRITE_PIECE ? WRITE_PIECE : static_cast<size_t>(n);
            if (std::fwrite(p, 1, piece, mFile) != piece) mOk = false;
            p += piece;
            n -= piece;
        }
    }
    template <typename T>
    void put(const T& v) {
        write(&v, sizeof v);
    }
    void putString(const std::string& s) {
        put(static_cast<int32_t>(s.size()));
        write(s.data(), s.size());
    }
    int64_t tell() {
        const off_t p = ftello(mFile);
        if (p < 0) mOk = false;
        return p;
    }
    void seek(int64_t pos) {
        if (fseeko(mFile, static_cast<off_t>(pos), SEEK_SET) != 0) mOk = false;
    }
    void seekEnd() {
        if (fseeko(mFile, 0, SEEK_END) != 0) mOk = false;
    }

    /// A chunk: id and a size placeholder now, the size patched in by closeChunk.
    int64_t openChunk(int32_t id) {
        put(id);
        const int64_t at = tell();
        put(uint64_t(0));
        return at;
    }
    void closeChunk(int64_t at) {
        const uint64_t size = static_cast<uint64_t>(tell() - at - 8);
        seek(at);
        put(size);
        seekEnd();
    }

    bool commit() {
        if (!mOk) return false;
        // A write that failed inside the stream's buffer shows only in its error flag.
        if (std::ferror(mFile) || !sys::syncStream(mFile)) mOk = false;
        if (!sys::closeStream(mFile)) mOk = false;
        mFile = nullptr;
        if (mOk && !sys::renamePath(mTemp, mTarget)) mOk = false;
        if (!mOk) ::unlink(mTemp.c_str());
        return mOk;
    }

private:
    std::vector<char> mBuffer;  // declared before the stream, so it outlives it
    FILE* mFile = nullptr;
    std::string mTarget, mTemp;
    bool mOk = true;
};

}  // namespace

int VaporixFrameData::WriteVxg(const char* path, uint32_t mask) {
    if (!path || !*path) return SAVE_FAILED;
    VxgWriter out;
    if (!out.open(path)) {
        if (!createDirectories(path) || !out.open(path)) return SAVE_FAILED;
    }

    // Tag section.
    out.write(FILE_MAGIC, 4);
    out.put(int32_t(TAG_MASK));
    out.put(mask);
    out.put(int32_t(TAG_TRANSFORM));
    out.write(gridTransform.m, 48);
    out.put(int32_t(TAG_GRID));
    out.write(gridSize, 12);
    out.put(comprDataSzInts);
    if (comprDataSzInts > 0) out.write(comprData, static_cast<uint64_t>(comprDataSzInts) * 4);
    out.put(int32_t(TAG_FRAME));
    out.put(frameNumber);
    out.put(int32_t(TAG_TIME_STEP));
    out.put(timeStep);
    out.put(int32_t(TAG_SIM_INT));
    out.put(simInt());
    out.put(simFloat);
    out.put(int32_t(TAG_SIM_TIMES));
    out.put(simTime());
    out.put(simTime2());
    out.put(int32_t(TAG_AUX_ALL));
    out.write(auxTransform1.m, 48);
    out.write(auxTransform2.m, 48);
    out.write(auxTransform3.m, 48);
    out.write(simRecord + SIM_BLOCK8_OFFSET, 8);
    out.put(int32_t(TAG_SIM_RECORD));
    out.put(int32_t(SIM_RECORD_SIZE));
    out.write(simRecord, SIM_RECORD_SIZE);
    out.put(int32_t(TAG_END));
    const int64_t markerOffset = out.tell();
    out.put(int32_t(TAG_MARKER));

    // Group summary, so that header reads know the groups without their data.
    int64_t chunk = out.openChunk(CHUNK_SUMMARY);
    out.put(static_cast<int32_t>(groups.count));
    for (auto& g : groups) {
        uint32_t bits = 0;
        for (int c = 0; c < PRT_CHANNELS; ++c)
            if (g.HasChannel(c)) bits |= 1u << c;
        if (g.flags == PGROUP_GRID_VELOCITY && (mask & 112u)) bits |= 1u << PRT_VELOCITY;
        out.putString(g.name);
        out.put(g.count);
        out.put(bits);
        out.put(g.flags);
    }
    out.write(particleBox, sizeof particleBox);
    out.closeChunk(chunk);
    out.put(SUMMARY_FILLER);

    chunk = out.openChunk(CHUNK_COMMENT);
    out.putString(comment);
    out.closeChunk(chunk);

    if (groups.count > 0) {
        chunk = out.openChunk(CHUNK_PARTICLES);
        out.put(static_cast<int32_t>(groups.count));
        for (auto& g : groups) {
            out.putString(g.name);
            out.put(g.flags);
            out.put(g.count);
            out.write(g.reserved8, 8);
            const int64_t countAt = out.tell();
            out.put(int32_t(0));
            int32_t written = 0;
            for (int c = 0; c < PRT_CHANNELS; ++c) {
                const ChannelData& cd = g.channelData[c];
                if (cd.compressed.count == 0 && cd.expanded.count == 0) continue;
                // Only the compressed bytes are stored: expanded-only channels get size 0.
                out.put(int32_t(c));
                out.put(cd.kind);
                out.put(static_cast<int32_t>(cd.compressed.count));
                out.write(cd.compressed.data, static_cast<uint64_t>(cd.compressed.count));
                ++written;
            }
            out.seek(countAt);
            out.put(written);
            out.seekEnd();
        }
        out.closeChunk(chunk);
    }

    // Trailer.
    out.put(int32_t(CHUNK_END));
    out.put(static_cast<uint64_t>(markerOffset));
    out.put(int32_t(VXG_VERSION_CURRENT));
    out.write(END_MAGIC, 8);
    return out.commit() ? LOAD_OK : SAVE_FAILED;
}

int VaporixFrameData::SaveFrame(const char* pattern, uint32_t mask) {
    if (!pattern) return SAVE_FAILED;
    const std::string name = expandFramePattern(toNativeSeparators(pattern), frameNumber);
    lumoLog("save frame %d\n", frameNumber);
    int status = SAVE_FAILED;
    for (int attempt = 0; attempt < 6 && status != LOAD_OK; ++attempt)
        status = WriteVxg(name.c_str(), mask);
    return status;
}

}  // namespace vaporix

namespace vaporix {

int vxgFileVersion(const char* path) {
    FILE* f = path ? sys::openStream(path, "rb") : nullptr;
    if (!f) return -1;
    int version = -1;
    char tail[12];
    if (fseeko(f, 0, SEEK_END) == 0 && ftello(f) >= 12 && fseeko(f, -12, SEEK_END) == 0 &&
        std::fread(tail, 1, 12, f) == 12) {
        if (std::memcmp(tail + 4, END_MAGIC, 8) == 0)
            std::memcpy(&version, tail, 4);
        else
            version = 0;
    } else {
        version = 0;
    }
    sys::closeStream(f);
    return version;
}

}  // namespace vaporix
