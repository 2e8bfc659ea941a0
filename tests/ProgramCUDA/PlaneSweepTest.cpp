// The three plane sweeps on generated scenes: a textured plane z = 0 seen by
// a reference camera and neighbours, images ray cast in double. Each sweep
// must recover the plane over the cells that see it, and the edge cases of
// the sweeps (too few planes, no levels, the strict border tests, flat
// images, blind neighbours) must come out as the sweeps define them.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "kernels/PlaneSweepHomographyKernels.h"

namespace {

using tessaline::test::OnEachBackend;
using tessaline::test::planeCamera;
using tessaline::test::planeDepth;
using tessaline::test::renderPlaneImage;

constexpr int W = 96;
constexpr int H = 80;
constexpr double F = 100.0;

struct Scene {
    std::vector<mycamera_cuda> cameras;  // 0 is the reference
    std::vector<uint8_t> stack;
    int neighbours() const { return int(cameras.size()) - 1; }
};

Scene makeScene(const std::vector<std::array<double, 3>>& centres) {
    Scene s;
    for (const auto& c : centres) {
        s.cameras.push_back(planeCamera(c[0], c[1], c[2], F, W, H));
        const std::vector<uint8_t> img = renderPlaneImage(s.cameras.back(), W, H);
        s.stack.insert(s.stack.end(), img.begin(), img.end());
    }
    return s;
}

// Reference at an angle to the plane (so the depth varies over the image)
// and three neighbours about 0.25 to the side.
Scene obliqueScene() { return makeScene({{0.3, -0.2, -2.0}, {0.05, -0.2, -2.0}, {0.55, -0.15, -2.0}, {0.3, 0.05, -2.0}}); }

// Reference straight in front of the plane at distance 2, two neighbours.
Scene frontalScene() { return makeScene({{0.0, 0.0, -2.0}, {-0.25, 0.0, -2.0}, {0.0, 0.25, -2.0}}); }

// The neighbours' poses relative to camera 0, whose pose becomes R = I,
// t = 0: R' = R R0^T, t' = t - R' t0, P' = K [R' | t'].
std::vector<mycamera_cuda> relativeToReference(const std::vector<mycamera_cuda>& cams) {
    std::vector<mycamera_cuda> out = cams;
    const mycamera_cuda& c0 = cams[0];
    for (mycamera_cuda& c : out) {
        double R[9], t[3];
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k) {
                R[3 * r + k] = 0.0;
                for (int m = 0; m < 3; ++m) R[3 * r + k] += double(c.R[3 * r + m]) * c0.R[3 * k + m];
            }
        for (int r = 0; r < 3; ++r)
            t[r] = c.t[r] - (R[3 * r] * c0.t[0] + R[3 * r + 1] * c0.t[1] + R[3 * r + 2] * c0.t[2]);
        for (int r = 0; r < 3; ++r) {
            for (int k = 0; k < 4; ++k) {
                double s = 0.0;
                for (int m = 0; m < 3; ++m) s += double(c.K[3 * r + m]) * (k < 3 ? R[3 * m + k] : t[m]);
                c.P[4 * r + k] = float(s);
            }
        }
        for (int i = 0; i < 9; ++i) c.R[i] = float(R[i]);
        for (int i = 0; i < 3; ++i) c.t[i] = float(t[i]);
    }
    return out;
}

// True when the plane point of reference pixel (x, y) lies inside every
// neighbour with `margin` pixels to spare: the cells that see the plane.
bool seenByAll(const Scene& s, int x, int y, double margin) {
    double C[3], r[3];
    tessaline::test::pixelRayD(s.cameras[0], x, y, C, r);
    const double d = planeDepth(s.cameras[0], x, y);
    const double X[3] = {C[0] + d * r[0], C[1] + d * r[1], C[2] + d * r[2]};
    for (int n = 1; n <= s.neighbours(); ++n) {
        const float* P = s.cameras[n].P;
        double p[3];
        for (int k = 0; k < 3; ++k) p[k] = P[4 * k] * X[0] + P[4 * k + 1] * X[1] + P[4 * k + 2] * X[2] + P[4 * k + 3];
        const double u = p[0] / p[2], v = p[1] / p[2];
        if (!(p[2] > 0 && u > margin && u < W - 1 - margin && v > margin && v < H - 1 - margin)) return false;
    }
    return true;
}

struct Maps {
    std::vector<float> depth, score;
    std::string output;
};

