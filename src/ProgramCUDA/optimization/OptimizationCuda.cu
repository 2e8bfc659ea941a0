#include "backend/CudaBackend.cuh"
#include "optimization/MeshOptimization.h"

TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, Integrated_Mesh_Optimization_CUDA, MeshOptimizationArgs,
                           meshOptimizationEntry)
