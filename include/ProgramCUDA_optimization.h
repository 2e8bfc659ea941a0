// Device entry points of the refinement engine: the mesh optimisation and
// the NCC entry points.
#pragma once

#include "ProgramCUDA.h"
#include "RefinementSettings.h"

// What a process does with a camera when several processes share a run
// (RunContext::processes): a reference's pairs run here (its image as the
// reference image, its render and weights), a target's image and render are
// only read by those pairs, and an unused camera is not held at all.
enum CameraRole : uint8_t { kCameraUnused = 0, kCameraTarget = 1, kCameraReference = 2 };

// Moves the vertices of a mesh by `iterations` steps of gradient descent on
// the windowed NCC of the camera pairs in pair_mask and on an umbrella
// smoothness term, first order or second order, with `steps` (by default
// 75 photometric, 0.1 first order, 0.5 second order).
// `vertices` is overwritten with the result, and left unchanged unless the
// status is Ok. Prints memory reports and an overwriting iteration counter.
struct MeshOptimizationArgs {
    int num_v = 0;
    float* vertices = nullptr;  // 3 per vertex, in and out
    int num_f = 0;
    const int* facets = nullptr;  // 3 per facet
    int num_valence_entries = 0;
    const int* valence_list = nullptr;     // the one-rings, vertex after vertex
    const int* valence_counts = nullptr;   // 1 per vertex: length of its run
    const int* valence_offsets = nullptr;  // 1 per vertex: start of its run
    int num_cameras = 0;
    int width = 0;  // all images of a call have one size
    int height = 0;
    const mycamera_cuda* cameras = nullptr;  // num_cameras records
    const unsigned char* images = nullptr;   // num_cameras grey images, width * height bytes each, back to back
    int iterations = 0;
    // num_cameras * num_cameras bytes: entry i * num_cameras + j equal to 1
    // means camera j is compared with camera i as reference.
    const unsigned char* pair_mask = nullptr;
    bool first_order_smoothing = true;
    DescentSteps steps;
    int halfWindow = 2;  // NCC windows of (2 halfWindow + 1)^2 pixels, 1 to 16
    // Off by default. On: each vertex steps by the adaptive rule, and the
    // call may end before `iterations` (RefinementSettings.h).
    AdaptiveDescent adaptive;
    // The share of this process when several share the run: a CameraRole
    // per camera. Only the pairs of its references run here, and `images`
    // holds just the images of the cameras it uses, in camera order. The
    // iteration's sums, pair counts and mean depths are combined over the
    // processes of the device's run context, so that every process moves the
    // vertices alike. Null: every camera is a reference, as for one process.
    const uint8_t* camera_roles = nullptr;
};
DeviceStatus Integrated_Mesh_Optimization_CUDA(const DeviceHandle& device, const MeshOptimizationArgs& args);

// Windowed NCC (window (2 halfWindow + 1)^2) of imageA against imageB, whose
// -1.0 entries mark pixels without a value: per pixel the correlation `cc`,
// the validity `mask` (1 where the whole window of imageB has values and lies
// in the image) and `grad`, the derivative of minus the summed correlation
// with respect to imageB, weighted by texture. All arrays width x height.
struct NccGradArgs {
    int width = 0;
    int height = 0;
    const float* imageA = nullptr;
    const float* imageB = nullptr;
    float* grad = nullptr;
    float* cc = nullptr;
    unsigned char* mask = nullptr;
    int halfWindow = 2;
};
DeviceStatus Compute_NCCGrad_CUDA(const DeviceHandle& device, const NccGradArgs& args);

// The same up to the correlation: `cc` and `mask` only.
struct CcArgs {
    int width = 0;
    int height = 0;
    const float* imageA = nullptr;
    const float* imageB = nullptr;
    float* cc = nullptr;
    unsigned char* mask = nullptr;
    int halfWindow = 2;
};
DeviceStatus Compute_CC_CUDA(const DeviceHandle& device, const CcArgs& args);
