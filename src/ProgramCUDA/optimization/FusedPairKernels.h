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

#include "DeviceCommon.h"
#include "TextureSampler.h"
#include "mycamera.h"
#include "ncc/NccFusedKernels.h"
#include "optimization/PairGroups.h"
#include "optimization/PhotometricGradientKernels.h"

namespace tessaline {

struct Kernel_Accumulate_PairGradient {
    static constexpr int kFloorBytesPerElement = 1;  // the mask read
    PairSurface<StackLayerFetch> surface;
    ConstImageView<SurfacePoint> surface_points;  // the reference's (Kernel_Surface_Points)
    PairWindows windows;
    GradientSums sums;
    PairCounter counter;

    DEVICE_HOST void operator()(int x, int y) const {
        const ConstImageView<uint8_t> mask = windows.terms.mask;
        if (!mask.contains(x, y)) return;
        const int e = mask.index(x, y);
        if (mask[e] != 1) return;
        const float g = nccGradientFromTerms(windows, x, y);
        PixelContribution p;
        const SurfacePoint& point = surface_points[e];
        if (!photometricContributionAt(surface, sums.to_fixed, e, point.ray, point.point, g, kIntegratedCosineLimit,
                                       p))
            return;
        for (int m = 0; m < 3; ++m)
            for (int q = 0; q < 3; ++q) atomicAddU64Combined(sums.grad_photo_sum + 3 * p.vertex[m] + q, p.amount[m][q]);
        for (int m = 0; m < 3; ++m) countPair(p.vertex[m]);
    }

    // Counts this pair at a vertex, once whatever the number of its pixels.
    DEVICE_HOST void countPair(int vertex) const {
        int* stamp = counter.pair_stamp + vertex;
        if (atomicLoadInt(stamp) != counter.pair_id && atomicExchangeInt(stamp, counter.pair_id) != counter.pair_id)
            atomicAddFloat(counter.vt_pair_count + vertex, 1.0f);
    }
};

}  // namespace tessaline
