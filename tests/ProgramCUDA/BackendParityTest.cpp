// CPU and CUDA backends compute the same numbers, bit for bit: the same
// float operations, a CPU sampler that returns what the texture unit
// returns, a z-buffer that resolves contested pixels the same way on any
// schedule, and gradient sums in fixed point. Skipped where no CUDA device
// answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "CameraGeometry.h"

namespace {

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

template <class T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// Random grey images with -1.0 holes in B, fresh for every size.
TEST_F(BackendParity, NccChainIsBitIdenticalAcrossSizes) {
    std::mt19937 rng(12345);
    const int sizes[] = {1, 5, 15, 16, 17, 31, 32, 33, 47};
    for (int w : sizes)
        for (int h : {1, 16, 17, 33}) {
            std::uniform_real_distribution<float> grey(0.0f, 255.0f), u(0.0f, 1.0f);
            std::vector<float> A(size_t(w) * h), B(size_t(w) * h);
            for (size_t e = 0; e < A.size(); ++e) {
                A[e] = grey(rng);
                B[e] = u(rng) < 0.03f ? -1.0f : 0.6f * A[e] + 0.4f * grey(rng);
            }
            for (int half : {0, 1, 2}) {
                std::vector<float> grad[2], cc[2], cc2[2];
                std::vector<unsigned char> mask[2], mask2[2];
                onBoth([&](int k, const DeviceHandle& device) {
                    grad[k].assign(A.size(), 7.0f);
                    cc[k].assign(A.size(), 7.0f);
                    mask[k].assign(A.size(), 7);
                    EXPECT_EQ(Compute_NCCGrad_CUDA(device, NccGradArgs{w, h, A.data(), B.data(), grad[k].data(),
                                                                       cc[k].data(), mask[k].data(), half}),
                              DeviceStatus::Ok);
                    cc2[k].assign(A.size(), 7.0f);
                    mask2[k].assign(A.size(), 7);
                    EXPECT_EQ(Compute_CC_CUDA(device, CcArgs{w, h, A.data(), B.data(), cc2[k].data(), mask2[k].data(),
                                                             half}),
                              DeviceStatus::Ok);
                });
                EXPECT_TRUE(sameBits(grad[0], grad[1])) << w << "x" << h << " h=" << half;
                EXPECT_TRUE(sameBits(cc[0], cc[1])) << w << "x" << h << " h=" << half;
                EXPECT_TRUE(sameBits(mask[0], mask[1])) << w << "x" << h << " h=" << half;
                EXPECT_TRUE(sameBits(cc2[0], cc2[1])) << w << "x" << h << " h=" << half;
                EXPECT_TRUE(sameBits(mask2[0], mask2[1])) << w << "x" << h << " h=" << half;
            }
        }
}

TEST_F(BackendParity, ZBufferDepthIsBitIdenticalForFacetCountsAroundTheBlock) {
    const double c[3] = {0, 0, 0}, target[3] = {0, 0, 1}, up[3] = {0, -1, 0};
    const mycamera_cuda cam = tessaline::test::lookAtCamera(c, target, up, 300.0, 300.0, 160.3, 120.6);
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> U(-1.0f, 1.0f), Z(2.0f, 6.0f);
    for (int nf : {0, 1, 511, 512, 513, 4099}) {
        std::vector<float> v;
        std::vector<int> f;
        for (int t = 0; t < nf; ++t) {
            const float cx = 0.4f * U(rng), cy = 0.3f * U(rng), cz = Z(rng);
            for (int k = 0; k < 3; ++k) {
                v.push_back((cx + 0.1f * U(rng)) * cz);
                v.push_back((cy + 0.1f * U(rng)) * cz);
                v.push_back(cz + 0.2f * U(rng));
                f.push_back(int(v.size() / 3) - 1);
            }
        }
        const int W = 320, H = 240;
        std::vector<float> depth[2], bb[2], bc[2];
        std::vector<int> facet[2];
        onBoth([&](int k, const DeviceHandle& device) {
            depth[k].assign(size_t(W) * H, std::numeric_limits<float>::max());
            facet[k].assign(size_t(W) * H, -1);
            bb[k].assign(size_t(W) * H, -1.0f);
            bc[k].assign(size_t(W) * H, -1.0f);
            EXPECT_EQ(TriMesh_Image_ZBuffering_CUDA(device, ZBufferArgs{int(v.size() / 3), v.data(), nf, f.data(), cam,
                                                                        0, 0, W, H, depth[k].data(), facet[k].data(),
                                                                        bb[k].data(), bc[k].data()}),
                      DeviceStatus::Ok);
        });
        EXPECT_TRUE(sameBits(depth[0], depth[1])) << nf << " facets";
        EXPECT_TRUE(sameBits(facet[0], facet[1])) << nf << " facets";
        EXPECT_TRUE(sameBits(bb[0], bb[1]) && sameBits(bc[0], bc[1])) << nf << " facets";
    }
}

// The warp is 255 times a texture fetch at a position that both backends
// compute bit for bit alike (no contraction, IEEE division and square root).
// With one centre for both cameras, random depths within 0.75% of the
// target's depth map 4 keep every point visible, and the target's offset
// of 500 turns them into +-0.94 pixel of random shift. The fetches through
// a single-image array must be what the CPU sampler returns; the message
// tells how they differ if not.
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
    int valid = 0, differ = 0, ties = 0;
    float worst = 0.0f, steps = 0.0f, frac[2] = {0, 0};
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            const size_t e = size_t(y) * W + x;
            ASSERT_EQ(warped[0][e] == -1.0f, warped[1][e] == -1.0f) << "visibility differs at " << x << "," << y;
            if (warped[0][e] == -1.0f) continue;
            ++valid;
            const float diff = std::fabs(warped[1][e] - warped[0][e]);
            if (diff == 0.0f) continue;
            ++differ;
            // The fetch's texel position, as the kernel and the sampler form it.
            float C[3], r[3], X[3], px, py, pw;
            tessaline::pixelSurfacePointF(ref, x, y, depthRef[e], C, r, X);
            tessaline::projectF(tar.P, X, px, py, pw);
            const float xb = (px / pw + 0.5f) - 0.5f, yb = (py / pw + 0.5f) - 0.5f;
            const float a = 256.0f * (xb - std::floor(xb)), b = 256.0f * (yb - std::floor(yb));
            ties += a - std::floor(a) == 0.5f || b - std::floor(b) == 0.5f;
            if (diff <= worst) continue;
            const size_t t = size_t(std::floor(yb)) * W + size_t(std::floor(xb));
            const int q[4] = {img[t], img[t + 1], img[t + W], img[t + W + 1]};
            const int span = std::max({std::abs(q[1] - q[0]), std::abs(q[3] - q[2]), std::abs(q[2] - q[0]),
                                       std::abs(q[3] - q[1])});
            worst = diff, steps = diff * 256.0f / float(std::max(span, 1)), frac[0] = a, frac[1] = b;
        }
    EXPECT_GT(valid, int(n * 3 / 4));
    EXPECT_EQ(differ, 0) << differ << " of " << valid << " fetches differ (" << ties
                         << " at a weight tie); the largest by " << worst << " grey levels, " << steps
                         << " weight steps (1/256 of the largest neighbouring texel difference), at 256 x fractions "
                         << frac[0] << ", " << frac[1]
                         << ". Whole steps: the hardware does not round the weights to nearest (or breaks ties "
                            "otherwise); far below one step: its blend arithmetic differs.";
}

