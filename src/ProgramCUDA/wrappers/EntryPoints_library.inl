// DEVICE_ENTRY lines of the dormant library's wrappers.
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
