// The single-step wrappers against the integrated kernels they mirror: the
// per-pair warp, the per-pair gradient with its wider cosine limit and its
// accumulation across calls, the masked descent and the smoothness fairing.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "kernels/PhotometricGradientKernels.h"
#include "kernels/SingleStepKernels.h"
#include "kernels/WarpKernels.h"

namespace {

using tessaline::test::OnEachBackend;
using tessaline::test::PlaneScene;

constexpr int W = PlaneScene::W, H = PlaneScene::H;
constexpr size_t kPixels = size_t(W) * H;

struct Render {
    std::vector<float> depth, b, c;
    std::vector<int> facet;
};

Render render(const PlaneScene& s, int camera) {
    Render r;
    r.depth.assign(kPixels, tessaline::kDepthClear);
    r.facet.assign(kPixels, -1);
    r.b.assign(kPixels, 0.0f);
    r.c.assign(kPixels, 0.0f);
    TriMesh_Image_ZBuffering_CUDA(s.mesh.numV(), s.mesh.vertices.data(), s.mesh.numF(), s.mesh.facets.data(),
                                  s.cameras[camera], 0, 0, W, H, r.depth.data(), r.facet.data(), r.b.data(),
                                  r.c.data());
    return r;
}

tessaline::LayeredTexture stackTexture(const PlaneScene& s) {
    tessaline::LayeredTexture tex;
    tex.data = s.images.data();
    tex.width = W;
    tex.height = H;
    tex.layers = int(s.cameras.size());
    return tex;
}

const uint8_t* image(const PlaneScene& s, int camera) { return s.images.data() + size_t(camera) * kPixels; }

// The inputs of one pair's gradient accumulation, camera 0 against camera 1.
struct PairGradientInputs {
    PlaneScene scene{2, 0.0};
    Render ref = render(scene, 0), tar = render(scene, 1);
    std::vector<float> normals, ncc;
    std::vector<uint8_t> mask;

    PairGradientInputs() {
        for (int f = 0; f < scene.mesh.numF(); ++f) normals.insert(normals.end(), {0.0f, 0.0f, -1.0f});
        ncc.resize(kPixels);
        for (size_t i = 0; i < kPixels; ++i) ncc[i] = std::sin(0.37f * float(i));
        mask.assign(kPixels, 0);
        for (size_t i = 0; i < kPixels; ++i) mask[i] = ref.facet[i] >= 0;
    }

    void addOnDevice(std::vector<float>& grad, std::vector<float>& hits) const {
        const auto& m = scene.mesh;
        AddPhotometricGradient_ImagePair_CUDA(m.numF(), m.facets.data(), normals.data(), W, H, scene.cameras[0],
                                              image(scene, 0), ref.depth.data(), ref.facet.data(), scene.cameras[1],
                                              image(scene, 1), tar.depth.data(), tar.facet.data(), ref.b.data(),
                                              ref.c.data(), ncc.data(), mask.data(), 2.0f, 2.0f, m.numV(),
                                              grad.data(), hits.data());
    }

    // The integrated kernel of the same pair, run here pixel by pixel.
    void addIntegrated(std::vector<float>& grad, std::vector<float>& hits) const {
        const auto& m = scene.mesh;
        const tessaline::Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA k{
            m.numF(), m.facets.data(), normals.data(), W, H, scene.cameras[0], ref.depth.data(), ref.facet.data(), 0,
            scene.cameras[1], tar.depth.data(), tar.facet.data(), 1, ref.b.data(), ref.c.data(), ncc.data(),
            mask.data(), 2.0f, 2.0f, m.numV(), grad.data(), hits.data(), stackTexture(scene)};
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) k(x, y);
    }
};

class SingleStep : public OnEachBackend {};

TEST_P(SingleStep, PerPairWarpEqualsTheIntegratedWarp) {
    const PlaneScene s(2, 0.0);
    const Render r0 = render(s, 0), r1 = render(s, 1);
    std::vector<float> pair(kPixels, 7.0f), integrated(kPixels, 7.0f);
    Perspective_Image_Model_Image_Warp_CUDA(s.cameras[0], r0.depth.data(), r0.facet.data(), s.cameras[1],
                                            r1.depth.data(), r1.facet.data(), image(s, 1), W, H, pair.data());
    const tessaline::Kernel_Integrated_Perspective_Image_Model_Image_Warp_CUDA k{
        s.cameras[0], r0.depth.data(), r0.facet.data(), 0, s.cameras[1], r1.depth.data(), r1.facet.data(), 1,
        W, H, integrated.data(), stackTexture(s)};
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) k(x, y);
    size_t valued = 0;
    for (size_t i = 0; i < kPixels; ++i) {
        ASSERT_EQ(pair[i], integrated[i]) << "pixel " << i % W << "," << i / W;
        valued += pair[i] != -1.0f;
    }
    EXPECT_GT(valued, kPixels / 4);
}

