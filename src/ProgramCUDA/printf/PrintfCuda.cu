// The CUDA twin of the printing debug kernel's entry point. The printing
// kernel and the CUDA ring's host routines share this unit: they must name
// the same device variables (printf/cuPrintf.h).
#include "backend/BackendTwins.h"
#include "backend/CudaBackend.cuh"
#include "printf/PrintfEntries.h"
#include "printf/PrintfRingCuda.cuh"

namespace tessaline::cuda {

DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle& device, const CheckFuncArgs& args) {
    return runOnBackend<CudaBackend>(device, args, checkFuncEntry<CudaBackend>);
}

}  // namespace tessaline::cuda
