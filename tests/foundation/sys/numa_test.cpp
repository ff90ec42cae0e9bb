// NUMA node enumeration and processor lists, and the thread calls of the platform layer.
#include "foundation/sys/numa.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>

#include "TestSupport.h"
#include "foundation/sys/threads.h"

using namespace vaporix::sys;

TEST(Numa, ParsesProcessorLists) {
    std::vector<int> p;
    ASSERT_TRUE(parseProcessorList("0-3,8,10-11\n", p));
    EXPECT_EQ(p, (std::vector<int>{0, 1, 2, 3, 8, 10, 11}));
    ASSERT_TRUE(parseProcessorList("", p));
    EXPECT_TRUE(p.empty());
    ASSERT_TRUE(parseProcessorList("5,5,4", p));
    EXPECT_EQ(p, (std::vector<int>{4, 5}));
    for (const char* bad : {"3-1", "a", "1,,2", "-4", "1-", "99999999"})
        EXPECT_FALSE(parseProcessorList(bad, p)) << bad;
}

TEST(Numa, EnumeratesNodesInOrder) {
    vaporix::test::TempDir dir;
    auto node = [&](const std::string& name, const std::string& list) {
        mkdir(dir.file(name).c_str(), 0755);
        const std::string text = list + "\n";
        vaporix::test::writeBytes(dir.file(name + "/cpulist"),
                                  std::vector<uint8_t>(text.begin(), text.end()));
    };
    node("node1", "4-7");
    node("node0", "0-3");
    node("node2", "");  // memory only
    node("nodefoo", "9");
    mkdir(dir.file("power").c_str(), 0755);
    const auto nodes = enumerateNumaNodes(dir.path());
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_EQ(nodes[0].id, 0);
    EXPECT_EQ(nodes[0].processors, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(nodes[1].id, 1);
    EXPECT_EQ(nodes[1].processors.size(), 4u);
    EXPECT_TRUE(nodes[2].processors.empty());
    EXPECT_TRUE(enumerateNumaNodes(dir.file("missing")).empty());
    // This machine has at least one node with processors, or none at all.
    for (const auto& n : enumerateNumaNodes()) EXPECT_GE(n.id, 0);
}

TEST(Threads, StartNameAndPinAThread) {
    struct Seen {
        std::string name;
        std::atomic<int> ran{0};
    } seen;
    ThreadHandle handle;
    ASSERT_TRUE(startThread(
        [](void* arg) {
            auto* s = static_cast<Seen*>(arg);
            setCurrentThreadName("a-rather-long-thread-name");
            s->name = currentThreadName();
            s->ran.store(1);
        },
        &seen, 0, handle));
    joinThread(handle);
    EXPECT_FALSE(handle.valid);
    EXPECT_EQ(seen.ran.load(), 1);
    EXPECT_EQ(seen.name, "a-rather-long-t");  // 15 characters

    ProcessorMask mask;
    ASSERT_TRUE(getProcessAffinity(mask));
    EXPECT_GE(countProcessors(mask), 1);
    EXPECT_LE(countProcessors(mask), processorCount() > 0 ? 1 << 16 : 0);
    ThreadHandle self;
    self.id = pthread_self();
    self.valid = true;
    EXPECT_TRUE(setThreadAffinity(self, mask));
    EXPECT_FALSE(setThreadAffinity(self, ProcessorMask{0}));  // no processor at all
    int first = 0;
    while (!((mask[static_cast<size_t>(first) / 64] >> (first % 64)) & 1)) ++first;
    EXPECT_TRUE(setThreadGroupAffinity(self, first / 64, uint64_t(1) << (first % 64)));
    EXPECT_TRUE(setThreadAffinity(self, mask));  // back to the whole mask
    setThreadPriority(currentThreadId(), false);
}
