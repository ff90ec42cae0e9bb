// The built-in sample data: a procedural, deterministic fire-and-smoke sequence (fuel burning
// into heat and smoke, carried by a rising, swirling flow) written as cache frames.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vaporix {

class VaporixFrameData;
namespace LUtils {
class ProgressCallback;
}

/// What the sample sequence simulates and how its frames are stored.
struct DemoSettings {
    /// Cells along x, y and z (z is up), each DEMO_MIN_AXIS to DEMO_MAX_AXIS.
    int size[3] = {96, 96, 128};
    /// Frames written, numbered from 1.
    int frames = 12;
    /// Frames simulated before frame 1, so that the first frame already shows a burning fire.
    int warmupFrames = 8;
    /// Transport steps per frame.
    int substeps = 3;
    /// The burner at the base that feeds fuel and heat. Without it the grid's contents are only
    /// carried by the flow (and keep burning where they are hot and have fuel).
    bool burner = true;
    /// Jobs of the parallel passes (-1: the global thread count). Results never depend on it.
    int threads = -1;
    /// Codec settings of the written grid channels (see SGCompressor).
    int quantBits = 16;
    int passes = 2;
};

constexpr int DEMO_MIN_AXIS = 8;
constexpr int DEMO_MAX_AXIS = 1024;
/// Most cells a sample grid may have (the simulation keeps about 20 floats a cell).
constexpr int64_t DEMO_MAX_CELLS = int64_t(1) << 26;
/// Most frames (warm-up included) a sequence may simulate.
constexpr int DEMO_MAX_FRAMES = 10000;
/// The channels of every frame: temperature, smoke, velocity x, y, z (cells per second), fuel.
constexpr int DEMO_CHANNELS[6] = {1, 2, 4, 5, 6, 10};
/// Name pattern of the written frames inside the output folder.
constexpr const char* DEMO_FILE_PATTERN = "fire_####.vxg";

/// The state of the simulation and its step from frame to frame.
///
///     DemoSequence demo(settings);
///     demo.start();                      // warm-up: the state is frame 1
///     do { demo.fillFrame(frame); ... } while (demo.frameNumber() < n && demo.advance());
///
/// The flow is divergence free: the curl of a vector potential made of an axisymmetric plume
/// (upward core, inflow at the base, spreading with height) and rising swirls. Temperature, smoke
/// and fuel are carried by it with semi-Lagrangian steps; fuel burns where it is hot, turning
/// into heat and smoke; heat is lost faster with height; smoke slowly thins out.
class DemoSequence {
public:
    explicit DemoSequence(const DemoSettings& settings);
    ~DemoSequence();
    DemoSequence(const DemoSequence&) = delete;
    DemoSequence& operator=(const DemoSequence&) = delete;

    /// False when the settings are out of range or memory ran out; `error()` says why.
    bool isValid() const;
    const std::string& error() const { return mError; }
    const DemoSettings& settings() const { return mSettings; }

    /// Number of the frame that the state shows: 1 - warmupFrames after construction.
    int frameNumber() const { return mFrame; }
    /// Simulation time of the state in seconds: frameNumber / 30.
    double simTime() const;
    /// Runs the warm-up frames, so that the state is frame 1. @return false when invalid.
    bool start();
    /// Moves the state on by one frame. @return false when invalid.
    bool advance();

    /// The state's array of channel 1, 2, 4, 5, 6 or 10 (cells, x fastest); null for others.
    /// Velocities are those at the state's time. Writable, so that a caller may place contents
    /// of its own before advancing.
    float* channel(int ordinal);
    const float* channel(int ordinal) const;

    /// Fills an empty frame with the header (grid size, world-to-grid transform, frame number,
    /// time step, time, comment) and the encoded channels of the state.
    /// @return false when encoding or memory failed.
    bool fillFrame(VaporixFrameData& frame) const;

    /// World to grid of a sample grid: cells of one world unit, the grid centred on the origin
    /// in x and y and standing on z = 0. Twelve numbers in GridTransform's layout.
    static void gridTransformFor(const int size[3], float out[12]);

    /// Simulates and writes frames 1 to `settings.frames` as `folder`/fire_####.vxg (the folder
    /// is created). `paths` receives the written files in order. @return false with `error`
    /// set on bad settings, a failed write or a stop asked for by `progress`.
    static bool writeSequence(const DemoSettings& settings,
                              const std::string& folder,
                              std::vector<std::string>& paths,
                              std::string& error,
                              LUtils::ProgressCallback* progress = nullptr);

private:
    struct State;
    DemoSettings mSettings;
    std::string mError;
    int mFrame = 0;
    std::unique_ptr<State> mState;

    void computeVelocity(double time, float* const out[3]);
    void substep(double time, float dt, float blend);
};

}  // namespace vaporix
