// Launcher of the printing debug kernel. It prints into the ring that the
// caller has armed (cuPrintfInit) and shows nothing itself: the caller
// places it between its own launches and calls cuPrintfDisplay when it
// wants the records.
#pragma once

#include <cstdio>

#include "LaunchGeometry.h"
#include "kernels/PrintfKernels.h"

namespace tessaline {

template <class Backend>
void checkFuncWrapper(Backend& be, const float* values, int num_values, int n, int callIndex) {
    if (values == nullptr || num_values < Kernel_CHECK_FUNC::kCheckFuncValues || n < 0) {
        std::printf("Error: CHECK_FUNC_CUDA needs at least %d values and a thread count of 0 or more\n",
                    Kernel_CHECK_FUNC::kCheckFuncValues);
        return;
    }
    float* d_values = be.template alloc<float>(size_t(num_values));
    if (!be.failed) {
        be.upload(d_values, values, size_t(num_values));
        be.launch(ElementRun<Kernel_CHECK_FUNC::kBlock>{n}, Kernel_CHECK_FUNC{d_values, n, callIndex});
        be.synchronize();
    }
    be.release(d_values);
}

}  // namespace tessaline
