// Triangle z-buffer: one thread per facet walks the facet's pixel box with
// incremental barycentric weights and keeps, per pixel, the smallest distance
// from the camera centre, the front-facing facet there and its weights.
#pragma once

#include <cstdint>

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "ImageView.h"
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

// A vertex as a camera sees it: its image point (u, v), or (-1, -1) when it
// is not in front of the camera, and its distance d from the camera centre.
struct ProjectedVertex {
    float u, v, d;
};

DEVICE_HOST ProjectedVertex projectVertex(const mycamera_cuda& camera, const float* vertex) {
    const float X[3] = {vertex[0], vertex[1], vertex[2]};
    float px, py, pw;
    projectF(camera.P, X, px, py, pw);
    ProjectedVertex p{-1.0f, -1.0f, 0.0f};
    if (pw > 0.0f) {
        p.u = px / pw;
        p.v = py / pw;
    }
    float C[3];
    cameraCentreF(camera, C);
    p.d = distanceF(X, C);
    return p;
}

// One facet as the z-buffer sees it: its projection, pixel box, weight
// increments and vertex distances. `kept` is false when the facet is dropped
// whole: its box reaches into the 10-pixel margin of the area, which a
// vertex behind the camera (image point (-1, -1)) always does. The vertices'
// projections come from `projected` (3 floats a vertex, Kernel_Project_Vertices)
// when it is given, else they are worked out here; both give the same.
struct FacetRaster {
    bool kept = false;
    int xLo, xHi, yLo, yHi;
    float r;                    // 1/det: front-facing when above 0
    float d0, d1, d2;           // distances of the three vertices from the centre
    float db_y, dc_y, db_x, dc_x;
    float bCorner, cCorner;     // weights at (xLo, yLo)

    DEVICE_HOST FacetRaster(const float* vertices, const int* facets, int id, const mycamera_cuda& camera, int BU,
                            int BV, int LU, int LV, const float* projected = nullptr) {
        const int index[3] = {facets[3 * id], facets[3 * id + 1], facets[3 * id + 2]};
        ProjectedVertex p[3];
        for (int k = 0; k < 3; ++k)
            p[k] = projected ? ProjectedVertex{projected[3 * index[k]], projected[3 * index[k] + 1],
                                               projected[3 * index[k] + 2]}
                             : projectVertex(camera, vertices + 3 * index[k]);
        const float x0 = p[0].u, y0 = p[0].v, x1 = p[1].u, y1 = p[1].v, x2 = p[2].u, y2 = p[2].v;

        xLo = min3(truncD(double(x0) - 0.5), truncD(double(x1) - 0.5), truncD(double(x2) - 0.5)) - 1;
        xHi = max3(truncD(double(x0) + 0.5), truncD(double(x1) + 0.5), truncD(double(x2) + 0.5)) + 1;
        yLo = min3(truncD(double(y0) - 0.5), truncD(double(y1) - 0.5), truncD(double(y2) - 0.5)) - 1;
        yHi = max3(truncD(double(y0) + 0.5), truncD(double(y1) + 0.5), truncD(double(y2) + 0.5)) + 1;
        if (xLo < BU + 10 || yLo < BV + 10 || xHi > BU + LU - 10 || yHi > BV + LV - 10) return;
        kept = true;

        const float det = (y1 - y0) * (x2 - x0) - (x1 - x0) * (y2 - y0);
        r = 1.0f / det;
        d0 = p[0].d;
        d1 = p[1].d;
        d2 = p[2].d;
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
        for (int x = xLo, column = 0, mine = lane; x <= xHi; ++x, ++column) {
            if (column == mine) {
                mine += lanes;
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
    DEVICE_HOST static int truncD(double v) {
        // Far outside any image: clamp before the conversion so it is defined.
        if (!(v > -1.0e9)) return -1000000000;
        if (v > 1.0e9) return 1000000000;
        return int(v);
    }
    DEVICE_HOST static int min3(int a, int b, int c) { return a < b ? (a < c ? a : c) : (b < c ? b : c); }
    DEVICE_HOST static int max3(int a, int b, int c) { return a > b ? (a > c ? a : c) : (b > c ? b : c); }
};

// Per vertex: its image point and distance in the camera of a render, which
// the facets around it read instead of working them out again.
struct Kernel_Project_Vertices {
    static constexpr int kFloorBytesPerElement = 24;  // vertex read, projection written
    int num_v;
    const float* vertices;
    mycamera_cuda camera;
    float* projected;  // u, v, d per vertex

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        const ProjectedVertex p = projectVertex(camera, vertices + 3 * id);
        projected[3 * id] = p.u;
        projected[3 * id + 1] = p.v;
        projected[3 * id + 2] = p.d;
    }
};

// Per pixel of the area: the key of the depth the pixel holds before the
// render, with no facet (a facet of equal depth still wins the pixel).
struct Kernel_Init_DepthKeys {
    static constexpr int kFloorBytesPerElement = 12;  // depth read, key written
    ConstImageView<float> depth_image;
    ImageView<unsigned long long> depth_keys;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || size_t(id) >= depth_keys.pixels()) return;
        depth_keys[id] = depthFacetKey(depth_image[id], 0);
    }
};

