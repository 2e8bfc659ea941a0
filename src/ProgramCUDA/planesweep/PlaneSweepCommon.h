// Pieces shared by the plane sweeps: the projection into a neighbour, the
// 5 x 5 window of a layer of the image stack and its normalised cross
// correlation. Fetches give 0.0 to 1.0 and are compared as they come.
//
// Arithmetic: window sums of products run in one float accumulator with a
// fused multiply-add per term, in the window's loop order; sums of plain
// values are plain additions. Camera geometry (rays, centres, projections)
// uses plain products and sums from left to right. A result cell (x, y)
// stands for image pixel (x * subsample, y * subsample); its viewing ray is
// viewingRayF of that pixel.
#pragma once

#include "CameraGeometry.h"
#include "DeviceCommon.h"
#include "TextureSampler.h"
#include "mycamera.h"

namespace tessaline {

// Image position of X in a camera: (P0 (X,1) / w, P1 (X,1) / w), w = P2 (X,1).
// No test on w.
DEVICE_HOST void sweepProject(const mycamera_cuda& cam, const float X[3], float& u, float& v) {
    float px, py, pw;
    projectF(cam.P, X, px, py, pw);
    u = px / pw;
    v = py / pw;
}

constexpr int kSweepWindowHalf = 2;
constexpr int kSweepWindowCells = 25;
constexpr float kSweepWindowSize = 25.0f;
constexpr double kSweepStabiliser = 1e-05;

// The 5 x 5 window of one layer around (x, y): the fetches at
// (x + 0.5 + i, y + 0.5 + j), i the outer and j the inner loop, their mean
// and the sum of squared deviations (not divided by 25).
struct SweepWindow {
    float values[kSweepWindowCells];
    float mean;
    float squares;
};

DEVICE_HOST void fetchSweepWindow(const LayeredTexture& tex, int layer, float x, float y, SweepWindow& w) {
    float sum = 0.0f;
    int m = 0;
    for (float i = -2.0f; i <= 2.0f; i += 1.0f)
        for (float j = -2.0f; j <= 2.0f; j += 1.0f) {
            const float value = fetchLayered(tex, x + 0.5f + i, y + 0.5f + j, layer);
            w.values[m++] = value;
            sum += value;
        }
    w.mean = sum / kSweepWindowSize;
    float squares = 0.0f;
    for (int k = 0; k < kSweepWindowCells; ++k) {
        const float d = w.values[k] - w.mean;
        squares = fmaF(d, d, squares);
    }
    w.squares = squares;
}

// G / sqrt(S0 * Sn + 1e-05): the product in float, the rest in double.
DEVICE_HOST double sweepNcc(const SweepWindow& ref, const SweepWindow& other) {
    float G = 0.0f;
    for (int k = 0; k < kSweepWindowCells; ++k) G = fmaF(ref.values[k] - ref.mean, other.values[k] - other.mean, G);
    const float product = ref.squares * other.squares;
    return double(G) / sqrt(double(product) + kSweepStabiliser);
}

}  // namespace tessaline
