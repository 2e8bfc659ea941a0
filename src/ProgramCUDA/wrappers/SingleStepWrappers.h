// Single-step wrappers: one stage of a camera pair, or a smoothness-only
// fairing, run from the host with everything passed in and read back. Each
// allocates at entry, frees before it returns, and is bracketed by the
// printf ring.
//
// Decision: Smoothness_GradientDescent_CUDA honours its vertex mask. A
// vertex whose mask byte is 0 keeps its position (it still pulls on its
// neighbours through the smoothness gradient), so a caller can hold a
// boundary or a part of the mesh fixed; a null mask moves every vertex.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iostream>

#include "LaunchGeometry.h"
#include "kernels/MeshKernels.h"
#include "kernels/SingleStepKernels.h"
#include "mycamera.h"
#include "wrappers/ArgumentChecks.h"
#include "wrappers/IntegratedOptimization.h"
#include "wrappers/PrintfBracket.h"

namespace tessaline {

// The mesh and its flattened one-rings: every index a kernel follows must lie
// inside its array, and a ring neighbour must have a ring of its own (the
// second-order divisor divides by its valence).
inline void checkMeshWithRings(ArgumentCheck& check, int num_v, const float* vertices, int num_f, const int* facets,
                               int num_valence_entries, const int* valence_list, const int* valence_counts,
                               const int* valence_offsets) {
    check.count(num_v, "negative vertex count");
    check.count(num_f, "negative facet count");
    check.count(num_valence_entries, "negative valence entry count");
    check.require(tripleFitsIntIndex(num_v) && tripleFitsIntIndex(num_f), "mesh too large");
    if (check.problem) return;
    check.array(vertices, num_v, "vertices missing");
    check.array(facets, num_f, "facets missing");
    check.array(valence_list, num_valence_entries, "valence_list missing");
    check.array(valence_counts, num_v, "valence_counts missing");
    check.array(valence_offsets, num_v, "valence_offsets missing");
    if (check.problem) return;
    for (long long i = 0; i < 3LL * num_f && !check.problem; ++i)
        check.require(facets[i] >= 0 && facets[i] < num_v, "facet with a vertex index out of range");
    for (int v = 0; v < num_v && !check.problem; ++v) {
        const long long n = valence_counts[v], start = valence_offsets[v];
        if (n <= 0) continue;
        check.require(start >= 0 && start + n <= num_valence_entries, "one-ring outside valence_list");
        for (long long k = start; k < start + n && !check.problem; ++k) {
            const int u = valence_list[k];
            check.require(u >= 0 && u < num_v, "one-ring neighbour index out of range");
            if (!check.problem) check.require(valence_counts[u] > 0, "one-ring neighbour without a one-ring");
        }
    }
}

// The per-pixel maps of a pair, width x height.
inline void checkPairImages(ArgumentCheck& check, int width, int height) {
    check.count(width, "negative image width");
    check.count(height, "negative image height");
    check.require(imageFitsIntIndex(width, height), "images too large");
}

template <class Backend>
void perspectiveWarpWrapper(Backend& be, const mycamera_cuda& camera_ref, const float* depth_ref,
                            const int* facet_ref, const mycamera_cuda& camera_tar, const float* depth_tar,
                            const int* facet_tar, const uint8_t* image_tar, int width, int height, float* warped) {
    ArgumentCheck check("Perspective_Image_Model_Image_Warp_CUDA");
    checkPairImages(check, width, height);
    const long long pixels = (long long)width * height;
    check.array(depth_ref, pixels, "depth_ref missing");
    check.array(facet_ref, pixels, "facet_ref missing");
    check.array(depth_tar, pixels, "depth_tar missing");
    check.array(image_tar, pixels, "image_tar missing");
    check.array(warped, pixels, "warped missing");
    if (!check.passed() || pixels == 0) return;

    printfRingOpen(be);
    const size_t n = size_t(pixels);
    Texture2D target = be.makeTexture2D(image_tar, width, height);
    float* d_depth_ref = be.template alloc<float>(n);
    int* d_facet_ref = be.template alloc<int>(n);
    float* d_depth_tar = be.template alloc<float>(n);
    int* d_facet_tar = be.template alloc<int>(n);
    float* d_warped = be.template alloc<float>(n);
    be.upload(d_depth_ref, depth_ref, n);
    be.upload(d_facet_ref, facet_ref, n);
    be.upload(d_depth_tar, depth_tar, n);
    if (facet_tar) be.upload(d_facet_tar, facet_tar, n);
    if (!be.failed) {
        be.launch(ImageGrid{width, height}, Kernel_Perspective_Image_Model_Image_Warp_CUDA{camera_ref, d_depth_ref, d_facet_ref, camera_tar,
                                                                   d_depth_tar, d_facet_tar, width, height, d_warped,
                                                                   target});
        printfRingShow(be);
        be.download(warped, d_warped, n);
    }
    if (be.failed) std::cout << "Error: Perspective_Image_Model_Image_Warp_CUDA: the device failed; warped not written\n";
    be.releaseTexture2D(target);
    be.release(d_depth_ref);
    be.release(d_facet_ref);
    be.release(d_depth_tar);
    be.release(d_facet_tar);
    be.release(d_warped);
    printfRingClose(be);
}

template <class Backend>
void addPhotometricGradientPairWrapper(Backend& be, int num_f, const int* facets, const float* facet_normals,
                                       int width, int height, const mycamera_cuda& camera_ref,
                                       const uint8_t* image_ref, const float* depth_ref, const int* facet_ref,
                                       const mycamera_cuda& camera_tar, const uint8_t* image_tar,
                                       const float* depth_tar, const int* facet_tar, const float* bary_b_ref,
                                       const float* bary_c_ref, const float* ncc_grad, const uint8_t* visible_mask,
                                       float mean_depth_ref, float mean_depth_tar, int num_v, float* grad_photo,
                                       float* vt_pair_hits) {
    ArgumentCheck check("AddPhotometricGradient_ImagePair_CUDA");
    checkPairImages(check, width, height);
    check.count(num_f, "negative facet count");
    check.count(num_v, "negative vertex count");
    check.require(tripleFitsIntIndex(num_v) && tripleFitsIntIndex(num_f), "mesh too large");
    const long long pixels = (long long)width * height;
    check.array(facets, num_f, "facets missing");
    check.array(facet_normals, num_f, "facet_normals missing");
    check.array(image_tar, pixels, "image_tar missing");
    check.array(depth_ref, pixels, "depth_ref missing");
    check.array(facet_ref, pixels, "facet_ref missing");
    check.array(bary_b_ref, pixels, "bary_b_ref missing");
    check.array(bary_c_ref, pixels, "bary_c_ref missing");
    check.array(ncc_grad, pixels, "ncc_grad missing");
    check.array(visible_mask, pixels, "visible_mask missing");
    check.array(grad_photo, num_v, "grad_photo missing");
    check.array(vt_pair_hits, num_v, "vt_pair_hits missing");
    if (!check.problem)  // the kernel scatters to the vertices of the facets
        for (long long i = 0; i < 3LL * num_f; ++i)
            check.require(facets[i] >= 0 && facets[i] < num_v, "facet with a vertex index out of range");
    if (!check.passed() || pixels == 0) return;

    printfRingOpen(be);
    const size_t n = size_t(pixels);
    // The reference image goes behind a texture of its own that no kernel
    // reads; the target image is the one the gradient samples.
    Texture2D target = be.makeTexture2D(image_tar, width, height);
    Texture2D reference;
    if (image_ref) reference = be.makeTexture2D(image_ref, width, height);
    int* d_facets = be.template alloc<int>(3 * size_t(num_f));
    float* d_normals = be.template alloc<float>(3 * size_t(num_f));
    float* d_depth_ref = be.template alloc<float>(n);
    float* d_depth_tar = be.template alloc<float>(n);
    int* d_facet_ref = be.template alloc<int>(n);
    int* d_facet_tar = be.template alloc<int>(n);
    float* d_bary_b = be.template alloc<float>(n);
    float* d_bary_c = be.template alloc<float>(n);
    float* d_ncc_grad = be.template alloc<float>(n);
    uint8_t* d_mask = be.template alloc<uint8_t>(n);
    float* d_grad = be.template alloc<float>(3 * size_t(num_v));
    unsigned long long* d_sums = be.template alloc<unsigned long long>(3 * size_t(num_v));
    float* d_hits = be.template alloc<float>(size_t(num_v));
    be.upload(d_facets, facets, 3 * size_t(num_f));
    be.upload(d_normals, facet_normals, 3 * size_t(num_f));
    be.upload(d_depth_ref, depth_ref, n);
    if (depth_tar) be.upload(d_depth_tar, depth_tar, n);
    be.upload(d_facet_ref, facet_ref, n);
    if (facet_tar) be.upload(d_facet_tar, facet_tar, n);
    be.upload(d_bary_b, bary_b_ref, n);
    be.upload(d_bary_c, bary_c_ref, n);
    be.upload(d_ncc_grad, ncc_grad, n);
    be.upload(d_mask, visible_mask, n);
    // Both come in with the sums of earlier calls and go out with this
    // pair's contribution added.
    be.upload(d_grad, grad_photo, 3 * size_t(num_v));
    be.upload(d_hits, vt_pair_hits, size_t(num_v));
    // This call's contributions are summed in fixed point, on the scale of
    // the pair's larger mean depth, and then added to the incoming floats.
    const FixedPointScale scale = fixedPointScaleFor(std::max(mean_depth_ref, mean_depth_tar));
    const int sumCount = 3 * num_v;
    if (!be.failed) {
        be.launch(WideRun{sumCount}, Kernel_Clear_FixedPointSums{sumCount, d_sums});
        be.launch(ImageGrid{width, height}, Kernel_AddPhotometricGradient_ImagePair_CUDA{
                        num_f, d_facets, d_normals, width, height, camera_ref, d_depth_ref, d_facet_ref, camera_tar,
                        d_depth_tar, d_facet_tar, d_bary_b, d_bary_c, d_ncc_grad, d_mask, mean_depth_ref,
                        mean_depth_tar, num_v, d_sums, scale.toFixed, d_hits, target});
        be.launch(WideRun{sumCount}, Kernel_Add_FixedPointSums{sumCount, d_grad, d_sums, scale.toFloat});
        printfRingShow(be);
        be.download(grad_photo, d_grad, 3 * size_t(num_v));
        be.download(vt_pair_hits, d_hits, size_t(num_v));
    }
    if (be.failed)
        std::cout << "Error: AddPhotometricGradient_ImagePair_CUDA: the device failed; the sums may be incomplete\n";
    be.releaseTexture2D(reference);
    be.releaseTexture2D(target);
    be.release(d_facets);
    be.release(d_normals);
    be.release(d_depth_ref);
    be.release(d_depth_tar);
    be.release(d_facet_ref);
    be.release(d_facet_tar);
    be.release(d_bary_b);
    be.release(d_bary_c);
    be.release(d_ncc_grad);
    be.release(d_mask);
    be.release(d_grad);
    be.release(d_sums);
    be.release(d_hits);
    printfRingClose(be);
}

// The mesh and its rings on the device, with two work arrays of 3 floats
// per vertex, for the smoothness wrappers.
template <class Backend>
struct SmoothnessBuffers {
    Backend& be;
    int num_v;
    float* vertices = nullptr;
    int* facets = nullptr;
    int* list = nullptr;
    int* counts = nullptr;
    int* offsets = nullptr;
    float* first = nullptr;
    float* second = nullptr;

