// Dormant device library: single-step entry points, plane sweeps, device
// printf. Nothing in the tool calls them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "ProgramCUDA.h"

// ---- Single-step entry points ----------------------------------------------
//
// One stage of a camera pair run on its own: the cameras' depth, facet and
// weight maps (from TriMesh_Image_ZBuffering_CUDA) are host arrays of width x
// height. The first camera of a pair is the reference, in whose pixel grid
// the work is done; the second the target, whose image is sampled.

// The target image as the reference sees it through the surface of the depth
// maps: per reference pixel the grey level (0 to 255) of the target at the
// projected point, or -1 where the point is not visible in the target or
// lies within 10 pixels of its border.
struct PerspectiveWarpArgs {
    mycamera_cuda camera_ref{};
    const float* depth_ref = nullptr;
    const int* facet_ref = nullptr;
    mycamera_cuda camera_tar{};
    const float* depth_tar = nullptr;
    const uint8_t* image_tar = nullptr;
    int width = 0;
    int height = 0;
    float* warped = nullptr;  // the result
};
DeviceStatus Perspective_Image_Model_Image_Warp_CUDA(const DeviceHandle& device, const PerspectiveWarpArgs& args);

// Adds one pair's photometric gradient (from the NCC derivative image
// ncc_grad over the pixels of visible_mask) to grad_photo (3 floats per
// vertex) and counts the pixels that reached each vertex in vt_pair_hits;
// both keep what earlier calls put there. Pixels whose ray meets the facet at
// a cosine above -0.01 are left out. The call's contributions are summed in
// fixed point and added to grad_photo once, so the result does not depend on
// the order of the pixels.
struct PairGradientArgs {
    int num_f = 0;
    const int* facets = nullptr;         // 3 per facet
    const float* facet_normals = nullptr;  // 3 per facet, unit length
    int width = 0;
    int height = 0;
    mycamera_cuda camera_ref{};
    const float* depth_ref = nullptr;
    const int* facet_ref = nullptr;
    mycamera_cuda camera_tar{};
    const uint8_t* image_tar = nullptr;
    const float* bary_b_ref = nullptr;
    const float* bary_c_ref = nullptr;
    const float* ncc_grad = nullptr;
    const uint8_t* visible_mask = nullptr;
    float mean_depth_ref = 0.0f;
    float mean_depth_tar = 0.0f;
    int num_v = 0;
    float* grad_photo = nullptr;    // in and out
    float* vt_pair_hits = nullptr;  // in and out
};
DeviceStatus AddPhotometricGradient_ImagePair_CUDA(const DeviceHandle& device, const PairGradientArgs& args);

// The second-order umbrella gradient of every vertex (3 floats each) over
// the flattened one-rings.
struct SmoothnessGradientArgs {
    int num_v = 0;
    const float* vertices = nullptr;
    int num_valence_entries = 0;
    const int* valence_list = nullptr;
    const int* valence_counts = nullptr;
    const int* valence_offsets = nullptr;
    float* gradient = nullptr;  // the result
};
DeviceStatus ComputeSmoothnessGradient_CUDA(const DeviceHandle& device, const SmoothnessGradientArgs& args);

// Fairs the mesh in place by `iterations` steps of 1.0 along minus the
// second-order umbrella gradient. Vertices whose vertex_mask byte is 0 keep
// their positions; a null mask moves them all. Prints three memory reports.
struct SmoothnessDescentArgs {
    int num_v = 0;
    float* vertices = nullptr;  // in and out
    int num_valence_entries = 0;
    const int* valence_list = nullptr;
    const int* valence_counts = nullptr;
    const int* valence_offsets = nullptr;
    const uint8_t* vertex_mask = nullptr;
    int iterations = 0;
};
DeviceStatus Smoothness_GradientDescent_CUDA(const DeviceHandle& device, const SmoothnessDescentArgs& args);

