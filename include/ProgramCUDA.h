// The root of the device module's public surface: devices, run context,
// start-up and the z-buffer. Plain types only: no CUDA header is seen by the
// code that includes this. The optimisation's entry points are declared in
// ProgramCUDA_optimization.h, the dormant library's in ProgramCUDA_library.h;
// both include this header and nothing includes them back.
//
// Every entry point takes the device that runs it, as a value (start-up
// returns one; tests and tools make their own), and one record of
// arguments, checked as a whole before anything is allocated. Every entry
// point returns a DeviceStatus: Ok, Refused (the arguments were refused,
// nothing was done) or Failed (the device failed; the outputs are not
// complete). Both of the latter have printed one "Error: " line.
#pragma once

#include <cstdint>
#include <string>

#include "RunContext.h"
#include "mycamera.h"

enum class DeviceBackend { Cpu, Cuda };

enum class DeviceStatus {
    Ok,       // done; every output written
    Refused,  // arguments refused; nothing done, outputs untouched
    Failed,   // a platform call failed; outputs may be incomplete
};

// The device that runs a call: the CPU backend, or a CUDA device by index,
// and how the run executes on it.
struct DeviceHandle {
    DeviceBackend backend = DeviceBackend::Cpu;
    int cudaDevice = 0;
    RunContext context;
};

struct DeviceSetup {
    DeviceHandle device;
    std::string description;  // one line: which backend runs the kernels
    double totalMB = 0.0;     // device memory (host memory on the CPU backend)
    double freeMB = 0.0;
};

// Start-up: selects, resets and measures the CUDA device of `deviceIndex`
// (device 0, with a warning in the description, when that index does not
// exist) when the build has CUDA, a device answers and the context does not
// ask for the CPU; otherwise the CPU backend. The handle carries `context`.
DeviceSetup setupDevice(int deviceIndex, const RunContext& context = RunContext());
// The CPU backend, always available.
DeviceHandle cpuDevice(const RunContext& context = RunContext());
// True when the build has CUDA and at least one device answers.
bool cudaDeviceAvailable();
// The number of CUDA devices that answer (0 in a build without CUDA).
int cudaDeviceCount();
// CUDA device 0 (selected for this thread), when cudaDeviceAvailable().
DeviceHandle cudaDevice(const RunContext& context = RunContext());
// Free and total memory of the device, in megabytes.
void deviceMemoryInfo(const DeviceHandle& device, double& freeMB, double& totalMB);
const char* deviceBackendName(DeviceBackend backend);

// Renders a mesh into one camera: per pixel of the LU x LV area at (BU, BV)
// the distance to the nearest surface, the front-facing facet seen there (or
// -1 where the nearest facet faces away) and its barycentric weights b and c
// (-1.0 where it faces away). A pixel that no facet covers keeps what the
// caller put in all four images; depth_image and facet_image should arrive
// cleared (largest finite float, -1). Of facets at equal depth the later one
// in facet order is seen.
struct ZBufferArgs {
    int num_v = 0;
    const float* vertices = nullptr;  // 3 per vertex
    int num_f = 0;
    const int* facets = nullptr;  // 3 per facet
    mycamera_cuda camera{};
    int BU = 0, BV = 0;  // the area's top left corner in image coordinates
    int LU = 0, LV = 0;  // its width and height
    float* depth_image = nullptr;  // LU * LV each, row-major, in and out
    int* facet_image = nullptr;
    float* bary_b_image = nullptr;
    float* bary_c_image = nullptr;
};
DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle& device, const ZBufferArgs& args);
