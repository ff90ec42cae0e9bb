// The progress and abort interface that long passes report to.
#pragma once

#include <cstdint>

namespace vaporix {
namespace LUtils {

/// What a long pass may ask of whoever waits for it: progress reports, a chance to keep the
/// user interface alive, and the user's abort. Every operation has a do-nothing default, so a
/// caller overrides only what it needs.
class ProgressCallback {
public:
    virtual ~ProgressCallback() = default;
    /// Units of work done so far in the current pass.
    virtual void setProgress(uint64_t value) { (void)value; }
    /// Lets the user interface live while the caller waits.
    virtual void pump() {}
    /// Non-zero when the user asked to stop.
    virtual int checkAbort() { return 0; }
    /// Whether the waiting thread is to serve window messages (bulk passes only).
    virtual bool servesMessages() { return false; }
    /// An information text of `level` and `code` (printf-style).
    virtual void info(int level, int code, const char* format, ...)
        __attribute__((format(printf, 4, 5))) {
        (void)level;
        (void)code;
        (void)format;
    }
    /// Start and end of a task.
    virtual void begin() {}
    virtual void end() {}
};

}  // namespace LUtils

using LUtils::ProgressCallback;

}  // namespace vaporix
