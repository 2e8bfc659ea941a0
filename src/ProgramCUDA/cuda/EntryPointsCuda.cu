// The public wrappers instantiated on the CUDA backend.
#include "cuda/CudaBackend.cuh"
#include "ProgramCUDA.h"
#include "wrappers/AllWrappers.h"

#define TESSALINE_UNPAREN(...) __VA_ARGS__
#define DEVICE_ENTRY(name, impl, params, args)          \
    namespace tessaline::cuda {                         \
    void name params {                                  \
        CudaBackend backend;                            \
        impl(backend, TESSALINE_UNPAREN args);          \
    }                                                   \
    }
#include "wrappers/EntryPoints.inl"