Maps invDepthSweep(const Scene& s, float start, float step, int planes, int subsample = 1) {
    Maps m;
    const int ow = W / subsample, oh = H / subsample;
    m.depth.assign(size_t(ow) * oh, 0.0f);
    m.score.assign(size_t(ow) * oh, 0.0f);
    testing::internal::CaptureStdout();
    PlaneSweep_InvDepth_CUDA(s.neighbours(), W, H, s.stack.data(), s.cameras.data(), ow, oh, subsample,
                             m.depth.data(), m.score.data(), start, step, planes);
    m.output = testing::internal::GetCapturedStdout();
    return m;
}

Maps heightSweep(const Scene& s, float start, float step, int planes, const float plane[4]) {
    Maps m;
    m.depth.assign(size_t(W) * H, 0.0f);
    m.score.assign(size_t(W) * H, 0.0f);
    testing::internal::CaptureStdout();
    PlaneSweep_Height_CUDA(s.neighbours(), W, H, s.stack.data(), s.cameras.data(), W, H, 1, m.depth.data(),
                           m.score.data(), start, step, planes, plane);
    m.output = testing::internal::GetCapturedStdout();
    return m;
}

Maps homographySweep(const Scene& s, float start, float step, int planes, int levels) {
    Maps m;
    m.depth.assign(size_t(W) * H, 0.0f);
    m.score.assign(size_t(W) * H, 0.0f);
    const std::vector<mycamera_cuda> rel = relativeToReference(s.cameras);
    testing::internal::CaptureStdout();
    PlaneSweep_Homography_CUDA(s.neighbours(), W, H, s.stack.data(), rel.data(), W, H, 1, m.depth.data(),
                               m.score.data(), start, step, planes, levels);
    m.output = testing::internal::GetCapturedStdout();
    return m;
}

class PlaneSweep : public OnEachBackend {};

// ---------------------------------------------------------------- recovery
//
// Checked at every cell at least 6 pixels inside the reference whose plane
// point lies 4 pixels inside every neighbour. Relative errors of distance:
// a disparity of about 11 pixels makes 1% about a tenth of a pixel. The
// parabola's sub-plane refinement leaves a few tenths of a pixel at worst
// on these byte images, far less in the middle of the distribution.

struct ErrorStats {
    std::vector<double> errors;
    void add(double e) { errors.push_back(std::fabs(e)); }
    double median() {
        std::sort(errors.begin(), errors.end());
        return errors.empty() ? 0.0 : errors[errors.size() / 2];
    }
    double max() { return errors.empty() ? 0.0 : *std::max_element(errors.begin(), errors.end()); }
};

TEST_P(PlaneSweep, InvDepthRecoversAnObliquePlane) {
    const Scene s = obliqueScene();
    // Distances here run from about 2.0 to 2.35: sweep 1/2.4 .. 1/1.7.
    const float start = 1.0f / 2.4f, step = 0.004f;
    const int planes = int((1.0f / 1.7f - start) / step) + 1;
    const Maps m = invDepthSweep(s, start, step, planes);
    EXPECT_EQ(m.output, "run kernel...\nthreads per block: 32 32\nnumber of blocks: 4 3\ncopy back data...\n");
    ErrorStats rel;
    for (int y = 6; y < H - 6; ++y)
        for (int x = 6; x < W - 6; ++x) {
            if (!seenByAll(s, x, y, 4.0)) continue;
            const double truth = planeDepth(s.cameras[0], x, y);
            const float e = m.depth[y * W + x];
            ASSERT_GT(e, 0.0f) << x << "," << y;
            rel.add((1.0 / e - truth) / truth);
            EXPECT_GT(m.score[y * W + x], 0.8f) << "cell " << x << "," << y;
        }
    EXPECT_GT(rel.errors.size(), size_t(W * H / 2));
    EXPECT_LT(rel.max(), 0.03);
    EXPECT_LT(rel.median(), 0.003);
}

TEST_P(PlaneSweep, HeightRecoversTheLevelOfThePlane) {
    const Scene s = obliqueScene();
    // h = 2 z + 0.6: the textured plane z = 0 is the level 0.6, in units of
    // |(a, b, c)| = 2 (an error of 0.02 is 0.01 in space, 0.5% of distance).
    const float plane[4] = {0.0f, 0.0f, 2.0f, 0.6f};
    const Maps m = heightSweep(s, 0.3f, 0.01f, 61, plane);
    EXPECT_EQ(m.output, "copy back data...\n");  // the height sweep prints no launch geometry
    ErrorStats abs;
    for (int y = 6; y < H - 6; ++y)
        for (int x = 6; x < W - 6; ++x) {
            if (!seenByAll(s, x, y, 4.0)) continue;
            abs.add(m.depth[y * W + x] - 0.6);
            EXPECT_GT(m.score[y * W + x], 0.8f) << "cell " << x << "," << y;
        }
    EXPECT_GT(abs.errors.size(), size_t(W * H / 2));
    EXPECT_LT(abs.max(), 0.06);
    EXPECT_LT(abs.median(), 0.01);
}

