// Camera geometry of the kernels, in float32 with plain products and sums in
// the order written: camera centres, projections, viewing rays and points
// on them.
//
// The warp and the photometric gradient must find bit for bit the same
// surface point and target position for a pixel: the gradient relies on the
// warp having given the pixel a value (which means the point lies in front of
// the target camera). Both therefore call these helpers.
#pragma once

#include "DeviceCommon.h"
#include "mycamera.h"

namespace tessaline {

// C = -R^T t.
DEVICE_HOST void cameraCentreF(const mycamera_cuda& cam, float C[3]) {
    for (int k = 0; k < 3; ++k)
        C[k] = -(cam.R[0 * 3 + k] * cam.t[0] + cam.R[1 * 3 + k] * cam.t[1] + cam.R[2 * 3 + k] * cam.t[2]);
}

// (px, py, pw) = P (X, 1).
DEVICE_HOST void projectF(const float P[12], const float X[3], float& px, float& py, float& pw) {
    px = P[0] * X[0] + P[1] * X[1] + P[2] * X[2] + P[3];
    py = P[4] * X[0] + P[5] * X[1] + P[6] * X[2] + P[7];
    pw = P[8] * X[0] + P[9] * X[1] + P[10] * X[2] + P[11];
}

// Unit viewing ray through pixel (x, y) in world axes:
// R^T ((x - K02)/K00, (y - K12)/K11, 1), divided by its length.
DEVICE_HOST void viewingRayF(const mycamera_cuda& cam, int x, int y, float r[3]) {
    const float nx = (float(x) - cam.K[2]) / cam.K[0];
    const float ny = (float(y) - cam.K[5]) / cam.K[4];
    float dir[3];
    for (int k = 0; k < 3; ++k) dir[k] = cam.R[0 * 3 + k] * nx + cam.R[1 * 3 + k] * ny + cam.R[2 * 3 + k];
    const float len = sqrtf(dir[0] * dir[0] + dir[1] * dir[1] + dir[2] * dir[2]);
    for (int k = 0; k < 3; ++k) r[k] = dir[k] / len;
}

// X = C + t r: the point at ray parameter t.
DEVICE_HOST void pointOnRay(const float C[3], const float r[3], float t, float X[3]) {
    for (int k = 0; k < 3; ++k) X[k] = C[k] + t * r[k];
}

// The camera centre C, the unit ray r of pixel (x, y) and the surface point
// X = C + d r at depth d along it.
DEVICE_HOST void pixelSurfacePointF(const mycamera_cuda& cam, int x, int y, float d, float C[3], float r[3],
                                    float X[3]) {
    cameraCentreF(cam, C);
    viewingRayF(cam, x, y, r);
    pointOnRay(C, r, d, X);
}

// |A - B|.
DEVICE_HOST float distanceF(const float A[3], const float B[3]) {
    const float dx = A[0] - B[0], dy = A[1] - B[1], dz = A[2] - B[2];
    return sqrtf(dx * dx + dy * dy + dz * dz);
}

}  // namespace tessaline
