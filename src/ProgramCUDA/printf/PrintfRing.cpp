// The printf ring's host routines: the record formatter shared by both
// backends, and the public cuPrintfInit / cuPrintfDisplay / cuPrintfEnd,
// which act on the ring of the device they are given.
#include <cstdint>
#include <cstring>
#include <string>

#include "ProgramCUDA_library.h"
#include "printf/cuPrintfDisplay.h"
#include "printf/PrintfBracket.h"

namespace tessaline::printfring {

namespace {

// Length modifiers and '*' would make fprintf read arguments of another
// size, or more of them, than the one cell holds: they are dropped, and the
// value is passed as the 32-bit word or the double that the cell gives.
std::string plainConversion(const char* percent, const char* conversion) {
    std::string text;
    for (const char* c = percent; c <= conversion; ++c)
        if (c == percent || c == conversion || !std::strchr("hlLqjzt*", *c)) text.push_back(*c);
    return text;
}

}  // namespace

bool formatPrintfRecord(FILE* stream, unsigned char* slot, unsigned fmtOffset) {
    char* text = reinterpret_cast<char*>(slot + fmtOffset + kFormatTextOffset);
    unsigned char* cell = slot + kHeaderBytes;
    const unsigned char* copyEnd = slot + 2 * kSlotBytes;
    char* percent = nullptr;
    while ((percent = std::strchr(text, '%')) != nullptr) {
        std::fwrite(text, 1, size_t(percent - text), stream);
        text = percent;
        char* conversion = std::strpbrk(percent + 1, "%cdiouxXeEfgGaAnps");
        if (conversion == nullptr) break;  // a '%' without its letter: printed below as it stands
        int size = 0;
        if (cell + kCellBytes <= copyEnd) std::memcpy(&size, cell, sizeof size);
        if (size > kSlotBytes || cell + kCellBytes > copyEnd) {
            std::fputs("Corrupt printf buffer data - aborting\n", stream);
            return false;
        }
        const unsigned char* value = cell + kCellValueOffset;
        const std::string conversionText = plainConversion(percent, conversion);
        switch (*conversion) {
            case 'c': case 'd': case 'i': case 'o': case 'u': case 'x': case 'X': {
                uint32_t word;
                std::memcpy(&word, value, sizeof word);
                std::fprintf(stream, conversionText.c_str(), word);
                break;
            }
            case 'p': {
                uint32_t word;
                std::memcpy(&word, value, sizeof word);
                std::fprintf(stream, conversionText.c_str(), reinterpret_cast<void*>(uintptr_t(word)));
                break;
            }
            case 'e': case 'E': case 'f': case 'g': case 'G': case 'a': case 'A': {
                double v;
                if (size == 4) {
                    float f;
                    std::memcpy(&f, value, sizeof f);
                    v = double(f);
                } else {
                    std::memcpy(&v, value, sizeof v);
                }
                std::fprintf(stream, conversionText.c_str(), v);
                break;
            }
            case 's':
                // The text lies in the cell itself; the copy's zero tail ends it.
                std::fprintf(stream, conversionText.c_str(), reinterpret_cast<const char*>(value));
                break;
            case '%':
                std::fputc('%', stream);
                break;
            default:  // 'n': nothing is printed and nothing is written through the record
                break;
        }
        cell += kCellBytes;
        text = conversion + 1;
    }
    std::fputs(text, stream);
    return true;
}

}  // namespace tessaline::printfring

namespace {
bool onCuda([[maybe_unused]] const DeviceHandle& device) {
#ifdef TESSALINE_CUDA_ENABLED
    return device.backend == DeviceBackend::Cuda;
#else
    return false;
#endif
}
}  // namespace

// The CUDA ring's routines exist only in a build with CUDA; onCuda() is
// false otherwise, and the calls below are never made.
#ifndef TESSALINE_CUDA_ENABLED
namespace tessaline::cuda {
int printfRingInit(size_t) { return 3; }
int printfRingDisplay(FILE*, bool) { return 1; }
void printfRingEnd() {}
int printfRingCopy(void*, size_t) { return 1; }
}  // namespace tessaline::cuda
#endif

int cuPrintfInit(const DeviceHandle& device, size_t bytes) {
    return onCuda(device) ? tessaline::cuda::printfRingInit(bytes) : tessaline::cpu::printfRingInit(bytes);
}

int cuPrintfDisplay(const DeviceHandle& device, FILE* stream, bool showThreadIds) {
    return onCuda(device) ? tessaline::cuda::printfRingDisplay(stream, showThreadIds)
                          : tessaline::cpu::printfRingDisplay(stream, showThreadIds);
}

void cuPrintfEnd(const DeviceHandle& device) {
    if (onCuda(device))
        tessaline::cuda::printfRingEnd();
    else
        tessaline::cpu::printfRingEnd();
}

int cuPrintfCopyRing(const DeviceHandle& device, void* destination, size_t bytes) {
    return onCuda(device) ? tessaline::cuda::printfRingCopy(destination, bytes)
                          : tessaline::cpu::printfRingCopy(destination, bytes);
}
