#include "MemoryEstimate.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace tessaline::memory {

namespace {

constexpr uint64_t kBytesPerCameraPixel = 21;
constexpr uint64_t kBytesPerPairPixel = 49 + 8;
constexpr uint64_t kKernelBytesPerVertex = 65 + 24;  // with about 6 one-ring entries of 4 bytes
constexpr uint64_t kKernelBytesPerFacet = 24;
// What a run adds to the process besides its tables: the worker threads'
// stacks and the allocator's arenas (measured on the small benchmark scene).
constexpr uint64_t kRunOverheadBytes = 10u << 20;
constexpr uint64_t kSelectionBytesPerPixel = 16;  // each camera's depth, facet and two weights, on the host
constexpr uint64_t kRenderBytesPerPixel = 24 + 8;  // one camera's render and its keys
constexpr double kBorder = 10.0;  // a render keeps facets at least this far inside the image

// Each vertex in camera c's pixels (u, v), or NaN when it is behind it.
std::vector<double> projectVertices(const TriMesh& mesh, const mycamera& camera) {
    std::vector<double> uv(size_t(mesh.num_v) * 2, std::nan(""));
    for (size_t i = 0; i < size_t(mesh.num_v); ++i) {
        const double X[3] = {mesh.vertices[3 * i], mesh.vertices[3 * i + 1], mesh.vertices[3 * i + 2]};
        double u, v;
        if (projectPoint(camera, X, u, v)) uv[2 * i] = u, uv[2 * i + 1] = v;
    }
    return uv;
}

// The front-facing footprint of facet k in pixels, 0 when it faces away or
// is not wholly inside the image.
double footprint(const TriMesh& mesh, const std::vector<double>& uv, size_t k, const ImageSize& size) {
    double x[3], y[3];
    for (int c = 0; c < 3; ++c) {
        const size_t i = size_t(mesh.facets[3 * k + size_t(c)]);
        x[c] = uv[2 * i], y[c] = uv[2 * i + 1];
        if (!(x[c] >= kBorder && y[c] >= kBorder && x[c] <= size.width - kBorder && y[c] <= size.height - kBorder))
            return 0.0;
    }
    const double det = (y[1] - y[0]) * (x[2] - x[0]) - (x[1] - x[0]) * (y[2] - y[0]);
    return det > 0.0 ? 0.5 * det : 0.0;
}

// Per facet, the footprint that the selection's image count reaches: the
// min_images-th largest over the cameras.
std::vector<double> decidingFootprints(const TriMesh& mesh, const std::vector<mycamera>& cameras,
                                       const std::vector<ImageSize>& photos, int minImages) {
    const size_t keep = size_t(std::max(1, minImages));
    std::vector<double> largest(size_t(mesh.num_f) * keep, 0.0);
    for (size_t c = 0; c < cameras.size() && c < photos.size(); ++c) {
        const std::vector<double> uv = projectVertices(mesh, cameras[c]);
        for (size_t k = 0; k < size_t(mesh.num_f); ++k) {
            double a = footprint(mesh, uv, k, photos[c]);
            double* best = &largest[k * keep];  // descending
            for (size_t j = 0; j < keep; ++j)
                if (a > best[j]) std::swap(a, best[j]);
        }
    }
    std::vector<double> deciding(size_t(mesh.num_f));
    for (size_t k = 0; k < deciding.size(); ++k) deciding[k] = largest[k * keep + keep - 1];
    return deciding;
}

long long levelPixels(const std::vector<ImageSize>& photos, double scale, long long* largest) {
    long long total = 0;
    *largest = 0;
    for (const ImageSize& p : photos) {
        const long long px = std::llround(p.width * scale) * std::llround(p.height * scale);
        total += px;
        *largest = std::max(*largest, px);
    }
    return total;
}

long long totalPixels(const std::vector<ImageSize>& photos) {
    long long largest;
    return levelPixels(photos, 1.0, &largest);
}

// Host memory that every stage of a level holds: the process, the
// photographs, the level's images and the mesh record (at its largest).
uint64_t hostBase(const RunShape& shape, int level, uint64_t levelPixels) {
    uint64_t photographs = uint64_t(totalPixels(shape.photos));
    const uint64_t onDisk = uint64_t(totalPixels(shape.photosOnDisk));
    if (level == 2 && onDisk != photographs) photographs += onDisk;  // both, while they are scaled
    const LevelCounts& last = shape.mesh[0];
    return shape.processBytes + kRunOverheadBytes + photographs + levelPixels + kHostBytesPerVertex * uint64_t(last.vertices) +
           kHostBytesPerFacet * uint64_t(last.facets);
}

// A stage's host and kernel bytes as they add up on the backend.
LevelNeed onBackend(const RunShape& shape, int level, uint64_t host, uint64_t kernels) {
    LevelNeed need;
    need.level = level;
    need.facets = shape.mesh[size_t(level)].facets;
    need.hostBytes = host + (shape.kernelsOnHost ? kernels : 0);
    need.deviceBytes = shape.kernelsOnHost ? 0 : kernels;
    return need;
}

// The larger of the level's facet selection (every camera's maps on the
// host, one camera's render in the kernels) and, at a refined level, its
// optimisation (the image stack on the host, everything else in the
// kernels).
LevelNeed levelNeed(const RunShape& shape, int level) {
    long long largest = 0;
    const uint64_t pixels = uint64_t(levelPixels(shape.photos, std::ldexp(1.0, -level), &largest));
    const uint64_t base = hostBase(shape, level, pixels);
    LevelNeed need = onBackend(shape, level, base + kSelectionBytesPerPixel * pixels,
                               kRenderBytesPerPixel * uint64_t(largest));
    if (level < shape.finestLevel) return need;
    const LevelCounts& refined = shape.mesh[size_t(level)];
    const uint64_t kernels = kBytesPerCameraPixel * pixels +
                             kBytesPerPairPixel * uint64_t(largest) * uint64_t(std::max(1, shape.pairsAtOnce)) +
                             kKernelBytesPerVertex * uint64_t(refined.vertices) +
                             kKernelBytesPerFacet * uint64_t(refined.facets);
    const LevelNeed refinement = onBackend(shape, level, base + pixels, kernels);
    need.hostBytes = std::max(need.hostBytes, refinement.hostBytes);
    need.deviceBytes = std::max(need.deviceBytes, refinement.deviceBytes);
    return need;
}

uint64_t meminfoField(const char* file, const std::string& key, uint64_t unit) {
    std::ifstream in(file);
    std::string name;
    uint64_t value = 0;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        if (fields >> name >> value && name == key) return value * unit;
    }
    return 0;
}

}  // namespace

