// The z-buffer against an independent brute-force render in double
// precision, on every backend present.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"

namespace {

using namespace tessaline::test;

constexpr float kClear = std::numeric_limits<float>::max();

// A facet projected in double, with the renderer's margin rule (the same
// truncation) and its winding: front-facing where det > 0.
struct BruteFacet {
    double x[3], y[3], d[3], det;
    bool kept;

    BruteFacet(const std::vector<float>& v, const int* idx, const mycamera_cuda& cam, int W, int H) {
        int xLo = 1 << 30, xHi = -xLo, yLo = xLo, yHi = -xLo;
        for (int k = 0; k < 3; ++k) {
            const double X[3] = {v[3 * idx[k]], v[3 * idx[k] + 1], v[3 * idx[k] + 2]};
            double p[3];
            for (int r = 0; r < 3; ++r)
                p[r] = double(cam.P[4 * r]) * X[0] + double(cam.P[4 * r + 1]) * X[1] +
                       double(cam.P[4 * r + 2]) * X[2] + double(cam.P[4 * r + 3]);
            x[k] = p[2] > 0 ? p[0] / p[2] : -1.0;
            y[k] = p[2] > 0 ? p[1] / p[2] : -1.0;
            d[k] = std::sqrt(X[0] * X[0] + X[1] * X[1] + X[2] * X[2]);
            xLo = std::min(xLo, int(x[k] - 0.5)), xHi = std::max(xHi, int(x[k] + 0.5));
            yLo = std::min(yLo, int(y[k] - 0.5)), yHi = std::max(yHi, int(y[k] + 0.5));
        }
        kept = !(xLo - 1 < 10 || yLo - 1 < 10 || xHi + 1 > W - 10 || yHi + 1 > H - 10);
        det = (y[1] - y[0]) * (x[2] - x[0]) - (x[1] - x[0]) * (y[2] - y[0]);
    }

