// The CUDA twins of this folder's entry points.
#include "backend/CudaBackend.cuh"
#include "backend/BackendTwins.h"
#include "planesweep/PlaneSweepEntries.h"

namespace tessaline::cuda {

DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle& device, const InvDepthSweepArgs& args) {
    return runOnBackend<CudaBackend>(device, args, invDepthSweepEntry<CudaBackend>);
}

DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle& device, const HeightSweepArgs& args) {
    return runOnBackend<CudaBackend>(device, args, heightSweepEntry<CudaBackend>);
}

DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle& device, const HomographySweepArgs& args) {
    return runOnBackend<CudaBackend>(device, args, homographySweepEntry<CudaBackend>);
}

}  // namespace tessaline::cuda
