// TriMesh::clear, updateMeshConnectivity and findInvalidFacetIndex.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "MeshTestSupport.h"
#include "TriMesh.h"

namespace {

using meshtest::makeMesh;
using V = std::vector<int32_t>;

std::string runCapturingStdout(TriMesh& m) {
    testing::internal::CaptureStdout();
    updateMeshConnectivity(m);
    return testing::internal::GetCapturedStdout();
}

TEST(Connectivity, SingleFacetFollowsThePairOrderABThenACThenCB) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2});
    EXPECT_EQ(runCapturingStdout(m), "");
    ASSERT_EQ(m.valences.size(), 3u);
    EXPECT_EQ(m.valences[0], (V{1, 2}));
    // (C, B) appends B to the list of C and C to the list of B.
    EXPECT_EQ(m.valences[1], (V{0, 2}));
    EXPECT_EQ(m.valences[2], (V{0, 1}));
    EXPECT_EQ(m.num_valences, (V{2, 2, 2}));
    ASSERT_EQ(m.vertex_facets.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(m.vertex_facets[i], (V{0}));
}

TEST(Connectivity, TwoFacetsOfASquare) {
    TriMesh m = meshtest::square();
    EXPECT_EQ(runCapturingStdout(m), "");
    EXPECT_EQ(m.valences[0], (V{1, 2, 3}));
    EXPECT_EQ(m.valences[1], (V{0, 2}));
    EXPECT_EQ(m.valences[2], (V{0, 1, 3}));
    EXPECT_EQ(m.valences[3], (V{0, 2}));
    EXPECT_EQ(m.num_valences, (V{3, 2, 3, 2}));
    EXPECT_EQ(m.vertex_facets[0], (V{0, 1}));
    EXPECT_EQ(m.vertex_facets[1], (V{0}));
    EXPECT_EQ(m.vertex_facets[2], (V{0, 1}));
    EXPECT_EQ(m.vertex_facets[3], (V{1}));
}

TEST(Connectivity, RepeatedVertexCountsThePairTwiceWithoutWarning) {
    std::vector<float> v(3 * 8, 0.0f);
    TriMesh m = makeMesh(v, {5, 5, 7});
    EXPECT_EQ(runCapturingStdout(m), "");
    // (5, 5): 5 is appended to valences[5] twice; (5, 7) adds 7; (7, 5) finds
    // nothing new because only valences[7] is searched and it holds 5.
    EXPECT_EQ(m.valences[5], (V{5, 5, 7}));
    EXPECT_EQ(m.num_valences[5], 3);
    EXPECT_EQ(m.valences[7], (V{5}));
    EXPECT_EQ(m.num_valences[7], 1);
    EXPECT_EQ(m.vertex_facets[5], (V{0, 0}));
    EXPECT_EQ(m.vertex_facets[7], (V{0}));
    for (int i : {0, 1, 2, 3, 4, 6}) {
        EXPECT_TRUE(m.valences[i].empty());
        EXPECT_EQ(m.num_valences[i], 0);
        EXPECT_TRUE(m.vertex_facets[i].empty());
    }
}

TEST(Connectivity, NoFacetsGivesEmptyListsAndZeroCounts) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {});
    // Stale tables from before must be replaced.
    m.valences = {{9}, {9, 9}};
    m.num_valences = {4, 4, 4, 4, 4};
    m.vertex_facets = {{1}};
    EXPECT_EQ(runCapturingStdout(m), "");
    ASSERT_EQ(m.valences.size(), 3u);
    ASSERT_EQ(m.vertex_facets.size(), 3u);
    EXPECT_EQ(m.num_valences, (V{0, 0, 0}));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(m.valences[i].empty());
        EXPECT_TRUE(m.vertex_facets[i].empty());
    }
}

TEST(Connectivity, EmptyMeshGivesEmptyTables) {
    TriMesh m;
    m.valences = {{1}};
    m.num_valences = {1};
    m.vertex_facets = {{0}};
    EXPECT_EQ(runCapturingStdout(m), "");
    EXPECT_TRUE(m.valences.empty());
    EXPECT_TRUE(m.num_valences.empty());
    EXPECT_TRUE(m.vertex_facets.empty());
}

TEST(Connectivity, SharedEdgeInOppositeDirectionsStandsOnceInEachList) {
    TriMesh m = makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1, 0}, {0, 1, 2, 1, 0, 3});
    updateMeshConnectivity(m);
    EXPECT_EQ(std::count(m.valences[0].begin(), m.valences[0].end(), 1), 1);
    EXPECT_EQ(std::count(m.valences[1].begin(), m.valences[1].end(), 0), 1);
    EXPECT_EQ(m.valences[0], (V{1, 2, 3}));
    // Facet 1 = (1, 0, 3): pairs (1, 0) present, (1, 3), (3, 0).
    EXPECT_EQ(m.valences[1], (V{0, 2, 3}));
    EXPECT_EQ(m.valences[3], (V{1, 0}));
}

