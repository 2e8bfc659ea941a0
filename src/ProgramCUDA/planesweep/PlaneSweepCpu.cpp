// The CPU twins of this folder's entry points.
#include "backend/CpuBackend.h"
#include "backend/BackendTwins.h"
#include "planesweep/PlaneSweepEntries.h"

namespace tessaline::cpu {

DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle& device, const InvDepthSweepArgs& args) {
    return runOnBackend<CpuBackend>(device, args, invDepthSweepEntry<CpuBackend>);
}

DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle& device, const HeightSweepArgs& args) {
    return runOnBackend<CpuBackend>(device, args, heightSweepEntry<CpuBackend>);
}

DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle& device, const HomographySweepArgs& args) {
    return runOnBackend<CpuBackend>(device, args, homographySweepEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
