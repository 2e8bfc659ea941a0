// updateMeshConnectivity and the flat one-rings.
#include <gtest/gtest.h>

#include <vector>

#include "MeshTestSupport.h"
#include "TriMesh.h"
#include "meshConnectivity.h"

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

TEST(TriMeshConnectivity, FlatOneRingsKeepTheRingsInVertexOrder) {
    TriMesh m = meshtest::square();
    updateMeshConnectivity(m);
    FlatOneRings rings;
    ASSERT_TRUE(flattenOneRings(m, rings));
    ASSERT_EQ(rings.counts.size(), size_t(m.num_v));
    size_t start = 0;
    for (int v = 0; v < m.num_v; ++v) {
        EXPECT_EQ(rings.offsets[v], int(start)) << v;
        EXPECT_EQ(rings.counts[v], int(m.valences[v].size())) << v;
        EXPECT_EQ(std::vector<int>(rings.list.begin() + start, rings.list.begin() + start + m.valences[v].size()),
                  std::vector<int>(m.valences[v].begin(), m.valences[v].end()))
            << v;
        start += m.valences[v].size();
    }
    EXPECT_EQ(rings.list.size(), start);
    // A vertex without a ring has a run of length 0.
    m.num_v += 1;
    m.valences.emplace_back();
    ASSERT_TRUE(flattenOneRings(m, rings));
    EXPECT_EQ(rings.counts.back(), 0);
    EXPECT_EQ(rings.offsets.back(), int(start));
}

}  // namespace
