// Image-pair warp: the target image as the reference camera sees it through
// the current mesh. Per reference pixel, the surface point of the reference
// depth map is projected into the target and, when the target's own depth map
// agrees that the point is visible there, the target image is sampled at the
// projection. Pixels without a value hold -1.0, the "no value" mark of the
// NCC chain (grey values are never negative, so the mark is unambiguous).
#pragma once

#include "DeviceCommon.h"
#include "kernels/PairGeometry.h"
#include "mycamera.h"

namespace tessaline {

constexpr float kWarpNoValue = -1.0f;
constexpr float kWarpBorder = 10.0f;           // target pixels this close to the edge are refused
constexpr double kWarpDepthTolerance = 0.01;   // relative, compared in double

// One pixel of a warp. `k` is a warp kernel record with the fields
// camera_ref, depth_ref, facet_ref, camera_tar, depth_tar, width, height and
// warped; `fetch(x, y)` samples the target image (0..1) at texel coordinates.
template <class WarpKernel, class Fetch>
DEVICE_HOST void warpPixel(const WarpKernel& k, int x, int y, const Fetch& fetch) {
    if (x < 0 || y < 0 || x >= k.width || y >= k.height) return;
    const int e = y * k.width + x;
    k.warped[e] = kWarpNoValue;

    const float d = k.depth_ref[e];
    const int f = k.facet_ref[e];
    if (f < 0) return;  // uncovered, or the nearest surface faces away

    float Cr[3], r[3], X[3];
    pixelSurfacePointF(k.camera_ref, x, y, d, Cr, r, X);
    float Ct[3];
    cameraCentreF(k.camera_tar, Ct);

    float px, py, pw;
    projectF(k.camera_tar.P, X, px, py, pw);
    float u = -1.0f, v = -1.0f;  // behind the target: falls to the border test
    if (pw > 0.0f) {
        u = px / pw;
        v = py / pw;
    }
    const float dt = distanceF(Ct, X);

    // Strict border test; it also keeps the four depth cells below and the
    // bilinear fetch inside the image. NaN fails it too.
    if (!(u > kWarpBorder && u < float(k.width - 10) && v > kWarpBorder && v < float(k.height - 10))) return;

    // Visible if any of the four depth cells around (u, v) is within 1% of
    // the distance from the target centre; one agreeing cell is enough.
    const int ix = int(u), iy = int(v);
    const int cells[4] = {iy * k.width + ix, (iy + 1) * k.width + ix, iy * k.width + ix + 1,
                          (iy + 1) * k.width + ix + 1};
    const double tolerance = kWarpDepthTolerance * double(dt);
    bool visible = false;
    for (int c = 0; c < 4; ++c) {
        const float diff = k.depth_tar[cells[c]] - dt;
        if (fabs(double(diff)) < tolerance) {
            visible = true;
            break;
        }
    }
    if (!visible) return;

    k.warped[e] = 255.0f * fetch(u + 0.5f, v + 0.5f);
}

// The warp of one ordered pair of the image stack: the target is layer
// index_tar of tex_imgs.
struct Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA {
    static constexpr int kFloorBytesPerElement = 12;  // warped value written, reference depth and facet read
    mycamera_cuda camera_ref;
    const float* depth_ref;
    const int* facet_ref;
    int index_ref;  // not read
    mycamera_cuda camera_tar;
    const float* depth_tar;
    const int* facet_tar;  // not read
    int index_tar;
    int width;
    int height;
    float* warped;
    LayeredTexture tex_imgs;

    DEVICE_HOST void operator()(int x, int y) const { warpPixel(*this, x, y, LayeredImageFetch{tex_imgs, index_tar}); }
};

}  // namespace tessaline
