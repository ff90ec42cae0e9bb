// Sequence walks over real folders: frame lookup, both passes, range, delete, copy and move.
#include "foundation/EnumFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "FaultPlan.h"
#include "TestSupport.h"
#include "foundation/sys/Files.h"

using namespace vaporix;
using namespace vaporix::VaporixEnum;
using vaporix::test::TempDir;

namespace {

void touch(const std::string& path, uint8_t content = 0) { test::writeBytes(path, {content}); }

// Names listed for the pattern, as a set.
std::set<std::string> names(const std::vector<SequenceFile>& files) {
    std::set<std::string> out;
    for (const auto& f : files) out.insert(f.path);
    return out;
}

// Every name in a folder, hidden ones included.
std::set<std::string> entryNames(const std::string& folder) {
    std::vector<sys::FolderEntry> entries;
    sys::listFolder(folder, entries);
    std::set<std::string> out;
    for (const auto& e : entries) out.insert(e.name);
    return out;
}

// A visitor that records what it is shown, in order.
class Recorder : public EnumFiles {
public:
    void begin(const std::string& path, bool strict) override {
        begun.push_back(path + (strict ? " strict" : ""));
    }
    void process(const std::string& fileName) override { seen.push_back(fileName); }
    std::vector<std::string> begun, seen;
};

}  // namespace

