// Windowed normalised cross-correlation of two images and its derivative with
// respect to the second one, as a chain of per-pixel kernels:
//   mask (from imageB) -> means -> variances -> covariance -> correlation
//   -> alpha, beta, gamma -> gradient.
// Each kernel writes every pixel of its outputs (pairs share the work images,
// so nothing may rely on earlier content). Window sums are one float
// accumulator, x offset outer and y offset inner, both ascending.
//
// A pixel is interior when its (2h+1)^2 window lies inside the image, and
// valid when it is interior and its mask is 1. Outside the valid pixels the
// outputs hold fixed values: 0 everywhere, except the variances, which hold
// 1.0 at interior pixels (the +1.0 that keeps every division finite).
#pragma once

#include <cstdint>

#include "DeviceCommon.h"
#include "ImageView.h"

namespace tessaline {

constexpr float kNoValue = -1.0f;  // the warp's "no value" mark in imageB

DEVICE_HOST bool nccInterior(int x, int y, int width, int height, int h) {
    return !(x < h || x > width - 1 - h || y < h || y > height - 1 - h);
}

// N = (2h+1)^2, the int side converted to float and squared in float.
DEVICE_HOST float nccWindowCount(int h) {
    const float side = float(2 * h + 1);
    return side * side;
}

// ---- Per-pixel arithmetic, shared by the chain's kernels and by the fused
// kernels of the optimisation's fast schedule, so that both compute the same
// floats. Windows run the x offset i outer and the y offset j inner, both
// ascending, into one float accumulator.

// True when no value of the window of (x, y) is the "no value" mark.
DEVICE_HOST bool nccWindowHasValues(ConstImageView<float> image, int x, int y, int h) {
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j)
            if (image(x + i, y + j) == kNoValue) return false;
    return true;
}

DEVICE_HOST float nccWindowSum(ConstImageView<float> image, int x, int y, int h) {
    float sum = 0.0f;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) sum = sum + image(x + i, y + j);
    return sum;
}

// Sum of (I - m)^2 over the window, each square added by fused multiply-add.
DEVICE_HOST float nccCentredSquares(ConstImageView<float> image, int x, int y, int h, float m) {
    float sum = 0.0f;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const float diff = image(x + i, y + j) - m;
            sum = fmaF(diff, diff, sum);
        }
    return sum;
}

// Sum of (A - mA)(B - mB) over the window, by fused multiply-add.
DEVICE_HOST float nccCentredProducts(ConstImageView<float> imageA, float mA, ConstImageView<float> imageB, float mB,
                                     int x, int y, int h) {
    float sum = 0.0f;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const int q = imageA.index(x + i, y + j);
            sum = fmaF(imageA[q] - mA, imageB[q] - mB, sum);
        }
    return sum;
}

DEVICE_HOST float nccVariance(float centredSquares, int h) { return centredSquares / nccWindowCount(h) + 1.0f; }

DEVICE_HOST float nccCorrelation(float cov, float varA, float varB) { return cov / sqrtf(varA * varB); }

// What one valid window position q adds to the sums of alpha, beta and gamma
// of every pixel whose window holds it: -r, C/vB and muA r - muB C/vB, with
// r = 1/sqrt(vA vB) the reciprocal of the rounded square root.
struct NccAbgTerm {
    float r;  // subtracted from alpha's sum
    float b;  // added to beta's
    float c;  // added to gamma's
};

DEVICE_HOST NccAbgTerm nccAbgTerm(float vA, float vB, float muA, float muB, float C) {
    const float r = 1.0f / sqrtf(vA * vB);
    return NccAbgTerm{r, C / vB, fmaF(muA, r, -((muB * C) / vB))};
}

// Running sums of the terms over the valid window positions around a pixel.
struct NccAbgSums {
    float a = 0.0f, b = 0.0f, c = 0.0f, m = 0.0f;
    DEVICE_HOST void add(const NccAbgTerm& t) {
        a = a - t.r;
        b = b + t.b;
        c = c + t.c;
        m = m + 1.0f;
    }
};

// A pixel's texture: the smaller of its two variances.
DEVICE_HOST float nccTexture(float varA, float varB) { return varA < varB ? varA : varB; }

// The coefficients of a valid pixel from its sums, weighted by its texture
// t: w = t/(t + 100).
DEVICE_HOST void nccAbgCoefficientsFromTexture(const NccAbgSums& s, float t, float& alpha, float& beta,
                                               float& gamma) {
    const float w = t / (t + 100.0f);
    alpha = (s.a / s.m) * w;
    beta = (s.b / s.m) * w;
    gamma = (s.c / s.m) * w;
}

// grad = (alpha A + beta B) + gamma, the first sum one multiply and one
// fused multiply-add.
DEVICE_HOST float nccGradient(float alpha, float beta, float gamma, float A, float B) {
    return fmaF(beta, B, alpha * A) + gamma;
}

// ---- The chain's kernels. Every image of a call has one size; each kernel
// covers the pixels of its output.

struct Kernel_Compute_VisibleMask_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // mask written, at least one image value read
    ConstImageView<float> image;
    ImageView<uint8_t> mask;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!mask.contains(x, y)) return;
        const int h = halfWindow;
        mask(x, y) = nccInterior(x, y, mask.width, mask.height, h) && nccWindowHasValues(image, x, y, h) ? 1 : 0;
    }
};

