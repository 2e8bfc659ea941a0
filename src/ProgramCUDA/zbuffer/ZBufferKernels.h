// Triangle z-buffer: one thread per facet walks the facet's pixel box with
// incremental barycentric weights and keeps, per pixel, the smallest distance
// from the camera centre, the front-facing facet there and its weights.
#pragma once

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "mycamera.h"

namespace tessaline {

// The z-buffer resolves each pixel in two passes over the facets, so that the
// result does not depend on the order in which threads reach a pixel:
//   1. every facet lowers, at each pixel it covers, a 64-bit key that packs
//      its depth (high word, ordered like the float) and its index (low
//      word, inverted, so that of two equal depths the later facet wins, as
//      it would in facet order on one thread) with one atomic minimum;
//   2. every facet walks its pixels again, and where the key is its own it
//      writes the depth, its index (or -1 when it faces away) and its
//      weights.
// The depth left at a pixel is the smallest depth offered there, as a single
// atomic minimum on the float would leave; the facet and weights are those
// of the same facet, whatever the schedule.
DEVICE_HOST unsigned orderedDepthBits(float depth) {
    const unsigned u = floatBits(depth);
    return (u & 0x80000000u) ? ~u : (u | 0x80000000u);
}

DEVICE_HOST unsigned long long depthFacetKey(float depth, int facet) {
    return ((unsigned long long)orderedDepthBits(depth) << 32) | (unsigned long long)(~unsigned(facet));
}

// One facet as the z-buffer sees it: its projection, pixel box, weight
// increments and vertex distances. `kept` is false when the facet is dropped
// whole: its box reaches into the 10-pixel margin of the area, which a
// vertex behind the camera (image point (-1, -1)) always does.
struct FacetRaster {
    bool kept = false;
    int xLo, xHi, yLo, yHi;
    float r;                    // 1/det: front-facing when above 0
    float d0, d1, d2;           // distances of the three vertices from the centre
    float db_y, dc_y, db_x, dc_x;
    float bCorner, cCorner;     // weights at (xLo, yLo)

    DEVICE_HOST FacetRaster(const float* vertices, const int* facets, int id, const mycamera_cuda& camera, int BU,
                            int BV, int LU, int LV) {
        float C[3];
        cameraCentreF(camera, C);
        const int i0 = facets[3 * id], i1 = facets[3 * id + 1], i2 = facets[3 * id + 2];
        const float X0[3] = {vertices[3 * i0], vertices[3 * i0 + 1], vertices[3 * i0 + 2]};
        const float X1[3] = {vertices[3 * i1], vertices[3 * i1 + 1], vertices[3 * i1 + 2]};
        const float X2[3] = {vertices[3 * i2], vertices[3 * i2 + 1], vertices[3 * i2 + 2]};

        float x0, y0, x1, y1, x2, y2;
        imagePoint(camera, X0, x0, y0);
        imagePoint(camera, X1, x1, y1);
        imagePoint(camera, X2, x2, y2);

        xLo = min3(truncD(double(x0) - 0.5), truncD(double(x1) - 0.5), truncD(double(x2) - 0.5)) - 1;
        xHi = max3(truncD(double(x0) + 0.5), truncD(double(x1) + 0.5), truncD(double(x2) + 0.5)) + 1;
        yLo = min3(truncD(double(y0) - 0.5), truncD(double(y1) - 0.5), truncD(double(y2) - 0.5)) - 1;
        yHi = max3(truncD(double(y0) + 0.5), truncD(double(y1) + 0.5), truncD(double(y2) + 0.5)) + 1;
        if (xLo < BU + 10 || yLo < BV + 10 || xHi > BU + LU - 10 || yHi > BV + LV - 10) return;
        kept = true;

        const float det = (y1 - y0) * (x2 - x0) - (x1 - x0) * (y2 - y0);
        r = 1.0f / det;
        d0 = distance(X0, C);
        d1 = distance(X1, C);
        d2 = distance(X2, C);
        db_y = r * (x2 - x0);
        dc_y = r * (x0 - x1);
        db_x = r * (y0 - y2);
        dc_x = r * (y1 - y0);
        bCorner = r * ((y0 - y2) * (float(xLo) - x2) - (x0 - x2) * (float(yLo) - y2));
        cCorner = r * ((y1 - y0) * (float(xLo) - x0) - (x1 - x0) * (float(yLo) - y0));
    }

