// The ray caster's hierarchy finds the same nearest hit as testing every
// facet.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "MeshRayCaster.h"
#include "SynthShape.h"

using namespace tessaline::synth;

namespace {

TEST(MeshRayCaster, FindsTheSameNearestHitAsTestingEveryFacetAheadOfTheRayAtItsWeights) {
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
        // and rays from the inside, which must hit.
        const bool inside = k % 4 == 0;
        double o[3], d[3];
        for (int a = 0; a < 3; ++a) {
            o[a] = inside ? 0.2 * (rng.uniform() - 0.5) : 6.0 * (rng.uniform() - 0.5);
            d[a] = (inside ? 1.0 : 2.6) * (rng.uniform() - 0.5) - (inside ? 0.0 : o[a]);
        }
        RayHit slow;  // every facet in turn
        for (size_t f = 0; f < caster.corners.size() / 9; ++f) {
            const double* p = &caster.corners[9 * f];
            double t, b, c;
            if (intersectTriangle(o, d, p, p + 3, p + 6, 0.0, slow.hit ? slow.distance : HUGE_VAL, t, b, c))
                slow = RayHit{true, t, int32_t(f), b, c};
        }
        const RayHit fast = castRay(caster, o, d);
        ASSERT_TRUE(fast.hit == slow.hit && (fast.hit || !inside)) << "ray " << k;
        if (!fast.hit) continue;
        ++hits;
        EXPECT_EQ(fast.distance, slow.distance) << "ray " << k;
        // The weights give the point the distance reaches, ahead of the origin.
        const double* p = &caster.corners[9 * size_t(fast.facet)];
        const double w = 1 - fast.b - fast.c;
        for (int a = 0; a < 3; ++a)
            EXPECT_NEAR(w * p[a] + fast.b * p[3 + a] + fast.c * p[6 + a] - o[a], fast.distance * d[a], 1e-9) << k;
        EXPECT_GT(fast.distance, 0.0) << "ray " << k;
    }
    EXPECT_GT(hits, 1000);
}

}  // namespace
