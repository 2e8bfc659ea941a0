#include "backend/CudaBackend.cuh"
#include "ncc/NccChain.h"

TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, Compute_NCCGrad_CUDA, NccGradArgs, computeNccGradEntry)
TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, Compute_CC_CUDA, CcArgs, computeCcEntry)
