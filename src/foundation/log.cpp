// Log file, debugger output and the message function.
#include "foundation/log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "foundation/iString.h"

namespace vaporix {

namespace {

// These live for the whole process (never destroyed) so that objects destroyed at exit may log.
std::mutex& logMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}

LogSink& logSink() {
    static LogSink* sink = new LogSink;
    return *sink;
}

std::mutex& handlerMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}

MessageHandler& messageHandler() {
    static MessageHandler* handler = new MessageHandler;
    return *handler;
}

std::string logFolder() {
    const char* dir = std::getenv("LUMO_LOG_DIR");
    if (!dir || !*dir) dir = std::getenv("TMPDIR");
    if (!dir || !*dir) dir = "/tmp";
    return dir;
}

void writeDebugOutput(const char* text) {
    const char* flag = std::getenv("LUMO_DEBUG_OUTPUT");
    if (!flag || std::strcmp(flag, "1") != 0) return;
    // The debugger channel takes at most 4096 bytes a call.
    std::fwrite(text, 1, strnlen(text, 4096), stderr);
}

}  // namespace

std::string lumoLogPath() {
    const std::string dir = logFolder();
    const char* sep = (!dir.empty() && dir.back() == '/') ? "" : "/";
    return iString::format("%s%slumo_dbg_log_%d", dir.c_str(), sep, static_cast<int>(getpid()));
}

void setLogSink(LogSink sink) {
    std::lock_guard<std::mutex> lock(logMutex());
    logSink() = std::move(sink);
}

void lumoLog(const char* fmt, ...) {
    if (!fmt) return;
    va_list args;
    va_start(args, fmt);
    const bool toDebugger = fmt[0] == '#';
    const iString full = iString::vformat(fmt, args);
    va_end(args);
    const std::string text = toDebugger ? full.substr(1) : static_cast<const std::string&>(full);

    std::lock_guard<std::mutex> lock(logMutex());
    if (FILE* f = std::fopen(lumoLogPath().c_str(), "ab")) {
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    }
    if (toDebugger) writeDebugOutput(full.c_str());
    if (logSink()) logSink()(text);
}

void lumoDebugOutput(const char* fmt, ...) {
    char buffer[4096];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    writeDebugOutput(buffer);
}

void setMessageHandler(MessageHandler handler) {
    std::lock_guard<std::mutex> lock(handlerMutex());
    messageHandler() = std::move(handler);
}

std::string messageTitle(int kind) {
    switch (kind) {
        case MESSAGE_ERROR: return "Lumo Error";
        case MESSAGE_WARNING: return "Lumo Warning";
        default: return "Lumo Information";
    }
}

void showMessage(const std::string& text, int bit, int kind, iArray<int>* dontshow) {
    const int word = bit >= 0 ? bit / 32 : -1;
    const uint32_t mask = bit >= 0 ? (1u << (bit % 32)) : 0u;
    if (dontshow && word >= 0 && word < dontshow->count &&
        (static_cast<uint32_t>(dontshow->data[word]) & mask)) {
        lumoLog("Message (Muted): %s\n", text.c_str());
        return;
    }
    MessageHandler handler;
    {
        std::lock_guard<std::mutex> lock(handlerMutex());
        handler = messageHandler();
    }
    const std::string title = messageTitle(kind);
    bool mute = false;
    if (handler) {
        mute = handler(title, text, kind);
    } else {
        std::fprintf(stderr, "%s: %s\n", title.c_str(), text.c_str());
    }
    if (mute && dontshow && word >= 0) {
        const int zero = 0;
        if (word >= dontshow->count && !dontshow->resize(word + 1, &zero)) return;
        dontshow->data[word] = static_cast<int>(static_cast<uint32_t>(dontshow->data[word]) | mask);
    }
}

}  // namespace vaporix
