// Launch geometries shared by both backends. Every grid is an unsigned
// division plus one, so the last block may be wholly idle; kernels guard
// their own range, and the CPU backend visits the same index space.
#pragma once

namespace tessaline {

constexpr int kImageBlock = 16;        // per-pixel kernels of a camera pair
constexpr int kWideBlock = 512;        // vertices, facets, pixel runs
constexpr int kNarrowBlock = 256;      // ComputeSmoothnessGradient_CUDA alone
constexpr int kSweepBlock = 32;        // plane-sweep kernels

inline unsigned gridBlocks(int n, int block) { return unsigned(n) / unsigned(block) + 1u; }

}  // namespace tessaline