TEST_P(PlaneSweep, HomographyRecoversAFrontalPlane) {
    const Scene s = frontalScene();
    const Maps m = homographySweep(s, 1.9f, 0.01f, 21, 2);
    EXPECT_EQ(m.output, "");
    ErrorStats rel;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const float score = m.score[y * W + x];
            EXPECT_GE(score, 0.0f);  // never the first best of -1000
            // Level 1 needs a window of half-size 4 inside the image.
            if (x <= 4 || y <= 4 || x >= W - 4 || y >= H - 4 || !seenByAll(s, x, y, 5.0)) continue;
            const double truth = planeDepth(s.cameras[0], x, y);
            rel.add((m.depth[y * W + x] - truth) / truth);
            EXPECT_GT(score, 0.8f) << "cell " << x << "," << y;
        }
    EXPECT_GT(rel.errors.size(), size_t(W * H / 2));
    EXPECT_LT(rel.max(), 0.006);
    EXPECT_LT(rel.median(), 0.0015);
}

TEST_P(PlaneSweep, SubsampledGridReadsEverySubsampleThPixel) {
    const Scene s = obliqueScene();
    const float start = 1.0f / 2.4f, step = 0.004f;
    const int planes = int((1.0f / 1.7f - start) / step) + 1;
    const Maps full = invDepthSweep(s, start, step, planes, 1);
    const Maps half = invDepthSweep(s, start, step, planes, 2);
    EXPECT_EQ(half.output, "run kernel...\nthreads per block: 32 32\nnumber of blocks: 2 2\ncopy back data...\n");
    for (int y = 0; y < H / 2; ++y)
        for (int x = 0; x < W / 2; ++x) {
            EXPECT_EQ(half.depth[y * (W / 2) + x], full.depth[2 * y * W + 2 * x]);
            EXPECT_EQ(half.score[y * (W / 2) + x], full.score[2 * y * W + 2 * x]);
        }
}

// ------------------------------------------------------------- edge cases

TEST_P(PlaneSweep, TwoPlanesLeaveTheDepthUnwritten) {
    const Scene s = obliqueScene();
    const Maps inv = invDepthSweep(s, 0.45f, 0.01f, 2);
    for (size_t i = 0; i < inv.depth.size(); ++i) {
        ASSERT_EQ(inv.depth[i], 0.0f);
        // Value 0 is the point at infinity: no neighbour sees it.
        ASSERT_EQ(inv.score[i], -1.0f);
    }
    // The height sweep then scores the level h = 0, here the textured plane.
    const float plane[4] = {0.0f, 0.0f, 1.0f, 0.0f};
    const Maps h = heightSweep(s, 0.2f, 0.1f, 2, plane);
    for (int y = 6; y < H - 6; ++y)
        for (int x = 6; x < W - 6; ++x) {
            ASSERT_EQ(h.depth[y * W + x], 0.0f);
            if (seenByAll(s, x, y, 4.0)) EXPECT_GT(h.score[y * W + x], 0.9f);
        }
}

TEST_P(PlaneSweep, FlatImagesPickTheFirstInteriorPlane) {
    Scene s = obliqueScene();
    std::fill(s.stack.begin(), s.stack.end(), uint8_t(255));
    // Every ncc is exactly 0 and every cost 0.5: the strict test keeps plane
    // 1, and the parabola through equal costs does not move it.
    const Maps inv = invDepthSweep(s, 0.45f, 0.01f, 8);
    const float plane[4] = {0.0f, 0.0f, 1.0f, 0.0f};
    const Maps h = heightSweep(s, -0.05f, 0.01f, 8, plane);
    for (int y = 6; y < H - 6; ++y)
        for (int x = 6; x < W - 6; ++x) {
            EXPECT_EQ(inv.depth[y * W + x], 1.0f * 0.01f + 0.45f);
            EXPECT_EQ(h.depth[y * W + x], 1.0f * 0.01f + -0.05f);
            if (seenByAll(s, x, y, 4.0)) {
                EXPECT_EQ(inv.score[y * W + x], 0.0f);
                EXPECT_EQ(h.score[y * W + x], 0.0f);
            }
        }
}

