// Entry points of the three plane sweeps. Each clears the depth and score
// maps on the device, uploads the cameras or computes the homographies,
// uploads the image stack behind its layered texture, runs the sweep and
// reads the two maps back, bracketed by the printf ring.
#pragma once

#include <climits>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "LaunchGeometry.h"
#include "backend/DeviceMemory.h"
#include "backend/EntryPoint.h"
#include "mycamera.h"
#include "planesweep/HomographyKernels.h"
#include "planesweep/PlaneSweepKernels.h"
#include "printf/PrintfBracket.h"

namespace tessaline {

// Arguments common to the sweeps: a stack of num_neighbours + 1 images of
// width x height bytes, as many cameras, a result grid and two outputs.
inline void checkSweepInputs(ArgumentCheck& check, const SweepInputs& s) {
    check.require(s.num_neighbours >= 1, "at least one neighbour is needed");
    check.require(s.width > 0 && s.height > 0, "the images must have a positive size");
    check.require(imageFitsIntIndex(s.width, s.height), "the images are too large");
    check.require(s.out_width > 0 && s.out_height > 0, "the result grid must have a positive size");
    check.require(imageFitsIntIndex(s.out_width, s.out_height), "the result grid is too large");
    check.require(s.subsample >= 1, "subsample must be 1 or more");
    check.require((long long)(s.out_width - 1) * s.subsample <= (long long)INT_MAX &&
                      (long long)(s.out_height - 1) * s.subsample <= (long long)INT_MAX,
                  "subsample times the result grid is too large");
    check.require(s.image_stack != nullptr && s.cameras != nullptr, "images and cameras must be given");
    check.require(s.depth != nullptr && s.score != nullptr, "depth and score must be given");
}

// The device side of a sweep's common inputs and outputs.
template <class Backend>
struct SweepBuffers {
    size_t cells;
    DeviceBuffer<float, Backend> depth, score;
    OwnedTexture<LayeredTexture, Backend> stack;

    SweepBuffers(Backend& be, const SweepInputs& s)
        : cells(size_t(s.out_width) * size_t(s.out_height)), depth(be, cells), score(be, cells),
          stack(makeImageStack(be, s.image_stack, s.width, s.height, s.num_neighbours + 1)) {
        depth.zero();
        score.zero();
    }

