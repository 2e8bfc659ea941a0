// Host wrapper of the z-buffer: upload, render, read back, free.
#pragma once

#include "LaunchGeometry.h"
#include "wrappers/PrintfBracket.h"
#include "kernels/ZBufferKernel.h"

namespace tessaline {

// The render of one camera into device buffers: the depth keys start from
// what depth_image holds, the first pass takes the minimum of the keys, the
// second writes depth, facet and weights where a facet won.
template <class Backend>
void renderDepthKeys(Backend& be, int num_v, const float* d_vertices, int num_f, const int* d_facets,
                     const mycamera_cuda& camera, int BU, int BV, int LU, int LV, unsigned long long* d_keys,
                     float* d_depth, int* d_facet, float* d_bary_b, float* d_bary_c) {
    be.launch(WideRun{num_f}, Kernel_TriMesh_Image_ZBuffering_CUDA{num_v, d_vertices, num_f, d_facets, camera, BU, BV, LU, LV,
                                                     d_keys});
    be.launch(WideRun{num_f}, Kernel_TriMesh_Image_ZBuffering_Store{d_vertices, num_f, d_facets, camera, BU, BV, LU, LV, d_keys,
                                                      d_depth, d_facet, d_bary_b, d_bary_c});
}

template <class Backend>
void zbufferWrapper(Backend& be, int num_v, const float* vertices, int num_f, const int* facets,
                    const mycamera_cuda& camera, int BU, int BV, int LU, int LV, float* depth_image,
                    int* facet_image, float* bary_b_image, float* bary_c_image) {
    if (num_v < 0 || num_f < 0 || LU < 0 || LV < 0) return;
    const size_t pixels = size_t(LU) * size_t(LV);
    printfRingOpen(be);
    float* d_vertices = be.template alloc<float>(3 * size_t(num_v));
    int* d_facets = be.template alloc<int>(3 * size_t(num_f));
    float* d_depth = be.template alloc<float>(pixels);
    int* d_facet = be.template alloc<int>(pixels);
    float* d_bary_b = be.template alloc<float>(pixels);
    float* d_bary_c = be.template alloc<float>(pixels);
    unsigned long long* d_keys = be.template alloc<unsigned long long>(pixels);
    if (!be.failed) {
        be.upload(d_vertices, vertices, 3 * size_t(num_v));
        be.upload(d_facets, facets, 3 * size_t(num_f));
        // All four buffers go up as they came, so that a pixel no facet
        // wins comes back exactly as the caller left it.
        be.upload(d_depth, depth_image, pixels);
        be.upload(d_facet, facet_image, pixels);
        be.upload(d_bary_b, bary_b_image, pixels);
        be.upload(d_bary_c, bary_c_image, pixels);
        const int n = int(pixels);
        be.launch(WideRun{n}, Kernel_Init_DepthKeys{n, d_depth, d_keys});
        renderDepthKeys(be, num_v, d_vertices, num_f, d_facets, camera, BU, BV, LU, LV, d_keys, d_depth, d_facet,
                        d_bary_b, d_bary_c);
        printfRingShow(be);
        be.download(depth_image, d_depth, pixels);
        be.download(facet_image, d_facet, pixels);
        be.download(bary_b_image, d_bary_b, pixels);
        be.download(bary_c_image, d_bary_c, pixels);
    }
    be.release(d_vertices);
    be.release(d_facets);
    be.release(d_depth);
    be.release(d_facet);
    be.release(d_bary_b);
    be.release(d_bary_c);
    be.release(d_keys);
    printfRingClose(be);
}

}  // namespace tessaline
