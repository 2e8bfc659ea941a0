// Accuracy and completeness against cases with known answers: identical
// meshes, a scaled sphere, an offset plane, a mesh missing half the
// reference, and facets of unequal area.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "MeshCompare.h"
#include "SynthShape.h"

using namespace tessaline::compare;

namespace {

TriMesh sphere(int level, double radius) {
    TriMesh mesh;
    tessaline::synth::makeIcosphere(mesh, level);
    for (float& x : mesh.vertices) x = float(x * radius);
    return mesh;
}

// An n x n grid of squares, two facets each, over [0, size]^2 at height z.
TriMesh grid(int n, double size, double z) {
    TriMesh mesh;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) mesh.vertices.insert(mesh.vertices.end(), {float(size * i / n), float(size * j / n), float(z)});
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int32_t a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            mesh.facets.insert(mesh.facets.end(), {a, b, d, a, d, c});
        }
    mesh.num_v = int32_t(mesh.vertices.size() / 3);
    mesh.num_f = int32_t(mesh.facets.size() / 3);
    return mesh;
}

// The facets of `mesh` whose centroid lies above z = 0; all vertices kept.
TriMesh upperHalf(const TriMesh& mesh) {
    TriMesh half = mesh;
    half.facets.clear();
    for (int32_t f = 0; f < mesh.num_f; ++f) {
        double z = 0.0;
        for (int k = 0; k < 3; ++k) z += mesh.vertices[3 * size_t(mesh.facets[3 * f + k]) + 2];
        if (z > 0.0)
            for (int k = 0; k < 3; ++k) half.facets.push_back(mesh.facets[3 * f + k]);
    }
    half.num_f = int32_t(half.facets.size() / 3);
    return half;
}

MeshComparison compare(const TriMesh& reference, const TriMesh& test, size_t samples = 20000) {
    MeshComparison result;
    std::string error;
    EXPECT_TRUE(compareMeshes(reference, test, samples, result, error)) << error;
    return result;
}

TEST(MeshCompare, KnownDistancesIdenticalScaledSphereOffsetPlane) {
    // Every point of the sphere scaled by 1.01 lies 0.01 times its facet's
    // distance from the centre (within 0.1% of 1 here) outside the unit sphere.
    struct Case { const char* name; TriMesh reference, test; double distance, tolerance, diagonal; };
    const std::vector<Case> cases = {
        {"identical", sphere(3, 1.0), sphere(3, 1.0), 0.0, 1e-12, 2.0 * std::sqrt(3.0)},
        {"scaled sphere", sphere(5, 1.0), sphere(5, 1.01), 0.01, 2e-5, 2.0 * std::sqrt(3.0)},
        {"offset plane", grid(8, 1.0, 0.0), grid(5, 1.0, 0.125), 0.125, 1e-12, std::sqrt(2.0)}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const MeshComparison r = compare(c.reference, c.test);
        for (const DistanceStats& d : {r.accuracy, r.completeness})
            for (double v : {d.mean, d.median, d.p90}) EXPECT_NEAR(v, c.distance, c.tolerance);
        EXPECT_NEAR(r.diagonal, c.diagonal, 1e-3);
    }
}

TEST(MeshCompare, MissingHalfIsAccurateButIncomplete) {
    const TriMesh full = sphere(4, 1.0), half = upperHalf(full);
    const MeshComparison r = compare(full, half);
    EXPECT_LT(r.accuracy.p90, 1e-9);
    // Half of the reference's points are up to the full radius away from the
    // rim of the test mesh.
    EXPECT_GT(r.completeness.mean, 0.15);
    EXPECT_GT(r.completeness.p90, 0.5);
    // The other way round the roles swap.
    const MeshComparison swapped = compare(half, full);
    EXPECT_GT(swapped.accuracy.mean, 0.15);
    EXPECT_LT(swapped.completeness.p90, 1e-9);
}

TEST(MeshCompare, SamplesFollowFacetArea) {
    // Test facets: one of area 1/2 on the reference plane, one of area 3/2 at
    // height 1 above it. Sampling by area puts 3/4 of the points at
    // distance 1; sampling per facet would put half of them there.
    TriMesh test;
    test.vertices = {0.2f, 0.2f, 0, 1.2f, 0.2f, 0, 0.2f, 1.2f, 0, 0, 0, 1, 3, 0, 1, 0, 1, 1};
    test.facets = {0, 1, 2, 3, 4, 5};
    test.num_v = 6;
    test.num_f = 2;
    const MeshComparison r = compare(grid(2, 4.0, 0.0), test, 100000);
    EXPECT_NEAR(r.accuracy.mean, 0.75, 0.01);
    EXPECT_NEAR(r.accuracy.median, 1.0, 1e-12);
}

TEST(MeshCompare, SameInputGivesTheSameNumbers) {
    const TriMesh a = sphere(3, 1.0), b = sphere(2, 1.05);
    const MeshComparison r1 = compare(a, b, 5000), r2 = compare(a, b, 5000);
    EXPECT_TRUE(r1.accuracy.mean == r2.accuracy.mean && r1.completeness.median == r2.completeness.median);
}

TEST(MeshCompare, SummaryInterpolatesBetweenOrderStatistics) {
    const DistanceStats s = summarise({7, 3, 10, 1, 5, 2, 9, 4, 8, 6});
    EXPECT_DOUBLE_EQ(s.mean, 5.5);
    EXPECT_DOUBLE_EQ(s.median, 5.5);
    EXPECT_DOUBLE_EQ(s.p90, 9.1);
    const DistanceStats one = summarise({3.0});
    EXPECT_EQ(one.median, 3.0);
    EXPECT_EQ(one.p90, 3.0);
    EXPECT_EQ(summarise({}).mean, 0.0);
}

TEST(MeshCompare, RefusesMeshesThatCannotBeMeasured) {
    const TriMesh good = grid(1, 1.0, 0.0);
    EXPECT_EQ(checkMesh(good), "");
    TriMesh empty;
    EXPECT_NE(checkMesh(empty), "");
    TriMesh bad[4] = {good, good, good, good};
    bad[0].facets[4] = good.num_v, bad[1].facets[4] = -1, bad[2].vertices[2] = std::nanf("");
    for (size_t i = 0; i < good.vertices.size(); i += 3) bad[3].vertices[i] = 0.0f;  // all on one line
    for (const TriMesh& m : bad) EXPECT_NE(checkMesh(m), "");

    MeshComparison result;
    std::string error;
    EXPECT_FALSE(compareMeshes(good, empty, 100, result, error));
    EXPECT_NE(error.find("test mesh"), std::string::npos);
    EXPECT_FALSE(compareMeshes(good, good, 0, result, error));
}

TEST(MeshCompare, DegenerateFacetsAreIgnored) {
    // A zero-area facet far away must neither be sampled nor count as
    // surface.
    TriMesh withSliver = grid(2, 1.0, 0.0);
    withSliver.vertices.insert(withSliver.vertices.end(), {5, 5, 5, 6, 6, 6});
    withSliver.facets.insert(withSliver.facets.end(), {withSliver.num_v, withSliver.num_v + 1, withSliver.num_v});
    withSliver.num_v += 2;
    withSliver.num_f += 1;
    const MeshComparison r = compare(grid(2, 1.0, 0.0), withSliver);
    EXPECT_LT(r.accuracy.mean, 1e-12);
    EXPECT_LT(r.completeness.mean, 1e-12);
}

}  // namespace
