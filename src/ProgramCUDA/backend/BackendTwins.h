// Every public entry point has a twin on each backend, of the same name and
// signature: tessaline::cpu::NAME runs it on the CPU backend and
// tessaline::cuda::NAME on a CUDA device. The public NAME
// (backend/EntryPoints.cpp) hands its call to one of the two; each feature
// folder's *Cpu.cpp and *Cuda.cu define its twins, and in a build without
// CUDA backend/CudaAbsent.cpp defines the CUDA twins as refusals.
#pragma once

#include "ProgramCUDA.h"
#include "ProgramCUDA_library.h"
#include "ProgramCUDA_optimization.h"

namespace tessaline::cpu {
DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle&, const ZBufferArgs&);
DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle&, const MeshOptimizationArgs&);
DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle&, const NccGradArgs&);
DeviceStatus Compute_CC_CUDA(const DeviceHandle&, const CcArgs&);
DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle&, const PerspectiveWarpArgs&);
DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle&, const PairGradientArgs&);
DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle&, const SmoothnessGradientArgs&);
DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle&, const SmoothnessDescentArgs&);
DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle&, const InvDepthSweepArgs&);
DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle&, const HeightSweepArgs&);
DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle&, const HomographySweepArgs&);
DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle&, const CheckFuncArgs&);
}  // namespace tessaline::cpu

namespace tessaline::cuda {
DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle&, const ZBufferArgs&);
DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle&, const MeshOptimizationArgs&);
DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle&, const NccGradArgs&);
DeviceStatus Compute_CC_CUDA(const DeviceHandle&, const CcArgs&);
DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle&, const PerspectiveWarpArgs&);
DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle&, const PairGradientArgs&);
DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle&, const SmoothnessGradientArgs&);
DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle&, const SmoothnessDescentArgs&);
DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle&, const InvDepthSweepArgs&);
DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle&, const HeightSweepArgs&);
DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle&, const HomographySweepArgs&);
DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle&, const CheckFuncArgs&);
}  // namespace tessaline::cuda
