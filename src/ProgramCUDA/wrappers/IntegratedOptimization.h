// The mesh optimisation of one level: uploads the mesh, the cameras and all
// images once, runs a fixed number of gradient-descent iterations entirely on
// the device, and reads the vertices back once.
//
// Each iteration renders every camera, runs warp, NCC chain and gradient
// accumulation for every ordered camera pair of pair_mask, averages the
// photometric gradient over the pairs that reached each vertex, and moves the
// vertices by a photometric step and a smoothness step, both taken from the
// positions the iteration started from.
//
// Decisions beyond the schedule itself:
// - Arguments are checked at entry (counts, arrays, index ranges of facets and
//   one-rings, image size against int pixel indices); a refusal prints one
//   "Error: " line and leaves everything untouched.
// - A failed allocation, copy or launch (the backend's `failed` flag) stops
//   the iterations; one "Error: " line says so, `vertices` is left exactly as
//   it came in, and everything allocated is released in order.
// - A camera with no covered pixel in the first render has no mean depth
//   (0/0). It takes instead the mean of the mean depths of the cameras that do
//   see the mesh, and 0 when none does: the pair scale stays finite, and a
//   camera the moving mesh enters later still contributes at a plausible
//   scale. While it sees nothing it contributes no pixel anyway.
// - No camera, or empty images, leave only the smoothness step: there is no
//   image stack to build and no pair can see anything.
// - Runs are reproducible: the z-buffer resolves contested pixels in a fixed
//   way, and GRAD_PHOTO is summed in fixed point (a unit of 2^-50 of the
//   largest mean depth), so the same input gives the same vertices, bit for
//   bit, on every run, backend and thread count.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <vector>

#include "KernelProfile.h"
#include "LaunchGeometry.h"
#include "ProgramCUDA.h"
#include "kernels/MeshKernels.h"
#include "kernels/PhotometricGradientKernels.h"
#include "kernels/WarpKernels.h"
#include "kernels/ZBufferKernel.h"
#include "wrappers/ArgumentChecks.h"
#include "wrappers/NccWrappers.h"
#include "wrappers/PrintfBracket.h"
#include "wrappers/ZBufferWrapper.h"

namespace tessaline {

constexpr float kBaseStep = 0.1f;
constexpr float kPhotometricWeight = 750.0f;
constexpr int kOptimizationHalfWindow = 2;  // 5 x 5 NCC windows

// "<text><free>MB  Total: <total>" and a line end, from the active backend.
inline void printDeviceMemoryReport(const char* text) {
    double freeMB = 0.0, totalMB = 0.0;
    deviceMemoryInfo(freeMB, totalMB);
    std::cout << text << freeMB << "MB  Total: " << totalMB << "\n";
    std::cout.flush();
}

// The caller's arrays of one optimisation call.
struct MeshOptimizationArgs {
    int num_v;
    float* vertices;
    int num_f;
    const int* facets;
    int num_valence_entries;
    const int* valence_list;
    const int* valence_counts;
    const int* valence_offsets;
    int num_cameras;
    int width;
    int height;
    const mycamera_cuda* cameras;
    const uint8_t* images;
    int iterations;
    const uint8_t* pair_mask;
    bool first_order_smoothing;
};

// Entry checks: every index a kernel will follow must lie inside its array.
inline bool checkMeshOptimizationArgs(const MeshOptimizationArgs& a) {
    ArgumentCheck check("Integrated_Mesh_Optimization_CUDA");
    check.count(a.num_v, "negative vertex count");
    check.count(a.num_f, "negative facet count");
    check.count(a.num_valence_entries, "negative valence entry count");
    check.count(a.num_cameras, "negative camera count");
    check.count(a.width, "negative image width");
    check.count(a.height, "negative image height");
    check.require(tripleFitsIntIndex(a.num_v) && tripleFitsIntIndex(a.num_f), "mesh too large");
    check.require(imageFitsIntIndex(a.width, a.height), "images too large");
    if (check.problem) return check.passed();

    const long long pixels = (long long)a.width * a.height;
    check.array(a.vertices, a.num_v, "vertices missing");
    check.array(a.facets, a.num_f, "facets missing");
    check.array(a.valence_list, a.num_valence_entries, "valence_list missing");
    check.array(a.valence_counts, a.num_v, "valence_counts missing");
    check.array(a.valence_offsets, a.num_v, "valence_offsets missing");
    check.array(a.cameras, a.num_cameras, "cameras missing");
    check.array(a.images, (long long)a.num_cameras * pixels, "images missing");
    check.array(a.pair_mask, a.num_cameras, "pair_mask missing");
    if (check.problem) return check.passed();

    for (long long i = 0; i < 3LL * a.num_f; ++i)
        check.require(a.facets[i] >= 0 && a.facets[i] < a.num_v, "facet with a vertex index out of range");
    for (int v = 0; v < a.num_v && !check.problem; ++v) {
        const long long n = a.valence_counts[v], start = a.valence_offsets[v];
        if (n <= 0) continue;  // no one-ring: the umbrella leaves the vertex itself
        check.require(start >= 0 && start + n <= a.num_valence_entries, "one-ring outside valence_list");
        for (long long k = start; k < start + n && !check.problem; ++k) {
            const int u = a.valence_list[k];
            check.require(u >= 0 && u < a.num_v, "one-ring neighbour index out of range");
            // The second-order divisor divides by the neighbour's valence.
            if (!check.problem) check.require(a.valence_counts[u] > 0, "one-ring neighbour without a one-ring");
        }
    }
    return check.passed();
}

// Everything one call holds on the device, and the schedule that uses it.
template <class Backend>
struct MeshOptimizationCall {
    Backend& be;
    const MeshOptimizationArgs& a;
    int pixelCount = 0;
    bool haveImages = false;

