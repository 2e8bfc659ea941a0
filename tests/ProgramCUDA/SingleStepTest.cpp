// The single-step entry points against the integrated kernels they mirror:
// the per-pair gradient and its accumulation across calls, the masked descent
// and the smoothness fairing, and the refusals of all four. (The per-pair
// warp is checked with the warp kernel, the per-pair cosine limit with the
// gradient kernels.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "FixedPointSum.h"
#include "optimization/PhotometricGradientKernels.h"

namespace {

using namespace tessaline::test;

constexpr int W = PlaneScene::W, H = PlaneScene::H;
constexpr size_t kPixels = size_t(W) * H;

const uint8_t* image(const PlaneScene& s, int camera) { return s.images.data() + size_t(camera) * kPixels; }

// The inputs of one pair's gradient accumulation, camera 0 against camera 1,
// rendered on `device`.
struct PairGradientInputs {
    PlaneScene scene{2, 0.0};
    ZRender ref, tar;
    std::vector<float> normals, ncc;
    std::vector<uint8_t> mask;

    explicit PairGradientInputs(const DeviceHandle& device)
        : ref(zbuffer(device, scene.mesh.vertices, scene.mesh.facets, scene.cameras[0], W, H)),
          tar(zbuffer(device, scene.mesh.vertices, scene.mesh.facets, scene.cameras[1], W, H)) {
        for (int f = 0; f < scene.mesh.numF(); ++f) normals.insert(normals.end(), {0.0f, 0.0f, -1.0f});
        for (size_t i = 0; i < kPixels; ++i) ncc.push_back(std::sin(0.37f * float(i))), mask.push_back(ref.facet[i] >= 0);
    }

    DeviceStatus addOnDevice(const DeviceHandle& device, std::vector<float>& grad, std::vector<float>& hits) const {
        const auto& m = scene.mesh;
        return AddPhotometricGradient_ImagePair_CUDA(
            device, PairGradientArgs{m.numF(), m.facets.data(), normals.data(), W, H, scene.cameras[0],
                                     ref.depth.data(), ref.facet.data(), scene.cameras[1], image(scene, 1),
                                     ref.b.data(), ref.c.data(), ncc.data(), mask.data(), 2.0f, 2.0f, m.numV(),
                                     grad.data(), hits.data()});
    }

    // The integrated kernel of the same pair, run here on the host pixel by
    // pixel, its fixed-point sums on the scale of the pair's mean depth 2.
    // The entry point must give these bytes on either backend: the CPU
    // sampler returns what the texture unit returns, and the sums are exact.
    void addIntegrated(std::vector<float>& grad, std::vector<float>& hits) const {
        const auto& m = scene.mesh;
        const tessaline::FixedPointScale scale = tessaline::fixedPointScaleFor(2.0f);
        tessaline::LayeredTexture stack;  // the scene's images as the CPU sampler reads them
        stack.data = scene.images.data(), stack.width = W, stack.height = H, stack.layers = 2;
        std::vector<unsigned long long> sums(grad.size(), 0);
        using tessaline::imageView;
        const tessaline::RenderedCamera reference{scene.cameras[0], imageView(ref.depth.data(), W, H),
                                                  imageView(ref.facet.data(), W, H), imageView(ref.b.data(), W, H),
                                                  imageView(ref.c.data(), W, H)};
        const tessaline::RenderedCamera target{scene.cameras[1], {}, {}, {}, {}};
        const tessaline::PairSurface<tessaline::StackLayerFetch> surface{
            {m.numF(), m.facets.data(), normals.data()}, {reference, target, {stack, 1}}, 2.0f, 2.0f};
        const tessaline::Kernel_Integrated_AddPhotometricGradient_ImagePair_CUDA k{
            {surface, imageView(ncc.data(), W, H), imageView(mask.data(), W, H), {sums.data(), scale.toFixed},
             hits.data()}};
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) k(x, y);
        for (size_t i = 0; i < grad.size(); ++i) grad[i] += tessaline::fromFixedPoint(sums[i], scale.toFloat);
    }
};

class SingleStep : public OnEachBackend {};

TEST_P(SingleStep, PerPairGradientEqualsTheIntegratedOneAndAddsToEarlierSums) {
    const PairGradientInputs in(device());
    const int nv = in.scene.mesh.numV();
    std::vector<float> once(3 * size_t(nv), 0.0f), onceHits(nv, 0.0f);
    in.addIntegrated(once, onceHits);
    std::vector<float> grad(3 * size_t(nv), 0.25f), hits(nv, 2.0f);
    ASSERT_EQ(in.addOnDevice(device(), grad, hits), DeviceStatus::Ok);
    ASSERT_EQ(in.addOnDevice(device(), grad, hits), DeviceStatus::Ok);
    float largest = 0.0f;
    for (float g : once) largest = std::max(largest, std::fabs(g));
    EXPECT_GT(largest, 1e-3f);
    int reached = 0;
    for (int v = 0; v < nv; ++v) {
        EXPECT_EQ(hits[v], 2.0f + 2.0f * onceHits[v]) << "vertex " << v;  // whole numbers: exact in float
        reached += onceHits[v] > 0.0f;
        // Each call adds its own fixed-point sum, rounded once to float.
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(grad[3 * v + k], (0.25f + once[3 * v + k]) + once[3 * v + k]) << "vertex " << v;
    }
    EXPECT_GT(reached, nv / 2);
}

