// Every public entry point of the device module with its argument record,
// one TESSALINE_ENTRY each; the including file defines what that expands to.
TESSALINE_ENTRY(TriMesh_Image_ZBuffering_CUDA, ZBufferArgs)
TESSALINE_ENTRY(Integrated_Mesh_Optimization_CUDA, MeshOptimizationArgs)
TESSALINE_ENTRY(Compute_NCCGrad_CUDA, NccGradArgs)
TESSALINE_ENTRY(Compute_CC_CUDA, CcArgs)
TESSALINE_ENTRY(Perspective_Image_Model_Image_Warp_CUDA, PerspectiveWarpArgs)
TESSALINE_ENTRY(AddPhotometricGradient_ImagePair_CUDA, PairGradientArgs)
TESSALINE_ENTRY(ComputeSmoothnessGradient_CUDA, SmoothnessGradientArgs)
TESSALINE_ENTRY(Smoothness_GradientDescent_CUDA, SmoothnessDescentArgs)
TESSALINE_ENTRY(PlaneSweep_InvDepth_CUDA, InvDepthSweepArgs)
TESSALINE_ENTRY(PlaneSweep_Height_CUDA, HeightSweepArgs)
TESSALINE_ENTRY(PlaneSweep_Homography_CUDA, HomographySweepArgs)
TESSALINE_ENTRY(CHECK_FUNC_CUDA, CheckFuncArgs)
