// The three plane sweeps on generated scenes: a textured plane z = 0 seen by
// a reference camera and neighbours, images ray cast in double. Each sweep
// must recover the plane over the cells that see it, and the edge cases of
// the sweeps (too few planes, flat images, unseen points, the strict border
// tests) must come out as the sweeps define them.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "planesweep/HomographyKernels.h"

namespace {

using namespace tessaline::test;

constexpr int W = 96, H = 80;
constexpr double F = 100.0;

struct Scene {
    std::vector<mycamera_cuda> cameras;  // 0 is the reference
    std::vector<mycamera_cuda> relative;  // for the homography sweep: poses relative to camera 0
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
Scene obliqueScene() {
    return makeScene({{0.3, -0.2, -2.0}, {0.05, -0.2, -2.0}, {0.55, -0.15, -2.0}, {0.3, 0.05, -2.0}});
}

// Reference straight in front of the plane at distance 2, two neighbours.
// The reference looks along +z (R = I) from (0, 0, -2): the poses relative
// to it are those of the same cameras with the world moved by (0, 0, 2).
Scene frontalScene() {
    const std::vector<std::array<double, 3>> centres = {{0.0, 0.0, -2.0}, {-0.25, 0.0, -2.0}, {0.0, 0.25, -2.0}};
    Scene s = makeScene(centres);
    for (const auto& c : centres) {
        const double moved[3] = {c[0], c[1], c[2] + 2.0}, target[3] = {0, 0, 2}, up[3] = {0, -1, 0};
        s.relative.push_back(lookAtCamera(moved, target, up, F, F, 0.5 * (W - 1), 0.5 * (H - 1)));
    }
    return s;
}

// True when the plane point of reference pixel (x, y) lies inside every
// neighbour with `margin` pixels to spare: the cells that see the plane.
bool seenByAll(const Scene& s, int x, int y, double margin) {
    double C[3], r[3];
    pixelRayD(s.cameras[0], x, y, C, r);
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

// The common inputs of a sweep of the scene's W x H images onto an
// out_width x out_height grid.
SweepInputs sweepInputs(const Scene& s, const std::vector<mycamera_cuda>& cameras, int ow, int oh, int subsample,
                        float* depth, float* score, float start, float step, int planes) {
    return SweepInputs{s.neighbours(), W,     H,     s.stack.data(), cameras.data(), ow,    oh,
                       subsample,      depth, score, start,          step,           planes};
}

// Runs `call(depth, score)` on cleared ow x oh maps and keeps what it printed;
// the call must succeed. Every sweep must leave the printf ring closed
// behind it.
Maps sweep(const DeviceHandle& device, int ow, int oh, const std::function<DeviceStatus(float*, float*)>& call) {
    Maps m{std::vector<float>(size_t(ow) * oh, 0.0f), std::vector<float>(size_t(ow) * oh, 0.0f), ""};
    DeviceStatus status = DeviceStatus::Failed;
    m.output = printedBy([&] { status = call(m.depth.data(), m.score.data()); });
    EXPECT_EQ(status, DeviceStatus::Ok) << m.output;
    EXPECT_EQ(cuPrintfDisplay(device, stdout, true), 1) << "the printf ring is still armed";
    return m;
}

Maps invDepthSweep(const DeviceHandle& device, const Scene& s, float start, float step, int planes,
                   int subsample = 1) {
    const int ow = W / subsample, oh = H / subsample;
    return sweep(device, ow, oh, [&](float* d, float* sc) {
        return PlaneSweep_InvDepth_CUDA(
            device, InvDepthSweepArgs{sweepInputs(s, s.cameras, ow, oh, subsample, d, sc, start, step, planes)});
    });
}

Maps heightSweep(const DeviceHandle& device, const Scene& s, float start, float step, int planes,
                 const float plane[4]) {
    return sweep(device, W, H, [&](float* d, float* sc) {
        HeightSweepArgs args{sweepInputs(s, s.cameras, W, H, 1, d, sc, start, step, planes)};
        std::copy(plane, plane + 4, args.plane);
        return PlaneSweep_Height_CUDA(device, args);
    });
}

Maps homographySweep(const DeviceHandle& device, const Scene& s, float start, float step, int planes, int levels) {
    return sweep(device, W, H, [&](float* d, float* sc) {
        return PlaneSweep_Homography_CUDA(
            device, HomographySweepArgs{sweepInputs(s, s.relative, W, H, 1, d, sc, start, step, planes), levels});
    });
}

class PlaneSweep : public OnEachBackend {};

// ---------------------------------------------------------------- recovery
//
// Checked at every cell at least 6 pixels inside the reference whose plane
// point lies `margin` pixels inside every neighbour. Relative errors of
// distance: a disparity of about 11 pixels makes 1% about a tenth of a
// pixel. The parabola's sub-plane refinement leaves a few tenths of a pixel
// at worst on these byte images, far less in the middle of the distribution.
TEST_P(PlaneSweep, EverySweepRecoversThePlane) {
    const Scene oblique = obliqueScene(), frontal = frontalScene();
    auto relative = [](const Scene& s, double distance, int x, int y) {
        const double truth = planeDepth(s.cameras[0], x, y);
        return (distance - truth) / truth;
    };
    // h = 2 z + 0.6: the textured plane z = 0 is the level 0.6, in units of
    // |(a, b, c)| = 2 (an error of 0.02 is 0.01 in space, 0.5% of distance).
    const float plane[4] = {0.0f, 0.0f, 2.0f, 0.6f};
    const struct {
        const char* sweep;
        const Scene& scene;
        Maps maps;
        const char* printed;
        double margin, maxError, medianError;
        std::function<double(int, int, float)> error;  // of the value at cell (x, y)
    } cases[] = {
        // Distances run from about 2.0 to 2.35: planes 1/2.4 .. 1/1.7.
        {"inverse distance", oblique, invDepthSweep(device(), oblique, 1.0f / 2.4f, 0.004f, 43),
         "run kernel...\nthreads per block: 32 32\nnumber of blocks: 4 3\ncopy back data...\n", 4.0, 0.03, 0.003,
         [&](int x, int y, float v) { return relative(oblique, 1.0 / v, x, y); }},
        {"height", oblique, heightSweep(device(), oblique, 0.3f, 0.01f, 61, plane), "copy back data...\n", 4.0, 0.06,
         0.01,
         [](int, int, float v) { return v - 0.6; }},
        {"homography", frontal, homographySweep(device(), frontal, 1.9f, 0.01f, 21, 2), "", 5.0, 0.006, 0.0015,
         [&](int x, int y, float v) { return relative(frontal, v, x, y); }}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.maps.output, c.printed) << c.sweep;
        std::vector<double> errors;
        for (int y = 6; y < H - 6; ++y)
            for (int x = 6; x < W - 6; ++x) {
                if (!seenByAll(c.scene, x, y, c.margin)) continue;
                errors.push_back(std::fabs(c.error(x, y, c.maps.depth[y * W + x])));
                EXPECT_GT(c.maps.score[y * W + x], 0.8f) << c.sweep << " at " << x << "," << y;
            }
        ASSERT_GT(errors.size(), size_t(W * H / 2)) << c.sweep;
        std::sort(errors.begin(), errors.end());
        EXPECT_LT(errors.back(), c.maxError) << c.sweep;
        EXPECT_LT(errors[errors.size() / 2], c.medianError) << c.sweep;
    }
}

TEST_P(PlaneSweep, SubsampledGridReadsEverySubsampleThPixel) {
    const Scene s = obliqueScene();
    const Maps full = invDepthSweep(device(), s, 0.42f, 0.004f, 43),
               half = invDepthSweep(device(), s, 0.42f, 0.004f, 43, 2);
    EXPECT_EQ(half.output, "run kernel...\nthreads per block: 32 32\nnumber of blocks: 2 2\ncopy back data...\n");
    for (int y = 0; y < H / 2; ++y)
        for (int x = 0; x < W / 2; ++x) {
            ASSERT_EQ(half.depth[y * (W / 2) + x], full.depth[2 * y * W + 2 * x]) << x << "," << y;
            ASSERT_EQ(half.score[y * (W / 2) + x], full.score[2 * y * W + 2 * x]) << x << "," << y;
        }
}

// ------------------------------------------------------------- edge cases
//
// The two single-launch sweeps share the sweep and the scoring of a cell;
// the inverse-distance sweep stands for both.

// Cells that no neighbour sees score -1: with two planes only value 0 is
// scored (the point at infinity, left unwritten as depth 0), a neighbour
// that looks 56 degrees away from the reference sees none of its points,
// and a negative inverse distance lies behind the reference.
TEST_P(PlaneSweep, CellsThatNoNeighbourSeesScoreMinusOne) {
    const Maps two = invDepthSweep(device(), obliqueScene(), 0.45f, 0.01f, 2);
    EXPECT_EQ(two.depth, std::vector<float>(two.depth.size(), 0.0f));
    EXPECT_EQ(two.score, std::vector<float>(two.score.size(), -1.0f));
    Scene blind = makeScene({{0.3, -0.2, -2.0}});
    const double c[3] = {0.3, -0.2, -2.0}, target[3] = {3.3, -0.2, 0.0}, up[3] = {0, -1, 0};
    blind.cameras.push_back(lookAtCamera(c, target, up, F, F, 0.5 * (W - 1), 0.5 * (H - 1)));
    const std::vector<uint8_t> img = renderPlaneImage(blind.cameras.back(), W, H);
    blind.stack.insert(blind.stack.end(), img.begin(), img.end());
    const Maps unseen = invDepthSweep(device(), blind, 0.42f, 0.01f, 12);
    EXPECT_EQ(unseen.score, std::vector<float>(unseen.score.size(), -1.0f));
    const Maps m = invDepthSweep(device(), obliqueScene(), -0.6f, 0.01f, 21);
    int negative = 0;
    for (size_t i = 0; i < m.depth.size(); ++i)
        if (m.depth[i] < 0.0f) {
            ++negative;
            ASSERT_EQ(m.score[i], -1.0f) << i;
        }
    EXPECT_GT(negative, int(m.depth.size()) * 9 / 10);
}

// Flat images make every ncc exactly 0 and every cost 0.5: the strict test
// keeps plane 1, and the parabola through equal costs does not move it.
TEST_P(PlaneSweep, FlatImagesKeepPlaneOne) {
    Scene flat = obliqueScene();
    std::fill(flat.stack.begin(), flat.stack.end(), uint8_t(255));
    const Maps m = invDepthSweep(device(), flat, 0.45f, 0.01f, 8);
    for (int y = 6; y < H - 6; ++y)
        for (int x = 6; x < W - 6; ++x) {
            EXPECT_EQ(m.depth[y * W + x], 0.01f + 0.45f) << x << "," << y;
            if (seenByAll(flat, x, y, 4.0)) {
                EXPECT_EQ(m.score[y * W + x], 0.0f) << x << "," << y;
            }
        }
}

TEST_P(PlaneSweep, HomographyBorderTestsAreStrict) {
    // One level, half-size 2: a pixel coordinate of 2 or less, or of the
    // size minus 2 or more, is out; 3 and the size minus 3 are in.
    const Maps m = homographySweep(device(), frontalScene(), 1.9f, 0.02f, 11, 1);
    const int y = H / 2, x = W / 2;
    for (int edge : {0, 1, 2, W - 2, W - 1}) EXPECT_EQ(m.score[y * W + edge], 0.0f) << "x " << edge;
    for (int edge : {0, 1, 2, H - 2, H - 1}) EXPECT_EQ(m.score[edge * W + x], 0.0f) << "y " << edge;
    for (int edge : {3, W - 3}) EXPECT_GT(m.score[y * W + edge], 0.0f) << "x " << edge;
    for (int edge : {3, H - 3}) EXPECT_GT(m.score[edge * W + x], 0.0f) << "y " << edge;
}

TEST_P(PlaneSweep, BadArgumentsAreRefusedWithoutTouchingTheOutputs) {
    const Scene s = frontalScene();
    std::vector<float> depth(size_t(W) * H, 7.0f), score = depth;
    float *d = depth.data(), *sc = score.data();
    const DeviceHandle& dev = device();
    // Valid inputs, each case spoiling one of them.
    auto inputs = [&](const std::vector<mycamera_cuda>& cameras, float start, float step, int planes) {
        return sweepInputs(s, cameras, W, H, 1, d, sc, start, step, planes);
    };
    auto invDepth = [&](auto spoil) {
        InvDepthSweepArgs a{inputs(s.cameras, 0.5f, 0.01f, 5)};
        spoil(a.sweep);
        return PlaneSweep_InvDepth_CUDA(dev, a);
    };
    auto height = [&](auto spoil) {
        HeightSweepArgs a{inputs(s.cameras, 0.0f, 0.01f, 5)};
        spoil(a.sweep);
        return PlaneSweep_Height_CUDA(dev, a);
    };
    const std::pair<const char*, std::function<DeviceStatus()>> cases[] = {
        {"PlaneSweep_Homography_CUDA",  // fewer than 3 planes
         [&] { return PlaneSweep_Homography_CUDA(dev, HomographySweepArgs{inputs(s.relative, 1.9f, 0.1f, 2), 1}); }},
        {"PlaneSweep_Homography_CUDA",  // a negative number of levels
         [&] { return PlaneSweep_Homography_CUDA(dev, HomographySweepArgs{inputs(s.relative, 1.9f, 0.1f, 5), -1}); }},
        {"PlaneSweep_InvDepth_CUDA", [&] { return invDepth([](SweepInputs& in) { in.num_neighbours = 0; }); }},
        {"PlaneSweep_InvDepth_CUDA", [&] { return invDepth([](SweepInputs& in) { in.subsample = 0; }); }},
        {"PlaneSweep_Height_CUDA", [&] { return height([](SweepInputs& in) { in.cameras = nullptr; }); }},
        {"PlaneSweep_Height_CUDA", [&] { return height([](SweepInputs& in) { in.image_stack = nullptr; }); }}};
    for (const auto& [entry, call] : cases) {
        expectRefused(entry, call);
        ASSERT_EQ(depth, std::vector<float>(depth.size(), 7.0f)) << entry;
        ASSERT_EQ(score, std::vector<float>(score.size(), 7.0f)) << entry;
    }
}

TESSALINE_INSTANTIATE_ON_BACKENDS(PlaneSweep);

// The sweeps fetch their neighbours through textures at the same positions on
// both backends; where the sampling rule matches the hardware's, depth and
// score maps agree bit for bit (a difference points at the sampler first).
TEST(PlaneSweepParity, BackendsAgreeBitForBit) {
    if (!cudaDeviceAvailable()) GTEST_SKIP() << "no CUDA device";
    const Scene s = obliqueScene(), f = frontalScene();
    const float plane[4] = {0.0f, 0.0f, 2.0f, 0.6f};
    Maps maps[2][3];
    const DeviceHandle devices[2] = {cpuDevice(), cudaDevice()};
    for (int b = 0; b < 2; ++b) {
        maps[b][0] = invDepthSweep(devices[b], s, 0.42f, 0.004f, 40);
        maps[b][1] = heightSweep(devices[b], s, 0.3f, 0.01f, 61, plane);
        maps[b][2] = homographySweep(devices[b], f, 1.9f, 0.01f, 21, 2);
    }
    for (int k = 0; k < 3; ++k) {
        EXPECT_TRUE(sameBits(maps[0][k].depth, maps[1][k].depth)) << "depth cells differ, sweep " << k;
        EXPECT_TRUE(sameBits(maps[0][k].score, maps[1][k].score)) << "score cells differ, sweep " << k;
    }
}

// ------------------------------------------------------------ warp kernel

// The identity homography on the CPU: layer 1 copied, except the first row
// and column (a position must be above 0), and nothing written beyond the
// image however far the launch reaches.
TEST(HomographyWarp, IdentityCopiesTheImageInsideTheStrictBorder) {
    const int w = 17, h = 15, pitch = 32;
    std::vector<uint8_t> img(size_t(w) * h * 2), warped(size_t(pitch) * (h + 3), 99);
    for (size_t i = 0; i < img.size(); ++i) img[i] = uint8_t((i * 37 + 11) % 256);
    tessaline::LayeredTexture tex;
    tex.data = img.data(), tex.width = w, tex.height = h, tex.layers = 2;
    const tessaline::Kernel_Homography_Image_Warp_CUDA k{
        tex, 1, {{1, 0, 0, 0, 1, 0, 0, 0, 1}}, {warped.data(), size_t(pitch), w, h}};
    for (int y = 0; y < h + 3; ++y)
        for (int x = 0; x < pitch; ++x) k(x, y);
    for (int y = 0; y < h + 3; ++y)
        for (int x = 0; x < pitch; ++x) {
            const int expect = x >= w || y >= h ? 99 : x == 0 || y == 0 ? 0 : img[size_t(w) * h + size_t(y) * w + x];
            ASSERT_EQ(warped[size_t(y) * pitch + x], expect) << x << "," << y;
        }
}

}  // namespace
