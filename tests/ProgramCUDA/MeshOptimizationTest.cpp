// Integrated_Mesh_Optimization_CUDA on every backend: what moves the vertices
// and what does not, its console output, and its refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"

namespace {

using namespace tessaline::test;
constexpr int W = PlaneScene::W, H = PlaneScene::H;

// The scene's vertices after the call, which must succeed; what it printed
// goes to `output` when given.
std::vector<float> optimise(const DeviceHandle& device, const PlaneScene& s, const std::vector<uint8_t>& pairs,
                            int iterations, bool firstOrder, std::string* output = nullptr) {
    std::vector<float> v = s.mesh.vertices;
    DeviceStatus status = DeviceStatus::Failed;
    const std::string out = printedBy(
        [&] { status = Integrated_Mesh_Optimization_CUDA(device, optimizationArgs(s, v, pairs, iterations, firstOrder)); });
    EXPECT_EQ(status, DeviceStatus::Ok) << out;
    if (output) *output = out;
    return v;
}

// The smoothness steps alone, worked by hand in double.
std::vector<float> smoothnessSteps(std::vector<float> v, const OneRings& r, int iterations, bool firstOrder) {
    const size_t n = r.counts.size();
    auto ringMean = [&](const auto& x, size_t i, int c) {
        double s = 0;
        for (int k = 0; k < r.counts[i]; ++k) s += x[3 * r.list[r.offsets[i] + k] + c];
        return r.counts[i] ? s / r.counts[i] : 0.0;
    };
    for (int it = 0; it < iterations; ++it) {
        std::vector<double> L(3 * n), step(3 * n);
        for (size_t i = 0; i < 3 * n; ++i) L[i] = v[i] - ringMean(v, i / 3, int(i % 3));
        for (size_t i = 0; i < 3 * n; ++i) {
            double divisor = 1.0;
            for (int k = 0; k < r.counts[i / 3]; ++k)
                divisor += double(r.counts[i / 3]) / r.counts[r.list[r.offsets[i / 3] + k]];
            step[i] = firstOrder ? 0.1 * L[i] : 0.5 * (L[i] - ringMean(L, i / 3, int(i % 3))) / divisor;
        }
        for (size_t i = 0; i < 3 * n; ++i) v[i] = float(v[i] - step[i]);
    }
    return v;
}

void expectNear(const std::vector<float>& got, const std::vector<float>& want, float tol) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], tol) << "coordinate " << i;
}

class MeshOptimization : public OnEachBackend {};

TEST_P(MeshOptimization, OnlySmoothnessMovesWithoutPairsOrWithOneCamera) {
    PlaneScene three(3, 0.0, 0.05f);
    const PlaneScene one(1, 0.03, 0.05f);
    // A vertex on no facet and without neighbours: its umbrella is its own position.
    three.mesh.vertices.insert(three.mesh.vertices.end(), {0.1f, -0.2f, 0.3f});
    three.rings.counts.push_back(0);
    three.rings.offsets.push_back(0);
    for (bool firstOrder : {true, false}) {
        const auto want = smoothnessSteps(three.mesh.vertices, three.rings, 3, firstOrder);
        expectNear(optimise(device(), three, std::vector<uint8_t>(9, 0), 3, firstOrder), want, 2e-6f);
        // The diagonal and entries other than 1 are no pairs either.
        expectNear(optimise(device(), three, {1, 2, 255, 0, 1, 3, 128, 2, 1}, 3, firstOrder), want, 2e-6f);
        expectNear(optimise(device(), one, {1}, 2, firstOrder),
                   smoothnessSteps(one.mesh.vertices, one.rings, 2, firstOrder), 2e-6f);
    }
}

TEST_P(MeshOptimization, DisplacedPlaneMovesTowardTheTrueSurface) {
    for (double offset : {0.03, -0.03}) {
        const PlaneScene scene(3, offset);
        for (bool firstOrder : {true, false}) {
            // A flat mesh has no smoothness gradient in z: z moves by the
            // photometric step alone, and must close much of the gap.
            const std::vector<float> v = optimise(device(), scene, std::vector<uint8_t>(9, 1), 4, firstOrder);
            double z = 0;
            for (size_t i = 2; i < v.size(); i += 3) z += v[i] / (v.size() / 3);
            EXPECT_LT(std::fabs(z), 0.8 * std::fabs(offset)) << "offset " << offset << " first order " << firstOrder;
        }
    }
}

TEST_P(MeshOptimization, PairsThroughACameraThatSeesNothingAddNothing) {
    PlaneScene scene(3, 0.03);
    const double c[3] = {0.0, 0.3, -1.9}, away[3] = {0.0, 0.3, -5.0}, up[3] = {0, -1, 0};
    scene.cameras[2] = lookAtCamera(c, away, up, 100.0, 100.0, 47.5, 39.5);
    // Atomic sums in any thread order: each run's gradients may differ in the
    // last bits, which three steps grow to a few 1e-6 (moves are about 1e-2).
    expectNear(optimise(device(), scene, {0, 1, 1, 1, 0, 1, 1, 1, 0}, 3, true),
               optimise(device(), scene, {0, 1, 0, 1, 0, 0, 0, 0, 0}, 3, true), 2e-5f);
}