    // Reads both maps back; the caller's arrays change only when both came.
    void readBack(Backend& be, const SweepInputs& s) {
        std::vector<float> d(cells), c(cells);
        depth.download(d.data());
        score.download(c.data());
        if (be.failed) return;
        std::copy(d.begin(), d.end(), s.depth);
        std::copy(c.begin(), c.end(), s.score);
    }
};

// The groups of a sweep's kernel records, from its inputs and the device
// copies of its cameras, stack and maps.
inline SweepStack sweepStack(const SweepInputs& s, const mycamera_cuda* cameras, const LayeredTexture& images) {
    return {s.num_neighbours, s.width, s.height, cameras, images};
}

inline SweepCells sweepCells(const SweepInputs& s, float* depth, float* score) {
    return {imageView(depth, s.out_width, s.out_height), imageView(score, s.out_width, s.out_height), s.subsample};
}

inline SweepPlanes sweepPlanes(const SweepInputs& s) { return {s.num_planes, s.start, s.step}; }

// The course shared by the two single-launch sweeps: `makeKernel(stack,
// cells)` builds the kernel record. Both print "copy back data..." before
// the read-back; `printLaunch` adds the launch geometry lines in front of
// the launch.
template <class Backend, class MakeKernel>
DeviceStatus runSingleLaunchSweep(Backend& be, const char* entry, const SweepInputs& s, bool printLaunch,
                                  const MakeKernel& makeKernel) {
    {
        PrintfRing<Backend> ring(be);
        SweepBuffers<Backend> buffers(be, s);
        DeviceBuffer<mycamera_cuda, Backend> cameras(be, s.cameras, size_t(s.num_neighbours) + 1);
        if (printLaunch && !be.failed) {
            std::printf("run kernel...\n");
            std::printf("threads per block: %d %d\n", kSweepBlock, kSweepBlock);
            std::printf("number of blocks: %u %u\n", gridBlocks(s.out_width, kSweepBlock),
                        gridBlocks(s.out_height, kSweepBlock));
        }
        be.launch(SweepGrid{s.out_width, s.out_height},
                  makeKernel(sweepStack(s, cameras.get(), buffers.stack.view()),
                             sweepCells(s, buffers.depth.get(), buffers.score.get())));
        ring.show();
        if (!be.failed) {
            std::printf("copy back data...\n");
            std::fflush(stdout);
        }
        buffers.readBack(be, s);
    }
    return finishedStatus(be, entry, "depth and score left as they were");
}

inline bool argumentsPass(const InvDepthSweepArgs& a) {
    ArgumentCheck check("PlaneSweep_InvDepth_CUDA");
    checkSweepInputs(check, a.sweep);
    return check.passed();
}

template <class Backend>
DeviceStatus invDepthSweepEntry(Backend& be, const InvDepthSweepArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    const SweepInputs& s = a.sweep;
    return runSingleLaunchSweep(be, "PlaneSweep_InvDepth_CUDA", s, true,
                                [&](const SweepStack& stack, const SweepCells& cells) {
                                    return Kernel_PlaneSweep_InvDepth_CUDA{stack, cells, sweepPlanes(s)};
                                });
}

inline bool argumentsPass(const HeightSweepArgs& a) {
    ArgumentCheck check("PlaneSweep_Height_CUDA");
    checkSweepInputs(check, a.sweep);
    return check.passed();
}

template <class Backend>
DeviceStatus heightSweepEntry(Backend& be, const HeightSweepArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    const SweepInputs& s = a.sweep;
    const PlaneEquation plane{a.plane[0], a.plane[1], a.plane[2], a.plane[3]};
    return runSingleLaunchSweep(be, "PlaneSweep_Height_CUDA", s, false,
                                [&](const SweepStack& stack, const SweepCells& cells) {
                                    return Kernel_PlaneSweep_Height_CUDA{stack, cells, sweepPlanes(s), plane};
                                });
}

// The homography of plane z = s of the reference frame into neighbour n,
// with i = 1 / s: H = K_n (R_n + i t_n e_z^T) K_inv_0, in float, plain
// products and sums from left to right.
inline void planeHomography(const mycamera_cuda& reference, const mycamera_cuda& neighbour, float i, float H[9]) {
    float A[9];
    for (int r = 0; r < 3; ++r) {
        A[3 * r + 0] = neighbour.R[3 * r + 0];
        A[3 * r + 1] = neighbour.R[3 * r + 1];
        A[3 * r + 2] = neighbour.R[3 * r + 2] + i * neighbour.t[r];
    }
    float B[9];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            B[3 * r + c] = neighbour.K[3 * r + 0] * A[0 * 3 + c] + neighbour.K[3 * r + 1] * A[1 * 3 + c] +
                           neighbour.K[3 * r + 2] * A[2 * 3 + c];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            H[3 * r + c] = B[3 * r + 0] * reference.K_inv[0 * 3 + c] + B[3 * r + 1] * reference.K_inv[1 * 3 + c] +
                           B[3 * r + 2] * reference.K_inv[2 * 3 + c];
}

inline bool argumentsPass(const HomographySweepArgs& a) {
    ArgumentCheck check("PlaneSweep_Homography_CUDA");
    const SweepInputs& s = a.sweep;
    check.require(s.num_planes >= 3, "at least 3 planes are needed");
    check.require(a.num_levels >= 0, "the number of levels must not be negative");
    check.require((long long)s.num_planes * s.out_width * s.out_height < (1ll << 40), "the cost volume is too large");
    checkSweepInputs(check, s);
    return check.passed();
}

template <class Backend>
DeviceStatus homographySweepEntry(Backend& be, const HomographySweepArgs& a) {
    if (!argumentsPass(a)) return DeviceStatus::Refused;
    const SweepInputs& s = a.sweep;
    {
        PrintfRing<Backend> ring(be);
        SweepBuffers<Backend> buffers(be, s);
        // The warped image always lies at the same address, so one texture
        // view of it serves every plane: each comparison sees the warp
        // launched just before it, in stream order.
        PitchedImage<Backend> warped(be, s.width, s.height);
        DeviceBuffer<float, Backend> cost(be, size_t(s.num_planes) * buffers.cells);
        cost.zero();
        const LayeredTexture stack = buffers.stack.view();
        const PitchedByteImage warpedImage{warped.data(), warped.pitch(), s.width, s.height};
        const CostVolume volume{cost.get(), s.out_width, s.out_height};
        for (int n = 1; n <= s.num_neighbours && !be.failed; ++n)
            for (int k = 0; k < s.num_planes; ++k) {
                const float depthValue = float(k) * s.step + s.start;
                Homography H;
                planeHomography(s.cameras[0], s.cameras[n], float(1.0 / double(depthValue)), H.h);
                be.launch(SweepGrid{s.width, s.height}, Kernel_Homography_Image_Warp_CUDA{stack, n, H, warpedImage});
                be.launch(SweepGrid{s.out_width, s.out_height},
                          Kernel_Add_MultiResolution_NCC_CUDA{stack, warped.view(), a.num_levels, s.subsample, k,
                                                              volume});
            }
        be.launch(SweepGrid{s.out_width, s.out_height},
                  Kernel_Take_Best_Depth{sweepCells(s, buffers.depth.get(), buffers.score.get()), s.cameras[0],
                                         sweepPlanes(s), cost.get()});
        ring.show();
        buffers.readBack(be, s);
        be.synchronize();
    }
    return finishedStatus(be, "PlaneSweep_Homography_CUDA", "depth and score left as they were");
}

}  // namespace tessaline
