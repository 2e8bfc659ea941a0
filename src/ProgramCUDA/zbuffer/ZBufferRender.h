// The z-buffer's launches, and its entry point: upload, render, read back.
#pragma once

#include <algorithm>
#include <vector>

#include "LaunchGeometry.h"
#include "MeshArguments.h"
#include "backend/DeviceMemory.h"
#include "backend/EntryPoint.h"
#include "printf/PrintfBracket.h"
#include "zbuffer/ZBufferKernels.h"

namespace tessaline {

// The render of one camera into device images whose depth keys already
// hold what the render starts from: the first pass takes the minimum of the
// keys, the second writes depth, facet and weights where a facet won. The
// work of a facet is shared as `work` says (by default one thread a facet).
template <class Backend>
void renderDepthKeys(Backend& be, const MeshGeometry& mesh, const mycamera_cuda& camera, const RenderArea& area,
                     ImageView<unsigned long long> keys, const RenderImages& out, const FacetWork& work = FacetWork()) {
    const int threads = mesh.num_f * work.lanes;
    if (work.candidates) be.launch(WideRun{mesh.num_f}, Kernel_Clear_Bytes{mesh.num_f, work.candidates});
    be.launch(WideRun{threads}, Kernel_TriMesh_Image_ZBuffering_CUDA{mesh, camera, area, keys, work});
    be.launch(WideRun{threads}, Kernel_TriMesh_Image_ZBuffering_Store{mesh, camera, area, keys, out, work});
}

inline bool argumentsPass(const ZBufferArgs& a) {
    ArgumentCheck check("TriMesh_Image_ZBuffering_CUDA");
    checkMeshCounts(check, a.num_v, a.num_f);
    check.count(a.LU, "negative area width");
    check.count(a.LV, "negative area height");
    check.require(imageFitsIntIndex(a.LU, a.LV), "area too large");
    if (check.problem) return check.passed();
    const long long pixels = (long long)a.LU * a.LV;
    check.array(a.vertices, a.num_v, "vertices missing");
    check.array(a.facets, a.num_f, "facets missing");
    check.array(a.depth_image, pixels, "depth_image missing");
    check.array(a.facet_image, pixels, "facet_image missing");
    check.array(a.bary_b_image, pixels, "bary_b_image missing");
    check.array(a.bary_c_image, pixels, "bary_c_image missing");
    checkFacetIndices(check, a.num_v, a.num_f, a.facets);  // the second pass follows them
    return check.passed();
}

template <class Backend>
DeviceStatus zbufferEntry(Backend& be, const ZBufferArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    const size_t pixels = size_t(a.LU) * size_t(a.LV);
    PrintfRing<Backend> ring(be);
    DeviceBuffer<float, Backend> vertices(be, a.vertices, 3 * size_t(a.num_v));
    DeviceBuffer<int, Backend> facets(be, a.facets, 3 * size_t(a.num_f));
    // All four images go up as they came, so that a pixel no facet wins
    // comes back exactly as the caller left it.
    DeviceBuffer<float, Backend> depth(be, a.depth_image, pixels);
    DeviceBuffer<int, Backend> facet(be, a.facet_image, pixels);
    DeviceBuffer<float, Backend> baryB(be, a.bary_b_image, pixels);
    DeviceBuffer<float, Backend> baryC(be, a.bary_c_image, pixels);
    DeviceBuffer<unsigned long long, Backend> keys(be, pixels);
    const int w = a.LU, h = a.LV;
    be.launch(WideRun{int(pixels)}, Kernel_Init_DepthKeys{depth.image(w, h), keys.image(w, h)});
    renderDepthKeys(be, MeshGeometry{vertices.get(), a.num_f, facets.get()}, a.camera, RenderArea{a.BU, a.BV, w, h},
                    keys.image(w, h), RenderImages{depth.image(w, h), facet.image(w, h), baryB.image(w, h),
                                                   baryC.image(w, h)});
    ring.show();
    if (!be.failed) {
        // Read back into a copy first: the caller's images change only when
        // the whole render arrived.
        std::vector<float> depthOut(pixels), bOut(pixels), cOut(pixels);
        std::vector<int> facetOut(pixels);
        depth.download(depthOut.data());
        facet.download(facetOut.data());
        baryB.download(bOut.data());
        baryC.download(cOut.data());
        if (!be.failed) {
            std::copy(depthOut.begin(), depthOut.end(), a.depth_image);
            std::copy(facetOut.begin(), facetOut.end(), a.facet_image);
            std::copy(bOut.begin(), bOut.end(), a.bary_b_image);
            std::copy(cOut.begin(), cOut.end(), a.bary_c_image);
        }
    }
    return finishedStatus(be, "TriMesh_Image_ZBuffering_CUDA", "the images are left as they were");
}

}  // namespace tessaline
