// The debugging kernel that prints through the device printf ring: every
// thread below n prints the photometric gradient of vertex 23567 of a
// gradient array of three floats per vertex, tagged with the caller's index.
#pragma once

#include "DeviceCommon.h"
#include "LaunchGeometry.h"
#include "printf/cuPrintf.h"

namespace tessaline {

struct Kernel_CHECK_FUNC {
    const float* values;  // at least kCheckFuncValues floats
    int n;
    int callIndex;

    static constexpr int kBlock = kWideBlock;
    static constexpr int kCheckedVertex = 23567;
    static constexpr int kCheckFuncValues = 3 * kCheckedVertex + 3;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        printfring::setPrintfOrigin1D(id, kBlock, n);
        cuPrintf("Call %d GRAD_PHOTO %f %f %f\n", callIndex, values[3 * kCheckedVertex],
                 values[3 * kCheckedVertex + 1], values[3 * kCheckedVertex + 2]);
        printfring::resetPrintfOrigin();
    }
};

}  // namespace tessaline
