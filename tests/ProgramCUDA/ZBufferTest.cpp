// The z-buffer against an independent brute-force render in double
// precision, on every backend present.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"

namespace {

using tessaline::test::OnEachBackend;

constexpr float kClear = std::numeric_limits<float>::max();

struct Render {
    std::vector<float> depth, baryB, baryC;
    std::vector<int> facet;
};

Render renderOnDevice(const std::vector<float>& v, const std::vector<int>& f, const mycamera_cuda& cam, int W, int H) {
    Render r;
    r.depth.assign(size_t(W) * H, kClear);
    r.facet.assign(size_t(W) * H, -1);
    r.baryB.assign(size_t(W) * H, -1.0f);
    r.baryC.assign(size_t(W) * H, -1.0f);
    TriMesh_Image_ZBuffering_CUDA(int(v.size() / 3), v.data(), int(f.size() / 3), f.data(), cam, 0, 0, W, H,
                                  r.depth.data(), r.facet.data(), r.baryB.data(), r.baryC.data());
    return r;
}

// Camera at the origin looking along +z: R = I, t = 0.
mycamera_cuda frontCamera(double f, double cx, double cy) {
    const double c[3] = {0, 0, 0}, target[3] = {0, 0, 1}, up[3] = {0, -1, 0};
    return tessaline::test::lookAtCamera(c, target, up, f, f, cx, cy);
}

struct BruteFacet {
    bool kept;
    double x[3], y[3], d[3];
    bool front;
};

// Projects a facet in double and applies the margin rule with the same
// truncation as the renderer.
BruteFacet bruteFacet(const std::vector<float>& v, const int* idx, const mycamera_cuda& cam, int W, int H) {
    BruteFacet b{};
    int xLo = 1 << 30, xHi = -(1 << 30), yLo = 1 << 30, yHi = -(1 << 30);
    for (int k = 0; k < 3; ++k) {
        const double X[3] = {v[3 * idx[k]], v[3 * idx[k] + 1], v[3 * idx[k] + 2]};
        double p[3];
        for (int r = 0; r < 3; ++r)
            p[r] = double(cam.P[4 * r]) * X[0] + double(cam.P[4 * r + 1]) * X[1] + double(cam.P[4 * r + 2]) * X[2] +
                   double(cam.P[4 * r + 3]);
        b.x[k] = p[2] > 0 ? p[0] / p[2] : -1.0;
        b.y[k] = p[2] > 0 ? p[1] / p[2] : -1.0;
        b.d[k] = std::sqrt(X[0] * X[0] + X[1] * X[1] + X[2] * X[2]);
        xLo = std::min(xLo, int(b.x[k] - 0.5));
        xHi = std::max(xHi, int(b.x[k] + 0.5));
        yLo = std::min(yLo, int(b.y[k] - 0.5));
        yHi = std::max(yHi, int(b.y[k] + 0.5));
    }
    b.kept = !(xLo - 1 < 10 || yLo - 1 < 10 || xHi + 1 > W - 10 || yHi + 1 > H - 10);
    const double det = (b.y[1] - b.y[0]) * (b.x[2] - b.x[0]) - (b.x[1] - b.x[0]) * (b.y[2] - b.y[0]);
    b.front = det > 0;
    return b;
}

// Weights (b, c) of pixel (px, py) in a projected facet, in double.
void brutePixel(const BruteFacet& f, double px, double py, double& b, double& c) {
    const double det = (f.y[1] - f.y[0]) * (f.x[2] - f.x[0]) - (f.x[1] - f.x[0]) * (f.y[2] - f.y[0]);
    b = ((f.y[0] - f.y[2]) * (px - f.x[2]) - (f.x[0] - f.x[2]) * (py - f.y[2])) / det;
    c = ((f.y[1] - f.y[0]) * (px - f.x[0]) - (f.x[1] - f.x[0]) * (py - f.y[0])) / det;
}

class ZBuffer : public OnEachBackend {};

TEST_P(ZBuffer, MatchesBruteForceRenderOfRandomFacets) {
    const int W = 97, H = 66;  // not multiples of the block sizes
    const mycamera_cuda cam = frontCamera(80.0, 48.3, 32.7);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> U(-1.0f, 1.0f), Z(2.0f, 5.0f);
    std::vector<float> v;
    std::vector<int> f;
    for (int t = 0; t < 60; ++t) {
        const float cx = 0.45f * U(rng), cy = 0.3f * U(rng), cz = Z(rng);
        for (int k = 0; k < 3; ++k) {
            v.push_back((cx + 0.25f * U(rng)) * cz);
            v.push_back((cy + 0.25f * U(rng)) * cz * 0.6f);
            v.push_back(cz + 0.3f * U(rng));
            f.push_back(int(v.size() / 3) - 1);
        }
    }
    const Render r = renderOnDevice(v, f, cam, W, H);

    std::vector<BruteFacet> bf;
    for (size_t t = 0; t < f.size() / 3; ++t) bf.push_back(bruteFacet(v, &f[3 * t], cam, W, H));

    int compared = 0, idCompared = 0, kept = 0, back = 0;
    for (const auto& b : bf) kept += b.kept, back += b.kept && !b.front;
    ASSERT_GT(kept, 10);
    ASSERT_GT(back, 3);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t e = size_t(y) * W + x;
            double best = std::numeric_limits<double>::infinity(), second = best;
            int bestFacet = -2;
            bool ambiguous = false;
            for (size_t t = 0; t < bf.size(); ++t) {
                if (!bf[t].kept) continue;
                double b, c;
                brutePixel(bf[t], x, y, b, c);
                const double eps = 1e-4;
                if (b < -eps || c < -eps || b + c > 1 + eps) continue;
                if (b < eps || c < eps || b + c > 1 - eps) ambiguous = true;  // on an edge: rounding decides
                const double d = (1 - b - c) * bf[t].d[0] + b * bf[t].d[1] + c * bf[t].d[2];
                if (d < best) {
                    second = best;
                    best = d;
                    bestFacet = bf[t].front ? int(t) : -1;
                } else if (d < second) {
                    second = d;
                }
            }
            if (ambiguous) continue;
            if (bestFacet == -2) {
                EXPECT_EQ(r.depth[e], kClear) << x << "," << y;
                EXPECT_EQ(r.facet[e], -1) << x << "," << y;
                continue;
            }
            ++compared;
            EXPECT_NEAR(r.depth[e], best, 1e-4 * best) << x << "," << y;
            if (second - best > 1e-3) {
                ++idCompared;
                EXPECT_EQ(r.facet[e], bestFacet) << x << "," << y;
                if (bestFacet >= 0) {
                    double b, c;
                    brutePixel(bf[bestFacet], x, y, b, c);
                    EXPECT_NEAR(r.baryB[e], b, 1e-4);
                    EXPECT_NEAR(r.baryC[e], c, 1e-4);
                } else {
                    EXPECT_EQ(r.baryB[e], -1.0f);
                    EXPECT_EQ(r.baryC[e], -1.0f);
                }
            }
        }
    EXPECT_GT(compared, 500);
    EXPECT_GT(idCompared, 400);
}

