// divideFacets, on small worked examples and on
// properties that every division must keep (conformity, winding, tables in
// step).
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
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

TriMesh triangle() { return makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2}); }

// The tables that must stay in step after any division.
void expectTablesInStep(const TriMesh& m) {
    EXPECT_EQ(m.vertices.size(), 3 * size_t(m.num_v));
    EXPECT_EQ(m.vertex_attributes.size(), 3 * size_t(m.num_v));
    EXPECT_EQ(m.vertex_records.size(), size_t(m.num_v));
    EXPECT_EQ(m.facets.size(), 3 * size_t(m.num_f));
    for (int32_t idx : m.facets) EXPECT_TRUE(idx >= 0 && idx < m.num_v) << idx;
}

// Is vertex m of the mesh the midpoint of (p, q), computed as float sum, double half, float?
void expectMidpoint(const TriMesh& mesh, int32_t m, int32_t p, int32_t q) {
    for (int c = 0; c < 3; ++c) {
        const double mid = double(mesh.vertices[3 * p + c] + mesh.vertices[3 * q + c]) * 0.5;
        EXPECT_EQ(mesh.vertex_records[m].position[c], mid) << "vertex " << m << " component " << c;
        EXPECT_EQ(mesh.vertices[3 * m + c], float(mid)) << "vertex " << m << " component " << c;
    }
}

// Signed area (times 2) of facet f in the plane z = 0.
double signedArea2(const TriMesh& m, int32_t f) {
    auto x = [&](int k) { return double(m.vertices[3 * m.facets[3 * f + k]]); };
    auto y = [&](int k) { return double(m.vertices[3 * m.facets[3 * f + k] + 1]); };
    return (x(1) - x(0)) * (y(2) - y(0)) - (y(1) - y(0)) * (x(2) - x(0));
}

// ---------------------------------------------------------------------------
// Worked examples on the square (0, 1, 2), (0, 2, 3), including indicators of
// the wrong size (missing bits are 0, extra bits ignored).

TEST(DivideFacets, SquareWorkedExamples) {
    const std::string sizeError = "Error: facet_divide_indicator.size() != num_f\n";
    const V first = {0, 4, 6, 0, 6, 3, 4, 1, 5, 4, 5, 6, 6, 5, 2, 6, 2, 3}, none = {0, 1, 2, 0, 2, 3};
    const V second = {0, 1, 4, 0, 4, 6, 4, 1, 2, 4, 2, 5, 4, 5, 6, 6, 5, 3};
    const std::vector<V> firstMids = {{4, 0, 1}, {5, 1, 2}, {6, 2, 0}}, secondMids = {{4, 2, 0}, {5, 2, 3}, {6, 3, 0}};
    const struct {
        std::vector<bool> bits;
        std::string printed;
        V facets;
        std::vector<V> midpoints;  // new vertex, then the edge it halves
    } cases[] = {
        {{true, false}, "", first, firstMids},
        {{false, true}, "", second, secondMids},
        {{true, true}, "", {0, 4, 6, 0, 6, 8, 4, 1, 5, 4, 5, 6, 6, 5, 2, 6, 2, 7, 6, 7, 8, 8, 7, 3},
         {{4, 0, 1}, {5, 1, 2}, {6, 2, 0}, {7, 2, 3}, {8, 3, 0}}},
        {{false, false}, "", none, {}},
        {{true}, sizeError, first, firstMids},
        {{}, sizeError, none, {}},
        {{false, true, true, true}, sizeError, second, secondMids},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.bits));
        TriMesh m = meshtest::square();
        // Stale derived tables are rebuilt; vertex_facets is not touched.
        m.valences = {{9, 9}, {9}};
        m.num_valences = {7};
        m.edges = {{3, 3}};
        m.num_edges = 1;
        m.facet_edges = {5};
        m.vertex_facets = {{42}};
        EXPECT_EQ(divideCapturingStdout(m, c.bits), c.printed);
        EXPECT_EQ(m.facets, c.facets);
        EXPECT_EQ(m.num_f, int32_t(c.facets.size() / 3));
        EXPECT_EQ(m.num_v, 4 + int32_t(c.midpoints.size()));
        EXPECT_EQ(std::vector<float>(m.vertices.begin(), m.vertices.begin() + 12), meshtest::square().vertices);
        for (const V& mp : c.midpoints) expectMidpoint(m, mp[0], mp[1], mp[2]);
        expectTablesInStep(m);
        EXPECT_EQ(m.edges, (E{{0, 1}, {1, 2}, {2, 0}, {2, 3}, {3, 0}}));
        EXPECT_EQ(m.num_edges, 5);
        EXPECT_EQ(m.facet_edges, (V{0, 1, 2, 2, 3, 4}));
        // Valences describe the mesh at entry, walked (A,B), (B,C), (C,A).
        EXPECT_EQ(m.valences, (std::vector<V>{{1, 2, 3}, {0, 2}, {1, 0, 3}, {2, 0}}));
        EXPECT_EQ(m.num_valences, (V{3, 2, 3, 2}));
        EXPECT_EQ(m.vertex_facets, (std::vector<V>{{42}}));
    }
}

