// Single-step entry points: one stage of a camera pair, or a smoothness-only
// fairing, run from the host with everything passed in and read back. Each
// allocates at entry, releases before it returns, and is bracketed by the
// printf ring.
//
// Decision: Smoothness_GradientDescent_CUDA honours its vertex mask. A
// vertex whose mask byte is 0 keeps its position (it still pulls on its
// neighbours through the smoothness gradient), so a caller can hold a
// boundary or a part of the mesh fixed; a null mask moves every vertex.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "LaunchGeometry.h"
#include "backend/DeviceMemory.h"
#include "backend/EntryPoint.h"
#include "backend/MemoryReport.h"
#include "MeshArguments.h"
#include "optimization/MeshKernels.h"
#include "optimization/PhotometricGradientKernels.h"
#include "FixedPointSum.h"
#include "optimization/WarpKernels.h"
#include "printf/PrintfBracket.h"

namespace tessaline {

// The per-pixel maps of a pair, width x height.
inline void checkPairImages(ArgumentCheck& check, int width, int height) {
    check.count(width, "negative image width");
    check.count(height, "negative image height");
    check.require(imageFitsIntIndex(width, height), "images too large");
}

inline bool argumentsPass(const PerspectiveWarpArgs& a) {
    ArgumentCheck check("Perspective_Image_Model_Image_Warp_CUDA");
    checkPairImages(check, a.width, a.height);
    const long long pixels = (long long)a.width * a.height;
    check.array(a.depth_ref, pixels, "depth_ref missing");
    check.array(a.facet_ref, pixels, "facet_ref missing");
    check.array(a.depth_tar, pixels, "depth_tar missing");
    check.array(a.image_tar, pixels, "image_tar missing");
    check.array(a.warped, pixels, "warped missing");
    return check.passed();
}

template <class Backend>
DeviceStatus perspectiveWarpEntry(Backend& be, const PerspectiveWarpArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    const size_t n = size_t(a.width) * size_t(a.height);
    if (n == 0) return DeviceStatus::Ok;
    {
        PrintfRing<Backend> ring(be);
        const auto target = makeImageTexture(be, a.image_tar, a.width, a.height);
        DeviceBuffer<float, Backend> depthRef(be, a.depth_ref, n), depthTar(be, a.depth_tar, n), warped(be, n);
        DeviceBuffer<int, Backend> facetRef(be, a.facet_ref, n);
        const int w = a.width, h = a.height;
        const RenderedCamera ref{a.camera_ref, depthRef.image(w, h), facetRef.image(w, h), {}, {}};
        const RenderedCamera tar{a.camera_tar, depthTar.image(w, h), {}, {}, {}};
        be.launch(ImageGrid{w, h}, Kernel_Perspective_Image_Model_Image_Warp_CUDA{
                                       {{ref, tar, ImageFetch{target.view()}}, warped.image(w, h)}});
        ring.show();
        warped.download(a.warped);
    }
    return finishedStatus(be, "Perspective_Image_Model_Image_Warp_CUDA", "warped not written");
}

inline bool argumentsPass(const PairGradientArgs& a) {
    ArgumentCheck check("AddPhotometricGradient_ImagePair_CUDA");
    checkPairImages(check, a.width, a.height);
    checkMeshCounts(check, a.num_v, a.num_f);
    const long long pixels = (long long)a.width * a.height;
    check.array(a.facets, a.num_f, "facets missing");
    check.array(a.facet_normals, a.num_f, "facet_normals missing");
    check.array(a.image_tar, pixels, "image_tar missing");
    check.array(a.depth_ref, pixels, "depth_ref missing");
    check.array(a.facet_ref, pixels, "facet_ref missing");
    check.array(a.bary_b_ref, pixels, "bary_b_ref missing");
    check.array(a.bary_c_ref, pixels, "bary_c_ref missing");
    check.array(a.ncc_grad, pixels, "ncc_grad missing");
    check.array(a.visible_mask, pixels, "visible_mask missing");
    check.array(a.grad_photo, a.num_v, "grad_photo missing");
    check.array(a.vt_pair_hits, a.num_v, "vt_pair_hits missing");
    if (!check.problem) checkFacetIndices(check, a.num_v, a.num_f, a.facets);  // the kernel scatters to them
    return check.passed();
}

template <class Backend>
DeviceStatus pairGradientEntry(Backend& be, const PairGradientArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    const size_t n = size_t(a.width) * size_t(a.height);
    if (n == 0) return DeviceStatus::Ok;
    // This call's contributions are summed in fixed point, on the scale of
    // the pair's larger mean depth, and then added to the incoming floats.
    const FixedPointScale scale = fixedPointScaleFor(std::max(a.mean_depth_ref, a.mean_depth_tar));
    const size_t nv = size_t(a.num_v);
    const int sumCount = 3 * a.num_v;
    std::vector<float> grad(3 * nv), hits(nv);
    {
        PrintfRing<Backend> ring(be);
        const auto target = makeImageTexture(be, a.image_tar, a.width, a.height);
        DeviceBuffer<int, Backend> facets(be, a.facets, 3 * size_t(a.num_f)), facetRef(be, a.facet_ref, n);
        DeviceBuffer<float, Backend> normals(be, a.facet_normals, 3 * size_t(a.num_f));
        DeviceBuffer<float, Backend> depthRef(be, a.depth_ref, n), baryB(be, a.bary_b_ref, n),
            baryC(be, a.bary_c_ref, n), nccGrad(be, a.ncc_grad, n);
        DeviceBuffer<uint8_t, Backend> mask(be, a.visible_mask, n);
        // Both come in with the sums of earlier calls and go out with this
        // pair's contribution added.
        DeviceBuffer<float, Backend> gradPhoto(be, a.grad_photo, 3 * nv), pairHits(be, a.vt_pair_hits, nv);
        DeviceBuffer<unsigned long long, Backend> sums(be, 3 * nv);
        be.launch(WideRun{sumCount}, Kernel_Clear_FixedPointSums{sumCount, sums.get()});
        const int w = a.width, h = a.height;
        const RenderedCamera ref{a.camera_ref, depthRef.image(w, h), facetRef.image(w, h), baryB.image(w, h),
                                 baryC.image(w, h)};
        const RenderedCamera tar{a.camera_tar, {}, {}, {}, {}};
        const PairSurface<ImageFetch> surface{FacetNormals{a.num_f, facets.get(), normals.get()},
                                              {ref, tar, ImageFetch{target.view()}}, a.mean_depth_ref,
                                              a.mean_depth_tar};
        be.launch(ImageGrid{w, h}, Kernel_AddPhotometricGradient_ImagePair_CUDA{
                                       {surface, nccGrad.image(w, h), mask.image(w, h),
                                        GradientSums{sums.get(), scale.toFixed}, pairHits.get()}});
        be.launch(WideRun{sumCount}, Kernel_Add_FixedPointSums{sumCount, gradPhoto.get(), sums.get(), scale.toFloat});
        ring.show();
        gradPhoto.download(grad.data());
        pairHits.download(hits.data());
    }
    if (!be.failed) {
        std::copy(grad.begin(), grad.end(), a.grad_photo);
        std::copy(hits.begin(), hits.end(), a.vt_pair_hits);
    }
    return finishedStatus(be, "AddPhotometricGradient_ImagePair_CUDA", "the sums are left as they were");
}

// The mesh and its rings on the device, with two work arrays of 3 floats
// per vertex, for the smoothness entry points.
template <class Backend>
struct SmoothnessBuffers {
    Backend& be;
    int num_v;
    DeviceBuffer<float, Backend> vertices;
    DeviceBuffer<int, Backend> list, counts, offsets;
    DeviceBuffer<float, Backend> first, second;

