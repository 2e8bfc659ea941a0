// Integrated_Mesh_Optimization_CUDA on every backend: what moves the vertices
// and what does not, its console output, and its refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"

namespace {

using tessaline::test::GridMesh;
using tessaline::test::OnEachBackend;
using tessaline::test::OneRings;

constexpr int W = 96, H = 80;

// A grid mesh near the textured plane z = 0 and up to three cameras on it.
struct Scene {
    GridMesh mesh;
    OneRings rings;
    std::vector<mycamera_cuda> cameras;
    std::vector<uint8_t> images;

    Scene(int numCameras, double offset, double bumpiness = 0.0) {
        mesh = tessaline::test::makeGridMesh(4, 0.5, offset);
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> bump(-1.0f, 1.0f);
        for (size_t i = 2; i < mesh.vertices.size(); i += 3) mesh.vertices[i] += float(bumpiness) * bump(rng);
        rings = tessaline::test::oneRingsOf(mesh.numV(), mesh.facets);
        const double centres[3][3] = {{-0.3, 0.0, -2.0}, {0.3, 0.05, -2.0}, {0.0, 0.3, -1.9}};
        for (int c = 0; c < numCameras; ++c) {
            cameras.push_back(tessaline::test::planeCamera(centres[c][0], centres[c][1], centres[c][2], 100.0, W, H));
            const auto img = tessaline::test::renderPlaneImage(cameras.back(), W, H);
            images.insert(images.end(), img.begin(), img.end());
        }
    }

    // Runs the optimisation on a copy of the mesh vertices and returns them.
    std::vector<float> optimise(const std::vector<uint8_t>& pairMask, int iterations, bool firstOrder,
                                std::string* output = nullptr) const {
        std::vector<float> v = mesh.vertices;
        ::testing::internal::CaptureStdout();
        Integrated_Mesh_Optimization_CUDA(mesh.numV(), v.data(), mesh.numF(), mesh.facets.data(),
                                          int(rings.list.size()), rings.list.data(), rings.counts.data(),
                                          rings.offsets.data(), int(cameras.size()), W, H, cameras.data(),
                                          images.data(), iterations, pairMask.data(), firstOrder);
        const std::string out = ::testing::internal::GetCapturedStdout();
        if (output) *output = out;
        return v;
    }
};

// The smoothness step alone, in double: v - step * L(v) or v - step * L2(v).
std::vector<float> smoothnessSteps(std::vector<float> v, const OneRings& r, int iterations, bool firstOrder) {
    const size_t n = r.counts.size();
    for (int it = 0; it < iterations; ++it) {
        std::vector<double> L(3 * n), L2(3 * n);
        for (size_t i = 0; i < n; ++i)
            for (int c = 0; c < 3; ++c) {
                double mean = 0;
                for (int k = 0; k < r.counts[i]; ++k) mean += v[3 * r.list[r.offsets[i] + k] + c];
                L[3 * i + c] = v[3 * i + c] - (r.counts[i] ? mean / r.counts[i] : 0.0);
            }
        for (size_t i = 0; i < n; ++i) {
            double divisor = 1.0;
            for (int k = 0; k < r.counts[i]; ++k) divisor += double(r.counts[i]) / r.counts[r.list[r.offsets[i] + k]];
            for (int c = 0; c < 3; ++c) {
                double mean = 0;
                for (int k = 0; k < r.counts[i]; ++k) mean += L[3 * r.list[r.offsets[i] + k] + c];
                L2[3 * i + c] = (L[3 * i + c] - (r.counts[i] ? mean / r.counts[i] : 0.0)) / divisor;
            }
        }
        for (size_t i = 0; i < 3 * n; ++i) v[i] = float(v[i] - (firstOrder ? 0.1 * L[i] : 0.5 * L2[i]));
    }
    return v;
}

void expectNear(const std::vector<float>& got, const std::vector<float>& want, float tol) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], tol) << "coordinate " << i;
}

double meanZ(const std::vector<float>& v) {
    double s = 0;
    for (size_t i = 2; i < v.size(); i += 3) s += v[i];
    return s / double(v.size() / 3);
}

class MeshOptimization : public OnEachBackend {};

TEST_P(MeshOptimization, FewerThanOneIterationReturnsTheVerticesAsTheyCame) {
    const Scene scene(3, 0.03, 0.02);
    for (int iterations : {0, -2}) {
        std::string out;
        const std::vector<float> v = scene.optimise(std::vector<uint8_t>(9, 1), iterations, true, &out);
        EXPECT_EQ(v, scene.mesh.vertices);
        EXPECT_EQ(out.find("mesh optimizing iteration"), std::string::npos) << out;
        EXPECT_NE(out.find("After free: device memory aviable: "), std::string::npos) << out;
    }
}

TEST_P(MeshOptimization, WithoutPairsOnlyTheSmoothnessStepMoves) {
    const Scene scene(3, 0.0, 0.05);
    for (bool firstOrder : {true, false}) {
        const std::vector<float> v = scene.optimise(std::vector<uint8_t>(9, 0), 3, firstOrder);
        expectNear(v, smoothnessSteps(scene.mesh.vertices, scene.rings, 3, firstOrder), 2e-6f);
    }
}

TEST_P(MeshOptimization, OneCameraMovesBySmoothnessAlone) {
    const Scene scene(1, 0.03, 0.05);
    const std::vector<float> v = scene.optimise({1}, 2, false);
    expectNear(v, smoothnessSteps(scene.mesh.vertices, scene.rings, 2, false), 2e-6f);
}

