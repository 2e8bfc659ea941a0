// Checks of the mesh arrays that entry points take: every index a kernel
// follows must lie inside its array.
#pragma once

#include "backend/EntryPoint.h"

namespace tessaline {

// Counts of a mesh: not negative, and small enough that the int 3*id
// indices of its per-vertex and per-facet arrays fit.
inline void checkMeshCounts(ArgumentCheck& check, int num_v, int num_f) {
    check.count(num_v, "negative vertex count");
    check.count(num_f, "negative facet count");
    check.require(tripleFitsIntIndex(num_v) && tripleFitsIntIndex(num_f), "mesh too large");
}

// Every facet's three vertex indices lie in 0..num_v-1.
inline void checkFacetIndices(ArgumentCheck& check, int num_v, int num_f, const int* facets) {
    for (long long i = 0; i < 3LL * num_f && !check.problem; ++i)
        check.require(facets[i] >= 0 && facets[i] < num_v, "facet with a vertex index out of range");
}

// The flattened one-rings: each run lies in valence_list, each neighbour is
// a vertex, and a neighbour has a ring of its own (the second-order divisor
// divides by its valence). A vertex with no ring is allowed: the umbrella
// leaves it its own position.
inline void checkOneRings(ArgumentCheck& check, int num_v, int num_valence_entries, const int* valence_list,
                          const int* valence_counts, const int* valence_offsets) {
    check.count(num_valence_entries, "negative valence entry count");
    check.array(valence_list, num_valence_entries, "valence_list missing");
    check.array(valence_counts, num_v, "valence_counts missing");
    check.array(valence_offsets, num_v, "valence_offsets missing");
    for (int v = 0; v < num_v && !check.problem; ++v) {
        const long long n = valence_counts[v], start = valence_offsets[v];
        if (n <= 0) continue;
        check.require(start >= 0 && start + n <= num_valence_entries, "one-ring outside valence_list");
        for (long long k = start; k < start + n && !check.problem; ++k) {
            const int u = valence_list[k];
            check.require(u >= 0 && u < num_v, "one-ring neighbour index out of range");
            if (!check.problem) check.require(valence_counts[u] > 0, "one-ring neighbour without a one-ring");
        }
    }
}

}  // namespace tessaline
