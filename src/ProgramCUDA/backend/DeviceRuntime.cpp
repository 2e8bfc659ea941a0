// Start-up, device handles and memory figures.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "ProgramCUDA.h"
#include "backend/CpuThreads.h"

namespace tessaline::cudart {
// Implemented in backend/CudaRuntime.cu when the build has CUDA.
bool deviceCount(int& count);
bool setupDevice(int deviceIndex, int& used, std::string& description, double& freeMB, double& totalMB);
void memoryInfo(int device, double& freeMB, double& totalMB);
}  // namespace tessaline::cudart

namespace {

// Host memory stands in for device memory on the CPU backend.
void hostMemoryInfo(double& freeMB, double& totalMB) {
    const double pages = double(sysconf(_SC_PHYS_PAGES));
    const double pageSize = double(sysconf(_SC_PAGESIZE));
    totalMB = pages * pageSize / (1024.0 * 1024.0);
    freeMB = totalMB;
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    double kb = 0.0;
    std::string unit;
    while (meminfo >> key >> kb >> unit) {
        if (key == "MemAvailable:") {
            freeMB = kb / 1024.0;
            break;
        }
    }
}

}  // namespace

const char* deviceBackendName(DeviceBackend backend) { return backend == DeviceBackend::Cuda ? "CUDA" : "CPU"; }

DeviceHandle cpuDevice(const RunContext& context) { return DeviceHandle{DeviceBackend::Cpu, 0, context}; }

DeviceHandle cudaDevice(const RunContext& context) { return DeviceHandle{DeviceBackend::Cuda, 0, context}; }

int cudaDeviceCount() {
#ifdef TESSALINE_CUDA_ENABLED
    int count = 0;
    return tessaline::cudart::deviceCount(count) ? count : 0;
#else
    return 0;
#endif
}

bool cudaDeviceAvailable() {
#ifdef TESSALINE_CUDA_ENABLED
    int count = 0;
    return tessaline::cudart::deviceCount(count) && count > 0;
#else
    return false;
#endif
}

DeviceSetup setupDevice(int deviceIndex, const RunContext& context) {
    DeviceSetup setup;
#ifdef TESSALINE_CUDA_ENABLED
    int used = 0;
    if (!context.cpuOnly && cudaDeviceAvailable() &&
        tessaline::cudart::setupDevice(deviceIndex, used, setup.description, setup.freeMB, setup.totalMB)) {
        setup.device = DeviceHandle{DeviceBackend::Cuda, used, context};
        return setup;
    }
    // The CPU is asked for by TESSALINE_BACKEND=cpu (or a program's own
    // option that sets the same field).
    const char* why = context.cpuOnly ? "TESSALINE_BACKEND=cpu" : "no CUDA device found";
#else
    (void)deviceIndex;
    const char* why = "built without CUDA";
#endif
    setup.device = cpuDevice(context);
    std::ostringstream line;
    const int threads = tessaline::cpuThreadCount(context);
    line << "Device backend: CPU, " << threads << (threads == 1 ? " thread (" : " threads (") << why
         << "; device memory below is host memory)";
    setup.description = line.str();
    hostMemoryInfo(setup.freeMB, setup.totalMB);
    return setup;
}

void deviceMemoryInfo(const DeviceHandle& device, double& freeMB, double& totalMB) {
#ifdef TESSALINE_CUDA_ENABLED
    if (device.backend == DeviceBackend::Cuda) {
        tessaline::cudart::memoryInfo(device.cudaDevice, freeMB, totalMB);
        return;
    }
#else
    (void)device;
#endif
    hostMemoryInfo(freeMB, totalMB);
}