TEST(EnumFiles, FindsTheExactFrame) {
    TempDir dir;
    for (const char* n : {"c_0001.vxg", "c_0002.vxg", "c_0010.vxg", "other_0002.vxg"})
        touch(dir.file(n));
    std::string path;
    int32_t frame = 0;
    EXPECT_TRUE(findFrameFile(dir.file("c_####.vxg"), 2, true, path, &frame));
    EXPECT_EQ(path, dir.file("c_0002.vxg"));
    EXPECT_EQ(frame, 2);
    EXPECT_TRUE(findFrameFile(dir.file("c_%04d.vxg"), 10, true, path));
    EXPECT_EQ(path, dir.file("c_0010.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("c_<frame04>.vxg"), 1, true, path));
    EXPECT_EQ(path, dir.file("c_0001.vxg"));
    EXPECT_FALSE(findFrameFile(dir.file("c_####.vxg"), 3, true, path, &frame));
    EXPECT_EQ(path, "");
    EXPECT_EQ(frame, NO_FRAME_NUMBER);
}

TEST(EnumFiles, NearestFrameAndTies) {
    TempDir dir;
    touch(dir.file("c_0001.vxg"));
    touch(dir.file("c_0005.vxg"));
    touch(dir.file("c_0009.vxg"));
    std::string path;
    EXPECT_TRUE(findFrameFile(dir.file("c_####.vxg"), 4, false, path));
    EXPECT_EQ(path, dir.file("c_0005.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("c_####.vxg"), -100, false, path));
    EXPECT_EQ(path, dir.file("c_0001.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("c_####.vxg"), 2000000000, false, path));
    EXPECT_EQ(path, dir.file("c_0009.vxg"));

    // Frames 1 and 5, target 3: the first in name order stays, whatever order the file
    // system lists them in.
    TempDir tie;
    touch(tie.file("t_0005.vxg"));
    touch(tie.file("t_0001.vxg"));
    Recorder order;
    enumerateSequence(order, tie.file("t_####.vxg"), true);
    EXPECT_EQ(order.seen, (std::vector<std::string>{tie.file("t_0001.vxg"), tie.file("t_0005.vxg")}));
    EXPECT_TRUE(findFrameFile(tie.file("t_####.vxg"), 3, false, path));
    EXPECT_EQ(path, tie.file("t_0001.vxg"));
    {
        test::FaultPlan plan;
        plan.reverseListings();
        Recorder reversed;
        enumerateSequence(reversed, tie.file("t_####.vxg"), true);
        EXPECT_EQ(reversed.seen, order.seen);
        EXPECT_TRUE(findFrameFile(tie.file("t_####.vxg"), 3, false, path));
        EXPECT_EQ(path, tie.file("t_0001.vxg"));
    }
}

TEST(EnumFiles, PaddedAndUnpaddedNamesOfOneFrameGiveOneAnswer) {
    // a_0012.vxg and a_12.vxg both stand for frame 12 in a loose walk: the one first in byte
    // order is found, on every file system.
    TempDir dir;
    touch(dir.file("a_12.vxg"), 2);
    touch(dir.file("a_0012.vxg"), 1);
    const auto find = [&](int32_t frame, bool exact) {
        EnumFiles search(frame, exact);
        enumerateSequence(search, dir.file("a_####.vxg"), false);
        return search.found;
    };
    EXPECT_EQ(find(12, true), dir.file("a_0012.vxg"));
    EXPECT_EQ(find(13, false), dir.file("a_0012.vxg"));
    test::FaultPlan plan;
    plan.reverseListings();
    EXPECT_EQ(find(12, true), dir.file("a_0012.vxg"));
    EXPECT_EQ(find(13, false), dir.file("a_0012.vxg"));
    std::vector<sys::FolderEntry> entries;
    ASSERT_TRUE(sys::listFolder(dir.path(), entries));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "a_0012.vxg");
}

TEST(EnumFiles, ProcessRulesOnNamesAlone) {
    EnumFiles near(3, false);
    near.process("x.vxg");  // no number: ignored
    EXPECT_EQ(near.found, "");
    EXPECT_EQ(near.best, FRAME_NOT_SET);
    near.process("a_0001.vxg");
    near.process("a_0005.vxg");  // as far as frame 1: the first stays
    EXPECT_EQ(near.found, "a_0001.vxg");
    near.process("b_0001.vxg");  // same number, never replaces
    EXPECT_EQ(near.found, "a_0001.vxg");
    near.process("a_0002.vxg");
    EXPECT_EQ(near.found, "a_0002.vxg");
    EXPECT_EQ(near.best, 2);

    EnumFiles exact(7, true);
    exact.process("a_0006.vxg");
    EXPECT_EQ(exact.found, "");
    exact.process("a_0007.vxg");
    exact.process("a_007.vxg");
    EXPECT_EQ(exact.found, "a_0007.vxg");
    EXPECT_EQ(exact.best, 7);

    // Extreme frames must not overflow the distance.
    EnumFiles far(INT32_MAX - 1, false);
    far.process("a_-2147483647.vxg");
    far.process("a_2147483646.vxg");
    EXPECT_EQ(far.found, "a_2147483646.vxg");
}

TEST(EnumFiles, StrictSearchRejectsOtherWidthsAndNames) {
    TempDir dir;
    for (const char* n : {"c_0004.vxg", "c_004.vxg", "c_x_0005.vxg", "c_0006.vxg.bak"})
        touch(dir.file(n));
    Recorder strict, loose;
    EXPECT_EQ(enumerateSequence(strict, dir.file("c_####.vxg"), true), 1);
    // Only c_0004 fits "c_####.vxg" for its own number; none fits "c_#.vxg" in the second pass.
    EXPECT_EQ(strict.seen, std::vector<std::string>{dir.file("c_0004.vxg")});
    EXPECT_EQ(std::count(strict.seen.begin(), strict.seen.end(), dir.file("c_0004.vxg")), 1);
    EXPECT_EQ(std::count(strict.seen.begin(), strict.seen.end(), dir.file("c_004.vxg")), 0);
    EXPECT_EQ(std::count(strict.seen.begin(), strict.seen.end(), dir.file("c_x_0005.vxg")), 0);
    EXPECT_EQ(strict.begun, std::vector<std::string>{dir.file("c_####.vxg") + " strict"});

    EXPECT_EQ(enumerateSequence(loose, dir.file("c_####.vxg"), false), 1);
    // Without strict every listed name is processed, in both passes.
    EXPECT_EQ(loose.seen.size(), 6u);
    EXPECT_EQ(std::count(loose.seen.begin(), loose.seen.end(), dir.file("c_x_0005.vxg")), 2);
}

TEST(EnumFiles, PatternRulesHoldOnDisk) {
    TempDir dir;
    for (const char* n :
         {"p%%_0003.vxg", "p%_0003.vxg", "r_000000000005.vxg", "r_00000000000000000006.vxg",
          "n_-003.vxg", "n_0004.vxg", "b_  12.vxg", "b_12.vxg"})
        touch(dir.file(n));
    std::string path;
    // "%%" stays two characters in the name searched for.
    EXPECT_TRUE(findFrameFile(dir.file("p%%_####.vxg"), 3, true, path));
    EXPECT_EQ(path, dir.file("p%%_0003.vxg"));
    // Twenty '#' stand for twelve digits: a longer zero run is another name.
    const std::string twenty = dir.path() + "/r_" + std::string(20, '#') + ".vxg";
    EXPECT_TRUE(findFrameFile(twenty, 5, true, path));
    EXPECT_EQ(path, dir.file("r_000000000005.vxg"));
    EXPECT_FALSE(findFrameFile(twenty, 6, true, path));
    // The sign takes a place of the width, zeros go behind it.
    EXPECT_TRUE(findFrameFile(dir.file("n_####.vxg"), -3, true, path));
    EXPECT_EQ(path, dir.file("n_-003.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("n_####.vxg"), -1, false, path));
    EXPECT_EQ(path, dir.file("n_-003.vxg"));  // -3 and 4 are 2 and 5 away
    // Without the zero flag the width is filled with blanks, which names may hold.
    EXPECT_TRUE(findFrameFile(dir.file("b_%4d.vxg"), 12, true, path));
    EXPECT_EQ(path, dir.file("b_  12.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("b_%d.vxg"), 12, true, path));
    EXPECT_EQ(path, dir.file("b_12.vxg"));
}

TEST(EnumFiles, SecondPassFindsUnpaddedVxgFrames) {
    TempDir dir;
    touch(dir.file("a_12.vxg"));
    touch(dir.file("a_7.vxg"));
    touch(dir.file("b_12.vdb"));
    std::string path;
    EXPECT_TRUE(findFrameFile(dir.file("a_####.vxg"), 12, true, path));
    EXPECT_EQ(path, dir.file("a_12.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("a_%04d.vxg"), 8, false, path));
    EXPECT_EQ(path, dir.file("a_7.vxg"));
    // Only for our own format, and only for the exact extension text.
    EXPECT_FALSE(findFrameFile(dir.file("b_####.vdb"), 12, true, path));
    touch(dir.file("C_12.VXG"));
    EXPECT_FALSE(findFrameFile(dir.file("C_####.VXG"), 12, true, path));

    // A first-pass hit suppresses the second pass.
    touch(dir.file("a_0012.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("a_####.vxg"), 12, true, path));
    EXPECT_EQ(path, dir.file("a_0012.vxg"));
    // The second pass is not even walked then: the search sees the padded name alone.
    struct Seen : EnumFiles {
        Seen() : EnumFiles(12, true) {}
        void process(const std::string& name) override {
            seen.push_back(name);
            EnumFiles::process(name);
        }
        std::vector<std::string> seen;
    } walk;
    enumerateSequence(walk, dir.file("a_####.vxg"), true);
    EXPECT_EQ(walk.seen, std::vector<std::string>{dir.file("a_0012.vxg")});
    // When the first pass finds no exact frame the second one still looks.
    EXPECT_TRUE(findFrameFile(dir.file("a_####.vxg"), 7, true, path));
    EXPECT_EQ(path, dir.file("a_7.vxg"));
}

TEST(EnumFiles, SingleFileServesEveryFrame) {
    TempDir dir;
    touch(dir.file("still_0042.vxg"));
    std::string path;
    EXPECT_TRUE(findFrameFile(dir.file("still_0042.vxg"), 1, true, path));
    EXPECT_EQ(path, dir.file("still_0042.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("still_0042.vxg"), 1000, false, path));
    EXPECT_FALSE(findFrameFile(dir.file("missing.vxg"), 1, true, path));
    // A folder is not a cache file.
    ASSERT_EQ(sys::makeFolder(dir.file("d.vxg")), sys::MakeFolderResult::Created);
    EXPECT_FALSE(findFrameFile(dir.file("d.vxg"), 1, true, path));
    EXPECT_FALSE(findFrameFile("", 1, true, path));
}

TEST(EnumFiles, PatternOnlyInFolderName) {
    TempDir dir;
    ASSERT_TRUE(createDirectories(dir.path() + "/take#1/"));
    touch(dir.file("take#1/cache_0003.vxg"));
    touch(dir.file("take#1/cache.vxg"));
    // The folder's '#' makes it a pattern, but expansion leaves the text as it is: the strict
    // search compares names with that unchanged text.
    std::string path;
    EXPECT_FALSE(findFrameFile(dir.file("take#1/cache.vxg"), 3, true, path));  // no number
    EXPECT_TRUE(findFrameFile(dir.file("take#1/cache_0003.vxg"), 3, true, path));
    EXPECT_FALSE(findFrameFile(dir.file("take#1/cache_0003.vxg"), 4, true, path));
    EXPECT_TRUE(findFrameFile(dir.file("take#1/cache_0003.vxg"), 4, false, path));
}

TEST(EnumFiles, MissingOrUnreadableFolderIsNoFile) {
    TempDir dir;
    std::string path;
    test::LogRecorder log;
    EXPECT_FALSE(findFrameFile(dir.file("nowhere/c_####.vxg"), 1, false, path));
    EXPECT_TRUE(listSequence(dir.file("nowhere/c_####.vxg")).empty());
    Recorder rec;
    EXPECT_EQ(enumerateSequence(rec, dir.file("nowhere/c_####.vxg"), true), 0);
    EXPECT_TRUE(rec.seen.empty());
    EXPECT_EQ(rec.begun.size(), 1u);

    ASSERT_TRUE(createDirectories(dir.path() + "/locked/"));
    touch(dir.file("locked/c_0001.vxg"));
    chmod(dir.file("locked").c_str(), 0);
    if (geteuid() != 0) {  // root reads any folder
        EXPECT_FALSE(findFrameFile(dir.file("locked/c_####.vxg"), 1, false, path));
    }
    chmod(dir.file("locked").c_str(), 0755);
    EXPECT_EQ(log.text(), "");
}

TEST(EnumFiles, OddNamesWork) {
    TempDir dir;
    const std::string folder = dir.path() + "/sim \xe7\x81\xab r\xc3\xa9sultat [v2] (final)/";
    ASSERT_TRUE(createDirectories(folder));
    const std::string stem = std::string(200, 'L') + " \xf0\x9f\x94\xa5 ";
    touch(folder + stem + "0007.vxg");
    touch(folder + stem + "0008.vxg");
    std::string path;
    EXPECT_TRUE(findFrameFile(folder + stem + "####.vxg", 8, true, path));
    EXPECT_EQ(path, folder + stem + "0008.vxg");
    // Names and paths beyond the system's limits are simply not there.
    EXPECT_FALSE(findFrameFile(folder + std::string(300, 'x') + "_####.vxg", 8, false, path));
    EXPECT_FALSE(findFrameFile(folder + std::string(5000, 'x') + "/c_####.vxg", 8, false, path));
    EXPECT_FALSE(findFrameFile(folder + std::string(5000, 'x') + ".vxg", 8, false, path));
    // Wildcard characters of the name are literal only where they are not wildcards.
    touch(dir.file("q?_0001.vxg"));
    touch(dir.file("q*_0002.vxg"));
    EXPECT_TRUE(findFrameFile(dir.file("q*_####.vxg"), 2, true, path));
    EXPECT_EQ(path, dir.file("q*_0002.vxg"));
}

TEST(EnumFiles, BackslashTemplatesAreConverted) {
    TempDir dir;
    ASSERT_TRUE(createDirectories(dir.path() + "/sub/"));
    touch(dir.file("sub/c_0002.vxg"));
    std::string path;
    EXPECT_TRUE(findFrameFile(dir.path() + "\\sub\\c_####.vxg", 2, true, path));
    EXPECT_EQ(path, dir.file("sub/c_0002.vxg"));
}

TEST(MinMaxFrameSearch, RangeOfASequence) {
    TempDir dir;
    for (const char* n : {"m_0003.vxg", "m_-002.vxg", "m_0040.vxg", "m_05.vxg"}) touch(dir.file(n));
    MinMaxFrameSearch range;
    EXPECT_EQ(enumerateSequence(range, dir.file("m_####.vxg"), true), 1);
    EXPECT_EQ(range.minFrame, -2);
    EXPECT_EQ(range.maxFrame, 40);

    MinMaxFrameSearch none;
    EXPECT_EQ(enumerateSequence(none, dir.file("z_####.vxg"), true), 0);
    EXPECT_EQ(none.minFrame, INT32_MAX);
    EXPECT_EQ(none.maxFrame, FRAME_NOT_SET);

    // A name without a number pushes the maximum to "no number".
    MinMaxFrameSearch unnumbered;
    touch(dir.file("plain.vxg"));
    enumerateSequence(unnumbered, dir.file("plain.vxg"), true);
    EXPECT_EQ(unnumbered.maxFrame, NO_FRAME_NUMBER);
    EXPECT_EQ(unnumbered.minFrame, INT32_MAX);
}

TEST(MinMaxFrameSearch, SecondPassAddsUnpaddedFrames) {
    TempDir dir;
    for (const char* n : {"s_0001.vxg", "s_0002.vxg", "s_12.vxg"}) touch(dir.file(n));
    MinMaxFrameSearch range;
    enumerateSequence(range, dir.file("s_####.vxg"), true);
    EXPECT_EQ(range.minFrame, 1);
    EXPECT_EQ(range.maxFrame, 12);
}

TEST(EraseFiles, DeletesTheSequenceOnly) {
    TempDir dir;
    for (const char* n : {"e_0001.vxg", "e_0002.vxg", "e_3.vxg", "e_x.vxg", "keep_0001.vxg"})
        touch(dir.file(n));
    EraseFiles erase;
    EXPECT_EQ(enumerateSequence(erase, dir.file("e_####.vxg"), true), 1);
    EXPECT_FALSE(sys::isFile(dir.file("e_0001.vxg")));
    EXPECT_FALSE(sys::isFile(dir.file("e_0002.vxg")));
    EXPECT_FALSE(sys::isFile(dir.file("e_3.vxg")));  // second pass
    EXPECT_TRUE(sys::isFile(dir.file("e_x.vxg")));
    EXPECT_TRUE(sys::isFile(dir.file("keep_0001.vxg")));
    // Again: nothing left, silently.
    EXPECT_EQ(enumerateSequence(erase, dir.file("e_####.vxg"), true), 1);
}

TEST(MoveFiles, MovesAndCopiesByFrameNumber) {
    TempDir dir;
    touch(dir.file("src_0001.vxg"), 1);
    touch(dir.file("src_0002.vxg"), 2);
    touch(dir.file("src_x.vxg"), 9);
    {
        CopyFiles copy(dir.path() + "/copy dir/deeper/c_%03d.vxg");  // folders made here
        EXPECT_TRUE(sys::isFolder(dir.file("copy dir/deeper")));
        enumerateSequence(copy, dir.file("src_####.vxg"), true);
    }
    EXPECT_EQ(test::readBytes(dir.file("copy dir/deeper/c_001.vxg")), std::vector<uint8_t>{1});
    EXPECT_EQ(test::readBytes(dir.file("copy dir/deeper/c_002.vxg")), std::vector<uint8_t>{2});
    EXPECT_TRUE(sys::isFile(dir.file("src_0001.vxg")));

    // Copies overwrite; moves never replace.
    touch(dir.file("copy dir/deeper/c_001.vxg"), 7);
    touch(dir.file("mv_0002.vxg"), 8);
    {
        MoveFiles recopy(dir.file("copy dir/deeper/c_%03d.vxg"), true);
        enumerateSequence(recopy, dir.file("src_####.vxg"), true);
        MoveFiles move(dir.file("mv_####.vxg"), false);
        enumerateSequence(move, dir.file("src_####.vxg"), false);  // src_x.vxg has no number
    }
    EXPECT_EQ(test::readBytes(dir.file("copy dir/deeper/c_001.vxg")), std::vector<uint8_t>{1});
    EXPECT_EQ(test::readBytes(dir.file("mv_0001.vxg")), std::vector<uint8_t>{1});
    EXPECT_EQ(test::readBytes(dir.file("mv_0002.vxg")), std::vector<uint8_t>{8});
    EXPECT_FALSE(sys::isFile(dir.file("src_0001.vxg")));
    EXPECT_TRUE(sys::isFile(dir.file("src_0002.vxg")));
    EXPECT_TRUE(sys::isFile(dir.file("src_x.vxg")));
}

TEST(ListSequence, ListsEachFileOnceWithItsFrame) {
    TempDir dir;
    // 1234 fits both "l_####" and "l_#": listed once.
    for (const char* n : {"l_0001.vxg", "l_1234.vxg", "l_7.vxg", "l_x.vxg"}) touch(dir.file(n));
    const auto files = listSequence(dir.file("l_####.vxg"));
    EXPECT_EQ(names(files), (std::set<std::string>{dir.file("l_0001.vxg"), dir.file("l_1234.vxg"),
                                                   dir.file("l_7.vxg")}));
    for (const auto& f : files) EXPECT_EQ(f.frame, parseFrameNumber(f.path));
    EXPECT_EQ(listSequence(dir.file("l_x.vxg")).size(), 1u);
}

TEST(TransferSequence, CopiesAWholeSequence) {
    TempDir dir;
    for (uint8_t i = 1; i <= 3; ++i) touch(dir.file("t_000" + std::to_string(i) + ".vxg"), i);
    std::string error;
    size_t count = 0;
    EXPECT_TRUE(transferSequence(dir.file("t_####.vxg"), dir.path() + "/out/n/c_<frame>.vxg", false,
                                 false, error, &count))
        << error;
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(test::readBytes(dir.file("out/n/c_3.vxg")), std::vector<uint8_t>{3});
    EXPECT_TRUE(sys::isFile(dir.file("t_0003.vxg")));
    // Again without overwrite: refused before anything is written.
    EXPECT_FALSE(transferSequence(dir.file("t_####.vxg"), dir.file("out/n/c_<frame>.vxg"), false,
                                  false, error));
    EXPECT_NE(error.find("exists"), std::string::npos) << error;
    EXPECT_TRUE(transferSequence(dir.file("t_####.vxg"), dir.file("out/n/c_<frame>.vxg"), false,
                                 true, error))
        << error;
}

TEST(TransferSequence, RefusesDoubtfulPlans) {
    TempDir dir;
    touch(dir.file("r_0001.vxg"));
    touch(dir.file("r_0002.vxg"));
    std::string error;
    EXPECT_FALSE(
        transferSequence(dir.file("none_####.vxg"), dir.file("x_####.vxg"), true, false, error));
    EXPECT_NE(error.find("no files"), std::string::npos);
    // Two frames onto one name.
    EXPECT_FALSE(
        transferSequence(dir.file("r_####.vxg"), dir.file("single.vxg"), false, false, error));
    EXPECT_NE(error.find("would both become"), std::string::npos);
    // Onto itself.
    EXPECT_FALSE(
        transferSequence(dir.file("r_####.vxg"), dir.file("r_%04d.vxg"), true, true, error));
    EXPECT_NE(error.find("source sequence"), std::string::npos);
    // Two names of one frame (r_0002 and r_2) can't share a target.
    touch(dir.file("r_2.vxg"));
    EXPECT_FALSE(
        transferSequence(dir.file("r_####.vxg"), dir.file("y_####.vxg"), false, false, error));
    EXPECT_NE(error.find("would both become"), std::string::npos);
    EXPECT_FALSE(sys::isFile(dir.file("y_0001.vxg")));
    // A single unnumbered file may go to a plain name.
    touch(dir.file("plain.vxg"), 5);
    EXPECT_TRUE(transferSequence(dir.file("plain.vxg"), dir.file("copy.vxg"), false, false, error))
        << error;
    EXPECT_FALSE(
        transferSequence(dir.file("plain.vxg"), dir.file("copy_####.vxg"), false, false, error));
    EXPECT_NE(error.find("no frame number"), std::string::npos);
}

TEST(TransferSequence, FailedMoveLeavesTheSourceIntact) {
    TempDir dir;
    for (uint8_t i = 8; i <= 11; ++i) touch(dir.file("v_" + std::to_string(i) + ".vxg"), i);
    // Target names of one digit fit the system's 255-byte limit, those of two don't: the move
    // of frame 10 fails after frames 8 and 9 have moved, whoever runs the test.
    const std::string stem = std::string(249, 'w');
    const std::string dest = dir.path() + "/made/deeper/" + stem + "_%d.vxg";
    std::string error;
    EXPECT_FALSE(transferSequence(dir.file("v_#.vxg"), dest, true, false, error));
    EXPECT_NE(error.find("cannot move"), std::string::npos) << error;
    EXPECT_NE(error.find("source sequence is whole"), std::string::npos) << error;
    for (uint8_t i = 8; i <= 11; ++i)
        EXPECT_EQ(test::readBytes(dir.file("v_" + std::to_string(i) + ".vxg")),
                  std::vector<uint8_t>{i});
    // The folders made for the targets went again.
    EXPECT_FALSE(sys::isFolder(dir.file("made")));

    // With targets being replaced: the replaced files come back too, and nothing is left aside.
    ASSERT_TRUE(createDirectories(dir.path() + "/dst/"));
    touch(dir.file("dst/" + stem + "_9.vxg"), 99);
    EXPECT_FALSE(transferSequence(dir.file("v_#.vxg"), dir.file("dst/" + stem + "_%d.vxg"), true,
                                  true, error));
    EXPECT_EQ(entryNames(dir.file("dst")), std::set<std::string>{stem + "_9.vxg"});
    EXPECT_EQ(test::readBytes(dir.file("dst/" + stem + "_9.vxg")), std::vector<uint8_t>{99});
    EXPECT_EQ(listSequence(dir.file("v_#.vxg")).size(), 4u);

    // The same plan as a copy leaves no partial copies behind.
    EXPECT_FALSE(transferSequence(dir.file("v_#.vxg"), dir.file("dst/" + stem + "_%d.vxg"), false,
                                  true, error));
    EXPECT_NE(error.find("no copy was left"), std::string::npos) << error;
    EXPECT_EQ(entryNames(dir.file("dst")), std::set<std::string>{stem + "_9.vxg"});
    EXPECT_EQ(test::readBytes(dir.file("dst/" + stem + "_9.vxg")), std::vector<uint8_t>{99});

    // And a clean move empties the source.
    EXPECT_TRUE(
        transferSequence(dir.file("v_#.vxg"), dir.file("dst2/w_####.vxg"), true, false, error))
        << error;
    EXPECT_TRUE(listSequence(dir.file("v_#.vxg")).empty());
    EXPECT_EQ(listSequence(dir.file("dst2/w_####.vxg")).size(), 4u);
}

TEST(TransferSequence, ReadOnlyDestinationLeavesTheSourceIntact) {
    if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only folders";
    TempDir dir;
    for (uint8_t i = 1; i <= 3; ++i) touch(dir.file("r_000" + std::to_string(i) + ".vxg"), i);
    ASSERT_TRUE(createDirectories(dir.path() + "/ro/"));
    chmod(dir.file("ro").c_str(), 0555);
    std::string error;
    EXPECT_FALSE(
        transferSequence(dir.file("r_####.vxg"), dir.file("ro/r_####.vxg"), true, true, error));
    EXPECT_FALSE(
        transferSequence(dir.file("r_####.vxg"), dir.file("ro/sub/r_####.vxg"), true, true, error));
    EXPECT_NE(error.find("cannot make folder"), std::string::npos) << error;
    chmod(dir.file("ro").c_str(), 0755);
    EXPECT_TRUE(entryNames(dir.file("ro")).empty());
    EXPECT_EQ(listSequence(dir.file("r_####.vxg")).size(), 3u);
}

TEST(TransferSequence, ReplacesTargetsOnlyWhenAskedAndNeverFolders) {
    TempDir dir;
    touch(dir.file("s_0001.vxg"), 1);
    touch(dir.file("s_0002.vxg"), 2);
    ASSERT_TRUE(createDirectories(dir.path() + "/d/t_0002.vxg/"));
    std::string error;
    // A folder in the way is refused up front, even when replacing.
    EXPECT_FALSE(
        transferSequence(dir.file("s_####.vxg"), dir.file("d/t_####.vxg"), true, true, error));
    EXPECT_NE(error.find("is a folder"), std::string::npos) << error;
    EXPECT_EQ(entryNames(dir.file("d")), std::set<std::string>{"t_0002.vxg"});
    ASSERT_TRUE(sys::removeEmptyFolder(dir.file("d/t_0002.vxg")));

    touch(dir.file("d/t_0002.vxg"), 7);
    EXPECT_FALSE(
        transferSequence(dir.file("s_####.vxg"), dir.file("d/t_####.vxg"), true, false, error));
    EXPECT_NE(error.find("exists"), std::string::npos) << error;
    EXPECT_EQ(test::readBytes(dir.file("d/t_0002.vxg")), std::vector<uint8_t>{7});
    EXPECT_TRUE(
        transferSequence(dir.file("s_####.vxg"), dir.file("d/t_####.vxg"), true, true, error))
        << error;
    EXPECT_EQ(test::readBytes(dir.file("d/t_0002.vxg")), std::vector<uint8_t>{2});
    // The replaced file was set aside until the end, and is gone now.
    EXPECT_EQ(entryNames(dir.file("d")), (std::set<std::string>{"t_0001.vxg", "t_0002.vxg"}));
}

TEST(Files, CopyKeepsPermissionsAndLeavesNoTemporaries) {
    TempDir dir;
    test::writeBytes(dir.file("a"), std::vector<uint8_t>(3 << 20, 0x5a));
    chmod(dir.file("a").c_str(), 0640);
    ASSERT_TRUE(sys::copyFile(dir.file("a"), dir.file("b"), false));
    EXPECT_EQ(sys::fileSize(dir.file("b")), 3 << 20);
    struct stat st;
    ASSERT_EQ(stat(dir.file("b").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_FALSE(sys::copyFile(dir.file("a"), dir.file("b"), false));
    EXPECT_FALSE(sys::copyFile(dir.file("missing"), dir.file("c"), true));
    EXPECT_FALSE(sys::moveFile(dir.file("a"), dir.file("b"), false));
    EXPECT_TRUE(sys::moveFile(dir.file("a"), dir.file("b"), true));
    std::vector<sys::FolderEntry> entries;
    ASSERT_TRUE(sys::listFolder(dir.path(), entries));
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "b");
    EXPECT_FALSE(sys::listFolder(dir.file("nope"), entries));
    EXPECT_TRUE(entries.empty());
}
