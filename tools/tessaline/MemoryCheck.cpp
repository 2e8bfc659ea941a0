#include "MemoryCheck.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>

#include "Job.h"
#include "SceneInput.h"
#include "cameraShare.h"

namespace tessaline::frontend {

namespace {

using memory::ImageSize;
using memory::RunShape;

constexpr double kMiB = 1024.0 * 1024.0;

long long mib(uint64_t bytes) { return std::llround(double(bytes) / kMiB); }

RunShape shapeOfRequest(const RefineRequest& request, const SfmScene& scene, const std::vector<ImageSize>& sizes,
                        const TriMesh& mesh, const DeviceSetup& setup) {
    memory::RunOptions options;
    options.settings = request.settings;
    options.finestLevel = request.finestLevel;
    options.maxImageSide = request.maxImageSide;
    options.kernelsOnHost = setup.device.backend == DeviceBackend::Cpu;
    const int threads = request.threads > 0 ? request.threads : setup.device.context.threads;
    options.pairsAtOnce = options.kernelsOnHost ? memory::pairsOnCpu(threads, scene.cameras.size()) : 1;
    return memory::shapeOfRun(scene.cameras, sizes, mesh, options);
}

// A process of a shared run holds only some photographs (its references and
// their pairs' targets); the others weigh nothing there.
void keepHeldPhotographs(RunShape& shape, const SfmScene& scene, const RefinementSettings& settings) {
    const ProcessGroup& group = jobProcesses().group;
    if (!group.distributed()) return;
    const CameraShare share = shareCameras(scene.neighbourLists, settings.pairs_per_camera, group.size, group.rank);
    for (size_t c = 0; c < shape.photos.size(); ++c)
        if (!share.held(int(c))) shape.photos[c] = shape.photosOnDisk[c] = ImageSize{1, 1};
}

void printEstimate(const MemoryVerdict& v, bool kernelsOnHost, std::ostream& out) {
    out << "Memory estimate (MiB):";
    for (const memory::LevelNeed& l : v.need.levels) {
        out << " level " << l.level << " " << mib(l.hostBytes);
        if (!kernelsOnHost) out << " host + " << mib(l.deviceBytes) << " device";
        out << " (" << l.facets << " facets)";
        out << (&l == &v.need.levels.back() ? "" : ",");
    }
    out << std::endl;
    out << "Memory needed: " << mib(v.need.peakHostBytes) << " MiB of " << mib(v.hostAvailable)
        << " MiB host memory available";
    if (!kernelsOnHost)
        out << ", " << mib(v.need.peakDeviceBytes) << " MiB of " << mib(v.deviceAvailable)
            << " MiB device memory";
    out << std::endl;
}

// The coarsest finest level (1 or 2) that fits, 0 when none does.
int fittingFinestLevel(RunShape shape, uint64_t available, bool device) {
    for (int level = shape.finestLevel + 1; level <= 2; ++level) {
        shape.finestLevel = level;
        const memory::MemoryNeed need = memory::estimateMemory(shape);
        if ((device ? need.peakDeviceBytes : need.peakHostBytes) <= available) return level;
    }
    return 0;
}

// Processes that would share the run so that each fits: the photographs'
// share divides among them, the rest does not.
int fittingProcesses(const RunShape& shape, uint64_t available, bool device) {
    RunShape bare = shape;
    for (ImageSize& p : bare.photos) p = ImageSize{1, 1};
    bare.photosOnDisk = bare.photos;
    const memory::MemoryNeed whole = memory::estimateMemory(shape), fixed = memory::estimateMemory(bare);
    const uint64_t need = device ? whole.peakDeviceBytes : whole.peakHostBytes;
    const uint64_t rest = device ? fixed.peakDeviceBytes : fixed.peakHostBytes;
    if (rest >= available) return 0;
    const uint64_t k = (need - rest + (available - rest) - 1) / (available - rest);
    return k <= shape.photos.size() ? int(std::max<uint64_t>(k, 2)) : 0;
}

std::string remedies(const RunShape& shape, uint64_t available, bool device) {
    std::vector<std::string> ways;
    if (const int side = memory::largestFittingImageSide(shape, available, device); side >= 16)
        ways.push_back("--max-image-size " + std::to_string(side));
    if (const int level = fittingFinestLevel(shape, available, device); level > 0)
        ways.push_back("--finest-level " + std::to_string(level));
    if (const int k = fittingProcesses(shape, available, device); k > 0)
        ways.push_back("sharing the run among " + std::to_string(k) + " processes (mpirun -n " + std::to_string(k) +
                       " tessaline refine ...)");
    if (ways.empty()) return "not even the program and the mesh fit in that";
    std::string text = "it would fit with ";
    for (size_t i = 0; i < ways.size(); ++i)
        text += (i == 0 ? "" : i + 1 == ways.size() ? ", or " : ", ") + ways[i];
    return text;
}

}  // namespace

bool checkMemory(const RefineRequest& request, const std::string& scenePath, const TriMesh& mesh,
                 const DeviceSetup& setup, std::ostream& out, MemoryVerdict& verdict, std::string& error) {
    SfmScene scene;
    std::vector<ImageSize> sizes;
    if (!loadSceneShape(scene, scenePath, sizes, error)) return false;
    RunShape shape = shapeOfRequest(request, scene, sizes, mesh, setup);
    keepHeldPhotographs(shape, scene, request.settings);
    verdict.need = memory::estimateMemory(shape);
    verdict.hostAvailable = memory::availableHostMemory() + shape.processBytes;
    verdict.deviceAvailable = uint64_t(setup.freeMB * kMiB);
    if (request.memoryLimitMiB > 0.0) verdict.hostAvailable = verdict.deviceAvailable = uint64_t(request.memoryLimitMiB * kMiB);
    const bool hostFits = verdict.need.peakHostBytes <= verdict.hostAvailable;
    const bool deviceFits = shape.kernelsOnHost || verdict.need.peakDeviceBytes <= verdict.deviceAvailable;
    verdict.fits = hostFits && deviceFits;
    printEstimate(verdict, shape.kernelsOnHost, out);
    if (verdict.fits) return true;
    const bool device = hostFits;  // the budget that is short
    const uint64_t need = device ? verdict.need.peakDeviceBytes : verdict.need.peakHostBytes;
    const uint64_t have = device ? verdict.deviceAvailable : verdict.hostAvailable;
    std::cout << "Error: the run needs about " << mib(need) << " MiB of " << (device ? "device" : "host")
              << " memory and " << mib(have) << " MiB are available; " << remedies(shape, have, device) << std::endl;
    return true;
}

}  // namespace tessaline::frontend
