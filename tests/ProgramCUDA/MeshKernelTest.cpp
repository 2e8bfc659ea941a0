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
using tessaline::test::GridMesh;
using tessaline::test::OneRings;

std::vector<float> smoothness(const std::vector<float>& input, const OneRings& rings, bool normalise) {
    const int numV = int(rings.counts.size());
    std::vector<float> output(input.size(), 123.0f);
    CpuBackend be;
    be.launch1D(numV, kWideBlock,
                Kernel_ComputeSmoothnessGradient{numV, input.data(), 0, nullptr, rings.list.data(),
                                                 rings.counts.data(), rings.offsets.data(), output.data(), normalise});
    return output;
}

// Inside the grid every vertex has six neighbours in opposite pairs, so the
// mean of its ring is the vertex itself.
TEST(Smoothness, InteriorVertexOfAFlatRegularGridHasZeroUmbrella) {
    const GridMesh m = tessaline::test::makeGridMesh(4, 1.0, 0.5);
    const OneRings rings = tessaline::test::oneRingsOf(m.numV(), m.facets);
    const std::vector<float> L = smoothness(m.vertices, rings, false);
    for (int j = 1; j < m.side - 1; ++j)
        for (int i = 1; i < m.side - 1; ++i) {
            const int v = m.at(i, j);
            ASSERT_EQ(rings.counts[v], 6);
            for (int c = 0; c < 3; ++c) EXPECT_NEAR(L[3 * v + c], 0.0f, 1e-6f) << i << "," << j;
        }
    // A corner's neighbours lie to one side: its umbrella points outward.
    const int corner = m.at(0, 0);
    EXPECT_LT(L[3 * corner], 0.0f);
    EXPECT_LT(L[3 * corner + 1], 0.0f);
    EXPECT_EQ(L[3 * corner + 2], 0.0f);
}

TEST(Smoothness, RaisedVertexGetsItsRaiseOverTheMeanOfItsRing) {
    GridMesh m = tessaline::test::makeGridMesh(4, 1.0, 0.0);
    const OneRings rings = tessaline::test::oneRingsOf(m.numV(), m.facets);
    const int v = m.at(2, 2);
    m.vertices[3 * v + 2] = 0.3f;
    const std::vector<float> L = smoothness(m.vertices, rings, false);
    EXPECT_NEAR(L[3 * v], 0.0f, 1e-6f);
    EXPECT_NEAR(L[3 * v + 1], 0.0f, 1e-6f);
    EXPECT_NEAR(L[3 * v + 2], 0.3f, 1e-6f);
    // Each neighbour sees one sixth of the raise, downward.
    for (int k = 0; k < rings.counts[v]; ++k) {
        const int u = rings.list[rings.offsets[v] + k];
        if (rings.counts[u] == 6) EXPECT_NEAR(L[3 * u + 2], -0.05f, 1e-6f);
    }
}

// The octahedron: every vertex has valence 4, and the mean of a vertex's
// ring is the origin, so L(v) = v and L2(v) = (v - mean of L over the ring)
// / (1 + 4) = v / 5.
TEST(Smoothness, SecondOrderDividesByOnePlusValenceOnARegularMesh) {
    const std::vector<float> V = {1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1};
    const std::vector<int> F = {0, 2, 4, 2, 1, 4, 1, 3, 4, 3, 0, 4, 2, 0, 5, 1, 2, 5, 3, 1, 5, 0, 3, 5};
    const OneRings rings = tessaline::test::oneRingsOf(6, F);
    const std::vector<float> L = smoothness(V, rings, false);
    EXPECT_EQ(L, V);
    const std::vector<float> L2 = smoothness(L, rings, true);
    for (size_t i = 0; i < V.size(); ++i) EXPECT_FLOAT_EQ(L2[i], V[i] / 5.0f) << i;
}