TEST_P(PlaneSweep, NeighbourThatDoesNotSeeThePointIsLeftOutOfTheScore) {
    // A neighbour beside the reference that looks 56 degrees away: every
    // point the reference sees falls outside its frame.
    Scene s = obliqueScene();
    s.cameras.resize(1);
    s.stack.resize(size_t(W) * H);
    const double c[3] = {0.3, -0.2, -2.0}, target[3] = {3.3, -0.2, 0.0}, up[3] = {0, -1, 0};
    s.cameras.push_back(tessaline::test::lookAtCamera(c, target, up, F, F, 0.5 * (W - 1), 0.5 * (H - 1)));
    const std::vector<uint8_t> img = renderPlaneImage(s.cameras.back(), W, H);
    s.stack.insert(s.stack.end(), img.begin(), img.end());
    const Maps inv = invDepthSweep(s, 0.42f, 0.01f, 12);
    const float plane[4] = {0.0f, 0.0f, 1.0f, 0.0f};
    const Maps h = heightSweep(s, -0.05f, 0.01f, 12, plane);
    for (size_t i = 0; i < inv.score.size(); ++i) {
        ASSERT_EQ(inv.score[i], -1.0f);
        ASSERT_EQ(h.score[i], -1.0f);
    }
}

TEST_P(PlaneSweep, NegativeInverseDistanceScoresAsUnseen) {
    const Scene s = obliqueScene();
    const Maps m = invDepthSweep(s, -0.6f, 0.01f, 21);
    int negative = 0;
    for (size_t i = 0; i < m.depth.size(); ++i)
        if (m.depth[i] < 0.0f) {
            ++negative;
            ASSERT_EQ(m.score[i], -1.0f);
        }
    EXPECT_GT(negative, int(m.depth.size()) * 9 / 10);
}

TEST_P(PlaneSweep, HomographyWithoutLevelsPicksPlaneOne) {
    const Scene s = frontalScene();
    const float start = 1.9f, step = 0.02f;
    const Maps m = homographySweep(s, start, step, 5, 0);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            double C[3], r[3];
            tessaline::test::pixelRayD(s.cameras[0], x, y, C, r);
            EXPECT_NEAR(m.depth[y * W + x], (1.0f * step + start) / r[2], 1e-6);
            EXPECT_EQ(m.score[y * W + x], 0.0f);
        }
}

TEST_P(PlaneSweep, HomographyBorderTestsAreStrict) {
    // One level, half-size 2: a pixel coordinate of 2 or less, or of the
    // size minus 2 or more, is out; 3 and the size minus 3 are in.
    const Scene s = frontalScene();
    const Maps m = homographySweep(s, 1.9f, 0.02f, 11, 1);
    const int y = H / 2, x = W / 2;
    for (int edge : {0, 1, 2, W - 2, W - 1}) EXPECT_EQ(m.score[y * W + edge], 0.0f) << "x " << edge;
    for (int edge : {0, 1, 2, H - 2, H - 1}) EXPECT_EQ(m.score[edge * W + x], 0.0f) << "y " << edge;
    EXPECT_GT(m.score[y * W + 3], 0.0f);
    EXPECT_GT(m.score[y * W + W - 3], 0.0f);
    EXPECT_GT(m.score[3 * W + x], 0.0f);
    EXPECT_GT(m.score[(H - 3) * W + x], 0.0f);
}

