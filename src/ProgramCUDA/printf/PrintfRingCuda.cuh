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
    void* allocate(unsigned bytes) {
        void* ring = nullptr;
        if (cudaMalloc(&ring, bytes) != cudaSuccess) {
            cudaGetLastError();
            return nullptr;
        }
        return ring;
    }
    void freeRing(unsigned long long base) { cudaFree(reinterpret_cast<void*>(base)); }
    void arm(unsigned long long base, unsigned length) {
        const int rules[2] = {-1, -1};
        const int lengthValue = int(length);
        cudaMemcpyToSymbol(printfring::restrictRules, rules, sizeof rules);
        cudaMemcpyToSymbol(printfring::globalPrintfBuffer, &base, sizeof base);
        cudaMemcpyToSymbol(printfring::printfBufferLength, &lengthValue, sizeof lengthValue);
        cudaMemcpyToSymbol(printfring::printfBufferPtr, &base, sizeof base);
    }
    void disarm() {
        const unsigned long long none = 0;
        cudaMemcpyToSymbol(printfring::printfBufferPtr, &none, sizeof none);
    }
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

int printfRingInit(size_t bytes) {
    CudaRingMemory memory;
    return printfring::initRing(memory, g_cudaRing, bytes);
}

int printfRingDisplay(FILE* stream, bool showThreadIds) {
    CudaRingMemory memory;
    return printfring::displayRing(memory, g_cudaRing, stream, showThreadIds);
}

void printfRingEnd() {
    CudaRingMemory memory;
    printfring::endRing(memory, g_cudaRing);
}

int printfRingCopy(void* destination, size_t bytes) {
    CudaRingMemory memory;
    return printfring::copyRing(memory, g_cudaRing, destination, bytes);
}

}  // namespace tessaline::cuda
