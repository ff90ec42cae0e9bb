// Frame patterns: detection, expansion widths and signs, frame numbers, patterns from names.
#include "foundation/FramePattern.h"

#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"
#include "foundation/sys/Files.h"

using namespace vaporix;

TEST(FramePattern, DetectsEachPatternKind) {
    EXPECT_TRUE(hasFramePattern("cache_####.vxg"));
    EXPECT_TRUE(hasFramePattern("cache_%04d.vxg"));
    EXPECT_TRUE(hasFramePattern("cache_%d.vxg"));
    EXPECT_TRUE(hasFramePattern("cache_%12U.vxg"));
    EXPECT_TRUE(hasFramePattern("cache_%I.vxg"));
    EXPECT_TRUE(hasFramePattern("cache_<frame04>.vxg"));
    EXPECT_TRUE(hasFramePattern("cache_<frame>.vxg"));
    EXPECT_TRUE(hasFramePattern("take#2/cache.vxg"));  // folders count here
    EXPECT_TRUE(hasFramePattern("a%%%d.vxg"));         // "%%" then "%d"

    EXPECT_FALSE(hasFramePattern("cache_0001.vxg"));
    EXPECT_FALSE(hasFramePattern(""));
    EXPECT_FALSE(hasFramePattern("a%%d.vxg"));  // escaped percent, then a plain 'd'
    EXPECT_FALSE(hasFramePattern("a%x.vxg"));
    EXPECT_FALSE(hasFramePattern("a%-4d.vxg"));       // no flags but '0'
    EXPECT_FALSE(hasFramePattern("a<frame04.vxg"));   // unclosed
    EXPECT_FALSE(hasFramePattern("a<Frame04>.vxg"));  // case matters
    EXPECT_FALSE(hasFramePattern("a%"));
    EXPECT_FALSE(hasFramePattern("a<"));
}

TEST(FramePattern, StrayAngleBracketHidesTheNextCharacter) {
    // A '<' that does not begin "frame" skips the character after it, in both scans alike.
    EXPECT_FALSE(hasFramePattern("a<#.vxg"));
    EXPECT_FALSE(hasFramePattern("a<<frame04>.vxg"));
    EXPECT_TRUE(hasFramePattern("a<x#.vxg"));
    EXPECT_EQ(expandFramePattern("a<#.vxg", 5), "a<#.vxg");
    EXPECT_EQ(expandFramePattern("a<<frame04>.vxg", 5), "a<<frame04>.vxg");
    EXPECT_EQ(expandFramePattern("a<x#.vxg", 5), "a<x5.vxg");
}

TEST(FramePattern, ExpandsWidthsAndSigns) {
    EXPECT_EQ(expandFramePattern("cache_####.vxg", 12), "cache_0012.vxg");
    EXPECT_EQ(expandFramePattern("cache_####.vxg", 12345), "cache_12345.vxg");
    EXPECT_EQ(expandFramePattern("cache_####.vxg", -3), "cache_-003.vxg");
    EXPECT_EQ(expandFramePattern("cache_%04d.vxg", 12), "cache_0012.vxg");
    EXPECT_EQ(expandFramePattern("cache_<frame04>.vxg", 12), "cache_0012.vxg");
    EXPECT_EQ(expandFramePattern("cache_%4d.vxg", 12), "cache_  12.vxg");
    EXPECT_EQ(expandFramePattern("cache_%4d.vxg", -3), "cache_  -3.vxg");
    EXPECT_EQ(expandFramePattern("cache_<frame4>.vxg", -3), "cache_  -3.vxg");
    EXPECT_EQ(expandFramePattern("cache_%d.vxg", 12), "cache_12.vxg");
    EXPECT_EQ(expandFramePattern("cache_%D_%i_%I.vxg", 7), "cache_7_7_7.vxg");
    EXPECT_EQ(expandFramePattern("cache_<frame>.vxg", 7), "cache_7.vxg");
    EXPECT_EQ(expandFramePattern("cache_%0d.vxg", -7), "cache_-7.vxg");
    EXPECT_EQ(expandFramePattern("cache_%00004d.vxg", 7),
              "cache_0007.vxg");  // '0' flag, width 0004
    EXPECT_EQ(expandFramePattern("c_#.vxg", -2147483647), "c_-2147483647.vxg");
}

TEST(FramePattern, UnsignedConversionsPrintTheBitPattern) {
    EXPECT_EQ(expandFramePattern("c_%u.vxg", -3), "c_4294967293.vxg");
    EXPECT_EQ(expandFramePattern("c_%06U.vxg", 42), "c_000042.vxg");
    EXPECT_EQ(expandFramePattern("c_%d.vxg", -3), "c_-3.vxg");
}

