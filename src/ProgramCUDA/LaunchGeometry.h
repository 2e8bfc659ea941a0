// Launch geometries shared by both backends. Every grid is an unsigned
// division plus one, so the last block may be wholly idle; kernels guard
// their own range, and the CPU backend visits the same index space.
//
// A launch names its geometry as a value whose type carries the block shape,
// `be.launch(WideRun{n}, kernel)`: the CUDA backend then compiles each
// kernel for exactly the block it is launched with (its launch bounds), and
// the compiler's resource report names that block with the kernel.
#pragma once

namespace tessaline {

constexpr int kImageBlock = 16;        // per-pixel kernels of a camera pair
constexpr int kWideBlock = 512;        // vertices, facets, pixel runs
constexpr int kNarrowBlock = 256;      // ComputeSmoothnessGradient_CUDA alone
constexpr int kSweepBlock = 32;        // plane-sweep kernels

inline unsigned gridBlocks(int n, int block) { return unsigned(n) / unsigned(block) + 1u; }

// One thread per element of a run of n: blocks of `Block` threads.
template <int Block>
struct ElementRun {
    static constexpr int kBlock = Block;
    int n;
};

// One thread per cell of a width x height grid: blocks of BX x BY threads.
template <int BX, int BY>
struct CellGrid {
    static constexpr int kBlockX = BX;
    static constexpr int kBlockY = BY;
    int width;
    int height;
};

using WideRun = ElementRun<kWideBlock>;
using NarrowRun = ElementRun<kNarrowBlock>;
using ImageGrid = CellGrid<kImageBlock, kImageBlock>;
using SweepGrid = CellGrid<kSweepBlock, kSweepBlock>;

}  // namespace tessaline
