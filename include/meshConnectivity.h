// The mesh's derived tables: one-rings and vertex-facet lists rebuilt from
// the facets, and the one-rings in the flat form the device takes.
#pragma once

#include <vector>

#include "TriMesh.h"

// Rebuilds num_valences, valences and vertex_facets from the facets. One-ring
// order follows the facet walk (A,B), (A,C), (C,B): the device sums in it.
void updateMeshConnectivity(TriMesh& mesh);

// The one-rings of all vertices back to back (`list`), with each vertex's
// run length (`counts`) and start (`offsets`), one entry per vertex.
struct FlatOneRings {
    std::vector<int> list;
    std::vector<int> counts;
    std::vector<int> offsets;
};

// Fills `rings` from mesh.valences, vertex after vertex. Returns false, and
// fills nothing, when the one-rings hold more than 2^31 - 1 entries (the
// device indexes them with int).
bool flattenOneRings(const TriMesh& mesh, FlatOneRings& rings);
