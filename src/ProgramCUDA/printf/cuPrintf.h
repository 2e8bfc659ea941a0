// Device side of the printf ring: cuPrintf and cuPrintfRestrict, callable
// from any kernel body on both backends.
//
// A call takes the next 256-byte slot of the armed ring with one atomic
// addition on the cursor, writes its arguments and format text there and
// returns; the host expands the records after the kernels have finished
// (cuPrintfDisplay). On CUDA the ring's variables are device variables of
// the translation unit that includes this header, and the host functions
// that arm and show the ring (PrintfRingCuda.cuh) must be in the same unit:
// that is printf/PrintfCuda.cu, whose kernels print. A kernel compiled in
// another unit would print into a ring that nothing arms, and show nothing.
// On the CPU backend the variables are plain globals (PrintfRingCpu.cpp)
// and the block and thread of a record come from the thread's PrintfOrigin.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "DeviceCommon.h"
#include "printf/cuPrintfRecord.h"

namespace tessaline::printfring {

#if defined(__CUDACC__)
// One set per CUDA translation unit. The cursor is an address; only its low
// 32-bit word is advanced, so a ring length must divide 2^32 for the
// address arithmetic of the original layout; the slot offset below is taken
// in 32 bits and so stays right for any length (see takeSlot).
static __device__ unsigned long long printfBufferPtr;  // write cursor; 0: no ring armed
static __device__ int restrictRules[2];                // thread filter, block filter; -1 passes all
static __constant__ unsigned long long globalPrintfBuffer;  // address of the ring
static __constant__ int printfBufferLength;                 // bytes
#endif

#if !defined(__CUDA_ARCH__)
// The CPU backend's ring variables, same meaning as the device ones.
namespace cpu {
extern unsigned long long printfBufferPtr;
extern int restrictRules[2];
extern unsigned long long globalPrintfBuffer;
extern int printfBufferLength;
}  // namespace cpu

// Where a CPU thread stands in the launch it emulates: what blockIdx,
// threadIdx, blockDim and gridDim give on the device. A kernel that prints
// sets it from its id; host code outside a launch prints as block 0, thread 0.
struct PrintfOrigin {
    unsigned blockId = 0;
    unsigned threadId = 0;
    unsigned threadsPerBlock = 1;
    unsigned blocksPerGrid = 1;
};
PrintfOrigin& currentPrintfOrigin();
#endif

// Sets the CPU origin of a 1D launch of `block`-thread blocks over n
// elements; nothing to do on the device, where the built-ins answer.
DEVICE_HOST void setPrintfOrigin1D(int id, int block, int n) {
#if !defined(__CUDA_ARCH__)
    PrintfOrigin& o = currentPrintfOrigin();
    o.blockId = unsigned(id) / unsigned(block);
    o.threadId = unsigned(id) % unsigned(block);
    o.threadsPerBlock = unsigned(block);
    o.blocksPerGrid = unsigned(n) / unsigned(block) + 1u;
#else
    (void)id, (void)block, (void)n;
#endif
}

// Back to the origin of host code outside any launch, block 0 thread 0, so
// that a CPU thread's next print outside a launch does not inherit the ids
// of the last kernel element it ran.
DEVICE_HOST void resetPrintfOrigin() {
#if !defined(__CUDA_ARCH__)
    currentPrintfOrigin() = PrintfOrigin();
#endif
}

// The full linear block and thread indices of the calling thread.
DEVICE_HOST void linearIds(unsigned& blockLinear, unsigned& threadLinear) {
#if defined(__CUDA_ARCH__)
    blockLinear = blockIdx.y * gridDim.x + blockIdx.x;
    threadLinear = threadIdx.z * (blockDim.x * blockDim.y) + threadIdx.y * blockDim.x + threadIdx.x;
#else
    const PrintfOrigin& o = currentPrintfOrigin();
    blockLinear = o.blockId;
    threadLinear = o.threadId;
#endif
}

// Takes a slot: null when no ring is armed or a filter refuses the thread.
DEVICE_HOST unsigned char* takeSlot(unsigned blockLinear, unsigned threadLinear) {
#if defined(__CUDA_ARCH__)
    unsigned long long* cursor = &printfBufferPtr;
    const int* rules = restrictRules;
    const unsigned long long base = globalPrintfBuffer;
    const unsigned length = unsigned(printfBufferLength);
#else
    unsigned long long* cursor = &cpu::printfBufferPtr;
    const int* rules = cpu::restrictRules;
    const unsigned long long base = cpu::globalPrintfBuffer;
    const unsigned length = unsigned(cpu::printfBufferLength);
#endif
#if defined(__CUDA_ARCH__)
    if (*cursor == 0ull) return nullptr;
#else
    if (__atomic_load_n(cursor, __ATOMIC_ACQUIRE) == 0ull) return nullptr;
#endif
    if (rules[1] != -1 && unsigned(rules[1]) != blockLinear) return nullptr;
    if (rules[0] != -1 && unsigned(rules[0]) != threadLinear) return nullptr;
    // 32-bit atomic addition on the cursor's low word (little-endian).
    unsigned* low = reinterpret_cast<unsigned*>(cursor);
#if defined(__CUDA_ARCH__)
    const unsigned old = atomicAdd(low, unsigned(kSlotBytes));
#else
    const unsigned old = __atomic_fetch_add(low, unsigned(kSlotBytes), __ATOMIC_RELAXED);
#endif
    // Bytes advanced since the ring's start, in 32 bits. For the lengths that
    // divide 2^32 (every ring of the system) this equals the 64-bit
    // (old - base) mod length of the zero-extended old word; for other
    // lengths it is still the true slot until 4 GiB of records.
    const unsigned advanced = old - unsigned(base);
    const unsigned offset = advanced % length;
    return reinterpret_cast<unsigned char*>(base + offset);
}

// Stores one argument cell at p, or makes p null when it does not fit.
template <class T>
DEVICE_HOST void storeArgument(unsigned char*& p, const unsigned char* end, T value) {
    static_assert(std::is_arithmetic<T>::value && sizeof(T) <= 8, "cuPrintf takes numbers of at most 8 bytes");
    if (p == nullptr || !(p + 8 < end)) {
        p = nullptr;
        return;
    }
    const int size = int(sizeof(T));
    memcpy(p, &size, sizeof size);
    memcpy(p + kCellValueOffset, &value, sizeof(T));
    p += kCellBytes;
}

// Writes a record into `slot` and returns the bytes used up to the end of
// the padded format text, or 0 when the format did not fit (the header then
// marks an overflow).
template <class... Args>
DEVICE_HOST int writeRecord(unsigned char* slot, unsigned blockLinear, unsigned threadLinear, const char* format,
                            Args... args) {
    unsigned char* const end = slot + kSlotBytes;
    unsigned char* p = slot + kHeaderBytes;
    (storeArgument(p, end, args), ...);

    bool stored = false;
    unsigned char* section = nullptr;
    unsigned char* q = nullptr;
    if (p != nullptr && format != nullptr && p < end) {
        section = p;
        q = p + kFormatTextOffset;
        int copied = 0;
        while (q < end && copied < kMaxFormatChars) {
            const char c = format[copied];
            *q++ = static_cast<unsigned char>(c);
            ++copied;
            if (c == '\0') break;
        }
        while (q < end && (reinterpret_cast<uintptr_t>(q) & 7u) != 0) *q++ = 0;
        const unsigned written = unsigned(q - (p + kFormatTextOffset));
        memcpy(p, &written, sizeof written);
        stored = q < end;
    }

    const unsigned fmtOffset = stored ? unsigned(section - slot) : 0u;
    const unsigned long long header = packHeader(fmtOffset, blockLinear, threadLinear);
#if defined(__CUDA_ARCH__)
    *reinterpret_cast<unsigned long long*>(slot) = header;
#else
    __atomic_store_n(reinterpret_cast<unsigned long long*>(slot), header, __ATOMIC_RELEASE);
#endif
    return stored ? int(q - slot) : 0;
}

}  // namespace tessaline::printfring

