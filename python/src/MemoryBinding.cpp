// tessaline._core.estimate_memory: the front end's memory estimate for a
// refinement of a scene and mesh held in memory, with the run's shape built
// by the same function as `tessaline refine` builds it.
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include "LibraryCall.h"
#include "ProgramCUDA.h"
#include "RefineOptions.h"
#include "RunShape.h"

namespace nb = nanobind;

namespace {

using LevelFigures = std::tuple<int, long long, uint64_t, uint64_t>;  // level, facets, host and device bytes
using Estimate = std::tuple<std::vector<LevelFigures>, uint64_t, uint64_t>;

// The backend a refine call with `device` would run on: true for the CPU.
bool runsOnCpu(const std::string& device) {
    const DeviceRequest request = parseDevice(device);
    if (request.kind == DeviceRequest::Cpu) return true;
    if (request.kind == DeviceRequest::Auto) return !cudaDeviceAvailable();
    checkCudaDevice(request);
    return false;
}

// The photographs' sizes as the scene holds them: a scene in memory has
// nothing larger on disk.
std::vector<tessaline::memory::ImageSize> photographSizes(const SfmScene& scene) {
    std::vector<tessaline::memory::ImageSize> sizes;
    for (const cv::Mat& image : scene.images) sizes.push_back({image.cols, image.rows});
    return sizes;
}

Estimate estimateMemory(const SfmScene& scene, const TriMesh& mesh, int finestLevel, const std::string& preset,
                        const std::string& device, int threads) {
    checkInputs(scene, mesh, finestLevel);
    tessaline::memory::RunOptions options;
    options.settings = presetSettings(preset);
    options.finestLevel = finestLevel;
    options.kernelsOnHost = runsOnCpu(device);
    options.pairsAtOnce = options.kernelsOnHost ? tessaline::memory::pairsOnCpu(threads, scene.cameras.size()) : 1;
    tessaline::memory::MemoryNeed need;
    runCaptured([&](OutputCapture&) {
        need = tessaline::memory::estimateMemory(
            tessaline::memory::shapeOfRun(scene.cameras, photographSizes(scene), mesh, options));
    });
    Estimate estimate{{}, need.peakHostBytes, need.peakDeviceBytes};
    for (const tessaline::memory::LevelNeed& l : need.levels)
        std::get<0>(estimate).emplace_back(l.level, l.facets, l.hostBytes, l.deviceBytes);
    return estimate;
}

}  // namespace

void bindMemory(nb::module_& m) {
    m.def("estimate_memory", &estimateMemory, nb::arg("scene"), nb::arg("mesh"), nb::arg("finest_level"),
          nb::arg("preset"), nb::arg("device"), nb::arg("threads"),
          "Per level (level, facets, host bytes, device bytes), coarsest first, then the peak host and device bytes.");
}