// The smoothness descent on the scene's rings.
DeviceStatus descend(const DeviceHandle& device, const PlaneScene& s, float* vertices, const uint8_t* mask,
                     int iterations) {
    return Smoothness_GradientDescent_CUDA(
        device, SmoothnessDescentArgs{s.mesh.numV(), vertices, int(s.rings.list.size()), s.rings.list.data(),
                                      s.rings.counts.data(), s.rings.offsets.data(), mask, iterations});
}

DeviceStatus smoothnessGradient(const DeviceHandle& device, const PlaneScene& s, const float* vertices,
                                float* gradient) {
    return ComputeSmoothnessGradient_CUDA(
        device, SmoothnessGradientArgs{s.mesh.numV(), vertices, int(s.rings.list.size()), s.rings.list.data(),
                                       s.rings.counts.data(), s.rings.offsets.data(), gradient});
}

// Each step of the descent moves a vertex by minus its smoothness gradient
// (step 1), unless its mask byte is 0; a null mask moves them all.
TEST_P(SingleStep, DescentStepsByMinusTheSmoothnessGradientWhereTheMaskAllows) {
    const PlaneScene s(0, 0.0, 0.05f);
    const std::vector<float>& v0 = s.mesh.vertices;
    std::vector<float> g0(v0.size()), g1(v0.size()), v1(v0.size()), masked = v0;
    ASSERT_EQ(smoothnessGradient(device(), s, v0.data(), g0.data()), DeviceStatus::Ok);
    float largest = 0.0f;
    for (size_t i = 0; i < v0.size(); ++i) v1[i] = v0[i] - g0[i], largest = std::max(largest, std::fabs(g0[i]));
    EXPECT_GT(largest, 1e-3f);  // the bumps give the gradient something to do
    ASSERT_EQ(smoothnessGradient(device(), s, v1.data(), g1.data()), DeviceStatus::Ok);
    std::vector<uint8_t> mask(s.mesh.numV(), 1);
    for (size_t v = 0; v < mask.size(); v += 3) mask[v] = 0;
    std::vector<float> twice = v0;
    DeviceStatus status[2] = {DeviceStatus::Failed, DeviceStatus::Failed};
    const std::string out = printedBy([&] { status[0] = descend(device(), s, twice.data(), nullptr, 2); });
    printedBy([&] { status[1] = descend(device(), s, masked.data(), mask.data(), 1); });
    EXPECT_EQ(status[0], DeviceStatus::Ok) << out;
    EXPECT_EQ(status[1], DeviceStatus::Ok);
    for (size_t i = 0; i < v0.size(); ++i) {
        ASSERT_EQ(twice[i], v1[i] - g1[i]) << "two steps, coordinate " << i;
        ASSERT_EQ(masked[i], mask[i / 3] ? v1[i] : v0[i]) << "masked step, coordinate " << i;
    }
    size_t last = 0;
    for (const char* step : {"Before allocating", "After allocating", "After free"}) {
        last = out.find(std::string(step) + ": device memory aviable: ", last);
        ASSERT_NE(last, std::string::npos) << step << "\n" << out;
    }
    EXPECT_NE(out.find("MB  Total: "), std::string::npos) << out;
}

TEST_P(SingleStep, BadArgumentsAreRefusedWithoutTouchingTheOutputs) {
    PairGradientInputs in(device());
    PlaneScene& s = in.scene;
    const int nv = s.mesh.numV();
    s.mesh.facets[4] = nv;  // a facet outside the mesh: the gradient scatters to it
    s.rings.list[5] = nv;   // a neighbour outside the mesh: the umbrella reads it
    std::vector<float> out(3 * kPixels, 5.0f), hits(nv, 5.0f), vertices = s.mesh.vertices;
    const std::pair<const char*, std::function<DeviceStatus()>> cases[] = {
        {"ComputeSmoothnessGradient_CUDA", [&] { return smoothnessGradient(device(), s, vertices.data(), out.data()); }},
        {"Smoothness_GradientDescent_CUDA", [&] { return descend(device(), s, vertices.data(), nullptr, 1); }},
        {"AddPhotometricGradient_ImagePair_CUDA", [&] { return in.addOnDevice(device(), out, hits); }},
        {"Perspective_Image_Model_Image_Warp_CUDA",  // no reference depth
         [&] {
             return Perspective_Image_Model_Image_Warp_CUDA(
                 device(), PerspectiveWarpArgs{s.cameras[0], nullptr, in.ref.facet.data(), s.cameras[1],
                                               in.tar.depth.data(), image(s, 1), W, H, out.data()});
         }}};
    for (const auto& [entry, call] : cases) {
        expectRefused(entry, call);
        ASSERT_EQ(out, std::vector<float>(out.size(), 5.0f)) << entry;
        ASSERT_EQ(hits, std::vector<float>(hits.size(), 5.0f)) << entry;
        ASSERT_EQ(vertices, s.mesh.vertices) << entry;
    }
}

TESSALINE_INSTANTIATE_ON_BACKENDS(SingleStep);

}  // namespace
