#include "backend/CudaBackend.cuh"
#include "planesweep/PlaneSweepEntries.h"

TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, PlaneSweep_InvDepth_CUDA, InvDepthSweepArgs, invDepthSweepEntry)
TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, PlaneSweep_Height_CUDA, HeightSweepArgs, heightSweepEntry)
TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, PlaneSweep_Homography_CUDA, HomographySweepArgs, homographySweepEntry)
