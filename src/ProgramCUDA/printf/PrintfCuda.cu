// The printing kernel and the CUDA ring's host routines share this unit:
// they must name the same device variables (printf/cuPrintf.h).
#include "backend/CudaBackend.cuh"
#include "printf/PrintfEntries.h"
#include "printf/PrintfRingCuda.cuh"

TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, CHECK_FUNC_CUDA, CheckFuncArgs, checkFuncEntry)
