// What every entry point of the device module shares: the refusal of its
// arguments, the status it returns, and the run of its implementation on
// one backend.
//
// A feature folder holds the implementation `impl(Backend&, const Args&)`
// in a header and two small translation units, one per backend, that
// define the entry point's twins (backend/BackendTwins.h):
//
//     // zbuffer/ZBufferCpu.cpp
//     namespace tessaline::cpu {
//     DeviceStatus TriMesh_Image_ZBuffering_CUDA(const DeviceHandle& device, const ZBufferArgs& args) {
//         return runOnBackend<CpuBackend>(device, args, zbufferEntry<CpuBackend>);
//     }
//     }
//
// backend/EntryPoints.cpp defines the public function, which hands the call
// to the twin of the backend that the device handle names.
#pragma once

#include <climits>
#include <cstdio>

#include "ProgramCUDA.h"
#include "ProgramCUDA_library.h"
#include "ProgramCUDA_optimization.h"

namespace tessaline {

// Collects the first failed check of an entry point's arguments.
struct ArgumentCheck {
    const char* entry;
    const char* problem = nullptr;

    explicit ArgumentCheck(const char* name) : entry(name) {}

    // Records `what` unless an earlier check already failed.
    void require(bool condition, const char* what) {
        if (!condition && !problem) problem = what;
    }
    // A count must not be negative.
    void count(long long n, const char* what) { require(n >= 0, what); }
    // An array must be given whenever it has elements.
    void array(const void* p, long long elements, const char* what) { require(p != nullptr || elements <= 0, what); }

    // Prints the "Error: " line when a check failed; true when all passed.
    bool passed() const {
        if (!problem) return true;
        std::printf("Error: %s: %s; nothing done\n", entry, problem);
        std::fflush(stdout);
        return false;
    }
};

// Kernels index images with int y*width + x: the pixel count must fit.
inline bool imageFitsIntIndex(int width, int height) {
    return (long long)width * (long long)height <= (long long)INT_MAX;
}

// Per-vertex and per-facet arrays of 3 entries are indexed with int 3*id.
inline bool tripleFitsIntIndex(int n) { return (long long)n * 3 <= (long long)INT_MAX; }

// The status of a call that ran: Failed, with one line naming the entry
// point, when the backend met a failure on the way.
template <class Backend>
DeviceStatus finishedStatus(const Backend& be, const char* entry, const char* consequence) {
    if (!be.failed) return DeviceStatus::Ok;
    std::printf("Error: %s: the device failed; %s\n", entry, consequence);
    std::fflush(stdout);
    return DeviceStatus::Failed;
}

// Runs an entry point's implementation on a backend made for `device`.
template <class Backend, class Args>
DeviceStatus runOnBackend(const DeviceHandle& device, const Args& args,
                          DeviceStatus (*implementation)(Backend&, const Args&)) {
    Backend be(device);
    return implementation(be, args);
}

}  // namespace tessaline

