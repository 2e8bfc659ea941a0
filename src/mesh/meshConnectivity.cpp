// The neighbour-table rebuild that precedes every optimisation, and the
// flat form of the one-rings that the device takes.
#include "meshConnectivity.h"

#include <climits>
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

bool flattenOneRings(const TriMesh& mesh, FlatOneRings& rings) {
    long long entries = 0;
    for (const auto& ring : mesh.valences) entries += (long long)ring.size();
    if (entries > INT_MAX) return false;
    const size_t nv = mesh.num_v > 0 ? size_t(mesh.num_v) : 0;
    rings.list.clear();
    rings.list.reserve(size_t(entries));
    rings.counts.assign(nv, 0);
    rings.offsets.assign(nv, 0);
    for (size_t v = 0; v < nv && v < mesh.valences.size(); ++v) {
        rings.offsets[v] = int(rings.list.size());
        rings.counts[v] = int(mesh.valences[v].size());
        rings.list.insert(rings.list.end(), mesh.valences[v].begin(), mesh.valences[v].end());
    }
    return true;
}
