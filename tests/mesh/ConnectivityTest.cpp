// updateMeshConnectivity and findInvalidFacetIndex.
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
        VV valences;
    } cases[] = {
        // Pairs are visited (A, B), (A, C), (C, B); (C, B) appends B to the
        // list of C and C to the list of B.
        {"single facet", 3, {0, 1, 2}, {{1, 2}, {0, 2}, {0, 1}}},
        {"two facets of a square", 4, {0, 1, 2, 0, 2, 3}, {{1, 2, 3}, {0, 2}, {0, 1, 3}, {0, 2}}},
        // (5, 5) appends 5 to valences[5] twice, without warning; (7, 5) finds
        // nothing new because only valences[7] is searched and it holds 5.
        {"repeated vertex", 8, {5, 5, 7}, {{}, {}, {}, {}, {}, {5, 5, 7}, {}, {5}}},
        {"no facets", 3, {}, {{}, {}, {}}},
        {"empty mesh", 0, {}, {}},
        {"shared edge in opposite directions stands once in each list", 4, {0, 1, 2, 1, 0, 3},
         {{1, 2, 3}, {0, 2, 3}, {0, 1}, {1, 0}}},
        {"non-manifold edge stands once and touching fans merge", 7, {0, 1, 2, 1, 0, 3, 0, 1, 4, 0, 5, 6},
         {{1, 2, 3, 4, 5, 6}, {0, 2, 3, 4}, {0, 1}, {1, 0}, {0, 1}, {0, 6}, {0, 5}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TriMesh m = makeMesh(std::vector<float>(3 * size_t(c.numV), 0.0f), c.facets);
        // Stale tables are replaced, not added to.
        m.valences = {{9}, {9, 9}};
        m.num_valences = {4, 4, 4, 4, 4};
        EXPECT_EQ(meshtest::printedBy([&] { updateMeshConnectivity(m); }), "");
        EXPECT_EQ(m.valences, c.valences);
        V counts;
        for (const auto& list : c.valences) counts.push_back(int32_t(list.size()));
        EXPECT_EQ(m.num_valences, counts);
        EXPECT_EQ(m.facets, c.facets);
    }
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
