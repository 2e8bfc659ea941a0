// Entry point of the printing debug kernel. It prints into the ring that
// the caller has armed (cuPrintfInit) and shows nothing itself: the caller
// places it between its own launches and calls cuPrintfDisplay when it
// wants the records.
#pragma once

#include "LaunchGeometry.h"
#include "backend/DeviceMemory.h"
#include "backend/EntryPoint.h"
#include "printf/PrintfKernels.h"

namespace tessaline {

inline bool argumentsPass(const CheckFuncArgs& a) {
    ArgumentCheck check("CHECK_FUNC_CUDA");
    check.require(a.values != nullptr && a.num_values >= Kernel_CHECK_FUNC::kCheckFuncValues,
                  "at least 70,704 values are needed");
    check.count(a.n, "negative thread count");
    return check.passed();
}

template <class Backend>
DeviceStatus checkFuncEntry(Backend& be, const CheckFuncArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    {
        DeviceBuffer<float, Backend> values(be, a.values, size_t(a.num_values));
        be.launch(ElementRun<Kernel_CHECK_FUNC::kBlock>{a.n}, Kernel_CHECK_FUNC{values.get(), a.n, a.callIndex});
        be.synchronize();
    }
    return finishedStatus(be, "CHECK_FUNC_CUDA", "its records may be missing");
}

}  // namespace tessaline
