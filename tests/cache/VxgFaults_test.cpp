// The .vxg reader and writer under injected file faults: the open's retries and pauses, reads
// and seeks that fail at every place, writes that fail at every call, pieces of 1 MiB, and
// never a half-written file under the final name.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "FaultPlan.h"
#include "Fixtures.h"
#include "TestSupport.h"
#include "cache/VaporixFrameData.h"
#include "foundation/sys/Files.h"

using namespace vaporix;
using sys::FileOp;
using test::FaultPlan;
using test::LogRecorder;
using test::TempDir;

namespace {

const int STORAGE_ERRORS[] = {EIO, ENOSPC, EACCES, EROFS};

std::string brokenLine(const std::string& path) {
    return "VaporixFrameData::ImportVxg broken or bad memory allocation. File is: " + path + "\n";
}

std::vector<std::string> folderNames(const std::string& folder) {
    std::vector<sys::FolderEntry> entries;
    sys::listFolder(folder, entries);
    std::vector<std::string> out;
    for (const auto& e : entries) out.push_back(e.name);
    return out;
}

// Everything a full read gives, to compare two reads.
struct Snapshot {
    int status = -1;
    std::vector<uint8_t> compressed;
    std::vector<std::string> groups;
    std::vector<int> counts;
    bool operator==(const Snapshot&) const = default;
};

Snapshot load(const std::string& path, bool headerOnly = false, bool noRetry = true) {
    VaporixFrameData f;
    Snapshot s;
    s.status = f.ImportVxg(path.c_str(), noRetry, headerOnly, false);
    if (f.comprData)
        s.compressed.assign(reinterpret_cast<const uint8_t*>(f.comprData),
                            reinterpret_cast<const uint8_t*>(f.comprData) +
                                size_t(f.comprDataSzInts) * 4);
    for (int g = 0; g < f.groups.count; ++g) {
        s.groups.push_back(f.groups.data[g].name);
        s.counts.push_back(f.groups.data[g].count);
    }
    return s;
}

// A frame whose grid data is a raw stream of `cells` floats: big enough for several pieces.
void makeBigFrame(VaporixFrameData& f, int cells) {
    f.gridSize[0] = cells;
    f.gridSize[1] = f.gridSize[2] = 1;
    std::vector<uint8_t> raw = {0x01, 0xFC, 0};
    for (int k = 0; k < 4; ++k) raw.push_back(static_cast<uint8_t>(cells >> (8 * k)));
    for (int i = 0; i < cells; ++i) {
        const float v = static_cast<float>(i % 977);
        const auto* b = reinterpret_cast<const uint8_t*>(&v);
        raw.insert(raw.end(), b, b + 4);
    }
    ASSERT_TRUE(f.appendStreamBlock(1, raw.data(), raw.size()));
    f.channelMask |= 2;
}

}  // namespace

TEST(VxgFaults, OpenRetriesOnlyErrno22WithPausesOf200ms) {
    const std::string path = test::testDataPath("gen4_writer.vxg");
    {
        // Always 22: 30 attempts, 29 pauses between them, no file.
        FaultPlan plan;
        plan.failAll(FileOp::Open, EINVAL);
        EXPECT_EQ(load(path, false, false).status, 3);
        EXPECT_EQ(plan.calls(FileOp::Open), 30);
        EXPECT_EQ(plan.pauses(), std::vector<int>(29, 200));
    }
    const Snapshot clean = load(path);
    ASSERT_EQ(clean.status, 0);
    {
        // Three times 22, then the file: it loads after three pauses.
        FaultPlan plan;
        plan.fail(FileOp::Open, 1, EINVAL, "", 3);
        EXPECT_EQ(load(path, false, false), clean);
        EXPECT_EQ(plan.calls(FileOp::Open), 4);
        EXPECT_EQ(plan.pauses(), std::vector<int>(3, 200));
    }
    {
        // Without retries: one attempt.
        FaultPlan plan;
        plan.failAll(FileOp::Open, EINVAL);
        EXPECT_EQ(load(path, false, true).status, 3);
        EXPECT_EQ(plan.calls(FileOp::Open), 1);
        EXPECT_TRUE(plan.pauses().empty());
    }
    for (int err : STORAGE_ERRORS) {
        // Any other failure ends the attempts at once.
        FaultPlan plan;
        plan.failAll(FileOp::Open, err);
        LogRecorder log;
        EXPECT_EQ(load(path, false, false).status, 3);
        EXPECT_EQ(plan.calls(FileOp::Open), 1);
        EXPECT_TRUE(plan.pauses().empty());
        EXPECT_EQ(log.text(), "");
    }
    {
        // An interrupted open is simply made again.
        FaultPlan plan;
        plan.fail(FileOp::Open, 1, EINTR);
        EXPECT_EQ(load(path, false, true), clean);
        EXPECT_TRUE(plan.pauses().empty());
    }
}