struct Kernel_Compute_Mean_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // mean written, mask read
    ConstImageView<float> image;
    ConstImageView<uint8_t> mask;
    ImageView<float> mean;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!mean.contains(x, y)) return;
        const int h = halfWindow;
        const int idx = mean.index(x, y);
        mean[idx] = 0.0f;
        if (!nccInterior(x, y, mean.width, mean.height, h) || mask[idx] != 1) return;
        mean[idx] = nccWindowSum(image, x, y, h) / nccWindowCount(h);
    }
};

// Window variance about the centre pixel's mean, plus 1.0.
struct Kernel_Compute_Var_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // variance written, mask read
    ConstImageView<float> image;
    ConstImageView<float> mean;
    ConstImageView<uint8_t> mask;
    ImageView<float> var;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!var.contains(x, y)) return;
        const int h = halfWindow;
        const int idx = var.index(x, y);
        var[idx] = 0.0f;
        if (!nccInterior(x, y, var.width, var.height, h)) return;
        var[idx] = 1.0f;
        if (mask[idx] != 1) return;
        var[idx] = nccVariance(nccCentredSquares(image, x, y, h, mean[idx]), h);
    }
};

// An image with its window means: one side of the covariance.
struct ImageWithMeans {
    ConstImageView<float> image;
    ConstImageView<float> mean;
};

struct Kernel_Compute_Cov_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // covariance written, mask read
    ImageWithMeans a;
    ImageWithMeans b;
    ConstImageView<uint8_t> mask;
    ImageView<float> cov;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!cov.contains(x, y)) return;
        const int h = halfWindow;
        const int idx = cov.index(x, y);
        cov[idx] = 0.0f;
        if (!nccInterior(x, y, cov.width, cov.height, h) || mask[idx] != 1) return;
        cov[idx] = nccCentredProducts(a.image, a.mean[idx], b.image, b.mean[idx], x, y, h) / nccWindowCount(h);
    }
};

// The window statistics of both images, as the correlation and its
// derivative read them.
struct WindowMoments {
    ConstImageView<float> meanA;
    ConstImageView<float> meanB;
    ConstImageView<float> varA;
    ConstImageView<float> varB;
};

struct Kernel_Compute_CC_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // correlation written, mask read
    ConstImageView<float> cov;
    ConstImageView<float> varA;
    ConstImageView<float> varB;
    ConstImageView<uint8_t> mask;
    ImageView<float> cc;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!cc.contains(x, y)) return;
        const int idx = cc.index(x, y);
        cc[idx] = 0.0f;
        if (!nccInterior(x, y, cc.width, cc.height, halfWindow) || mask[idx] != 1) return;
        cc[idx] = nccCorrelation(cov[idx], varA[idx], varB[idx]);
    }
};

// The three coefficient images of the derivative.
template <class T>
struct AlphaBetaGamma {
    ImageView<T> alpha;
    ImageView<T> beta;
    ImageView<T> gamma;
};

// Coefficients of the derivative of the correlations of all valid windows
// that contain a pixel, averaged over those windows and weighted by the
// pixel's texture: w = t/(t + 100) with t the smaller variance.
struct Kernel_Compute_AlphaBetaGamma_CUDA {
    static constexpr int kFloorBytesPerElement = 13;  // three coefficients written, mask read
    WindowMoments moments;
    ConstImageView<float> cc;
    ConstImageView<uint8_t> mask;
    AlphaBetaGamma<float> out;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!out.alpha.contains(x, y)) return;
        const int h = halfWindow;
        const int idx = out.alpha.index(x, y);
        out.alpha[idx] = 0.0f;
        out.beta[idx] = 0.0f;
        out.gamma[idx] = 0.0f;
        if (!nccInterior(x, y, mask.width, mask.height, h) || mask[idx] != 1) return;
        // The window of an interior pixel lies in the image, and the mask is
        // 1 only at interior pixels, so every q read here is a real statistic.
        const WindowMoments& m = moments;
        NccAbgSums sums;
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j) {
                const int q = mask.index(x + i, y + j);
                if (mask[q] == 1) sums.add(nccAbgTerm(m.varA[q], m.varB[q], m.meanA[q], m.meanB[q], cc[q]));
            }
        nccAbgCoefficientsFromTexture(sums, nccTexture(m.varA[idx], m.varB[idx]), out.alpha[idx], out.beta[idx],
                                      out.gamma[idx]);
    }
};

// grad = (alpha A + beta B) + gamma: the derivative of minus the summed
// correlation with respect to B at the pixel, up to the scales above.
struct Kernel_Compute_NCCGrad_FromAlphaBetaGamma_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // gradient written, mask read
    ConstImageView<float> imageA;
    ConstImageView<float> imageB;
    AlphaBetaGamma<const float> coefficients;
    ConstImageView<uint8_t> mask;
    ImageView<float> grad;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!grad.contains(x, y)) return;
        const int idx = grad.index(x, y);
        grad[idx] = 0.0f;
        if (!nccInterior(x, y, grad.width, grad.height, halfWindow) || mask[idx] != 1) return;
        const AlphaBetaGamma<const float>& c = coefficients;
        grad[idx] = nccGradient(c.alpha[idx], c.beta[idx], c.gamma[idx], imageA[idx], imageB[idx]);
    }
};

}  // namespace tessaline
