// The CPU's row routine of the gradient pass of a camera pair
// (optimization/FusedPairKernels.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "backend/cpu/WindowStatisticsRows.h"
#include "optimization/FusedPairKernels.h"

namespace tessaline {

namespace cpurow {

// The NCC derivative of 8 neighbouring pixels from the sums of alpha, beta
// and gamma terms and their count over their windows; the pointers point at
// the first pixel. A window position outside the mask adds its terms of
// 0.0, which leaves each sum exactly as it was: the sums start at +0.0 and
// are never -0.0 (no term is -0.0, and a sum of nonzero floats that cancels
// is +0.0), so adding +0.0 changes nothing, and subtracting it never does.
// Lanes outside the mask get a meaningless value.
inline void gradients(const float* __restrict R, const float* __restrict B, const float* __restrict C,
                      const float* __restrict M, const float* __restrict texture, const float* __restrict imageA,
                      const float* __restrict imageB, int W, int h, float* __restrict g) {
    float sa[kLanes] = {}, sb[kLanes] = {}, sc[kLanes] = {}, sm[kLanes] = {};
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const int q = j * W + i;
            for (int l = 0; l < kLanes; ++l) {
                sa[l] = sa[l] - R[q + l];
                sb[l] = sb[l] + B[q + l];
                sc[l] = sc[l] + C[q + l];
                sm[l] = sm[l] + M[q + l];
            }
        }
    for (int l = 0; l < kLanes; ++l) {
        NccAbgSums s;
        s.a = sa[l];
        s.b = sb[l];
        s.c = sc[l];
        s.m = sm[l];
        float alpha, beta, gamma;
        nccAbgCoefficientsFromTexture(s, texture[l], alpha, beta, gamma);
        g[l] = nccGradient(alpha, beta, gamma, imageA[l], imageB[l]);
    }
}

// The target projections of 8 neighbouring pixels, from their surface
// points (6 floats a pixel: ray, then point).
inline void targetProjections(const float* __restrict P, const float* __restrict surface,
                              TargetProjection* __restrict t) {
    float X0[kLanes], X1[kLanes], X2[kLanes];
    for (int l = 0; l < kLanes; ++l) {
        X0[l] = surface[6 * l + 3];
        X1[l] = surface[6 * l + 4];
        X2[l] = surface[6 * l + 5];
    }
    for (int l = 0; l < kLanes; ++l) {
        const float X[3] = {X0[l], X1[l], X2[l]};
        targetProjection(P, X, t[l]);
    }
}

}  // namespace cpurow

