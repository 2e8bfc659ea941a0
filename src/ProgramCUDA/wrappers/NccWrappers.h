// The NCC chain as a sequence of launches, shared by the mesh optimisation
// (once per camera pair) and the two NCC wrappers of the device library.
#pragma once

#include <cstdint>

#include "LaunchGeometry.h"
#include "kernels/NccKernels.h"
#include "wrappers/ArgumentChecks.h"
#include "wrappers/PrintfBracket.h"

namespace tessaline {

// The work images of one run of the chain, all width x height on the device.
// alpha, beta, gamma and grad are needed only when the chain runs through to
// the gradient.
struct NccWorkImages {
    uint8_t* mask = nullptr;
    float* meanA = nullptr;
    float* meanB = nullptr;
    float* varA = nullptr;
    float* varB = nullptr;
    float* cov = nullptr;
    float* cc = nullptr;
    float* alpha = nullptr;
    float* beta = nullptr;
    float* gamma = nullptr;
    float* grad = nullptr;
};

// Launches the chain in its fixed order on imageA (reference) and imageB
// (warped target, -1.0 where it has no value): mask, means, variances,
// covariance, correlation and, with throughGradient, alpha/beta/gamma and the
// gradient. Each launch reads what the ones before it wrote.
template <class Backend>
void launchNccChain(Backend& be, int width, int height, const float* imageA, const float* imageB,
                    const NccWorkImages& w, int halfWindow, bool throughGradient) {
    be.launch(ImageGrid{width, height}, Kernel_Compute_VisibleMask_CUDA{width, height, imageB, w.mask, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_Mean_CUDA{width, height, imageA, w.mask, w.meanA, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_Mean_CUDA{width, height, imageB, w.mask, w.meanB, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_Var_CUDA{width, height, imageA, w.meanA, w.mask, w.varA, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_Var_CUDA{width, height, imageB, w.meanB, w.mask, w.varB, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_Cov_CUDA{width, height, imageA, w.meanA, w.varA, imageB, w.meanB, w.varB, w.mask,
                                        w.cov, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_CC_CUDA{width, height, w.cov, w.varA, w.varB, w.mask, w.cc, halfWindow});
    if (!throughGradient) return;
    be.launch(ImageGrid{width, height}, Kernel_Compute_AlphaBetaGamma_CUDA{width, height, w.meanA, w.meanB, w.varA, w.varB, w.cc, w.mask,
                                                   w.alpha, w.beta, w.gamma, halfWindow});
    be.launch(ImageGrid{width, height}, Kernel_Compute_NCCGrad_FromAlphaBetaGamma_CUDA{width, height, imageA, imageB, w.alpha, w.beta,
                                                               w.gamma, w.mask, w.grad, halfWindow});
}

// Both NCC wrappers: upload the two images, run the chain (to the gradient
// when grad is wanted), copy grad, cc and mask back, free everything.
template <class Backend>
void nccChainWrapper(Backend& be, const char* name, bool throughGradient, int width, int height,
                     const float* imageA, const float* imageB, float* grad, float* cc, uint8_t* mask,
                     int halfWindow) {
    ArgumentCheck check(name);
    check.count(width, "negative width");
    check.count(height, "negative height");
    check.require(imageFitsIntIndex(width, height), "image too large");
    check.require(halfWindow >= 0 && halfWindow <= (INT_MAX - 1) / 2, "halfWindow out of range");
    const long long pixels = (long long)width * height;
    check.array(imageA, pixels, "imageA missing");
    check.array(imageB, pixels, "imageB missing");
    if (throughGradient) check.array(grad, pixels, "grad missing");
    check.array(cc, pixels, "cc missing");
    check.array(mask, pixels, "mask missing");
    if (!check.passed()) return;

    printfRingOpen(be);
    const size_t n = size_t(pixels);
    float* dA = be.template alloc<float>(n);
    float* dB = be.template alloc<float>(n);
    NccWorkImages w;
    w.mask = be.template alloc<uint8_t>(n);
    float** floats[] = {&w.meanA, &w.meanB, &w.varA, &w.varB, &w.cov, &w.cc, &w.alpha, &w.beta, &w.gamma, &w.grad};
    const int floatCount = throughGradient ? 10 : 6;
    for (int i = 0; i < floatCount; ++i) *floats[i] = be.template alloc<float>(n);
    if (!be.failed) {
        be.upload(dA, imageA, n);
        be.upload(dB, imageB, n);
        if (throughGradient) be.zero(w.grad, n);
        launchNccChain(be, width, height, dA, dB, w, halfWindow, throughGradient);
        printfRingShow(be);
        if (throughGradient) be.download(grad, w.grad, n);
        be.download(cc, w.cc, n);
        be.download(mask, w.mask, n);
    }
    if (be.failed) std::cout << "Error: " << name << ": device failure; outputs not written in full" << std::endl;
    be.release(dA);
    be.release(dB);
    be.release(w.mask);
    for (int i = 0; i < floatCount; ++i) be.release(*floats[i]);
    printfRingClose(be);
}

// Windowed NCC of imageA and imageB and its derivative with respect to imageB.
template <class Backend>
void computeNccGradWrapper(Backend& be, int width, int height, const float* imageA, const float* imageB,
                           float* grad, float* cc, uint8_t* mask, int halfWindow) {
    nccChainWrapper(be, "Compute_NCCGrad_CUDA", true, width, height, imageA, imageB, grad, cc, mask, halfWindow);
}

// Windowed NCC of imageA and imageB.
template <class Backend>
void computeCcWrapper(Backend& be, int width, int height, const float* imageA, const float* imageB, float* cc,
                      uint8_t* mask, int halfWindow) {
    nccChainWrapper(be, "Compute_CC_CUDA", false, width, height, imageA, imageB, nullptr, cc, mask, halfWindow);
}

}  // namespace tessaline