TEST_P(PlaneSweep, BadArgumentsAreRefusedWithoutTouchingTheOutputs) {
    const Scene s = frontalScene();
    const std::vector<mycamera_cuda> rel = relativeToReference(s.cameras);
    std::vector<float> depth(size_t(W) * H, 7.0f), score(size_t(W) * H, 7.0f);
    const float plane[4] = {0, 0, 1, 0};
    auto refused = [&](const std::string& out) {
        EXPECT_EQ(out.rfind("Error: ", 0), 0u) << out;
        for (size_t i = 0; i < depth.size(); ++i) ASSERT_TRUE(depth[i] == 7.0f && score[i] == 7.0f);
    };
    testing::internal::CaptureStdout();
    PlaneSweep_Homography_CUDA(2, W, H, s.stack.data(), rel.data(), W, H, 1, depth.data(), score.data(), 1.9f, 0.1f,
                               2, 1);
    refused(testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
    PlaneSweep_Homography_CUDA(2, W, H, s.stack.data(), rel.data(), W, H, 1, depth.data(), score.data(), 1.9f, 0.1f,
                               5, -1);
    refused(testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
    PlaneSweep_InvDepth_CUDA(0, W, H, s.stack.data(), s.cameras.data(), W, H, 1, depth.data(), score.data(), 0.5f,
                             0.01f, 5);
    refused(testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
    PlaneSweep_InvDepth_CUDA(2, W, H, s.stack.data(), s.cameras.data(), W, H, 0, depth.data(), score.data(), 0.5f,
                             0.01f, 5);
    refused(testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
    PlaneSweep_Height_CUDA(2, W, H, s.stack.data(), s.cameras.data(), W, H, 1, depth.data(), score.data(), 0.0f,
                           0.01f, 5, nullptr);
    refused(testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
    PlaneSweep_Height_CUDA(2, W, H, nullptr, s.cameras.data(), W, H, 1, depth.data(), score.data(), 0.0f, 0.01f, 5,
                           plane);
    refused(testing::internal::GetCapturedStdout());
}

TESSALINE_INSTANTIATE_ON_BACKENDS(PlaneSweep);

// ------------------------------------------------------ backend agreement

TEST(PlaneSweepParity, BackendsAgreeBitForBit) {
    if (!cudaDeviceAvailable()) GTEST_SKIP() << "no CUDA device";
    const Scene s = obliqueScene();
    const Scene f = frontalScene();
    const float plane[4] = {0.0f, 0.0f, 2.0f, 0.6f};
    Maps inv[2], h[2], hom[2];
    const DeviceBackend backends[2] = {DeviceBackend::Cpu, DeviceBackend::Cuda};
    for (int b = 0; b < 2; ++b) {
        ASSERT_TRUE(setActiveDeviceBackend(backends[b]));
        inv[b] = invDepthSweep(s, 0.42f, 0.004f, 40);
        h[b] = heightSweep(s, 0.3f, 0.01f, 61, plane);
        hom[b] = homographySweep(f, 1.9f, 0.01f, 21, 2);
    }
    setActiveDeviceBackend(DeviceBackend::Cpu);
    for (size_t i = 0; i < inv[0].depth.size(); ++i) {
        ASSERT_EQ(inv[0].depth[i], inv[1].depth[i]) << i;
        ASSERT_EQ(inv[0].score[i], inv[1].score[i]) << i;
        ASSERT_EQ(h[0].depth[i], h[1].depth[i]) << i;
        ASSERT_EQ(h[0].score[i], h[1].score[i]) << i;
        ASSERT_EQ(hom[0].depth[i], hom[1].depth[i]) << i;
        ASSERT_EQ(hom[0].score[i], hom[1].score[i]) << i;
    }
}

// ------------------------------------------------------------ warp kernel

TEST(HomographyWarp, IdentityCopiesTheImageInsideTheStrictBorder) {
    const int w = 17, h = 15;
    std::vector<uint8_t> img(size_t(w) * h * 2);
    for (size_t i = 0; i < img.size(); ++i) img[i] = uint8_t((i * 37 + 11) % 256);
    tessaline::LayeredTexture tex;
    tex.data = img.data();
    tex.width = w;
    tex.height = h;
    tex.layers = 2;
    const size_t pitch = 32;
    std::vector<uint8_t> warped(pitch * h, 99);
    tessaline::Kernel_Homography_Image_Warp_CUDA k{w, h, 1, 1, 0, 0, 0, 1, 0, 0, 0, 1, warped.data(), pitch, 0.5f,
                                                   tex};
    for (int y = 0; y < h + 3; ++y)
        for (int x = 0; x < int(pitch); ++x) k(x, y);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < int(pitch); ++x) {
            const uint8_t expect = x >= w ? 99 : (x == 0 || y == 0) ? 0 : img[size_t(w) * h + size_t(y) * w + x];
            ASSERT_EQ(warped[y * pitch + x], expect) << x << "," << y;
        }
    // A third row of zeros gives c = 0: every position is infinite or not
    // a number, and every byte 0.
    tessaline::Kernel_Homography_Image_Warp_CUDA z = k;
    z.h22 = 0.0f;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) z(x, y);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) ASSERT_EQ(warped[y * pitch + x], 0) << x << "," << y;
}

}  // namespace