// Clears n bytes.
struct Kernel_Clear_Bytes {
    static constexpr int kFloorBytesPerElement = 1;  // one byte written
    int n;
    uint8_t* bytes;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        bytes[id] = 0;
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

// The mesh as a render reads it: vertex coordinates (3 per vertex) and
// facets (3 vertex indices each).
struct MeshGeometry {
    const float* vertices;
    int num_f;
    const int* facets;
};

// The part of a camera's image that a render covers: its top left corner
// (BU, BV) in image coordinates and its size, LU columns and LV rows.
// Outputs and keys are images of the area's size.
struct RenderArea {
    int BU, BV, LU, LV;
};

// How the renders share the work of a facet: its columns among `lanes`
// threads (thread id = facet * lanes + lane); the vertices' projections
// when worked out before (Kernel_Project_Vertices, 3 floats a vertex); and
// per facet a byte that the first pass sets where the facet may win a pixel,
// so that the second pass skips the others (cleared before the first pass).
struct FacetWork {
    int lanes = 1;
    const float* projected = nullptr;
    uint8_t* candidates = nullptr;
};

// What a render leaves per pixel: the depth, the front-facing facet (-1
// where the nearest facet faces away) and its weights b and c (-1.0 there).
// A render without weight images (a camera whose pixels are only looked up
// by depth and facet) leaves the weights out.
struct RenderImages {
    ImageView<float> depth;
    ImageView<int> facet;
    ImageView<float> bary_b;
    ImageView<float> bary_c;

    DEVICE_HOST_HOT void store(int e, float d, int f, float b, float c) const {
        depth[e] = d;
        facet[e] = f;
        if (bary_b.data) bary_b[e] = b;
        if (bary_c.data) bary_c[e] = c;
    }
};

// First pass: the atomic minimum of (depth, facet) keys over the pixels a
// facet covers. One thread per facet, as the reference renders; the
// optimisation's fast schedule shares each facet's columns among threads,
// which leaves the same keys. With candidates, a facet that offered a key
// not above a pixel's is marked: only such a facet can win a pixel.
struct Kernel_TriMesh_Image_ZBuffering_CUDA {
    static constexpr int kFloorBytesPerElement = 12;  // the facet's three indices read
    static constexpr long long kCpuParallelMinimum = 256;  // a facet's walk is dear
    MeshGeometry mesh;
    mycamera_cuda camera;
    RenderArea area;
    ImageView<unsigned long long> depth_keys;
    FacetWork work;

    DEVICE_HOST void operator()(int id) const {
        const int lanes = work.lanes;
        if (id < 0 || id / lanes >= mesh.num_f) return;
        const int facet = id / lanes;
        const FacetRaster f(mesh.vertices, mesh.facets, facet, camera, area.BU, area.BV, area.LU, area.LV,
                            work.projected);
        if (!f.kept) return;
        bool candidate = false;
        f.forEachPixel(
            [&](int x, int y, float depth, float, float) {
                candidate |= atomicMinU64(depth_keys.at(depth_keys.index(x - area.BU, y - area.BV)),
                                          depthFacetKey(depth, facet));
            },
            id % lanes, lanes);
        if (work.candidates && candidate) work.candidates[facet] = 1;
    }
};

// Second pass: where the pixel's key is the facet's own, the depth, the
// facet (or -1 and weights -1.0 when it faces away) and the weights b and c
// of its second and third vertex. Threads as in the first pass; a facet the
// first pass left unmarked is skipped when there are candidates.
struct Kernel_TriMesh_Image_ZBuffering_Store {
    static constexpr int kFloorBytesPerElement = 12;  // the facet's three indices read
    static constexpr long long kCpuParallelMinimum = 256;  // a facet's walk is dear
    MeshGeometry mesh;
    mycamera_cuda camera;
    RenderArea area;
    ConstImageView<unsigned long long> depth_keys;
    RenderImages out;
    FacetWork work;

    DEVICE_HOST void operator()(int id) const {
        const int lanes = work.lanes;
        if (id < 0 || id / lanes >= mesh.num_f) return;
        const int facet = id / lanes;
        if (work.candidates && work.candidates[facet] == 0) return;
        const FacetRaster f(mesh.vertices, mesh.facets, facet, camera, area.BU, area.BV, area.LU, area.LV,
                            work.projected);
        if (!f.kept) return;
        const bool front = f.r > 0.0f;
        f.forEachPixel(
            [&](int x, int y, float depth, float b, float c) {
                const int e = depth_keys.index(x - area.BU, y - area.BV);
                if (depth_keys[e] != depthFacetKey(depth, facet)) return;
                out.store(e, depth, front ? facet : -1, front ? b : -1.0f, front ? c : -1.0f);
            },
            id % lanes, lanes);
    }
};

}  // namespace tessaline
