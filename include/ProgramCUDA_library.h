// Dormant device library: single-step wrappers, plane sweeps, device printf.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "mycamera.h"

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
