// The mesh record's operations: the neighbour-table rebuild that precedes
// every optimisation, and a validity probe for facets.
#include "TriMesh.h"

#include <cstddef>
#include <iostream>

namespace {

// Step 5 for one pair (P, Q): only valences[P] is searched, because the two
// lists of an edge are always filled together. Linear search: one-rings are
// short.
inline void addValencePair(TriMesh& mesh, int32_t P, int32_t Q) {
    std::vector<int32_t>& ringP = mesh.valences[size_t(P)];
    for (int32_t n : ringP)
        if (n == Q) return;
    ringP.push_back(Q);
    mesh.num_valences[size_t(P)] += 1;
    mesh.valences[size_t(Q)].push_back(P);
    mesh.num_valences[size_t(Q)] += 1;
}

}  // namespace

void updateMeshConnectivity(TriMesh& mesh) {
    const int32_t num_v = mesh.num_v;
    const int32_t num_f = mesh.num_f;
    const size_t nv = num_v > 0 ? size_t(num_v) : 0;

    // Steps 1 to 3.
    mesh.valences.clear();
    mesh.valences.resize(nv);
    mesh.num_valences.assign(nv, 0);
    mesh.vertex_facets.clear();
    mesh.vertex_facets.resize(nv);
    if (num_f <= 0) {
        // Nothing to walk; with no facet every list is empty, so the check of
        // step 6 cannot fire either.
        return;
    }

    const int32_t* F = mesh.facets.data();

    // Step 4: every facet is appended to the list of each of its vertices,
    // with no membership test (a repeated vertex gets the facet twice).
    for (int32_t f = 0; f < num_f; ++f) {
        const int32_t A = F[3 * size_t(f)], B = F[3 * size_t(f) + 1], C = F[3 * size_t(f) + 2];
        mesh.vertex_facets[size_t(A)].push_back(f);
        mesh.vertex_facets[size_t(B)].push_back(f);
        mesh.vertex_facets[size_t(C)].push_back(f);
    }

    // Step 5: pairs (A, B), (A, C), (C, B) in exactly this order; the order of
    // a one-ring is part of the device's numerical result.
    for (int32_t f = 0; f < num_f; ++f) {
        const int32_t A = F[3 * size_t(f)], B = F[3 * size_t(f) + 1], C = F[3 * size_t(f) + 2];
        addValencePair(mesh, A, B);
        addValencePair(mesh, A, C);
        addValencePair(mesh, C, B);
    }

    // Step 6: cannot fire on a correct build; reports and changes nothing.
    for (size_t i = 0; i < nv; ++i) {
        if (mesh.valences[i].size() != size_t(mesh.num_valences[i])) {
            std::cout << "Warning: valences[i].size() != num_valences[i]" << std::endl;
        }
    }
}

int64_t findInvalidFacetIndex(const TriMesh& mesh) {
    // Position in `facets` (0 .. 3*num_f - 1) of the first vertex index that
    // lies outside 0 .. num_v - 1. Only the entries that exist are looked at.
    const size_t declared = mesh.num_f > 0 ? size_t(mesh.num_f) * 3 : 0;
    const size_t n = declared < mesh.facets.size() ? declared : mesh.facets.size();
    for (size_t k = 0; k < n; ++k) {
        const int32_t index = mesh.facets[k];
        if (index < 0 || index >= mesh.num_v) return int64_t(k);
    }
    return -1;
}
