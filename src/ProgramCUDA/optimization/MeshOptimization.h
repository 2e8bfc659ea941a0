// The mesh optimisation of one level: uploads the mesh, the cameras and all
// images once, runs a fixed number of gradient-descent iterations entirely on
// the device (with the adaptive descent, at most that many: it ends when the
// vertices settle), and reads the vertices back once.
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

#include "MeshArguments.h"
#include "ProgramCUDA_optimization.h"
#include "backend/EntryPoint.h"
#include "backend/IterationReplay.h"
#include "backend/KernelProfile.h"
#include "backend/MemoryReport.h"
#include "optimization/OptimizationCall.h"
#include "printf/PrintfBracket.h"

namespace tessaline {

// The largest NCC window a call takes: 33 x 33 pixels.
constexpr int kMaxOptimizationHalfWindow = 16;

// A process that shares the run holds the target of every pair whose
// reference it holds as one.
inline void checkCameraRoles(ArgumentCheck& check, const MeshOptimizationArgs& a, const CameraSet& cameras) {
    for (int i = 0; i < a.num_cameras && !check.problem; ++i) {
        if (!cameras.reference(i)) continue;
        for (int j = 0; j < a.num_cameras; ++j)
            if (i != j && a.pair_mask[size_t(i) * size_t(a.num_cameras) + size_t(j)] == 1)
                check.require(cameras.heldHere(j), "the target of a pair is not among the cameras held");
    }
}

// The adaptive descent's numbers, when it is on. The negated comparisons
// also refuse NaN.
inline void checkAdaptiveDescent(ArgumentCheck& check, const AdaptiveDescent& d) {
    if (!d.enabled) return;
    check.require(d.turn_factor > 0.0f && d.turn_factor <= 1.0f, "adaptive turn_factor outside (0, 1]");
    check.require(d.regrow_factor >= 1.0f && d.regrow_factor <= 16.0f, "adaptive regrow_factor outside [1, 16]");
    check.require(d.max_move > 0.0f && d.max_move <= 1e6f, "adaptive max_move outside (0, 1e6]");
    check.require(d.settled_move >= 0.0f && d.settled_move <= 1e6f, "adaptive settled_move outside [0, 1e6]");
    check.require(d.settled_share >= 0.0f && d.settled_share <= 1.0f, "adaptive settled_share outside [0, 1]");
    check.require(d.min_iterations >= 0, "negative adaptive min_iterations");
}

inline bool argumentsPass(const MeshOptimizationArgs& a) {
    ArgumentCheck check("Integrated_Mesh_Optimization_CUDA");
    checkMeshCounts(check, a.num_v, a.num_f);
    check.count(a.num_cameras, "negative camera count");
    check.count(a.width, "negative image width");
    check.count(a.height, "negative image height");
    check.require(imageFitsIntIndex(a.width, a.height), "images too large");
    check.require(a.halfWindow >= 1 && a.halfWindow <= kMaxOptimizationHalfWindow, "halfWindow out of range");
    checkAdaptiveDescent(check, a.adaptive);
    if (check.problem) return check.passed();

    const long long pixels = (long long)a.width * a.height;
    const CameraSet cameras(a.camera_roles, a.num_cameras);
    check.array(a.vertices, a.num_v, "vertices missing");
    check.array(a.facets, a.num_f, "facets missing");
    check.array(a.cameras, a.num_cameras, "cameras missing");
    check.array(a.images, (long long)cameras.held * pixels, "images missing");
    check.array(a.pair_mask, a.num_cameras, "pair_mask missing");
    if (check.problem) return check.passed();
    checkCameraRoles(check, a, cameras);
    checkFacetIndices(check, a.num_v, a.num_f, a.facets);
    checkOneRings(check, a.num_v, a.num_valence_entries, a.valence_list, a.valence_counts, a.valence_offsets);
    return check.passed();
}

// How the iterations of a call went: how many ran, and whether another
// process of a shared run failed (the call then stops with it).
struct IterationsRun {
    long long done = 0;
    bool groupFailed = false;
    bool stoppedOnRequest = false;  // the run context's onIteration said stop
    double seconds = 0.0;
};

// The mean depth pass and the iterations. Every iteration issues the same
// launches with the same arguments: the fast schedule of one process records
// the first as a graph where the backend has graphs, and replays it for the
// others. A failed process of a shared run still joins every sum, so that no
// other process waits for it; the sums then stop all of them together.
template <class Backend>
IterationsRun runIterations(Backend& be, MeshOptimizationCall<Backend>& call, const MeshOptimizationArgs& a) {
    using Clock = std::chrono::steady_clock;
    IterationsRun run;
    run.groupFailed = !call.meanDepthPass();
    if (be.profiling()) {
        be.synchronize();
        clearKernelProfile();
    }
    const Clock::time_point start = Clock::now();
    IterationReplay<Backend> replay(be, call.fast() && !call.distributed());
    for (long long it = 1; it <= a.iterations && !run.groupFailed; ++it) {
        if (be.failed && !call.distributed()) break;
        std::cout << "\rmesh optimizing iteration: " << it << "/" << a.iterations << std::flush;
        bool joined = true, settled = false;
        replay.run([&] { joined = call.iteration(); });
        if (joined && call.adaptive()) joined = call.settledAfter(it, settled);
        run.groupFailed = !joined;
        if (joined) run.done = it;
        const auto& onIteration = be.device().context.onIteration;
        if (joined && !be.failed && onIteration && !onIteration(it, a.iterations)) {
            run.stoppedOnRequest = true;
            break;
        }
        if (settled) break;
    }
    if (be.profiling()) be.synchronize();
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return run;
}

// The status of a call, with its line when it did not complete.
template <class Backend>
DeviceStatus optimizationStatus(const Backend& be, const IterationsRun& run, const MeshOptimizationArgs& a) {
    const std::string stopped = "stopped after " + std::to_string(run.done) + " of " +
                                std::to_string(a.iterations > 0 ? a.iterations : 0) +
                                " iterations; vertices left unchanged";
    if (!be.failed && (run.groupFailed || run.stoppedOnRequest)) {
        std::printf("Error: Integrated_Mesh_Optimization_CUDA: %s; %s\n",
                    run.groupFailed ? "a process of the run failed" : "stopped on request", stopped.c_str());
        std::fflush(stdout);
        return DeviceStatus::Failed;
    }
    return finishedStatus(be, "Integrated_Mesh_Optimization_CUDA", stopped.c_str());
}

// In a shared run every process learns whether all of them accepted their
// arguments, so that none waits in a sum for one that refused.
inline bool allProcessesAccept(const ProcessGroup& group, bool accepted) {
    if (!group.distributed()) return accepted;
    std::vector<uint64_t> nothing;
    const bool all = sumOverProcesses(group, nothing, !accepted);
    if (accepted && !all)
        std::printf("Error: Integrated_Mesh_Optimization_CUDA: a process of the run refused its arguments; nothing "
                    "done\n");
    return all;
}

template <class Backend>
DeviceStatus meshOptimizationEntry(Backend& be, const MeshOptimizationArgs& a) {
    if (!allProcessesAccept(be.device().context.processes, argumentsPass(a))) return DeviceStatus::Refused;

    using Clock = std::chrono::steady_clock;
    const Clock::time_point callStart = Clock::now();
    printDeviceMemoryReport(be.device(), "Before allocating: device memory aviable: ");
    IterationsRun run;
    {
        PrintfRing<Backend> ring(be);
        MeshOptimizationCall<Backend> call(be, a, be.device().context.schedule);
        call.allocate();
        printDeviceMemoryReport(be.device(), "After allocating: device memory aviable: ");
        run = runIterations(be, call, a);
        ring.show();
        // The caller's vertices change only when the whole call succeeded.
        std::vector<float> result(3 * size_t(a.num_v));
        call.d_vertices.download(result.data());
        if (!be.failed && !run.groupFailed && !run.stoppedOnRequest)
            std::copy(result.begin(), result.end(), a.vertices);
        else if (run.done > 0)
            std::cout << "\n";
    }
    const DeviceStatus status = optimizationStatus(be, run, a);
    std::cout << "\n";
    printDeviceMemoryReport(be.device(), "After free: device memory aviable: ");
    std::cout << "\n";
    std::cout.flush();
    if (be.profiling()) {
        const double callSeconds = std::chrono::duration<double>(Clock::now() - callStart).count();
        static const double bandwidth = be.copyBandwidthGBs();  // once per process and backend
        printKernelProfile(callSeconds, run.seconds, run.done, bandwidth);
    }
    return status;
}

}  // namespace tessaline