// Rows y0..y1-1 of the gradient pass on the CPU: the same sums as the
// per-pixel kernel. The window sums of alpha, beta and gamma are worked for
// 8 neighbouring pixels at once (skipped together when none of them is in
// the mask; the pixels left at the row's end are worked one by one), and the
// contributions are added up before they go to the shared sums: those of a
// run of pixels on one facet first, then per vertex in a small table that
// sends a vertex's sums on with one atomic addition per axis only when
// another vertex takes its entry, or at the end. Fixed-point addition is
// associative, so the sums are the same.
inline void cpuRows(const Kernel_Accumulate_PairGradient& k, int y0, int y1) {
    using cpurow::kLanes;
    const int W = k.width, H = k.height, h = k.halfWindow;
    const int x0 = h, x1 = W - h;

    // Per-vertex sums waiting to be added to the shared ones.
    struct Pending {
        int vertex;
        unsigned long long amount[3];
    };
    constexpr int kTableSize = 4096;  // a power of two
    thread_local std::vector<Pending> table;
    table.assign(kTableSize, Pending{-1, {0, 0, 0}});
    const auto send = [&](Pending& p) {
        if (p.vertex < 0) return;
        for (int q = 0; q < 3; ++q)
            if (p.amount[q] != 0) atomicAddU64(k.grad_photo_sum + 3 * p.vertex + q, p.amount[q]);
        k.countPair(p.vertex);
        p.vertex = -1;
    };
    const auto addToVertex = [&](int vertex, const unsigned long long amount[3]) {
        Pending& p = table[size_t(vertex) & (kTableSize - 1)];
        if (p.vertex != vertex) {
            send(p);
            p = Pending{vertex, {0, 0, 0}};
        }
        for (int q = 0; q < 3; ++q) p.amount[q] += amount[q];
    };

    struct Run {
        PixelContribution sum{};
        bool open = false;
    } run;
    const auto flushRun = [&] {
        if (!run.open) return;
        for (int m = 0; m < 3; ++m) addToVertex(run.sum.vertex[m], run.sum.amount[m]);
        run.open = false;
    };
    const auto addToRun = [&](const PixelContribution& p) {
        if (run.open && p.facet == run.sum.facet) {
            for (int m = 0; m < 3; ++m)
                for (int q = 0; q < 3; ++q) run.sum.amount[m][q] += p.amount[m][q];
            return;
        }
        flushRun();
        run.sum = p;
        run.open = true;
    };

    const float scale = pairScale(k);

    // The contribution of valid pixel e with NCC derivative g.
    const auto contribute = [&](size_t e, float g) {
        PixelContribution p;
        const float* rX = k.surface_ref + 6 * e;
        if (photometricContributionAt(k, int(e), rX, rX + 3, g, kIntegratedCosineLimit, p)) addToRun(p);
    };

    for (int y = y0; y < y1 && y < H; ++y) {
        // Only interior pixels are in the mask.
        if (y < h || y > H - 1 - h || x0 >= x1) continue;
        const size_t row = size_t(y) * W;
        int x = x0;
        for (; x + kLanes <= x1; x += kLanes) {
            const size_t e = row + size_t(x);
            if (!cpurow::anyValid(k.mask + e)) continue;
            float g[kLanes];
            cpurow::gradients(k.termR + e, k.termB + e, k.termC + e, k.termM + e, k.texture + e, k.imageA + e,
                              k.imageB + e, W, h, g);
            // The target projections of the 8 pixels at once (lanes outside
            // the mask are worked too, and dropped).
            TargetProjection t[kLanes];
            const float* surface = k.surface_ref + 6 * e;
            cpurow::targetProjections(k.camera_tar.P, surface, t);
            // Per lane: the facet and the cosine (scalar), the target's
            // gradient (scalar fetches), then the motion along the ray and
            // the vertices' shares for all lanes at once, and the amounts of
            // the lanes that contribute.
            bool contributes[kLanes];
            int facet[kLanes];
            float N[kLanes][3], n[kLanes], gx[kLanes], gy[kLanes], b[kLanes], c[kLanes];
            for (int l = 0; l < kLanes; ++l) {
                contributes[l] = k.mask[e + l] == 1 &&
                                 photometricFacet(k, int(e) + l, surface + 6 * l, kIntegratedCosineLimit, facet[l],
                                                  N[l], n[l]);
                gx[l] = gy[l] = b[l] = c[l] = 0.0f;
                if (!contributes[l]) {
                    n[l] = 1.0f;  // a lane that is dropped: any finite values
                    continue;
                }
                targetGradient(k, t[l], gx[l], gy[l]);
                b[l] = k.bary_b_ref[e + l];
                c[l] = k.bary_c_ref[e + l];
            }
            float shares[kLanes][3];
            for (int l = 0; l < kLanes; ++l)
                vertexShares(scale, b[l], c[l], alongRay(g[l], gx[l], gy[l], t[l], surface + 6 * l, n[l]), shares[l]);
            for (int l = 0; l < kLanes; ++l) {
                if (!contributes[l]) continue;
                PixelContribution p;
                vertexAmounts(k, facet[l], N[l], shares[l], p);
                addToRun(p);
            }
        }
        for (; x < x1; ++x)
            if (k.mask[row + x] == 1)
                contribute(row + x, nccGradientFromTerms(k.mask, k.termR, k.termB, k.termC, k.texture, k.imageA,
                                                         k.imageB, W, x, y, h));
    }
    flushRun();
    for (Pending& p : table) send(p);
}

}  // namespace tessaline
