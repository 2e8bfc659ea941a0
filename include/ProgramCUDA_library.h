// Dormant device library: single-step wrappers, plane sweeps, device printf.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "mycamera.h"

// ---- Single-step wrappers ------------------------------------------------
//
// One stage of a camera pair run on its own: the cameras' depth, facet and
// weight maps (from TriMesh_Image_ZBuffering_CUDA) are host arrays of width x
// height. The first camera of a pair is the reference, in whose pixel grid
// the work is done; the second the target, whose image is sampled. Bad
// arguments give one "Error: " line and leave the outputs untouched.

// The target image as the reference sees it through the surface of the depth
// maps: per reference pixel the grey level (0 to 255) of the target at the
// projected point, or -1 where the point is not visible in the target or
// lies within 10 pixels of its border. facet_tar is not read.
void Perspective_Image_Model_Image_Warp_CUDA(const mycamera_cuda& camera_ref, const float* depth_ref,
                                             const int* facet_ref, const mycamera_cuda& camera_tar,
                                             const float* depth_tar, const int* facet_tar, const uint8_t* image_tar,
                                             int width, int height, float* warped);

// Adds one pair's photometric gradient (from the NCC derivative image
// ncc_grad over the pixels of visible_mask) to grad_photo (3 floats per
// vertex) and counts the pixels that reached each vertex in vt_pair_hits;
// both keep what earlier calls put there. Pixels whose ray meets the facet at
// a cosine above -0.01 are left out. image_ref, depth_tar and facet_tar are
// not read.
void AddPhotometricGradient_ImagePair_CUDA(int num_f, const int* facets, const float* facet_normals, int width,
                                           int height, const mycamera_cuda& camera_ref, const uint8_t* image_ref,
                                           const float* depth_ref, const int* facet_ref,
                                           const mycamera_cuda& camera_tar, const uint8_t* image_tar,
                                           const float* depth_tar, const int* facet_tar, const float* bary_b_ref,
                                           const float* bary_c_ref, const float* ncc_grad,
                                           const uint8_t* visible_mask, float mean_depth_ref, float mean_depth_tar,
                                           int num_v, float* grad_photo, float* vt_pair_hits);

// The second-order umbrella gradient of every vertex (3 floats each) over
// the flattened one-rings.
void ComputeSmoothnessGradient_CUDA(int num_v, const float* vertices, int num_f, const int* facets,
                                    int num_valence_entries, const int* valence_list, const int* valence_counts,
                                    const int* valence_offsets, float* gradient);

// Fairs the mesh in place by `iterations` steps of 1.0 along minus the
// second-order umbrella gradient. Vertices whose vertex_mask byte is 0 keep
// their positions; a null mask moves them all. Prints three memory reports.
void Smoothness_GradientDescent_CUDA(int num_v, float* vertices, int num_f, const int* facets,
                                     int num_valence_entries, const int* valence_list, const int* valence_counts,
                                     const int* valence_offsets, const uint8_t* vertex_mask, int iterations);

// ---- Plane sweeps -------------------------------------------------------
//
// Common inputs: image_stack holds num_neighbours + 1 grey images of width x
// height bytes back to back, image 0 the reference; cameras holds as many
// records in the same order. The result grid has out_width x out_height
// cells; cell (x, y) stands for pixel (x * subsample, y * subsample). depth
// and score receive out_width * out_height floats, row-major. Plane k has
// the value k * step + start. Bad arguments give one "Error: " line and
// leave the outputs untouched.

// Sweeps the inverse distance along each reference ray (the ray parameter
// is 1 / value). depth: refined inverse distance, so 1 / depth is the
// distance from the camera centre; 0 where fewer than 3 planes were swept.
// score: mean NCC over the neighbours that see the chosen point, -1 where
// none does or the refined value is negative. Prints its progress lines.
void PlaneSweep_InvDepth_CUDA(int num_neighbours, int width, int height, const uint8_t* image_stack,
                              const mycamera_cuda* cameras, int out_width, int out_height, int subsample,
                              float* depth, float* score, float start, float step, int num_planes);

// Sweeps heights h over the plane a x + b y + c z + d = 0 (plane = a, b, c,
// d), in units of |(a, b, c)|. depth: refined height; score as above.
void PlaneSweep_Height_CUDA(int num_neighbours, int width, int height, const uint8_t* image_stack,
                            const mycamera_cuda* cameras, int out_width, int out_height, int subsample, float* depth,
                            float* score, float start, float step, int num_planes, const float* plane);

// Sweeps planes z = value of the reference camera's frame (the neighbours'
// R and t must be given relative to camera 0) by whole-image homography
// warps, scoring windows of half-size 2, 4, ... (num_levels of them) with a
// cost volume on the device. depth: the distance along each cell's unit ray;
// score: the best mean NCC, 0 where no level could be scored. num_planes
// must be at least 3.
void PlaneSweep_Homography_CUDA(int num_neighbours, int width, int height, const uint8_t* image_stack,
                                const mycamera_cuda* cameras, int out_width, int out_height, int subsample,
                                float* depth, float* score, float start, float step, int num_planes,
                                int num_levels);

// ---- Device printf ring ---------------------------------------------------
//
// Kernels print with cuPrintf (include/cuPrintf/cuPrintf.h) into the ring
// of the active backend; the host shows the records afterwards.

// Arms a ring of `bytes` rounded up to whole 256-byte slots (at least one).
// Returns 0, or 3 when the ring could not be allocated.
int cuPrintfInit(size_t bytes);
// Prints the records written since the last display on `stream` (standard
// output when null), each behind "[block, thread]: " when showThreadIds is
// true, and clears the ring. Returns 1 when no ring is armed, else 0.
int cuPrintfDisplay(FILE* stream, bool showThreadIds);
// Frees the ring; a kernel that prints afterwards takes no slot.
void cuPrintfEnd();
// Copies the first `bytes` of the armed ring (at most its length) to the
// host, for inspection. Returns 1 when no ring is armed, else 0.
int cuPrintfCopyRing(void* destination, size_t bytes);

// Debugging: launches the printing kernel on n threads (block 512) over a
// gradient array of num_values floats (at least 70,704: three per vertex,
// up to vertex 23567). Every thread prints "Call <callIndex> GRAD_PHOTO"
// and the vertex's three values into the armed ring; nothing is shown.
void CHECK_FUNC_CUDA(const float* values, int num_values, int n, int callIndex);
