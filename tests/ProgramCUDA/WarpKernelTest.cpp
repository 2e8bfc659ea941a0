// The image-pair warp on the CPU backend: against an independent per-pixel
// computation in double on a two-camera plane scene, and on hand-made cameras
// that put a point exactly on the border and depth-tolerance limits.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "CpuBackend.h"
#include "PlaneSceneSupport.h"
#include "kernels/WarpKernels.h"

namespace {

using namespace tessaline;
using tessaline::test::planeCamera;
using tessaline::test::planeDepth;

struct WarpInputs {
    int W, H;
    mycamera_cuda ref, tar;
    std::vector<float> depthRef, depthTar;
    std::vector<int> facetRef, facetTar;
    std::vector<uint8_t> stack;  // layer 0: a filler, layer 1: the target image
};

std::vector<float> runWarp(WarpInputs& in) {
    CpuBackend be;
    LayeredTexture tex = be.makeLayeredTexture(in.stack.data(), in.W, in.H, 2);
    std::vector<float> warped(size_t(in.W) * in.H, 12345.0f);
    Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA k{
        in.ref, in.depthRef.data(), in.facetRef.data(), 0, in.tar, in.depthTar.data(), in.facetTar.data(),
        1,      in.W,           in.H,               warped.data(), tex};
    be.launch2D(in.W, in.H, kImageBlock, kImageBlock, k);
    be.releaseLayeredTexture(tex);
    return warped;
}

// What the warp should give at (x, y), in double; `ambiguous` when the point
// lies so close to one of the decisions that float rounding may go either way.
float expectedWarp(const WarpInputs& in, int x, int y, bool& ambiguous) {
    ambiguous = false;
    const size_t e = size_t(y) * in.W + x;
    if (in.facetRef[e] < 0) return -1.0f;
    double Cr[3], r[3], Ct[3], rt[3];
    tessaline::test::pixelRayD(in.ref, x, y, Cr, r);
    tessaline::test::pixelRayD(in.tar, 0, 0, Ct, rt);
    double X[3];
    for (int k = 0; k < 3; ++k) X[k] = Cr[k] + double(in.depthRef[e]) * r[k];
    double p[3];
    for (int row = 0; row < 3; ++row)
        p[row] = double(in.tar.P[4 * row]) * X[0] + double(in.tar.P[4 * row + 1]) * X[1] +
                 double(in.tar.P[4 * row + 2]) * X[2] + double(in.tar.P[4 * row + 3]);
    if (!(p[2] > 0)) return -1.0f;
    const double u = p[0] / p[2], v = p[1] / p[2];
    const double dt = std::sqrt((Ct[0] - X[0]) * (Ct[0] - X[0]) + (Ct[1] - X[1]) * (Ct[1] - X[1]) +
                                (Ct[2] - X[2]) * (Ct[2] - X[2]));
    const double limits[4] = {u - 10, u - (in.W - 10), v - 10, v - (in.H - 10)};
    for (double l : limits) ambiguous = ambiguous || std::fabs(l) < 1e-3;
    if (!(u > 10 && u < in.W - 10 && v > 10 && v < in.H - 10)) return -1.0f;
    const int ix = int(u), iy = int(v);
    ambiguous = ambiguous || u - ix < 1e-4 || u - ix > 1 - 1e-4 || v - iy < 1e-4 || v - iy > 1 - 1e-4;
    bool visible = false;
    for (int dy = 0; dy <= 1; ++dy)
        for (int dx = 0; dx <= 1; ++dx) {
            const double diff = std::fabs(double(in.depthTar[size_t(iy + dy) * in.W + ix + dx]) - dt);
            ambiguous = ambiguous || std::fabs(diff - 0.01 * dt) < 1e-4 * dt;
            visible = visible || diff < 0.01 * dt;
        }
    if (!visible) return -1.0f;
    const uint8_t* target = in.stack.data() + size_t(in.W) * in.H;
    return 255.0f * sampleBilinearU8(target, in.W, in.H, size_t(in.W), float(u + 0.5), float(v + 0.5));
}

// Two cameras in front of the plane z = 0 with exact plane depth maps, a
// patch of the reference without a facet, and an occluder in the target.
WarpInputs planeScene(int W, int H) {
    WarpInputs in;
    in.W = W;
    in.H = H;
    in.ref = planeCamera(-0.2, 0.05, -2.0, 0.9 * W, W, H);
    in.tar = planeCamera(0.25, -0.05, -2.1, 0.9 * W, W, H);
    in.depthRef.resize(size_t(W) * H);
    in.depthTar.resize(size_t(W) * H);
    in.facetRef.assign(size_t(W) * H, 3);
    in.facetTar.assign(size_t(W) * H, 3);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t e = size_t(y) * W + x;
            in.depthRef[e] = float(planeDepth(in.ref, x, y));
            in.depthTar[e] = float(planeDepth(in.tar, x, y));
            if (x >= W / 2 && x < W / 2 + 4 && y >= 12 && y < 20) in.facetRef[e] = -1;
            if (x >= 20 && x < 26 && y >= H / 2 && y < H / 2 + 6) in.depthTar[e] *= 0.9f;  // occluder
        }
    std::mt19937 rng(7);
    in.stack.resize(2 * size_t(W) * H);
    for (auto& b : in.stack) b = uint8_t(rng() & 0xFF);
    return in;
}

