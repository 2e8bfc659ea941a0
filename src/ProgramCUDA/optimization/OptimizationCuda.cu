// The CUDA twins of this folder's entry points.
#include "backend/CudaBackend.cuh"
#include "backend/BackendTwins.h"
#include "optimization/MeshOptimization.h"

namespace tessaline::cuda {

DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle& device, const MeshOptimizationArgs& args) {
    return runOnBackend<CudaBackend>(device, args, meshOptimizationEntry<CudaBackend>);
}

}  // namespace tessaline::cuda