    // Mesh side.
    float* d_vertices = nullptr;
    int* d_facets = nullptr;
    int* d_valence_list = nullptr;
    int* d_valence_counts = nullptr;
    int* d_valence_offsets = nullptr;
    float* d_facet_normals = nullptr;
    float* GRAD_PHOTO = nullptr;
    unsigned long long* d_grad_photo_sum = nullptr;  // GRAD_PHOTO before normalisation, fixed point
    FixedPointScale gradScale;
    float* d_vt_pair_hits = nullptr;
    float* d_vt_pair_count = nullptr;
    uint8_t* d_vt_update_mask = nullptr;
    float* d_grad_smooth = nullptr;
    float* d_grad_smooth2 = nullptr;

    // Per camera.
    LayeredTexture d_img_stack;
    std::vector<float*> d_imgs, d_zbuffer, d_bary_b, d_bary_c;
    std::vector<int*> d_facet_id;
    unsigned long long* d_depth_keys = nullptr;  // the render's (depth, facet) keys, one camera at a time

    // Work images shared by all pairs.
    float* d_warped = nullptr;
    NccWorkImages ncc;

    std::vector<float> mean_depth;

    MeshOptimizationCall(Backend& backend, const MeshOptimizationArgs& args) : be(backend), a(args) {
        pixelCount = a.width * a.height;
        haveImages = a.num_cameras > 0 && pixelCount > 0;
    }

    template <class T>
    T* allocUpload(const T* src, size_t n) {
        T* p = be.template alloc<T>(n);
        if (!be.failed) be.upload(p, src, n);
        return p;
    }