std::vector<LevelCounts> estimateMeshGrowth(const TriMesh& mesh, const std::vector<mycamera>& cameras,
                                            const std::vector<ImageSize>& photos, const RefinementSettings& settings,
                                            int finestLevel) {
    const std::vector<double> deciding = decidingFootprints(mesh, cameras, photos, settings.selection.min_images);
    std::vector<int> divisions(deciding.size(), 0);
    std::vector<LevelCounts> counts(3);
    const int lastDivided = std::max(0, finestLevel - 1);
    for (int level = 2; level >= 0; --level) {
        LevelCounts& c = counts[size_t(level)];
        if (level < lastDivided) {
            c = counts[size_t(level) + 1];
            continue;
        }
        const double scale2 = std::ldexp(1.0, -2 * level);
        for (size_t k = 0; k < deciding.size(); ++k) {
            for (int pass = 0; pass < settings.levels[level].division_passes; ++pass) {
                if (deciding[k] * scale2 < settings.selection.min_pixels * std::ldexp(1.0, 2 * divisions[k])) break;
                ++divisions[k];
            }
            c.facets += 1LL << (2 * std::min(divisions[k], 30));
        }
        // A closed surface gains one vertex for every two facets.
        c.vertices = mesh.num_v + (c.facets - mesh.num_f) / 2;
    }
    return counts;
}

MemoryNeed estimateMemory(const RunShape& shape) {
    MemoryNeed need;
    for (int level = 2; level >= std::max(0, shape.finestLevel - 1); --level) {
        const LevelNeed l = levelNeed(shape, level);
        need.levels.push_back(l);
        need.peakHostBytes = std::max(need.peakHostBytes, l.hostBytes);
        need.peakDeviceBytes = std::max(need.peakDeviceBytes, l.deviceBytes);
    }
    return need;
}

uint64_t availableHostMemory() { return meminfoField("/proc/meminfo", "MemAvailable:", 1024); }

uint64_t residentMemory() { return meminfoField("/proc/self/status", "VmRSS:", 1024); }

int largestFittingImageSide(const RunShape& shape, uint64_t available, bool deviceBudget) {
    int longest = 0;
    for (const ImageSize& p : shape.photos) longest = std::max({longest, p.width, p.height});
    int lo = 0, hi = longest;  // lo fits (or is 0), hi + 1 does not
    while (lo < hi) {
        const int side = lo + (hi - lo + 1) / 2;
        RunShape scaled = shape;
        const double s = double(side) / longest;
        for (ImageSize& p : scaled.photos)
            p = ImageSize{std::max(1, int(std::lround(p.width * s))), std::max(1, int(std::lround(p.height * s)))};
        const MemoryNeed need = estimateMemory(scaled);
        if ((deviceBudget ? need.peakDeviceBytes : need.peakHostBytes) <= available)
            lo = side;
        else
            hi = side - 1;
    }
    return lo;
}

}  // namespace tessaline::memory
