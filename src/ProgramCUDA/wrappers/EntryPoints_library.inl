// DEVICE_ENTRY lines of the dormant library's wrappers.
DEVICE_ENTRY(CHECK_FUNC_CUDA, checkFuncWrapper, (const float* values, int num_values, int n, int callIndex),
             (values, num_values, n, callIndex))