TEST(FramePattern, WidthIsCappedAtTwelve) {
    EXPECT_EQ(expandFramePattern(std::string(20, '#') + ".vxg", 5), "000000000005.vxg");
    EXPECT_EQ(expandFramePattern("c_%020d.vxg", 5), "c_000000000005.vxg");
    EXPECT_EQ(expandFramePattern("c_<frame099999999999999999999>.vxg", -5), "c_-00000000005.vxg");
    EXPECT_EQ(expandFramePattern("c_%20d.vxg", 5), "c_           5.vxg");
}

TEST(FramePattern, KeepsDoublePercentAndUnknownConversions) {
    EXPECT_EQ(expandFramePattern("a%%_####.vxg", 3), "a%%_0003.vxg");
    EXPECT_EQ(expandFramePattern("a%x_%4.vxg", 3), "a%x_%4.vxg");
    EXPECT_EQ(expandFramePattern("a<frame04_#.vxg", 3), "a<frame04_3.vxg");
    EXPECT_EQ(expandFramePattern("a%", 3), "a%");
    EXPECT_EQ(expandFramePattern("a<", 3), "a<");
}

TEST(FramePattern, ReplacesEveryOccurrenceOnlyInTheFileName) {
    EXPECT_EQ(expandFramePattern("f_##/c_#_%03d.vxg", 9), "f_##/c_9_009.vxg");
    EXPECT_EQ(expandFramePattern("f_##\\c_##.vxg", 9), "f_##\\c_09.vxg");
    // A pattern only in a folder name: detected, but expansion leaves it alone.
    EXPECT_TRUE(hasFramePattern("take#1/cache.vxg"));
    EXPECT_EQ(expandFramePattern("take#1/cache.vxg", 9), "take#1/cache.vxg");
}

TEST(FramePattern, NoNumberWritesTheFillAndUnsetWritesNothing) {
    EXPECT_EQ(expandFramePattern("c_####.vxg", NO_FRAME_NUMBER, "*"), "c_*.vxg");
    EXPECT_EQ(expandFramePattern("c_%04d_<frame2>.vxg", NO_FRAME_NUMBER, "#"), "c_#_#.vxg");
    EXPECT_EQ(expandFramePattern("c_####.vxg", NO_FRAME_NUMBER, ""), "c_.vxg");
    EXPECT_EQ(expandFramePattern("c_####.vxg", NO_FRAME_NUMBER, "0123456789abcdefXYZ"),
              "c_0123456789abcde.vxg");  // at most 15 characters of fill
    EXPECT_EQ(expandFramePattern("c_####.vxg", FRAME_NOT_SET, "*"), "c_.vxg");
    std::string out = "stale";
    expandFramePattern(out, "plain.vxg", 4, "");
    EXPECT_EQ(out, "plain.vxg");
}

TEST(FramePattern, ParsesTheLastDigitRunBeforeTheExtension) {
    EXPECT_EQ(parseFrameNumber("cache_0012.vxg"), 12);
    EXPECT_EQ(parseFrameNumber("/d/7/cache_0012.vxg"), 12);
    EXPECT_EQ(parseFrameNumber("c3_12b.vxg"), 12);
    EXPECT_EQ(parseFrameNumber("cache_-003.vxg"), -3);
    EXPECT_EQ(parseFrameNumber("cache--3.vxg"), -3);  // only one '-' belongs to the number
    EXPECT_EQ(parseFrameNumber("1.5.vxg"), 5);
    EXPECT_EQ(parseFrameNumber("12.vxg"), 12);
    EXPECT_EQ(parseFrameNumber("c_0000000000000000000042.vxg"), 42);
    EXPECT_EQ(parseFrameNumber("c_-2147483648.vxg"), INT32_MIN);
}

TEST(FramePattern, ParseGivesNoNumberWhenThereIsNone) {
    EXPECT_EQ(parseFrameNumber("cache.vxg"), NO_FRAME_NUMBER);
    EXPECT_EQ(parseFrameNumber("cache_0012"), NO_FRAME_NUMBER);  // no extension
    EXPECT_EQ(parseFrameNumber("d.7/cache_0012"), NO_FRAME_NUMBER);
    EXPECT_EQ(parseFrameNumber("d7/cache.vxg"), NO_FRAME_NUMBER);  // digits only in the folder
    EXPECT_EQ(parseFrameNumber("d7\\cache.vxg"), NO_FRAME_NUMBER);
    EXPECT_EQ(parseFrameNumber(".vxg"), NO_FRAME_NUMBER);
    EXPECT_EQ(parseFrameNumber(""), NO_FRAME_NUMBER);
    EXPECT_EQ(parseFrameNumber("c_2147483648.vxg"), NO_FRAME_NUMBER);
    EXPECT_EQ(parseFrameNumber("c_99999999999999999999.vxg"), NO_FRAME_NUMBER);
}