class WarpOnPlane : public ::testing::TestWithParam<std::pair<int, int>> {};

TEST_P(WarpOnPlane, MatchesIndependentPerPixelComputation) {
    WarpInputs in = planeScene(GetParam().first, GetParam().second);
    const std::vector<float> warped = runWarp(in);
    int compared = 0, valid = 0, noFacet = 0, occluded = 0;
    for (int y = 0; y < in.H; ++y)
        for (int x = 0; x < in.W; ++x) {
            bool ambiguous;
            const float want = expectedWarp(in, x, y, ambiguous);
            const float got = warped[size_t(y) * in.W + x];
            if (ambiguous) continue;
            ++compared;
            if (want == -1.0f) {
                EXPECT_EQ(got, -1.0f) << "at " << x << "," << y;
            } else {
                ++valid;
                // The fetch keeps 8 fractional bits of the position, so a
                // rounding flip moves the value by at most one 256th of a
                // texel difference: under one grey level.
                EXPECT_NEAR(got, want, 1.0f) << "at " << x << "," << y;
            }
            if (in.facetRef[size_t(y) * in.W + x] < 0) {
                ++noFacet;
                EXPECT_EQ(got, -1.0f);
            }
        }
    // The occluder hides part of the view: count pixels that only it refuses.
    WarpInputs open = in;
    for (int y = 0; y < in.H; ++y)
        for (int x = 0; x < in.W; ++x) open.depthTar[size_t(y) * in.W + x] = float(planeDepth(in.tar, x, y));
    const std::vector<float> unoccluded = runWarp(open);
    for (size_t e = 0; e < warped.size(); ++e) occluded += warped[e] == -1.0f && unoccluded[e] != -1.0f;
    EXPECT_GT(compared, in.W * in.H * 9 / 10);
    EXPECT_GT(valid, (in.W - 20) * (in.H - 20) / 3);
    EXPECT_GT(noFacet, 0);
    EXPECT_GT(occluded, 4);
}

INSTANTIATE_TEST_SUITE_P(Sizes, WarpOnPlane,
                         ::testing::Values(std::make_pair(64, 48), std::make_pair(47, 33), std::make_pair(65, 49)));

// Hand-made pair: the reference pixel (px, py) looks straight along +z from
// the origin (R = I, t = 0, unit focal length, principal point at the pixel),
// its depth 4 gives X = (0, 0, 4) exactly, and the target's P sends X to
// (U, V) exactly; the target centre is the origin, so dt = 4.
struct ExactPair {
    static constexpr int W = 40, H = 36, px = 7, py = 9;
    WarpInputs in;

    ExactPair(float U, float V, float w = 1.0f) {
        in.W = W;
        in.H = H;
        mycamera_cuda cam{};
        cam.R[0] = cam.R[4] = cam.R[8] = 1.0f;
        cam.K[0] = cam.K[4] = cam.K[8] = 1.0f;
        cam.K[2] = float(px);
        cam.K[5] = float(py);
        in.ref = cam;
        in.tar = cam;
        for (float& p : in.tar.P) p = 0.0f;
        in.tar.P[2] = U * w;
        in.tar.P[6] = V * w;
        in.tar.P[10] = w;
        in.depthRef.assign(size_t(W) * H, 4.0f);
        in.depthTar.assign(size_t(W) * H, 4.0f);
        in.facetRef.assign(size_t(W) * H, 0);
        in.facetTar.assign(size_t(W) * H, 0);
        in.stack.assign(size_t(W) * H, 0);
        in.stack.resize(2 * size_t(W) * H, 200);
    }
    float value() { return runWarp(in)[size_t(py) * W + px]; }
};

