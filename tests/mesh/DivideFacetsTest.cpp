// divideFacets, on small worked examples and on
// properties that every division must keep (conformity, winding, tables in
// step).
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "MeshTestSupport.h"
#include "TriMesh.h"
#include "meshSubdivision.h"

namespace {

using meshtest::makeMesh;
using V = std::vector<int32_t>;
using E = std::vector<std::pair<int32_t, int32_t>>;

std::string divideCapturingStdout(TriMesh& m, const std::vector<bool>& bits) {
    testing::internal::CaptureStdout();
    divideFacets(m, bits);
    return testing::internal::GetCapturedStdout();
}

// The tables that must stay in step after any division.
void expectTablesInStep(const TriMesh& m) {
    EXPECT_EQ(m.vertices.size(), 3 * size_t(m.num_v));
    EXPECT_EQ(m.vertex_attributes.size(), 3 * size_t(m.num_v));
    EXPECT_EQ(m.vertex_records.size(), size_t(m.num_v));
    EXPECT_EQ(m.facets.size(), 3 * size_t(m.num_f));
    for (int32_t idx : m.facets) {
        EXPECT_GE(idx, 0);
        EXPECT_LT(idx, m.num_v);
    }
}

// Is vertex m of the mesh the midpoint of (p, q), computed as float sum, double half, float?
void expectMidpoint(const TriMesh& mesh, int32_t m, int32_t p, int32_t q) {
    for (int c = 0; c < 3; ++c) {
        const float sum = mesh.vertices[3 * p + c] + mesh.vertices[3 * q + c];
        const double mid = double(sum) * 0.5;
        EXPECT_EQ(mesh.vertex_records[m].position[c], mid) << "vertex " << m << " component " << c;
        EXPECT_EQ(mesh.vertices[3 * m + c], float(mid)) << "vertex " << m << " component " << c;
    }
}

// Signed area (times 2) of facet f in the plane z = 0.
double signedArea2(const TriMesh& m, int32_t f) {
    const int32_t a = m.facets[3 * f], b = m.facets[3 * f + 1], c = m.facets[3 * f + 2];
    const double ax = m.vertices[3 * a], ay = m.vertices[3 * a + 1];
    const double bx = m.vertices[3 * b], by = m.vertices[3 * b + 1];
    const double cx = m.vertices[3 * c], cy = m.vertices[3 * c + 1];
    return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax);
}

// ---------------------------------------------------------------------------
// Worked examples on the square (0, 1, 2), (0, 2, 3).

TEST(DivideFacets, SquareWithFacet0Selected) {
    TriMesh m = meshtest::square();
    EXPECT_EQ(divideCapturingStdout(m, {true, false}), "");
    EXPECT_EQ(m.edges, (E{{0, 1}, {1, 2}, {2, 0}, {2, 3}, {3, 0}}));
    EXPECT_EQ(m.num_edges, 5);
    EXPECT_EQ(m.facet_edges, (V{0, 1, 2, 2, 3, 4}));
    EXPECT_EQ(m.num_v, 7);
    EXPECT_EQ(m.num_f, 6);
    EXPECT_EQ(m.facets, (V{0, 4, 6, 0, 6, 3, 4, 1, 5, 4, 5, 6, 6, 5, 2, 6, 2, 3}));
    expectMidpoint(m, 4, 0, 1);
    expectMidpoint(m, 5, 1, 2);
    expectMidpoint(m, 6, 2, 0);
    EXPECT_EQ(m.vertices[3 * 6], 0.5f);
    EXPECT_EQ(m.vertices[3 * 6 + 1], 0.5f);
    expectTablesInStep(m);
    // Valences describe the mesh at entry, walked (A,B), (B,C), (C,A).
    ASSERT_EQ(m.valences.size(), 4u);
    EXPECT_EQ(m.valences[0], (V{1, 2, 3}));
    EXPECT_EQ(m.valences[1], (V{0, 2}));
    EXPECT_EQ(m.valences[2], (V{1, 0, 3}));
    EXPECT_EQ(m.valences[3], (V{2, 0}));
    EXPECT_EQ(m.num_valences, (V{3, 2, 3, 2}));
}

