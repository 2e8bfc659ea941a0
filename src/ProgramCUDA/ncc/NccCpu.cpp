#include "backend/CpuBackend.h"
#include "ncc/NccChain.h"

TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, Compute_NCCGrad_CUDA, NccGradArgs, computeNccGradEntry)
TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, Compute_CC_CUDA, CcArgs, computeCcEntry)