// Camera 0 against camera 1 of the plane scene, the flat mesh 0.03 in front
// of the plane: renders, warp and gradient on each backend are bit-identical.
TEST_F(BackendParity, RenderWarpAndPhotometricGradientAreBitIdentical) {
    const tessaline::test::PlaneScene s(2, 0.03);
    const auto& m = s.mesh;
    const int W = s.W, H = s.H;
    const size_t n = size_t(W) * H;
    const uint8_t* target = s.images.data() + n;
    std::vector<float> depth[2][2], b[2][2], c[2][2], warped[2], grad[2], hits[2];
    std::vector<int> facet[2][2];
    onBoth([&](int k, const DeviceHandle& device) {
        for (int cam : {0, 1}) {
            depth[k][cam].assign(n, tessaline::kDepthClear);
            facet[k][cam].assign(n, -1);
            b[k][cam].assign(n, -1.0f);
            c[k][cam].assign(n, -1.0f);
            EXPECT_EQ(TriMesh_Image_ZBuffering_CUDA(
                          device, ZBufferArgs{m.numV(), m.vertices.data(), m.numF(), m.facets.data(), s.cameras[cam],
                                              0, 0, W, H, depth[k][cam].data(), facet[k][cam].data(),
                                              b[k][cam].data(), c[k][cam].data()}),
                      DeviceStatus::Ok);
        }
    });
    for (int cam : {0, 1})
        EXPECT_TRUE(sameBits(depth[0][cam], depth[1][cam]) && sameBits(facet[0][cam], facet[1][cam]) &&
                    sameBits(b[0][cam], b[1][cam]) && sameBits(c[0][cam], c[1][cam]))
            << "camera " << cam;
    const auto& facetMap = facet[0];
    const auto& bMap = b[0];
    const auto& cMap = c[0];
    onBoth([&](int k, const DeviceHandle& device) {
        warped[k].assign(n, 7.0f);
        EXPECT_EQ(Perspective_Image_Model_Image_Warp_CUDA(
                      device, PerspectiveWarpArgs{s.cameras[0], depth[0][0].data(), facetMap[0].data(), s.cameras[1],
                                                  depth[0][1].data(), target, W, H, warped[k].data()}),
                  DeviceStatus::Ok);
    });
    EXPECT_TRUE(sameBits(warped[0], warped[1]));
    int valid = 0;
    for (size_t e = 0; e < n; ++e) valid += warped[0][e] != -1.0f;
    EXPECT_GT(valid, int(n / 4));
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
                                               depth[0][0].data(), facetMap[0].data(), s.cameras[1], target,
                                               bMap[0].data(), cMap[0].data(), g.data(), mask.data(), 2.0f, 2.0f,
                                               m.numV(), grad[k].data(), hits[k].data()}),
                  DeviceStatus::Ok);
    });
    EXPECT_TRUE(sameBits(hits[0], hits[1]));
    EXPECT_TRUE(sameBits(grad[0], grad[1]));
    float largest = 0.0f;
    for (float v : grad[0]) largest = std::max(largest, std::fabs(v));
    EXPECT_GT(largest, 0.0f);
}