TEST(DivideFacets, SquareWithFacet1Selected) {
    TriMesh m = meshtest::square();
    divideFacets(m, {false, true});
    EXPECT_EQ(m.num_v, 7);
    EXPECT_EQ(m.num_f, 6);
    expectMidpoint(m, 4, 2, 0);
    expectMidpoint(m, 5, 2, 3);
    expectMidpoint(m, 6, 3, 0);
    EXPECT_EQ(m.facets, (V{0, 1, 4, 0, 4, 6, 4, 1, 2, 4, 2, 5, 4, 5, 6, 6, 5, 3}));
    expectTablesInStep(m);
}

TEST(DivideFacets, SquareWithBothSelectedSharesTheDiagonalMidpoint) {
    TriMesh m = meshtest::square();
    divideFacets(m, {true, true});
    EXPECT_EQ(m.num_v, 9);
    EXPECT_EQ(m.num_f, 8);
    expectMidpoint(m, 4, 0, 1);
    expectMidpoint(m, 5, 1, 2);
    expectMidpoint(m, 6, 2, 0);
    expectMidpoint(m, 7, 2, 3);
    expectMidpoint(m, 8, 3, 0);
    EXPECT_EQ(m.facets, (V{0, 4, 6, 0, 6, 8, 4, 1, 5, 4, 5, 6, 6, 5, 2, 6, 2, 7, 6, 7, 8, 8, 7, 3}));
    expectTablesInStep(m);
}

TEST(DivideFacets, EveryRowOfTheCuttingTable) {
    // A central facet (0, 1, 2) with a neighbour on each edge; selecting the
    // neighbours picks which of the centre's edges are split.
    //   neighbour on AB: (1, 0, 3), on BC: (2, 1, 4), on CA: (0, 2, 5).
    const std::vector<float> v = {0, 0, 0, 2, 0, 0, 0, 2, 0, 1, -1, 0, 2, 2, 0, -1, 1, 0};
    const V facets = {0, 1, 2, 1, 0, 3, 2, 1, 4, 0, 2, 5};
    struct Row {
        std::vector<bool> bits;
        V centre;
        V appended;  // children of the centre, then skipped: see below
    };
    // Midpoint indices: the first selected neighbour creates its three edge
    // midpoints in its k order; the centre's edge is the neighbour's first
    // edge (k = 0) in every case, so it gets the first new index 6.
    const int Mab = 6;
    const std::vector<Row> rows = {
        {{false, false, false, false}, {0, 1, 2}, {}},
        {{false, true, false, false}, {0, Mab, 2}, {Mab, 1, 2}},
        {{false, false, true, false}, {0, 1, 6}, {0, 6, 2}},
        {{false, false, false, true}, {0, 1, 6}, {6, 1, 2}},
        {{false, true, true, false}, {0, 6, 9}, {6, 1, 9, 0, 9, 2}},
        {{false, true, false, true}, {0, 6, 9}, {6, 1, 9, 9, 1, 2}},
        {{false, false, true, true}, {0, 1, 6}, {0, 6, 9, 9, 6, 2}},
        {{false, true, true, true}, {0, 6, 12}, {6, 1, 9, 6, 9, 12, 12, 9, 2}},
    };
    for (size_t r = 0; r < rows.size(); ++r) {
        TriMesh m = makeMesh(v, facets);
        divideFacets(m, rows[r].bits);
        SCOPED_TRACE("row " + std::to_string(r));
        EXPECT_EQ(V(m.facets.begin(), m.facets.begin() + 3), rows[r].centre);
        // The centre's appended children come first among the new facets.
        const V appended(m.facets.begin() + 12, m.facets.begin() + 12 + rows[r].appended.size());
        EXPECT_EQ(appended, rows[r].appended);
        expectTablesInStep(m);
        // Planar and wound counter-clockwise: every child keeps the winding,
        // and the total area is unchanged.
        double area = 0;
        for (int32_t f = 0; f < m.num_f; ++f) {
            EXPECT_GT(signedArea2(m, f), 0.0) << "facet " << f;
            area += signedArea2(m, f);
        }
        EXPECT_DOUBLE_EQ(area, 2 * (2.0 + 1.0 + 2.0 + 1.0));
    }
}

