// The NCC chain in two passes instead of seven, for the optimisation's fast
// schedule. The arithmetic is that of the chain's kernels (the shared
// helpers of ncc/NccKernels.h, in the same order), so the gradient comes
// out the same, bit for bit:
//   1. Kernel_Ncc_WindowStatistics: per pixel the mask and, at a valid pixel,
//      the means, variances, covariance and correlation of its window, kept
//      only as what the second pass reads: the pixel's term of the alpha,
//      beta and gamma sums, its share of their count (1.0, and 0.0 with
//      terms of 0.0 outside the mask), and its texture t (the smaller
//      variance).
//   2. The gradient pass adds up the terms of the valid window positions
//      around each valid pixel (optimization/FusedPairKernels.h).
// The chain's AlphaBetaGamma kernel works out each term again for every
// pixel whose window holds it (25 square roots and 50 divisions a pixel);
// here each term is worked out once.
#pragma once

#include <cstdint>
#include <vector>

#include "DeviceCommon.h"
#include "ncc/NccKernels.h"

namespace tessaline {

struct Kernel_Ncc_WindowStatistics {
    static constexpr int kFloorBytesPerElement = 17;  // mask and four floats written
    int width;
    int height;
    const float* imageA;
    const float* imageB;
    uint8_t* mask;
    float* termR;
    float* termB;
    float* termC;
    float* termM;
    float* texture;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        const bool valid = nccInterior(x, y, width, height, h) && nccWindowHasValues(imageB, width, x, y, h);
        mask[idx] = valid ? 1 : 0;
        if (!valid) {
            // Never used by the gradient pass; written so that every pass
            // leaves the same bytes.
            termR[idx] = termB[idx] = termC[idx] = termM[idx] = texture[idx] = 0.0f;
            return;
        }
        const float N = nccWindowCount(h);
        const float meanA = nccWindowSum(imageA, width, x, y, h) / N;
        const float meanB = nccWindowSum(imageB, width, x, y, h) / N;
        const float varA = nccVariance(nccCentredSquares(imageA, width, x, y, h, meanA), h);
        const float varB = nccVariance(nccCentredSquares(imageB, width, x, y, h, meanB), h);
        const float cov = nccCentredProducts(imageA, meanA, imageB, meanB, width, x, y, h) / N;
        const NccAbgTerm t = nccAbgTerm(varA, varB, meanA, meanB, nccCorrelation(cov, varA, varB));
        termR[idx] = t.r;
        termB[idx] = t.b;
        termC[idx] = t.c;
        termM[idx] = 1.0f;
        texture[idx] = nccTexture(varA, varB);
    }
};

// The NCC derivative at a valid pixel from the terms of the window
// positions around it (mask 1 only at interior pixels, so the window lies in
// the image).
DEVICE_HOST float nccGradientFromTerms(const uint8_t* mask, const float* termR, const float* termB,
                                       const float* termC, const float* texture, const float* imageA,
                                       const float* imageB, int width, int x, int y, int h) {
    NccAbgSums sums;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const int q = (y + j) * width + (x + i);
            if (mask[q] == 1) sums.add(NccAbgTerm{termR[q], termB[q], termC[q]});
        }
    const int idx = y * width + x;
    float alpha, beta, gamma;
    nccAbgCoefficientsFromTexture(sums, texture[idx], alpha, beta, gamma);
    return nccGradient(alpha, beta, gamma, imageA[idx], imageB[idx]);
}

#if !defined(__CUDA_ARCH__)
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
    const int W = k.width, H = k.height, h = k.halfWindow;
    const float N = nccWindowCount(h);
    const int x0 = h, x1 = W - h;  // the interior columns
    thread_local std::vector<uint8_t> badColumn;
    badColumn.resize(size_t(W > 0 ? W : 0));
    uint8_t* bad = badColumn.data();
    for (int y = y0; y < y1 && y < H; ++y) {
        const size_t row = size_t(y) * W;
        uint8_t* maskRow = k.mask + row;
        float* R = k.termR + row;
        float* Bt = k.termB + row;
        float* Ct = k.termC + row;
        float* M = k.termM + row;
        float* T = k.texture + row;
        for (int x = 0; x < W; ++x) {
            maskRow[x] = 0;
            R[x] = Bt[x] = Ct[x] = M[x] = T[x] = 0.0f;
        }
        if (y < h || y > H - 1 - h || x0 >= x1) continue;
        // Columns of the window that hold the "no value" mark.
        for (int x = 0; x < W; ++x) bad[x] = 0;
        for (int j = -h; j <= h; ++j) {
            const float* b = k.imageB + size_t(y + j) * W;
            for (int x = 0; x < W; ++x) bad[x] |= b[x] == kNoValue ? 1 : 0;
        }
        for (int x = x0; x < x1; ++x) maskRow[x] = 1;
        for (int i = -h; i <= h; ++i) cpurow::clearWhereBad(maskRow, bad + i, x0, x1);
        int x = x0;
        for (; x + kLanes <= x1; x += kLanes) {
            if (!cpurow::anyValid(maskRow + x)) continue;
            float meanA[kLanes], meanB[kLanes], sAA[kLanes], sBB[kLanes], sAB[kLanes];
            cpurow::windowSums(k.imageA + row + x, k.imageB + row + x, W, h, N, meanA, meanB, sAA, sBB, sAB);
            for (int l = 0; l < kLanes; ++l) {
                if (maskRow[x + l] != 1) continue;
                const float varA = nccVariance(sAA[l], h), varB = nccVariance(sBB[l], h);
                const NccAbgTerm t =
                    nccAbgTerm(varA, varB, meanA[l], meanB[l], nccCorrelation(sAB[l] / N, varA, varB));
                R[x + l] = t.r;
                Bt[x + l] = t.b;
                Ct[x + l] = t.c;
                M[x + l] = 1.0f;
                T[x + l] = nccTexture(varA, varB);
            }
        }
        for (; x < x1; ++x) k(x, y);
    }
}
#endif

}  // namespace tessaline
