// The CPU backend's printf ring: the same 256-byte records in host memory,
// taken with an atomic addition on the cursor's low word, shown by the same
// display code as the device ring.
#include <cstdlib>
#include <cstring>

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

struct CpuRingMemory {
    void copy(void* dst, unsigned long long address, size_t bytes) {
        std::memcpy(dst, reinterpret_cast<const void*>(address), bytes);
    }
    unsigned long long cursor() { return __atomic_load_n(&printfring::cpu::printfBufferPtr, __ATOMIC_ACQUIRE); }
    void clear() { std::memset(reinterpret_cast<void*>(g_cpuRing.base), 0, g_cpuRing.length); }
};

}  // namespace

int printfRingInit(size_t bytes) {
    if (bytes > size_t(0x7FFFFF00u)) return 3;  // the length is a 32-bit value
    printfRingEnd();  // a ring still armed is replaced, not leaked
    const unsigned length = printfring::ringLengthFor(bytes);
    void* ring = std::aligned_alloc(size_t(printfring::kSlotBytes), length);
    if (ring == nullptr) return 3;
    printfring::HostRing& r = g_cpuRing;
    r.base = reinterpret_cast<unsigned long long>(ring);
    r.length = length;
    std::memset(ring, 0, length);
    r.hostCursor = r.base;
    printfring::cpu::restrictRules[0] = -1;
    printfring::cpu::restrictRules[1] = -1;
    printfring::cpu::globalPrintfBuffer = r.base;
    printfring::cpu::printfBufferLength = int(length);
    __atomic_store_n(&printfring::cpu::printfBufferPtr, r.base, __ATOMIC_RELEASE);
    return 0;
}

int printfRingDisplay(FILE* stream, bool showThreadIds) {
    CpuRingMemory memory;
    return printfring::displayRing(memory, g_cpuRing, stream, showThreadIds);
}

// Frees the ring and disarms the cursor, so that a kernel that prints after
// this finds no ring instead of freed memory.
void printfRingEnd() {
    printfring::HostRing& r = g_cpuRing;
    if (r.hostCursor != 0 && r.base != 0) {
        __atomic_store_n(&printfring::cpu::printfBufferPtr, 0ull, __ATOMIC_RELEASE);
        std::free(reinterpret_cast<void*>(r.base));
        r.base = 0;
        r.hostCursor = 0;
    }
}

int printfRingCopy(void* destination, size_t bytes) {
    const printfring::HostRing& r = g_cpuRing;
    if (r.base == 0) return 1;
    std::memcpy(destination, reinterpret_cast<const void*>(r.base), bytes < r.length ? bytes : r.length);
    return 0;
}

}  // namespace tessaline::cpu