    SmoothnessBuffers(Backend& backend, int nv, const float* v, int entries, const int* l, const int* c,
                      const int* o)
        : be(backend),
          num_v(nv),
          vertices(backend, v, 3 * size_t(nv)),
          list(backend, l, size_t(entries)),
          counts(backend, c, size_t(nv)),
          offsets(backend, o, size_t(nv)),
          first(backend, 3 * size_t(nv)),
          second(backend, 3 * size_t(nv)) {}

    // Both umbrella passes: the first-order gradient of `vertices` into
    // `first`, the second-order one into `second`.
    template <class Run>
    void smoothnessGradient() {
        const OneRingTable rings{list.get(), counts.get(), offsets.get()};
        be.launch(Run{num_v}, Kernel_ComputeSmoothnessGradient{num_v, vertices.get(), rings, first.get(), false});
        be.launch(Run{num_v}, Kernel_ComputeSmoothnessGradient{num_v, first.get(), rings, second.get(), true});
    }
};

inline void checkMeshWithRings(ArgumentCheck& check, int num_v, const float* vertices, int num_valence_entries,
                               const int* valence_list, const int* valence_counts, const int* valence_offsets) {
    check.count(num_v, "negative vertex count");
    check.require(tripleFitsIntIndex(num_v), "mesh too large");
    if (check.problem) return;
    check.array(vertices, num_v, "vertices missing");
    checkOneRings(check, num_v, num_valence_entries, valence_list, valence_counts, valence_offsets);
}

inline bool argumentsPass(const SmoothnessGradientArgs& a) {
    ArgumentCheck check("ComputeSmoothnessGradient_CUDA");
    checkMeshWithRings(check, a.num_v, a.vertices, a.num_valence_entries, a.valence_list, a.valence_counts,
                       a.valence_offsets);
    check.array(a.gradient, a.num_v, "gradient missing");
    return check.passed();
}

template <class Backend>
DeviceStatus smoothnessGradientEntry(Backend& be, const SmoothnessGradientArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    if (a.num_v == 0) return DeviceStatus::Ok;
    {
        PrintfRing<Backend> ring(be);
        SmoothnessBuffers<Backend> mesh(be, a.num_v, a.vertices, a.num_valence_entries, a.valence_list,
                                        a.valence_counts, a.valence_offsets);
        mesh.template smoothnessGradient<NarrowRun>();
        ring.show();
        mesh.second.download(a.gradient);
    }
    return finishedStatus(be, "ComputeSmoothnessGradient_CUDA", "gradient not written");
}

inline bool argumentsPass(const SmoothnessDescentArgs& a) {
    ArgumentCheck check("Smoothness_GradientDescent_CUDA");
    checkMeshWithRings(check, a.num_v, a.vertices, a.num_valence_entries, a.valence_list, a.valence_counts,
                       a.valence_offsets);
    check.count(a.iterations, "negative iteration count");
    return check.passed();
}

template <class Backend>
DeviceStatus smoothnessDescentEntry(Backend& be, const SmoothnessDescentArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    printDeviceMemoryReport(be.device(), "Before allocating: device memory aviable: ");
    std::vector<float> result(3 * size_t(a.num_v));
    {
        PrintfRing<Backend> ring(be);
        SmoothnessBuffers<Backend> mesh(be, a.num_v, a.vertices, a.num_valence_entries, a.valence_list,
                                        a.valence_counts, a.valence_offsets);
        DeviceBuffer<uint8_t, Backend> mask(be, a.vertex_mask, a.vertex_mask ? size_t(a.num_v) : 0);
        printDeviceMemoryReport(be.device(), "After allocating: device memory aviable: ");
        const float step = 1.0f;
        const int nv = a.num_v;
        for (int it = 0; it < a.iterations && !be.failed; ++it) {
            mesh.template smoothnessGradient<WideRun>();
            if (a.vertex_mask)
                be.launch(WideRun{nv},
                          Kernel_GradientDescent_UpdateMask{nv, mesh.vertices.get(), mesh.second.get(), step,
                                                            mask.get()});
            else
                be.launch(WideRun{nv}, Kernel_GradientDescent{nv, mesh.vertices.get(), mesh.second.get(), step});
        }
        ring.show();
        mesh.vertices.download(result.data());
    }
    if (!be.failed) std::copy(result.begin(), result.end(), a.vertices);
    const DeviceStatus status = finishedStatus(be, "Smoothness_GradientDescent_CUDA", "vertices left unchanged");
    printDeviceMemoryReport(be.device(), "After free: device memory aviable: ");
    return status;
}

}  // namespace tessaline
