// A grid object of the stand-alone renderer: frame loading, parameters, tables and shader setup.
#include "standalone/GridObject.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "foundation/FramePattern.h"
#include "playback/ParamJson.h"
#include "playback/ParamUpgrade.h"
#include "render/Blackbody.h"
#include "playback/ParamAssign.h"

namespace vaporix {

namespace {

/// The frame's channel ranges, as the table builders ask for them.
class FrameRanges : public IChannelRangeSource {
public:
    explicit FrameRanges(VaporixFrameData& frame) : mFrame(frame) {}
    bool getChannelRange(int channel, float& min, float& max) override {
        return mFrame.getChannelRange(channel, min, max);
    }

private:
    VaporixFrameData& mFrame;
};

/// The curves and gradients of a new object, for every channel; the plain parameters are left
/// as they are.
void fillDefaultCurves(VaporixParams& params) {
    for (int channel : {1, 2, 3, 10}) {
        ResetEmission(params, channel);
        ResetDiffuse(params, channel);
        ResetOpacity(params, channel);
    }
}

}  // namespace

// A new object has the default curves, as one made in a scene has.
GridObject::GridObject() : mParams(mStorage) { fillDefaultCurves(mParams); }

GridObject::~GridObject() { releaseFrame(); }

void GridObject::releaseFrame() {
    if (mShared) vaporix::releaseFrame(mFrame);
    mFrame = nullptr;
    mShared = false;
}

int GridObject::loadFrame(const std::string& pattern, int frame, std::string& error) {
    releaseFrame();
    VaporixFrameData* slot = nullptr;
    const int status = acquireShared(slot, frame, pattern.c_str(), channelMap.c_str(), true, true, false);
    if (status != LOAD_OK || !slot) {
        error = pattern + ": " + loadStatusText(status == LOAD_OK ? LOAD_BROKEN : status);
        return status == LOAD_OK ? LOAD_BROKEN : status;
    }
    mFrame = slot;
    mShared = true;
    displayName = pattern;
    // A plain file name serves any frame: its own frame number gives the time then. Only a
    // pattern in the file name makes a sequence (a '#' in a folder name does not).
    std::string folder, name;
    splitPath(folder, pattern, name);
    mTime =
        static_cast<double>(hasFramePattern(name) ? frame : slot->frameNumber) * TICKS_PER_FRAME;
    return LOAD_OK;
}

void GridObject::setFrame(VaporixFrameData* frame, int frameNumber) {
    releaseFrame();
    mFrame = frame;
    mTime = static_cast<double>(frameNumber) * TICKS_PER_FRAME;
}

bool GridObject::loadParams(const std::string& path,
                            std::vector<std::string>& warnings,
                            std::string& error) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    if (!in || !(text << in.rdbuf())) {
        error = path + ": cannot be read";
        return false;
    }
    std::string problem;
    if (!readParamsDocument(text.str(), mStorage, warnings, problem)) {
        error = path + ": " + problem;
        return false;
    }
    // A set without curves (written from a store that never had them) gets the defaults, as a
    // scene whose object has no emission curve does on load.
    if (mParams.getCount("epower_t.epower_t_p") == 0) fillDefaultCurves(mParams);
    const int version = mParams.getInt("version");
    if (version < PARAMS_VERSION) {
        UpgradeContext context;
        context.blackbodyLuminance = [](float kelvin) { return blackbodyLuminance(kelvin); };
        upgradeParams(mParams, version, context);
        warnings.push_back("upgraded a version " + std::to_string(version) + " set to " +
                           std::to_string(PARAMS_VERSION));
    }
    return true;
}

bool GridObject::applySetting(const std::string& assignment, std::string& error) {
    return applyParamAssignment(assignment, mStorage, mParams, error);
}

