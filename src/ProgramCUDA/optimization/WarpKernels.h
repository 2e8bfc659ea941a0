// Image-pair warp: the target image as the reference camera sees it through
// the current mesh. Per reference pixel, the surface point of the reference
// depth map is projected into the target and, when the target's own depth map
// agrees that the point is visible there, the target image is sampled at the
// projection. Pixels without a value hold -1.0, the "no value" mark of the
// NCC chain (grey values are never negative, so the mark is unambiguous).
#pragma once

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "TextureSampler.h"
#include "mycamera.h"

namespace tessaline {

constexpr float kWarpNoValue = -1.0f;
constexpr float kWarpBorder = 10.0f;           // target pixels this close to the edge are refused
constexpr double kWarpDepthTolerance = 0.01;   // relative, compared in double

// The warp of one ordered pair, per reference pixel. `Fetch` samples the
// target image (0..1) at texel coordinates: a layer of the image stack in
// the optimisation, an image bound on its own in the single-step entry point.
template <class Fetch>
struct PerspectiveWarp {
    static constexpr int kFloorBytesPerElement = 12;  // warped value written, reference depth and facet read
    mycamera_cuda camera_ref;
    const float* depth_ref;
    const int* facet_ref;
    mycamera_cuda camera_tar;
    const float* depth_tar;
    int width;
    int height;
    float* warped;
    Fetch target;

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        const int e = y * width + x;
        warped[e] = kWarpNoValue;

        const float d = depth_ref[e];
        const int f = facet_ref[e];
        if (f < 0) return;  // uncovered, or the nearest surface faces away

        float Cr[3], r[3], X[3];
        pixelSurfacePointF(camera_ref, x, y, d, Cr, r, X);
        float Ct[3];
        cameraCentreF(camera_tar, Ct);

        float px, py, pw;
        projectF(camera_tar.P, X, px, py, pw);
        float u = -1.0f, v = -1.0f;  // behind the target: falls to the border test
        if (pw > 0.0f) {
            u = px / pw;
            v = py / pw;
        }
        const float dt = distanceF(Ct, X);

        // Strict border test; it also keeps the four depth cells below and
        // the bilinear fetch inside the image. NaN fails it too.
        if (!(u > kWarpBorder && u < float(width - 10) && v > kWarpBorder && v < float(height - 10))) return;

        // Visible if any of the four depth cells around (u, v) is within 1%
        // of the distance from the target centre; one agreeing cell is enough.
        const int ix = int(u), iy = int(v);
        const int cells[4] = {iy * width + ix, (iy + 1) * width + ix, iy * width + ix + 1, (iy + 1) * width + ix + 1};
        const double tolerance = kWarpDepthTolerance * double(dt);
        bool visible = false;
        for (int c = 0; c < 4; ++c) {
            const float diff = depth_tar[cells[c]] - dt;
            if (fabs(double(diff)) < tolerance) {
                visible = true;
                break;
            }
        }
        if (!visible) return;

        warped[e] = 255.0f * target(u + 0.5f, v + 0.5f);
    }
};

// The warp of one ordered pair of the image stack: the target is its layer.
struct Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA : PerspectiveWarp<StackLayerFetch> {};

// The warp of one pair whose target image is bound on its own.
struct Kernel_Perspective_Image_Model_Image_Warp_CUDA : PerspectiveWarp<ImageFetch> {};

}  // namespace tessaline
