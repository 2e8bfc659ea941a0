// Mesh-side kernels on the CPU backend: the umbrella operator and its
// second-order pass, facet normals, array fills.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CpuBackend.h"
#include "PlaneSceneSupport.h"
#include "kernels/MeshKernels.h"

namespace {

using namespace tessaline;
using tessaline::test::OneRings;

std::vector<float> umbrella(const std::vector<float>& input, const OneRings& r, bool normalise) {
    const int n = int(r.counts.size());
    std::vector<float> out(input.size(), 123.0f);
    CpuBackend().launch1D(n, kWideBlock,
                          Kernel_ComputeSmoothnessGradient{n, input.data(), 0, nullptr, r.list.data(), r.counts.data(),
                                                           r.offsets.data(), out.data(), normalise});
    return out;
}

TEST(Smoothness, FlatGridIsStillAndARaisedVertexIsPulledBack) {
    tessaline::test::GridMesh m = tessaline::test::makeGridMesh(4, 1.0, 0.0);
    const OneRings r = tessaline::test::oneRingsOf(m.numV(), m.facets);
    const int raised = m.at(2, 2);
    m.vertices[3 * raised + 2] = 0.3f;
    const std::vector<float> L = umbrella(m.vertices, r, false);
    for (int j = 1; j < 4; ++j)
        for (int i = 1; i < 4; ++i) {
            const int v = m.at(i, j);
            ASSERT_EQ(r.counts[v], 6);  // six neighbours in opposite pairs
            EXPECT_NEAR(L[3 * v], 0.0f, 1e-6f);
            EXPECT_NEAR(L[3 * v + 1], 0.0f, 1e-6f);
            const bool ringOfRaised = std::abs(i - 2) + std::abs(j - 2) == 1 || (i - 2) * (j - 2) == -1;
            EXPECT_NEAR(L[3 * v + 2], v == raised ? 0.3f : ringOfRaised ? -0.05f : 0.0f, 1e-6f) << i << "," << j;
        }
}

TEST(Smoothness, SecondOrderDivisorAddsValenceOverNeighbourValence) {
    // Octahedron: valence 4 everywhere and each ring's mean is the origin,
    // so L(v) = v and L2(v) = (v - 0) / (1 + 4).
    const std::vector<float> V = {1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1};
    const OneRings octa =
        tessaline::test::oneRingsOf(6, {0, 2, 4, 2, 1, 4, 1, 3, 4, 3, 0, 4, 2, 0, 5, 1, 2, 5, 3, 1, 5, 0, 3, 5});
    EXPECT_EQ(umbrella(V, octa, false), V);
    const std::vector<float> L2 = umbrella(V, octa, true);
    for (size_t i = 0; i < V.size(); ++i) EXPECT_FLOAT_EQ(L2[i], V[i] / 5.0f);
    // Fan of four around vertex 0, rim valence 3: divisor 1 + 4 * 4/3 at the
    // centre; 1 + 3/4 + 3/3 + 3/3 at a rim vertex.
    const OneRings fan = tessaline::test::oneRingsOf(5, {0, 1, 2, 0, 2, 3, 0, 3, 4, 0, 4, 1});
    const std::vector<float> F = umbrella({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, fan, true);
    EXPECT_FLOAT_EQ(F[0], 1.0f / (1.0f + 4.0f * 4.0f / 3.0f));
    EXPECT_FLOAT_EQ(F[3], (-1.0f / 3.0f) / 3.75f);
}

TEST(Smoothness, IsolatedVertexKeepsItsOwnPosition) {
    const OneRings r{{2, 1}, {0, 1, 1}, {0, 0, 1}};
    const std::vector<float> V = {1.5f, -2.0f, 3.0f, 0, 0, 0, 1, 1, 1};
    for (bool normalise : {false, true}) {
        const std::vector<float> L = umbrella(V, r, normalise);
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
    for (int n : {0, 1, 511, 512, 513}) {
        std::vector<float> f(size_t(n) + 4, -3.0f);
        std::vector<int> i(size_t(n) + 4, -3);
        CpuBackend().launch1D(n, kWideBlock, Kernel_Set_FloatArray{n, f.data(), 2.5f});
        CpuBackend().launch1D(n, kWideBlock, Kernel_Set_IntArray{n, i.data(), 9});
        for (int k = 0; k < n + 4; ++k) {
            EXPECT_EQ(f[k], k < n ? 2.5f : -3.0f) << n << " " << k;
            EXPECT_EQ(i[k], k < n ? 9 : -3) << n << " " << k;
        }
    }
}

}  // namespace
