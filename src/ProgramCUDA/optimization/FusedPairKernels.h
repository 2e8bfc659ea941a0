// The second pass of a camera pair in the optimisation's fast schedule: per
// reference pixel the NCC derivative from the window terms of
// Kernel_Ncc_WindowStatistics, and at once its photometric contribution to
// the vertices. With the warp before them, a pair is three launches instead
// of thirteen, and no intermediate image but the terms goes to memory. The
// arithmetic is that of the chain and of the reference gradient kernel
// (shared helpers), so GRAD_PHOTO comes out the same, bit for bit.
//
// The pairs that reached a vertex are counted without a per-pair array of
// pixel hits: the first pixel of a pair that reaches a vertex swaps the
// pair's number into the vertex's stamp and counts the pair; the count is
// the same, whatever the order of the pixels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "DeviceCommon.h"
#include "TextureSampler.h"
#include "mycamera.h"
#include "ncc/NccFusedKernels.h"
#include "optimization/PhotometricGradientKernels.h"

namespace tessaline {

struct Kernel_Accumulate_PairGradient {
    static constexpr int kFloorBytesPerElement = 1;  // the mask read
    // The pair's surface, as photometricContribution reads it.
    int num_f;
    const int* facets;
    const float* facet_normals;
    int width;
    int height;
    mycamera_cuda camera_ref;
    const float* surface_ref;  // per pixel the ray and the surface point (Kernel_Surface_Points)
    const int* facet_ref;
    mycamera_cuda camera_tar;
    const float* bary_b_ref;
    const float* bary_c_ref;
    float mean_depth_ref;
    float mean_depth_tar;
    float to_fixed;
    StackLayerFetch target;
    // The pair's images and window statistics.
    const float* imageA;
    const float* imageB;
    const uint8_t* mask;
    const float* termR;
    const float* termB;
    const float* termC;
    const float* termM;
    const float* texture;
    int halfWindow;
    // The iteration's sums and pair counts.
    unsigned long long* grad_photo_sum;
    int* pair_stamp;
    int pair_id;
    float* vt_pair_count;

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        const int e = y * width + x;
        if (mask[e] != 1) return;
        const float g =
            nccGradientFromTerms(mask, termR, termB, termC, texture, imageA, imageB, width, x, y, halfWindow);
        PixelContribution p;
        const float* rX = surface_ref + 6 * size_t(e);
        if (!photometricContributionAt(*this, e, rX, rX + 3, g, kIntegratedCosineLimit, p)) return;
        for (int m = 0; m < 3; ++m)
            for (int q = 0; q < 3; ++q) atomicAddU64Combined(grad_photo_sum + 3 * p.vertex[m] + q, p.amount[m][q]);
        for (int m = 0; m < 3; ++m) countPair(p.vertex[m]);
    }

    // Counts this pair at a vertex, once whatever the number of its pixels.
    DEVICE_HOST void countPair(int vertex) const {
        int* stamp = pair_stamp + vertex;
        if (atomicLoadInt(stamp) != pair_id && atomicExchangeInt(stamp, pair_id) != pair_id)
            atomicAddFloat(vt_pair_count + vertex, 1.0f);
    }
};


}  // namespace tessaline