TEST_P(MeshOptimization, DiagonalAndEntriesOtherThanOneAreNotPairs) {
    const Scene scene(3, 0.03);
    const std::vector<float> none = scene.optimise(std::vector<uint8_t>(9, 0), 2, true);
    const std::vector<float> odd = scene.optimise({1, 2, 255, 0, 1, 3, 128, 2, 1}, 2, true);
    EXPECT_EQ(odd, none);
    // A single proper entry does move the mesh off the smoothness path.
    const std::vector<float> one = scene.optimise({1, 2, 255, 1, 1, 3, 128, 2, 1}, 2, true);
    EXPECT_NE(one, none);
}

TEST_P(MeshOptimization, DisplacedPlaneMovesTowardTheTrueSurface) {
    for (double offset : {0.03, -0.03}) {
        const Scene scene(3, offset);
        for (bool firstOrder : {true, false}) {
            const std::vector<float> v = scene.optimise(std::vector<uint8_t>(9, 1), 4, firstOrder);
            // A flat mesh has no smoothness gradient in z: all z motion is
            // photometric, and it must close a good part of the gap.
            const double z = meanZ(v);
            EXPECT_LT(std::fabs(z), 0.8 * std::fabs(offset)) << "offset " << offset << " first " << firstOrder;
            for (float c : v) ASSERT_TRUE(std::isfinite(c));
        }
    }
}

TEST_P(MeshOptimization, PairThroughACameraThatSeesNothingAddsNothing) {
    Scene scene(3, 0.03);
    // Camera 2 turns away from the mesh: its renders stay empty throughout.
    const double c[3] = {0.0, 0.3, -1.9}, away[3] = {0.0, 0.3, -5.0}, up[3] = {0, -1, 0};
    scene.cameras[2] = tessaline::test::lookAtCamera(c, away, up, 100.0, 100.0, 47.5, 39.5);
    const std::vector<float> without = scene.optimise({0, 1, 0, 1, 0, 0, 0, 0, 0}, 3, true);
    const std::vector<float> with = scene.optimise({0, 1, 1, 1, 0, 1, 1, 1, 0}, 3, true);
    expectNear(with, without, 1e-6f);
    for (float v : with) ASSERT_TRUE(std::isfinite(v));
}

TEST_P(MeshOptimization, PrintsMemoryReportsAndAnOverwritingCounter) {
    const Scene scene(2, 0.03);
    std::string out;
    scene.optimise({0, 1, 1, 0}, 2, true, &out);
    const size_t before = out.find("Before allocating: device memory aviable: ");
    const size_t after = out.find("After allocating: device memory aviable: ");
    const size_t first = out.find("\rmesh optimizing iteration: 1/2");
    const size_t second = out.find("\rmesh optimizing iteration: 2/2\n");
    const size_t freed = out.find("\nAfter free: device memory aviable: ");
    ASSERT_EQ(before, 0u) << out;
    EXPECT_LT(before, after);
    EXPECT_LT(after, first);
    EXPECT_LT(first, second);
    EXPECT_LT(second, freed);
    EXPECT_NE(out.find("MB  Total: "), std::string::npos);
    // The report ends its line, and one more line end follows it.
    EXPECT_EQ(out.substr(out.size() - 2), "\n\n") << out;
    EXPECT_EQ(out.find("Error"), std::string::npos) << out;
}

TEST_P(MeshOptimization, RefusesInconsistentArgumentsAndTouchesNothing) {
    const Scene scene(2, 0.03);
    const std::vector<uint8_t> pairs{0, 1, 1, 0};
    auto run = [&](int numV, const std::vector<int>& facets, const OneRings& rings, int width, int height,
                   const uint8_t* images) {
        std::vector<float> v = scene.mesh.vertices;
        ::testing::internal::CaptureStdout();
        Integrated_Mesh_Optimization_CUDA(numV, v.data(), int(facets.size() / 3), facets.data(),
                                          int(rings.list.size()), rings.list.data(), rings.counts.data(),
                                          rings.offsets.data(), 2, width, height, scene.cameras.data(), images, 2,
                                          pairs.data(), true);
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.rfind("Error: Integrated_Mesh_Optimization_CUDA: ", 0), 0u) << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
        EXPECT_EQ(v, scene.mesh.vertices);
    };
    const int nv = scene.mesh.numV();
    run(-1, scene.mesh.facets, scene.rings, W, H, scene.images.data());
    run(nv, scene.mesh.facets, scene.rings, W, H, nullptr);
    run(nv, scene.mesh.facets, scene.rings, -W, H, scene.images.data());
    run(nv, scene.mesh.facets, scene.rings, 1 << 16, 1 << 16, scene.images.data());
    std::vector<int> badFacets = scene.mesh.facets;
    badFacets[7] = nv;
    run(nv, badFacets, scene.rings, W, H, scene.images.data());
    OneRings badRings = scene.rings;
    badRings.offsets[3] = int(badRings.list.size()) - 1;
    run(nv, scene.mesh.facets, badRings, W, H, scene.images.data());
    badRings = scene.rings;
    badRings.list[5] = -1;
    run(nv, scene.mesh.facets, badRings, W, H, scene.images.data());
}

TESSALINE_INSTANTIATE_ON_BACKENDS(MeshOptimization);

}  // namespace