// ---------------------------------------------------------------------------
// Closed meshes.

TEST(DivideFacets, TetrahedronAllSelectedGoesTo10VerticesAnd16Facets) {
    TriMesh m = meshtest::tetrahedron();
    ASSERT_TRUE(meshtest::isClosedAndConforming(m));
    divideFacets(m, std::vector<bool>(4, true));
    EXPECT_EQ(m.num_edges, 6);
    EXPECT_EQ(m.num_v, 10);
    EXPECT_EQ(m.num_f, 16);
    EXPECT_TRUE(meshtest::isClosedAndConforming(m));
    for (int e = 0; e < 6; ++e) expectMidpoint(m, 4 + e, m.edges[e].first, m.edges[e].second);
    expectTablesInStep(m);
}

TEST(DivideFacets, ClosedMeshAllSelectedGoesFromFToFourFAndVToVPlusE) {
    TriMesh m = meshtest::octahedron();
    ASSERT_TRUE(meshtest::isClosedAndConforming(m));
    divideFacets(m, std::vector<bool>(8, true));
    EXPECT_EQ(m.num_v, 6 + 12);
    EXPECT_EQ(m.num_f, 32);
    EXPECT_TRUE(meshtest::isClosedAndConforming(m));
    // Twice more, as the level loop could.
    divideFacets(m, std::vector<bool>(32, true));
    EXPECT_EQ(m.num_v, 18 + 48);
    EXPECT_EQ(m.num_f, 128);
    EXPECT_TRUE(meshtest::isClosedAndConforming(m));
}

TEST(DivideFacets, OneSelectedFacetOfATetrahedronStaysConforming) {
    for (int selected = 0; selected < 4; ++selected) {
        TriMesh m = meshtest::tetrahedron();
        std::vector<bool> bits(4, false);
        bits[selected] = true;
        divideFacets(m, bits);
        EXPECT_EQ(m.num_v, 7);
        EXPECT_EQ(m.num_f, 10);
        EXPECT_TRUE(meshtest::isClosedAndConforming(m)) << "selected facet " << selected;
        expectTablesInStep(m);
    }
}

