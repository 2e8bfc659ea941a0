// The public wrappers instantiated on the CPU backend.
#include "CpuBackend.h"
#include "ProgramCUDA.h"
#include "wrappers/AllWrappers.h"

#define TESSALINE_UNPAREN(...) __VA_ARGS__
#define DEVICE_ENTRY(name, impl, params, args)          \
    namespace tessaline::cpu {                          \
    void name params {                                  \
        CpuBackend backend;                             \
        impl(backend, TESSALINE_UNPAREN args);          \
    }                                                   \
    }
#include "wrappers/EntryPoints.inl"
