// Image-pair warp: the target image as the reference camera sees it through
// the current mesh. Per reference pixel, the surface point of the reference
// depth map is projected into the target and, when the target's own depth map
// agrees that the point is visible there, the target image is sampled at the
// projection. Pixels without a value hold -1.0, the "no value" mark of the
// NCC chain (grey values are never negative, so the mark is unambiguous).
#pragma once

#include <cstddef>

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "ImageView.h"
#include "TextureSampler.h"
#include "mycamera.h"
#include "optimization/PairGroups.h"

namespace tessaline {

constexpr float kWarpNoValue = -1.0f;
constexpr float kWarpBorder = 10.0f;           // target pixels this close to the edge are refused
constexpr double kWarpDepthTolerance = 0.01;   // relative, compared in double

// Where the target sees surface point X: its image point (u, v), or
// (-1, -1) when X is not in front of the target, and X's distance dt from
// the target's centre Ct.
DEVICE_HOST_HOT void targetView(const float X[3], const mycamera_cuda& camera_tar, const float Ct[3], float& u,
                                float& v, float& dt) {
    float px, py, pw;
    projectF(camera_tar.P, X, px, py, pw);
    u = -1.0f;
    v = -1.0f;  // behind the target: falls to the border test
    if (pw > 0.0f) {
        u = px / pw;
        v = py / pw;
    }
    dt = distanceF(Ct, X);
}

// The grey level that the target shows at (u, v) of a point at distance dt
// from its centre: the target image (`target`, 0..1) there, times 255, when
// (u, v) lies more than 10 pixels inside the target and one of the four
// cells of the target's depth around it agrees with dt within 1%; else the
// "no value" mark.
template <class Fetch>
DEVICE_HOST_HOT float warpedValueAt(float u, float v, float dt, ConstImageView<float> depth_tar,
                                    const Fetch& target) {
    // Strict border test; it also keeps the four depth cells below and the
    // bilinear fetch inside the image. NaN fails it too.
    const int width = depth_tar.width, height = depth_tar.height;
    if (!(u > kWarpBorder && u < float(width - 10) && v > kWarpBorder && v < float(height - 10))) return kWarpNoValue;

    // Visible if any of the four depth cells around (u, v) is within 1% of
    // the distance from the target centre; one agreeing cell is enough.
    const int ix = int(u), iy = int(v);
    const int cells[4] = {iy * width + ix, (iy + 1) * width + ix, iy * width + ix + 1, (iy + 1) * width + ix + 1};
    const double tolerance = kWarpDepthTolerance * double(dt);
    for (int c = 0; c < 4; ++c) {
        const float diff = depth_tar[cells[c]] - dt;
        if (fabs(double(diff)) < tolerance) return 255.0f * target(u + 0.5f, v + 0.5f);
    }
    return kWarpNoValue;
}

// The grey level that the pair's target shows of surface point X, seen from
// a reference pixel.
template <class Fetch>
DEVICE_HOST float warpedValue(const float X[3], const CameraPair<Fetch>& pair) {
    float Ct[3];
    cameraCentreF(pair.tar.camera, Ct);
    float u, v, dt;
    targetView(X, pair.tar.camera, Ct, u, v, dt);
    return warpedValueAt(u, v, dt, pair.tar.depth, pair.target);
}

// The warp of one ordered pair, per reference pixel, from the reference's
// camera, depth and facets and the target's camera, depth and image.
// `Fetch` samples the target image (0..1) at texel coordinates: a layer of
// the image stack in the optimisation, an image bound on its own in the
// single-step entry point.
template <class Fetch>
struct PerspectiveWarp {
    static constexpr int kFloorBytesPerElement = 12;  // warped value written, reference depth and facet read
    CameraPair<Fetch> pair;
    ImageView<float> warped;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!warped.contains(x, y)) return;
        const int e = warped.index(x, y);
        warped[e] = kWarpNoValue;
        const int f = pair.ref.facet[e];
        if (f < 0) return;  // uncovered, or the nearest surface faces away
        float Cr[3], r[3], X[3];
        pixelSurfacePointF(pair.ref.camera, x, y, pair.ref.depth[e], Cr, r, X);
        warped[e] = warpedValue(X, pair);
    }
};

// The warp of one ordered pair of the image stack: the target is its layer.
struct Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA : PerspectiveWarp<StackLayerFetch> {};

// The warp of one pair whose target image is bound on its own.
struct Kernel_Perspective_Image_Model_Image_Warp_CUDA : PerspectiveWarp<ImageFetch> {};

// The surface a camera sees, per pixel with a facet (SurfacePoint). Every
// pair with this camera as reference reads them instead of working them out
// again; pixels without a facet are left as they were.
struct Kernel_Surface_Points {
    static constexpr int kFloorBytesPerElement = 8;  // depth and facet read
    RenderedCamera camera;
    ImageView<SurfacePoint> surface;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!surface.contains(x, y)) return;
        const int e = surface.index(x, y);
        if (camera.facet[e] < 0) return;
        float C[3];
        SurfacePoint& s = surface[e];
        pixelSurfacePointF(camera.camera, x, y, camera.depth[e], C, s.ray, s.point);
    }
};

// The warp of one ordered pair from the reference camera's surface points.
struct Kernel_Warp_SurfacePoints {
    static constexpr int kFloorBytesPerElement = 8;  // warped value written, facet read
    CameraPair<StackLayerFetch> pair;
    ConstImageView<SurfacePoint> surface_ref;
    ImageView<float> warped;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!warped.contains(x, y)) return;
        const int e = warped.index(x, y);
        warped[e] = pair.ref.facet[e] < 0 ? kWarpNoValue : warpedValue(surface_ref[e].point, pair);
    }
};


}  // namespace tessaline
