// The public entry points of the device module: each hands its call to the
// twin on the backend that its device handle names (backend/BackendTwins.h).
#include "backend/BackendTwins.h"

namespace cpu = tessaline::cpu;
namespace cuda = tessaline::cuda;

namespace {

bool onCuda(const DeviceHandle& device) { return device.backend == DeviceBackend::Cuda; }

}  // namespace

DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle& device, const ZBufferArgs& args) {
    return onCuda(device) ? cuda::TriMesh_Image_ZBuffering_CUDA(device, args)
                          : cpu::TriMesh_Image_ZBuffering_CUDA(device, args);
}

DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle& device, const MeshOptimizationArgs& args) {
    return onCuda(device) ? cuda::Integrated_Mesh_Optimization_CUDA(device, args)
                          : cpu::Integrated_Mesh_Optimization_CUDA(device, args);
}

DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle& device, const NccGradArgs& args) {
    return onCuda(device) ? cuda::Compute_NCCGrad_CUDA(device, args) : cpu::Compute_NCCGrad_CUDA(device, args);
}

DeviceStatus Compute_CC_CUDA(const DeviceHandle& device, const CcArgs& args) {
    return onCuda(device) ? cuda::Compute_CC_CUDA(device, args) : cpu::Compute_CC_CUDA(device, args);
}

DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle& device, const PerspectiveWarpArgs& args) {
    return onCuda(device) ? cuda::Perspective_Image_Model_Image_Warp_CUDA(device, args)
                          : cpu::Perspective_Image_Model_Image_Warp_CUDA(device, args);
}

DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle& device, const PairGradientArgs& args) {
    return onCuda(device) ? cuda::AddPhotometricGradient_ImagePair_CUDA(device, args)
                          : cpu::AddPhotometricGradient_ImagePair_CUDA(device, args);
}

DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle& device, const SmoothnessGradientArgs& args) {
    return onCuda(device) ? cuda::ComputeSmoothnessGradient_CUDA(device, args)
                          : cpu::ComputeSmoothnessGradient_CUDA(device, args);
}

DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle& device, const SmoothnessDescentArgs& args) {
    return onCuda(device) ? cuda::Smoothness_GradientDescent_CUDA(device, args)
                          : cpu::Smoothness_GradientDescent_CUDA(device, args);
}

DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle& device, const InvDepthSweepArgs& args) {
    return onCuda(device) ? cuda::PlaneSweep_InvDepth_CUDA(device, args) : cpu::PlaneSweep_InvDepth_CUDA(device, args);
}

DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle& device, const HeightSweepArgs& args) {
    return onCuda(device) ? cuda::PlaneSweep_Height_CUDA(device, args) : cpu::PlaneSweep_Height_CUDA(device, args);
}

DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle& device, const HomographySweepArgs& args) {
    return onCuda(device) ? cuda::PlaneSweep_Homography_CUDA(device, args)
                          : cpu::PlaneSweep_Homography_CUDA(device, args);
}

DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle& device, const CheckFuncArgs& args) {
    return onCuda(device) ? cuda::CHECK_FUNC_CUDA(device, args) : cpu::CHECK_FUNC_CUDA(device, args);
}
