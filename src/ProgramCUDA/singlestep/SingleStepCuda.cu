#include "backend/CudaBackend.cuh"
#include "singlestep/SingleStepEntries.h"

TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, Perspective_Image_Model_Image_Warp_CUDA, PerspectiveWarpArgs,
                           perspectiveWarpEntry)
TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, AddPhotometricGradient_ImagePair_CUDA, PairGradientArgs,
                           pairGradientEntry)
TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, ComputeSmoothnessGradient_CUDA, SmoothnessGradientArgs,
                           smoothnessGradientEntry)
TESSALINE_ENTRY_ON_BACKEND(cuda, CudaBackend, Smoothness_GradientDescent_CUDA, SmoothnessDescentArgs,
                           smoothnessDescentEntry)
