// CUDA side of start-up: device count, selection, reset and memory figures.
#include <cuda_runtime.h>

#include <sstream>
#include <string>

namespace tessaline::cudart {

bool deviceCount(int& count) {
    count = 0;
    return cudaGetDeviceCount(&count) == cudaSuccess;
}

void memoryInfo(int device, double& freeMB, double& totalMB) {
    size_t freeBytes = 0, totalBytes = 0;
    int current = -1;
    if (cudaGetDevice(&current) != cudaSuccess || current != device) cudaSetDevice(device);
    cudaMemGetInfo(&freeBytes, &totalBytes);
    freeMB = double(freeBytes) / (1024.0 * 1024.0);
    totalMB = double(totalBytes) / (1024.0 * 1024.0);
}

// Selects deviceIndex (device 0 when that index does not exist), resets it
// and reads its memory. Returns false when no device can be used.
bool setupDevice(int deviceIndex, int& used, std::string& description, double& freeMB, double& totalMB) {
    int count = 0;
    if (cudaGetDeviceCount(&count) != cudaSuccess || count <= 0) return false;
    std::ostringstream line;
    used = deviceIndex;
    if (deviceIndex < 0 || deviceIndex >= count) {
        line << "Warning: CUDA device " << deviceIndex << " does not exist; using device 0\n";
        used = 0;
    }
    if (cudaSetDevice(used) != cudaSuccess) return false;
    if (cudaDeviceReset() != cudaSuccess) return false;
    cudaDeviceProp prop;
    if (cudaGetDeviceProperties(&prop, used) != cudaSuccess) return false;
    memoryInfo(used, freeMB, totalMB);
    line << "Device backend: CUDA device " << used << " (" << prop.name << ", compute capability " << prop.major
         << "." << prop.minor << ")";
    description = line.str();
    return true;
}

}  // namespace tessaline::cudart
