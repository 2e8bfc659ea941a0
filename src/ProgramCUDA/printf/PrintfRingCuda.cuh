// Host routines of the CUDA printf ring. Included once, into
// printf/PrintfCuda.cu, because the symbol copies must name the device
// variables of the unit whose kernels print.
#pragma once

#include <cuda_runtime.h>

#include <cstdio>

#include "printf/cuPrintf.h"
#include "printf/cuPrintfDisplay.h"

namespace tessaline::cuda {

namespace {

printfring::HostRing g_cudaRing;

struct CudaRingMemory {
    void copy(void* dst, unsigned long long address, size_t bytes) {
        cudaMemcpy(dst, reinterpret_cast<const void*>(address), bytes, cudaMemcpyDeviceToHost);
    }
    unsigned long long cursor() {
        unsigned long long value = 0;
        cudaMemcpyFromSymbol(&value, printfring::printfBufferPtr, sizeof value);
        return value;
    }
    void clear() { cudaMemset(reinterpret_cast<void*>(g_cudaRing.base), 0, g_cudaRing.length); }
};

}  // namespace

void printfRingEnd();

int printfRingInit(size_t bytes) {
    if (bytes > size_t(0x7FFFFF00u)) return 3;  // the length is a 32-bit value
    printfRingEnd();  // a ring still armed is replaced, not leaked
    const unsigned length = printfring::ringLengthFor(bytes);
    void* ring = nullptr;
    if (cudaMalloc(&ring, length) != cudaSuccess || ring == nullptr) {
        cudaGetLastError();
        return 3;
    }
    printfring::HostRing& r = g_cudaRing;
    r.base = reinterpret_cast<unsigned long long>(ring);
    r.length = length;
    cudaMemset(ring, 0, length);
    r.hostCursor = r.base;
    const int rules[2] = {-1, -1};
    const int lengthValue = int(length);
    cudaMemcpyToSymbol(printfring::restrictRules, rules, sizeof rules);
    cudaMemcpyToSymbol(printfring::globalPrintfBuffer, &r.base, sizeof r.base);
    cudaMemcpyToSymbol(printfring::printfBufferPtr, &r.base, sizeof r.base);
    cudaMemcpyToSymbol(printfring::printfBufferLength, &lengthValue, sizeof lengthValue);
    return 0;
}

int printfRingDisplay(FILE* stream, bool showThreadIds) {
    CudaRingMemory memory;
    return printfring::displayRing(memory, g_cudaRing, stream, showThreadIds);
}

// Frees the ring and disarms the cursor, so that a kernel that prints after
// this finds no ring instead of freed memory.
void printfRingEnd() {
    printfring::HostRing& r = g_cudaRing;
    if (r.hostCursor != 0 && r.base != 0) {
        cudaFree(reinterpret_cast<void*>(r.base));
        const unsigned long long none = 0;
        cudaMemcpyToSymbol(printfring::printfBufferPtr, &none, sizeof none);
        r.base = 0;
        r.hostCursor = 0;
    }
}

int printfRingCopy(void* destination, size_t bytes) {
    const printfring::HostRing& r = g_cudaRing;
    if (r.base == 0) return 1;
    cudaMemcpy(destination, reinterpret_cast<const void*>(r.base), bytes < r.length ? bytes : r.length,
               cudaMemcpyDeviceToHost);
    return 0;
}

}  // namespace tessaline::cuda
