// Device wrappers of the refinement engine: the mesh optimisation and the
// NCC wrappers.
#pragma once

#include "mycamera.h"

// Moves the vertices of a mesh by `iterations` steps of gradient descent on
// the windowed NCC of the camera pairs in pair_mask (entry i*num_cameras + j
// equal to 1: camera j is compared with camera i as reference) and on an
// umbrella smoothness term, first order (step 0.1) or second order (step
// 0.5). `images` holds num_cameras grey images of width x height bytes, one
// after the other; valence_list/counts/offsets are the flattened one-rings.
// `vertices` is overwritten with the result, and left unchanged when the
// arguments are refused or the device fails (an "Error: " line says so).
// Prints memory reports and an overwriting iteration counter.
void Integrated_Mesh_Optimization_CUDA(int num_v, float* vertices, int num_f, const int* facets,
                                       int num_valence_entries, const int* valence_list, const int* valence_counts,
                                       const int* valence_offsets, int num_cameras, int width, int height,
                                       const mycamera_cuda* cameras, const unsigned char* images, int iterations,
                                       const unsigned char* pair_mask, bool first_order_smoothing);

// Windowed NCC (window (2*halfWindow + 1)^2) of imageA against imageB, whose
// -1.0 entries mark pixels without a value: per pixel the correlation `cc`,
// the validity `mask` (1 where the whole window of imageB has values and lies
// in the image) and `grad`, the derivative of minus the summed correlation
// with respect to imageB, weighted by texture. All arrays width x height.
void Compute_NCCGrad_CUDA(int width, int height, const float* imageA, const float* imageB, float* grad, float* cc,
                          unsigned char* mask, int halfWindow);
// The same up to the correlation: `cc` and `mask` only.
void Compute_CC_CUDA(int width, int height, const float* imageA, const float* imageB, float* cc,
                     unsigned char* mask, int halfWindow);
