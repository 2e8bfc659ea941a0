// DEVICE_ENTRY lines of the dormant library's wrappers.
DEVICE_ENTRY(Perspective_Image_Model_Image_Warp_CUDA, perspectiveWarpWrapper,
             (const mycamera_cuda& camera_ref, const float* depth_ref, const int* facet_ref,
              const mycamera_cuda& camera_tar, const float* depth_tar, const int* facet_tar, const uint8_t* image_tar,
              int width, int height, float* warped),
             (camera_ref, depth_ref, facet_ref, camera_tar, depth_tar, facet_tar, image_tar, width, height, warped))
DEVICE_ENTRY(AddPhotometricGradient_ImagePair_CUDA, addPhotometricGradientPairWrapper,
             (int num_f, const int* facets, const float* facet_normals, int width, int height,
              const mycamera_cuda& camera_ref, const uint8_t* image_ref, const float* depth_ref, const int* facet_ref,
              const mycamera_cuda& camera_tar, const uint8_t* image_tar, const float* depth_tar, const int* facet_tar,
              const float* bary_b_ref, const float* bary_c_ref, const float* ncc_grad, const uint8_t* visible_mask,
              float mean_depth_ref, float mean_depth_tar, int num_v, float* grad_photo, float* vt_pair_hits),
             (num_f, facets, facet_normals, width, height, camera_ref, image_ref, depth_ref, facet_ref, camera_tar,
              image_tar, depth_tar, facet_tar, bary_b_ref, bary_c_ref, ncc_grad, visible_mask, mean_depth_ref,
              mean_depth_tar, num_v, grad_photo, vt_pair_hits))
DEVICE_ENTRY(ComputeSmoothnessGradient_CUDA, computeSmoothnessGradientWrapper,
             (int num_v, const float* vertices, int num_f, const int* facets, int num_valence_entries,
              const int* valence_list, const int* valence_counts, const int* valence_offsets, float* gradient),
             (num_v, vertices, num_f, facets, num_valence_entries, valence_list, valence_counts, valence_offsets,
              gradient))
DEVICE_ENTRY(Smoothness_GradientDescent_CUDA, smoothnessGradientDescentWrapper,
             (int num_v, float* vertices, int num_f, const int* facets, int num_valence_entries,
              const int* valence_list, const int* valence_counts, const int* valence_offsets,
              const uint8_t* vertex_mask, int iterations),
             (num_v, vertices, num_f, facets, num_valence_entries, valence_list, valence_counts, valence_offsets,
              vertex_mask, iterations))
DEVICE_ENTRY(PlaneSweep_InvDepth_CUDA, planeSweepInvDepthWrapper,
             (int num_neighbours, int width, int height, const uint8_t* image_stack, const mycamera_cuda* cameras,
              int out_width, int out_height, int subsample, float* depth, float* score, float start, float step,
              int num_planes),
             (num_neighbours, width, height, image_stack, cameras, out_width, out_height, subsample, depth, score,
              start, step, num_planes))
DEVICE_ENTRY(PlaneSweep_Height_CUDA, planeSweepHeightWrapper,
             (int num_neighbours, int width, int height, const uint8_t* image_stack, const mycamera_cuda* cameras,
              int out_width, int out_height, int subsample, float* depth, float* score, float start, float step,
              int num_planes, const float* plane),
             (num_neighbours, width, height, image_stack, cameras, out_width, out_height, subsample, depth, score,
              start, step, num_planes, plane))
DEVICE_ENTRY(PlaneSweep_Homography_CUDA, planeSweepHomographyWrapper,
             (int num_neighbours, int width, int height, const uint8_t* image_stack, const mycamera_cuda* cameras,
              int out_width, int out_height, int subsample, float* depth, float* score, float start, float step,
              int num_planes, int num_levels),
             (num_neighbours, width, height, image_stack, cameras, out_width, out_height, subsample, depth, score,
              start, step, num_planes, num_levels))
DEVICE_ENTRY(CHECK_FUNC_CUDA, checkFuncWrapper, (const float* values, int num_values, int n, int callIndex),
             (values, num_values, n, callIndex))
