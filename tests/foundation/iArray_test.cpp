// Growth rule, failure semantics and element handling of the containers.
#include "foundation/iArray.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/SequenceBlock.h"
#include "foundation/iBitArray.h"
#include "foundation/iString.h"

using namespace vaporix;

TEST(iArray, GrowthRuleAddsAQuarterButAtLeastEight) {
    iArray<int> a;
    ASSERT_EQ(a.resize(1), 1);
    EXPECT_EQ(a.capacity, 9);  // 1 + max(1 / 4, 8)
    ASSERT_EQ(a.resize(100), 1);
    EXPECT_EQ(a.capacity, 125);
    ASSERT_EQ(a.resize(200, true), 1);
    EXPECT_EQ(a.capacity, 200);  // exact
    iArray<int> g(0, 2);
    g.resize(100);
    EXPECT_EQ(g.capacity, 150);
}

TEST(iArray, ShrinkKeepsCapacityAndSameCountIsANoOp) {
    iArray<int> a;
    const int fill = 7;
    a.resize(20, &fill);
    int* before = a.data;
    const int cap = a.capacity;
    EXPECT_EQ(a.resize(20), 1);
    EXPECT_EQ(a.data, before);
    a.resize(3);
    EXPECT_EQ(a.count, 3);
    EXPECT_EQ(a.capacity, cap);
    EXPECT_EQ(a[2], 7);
}

TEST(iArray, FailedAllocationLeavesTheArrayEmpty) {
    iArray<float> a;
    a.resize(10);
    setArrayAllocationLimit(1024);
    EXPECT_EQ(a.resize(1000), 0);
    setArrayAllocationLimit(0);
    EXPECT_EQ(a.count, 0);
    EXPECT_EQ(a.capacity, 0);
    EXPECT_EQ(a.data, nullptr);
    // An element count whose byte size overflows fails the same way.
    iArray<double, unsigned long long> huge;
    EXPECT_EQ(huge.resize(~0ull / 4), 0);
    EXPECT_EQ(huge.count, 0u);
}

TEST(iArray, RegrownPlainElementsAreZeroAgain) {
    // Growing within the old capacity reuses memory that held values: new elements are T().
    iArray<float> a;
    const float seven = 7;
    a.resize(20, &seven);
    a.resize(4);
    ASSERT_EQ(a.resize(20), 1);
    EXPECT_EQ(a[3], 7.0f);
    for (int i = 4; i < 20; ++i) EXPECT_EQ(a[i], 0.0f) << i;
    iArray<int*, long long> p;
    p.resize(3);
    EXPECT_EQ(p[2], nullptr);
}

TEST(iArray, GrowthNearTheTopOfTheIndexTypeStaysInRange) {
    // The extra room of the growth rule would pass the largest int; the request fails cleanly
    // (the limit stands in for a machine without two gigabytes to spare).
    setArrayAllocationLimit(size_t(1) << 20);
    iArray<uint8_t> a;
    a.resize(5);
    EXPECT_EQ(a.resize(2147483647 - 3), 0);
    setArrayAllocationLimit(0);
    EXPECT_EQ(a.count, 0);
    EXPECT_EQ(a.capacity, 0);
}

TEST(iArray, ReserveExactAndFree) {
    iArray<int> a;
    a.resize(5);
    EXPECT_EQ(a.reserveExact(12), 1);
    EXPECT_EQ(a.count, 0);
    EXPECT_EQ(a.capacity, 12);
    EXPECT_EQ(a.reserveExact(0), 0);
    EXPECT_EQ(a.capacity, 0);
    a.append(3);
    a.free();
    EXPECT_EQ(a.capacity, 0);
    EXPECT_EQ(a.data, nullptr);
}

TEST(iArray, RemoveRangeWithAndWithoutOrder) {
    iArray<int> a;
    for (int i = 0; i < 8; ++i) a.append(i);
    iArray<int> b(a);
    a.removeRange(2, 2, true);
    EXPECT_EQ((std::vector<int>(a.begin(), a.end())), (std::vector<int>{0, 1, 4, 5, 6, 7}));
    b.removeRange(2, 2, false);
    EXPECT_EQ((std::vector<int>(b.begin(), b.end())), (std::vector<int>{0, 1, 6, 7, 4, 5}));
    // A hole that reaches into the tail moves only what lies behind it.
    iArray<int> c(b);
    c.removeRange(4, 2, false);
    EXPECT_EQ((std::vector<int>(c.begin(), c.end())), (std::vector<int>{0, 1, 6, 7}));
    EXPECT_EQ(a.find(5), 3);
    EXPECT_EQ(a.find(2), -1);
}

TEST(iArray, HoldsObjectsAndAppendsFromItself) {
    iArray<std::string> s;
    const std::string fill = "x";
    s.resize(3, &fill);
    s.append(s[0] + "y");
    s.appendArray(s);
    ASSERT_EQ(s.count, 8);
    EXPECT_EQ(s[3], "xy");
    EXPECT_EQ(s[7], "xy");
    iArray<std::string> moved(std::move(s));
    EXPECT_EQ(s.count, 0);
    EXPECT_EQ(moved.count, 8);
}

TEST(iBitArray, SetGetAndInitialValue) {
    iBitArray<> bits(70);
    bits.set(0);
    bits.set(33);
    bits.set(69);
    EXPECT_TRUE(bits[33]);
    EXPECT_FALSE(bits[34]);
    EXPECT_EQ(bits.countSet(), 3);
    bits.clear(33);
    EXPECT_EQ(bits.countSet(), 2);
    iBitArray<true> ones(5);
    ones.resize(40);
    EXPECT_EQ(ones.countSet(), 40);
}

TEST(iString, FormatAndCase) {
    iString s = iString::format("%s_%04d", "Fire", 12);
    EXPECT_EQ(s, "Fire_0012");
    s.appendFormat(".%s", "VXG");
    EXPECT_TRUE(s.lower().endsWith(".vxg"));
    EXPECT_TRUE(s.startsWith("Fire"));
}

TEST(SequenceBlockList, ElementsKeepTheirAddresses) {
    SequenceBlockList<int> list;
    int* first = &list.push(1);
    for (int i = 2; i <= 25; ++i) list.push(i);
    EXPECT_EQ(first, &list.at(0));
    EXPECT_EQ(list.size(), 25);
    EXPECT_EQ(list.at(24), 25);
    int sum = 0;
    list.forEach([&](int v) { sum += v; });
    EXPECT_EQ(sum, 325);
}