// The whole optimisation, four iterations on three cameras with the flat
// mesh 0.03 in front of the plane: the same vertices, bit for bit.
TEST_F(BackendParity, MeshOptimizationGivesTheSameVertices) {
    const tessaline::test::PlaneScene s(3, 0.03);
    const auto& m = s.mesh;
    const std::vector<uint8_t> pairs(9, 1);
    std::vector<float> v[2];
    onBoth([&](int k, const DeviceHandle& device) {
        v[k] = m.vertices;
        ::testing::internal::CaptureStdout();
        const DeviceStatus status = Integrated_Mesh_Optimization_CUDA(
            device, MeshOptimizationArgs{m.numV(), v[k].data(), m.numF(), m.facets.data(), int(s.rings.list.size()),
                                         s.rings.list.data(), s.rings.counts.data(), s.rings.offsets.data(), 3, s.W,
                                         s.H, s.cameras.data(), s.images.data(), 4, pairs.data(), true});
        ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(status, DeviceStatus::Ok);
    });
    EXPECT_TRUE(sameBits(v[0], v[1]));
    float moved = 0.0f;
    for (size_t i = 2; i < v[0].size(); i += 3) moved = std::max(moved, std::fabs(v[0][i] - m.vertices[i]));
    EXPECT_GT(moved, 0.0f);
}

}  // namespace
