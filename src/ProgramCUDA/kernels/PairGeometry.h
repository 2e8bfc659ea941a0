// Geometry shared by the per-pixel kernels of a camera pair: the unit viewing
// ray of a reference pixel, the surface point that a depth map gives on it,
// and the two ways of sampling the target image.
//
// The warp and the photometric gradient must find bit for bit the same
// surface point and target position for a pixel: the gradient relies on the
// warp having given the pixel a value (which means the point lies in front of
// the target camera). Both therefore call these helpers, in float32, with
// plain products and sums in the order written.
#pragma once

#include "DeviceCommon.h"
#include "kernels/ZBufferKernel.h"
#include "mycamera.h"

namespace tessaline {

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

// The camera centre C, the unit ray r of pixel (x, y) and the surface point
// X = C + d r at depth d along it.
DEVICE_HOST void pixelSurfacePointF(const mycamera_cuda& cam, int x, int y, float d, float C[3], float r[3],
                                    float X[3]) {
    cameraCentreF(cam, C);
    viewingRayF(cam, x, y, r);
    for (int k = 0; k < 3; ++k) X[k] = C[k] + d * r[k];
}

// |A - B| in float32.
DEVICE_HOST float distanceF(const float A[3], const float B[3]) {
    const float dx = A[0] - B[0], dy = A[1] - B[1], dz = A[2] - B[2];
    return sqrtf(dx * dx + dy * dy + dz * dz);
}

// Target sampling through one layer of the image stack.
struct LayeredImageFetch {
    LayeredTexture tex;
    int layer;
    DEVICE_HOST float operator()(float x, float y) const { return fetchLayered(tex, x, y, layer); }
};

// Target sampling through a single bound image.
struct SingleImageFetch {
    Texture2D tex;
    DEVICE_HOST float operator()(float x, float y) const { return fetch2D(tex, x, y); }
};

}  // namespace tessaline
