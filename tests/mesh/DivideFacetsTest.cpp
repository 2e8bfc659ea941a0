// divideFacets, on small worked examples and on
// properties that every division must keep (conformity, winding, tables in
// step).
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "MeshTestSupport.h"
#include "TriMesh.h"
#include "meshSubdivision.h"

namespace {

using meshtest::makeMesh;
using meshtest::V;

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

// Twice the area of all facets in the plane z = 0, each facet checked to keep
// the counter-clockwise winding.
double windingArea2(const TriMesh& m) {
    double area = 0;
    for (int32_t f = 0; f < m.num_f; ++f) {
        auto x = [&](int k) { return double(m.vertices[3 * m.facets[3 * f + k]]); };
        auto y = [&](int k) { return double(m.vertices[3 * m.facets[3 * f + k] + 1]); };
        const double a = (x(1) - x(0)) * (y(2) - y(0)) - (y(1) - y(0)) * (x(2) - x(0));
        EXPECT_GT(a, 0.0) << "facet " << f;
        area += a;
    }
    return area;
}

// ---------------------------------------------------------------------------
// Worked examples: the square (0, 1, 2), (0, 2, 3), with indicators of the
// wrong size too (missing bits are 0, extra bits ignored), a non-manifold
// edge, a facet with a repeated vertex, and no facets.

TEST(DivideFacets, WorkedExamples) {
    // The edge table and one-rings that divideFacets builds are its own
    // working state, read by nothing after it returns: the facets and the
    // midpoints are what it must get right.
    const TriMesh square = meshtest::square(), empty;
    // The edge (0, 1) of three facets.
    const TriMesh fan = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1}, {0, 1, 2, 1, 0, 3, 0, 1, 4});
    // (5, 5) is an edge on itself; (7, 5) finds the edge of (5, 7).
    std::vector<float> ramp(3 * 8);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = float(i) * 0.25f;
    const TriMesh loop = makeMesh(ramp, {5, 5, 7});
    const std::string sizeError = "Error: facet_divide_indicator.size() != num_f\n";
    const V first = {0, 4, 6, 0, 6, 3, 4, 1, 5, 4, 5, 6, 6, 5, 2, 6, 2, 3}, none = {0, 1, 2, 0, 2, 3};
    const V second = {0, 1, 4, 0, 4, 6, 4, 1, 2, 4, 2, 5, 4, 5, 6, 6, 5, 3};
    const std::vector<V> firstMids = {{4, 0, 1}, {5, 1, 2}, {6, 2, 0}}, secondMids = {{4, 2, 0}, {5, 2, 3}, {6, 3, 0}};
    const struct {
        const char* name;
        const TriMesh& shape;
        std::vector<bool> bits;
        std::string printed;
        V divided;
        std::vector<V> midpoints;  // new vertex, then the edge it halves
    } cases[] = {
        {"square, first facet", square, {true, false}, "", first, firstMids},
        {"square, second facet", square, {false, true}, "", second, secondMids},
        {"square, both facets", square, {true, true}, "",
         {0, 4, 6, 0, 6, 8, 4, 1, 5, 4, 5, 6, 6, 5, 2, 6, 2, 7, 6, 7, 8, 8, 7, 3},
         {{4, 0, 1}, {5, 1, 2}, {6, 2, 0}, {7, 2, 3}, {8, 3, 0}}},
        {"square, no facet", square, {false, false}, "", none, {}},
        {"square, short indicator", square, {true}, sizeError, first, firstMids},
        {"square, empty indicator", square, {}, sizeError, none, {}},
        {"square, long indicator", square, {false, true, true, true}, sizeError, second, secondMids},
        // Facet 0 is cut in four; the other two, split on (0, 1) at 5, into two each:
        // (1, 0, 3) into (1, 5, 3) and (5, 0, 3), (0, 1, 4) into (0, 5, 4) and (5, 1, 4).
        {"non-manifold edge", fan, {true, false, false}, "",
         {0, 5, 7, 1, 5, 3, 0, 5, 4, 5, 1, 6, 5, 6, 7, 7, 6, 2, 5, 0, 3, 5, 1, 4}, {{5, 0, 1}, {6, 1, 2}, {7, 2, 0}}},
        // All three edges split, with Mab = 8 (on vertex 5) and Mbc = Mca = 9.
        {"repeated vertex", loop, {true}, "", {5, 8, 9, 8, 5, 9, 8, 9, 9, 9, 9, 7}, {{8, 5, 5}, {9, 5, 7}}},
        {"no facets", empty, {}, "", {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TriMesh m = c.shape;
        // Stale derived tables are rebuilt, not trusted.
        m.valences = {{9, 9}, {9}};
        m.num_valences = {7};
        m.edges = {{3, 3}};
        m.num_edges = 1;
        m.facet_edges = {5};
        EXPECT_EQ(meshtest::printedBy([&] { divideFacets(m, c.bits); }), c.printed);
        EXPECT_EQ(m.facets, c.divided);
        EXPECT_EQ(m.num_f, int32_t(c.divided.size() / 3));
        EXPECT_EQ(m.num_v, int32_t(c.shape.vertices.size() / 3 + c.midpoints.size()));
        EXPECT_TRUE(std::equal(c.shape.vertices.begin(), c.shape.vertices.end(), m.vertices.begin()));
        for (const V& mp : c.midpoints) expectMidpoint(m, mp[0], mp[1], mp[2]);
        expectTablesInStep(m);
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
        // Every child keeps the winding; the area is unchanged.
        EXPECT_DOUBLE_EQ(windingArea2(m), 2 * (2.0 + 1.0 + 2.0 + 1.0));
    }
}

// ---------------------------------------------------------------------------
// Random selections on a closed mesh, the first of them every facet, twice
// over as the level loop could: it stays closed and conforming (a T-junction
// or a child of the wrong winding leaves a directed edge without its opposite).

TEST(DivideFacets, RandomSelectionsKeepAClosedMeshClosedAndConforming) {
    std::mt19937 rng(12345);
    for (int trial = 0; trial < 40; ++trial) {
        TriMesh m = meshtest::octahedron();
        for (int round = 0; round < 3; ++round) {
            std::vector<bool> bits(size_t(m.num_f));
            for (size_t f = 0; f < bits.size(); ++f) bits[f] = trial == 0 || (rng() % 3) == 0;
            const int32_t v0 = m.num_v, f0 = m.num_f;
            const std::vector<float> oldVertices = m.vertices;
            divideFacets(m, bits);
            expectTablesInStep(m);
            EXPECT_TRUE(meshtest::isClosedAndConforming(m)) << "trial " << trial << ", round " << round;
            // Old vertices never move; one new vertex per edge of a selected
            // facet, one new facet per split edge of each facet.
            EXPECT_TRUE(std::equal(oldVertices.begin(), oldVertices.end(), m.vertices.begin()));
            std::set<int32_t> split;
            for (int32_t f = 0; f < f0; ++f)
                if (bits[f]) split.insert(m.facet_edges.begin() + 3 * f, m.facet_edges.begin() + 3 * f + 3);
            EXPECT_EQ(m.num_v - v0, int32_t(split.size()));
            int32_t children = 0;
            for (int32_t k = 0; k < 3 * f0; ++k) children += int32_t(split.count(m.facet_edges[k]));
            EXPECT_EQ(m.num_f - f0, children);
            if (trial == 0) {
                EXPECT_EQ(m.num_f, 4 * f0);
            }
        }
    }
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
}

TEST(DivideFacets, NewVerticesHalveAttributesTowardsZeroAndInheritFlagsOnlyFromBothEnds) {
    TriMesh m = triangle();
    m.vertex_attributes = {1, -3, 7, 2, 0, 0, 10, 10, 10};
    const int noDivide[3] = {1, 1, 0}, inherited[3] = {1, 0, 1};
    for (int i = 0; i < 3; ++i) {
        m.vertex_records[i].no_divide = noDivide[i];
        m.vertex_records[i].inherited_flag = inherited[i];
    }
    divideFacets(m, {true});
    // Midpoints 3 on (0, 1): sums 3, -3, 7; 4 on (1, 2): 12, 10, 10; 5 on (2, 0): 11, 7, 17.
    EXPECT_EQ(V(m.vertex_attributes.begin() + 9, m.vertex_attributes.end()), (V{1, -1, 3, 6, 5, 5, 5, 3, 8}));
    V flags;  // no_divide and inherited_flag of each midpoint
    for (int i = 3; i < 6; ++i)
        flags.insert(flags.end(), {m.vertex_records[i].no_divide, m.vertex_records[i].inherited_flag});
    EXPECT_EQ(flags, (V{1, 0, 0, 0, 0, 1}));
}

ViewSample sample(int32_t camera, float value) { return {100 + camera, camera, value, 3.0, 4.0}; }

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
        {"count two only", 4, {sample(2, 1.0f), sample(3, 1.0f), sample(3, 1.0f), sample(0, 2.0f), sample(0, 4.0f)},
         {sample(3, 1.0f), sample(2, 3.0f)}, {{0, 3.0f}, {2, 2.0f}}},
        {"cameras outside mesh_cameras are skipped", 2, {sample(5, 1.0f), sample(-1, 1.0f), sample(1, 1.0f)},
         {sample(5, 1.0f), sample(-1, 1.0f), sample(1, 3.0f)}, {{1, 2.0f}}},
        {"mesh_cameras empty, as always in a run", 0, {sample(0, 1.0f)}, {sample(0, 1.0f)}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TriMesh m = triangle();
        m.mesh_cameras.resize(c.numCameras);
        m.vertex_records[0].views = c.views0;
        m.vertex_records[1].views = c.views1;
        divideFacets(m, {true});
        // Index and camera both the camera's, no image position.
        std::vector<std::tuple<int32_t, int32_t, float, double, double>> got, want;
        for (const ViewSample& s : m.vertex_records[3].views) got.emplace_back(s.index, s.camera, s.value, s.u, s.v);
        for (const auto& [camera, value] : c.expected) want.emplace_back(camera, camera, value, -1.0, -1.0);
        EXPECT_EQ(got, want);
        if (&c == &cases[0]) {  // (1, 2) and (2, 0): vertex 2 has no views, so no camera reaches 2
            EXPECT_TRUE(m.vertex_records[4].views.empty() && m.vertex_records[5].views.empty());
        }
    }
}

}  // namespace
