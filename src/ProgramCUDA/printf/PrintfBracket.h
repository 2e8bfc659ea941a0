// The printf ring around an entry point: armed before its first device
// allocation, shown behind its last launch (ahead of the first read-back),
// closed as its last device step, behind the release of its buffers. Each
// backend has its own ring. Declared first in an entry point, so that its
// destructor runs after those of the entry point's buffers:
//
//     PrintfRing<Backend> ring(be);   // cuPrintfInit(1,048,576), status dropped
//     ... allocate, upload, launch ...
//     ring.show();                    // cuPrintfDisplay(stdout, true)
//     ... read back ...
//                                     // cuPrintfEnd() when `ring` goes
#pragma once

#include <cstddef>
#include <cstdio>

#include "printf/cuPrintfRecord.h"

namespace tessaline::cpu {
int printfRingInit(size_t bytes);
int printfRingDisplay(FILE* stream, bool showThreadIds);
void printfRingEnd();
int printfRingCopy(void* destination, size_t bytes);
// The ring of an entry point's bracket: brackets that overlap (calls on
// several threads at once) share one ring, armed by the first to open and
// ended by the last to close.
int printfBracketOpen(size_t bytes);
void printfBracketClose();
}  // namespace tessaline::cpu

namespace tessaline::cuda {
int printfRingInit(size_t bytes);
int printfRingDisplay(FILE* stream, bool showThreadIds);
void printfRingEnd();
int printfRingCopy(void* destination, size_t bytes);
}  // namespace tessaline::cuda

namespace tessaline {

template <class Backend>
class PrintfRing {
   public:
    explicit PrintfRing(Backend&) {
        if constexpr (Backend::isCuda)
            (void)cuda::printfRingInit(printfring::kDefaultRingBytes);
        else
            (void)cpu::printfBracketOpen(printfring::kDefaultRingBytes);
    }
    ~PrintfRing() {
        if constexpr (Backend::isCuda)
            cuda::printfRingEnd();
        else
            cpu::printfBracketClose();
    }
    PrintfRing(const PrintfRing&) = delete;
    PrintfRing& operator=(const PrintfRing&) = delete;

    void show() {
        if constexpr (Backend::isCuda)
            (void)cuda::printfRingDisplay(stdout, true);
        else
            (void)cpu::printfRingDisplay(stdout, true);
    }
};

}  // namespace tessaline
