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
//   "Error: " line, leaves everything untouched and returns Refused.
// - A failed allocation, copy or launch stops the iterations; one "Error: "
//   line says so, `vertices` is left exactly as it came in, everything is
//   released in order, and the call returns Failed.
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
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

#include "LaunchGeometry.h"
#include "ProgramCUDA_optimization.h"
#include "backend/DeviceMemory.h"
#include "backend/EntryPoint.h"
#include "backend/IterationReplay.h"
#include "backend/KernelProfile.h"
#include "backend/MemoryReport.h"
#include "ncc/NccChain.h"
#include "ncc/NccFusedKernels.h"
#include "MeshArguments.h"
#include "optimization/FusedPairKernels.h"
#include "optimization/MeshKernels.h"
#include "optimization/PhotometricGradientKernels.h"
#include "optimization/WarpKernels.h"
#include "printf/PrintfBracket.h"
#include "zbuffer/ZBufferRender.h"

namespace tessaline {

// The largest NCC window a call takes: 33 x 33 pixels.
constexpr int kMaxOptimizationHalfWindow = 16;

inline bool argumentsPass(const MeshOptimizationArgs& a) {
    ArgumentCheck check("Integrated_Mesh_Optimization_CUDA");
    checkMeshCounts(check, a.num_v, a.num_f);
    check.count(a.num_cameras, "negative camera count");
    check.count(a.width, "negative image width");
    check.count(a.height, "negative image height");
    check.require(imageFitsIntIndex(a.width, a.height), "images too large");
    check.require(a.halfWindow >= 1 && a.halfWindow <= kMaxOptimizationHalfWindow, "halfWindow out of range");
    if (check.problem) return check.passed();

    const long long pixels = (long long)a.width * a.height;
    check.array(a.vertices, a.num_v, "vertices missing");
    check.array(a.facets, a.num_f, "facets missing");
    check.array(a.cameras, a.num_cameras, "cameras missing");
    check.array(a.images, (long long)a.num_cameras * pixels, "images missing");
    check.array(a.pair_mask, a.num_cameras, "pair_mask missing");
    if (check.problem) return check.passed();
    checkFacetIndices(check, a.num_v, a.num_f, a.facets);
    checkOneRings(check, a.num_v, a.num_valence_entries, a.valence_list, a.valence_counts, a.valence_offsets);
    return check.passed();
}

// Everything one call holds on the device, and the schedule that uses it.
// All of it is owned: whatever happens, leaving the call releases it.
template <class Backend>
struct MeshOptimizationCall {
    template <class T>
    using Buffer = DeviceBuffer<T, Backend>;

    Backend& be;
    const MeshOptimizationArgs& a;
    OptimizationSchedule schedule;
    int pixelCount = 0;
    bool haveImages = false;

    // Mesh side.
    Buffer<float> d_vertices;
    Buffer<int> d_facets, d_valence_list, d_valence_counts, d_valence_offsets;
    Buffer<float> d_facet_normals;
    Buffer<float> GRAD_PHOTO;
    Buffer<unsigned long long> d_grad_photo_sum;  // GRAD_PHOTO before normalisation, fixed point
    FixedPointScale gradScale;
    Buffer<float> d_vt_pair_hits, d_vt_pair_count;
    Buffer<uint8_t> d_vt_update_mask;
    Buffer<float> d_grad_smooth, d_grad_smooth2;

    // Per camera.
    OwnedTexture<LayeredTexture, Backend> d_img_stack;
    std::vector<Buffer<float>> d_imgs, d_zbuffer, d_bary_b, d_bary_c;
    std::vector<Buffer<int>> d_facet_id;
    Buffer<unsigned long long> d_depth_keys;  // the render's (depth, facet) keys, one camera at a time

    // Work images shared by all pairs (reference schedule).
    Buffer<float> d_warped;
    NccWorkBuffers<Backend> nccBuffers;
    NccWorkImages ncc;