TEST_P(MeshOptimization, TakesItsStepsAndWindowFromTheArguments) {
    const PlaneScene scene(3, 0.03);
    const std::vector<uint8_t> pairs(9, 1);
    auto run = [&](DescentSteps steps, int halfWindow) {
        std::vector<float> v = scene.mesh.vertices;
        MeshOptimizationArgs a = optimizationArgs(scene, v, pairs, 2, false);
        a.steps = steps;
        a.halfWindow = halfWindow;
        DeviceStatus status = DeviceStatus::Failed;
        printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(device(), a); });
        EXPECT_EQ(status, DeviceStatus::Ok);
        return v;
    };
    EXPECT_EQ(run(DescentSteps{0.0f, 0.0f, 0.0f}, 2), scene.mesh.vertices) << "no step, no move";
    const std::vector<float> standard = run(DescentSteps(), 2);
    EXPECT_EQ(standard, optimise(device(), scene, pairs, 2, false)) << "the defaults are the standard steps";
    EXPECT_NE(run(DescentSteps{37.5f, 0.1f, 0.5f}, 2), standard);
    EXPECT_NE(run(DescentSteps(), 3), standard);
    for (int halfWindow : {0, 17}) {
        std::vector<float> v = scene.mesh.vertices;
        MeshOptimizationArgs a = optimizationArgs(scene, v, pairs, 2, false);
        a.halfWindow = halfWindow;
        expectRefused("Integrated_Mesh_Optimization_CUDA: ", [&] { return Integrated_Mesh_Optimization_CUDA(device(), a); });
    }
}

TEST_P(MeshOptimization, ReportsEachIterationAndStopsWhenAskedTo) {
    const PlaneScene scene(3, 0.03);
    const std::vector<uint8_t> pairs(9, 1);
    DeviceHandle d = device();
    std::vector<long long> seen;
    d.context.onIteration = [&](long long done, long long total) {
        seen.push_back(done * 100 + total);
        return done < 2;  // stop after the second
    };
    std::vector<float> v = scene.mesh.vertices;
    DeviceStatus status = DeviceStatus::Ok;
    const std::string out = printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(d, optimizationArgs(scene, v, pairs, 4, true)); });
    EXPECT_EQ(status, DeviceStatus::Failed);
    EXPECT_EQ(seen, (std::vector<long long>{104, 204}));
    EXPECT_EQ(v, scene.mesh.vertices) << "a stopped call leaves the vertices as they came";
    EXPECT_NE(out.find("Error: Integrated_Mesh_Optimization_CUDA: stopped on request; stopped after 2 of 4 iterations"),
              std::string::npos)
        << out;
    d.context.onIteration = [&](long long, long long) { return true; };
    EXPECT_EQ(optimise(d, scene, pairs, 4, true), optimise(device(), scene, pairs, 4, true)) << "a hook changes nothing";
}

TEST_P(MeshOptimization, PrintsMemoryReportsAndAnOverwritingCounter) {
    const PlaneScene scene(2, 0.03, 0.02f);
    std::string out;
    optimise(device(), scene, {0, 1, 1, 0}, 2, true, &out);
    size_t at = 0;
    for (const char* part : {"Before allocating: device memory aviable: ", "MB  Total: ",
                             "\nAfter allocating: device memory aviable: ", "\rmesh optimizing iteration: 1/2",
                             "\rmesh optimizing iteration: 2/2\nAfter free: device memory aviable: "}) {
        at = out.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << " in " << out;
    }
    EXPECT_EQ(out.rfind("Before", 0), 0u);
    EXPECT_EQ(out.substr(out.size() - 2), "\n\n");
    // Fewer than one iteration: no counter, and the vertices as they came.
    for (int iterations : {0, -2}) {
        EXPECT_EQ(optimise(device(), scene, {0, 1, 1, 0}, iterations, true, &out), scene.mesh.vertices)
            << iterations;
        EXPECT_EQ(out.find("mesh optimizing iteration"), std::string::npos) << out;
    }
}

TEST_P(MeshOptimization, RefusesInconsistentArgumentsAndTouchesNothing) {
    PlaneScene scene(2, 0.03);
    const PlaneScene good = scene;
    auto refused = [&](int width) {
        std::vector<float> v = scene.mesh.vertices;
        expectRefused("Integrated_Mesh_Optimization_CUDA: ", [&] {
            return Integrated_Mesh_Optimization_CUDA(device(), optimizationArgs(scene, v, {0, 1, 1, 0}, 2, true, width));
        });
        EXPECT_EQ(v, good.mesh.vertices);
        scene = good;
    };
    refused(-W);
    refused(1 << 26);  // width * height beyond int pixel indices
    scene.images = std::vector<uint8_t>();
    refused(W);
    scene.mesh.facets[7] = scene.mesh.numV();
    refused(W);
    scene.rings.offsets[3] = int(scene.rings.list.size()) - 1;
    refused(W);
    scene.rings.list[5] = -1;
    refused(W);
}

TESSALINE_INSTANTIATE_ON_BACKENDS(MeshOptimization);

}  // namespace
