// The pinhole camera: view frame, ray directions and the framing of a box.
#include "standalone/Camera.h"

#include <algorithm>
#include <cmath>

namespace vaporix {

namespace {

constexpr double PI = 3.14159265358979323846;

double dot(const double a[3], const double b[3]) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

void cross(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

/// Normalises in place. @return the length before.
double normalize(double v[3]) {
    const double len = std::sqrt(dot(v, v));
    if (len > 0.0)
        for (int a = 0; a < 3; ++a) v[a] /= len;
    return len;
}

bool allFinite(const double v[3]) {
    return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

bool fail(std::string* error, const char* text) {
    if (error) *error = text;
    return false;
}

}  // namespace

bool Camera::prepare(int width, int height, std::string* error) {
    if (width < 1 || height < 1) return fail(error, "the image is empty");
    if (!allFinite(position) || !allFinite(target) || !allFinite(up))
        return fail(error, "the camera has a coordinate that is not a number");
    if (!(fov > 0.0 && fov < 180.0))
        return fail(error, "the field of view must lie between 0 and 180 degrees");
    double f[3] = {target[0] - position[0], target[1] - position[1], target[2] - position[2]};
    const double distance = normalize(f);
    // Relative tests: a camera 1e6 units away still works, one at its target does not.
    const double scale =
        std::max({std::fabs(position[0]), std::fabs(position[1]), std::fabs(position[2]), 1.0});
    if (!(distance > 1e-9 * scale)) return fail(error, "the camera is at its target");
    double u[3] = {up[0], up[1], up[2]};
    if (!(normalize(u) > 0.0)) return fail(error, "the camera's up direction is zero");
    double r[3];
    cross(f, u, r);
    if (!(normalize(r) > 1e-6)) return fail(error, "the camera's up direction is along the view");
    double v[3];
    cross(r, f, v);
    for (int a = 0; a < 3; ++a) {
        mForward[a] = f[a];
        mRight[a] = r[a];
        mUp[a] = v[a];
    }
    mHalfHeight = std::tan(fov * 0.5 * PI / 180.0);
    mHalfWidth = mHalfHeight * static_cast<double>(width) / static_cast<double>(height);
    mWidth = width;
    mHeight = height;
    return true;
}

void Camera::rayDirection(double x, double y, double out[3]) const {
    const double u = (2.0 * x / mWidth - 1.0) * mHalfWidth;
    const double v = (1.0 - 2.0 * y / mHeight) * mHalfHeight;
    for (int a = 0; a < 3; ++a) out[a] = mForward[a] + u * mRight[a] + v * mUp[a];
    normalize(out);
}

Camera Camera::framing(const float box[6], int width, int height, double fov) {
    Camera cam;
    cam.fov = fov > 0.0 && fov < 180.0 ? fov : 40.0;
    double centre[3], half[3];
    for (int a = 0; a < 3; ++a) {
        centre[a] = 0.5 * (static_cast<double>(box[a]) + box[a + 3]);
        half[a] = std::max(0.5 * (static_cast<double>(box[a + 3]) - box[a]), 0.0);
    }
    const double radius = std::max(std::sqrt(dot(half, half)), 1e-3);

    // The view: from the front (-y) and the right (+x), about 24 degrees above the horizon.
    double toCamera[3] = {0.55, -1.0, 0.5};
    normalize(toCamera);
    double f[3] = {-toCamera[0], -toCamera[1], -toCamera[2]};
    const double worldUp[3] = {0.0, 0.0, 1.0};
    double r[3], u[3];
    cross(f, worldUp, r);
    normalize(r);
    cross(r, f, u);

    // The nearest distance at which every corner lies inside the image with a margin: a corner
    // at q from the centre projects to (q.r, q.u) / (d + q.f), so each corner asks for
    // d >= |q.r| / tanHalfWidth - q.f, and likewise for the height.
    const double aspect = width > 0 && height > 0 ? static_cast<double>(width) / height : 1.0;
    constexpr double MARGIN = 0.9;  // the box fills at most 90% of the image's half extents
    const double tanHalfHeight = std::tan(cam.fov * 0.5 * PI / 180.0) * MARGIN;
    const double tanHalfWidth = tanHalfHeight * aspect;
    double distance = 0.0;
    for (int k = 0; k < 8; ++k) {
        const double q[3] = {(k & 1) ? half[0] : -half[0], (k & 2) ? half[1] : -half[1],
                             (k & 4) ? half[2] : -half[2]};
        const double depth = dot(q, f);
        distance = std::max(distance, std::fabs(dot(q, r)) / tanHalfWidth - depth);
        distance = std::max(distance, std::fabs(dot(q, u)) / tanHalfHeight - depth);
        // Never inside the box: every corner stays in front of the camera.
        distance = std::max(distance, -depth + 0.05 * radius);
    }
    for (int a = 0; a < 3; ++a) {
        cam.target[a] = centre[a];
        cam.position[a] = centre[a] + toCamera[a] * distance;
    }
    cam.up[0] = 0.0;
    cam.up[1] = 0.0;
    cam.up[2] = 1.0;
    return cam;
}

}  // namespace vaporix
