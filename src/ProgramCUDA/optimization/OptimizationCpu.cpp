// The CPU twins of this folder's entry points.
#include "backend/BackendTwins.h"
#include "backend/CpuBackend.h"
#include "backend/cpu/BandRender.h"
#include "backend/cpu/RowRoutines.h"
#include "optimization/MeshOptimization.h"

// The fast schedule's pair kernels run a row at a time on the CPU.
static_assert(tessaline::HasCpuRows<tessaline::Kernel_Accumulate_PairGradient>::value &&
                  tessaline::HasCpuRows<tessaline::Kernel_Ncc_WindowStatistics>::value &&
                  tessaline::HasCpuRows<tessaline::Kernel_Warp_SurfacePoints>::value,
              "the CPU row routines must be seen where the optimisation is instantiated");

namespace tessaline::cpu {

DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle& device, const MeshOptimizationArgs& args) {
    return runOnBackend<CpuBackend>(device, args, meshOptimizationEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
