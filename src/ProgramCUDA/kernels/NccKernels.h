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
        if (!nccInterior(x, y, width, height, h)) {
            mask[idx] = 0;
            return;
        }
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j)
                if (image[(y + j) * width + (x + i)] == kNoValue) {
                    mask[idx] = 0;
                    return;
                }
        mask[idx] = 1;
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
        float sum = 0.0f;
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j) sum = sum + image[(y + j) * width + (x + i)];
        mean[idx] = sum / nccWindowCount(h);
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
        const float m = mean[idx];
        float sum = 0.0f;
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j) {
                const float diff = image[(y + j) * width + (x + i)] - m;
                sum = fmaF(diff, diff, sum);
            }
        var[idx] = sum / nccWindowCount(h) + 1.0f;
    }
};

struct Kernel_Compute_Cov_CUDA {
    static constexpr int kFloorBytesPerElement = 5;  // covariance written, mask read
    int width;
    int height;
    const float* imageA;
    const float* meanA;
    const float* varA;  // not read
    const float* imageB;
    const float* meanB;
    const float* varB;  // not read
    const uint8_t* mask;
    float* cov;
    int halfWindow;

    DEVICE_HOST void operator()(int x, int y) const {
        if (!nccInImage(x, y, width, height)) return;
        const int h = halfWindow;
        const int idx = y * width + x;
        cov[idx] = 0.0f;
        if (!nccInterior(x, y, width, height, h) || mask[idx] != 1) return;
        const float mA = meanA[idx], mB = meanB[idx];
        float sum = 0.0f;
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j) {
                const int q = (y + j) * width + (x + i);
                sum = fmaF(imageA[q] - mA, imageB[q] - mB, sum);
            }
        cov[idx] = sum / nccWindowCount(h);
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
        cc[idx] = cov[idx] / sqrtf(varA[idx] * varB[idx]);
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
        float a = 0.0f, b = 0.0f, c = 0.0f, m = 0.0f;
        for (int i = -h; i <= h; ++i)
            for (int j = -h; j <= h; ++j) {
                const int q = (y + j) * width + (x + i);
                if (mask[q] != 1) continue;
                const float vA = varA[q], vB = varB[q], muA = meanA[q], muB = meanB[q], C = cc[q];
                const float r = 1.0f / sqrtf(vA * vB);
                a = a - r;
                b = b + C / vB;
                c = c + fmaF(muA, r, -((muB * C) / vB));
                m = m + 1.0f;
            }
        const float vAp = varA[idx], vBp = varB[idx];
        const float t = vAp < vBp ? vAp : vBp;
        const float w = t / (t + 100.0f);
        alpha[idx] = (a / m) * w;
        beta[idx] = (b / m) * w;
        gamma[idx] = (c / m) * w;
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
        grad[idx] = fmaF(beta[idx], imageB[idx], alpha[idx] * imageA[idx]) + gamma[idx];
    }
};

}  // namespace tessaline
