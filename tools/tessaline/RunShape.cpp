#include "RunShape.h"

#include <tbb/info.h>

#include <algorithm>
#include <cmath>

namespace tessaline::memory {

double scaleForLongestSide(const std::vector<ImageSize>& sizes, int maxSide) {
    int longest = 0;
    for (const ImageSize& s : sizes) longest = std::max({longest, s.width, s.height});
    return maxSide > 0 && longest > maxSide ? double(maxSide) / longest : 1.0;
}

std::vector<ImageSize> scaledSizes(const std::vector<ImageSize>& sizes, double scale) {
    std::vector<ImageSize> out;
    for (const ImageSize& s : sizes)
        out.push_back({std::max(1, int(std::lround(s.width * scale))), std::max(1, int(std::lround(s.height * scale)))});
    return out;
}

void scaleCamera(mycamera& camera, double sx, double sy) {
    camera.fx *= sx;
    camera.fy *= sy;
    camera.cx = (camera.cx + 0.5) * sx - 0.5;
    camera.cy = (camera.cy + 0.5) * sy - 0.5;
    updateIntrinsicMatrices(camera);
    updateProjectionMatrix(camera);
}

int pairsOnCpu(int threads, size_t cameras) {
    if (threads <= 0) threads = tbb::info::default_concurrency();
    return int(std::min<size_t>(size_t(std::max(1, threads)), cameras));
}

RunShape shapeOfRun(const std::vector<mycamera>& cameras, const std::vector<ImageSize>& photosOnDisk,
                    const TriMesh& mesh, const RunOptions& options) {
    RunShape shape;
    shape.photosOnDisk = photosOnDisk;
    shape.photos = scaledSizes(photosOnDisk, scaleForLongestSide(photosOnDisk, options.maxImageSide));
    std::vector<mycamera> scaled = cameras;
    for (size_t c = 0; c < scaled.size() && c < photosOnDisk.size(); ++c)
        scaleCamera(scaled[c], double(shape.photos[c].width) / photosOnDisk[c].width,
                    double(shape.photos[c].height) / photosOnDisk[c].height);
    shape.mesh = estimateMeshGrowth(mesh, scaled, shape.photos, options.settings, options.finestLevel);
    shape.finestLevel = options.finestLevel;
    shape.pairsAtOnce = options.pairsAtOnce;
    shape.kernelsOnHost = options.kernelsOnHost;
    shape.processBytes = residentMemory();
    return shape;
}

}  // namespace tessaline::memory
