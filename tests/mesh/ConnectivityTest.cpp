// TriMesh::clear, updateMeshConnectivity and findInvalidFacetIndex.
#include <gtest/gtest.h>

#include <vector>

#include "MeshTestSupport.h"
#include "TriMesh.h"

namespace {

using meshtest::makeMesh;
using meshtest::V;
using VV = std::vector<V>;

TEST(Connectivity, WorkedExamples) {
    const struct {
        const char* name;
        int numV;
        V facets;
        VV valences, vertexFacets;
    } cases[] = {
        // Pairs are visited (A, B), (A, C), (C, B); (C, B) appends B to the
        // list of C and C to the list of B.
        {"single facet", 3, {0, 1, 2}, {{1, 2}, {0, 2}, {0, 1}}, {{0}, {0}, {0}}},
        {"two facets of a square", 4, {0, 1, 2, 0, 2, 3}, {{1, 2, 3}, {0, 2}, {0, 1, 3}, {0, 2}},
         {{0, 1}, {0}, {0, 1}, {1}}},
        // (5, 5) appends 5 to valences[5] twice, without warning; (7, 5) finds
        // nothing new because only valences[7] is searched and it holds 5.
        {"repeated vertex", 8, {5, 5, 7}, {{}, {}, {}, {}, {}, {5, 5, 7}, {}, {5}},
         {{}, {}, {}, {}, {}, {0, 0}, {}, {0}}},
        {"no facets", 3, {}, {{}, {}, {}}, {{}, {}, {}}},
        {"empty mesh", 0, {}, {}, {}},
        {"shared edge in opposite directions stands once in each list", 4, {0, 1, 2, 1, 0, 3},
         {{1, 2, 3}, {0, 2, 3}, {0, 1}, {1, 0}}, {{0, 1}, {0, 1}, {0}, {1}}},
        {"non-manifold edge stands once and touching fans merge", 7, {0, 1, 2, 1, 0, 3, 0, 1, 4, 0, 5, 6},
         {{1, 2, 3, 4, 5, 6}, {0, 2, 3, 4}, {0, 1}, {1, 0}, {0, 1}, {0, 6}, {0, 5}},
         {{0, 1, 2, 3}, {0, 1, 2}, {0}, {1}, {2}, {3}, {3}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TriMesh m = makeMesh(std::vector<float>(3 * size_t(c.numV), 0.0f), c.facets);
        // Stale tables are replaced; the derived edge tables are left alone.
        m.valences = {{9}, {9, 9}};
        m.num_valences = {4, 4, 4, 4, 4};
        m.vertex_facets = {{1}};
        m.edges = {{7, 8}};
        m.num_edges = 1;
        m.facet_edges = {3, 3, 3};
        EXPECT_EQ(meshtest::printedBy([&] { updateMeshConnectivity(m); }), "");
        EXPECT_EQ(m.valences, c.valences);
        EXPECT_EQ(m.vertex_facets, c.vertexFacets);
        V counts;
        for (const auto& list : c.valences) counts.push_back(int32_t(list.size()));
        EXPECT_EQ(m.num_valences, counts);
        EXPECT_EQ(m.facets, c.facets);
        EXPECT_EQ(m.num_edges, 1);
        EXPECT_EQ(m.edges.size(), 1u);
        EXPECT_EQ(m.facet_edges, (V{3, 3, 3}));
    }
}

TEST(TriMeshRecord, ClearEmptiesFiveTablesAndKeepsCounts) {
    TriMesh m = meshtest::square();
    updateMeshConnectivity(m);
    m.edges = {{0, 1}};
    m.clear();
    EXPECT_EQ(V({m.num_v, m.num_f}), V({4, 2}));
    EXPECT_TRUE(m.vertices.empty() && m.vertex_attributes.empty() && m.facets.empty() && m.num_valences.empty() &&
                m.valences.empty());
    // Not named by clear(): left as they were.
    EXPECT_EQ(m.vertex_records.size(), 4u);
    EXPECT_EQ(m.vertex_facets.size(), 4u);
    EXPECT_EQ(m.edges.size(), 1u);
}

TEST(TriMeshRecord, FindInvalidFacetIndex) {
    TriMesh m = meshtest::square();
    EXPECT_EQ(findInvalidFacetIndex(m), -1);
    m.facets[4] = 4;  // == num_v
    EXPECT_EQ(findInvalidFacetIndex(m), 4);
    m.facets[1] = -1;
    EXPECT_EQ(findInvalidFacetIndex(m), 1);
    EXPECT_EQ(findInvalidFacetIndex(TriMesh()), -1);
    EXPECT_EQ(findInvalidFacetIndex(makeMesh({}, {0, 0, 0})), 0);
}

}  // namespace
