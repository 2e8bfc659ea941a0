// Device side of the optional kernel timing: a pool of events, event pairs
// recorded around launches on the default stream, and their elapsed times
// handed to the profile when it is read.
#include <cuda_runtime.h>

#include <algorithm>
#include <string>
#include <vector>

#include "backend/KernelProfile.h"

namespace tessaline {

namespace {

struct PendingLaunch {
    std::string kernel;
    double elements;
    double floorBytes;
    cudaEvent_t start;
    cudaEvent_t stop;
};

std::vector<PendingLaunch> g_pending;
std::vector<cudaEvent_t> g_pool;

cudaEvent_t takeEvent() {
    cudaEvent_t e = nullptr;
    if (!g_pool.empty()) {
        e = g_pool.back();
        g_pool.pop_back();
    } else if (cudaEventCreate(&e) != cudaSuccess) {
        e = nullptr;
    }
    return e;
}

// Waits for the pending pairs and records their times.
void collectPending() {
    for (PendingLaunch& p : g_pending) {
        float ms = 0.0f;
        if (cudaEventSynchronize(p.stop) == cudaSuccess && cudaEventElapsedTime(&ms, p.start, p.stop) == cudaSuccess)
            recordKernelLaunch(p.kernel, p.elements, p.floorBytes, 1e-3 * double(ms));
        g_pool.push_back(p.start);
        g_pool.push_back(p.stop);
    }
    g_pending.clear();
}

}  // namespace

cudaEvent_t beginKernelTiming(cudaStream_t stream) {
    setPendingKernelCollector(collectPending);
    cudaEvent_t start = takeEvent();
    if (start) cudaEventRecord(start, stream);
    return start;
}

void endKernelTiming(cudaEvent_t start, cudaStream_t stream, const std::string& kernel, double elements,
                     double floorBytes) {
    cudaEvent_t stop = takeEvent();
    if (!stop) {
        g_pool.push_back(start);
        return;
    }
    cudaEventRecord(stop, stream);
    g_pending.push_back({kernel, elements, floorBytes, start, stop});
    if (g_pending.size() >= 4096) collectPending();
}

// Bytes read plus written per second by device-to-device copies of 256 MiB,
// the best of five, in GB/s; 0 when the buffers cannot be had.
double deviceCopyBandwidthGBs() {
    const size_t bytes = size_t(256) << 20;
    void *a = nullptr, *b = nullptr;
    double best = 0.0;
    cudaEvent_t start = takeEvent(), stop = takeEvent();
    if (start && stop && cudaMalloc(&a, bytes) == cudaSuccess && cudaMalloc(&b, bytes) == cudaSuccess &&
        cudaMemset(a, 1, bytes) == cudaSuccess) {
        for (int round = 0; round < 6; ++round) {
            cudaEventRecord(start);
            cudaMemcpy(round % 2 ? a : b, round % 2 ? b : a, bytes, cudaMemcpyDeviceToDevice);
            cudaEventRecord(stop);
            float ms = 0.0f;
            if (cudaEventSynchronize(stop) == cudaSuccess && cudaEventElapsedTime(&ms, start, stop) == cudaSuccess &&
                round > 0 && ms > 0.0f)
                best = std::max(best, 2.0 * double(bytes) / (1e-3 * double(ms)) / 1e9);
        }
    }
    cudaFree(a);
    cudaFree(b);
    cudaGetLastError();  // a refused allocation must not fail the next launch
    if (start) g_pool.push_back(start);
    if (stop) g_pool.push_back(stop);
    return best;
}

}  // namespace tessaline
