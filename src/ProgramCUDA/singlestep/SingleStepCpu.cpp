// The CPU twins of this folder's entry points.
#include "backend/CpuBackend.h"
#include "backend/BackendTwins.h"
#include "singlestep/SingleStepEntries.h"

namespace tessaline::cpu {

DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle& device, const PerspectiveWarpArgs& args) {
    return runOnBackend<CpuBackend>(device, args, perspectiveWarpEntry<CpuBackend>);
}

DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle& device, const PairGradientArgs& args) {
    return runOnBackend<CpuBackend>(device, args, pairGradientEntry<CpuBackend>);
}

DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle& device, const SmoothnessGradientArgs& args) {
    return runOnBackend<CpuBackend>(device, args, smoothnessGradientEntry<CpuBackend>);
}

DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle& device, const SmoothnessDescentArgs& args) {
    return runOnBackend<CpuBackend>(device, args, smoothnessDescentEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
