// The printf ring around a host wrapper: open it before the first device
// allocation, show it behind the last launch (ahead of the first read-back
// and of the "copy back data..." line), close it behind the release of the
// buffers. Each backend has its own ring; the bracket picks the one of the
// wrapper's backend.
//
//     printfRingOpen(be);     // cuPrintfInit(1,048,576), status dropped
//     ... allocate, upload, launch ...
//     printfRingShow(be);     // cuPrintfDisplay(stdout, true)
//     ... read back, release ...
//     printfRingClose(be);    // cuPrintfEnd()
#pragma once

#include <cstddef>
#include <cstdio>

#include "cuPrintf/cuPrintfRecord.h"

namespace tessaline::cpu {
int printfRingInit(size_t bytes);
int printfRingDisplay(FILE* stream, bool showThreadIds);
void printfRingEnd();
int printfRingCopy(void* destination, size_t bytes);
}  // namespace tessaline::cpu

namespace tessaline::cuda {
int printfRingInit(size_t bytes);
int printfRingDisplay(FILE* stream, bool showThreadIds);
void printfRingEnd();
int printfRingCopy(void* destination, size_t bytes);
}  // namespace tessaline::cuda

namespace tessaline {

template <class Backend>
void printfRingOpen(Backend&) {
    if constexpr (Backend::isCuda)
        (void)cuda::printfRingInit(printfring::kDefaultRingBytes);
    else
        (void)cpu::printfRingInit(printfring::kDefaultRingBytes);
}

template <class Backend>
void printfRingShow(Backend&) {
    if constexpr (Backend::isCuda)
        (void)cuda::printfRingDisplay(stdout, true);
    else
        (void)cpu::printfRingDisplay(stdout, true);
}

template <class Backend>
void printfRingClose(Backend&) {
    if constexpr (Backend::isCuda)
        cuda::printfRingEnd();
    else
        cpu::printfRingEnd();
}

}  // namespace tessaline

#if defined(__CUDACC__)
// The CUDA ring's device variables and host routines live in the unit that
// instantiates the wrappers, so that every kernel launched there can print.
#include "cuPrintf/cuPrintfCuda.cuh"
#endif
