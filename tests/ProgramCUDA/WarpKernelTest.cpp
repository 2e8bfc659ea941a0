// The image-pair warp through its entry point on every backend: against
// an independent per-pixel computation in double on a two-camera plane scene,
// and on hand-made cameras that put a point exactly on the border and
// tolerance limits. The integrated kernel, which reads the target from a
// layer of the image stack, must give the same values.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "backend/CpuBackend.h"
#include "backend/DeviceMemory.h"
#include "optimization/WarpKernels.h"

namespace {

using namespace tessaline;

struct WarpInputs {
    int W, H;
    mycamera_cuda ref, tar;
    std::vector<float> depthRef, depthTar;
    std::vector<int> facetRef;
    std::vector<uint8_t> stack;  // layer 1 is the target image

    // The warp by the entry point on `device`, which must give the bytes of
    // the integrated kernel run on the CPU backend (the CPU sampler returns
    // what the texture unit returns, so this holds on either backend).
    std::vector<float> run(const DeviceHandle& device) const {
        std::vector<float> warped(size_t(W) * H, 12345.0f), integrated = warped;
        EXPECT_EQ(Perspective_Image_Model_Image_Warp_CUDA(
                      device, PerspectiveWarpArgs{ref, depthRef.data(), facetRef.data(), tar, depthTar.data(),
                                                  stack.data() + size_t(W) * H, W, H, warped.data()}),
                  DeviceStatus::Ok);
        CpuBackend be;
        const auto images = makeImageStack(be, stack.data(), W, H, 2);
        const RenderedCamera reference{ref, imageView(depthRef.data(), W, H), imageView(facetRef.data(), W, H), {}, {}};
        const RenderedCamera target{tar, imageView(depthTar.data(), W, H), {}, {}, {}};
        be.launch(ImageGrid{W, H}, Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA{
                                       {{reference, target, StackLayerFetch{images.view(), 1}},
                                        imageView(integrated.data(), W, H)}});
        EXPECT_EQ(warped, integrated) << "the entry point and the integrated kernel differ";
        return warped;
    }

    // The warp at (x, y) in double; `ambiguous` when float rounding may
    // decide a border, cell or tolerance test either way.
    float expected(int x, int y, bool& ambiguous) const {
        ambiguous = false;
        const size_t e = size_t(y) * W + x;
        if (facetRef[e] < 0) return -1.0f;
        double Cr[3], r[3], Ct[3], unused[3], X[3], p[3];
        tessaline::test::pixelRayD(ref, x, y, Cr, r);
        tessaline::test::pixelRayD(tar, 0, 0, Ct, unused);
        for (int k = 0; k < 3; ++k) X[k] = Cr[k] + double(depthRef[e]) * r[k];
        for (int k = 0; k < 3; ++k)
            p[k] = double(tar.P[4 * k]) * X[0] + double(tar.P[4 * k + 1]) * X[1] + double(tar.P[4 * k + 2]) * X[2] +
                   double(tar.P[4 * k + 3]);
        if (!(p[2] > 0)) return -1.0f;
        const double u = p[0] / p[2], v = p[1] / p[2];
        const double dt = std::hypot(Ct[0] - X[0], Ct[1] - X[1], Ct[2] - X[2]);
        for (double l : {u - 10, u - (W - 10), v - 10, v - (H - 10)}) ambiguous |= std::fabs(l) < 1e-3;
        if (!(u > 10 && u < W - 10 && v > 10 && v < H - 10)) return -1.0f;
        const int ix = int(u), iy = int(v);
        ambiguous |= std::fabs(u - std::round(u)) < 1e-4 || std::fabs(v - std::round(v)) < 1e-4;
        bool visible = false;
        for (int c = 0; c < 4; ++c) {
            const double diff = std::fabs(depthTar[size_t(iy + c / 2) * W + ix + c % 2] - dt);
            ambiguous |= std::fabs(diff - 0.01 * dt) < 1e-4 * dt;
            visible |= diff < 0.01 * dt;
        }
        if (!visible) return -1.0f;
        return 255.0f * sampleBilinearU8(stack.data() + size_t(W) * H, W, H, W, float(u + 0.5), float(v + 0.5));
    }
};

// Two cameras over the plane z = 0 with exact depth maps, random target
// bytes, a patch of the reference without a facet and an occluder in the
// target's depth map.
WarpInputs planeScene(int W, int H, bool occluder) {
    WarpInputs in{W, H, tessaline::test::planeCamera(-0.2, 0.05, -2.0, 0.9 * W, W, H),
                  tessaline::test::planeCamera(0.25, -0.05, -2.1, 0.9 * W, W, H), {}, {}, {}, {}};
    in.facetRef.assign(size_t(W) * H, 3);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            in.depthRef.push_back(float(tessaline::test::planeDepth(in.ref, x, y)));
            in.depthTar.push_back(float(tessaline::test::planeDepth(in.tar, x, y)));
            if (x >= W / 2 && x < W / 2 + 4 && y >= 12 && y < 20) in.facetRef[size_t(y) * W + x] = -1;
            if (occluder && x >= 20 && x < 26 && y >= H / 2 && y < H / 2 + 6) in.depthTar.back() *= 0.9f;
        }
    std::mt19937 rng(7);
    for (int i = 0; i < 2 * W * H; ++i) in.stack.push_back(uint8_t(rng()));
    return in;
}

