// CPU and CUDA backends compute the same numbers, bit for bit: the same
// float operations, a CPU sampler that returns what the texture unit
// returns, a z-buffer that resolves contested pixels the same way on any
// schedule, and gradient sums in fixed point. Skipped where no CUDA device
// answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"

namespace {

using namespace tessaline::test;

class BackendParity : public testing::Test {
   protected:
    void SetUp() override {
        if (!cudaDeviceAvailable()) GTEST_SKIP() << "no CUDA device";
    }

    // run(0, the CPU backend), then run(1, the CUDA device).
    template <class Run>
    void onBoth(Run run) {
        run(0, cpuDevice());
        run(1, cudaDevice());
    }
};

// Random grey images with -1.0 holes in B, fresh for every size.
TEST_F(BackendParity, NccChainIsBitIdenticalAcrossSizes) {
    std::mt19937 rng(12345);
    std::uniform_real_distribution<float> grey(0.0f, 255.0f), u(0.0f, 1.0f);
    for (int w : {1, 5, 15, 16, 17, 31, 32, 33, 47})
        for (int h : {1, 16, 17, 33}) {
            std::vector<float> A(size_t(w) * h), B(size_t(w) * h);
            for (size_t e = 0; e < A.size(); ++e) {
                A[e] = grey(rng);
                B[e] = u(rng) < 0.03f ? -1.0f : 0.6f * A[e] + 0.4f * grey(rng);
            }
            for (int half : {0, 1, 2}) {
                SCOPED_TRACE(testing::Message() << w << "x" << h << " h=" << half);
                std::vector<float> grad[2], cc[2], cc2[2];
                std::vector<unsigned char> mask[2], mask2[2];
                onBoth([&](int k, const DeviceHandle& device) {
                    grad[k].assign(A.size(), 7.0f), cc[k] = cc2[k] = grad[k];
                    mask[k].assign(A.size(), 7), mask2[k] = mask[k];
                    EXPECT_EQ(Compute_NCCGrad_CUDA(device, NccGradArgs{w, h, A.data(), B.data(), grad[k].data(),
                                                                       cc[k].data(), mask[k].data(), half}),
                              DeviceStatus::Ok);
                    EXPECT_EQ(Compute_CC_CUDA(device, CcArgs{w, h, A.data(), B.data(), cc2[k].data(), mask2[k].data(),
                                                             half}),
                              DeviceStatus::Ok);
                });
                EXPECT_TRUE(sameBits(grad[0], grad[1]) && sameBits(cc[0], cc[1]) && sameBits(cc2[0], cc2[1]));
                EXPECT_TRUE(sameBits(mask[0], mask[1]) && sameBits(mask2[0], mask2[1]));
            }
        }
}

TEST_F(BackendParity, ZBufferDepthIsBitIdenticalForFacetCountsAroundTheBlock) {
    const mycamera_cuda cam = frontCamera(300.0, 160.3, 120.6);
    std::mt19937 rng(99);
    for (int nf : {0, 1, 511, 512, 513, 4099}) {
        std::vector<float> v;
        std::vector<int> f;
        addRandomFacets(rng, nf, 0.4f, 0.3f, 0.1f, 2.0f, 6.0f, 0.2f, false, v, f);
        ZRender r[2];
        onBoth([&](int k, const DeviceHandle& device) { r[k] = zbuffer(device, v, f, cam, 320, 240); });
        EXPECT_TRUE(sameBits(r[0].depth, r[1].depth) && sameBits(r[0].facet, r[1].facet)) << nf << " facets";
        EXPECT_TRUE(sameBits(r[0].b, r[1].b) && sameBits(r[0].c, r[1].c)) << nf << " facets";
    }
}

// The warp is 255 times a texture fetch at a position that both backends
// compute bit for bit alike (no contraction, IEEE division and square root).
// With one centre for both cameras, random depths within 0.75% of the
// target's depth map 4 keep every point visible, and the target's offset
// of 500 turns them into +-0.94 pixel of random shift. The fetches through
// a single-image array must be what the CPU sampler returns.
TEST_F(BackendParity, TextureFetchesOfRandomBytesAtRandomPositionsAreBitIdentical) {
    const int W = 128, H = 96;
    const size_t n = size_t(W) * H;
    std::mt19937 rng(2024);
    std::uniform_real_distribution<float> jitter(3.97f, 4.03f);
    std::vector<uint8_t> img(n);
    for (uint8_t& b : img) b = uint8_t(rng());
    std::vector<float> depthRef(n), depthTar(n, 4.0f), warped[2];
    for (float& d : depthRef) d = jitter(rng);
    const std::vector<int> facetRef(n, 0);
    mycamera_cuda ref{}, tar{};
    ref.R[0] = ref.R[4] = ref.R[8] = ref.K[8] = 1.0f;
    ref.K[0] = ref.K[4] = 400.0f, ref.K[2] = 63.5f, ref.K[5] = 47.5f;
    const float P[12] = {280, 30, -61, 500, -20, 290, -27, 300, 0, 0, 1, 0};  // u, v ~ 64, 48 at the centre
    std::copy(P, P + 12, tar.P);
    onBoth([&](int k, const DeviceHandle& device) {
        warped[k].assign(n, 7.0f);
        EXPECT_EQ(Perspective_Image_Model_Image_Warp_CUDA(device, PerspectiveWarpArgs{ref, depthRef.data(),
                                                                                      facetRef.data(), tar,
                                                                                      depthTar.data(), img.data(), W,
                                                                                      H, warped[k].data()}),
                  DeviceStatus::Ok);
    });
    int valid = 0, differ = 0;
    float worst = 0.0f;
    for (size_t e = 0; e < n; ++e) {
        ASSERT_EQ(warped[0][e] == -1.0f, warped[1][e] == -1.0f) << "visibility differs at pixel " << e;
        valid += warped[0][e] != -1.0f;
        differ += warped[0][e] != warped[1][e];
        worst = std::max(worst, std::fabs(warped[1][e] - warped[0][e]));
    }
    EXPECT_GT(valid, int(n * 3 / 4));
    EXPECT_EQ(differ, 0) << "fetches of " << valid << " differ, the largest by " << worst
                         << " grey levels. Whole 256ths of the neighbouring texels' difference: the hardware rounds "
                            "the weights otherwise; far less: its blend arithmetic differs.";
}

// Camera 0 against camera 1 of the plane scene, the flat mesh 0.03 in front
// of the plane: renders, warp and gradient on each backend are bit-identical.
TEST_F(BackendParity, RenderWarpAndPhotometricGradientAreBitIdentical) {
    const PlaneScene s(2, 0.03);
    const auto& m = s.mesh;
    const int W = s.W, H = s.H;
    const size_t n = size_t(W) * H;
    const uint8_t* target = s.images.data() + n;
    ZRender r[2][2];  // backend, camera
    std::vector<float> warped[2], grad[2], hits[2];
    onBoth([&](int k, const DeviceHandle& device) {
        for (int cam : {0, 1}) r[k][cam] = zbuffer(device, m.vertices, m.facets, s.cameras[cam], W, H);
    });
    for (int cam : {0, 1})
        EXPECT_TRUE(sameBits(r[0][cam].depth, r[1][cam].depth) && sameBits(r[0][cam].facet, r[1][cam].facet) &&
                    sameBits(r[0][cam].b, r[1][cam].b) && sameBits(r[0][cam].c, r[1][cam].c))
            << "camera " << cam;
    const ZRender& ref = r[0][0];
    onBoth([&](int k, const DeviceHandle& device) {
        warped[k].assign(n, 7.0f);
        EXPECT_EQ(Perspective_Image_Model_Image_Warp_CUDA(
                      device, PerspectiveWarpArgs{s.cameras[0], ref.depth.data(), ref.facet.data(), s.cameras[1],
                                                  r[0][1].depth.data(), target, W, H, warped[k].data()}),
                  DeviceStatus::Ok);
    });
    EXPECT_TRUE(sameBits(warped[0], warped[1]));
    EXPECT_GT(std::count_if(warped[0].begin(), warped[0].end(), [](float w) { return w != -1.0f; }), long(n / 4));
    std::vector<float> A(s.images.begin(), s.images.begin() + n), g(n), cc(n), normals;
    std::vector<uint8_t> mask(n);
    ASSERT_EQ(Compute_NCCGrad_CUDA(cpuDevice(), NccGradArgs{W, H, A.data(), warped[0].data(), g.data(), cc.data(),
                                                            mask.data(), 2}),
              DeviceStatus::Ok);
    for (int f = 0; f < m.numF(); ++f) normals.insert(normals.end(), {0.0f, 0.0f, -1.0f});
    onBoth([&](int k, const DeviceHandle& device) {
        grad[k].assign(3 * size_t(m.numV()), 0.0f);
        hits[k].assign(size_t(m.numV()), 0.0f);
        EXPECT_EQ(AddPhotometricGradient_ImagePair_CUDA(
                      device, PairGradientArgs{m.numF(), m.facets.data(), normals.data(), W, H, s.cameras[0],
                                               ref.depth.data(), ref.facet.data(), s.cameras[1], target, ref.b.data(),
                                               ref.c.data(), g.data(), mask.data(), 2.0f, 2.0f, m.numV(),
                                               grad[k].data(), hits[k].data()}),
                  DeviceStatus::Ok);
    });
    EXPECT_TRUE(sameBits(hits[0], hits[1]));
    EXPECT_TRUE(sameBits(grad[0], grad[1]));
    EXPECT_TRUE(std::any_of(grad[0].begin(), grad[0].end(), [](float x) { return x != 0.0f; })) << "no gradient";
}

// The whole optimisation, four iterations on three cameras with the flat
// mesh 0.03 in front of the plane: the same vertices, bit for bit.
TEST_F(BackendParity, MeshOptimizationGivesTheSameVertices) {
    const PlaneScene s(3, 0.03);
    const std::vector<uint8_t> pairs(9, 1);
    std::vector<float> v[2];
    onBoth([&](int k, const DeviceHandle& device) {
        v[k] = s.mesh.vertices;
        DeviceStatus status = DeviceStatus::Failed;
        printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(device, optimizationArgs(s, v[k], pairs, 4, true)); });
        EXPECT_EQ(status, DeviceStatus::Ok);
    });
    EXPECT_TRUE(sameBits(v[0], v[1]));
    bool zMoved = false;  // the photometric step: the flat mesh has no smoothness gradient in z
    for (size_t i = 2; i < v[0].size(); i += 3) zMoved |= v[0][i] != s.mesh.vertices[i];
    EXPECT_TRUE(zMoved);
}

}  // namespace
