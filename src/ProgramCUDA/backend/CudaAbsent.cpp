// A build without CUDA: the CUDA twins of the entry points refuse every
// call, since a handle that names a CUDA device has nothing to run on.
#include <cstdio>

#include "backend/BackendTwins.h"

namespace tessaline::cuda {

namespace {

DeviceStatus refuse(const char* entry) {
    std::printf("Error: %s: this build has no CUDA backend; nothing done\n", entry);
    std::fflush(stdout);
    return DeviceStatus::Refused;
}

}  // namespace

DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle&, const ZBufferArgs&) {
    return refuse("TriMesh_Image_ZBuffering_CUDA");
}
DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle&, const MeshOptimizationArgs&) {
    return refuse("Integrated_Mesh_Optimization_CUDA");
}
DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle&, const NccGradArgs&) { return refuse("Compute_NCCGrad_CUDA"); }
DeviceStatus Compute_CC_CUDA(const DeviceHandle&, const CcArgs&) { return refuse("Compute_CC_CUDA"); }
DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle&, const PerspectiveWarpArgs&) {
    return refuse("Perspective_Image_Model_Image_Warp_CUDA");
}
DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle&, const PairGradientArgs&) {
    return refuse("AddPhotometricGradient_ImagePair_CUDA");
}
DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle&, const SmoothnessGradientArgs&) {
    return refuse("ComputeSmoothnessGradient_CUDA");
}
DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle&, const SmoothnessDescentArgs&) {
    return refuse("Smoothness_GradientDescent_CUDA");
}
DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle&, const InvDepthSweepArgs&) {
    return refuse("PlaneSweep_InvDepth_CUDA");
}
DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle&, const HeightSweepArgs&) {
    return refuse("PlaneSweep_Height_CUDA");
}
DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle&, const HomographySweepArgs&) {
    return refuse("PlaneSweep_Homography_CUDA");
}
DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle&, const CheckFuncArgs&) { return refuse("CHECK_FUNC_CUDA"); }

}  // namespace tessaline::cuda
