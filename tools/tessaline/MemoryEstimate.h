// What a refinement run will need in memory, worked out before any
// photograph is loaded: from the photographs' sizes (read from their
// headers), the cameras, the initial mesh and the settings.
//
// Per level l (scale s = 2^-l), for P pixels over all images of the level,
// M pixels in the largest one, F facets and V vertices after the level's
// subdivision, the larger of its two stages:
//
//   optimisation, in the kernels' memory (the device; host memory on the
//   CPU backend)
//     21 P                 per camera: float and byte image, depth, facet
//                          and weight renders
//     57 M x pairs at once work images of a camera pair (49) and the
//                          render's keys (8), once per CPU thread or per GPU
//     65 V + 24 F + 24 V   the mesh, its gradients and one-rings
//   and the images' stack on the host (P);
//   facet selection: every camera's depth, facet and weight maps on the
//   host (16 P), one camera's render and keys in the kernels (32 M).
//   Both hold on the host the photographs at full size (1 byte a pixel;
//   before and after the scaling of --max-image-size), the level's images
//   (P), the mesh record (kHostBytesPerVertex and kHostBytesPerFacet), what
//   the process holds already and what a run adds to it (threads' stacks,
//   the allocator's arenas: 10 MiB).
//
// The level loop divides facets at one level finer than the finest level it
// refines (when there is one), so that level's facet selection counts too.
//
// F is estimated by running the facet selection's rule without rendering:
// each facet's front-facing footprint in every camera, projected; a facet is
// divided (into 4) while its second largest footprint, at the level's scale
// and over 4 per division already made, covers the selection's pixel count,
// at most the level's division passes. Occlusion is not looked at, so
// hidden facets are counted as if seen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ImageHeader.h"
#include "RefinementSettings.h"
#include "TriMesh.h"
#include "mycamera.h"

namespace tessaline::memory {

inline constexpr uint64_t kHostBytesPerVertex = 320;  // record, one-ring and facet lists, coordinates
inline constexpr uint64_t kHostBytesPerFacet = 48;    // indices, edges

struct LevelCounts {
    long long facets = 0;
    long long vertices = 0;
};

// Facets and vertices after each level's subdivision (index = level), for
// the cameras at the photographs' size `photos`, as the comment above says.
// Levels finer than `finestLevel` - 1 are not subdivided: their entries
// repeat the last one.
std::vector<LevelCounts> estimateMeshGrowth(const TriMesh& mesh, const std::vector<mycamera>& cameras,
                                            const std::vector<ImageSize>& photos, const RefinementSettings& settings,
                                            int finestLevel);

// What a run is made of, as far as memory goes.
struct RunShape {
    std::vector<ImageSize> photosOnDisk;  // as the files hold them
    std::vector<ImageSize> photos;        // as the run uses them (after --max-image-size)
    std::vector<LevelCounts> mesh;        // by level, from estimateMeshGrowth
    int finestLevel = 0;
    int pairsAtOnce = 1;                  // CPU threads, or 1 on a GPU
    bool kernelsOnHost = true;            // CPU backend: the kernels' memory is host memory
    uint64_t processBytes = 0;            // what the process holds already
};

struct LevelNeed {
    int level = 0;
    long long facets = 0;      // the mesh after the level's subdivision
    uint64_t hostBytes = 0;    // on the CPU backend, including the kernels' memory
    uint64_t deviceBytes = 0;  // zero on the CPU backend
};

struct MemoryNeed {
    std::vector<LevelNeed> levels;  // coarsest first, down to the last level divided
    uint64_t peakHostBytes = 0;
    uint64_t peakDeviceBytes = 0;
};

MemoryNeed estimateMemory(const RunShape& shape);

// The host's available memory (MemAvailable of /proc/meminfo), 0 when it
// cannot be read.
uint64_t availableHostMemory();

// The resident memory of this process now (VmRSS), 0 when unknown.
uint64_t residentMemory();

// The largest photograph side (width or height) for which `need` of `shape`
// would fit within `available` bytes, scaling every photograph alike; 0 when
// none does (the mesh alone is too large).
int largestFittingImageSide(const RunShape& shape, uint64_t available, bool deviceBudget);

}  // namespace tessaline::memory