bool GridObject::prepare(std::string& error) {
    if (!mFrame) {
        error = "no frame to render";
        return false;
    }
    if (mFrame->getCellCount() <= 0) {
        error = "the grid is empty";
        return false;
    }
    FrameRanges ranges(*mFrame);
    mTables.setRanges(mParams, mTime, &ranges);
    ShadingInputs inputs;
    inputs.physicalScale = PhysicalScale(nullptr, mTime);
    inputs.sceneScale = SceneScale(objectToWorld.m);
    mTables.buildFrameTables(mParams, mTime, inputs);

    ShaderSetup setup;
    setup.objectToWorld = objectToWorld;
    setup.objectToWorldEnd = objectToWorld;
    setup.motionBlur = motionBlur;
    prepareWarnings.clear();

    // The texture slots; those of the displacement only when it is on.
    const bool displacementOn = mParams.getInt("displacement", mTime) != 0;
    for (int k = 0; k < TEXTURE_SLOTS; ++k) {
        mShader.textures[k].reset();
        const char* slot = textureSlotName(k);
        if (!slot || (k >= TEX_DISPL0 && !displacementOn)) continue;
        const std::string description = mParams.getString(slot, mTime);
        if (description.empty()) continue;
        std::string problem;
        mShader.textures[k] = parseTextureSpec(description, problem);
        if (!mShader.textures[k]) {
            error = std::string(slot) + ": " + problem;
            return false;
        }
    }
    setup.textures.emission = mShader.HasTexture(TEX_EMISSION);
    setup.textures.diffuse = mShader.HasTexture(TEX_DIFFUSE);
    setup.textures.opacity = mShader.HasTexture(TEX_OPACITY);
    setup.textures.surface = mShader.HasTexture(TEX_SURFACE);

    mShader.SetupShader(mParams, mTables, *mFrame, setup, mTime, false);
    if (!(mShader.flags & VolumeShader::volumeReady)) {
        error = "the volume shader could not be set up";
        return false;
    }

    // Motion blur: the motion path field from the velocity channels.
    if (motionBlur) {
        MotionBlur& motion = mShader.motionBlur;
        if (!attachVelocity(mShader, *mFrame)) {
            char text[1024];
            std::snprintf(text, sizeof text, MOTION_BLUR_NO_VELOCITY_WARNING, displayName.c_str());
            prepareWarnings.push_back(text);
        } else {
            motion.motionScale = mShader.velocityScale * mParams.getFloat("mbmult", mTime);
            motion.playSpeed = mShader.playSpeed;
            motion.shutterScale = shutterClose - shutterOpen;
            MotionBlurSettings settings;
            settings.tStart = shutterOpen;
            settings.tEnd = shutterClose;
            settings.mbSmooth = mShader.mbSmooth;
            settings.threads = threads;
            settings.progress = progress;
            if (motion.BuildMotionBlur(mShader, settings) != 0) {
                motion.release();
                error = "cancelled";
                return false;
            }
        }
    }

    // Displacement (a multiplier of 0 skips it).
    if (displacementOn && mShader.displaceMult != 0.0f) {
        mShader.displacement.threads = threads;
        mShader.displacement.progress = progress;
        const int cancelled = mShader.displacement.PrepareDisplacement(mShader, false);
        mShader.displacement.progress = nullptr;
        if (cancelled) {
            error = "cancelled";
            return false;
        }
        // The samples read other values now: the blocks known to be empty are found again.
        mShader.buildEmptyBlocks();
    }
    return true;
}

bool GridObject::worldBox(float box[6]) const {
    if (!mFrame || mFrame->getCellCount() <= 0) return false;
    float local[6];
    mFrame->getWorldBox(local, false);
    if (local[0] > local[3]) return false;
    for (int a = 0; a < 3; ++a) {
        box[a] = PARTICLE_BOX_EMPTY;
        box[a + 3] = -PARTICLE_BOX_EMPTY;
    }
    for (int k = 0; k < 8; ++k) {
        const float corner[3] = {(k & 1) ? local[3] : local[0], (k & 2) ? local[4] : local[1],
                                 (k & 4) ? local[5] : local[2]};
        float w[3];
        objectToWorld.apply(corner, w);
        for (int a = 0; a < 3; ++a) {
            box[a] = std::min(box[a], w[a]);
            box[a + 3] = std::max(box[a + 3], w[a]);
        }
    }
    return true;
}

}  // namespace vaporix