TEST_P(SingleStep, PerPairGradientTakesPixelsUpToACosineOfMinusOneHundredth) {
    PairGradientInputs in;
    // One pixel in the middle of the reference, and every facet's normal at
    // a chosen cosine to that pixel's ray.
    const int x = W / 2, y = H / 2, e = y * W + x;
    ASSERT_GE(in.ref.facet[e], 0);
    std::fill(in.mask.begin(), in.mask.end(), 0);
    in.mask[e] = 1;
    float r[3];
    tessaline::viewingRayF(in.scene.cameras[0], x, y, r);
    const float q[3] = {r[2], 0.0f, -r[0]};  // perpendicular to r
    const float ql = std::sqrt(q[0] * q[0] + q[2] * q[2]);
    auto hitsAt = [&](double cosine, bool perPair) {
        const double sine = std::sqrt(1.0 - cosine * cosine);
        for (size_t f = 0; f < in.normals.size(); f += 3)
            for (int k = 0; k < 3; ++k) in.normals[f + k] = float(cosine * r[k] + sine * q[k] / ql);
        std::vector<float> grad(3 * size_t(in.scene.mesh.numV()), 0.0f), hits(in.scene.mesh.numV(), 0.0f);
        if (perPair)
            in.addOnDevice(grad, hits);
        else
            in.addIntegrated(grad, hits);
        float total = 0.0f;
        for (float h : hits) total += h;
        return total;
    };
    EXPECT_EQ(hitsAt(-0.5, true), 3.0f);  // the pixel reaches its facet's three vertices
    EXPECT_EQ(hitsAt(-0.5, false), 3.0f);
    EXPECT_EQ(hitsAt(-0.05, true), 3.0f);  // between the limits: the per-pair kernel alone
    EXPECT_EQ(hitsAt(-0.05, false), 0.0f);
    EXPECT_EQ(hitsAt(-0.005, true), 0.0f);
    EXPECT_EQ(hitsAt(-0.005, false), 0.0f);
}

TEST_P(SingleStep, PerPairGradientAddsToWhatEarlierCallsLeft) {
    const PairGradientInputs in;
    const int nv = in.scene.mesh.numV();
    std::vector<float> grad(3 * size_t(nv), 0.25f), hits(nv, 2.0f);
    in.addOnDevice(grad, hits);
    const std::vector<float> grad1 = grad, hits1 = hits;
    in.addOnDevice(grad, hits);
    int reached = 0;
    for (int v = 0; v < nv; ++v) {
        // Pixel counts are whole numbers: exact in float.
        EXPECT_EQ(hits[v], 2.0f + 2.0f * (hits1[v] - 2.0f)) << "vertex " << v;
        reached += hits1[v] > 2.0f;
        for (int k = 0; k < 3; ++k) {
            const float once = grad1[3 * v + k] - 0.25f;
            // Atomic additions in no fixed order: equal up to rounding.
            EXPECT_NEAR(grad[3 * v + k], 0.25f + 2.0f * once, 1e-4f * (1.0f + std::fabs(once)));
        }
    }
    EXPECT_GT(reached, nv / 2);
}

// Runs the smoothness descent on the scene's rings and returns what it printed.
std::string descend(const PlaneScene& s, float* vertices, const uint8_t* mask, int iterations) {
    testing::internal::CaptureStdout();
    Smoothness_GradientDescent_CUDA(s.mesh.numV(), vertices, s.mesh.numF(), s.mesh.facets.data(),
                                    int(s.rings.list.size()), s.rings.list.data(), s.rings.counts.data(),
                                    s.rings.offsets.data(), mask, iterations);
    return testing::internal::GetCapturedStdout();
}

TEST_P(SingleStep, SmoothnessDescentWithoutIterationsLeavesTheMeshAndReportsMemory) {
    PlaneScene s(0, 0.0, 0.05f);
    const std::vector<float> before = s.mesh.vertices;
    const std::string out = descend(s, s.mesh.vertices.data(), nullptr, 0);
    EXPECT_EQ(s.mesh.vertices, before);
    size_t last = 0;
    for (const char* step : {"Before allocating", "After allocating", "After free"}) {
        const size_t at = out.find(std::string(step) + ": device memory aviable: ");
        ASSERT_NE(at, std::string::npos) << step << "\n" << out;
        EXPECT_GE(at, last) << step;
        last = at;
    }
    EXPECT_NE(out.find("MB  Total: "), std::string::npos);
}

