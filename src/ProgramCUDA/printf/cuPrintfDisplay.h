// Host side of the printf ring shared by both backends: the ring's host
// state, its life (arm, copy, free) and the walk that expands the records
// onto a stream. A backend supplies the memory: `Memory` has
//   void* allocate(unsigned bytes);  // the ring's memory, nullptr on failure
//   void freeRing(unsigned long long base);
//   void arm(unsigned long long base, unsigned length);  // printing variables
//                                   // set, the write cursor last
//   void disarm();                  // the write cursor to 0: kernels print nothing
//   void copy(void* dst, unsigned long long address, size_t bytes);  // ring to host
//   unsigned long long cursor();    // the current value of the write cursor
//   void clear();                   // every byte of the ring to 0
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "printf/cuPrintfRecord.h"

namespace tessaline::printfring {

struct HostRing {
    unsigned long long base = 0;        // ringBase; 0 when no ring exists
    unsigned long long hostCursor = 0;  // the device cursor at the last display
    unsigned length = 0;                // ringLength, bytes
    FILE* stream = nullptr;             // stream of the current display
};

// Expands one record held in a host copy of its slot. `slot` must be followed
// by zero bytes up to slot + 2 * kSlotBytes, so that no text or %s argument
// read runs past the copy. Returns false after a corrupt argument size.
bool formatPrintfRecord(FILE* stream, unsigned char* slot, unsigned fmtOffset);

// Shows the records from `first` up to (not including) `last`, wrapping at
// the ring's end; stops at the first slot without a complete record.
template <class Memory>
int displayPrintfRecords(Memory& memory, const HostRing& ring, unsigned long long first, unsigned long long last,
                         bool showThreadIds) {
    const unsigned long long ringEnd = ring.base + ring.length;
    unsigned char copy[2 * kSlotBytes];
    int shown = 0;
    unsigned long long p = first;
    while (p != last) {
        if (p == ringEnd) p = ring.base;
        std::memset(copy, 0, sizeof copy);
        memory.copy(copy, p, kSlotBytes);
        const RecordHeader h = readHeader(copy);
        if (h.magic != kMagic) break;
        if (h.fmtOffset >= kSlotBytes) break;
        if (showThreadIds) std::fprintf(ring.stream, "[%d, %d]: ", int(h.blockId), int(h.threadId));
        if (h.fmtOffset == 0) {
            std::fputs("printf buffer overflow\n", ring.stream);
        } else if (!formatPrintfRecord(ring.stream, copy, h.fmtOffset)) {
            break;
        }
        ++shown;
        p += kSlotBytes;
    }
    return shown;
}

// Position in the ring of a cursor value. The offset is taken in 32 bits, as
// when the slot was taken.
inline unsigned long long ringPosition(const HostRing& ring, unsigned long long cursor) {
    const unsigned advanced = unsigned(cursor) - unsigned(ring.base);
    return ring.base + advanced % ring.length;
}

// Prints everything recorded since the last display and clears the ring.
// Returns 1 when no ring is armed, else 0.
template <class Memory>
int displayRing(Memory& memory, HostRing& ring, FILE* stream, bool showThreadIds) {
    ring.stream = stream ? stream : stdout;
    if (ring.hostCursor == 0 || ring.base == 0 || ring.stream == nullptr) return 1;
    unsigned char magic[2] = {0, 0};
    memory.copy(magic, ring.base, 2);
    if ((magic[0] | (magic[1] << 8)) == kMagic) {
        const unsigned long long deviceCursor = memory.cursor();
        const unsigned long long oldPos = ringPosition(ring, ring.hostCursor);
        const unsigned long long newPos = ringPosition(ring, deviceCursor);
        // Older records of a ring that has wrapped lie behind newPos; without
        // a wrap the first walk stops at once at a free slot.
        displayPrintfRecords(memory, ring, newPos, ring.base + ring.length, showThreadIds);
        displayPrintfRecords(memory, ring, oldPos, newPos, showThreadIds);
        ring.hostCursor = deviceCursor;
    }
    std::fflush(ring.stream);
    memory.clear();
    return 0;
}

// Frees the ring and disarms the cursor first, so that a kernel that prints
// after this finds no ring instead of freed memory.
template <class Memory>
void endRing(Memory& memory, HostRing& ring) {
    if (ring.hostCursor == 0 || ring.base == 0) return;
    memory.disarm();
    memory.freeRing(ring.base);
    ring.base = 0;
    ring.hostCursor = 0;
}

// Arms a ring of `bytes` (rounded by ringLengthFor); one still armed is
// replaced, not leaked. Returns 3 when it cannot be had, else 0.
template <class Memory>
int initRing(Memory& memory, HostRing& ring, size_t bytes) {
    if (bytes > size_t(0x7FFFFF00u)) return 3;  // the length is a 32-bit value
    endRing(memory, ring);
    const unsigned length = ringLengthFor(bytes);
    void* base = memory.allocate(length);
    if (base == nullptr) return 3;
    ring.base = reinterpret_cast<unsigned long long>(base);
    ring.length = length;
    memory.clear();
    ring.hostCursor = ring.base;
    memory.arm(ring.base, length);
    return 0;
}

// Copies the ring's first bytes (at most its length) to the host; 1 when no
// ring exists.
template <class Memory>
int copyRing(Memory& memory, const HostRing& ring, void* destination, size_t bytes) {
    if (ring.base == 0) return 1;
    memory.copy(destination, ring.base, bytes < ring.length ? bytes : ring.length);
    return 0;
}

}  // namespace tessaline::printfring