// Prints through the ring: a format text and up to four numbers. Returns the
// bytes of the slot used, or 0 when nothing usable was stored.
template <class... Args>
DEVICE_HOST int cuPrintf(const char* format, Args... args) {
    static_assert(sizeof...(Args) <= 4, "cuPrintf takes at most four arguments");
    unsigned blockLinear = 0, threadLinear = 0;
    tessaline::printfring::linearIds(blockLinear, threadLinear);
    unsigned char* slot = tessaline::printfring::takeSlot(blockLinear, threadLinear);
    if (slot == nullptr) return 0;
    return tessaline::printfring::writeRecord(slot, blockLinear, threadLinear, format, args...);
}

// Restricts printing to one thread of a block and one block of the grid;
// -1 lifts a filter. A value outside the launch leaves its filter as it was.
DEVICE_HOST void cuPrintfRestrict(int threadId, int blockId) {
#if defined(__CUDA_ARCH__)
    int* rules = tessaline::printfring::restrictRules;
    const long long threads = (long long)blockDim.x * blockDim.y * blockDim.z;
    const long long blocks = (long long)gridDim.x * gridDim.y;
#else
    int* rules = tessaline::printfring::cpu::restrictRules;
    const tessaline::printfring::PrintfOrigin& o = tessaline::printfring::currentPrintfOrigin();
    const long long threads = o.threadsPerBlock;
    const long long blocks = o.blocksPerGrid;
#endif
    if (threadId == -1 || (threadId >= 0 && threadId < threads)) rules[0] = threadId;
    if (blockId == -1 || (blockId >= 0 && blockId < blocks)) rules[1] = blockId;
}