TEST(DivideFacets, RandomSelectionsOnClosedAndPlanarMeshesStayConforming) {
    std::mt19937 rng(12345);
    for (int trial = 0; trial < 40; ++trial) {
        TriMesh closed = meshtest::octahedron();
        TriMesh plane = meshtest::grid(6);
        for (int round = 0; round < 2; ++round) {
            for (TriMesh* m : {&closed, &plane}) {
                std::vector<bool> bits(size_t(m->num_f));
                for (size_t f = 0; f < bits.size(); ++f) bits[f] = (rng() % 3) == 0;
                const int32_t v0 = m->num_v, f0 = m->num_f;
                std::vector<float> oldVertices = m->vertices;
                divideFacets(*m, bits);
                expectTablesInStep(*m);
                // Old vertices never move; new ones are midpoints of edges.
                EXPECT_TRUE(std::equal(oldVertices.begin(), oldVertices.end(), m->vertices.begin()));
                EXPECT_EQ(m->num_v - v0, [&] {
                    int n = 0;
                    for (int32_t e = 0; e < m->num_edges; ++e) {
                        const bool split = [&] {
                            for (int32_t f = 0; f < f0; ++f)
                                if (bits[f])
                                    for (int k = 0; k < 3; ++k)
                                        if (m->facet_edges[3 * f + k] == e) return true;
                            return false;
                        }();
                        n += split;
                    }
                    return n;
                }());
                EXPECT_LE(m->num_f, 4 * f0);
            }
            EXPECT_TRUE(meshtest::isClosedAndConforming(closed));
            double area = 0;
            for (int32_t f = 0; f < plane.num_f; ++f) {
                EXPECT_GT(signedArea2(plane, f), 0.0);
                area += signedArea2(plane, f);
            }
            EXPECT_DOUBLE_EQ(area, 2.0 * 36);
            // Interior edges of the planar grid: every directed edge off the
            // boundary has exactly one opposite (no T-junction).
            const auto edges = meshtest::directedEdges(plane);
            for (const auto& [e, n] : edges) {
                EXPECT_EQ(n, 1);
                auto x = [&](int32_t i) { return plane.vertices[3 * i]; };
                auto y = [&](int32_t i) { return plane.vertices[3 * i + 1]; };
                const int32_t a = e.first, b = e.second;
                const bool boundaryEdge = (x(a) == 0.0f && x(b) == 0.0f) || (x(a) == 6.0f && x(b) == 6.0f) ||
                                          (y(a) == 0.0f && y(b) == 0.0f) || (y(a) == 6.0f && y(b) == 6.0f);
                if (!boundaryEdge) {
                    EXPECT_EQ(edges.count({e.second, e.first}), 1u) << e.first << "->" << e.second;
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Boundaries, non-manifold edges, repeated vertices.

TEST(DivideFacets, BoundaryEdgeIsSplitAndCutsOnlyItsOneFacet) {
    TriMesh m = meshtest::square();
    divideFacets(m, {true, false});
    // Vertex 5 lies on the boundary edge (1, 2): only children of facet 0
    // (facet 0 itself and the appended 2, 3, 4) use it.
    for (int32_t f = 0; f < m.num_f; ++f) {
        const bool uses5 = m.facets[3 * f] == 5 || m.facets[3 * f + 1] == 5 || m.facets[3 * f + 2] == 5;
        const bool childOf0 = f == 0 || (f >= 2 && f <= 4);
        if (uses5) {
            EXPECT_TRUE(childOf0) << "facet " << f;
        }
    }
}

TEST(DivideFacets, NonManifoldEdgeGetsOneMidpointUsedByAllThreeFacets) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1}, {0, 1, 2, 1, 0, 3, 0, 1, 4});
    divideFacets(m, {true, false, false});
    EXPECT_EQ(m.num_edges, 7);
    EXPECT_EQ(m.num_v, 8);  // midpoints 5 on (0,1), 6 on (1,2), 7 on (2,0)
    expectMidpoint(m, 5, 0, 1);
    // Facet 1 (1, 0, 3), split on AB: (1, 5, 3) and (5, 0, 3).
    // Facet 2 (0, 1, 4), split on AB: (0, 5, 4) and (5, 1, 4).
    EXPECT_EQ(V(m.facets.begin() + 3, m.facets.begin() + 9), (V{1, 5, 3, 0, 5, 4}));
    EXPECT_EQ(m.num_f, 3 + 3 + 1 + 1);
    EXPECT_EQ(V(m.facets.begin() + 18, m.facets.end()), (V{5, 0, 3, 5, 1, 4}));
    expectTablesInStep(m);
}

TEST(DivideFacets, RepeatedVertexFacetFormsAnEdgeOnItself) {
    std::vector<float> v(3 * 8);
    for (size_t i = 0; i < v.size(); ++i) v[i] = float(i) * 0.25f;
    TriMesh m = makeMesh(v, {5, 5, 7});
    EXPECT_EQ(divideCapturingStdout(m, {true}), "");
    EXPECT_EQ(m.edges, (E{{5, 5}, {5, 7}}));
    // (7, 5) finds the edge of (5, 7) in valences[7].
    EXPECT_EQ(m.facet_edges, (V{0, 1, 1}));
    EXPECT_EQ(m.valences[5], (V{5, 5, 7}));
    EXPECT_EQ(m.valences[7], (V{5}));
    EXPECT_EQ(m.num_v, 10);
    // The midpoint of (5, 5) lies on vertex 5.
    for (int c = 0; c < 3; ++c) EXPECT_EQ(m.vertices[3 * 8 + c], m.vertices[3 * 5 + c]);
    expectMidpoint(m, 9, 5, 7);
    // All three edges split: Mab = 8, Mbc = Mca = 9.
    EXPECT_EQ(m.facets, (V{5, 8, 9, 8, 5, 9, 8, 9, 9, 9, 9, 7}));
    expectTablesInStep(m);
}

TEST(DivideFacets, SelectedFacetWithAllEdgesAlreadySplitAddsNoVertex) {
    // Four facets of a subdivided triangle: corners 0, 1, 2, edge points 3, 4,
    // 5; the centre facet (3, 4, 5) shares each edge with a corner facet.
    const std::vector<float> v = {0, 0, 0, 4, 0, 0, 0, 4, 0, 2, 0, 0, 2, 2, 0, 0, 2, 0};
    const V f = {0, 3, 5, 3, 1, 4, 5, 4, 2, 3, 4, 5};
    TriMesh corners = makeMesh(v, f), all = makeMesh(v, f);
    divideFacets(corners, {true, true, true, false});
    divideFacets(all, {true, true, true, true});
    EXPECT_EQ(corners.num_v, 6 + 9);
    EXPECT_EQ(all.num_v, corners.num_v);
    EXPECT_EQ(all.vertices, corners.vertices);
    EXPECT_EQ(all.facets, corners.facets);
    EXPECT_EQ(all.num_f, 16);
}

TEST(DivideFacets, NoBitSetRebuildsTablesAndLeavesTheMeshAsItWas) {
    TriMesh m = meshtest::square();
    m.valences = {{9, 9}, {9}};
    m.num_valences = {7};
    m.edges = {{3, 3}};
    m.num_edges = 1;
    m.facet_edges = {5};
    const TriMesh before = m;
    EXPECT_EQ(divideCapturingStdout(m, {false, false}), "");
    EXPECT_EQ(m.num_v, before.num_v);
    EXPECT_EQ(m.num_f, before.num_f);
    EXPECT_EQ(m.vertices, before.vertices);
    EXPECT_EQ(m.facets, before.facets);
    EXPECT_EQ(m.vertex_attributes, before.vertex_attributes);
    EXPECT_EQ(m.vertex_records.size(), before.vertex_records.size());
    EXPECT_EQ(m.edges, (E{{0, 1}, {1, 2}, {2, 0}, {2, 3}, {3, 0}}));
    EXPECT_EQ(m.num_edges, 5);
    EXPECT_EQ(m.facet_edges, (V{0, 1, 2, 2, 3, 4}));
    EXPECT_EQ(m.num_valences, (V{3, 2, 3, 2}));
}

TEST(DivideFacets, VertexFacetsIsNotTouchedAndValencesKeepTheEntrySize) {
    TriMesh m = meshtest::square();
    updateMeshConnectivity(m);
    const auto vf = m.vertex_facets;
    divideFacets(m, {true, true});
    EXPECT_EQ(m.vertex_facets, vf);
    EXPECT_EQ(m.valences.size(), 4u);
    EXPECT_EQ(m.num_valences.size(), 4u);
    EXPECT_EQ(m.facet_edges.size(), 6u);
}

TEST(DivideFacets, EmptyMesh) {
    TriMesh m;
    EXPECT_EQ(divideCapturingStdout(m, {}), "");
    EXPECT_EQ(m.num_v, 0);
    EXPECT_EQ(m.num_f, 0);
    EXPECT_EQ(m.num_edges, 0);
}

// ---------------------------------------------------------------------------
// Indicator size mismatch (decision: missing bits are 0, extra bits ignored).

TEST(DivideFacets, ShorterIndicatorPrintsAndTreatsMissingBitsAsClear) {
    TriMesh m = meshtest::square();
    EXPECT_EQ(divideCapturingStdout(m, {true}), "Error: facet_divide_indicator.size() != num_f\n");
    TriMesh expected = meshtest::square();
    divideFacets(expected, {true, false});
    EXPECT_EQ(m.facets, expected.facets);
    EXPECT_EQ(m.vertices, expected.vertices);

    TriMesh none = meshtest::square();
    EXPECT_EQ(divideCapturingStdout(none, {}), "Error: facet_divide_indicator.size() != num_f\n");
    EXPECT_EQ(none.num_v, 4);
    EXPECT_EQ(none.num_f, 2);
}

TEST(DivideFacets, LongerIndicatorPrintsAndIgnoresExtraBits) {
    TriMesh m = meshtest::square();
    EXPECT_EQ(divideCapturingStdout(m, {false, true, true, true}), "Error: facet_divide_indicator.size() != num_f\n");
    TriMesh expected = meshtest::square();
    divideFacets(expected, {false, true});
    EXPECT_EQ(m.facets, expected.facets);
    EXPECT_EQ(m.num_v, 7);
}

// ---------------------------------------------------------------------------
// Arithmetic and attributes of new vertices.

TEST(DivideFacets, MidpointIsFloatSumThenDoubleHalfThenFloat) {
    // 1 + 2^-30 rounds to 1 in float: the position is exactly 0.5, not the
    // double midpoint 0.5 + 2^-31.
    const float tiny = std::ldexp(1.0f, -30);
    // y: 16777216 + 1 rounds to 16777216 in float.
    // z: 0.1f + 0.2f needs 26 bits, so the float sum differs from the double.
    TriMesh m = makeMesh({1.0f, 16777216.0f, 0.1f, tiny, 1.0f, 0.2f, 0, 0, 0}, {0, 1, 2});
    divideFacets(m, {true});
    EXPECT_EQ(m.vertex_records[3].position[0], 0.5);
    EXPECT_EQ(m.vertex_records[3].position[1], 8388608.0);
    EXPECT_EQ(m.vertex_records[3].position[2], double(0.1f + 0.2f) * 0.5);
    EXPECT_NE(m.vertex_records[3].position[2], (double(0.1f) + double(0.2f)) * 0.5);
    EXPECT_EQ(m.vertices[9], 0.5f);
    EXPECT_EQ(m.vertices[10], 8388608.0f);
}

TEST(DivideFacets, RoundedPositionEqualsVerticesOnRandomMeshes) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1000.0f, 1000.0f);
    TriMesh m = meshtest::octahedron();
    for (float& x : m.vertices) x = u(rng) * 0.001f + x * u(rng);
    divideFacets(m, std::vector<bool>(8, true));
    divideFacets(m, std::vector<bool>(32, true));
    for (int32_t i = 6; i < m.num_v; ++i)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(float(m.vertex_records[i].position[c]), m.vertices[3 * i + c]);
    // Old records keep their default position.
    for (int32_t i = 0; i < 6; ++i)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(m.vertex_records[i].position[c], 0.0);
}