TEST(Connectivity, NonManifoldEdgeStandsOnceAndTouchingFansMerge) {
    // Three facets on edge (0, 1); vertex 0 also joins a second fan.
    TriMesh m = makeMesh(std::vector<float>(3 * 7, 0.0f), {0, 1, 2, 1, 0, 3, 0, 1, 4, 0, 5, 6});
    updateMeshConnectivity(m);
    EXPECT_EQ(m.valences[0], (V{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(m.valences[1], (V{0, 2, 3, 4}));
    EXPECT_EQ(m.num_valences[0], 6);
    EXPECT_EQ(m.vertex_facets[0], (V{0, 1, 2, 3}));
}

TEST(Connectivity, IsIdempotent) {
    TriMesh m = meshtest::grid(5);
    updateMeshConnectivity(m);
    const auto valences = m.valences;
    const auto counts = m.num_valences;
    const auto vf = m.vertex_facets;
    EXPECT_EQ(runCapturingStdout(m), "");
    EXPECT_EQ(m.valences, valences);
    EXPECT_EQ(m.num_valences, counts);
    EXPECT_EQ(m.vertex_facets, vf);
}

TEST(Connectivity, RingsAreSymmetricCountsMatchAndPrimaryTablesUntouched) {
    TriMesh m = meshtest::octahedron();
    const auto vertices = m.vertices;
    const auto facets = m.facets;
    updateMeshConnectivity(m);
    EXPECT_EQ(m.vertices, vertices);
    EXPECT_EQ(m.facets, facets);
    for (int i = 0; i < m.num_v; ++i) {
        EXPECT_EQ(m.valences[i].size(), 4u);  // every octahedron vertex has valence 4
        EXPECT_EQ(m.num_valences[i], int(m.valences[i].size()));
        for (int32_t n : m.valences[i]) {
            const auto& back = m.valences[n];
            EXPECT_EQ(std::count(back.begin(), back.end(), i), 1);
        }
        EXPECT_EQ(m.vertex_facets[i].size(), 4u);
        EXPECT_TRUE(std::is_sorted(m.vertex_facets[i].begin(), m.vertex_facets[i].end()));
    }
}

TEST(Connectivity, DerivedEdgeTablesAreLeftAlone) {
    TriMesh m = meshtest::square();
    m.edges = {{7, 8}};
    m.num_edges = 1;
    m.facet_edges = {3, 3, 3};
    updateMeshConnectivity(m);
    EXPECT_EQ(m.num_edges, 1);
    EXPECT_EQ(m.edges.size(), 1u);
    EXPECT_EQ(m.facet_edges, (V{3, 3, 3}));
}

TEST(TriMeshRecord, DefaultsOfTheRecords) {
    TriMesh m;
    EXPECT_EQ(m.num_v, 0);
    EXPECT_EQ(m.num_f, 0);
    EXPECT_TRUE(m.vertices.empty());
    EXPECT_TRUE(m.mesh_cameras.empty());
    VertexRecord r;
    EXPECT_EQ(r.no_divide, 0);
    EXPECT_EQ(r.inherited_flag, 0);
    EXPECT_EQ(r.enabled, 1);
    EXPECT_EQ(r.marks[0], 0);
    EXPECT_EQ(r.marks[1], 255);
    EXPECT_EQ(r.marks[2], 0);
    EXPECT_EQ(r.tail_flag, 0);
    EXPECT_TRUE(r.views.empty());
}

TEST(TriMeshRecord, ClearEmptiesFiveTablesAndKeepsCounts) {
    TriMesh m = meshtest::square();
    updateMeshConnectivity(m);
    m.edges = {{0, 1}};
    m.num_edges = 1;
    m.clear();
    EXPECT_EQ(m.num_v, 4);
    EXPECT_EQ(m.num_f, 2);
    EXPECT_TRUE(m.vertices.empty());
    EXPECT_TRUE(m.vertex_attributes.empty());
    EXPECT_TRUE(m.facets.empty());
    EXPECT_TRUE(m.num_valences.empty());
    EXPECT_TRUE(m.valences.empty());
    // Not named by clear(): left as they were.
    EXPECT_EQ(m.vertex_records.size(), 4u);
    EXPECT_EQ(m.vertex_facets.size(), 4u);
    EXPECT_EQ(m.edges.size(), 1u);
    EXPECT_EQ(m.num_edges, 1);
}

TEST(TriMeshRecord, FindInvalidFacetIndex) {
    TriMesh m = meshtest::square();
    EXPECT_EQ(findInvalidFacetIndex(m), -1);
    m.facets[4] = 4;  // == num_v
    EXPECT_EQ(findInvalidFacetIndex(m), 4);
    m.facets[1] = -1;
    EXPECT_EQ(findInvalidFacetIndex(m), 1);
    TriMesh empty;
    EXPECT_EQ(findInvalidFacetIndex(empty), -1);
    TriMesh noVertices = makeMesh({}, {0, 0, 0});
    EXPECT_EQ(findInvalidFacetIndex(noVertices), 0);
}

}  // namespace