TEST(Smoothness, DivisorAddsValenceOverNeighbourValence) {
    // A fan: centre 0 with ring 1..4 (a closed square), each rim vertex with
    // valence 3. Divisor at the centre: 1 + 4 * (4/3); at a rim vertex with
    // neighbours of valence 4, 3 and 3: 1 + 3/4 + 3/3 + 3/3.
    const std::vector<int> F = {0, 1, 2, 0, 2, 3, 0, 3, 4, 0, 4, 1};
    const OneRings rings = tessaline::test::oneRingsOf(5, F);
    const std::vector<float> input = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<float> L2 = smoothness(input, rings, true);
    EXPECT_FLOAT_EQ(L2[0], 1.0f / (1.0f + 4.0f * 4.0f / 3.0f));
    // Rim vertex 1: input 0, the centre's 1 weighs -1/3; divisor 1 + 3/4 + 2.
    EXPECT_FLOAT_EQ(L2[3], (-1.0f / 3.0f) / (1.0f + 0.75f + 2.0f));
}

TEST(Smoothness, IsolatedVertexKeepsItsOwnPosition) {
    OneRings rings;
    rings.counts = {0, 1, 1};
    rings.offsets = {0, 0, 1};
    rings.list = {2, 1};
    const std::vector<float> V = {1.5f, -2.0f, 3.0f, 0, 0, 0, 1, 1, 1};
    for (bool normalise : {false, true}) {
        const std::vector<float> L = smoothness(V, rings, normalise);
        EXPECT_EQ(L[0], 1.5f);
        EXPECT_EQ(L[1], -2.0f);
        EXPECT_EQ(L[2], 3.0f);
    }
}

std::vector<float> facetNormals(const std::vector<float>& V, const std::vector<int>& F) {
    const int numF = int(F.size() / 3);
    std::vector<float> N(F.size(), 7.0f);
    CpuBackend be;
    be.launch1D(numF, kWideBlock, Kernel_Compute_FacetNormal{int(V.size() / 3), V.data(), numF, F.data(), N.data()});
    return N;
}

TEST(FacetNormal, FollowsTheWindingByTheRightHandRule) {
    const std::vector<float> V = {0, 0, 0, 2, 0, 0, 0, 3, 0, 1, 1, 1};
    const std::vector<float> N = facetNormals(V, {0, 1, 2, 0, 2, 1, 0, 1, 3});
    EXPECT_EQ(N[0], 0.0f);
    EXPECT_EQ(N[1], 0.0f);
    EXPECT_EQ(N[2], 1.0f);
    EXPECT_EQ(N[5], -1.0f);  // reversed winding
    const float s = 1.0f / std::sqrt(2.0f);
    EXPECT_NEAR(N[6], 0.0f, 1e-7f);  // (2,0,0) x (1,1,1) = (0,-2,2)
    EXPECT_NEAR(N[7], -s, 1e-6f);
    EXPECT_NEAR(N[8], s, 1e-6f);
}

TEST(FacetNormal, DegenerateFacetGetsNotANumber) {
    const std::vector<float> V = {0, 0, 0, 1, 2, 3};
    const std::vector<float> N = facetNormals(V, {0, 1, 1});
    for (float c : N) EXPECT_TRUE(std::isnan(c));
}

TEST(ArrayFills, FillExactlyTheirCount) {
    CpuBackend be;
    for (int n : {0, 1, 511, 512, 513}) {
        std::vector<float> f(size_t(n) + 4, -3.0f);
        std::vector<int> i(size_t(n) + 4, -3);
        be.launch1D(n, kWideBlock, Kernel_Set_FloatArray{n, f.data(), 2.5f});
        be.launch1D(n, kWideBlock, Kernel_Set_IntArray{n, i.data(), 9});
        for (int k = 0; k < n + 4; ++k) {
            EXPECT_EQ(f[k], k < n ? 2.5f : -3.0f) << n << " " << k;
            EXPECT_EQ(i[k], k < n ? 9 : -3) << n << " " << k;
        }
    }
}

}  // namespace
