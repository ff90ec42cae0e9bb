// Resolution of a cache path argument that may be a frame pattern.
#pragma once

#include <cstdint>
#include <string>

#include "Command.h"
#include "cache/VaporixFrameData.h"

namespace vaporix::cli {

/// The `--frame N` option every subcommand that reads one cache frame takes.
inline OptionSpec frameOption() { return {"--frame", 1}; }

/// Resolves `path` to one file to read: a frame pattern in the file name (`smoke_####.vxg`,
/// `%04d`, `<frame04>`) to the file of frame `--frame` as frame loading finds it, or to the
/// sequence's first frame when no frame is given; any other path as it is (a `#` in a folder
/// name alone does not make a sequence here). @return EXIT_OK with `file` set, or the exit
/// status after a message.
int resolveCacheArg(const char* command,
                    const std::string& path,
                    const Args& args,
                    std::string& file);

/// The `--channel-map MAP` option of commands that read foreign caches (.vdb, .f3d).
inline OptionSpec channelMapOption() { return {"--channel-map", 1}; }

/// The channel map a foreign cache is read with: `--channel-map` when given, else the default
/// map of the sequence `pattern` (empty for .vxg and other files).
std::string channelMapFor(const Args& args, const std::string& pattern);

/// Loads the side modules once (beside the tool and in $LUMO_MODULE_PATH) and hands them the
/// job engine's threads.
void loadToolSideModules();

/// Prints the warnings a loaded frame calls for (a downsampled foreign grid) on stderr.
void reportFrameWarnings(const char* command, const VaporixFrameData& frame);

/// "PATH: <what the status means> (status N)", with the user message of the foreign readers'
/// statuses where they have one.
std::string loadFailureText(const std::string& path, int status);

/// The file a frame is written to: `path` with its frame patterns replaced by `frame`, and
/// `\` separators turned into `/` (a plain name stays as it is).
std::string cacheOutputPath(const std::string& path, int32_t frame);

}  // namespace vaporix::cli
