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

namespace tessaline {

constexpr float kNoValue = -1.0f;  // the warp's "no value" mark in imageB

DEVICE_HOST bool nccInImage(int x, int y, int width, int height) {
    return x >= 0 && y >= 0 && x < width && y < height;
}

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
DEVICE_HOST bool nccWindowHasValues(const float* image, int width, int x, int y, int h) {
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j)
            if (image[(y + j) * width + (x + i)] == kNoValue) return false;
    return true;
}

DEVICE_HOST float nccWindowSum(const float* image, int width, int x, int y, int h) {
    float sum = 0.0f;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) sum = sum + image[(y + j) * width + (x + i)];
    return sum;
}

// Sum of (I - m)^2 over the window, each square added by fused multiply-add.
DEVICE_HOST float nccCentredSquares(const float* image, int width, int x, int y, int h, float m) {
    float sum = 0.0f;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const float diff = image[(y + j) * width + (x + i)] - m;
            sum = fmaF(diff, diff, sum);
        }
    return sum;
}

// Sum of (A - mA)(B - mB) over the window, by fused multiply-add.
DEVICE_HOST float nccCentredProducts(const float* imageA, float mA, const float* imageB, float mB, int width, int x,
                                     int y, int h) {
    float sum = 0.0f;
    for (int i = -h; i <= h; ++i)
        for (int j = -h; j <= h; ++j) {
            const int q = (y + j) * width + (x + i);
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

// ---- The chain's kernels.

struct Kernel_Compute_VisibleMask_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // mask written, at least one image value read
    int width;
    int height;
    const float* image;
    uint8_t* mask;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        mask[idx] = nccInterior(x, y, width, height, h) && nccWindowHasValues(image, width, x, y, h) ? 1 : 0;
    }
};

struct Kernel_Compute_Mean_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // mean written, mask read
    int width;
    int height;
    const float* image;
    const uint8_t* mask;
    float* mean;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        mean[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, h) || mask[idx] != 1) return;
        mean[idx] = nccWindowSum(image, width, x, y, h) / nccWindowCount(h);
    }
};

// Window variance about the centre pixel's mean, plus 1.0.
struct Kernel_Compute_Var_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // variance written, mask read
    int width;
    int height;
    const float* image;
    const float* mean;
    const uint8_t* mask;
    float* var;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        var[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, h)) return;
        var[idx] = 1.0f;
        if (mask[idx] != 1) return;
        var[idx] = nccVariance(nccCentredSquares(image, width, x, y, h, mean[idx]), h);
    }
};

struct Kernel_Compute_Cov_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // covariance written, mask read
    int width;
    int height;
    const float* imageA;
    const float* meanA;
    const float* imageB;
    const float* meanB;
    const uint8_t* mask;
    float* cov;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        cov[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, h) || mask[idx] != 1) return;
        cov[idx] = nccCentredProducts(imageA, meanA[idx], imageB, meanB[idx], width, x, y, h) / nccWindowCount(h);
    }
};

struct Kernel_Compute_CC_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // correlation written, mask read
    int width;
    int height;
    const float* cov;
    const float* varA;
    const float* varB;
    const uint8_t* mask;
    float* cc;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int idx = y * width + x;
        cc[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, halfWindow) || mask[idx] != 1) return;
        cc[idx] = nccCorrelation(cov[idx], varA[idx], varB[idx]);
    }
};

// Coefficients of the derivative of the correlations of all valid windows
// that contain a pixel, averaged over those windows and weighted by the
// pixel's texture: w = t/(t + 100) with t the smaller variance.
struct Kernel_Compute_AlphaBetaGamma_CUDA {
    static constexpr int kFloorBytesPerElement = 13;  // three coefficients written, mask read
    int width;
    int height;
    const float* meanA;
    const float* meanB;
    const float* varA;
    const float* varB;
    const float* cc;
    const uint8_t* mask;
    float* alpha;
    float* beta;
    float* gamma;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        alpha[idx] = 0.0f;
        beta[idx] = 0.0f;
        gamma[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, h) || mask[idx] != 1) return;
        // The window of an interior pixel lies in the image, and the mask is
        // 1 only at interior pixels, so every q read here is a real statistic.
        NccAbgSums sums;
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j) {
                const int q = (y + j) * width + (x + i);
                if (mask[q] == 1) sums.add(nccAbgTerm(varA[q], varB[q], meanA[q], meanB[q], cc[q]));
            }
        nccAbgCoefficientsFromTexture(sums, nccTexture(varA[idx], varB[idx]), alpha[idx], beta[idx], gamma[idx]);
    }
};

// grad = (alpha A + beta B) + gamma: the derivative of minus the summed
// correlation with respect to B at the pixel, up to the scales above.
struct Kernel_Compute_NCCGrad_FromAlphaBetaGamma_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // gradient written, mask read
    int width;
    int height;
    const float* imageA;
    const float* imageB;
    const float* alpha;
    const float* beta;
    const float* gamma;
    const uint8_t* mask;
    float* grad;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int idx = y * width + x;
        grad[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, halfWindow) || mask[idx] != 1) return;
        grad[idx] = nccGradient(alpha[idx], beta[idx], gamma[idx], imageA[idx], imageB[idx]);
    }
};

}  // namespace tessaline