TEST(DivideFacets, AttributesAreAveragedAndTruncatedTowardsZero) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    m.vertex_attributes = {1, -3, 7, 2, 0, 0, 10, 10, 10};
    divideFacets(m, {true});
    // Midpoint 3 on (0, 1): sums 3, -3, 7 -> 1, -1, 3.
    EXPECT_EQ(V(m.vertex_attributes.begin() + 9, m.vertex_attributes.begin() + 12), (V{1, -1, 3}));
    // Midpoint 4 on (1, 2): 12, 10, 10 -> 6, 5, 5.
    EXPECT_EQ(V(m.vertex_attributes.begin() + 12, m.vertex_attributes.begin() + 15), (V{6, 5, 5}));
    // Midpoint 5 on (2, 0): 11, 7, 17 -> 5, 3, 8.
    EXPECT_EQ(V(m.vertex_attributes.begin() + 15, m.vertex_attributes.end()), (V{5, 3, 8}));
}

TEST(DivideFacets, FlagsAreInheritedOnlyWhenBothEndsCarryThem) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    m.vertex_records[0].no_divide = 1;
    m.vertex_records[0].inherited_flag = 1;
    m.vertex_records[1].no_divide = 1;
    m.vertex_records[1].inherited_flag = 0;
    m.vertex_records[2].no_divide = 0;
    m.vertex_records[2].inherited_flag = 1;
    divideFacets(m, {true});
    // 3 on (0, 1), 4 on (1, 2), 5 on (2, 0).
    EXPECT_EQ(m.vertex_records[3].no_divide, 1);
    EXPECT_EQ(m.vertex_records[3].inherited_flag, 0);
    EXPECT_EQ(m.vertex_records[4].no_divide, 0);
    EXPECT_EQ(m.vertex_records[4].inherited_flag, 0);
    EXPECT_EQ(m.vertex_records[5].no_divide, 0);
    EXPECT_EQ(m.vertex_records[5].inherited_flag, 1);
    for (int i = 3; i < 6; ++i) {
        const VertexRecord& r = m.vertex_records[i];
        EXPECT_EQ(r.enabled, 1);
        EXPECT_EQ(r.marks[0], 0);
        EXPECT_EQ(r.marks[1], 255);
        EXPECT_EQ(r.marks[2], 0);
        EXPECT_EQ(r.tail_flag, 0);
        EXPECT_TRUE(r.views.empty());
    }
}

