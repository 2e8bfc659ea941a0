// What the processes of a shared run add up between them: integers only, so
// that the totals are exact and the same in any order, and every process
// steps the vertices alike. Each list ends with the count of processes that
// failed, so that a failure on one stops all of them at the same point.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "RunContext.h"

namespace tessaline {

// Sums `values` (with a last entry of 1 when this process failed) over the
// processes of `group`; true when the sums arrived and no process failed. A
// run of one process has nothing to add: true unless it failed itself.
inline bool sumOverProcesses(const ProcessGroup& group, std::vector<uint64_t>& values, bool failedHere) {
    values.push_back(failedHere ? 1 : 0);
    const bool arrived = !group.distributed() || (group.sumIntegers && group.sumIntegers(values.data(), values.size()));
    const bool anyFailed = values.back() != 0;
    values.pop_back();
    return arrived && !anyFailed;
}

// Float values that are whole numbers below 2^53 (pair counts), as
// integers and back, exactly.
inline void appendWholeNumbers(const std::vector<float>& from, std::vector<uint64_t>& to) {
    for (float v : from) to.push_back(uint64_t(v));
}

// The bits of floats that exactly one process contributes (the others add
// 0), so that the sum gives each value unchanged.
inline uint64_t floatBitsOf(float v) {
    uint32_t bits = 0;
    static_assert(sizeof bits == sizeof v, "float is 32 bits");
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

inline float floatFromBits(uint64_t bits) {
    const uint32_t narrow = uint32_t(bits);
    float v = 0.0f;
    std::memcpy(&v, &narrow, sizeof v);
    return v;
}

}  // namespace tessaline