    void allocate() {
        const size_t nv = size_t(a.num_v), nf = size_t(a.num_f), px = size_t(pixelCount);
        d_vertices = allocUpload(a.vertices, 3 * nv);
        d_facets = allocUpload(a.facets, 3 * nf);
        d_valence_list = allocUpload(a.valence_list, size_t(a.num_valence_entries));
        d_valence_counts = allocUpload(a.valence_counts, nv);
        d_valence_offsets = allocUpload(a.valence_offsets, nv);

        const int cams = cameraCount();
        if (haveImages && !be.failed) d_img_stack = be.makeLayeredTexture(a.images, a.width, a.height, cams);
        d_imgs.assign(cams, nullptr);
        std::vector<float> staging(haveImages ? px : 0);
        for (int c = 0; c < cams; ++c) {
            const uint8_t* bytes = a.images + size_t(c) * px;
            for (size_t p = 0; p < px; ++p) staging[p] = float(bytes[p]);
            d_imgs[c] = allocUpload(staging.data(), px);
        }

        d_facet_normals = be.template alloc<float>(3 * nf);
        GRAD_PHOTO = be.template alloc<float>(3 * nv);
        d_grad_photo_sum = be.template alloc<unsigned long long>(3 * nv);
        d_vt_pair_hits = be.template alloc<float>(nv);
        d_vt_pair_count = be.template alloc<float>(nv);
        d_vt_update_mask = be.template alloc<uint8_t>(nv);
        d_grad_smooth = be.template alloc<float>(3 * nv);
        d_grad_smooth2 = be.template alloc<float>(3 * nv);
        d_zbuffer.assign(cams, nullptr);
        d_facet_id.assign(cams, nullptr);
        d_bary_b.assign(cams, nullptr);
        d_bary_c.assign(cams, nullptr);
        for (int c = 0; c < cams; ++c) {
            d_zbuffer[c] = be.template alloc<float>(px);
            d_facet_id[c] = be.template alloc<int>(px);
            d_bary_b[c] = be.template alloc<float>(px);
            d_bary_c[c] = be.template alloc<float>(px);
        }
        if (cams > 0) {
            d_depth_keys = be.template alloc<unsigned long long>(px);
            d_warped = be.template alloc<float>(px);
            ncc.mask = be.template alloc<uint8_t>(px);
            for (float** image : nccFloatImages()) *image = be.template alloc<float>(px);
        }
    }

    std::vector<float**> nccFloatImages() {
        return {&ncc.meanA, &ncc.meanB, &ncc.varA, &ncc.varB, &ncc.cov, &ncc.cc,
                &ncc.alpha, &ncc.beta, &ncc.gamma, &ncc.grad};
    }

    void release() {
        for (float** p : {&d_vertices, &d_facet_normals, &GRAD_PHOTO, &d_vt_pair_hits, &d_vt_pair_count,
                          &d_grad_smooth, &d_grad_smooth2, &d_warped})
            be.release(*p);
        for (int** p : {&d_facets, &d_valence_list, &d_valence_counts, &d_valence_offsets}) be.release(*p);
        be.release(d_vt_update_mask);
        be.release(d_grad_photo_sum);
        be.release(d_depth_keys);
        for (auto* table : {&d_imgs, &d_zbuffer, &d_bary_b, &d_bary_c})
            for (float*& p : *table) be.release(p);
        for (int*& p : d_facet_id) be.release(p);
        be.release(ncc.mask);
        for (float** image : nccFloatImages()) be.release(*image);
        if (d_img_stack.owner || d_img_stack.object) be.releaseLayeredTexture(d_img_stack);
    }

    void fillFloat(int n, float* array, float value) {
        be.launch(WideRun{n}, Kernel_Set_FloatArray{n, array, value});
    }

    // Clears the render buffers of camera c and renders the current mesh.
    void render(int c) {
        fillFloat(pixelCount, d_zbuffer[c], kDepthClear);
        be.launch(WideRun{pixelCount}, Kernel_Set_IntArray{pixelCount, d_facet_id[c], -1});
        be.launch(WideRun{pixelCount}, Kernel_Clear_DepthKeys{pixelCount, d_depth_keys});
        renderDepthKeys(be, a.num_v, d_vertices, a.num_f, d_facets, a.cameras[c], 0, 0, a.width, a.height,
                        d_depth_keys, d_zbuffer[c], d_facet_id[c], d_bary_b[c], d_bary_c[c]);
    }

