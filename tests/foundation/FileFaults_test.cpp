// File access under injected faults: every call failing with the errors of real storage,
// interrupted calls and short transfers; nothing written is ever half there under its name.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "FaultPlan.h"
#include "TestSupport.h"
#include "foundation/EnumFiles.h"
#include "foundation/sys/FileAccess.h"
#include "foundation/sys/Files.h"

using namespace vaporix;
using sys::FileOp;
using test::FaultPlan;
using test::TempDir;

namespace {

const int STORAGE_ERRORS[] = {EIO, ENOSPC, EACCES, EROFS};

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return v;
}

// Every name in a folder, hidden ones included.
std::set<std::string> entryNames(const std::string& folder) {
    std::vector<sys::FolderEntry> entries;
    sys::listFolder(folder, entries);
    std::set<std::string> out;
    for (const auto& e : entries) out.insert(e.name);
    return out;
}

}  // namespace

TEST(FileAccess, InterruptionsAndShortTransfersLoseNothing) {
    TempDir dir;
    const auto data = pattern(3 * 1048576 + 17, 3);
    {
        FaultPlan plan;
        plan.shorten(FileOp::Write, 4093).fail(FileOp::Write, 2, EINTR, "", 3);
        plan.fail(FileOp::Open, 1, EINTR).fail(FileOp::Sync, 1, EINTR);
        ASSERT_TRUE(sys::writeFileAtomically(dir.file("out"), data.data(), data.size()));
        EXPECT_GT(plan.calls(FileOp::Write), 700);
    }
    EXPECT_EQ(test::readBytes(dir.file("out")), data);
    // Reading back through short reads and interruptions.
    FaultPlan plan;
    plan.shorten(FileOp::Read, 1000).fail(FileOp::Read, 5, EINTR, "", 2);
    const int fd = sys::openFile(dir.file("out"), O_RDONLY);
    ASSERT_GE(fd, 0);
    std::vector<uint8_t> back(data.size() + 10);
    EXPECT_EQ(sys::readFully(fd, back.data(), back.size()), static_cast<int64_t>(data.size()));
    back.resize(data.size());
    EXPECT_EQ(back, data);
    EXPECT_TRUE(sys::closeFile(fd));
    // The same through a stdio stream.
    FILE* f = sys::openStream(dir.file("out"), "rb");
    ASSERT_NE(f, nullptr);
    std::vector<uint8_t> viaStream(data.size());
    EXPECT_EQ(std::fread(viaStream.data(), 1, viaStream.size(), f), data.size());
    EXPECT_EQ(viaStream, data);
    EXPECT_TRUE(sys::closeStream(f));
}

TEST(FileAccess, WritesGoOutInPiecesOfOneMebibyte) {
    TempDir dir;
    const auto data = pattern(2 * 1048576 + 5000, 1);
    FaultPlan plan;
    ASSERT_TRUE(sys::writeFileAtomically(dir.file("out"), data.data(), data.size()));
    EXPECT_EQ(plan.writeSizes(), (std::vector<size_t>{1048576, 1048576, 5000}));
}

TEST(FileAccess, AFailedAtomicWriteLeavesTheOldFileOrNone) {
    TempDir dir;
    const auto old = pattern(3000, 9);
    const auto fresh = pattern(1048576 + 100, 4);
    for (FileOp op : {FileOp::Open, FileOp::Write, FileOp::Sync, FileOp::Close, FileOp::Rename})
        for (int err : STORAGE_ERRORS)
            for (int nth : {1, 2})
                for (bool existing : {true, false}) {
                    SCOPED_TRACE(testing::Message() << "op " << int(op) << " errno " << err
                                                    << " call " << nth
                                                    << (existing ? " over a file" : ""));
                    if (existing)
                        test::writeBytes(dir.file("target"), old);
                    else
                        sys::deleteFile(dir.file("target"));
                    FaultPlan plan;
                    plan.fail(op, nth, err);
                    const bool ok =
                        sys::writeFileAtomically(dir.file("target"), fresh.data(), fresh.size());
                    const int why = errno;
                    const bool reached = plan.calls(op) >= nth;
                    EXPECT_EQ(ok, !reached);
                    if (!ok) {
                        EXPECT_EQ(why, err);
                    }
                    if (ok)
                        EXPECT_EQ(test::readBytes(dir.file("target")), fresh);
                    else if (existing)
                        EXPECT_EQ(test::readBytes(dir.file("target")), old);
                    else
                        EXPECT_FALSE(sys::isFile(dir.file("target")));
                    EXPECT_EQ(entryNames(dir.path()).size(), ok || existing ? 1u : 0u)
                        << "a temporary file was left behind";
                }
}

