#include "RefineOptions.h"

#include <nanobind/nanobind.h>

#include "LibraryCall.h"
#include "ProgramCUDA.h"
#include "RefinementPresets.h"

namespace nb = nanobind;

RefinementSettings presetSettings(const std::string& preset) {
    RefinementSettings settings;
    if (refinementPreset(preset, settings)) return settings;
    std::string names;
    for (const std::string& name : refinementPresetNames()) names += (names.empty() ? "" : ", ") + name;
    throw nb::value_error(("there is no preset '" + preset + "'; the presets are " + names).c_str());
}

DeviceRequest parseDevice(const std::string& name) {
    if (name == "auto") return {DeviceRequest::Auto, 0};
    if (name == "cpu") return {DeviceRequest::Cpu, 0};
    if (name == "cuda") return {DeviceRequest::Cuda, 0};
    const std::string digits = name.rfind("cuda:", 0) == 0 ? name.substr(5) : "";
    if (digits.empty() || digits.size() > 4 || digits.find_first_not_of("0123456789") != std::string::npos)
        throw nb::value_error(("unknown device '" + name + "'; use auto, cpu, cuda or cuda:N").c_str());
    return {DeviceRequest::Cuda, std::stoi(digits)};
}

void checkCudaDevice(const DeviceRequest& request) {
    if (!cudaDeviceAvailable()) throw DeviceFailure("no CUDA device: this build has no CUDA backend or none answers");
    if (request.index >= cudaDeviceCount()) throw DeviceFailure("there is no CUDA device " + std::to_string(request.index));
}

void checkInputs(const SfmScene& scene, const TriMesh& mesh, int finestLevel) {
    if (finestLevel < 0 || finestLevel > 2) throw nb::value_error("Level of Details should be 0, 1 or 2.");
    if (scene.images.empty()) throw nb::value_error("the scene has no camera");
    for (const cv::Mat& image : scene.images)
        if (image.size() != scene.images[0].size())
            throw nb::value_error("current version does not support image with different size");
    if (mesh.num_v == 0 || mesh.num_f == 0) throw nb::value_error("the mesh has no facet");
}
