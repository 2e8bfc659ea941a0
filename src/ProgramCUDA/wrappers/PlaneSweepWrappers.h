// Host wrappers of the three plane sweeps. Each allocates and clears the
// depth and score maps on the device, uploads the cameras or computes the
// homographies, uploads the image stack behind its layered texture, runs
// the sweep and reads the two maps back, bracketed by the printf ring.
#pragma once

#include <cstdint>
#include <cstdio>

#include "LaunchGeometry.h"
#include "kernels/PlaneSweepHomographyKernels.h"
#include "kernels/PlaneSweepKernels.h"
#include "mycamera.h"
#include "wrappers/ArgumentChecks.h"
#include "wrappers/PrintfBracket.h"

namespace tessaline {

// Arguments common to the sweeps: a stack of num_neighbours + 1 images of
// width x height bytes, as many cameras, a result grid and two outputs.
inline bool sweepArgumentsPass(ArgumentCheck& check, int num_neighbours, int width, int height,
                               const uint8_t* image_stack, const mycamera_cuda* cameras, int out_width,
                               int out_height, int subsample, const float* depth, const float* score) {
    check.require(num_neighbours >= 1, "at least one neighbour is needed");
    check.require(width > 0 && height > 0, "the images must have a positive size");
    check.require(imageFitsIntIndex(width, height), "the images are too large");
    check.require(out_width > 0 && out_height > 0, "the result grid must have a positive size");
    check.require(imageFitsIntIndex(out_width, out_height), "the result grid is too large");
    check.require(subsample >= 1, "subsample must be 1 or more");
    check.require((long long)(out_width - 1) * subsample <= (long long)INT_MAX &&
                      (long long)(out_height - 1) * subsample <= (long long)INT_MAX,
                  "subsample times the result grid is too large");
    check.require(image_stack != nullptr && cameras != nullptr, "images and cameras must be given");
    check.require(depth != nullptr && score != nullptr, "depth and score must be given");
    return check.passed();
}

// The course shared by the two single-launch sweeps. `makeKernel(d_cameras,
// d_depth, d_score, stack)` builds the kernel record. Both print "copy back
// data..." before the read-back; `printLaunch` adds the launch geometry lines
// in front of the launch.
template <class Backend, class MakeKernel>
void runSingleLaunchSweep(Backend& be, int num_neighbours, int width, int height, const uint8_t* image_stack,
                          const mycamera_cuda* cameras, int out_width, int out_height, float* depth, float* score,
                          bool printLaunch, const MakeKernel& makeKernel) {
    printfRingOpen(be);
    const size_t cells = size_t(out_width) * size_t(out_height);
    const size_t numCameras = size_t(num_neighbours) + 1;
    float* d_depth = be.template alloc<float>(cells);
    float* d_score = be.template alloc<float>(cells);
    mycamera_cuda* d_cameras = be.template alloc<mycamera_cuda>(numCameras);
    be.zero(d_depth, cells);
    be.zero(d_score, cells);
    be.upload(d_cameras, cameras, numCameras);
    LayeredTexture stack = be.makeLayeredTexture(image_stack, width, height, int(numCameras));
    if (!be.failed) {
        if (printLaunch) {
            std::printf("run kernel...\n");
            std::printf("threads per block: %d %d\n", kSweepBlock, kSweepBlock);
            std::printf("number of blocks: %u %u\n", gridBlocks(out_width, kSweepBlock),
                        gridBlocks(out_height, kSweepBlock));
        }
        be.launch(SweepGrid{out_width, out_height}, makeKernel(d_cameras, d_depth, d_score, stack));
        printfRingShow(be);
        std::printf("copy back data...\n");
        std::fflush(stdout);
        be.download(depth, d_depth, cells);
        be.download(score, d_score, cells);
    } else {
        std::printf("Error: the plane sweep could not get its device memory; nothing done\n");
    }
    be.release(d_depth);
    be.release(d_score);
    be.release(d_cameras);
    be.releaseLayeredTexture(stack);
    printfRingClose(be);
}

template <class Backend>
void planeSweepInvDepthWrapper(Backend& be, int num_neighbours, int width, int height, const uint8_t* image_stack,
                               const mycamera_cuda* cameras, int out_width, int out_height, int subsample,
                               float* depth, float* score, float start, float step, int num_planes) {
    ArgumentCheck check("PlaneSweep_InvDepth_CUDA");
    if (!sweepArgumentsPass(check, num_neighbours, width, height, image_stack, cameras, out_width, out_height,
                            subsample, depth, score))
        return;
    runSingleLaunchSweep(be, num_neighbours, width, height, image_stack, cameras, out_width, out_height, depth, score,
                         true, [&](const mycamera_cuda* d_cameras, float* d_depth, float* d_score,
                                   const LayeredTexture& stack) {
                             return Kernel_PlaneSweep_InvDepth_CUDA{num_neighbours, width, height, d_cameras,
                                                                    out_width, out_height, subsample, d_depth,
                                                                    d_score, num_planes, start, step, stack};
                         });
}

template <class Backend>
void planeSweepHeightWrapper(Backend& be, int num_neighbours, int width, int height, const uint8_t* image_stack,
                             const mycamera_cuda* cameras, int out_width, int out_height, int subsample, float* depth,
                             float* score, float start, float step, int num_planes, const float* plane) {
    ArgumentCheck check("PlaneSweep_Height_CUDA");
    check.require(plane != nullptr, "the plane must be given");
    if (!sweepArgumentsPass(check, num_neighbours, width, height, image_stack, cameras, out_width, out_height,
                            subsample, depth, score))
        return;
    const float a = plane[0], b = plane[1], c = plane[2], d = plane[3];
    runSingleLaunchSweep(be, num_neighbours, width, height, image_stack, cameras, out_width, out_height, depth, score,
                         false, [&](const mycamera_cuda* d_cameras, float* d_depth, float* d_score,
                                    const LayeredTexture& stack) {
                             return Kernel_PlaneSweep_Height_CUDA{num_neighbours, width, height, d_cameras,
                                                                  out_width, out_height, subsample, d_depth,
                                                                  d_score, num_planes, start, step, a, b, c, d,
                                                                  stack};
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

template <class Backend>
void planeSweepHomographyWrapper(Backend& be, int num_neighbours, int width, int height, const uint8_t* image_stack,
                                 const mycamera_cuda* cameras, int out_width, int out_height, int subsample,
                                 float* depth, float* score, float start, float step, int num_planes,
                                 int num_levels) {
    ArgumentCheck check("PlaneSweep_Homography_CUDA");
    check.require(num_planes >= 3, "at least 3 planes are needed");
    check.require(num_levels >= 0, "the number of levels must not be negative");
    check.require((long long)num_planes * out_width * out_height < (1ll << 40), "the cost volume is too large");
    if (!sweepArgumentsPass(check, num_neighbours, width, height, image_stack, cameras, out_width, out_height,
                            subsample, depth, score))
        return;

    printfRingOpen(be);
    const size_t cells = size_t(out_width) * size_t(out_height);
    float* d_depth = be.template alloc<float>(cells);
    float* d_score = be.template alloc<float>(cells);
    be.zero(d_depth, cells);
    be.zero(d_score, cells);
    size_t pitch = 0;
    uint8_t* d_warped = be.allocPitched(width, height, pitch);
    const size_t volume = size_t(num_planes) * cells;
    float* d_cost = be.template alloc<float>(volume);
    be.zero(d_cost, volume);
    LayeredTexture stack = be.makeLayeredTexture(image_stack, width, height, num_neighbours + 1);
    // The warped image always lies at the same address, so one texture view
    // of it serves every plane: each comparison sees the warp launched just
    // before it, in stream order.
    size_t offset = 0;
    Texture2D warpedTex;
    if (!be.failed) {
        warpedTex = be.bindPitched(d_warped, width, height, pitch, offset);
        if (offset != 0) std::printf("Error: offset is not zero %zu\n", offset);
    }
    if (!be.failed) {
        for (int n = 1; n <= num_neighbours; ++n)
            for (int k = 0; k < num_planes; ++k) {
                const float s = float(k) * step + start;
                const float i = float(1.0 / double(s));
                float H[9];
                planeHomography(cameras[0], cameras[n], i, H);
                be.launch(SweepGrid{width, height}, Kernel_Homography_Image_Warp_CUDA{width, height, n, H[0], H[1], H[2], H[3], H[4], H[5],
                                                              H[6], H[7], H[8], d_warped, pitch, i, stack});
                be.launch(SweepGrid{out_width, out_height}, Kernel_Add_MultiResolution_NCC_CUDA{width, height, num_levels, out_width, out_height,
                                                                subsample, k, d_cost, stack, warpedTex});
            }
        be.launch(SweepGrid{out_width, out_height}, Kernel_Take_Best_Depth{num_neighbours, num_levels, out_width, out_height, subsample, cameras[0],
                                           start, step, num_planes, d_cost, d_depth, d_score});
        printfRingShow(be);
        be.download(depth, d_depth, cells);
        be.download(score, d_score, cells);
    } else {
        std::printf("Error: the plane sweep could not get its device memory; nothing done\n");
    }
    be.synchronize();
    be.unbindPitched(warpedTex);
    be.release(d_depth);
    be.release(d_score);
    be.release(d_warped);
    be.release(d_cost);
    be.releaseLayeredTexture(stack);
    printfRingClose(be);
}

}  // namespace tessaline
