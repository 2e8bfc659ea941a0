#include "MeshRayCaster.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tessaline::synth {

namespace {

constexpr int kLeafSize = 4;

double centroid(const MeshRayCaster& caster, int32_t facet, int axis) {
    const double* p = &caster.corners[9 * size_t(facet)];
    return (p[axis] + p[3 + axis] + p[6 + axis]) / 3.0;
}

void fitBounds(const MeshRayCaster& caster, BvhNode& node, int32_t begin, int32_t end) {
    for (int a = 0; a < 3; ++a) {
        node.lo[a] = std::numeric_limits<double>::infinity();
        node.hi[a] = -std::numeric_limits<double>::infinity();
    }
    for (int32_t k = begin; k < end; ++k) {
        const double* p = &caster.corners[9 * size_t(caster.order[k])];
        for (int v = 0; v < 3; ++v)
            for (int a = 0; a < 3; ++a) {
                node.lo[a] = std::min(node.lo[a], p[3 * v + a]);
                node.hi[a] = std::max(node.hi[a], p[3 * v + a]);
            }
    }
}

// Builds the subtree of order[begin, end) into nodes[index]. Iterative over
// a work list so that deep trees cannot exhaust the stack.
void buildTree(MeshRayCaster& caster) {
    struct Task {
        int32_t node, begin, end;
    };
    std::vector<Task> work{{0, 0, int32_t(caster.order.size())}};
    caster.nodes.assign(1, BvhNode{});
    while (!work.empty()) {
        const Task task = work.back();
        work.pop_back();
        BvhNode& node = caster.nodes[task.node];
        fitBounds(caster, node, task.begin, task.end);
        const int32_t n = task.end - task.begin;
        if (n <= kLeafSize) {
            node.first = task.begin;
            node.count = n;
            continue;
        }
        double clo[3], chi[3];
        for (int a = 0; a < 3; ++a) {
            clo[a] = std::numeric_limits<double>::infinity();
            chi[a] = -std::numeric_limits<double>::infinity();
        }
        for (int32_t k = task.begin; k < task.end; ++k)
            for (int a = 0; a < 3; ++a) {
                clo[a] = std::min(clo[a], centroid(caster, caster.order[k], a));
                chi[a] = std::max(chi[a], centroid(caster, caster.order[k], a));
            }
        int axis = 0;
        for (int a = 1; a < 3; ++a)
            if (chi[a] - clo[a] > chi[axis] - clo[axis]) axis = a;
        const int32_t mid = task.begin + n / 2;
        // Ties by facet index keep the tree, and so the hits on shared edges,
        // the same from run to run.
        std::nth_element(caster.order.begin() + task.begin, caster.order.begin() + mid,
                         caster.order.begin() + task.end, [&](int32_t f, int32_t g) {
                             const double cf = centroid(caster, f, axis), cg = centroid(caster, g, axis);
                             return cf < cg || (cf == cg && f < g);
                         });
        const int32_t left = int32_t(caster.nodes.size());
        node.first = left;
        node.count = 0;
        caster.nodes.push_back(BvhNode{});
        caster.nodes.push_back(BvhNode{});
        work.push_back({left, task.begin, mid});
        work.push_back({left + 1, mid, task.end});
    }
}

// Entry distance of the ray into the box, or +infinity when it misses the
// box within (minDistance, best).
double enterBox(const BvhNode& node, const double origin[3], const double inverse[3], double minDistance,
                double best) {
    double t0 = minDistance, t1 = best;
    for (int a = 0; a < 3; ++a) {
        double near = (node.lo[a] - origin[a]) * inverse[a];
        double far = (node.hi[a] - origin[a]) * inverse[a];
        if (near > far) std::swap(near, far);
        // NaN (0 * inf on a slab boundary) must not shrink the interval.
        if (near > t0) t0 = near;
        if (far < t1) t1 = far;
        if (t0 > t1) return std::numeric_limits<double>::infinity();
    }
    return t0;
}

}  // namespace

