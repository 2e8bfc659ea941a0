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


}  // namespace tessaline
