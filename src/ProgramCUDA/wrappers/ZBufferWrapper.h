// Host wrapper of the z-buffer: upload, one launch, read back, free.
#pragma once

#include "LaunchGeometry.h"
#include "wrappers/PrintfBracket.h"
#include "kernels/ZBufferKernel.h"

namespace tessaline {

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
    if (!be.failed) {
        be.upload(d_vertices, vertices, 3 * size_t(num_v));
        be.upload(d_facets, facets, 3 * size_t(num_f));
        be.upload(d_depth, depth_image, pixels);
        be.upload(d_facet, facet_image, pixels);
        Kernel_TriMesh_Image_ZBuffering_CUDA k{num_v, d_vertices, num_f, d_facets, camera, BU, BV, LU, LV,
                                               d_depth, d_facet, d_bary_b, d_bary_c};
        be.launch1D(num_f, kWideBlock, k);
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
    printfRingClose(be);
}

}  // namespace tessaline
