// Mesh-side kernels on the CPU backend where no wrapper test reaches them:
// the umbrella operator at a vertex without neighbours, facet normals, array
// fills. (The umbrella passes on whole meshes are checked against a hand
// computation through the mesh optimisation.)
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CpuBackend.h"
#include "kernels/MeshKernels.h"

namespace {

using namespace tessaline;

TEST(Smoothness, VertexWithoutNeighboursKeepsItsOwnPosition) {
    // Vertex 0 has no ring; vertices 1 and 2 are each other's.
    const std::vector<int> list = {2, 1}, counts = {0, 1, 1}, offsets = {0, 0, 1};
    const std::vector<float> V = {1.5f, -2.0f, 3.0f, 0, 0, 0, 1, 1, 1};
    for (bool normalise : {false, true}) {
        std::vector<float> L(V.size(), 123.0f);
        CpuBackend().launch1D(3, kWideBlock,
                              Kernel_ComputeSmoothnessGradient{3, V.data(), 0, nullptr, list.data(), counts.data(),
                                                               offsets.data(), L.data(), normalise});
        EXPECT_EQ(std::vector<float>(L.begin(), L.begin() + 3), std::vector<float>(V.begin(), V.begin() + 3));
    }
}

TEST(FacetNormal, RightHandRuleAndNotANumberForADegenerateFacet) {
    const std::vector<float> V = {0, 0, 0, 2, 0, 0, 0, 3, 0, 1, 1, 1};
    const std::vector<int> F = {0, 1, 2, 0, 2, 1, 0, 1, 3, 0, 1, 1};
    std::vector<float> N(F.size(), 7.0f);
    CpuBackend().launch1D(4, kWideBlock, Kernel_Compute_FacetNormal{4, V.data(), 4, F.data(), N.data()});
    EXPECT_EQ(std::vector<float>(N.begin(), N.begin() + 6), (std::vector<float>{0, 0, 1, 0, 0, -1}));
    EXPECT_NEAR(N[7], -std::sqrt(0.5f), 1e-6f);  // (2,0,0) x (1,1,1) = (0,-2,2)
    EXPECT_NEAR(N[8], std::sqrt(0.5f), 1e-6f);
    for (int c = 9; c < 12; ++c) EXPECT_TRUE(std::isnan(N[c]));
}

TEST(ArrayFills, FillExactlyTheirCount) {
    for (int n : {0, 1, 511, 512, 513}) {  // the CPU launch runs the idle tail of the last block too
        std::vector<float> f(size_t(n) + 4, -3.0f);
        std::vector<int> i(size_t(n) + 4, -3);
        CpuBackend().launch1D(n, kWideBlock, Kernel_Set_FloatArray{n, f.data(), 2.5f});
        CpuBackend().launch1D(n, kWideBlock, Kernel_Set_IntArray{n, i.data(), 9});
        for (int k = 0; k < n + 4; ++k) {
            ASSERT_EQ(f[k], k < n ? 2.5f : -3.0f) << n << " " << k;
            ASSERT_EQ(i[k], k < n ? 9 : -3) << n << " " << k;
        }
    }
}

}  // namespace
