// The CPU's row routine of the warp from a camera's surface points
// (optimization/WarpKernels.h).
#pragma once

#include <cstddef>

#include "optimization/WarpKernels.h"

namespace tessaline {

// Rows y0..y1-1 of the warp on the CPU: the same bytes as the per-pixel
// kernel, the target views of 8 neighbouring pixels worked at once.
inline void cpuRows(const Kernel_Warp_SurfacePoints& k, int y0, int y1) {
    constexpr int kLanes = 8;
    const int W = k.warped.width, H = k.warped.height;
    const ConstImageView<int> facet = k.pair.ref.facet;
    const mycamera_cuda& camera_tar = k.pair.tar.camera;
    float Ct[3];
    cameraCentreF(camera_tar, Ct);
    for (int y = y0; y < y1 && y < H; ++y) {
        const size_t row = size_t(y) * W;
        int x = 0;
        for (; x + kLanes <= W; x += kLanes) {
            const size_t e = row + size_t(x);
            bool any = false;
            for (int l = 0; l < kLanes; ++l) {
                k.warped[e + l] = kWarpNoValue;
                any |= facet[e + l] >= 0;
            }
            if (!any) continue;
            float u[kLanes], v[kLanes], dt[kLanes];
            const SurfacePoint* surface = k.surface_ref.at(e);
            for (int l = 0; l < kLanes; ++l) {
                const float X[3] = {surface[l].point[0], surface[l].point[1], surface[l].point[2]};
                targetView(X, camera_tar, Ct, u[l], v[l], dt[l]);
            }
            for (int l = 0; l < kLanes; ++l)
                if (facet[e + l] >= 0) k.warped[e + l] = warpedValueAt(u[l], v[l], dt[l], k.pair.tar.depth, k.pair.target);
        }
        for (; x < W; ++x) k(x, y);
    }
}

}  // namespace tessaline
