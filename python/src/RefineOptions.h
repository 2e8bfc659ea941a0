// The arguments of a refinement as Python gives them, checked and turned
// into the library's values; refine and estimate_memory take the same ones.
#pragma once

#include <string>

#include "RefinementSettings.h"
#include "SfmScene.h"
#include "TriMesh.h"

// The settings of a preset by name; ValueError naming the presets otherwise.
RefinementSettings presetSettings(const std::string& preset);

// A device named by "auto", "cpu", "cuda" or "cuda:N".
struct DeviceRequest {
    enum Kind { Auto, Cpu, Cuda } kind = Auto;
    int index = 0;
};

// ValueError for any other name.
DeviceRequest parseDevice(const std::string& name);

// DeviceError when the CUDA device of a "cuda" or "cuda:N" request is not
// there.
void checkCudaDevice(const DeviceRequest& request);

// ValueError, with the command line's message where it has one, for a
// finest level other than 0, 1 or 2, a scene without cameras or with
// photographs of different sizes, and a mesh without facets.
void checkInputs(const SfmScene& scene, const TriMesh& mesh, int finestLevel);