    SmoothnessBuffers(Backend& backend, int nv, const float* v, int nf, const int* f, int entries, const int* l,
                      const int* c, const int* o)
        : be(backend), num_v(nv) {
        vertices = be.template alloc<float>(3 * size_t(nv));
        facets = be.template alloc<int>(3 * size_t(nf));
        list = be.template alloc<int>(size_t(entries));
        counts = be.template alloc<int>(size_t(nv));
        offsets = be.template alloc<int>(size_t(nv));
        first = be.template alloc<float>(3 * size_t(nv));
        second = be.template alloc<float>(3 * size_t(nv));
        be.upload(vertices, v, 3 * size_t(nv));
        be.upload(facets, f, 3 * size_t(nf));
        be.upload(list, l, size_t(entries));
        be.upload(counts, c, size_t(nv));
        be.upload(offsets, o, size_t(nv));
    }
    // Both umbrella passes: the first-order gradient of `vertices` into
    // `first`, the second-order one into `second`.
    template <class Run>
    void smoothnessGradient(int num_f) {
        be.launch(Run{num_v}, Kernel_ComputeSmoothnessGradient{num_v, vertices, num_f, facets, list, counts, offsets,
                                                               first, false});
        be.launch(Run{num_v}, Kernel_ComputeSmoothnessGradient{num_v, first, num_f, facets, list, counts, offsets,
                                                               second, true});
    }
    void release() {
        be.release(vertices);
        be.release(facets);
        be.release(list);
        be.release(counts);
        be.release(offsets);
        be.release(first);
        be.release(second);
    }
};

template <class Backend>
void computeSmoothnessGradientWrapper(Backend& be, int num_v, const float* vertices, int num_f, const int* facets,
                                      int num_valence_entries, const int* valence_list, const int* valence_counts,
                                      const int* valence_offsets, float* gradient) {
    ArgumentCheck check("ComputeSmoothnessGradient_CUDA");
    checkMeshWithRings(check, num_v, vertices, num_f, facets, num_valence_entries, valence_list, valence_counts,
                       valence_offsets);
    check.array(gradient, num_v, "gradient missing");
    if (!check.passed() || num_v == 0) return;

    printfRingOpen(be);
    SmoothnessBuffers<Backend> mesh(be, num_v, vertices, num_f, facets, num_valence_entries, valence_list,
                                    valence_counts, valence_offsets);
    if (!be.failed) {
        mesh.template smoothnessGradient<NarrowRun>(num_f);
        printfRingShow(be);
        be.download(gradient, mesh.second, 3 * size_t(num_v));
    }
    if (be.failed) std::cout << "Error: ComputeSmoothnessGradient_CUDA: the device failed; gradient not written\n";
    mesh.release();
    printfRingClose(be);
}

template <class Backend>
void smoothnessGradientDescentWrapper(Backend& be, int num_v, float* vertices, int num_f, const int* facets,
                                      int num_valence_entries, const int* valence_list, const int* valence_counts,
                                      const int* valence_offsets, const uint8_t* vertex_mask, int iterations) {
    ArgumentCheck check("Smoothness_GradientDescent_CUDA");
    checkMeshWithRings(check, num_v, vertices, num_f, facets, num_valence_entries, valence_list, valence_counts,
                       valence_offsets);
    check.count(iterations, "negative iteration count");
    if (!check.passed()) return;

    printDeviceMemoryReport("Before allocating: device memory aviable: ");
    printfRingOpen(be);
    SmoothnessBuffers<Backend> mesh(be, num_v, vertices, num_f, facets, num_valence_entries, valence_list,
                                    valence_counts, valence_offsets);
    uint8_t* d_mask = vertex_mask ? be.template alloc<uint8_t>(size_t(num_v)) : nullptr;
    if (d_mask) be.upload(d_mask, vertex_mask, size_t(num_v));
    printDeviceMemoryReport("After allocating: device memory aviable: ");
    if (!be.failed) {
        const float step = 1.0f;
        for (int it = 0; it < iterations; ++it) {
            mesh.template smoothnessGradient<WideRun>(num_f);
            if (d_mask)
                be.launch(WideRun{num_v}, Kernel_GradientDescent_UpdateMask{num_v, mesh.vertices, mesh.second, step, d_mask});
            else
                be.launch(WideRun{num_v}, Kernel_GradientDescent{num_v, mesh.vertices, mesh.second, step});
        }
        printfRingShow(be);
        if (!be.failed) be.download(vertices, mesh.vertices, 3 * size_t(num_v));
    }
    if (be.failed) std::cout << "Error: Smoothness_GradientDescent_CUDA: the device failed; vertices left unchanged\n";
    mesh.release();
    be.release(d_mask);
    printfRingClose(be);
    printDeviceMemoryReport("After free: device memory aviable: ");
}

}  // namespace tessaline
