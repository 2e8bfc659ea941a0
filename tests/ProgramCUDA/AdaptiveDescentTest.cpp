// The adaptive descent: the step kernel's factor and cap, the vertices'
// pixel footprints, and whole calls: the same bytes on every backend,
// schedule and thread count, a call that ends when the vertices settle and
// one that runs to its cap.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "optimization/AdaptiveStep.h"

namespace {

using namespace tessaline;
using namespace tessaline::test;

// One vertex at the origin with a footprint of 1, stepped by the kernel
// alone; each step's photometric gradient is given, smoothness is off.
struct OneVertexStep {
    float vertex[3] = {0, 0, 0};
    float factor = 1.0f;
    float previous[3] = {0, 0, 0};
    float footprint = 1.0f;
    uint8_t moving = 0;
    AdaptiveStepRule rule{1.0f, 0.0f, 0.5f, 1.25f, 0.25f, 0.05f};

    void step(float gx) {
        const float gradPhoto[3] = {gx, 0, 0}, gradSmooth[3] = {0, 0, 0};
        const Kernel_AdaptiveDescent kernel{1, vertex, gradPhoto, gradSmooth, rule,
                                            VertexStepState{&factor, previous, &footprint, &moving}};
        kernel(0);
        kernel(1);  // outside the range: nothing
    }
};

TEST(AdaptiveStepKernel, FactorHalvesOnATurnAndGrowsBackUpToOne) {
    OneVertexStep v;
    v.step(0.1f);
    EXPECT_EQ(v.factor, 1.0f) << "no turn at the start";
    EXPECT_FLOAT_EQ(v.vertex[0], -0.1f);
    v.step(-0.1f);
    EXPECT_EQ(v.factor, 0.5f);
    EXPECT_FLOAT_EQ(v.vertex[0], -0.05f);
    v.step(0.1f);
    EXPECT_EQ(v.factor, 0.25f);
    v.step(0.1f);
    EXPECT_EQ(v.factor, 0.3125f);
    for (int k = 0; k < 10; ++k) v.step(0.1f);
    EXPECT_EQ(v.factor, 1.0f);
}

TEST(AdaptiveStepKernel, MoveIsCappedAtItsShareOfTheFootprint) {
    OneVertexStep v;
    v.footprint = 2.0f;
    v.step(-3.0f);
    EXPECT_FLOAT_EQ(v.vertex[0], 0.5f) << "0.25 of a footprint of 2";
    EXPECT_EQ(v.moving, 1);
    v.step(-0.05f);
    EXPECT_FLOAT_EQ(v.vertex[0], 0.55f);
    EXPECT_EQ(v.moving, 0) << "0.05 is below 0.05 footprints of 2";
}

TEST(AdaptiveStepFootprint, SmallestDepthOverFocalLengthAmongTheCamerasTheVertexProjectsInto) {
    const PlaneScene s(2, 0.0);
    std::vector<float> vertices{0.0f, 0.0f, 0.0f, 50.0f, 0.0f, 0.0f};  // the second seen by no camera
    std::vector<uint8_t> pairs(4, 1);
    MeshOptimizationArgs a = optimizationArgs(s, vertices, pairs, 1, true);
    a.num_v = 2;
    const std::vector<float> footprint = vertexFootprints(a);
    // The closer camera stands sqrt(0.3^2 + 2^2) from the origin, with a
    // focal length of 100.
    EXPECT_NEAR(footprint[0], std::sqrt(0.09f + 4.0f) / 100.0f, 1e-6f);
    EXPECT_EQ(footprint[1], footprint[0]) << "an unseen vertex takes the largest seen footprint";
    a.num_cameras = 0;
    EXPECT_EQ(vertexFootprints(a)[0], FLT_MAX) << "nothing seen: no cap";
}

// An adaptive call on the bumpy plane; `iterations` counts the iterations
// run, through the run context's hook.
std::vector<float> optimise(DeviceHandle device, const PlaneScene& s, const AdaptiveDescent& adaptive, int cap,
                            bool firstOrder, long long* iterations = nullptr) {
    std::vector<float> v = s.mesh.vertices;
    const std::vector<uint8_t> pairs(9, 1);
    device.context.onIteration = [iterations](long long done, long long) {
        if (iterations) *iterations = done;
        return true;
    };
    MeshOptimizationArgs a = optimizationArgs(s, v, pairs, cap, firstOrder);
    a.adaptive = adaptive;
    DeviceStatus status = DeviceStatus::Failed;
    printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(device, a); });
    EXPECT_EQ(status, DeviceStatus::Ok);
    return v;
}

AdaptiveDescent adaptiveOn() {
    AdaptiveDescent d;
    d.enabled = true;
    return d;
}

class AdaptiveDescentCall : public OnEachBackend {};

TEST_P(AdaptiveDescentCall, SameVerticesOnEveryScheduleAndThreadCount) {
    const PlaneScene s(3, 0.03, 0.02f);
    for (bool firstOrder : {true, false}) {
        DeviceHandle d = device();
        d.context.schedule = OptimizationSchedule::Reference;
        const std::vector<float> reference = optimise(d, s, adaptiveOn(), 6, firstOrder);
        EXPECT_NE(reference, s.mesh.vertices) << "nothing moved";
        d.context.schedule = OptimizationSchedule::Fast;
        for (int threads : {1, 3}) {
            d.context.threads = threads;
            EXPECT_TRUE(sameBits(optimise(d, s, adaptiveOn(), 6, firstOrder), reference))
                << threads << " threads, first order " << firstOrder;
        }
    }
}

TEST_P(AdaptiveDescentCall, EndsWhenTheVerticesSettleAndRespectsItsCap) {
    const PlaneScene s(3, 0.03, 0.02f);
    long long iterations = 0;
    const std::vector<float> settling = optimise(device(), s, adaptiveOn(), 200, true, &iterations);
    EXPECT_GT(iterations, 3);
    EXPECT_LT(iterations, 200) << "the bumpy plane settles well before 200 iterations";

    AdaptiveDescent never = adaptiveOn();
    never.settled_move = 0.0f;
    never.settled_share = 0.0f;
    optimise(device(), s, never, 12, true, &iterations);
    EXPECT_EQ(iterations, 12) << "vertices that never settle run to the cap";

    AdaptiveDescent always = adaptiveOn();
    always.settled_move = 1e6f;
    always.min_iterations = 2;
    optimise(device(), s, always, 12, true, &iterations);
    EXPECT_EQ(iterations, 2) << "settled from the start: the least number of iterations";
}

TEST_P(AdaptiveDescentCall, RefusesUnusableNumbers) {
    const PlaneScene s(2, 0.03);
    const std::vector<uint8_t> pairs(4, 1);
    std::vector<float> v = s.mesh.vertices;
    const auto spoilers = {+[](AdaptiveDescent& d) { d.turn_factor = 0.0f; },
                           +[](AdaptiveDescent& d) { d.regrow_factor = 0.9f; },
                           +[](AdaptiveDescent& d) { d.max_move = std::nanf(""); },
                           +[](AdaptiveDescent& d) { d.settled_share = 1.5f; }};
    for (const auto spoil : spoilers) {
        MeshOptimizationArgs a = optimizationArgs(s, v, pairs, 2, true);
        a.adaptive = adaptiveOn();
        spoil(a.adaptive);
        expectRefused("Integrated_Mesh_Optimization_CUDA", [&] { return Integrated_Mesh_Optimization_CUDA(device(), a); });
    }
    EXPECT_EQ(v, s.mesh.vertices);
}

TESSALINE_INSTANTIATE_ON_BACKENDS(AdaptiveDescentCall);

}  // namespace