void buildRayCaster(MeshRayCaster& caster, const TriMesh& mesh) {
    const size_t numF = size_t(std::max(mesh.num_f, 0));
    caster.corners.resize(9 * numF);
    caster.order.resize(numF);
    for (size_t f = 0; f < numF; ++f) {
        caster.order[f] = int32_t(f);
        for (int v = 0; v < 3; ++v) {
            const size_t i = size_t(mesh.facets[3 * f + v]);
            for (int a = 0; a < 3; ++a) caster.corners[9 * f + 3 * v + a] = mesh.vertices[3 * i + a];
        }
    }
    caster.nodes.clear();
    if (numF > 0) buildTree(caster);
}

bool intersectTriangle(const double origin[3], const double direction[3], const double* p0, const double* p1,
                       const double* p2, double minDistance, double best, double& distance, double& b, double& c) {
    const double e1[3] = {p1[0] - p0[0], p1[1] - p0[1], p1[2] - p0[2]};
    const double e2[3] = {p2[0] - p0[0], p2[1] - p0[1], p2[2] - p0[2]};
    const double q[3] = {direction[1] * e2[2] - direction[2] * e2[1], direction[2] * e2[0] - direction[0] * e2[2],
                         direction[0] * e2[1] - direction[1] * e2[0]};
    const double det = e1[0] * q[0] + e1[1] * q[1] + e1[2] * q[2];
    if (det == 0.0 || !std::isfinite(det)) return false;
    const double inv = 1.0 / det;
    const double s[3] = {origin[0] - p0[0], origin[1] - p0[1], origin[2] - p0[2]};
    const double u = (s[0] * q[0] + s[1] * q[1] + s[2] * q[2]) * inv;
    if (u < 0.0 || u > 1.0) return false;
    const double r[3] = {s[1] * e1[2] - s[2] * e1[1], s[2] * e1[0] - s[0] * e1[2], s[0] * e1[1] - s[1] * e1[0]};
    const double v = (direction[0] * r[0] + direction[1] * r[1] + direction[2] * r[2]) * inv;
    if (v < 0.0 || u + v > 1.0) return false;
    const double t = (e2[0] * r[0] + e2[1] * r[1] + e2[2] * r[2]) * inv;
    if (!(t > minDistance && t < best)) return false;
    distance = t;
    b = u;
    c = v;
    return true;
}

RayHit castRay(const MeshRayCaster& caster, const double origin[3], const double direction[3], double minDistance) {
    RayHit hit;
    if (caster.nodes.empty()) return hit;
    const double inverse[3] = {1.0 / direction[0], 1.0 / direction[1], 1.0 / direction[2]};
    double best = std::numeric_limits<double>::infinity();
    int32_t stack[128];
    int depth = 0;
    stack[depth++] = 0;
    while (depth > 0) {
        const BvhNode& node = caster.nodes[stack[--depth]];
        if (enterBox(node, origin, inverse, minDistance, best) == std::numeric_limits<double>::infinity()) continue;
        if (node.count > 0) {
            for (int32_t k = node.first; k < node.first + node.count; ++k) {
                const int32_t f = caster.order[k];
                const double* p = &caster.corners[9 * size_t(f)];
                double t, b, c;
                if (intersectTriangle(origin, direction, p, p + 3, p + 6, minDistance, best, t, b, c)) {
                    best = t;
                    hit = RayHit{true, t, f, b, c};
                }
            }
            continue;
        }
        // Visit the nearer child first so that `best` shrinks early. The
        // median split halves every node, so the stack stays within
        // log2(facets) + 1 entries.
        const int32_t l = node.first, r = node.first + 1;
        const double dl = enterBox(caster.nodes[l], origin, inverse, minDistance, best);
        const double dr = enterBox(caster.nodes[r], origin, inverse, minDistance, best);
        const bool leftFirst = dl <= dr;
        const int32_t nearChild = leftFirst ? l : r, farChild = leftFirst ? r : l;
        if (std::max(dl, dr) != std::numeric_limits<double>::infinity() && depth < 127) stack[depth++] = farChild;
        if (std::min(dl, dr) != std::numeric_limits<double>::infinity() && depth < 127) stack[depth++] = nearChild;
    }
    return hit;
}

}  // namespace tessaline::synth
