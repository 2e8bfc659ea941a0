// The CPU twins of this folder's entry points.
#include "backend/CpuBackend.h"
#include "backend/BackendTwins.h"
#include "ncc/NccChain.h"

namespace tessaline::cpu {

DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle& device, const NccGradArgs& args) {
    return runOnBackend<CpuBackend>(device, args, computeNccGradEntry<CpuBackend>);
}

DeviceStatus Compute_CC_CUDA(const DeviceHandle& device, const CcArgs& args) {
    return runOnBackend<CpuBackend>(device, args, computeCcEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
