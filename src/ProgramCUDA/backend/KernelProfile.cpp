// Collection and report of the optional per-kernel timing.
#include "backend/KernelProfile.h"

#include <cstdio>
#include <mutex>

namespace tessaline {

namespace {

std::mutex g_mutex;
std::vector<std::pair<std::string, KernelStats>> g_stats;
void (*g_pendingCollector)() = nullptr;

}  // namespace

void setPendingKernelCollector(void (*collector)()) { g_pendingCollector = collector; }

void recordKernelLaunch(const std::string& kernel, double elements, double floorBytes, double seconds) {
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_stats.begin();
    while (it != g_stats.end() && it->first != kernel) ++it;
    if (it == g_stats.end()) it = g_stats.insert(it, {kernel, KernelStats()});
    it->second.launches += 1;
    it->second.elements += elements;
    it->second.floorBytes += floorBytes;
    it->second.seconds += seconds;
}

std::vector<std::pair<std::string, KernelStats>> kernelProfileSnapshot() {
    if (g_pendingCollector) g_pendingCollector();
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_stats;
}

void clearKernelProfile() {
    if (g_pendingCollector) g_pendingCollector();
    std::lock_guard<std::mutex> lock(g_mutex);
    g_stats.clear();
}

void printKernelProfile(double callSeconds, double iterationSeconds, long long iterations, double bandwidthGBs) {
    const auto stats = kernelProfileSnapshot();
    const double n = iterations > 0 ? double(iterations) : 1.0;
    std::printf("Profile: call %.3f s, iterations %.3f s, %lld iterations, %.3f ms per iteration\n", callSeconds,
                iterationSeconds, iterations, 1e3 * iterationSeconds / n);
    std::printf("Profile: %-58s %10s %10s %10s %10s %8s\n", "kernel (per iteration)", "launches", "ms",
                "floor MB", "floor ms", "GB/s");
    KernelStats all;
    for (const auto& [name, s] : stats) {
        const double floorMs = bandwidthGBs > 0 ? 1e3 * s.floorBytes / (bandwidthGBs * 1e9) : 0.0;
        std::printf("Profile: %-58s %10.1f %10.3f %10.2f %10.3f %8.1f\n", name.c_str(), s.launches / n,
                    1e3 * s.seconds / n, s.floorBytes / n / 1e6, floorMs / n,
                    s.seconds > 0 ? s.floorBytes / s.seconds / 1e9 : 0.0);
        all.launches += s.launches;
        all.floorBytes += s.floorBytes;
        all.seconds += s.seconds;
    }
    const double floorMs = bandwidthGBs > 0 ? 1e3 * all.floorBytes / (bandwidthGBs * 1e9) : 0.0;
    std::printf("Profile: %-58s %10.1f %10.3f %10.2f %10.3f %8.1f\n", "all kernels", all.launches / n,
                1e3 * all.seconds / n, all.floorBytes / n / 1e6, floorMs / n,
                all.seconds > 0 ? all.floorBytes / all.seconds / 1e9 : 0.0);
    std::printf("Profile: copy bandwidth %.1f GB/s (bytes read + written)\n", bandwidthGBs);
    std::fflush(stdout);
}

}  // namespace tessaline
