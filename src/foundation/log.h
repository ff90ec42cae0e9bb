// The log file, the debugger output and the user message function.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "foundation/iArray.h"

namespace vaporix {

/// Appends a printf-style text to `lumo_dbg_log_<pid>` in `$LUMO_LOG_DIR` (or the temp folder),
/// under one process-wide mutex. A format that begins with "#" is written without that character
/// and also goes, with it, to the debugger output.
void lumoLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// Prints to the debugger output only (stderr when `LUMO_DEBUG_OUTPUT=1`), at most 4096 bytes.
void lumoDebugOutput(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// Path of this process's log file.
std::string lumoLogPath();

/// Observer of every text written to the log, after the "#" rule (tests record with it).
/// Pass an empty function to remove it. Called under the log mutex.
using LogSink = std::function<void(const std::string& text)>;
void setLogSink(LogSink sink);

/// Kinds of user message.
enum MessageKind : int { MESSAGE_INFORMATION = 0, MESSAGE_WARNING = 1, MESSAGE_ERROR = 2 };

/// Shows a message to the user. Receives the title ("Lumo Error", ...), the text and the kind;
/// returns true when the user asked not to see this message again.
using MessageHandler =
    std::function<bool(const std::string& title, const std::string& text, int kind)>;

/// Installs the handler (tools print to stderr, the GUI shows a dialog, tests record). An empty
/// function restores the default, which prints "<title>: <text>" to stderr.
void setMessageHandler(MessageHandler handler);

/// "Lumo" followed by " Error", " Warning" or " Information".
std::string messageTitle(int kind);

/// The message function. Bit `bit` of `dontshow` (word bit / 32) mutes the message: then only
/// "Message (Muted): %s\n" goes to the log. Otherwise the handler shows it, and when the user mutes
/// it the bit is set (growing `dontshow` as needed). A null `dontshow` or negative bit never mutes.
void showMessage(const std::string& text, int bit, int kind, iArray<int>* dontshow);

}  // namespace vaporix
