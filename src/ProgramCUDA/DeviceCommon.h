// What every kernel body stands on, for both backends: the host-and-device
// marker, the two float atomics and the texture fetches.
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
#else
#define DEVICE_HOST inline
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

// Reads a float that other threads may be changing.
DEVICE_HOST float atomicLoadFloat(const float* cell) {
#if defined(__CUDA_ARCH__)
    return *reinterpret_cast<const volatile float*>(cell);
#else
    return bitsFloat(__atomic_load_n(reinterpret_cast<const unsigned*>(cell), __ATOMIC_RELAXED));
#endif
}

// Compare-and-swap on a float's 32-bit pattern; returns the old pattern.
DEVICE_HOST unsigned atomicCasFloatBits(float* cell, unsigned expected, unsigned desired) {
#if defined(__CUDA_ARCH__)
    return atomicCAS(reinterpret_cast<unsigned*>(cell), expected, desired);
#else
    __atomic_compare_exchange_n(reinterpret_cast<unsigned*>(cell), &expected, desired, false,
                                __ATOMIC_RELAXED, __ATOMIC_RELAXED);
    return expected;
#endif
}

// Indivisible float addition.
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

// Fused multiply-add exactly where the arithmetic asks for one.
DEVICE_HOST float fmaF(float a, float b, float c) {
#if defined(__CUDA_ARCH__)
    return __fmaf_rn(a, b, c);
#else
    return std::fma(a, b, c);
#endif
}

// Largest finite float32, bit pattern 0x7F7FFFFF: the depth clear value.
constexpr float kDepthClear = 3.40282346638528859811704183484516925e+38f;

// The sampling rule of an 8-bit, one-channel linear-filtered texture read as
// normalised float: with xb = x - 0.5 and yb = y - 0.5, blend the four texels
// around (xb, yb) (indices clamped to the image) with the fractions of xb and
// yb kept to 8 fractional bits; a byte v reads as v / 255.
DEVICE_HOST float sampleBilinearU8(const uint8_t* data, int width, int height, size_t pitch,
                                   float x, float y) {
    float xb = x - 0.5f;
    float yb = y - 0.5f;
    // Far outside the image every texel clamps to the edge; keeping the
    // coordinate in range first keeps the integer conversion defined.
    if (!(xb > -2.0f)) xb = -2.0f;
    if (!(yb > -2.0f)) yb = -2.0f;
    if (xb > float(width) + 1.0f) xb = float(width) + 1.0f;
    if (yb > float(height) + 1.0f) yb = float(height) + 1.0f;
    const float fx = floorf(xb);
    const float fy = floorf(yb);
    const int i0 = int(fx);
    const int j0 = int(fy);
    // 9-bit fixed point weights with 8 fractional bits, rounded to nearest.
    const float a = rintf((xb - fx) * 256.0f) * (1.0f / 256.0f);
    const float b = rintf((yb - fy) * 256.0f) * (1.0f / 256.0f);
    auto clampi = [](int v, int hi) { return v < 0 ? 0 : (v > hi ? hi : v); };
    const int x0 = clampi(i0, width - 1), x1 = clampi(i0 + 1, width - 1);
    const int y0 = clampi(j0, height - 1), y1 = clampi(j0 + 1, height - 1);
    const float t00 = float(data[size_t(y0) * pitch + x0]) / 255.0f;
    const float t10 = float(data[size_t(y0) * pitch + x1]) / 255.0f;
    const float t01 = float(data[size_t(y1) * pitch + x0]) / 255.0f;
    const float t11 = float(data[size_t(y1) * pitch + x1]) / 255.0f;
    const float top = (1.0f - a) * t00 + a * t10;
    const float bottom = (1.0f - a) * t01 + a * t11;
    return (1.0f - b) * top + b * bottom;
}

// A layered stack of 8-bit images behind a linear-filtered texture. On CUDA
// `object` is a texture object; on the CPU `data` points at the bytes, layer
// after layer, rows `width` bytes apart.
struct LayeredTexture {
    unsigned long long object = 0;
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    int layers = 0;
    void* owner = nullptr;  // the backend's allocation behind the texture
};

// One 8-bit image behind a linear-filtered texture: a single-image array or
// pitched linear memory (rows `pitch` bytes apart).
struct Texture2D {
    unsigned long long object = 0;
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    size_t pitch = 0;
    void* owner = nullptr;  // the backend's allocation behind the texture
};

}  // namespace tessaline

#if defined(__CUDACC__)
#include <cuda_runtime.h>
#endif

namespace tessaline {

DEVICE_HOST float fetchLayered(const LayeredTexture& tex, float x, float y, int layer) {
#if defined(__CUDA_ARCH__)
    return tex2DLayered<float>(static_cast<cudaTextureObject_t>(tex.object), x, y, layer);
#else
    const size_t layerBytes = size_t(tex.width) * size_t(tex.height);
    return sampleBilinearU8(tex.data + size_t(layer) * layerBytes, tex.width, tex.height,
                            size_t(tex.width), x, y);
#endif
}

DEVICE_HOST float fetch2D(const Texture2D& tex, float x, float y) {
#if defined(__CUDA_ARCH__)
    return tex2D<float>(static_cast<cudaTextureObject_t>(tex.object), x, y);
#else
    return sampleBilinearU8(tex.data, tex.width, tex.height, tex.pitch, x, y);
#endif
}

}  // namespace tessaline
