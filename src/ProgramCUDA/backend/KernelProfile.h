// Optional per-kernel timing, for benchmarks: when the run context asks for a
// profile, every launch is timed (host clock on the CPU backend, CUDA events
// on the device) and summed by kernel type, together with the number of
// elements it covered and the bytes it must move at least. The sums are kept
// for the whole process; an optimisation call clears them before its
// iterations and prints them after.
//
// A kernel states that floor as `kFloorBytesPerElement`: the bytes every
// element reads or writes whatever the data (outputs written at every element,
// inputs read at every element). Reads that depend on the data (window sums at
// valid pixels, scattered vertex reads, atomics) are left out, so the floor
// over the measured copy bandwidth is a lower bound on the kernel's time. The
// one overstatement: the window kernels read nothing within the half-window
// of the image border (a few per cent of the pixels), and count their reads
// there all the same.
// Kernels that state none count 0.
//
// Without a profile the backends skip all of this: one flag test per launch.
#pragma once

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace tessaline {

struct KernelStats {
    long long launches = 0;
    double elements = 0.0;
    double floorBytes = 0.0;
    double seconds = 0.0;
};

void recordKernelLaunch(const std::string& kernel, double elements, double floorBytes, double seconds);
// Statistics so far, in first-launch order; pending device timings are
// collected first.
std::vector<std::pair<std::string, KernelStats>> kernelProfileSnapshot();
void clearKernelProfile();
// The CUDA backend hands over the timings of its event pairs through this
// hook, called before every snapshot.
void setPendingKernelCollector(void (*collector)());
// Prints the profile of an optimisation call: the whole call, the iterations,
// and per kernel its share of one iteration next to its floor at
// `bandwidthGBs` (bytes read plus written per second / 1e9).
void printKernelProfile(double callSeconds, double iterationSeconds, long long iterations, double bandwidthGBs);

// "Kernel_Compute_Mean_CUDA" for tessaline::Kernel_Compute_Mean_CUDA.
template <class F>
const std::string& kernelTypeName() {
    static const std::string name = [](std::string s) {
        const std::string key = "F = ";
        size_t b = s.find(key);
        b = b == std::string::npos ? 0 : b + key.size();
        size_t e = s.find_first_of(";]", b);
        s = s.substr(b, e == std::string::npos ? std::string::npos : e - b);
        const size_t colon = s.rfind("::");
        return colon == std::string::npos ? s : s.substr(colon + 2);
    }(__PRETTY_FUNCTION__);
    return name;
}

template <class F, class = void>
struct KernelFloorBytes {
    static constexpr double perElement = 0.0;
};
template <class F>
struct KernelFloorBytes<F, std::void_t<decltype(F::kFloorBytesPerElement)>> {
    static constexpr double perElement = double(F::kFloorBytesPerElement);
};

template <class F>
void recordKernelLaunch(double elements, double seconds) {
    recordKernelLaunch(kernelTypeName<F>(), elements, elements * KernelFloorBytes<F>::perElement, seconds);
}

}  // namespace tessaline
