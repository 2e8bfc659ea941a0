// The CPU sampler's table of 16-bit normalised values (TextureSampler.h),
// filled before main() runs; no kernel samples before then.
#include <array>

#include "TextureSampler.h"

namespace tessaline {

namespace {

std::array<float, 65536> quotients() {
    std::array<float, 65536> table;
    for (int v = 0; v < 65536; ++v) table[size_t(v)] = float(v) / 65535.0f;
    return table;
}

}  // namespace

const std::array<float, 65536> kNormalized16 = quotients();

}  // namespace tessaline
