// A run shared by several processes (played here by threads with a group
// that adds their integer sums): each holds only its reference cameras and
// the targets of their pairs, and all of them end with exactly the vertices
// of one process running everything. A failure in one stops all of them.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "DeviceTestSupport.h"
#include "PlaneSceneSupport.h"
#include "ThreadProcessGroup.h"

namespace {

using namespace tessaline::test;

// Pairs (0, 1), (1, 2), (2, 1): the process that runs camera 0 holds
// cameras 0 and 1 only, the one that runs 1 and 2 holds those two.
const std::vector<uint8_t> kPairs{0, 1, 0, 0, 0, 1, 0, 1, 0};
const std::vector<std::vector<uint8_t>> kRoles{{kCameraReference, kCameraTarget, kCameraUnused},
                                               {kCameraUnused, kCameraReference, kCameraReference}};

// The images of the cameras a role list holds, in camera order.
std::vector<uint8_t> heldImages(const PlaneScene& s, const std::vector<uint8_t>& roles) {
    const size_t px = size_t(PlaneScene::W) * PlaneScene::H;
    std::vector<uint8_t> images;
    for (size_t c = 0; c < roles.size(); ++c)
        if (roles[c] != kCameraUnused) images.insert(images.end(), s.images.begin() + c * px, s.images.begin() + (c + 1) * px);
    return images;
}

struct SharedResult {
    std::vector<std::vector<float>> vertices;
    std::vector<DeviceStatus> status;
};

// Each rank's call; `failingRank` gets arguments that its device refuses
// only after the call began (a photograph missing on one process).
SharedResult runShared(const DeviceHandle& device, const PlaneScene& s, OptimizationSchedule schedule,
                       bool firstOrder, int failingRank = -1, const AdaptiveDescent& adaptive = AdaptiveDescent(),
                       int iterations = 3) {
    ThreadProcessGroup group(2);
    SharedResult result{std::vector<std::vector<float>>(2, s.mesh.vertices), std::vector<DeviceStatus>(2)};
    group.run([&](int rank) {
        DeviceHandle d = device;
        d.context.schedule = schedule;
        d.context.processes = group.member(rank);
        const std::vector<uint8_t> images = heldImages(s, kRoles[size_t(rank)]);
        MeshOptimizationArgs a = optimizationArgs(s, result.vertices[size_t(rank)], kPairs, iterations, firstOrder);
        a.images = images.data();
        a.camera_roles = kRoles[size_t(rank)].data();
        a.adaptive = adaptive;
        if (rank == failingRank) a.num_valence_entries = -1;  // refused before any sum
        result.status[size_t(rank)] = Integrated_Mesh_Optimization_CUDA(d, a);
    });
    return result;
}

class SharedRun : public OnEachBackend {};

TEST_P(SharedRun, EveryProcessEndsWithTheVerticesOfOne) {
    const PlaneScene s(3, 0.03, 0.02f);
    for (OptimizationSchedule schedule : {OptimizationSchedule::Fast, OptimizationSchedule::Reference})
        for (bool firstOrder : {true, false}) {
            SCOPED_TRACE(testing::Message() << (schedule == OptimizationSchedule::Fast ? "fast" : "reference")
                                            << (firstOrder ? ", first order" : ", second order"));
            DeviceHandle d = device();
            d.context.schedule = schedule;
            std::vector<float> alone = s.mesh.vertices;
            DeviceStatus status = DeviceStatus::Failed;
            printedBy([&] { status = Integrated_Mesh_Optimization_CUDA(d, optimizationArgs(s, alone, kPairs, 3, firstOrder)); });
            ASSERT_EQ(status, DeviceStatus::Ok);
            ASSERT_NE(alone, s.mesh.vertices) << "nothing moved";
            SharedResult shared;
            printedBy([&] { shared = runShared(device(), s, schedule, firstOrder); });
            for (int rank : {0, 1}) {
                EXPECT_EQ(shared.status[size_t(rank)], DeviceStatus::Ok) << rank;
                EXPECT_TRUE(sameBits(shared.vertices[size_t(rank)], alone)) << "rank " << rank;
            }
        }
}

// The adaptive descent decides when the vertices have settled from counts
// added over the processes: every process stops at the iteration that one
// process alone stops at, with its vertices.
TEST_P(SharedRun, AdaptiveDescentEndsLikeOneProcess) {
    const PlaneScene s(3, 0.03, 0.02f);
    AdaptiveDescent adaptive;
    adaptive.enabled = true;
    for (OptimizationSchedule schedule : {OptimizationSchedule::Fast, OptimizationSchedule::Reference}) {
        DeviceHandle d = device();
        d.context.schedule = schedule;
        long long aloneIterations = 0;
        d.context.onIteration = [&](long long done, long long) {
            aloneIterations = done;
            return true;
        };
        std::vector<float> alone = s.mesh.vertices;
        MeshOptimizationArgs a = optimizationArgs(s, alone, kPairs, 200, true);
        a.adaptive = adaptive;
        printedBy([&] { EXPECT_EQ(Integrated_Mesh_Optimization_CUDA(d, a), DeviceStatus::Ok); });
        ASSERT_LT(aloneIterations, 200) << "the call should settle before its cap";
        SharedResult shared;
        printedBy([&] { shared = runShared(device(), s, schedule, true, -1, adaptive, 200); });
        for (int rank : {0, 1}) {
            EXPECT_EQ(shared.status[size_t(rank)], DeviceStatus::Ok) << rank;
            EXPECT_TRUE(sameBits(shared.vertices[size_t(rank)], alone)) << "rank " << rank;
        }
    }
}

TEST_P(SharedRun, AProcessThatRefusesStopsAllWithoutWaiting) {
    const PlaneScene s(3, 0.03);
    for (int failing : {0, 1}) {
        SharedResult shared;
        const std::string printed = printedBy([&] { shared = runShared(device(), s, OptimizationSchedule::Fast, true, failing); });
        for (int rank : {0, 1}) {
            EXPECT_EQ(shared.status[size_t(rank)], DeviceStatus::Refused) << rank;
            EXPECT_EQ(shared.vertices[size_t(rank)], s.mesh.vertices) << "vertices left as they were";
        }
        EXPECT_NE(printed.find("a process of the run refused its arguments"), std::string::npos) << printed;
    }
}

TEST_P(SharedRun, RefusesAPairWhoseTargetIsNotHeld) {
    const PlaneScene s(3, 0.03);
    std::vector<float> v = s.mesh.vertices;
    std::vector<uint8_t> roles = kRoles[0];
    roles[1] = kCameraUnused;  // camera 0's target
    const std::vector<uint8_t> images = heldImages(s, roles);
    MeshOptimizationArgs a = optimizationArgs(s, v, kPairs, 2, true);
    a.images = images.data();
    a.camera_roles = roles.data();
    expectRefused("Integrated_Mesh_Optimization_CUDA: ", [&] { return Integrated_Mesh_Optimization_CUDA(device(), a); });
}

TESSALINE_INSTANTIATE_ON_BACKENDS(SharedRun);

}  // namespace
