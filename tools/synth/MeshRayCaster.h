// Nearest ray hits on a triangle mesh: a bounding-volume hierarchy over the
// facets and a double-precision ray-triangle test. Used to render the
// synthetic photographs independently of the tool's own z-buffer.
#pragma once

#include <cstdint>
#include <vector>

#include "TriMesh.h"

namespace tessaline::synth {

struct RayHit {
    bool hit = false;
    double distance = 0.0;  // along the ray, in units of its direction's length
    int32_t facet = -1;
    double b = 0.0;  // weight of the facet's second vertex
    double c = 0.0;  // weight of the facet's third vertex; the first has 1 - b - c
};

struct BvhNode {
    double lo[3], hi[3];
    // Inner node: children at `first` and `first + 1`, count 0.
    // Leaf: facets order[first .. first + count - 1].
    int32_t first = 0;
    int32_t count = 0;
};

struct MeshRayCaster {
    std::vector<double> corners;  // 9 per facet: the three vertex positions
    std::vector<int32_t> order;   // facet indices, grouped by leaf
    std::vector<BvhNode> nodes;   // nodes[0] is the root
};

// Builds the hierarchy over all facets of `mesh` (facet indices must be
// valid). Leaves hold at most 4 facets; inner nodes split at the median of
// the facet centroids along the widest axis.
void buildRayCaster(MeshRayCaster& caster, const TriMesh& mesh);

// The nearest hit with distance in (minDistance, infinity), facing either
// way. `direction` need not be normalised.
RayHit castRay(const MeshRayCaster& caster, const double origin[3], const double direction[3],
               double minDistance = 0.0);

// Moller-Trumbore test of one triangle; on a hit in (minDistance, best)
// writes distance and weights and returns true. Edges count as inside.
bool intersectTriangle(const double origin[3], const double direction[3], const double* p0, const double* p1,
                       const double* p2, double minDistance, double best, double& distance, double& b, double& c);

}  // namespace tessaline::synth
