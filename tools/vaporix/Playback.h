// Scene frames on the command line: --frame F through playback, with --fps, --params and --set.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "playback/FramePlayback.h"
#include "standalone/GridObject.h"

namespace vaporix::cli {

/// The options every command that takes a cache sequence accepts for playback.
std::vector<OptionSpec> playbackOptions();
/// Help lines of those options.
extern const char* const PLAYBACK_HELP;

/// A grid object of the stand-alone host that plays a cache back: its parameters come from
/// --params and --set, its ticks per frame from --fps (4800 ticks a second).
class CliPlayback : public IPlaybackHost {
public:
    CliPlayback();
    ~CliPlayback() override;

    /// Reads --fps, --params and --set and checks the time bend's values. `pattern` is the
    /// cache path. @return EXIT_OK, or the exit status after a message.
    int setup(const char* command, const Args& args, const std::string& pattern);

    /// Scene frame `frame` (may be fractional) in host ticks: round(frame * ticks per frame).
    /// @return false when it does not fit the tick range.
    bool sceneTicks(double frame, int& ticks) const;

    /// Loads the frame of scene tick `t`. @return the frame, or null (result in `result`).
    VaporixFrameData* load(int t, int mode, LoadFrameResult& result);

    /// What the time bend and the frame search make of scene tick `t`, without loading.
    struct Plan {
        int cacheTime = NO_TIME;
        int kind = 0;  ///< 0 plain, 1 fraction, 2 loop
        int a = 0, b = 0;
        float weight = 0.0f;
        std::vector<std::string> files;
    };
    Plan plan(int t);

    GridObject& object() { return mObject; }
    FramePlayback& playback() { return *mPlayback; }
    int fps() const { return mFps; }

    // IPlaybackHost
    bool hasNode() const override { return true; }
    int ticksPerFrame() const override { return TICKS_PER_SECOND / mFps; }
    VaporixParams& params() override { return mObject.params(); }
    std::string getCachePath(int kind) const override;
    bool hasCache(int kind) const override { return kind == 1 || kind == 100 || kind == 101; }

private:
    GridObject mObject;
    std::unique_ptr<FramePlayback> mPlayback;
    std::string mPattern;
    int mFps = 30;
};

/// For info, dump and render: the frame a cache argument gives. Without --frame the file of
/// the sequence's first frame (or the plain file) is read as it is; with --frame F the scene
/// frame F goes through playback. On success `frame` points into `playback` (or into `own`)
/// and `label` names it for messages. @return EXIT_OK or the exit status after a message.
int loadCacheArgFrame(const char* command,
                      const std::string& pattern,
                      const Args& args,
                      bool headerOnly,
                      CliPlayback& playback,
                      VaporixFrameData& own,
                      VaporixFrameData*& frame,
                      std::string& label);

}  // namespace vaporix::cli