TEST(FramePattern, MakesPatternsFromNames) {
    EXPECT_EQ(makePatternFromFile("a_0012.vxg"), "a_####.vxg");
    EXPECT_EQ(makePatternFromFile("a_12.vxg"), "a_#.vxg");
    EXPECT_EQ(makePatternFromFile("a_-12.vxg"), "a_#.vxg");
    EXPECT_EQ(makePatternFromFile("a_-012.vxg"), "a_####.vxg");  // the sign takes a place too
    EXPECT_EQ(makePatternFromFile("/x/7/a.vxg"), "/x/7/a.vxg");
    EXPECT_EQ(makePatternFromFile("noext_0012"), "noext_0012");
    EXPECT_EQ(makePatternFromFile(""), "");
}

TEST(FramePattern, PatternsFromNamesExpandBackToTheNames) {
    // What a picked file turns into must give that file back for its own frame.
    for (const char* name : {"a_0012.vxg", "a_12.vxg", "a_-012.vxg", "a_-3.vxg", "sim-0007.vxg",
                             "dir 1/f_000.vdb", "x99_0100.f3d"}) {
        const std::string pattern = makePatternFromFile(name);
        EXPECT_TRUE(hasFramePattern(pattern)) << name;
        EXPECT_EQ(expandFramePattern(pattern, parseFrameNumber(name)), name);
    }
}

TEST(FramePattern, ExtensionAndSplit) {
    EXPECT_EQ(getExtension("a/b_0001.VXG"), "VXG");
    EXPECT_EQ(getExtension("a.d/b"), "");
    EXPECT_EQ(getExtension("a.d\\b"), "");
    EXPECT_EQ(getExtension("a.tar.gz"), "gz");
    EXPECT_EQ(getExtension("a."), "");
    EXPECT_EQ(getExtension("noext"), "");

    std::string folder, name;
    splitPath(folder, "/x/y/c_####.vxg", name);
    EXPECT_EQ(folder, "/x/y/");
    EXPECT_EQ(name, "c_####.vxg");
    splitPath(folder, "c.vxg", name);
    EXPECT_EQ(folder, "");
    EXPECT_EQ(name, "c.vxg");
    splitPath(folder, "C:\\sims\\", name);
    EXPECT_EQ(folder, "C:\\sims\\");
    EXPECT_EQ(name, "");

    EXPECT_EQ(toNativeSeparators("a\\b/c\\d.vxg"), "a/b/c/d.vxg");
}

TEST(CreateDirectories, MakesEveryFolderOfThePath) {
    test::TempDir dir;
    EXPECT_TRUE(createDirectories(dir.path() + "/a/b c/\xc3\xa9t\xc3\xa9/file_####.vxg"));
    EXPECT_TRUE(sys::isFolder(dir.file("a/b c/\xc3\xa9t\xc3\xa9")));
    EXPECT_FALSE(sys::isFolder(dir.file("a/b c/\xc3\xa9t\xc3\xa9/file_####.vxg")));
    // Windows separators, and folders that exist already.
    EXPECT_TRUE(createDirectories(dir.path() + "\\a\\x\\"));
    EXPECT_TRUE(sys::isFolder(dir.file("a/x")));
    EXPECT_TRUE(createDirectories(dir.path() + "/a/x/"));
}

TEST(CreateDirectories, OnlyInvalidNamesFail) {
    test::TempDir dir;
    // A file in the way is a refusal of the system, not a bad name.
    test::writeBytes(dir.file("f"), {1});
    EXPECT_TRUE(createDirectories(dir.path() + "/f/g/h.vxg"));
    EXPECT_FALSE(sys::isFolder(dir.file("f/g")));
    EXPECT_FALSE(createDirectories(dir.path() + "/" + std::string(300, 'n') + "/h.vxg"));
    EXPECT_FALSE(createDirectories(dir.path() + "/" + std::string(5000, 'n')));
    EXPECT_FALSE(createDirectories(dir.path() + std::string("/a\0b/c", 6)));
}