TEST(WarpBorder, ExactlyTenPixelsFromAnEdgeIsOut) {
    const float W = ExactPair::W, H = ExactPair::H;
    EXPECT_EQ(ExactPair(10.0f, 15.0f).value(), -1.0f);
    EXPECT_EQ(ExactPair(W - 10.0f, 15.0f).value(), -1.0f);
    EXPECT_EQ(ExactPair(15.0f, 10.0f).value(), -1.0f);
    EXPECT_EQ(ExactPair(15.0f, H - 10.0f).value(), -1.0f);
    EXPECT_NEAR(ExactPair(std::nextafter(10.0f, 11.0f), 15.0f).value(), 200.0f, 1e-3f);
    EXPECT_NEAR(ExactPair(std::nextafter(W - 10.0f, 0.0f), 15.0f).value(), 200.0f, 1e-3f);
    EXPECT_NEAR(ExactPair(15.0f, std::nextafter(10.0f, 11.0f)).value(), 200.0f, 1e-3f);
    EXPECT_NEAR(ExactPair(15.0f, std::nextafter(H - 10.0f, 0.0f)).value(), 200.0f, 1e-3f);
}

TEST(WarpBorder, PointBehindTheTargetIsOut) {
    // pw < 0 puts the point at (-1, -1), whatever the target's depth says.
    EXPECT_EQ(ExactPair(15.0f, 15.0f, -1.0f).value(), -1.0f);
}

TEST(WarpVisibility, OnePercentOfTheTargetDistance) {
    ExactPair inside(15.5f, 15.5f);
    inside.in.depthTar.assign(inside.in.depthTar.size(), 4.0f * 1.0099f);
    EXPECT_NEAR(inside.value(), 200.0f, 1e-3f);

    ExactPair nearer(15.5f, 15.5f);
    nearer.in.depthTar.assign(nearer.in.depthTar.size(), 4.0f * (1.0f - 0.0101f));
    EXPECT_EQ(nearer.value(), -1.0f);

    ExactPair farther(15.5f, 15.5f);
    farther.in.depthTar.assign(farther.in.depthTar.size(), 4.0f * 1.0101f);
    EXPECT_EQ(farther.value(), -1.0f);
}

TEST(WarpVisibility, OneAgreeingCellOfFourIsEnough) {
    for (int cell = 0; cell < 4; ++cell) {
        ExactPair pair(15.5f, 15.5f);
        pair.in.depthTar.assign(pair.in.depthTar.size(), 2.0f);  // an occluder everywhere
        const int ix = 15 + cell % 2, iy = 15 + cell / 2;
        pair.in.depthTar[size_t(iy) * ExactPair::W + ix] = 4.0f;
        EXPECT_NEAR(pair.value(), 200.0f, 1e-3f) << "cell " << cell;
        // A cell outside the four does not count.
        ExactPair beside(15.5f, 15.5f);
        beside.in.depthTar.assign(beside.in.depthTar.size(), 2.0f);
        beside.in.depthTar[size_t(iy) * ExactPair::W + ix + 2] = 4.0f;
        EXPECT_EQ(beside.value(), -1.0f);
    }
}

TEST(WarpVisibility, UncoveredTargetAndMissingFacetGiveNoValue) {
    ExactPair cleared(15.5f, 15.5f);
    cleared.in.depthTar.assign(cleared.in.depthTar.size(), kDepthClear);
    EXPECT_EQ(cleared.value(), -1.0f);

    // The depth is right, but the reference pixel has no front-facing facet.
    ExactPair noFacet(15.5f, 15.5f);
    noFacet.in.facetRef.assign(noFacet.in.facetRef.size(), -1);
    EXPECT_EQ(noFacet.value(), -1.0f);
}

TEST(WarpSampling, BilinearValueOfTheTargetOnTheGreyScale) {
    // A horizontal ramp of 10 grey levels per pixel: at u = 15.25 the value
    // is the ramp there, 152.5.
    ExactPair pair(15.25f, 15.0f);
    const size_t layer = size_t(ExactPair::W) * ExactPair::H;
    for (int y = 0; y < ExactPair::H; ++y)
        for (int x = 0; x < ExactPair::W; ++x) pair.in.stack[layer + size_t(y) * ExactPair::W + x] = uint8_t(10 * x);
    EXPECT_NEAR(pair.value(), 152.5f, 1e-3f);
}

}  // namespace