    // Fast schedule: the work images of the pairs that run at one time, a
    // set per slot (one on a device, one per worker thread on the CPU).
    struct PairSlot {
        Buffer<SurfacePoint> surface;  // the reference camera's rays and surface points
        Buffer<float> warped;
        Buffer<uint8_t> mask;
        Buffer<float> termR, termB, termC, termM, texture;
        Buffer<int> pairStamp;  // per vertex: the slot's last pair that reached it
        int pairsDone = 0;      // pairs of the iteration run in this slot
    };
    std::vector<PairSlot> slots;
    Buffer<float> d_projected;     // the vertices as the camera of a render sees them, 3 floats a vertex
    Buffer<uint8_t> d_candidates;  // per facet: may win a pixel of the render (CUDA)

    std::vector<float> mean_depth;

    MeshOptimizationCall(Backend& backend, const MeshOptimizationArgs& args,
                         OptimizationSchedule chosen = OptimizationSchedule::Reference)
        : be(backend), a(args), schedule(chosen) {
        pixelCount = a.width * a.height;
        haveImages = a.num_cameras > 0 && pixelCount > 0;
    }

    void allocate() {
        const size_t nv = size_t(a.num_v), nf = size_t(a.num_f), px = size_t(pixelCount);
        d_vertices = Buffer<float>(be, a.vertices, 3 * nv);
        d_facets = Buffer<int>(be, a.facets, 3 * nf);
        d_valence_list = Buffer<int>(be, a.valence_list, size_t(a.num_valence_entries));
        d_valence_counts = Buffer<int>(be, a.valence_counts, nv);
        d_valence_offsets = Buffer<int>(be, a.valence_offsets, nv);

        const int cams = cameraCount();
        if (cams > 0) d_img_stack = makeImageStack(be, a.images, a.width, a.height, cams);
        std::vector<float> staging(haveImages ? px : 0);
        for (int c = 0; c < cams; ++c) {
            const uint8_t* bytes = a.images + size_t(c) * px;
            for (size_t p = 0; p < px; ++p) staging[p] = float(bytes[p]);
            d_imgs.emplace_back(be, staging.data(), px);
        }

        d_facet_normals = Buffer<float>(be, 3 * nf);
        GRAD_PHOTO = Buffer<float>(be, 3 * nv);
        d_grad_photo_sum = Buffer<unsigned long long>(be, 3 * nv);
        d_vt_pair_hits = Buffer<float>(be, nv);
        d_vt_pair_count = Buffer<float>(be, nv);
        d_vt_update_mask = Buffer<uint8_t>(be, nv);
        d_grad_smooth = Buffer<float>(be, 3 * nv);
        d_grad_smooth2 = Buffer<float>(be, 3 * nv);
        for (int c = 0; c < cams; ++c) {
            d_zbuffer.emplace_back(be, px);
            d_facet_id.emplace_back(be, px);
            d_bary_b.emplace_back(be, px);
            d_bary_c.emplace_back(be, px);
        }
        if (cams > 0) {
            d_depth_keys = Buffer<unsigned long long>(be, px);
            if (fast()) {
                slots.resize(size_t(std::min(be.taskSlots(), cams)));
                for (PairSlot& slot : slots) {
                    slot.surface = Buffer<SurfacePoint>(be, px);
                    slot.warped = Buffer<float>(be, px);
                    slot.mask = Buffer<uint8_t>(be, px);
                    slot.termR = Buffer<float>(be, px);
                    slot.termB = Buffer<float>(be, px);
                    slot.termC = Buffer<float>(be, px);
                    slot.termM = Buffer<float>(be, px);
                    slot.texture = Buffer<float>(be, px);
                    slot.pairStamp = Buffer<int>(be, nv);
                }
                d_projected = Buffer<float>(be, 3 * nv);
                // The CPU renders in bands and needs no candidates.
                if constexpr (Backend::isCuda) d_candidates = Buffer<uint8_t>(be, nf);
            } else {
                d_warped = Buffer<float>(be, px);
                nccBuffers = NccWorkBuffers<Backend>(be, a.width, a.height, true);
                ncc = nccBuffers.images();
            }
        }
    }

