// The NCC chain as a sequence of launches, shared by the mesh optimisation
// (once per camera pair) and the two NCC entry points of the library.
#pragma once

#include <cstdint>

#include "LaunchGeometry.h"
#include "backend/DeviceMemory.h"
#include "backend/EntryPoint.h"
#include "ncc/NccKernels.h"
#include "printf/PrintfBracket.h"

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

// The device memory behind NccWorkImages, owned.
template <class Backend>
struct NccWorkBuffers {
    DeviceBuffer<uint8_t, Backend> mask;
    DeviceBuffer<float, Backend> meanA, meanB, varA, varB, cov, cc, alpha, beta, gamma, grad;

    NccWorkBuffers() = default;
    NccWorkBuffers(Backend& be, size_t pixels, bool throughGradient)
        : mask(be, pixels), meanA(be, pixels), meanB(be, pixels), varA(be, pixels), varB(be, pixels),
          cov(be, pixels), cc(be, pixels) {
        if (!throughGradient) return;
        alpha = DeviceBuffer<float, Backend>(be, pixels);
        beta = DeviceBuffer<float, Backend>(be, pixels);
        gamma = DeviceBuffer<float, Backend>(be, pixels);
        grad = DeviceBuffer<float, Backend>(be, pixels);
    }
    NccWorkImages images() const {
        return {mask.get(), meanA.get(), meanB.get(), varA.get(), varB.get(), cov.get(),
                cc.get(),   alpha.get(), beta.get(),  gamma.get(), grad.get()};
    }
};

// Launches the chain in its fixed order on imageA (reference) and imageB
// (warped target, -1.0 where it has no value): mask, means, variances,
// covariance, correlation and, with throughGradient, alpha/beta/gamma and the
// gradient. Each launch reads what the ones before it wrote.
template <class Backend>
void launchNccChain(Backend& be, int width, int height, const float* imageA, const float* imageB,
                    const NccWorkImages& w, int halfWindow, bool throughGradient) {
    const ImageGrid grid{width, height};
    be.launch(grid, Kernel_Compute_VisibleMask_CUDA{width, height, imageB, w.mask, halfWindow});
    be.launch(grid, Kernel_Compute_Mean_CUDA{width, height, imageA, w.mask, w.meanA, halfWindow});
    be.launch(grid, Kernel_Compute_Mean_CUDA{width, height, imageB, w.mask, w.meanB, halfWindow});
    be.launch(grid, Kernel_Compute_Var_CUDA{width, height, imageA, w.meanA, w.mask, w.varA, halfWindow});
    be.launch(grid, Kernel_Compute_Var_CUDA{width, height, imageB, w.meanB, w.mask, w.varB, halfWindow});
    be.launch(grid, Kernel_Compute_Cov_CUDA{width, height, imageA, w.meanA, imageB, w.meanB, w.mask, w.cov,
                                            halfWindow});
    be.launch(grid, Kernel_Compute_CC_CUDA{width, height, w.cov, w.varA, w.varB, w.mask, w.cc, halfWindow});
    if (!throughGradient) return;
    be.launch(grid, Kernel_Compute_AlphaBetaGamma_CUDA{width, height, w.meanA, w.meanB, w.varA, w.varB, w.cc, w.mask,
                                                       w.alpha, w.beta, w.gamma, halfWindow});
    be.launch(grid, Kernel_Compute_NCCGrad_FromAlphaBetaGamma_CUDA{width, height, imageA, imageB, w.alpha, w.beta,
                                                                   w.gamma, w.mask, w.grad, halfWindow});
}

// The two images and the window of an NCC entry point.
inline bool nccArgumentsPass(const char* entry, int width, int height, const float* imageA, const float* imageB,
                             const float* grad, bool throughGradient, const float* cc, const uint8_t* mask,
                             int halfWindow) {
    ArgumentCheck check(entry);
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
    return check.passed();
}

// Both NCC entry points: upload the two images, run the chain (to the
// gradient when grad is wanted), copy grad, cc and mask back.
template <class Backend>
DeviceStatus nccChainEntry(Backend& be, const char* entry, bool throughGradient, int width, int height,
                           const float* imageA, const float* imageB, float* grad, float* cc, uint8_t* mask,
                           int halfWindow) {
    if (!nccArgumentsPass(entry, width, height, imageA, imageB, grad, throughGradient, cc, mask, halfWindow))
        return DeviceStatus::Refused;
    PrintfRing<Backend> ring(be);
    {
        const size_t n = size_t(width) * size_t(height);
        DeviceBuffer<float, Backend> dA(be, imageA, n), dB(be, imageB, n);
        NccWorkBuffers<Backend> work(be, n, throughGradient);
        if (throughGradient) work.grad.zero();
        launchNccChain(be, width, height, dA.get(), dB.get(), work.images(), halfWindow, throughGradient);
        ring.show();
        if (throughGradient) work.grad.download(grad);
        work.cc.download(cc);
        work.mask.download(mask);
    }
    return finishedStatus(be, entry, "outputs not written in full");
}

template <class Backend>
DeviceStatus computeNccGradEntry(Backend& be, const NccGradArgs& a) {
    return nccChainEntry(be, "Compute_NCCGrad_CUDA", true, a.width, a.height, a.imageA, a.imageB, a.grad, a.cc,
                         a.mask, a.halfWindow);
}

template <class Backend>
DeviceStatus computeCcEntry(Backend& be, const CcArgs& a) {
    return nccChainEntry(be, "Compute_CC_CUDA", false, a.width, a.height, a.imageA, a.imageB, nullptr, a.cc, a.mask,
                         a.halfWindow);
}

}  // namespace tessaline
