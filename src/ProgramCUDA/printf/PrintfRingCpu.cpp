// The CPU backend's printf ring: the same 256-byte records in host memory,
// taken with an atomic addition on the cursor's low word, shown by the same
// display code as the device ring.
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "printf/cuPrintf.h"
#include "printf/cuPrintfDisplay.h"
#include "printf/PrintfBracket.h"

namespace tessaline::printfring {

namespace cpu {
unsigned long long printfBufferPtr = 0;
int restrictRules[2] = {-1, -1};
unsigned long long globalPrintfBuffer = 0;
int printfBufferLength = 0;
}  // namespace cpu

PrintfOrigin& currentPrintfOrigin() {
    thread_local PrintfOrigin origin;
    return origin;
}

}  // namespace tessaline::printfring

namespace tessaline::cpu {

namespace {

printfring::HostRing g_cpuRing;
// Calls of the CPU backend may run at the same time in one process (several
// runs, or the processes of a shared run played by threads): the ring is
// armed and ended under a lock, and the brackets of entry points that
// overlap share one ring, armed by the first and ended by the last.
std::mutex g_ringMutex;
int g_openBrackets = 0;

struct CpuRingMemory {
    void* allocate(unsigned bytes) { return std::aligned_alloc(size_t(printfring::kSlotBytes), bytes); }
    void freeRing(unsigned long long base) { std::free(reinterpret_cast<void*>(base)); }
    void arm(unsigned long long base, unsigned length) {
        printfring::cpu::restrictRules[0] = -1;
        printfring::cpu::restrictRules[1] = -1;
        printfring::cpu::globalPrintfBuffer = base;
        printfring::cpu::printfBufferLength = int(length);
        __atomic_store_n(&printfring::cpu::printfBufferPtr, base, __ATOMIC_RELEASE);
    }
    void disarm() { __atomic_store_n(&printfring::cpu::printfBufferPtr, 0ull, __ATOMIC_RELEASE); }
    void copy(void* dst, unsigned long long address, size_t bytes) {
        std::memcpy(dst, reinterpret_cast<const void*>(address), bytes);
    }
    unsigned long long cursor() { return __atomic_load_n(&printfring::cpu::printfBufferPtr, __ATOMIC_ACQUIRE); }
    void clear() { std::memset(reinterpret_cast<void*>(g_cpuRing.base), 0, g_cpuRing.length); }
};

}  // namespace

int printfRingInit(size_t bytes) {
    std::lock_guard<std::mutex> lock(g_ringMutex);
    CpuRingMemory memory;
    return printfring::initRing(memory, g_cpuRing, bytes);
}

int printfRingDisplay(FILE* stream, bool showThreadIds) {
    std::lock_guard<std::mutex> lock(g_ringMutex);
    CpuRingMemory memory;
    return printfring::displayRing(memory, g_cpuRing, stream, showThreadIds);
}

void printfRingEnd() {
    std::lock_guard<std::mutex> lock(g_ringMutex);
    CpuRingMemory memory;
    printfring::endRing(memory, g_cpuRing);
}

int printfRingCopy(void* destination, size_t bytes) {
    std::lock_guard<std::mutex> lock(g_ringMutex);
    CpuRingMemory memory;
    return printfring::copyRing(memory, g_cpuRing, destination, bytes);
}

int printfBracketOpen(size_t bytes) {
    std::lock_guard<std::mutex> lock(g_ringMutex);
    if (g_openBrackets++ > 0) return 0;
    CpuRingMemory memory;
    return printfring::initRing(memory, g_cpuRing, bytes);
}

void printfBracketClose() {
    std::lock_guard<std::mutex> lock(g_ringMutex);
    if (--g_openBrackets > 0) return;
    CpuRingMemory memory;
    printfring::endRing(memory, g_cpuRing);
}

}  // namespace tessaline::cpu
