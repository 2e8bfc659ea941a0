// Texture fetches, for both backends. On CUDA a kernel fetches through a
// texture object; on the CPU the same call samples the byte image with the
// rule the texture unit follows, so both return the same float.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "DeviceCommon.h"

#if defined(__CUDACC__)
#include <cuda_runtime.h>
#endif

namespace tessaline {

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
DEVICE_HOST_HOT int textureWeight256(float coordinate, int& first) {
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

#if !defined(__CUDA_ARCH__)
// The 65,536 quotients v / 65535 as float (backend/TextureTable.cpp).
extern const std::array<float, 65536> kNormalized16;
#endif

// value16 / 65535 as float, correctly rounded. On the CPU from a table of
// the quotients: a division costs more than the rest of a fetch.
DEVICE_HOST_HOT float normalized16(int value16) {
#if defined(__CUDA_ARCH__)
    return float(value16) / 65535.0f;
#else
    return kNormalized16[value16];
#endif
}

DEVICE_HOST_HOT float sampleBilinearU8(const uint8_t* data, int width, int height, size_t pitch, float x, float y) {
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
    return normalized16(value16);
}

// What a kernel holds of a layered stack of 8-bit images behind a
// linear-filtered texture (the owner is backend/DeviceMemory.h's
// LayeredImageStack). On CUDA `object` is a texture object; on the CPU
// `data` points at the bytes, layer after layer, rows `width` bytes apart.
struct LayeredTexture {
    unsigned long long object = 0;
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    int layers = 0;
};

// What a kernel holds of one 8-bit image behind a linear-filtered texture:
// a single-image array or pitched linear memory (rows `pitch` bytes apart).
struct Texture2D {
    unsigned long long object = 0;
    const uint8_t* data = nullptr;
    int width = 0;
    int height = 0;
    size_t pitch = 0;
};

DEVICE_HOST_HOT float fetchLayered(const LayeredTexture& tex, float x, float y, int layer) {
#if defined(__CUDA_ARCH__)
    return tex2DLayered<float>(static_cast<cudaTextureObject_t>(tex.object), x, y, layer);
#else
    const size_t layerBytes = size_t(tex.width) * size_t(tex.height);
    return sampleBilinearU8(tex.data + size_t(layer) * layerBytes, tex.width, tex.height,
                            size_t(tex.width), x, y);
#endif
}

DEVICE_HOST_HOT float fetch2D(const Texture2D& tex, float x, float y) {
#if defined(__CUDA_ARCH__)
    return tex2D<float>(static_cast<cudaTextureObject_t>(tex.object), x, y);
#else
    return sampleBilinearU8(tex.data, tex.width, tex.height, tex.pitch, x, y);
#endif
}

// Sampling of one layer of the image stack.
struct StackLayerFetch {
    LayeredTexture tex;
    int layer;
    DEVICE_HOST_HOT float operator()(float x, float y) const { return fetchLayered(tex, x, y, layer); }
};

// Sampling of one image bound on its own.
struct ImageFetch {
    Texture2D tex;
    DEVICE_HOST_HOT float operator()(float x, float y) const { return fetch2D(tex, x, y); }
};

}  // namespace tessaline
