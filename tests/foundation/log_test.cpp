// The log file's name and "#" rule, and the message function's muting.
#include "foundation/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "TestSupport.h"

using namespace vaporix;
using vaporix::test::LogRecorder;
using vaporix::test::ScopedEnv;
using vaporix::test::TempDir;

namespace {}  // namespace

TEST(Log, WritesToThePidFileAndStripsTheHash) {
    TempDir dir;
    ScopedEnv logDir("LUMO_LOG_DIR", dir.path().c_str());
    const std::string expected = dir.path() + "/lumo_dbg_log_" + std::to_string(getpid());
    EXPECT_EQ(lumoLogPath(), expected);
    {
        LogRecorder rec;
        lumoLog("plain %d\n", 1);
        lumoLog("#hashed %s\n", "two");
        EXPECT_EQ(rec.text(), "plain 1\nhashed two\n");
    }
    const auto bytes = test::readBytes(expected);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "plain 1\nhashed two\n");
    // A folder given with its trailing separator names the same file.
    ScopedEnv slash("LUMO_LOG_DIR", (dir.path() + "/").c_str());
    EXPECT_EQ(lumoLogPath(), expected);
}

TEST(Log, DebuggerOutputTakesTheHashedLinesAndAtMost4096Bytes) {
    TempDir dir;
    ScopedEnv logDir("LUMO_LOG_DIR", dir.path().c_str());
    {
        ScopedEnv off("LUMO_DEBUG_OUTPUT", nullptr);
        testing::internal::CaptureStderr();
        lumoLog("#quiet\n");
        lumoDebugOutput("quiet too\n");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
    ScopedEnv on("LUMO_DEBUG_OUTPUT", "1");
    testing::internal::CaptureStderr();
    lumoLog("plain\n");
    lumoLog("#%s %d\n", "marked", 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "#marked 3\n");
    testing::internal::CaptureStderr();
    lumoDebugOutput("%s", std::string(5000, 'x').c_str());
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_GE(out.size(), 4095u);
    EXPECT_LE(out.size(), 4096u);
    const auto bytes = test::readBytes(lumoLogPath());
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "quiet\nplain\nmarked 3\n");
}

TEST(Message, MutedBitOnlyLogs) {
    int shown = 0;
    setMessageHandler([&](const std::string& title, const std::string& text, int kind) {
        ++shown;
        EXPECT_EQ(title, "Lumo Warning");
        EXPECT_EQ(text, "cache missing");
        EXPECT_EQ(kind, MESSAGE_WARNING);
        return true;  // the user ticks "don't show again"
    });
    LogRecorder rec;
    iArray<int> dontshow;
    showMessage("cache missing", 37, MESSAGE_WARNING, &dontshow);
    ASSERT_EQ(dontshow.count, 2);
    EXPECT_EQ(dontshow[1], 1 << 5);
    showMessage("cache missing", 37, MESSAGE_WARNING, &dontshow);
    EXPECT_EQ(shown, 1);
    EXPECT_EQ(rec.text(), "Message (Muted): cache missing\n");
    setMessageHandler({});
    EXPECT_EQ(messageTitle(MESSAGE_ERROR), "Lumo Error");
    EXPECT_EQ(messageTitle(7), "Lumo Information");
}
