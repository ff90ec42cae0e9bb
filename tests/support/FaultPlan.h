// Injected file faults for tests: a plan of which file calls fail, with which errno, or come
// back short; installed while the plan lives.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/sys/FileAccess.h"

namespace vaporix::test {

class FaultPlan : public sys::FileFaults {
public:
    FaultPlan();
    ~FaultPlan() override;
    FaultPlan(const FaultPlan&) = delete;
    FaultPlan& operator=(const FaultPlan&) = delete;

    /// The `nth` call (from 1) of `op` on a path containing `where` fails with `err`; with
    /// `times` > 1 that many calls in a row from there do.
    FaultPlan& fail(sys::FileOp op, int nth, int err, const std::string& where = "",
                    int times = 1);
    /// Every call of `op` on a path containing `where` fails with `err`.
    FaultPlan& failAll(sys::FileOp op, int err, const std::string& where = "");
    /// Reads or writes move at most `limit` bytes per call.
    FaultPlan& shorten(sys::FileOp op, size_t limit);
    /// Folder listings come back in reverse name order (as some file systems give them).
    FaultPlan& reverseListings();

    /// Calls of `op` seen so far (failed ones included).
    int calls(sys::FileOp op) const;
    /// Sizes asked of each Write call that went through, in order.
    std::vector<size_t> writeSizes() const;
    /// Pauses asked for between attempts, in milliseconds; none was slept.
    std::vector<int> pauses() const;

    int before(sys::FileOp op, const std::string& path, size_t& size) override;
    void listed(const std::string& folder, std::vector<sys::FolderEntry>& entries) override;
    void pause(int milliseconds) override;

private:
    struct Rule {
        sys::FileOp op;
        std::string where;
        int first;  // 0: every call
        int times;
        int err;
        int seen = 0;
    };
    mutable std::mutex mLock;
    std::vector<Rule> mRules;
    std::map<sys::FileOp, size_t> mLimits;
    std::map<sys::FileOp, int> mCalls;
    std::vector<size_t> mWrites;
    std::vector<int> mPauses;
    bool mReverse = false;
    sys::FileFaults* mBefore;
};

}  // namespace vaporix::test
