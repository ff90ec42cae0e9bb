#include "FaultPlan.h"

#include <algorithm>

namespace vaporix::test {

FaultPlan::FaultPlan() { mBefore = sys::setFileFaults(this); }

FaultPlan::~FaultPlan() { sys::setFileFaults(mBefore); }

FaultPlan& FaultPlan::fail(sys::FileOp op, int nth, int err, const std::string& where, int times) {
    std::lock_guard<std::mutex> guard(mLock);
    mRules.push_back(Rule{op, where, nth, times, err});
    return *this;
}

FaultPlan& FaultPlan::failAll(sys::FileOp op, int err, const std::string& where) {
    std::lock_guard<std::mutex> guard(mLock);
    mRules.push_back(Rule{op, where, 0, 0, err});
    return *this;
}

FaultPlan& FaultPlan::shorten(sys::FileOp op, size_t limit) {
    std::lock_guard<std::mutex> guard(mLock);
    mLimits[op] = limit;
    return *this;
}

FaultPlan& FaultPlan::reverseListings() {
    std::lock_guard<std::mutex> guard(mLock);
    mReverse = true;
    return *this;
}

int FaultPlan::calls(sys::FileOp op) const {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mCalls.find(op);
    return it == mCalls.end() ? 0 : it->second;
}

std::vector<size_t> FaultPlan::writeSizes() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mWrites;
}

std::vector<int> FaultPlan::pauses() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mPauses;
}

int FaultPlan::before(sys::FileOp op, const std::string& path, size_t& size) {
    std::lock_guard<std::mutex> guard(mLock);
    ++mCalls[op];
    int err = 0;
    for (Rule& r : mRules) {
        if (r.op != op || path.find(r.where) == std::string::npos) continue;
        const int n = ++r.seen;
        if (r.first == 0 || (n >= r.first && n < r.first + r.times)) err = err ? err : r.err;
    }
    if (err) return err;
    auto limit = mLimits.find(op);
    if (limit != mLimits.end() && size > limit->second) size = limit->second;
    if (op == sys::FileOp::Write) mWrites.push_back(size);
    return 0;
}

void FaultPlan::listed(const std::string&, std::vector<sys::FolderEntry>& entries) {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mReverse) return;
    std::sort(entries.begin(), entries.end(),
              [](const sys::FolderEntry& a, const sys::FolderEntry& b) { return a.name > b.name; });
}

void FaultPlan::pause(int milliseconds) {
    std::lock_guard<std::mutex> guard(mLock);
    mPauses.push_back(milliseconds);
}

}  // namespace vaporix::test
