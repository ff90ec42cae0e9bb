// Helpers shared by all test suites: temporary folders, a recording log sink, file helpers.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace vaporix::test {

/// A fresh folder under the temp directory, removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return mPath; }
    /// path() + "/" + name.
    std::string file(const std::string& name) const;

private:
    std::string mPath;
};

/// Records everything written to the log while it lives.
class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;
    /// All texts, concatenated in order.
    std::string text() const;
    bool contains(const std::string& needle) const;
    void clear();

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mTexts;
};

/// Sets an environment variable (null: unsets it) for one scope and restores what was there.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string mName;
    std::string mOld;
    bool mHad = false;
};

std::vector<uint8_t> readBytes(const std::string& path);
void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes);
std::string testDataPath(const std::string& name);

}  // namespace vaporix::test