    // Mean depth of each camera's covered pixels in the mesh as it arrived.
    void meanDepthPass() {
        const int cams = cameraCount();
        mean_depth.assign(cams, 0.0f);
        std::vector<bool> covered(cams, false);
        std::vector<float> depth(size_t(haveImages ? pixelCount : 0));
        std::vector<int> facet(depth.size());
        for (int c = 0; c < cams && !be.failed; ++c) {
            render(c);
            be.download(depth.data(), d_zbuffer[c], depth.size());
            be.download(facet.data(), d_facet_id[c], facet.size());
            float sum = 0.0f, count = 0.0f;
            for (size_t p = 0; p < depth.size(); ++p)
                if (facet[p] >= 0) {
                    sum = sum + depth[p];
                    count = count + 1.0f;
                }
            covered[c] = count > 0.0f;
            if (covered[c]) mean_depth[c] = sum / count;
        }
        // Cameras that see nothing borrow the mean over those that do.
        float sum = 0.0f, count = 0.0f;
        for (int c = 0; c < cams; ++c)
            if (covered[c]) {
                sum = sum + mean_depth[c];
                count = count + 1.0f;
            }
        const float fallback = count > 0.0f ? sum / count : 0.0f;
        for (int c = 0; c < cams; ++c)
            if (!covered[c]) mean_depth[c] = fallback;
        // The photometric terms grow with the scene's depth: the fixed-point
        // unit of GRAD_PHOTO follows the largest mean depth.
        float largest = 0.0f;
        for (int c = 0; c < cams; ++c) largest = std::max(largest, mean_depth[c]);
        gradScale = fixedPointScaleFor(largest);
    }

    // Warp, NCC chain and gradient accumulation of reference i, target j.
    void pairChain(int i, int j) {
        const mycamera_cuda& ci = a.cameras[i];
        const mycamera_cuda& cj = a.cameras[j];
        const int w = a.width, h = a.height;
        fillFloat(a.num_v, d_vt_pair_hits, 0.0f);
        be.launch(ImageGrid{w, h}, Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA{
                        ci, d_zbuffer[i], d_facet_id[i], i, cj, d_zbuffer[j], d_facet_id[j], j, w, h, d_warped,
                        d_img_stack});
        launchNccChain(be, w, h, d_imgs[i], d_warped, ncc, kOptimizationHalfWindow, true);
        be.launch(ImageGrid{w, h}, Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA{
                        a.num_f, d_facets, d_facet_normals, w, h, ci, d_zbuffer[i], d_facet_id[i], i, cj,
                        d_zbuffer[j], d_facet_id[j], j, d_bary_b[i], d_bary_c[i], ncc.grad, ncc.mask,
                        mean_depth[i], mean_depth[j], a.num_v, d_grad_photo_sum, gradScale.toFixed, d_vt_pair_hits,
                        d_img_stack});
        be.launch(WideRun{a.num_v}, Kernel_Update_Vt_Image_Pair_Count{a.num_v, d_vt_pair_count, d_vt_pair_hits});
    }

    // Start of an iteration: clear the accumulators, take the normals of the
    // current mesh and render every camera, so that all depth maps are
    // complete before the first pair reads two of them.
    void beginIteration() {
        const int nv = a.num_v;
        be.launch(WideRun{3 * nv}, Kernel_Clear_FixedPointSums{3 * nv, d_grad_photo_sum});
        fillFloat(nv, d_vt_pair_count, 0.0f);
        be.launch(WideRun{a.num_f}, Kernel_Compute_FacetNormal{nv, d_vertices, a.num_f, d_facets, d_facet_normals});
        for (int c = 0; c < cameraCount(); ++c) render(c);
    }

    int cameraCount() const { return haveImages ? a.num_cameras : 0; }

    // Entries other than 1, and the diagonal, are not pairs.
    bool isPair(int i, int j) const {
        return i != j && a.pair_mask[size_t(i) * size_t(a.num_cameras) + size_t(j)] == 1;
    }

    // GRAD_PHOTO: the sum over a pair's pixels, averaged over the pairs.
    void normalizeGradient() {
        be.launch(WideRun{a.num_v}, Kernel_Normalize_GRAD_PHOTO{a.num_v, GRAD_PHOTO, d_vt_pair_count, d_vt_update_mask,
                                                d_grad_photo_sum, gradScale.toFloat});
    }