TEST(DivideFacets, EveryRowOfTheCuttingTable) {
    // A central facet (0, 1, 2) with a neighbour on each edge; selecting the
    // neighbours picks which of the centre's edges are split.
    //   neighbour on AB: (1, 0, 3), on BC: (2, 1, 4), on CA: (0, 2, 5).
    // The first selected neighbour creates its three edge midpoints in its k
    // order; the centre's edge is the neighbour's first edge, so it gets 6.
    const std::vector<float> v = {0, 0, 0, 2, 0, 0, 0, 2, 0, 1, -1, 0, 2, 2, 0, -1, 1, 0};
    const struct {
        std::vector<bool> bits;
        V centre, appended;  // the centre's children come first among the new facets
    } rows[] = {
        {{false, false, false, false}, {0, 1, 2}, {}},
        {{false, true, false, false}, {0, 6, 2}, {6, 1, 2}},
        {{false, false, true, false}, {0, 1, 6}, {0, 6, 2}},
        {{false, false, false, true}, {0, 1, 6}, {6, 1, 2}},
        {{false, true, true, false}, {0, 6, 9}, {6, 1, 9, 0, 9, 2}},
        {{false, true, false, true}, {0, 6, 9}, {6, 1, 9, 9, 1, 2}},
        {{false, false, true, true}, {0, 1, 6}, {0, 6, 9, 9, 6, 2}},
        {{false, true, true, true}, {0, 6, 12}, {6, 1, 9, 6, 9, 12, 12, 9, 2}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.bits));
        TriMesh m = makeMesh(v, {0, 1, 2, 1, 0, 3, 2, 1, 4, 0, 2, 5});
        divideFacets(m, row.bits);
        EXPECT_EQ(V(m.facets.begin(), m.facets.begin() + 3), row.centre);
        EXPECT_EQ(V(m.facets.begin() + 12, m.facets.begin() + 12 + row.appended.size()), row.appended);
        expectTablesInStep(m);
        // Every child keeps the counter-clockwise winding; the area is unchanged.
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

TEST(DivideFacets, ClosedMeshesStayConforming) {
    TriMesh m = meshtest::tetrahedron();
    ASSERT_TRUE(meshtest::isClosedAndConforming(m));
    divideFacets(m, std::vector<bool>(4, true));
    EXPECT_EQ(m.num_edges, 6);
    EXPECT_EQ(m.num_v, 10);
    EXPECT_EQ(m.num_f, 16);
    EXPECT_TRUE(meshtest::isClosedAndConforming(m));
    for (int e = 0; e < 6; ++e) expectMidpoint(m, 4 + e, m.edges[e].first, m.edges[e].second);
    expectTablesInStep(m);
    // One selected facet: its neighbours are cut along the split edges, and
    // every directed edge still has exactly one opposite.
    for (int selected = 0; selected < 4; ++selected) {
        TriMesh t = meshtest::tetrahedron();
        std::vector<bool> bits(4, false);
        bits[selected] = true;
        divideFacets(t, bits);
        EXPECT_EQ(t.num_v, 7);
        EXPECT_EQ(t.num_f, 10);
        EXPECT_TRUE(meshtest::isClosedAndConforming(t)) << "selected facet " << selected;
    }
    // F -> 4F and V -> V + E, twice, as the level loop could.
    TriMesh o = meshtest::octahedron();
    divideFacets(o, std::vector<bool>(8, true));
    divideFacets(o, std::vector<bool>(32, true));
    EXPECT_EQ(o.num_v, 18 + 48);
    EXPECT_EQ(o.num_f, 128);
    EXPECT_TRUE(meshtest::isClosedAndConforming(o));
}

TEST(DivideFacets, RandomSelectionsOnClosedAndPlanarMeshesStayConforming) {
    std::mt19937 rng(12345);
    for (int trial = 0; trial < 40; ++trial) {
        TriMesh closed = meshtest::octahedron(), plane = meshtest::grid(6);
        for (int round = 0; round < 2; ++round) {
            for (TriMesh* m : {&closed, &plane}) {
                std::vector<bool> bits(size_t(m->num_f));
                for (size_t f = 0; f < bits.size(); ++f) bits[f] = (rng() % 3) == 0;
                const int32_t v0 = m->num_v, f0 = m->num_f;
                const std::vector<float> oldVertices = m->vertices;
                divideFacets(*m, bits);
                expectTablesInStep(*m);
                // Old vertices never move; one new vertex per edge of a selected facet.
                EXPECT_TRUE(std::equal(oldVertices.begin(), oldVertices.end(), m->vertices.begin()));
                std::set<int32_t> split;
                for (int32_t f = 0; f < f0; ++f)
                    if (bits[f]) split.insert(m->facet_edges.begin() + 3 * f, m->facet_edges.begin() + 3 * f + 3);
                EXPECT_EQ(m->num_v - v0, int32_t(split.size()));
                EXPECT_LE(m->num_f, 4 * f0);
            }
            EXPECT_TRUE(meshtest::isClosedAndConforming(closed));
            double area = 0;
            for (int32_t f = 0; f < plane.num_f; ++f) {
                EXPECT_GT(signedArea2(plane, f), 0.0);
                area += signedArea2(plane, f);
            }
            EXPECT_DOUBLE_EQ(area, 2.0 * 36);
            // Every directed edge off the grid's boundary has exactly one opposite (no T-junction).
            const auto edges = meshtest::directedEdges(plane);
            auto onSide = [&](int32_t a, int32_t b, int c, float s) {
                return plane.vertices[3 * a + c] == s && plane.vertices[3 * b + c] == s;
            };
            for (const auto& [e, n] : edges) {
                EXPECT_EQ(n, 1);
                const auto [a, b] = e;
                if (!(onSide(a, b, 0, 0) || onSide(a, b, 0, 6) || onSide(a, b, 1, 0) || onSide(a, b, 1, 6)))
                    EXPECT_EQ(edges.count({b, a}), 1u) << a << "->" << b;
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
        EXPECT_TRUE(!uses5 || f == 0 || (f >= 2 && f <= 4)) << "facet " << f;
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
    EXPECT_EQ(m.num_f, 3 + 3 + 1 + 1);
    EXPECT_EQ(V(m.facets.begin() + 3, m.facets.begin() + 9), (V{1, 5, 3, 0, 5, 4}));
    EXPECT_EQ(V(m.facets.begin() + 18, m.facets.end()), (V{5, 0, 3, 5, 1, 4}));
    expectTablesInStep(m);
}

TEST(DivideFacets, RepeatedVertexFacetFormsAnEdgeOnItself) {
    std::vector<float> v(3 * 8);
    for (size_t i = 0; i < v.size(); ++i) v[i] = float(i) * 0.25f;
    TriMesh m = makeMesh(v, {5, 5, 7});
    EXPECT_EQ(divideCapturingStdout(m, {true}), "");
    EXPECT_EQ(m.edges, (E{{5, 5}, {5, 7}}));
    EXPECT_EQ(m.facet_edges, (V{0, 1, 1}));  // (7, 5) finds the edge of (5, 7) in valences[7]
    EXPECT_EQ(m.num_v, 10);
    expectMidpoint(m, 8, 5, 5);  // lies on vertex 5
    expectMidpoint(m, 9, 5, 7);
    // All three edges split: Mab = 8, Mbc = Mca = 9.
    EXPECT_EQ(m.facets, (V{5, 8, 9, 8, 5, 9, 8, 9, 9, 9, 9, 7}));
    expectTablesInStep(m);
}

TEST(DivideFacets, EmptyMesh) {
    TriMesh m;
    EXPECT_EQ(divideCapturingStdout(m, {}), "");
    EXPECT_EQ(V({m.num_v, m.num_f, m.num_edges}), V({0, 0, 0}));
}

// ---------------------------------------------------------------------------
// Arithmetic and attributes of new vertices.

TEST(DivideFacets, MidpointIsFloatSumThenDoubleHalfThenFloat) {
    // x: 1 + 2^-30 rounds to 1 in float, so 0.5 and not 0.5 + 2^-31.
    // y: 16777216 + 1 rounds to 16777216 in float.
    // z: 0.1f + 0.2f needs 26 bits, so the float sum differs from the double.
    TriMesh m = makeMesh({1.0f, 16777216.0f, 0.1f, std::ldexp(1.0f, -30), 1.0f, 0.2f, 0, 0, 0}, {0, 1, 2});
    divideFacets(m, {true});
    EXPECT_EQ(m.vertex_records[3].position[0], 0.5);
    EXPECT_EQ(m.vertex_records[3].position[1], 8388608.0);
    EXPECT_EQ(m.vertex_records[3].position[2], double(0.1f + 0.2f) * 0.5);
    EXPECT_NE(m.vertex_records[3].position[2], (double(0.1f) + double(0.2f)) * 0.5);
    EXPECT_EQ(m.vertices[9], 0.5f);
    EXPECT_EQ(m.vertices[10], 8388608.0f);
    EXPECT_EQ(m.vertex_records[0].position[0], 0.0);  // old records keep their default position
}

TEST(DivideFacets, AttributesAreAveragedAndTruncatedTowardsZero) {
    TriMesh m = triangle();
    m.vertex_attributes = {1, -3, 7, 2, 0, 0, 10, 10, 10};
    divideFacets(m, {true});
    // Midpoints 3 on (0, 1): 3, -3, 7; 4 on (1, 2): 12, 10, 10; 5 on (2, 0): 11, 7, 17, halved.
    EXPECT_EQ(V(m.vertex_attributes.begin() + 9, m.vertex_attributes.end()), (V{1, -1, 3, 6, 5, 5, 5, 3, 8}));
}

TEST(DivideFacets, FlagsAreInheritedOnlyWhenBothEndsCarryThem) {
    TriMesh m = triangle();
    const int noDivide[3] = {1, 1, 0}, inherited[3] = {1, 0, 1};
    for (int i = 0; i < 3; ++i) {
        m.vertex_records[i].no_divide = noDivide[i];
        m.vertex_records[i].inherited_flag = inherited[i];
    }
    divideFacets(m, {true});
    // 3 on (0, 1), 4 on (1, 2), 5 on (2, 0); the rest of each record at its default.
    const int expectedNoDivide[3] = {1, 0, 0}, expectedInherited[3] = {0, 0, 1};
    for (int i = 3; i < 6; ++i) {
        const VertexRecord& r = m.vertex_records[i];
        EXPECT_EQ(V({r.no_divide, r.inherited_flag, r.enabled, r.marks[0], r.marks[1], r.marks[2], r.tail_flag}),
                  V({expectedNoDivide[i - 3], expectedInherited[i - 3], 1, 0, 255, 0, 0}))
            << "vertex " << i;
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

TEST(DivideFacets, ViewsOfACameraSampledExactlyTwiceAreAveragedInCameraOrder) {
    const struct {
        const char* name;
        size_t numCameras;
        std::vector<ViewSample> views0, views1;
        std::vector<std::pair<int32_t, float>> expected;  // camera and value at the midpoint of (0, 1)
    } cases[] = {
        {"one camera on both ends", 3, {sample(0, 1.0f), sample(1, 0.25f)}, {sample(1, 0.5f), sample(2, 8.0f)},
         {{1, 0.375f}}},
        // Camera 3 three times: nothing; camera 0 twice on the same end: a sample.
        {"count two only", 4,
         {sample(2, 1.0f), sample(3, 1.0f), sample(3, 1.0f), sample(0, 2.0f), sample(0, 4.0f)},
         {sample(3, 1.0f), sample(2, 3.0f)},
         {{0, 3.0f}, {2, 2.0f}}},
        {"cameras outside mesh_cameras are skipped", 2,
         {sample(5, 1.0f), sample(-1, 1.0f), sample(1, 1.0f)},
         {sample(5, 1.0f), sample(-1, 1.0f), sample(1, 3.0f)},
         {{1, 2.0f}}},
        {"mesh_cameras empty, as always in a run", 0, {sample(0, 1.0f)}, {sample(0, 1.0f)}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TriMesh m = triangle();
        m.mesh_cameras.resize(c.numCameras);
        m.vertex_records[0].views = c.views0;
        m.vertex_records[1].views = c.views1;
        divideFacets(m, {true});
        const auto& views = m.vertex_records[3].views;
        ASSERT_EQ(views.size(), c.expected.size());
        for (size_t k = 0; k < views.size(); ++k) {
            EXPECT_EQ(views[k].camera, c.expected[k].first);
            EXPECT_EQ(views[k].index, c.expected[k].first);
            EXPECT_EQ(views[k].value, c.expected[k].second);
            EXPECT_EQ(views[k].u, -1.0);
            EXPECT_EQ(views[k].v, -1.0);
        }
        if (&c == &cases[0]) {  // (1, 2) and (2, 0): vertex 2 has no views, so no camera reaches 2
            EXPECT_TRUE(m.vertex_records[4].views.empty());
            EXPECT_TRUE(m.vertex_records[5].views.empty());
        }
    }
}

}  // namespace
