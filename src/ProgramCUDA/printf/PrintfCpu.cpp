#include "backend/CpuBackend.h"
#include "printf/PrintfEntries.h"

TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, CHECK_FUNC_CUDA, CheckFuncArgs, checkFuncEntry)
