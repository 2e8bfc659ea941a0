// The device printf ring's record: fixed 256-byte slots, all integers
// little-endian.
//
//   offset 0   uint16  magic 0xC811
//   offset 2   uint16  fmtOffset: where the format section starts; 0 when the
//                      record did not fit its slot
//   offset 4   uint16  blockId, low 16 bits of the linear block index
//   offset 6   uint16  threadId, low 16 bits of the linear thread index
//   offset 8   16-byte argument cells, one per argument in call order:
//                      int32 size at +0, the value from +8 on
//   fmtOffset  format section: uint32 byte count at +0, then from +8 the text
//              with its terminating zero, zero-padded to a multiple of 8
//
// A free slot is all zero bytes. The header is stored last, in one 8-byte
// store, so a slot with the magic is complete.
#pragma once

#include <cstdint>

namespace tessaline::printfring {

constexpr int kSlotBytes = 256;
constexpr uint16_t kMagic = 0xC811;
constexpr int kHeaderBytes = 8;
constexpr int kCellBytes = 16;
constexpr int kCellValueOffset = 8;
constexpr int kFormatTextOffset = 8;  // text behind the format section's count
constexpr int kMaxFormatChars = 256;  // at most this many characters are copied
constexpr int kDefaultRingBytes = 1048576;

// The header as the one 8-byte word that is stored.
inline constexpr uint64_t packHeader(unsigned fmtOffset, unsigned blockId, unsigned threadId) {
    return uint64_t(kMagic) | (uint64_t(fmtOffset & 0xFFFFu) << 16) | (uint64_t(blockId & 0xFFFFu) << 32) |
           (uint64_t(threadId & 0xFFFFu) << 48);
}

struct RecordHeader {
    uint16_t magic;
    uint16_t fmtOffset;
    uint16_t blockId;
    uint16_t threadId;
};

// Reads the header of a host copy of a slot.
inline RecordHeader readHeader(const unsigned char* slot) {
    auto u16 = [slot](int at) { return uint16_t(slot[at] | (slot[at + 1] << 8)); };
    return RecordHeader{u16(0), u16(2), u16(4), u16(6)};
}

// Ring lengths: at least one slot, rounded up to whole slots.
inline unsigned ringLengthFor(unsigned long long bytes) {
    if (bytes < unsigned(kSlotBytes)) bytes = kSlotBytes;
    return unsigned(((bytes + kSlotBytes - 1) / kSlotBytes) * kSlotBytes);
}

}  // namespace tessaline::printfring