    // visit(x, y, depth, b, c) for every pixel of the box inside the facet,
    // columns outer and rows inner, the weights running by repeated addition.
    // Edges and corners count as inside. The box's columns may be shared
    // among `lanes` threads, lane k taking columns k, k + lanes, ...: each
    // lane still adds up a column's top weights from the corner, column by
    // column, so every pixel gets the same weights and depth whatever the
    // number of lanes.
    template <class Visit>
    DEVICE_HOST void forEachPixel(const Visit& visit, int lane = 0, int lanes = 1) const {
        float bTop = bCorner, cTop = cCorner;
        for (int x = xLo, column = 0; x <= xHi; ++x, ++column) {
            if (column % lanes == lane) {
                float b = bTop, c = cTop;
                for (int y = yLo; y <= yHi; ++y) {
                    if (b >= 0.0f && c >= 0.0f && b + c <= 1.0f)
                        visit(x, y, (1.0f - b - c) * d0 + b * d1 + c * d2, b, c);
                    b += db_y;
                    c += dc_y;
                }
            }
            bTop += db_x;
            cTop += dc_x;
        }
    }

   private:
    DEVICE_HOST static void imagePoint(const mycamera_cuda& camera, const float X[3], float& u, float& v) {
        float px, py, pw;
        projectF(camera.P, X, px, py, pw);
        if (pw > 0.0f) {
            u = px / pw;
            v = py / pw;
        } else {
            u = -1.0f;
            v = -1.0f;
        }
    }
    DEVICE_HOST static int truncD(double v) {
        // Far outside any image: clamp before the conversion so it is defined.
        if (!(v > -1.0e9)) return -1000000000;
        if (v > 1.0e9) return 1000000000;
        return int(v);
    }
    DEVICE_HOST static int min3(int a, int b, int c) { return a < b ? (a < c ? a : c) : (b < c ? b : c); }
    DEVICE_HOST static int max3(int a, int b, int c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }
    DEVICE_HOST static float distance(const float X[3], const float C[3]) {
        const float dx = X[0] - C[0], dy = X[1] - C[1], dz = X[2] - C[2];
        return sqrtf(dx * dx + dy * dy + dz * dz);
    }
};

// Per pixel of the area: the key of the depth the pixel holds before the
// render, with no facet (a facet of equal depth still wins the pixel).
struct Kernel_Init_DepthKeys {
    static constexpr int kFloorBytesPerElement = 12;  // depth read, key written
    int n;
    const float* depth_image;
    unsigned long long* depth_keys;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        depth_keys[id] = depthFacetKey(depth_image[id], 0);
    }
};

// Per pixel: the key of the depth clear value with no facet, for a render
// whose depth buffer is cleared in the same schedule.
struct Kernel_Clear_DepthKeys {
    static constexpr int kFloorBytesPerElement = 8;  // key written
    int n;
    unsigned long long* depth_keys;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        depth_keys[id] = depthFacetKey(kDepthClear, 0);
    }
};

// First pass: the atomic minimum of (depth, facet) keys over the pixels a
// facet covers. One thread per facet, as the reference renders; the
// optimisation's fast schedule shares each facet's columns among `lanes`
// threads (thread id = facet * lanes + lane), which leaves the same keys.
struct Kernel_TriMesh_Image_ZBuffering_CUDA {
    static constexpr int kFloorBytesPerElement = 12;  // the facet's three indices read
    const float* vertices;
    int num_f;
    const int* facets;
    mycamera_cuda camera;
    int BU, BV, LU, LV;
    unsigned long long* depth_keys;
    int lanes = 1;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id / lanes >= num_f) return;
        const int facet = id / lanes;
        const FacetRaster f(vertices, facets, facet, camera, BU, BV, LU, LV);
        if (!f.kept) return;
        f.forEachPixel(
            [&](int x, int y, float depth, float, float) {
                atomicMinU64(depth_keys + ((y - BV) * LU + (x - BU)), depthFacetKey(depth, facet));
            },
            id % lanes, lanes);
    }
};

// Second pass: where the pixel's key is the facet's own, the depth, the
// facet (or -1 and weights -1.0 when it faces away) and the weights b and c
// of its second and third vertex. Threads as in the first pass.
struct Kernel_TriMesh_Image_ZBuffering_Store {
    static constexpr int kFloorBytesPerElement = 12;  // the facet's three indices read
    const float* vertices;
    int num_f;
    const int* facets;
    mycamera_cuda camera;
    int BU, BV, LU, LV;
    const unsigned long long* depth_keys;
    float* depth_image;
    int* facet_image;
    float* bary_b_image;
    float* bary_c_image;
    int lanes = 1;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id / lanes >= num_f) return;
        const int facet = id / lanes;
        const FacetRaster f(vertices, facets, facet, camera, BU, BV, LU, LV);
        if (!f.kept) return;
        const bool front = f.r > 0.0f;
        f.forEachPixel(
            [&](int x, int y, float depth, float b, float c) {
                const int e = (y - BV) * LU + (x - BU);
                if (depth_keys[e] != depthFacetKey(depth, facet)) return;
                depth_image[e] = depth;
                facet_image[e] = front ? facet : -1;
                bary_b_image[e] = front ? b : -1.0f;
                bary_c_image[e] = front ? c : -1.0f;
            },
            id % lanes, lanes);
    }
};

}  // namespace tessaline
