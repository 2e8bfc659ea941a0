// The optional kernel profile: launches summed per kernel type, named after
// it, floors from its declared bytes per element, and the per-iteration report.
#include <gtest/gtest.h>

#include <string>

#include "backend/KernelProfile.h"
#include "optimization/MeshKernels.h"

namespace {

using namespace tessaline;

struct KernelWithoutFloor {};

TEST(KernelProfile, SumsLaunchesPerKernelAndReportsPerIteration) {
    clearKernelProfile();
    recordKernelLaunch<Kernel_Set_FloatArray>(1e8, 0.5);       // 4e8 floor bytes
    recordKernelLaunch<KernelWithoutFloor>(10, 0.25);
    recordKernelLaunch<Kernel_Set_FloatArray>(1.5e8, 1.5);     // 6e8 more
    const auto stats = kernelProfileSnapshot();
    ASSERT_EQ(stats.size(), 2u);
    EXPECT_EQ(stats[0].first, "Kernel_Set_FloatArray");  // first-launch order
    EXPECT_EQ(stats[0].second.launches, 2);
    EXPECT_DOUBLE_EQ(stats[0].second.elements, 2.5e8);
    EXPECT_DOUBLE_EQ(stats[0].second.floorBytes, 1e9);
    EXPECT_DOUBLE_EQ(stats[0].second.seconds, 2.0);
    EXPECT_EQ(stats[1].first, "KernelWithoutFloor");
    EXPECT_EQ(stats[1].second.floorBytes, 0.0);  // no declared bytes per element

    ::testing::internal::CaptureStdout();
    printKernelProfile(3.0, 2.25, 4, 1000.0);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Profile: call 3.000 s, iterations 2.250 s, 4 iterations, 562.500 ms per iteration"),
              std::string::npos) << out;
    // Per iteration: half a launch, 500 ms, 250 MB of floor, 0.25 ms at 1000 GB/s, 0.5 GB/s achieved.
    EXPECT_NE(out.find("Kernel_Set_FloatArray"), std::string::npos);
    EXPECT_NE(out.find("       0.5    500.000     250.00      0.250      0.5"), std::string::npos) << out;
    clearKernelProfile();
    EXPECT_TRUE(kernelProfileSnapshot().empty());
}

}  // namespace
