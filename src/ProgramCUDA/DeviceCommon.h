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

// Indivisible 64-bit unsigned minimum.
DEVICE_HOST void atomicMinU64(unsigned long long* cell, unsigned long long value) {
#if defined(__CUDA_ARCH__)
    atomicMin(cell, value);
#else
    unsigned long long old = __atomic_load_n(cell, __ATOMIC_RELAXED);
    while (value < old &&
           !__atomic_compare_exchange_n(cell, &old, value, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
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

// What the texture unit returns for a linear-filtered fetch of an 8-bit,
// one-channel texture read as normalised float, with clamped addressing and
// texel coordinates. Measured on the hardware and reproduced here exactly:
//   - xb = x - 0.5 and yb = y - 0.5; the texel pair along each axis starts at
//     floor(xb), and the weight of the second texel is a = frac(xb) in 1/256,
//     rounded half up (a = 256 moves to the next texel with weight 0);
//   - texel indices are clamped to the image;
//   - of the four weight products only the one of the far corner is rounded,
//     w11 = round_half_up(a b / 256); the others follow from it so that the
//     four sum to 256 exactly: w10 = a - w11, w01 = b - w11,
//     w00 = 256 - a - b + w11;
//   - S = sum of texel times weight (bytes times 1/256), and the result is the
//     16-bit normalised value round(S 257 / 256) / 65535, as float.
// At a texel centre this is exactly byte / 255.
DEVICE_HOST int textureWeight256(float coordinate, int& first) {
    const float floorValue = floorf(coordinate);
    const float scaled = (coordinate - floorValue) * 256.0f;  // exact: a power-of-two scale of [0, 1)
    int a = int(scaled);
    if (scaled - float(a) >= 0.5f) ++a;
    first = int(floorValue);
    if (a == 256) {
        ++first;
        a = 0;
    }
    return a;
}

DEVICE_HOST float sampleBilinearU8(const uint8_t* data, int width, int height, size_t pitch, float x, float y) {
    float xb = x - 0.5f;
    float yb = y - 0.5f;
    // Far outside the image every texel clamps to the edge; keeping the
    // coordinate in range first keeps the integer conversion defined (NaN
    // goes to the low edge).
    if (!(xb > -2.0f)) xb = -2.0f;
    if (!(yb > -2.0f)) yb = -2.0f;
    if (xb > float(width) + 1.0f) xb = float(width) + 1.0f;
    if (yb > float(height) + 1.0f) yb = float(height) + 1.0f;
    int i0, j0;
    const int a = textureWeight256(xb, i0);
    const int b = textureWeight256(yb, j0);
    const int w11 = (a * b + 128) >> 8;
    const int w10 = a - w11, w01 = b - w11, w00 = 256 - a - b + w11;
    auto clampi = [](int v, int hi) { return v < 0 ? 0 : (v > hi ? hi : v); };
    const int x0 = clampi(i0, width - 1), x1 = clampi(i0 + 1, width - 1);
    const int y0 = clampi(j0, height - 1), y1 = clampi(j0 + 1, height - 1);
    const uint8_t* row0 = data + size_t(y0) * pitch;
    const uint8_t* row1 = data + size_t(y1) * pitch;
    const int S = row0[x0] * w00 + row0[x1] * w10 + row1[x0] * w01 + row1[x1] * w11;
    const int value16 = (S * 257 + 128) >> 8;
    return float(value16) / 65535.0f;
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
