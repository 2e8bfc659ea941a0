// Mesh-side kernels of the descent: the umbrella smoothness operator, facet
// normals, array fills and the gradient step.
#pragma once

#include <cstdint>

#include "DeviceCommon.h"

namespace tessaline {

// The one-rings of all vertices back to back (`list`), with each vertex's
// run length (`counts`) and start (`offsets`).
struct OneRingTable {
    const int* list;
    const int* counts;
    const int* offsets;
};

// Umbrella operator over the flattened one-rings. With normalise false:
//   L(v) = v - mean of v's neighbours (v itself when it has none).
// Run again on L with normalise true it gives the second-order gradient
//   L2(v) = (L(v) - (1/n) sum L(u)) / (1 + sum n/n(u)).
// input and output must be different arrays: a thread reads its neighbours'
// input and writes its own output.
struct Kernel_ComputeSmoothnessGradient {
    static constexpr int kFloorBytesPerElement = 32;  // ring count and offset and own input read, output written
    int num_v;
    const float* input;
    OneRingTable rings;
    float* output;
    bool normalise;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        const int n = rings.counts[id];
        float out[3] = {input[3 * id], input[3 * id + 1], input[3 * id + 2]};
        float d = 1.0f;
        const int* ring = rings.list + rings.offsets[id];
        for (int k = 0; k < n; ++k) {
            const int j = ring[k];
            for (int c = 0; c < 3; ++c) out[c] = out[c] - input[3 * j + c] / float(n);
            if (normalise) d = fmaF(1.0f / float(rings.counts[j]), float(n), d);
        }
        if (normalise)
            for (int c = 0; c < 3; ++c) out[c] = out[c] / d;
        for (int c = 0; c < 3; ++c) output[3 * id + c] = out[c];
    }
};

// Unit normal of each facet, by the right-hand rule over its winding. A
// degenerate facet divides 0 by 0 and gets NaN components.
struct Kernel_Compute_FacetNormal {
    static constexpr int kFloorBytesPerElement = 24;  // three indices read, normal written
    const float* vertices;
    int num_f;
    const int* facets;
    float* normals;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_f) return;
        const float* a = vertices + 3 * facets[3 * id];
        const float* b = vertices + 3 * facets[3 * id + 1];
        const float* c = vertices + 3 * facets[3 * id + 2];
        const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
        const float e2[3] = {c[0] - a[0], c[1] - a[1], c[2] - a[2]};
        const float nx = fmaF(-e1[2], e2[1], e1[1] * e2[2]);
        const float ny = fmaF(-e1[0], e2[2], e1[2] * e2[0]);
        const float nz = fmaF(-e1[1], e2[0], e1[0] * e2[1]);
        const float l = sqrtf(fmaF(nz, nz, fmaF(nx, nx, ny * ny)));
        normals[3 * id] = nx / l;
        normals[3 * id + 1] = ny / l;
        normals[3 * id + 2] = nz / l;
    }
};

struct Kernel_Set_FloatArray {
    static constexpr int kFloorBytesPerElement = 4;  // one value written
    int n;
    float* array;
    float value;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        array[id] = value;
    }
};

struct Kernel_Set_IntArray {
    static constexpr int kFloorBytesPerElement = 4;  // one value written
    int n;
    int* array;
    int value;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        array[id] = value;
    }
};

// Clears fixed-point sums (FixedPointSum.h).
struct Kernel_Clear_FixedPointSums {
    static constexpr int kFloorBytesPerElement = 8;  // one sum written
    int n;
    unsigned long long* sums;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= n) return;
        sums[id] = 0;
    }
};

// v <- v - gradient * step for the three coordinates of vertex id, each one
// fused multiply-add.
DEVICE_HOST void gradientStep(float* vertices, const float* gradient, float step, int id) {
    for (int k = 0; k < 3; ++k) vertices[3 * id + k] = fmaF(-gradient[3 * id + k], step, vertices[3 * id + k]);
}

struct Kernel_GradientDescent {
    static constexpr int kFloorBytesPerElement = 36;  // gradient read, vertex read and written
    int num_v;
    float* vertices;
    const float* gradient;
    float step;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        gradientStep(vertices, gradient, step, id);
    }
};

// The gradient step for the vertices whose mask byte is not 0; the others
// keep their positions whatever their gradient holds.
struct Kernel_GradientDescent_UpdateMask {
    static constexpr int kFloorBytesPerElement = 37;  // mask and gradient read, vertex read and written
    int num_v;
    float* vertices;
    const float* gradient;
    float step;
    const uint8_t* update_mask;

    DEVICE_HOST void operator()(int id) const {
        if (id < 0 || id >= num_v) return;
        if (update_mask[id] == 0) return;
        gradientStep(vertices, gradient, step, id);
    }
};

}  // namespace tessaline
