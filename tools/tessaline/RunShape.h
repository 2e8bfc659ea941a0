// The shape of a refinement run as the memory estimate sees it, built from
// the cameras, the photographs' sizes, the mesh and the run's options. The
// front end's memory check and the Python package build it here alike.
#pragma once

#include <cstddef>
#include <vector>

#include "ImageHeader.h"
#include "MemoryEstimate.h"
#include "RefinementSettings.h"
#include "TriMesh.h"
#include "mycamera.h"

namespace tessaline::memory {

// The scale that brings the longest side of every photograph to at most
// `maxSide` (1 when they are small enough, or maxSide is 0).
double scaleForLongestSide(const std::vector<ImageSize>& sizes, int maxSide);

// Each size times `scale`, rounded, at least 1.
std::vector<ImageSize> scaledSizes(const std::vector<ImageSize>& sizes, double scale);

// Scales a camera for an image resized by sx across and sy down, rebuilding
// K, K_inv and P: with pixel centres at whole coordinates,
// x' = (x + 1/2) s - 1/2, so fx, fy scale by the images' own ratios and
// cx, cy move accordingly.
void scaleCamera(mycamera& camera, double sx, double sy);

// Camera pairs worked on at once by the CPU backend with `threads` threads
// (0: every core), at most one per camera.
int pairsOnCpu(int threads, size_t cameras);

struct RunOptions {
    RefinementSettings settings;
    int finestLevel = 0;
    int maxImageSide = 0;       // 0: the photographs' own size
    int pairsAtOnce = 1;        // pairsOnCpu on the CPU backend, 1 on a GPU
    bool kernelsOnHost = true;  // the CPU backend
};

// The run over `cameras` whose photographs have `photosOnDisk` sizes, the
// process's resident memory counted as what it holds already.
RunShape shapeOfRun(const std::vector<mycamera>& cameras, const std::vector<ImageSize>& photosOnDisk,
                    const TriMesh& mesh, const RunOptions& options);

}  // namespace tessaline::memory
