// The CPU's row routine of the window statistics (ncc/NccFusedKernels.h):
// 16 neighbouring pixels of a row at once, their sums in registers.
#pragma once

#include <cstdint>
#include <vector>

#include "ncc/NccFusedKernels.h"

namespace tessaline {

// The CPU routines below work 8 neighbouring pixels at once, their sums in
// registers; per pixel they do exactly what the per-pixel helpers do, each
// sum taking its terms one by one in the window's order.
namespace cpurow {

constexpr int kLanes = 16;

// True when one of the 8 mask bytes is 1.
inline bool anyValid(const uint8_t* mask) {
    uint8_t any = 0;
    for (int l = 0; l < kLanes; ++l) any |= mask[l] == 1 ? 1 : 0;
    return any != 0;
}

// Means and centred sums of the windows of 8 neighbouring pixels; A and B
// point at the first pixel.
inline void windowSums(const float* __restrict A, const float* __restrict B, int W, int h, float N,
                       float* __restrict meanA, float* __restrict meanB, float* __restrict sAA,
                       float* __restrict sBB, float* __restrict sAB) {
    float sa[kLanes] = {}, sb[kLanes] = {};
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const float* a = A + j * W + i;
            const float* b = B + j * W + i;
            for (int l = 0; l < kLanes; ++l) {
                sa[l] = sa[l] + a[l];
                sb[l] = sb[l] + b[l];
            }
        }
    float ma[kLanes], mb[kLanes];
    for (int l = 0; l < kLanes; ++l) {
        ma[l] = sa[l] / N;
        mb[l] = sb[l] / N;
    }
    float aa[kLanes] = {}, bb[kLanes] = {}, ab[kLanes] = {};
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const float* a = A + j * W + i;
            const float* b = B + j * W + i;
            for (int l = 0; l < kLanes; ++l) {
                const float dA = a[l] - ma[l], dB = b[l] - mb[l];
                aa[l] = fmaF(dA, dA, aa[l]);
                bb[l] = fmaF(dB, dB, bb[l]);
                ab[l] = fmaF(dA, dB, ab[l]);
            }
        }
    for (int l = 0; l < kLanes; ++l) {
        meanA[l] = ma[l];
        meanB[l] = mb[l];
        sAA[l] = aa[l];
        sBB[l] = bb[l];
        sAB[l] = ab[l];
    }
}

// mask[x] = 0 where bad[x] is set.
inline void clearWhereBad(uint8_t* __restrict mask, const uint8_t* __restrict bad, int x0, int x1) {
    for (int x = x0; x < x1; ++x) mask[x] = bad[x] ? 0 : mask[x];
}

}  // namespace cpurow

// The window statistics of rows y0..y1-1 on the CPU: the same bytes as the
// per-pixel kernel. Eight interior pixels in a row are worked at once,
// skipped together when none of them is in the mask; the pixels left at the
// row's end go through the per-pixel kernel.
inline void cpuRows(const Kernel_Ncc_WindowStatistics& k, int y0, int y1) {
    using cpurow::kLanes;
    const WindowTerms& t = k.terms;
    const int W = t.mask.width, H = t.mask.height, h = k.halfWindow;
    const float N = nccWindowCount(h);
    const int x0 = h, x1 = W - h;  // the interior columns
    thread_local std::vector<uint8_t> badColumn;
    badColumn.resize(size_t(W > 0 ? W : 0));
    uint8_t* bad = badColumn.data();
    for (int y = y0; y < y1 && y < H; ++y) {
        const size_t row = size_t(y) * W;
        uint8_t* maskRow = t.mask.at(row);
        float* R = t.termR.at(row);
        float* Bt = t.termB.at(row);
        float* Ct = t.termC.at(row);
        float* M = t.termM.at(row);
        float* T = t.texture.at(row);
        for (int x = 0; x < W; ++x) {
            maskRow[x] = 0;
            R[x] = Bt[x] = Ct[x] = M[x] = T[x] = 0.0f;
        }
        if (y < h || y > H - 1 - h || x0 >= x1) continue;
        // Columns of the window that hold the "no value" mark.
        for (int x = 0; x < W; ++x) bad[x] = 0;
        for (int j = -h; j <= h; ++j) {
            const float* b = k.images.imageB.at(size_t(y + j) * W);
            for (int x = 0; x < W; ++x) bad[x] |= b[x] == kNoValue ? 1 : 0;
        }
        for (int x = x0; x < x1; ++x) maskRow[x] = 1;
        for (int i = -h; i <= h; ++i) cpurow::clearWhereBad(maskRow, bad + i, x0, x1);
        int x = x0;
        for (; x + kLanes <= x1; x += kLanes) {
            if (!cpurow::anyValid(maskRow + x)) continue;
            float meanA[kLanes], meanB[kLanes], sAA[kLanes], sBB[kLanes], sAB[kLanes];
            cpurow::windowSums(k.images.imageA.at(row + x), k.images.imageB.at(row + x), W, h, N, meanA, meanB, sAA,
                               sBB, sAB);
            for (int l = 0; l < kLanes; ++l) {
                if (maskRow[x + l] != 1) continue;
                const float varA = nccVariance(sAA[l], h), varB = nccVariance(sBB[l], h);
                const NccAbgTerm term =
                    nccAbgTerm(varA, varB, meanA[l], meanB[l], nccCorrelation(sAB[l] / N, varA, varB));
                R[x + l] = term.r;
                Bt[x + l] = term.b;
                Ct[x + l] = term.c;
                M[x + l] = 1.0f;
                T[x + l] = nccTexture(varA, varB);
            }
        }
        for (; x < x1; ++x) k(x, y);
    }
}

}  // namespace tessaline
