// Helpers of the mesh tests: meshes built by hand with their per-vertex
// tables in step, a few closed shapes and host cameras looking along +z.
// The devices present and the capture of standard output come from the
// device tests' support.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "../support/DeviceTestSupport.h"
#include "TriMesh.h"
#include "mycamera.h"

namespace meshtest {

using V = std::vector<int32_t>;
using tessaline::test::printedBy;

// A mesh with the primary tables of a freshly loaded PLY: attributes zero,
// records at their defaults.
inline TriMesh makeMesh(const std::vector<float>& vertices, const std::vector<int32_t>& facets) {
    TriMesh m;
    m.num_v = int32_t(vertices.size() / 3);
    m.num_f = int32_t(facets.size() / 3);
    m.vertices = vertices;
    m.facets = facets;
    m.vertex_attributes.assign(vertices.size(), 0);
    m.vertex_records.assign(size_t(m.num_v), VertexRecord());
    return m;
}

// Unit square of vertices 0..3 with the facets (0, 1, 2) and (0, 2, 3).
inline TriMesh square() { return makeMesh({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, {0, 1, 2, 0, 2, 3}); }

// A closed octahedron.
inline TriMesh octahedron() {
    return makeMesh({1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1},
                    {0, 2, 4, 2, 1, 4, 1, 3, 4, 3, 0, 4, 2, 0, 5, 1, 2, 5, 3, 1, 5, 0, 3, 5});
}

// True when every directed edge of the facets occurs once and has exactly
// one opposite: a closed, consistently wound, conforming mesh.
inline ::testing::AssertionResult isClosedAndConforming(const TriMesh& m) {
    std::map<std::pair<int32_t, int32_t>, int> count;
    for (int32_t f = 0; f < m.num_f; ++f)
        for (int k = 0; k < 3; ++k) ++count[{m.facets[3 * f + k], m.facets[3 * f + (k + 1) % 3]}];
    for (const auto& [e, n] : count)
        if (n != 1 || count.count({e.second, e.first}) != 1)
            return ::testing::AssertionFailure() << "directed edge " << e.first << "->" << e.second << " occurs " << n
                                                 << " times, its opposite " << count.count({e.second, e.first});
    return ::testing::AssertionSuccess();
}

// Host camera at (0, 0, -d) looking along +z (R = I, t = (0, 0, d)); with d
// negative everything at z = 0 lies behind it.
inline mycamera forwardCamera(double f, double cx, double cy, double d) {
    mycamera cam;
    const double R[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::memcpy(cam.R, R, sizeof R);
    cam.t[0] = cam.t[1] = 0.0;
    cam.t[2] = d;
    cam.fx = cam.fy = f;
    cam.cx = cx;
    cam.cy = cy;
    updateIntrinsicMatrices(cam);
    updateProjectionMatrix(cam);
    return cam;
}

}  // namespace meshtest
