// The device module's public surface. Plain types only: no CUDA header is
// seen by the code that includes this. Every wrapper runs on the active
// backend: the CUDA device chosen at start-up, or the CPU backend when the
// build has no CUDA or the machine has no device.
#pragma once

#include <cstdint>
#include <string>

#include "mycamera.h"

enum class DeviceBackend { Cpu, Cuda };

struct DeviceSetup {
    DeviceBackend backend = DeviceBackend::Cpu;
    std::string description;  // one line: which backend runs the kernels
    double totalMB = 0.0;     // device memory (host memory on the CPU backend)
    double freeMB = 0.0;
};

// Start-up: selects, resets and measures the device of `deviceIndex` when the
// build has CUDA and such a device exists; otherwise selects the CPU backend.
DeviceSetup setupDevice(int deviceIndex);
// Free and total memory of the active backend, in megabytes.
void deviceMemoryInfo(double& freeMB, double& totalMB);
DeviceBackend activeDeviceBackend();
// For tests and tools: run the following wrappers on this backend. Returns
// false (and changes nothing) when that backend is not available here.
bool setActiveDeviceBackend(DeviceBackend backend);
// True when the build has CUDA and at least one device answers.
bool cudaDeviceAvailable();
const char* deviceBackendName(DeviceBackend backend);

// Renders the mesh into one camera: per pixel of the LU x LV area at (BU, BV)
// the distance to the nearest surface, the front-facing facet seen there (or
// -1) and its barycentric weights b and c. depth_image and facet_image must
// arrive cleared (largest finite float, -1).
void TriMesh_Image_ZBuffering_CUDA(int num_v, const float* vertices, int num_f, const int* facets,
                                   const mycamera_cuda& camera, int BU, int BV, int LU, int LV,
                                   float* depth_image, int* facet_image, float* bary_b_image,
                                   float* bary_c_image);

#include "ProgramCUDA_optimization.h"
#include "ProgramCUDA_library.h"
