// Tests of the frame list parser: forms, steps, limits and malformed lists.
#include "playback/FrameList.h"

#include <gtest/gtest.h>

using namespace vaporix;

namespace {

std::vector<double> parse(const std::string& text) {
    std::vector<double> frames;
    std::string error;
    EXPECT_TRUE(parseFrameList(text, frames, error)) << text << ": " << error;
    return frames;
}

bool refused(const std::string& text) {
    std::vector<double> frames;
    std::string error;
    const bool ok = parseFrameList(text, frames, error);
    return !ok && !error.empty();
}

}  // namespace

TEST(FrameList, Forms) {
    EXPECT_EQ(parse("3-6"), (std::vector<double>{3, 4, 5, 6}));
    EXPECT_EQ(parse("7"), (std::vector<double>{7}));
    EXPECT_EQ(parse("1, 5,2.5 ,9"), (std::vector<double>{1, 5, 2.5, 9}));
    EXPECT_EQ(parse("0-2x0.5"), (std::vector<double>{0, 0.5, 1, 1.5, 2}));
    EXPECT_EQ(parse("1-4x2"), (std::vector<double>{1, 3}));
    EXPECT_EQ(parse("-3--1"), (std::vector<double>{-3, -2, -1}));
    EXPECT_EQ(parse("1-2,10"), (std::vector<double>{1, 2, 10}));
    EXPECT_EQ(parse("5-5"), (std::vector<double>{5}));
}

TEST(FrameList, StepsDoNotDrift) {
    const std::vector<double> f = parse("0-100x0.1");
    ASSERT_EQ(f.size(), 1001u);
    EXPECT_DOUBLE_EQ(f.back(), 100.0);
    EXPECT_DOUBLE_EQ(f[333], 33.3);
}

TEST(FrameList, MalformedListsAreRefused) {
    for (const char* bad : {"", ",", "1,", "a", "1-", "-", "3-1", "1-5x0", "1-5x-1", "1-5x",
                            "1e5", "inf", "nan", "1..2", "1-2-3", "1 2", "0x10", "99999999",
                            "0-9000000x1", "1,,2"})
        EXPECT_TRUE(refused(bad)) << bad;
}

TEST(FrameList, SizeIsCheckedBeforeFilling) {
    EXPECT_TRUE(refused("0-10000000x0.001"));
    EXPECT_EQ(parse("0-999999").size(), 1000000u);
    EXPECT_TRUE(refused("0-999999,5"));
}
