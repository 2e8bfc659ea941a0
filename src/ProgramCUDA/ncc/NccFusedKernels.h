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
#include <type_traits>

#include "DeviceCommon.h"
#include "ImageView.h"
#include "ncc/NccKernels.h"

namespace tessaline {

// The two images of a pair: the reference image A and the target warped
// into the reference view, B (-1.0 where it has no value).
struct PairImages {
    ConstImageView<float> imageA;
    ConstImageView<float> imageB;
};

// What the statistics pass leaves per pixel for the gradient pass: the
// mask, the pixel's terms of the alpha, beta and gamma sums (R, B, C), its
// share of their count (M) and its texture. T is float where the images are
// written and const float where they are read.
template <class T>
struct WindowTermsOf {
    using Byte = std::conditional_t<std::is_const_v<T>, const uint8_t, uint8_t>;
    ImageView<Byte> mask;
    ImageView<T> termR, termB, termC, termM, texture;
};
using WindowTerms = WindowTermsOf<float>;
using ConstWindowTerms = WindowTermsOf<const float>;

inline ConstWindowTerms readOnly(const WindowTerms& t) {
    return {t.mask, t.termR, t.termB, t.termC, t.termM, t.texture};
}

// The pair's images and window statistics, as the gradient pass reads them.
struct PairWindows {
    PairImages images;
    ConstWindowTerms terms;
    int halfWindow;
};

struct Kernel_Ncc_WindowStatistics {
    static constexpr int kFloorBytesPerElement = 17;  // mask and four floats written
    PairImages images;
    WindowTerms terms;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        const WindowTerms& t = terms;
        if (!t.mask.contains(x, y)) return;
        const int h = halfWindow;
        const int idx = t.mask.index(x, y);
        const ConstImageView<float> A = images.imageA, B = images.imageB;
        const bool valid = nccInterior(x, y, A.width, A.height, h) && nccWindowHasValues(B, x, y, h);
        t.mask[idx] = valid ? 1 : 0;
        if (!valid) {
            // Never used by the gradient pass; written so that every pass
            // leaves the same bytes.
            t.termR[idx] = t.termB[idx] = t.termC[idx] = t.termM[idx] = t.texture[idx] = 0.0f;
            return;
        }
        const float N = nccWindowCount(h);
        const float meanA = nccWindowSum(A, x, y, h) / N;
        const float meanB = nccWindowSum(B, x, y, h) / N;
        const float varA = nccVariance(nccCentredSquares(A, x, y, h, meanA), h);
        const float varB = nccVariance(nccCentredSquares(B, x, y, h, meanB), h);
        const float cov = nccCentredProducts(A, meanA, B, meanB, x, y, h) / N;
        const NccAbgTerm term = nccAbgTerm(varA, varB, meanA, meanB, nccCorrelation(cov, varA, varB));
        t.termR[idx] = term.r;
        t.termB[idx] = term.b;
        t.termC[idx] = term.c;
        t.termM[idx] = 1.0f;
        t.texture[idx] = nccTexture(varA, varB);
    }
};

// The NCC derivative at a valid pixel from the terms of the window
// positions around it (mask 1 only at interior pixels, so the window lies in
// the image).
DEVICE_HOST float nccGradientFromTerms(const PairWindows& w, int x, int y) {
    const ConstWindowTerms& t = w.terms;
    const int h = w.halfWindow;
    NccAbgSums sums;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const int q = t.mask.index(x + i, y + j);
            if (t.mask[q] == 1) sums.add(NccAbgTerm{t.termR[q], t.termB[q], t.termC[q]});
        }
    const int idx = t.mask.index(x, y);
    float alpha, beta, gamma;
    nccAbgCoefficientsFromTexture(sums, t.texture[idx], alpha, beta, gamma);
    return nccGradient(alpha, beta, gamma, w.images.imageA[idx], w.images.imageB[idx]);
}

}  // namespace tessaline