    void iteration() {
        const int nv = a.num_v;
        beginIteration();
        for (int i = 0; i < cameraCount(); ++i)
            for (int j = 0; j < cameraCount(); ++j)
                if (isPair(i, j)) pairChain(i, j);
        normalizeGradient();
        be.launch(WideRun{nv}, Kernel_ComputeSmoothnessGradient{nv, d_vertices, a.num_f, d_facets, d_valence_list,
                                                     d_valence_counts, d_valence_offsets, d_grad_smooth, false});
        be.launch(WideRun{nv}, Kernel_ComputeSmoothnessGradient{nv, d_grad_smooth, a.num_f, d_facets, d_valence_list,
                                                     d_valence_counts, d_valence_offsets, d_grad_smooth2, true});
        const float photometricStep = kBaseStep * kPhotometricWeight;            // 75.0
        const float secondOrderStep = float(double(kBaseStep) * 5.0);            // 0.5
        be.launch(WideRun{nv}, Kernel_GradientDescent{nv, d_vertices, GRAD_PHOTO, photometricStep});
        if (a.first_order_smoothing)
            be.launch(WideRun{nv}, Kernel_GradientDescent{nv, d_vertices, d_grad_smooth, kBaseStep});
        else
            be.launch(WideRun{nv}, Kernel_GradientDescent{nv, d_vertices, d_grad_smooth2, secondOrderStep});
    }
};

template <class Backend>
void integratedMeshOptimizationWrapper(Backend& be, int num_v, float* vertices, int num_f, const int* facets,
                                       int num_valence_entries, const int* valence_list, const int* valence_counts,
                                       const int* valence_offsets, int num_cameras, int width, int height,
                                       const mycamera_cuda* cameras, const unsigned char* images, int iterations,
                                       const unsigned char* pair_mask, bool first_order_smoothing) {
    const MeshOptimizationArgs args{num_v,       vertices, num_f,  facets,  num_valence_entries, valence_list,
                                    valence_counts, valence_offsets, num_cameras, width, height, cameras,
                                    images,      iterations, pair_mask, first_order_smoothing};
    if (!checkMeshOptimizationArgs(args)) return;

    using Clock = std::chrono::steady_clock;
    const bool profiling = kernelProfileEnabled();
    const Clock::time_point callStart = Clock::now();
    printDeviceMemoryReport("Before allocating: device memory aviable: ");
    printfRingOpen(be);
    MeshOptimizationCall<Backend> call(be, args);
    call.allocate();
    printDeviceMemoryReport("After allocating: device memory aviable: ");

    long long done = 0;
    if (!be.failed) call.meanDepthPass();
    if (profiling) {
        be.synchronize();
        clearKernelProfile();
    }
    const Clock::time_point iterationStart = Clock::now();
    for (long long it = 1; it <= iterations && !be.failed; ++it) {
        std::cout << "\rmesh optimizing iteration: " << it << "/" << iterations << std::flush;
        call.iteration();
        done = it;
    }
    if (profiling) be.synchronize();
    const std::chrono::duration<double> iterationTime = Clock::now() - iterationStart;

    printfRingShow(be);
    // The caller's vertices change only when the whole call succeeded.
    std::vector<float> result(be.failed ? 0 : 3 * size_t(num_v));
    if (!be.failed) be.download(result.data(), call.d_vertices, result.size());
    if (!be.failed) {
        std::copy(result.begin(), result.end(), vertices);
    } else {
        if (done > 0) std::cout << "\n";
        std::cout << "Error: Integrated_Mesh_Optimization_CUDA: device failure after " << done << " of "
                  << (iterations > 0 ? iterations : 0) << " iterations; vertices left unchanged" << std::endl;
    }
    call.release();
    printfRingClose(be);

    std::cout << "\n";
    printDeviceMemoryReport("After free: device memory aviable: ");
    std::cout << "\n";
    std::cout.flush();
    if (profiling) {
        const std::chrono::duration<double> callTime = Clock::now() - callStart;
        static const double bandwidth = be.copyBandwidthGBs();  // once per process and backend
        printKernelProfile(callTime.count(), iterationTime.count(), done, bandwidth);
    }
}

}  // namespace tessaline