TEST(VxgFaults, EveryFailedReadOrSeekIsABrokenFile) {
    for (const std::string& name : test::fixtureNames()) {
        const std::string path = test::testDataPath(name);
        for (bool headerOnly : {false, true}) {
            const Snapshot clean = load(path, headerOnly);
            ASSERT_EQ(clean.status, 0) << name;
            int reads, seeks;
            {
                FaultPlan count;
                load(path, headerOnly);
                reads = count.calls(FileOp::Read);
                seeks = count.calls(FileOp::Seek);
            }
            ASSERT_GT(reads, 0);
            for (FileOp op : {FileOp::Read, FileOp::Seek})
                for (int nth = 1; nth <= (op == FileOp::Read ? reads : seeks); ++nth) {
                    SCOPED_TRACE(testing::Message() << name << " op " << int(op) << " call " << nth
                                                    << (headerOnly ? " header" : ""));
                    FaultPlan plan;
                    plan.fail(op, nth, EIO);
                    LogRecorder log;
                    const Snapshot s = load(path, headerOnly);
                    // A read of the end past the last byte may fail without harm; all
                    // others end the load.
                    if (s.status == 0) {
                        EXPECT_EQ(s, clean);
                    } else {
                        EXPECT_EQ(s.status, 4);
                        EXPECT_TRUE(s.compressed.empty());
                        EXPECT_TRUE(log.contains(brokenLine(path))) << log.text();
                    }
                }
            // Interruptions and reads of a few bytes at a time change nothing.
            FaultPlan plan;
            plan.shorten(FileOp::Read, 3).fail(FileOp::Read, 2, EINTR, "", 4);
            EXPECT_EQ(load(path, headerOnly), clean) << name;
        }
    }
}

TEST(VxgFaults, AFailedWriteLeavesTheOldFileWholeAndNoTemporary) {
    TempDir dir;
    VaporixFrameData frame;
    makeBigFrame(frame, 700000);  // 2.8 MB of grid data: three pieces
    const std::string target = dir.file("f_0001.vxg");
    test::writeBytes(target, {1, 2, 3, 4});
    for (FileOp op : {FileOp::Open, FileOp::Write, FileOp::Seek, FileOp::Sync, FileOp::Close,
                      FileOp::Rename})
        for (int err : STORAGE_ERRORS) {
            SCOPED_TRACE(testing::Message() << "op " << int(op) << " errno " << err);
            FaultPlan plan;
            plan.failAll(op, err);
            EXPECT_EQ(frame.WriteVxg(target.c_str(), 2), 10);
            EXPECT_EQ(test::readBytes(target), (std::vector<uint8_t>{1, 2, 3, 4}));
            EXPECT_EQ(folderNames(dir.path()), std::vector<std::string>{"f_0001.vxg"});
        }
    // One failing write at each place of the file.
    int writes;
    {
        FaultPlan count;
        ASSERT_EQ(frame.WriteVxg(dir.file("clean.vxg").c_str(), 2), 0);
        writes = count.calls(FileOp::Write);
    }
    const auto clean = test::readBytes(dir.file("clean.vxg"));
    sys::deleteFile(dir.file("clean.vxg"));
    for (int nth = 1; nth <= writes; ++nth) {
        FaultPlan plan;
        plan.fail(FileOp::Write, nth, ENOSPC);
        EXPECT_EQ(frame.WriteVxg(target.c_str(), 2), 10) << nth;
        EXPECT_EQ(test::readBytes(target), (std::vector<uint8_t>{1, 2, 3, 4}));
        EXPECT_EQ(folderNames(dir.path()), std::vector<std::string>{"f_0001.vxg"});
    }
    // A first open that fails makes the folders and tries once more.
    {
        FaultPlan plan;
        plan.fail(FileOp::Open, 1, ENOENT);
        EXPECT_EQ(frame.WriteVxg(target.c_str(), 2), 0);
        EXPECT_EQ(plan.calls(FileOp::Open), 2);
        EXPECT_EQ(test::readBytes(target), clean);
    }
}