class Warp : public tessaline::test::OnEachBackend {};

TEST_P(Warp, MatchesIndependentPerPixelComputation) {
    for (const auto& [W, H] : {std::pair{64, 48}, {47, 33}, {65, 49}}) {
        SCOPED_TRACE(testing::Message() << W << " x " << H);
        const WarpInputs in = planeScene(W, H, true);
        const std::vector<float> warped = in.run(device()), open = planeScene(W, H, false).run(device());
        int compared = 0, valid = 0, occluded = 0;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const size_t e = size_t(y) * W + x;
                bool ambiguous;
                const float want = in.expected(x, y, ambiguous);
                occluded += warped[e] == -1.0f && open[e] != -1.0f;
                if (in.facetRef[e] < 0) {
                    EXPECT_EQ(warped[e], -1.0f);
                }
                if (ambiguous) continue;
                ++compared;
                valid += want != -1.0f;
                // 8 fractional bits of the fetch position: a rounding flip moves
                // the value by a 256th of a texel difference, under 1 grey level.
                if (want == -1.0f)
                    EXPECT_EQ(warped[e], -1.0f) << x << "," << y;
                else
                    EXPECT_NEAR(warped[e], want, 1.0f) << x << "," << y;
            }
        EXPECT_GT(compared, W * H * 9 / 10);
        EXPECT_GT(valid, (W - 20) * (H - 20) / 3);
        EXPECT_GT(occluded, 4);
    }
}

// Reference pixel (7, 9) looks along +z from the origin (R = I, t = 0, unit
// focal length, principal point on the pixel): depth 4 gives X = (0, 0, 4)
// exactly, and the target's P sends it to (U, V) exactly, with the target
// centre at the origin (dt = 4). The target image is 200 everywhere.
float exactWarp(const DeviceHandle& device, float U, float V, float depthTar = 4.0f, float w = 1.0f,
                int agreeingCell = -1) {
    const int W = 40, H = 36;
    mycamera_cuda cam{};
    cam.R[0] = cam.R[4] = cam.R[8] = cam.K[0] = cam.K[4] = cam.K[8] = 1.0f;
    cam.K[2] = 7.0f, cam.K[5] = 9.0f;
    WarpInputs in{W, H, cam, cam, {}, {}, {}, {}};
    for (float& p : in.tar.P) p = 0.0f;
    in.tar.P[2] = U * w, in.tar.P[6] = V * w, in.tar.P[10] = w;
    in.depthRef.assign(size_t(W) * H, 4.0f);
    in.depthTar.assign(size_t(W) * H, depthTar);
    if (agreeingCell >= 0) in.depthTar[size_t(int(V) + agreeingCell / 2) * W + int(U) + agreeingCell % 2] = 4.0f;
    in.facetRef.assign(size_t(W) * H, 0);
    in.stack.assign(2 * size_t(W) * H, 200);
    return in.run(device)[9 * W + 7];
}

TEST_P(Warp, BorderIsStrictAndTenPixelsWideAndDepthsAgreeWithinOnePercent) {
    for (auto [U, V] : {std::pair{10.0f, 15.0f}, {30.0f, 15.0f}, {15.0f, 10.0f}, {15.0f, 26.0f}})
        EXPECT_EQ(exactWarp(device(), U, V), -1.0f) << U << "," << V;
    for (auto [U, V] : {std::pair{std::nextafter(10.0f, 11.0f), 15.0f},
                        {std::nextafter(30.0f, 0.0f), 15.0f},
                        {15.0f, std::nextafter(10.0f, 11.0f)},
                        {15.0f, std::nextafter(26.0f, 0.0f)}})
        EXPECT_NEAR(exactWarp(device(), U, V), 200.0f, 1e-3f) << U << "," << V;
    EXPECT_EQ(exactWarp(device(), 15.0f, 15.0f, 4.0f, -1.0f), -1.0f);  // behind the target
    EXPECT_NEAR(exactWarp(device(), 15.5f, 15.5f, 4.0f * 1.0099f), 200.0f, 1e-3f);
    for (float depth : {4.0f * 1.0101f, 4.0f * 0.9899f, kDepthClear})
        EXPECT_EQ(exactWarp(device(), 15.5f, 15.5f, depth), -1.0f);
    for (int cell = 0; cell < 4; ++cell)
        EXPECT_NEAR(exactWarp(device(), 15.5f, 15.5f, 2.0f, 1.0f, cell), 200.0f, 1e-3f);
    EXPECT_EQ(exactWarp(device(), 15.5f, 15.5f, 2.0f, 1.0f, 4), -1.0f);  // the cell beyond the four
}

TESSALINE_INSTANTIATE_ON_BACKENDS(Warp);

}  // namespace