// ---- Plane sweeps -------------------------------------------------------
//
// Common inputs: image_stack holds num_neighbours + 1 grey images of width x
// height bytes back to back, image 0 the reference; cameras holds as many
// records in the same order. The result grid has out_width x out_height
// cells; cell (x, y) stands for pixel (x * subsample, y * subsample). depth
// and score receive out_width * out_height floats, row-major. Plane k has
// the value k * step + start.
struct SweepInputs {
    int num_neighbours = 0;
    int width = 0;
    int height = 0;
    const uint8_t* image_stack = nullptr;
    const mycamera_cuda* cameras = nullptr;
    int out_width = 0;
    int out_height = 0;
    int subsample = 1;
    float* depth = nullptr;
    float* score = nullptr;
    float start = 0.0f;
    float step = 0.0f;
    int num_planes = 0;
};

// Sweeps the inverse distance along each reference ray (the ray parameter
// is 1 / value). depth: refined inverse distance, so 1 / depth is the
// distance from the camera centre; 0 where fewer than 3 planes were swept.
// score: mean NCC over the neighbours that see the chosen point, -1 where
// none does or the refined value is negative. Prints its progress lines.
struct InvDepthSweepArgs {
    SweepInputs sweep;
};
DeviceStatus PlaneSweep_InvDepth_CUDA(const DeviceHandle& device, const InvDepthSweepArgs& args);

// Sweeps heights h over the plane a x + b y + c z + d = 0, in units of
// |(a, b, c)|. depth: refined height; score as above.
struct HeightSweepArgs {
    SweepInputs sweep;
    float plane[4] = {0.0f, 0.0f, 1.0f, 0.0f};  // a, b, c, d
};
DeviceStatus PlaneSweep_Height_CUDA(const DeviceHandle& device, const HeightSweepArgs& args);

// Sweeps planes z = value of the reference camera's frame (the neighbours'
// R and t must be given relative to camera 0) by whole-image homography
// warps, scoring windows of half-size 2, 4, ... (num_levels of them) with a
// cost volume on the device. depth: the distance along each cell's unit ray;
// score: the best mean NCC, 0 where no level could be scored. num_planes
// must be at least 3.
struct HomographySweepArgs {
    SweepInputs sweep;
    int num_levels = 1;
};
DeviceStatus PlaneSweep_Homography_CUDA(const DeviceHandle& device, const HomographySweepArgs& args);

// ---- Device printf ring ---------------------------------------------------
//
// Kernels print with cuPrintf into the ring of their backend; the host shows
// the records afterwards.

// Arms a ring of `bytes` rounded up to whole 256-byte slots (at least one).
// Returns 0, or 3 when the ring could not be allocated.
int cuPrintfInit(const DeviceHandle& device, size_t bytes);
// Prints the records written since the last display on `stream` (standard
// output when null), each behind "[block, thread]: " when showThreadIds is
// true, and clears the ring. Returns 1 when no ring is armed, else 0.
int cuPrintfDisplay(const DeviceHandle& device, FILE* stream, bool showThreadIds);
// Frees the ring; a kernel that prints afterwards takes no slot.
void cuPrintfEnd(const DeviceHandle& device);
// Copies the first `bytes` of the armed ring (at most its length) to the
// host, for inspection. Returns 1 when no ring is armed, else 0.
int cuPrintfCopyRing(const DeviceHandle& device, void* destination, size_t bytes);

// Debugging: launches the printing kernel on n threads (block 512) over a
// gradient array of num_values floats (at least 70,704: three per vertex,
// up to vertex 23567). Every thread prints "Call <callIndex> GRAD_PHOTO"
// and the vertex's three values into the armed ring; nothing is shown.
struct CheckFuncArgs {
    const float* values = nullptr;
    int num_values = 0;
    int n = 0;
    int callIndex = 0;
};
DeviceStatus CHECK_FUNC_CUDA(const DeviceHandle& device, const CheckFuncArgs& args);