TEST(VxgFaults, WritesGoOutInPiecesOfOneMebibyteThroughShortWrites) {
    TempDir dir;
    VaporixFrameData frame;
    makeBigFrame(frame, 700000);
    std::vector<uint8_t> clean;
    {
        FaultPlan plan;
        ASSERT_EQ(frame.WriteVxg(dir.file("a.vxg").c_str(), 2), 0);
        // 2.8 MB go to the system as two pieces of exactly 1 MiB and the rest; the sizes of
        // the chunks, patched in afterwards, are small writes of their own.
        const std::vector<size_t> sizes = plan.writeSizes();
        size_t whole = 0, total = 0;
        for (size_t s : sizes) {
            EXPECT_LE(s, 1048576u);
            whole += s == 1048576;
            total += s;
        }
        EXPECT_EQ(whole, 2u);
        clean = test::readBytes(dir.file("a.vxg"));
        EXPECT_GE(total, clean.size());
        EXPECT_LE(total, clean.size() + 64);
    }
    // Short writes and interruptions: the same bytes.
    FaultPlan plan;
    plan.shorten(FileOp::Write, 100001).fail(FileOp::Write, 3, EINTR, "", 2);
    ASSERT_EQ(frame.WriteVxg(dir.file("b.vxg").c_str(), 2), 0);
    EXPECT_EQ(test::readBytes(dir.file("b.vxg")), clean);
}

TEST(VxgFaults, SaveFrameTriesSixTimes) {
    TempDir dir;
    VaporixFrameData frame;
    makeBigFrame(frame, 1000);
    frame.frameNumber = 7;
    {
        FaultPlan plan;
        plan.failAll(FileOp::Rename, EIO);
        EXPECT_EQ(frame.SaveFrame(dir.file("s_####.vxg").c_str(), 2), 10);
        EXPECT_EQ(plan.calls(FileOp::Rename), 6);
        EXPECT_TRUE(folderNames(dir.path()).empty());
    }
    FaultPlan plan;
    plan.fail(FileOp::Rename, 1, EIO, "", 5);
    EXPECT_EQ(frame.SaveFrame(dir.file("s_####.vxg").c_str(), 2), 0);
    EXPECT_EQ(plan.calls(FileOp::Rename), 6);
    EXPECT_EQ(folderNames(dir.path()), std::vector<std::string>{"s_0007.vxg"});
}

namespace {

// Reads a file whole and touches everything in it: every grid channel, every particle value.
// Returns the status; `values` gets what was read, in order, for comparison.
int readEverything(const std::string& path, std::vector<float>& values, int& missingChannels) {
    values.clear();
    missingChannels = 0;
    VaporixFrameData f;
    const int status = f.ImportVxg(path.c_str(), true, false, false);
    if (status != 0) return status;
    for (int c = 1; c < 32; ++c) {
        if (!f.HasChannel(c)) continue;
        const float* d = f.GetChannelData(c);
        if (!d) {
            ++missingChannels;
            continue;
        }
        const int64_t cells = int64_t(f.gridSize[0]) * f.gridSize[1] * f.gridSize[2];
        values.insert(values.end(), d, d + cells);
    }
    for (int g = 0; g < f.groups.count; ++g) {
        PGroup& group = f.groups[g];
        for (int i = 0; i < group.GetCount(); ++i) {
            float v[4] = {0, 0, 0, 0};
            if (group.GetValue(i, 0, reinterpret_cast<uint8_t*>(v))) values.insert(values.end(), v, v + 3);
        }
    }
    return status;
}

}  // namespace

TEST(VxgFaults, EveryAllocationOfAReadFailingInTurn) {
    // For each file, the n-th allocation of the reader, the codec and the particles fails, for
    // every n of a clean read. The read then fails as a broken file (status 4 and its line),
    // or loads with the channel that could not be expanded missing; never anything else, and
    // nothing leaks (the sanitizer's leak check runs at exit).
    for (const std::string& name : test::fixtureNames()) {
        const std::string path = test::testDataPath(name);
        std::vector<float> clean;
        int missing = 0;
        const int64_t before = arrayAllocationCount();
        ASSERT_EQ(readEverything(path, clean, missing), 0) << name;
        ASSERT_EQ(missing, 0);
        const int64_t allocations = arrayAllocationCount() - before;
        ASSERT_GT(allocations, 0) << name;
        int broken = 0, partial = 0;
        for (int64_t n = 1; n <= allocations; ++n) {
            SCOPED_TRACE(testing::Message() << name << " allocation " << n << " of " << allocations);
            LogRecorder log;
            std::vector<float> values;
            setArrayAllocationFailure(n);
            const int status = readEverything(path, values, missing);
            setArrayAllocationFailure(0);
            if (status == 4) {
                ++broken;
                EXPECT_TRUE(log.contains(brokenLine(path))) << log.text();
            } else {
                ASSERT_EQ(status, 0);
                // A channel that could not be expanded is missing; the others are whole.
                if (values != clean) ++partial;
                EXPECT_TRUE(missing > 0 || values == clean);
            }
        }
        EXPECT_GT(broken + partial, 0) << name << ": no failed allocation made a difference";
    }
}
