// Backend selection and dispatch of the public wrappers to the active backend.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "ProgramCUDA.h"
#include "cpu/CpuThreads.h"

namespace tessaline::cudart {
// Implemented in cuda/DeviceRuntimeCuda.cu when the build has CUDA.
bool deviceCount(int& count);
bool setupDevice(int deviceIndex, std::string& description, double& freeMB, double& totalMB);
void memoryInfo(double& freeMB, double& totalMB);
}  // namespace tessaline::cudart

namespace {

std::atomic<DeviceBackend> g_backend{DeviceBackend::Cpu};

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

bool cudaDeviceAvailable() {
#ifdef TESSALINE_CUDA_ENABLED
    int count = 0;
    return tessaline::cudart::deviceCount(count) && count > 0;
#else
    return false;
#endif
}

// TESSALINE_BACKEND=cpu keeps the kernels on the CPU even where a device
// exists: for comparing the backends on one machine, or leaving a busy GPU
// alone.
[[maybe_unused]] static bool cpuBackendRequested() {
    const char* v = std::getenv("TESSALINE_BACKEND");
    return v && std::strcmp(v, "cpu") == 0;
}

DeviceSetup setupDevice(int deviceIndex) {
    DeviceSetup setup;
#ifdef TESSALINE_CUDA_ENABLED
    if (!cpuBackendRequested() && cudaDeviceAvailable() &&
        tessaline::cudart::setupDevice(deviceIndex, setup.description, setup.freeMB, setup.totalMB)) {
        setup.backend = DeviceBackend::Cuda;
        g_backend = DeviceBackend::Cuda;
        return setup;
    }
    const char* why = cpuBackendRequested() ? "TESSALINE_BACKEND=cpu" : "no CUDA device found";
#else
    const char* why = "built without CUDA";
#endif
    g_backend = DeviceBackend::Cpu;
    setup.backend = DeviceBackend::Cpu;
    std::ostringstream line;
    const int threads = tessaline::cpuThreadCount();
    line << "Device backend: CPU, " << threads << (threads == 1 ? " thread (" : " threads (") << why
         << "; device memory below is host memory)";
    setup.description = line.str();
    hostMemoryInfo(setup.freeMB, setup.totalMB);
    return setup;
}

void deviceMemoryInfo(double& freeMB, double& totalMB) {
#ifdef TESSALINE_CUDA_ENABLED
    if (g_backend == DeviceBackend::Cuda) {
        tessaline::cudart::memoryInfo(freeMB, totalMB);
        return;
    }
#endif
    hostMemoryInfo(freeMB, totalMB);
}

DeviceBackend activeDeviceBackend() { return g_backend; }

bool setActiveDeviceBackend(DeviceBackend backend) {
    if (backend == DeviceBackend::Cuda && !cudaDeviceAvailable()) return false;
    g_backend = backend;
    return true;
}

// Dispatch: declare each backend's instance of a wrapper, then define the
// public function to call the active one.
#define TESSALINE_UNPAREN(...) __VA_ARGS__
#ifdef TESSALINE_CUDA_ENABLED
#define DEVICE_ENTRY(name, impl, params, args)                                   \
    namespace tessaline::cpu { void name params; }                               \
    namespace tessaline::cuda { void name params; }                              \
    void name params {                                                           \
        if (g_backend == DeviceBackend::Cuda)                                    \
            tessaline::cuda::name(TESSALINE_UNPAREN args);                       \
        else                                                                     \
            tessaline::cpu::name(TESSALINE_UNPAREN args);                        \
    }
#else
#define DEVICE_ENTRY(name, impl, params, args)                                   \
    namespace tessaline::cpu { void name params; }                               \
    void name params { tessaline::cpu::name(TESSALINE_UNPAREN args); }
#endif
#include "wrappers/EntryPoints.inl"
