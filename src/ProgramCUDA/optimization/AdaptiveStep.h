// What an optimisation call holds for the adaptive descent: the vertices'
// pixel footprints, step factors and last descent directions, the step
// itself, and the decision that the vertices have settled.
#pragma once

#include <cfloat>
#include <cstdint>
#include <vector>

#include "CameraGeometry.h"
#include "LaunchGeometry.h"
#include "ProgramCUDA_optimization.h"
#include "backend/DeviceMemory.h"
#include "optimization/AdaptiveStepKernels.h"
#include "optimization/ProcessSums.h"

namespace tessaline {

// Depth over focal length of `vertex` in `camera` when it lies in front of
// the camera and projects into its image; 0 otherwise.
inline float footprintIn(const mycamera_cuda& camera, const float vertex[3], int width, int height) {
    float px = 0.0f, py = 0.0f, depth = 0.0f;
    projectF(camera.P, vertex, px, py, depth);
    if (!(depth > 0.0f)) return 0.0f;
    const float x = px / depth, y = py / depth;
    const bool inside = x >= 0.0f && y >= 0.0f && x <= float(width - 1) && y <= float(height - 1);
    return inside ? depth / camera.K[0] : 0.0f;
}

// The pixel footprint of every vertex as it arrives: the smallest over the
// cameras that see it (visibility aside). A vertex no camera sees takes the
// largest footprint of those seen, and with none seen at all the cap is off.
inline std::vector<float> vertexFootprints(const MeshOptimizationArgs& a) {
    std::vector<float> footprint(size_t(a.num_v), 0.0f);
    float largest = 0.0f;
    for (int v = 0; v < a.num_v; ++v) {
        float smallest = 0.0f;
        for (int c = 0; c < a.num_cameras; ++c) {
            const float f = footprintIn(a.cameras[c], a.vertices + 3 * size_t(v), a.width, a.height);
            if (f > 0.0f && (smallest == 0.0f || f < smallest)) smallest = f;
        }
        footprint[size_t(v)] = smallest;
        if (smallest > largest) largest = smallest;
    }
    const float unseen = largest > 0.0f ? largest : FLT_MAX;
    for (float& f : footprint)
        if (f == 0.0f) f = unseen;
    return footprint;
}

template <class Backend>
struct AdaptiveStepCall {
    template <class T>
    using Buffer = DeviceBuffer<T, Backend>;

    Buffer<float> factor, previousDirection, footprint;
    Buffer<uint8_t> moving;

    void allocate(Backend& be, const MeshOptimizationArgs& a) {
        const size_t nv = size_t(a.num_v);
        const std::vector<float> ones(nv, 1.0f), zeros(3 * nv, 0.0f);
        factor = Buffer<float>(be, ones.data(), nv);
        previousDirection = Buffer<float>(be, zeros.data(), 3 * nv);
        footprint = Buffer<float>(be, vertexFootprints(a).data(), nv);
        moving = Buffer<uint8_t>(be, nv);
    }

    // The step of every vertex from the normalised photometric gradient and
    // the smoothness gradient of the level's order.
    void step(Backend& be, const MeshOptimizationArgs& a, float* vertices, const float* gradPhoto,
              const float* gradSmooth) {
        const float smoothness = a.first_order_smoothing ? a.steps.first_order : a.steps.second_order;
        const AdaptiveDescent& d = a.adaptive;
        const AdaptiveStepRule rule{a.steps.photometric, smoothness, d.turn_factor,
                                    d.regrow_factor,     d.max_move, d.settled_move};
        const VertexStepState state{factor.get(), previousDirection.get(), footprint.get(), moving.get()};
        be.launch(WideRun{a.num_v}, Kernel_AdaptiveDescent{a.num_v, vertices, gradPhoto, gradSmooth, rule, state});
    }

    // Whether the vertices have settled after `iteration`: each process
    // counts the moving vertices of its share of them, and the counts are
    // added over the processes. False when a process of the run failed.
    bool settledAfter(Backend& be, const ProcessGroup& group, const MeshOptimizationArgs& a, long long iteration,
                      bool& settled) {
        std::vector<uint8_t> flags(size_t(a.num_v));
        moving.download(flags.data());
        const long long nv = a.num_v, size = group.size > 0 ? group.size : 1;
        const long long begin = nv * group.rank / size, end = nv * (group.rank + 1) / size;
        std::vector<uint64_t> counts(1, 0);
        for (long long v = begin; v < end; ++v) counts[0] += flags[size_t(v)];
        if (!sumOverProcesses(group, counts, be.failed)) return false;
        settled = iteration >= a.adaptive.min_iterations &&
                  double(counts[0]) <= double(a.adaptive.settled_share) * double(nv);
        return true;
    }
};

}  // namespace tessaline