    bool fast() const { return schedule == OptimizationSchedule::Fast; }

    void fillFloat(int n, float* array, float value) { be.launch(WideRun{n}, Kernel_Set_FloatArray{n, array, value}); }

    // Clears the render buffers of camera c and renders the current mesh.
    void render(int c) {
        fillFloat(pixelCount, d_zbuffer[c].get(), kDepthClear);
        be.launch(WideRun{pixelCount}, Kernel_Set_IntArray{pixelCount, d_facet_id[c].get(), -1});
        be.launch(WideRun{pixelCount}, Kernel_Clear_DepthKeys{pixelCount, d_depth_keys.get()});
        const int w = a.width, h = a.height;
        const MeshGeometry mesh{d_vertices.get(), a.num_f, d_facets.get()};
        const RenderImages out{d_zbuffer[c].image(w, h), d_facet_id[c].image(w, h), d_bary_b[c].image(w, h),
                               d_bary_c[c].image(w, h)};
        const ImageView<unsigned long long> keys = d_depth_keys.image(w, h);
        if (!fast()) return renderDepthKeys(be, mesh, a.cameras[c], RenderArea{0, 0, w, h}, keys, out);
        be.launch(WideRun{a.num_v}, Kernel_Project_Vertices{a.num_v, d_vertices.get(), a.cameras[c], d_projected.get()});
        if constexpr (Backend::isCuda)
            renderDepthKeys(be, mesh, a.cameras[c], RenderArea{0, 0, w, h}, keys, out,
                            FacetWork{Backend::kZBufferLanes, d_projected.get(), d_candidates.get()});
        else  // the CPU's one-pass render (backend/cpu/BandRender.h, included by the CPU unit)
            renderInBands(be, mesh, a.cameras[c], keys, out, d_projected.get(), 4 * be.taskSlots());
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
            d_zbuffer[c].download(depth.data());
            d_facet_id[c].download(facet.data());
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

    // Camera c and its render, as the pair kernels read them.
    RenderedCamera renderedCamera(int c) const {
        const int w = a.width, h = a.height;
        return {a.cameras[c], d_zbuffer[c].image(w, h), d_facet_id[c].image(w, h), d_bary_b[c].image(w, h),
                d_bary_c[c].image(w, h)};
    }

    // Reference i and target j, the target's image a layer of the stack.
    CameraPair<StackLayerFetch> cameraPair(int i, int j) const {
        return {renderedCamera(i), renderedCamera(j), StackLayerFetch{d_img_stack.view(), j}};
    }

    // What the photometric gradient of reference i and target j reads.
    PairSurface<StackLayerFetch> pairSurface(int i, int j) const {
        return {FacetNormals{a.num_f, d_facets.get(), d_facet_normals.get()}, cameraPair(i, j), mean_depth[i],
                mean_depth[j]};
    }

    GradientSums gradientSums() const { return {d_grad_photo_sum.get(), gradScale.toFixed}; }

    // Warp, NCC chain and gradient accumulation of reference i, target j.
    void pairChain(int i, int j) {
        const ImageGrid grid{a.width, a.height};
        fillFloat(a.num_v, d_vt_pair_hits.get(), 0.0f);
        be.launch(grid, Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA{{cameraPair(i, j), warpedImage()}});
        launchNccChain(be, d_imgs[i].image(a.width, a.height), warpedImage(), ncc, a.halfWindow, true);
        be.launch(grid, Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA{
                            {pairSurface(i, j), ncc.grad, ncc.mask, gradientSums(), d_vt_pair_hits.get()}});
        be.launch(WideRun{a.num_v},
                  Kernel_Update_Vt_Image_Pair_Count{a.num_v, d_vt_pair_count.get(), d_vt_pair_hits.get()});
    }

    // The warped target of the reference schedule's pair chain.
    ImageView<float> warpedImage() const { return d_warped.image(a.width, a.height); }

    // The pairs with camera i as reference, in the fast schedule, on the
    // backend `run` (the call's own, or the serial backend of a CPU task) and
    // the work images of `slot`: the rays and surface points of camera i
    // once, then three launches a pair: warp, window statistics, and the
    // gradient with its accumulation.
    template <class Run>
    void fusedPairsOf(Run& run, PairSlot& slot, int i) {
        const int w = a.width, h = a.height;
        const ImageGrid grid{w, h};
        const ImageView<SurfacePoint> surface = slot.surface.image(w, h);
        const PairImages images{d_imgs[i].image(w, h), slot.warped.image(w, h)};
        const WindowTerms terms{slot.mask.image(w, h),  slot.termR.image(w, h), slot.termB.image(w, h),
                                slot.termC.image(w, h), slot.termM.image(w, h), slot.texture.image(w, h)};
        bool surfaceReady = false;
        for (int j = 0; j < cameraCount(); ++j) {
            if (!isPair(i, j)) continue;
            if (!surfaceReady) run.launch(grid, Kernel_Surface_Points{renderedCamera(i), surface});
            surfaceReady = true;
            const CameraPair<StackLayerFetch> pair = cameraPair(i, j);
            run.launch(grid, Kernel_Warp_SurfacePoints{pair, surface, slot.warped.image(w, h)});
            run.launch(grid, Kernel_Ncc_WindowStatistics{images, terms, a.halfWindow});
            const PairCounter counter{slot.pairStamp.get(), slot.pairsDone++, d_vt_pair_count.get()};
            run.launch(grid, Kernel_Accumulate_PairGradient{pairSurface(i, j), surface,
                                                            PairWindows{images, readOnly(terms), a.halfWindow},
                                                            gradientSums(), counter});
        }
    }

    // Start of an iteration: clear the accumulators, take the normals of the
    // current mesh and render every camera, so that all depth maps are
    // complete before the first pair reads two of them.
    void beginIteration() {
        const int nv = a.num_v;
        be.launch(WideRun{3 * nv}, Kernel_Clear_FixedPointSums{3 * nv, d_grad_photo_sum.get()});
        fillFloat(nv, d_vt_pair_count.get(), 0.0f);
        for (PairSlot& slot : slots) {
            be.launch(WideRun{nv}, Kernel_Set_IntArray{nv, slot.pairStamp.get(), -1});
            slot.pairsDone = 0;
        }
        be.launch(WideRun{a.num_f},
                  Kernel_Compute_FacetNormal{d_vertices.get(), a.num_f, d_facets.get(), d_facet_normals.get()});
        for (int c = 0; c < cameraCount(); ++c) render(c);
    }

    int cameraCount() const { return haveImages ? a.num_cameras : 0; }

    // Entries other than 1, and the diagonal, are not pairs.
    bool isPair(int i, int j) const {
        return i != j && a.pair_mask[size_t(i) * size_t(a.num_cameras) + size_t(j)] == 1;
    }

    // GRAD_PHOTO: the sum over a pair's pixels, averaged over the pairs.
    void normalizeGradient() {
        be.launch(WideRun{a.num_v},
                  Kernel_Normalize_GRAD_PHOTO{a.num_v, GRAD_PHOTO.get(), d_vt_pair_count.get(),
                                              d_vt_update_mask.get(), d_grad_photo_sum.get(), gradScale.toFloat});
    }

    void iteration() {
        const int nv = a.num_v;
        beginIteration();
        if (fast()) {
            // The reference cameras as tasks, each in a slot of its own while
            // it runs; their sums are fixed point and their pair counts kept
            // per slot, so the order in which they run does not show.
            be.runTasks(cameraCount(), [&](auto& run, int slot, int i) { fusedPairsOf(run, slots[size_t(slot)], i); });
        } else {
            for (int i = 0; i < cameraCount(); ++i)
                for (int j = 0; j < cameraCount(); ++j)
                    if (isPair(i, j)) pairChain(i, j);
        }
        normalizeGradient();
        const OneRingTable rings{d_valence_list.get(), d_valence_counts.get(), d_valence_offsets.get()};
        be.launch(WideRun{nv}, Kernel_ComputeSmoothnessGradient{nv, d_vertices.get(), rings, d_grad_smooth.get(), false});
        be.launch(WideRun{nv},
                  Kernel_ComputeSmoothnessGradient{nv, d_grad_smooth.get(), rings, d_grad_smooth2.get(), true});
        be.launch(WideRun{nv}, Kernel_GradientDescent{nv, d_vertices.get(), GRAD_PHOTO.get(), a.steps.photometric});
        if (a.first_order_smoothing)
            be.launch(WideRun{nv},
                      Kernel_GradientDescent{nv, d_vertices.get(), d_grad_smooth.get(), a.steps.first_order});
        else
            be.launch(WideRun{nv},
                      Kernel_GradientDescent{nv, d_vertices.get(), d_grad_smooth2.get(), a.steps.second_order});
    }
};

template <class Backend>
DeviceStatus meshOptimizationEntry(Backend& be, const MeshOptimizationArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;

    using Clock = std::chrono::steady_clock;
    const bool profiling = be.profiling();
    const Clock::time_point callStart = Clock::now();
    printDeviceMemoryReport(be.device(), "Before allocating: device memory aviable: ");
    long long done = 0;
    double iterationSeconds = 0.0;
    {
        PrintfRing<Backend> ring(be);
        MeshOptimizationCall<Backend> call(be, a, be.device().context.schedule);
        call.allocate();
        printDeviceMemoryReport(be.device(), "After allocating: device memory aviable: ");

        call.meanDepthPass();
        if (profiling) {
            be.synchronize();
            clearKernelProfile();
        }
        const Clock::time_point iterationStart = Clock::now();
        // Every iteration issues the same launches with the same arguments:
        // the fast schedule records the first as a graph where the backend
        // has graphs, and replays it for the others.
        IterationReplay<Backend> replay(be, call.fast());
        for (long long it = 1; it <= a.iterations && !be.failed; ++it) {
            std::cout << "\rmesh optimizing iteration: " << it << "/" << a.iterations << std::flush;
            replay.run([&] { call.iteration(); });
            done = it;
        }
        if (profiling) be.synchronize();
        iterationSeconds = std::chrono::duration<double>(Clock::now() - iterationStart).count();

        ring.show();
        // The caller's vertices change only when the whole call succeeded.
        std::vector<float> result(3 * size_t(a.num_v));
        call.d_vertices.download(result.data());
        if (!be.failed) std::copy(result.begin(), result.end(), a.vertices);
        else if (done > 0) std::cout << "\n";
    }
    const DeviceStatus status = finishedStatus(be, "Integrated_Mesh_Optimization_CUDA",
                                               ("stopped after " + std::to_string(done) + " of " +
                                                std::to_string(a.iterations > 0 ? a.iterations : 0) +
                                                " iterations; vertices left unchanged")
                                                   .c_str());
    std::cout << "\n";
    printDeviceMemoryReport(be.device(), "After free: device memory aviable: ");
    std::cout << "\n";
    std::cout.flush();
    if (profiling) {
        const double callSeconds = std::chrono::duration<double>(Clock::now() - callStart).count();
        static const double bandwidth = be.copyBandwidthGBs();  // once per process and backend
        printKernelProfile(callSeconds, iterationSeconds, done, bandwidth);
    }
    return status;
}

}  // namespace tessaline
