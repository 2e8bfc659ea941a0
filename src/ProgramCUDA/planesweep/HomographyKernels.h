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
#include "TextureSampler.h"
#include "mycamera.h"

namespace tessaline {

constexpr float kHomographyFirstBest = -1000.0f;
constexpr double kFlatnessLimit = 0.0001;  // times the window size
constexpr double kHomographyStabiliser = 1e-05;

// Writes the neighbour of layer `layer` as the reference sees it on one
// plane: pixel (x, y) maps to (a / c, b / c) with (a, b, c) = H (x, y, 1).
// Every pixel is written; a position outside the neighbour (or not a
// number) gives the byte 0.
struct Kernel_Homography_Image_Warp_CUDA {
    int width;
    int height;
    int layer;
    float h00, h01, h02;
    float h10, h11, h12;
    float h20, h21, h22;
    uint8_t* warped;  // pitched: pixel (x, y) at y * pitch + x
    unsigned long long pitch;
    LayeredTexture tex_imgs;

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        const float fx = float(x), fy = float(y);
        const float a = fmaF(h00, fx, h01 * fy) + h02;
        const float b = fmaF(h10, fx, h11 * fy) + h12;
        const float c = fmaF(h20, fx, h21 * fy) + h22;
        const float u = a / c;
        const float v = b / c;
        uint8_t byte = 0;
        if (u > 0.0f && u < float(width) && v > 0.0f && v < float(height)) {
            const float T = fetchLayered(tex_imgs, u + 0.5f, v + 0.5f, layer);
            byte = uint8_t(int(fmaD(double(T), 255.0, 0.5)));  // rounded to the nearest byte
        }
        warped[size_t(y) * size_t(pitch) + size_t(x)] = byte;
    }
};

// Adds one plane's comparison to the cost volume: per level r the window of
// half-size 2r + 2 around the cell's pixel, reference (layer 0 of tex_imgs)
// against the warped neighbour (tex_ref_img). Levels whose window reaches
// the border or is flat in either image drop out; the mean correlation of
// the others replaces the volume's element when it is larger.
struct Kernel_Add_MultiResolution_NCC_CUDA {
    int width;
    int height;
    int num_levels;
    int out_width;
    int out_height;
    int subsample;
    int plane_index;
    float* cost_volume;  // plane k, cell (x, y) at (out_height * k + y) * out_width + x
    LayeredTexture tex_imgs;
    Texture2D tex_ref_img;

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= out_width || y >= out_height) return;
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
        float* element = cost_volume + (size_t(out_height) * size_t(plane_index) + size_t(y)) * size_t(out_width) + x;
        if (m > *element) *element = m;
    }
};

// Best interior plane of a cell (the first of equal scores), refined by a
// parabola through it and its two neighbours, clamped to
// [start, start + num_planes * step], and turned from a depth along the
// reference camera's axis into a distance along the cell's unit ray.
struct Kernel_Take_Best_Depth {
    int out_width;
    int out_height;
    int subsample;
    mycamera_cuda camera;
    float start;
    float step;
    int num_planes;
    const float* cost_volume;
    float* depth;
    float* score;

    DEVICE_HOST void operator()(int x, int y) const {
        if (x < 0 || y < 0 || x >= out_width || y >= out_height) return;
        // The refinement reads the planes around the best one; with fewer
        // than 3 planes they are not in the volume (the wrapper refuses that).
        if (num_planes < 3) return;
        const size_t cell = size_t(y) * size_t(out_width) + size_t(x);
        const size_t planeSize = size_t(out_width) * size_t(out_height);
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