TEST_P(ZBuffer, MarginFrameKeepsClearValuesAndNearBorderFacetsVanish) {
    const int W = 64, H = 48;
    const mycamera_cuda cam = frontCamera(40.0, 32.0, 24.0);
    // A large facet covering most of the view, reaching into the margin: dropped whole.
    // A small one well inside: kept.
    const std::vector<float> v = {-1.5f, -1.0f, 2.0f, 1.5f, -1.0f, 2.0f, 0.0f, 1.2f, 2.0f,
                                  -0.2f, -0.1f, 2.0f, 0.2f, -0.1f, 2.0f, 0.0f, 0.2f,  2.0f};
    // Winding chosen front-facing in an image whose rows grow downward.
    const std::vector<int> f = {0, 2, 1, 3, 5, 4};
    const Render r = renderOnDevice(v, f, cam, W, H);
    int covered = 0;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t e = size_t(y) * W + x;
            if (x < 10 || y < 10 || x >= W - 10 || y >= H - 10) {
                EXPECT_EQ(r.depth[e], kClear);
                EXPECT_EQ(r.facet[e], -1);
            }
            EXPECT_NE(r.facet[e], 0) << "the facet reaching into the margin must leave no trace";
            if (r.facet[e] == 1) ++covered;
        }
    EXPECT_GT(covered, 20);
}

TEST_P(ZBuffer, TinyAreaBehindCameraFacetAndNoFacetRenderNothing) {
    const mycamera_cuda cam = frontCamera(10.0, 10.0, 10.0);
    const std::vector<float> v = {-0.1f, -0.1f, 2.0f, 0.1f, -0.1f, 2.0f, 0.0f, 0.1f, 2.0f,
                                  -0.1f, -0.1f, -2.0f, 0.1f, -0.1f, 2.0f, 0.0f, 0.1f, 2.0f};
    const std::vector<int> f = {0, 2, 1, 3, 5, 4};
    const Render small = renderOnDevice(v, f, cam, 21, 21);
    for (float d : small.depth) EXPECT_EQ(d, kClear);
    const mycamera_cuda wide = frontCamera(100.0, 50.0, 50.0);
    const Render r = renderOnDevice(v, {3, 5, 4}, wide, 100, 100);
    for (float d : r.depth) EXPECT_EQ(d, kClear);
    // No facet at all leaves the buffers as they came.
    const Render none = renderOnDevice(v, {}, wide, 100, 100);
    for (size_t e = 0; e < none.depth.size(); ++e) {
        EXPECT_EQ(none.depth[e], kClear);
        EXPECT_EQ(none.facet[e], -1);
    }
}

TEST_P(ZBuffer, BackFacingFacetInFrontHidesAndLeavesMinusOne) {
    const int W = 64, H = 64;
    const mycamera_cuda cam = frontCamera(60.0, 32.0, 32.0);
    // Front-facing square-ish facet at depth 3, back-facing one at depth 2 in front of it.
    const std::vector<float> v = {-0.6f, -0.6f, 3.0f, 0.6f, -0.6f, 3.0f, 0.0f, 0.6f, 3.0f,
                                  -0.2f, -0.2f, 2.0f, 0.2f, -0.2f, 2.0f, 0.0f, 0.2f, 2.0f};
    const std::vector<int> f = {0, 2, 1, 3, 4, 5};
    const Render r = renderOnDevice(v, f, cam, W, H);
    const size_t centre = size_t(32) * W + 32;
    EXPECT_EQ(r.facet[centre], -1);
    EXPECT_EQ(r.baryB[centre], -1.0f);
    EXPECT_NEAR(r.depth[centre], 2.0f, 0.02f);
    // Beside the back-facing facet, the front one shows.
    const size_t side = size_t(42) * W + 32;
    EXPECT_EQ(r.facet[side], 0);
    EXPECT_NEAR(r.depth[side], 3.0f * std::sqrt(1.0f + (10.0f / 60.0f) * (10.0f / 60.0f)), 0.03f);
}

TESSALINE_INSTANTIATE_ON_BACKENDS(ZBuffer);

}  // namespace
