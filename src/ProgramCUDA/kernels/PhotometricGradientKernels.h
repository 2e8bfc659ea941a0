// Photometric gradient: carries the NCC derivative image g of a camera pair
// through the target image gradient and the target projection to a motion of
// the surface along each reference pixel's viewing ray, converts that to a
// motion along the facet normal, and scatters it to the facet's three
// vertices with the pixel's barycentric weights. Per vertex, the sum over the
// pixels of a pair is kept, and each iteration divides by the number of pairs
// that reached the vertex.
#pragma once

#include <cstdint>

#include "DeviceCommon.h"
#include "kernels/FixedPointSum.h"
#include "kernels/PairGeometry.h"
#include "mycamera.h"

namespace tessaline {

// Pixels whose ray meets the facet at a cosine above this limit (compared in
// double) contribute nothing: back faces and grazing views.
constexpr double kIntegratedCosineLimit = -0.1;

// One pixel of a gradient accumulation. `k` is a gradient kernel record with
// the fields facets, facet_normals, num_f, width, height, camera_ref,
// depth_ref, facet_ref, camera_tar, bary_b_ref, bary_c_ref, ncc_grad,
// visible_mask, mean_depth_ref, mean_depth_tar, grad_photo_sum, to_fixed and
// vt_pair_hits;
// `fetch(x, y)` samples the target image (0..1) at texel coordinates.
template <class GradientKernel, class Fetch>
DEVICE_HOST void addPhotometricGradientPixel(const GradientKernel& k, int x, int y, double cosineLimit,
                                             const Fetch& fetch) {
    if (x < 0 || y < 0 || x >= k.width || y >= k.height) return;
    const int e = y * k.width + x;
    if (k.visible_mask[e] != 1) return;

    const float d = k.depth_ref[e];
    const int f = k.facet_ref[e];
    const float b = k.bary_b_ref[e];
    const float c = k.bary_c_ref[e];
    // A masked pixel always has a facet in the integrated schedule; the guard
    // protects the single-pair entry points, whose mask comes from the caller.
    if (f < 0 || f >= k.num_f) return;

    const float s = (k.mean_depth_ref * k.mean_depth_tar) / (k.camera_ref.fx * k.camera_ref.fy);

    const int i0 = k.facets[3 * f], i1 = k.facets[3 * f + 1], i2 = k.facets[3 * f + 2];
    const float N[3] = {k.facet_normals[3 * f], k.facet_normals[3 * f + 1], k.facet_normals[3 * f + 2]};

    float C[3], r[3], X[3];
    pixelSurfacePointF(k.camera_ref, x, y, d, C, r, X);

    const float n = N[0] * r[0] + N[1] * r[1] + N[2] * r[2];
    if (double(n) > cosineLimit) return;

    // The mask says the warp found this point in front of the target, with
    // the same arithmetic, so pw > 0 here.
    const float* P = k.camera_tar.P;
    float px, py, pw;
    projectF(P, X, px, py, pw);
    const float u = px / pw, v = py / pw;

    // Jacobian of (px/pw, py/pw) with respect to X.
    const float pw2 = pw * pw;
    float J0[3], J1[3];
    for (int m = 0; m < 3; ++m) {
        J0[m] = (P[m] * pw - px * P[8 + m]) / pw2;
        J1[m] = (P[4 + m] * pw - py * P[8 + m]) / pw2;
    }

    // Central differences of the bilinear target image, one pixel apart, on
    // the fetch's 0..1 scale.
    const float gx = fetch(u + 1.0f, v + 0.5f) - fetch(u + 0.0f, v + 0.5f);
    const float gy = fetch(u + 0.5f, v + 1.0f) - fetch(u + 0.5f, v + 0.0f);

    const float g = k.ncc_grad[e];
    float G[3];
    for (int m = 0; m < 3; ++m) G[m] = g * (gx * J0[m] + gy * J1[m]);

    // Motion along the ray per unit motion along the normal.
    const float D = (G[0] * r[0] + G[1] * r[1] + G[2] * r[2]) / n;

    const int vertex[3] = {i0, i1, i2};
    const float weight[3] = {1.0f - b - c, b, c};
    for (int m = 0; m < 3; ++m) {
        const float a = (s * weight[m]) * D;
        for (int q = 0; q < 3; ++q)
            atomicAddU64(k.grad_photo_sum + 3 * vertex[m] + q, toFixedPoint(a * N[q], k.to_fixed));
    }
    for (int m = 0; m < 3; ++m) atomicAddFloat(k.vt_pair_hits + vertex[m], 1.0f);
}

// The gradient of one ordered pair of the image stack: the target image is
// layer index_tar of tex_imgs.
struct Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA {
    static constexpr int kFloorBytesPerElement = 1;  // the mask read
    int num_f;
    const int* facets;
    const float* facet_normals;
    int width;
    int height;
    mycamera_cuda camera_ref;
    const float* depth_ref;
    const int* facet_ref;
    int index_ref;  // not read
    mycamera_cuda camera_tar;
    const float* depth_tar;  // not read
    const int* facet_tar;    // not read
    int index_tar;
    const float* bary_b_ref;
    const float* bary_c_ref;
    const float* ncc_grad;
    const uint8_t* visible_mask;
    float mean_depth_ref;
    float mean_depth_tar;
    int num_v;  // not read
    unsigned long long* grad_photo_sum;  // GRAD_PHOTO before normalisation, fixed point
    float to_fixed;
    float* vt_pair_hits;
    LayeredTexture tex_imgs;

    DEVICE_HOST void operator()(int x, int y) const {
        addPhotometricGradientPixel(*this, x, y, kIntegratedCosineLimit, LayeredImageFetch{tex_imgs, index_tar});
    }
};

// Counts, per vertex, the pairs that reached it: once per pair, however many
// pixels did.
struct Kernel_Update_Vt_Image_Pair_Count {
    static constexpr int kFloorBytesPerElement = 4;  // the pair hits read
    int num_v;
    float* vt_pair_count;
    const float* vt_pair_hits;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        if (vt_pair_hits[id] > 0.0f) vt_pair_count[id] = vt_pair_count[id] + 1.0f;
    }
};

// Sum over pixels within a pair, mean over pairs; a vertex no pair reached
// gets exactly zero and update mask 0. The sums arrive in fixed point and
// leave GRAD_PHOTO as floats.
struct Kernel_Normalize_GRAD_PHOTO {
    static constexpr int kFloorBytesPerElement = 41;  // pair count and sums read, gradient and update mask written
    int num_v;
    float* grad_photo;
    const float* vt_pair_count;
    uint8_t* vt_update_mask;
    const unsigned long long* grad_photo_sum;
    float to_float;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        const float n = vt_pair_count[id];
        if (n >= 1.0f) {
            for (int k = 0; k < 3; ++k) grad_photo[3 * id + k] = fromFixedPoint(grad_photo_sum[3 * id + k], to_float) / n;
            vt_update_mask[id] = 1;
        } else {
            for (int k = 0; k < 3; ++k) grad_photo[3 * id + k] = 0.0f;
            vt_update_mask[id] = 0;
        }
    }
};

}  // namespace tessaline
