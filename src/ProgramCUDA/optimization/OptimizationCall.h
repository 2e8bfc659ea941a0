// Everything an optimisation call holds on the device, and the schedule of
// kernels that uses it: per iteration every held camera rendered, the pairs
// of the reference cameras (warp, NCC, gradient accumulation, in either
// schedule), the sums combined over the processes of a shared run, the
// normalised gradient, the smoothness gradients and the step.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "FixedPointSum.h"
#include "LaunchGeometry.h"
#include "ProgramCUDA_optimization.h"
#include "backend/DeviceMemory.h"
#include "ncc/NccChain.h"
#include "ncc/NccFusedKernels.h"
#include "optimization/AdaptiveStep.h"
#include "optimization/CameraSet.h"
#include "optimization/FusedPairKernels.h"
#include "optimization/MeshKernels.h"
#include "optimization/PhotometricGradientKernels.h"
#include "optimization/ProcessSums.h"
#include "optimization/WarpKernels.h"
#include "zbuffer/ZBufferRender.h"

namespace tessaline {

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
    CameraSet cameras;  // which cameras this process holds, and how

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
    AdaptiveStepCall<Backend> adaptiveStep;  // allocated when the adaptive descent is on

    // Per camera: a held camera's render (depth and facet), a reference's
    // float image and weights; the held images as layers of the stack.
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
        cameras = CameraSet(a.camera_roles, cameraCount());
    }

    const ProcessGroup& processes() const { return be.device().context.processes; }
    bool distributed() const { return processes().distributed(); }

    void allocate() {
        const size_t nv = size_t(a.num_v), nf = size_t(a.num_f), px = size_t(pixelCount);
        d_vertices = Buffer<float>(be, a.vertices, 3 * nv);
        d_facets = Buffer<int>(be, a.facets, 3 * nf);
        d_valence_list = Buffer<int>(be, a.valence_list, size_t(a.num_valence_entries));
        d_valence_counts = Buffer<int>(be, a.valence_counts, nv);
        d_valence_offsets = Buffer<int>(be, a.valence_offsets, nv);

        const int cams = cameraCount();
        if (cameras.held > 0) d_img_stack = makeImageStack(be, a.images, a.width, a.height, cameras.held);
        std::vector<float> staging(haveImages ? px : 0);
        d_imgs.resize(size_t(cams));
        for (int c = 0; c < cams; ++c) {
            if (!cameras.reference(c)) continue;
            const uint8_t* bytes = a.images + size_t(cameras.layer[size_t(c)]) * px;
            for (size_t p = 0; p < px; ++p) staging[p] = float(bytes[p]);
            d_imgs[size_t(c)] = Buffer<float>(be, staging.data(), px);
        }

        d_facet_normals = Buffer<float>(be, 3 * nf);
        GRAD_PHOTO = Buffer<float>(be, 3 * nv);
        d_grad_photo_sum = Buffer<unsigned long long>(be, 3 * nv);
        d_vt_pair_hits = Buffer<float>(be, nv);
        d_vt_pair_count = Buffer<float>(be, nv);
        d_vt_update_mask = Buffer<uint8_t>(be, nv);
        d_grad_smooth = Buffer<float>(be, 3 * nv);
        d_grad_smooth2 = Buffer<float>(be, 3 * nv);
        if (adaptive()) adaptiveStep.allocate(be, a);
        allocateRenders(cams, px);
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

    // Depth and facet renders of the held cameras; weights of the references.
    void allocateRenders(int cams, size_t px) {
        d_zbuffer.resize(size_t(cams));
        d_facet_id.resize(size_t(cams));
        d_bary_b.resize(size_t(cams));
        d_bary_c.resize(size_t(cams));
        for (int c = 0; c < cams; ++c) {
            if (!cameras.heldHere(c)) continue;
            d_zbuffer[size_t(c)] = Buffer<float>(be, px);
            d_facet_id[size_t(c)] = Buffer<int>(be, px);
            if (!cameras.reference(c)) continue;
            d_bary_b[size_t(c)] = Buffer<float>(be, px);
            d_bary_c[size_t(c)] = Buffer<float>(be, px);
        }
    }

    bool fast() const { return schedule == OptimizationSchedule::Fast; }
    bool adaptive() const { return a.adaptive.enabled; }

    // Whether the vertices have settled after `iteration` (adaptive descent
    // only); false when a process of the run failed.
    bool settledAfter(long long iteration, bool& settled) {
        return adaptiveStep.settledAfter(be, processes(), a, iteration, settled);
    }

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

    // Mean depth of a reference camera's covered pixels in the mesh as it
    // arrived; `covered` false when it sees nothing.
    float meanDepthOf(int c, bool& covered) {
        std::vector<float> depth(static_cast<size_t>(pixelCount));
        std::vector<int> facet(depth.size());
        render(c);
        d_zbuffer[size_t(c)].download(depth.data());
        d_facet_id[size_t(c)].download(facet.data());
        float sum = 0.0f, count = 0.0f;
        for (size_t p = 0; p < depth.size(); ++p)
            if (facet[p] >= 0) {
                sum = sum + depth[p];
                count = count + 1.0f;
            }
        covered = count > 0.0f;
        return covered ? sum / count : 0.0f;
    }

    // The mean depths of all cameras: each reference's own, every other
    // camera's from the process that holds it as a reference, and for the
    // cameras that see nothing the mean over those that do. False when a
    // process of the run failed on the way.
    bool meanDepthPass() {
        // Every process of a shared run adds up the same number of values,
        // whether or not it holds an image.
        const int cams = std::max(a.num_cameras, 0);
        mean_depth.assign(cams, 0.0f);
        std::vector<bool> covered(cams, false);
        for (int c = 0; c < cameraCount() && !be.failed; ++c) {
            if (!cameras.reference(c)) continue;
            bool seen = false;
            mean_depth[size_t(c)] = meanDepthOf(c, seen);
            covered[size_t(c)] = seen;
        }
        const bool combined = shareMeanDepths(covered);
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
        return combined;
    }

    // Every process learns the mean depths (as float bits) and the coverage
    // of the cameras that others hold as references; each camera is a
    // reference of exactly one process.
    bool shareMeanDepths(std::vector<bool>& covered) {
        const int cams = int(covered.size());
        std::vector<uint64_t> values(2 * size_t(cams), 0);
        for (int c = 0; c < cameraCount(); ++c) {
            if (!cameras.reference(c)) continue;
            values[2 * size_t(c)] = covered[size_t(c)] ? 1 : 0;
            values[2 * size_t(c) + 1] = floatBitsOf(mean_depth[size_t(c)]);
        }
        if (!sumOverProcesses(processes(), values, be.failed)) return false;
        for (int c = 0; c < cams; ++c) {
            covered[size_t(c)] = values[2 * size_t(c)] != 0;
            mean_depth[size_t(c)] = floatFromBits(values[2 * size_t(c) + 1]);
        }
        return true;
    }

    // The iteration's fixed-point sums and pair counts, added up over the
    // processes of the run before the gradient is normalised. False when a
    // process failed; nothing to do for one process.
    bool combineIterationSums() {
        if (!distributed()) return true;
        const size_t nv = size_t(a.num_v);
        std::vector<uint64_t> values(3 * nv);
        std::vector<float> counts(nv);
        d_grad_photo_sum.download(reinterpret_cast<unsigned long long*>(values.data()));
        d_vt_pair_count.download(counts.data());
        appendWholeNumbers(counts, values);
        if (!sumOverProcesses(processes(), values, be.failed)) return false;
        for (size_t v = 0; v < nv; ++v) counts[v] = float(values[3 * nv + v]);
        d_grad_photo_sum.upload(reinterpret_cast<const unsigned long long*>(values.data()));
        d_vt_pair_count.upload(counts.data());
        return true;
    }

    // Camera c and its render, as the pair kernels read them.
    RenderedCamera renderedCamera(int c) const {
        const int w = a.width, h = a.height;
        return {a.cameras[c], d_zbuffer[c].image(w, h), d_facet_id[c].image(w, h), d_bary_b[c].image(w, h),
                d_bary_c[c].image(w, h)};
    }

    // Reference i and target j, the target's image a layer of the stack.
    CameraPair<StackLayerFetch> cameraPair(int i, int j) const {
        return {renderedCamera(i), renderedCamera(j), StackLayerFetch{d_img_stack.view(), cameras.layer[size_t(j)]}};
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
        for (int c = 0; c < cameraCount(); ++c)
            if (cameras.heldHere(c)) render(c);
    }

    int cameraCount() const { return haveImages ? a.num_cameras : 0; }

    // Entries other than 1, and the diagonal, are not pairs; a pair runs
    // where its reference is held as one.
    bool isPair(int i, int j) const {
        return i != j && a.pair_mask[size_t(i) * size_t(a.num_cameras) + size_t(j)] == 1 && cameras.reference(i);
    }

    // GRAD_PHOTO: the sum over a pair's pixels, averaged over the pairs.
    void normalizeGradient() {
        be.launch(WideRun{a.num_v},
                  Kernel_Normalize_GRAD_PHOTO{a.num_v, GRAD_PHOTO.get(), d_vt_pair_count.get(),
                                              d_vt_update_mask.get(), d_grad_photo_sum.get(), gradScale.toFloat});
    }

    // One iteration: renders, pairs, and (over the processes of a shared run)
    // the sums of the pairs, then the gradient and the step. Returns false
    // when a process of the run failed: the step is not taken.
    bool iteration() {
        if (!pairsOfIteration()) return false;
        stepVertices();
        return true;
    }

    // The iteration up to the summed gradient.
    bool pairsOfIteration() {
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
        return combineIterationSums();
    }

    // The normalised gradient, both smoothness gradients and the step: the
    // fixed steps one after the other, or the adaptive step.
    void stepVertices() {
        const int nv = a.num_v;
        normalizeGradient();
        const OneRingTable rings{d_valence_list.get(), d_valence_counts.get(), d_valence_offsets.get()};
        be.launch(WideRun{nv}, Kernel_ComputeSmoothnessGradient{nv, d_vertices.get(), rings, d_grad_smooth.get(), false});
        be.launch(WideRun{nv},
                  Kernel_ComputeSmoothnessGradient{nv, d_grad_smooth.get(), rings, d_grad_smooth2.get(), true});
        if (adaptive()) {
            const float* smooth = a.first_order_smoothing ? d_grad_smooth.get() : d_grad_smooth2.get();
            return adaptiveStep.step(be, a, d_vertices.get(), GRAD_PHOTO.get(), smooth);
        }
        be.launch(WideRun{nv}, Kernel_GradientDescent{nv, d_vertices.get(), GRAD_PHOTO.get(), a.steps.photometric});
        if (a.first_order_smoothing)
            be.launch(WideRun{nv},
                      Kernel_GradientDescent{nv, d_vertices.get(), d_grad_smooth.get(), a.steps.first_order});
        else
            be.launch(WideRun{nv},
                      Kernel_GradientDescent{nv, d_vertices.get(), d_grad_smooth2.get(), a.steps.second_order});
    }
};

}  // namespace tessaline
