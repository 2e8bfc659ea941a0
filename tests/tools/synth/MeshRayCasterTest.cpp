// The hierarchy finds the same nearest hit as testing every facet, and the
// sphere meshes the scenes are built from are what they claim to be.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "MeshRayCaster.h"
#include "SynthShape.h"

using namespace tessaline::synth;

namespace {

RayHit bruteForce(const MeshRayCaster& caster, const double o[3], const double d[3]) {
    RayHit best;
    double nearest = std::numeric_limits<double>::infinity();
    for (size_t f = 0; f < caster.corners.size() / 9; ++f) {
        const double* p = &caster.corners[9 * f];
        double t, b, c;
        if (intersectTriangle(o, d, p, p + 3, p + 6, 0.0, nearest, t, b, c)) {
            nearest = t;
            best = RayHit{true, t, int32_t(f), b, c};
        }
    }
    return best;
}

TEST(MeshRayCaster, FindsTheSameNearestHitAsTestingEveryFacet) {
    TriMesh mesh;
    makeIcosphere(mesh, 3);
    const SynthShape shape = makeSynthShape(7, 2.0);
    displaceSphere(mesh, [&](const double d[3]) { return surfaceRadius(shape, d, SynthShape::kOctaves); });
    MeshRayCaster caster;
    buildRayCaster(caster, mesh);
    SplitMix rng(3);
    int hits = 0;
    for (int k = 0; k < 2000; ++k) {
        // Rays from outside towards points near the object, some missing it,
        // and rays from the inside (which must hit exactly once outwards).
        const bool inside = k % 4 == 0;
        double o[3], d[3];
        for (int a = 0; a < 3; ++a) {
            o[a] = inside ? 0.2 * (rng.uniform() - 0.5) : 6.0 * (rng.uniform() - 0.5);
            d[a] = (inside ? 1.0 : 2.6) * (rng.uniform() - 0.5) - (inside ? 0.0 : o[a]);
        }
        const RayHit fast = castRay(caster, o, d), slow = bruteForce(caster, o, d);
        ASSERT_EQ(fast.hit, slow.hit) << "ray " << k;
        if (inside) ASSERT_TRUE(fast.hit) << "ray " << k;
        if (!fast.hit) continue;
        ++hits;
        EXPECT_EQ(fast.distance, slow.distance) << "ray " << k;
    }
    EXPECT_GT(hits, 1000);
}

TEST(MeshRayCaster, ReportsTheHitPointThroughItsWeights) {
    TriMesh mesh;
    mesh.num_v = 3;
    mesh.num_f = 1;
    mesh.vertices = {0, 0, 1, 1, 0, 1, 0, 1, 1};
    mesh.facets = {0, 1, 2};
    MeshRayCaster caster;
    buildRayCaster(caster, mesh);
    const double o[3] = {0, 0, 0}, d[3] = {0.2, 0.3, 1.0};
    const RayHit hit = castRay(caster, o, d);
    ASSERT_TRUE(hit.hit);
    // Weights of the second vertex, (1, 0, 1), and the third, (0, 1, 1).
    EXPECT_LT(std::max({std::abs(hit.distance - 1.0), std::abs(hit.b - 0.2), std::abs(hit.c - 0.3)}), 1e-12);
    EXPECT_FALSE(castRay(caster, o, d, 1.5).hit);  // nothing beyond minDistance
    const double away[3] = {0.2, 0.3, -1.0};
    EXPECT_FALSE(castRay(caster, o, away).hit);
}

TEST(SynthShape, IcosphereHasUnitVerticesAndTheExpectedCounts) {
    for (int level = 0; level <= 3; ++level) {
        TriMesh mesh;
        makeIcosphere(mesh, level);
        const int f = 20 << (2 * level);
        EXPECT_EQ(mesh.num_f, f);
        EXPECT_EQ(mesh.num_v, f / 2 + 2);  // Euler: V - E + F = 2 with E = 3F/2
        for (size_t i = 0; i < mesh.vertices.size(); i += 3)
            EXPECT_NEAR(std::hypot(mesh.vertices[i], mesh.vertices[i + 1], mesh.vertices[i + 2]), 1.0, 1e-6);
    }
}

TEST(SynthShape, ReliefOctavesChangeTheRadiusByTheirAmplitudes) {
    const SynthShape flat = makeSynthShape(5, 0.0), rough = makeSynthShape(5, 1.0);
    const double d[3] = {0.0, 0.0, 1.0};
    // Without relief, the ellipsoid's semi-axis along z.
    EXPECT_NEAR(surfaceRadius(flat, d, SynthShape::kOctaves), flat.semiAxes[2], 1e-12);
    double bound = 0.0, largest = 0.0;
    for (double a : SynthShape::kAmplitude) bound += 1.1 * a;
    SplitMix rng(11);
    for (int k = 0; k < 500; ++k) {
        double v[3] = {rng.uniform() - 0.5, rng.uniform() - 0.5, rng.uniform() - 0.5};
        const double n = std::hypot(v[0], v[1], v[2]);
        for (double& x : v) x /= n;
        const double ratio = surfaceRadius(rough, v, SynthShape::kOctaves) / surfaceRadius(flat, v, 0) - 1.0;
        EXPECT_LE(std::abs(ratio), bound);
        largest = std::max(largest, std::abs(ratio));
    }
    EXPECT_GT(largest, 0.02);  // the relief is really there
}

}  // namespace