TEST_P(SingleStep, OneDescentStepMovesEachVertexByMinusItsSmoothnessGradient) {
    PlaneScene s(0, 0.0, 0.05f);
    const int nv = s.mesh.numV();
    std::vector<float> gradient(3 * size_t(nv), 0.0f);
    ComputeSmoothnessGradient_CUDA(nv, s.mesh.vertices.data(), s.mesh.numF(), s.mesh.facets.data(),
                                   int(s.rings.list.size()), s.rings.list.data(), s.rings.counts.data(),
                                   s.rings.offsets.data(), gradient.data());
    std::vector<float> moved = s.mesh.vertices;
    descend(s, moved.data(), nullptr, 1);
    float largest = 0.0f;
    for (size_t i = 0; i < moved.size(); ++i) {
        ASSERT_EQ(moved[i], s.mesh.vertices[i] - gradient[i]) << i;
        largest = std::max(largest, std::fabs(gradient[i]));
    }
    EXPECT_GT(largest, 1e-3f);  // the bumps give the gradient something to do
}

TEST_P(SingleStep, SmoothnessDescentHoldsMaskedVerticesAndMovesTheRest) {
    PlaneScene s(0, 0.0, 0.05f);
    const int nv = s.mesh.numV();
    std::vector<uint8_t> mask(nv, 1);
    for (int v = 0; v < nv; v += 3) mask[v] = 0;
    const std::vector<float> before = s.mesh.vertices;
    descend(s, s.mesh.vertices.data(), mask.data(), 5);
    int moved = 0;
    for (int v = 0; v < nv; ++v)
        for (int k = 0; k < 3; ++k) {
            if (mask[v] == 0)
                ASSERT_EQ(s.mesh.vertices[3 * v + k], before[3 * v + k]) << "vertex " << v;
            else
                moved += s.mesh.vertices[3 * v + k] != before[3 * v + k];
        }
    EXPECT_GT(moved, nv);
}

TEST_P(SingleStep, RefusesAFacetOutsideTheMesh) {
    PlaneScene s(0, 0.0);
    std::vector<int> facets = s.mesh.facets;
    facets[4] = s.mesh.numV();
    std::vector<float> gradient(3 * size_t(s.mesh.numV()), 5.0f);
    testing::internal::CaptureStdout();
    ComputeSmoothnessGradient_CUDA(s.mesh.numV(), s.mesh.vertices.data(), s.mesh.numF(), facets.data(),
                                   int(s.rings.list.size()), s.rings.list.data(), s.rings.counts.data(),
                                   s.rings.offsets.data(), gradient.data());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("Error: ComputeSmoothnessGradient_CUDA: ", 0), 0u) << out;
    for (float g : gradient) ASSERT_EQ(g, 5.0f);
}

TESSALINE_INSTANTIATE_ON_BACKENDS(SingleStep);

TEST(GradientDescentUpdateMask, MaskedVerticesKeepTheirPositionsWhateverTheGradient) {
    const int nv = 7;
    std::vector<float> vertices(3 * nv), gradient(3 * nv);
    for (int i = 0; i < 3 * nv; ++i) {
        vertices[i] = 0.5f * float(i) - 3.0f;
        gradient[i] = 1.0f / float(i + 1);
    }
    gradient[0] = std::numeric_limits<float>::quiet_NaN();
    gradient[1] = std::numeric_limits<float>::infinity();
    const std::vector<uint8_t> mask = {0, 1, 0, 255, 0, 2, 1};
    const std::vector<float> before = vertices;
    const tessaline::Kernel_GradientDescent_UpdateMask k{nv, vertices.data(), gradient.data(), 0.5f, mask.data()};
    for (int id = -1; id < nv + 5; ++id) k(id);  // outside ids are guarded
    for (int v = 0; v < nv; ++v)
        for (int c = 0; c < 3; ++c) {
            const int i = 3 * v + c;
            if (mask[v] == 0)
                EXPECT_EQ(vertices[i], before[i]) << "vertex " << v;
            else  // one multiply-add
                EXPECT_EQ(vertices[i], std::fma(-gradient[i], 0.5f, before[i])) << "vertex " << v;
        }
}

}  // namespace
