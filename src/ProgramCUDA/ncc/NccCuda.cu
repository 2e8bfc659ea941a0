// The CUDA twins of this folder's entry points.
#include "backend/CudaBackend.cuh"
#include "backend/BackendTwins.h"
#include "ncc/NccChain.h"

namespace tessaline::cuda {

DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle& device, const NccGradArgs& args) {
    return runOnBackend<CudaBackend>(device, args, computeNccGradEntry<CudaBackend>);
}

DeviceStatus Compute_CC_CUDA(const DeviceHandle& device, const CcArgs& args) {
    return runOnBackend<CudaBackend>(device, args, computeCcEntry<CudaBackend>);
}

}  // namespace tessaline::cuda
