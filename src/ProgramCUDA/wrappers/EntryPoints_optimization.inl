// DEVICE_ENTRY lines of the refinement engine's wrappers.
DEVICE_ENTRY(Integrated_Mesh_Optimization_CUDA, integratedMeshOptimizationWrapper,
             (int num_v, float* vertices, int num_f, const int* facets, int num_valence_entries,
              const int* valence_list, const int* valence_counts, const int* valence_offsets, int num_cameras,
              int width, int height, const mycamera_cuda* cameras, const unsigned char* images, int iterations,
              const unsigned char* pair_mask, bool first_order_smoothing),
             (num_v, vertices, num_f, facets, num_valence_entries, valence_list, valence_counts, valence_offsets,
              num_cameras, width, height, cameras, images, iterations, pair_mask, first_order_smoothing))
DEVICE_ENTRY(Compute_NCCGrad_CUDA, computeNccGradWrapper,
             (int width, int height, const float* imageA, const float* imageB, float* grad, float* cc,
              unsigned char* mask, int halfWindow),
             (width, height, imageA, imageB, grad, cc, mask, halfWindow))
DEVICE_ENTRY(Compute_CC_CUDA, computeCcWrapper,
             (int width, int height, const float* imageA, const float* imageB, float* cc, unsigned char* mask,
              int halfWindow),
             (width, height, imageA, imageB, cc, mask, halfWindow))
