// The host's operations that playback needs: the scene file and folder, a node's name and handle.
//
// The stand-alone host implements these for its scene files; tests use small fakes.
#pragma once

#include <string>

namespace vaporix {

/// A node of the host's scene (the object's place in the scene).
class IHostNode {
public:
    virtual ~IHostNode() = default;
    /// The node's name as the user gave it.
    virtual std::string name() const = 0;
    /// The node's handle, unique within the scene.
    virtual int handle() const = 0;
};

/// The host application.
class IHost {
public:
    virtual ~IHost() = default;
    /// Full path of the open scene file; "" while the scene has never been saved.
    virtual std::string sceneFilePath() const = 0;
    /// The host's folder for scenes, used in place of the scene's folder while it is unsaved.
    virtual std::string sceneDirectory() const = 0;
};

}  // namespace vaporix
