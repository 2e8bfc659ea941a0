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

// The target projections of neighbouring pixels, from their surface points.
inline void targetProjections(const float* __restrict P, const SurfacePoint* __restrict surface,
                              TargetProjection* __restrict t) {
    float X0[kLanes], X1[kLanes], X2[kLanes];
    for (int l = 0; l < kLanes; ++l) {
        X0[l] = surface[l].point[0];
        X1[l] = surface[l].point[1];
        X2[l] = surface[l].point[2];
    }
    for (int l = 0; l < kLanes; ++l) {
        const float X[3] = {X0[l], X1[l], X2[l]};
        targetProjection(P, X, t[l]);
    }
}

// Per-vertex sums waiting to be added to the shared ones: a small table
// that sends a vertex's sums on, with one atomic addition per axis, only
// when another vertex takes its entry, or at the end. Fixed-point addition
// is associative, so the shared sums come out the same.
class PendingVertexSums {
   public:
    explicit PendingVertexSums(const Kernel_Accumulate_PairGradient& k) : k_(k) {
        table().assign(kTableSize, Pending{-1, {0, 0, 0}});
    }

    void add(int vertex, const unsigned long long amount[3]) {
        Pending& p = table()[size_t(vertex) & (kTableSize - 1)];
        if (p.vertex != vertex) {
            send(p);
            p = Pending{vertex, {0, 0, 0}};
        }
        for (int q = 0; q < 3; ++q) p.amount[q] += amount[q];
    }

    void sendAll() {
        for (Pending& p : table()) send(p);
    }

   private:
    struct Pending {
        int vertex;
        unsigned long long amount[3];
    };
    static constexpr int kTableSize = 4096;  // a power of two

    static std::vector<Pending>& table() {
        thread_local std::vector<Pending> entries;
        return entries;
    }

    void send(Pending& p) {
        if (p.vertex < 0) return;
        for (int q = 0; q < 3; ++q)
            if (p.amount[q] != 0) atomicAddU64(k_.sums.grad_photo_sum + 3 * p.vertex + q, p.amount[q]);
        k_.countPair(p.vertex);
        p.vertex = -1;
    }

    const Kernel_Accumulate_PairGradient& k_;
};

// The contributions of a run of pixels on one facet, added up before they
// go on to the facet's vertices.
class FacetRun {
   public:
    explicit FacetRun(PendingVertexSums& vertices) : vertices_(vertices) {}

    void add(const PixelContribution& p) {
        if (open_ && p.facet == sum_.facet) {
            for (int m = 0; m < 3; ++m)
                for (int q = 0; q < 3; ++q) sum_.amount[m][q] += p.amount[m][q];
            return;
        }
        flush();
        sum_ = p;
        open_ = true;
    }

    void flush() {
        if (!open_) return;
        for (int m = 0; m < 3; ++m) vertices_.add(sum_.vertex[m], sum_.amount[m]);
        open_ = false;
    }

   private:
    PendingVertexSums& vertices_;
    PixelContribution sum_{};
    bool open_ = false;
};

// The gradient pass over rows of the reference image.
class PairGradientRows {
   public:
    explicit PairGradientRows(const Kernel_Accumulate_PairGradient& k)
        : k_(k), vertices_(k), run_(vertices_), scale_(pairScale(k.surface)) {}

    // Rows y0..y1-1; only interior pixels are in the mask.
    void rows(int y0, int y1) {
        const ConstImageView<uint8_t> mask = k_.windows.terms.mask;
        const int W = mask.width, H = mask.height, h = k_.windows.halfWindow;
        const int x0 = h, x1 = W - h;
        for (int y = y0; y < y1 && y < H; ++y) {
            if (y < h || y > H - 1 - h || x0 >= x1) continue;
            const size_t row = size_t(y) * W;
            int x = x0;
            for (; x + kLanes <= x1; x += kLanes)
                if (anyValid(mask.at(row + size_t(x)))) lanes(row + size_t(x));
            for (; x < x1; ++x)
                if (mask[row + x] == 1) pixel(row + x, nccGradientFromTerms(k_.windows, x, y));
        }
        run_.flush();
        vertices_.sendAll();
    }

   private:
    // The contribution of valid pixel e with NCC derivative g.
    void pixel(size_t e, float g) {
        PixelContribution p;
        const SurfacePoint& s = k_.surface_points[e];
        if (photometricContributionAt(k_.surface, k_.sums.to_fixed, int(e), s.ray, s.point, g,
                                      kIntegratedCosineLimit, p))
            run_.add(p);
    }

    // kLanes neighbouring pixels from e on: the window sums of alpha, beta
    // and gamma and the target projections of all lanes at once (lanes
    // outside the mask are worked too, and dropped); per lane the facet and
    // the cosine, and the target's gradient (scalar fetches); then the
    // motion along the ray and the vertices' shares of all lanes at once,
    // and the amounts of the lanes that contribute.
    void lanes(size_t e) {
        const PairWindows& w = k_.windows;
        const ConstWindowTerms& t = w.terms;
        float g[kLanes];
        gradients(t.termR.at(e), t.termB.at(e), t.termC.at(e), t.termM.at(e), t.texture.at(e), w.images.imageA.at(e),
                  w.images.imageB.at(e), t.mask.width, w.halfWindow, g);
        TargetProjection proj[kLanes];
        const SurfacePoint* surface = k_.surface_points.at(e);
        targetProjections(k_.surface.pair.tar.camera.P, surface, proj);
        bool contributes[kLanes];
        int facet[kLanes];
        float N[kLanes][3], n[kLanes], gx[kLanes], gy[kLanes], b[kLanes], c[kLanes];
        for (int l = 0; l < kLanes; ++l) {
            contributes[l] = t.mask[e + l] == 1 && photometricFacet(k_.surface, int(e) + l, surface[l].ray,
                                                                    kIntegratedCosineLimit, facet[l], N[l], n[l]);
            gx[l] = gy[l] = b[l] = c[l] = 0.0f;
            if (!contributes[l]) {
                n[l] = 1.0f;  // a lane that is dropped: any finite values
                continue;
            }
            targetGradient(k_.surface.pair.target, proj[l], gx[l], gy[l]);
            b[l] = k_.surface.pair.ref.bary_b[e + l];
            c[l] = k_.surface.pair.ref.bary_c[e + l];
        }
        float shares[kLanes][3];
        for (int l = 0; l < kLanes; ++l)
            vertexShares(scale_, b[l], c[l], alongRay(g[l], gx[l], gy[l], proj[l], surface[l].ray, n[l]), shares[l]);
        for (int l = 0; l < kLanes; ++l) {
            if (!contributes[l]) continue;
            PixelContribution p;
            vertexAmounts(k_.surface.mesh, k_.sums.to_fixed, facet[l], N[l], shares[l], p);
            run_.add(p);
        }
    }

    const Kernel_Accumulate_PairGradient& k_;
    PendingVertexSums vertices_;
    FacetRun run_;
    const float scale_;
};

}  // namespace cpurow

// Rows y0..y1-1 of the gradient pass on the CPU: the same sums as the
// per-pixel kernel. The window sums are worked for kLanes neighbouring
// pixels at once (skipped together when none of them is in the mask; the
// pixels left at the row's end are worked one by one), and the
// contributions are added up before they go to the shared sums: those of a
// run of pixels on one facet first, then per vertex.
inline void cpuRows(const Kernel_Accumulate_PairGradient& k, int y0, int y1) { cpurow::PairGradientRows(k).rows(y0, y1); }

}  // namespace tessaline
