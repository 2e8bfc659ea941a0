#include "backend/CpuBackend.h"
#include "singlestep/SingleStepEntries.h"

TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, Perspective_Image_Model_Image_Warp_CUDA, PerspectiveWarpArgs,
                           perspectiveWarpEntry)
TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, AddPhotometricGradient_ImagePair_CUDA, PairGradientArgs,
                           pairGradientEntry)
TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, ComputeSmoothnessGradient_CUDA, SmoothnessGradientArgs,
                           smoothnessGradientEntry)
TESSALINE_ENTRY_ON_BACKEND(cpu, CpuBackend, Smoothness_GradientDescent_CUDA, SmoothnessDescentArgs,
                           smoothnessDescentEntry)
