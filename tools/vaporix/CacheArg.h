// Resolution of a cache path argument that may be a frame pattern.
#pragma once

#include <string>

#include "Command.h"

namespace vaporix::cli {

/// The `--frame N` option every subcommand that reads one cache frame takes.
inline OptionSpec frameOption() { return {"--frame", 1}; }

/// Resolves `path` to one file: a plain file as it is; a frame pattern (`smoke_####.vxg`,
/// `%04d`, `<frame04>`) to the file of frame `--frame`, or to the sequence's first frame when no
/// frame is given. @return EXIT_OK with `file` set, or the exit status after a message.
int resolveCacheArg(const char* command, const std::string& path, const Args& args,
                    std::string& file);

}  // namespace vaporix::cli
