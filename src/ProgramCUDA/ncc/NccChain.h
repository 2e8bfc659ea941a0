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

// The work images of one run of the chain, all of one size on the device.
// alpha, beta, gamma and grad are needed only when the chain runs through to
// the gradient.
struct NccWorkImages {
    ImageView<uint8_t> mask;
    ImageView<float> meanA, meanB, varA, varB, cov, cc;
    AlphaBetaGamma<float> coefficients;
    ImageView<float> grad;
};

// The device memory behind NccWorkImages, owned.
template <class Backend>
struct NccWorkBuffers {
    DeviceBuffer<uint8_t, Backend> mask;
    DeviceBuffer<float, Backend> meanA, meanB, varA, varB, cov, cc, alpha, beta, gamma, grad;
    int width = 0, height = 0;

    NccWorkBuffers() = default;
    NccWorkBuffers(Backend& be, int w, int h, bool throughGradient) : width(w), height(h) {
        const size_t pixels = size_t(w) * size_t(h);
        mask = DeviceBuffer<uint8_t, Backend>(be, pixels);
        for (DeviceBuffer<float, Backend>* b : {&meanA, &meanB, &varA, &varB, &cov, &cc})
            *b = DeviceBuffer<float, Backend>(be, pixels);
        if (!throughGradient) return;
        for (DeviceBuffer<float, Backend>* b : {&alpha, &beta, &gamma, &grad})
            *b = DeviceBuffer<float, Backend>(be, pixels);
    }
    NccWorkImages images() const {
        const int w = width, h = height;
        return {mask.image(w, h),
                meanA.image(w, h),
                meanB.image(w, h),
                varA.image(w, h),
                varB.image(w, h),
                cov.image(w, h),
                cc.image(w, h),
                {alpha.image(w, h), beta.image(w, h), gamma.image(w, h)},
                grad.image(w, h)};
    }
};

// Launches the chain in its fixed order on imageA (reference) and imageB
// (warped target, -1.0 where it has no value), both of the work images'
// size: mask, means, variances, covariance, correlation and, with
// throughGradient, alpha/beta/gamma and the gradient. Each launch reads what
// the ones before it wrote.
template <class Backend>
void launchNccChain(Backend& be, ConstImageView<float> imageA, ConstImageView<float> imageB, const NccWorkImages& w,
                    int halfWindow, bool throughGradient) {
    const ImageGrid grid{imageA.width, imageA.height};
    const int h = halfWindow;
    be.launch(grid, Kernel_Compute_VisibleMask_CUDA{imageB, w.mask, h});
    be.launch(grid, Kernel_Compute_Mean_CUDA{imageA, w.mask, w.meanA, h});
    be.launch(grid, Kernel_Compute_Mean_CUDA{imageB, w.mask, w.meanB, h});
    be.launch(grid, Kernel_Compute_Var_CUDA{imageA, w.meanA, w.mask, w.varA, h});
    be.launch(grid, Kernel_Compute_Var_CUDA{imageB, w.meanB, w.mask, w.varB, h});
    be.launch(grid, Kernel_Compute_Cov_CUDA{{imageA, w.meanA}, {imageB, w.meanB}, w.mask, w.cov, h});
    be.launch(grid, Kernel_Compute_CC_CUDA{w.cov, w.varA, w.varB, w.mask, w.cc, h});
    if (!throughGradient) return;
    const WindowMoments moments{w.meanA, w.meanB, w.varA, w.varB};
    be.launch(grid, Kernel_Compute_AlphaBetaGamma_CUDA{moments, w.cc, w.mask, w.coefficients, h});
    const AlphaBetaGamma<const float> coefficients{w.coefficients.alpha, w.coefficients.beta, w.coefficients.gamma};
    be.launch(grid, Kernel_Compute_NCCGrad_FromAlphaBetaGamma_CUDA{imageA, imageB, coefficients, w.mask, w.grad, h});
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
        NccWorkBuffers<Backend> work(be, width, height, throughGradient);
        if (throughGradient) work.grad.zero();
        launchNccChain(be, dA.image(width, height), dB.image(width, height), work.images(), halfWindow,
                       throughGradient);
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