TEST(FileAccess, OpenOfAFileThatIsNotThereIsNotRetried) {
    FaultPlan plan;
    EXPECT_LT(sys::openFile("/nonexistent/x", O_RDONLY), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(plan.calls(FileOp::Open), 1);
    EXPECT_TRUE(plan.pauses().empty());
}

TEST(Files, CopyUnderFaultsLeavesTheTargetWholeOrAsItWas) {
    TempDir dir;
    const auto source = pattern(1048576 * 2 + 33, 5);
    const auto old = pattern(100, 200);
    test::writeBytes(dir.file("src.bin"), source);
    for (FileOp op : {FileOp::Open, FileOp::Read, FileOp::Write, FileOp::Sync, FileOp::Close,
                      FileOp::Rename})
        for (int err : STORAGE_ERRORS)
            for (bool existing : {false, true}) {
                SCOPED_TRACE(testing::Message() << "op " << int(op) << " errno " << err
                                                << (existing ? " over a file" : ""));
                if (existing)
                    test::writeBytes(dir.file("dst.bin"), old);
                else
                    sys::deleteFile(dir.file("dst.bin"));
                FaultPlan plan;
                // Reads come from the kernel's copy where it can; fail them on the buffered road.
                if (op == FileOp::Read) plan.fail(FileOp::Write, 1, EXDEV);
                plan.fail(op, 1, err);
                EXPECT_FALSE(sys::copyFile(dir.file("src.bin"), dir.file("dst.bin"), true));
                EXPECT_EQ(errno, err);
                if (existing)
                    EXPECT_EQ(test::readBytes(dir.file("dst.bin")), old);
                else
                    EXPECT_FALSE(sys::isFile(dir.file("dst.bin")));
                EXPECT_EQ(test::readBytes(dir.file("src.bin")), source);
                EXPECT_EQ(entryNames(dir.path()).size(), existing ? 2u : 1u);
            }
    // Short copies and interruptions still give the whole file.
    FaultPlan plan;
    plan.shorten(FileOp::Write, 65536).fail(FileOp::Write, 3, EINTR);
    ASSERT_TRUE(sys::copyFile(dir.file("src.bin"), dir.file("dst.bin"), true));
    EXPECT_EQ(test::readBytes(dir.file("dst.bin")), source);
}

TEST(Files, CopyReadsThroughABufferWhenTheKernelCannotCopy) {
    TempDir dir;
    const auto source = pattern(1048576 + 999, 8);
    test::writeBytes(dir.file("src.bin"), source);
    FaultPlan plan;
    // The first kernel copy says "another file system": the buffered road takes over, through
    // short reads and writes.
    plan.fail(FileOp::Write, 1, EXDEV).shorten(FileOp::Read, 70000).shorten(FileOp::Write, 50000);
    ASSERT_TRUE(sys::copyFile(dir.file("src.bin"), dir.file("dst.bin"), false));
    EXPECT_EQ(test::readBytes(dir.file("dst.bin")), source);
    EXPECT_GT(plan.calls(FileOp::Read), 10);
}

TEST(Files, MoveAndDeleteUnderFaults) {
    TempDir dir;
    const auto data = pattern(5000, 1);
    test::writeBytes(dir.file("a"), data);
    for (int err : STORAGE_ERRORS) {
        FaultPlan plan;
        plan.fail(FileOp::Rename, 1, err);
        EXPECT_FALSE(sys::moveFile(dir.file("a"), dir.file("b"), false));
        EXPECT_EQ(errno, err);
        EXPECT_EQ(test::readBytes(dir.file("a")), data);
        EXPECT_FALSE(sys::isFile(dir.file("b")));
        plan.fail(FileOp::Remove, 1, err);
        EXPECT_FALSE(sys::deleteFile(dir.file("a")));
        EXPECT_EQ(errno, err);
        EXPECT_TRUE(sys::isFile(dir.file("a")));
    }
    {
        // Across file systems: a copy, then the delete of the source; when that delete fails
        // the copy goes again, so the file is in exactly one place.
        FaultPlan plan;
        plan.fail(FileOp::Rename, 1, EXDEV).fail(FileOp::Remove, 1, EACCES);
        EXPECT_FALSE(sys::moveFile(dir.file("a"), dir.file("b"), false));
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(test::readBytes(dir.file("a")), data);
        EXPECT_FALSE(sys::isFile(dir.file("b")));
    }
    FaultPlan plan;
    plan.fail(FileOp::Rename, 1, EXDEV);
    EXPECT_TRUE(sys::moveFile(dir.file("a"), dir.file("b"), false));
    EXPECT_FALSE(sys::isFile(dir.file("a")));
    EXPECT_EQ(test::readBytes(dir.file("b")), data);
    EXPECT_EQ(entryNames(dir.path()), std::set<std::string>{"b"});
}

TEST(Files, ListingFailuresAndOrder) {
    TempDir dir;
    for (const char* name : {"b", "a", "B", "\xc3\xa9", "a0", "_"}) test::writeBytes(dir.file(name), {1});
    std::vector<sys::FolderEntry> entries;
    FaultPlan plan;
    plan.reverseListings().fail(FileOp::List, 2, EIO);
    ASSERT_TRUE(sys::listFolder(dir.path(), entries));
    std::vector<std::string> names;
    for (const auto& e : entries) names.push_back(e.name);
    EXPECT_EQ(names, (std::vector<std::string>{"B", "_", "a", "a0", "b", "\xc3\xa9"}));
    EXPECT_FALSE(sys::listFolder(dir.path(), entries));
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(entries.empty());
}

TEST(TransferSequence, AnInjectedFaultAtAnyCallUndoesTheWholeTransfer) {
    // cp and mv of a sequence of three frames over one that exists: fail each file call in
    // turn. Each time the result is all or nothing: the source whole, the old targets back.
    TempDir dir;
    std::vector<std::vector<uint8_t>> frames;
    for (int i = 1; i <= 3; ++i) frames.push_back(pattern(20000 + i, static_cast<uint8_t>(i)));
    const auto reset = [&] {
        for (int i = 1; i <= 3; ++i) {
            test::writeBytes(dir.file("s_000" + std::to_string(i) + ".vxg"), frames[size_t(i - 1)]);
            sys::deleteFile(dir.file("d/t_000" + std::to_string(i) + ".vxg"));
        }
        createDirectories(dir.file("d/x"));
        test::writeBytes(dir.file("d/t_0002.vxg"), {42});
    };
    for (bool move : {false, true})
        for (FileOp op : {FileOp::Open, FileOp::Write, FileOp::Sync, FileOp::Close,
                          FileOp::Rename, FileOp::Remove})
            for (int nth = 1; nth <= 6; ++nth) {
                SCOPED_TRACE(testing::Message() << (move ? "mv" : "cp") << " op " << int(op)
                                                << " call " << nth);
                reset();
                std::string error;
                bool ok;
                int seen;
                {
                    FaultPlan plan;
                    plan.fail(op, nth, EIO);
                    ok = transferSequence(dir.file("s_####.vxg"), dir.file("d/t_####.vxg"), move,
                                          true, error);
                    seen = plan.calls(op);
                }
                for (int i = 1; i <= 3; ++i) {
                    const std::string name = "_000" + std::to_string(i) + ".vxg";
                    const auto& want = frames[size_t(i - 1)];
                    if (ok) {
                        EXPECT_EQ(test::readBytes(dir.file("d/t" + name)), want);
                        EXPECT_EQ(sys::isFile(dir.file("s" + name)), !move);
                    } else {
                        EXPECT_EQ(test::readBytes(dir.file("s" + name)), want);
                        if (i == 2)
                            EXPECT_EQ(test::readBytes(dir.file("d/t" + name)),
                                      std::vector<uint8_t>{42});
                        else
                            EXPECT_FALSE(sys::isFile(dir.file("d/t" + name)));
                    }
                }
                if (!ok) {
                    EXPECT_LE(nth, seen);
                    EXPECT_NE(error.find(std::strerror(EIO)), std::string::npos) << error;
                }
                // Nothing is left beside the targets; only a replaced target that could not be
                // deleted after a finished transfer stays, under a hidden name of its own.
                std::set<std::string> left = entryNames(dir.file("d"));
                left.erase("x");
                size_t hidden = 0;
                for (const auto& name : left) hidden += name[0] == '.';
                EXPECT_EQ(left.size() - hidden, ok ? 3u : 1u);
                EXPECT_EQ(hidden, ok && op == FileOp::Remove && nth == 1 ? 1u : 0u);
                for (const auto& name : left)
                    if (name[0] == '.') {
                        EXPECT_EQ(name.rfind(".vaporix-replaced-", 0), 0u) << name;
                        sys::deleteFile(dir.file("d/" + name));
                    }
            }
}
