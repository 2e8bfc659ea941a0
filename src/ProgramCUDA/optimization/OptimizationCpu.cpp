// The CPU twins of this folder's entry points.
#include "backend/CpuBackend.h"
#include "backend/BackendTwins.h"
#include "optimization/MeshOptimization.h"

namespace tessaline::cpu {

DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle& device, const MeshOptimizationArgs& args) {
    return runOnBackend<CpuBackend>(device, args, meshOptimizationEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
