#include "backend/CpuBackend.h"
#include "planesweep/PlaneSweepEntries.h"

TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, PlaneSweep_InvDepth_CUDA, InvDepthSweepArgs, invDepthSweepEntry)
TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, PlaneSweep_Height_CUDA, HeightSweepArgs, heightSweepEntry)
TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, PlaneSweep_Homography_CUDA, HomographySweepArgs, homographySweepEntry)
