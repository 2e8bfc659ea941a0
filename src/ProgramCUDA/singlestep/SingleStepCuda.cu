// The CUDA twins of this folder's entry points.
#include "backend/CudaBackend.cuh"
#include "backend/BackendTwins.h"
#include "singlestep/SingleStepEntries.h"

namespace tessaline::cuda {

DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle& device, const PerspectiveWarpArgs& args) {
    return runOnBackend<CudaBackend>(device, args, perspectiveWarpEntry<CudaBackend>);
}

DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle& device, const PairGradientArgs& args) {
    return runOnBackend<CudaBackend>(device, args, pairGradientEntry<CudaBackend>);
}

DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle& device, const SmoothnessGradientArgs& args) {
    return runOnBackend<CudaBackend>(device, args, smoothnessGradientEntry<CudaBackend>);
}

DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle& device, const SmoothnessDescentArgs& args) {
    return runOnBackend<CudaBackend>(device, args, smoothnessDescentEntry<CudaBackend>);
}

}  // namespace tessaline::cuda
