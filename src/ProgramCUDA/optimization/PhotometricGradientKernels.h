// Photometric gradient: carries the NCC derivative image g of a camera pair
// through the target image gradient and the target projection to a motion of
// the surface along each reference pixel's viewing ray, converts that to a
// motion along the facet normal, and scatters it to the facet's three
// vertices with the pixel's barycentric weights. Per vertex, the sum over the
// pixels of a pair is kept, and each iteration divides by the number of pairs
// that reached the vertex.
//
// The per-vertex sums are fixed point (FixedPointSum.h), so that they do not
// depend on the order in which pixels add to them; the pixel hits are whole
// numbers, exact in float in any order.
#pragma once

#include <cstdint>

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "FixedPointSum.h"
#include "TextureSampler.h"
#include "mycamera.h"
#include "optimization/PairGroups.h"

namespace tessaline {

// One pixel's share of GRAD_PHOTO: the facet's three vertices, and for each
// the fixed-point amounts it adds along the facet normal's three axes.
struct PixelContribution {
    int facet;
    int vertex[3];
    unsigned long long amount[3][3];  // [vertex][axis]
};

// Where a surface point X falls in the target, (u, v) = (px/pw, py/pw)
// with (px, py, pw) = P (X, 1), and the Jacobian of (u, v) with respect to X.
struct TargetProjection {
    float u, v;
    float J0[3], J1[3];
};

DEVICE_HOST_HOT void targetProjection(const float P[12], const float X[3], TargetProjection& t) {
    float px, py, pw;
    projectF(P, X, px, py, pw);
    t.u = px / pw;
    t.v = py / pw;
    const float pw2 = pw * pw;
    // Written out, so that the compiler can work several projections at once.
    t.J0[0] = (P[0] * pw - px * P[8]) / pw2;
    t.J1[0] = (P[4] * pw - py * P[8]) / pw2;
    t.J0[1] = (P[1] * pw - px * P[9]) / pw2;
    t.J1[1] = (P[5] * pw - py * P[9]) / pw2;
    t.J0[2] = (P[2] * pw - px * P[10]) / pw2;
    t.J1[2] = (P[6] * pw - py * P[10]) / pw2;
}

// The first steps of a pixel's contribution: its facet f and the facet's
// unit normal N, and the cosine n between N and the pixel's ray r; false
// when the pixel has no contribution (no facet, or a cosine above
// `cosineLimit`, compared in double: a back face or a grazing view).
template <class Fetch>
DEVICE_HOST_HOT bool photometricFacet(const PairSurface<Fetch>& s, int e, const float r[3], double cosineLimit,
                                      int& f, float N[3], float& n) {
    f = s.pair.ref.facet[e];
    // A masked pixel always has a facet in the optimisation; the guard
    // protects the single-step entry point, whose mask comes from the caller.
    if (f < 0 || f >= s.mesh.num_f) return false;
    for (int q = 0; q < 3; ++q) N[q] = s.mesh.normals[3 * f + q];
    n = N[0] * r[0] + N[1] * r[1] + N[2] * r[2];
    return !(double(n) > cosineLimit);
}

// The pair's scale of the photometric gradient: the two cameras' mean
// depths over the reference's focal lengths.
template <class Fetch>
DEVICE_HOST_HOT float pairScale(const PairSurface<Fetch>& s) {
    return (s.mean_depth_ref * s.mean_depth_tar) / (s.pair.ref.camera.fx * s.pair.ref.camera.fy);
}

// The motion of the surface along the pixel's ray per unit motion along
// the facet normal: the NCC derivative g carried through the target image's
// gradient (gx, gy) and the projection's Jacobian, along the ray r, over the
// cosine n.
DEVICE_HOST_HOT float alongRay(float g, float gx, float gy, const TargetProjection& t, const float r[3], float n) {
    float G[3];
    for (int m = 0; m < 3; ++m) G[m] = g * (gx * t.J0[m] + gy * t.J1[m]);
    return (G[0] * r[0] + G[1] * r[1] + G[2] * r[2]) / n;
}

// Each vertex's share of that motion: the pair scale s times the vertex's
// barycentric weight (1 - b - c, b, c) times D.
DEVICE_HOST_HOT void vertexShares(float s, float b, float c, float D, float a[3]) {
    const float weight[3] = {1.0f - b - c, b, c};
    for (int m = 0; m < 3; ++m) a[m] = (s * weight[m]) * D;
}

// The fixed-point amounts that shares a[] add along the normal N.
DEVICE_HOST_HOT void vertexAmounts(const FacetNormals& mesh, float to_fixed, int f, const float N[3],
                                   const float a[3], PixelContribution& out) {
    out.facet = f;
    for (int m = 0; m < 3; ++m) {
        out.vertex[m] = mesh.facets[3 * f + m];
        for (int q = 0; q < 3; ++q) out.amount[m][q] = toFixedPoint(a[m] * N[q], to_fixed);
    }
}

// The target image's central differences at the projection, one pixel
// apart, on the fetch's 0..1 scale.
template <class Fetch>
DEVICE_HOST_HOT void targetGradient(const Fetch& target, const TargetProjection& t, float& gx, float& gy) {
    gx = target(t.u + 1.0f, t.v + 0.5f) - target(t.u + 0.0f, t.v + 0.5f);
    gy = target(t.u + 0.5f, t.v + 1.0f) - target(t.u + 0.5f, t.v + 0.0f);
}

// The last steps: the target image's gradient at the projection, the motion
// along the ray per unit motion along the normal, and the fixed-point
// amounts for the facet's three vertices; `scale` is pairScale(s).
template <class Fetch>
DEVICE_HOST_HOT void photometricAmounts(const PairSurface<Fetch>& s, float to_fixed, int e, int f, const float N[3],
                                        float n, const float r[3], const TargetProjection& t, float g, float scale,
                                        PixelContribution& out) {
    float gx, gy;
    targetGradient(s.pair.target, t, gx, gy);
    float a[3];
    vertexShares(scale, s.pair.ref.bary_b[e], s.pair.ref.bary_c[e], alongRay(g, gx, gy, t, r, n), a);
    vertexAmounts(s.mesh, to_fixed, f, N, a, out);
}

// The contribution of reference pixel e, whose NCC derivative is g, or
// false when it has none; r is the pixel's unit viewing ray and X its
// surface point.
template <class Fetch>
DEVICE_HOST bool photometricContributionAt(const PairSurface<Fetch>& s, float to_fixed, int e, const float r[3],
                                           const float X[3], float g, double cosineLimit, PixelContribution& out) {
    int f;
    float N[3], n;
    if (!photometricFacet(s, e, r, cosineLimit, f, N, n)) return false;
    // The mask says the warp found this point in front of the target, with
    // the same arithmetic, so pw > 0 here.
    TargetProjection t;
    targetProjection(s.pair.tar.camera.P, X, t);
    photometricAmounts(s, to_fixed, e, f, N, n, r, t, g, pairScale(s), out);
    return true;
}

// The same for reference pixel (x, y), its ray and surface point worked out
// from the reference camera and its depth.
template <class Fetch>
DEVICE_HOST bool photometricContribution(const PairSurface<Fetch>& s, float to_fixed, int x, int y, float g,
                                         double cosineLimit, PixelContribution& out) {
    const RenderedCamera& ref = s.pair.ref;
    const int e = ref.depth.index(x, y);
    float C[3], r[3], X[3];
    pixelSurfacePointF(ref.camera, x, y, ref.depth[e], C, r, X);
    return photometricContributionAt(s, to_fixed, e, r, X, g, cosineLimit, out);
}

// The gradient accumulation of one ordered pair, per reference pixel, from
// the pair's NCC derivative image and mask: every contributing pixel adds
// its amounts and a hit to each of its three vertices.
template <class Fetch, int CosineLimitHundredths>
struct PhotometricGradient {
    static constexpr int kFloorBytesPerElement = 1;  // the mask read
    PairSurface<Fetch> surface;
    ConstImageView<float> ncc_grad;
    ConstImageView<uint8_t> visible_mask;
    GradientSums sums;
    float* vt_pair_hits;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!visible_mask.contains(x, y)) return;
        const int e = visible_mask.index(x, y);
        if (visible_mask[e] != 1) return;
        PixelContribution p;
        const double limit = double(CosineLimitHundredths) / 100.0;
        if (!photometricContribution(surface, sums.to_fixed, x, y, ncc_grad[e], limit, p)) return;
        for (int m = 0; m < 3; ++m)
            for (int q = 0; q < 3; ++q) atomicAddU64(sums.grad_photo_sum + 3 * p.vertex[m] + q, p.amount[m][q]);
        for (int m = 0; m < 3; ++m) atomicAddFloat(vt_pair_hits + p.vertex[m], 1.0f);
    }
};

// The cosine limit of the optimisation's gradient.
constexpr double kIntegratedCosineLimit = -0.1;

// The gradient of one ordered pair of the image stack (the target is its
// layer): pixels with a cosine above -0.1 end.
struct Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA : PhotometricGradient<StackLayerFetch, -10> {};

// The gradient of one pair whose target image is bound on its own: more
// grazing pixels contribute, up to a cosine of -0.01.
struct Kernel_AddPhotometricGradient_ImagePair_CUDA : PhotometricGradient<ImageFetch, -1> {};

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
