// Entry checks of the host wrappers: a wrapper refuses arguments that would
// make a kernel index outside its arrays, with one "Error: " line, before it
// allocates anything.
#pragma once

#include <climits>
#include <cstdint>
#include <iostream>

namespace tessaline {

// Collects the first failed check of a wrapper's arguments.
struct ArgumentCheck {
    const char* wrapper;
    const char* problem = nullptr;

    explicit ArgumentCheck(const char* name) : wrapper(name) {}

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
        std::cout << "Error: " << wrapper << ": " << problem << "; nothing done" << std::endl;
        return false;
    }
};

// Kernels index images with int y*width + x: the pixel count must fit.
inline bool imageFitsIntIndex(int width, int height) {
    return (long long)width * (long long)height <= (long long)INT_MAX;
}

// Per-vertex and per-facet arrays of 3 entries are indexed with int 3*id.
inline bool tripleFitsIntIndex(int n) { return (long long)n * 3 <= (long long)INT_MAX; }

}  // namespace tessaline
