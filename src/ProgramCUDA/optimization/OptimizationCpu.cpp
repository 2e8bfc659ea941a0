#include "backend/CpuBackend.h"
#include "optimization/MeshOptimization.h"

TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, Integrated_Mesh_Optimization_CUDA, MeshOptimizationArgs,
                           meshOptimizationEntry)
