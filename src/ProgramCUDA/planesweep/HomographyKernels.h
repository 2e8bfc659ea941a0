// The homography plane sweep, driven from the host: per neighbour and plane
// the neighbour's image is warped into the reference view through the
// plane's homography, compared with the reference over windows of growing
// size, and the best mean correlation of each plane kept in a cost volume;
// a last kernel takes the best interior plane of each cell and refines it.
// The planes are z = constant in the reference camera's frame.
#pragma once

#include <cstdint>

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "ImageView.h"
#include "TextureSampler.h"
#include "mycamera.h"
#include "planesweep/PlaneSweepKernels.h"

namespace tessaline {

constexpr float kHomographyFirstBest = -1000.0f;
constexpr double kFlatnessLimit = 0.0001;  // times the window size
constexpr double kHomographyStabiliser = 1e-05;

// A plane's homography, row by row.
struct Homography {
    float h[9];
};

// An 8-bit image whose rows lie `pitch` bytes apart (pitched device memory).
struct PitchedByteImage {
    uint8_t* data;
    size_t pitch;
    int width;
    int height;
};

// Writes the neighbour of layer `layer` of the stack as the reference sees
// it on one plane: pixel (x, y) maps to (a / c, b / c) with
// (a, b, c) = H (x, y, 1). Every pixel is written; a position outside the
// neighbour (or not a number) gives the byte 0. The stack's images and the
// warped image have one size.
struct Kernel_Homography_Image_Warp_CUDA {
    LayeredTexture stack;
    int layer;
    Homography homography;
    PitchedByteImage warped;

    DEVICE_HOST void operator()(int x, int y) const {
        const int width = warped.width, height = warped.height;
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        const float* H = homography.h;
        const float fx = float(x), fy = float(y);
        const float a = fmaF(H[0], fx, H[1] * fy) + H[2];
        const float b = fmaF(H[3], fx, H[4] * fy) + H[5];
        const float c = fmaF(H[6], fx, H[7] * fy) + H[8];
        const float u = a / c;
        const float v = b / c;
        uint8_t byte = 0;
        if (u > 0.0f && u < float(width) && v > 0.0f && v < float(height)) {
            const float T = fetchLayered(stack, u + 0.5f, v + 0.5f, layer);
            byte = uint8_t(int(fmaD(double(T), 255.0, 0.5)));  // rounded to the nearest byte
        }
        warped.data[size_t(y) * warped.pitch + size_t(x)] = byte;
    }
};

// The sweep's cost volume: plane k, cell (x, y) at
// (cells_high * k + y) * cells_wide + x.
struct CostVolume {
    float* values;
    int cells_wide;
    int cells_high;

    DEVICE_HOST float* at(int plane, int x, int y) const {
        return values + (size_t(cells_high) * size_t(plane) + size_t(y)) * size_t(cells_wide) + size_t(x);
    }
};

// Adds one plane's comparison to the cost volume: per level r the window of
// half-size 2r + 2 around the cell's pixel, reference (layer 0 of the
// stack) against the warped neighbour. Levels whose window reaches the
// border or is flat in either image drop out; the mean correlation of the
// others replaces the volume's element when it is larger.
struct Kernel_Add_MultiResolution_NCC_CUDA {
    LayeredTexture tex_imgs;  // width x height images
    Texture2D tex_ref_img;    // the warped neighbour
    int num_levels;
    int subsample;
    int plane_index;
    CostVolume cost_volume;

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= cost_volume.cells_wide || y >= cost_volume.cells_high) return;
        const int width = tex_imgs.width, height = tex_imgs.height;
        const float px = float(x * subsample);
        const float py = float(y * subsample);
        float sum = 0.0f;
        float count = 0.0f;
        for (int r = 0; r < num_levels; ++r) {
            const float e = float(2 * r + 2);
            const float side = 2.0f * e + 1.0f;
            const float n = side * side;
            const double limit = double(n) * kFlatnessLimit;
            if (!(px > e && px < float(width) - e && py > e && py < float(height) - e)) continue;

            // The means first, then the squares and the cross sum; each sum
            // is one accumulator over the window in the order a, then b.
            float sumA = 0.0f, sumB = 0.0f;
            for (float a = -e; a <= e; a += 1.0f)
                for (float b = -e; b <= e; b += 1.0f) {
                    sumA += fetchLayered(tex_imgs, px + a + 0.5f, py + b + 0.5f, 0);
                    sumB += fetch2D(tex_ref_img, px + a + 0.5f, py + b + 0.5f);
                }
            const float meanA = sumA / n;
            const float meanB = sumB / n;
            float SA = 0.0f, SB = 0.0f, G = 0.0f;
            for (float a = -e; a <= e; a += 1.0f)
                for (float b = -e; b <= e; b += 1.0f) {
                    const float dA = fetchLayered(tex_imgs, px + a + 0.5f, py + b + 0.5f, 0) - meanA;
                    const float dB = fetch2D(tex_ref_img, px + a + 0.5f, py + b + 0.5f) - meanB;
                    SA = fmaF(dA, dA, SA);
                    SB = fmaF(dB, dB, SB);
                    G = fmaF(dA, dB, G);
                }
            if (double(SA) < limit) continue;
            if (double(SB) < limit) continue;
            const float ncc = G / sqrtf(SA * SB);
            sum += ncc;
            count += 1.0f;
        }
        const float m = count > 0.0f ? sum / count : 0.0f;
        float* element = cost_volume.at(plane_index, x, y);
        if (m > *element) *element = m;
    }
};

// Best interior plane of a cell (the first of equal scores), refined by a
// parabola through it and its two neighbours, clamped to
// [start, start + num_planes * step], and turned from a depth along the
// reference camera's axis into a distance along the cell's unit ray.
struct Kernel_Take_Best_Depth {
    SweepCells cells;
    mycamera_cuda camera;  // the reference's
    SweepPlanes planes;
    const float* cost_volume;  // as CostVolume lays it out, over the cells

    DEVICE_HOST void operator()(int x, int y) const {
        if (!cells.depth.contains(x, y)) return;
        const int num_planes = planes.num_planes, subsample = cells.subsample;
        const float start = planes.start, step = planes.step;
        const ImageView<float> depth = cells.depth, score = cells.score;
        // The refinement reads the planes around the best one; with fewer
        // than 3 planes they are not in the volume (the wrapper refuses that).
        if (num_planes < 3) return;
        const size_t cell = size_t(depth.index(x, y));
        const size_t planeSize = depth.pixels();
        const float* c = cost_volume + cell;
        float best = kHomographyFirstBest;
        int kb = 1;
        for (int k = 1; k <= num_planes - 2; ++k) {
            const float value = c[size_t(k) * planeSize];
            if (value > best) {
                best = value;
                kb = k;
                depth[cell] = float(k) * step + start;
            }
        }
        const float cMinus = c[size_t(kb - 1) * planeSize];
        const float c0 = c[size_t(kb) * planeSize];
        const float cPlus = c[size_t(kb + 1) * planeSize];
        const float rise = cPlus - cMinus;
        const float curve = -2.0f * c0;
        const double offset = (-0.5 * double(step)) * double(rise) /
                              (double(cPlus) + kHomographyStabiliser + double(cMinus) + double(curve));
        float z = float(double(depth[cell]) + offset);
        z = fmaxf(z, start);
        z = fminf(z, float(num_planes) * step + start);
        float r[3];
        viewingRayF(camera, x * subsample, y * subsample, r);
        depth[cell] = z / r[2];
        score[cell] = best;
    }
};

}  // namespace tessaline