    // Weights (b, c) of pixel (px, py).
    void weights(double px, double py, double& b, double& c) const {
        b = ((y[0] - y[2]) * (px - x[2]) - (x[0] - x[2]) * (py - y[2])) / det;
        c = ((y[1] - y[0]) * (px - x[0]) - (x[1] - x[0]) * (py - y[0])) / det;
    }
};

class ZBuffer : public OnEachBackend {};

// Random facets, front- and back-facing, many of them reaching into the
// 10-pixel margin (and dropped whole there), overlapping in depth.
TEST_P(ZBuffer, MatchesBruteForceRenderOfRandomFacets) {
    const int W = 97, H = 66;  // not multiples of the block sizes
    const mycamera_cuda cam = frontCamera(80.0, 48.3, 32.7);
    std::mt19937 rng(7);
    std::vector<float> v;
    std::vector<int> f;
    addRandomFacets(rng, 60, 0.45f, 0.18f, 0.2f, 2.0f, 5.0f, 0.3f, false, v, f);
    const ZRender r = zbuffer(device(), v, f, cam, W, H);

    std::vector<BruteFacet> bf;
    int kept = 0, back = 0;
    for (size_t t = 0; t < f.size() / 3; ++t) {
        bf.emplace_back(v, &f[3 * t], cam, W, H);
        kept += bf.back().kept, back += bf.back().kept && bf.back().det < 0;
    }
    ASSERT_GT(kept, 10);
    ASSERT_LT(kept, 50);
    ASSERT_GT(back, 3);
    int compared = 0, idCompared = 0, backShown = 0;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t e = size_t(y) * W + x;
            double best = std::numeric_limits<double>::infinity(), second = best;
            int bestFacet = -2;
            bool ambiguous = false;
            for (size_t t = 0; t < bf.size(); ++t) {
                if (!bf[t].kept) continue;
                double b, c;
                bf[t].weights(x, y, b, c);
                const double eps = 1e-4;
                if (b < -eps || c < -eps || b + c > 1 + eps) continue;
                if (b < eps || c < eps || b + c > 1 - eps) ambiguous = true;  // on an edge: rounding decides
                const double d = (1 - b - c) * bf[t].d[0] + b * bf[t].d[1] + c * bf[t].d[2];
                if (d < best) {
                    second = best;
                    best = d;
                    bestFacet = bf[t].det > 0 ? int(t) : -1;
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
            if (second - best <= 1e-3) continue;
            ++idCompared, backShown += bestFacet == -1;
            EXPECT_EQ(r.facet[e], bestFacet) << x << "," << y;
            double b = -1.0, c = -1.0;  // a back-facing facet in front leaves -1
            if (bestFacet >= 0) bf[bestFacet].weights(x, y, b, c);
            EXPECT_NEAR(r.b[e], b, 1e-4) << x << "," << y;
            EXPECT_NEAR(r.c[e], c, 1e-4) << x << "," << y;
        }
    EXPECT_GT(compared, 500);
    EXPECT_GT(idCompared, 400);
    EXPECT_GT(backShown, 20);
}

TEST_P(ZBuffer, AreasAndFacetsThatCannotShowRenderNothing) {
    const std::vector<float> v = {-0.1f, -0.1f, 2.0f, 0.1f, -0.1f, 2.0f, 0.0f, 0.1f, 2.0f,
                                  -0.1f, -0.1f, -2.0f, 0.1f, -0.1f, 2.0f, 0.0f, 0.1f, 2.0f};
    const struct {
        const char* name;
        std::vector<int> facets;
        double f;
        int side;
    } cases[] = {{"area narrower than its two margins", {0, 2, 1}, 10.0, 21},
                 {"facet with a vertex behind the camera", {3, 5, 4}, 100.0, 100},
                 {"no facet", {}, 100.0, 100}};
    for (const auto& c : cases) {
        const ZRender r = zbuffer(device(), v, c.facets, frontCamera(c.f, 0.5 * c.side, 0.5 * c.side), c.side, c.side);
        EXPECT_EQ(r.depth, std::vector<float>(r.depth.size(), kClear)) << c.name;
        EXPECT_EQ(r.facet, std::vector<int>(r.facet.size(), -1)) << c.name;
    }
}

// Coincident facets tie in depth at every pixel: the pixel goes to the last
// of them in facet order (as one thread walking the facets would leave it),
// with that facet's weights, and the area they do not cover keeps what the
// caller put there, weights included. Seen from behind, they leave -1 and
// weights -1.0.
TEST_P(ZBuffer, TiesGoToTheLastFacetAndUncoveredPixelsKeepTheirValues) {
    const int W = 160, H = 120;
    const mycamera_cuda cam = frontCamera(150.0, 80.2, 60.1);
    const std::vector<float> v = {-0.6f, -0.45f, 2.0f, 0.65f, -0.4f, 2.0f, -0.05f, 0.55f, 2.4f};
    for (bool front : {true, false}) {
        std::vector<int> facets;
        for (int copy = 0; copy < 600; ++copy) facets.insert(facets.end(), {0, front ? 2 : 1, front ? 1 : 2});
        const ZRender r = zbuffer(device(), v, facets, cam, W, H, 7.0f, 8.0f);
        int covered = 0;
        for (size_t e = 0; e < r.depth.size(); ++e) {
            if (r.depth[e] == kClear) {
                ASSERT_TRUE(r.facet[e] == -1 && r.b[e] == 7.0f && r.c[e] == 8.0f) << "pixel " << e;
                continue;
            }
            ++covered;
            ASSERT_EQ(r.facet[e], front ? 599 : -1) << "pixel " << e;
            if (front)
                ASSERT_TRUE(r.b[e] >= 0.0f && r.c[e] >= 0.0f && r.b[e] + r.c[e] <= 1.0f) << "pixel " << e;
            else
                ASSERT_TRUE(r.b[e] == -1.0f && r.c[e] == -1.0f) << "pixel " << e;
        }
        EXPECT_GT(covered, 2000);
    }
}

TESSALINE_INSTANTIATE_ON_BACKENDS(ZBuffer);

}  // namespace
