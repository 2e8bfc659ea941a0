// What every kernel body stands on, for both backends: the host-and-device
// marker, bit casts, the atomics and the fused multiply-adds.
//
// A kernel body is written once as a functor with DEVICE_HOST members. Under
// nvcc the CUDA backend launches it from a __global__ trampoline; otherwise
// the CPU backend calls it for every element of the same index space.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__CUDACC__)
#define DEVICE_HOST __host__ __device__ inline
#define DEVICE_HOST_HOT __host__ __device__ __forceinline__
#else
#define DEVICE_HOST inline
// For the small functions of the innermost loops, which the compiler would
// otherwise leave as calls.
#define DEVICE_HOST_HOT inline __attribute__((always_inline))
#endif

namespace tessaline {

DEVICE_HOST unsigned floatBits(float f) {
#if defined(__CUDA_ARCH__)
    return __float_as_uint(f);
#else
    unsigned u;
    std::memcpy(&u, &f, sizeof u);
    return u;
#endif
}

DEVICE_HOST float bitsFloat(unsigned u) {
#if defined(__CUDA_ARCH__)
    return __uint_as_float(u);
#else
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
#endif
}

// Indivisible float addition. Used only where every partial sum is exact
// (whole numbers below 2^24), so that the order of the additions cannot show.
DEVICE_HOST void atomicAddFloat(float* cell, float value) {
#if defined(__CUDA_ARCH__)
    atomicAdd(cell, value);
#else
    unsigned* bits = reinterpret_cast<unsigned*>(cell);
    unsigned old = __atomic_load_n(bits, __ATOMIC_RELAXED);
    for (;;) {
        const unsigned next = floatBits(bitsFloat(old) + value);
        if (__atomic_compare_exchange_n(bits, &old, next, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return;
    }
#endif
}

// Indivisible 64-bit integer addition (two's complement, wrapping).
DEVICE_HOST void atomicAddU64(unsigned long long* cell, unsigned long long value) {
#if defined(__CUDA_ARCH__)
    atomicAdd(cell, value);
#else
    __atomic_fetch_add(cell, value, __ATOMIC_RELAXED);
#endif
}

// The same addition, first combined among the threads of a warp that add to
// the same cell, so that one atomic per cell and warp reaches memory. Integer
// addition is associative, so the sum is the same as with one atomic each.
DEVICE_HOST void atomicAddU64Combined(unsigned long long* cell, unsigned long long value) {
#if defined(__CUDA_ARCH__)
    const unsigned active = __activemask();
    const unsigned peers = __match_any_sync(active, reinterpret_cast<unsigned long long>(cell));
    unsigned long long sum = 0;
    for (unsigned rest = peers; rest != 0; rest &= rest - 1) sum += __shfl_sync(peers, value, __ffs(rest) - 1);
    unsigned lane;
    asm("mov.u32 %0, %%laneid;" : "=r"(lane));
    if (int(lane) == __ffs(peers) - 1) atomicAdd(cell, sum);
#else
    atomicAddU64(cell, value);
#endif
}

// Indivisible exchange of an int; returns what the cell held.
DEVICE_HOST int atomicExchangeInt(int* cell, int value) {
#if defined(__CUDA_ARCH__)
    return atomicExch(cell, value);
#else
    return __atomic_exchange_n(cell, value, __ATOMIC_RELAXED);
#endif
}

// Reads an int that other threads may be exchanging.
DEVICE_HOST int atomicLoadInt(const int* cell) {
#if defined(__CUDA_ARCH__)
    return *reinterpret_cast<const volatile int*>(cell);
#else
    return __atomic_load_n(cell, __ATOMIC_RELAXED);
#endif
}

// Indivisible 64-bit unsigned minimum; true when value was not above what
// the cell held.
DEVICE_HOST bool atomicMinU64(unsigned long long* cell, unsigned long long value) {
#if defined(__CUDA_ARCH__)
    return value <= atomicMin(cell, value);
#else
    unsigned long long old = __atomic_load_n(cell, __ATOMIC_RELAXED);
    while (value < old &&
           !__atomic_compare_exchange_n(cell, &old, value, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
    return value <= old;
#endif
}

// Fused multiply-add exactly where the arithmetic asks for one.
DEVICE_HOST float fmaF(float a, float b, float c) {
#if defined(__CUDA_ARCH__)
    return __fmaf_rn(a, b, c);
#else
    return std::fma(a, b, c);
#endif
}

// Fused multiply-add in double.
DEVICE_HOST double fmaD(double a, double b, double c) {
#if defined(__CUDA_ARCH__)
    return __fma_rn(a, b, c);
#else
    return std::fma(a, b, c);
#endif
}

// Largest finite float32, bit pattern 0x7F7FFFFF: the depth clear value.
constexpr float kDepthClear = 3.40282346638528859811704183484516925e+38f;

}  // namespace tessaline
