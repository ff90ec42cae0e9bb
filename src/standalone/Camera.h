// The pinhole camera of the stand-alone renderer: a position looking at a target, with an up
// direction and a vertical field of view. The world is Z-up, like the grid.
#pragma once

#include <string>

namespace vaporix {

/// A pinhole camera. Set the four fields, then `prepare` it for an image size before asking for
/// rays.
class Camera {
public:
    double position[3] = {0.0, -100.0, 0.0};
    double target[3] = {0.0, 0.0, 0.0};
    double up[3] = {0.0, 0.0, 1.0};
    /// Vertical field of view, degrees.
    double fov = 40.0;

    /// Works out the view frame for an image of `width` x `height` pixels.
    /// @return false, with `error` set when given, for a camera that sees nothing: the position
    /// at the target, `up` along the view direction, a field of view outside (0, 180) degrees,
    /// a non-finite field, or an empty image.
    bool prepare(int width, int height, std::string* error = nullptr);

    /// The unit world direction through image point (x, y), in pixels from the top-left corner
    /// of the image (the centre of pixel (i, j) is (i + 0.5, j + 0.5)); x grows to the right,
    /// y downwards. Only after a successful `prepare`.
    void rayDirection(double x, double y, double out[3]) const;

    /// The unit view direction (towards the target). Only after `prepare`.
    const double* forward() const { return mForward; }

    /// A camera that frames a world box (min x, y, z, max x, y, z) from a three-quarter view:
    /// in front of the box and to its right, somewhat above, looking at the box centre, at the
    /// distance where the whole box fits the image of that size with `fov`.
    static Camera framing(const float box[6], int width, int height, double fov = 40.0);

private:
    double mRight[3] = {1.0, 0.0, 0.0};
    double mUp[3] = {0.0, 0.0, 1.0};
    double mForward[3] = {0.0, 1.0, 0.0};
    /// Half extents of the image plane at distance 1.
    double mHalfWidth = 0.0;
    double mHalfHeight = 0.0;
    double mWidth = 1.0;
    double mHeight = 1.0;
};

}  // namespace vaporix
