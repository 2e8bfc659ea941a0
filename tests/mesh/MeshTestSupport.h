// Helpers of the mesh tests: meshes built by hand with their per-vertex
// tables in step, a few closed shapes, and host cameras looking along +z.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "TriMesh.h"
#include "mycamera.h"

namespace meshtest {

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

// A closed tetrahedron, facets wound consistently (every directed edge has
// exactly one opposite).
inline TriMesh tetrahedron() {
    return makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 2, 1, 0, 1, 3, 0, 3, 2, 1, 2, 3});
}

// A closed octahedron.
inline TriMesh octahedron() {
    return makeMesh({1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1, 0, 0, -1},
                    {0, 2, 4, 2, 1, 4, 1, 3, 4, 3, 0, 4, 2, 0, 5, 1, 2, 5, 3, 1, 5, 0, 3, 5});
}

// n x n grid of quads in the plane z = 0, each cut into two facets, all wound
// counter-clockwise seen from +z.
inline TriMesh grid(int n) {
    std::vector<float> v;
    std::vector<int32_t> f;
    for (int y = 0; y <= n; ++y)
        for (int x = 0; x <= n; ++x) {
            v.push_back(float(x));
            v.push_back(float(y));
            v.push_back(0.0f);
        }
    auto id = [n](int x, int y) { return int32_t(y * (n + 1) + x); };
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            f.insert(f.end(), {id(x, y), id(x + 1, y), id(x + 1, y + 1)});
            f.insert(f.end(), {id(x, y), id(x + 1, y + 1), id(x, y + 1)});
        }
    return makeMesh(v, f);
}

// Count of each directed edge of the facets.
inline std::map<std::pair<int32_t, int32_t>, int> directedEdges(const TriMesh& m) {
    std::map<std::pair<int32_t, int32_t>, int> count;
    for (int32_t f = 0; f < m.num_f; ++f)
        for (int k = 0; k < 3; ++k) ++count[{m.facets[3 * f + k], m.facets[3 * f + (k + 1) % 3]}];
    return count;
}

// True when every directed edge occurs once and has exactly one opposite:
// a closed, consistently wound, conforming mesh.
inline ::testing::AssertionResult isClosedAndConforming(const TriMesh& m) {
    const auto count = directedEdges(m);
    for (const auto& [e, n] : count) {
        if (n != 1)
            return ::testing::AssertionFailure() << "directed edge " << e.first << "->" << e.second << " occurs " << n
                                                 << " times";
        const auto opp = count.find({e.second, e.first});
        if (opp == count.end())
            return ::testing::AssertionFailure() << "directed edge " << e.first << "->" << e.second
                                                 << " has no opposite (T-junction or hole)";
    }
    return ::testing::AssertionSuccess();
}

// Host camera looking along +z from (cx_w, cy_w, -d): R = I, t = -centre,
// K from f, cx, cy, P = K [R | t]. A world point (X, Y, 0) lands at
// (cx + f (X - cx_w) / d, cy + f (Y - cy_w) / d).
inline mycamera forwardCamera(double f, double cx, double cy, double d, double cx_w = 0.0, double cy_w = 0.0) {
    mycamera cam{};
    const double R[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double t[3] = {-cx_w, -cy_w, d};
    const double K[9] = {f, 0, cx, 0, f, cy, 0, 0, 1};
    const double Kinv[9] = {1 / f, 0, -cx / f, 0, 1 / f, -cy / f, 0, 0, 1};
    for (int i = 0; i < 9; ++i) cam.R[i] = R[i], cam.K[i] = K[i], cam.K_inv[i] = Kinv[i];
    for (int i = 0; i < 3; ++i) cam.t[i] = t[i];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            double s = 0;
            for (int k = 0; k < 3; ++k) s += K[3 * r + k] * (c < 3 ? R[3 * k + c] : t[k]);
            cam.P[4 * r + c] = s;
        }
    cam.fx = cam.fy = f;
    cam.cx = cx;
    cam.cy = cy;
    return cam;
}

// A camera looking along +z from (0, 0, +d): everything at z = 0 lies behind
// it, so it sees nothing of a mesh in that plane.
inline mycamera cameraLookingAway(double f, double cx, double cy, double d) {
    return forwardCamera(f, cx, cy, -d);
}

}  // namespace meshtest