ViewSample sample(int32_t camera, float value) {
    ViewSample s;
    s.index = 100 + camera;
    s.camera = camera;
    s.value = value;
    s.u = 3.0;
    s.v = 4.0;
    return s;
}

TEST(DivideFacets, ViewsOfACameraSampledTwiceAreAveraged) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    m.mesh_cameras.resize(3);
    m.vertex_records[0].views = {sample(0, 1.0f), sample(1, 0.25f)};
    m.vertex_records[1].views = {sample(1, 0.5f), sample(2, 8.0f)};
    divideFacets(m, {true});
    const auto& views = m.vertex_records[3].views;  // midpoint of (0, 1)
    ASSERT_EQ(views.size(), 1u);
    EXPECT_EQ(views[0].camera, 1);
    EXPECT_EQ(views[0].index, 1);
    EXPECT_EQ(views[0].value, 0.375f);
    EXPECT_EQ(views[0].u, -1.0);
    EXPECT_EQ(views[0].v, -1.0);
    // (1, 2) and (2, 0): vertex 2 has no views, so no camera reaches 2.
    EXPECT_TRUE(m.vertex_records[4].views.empty());
    EXPECT_TRUE(m.vertex_records[5].views.empty());
}

TEST(DivideFacets, ViewsAreEmittedInCameraOrderAndOnlyForCountTwo) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    m.mesh_cameras.resize(4);
    // Camera 3 twice on one end and once on the other (count 3): nothing.
    // Camera 0 twice on the same end (count 2): a sample.
    m.vertex_records[0].views = {sample(2, 1.0f), sample(3, 1.0f), sample(3, 1.0f), sample(0, 2.0f), sample(0, 4.0f)};
    m.vertex_records[1].views = {sample(3, 1.0f), sample(2, 3.0f)};
    divideFacets(m, {true});
    const auto& views = m.vertex_records[3].views;
    ASSERT_EQ(views.size(), 2u);
    EXPECT_EQ(views[0].camera, 0);
    EXPECT_EQ(views[0].value, 3.0f);
    EXPECT_EQ(views[1].camera, 2);
    EXPECT_EQ(views[1].value, 2.0f);
}

TEST(DivideFacets, ViewSampleWithCameraOutsideMeshCamerasIsSkipped) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    m.mesh_cameras.resize(2);
    m.vertex_records[0].views = {sample(5, 1.0f), sample(-1, 1.0f), sample(1, 1.0f)};
    m.vertex_records[1].views = {sample(5, 1.0f), sample(-1, 1.0f), sample(1, 3.0f)};
    divideFacets(m, {true});
    const auto& views = m.vertex_records[3].views;
    ASSERT_EQ(views.size(), 1u);
    EXPECT_EQ(views[0].camera, 1);
    EXPECT_EQ(views[0].value, 2.0f);

    // With mesh_cameras empty (always so in a run) no sample survives.
    TriMesh n = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    n.vertex_records[0].views = {sample(0, 1.0f)};
    n.vertex_records[1].views = {sample(0, 1.0f)};
    divideFacets(n, {true});
    EXPECT_TRUE(n.vertex_records[3].views.empty());
}

}  // namespace
