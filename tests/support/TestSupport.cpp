// Shared test helpers.
#include "TestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "foundation/log.h"

namespace vaporix::test {

TempDir::TempDir() {
    std::string base = std::filesystem::temp_directory_path().string() + "/vaporix_test_XXXXXX";
    std::vector<char> buf(base.begin(), base.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
    mPath = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(mPath, ec);
}

std::string TempDir::file(const std::string& name) const { return mPath + "/" + name; }

LogRecorder::LogRecorder() {
    setLogSink([this](const std::string& text) {
        std::lock_guard<std::mutex> lock(mMutex);
        mTexts.push_back(text);
    });
}

LogRecorder::~LogRecorder() { setLogSink({}); }

std::string LogRecorder::text() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::string all;
    for (const auto& t : mTexts) all += t;
    return all;
}

bool LogRecorder::contains(const std::string& needle) const {
    return text().find(needle) != std::string::npos;
}

void LogRecorder::clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mTexts.clear();
}

std::vector<uint8_t> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

std::string testDataPath(const std::string& name) {
#ifdef VAPORIX_TEST_DATA_DIR
    return std::string(VAPORIX_TEST_DATA_DIR) + "/" + name;
#else
    return name;
#endif
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : mName(name) {
    if (const char* old = std::getenv(name)) {
        mHad = true;
        mOld = old;
    }
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
    if (mHad)
        setenv(mName.c_str(), mOld.c_str(), 1);
    else
        unsetenv(mName.c_str());
}

}  // namespace vaporix::test
