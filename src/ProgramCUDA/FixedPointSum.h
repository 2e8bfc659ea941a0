// Sums that come out the same whatever the order of their terms: each float
// term is rounded to a whole number of a power-of-two unit and added as a
// 64-bit integer, and integer addition is exact and associative. Used where
// many threads add to the same cells (the photometric gradient per vertex),
// so that a run gives the same bytes on every backend, thread count and
// schedule.
//
// The unit is 2^-50 of a magnitude the caller knows the terms scale with
// (the gradient uses the largest mean depth of the cameras): terms down to
// about 1e-9 of it keep six significant digits, and a cell holds sums up to
// 8192 times it. A term beyond 2^62 units is clamped there; a NaN term adds
// nothing.
#pragma once

#include <cmath>

#include "DeviceCommon.h"

#if !defined(__CUDA_ARCH__) && defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tessaline {

struct FixedPointScale {
    float toFixed = 1.0f;  // a float times this is a count of units
    float toFloat = 1.0f;  // a count of units times this is a float
};

constexpr int kFixedPointFractionBits = 50;
constexpr float kFixedPointLimit = 4611686018427387904.0f;  // 2^62 units

// The scale for terms that grow with `magnitude` (0, or not finite: unit 2^-50).
inline FixedPointScale fixedPointScaleFor(float magnitude) {
    int exponent = 0;
    if (std::isfinite(magnitude) && magnitude > 0.0f) std::frexp(magnitude, &exponent);
    // Both factors stay normal floats.
    exponent = exponent < -70 ? -70 : (exponent > 120 ? 120 : exponent);
    const int unitExponent = exponent - kFixedPointFractionBits;
    return {std::ldexp(1.0f, -unitExponent), std::ldexp(1.0f, unitExponent)};
}

// The term as a count of units, rounded to nearest (ties to even).
DEVICE_HOST unsigned long long toFixedPoint(float value, float toFixed) {
    float scaled = value * toFixed;  // exact: a power-of-two scale
    if (scaled != scaled) return 0;
    if (scaled > kFixedPointLimit) scaled = kFixedPointLimit;
    if (scaled < -kFixedPointLimit) scaled = -kFixedPointLimit;
#if defined(__CUDA_ARCH__)
    return (unsigned long long)__float2ll_rn(scaled);
#elif defined(__x86_64__)
    return (unsigned long long)_mm_cvtss_si64(_mm_set_ss(scaled));  // the default rounding: nearest, ties to even
#else
    return (unsigned long long)llrintf(scaled);
#endif
}

// A sum of units as a float, rounded to nearest.
DEVICE_HOST float fromFixedPoint(unsigned long long sum, float toFloat) {
#if defined(__CUDA_ARCH__)
    return __ll2float_rn((long long)sum) * toFloat;
#else
    return float((long long)sum) * toFloat;
#endif
}

// Adds a fixed-point sum to a float array: array[id] + sum[id] as a float.
struct Kernel_Add_FixedPointSums {
    static constexpr int kFloorBytesPerElement = 16;  // sum read, float read and written
    int n;
    float* array;
    const unsigned long long* sums;
    float toFloat;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        array[id] = array[id] + fromFixedPoint(sums[id], toFloat);
    }
};

}  // namespace tessaline
