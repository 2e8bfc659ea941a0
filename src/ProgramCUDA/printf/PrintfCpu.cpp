// The CPU twin of the printing debug kernel's entry point.
#include "backend/BackendTwins.h"
#include "backend/CpuBackend.h"
#include "printf/PrintfEntries.h"

namespace tessaline::cpu {

DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle& device, const CheckFuncArgs& args) {
    return runOnBackend<CpuBackend>(device, args, checkFuncEntry<CpuBackend>);
}

}  // namespace tessaline::cpu
